#pragma once

/// \file
/// The version of the loaded library. The version of the headers compiled
/// against is in ORVVersionMacros.h. Any thread.

#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVVersionMacros.h>

#include <QString>

/// The loaded library's version, "major.minor.patch" (ORVELLAKIT_VERSION_STR
/// is the version of the headers compiled against).
ORVELLAKIT_EXPORT QString ORVOrvellaKitVersionString();
