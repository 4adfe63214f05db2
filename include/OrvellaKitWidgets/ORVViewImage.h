#pragma once

/// \file
/// Snapshots of a widget into an image.
///
/// Threads: main thread only (widgets are rendered).

#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QImage>
#include <QRect>

class QWidget;

/// A bitmap of `rect` (widget coordinates, clipped to the view) of the view at
/// the view's device pixel ratio. Synchronous: the widget is rendered now, as
/// it would paint (QWidget::grab). Otherwise an image for caching the
/// rectangle is cleared to transparent and the view draws the rectangle into
/// it (QWidget::render, without its background). A null view or an empty
/// rectangle gives a null image.
ORVELLAKIT_WIDGETS_EXPORT QImage ORVImageRepFromView(QWidget *view, const QRect &rect, bool synchronous);
/// The same bitmap as the only representation of a new image.
ORVELLAKIT_WIDGETS_EXPORT QImage ORVImageFromView(QWidget *view, const QRect &rect, bool synchronous);
