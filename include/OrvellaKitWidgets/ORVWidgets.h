#pragma once

/// \file
/// The window components of OrvellaKit, on Qt Widgets.

#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QString>

/// The version of the widgets library; it matches ORVOrvellaKitVersionString().
/// Any thread.
ORVELLAKIT_WIDGETS_EXPORT QString ORVOrvellaKitWidgetsVersionString();
