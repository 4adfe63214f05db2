#pragma once

// The window components of OrvellaKit, on Qt Widgets.

#include <QString>

// The version of the widgets library; it matches ORVOrvellaKitVersionString().
QString ORVOrvellaKitWidgetsVersionString();
