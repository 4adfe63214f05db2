#pragma once

/// \file
/// Where the folders an application expects live on Linux. The mapping (see
/// the README) follows the XDG base directories:
///
/// \verbatim
///   Library                 $XDG_STATE_HOME            (~/.local/state)
///   Library/Logs            $XDG_STATE_HOME/Logs
///   Application Support     $XDG_DATA_HOME/<bundle id> (~/.local/share/<id>)
///   Caches                  $XDG_CACHE_HOME/<bundle id>
///   group container G       $XDG_DATA_HOME/group-containers/G
///   temporary directory     QDir::tempPath()           ($TMPDIR or /tmp)
///   private temporary       $XDG_CACHE_HOME/<bundle id>/tmp, mode 0700
///                           (else $XDG_RUNTIME_DIR/<bundle id>)
/// \endverbatim
///
/// Functions that say "created" make the folder (and its parents) when it is
/// missing; they return a null string when that fails. Without $HOME (or with
/// HOME=/) the home folder is the one of the user's passwd entry; with none
/// there either, every folder under it is a null string, never one at "/".
///
/// The functions may be called on any thread; they keep no state of their
/// own and read the environment on every call.

#include <OrvellaKit/ORVExport.h>

#include <QString>

/// The user's configuration folder: $XDG_CONFIG_HOME, else ~/.config.
ORVELLAKIT_EXPORT QString ORVUserConfigDirectory(bool create = false);
/// Every application of the family shares the Library folder, as on the
/// platform the framework comes from; files inside are named per application.
ORVELLAKIT_EXPORT QString ORVUserLibraryDirectory(bool create = true);
/// The application's own data folder (bundle identifier; the executable name
/// when there is none), created.
ORVELLAKIT_EXPORT QString ORVApplicationSupportDirectory(bool create = true);
/// The application's cache folder, $XDG_CACHE_HOME/ORVApplicationFolderName(),
/// created.
ORVELLAKIT_EXPORT QString ORVCachesDirectory(bool create = true);
/// The shared container of an application group, created.
ORVELLAKIT_EXPORT QString ORVGroupContainerDirectory(const QString &groupIdentifier, bool create = true);
/// The system's temporary folder, QDir::tempPath(); never created.
ORVELLAKIT_EXPORT QString ORVTemporaryDirectory();
/// A folder that only the user can enter (0700), for files in transit that
/// must not be readable by others: downloads and the URL cache. Under the
/// application's cache folder, or its runtime folder when the cache folder
/// cannot be made private; created. A null string when neither can, or when
/// the place is a symbolic link or belongs to someone else.
ORVELLAKIT_EXPORT QString ORVPrivateTemporaryDirectory();

/// The name used for per-application folders: the main bundle's identifier,
/// else QCoreApplication::applicationName(), else the executable's name.
ORVELLAKIT_EXPORT QString ORVApplicationFolderName();
