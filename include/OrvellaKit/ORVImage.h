#pragma once

/// \file
/// Image helpers on QImage and QPainter, and running changes without the
/// framework's own animations.
///
/// Threads: any thread (a painter on a widget is used on the main thread, as
/// Qt requires). The animation setting is per thread.

#include <OrvellaKit/ORVExport.h>

#include <QByteArray>
#include <QColor>
#include <QImage>
#include <QRectF>

#include <functional>

class QPainter;

/// An image decoded from the data (any format Qt's image plugins read); a
/// null QImage when the data is not an image. Null data fails "data != nil".
ORVELLAKIT_EXPORT QImage orv_imageWithData(const QByteArray &data);

/// Draws `image` into `rect` tinted with `tintColor`: the image with
/// source-over at full opacity into a transparency layer, then the colour
/// filled with source-in, so the colour replaces the image's colours and keeps
/// its alpha. With `flipped` the image is drawn upside down.
ORVELLAKIT_EXPORT void orv_drawImageApplyingTintColor(QPainter &painter, const QRectF &rect, const QImage &image,
                                                      const QColor &tintColor, bool flipped);

/// A new image of the same logical size, tinted as above and rendered at
/// `devicePixelRatio` (the source's own when 0). An invalid colour fails
/// "tintColor != nil" and gives a null image.
ORVELLAKIT_EXPORT QImage orv_imageByApplyingTintColor(const QImage &image, const QColor &tintColor,
                                                      bool flipped = false, qreal devicePixelRatio = 0);

/// Runs `actions` with the framework's animations turned off: views that would
/// animate a change (the preferences window's pane switch, for one) apply it
/// at once. Calls nest; the setting is per thread. An empty function fails
/// "actions != NULL".
ORVELLAKIT_EXPORT void orv_performWithoutAnimation(const std::function<void()> &actions);
/// Whether the framework may animate on the calling thread now.
ORVELLAKIT_EXPORT bool ORVAnimationsEnabled();
