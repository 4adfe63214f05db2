#pragma once

/// \file
/// Launch-time safeguards: another running copy of the application, and an
/// application whose folder was moved while it runs.
///
/// A copy is another process of the same user in the same login session
/// (the same session bus and, when both have one, the same XDG_SESSION_ID)
/// whose executable lies in a bundle folder (an Info.json beside it, see
/// ORVBundle) with this application's "CFBundleIdentifier", while that
/// folder still exists; for an application without an Info.json (its
/// dictionary set with setInfoDictionary()), a process of the same
/// executable file. Copies tell each
/// other to quit with the distributed notification
/// "ORVDuplicateAppManagerQuitDuplicatesNotification" (object: the bundle
/// identifier) on the session bus; a copy told so posts
/// "ORVDuplicateAppManagerWillQuitAsDuplicateNotification" on the default
/// ORVNotificationCenter (a last chance to save) and quits: its event loops
/// end even when a window would refuse to close (an open alert, say). A
/// copy obeys only a sender in its own login session (the user's sessions
/// may share one bus), and never its own message.
///
/// \code
///   auto duplicates = ORVDuplicateAppManager::sharedManager();
///   duplicates->registerApp();                              // early at launch
///   if (duplicates->quitDuplicates(false, false, appIcon))  // asks the user
///       return app.exec();                                   // this copy ends
///   ORVCheckIfApplicationMoved(true);                       // e.g. on activation
/// \endcode
///
/// Everything runs on the main thread; sendQuitMessage() waits up to five
/// seconds in a local event loop that holds back only user input.

#include <QImage>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

#include <OrvellaKit/ORVDistributedNotificationCenter.h>
#include <OrvellaKitWidgets/ORVMAlert.h>
#include <OrvellaKitWidgets/ORVWidgetsExport.h>

class ORVBundle;

/// "ORVDuplicateAppManagerQuitDuplicatesNotification": the distributed
/// notification that asks the other copies to quit.
extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVDuplicateAppManagerQuitDuplicatesNotification;
/// "ORVDuplicateAppManagerWillQuitAsDuplicateNotification": posted on the
/// default ORVNotificationCenter before a copy told to quit does so.
extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVDuplicateAppManagerWillQuitAsDuplicateNotification;

/// A running process of an application bundle.
struct ORVRunningApplication {
    qint64 processIdentifier = 0; ///< The process ID.
    QString executablePath;       ///< The process's executable.
    QString bundlePath;           ///< The bundle folder the executable belongs to.
};

/// The first process other than this one (walking `procRoot`, /proc) whose
/// executable's folder is a bundle with `bundleIdentifier` that still
/// exists. Processes whose executable cannot be read (gone meanwhile, another
/// user's) are skipped; nothing when none is found or the folder cannot be
/// read.
/// Any thread.
ORVELLAKIT_WIDGETS_EXPORT std::optional<ORVRunningApplication>
ORVFindDuplicateProcess(const QString &bundleIdentifier, const QString &procRoot = QStringLiteral("/proc"));

/// Compares version strings with their digit runs taken as numbers ("1.10"
/// after "1.9"): negative, 0 or positive.
ORVELLAKIT_WIDGETS_EXPORT int ORVCompareVersionStrings(const QString &a, const QString &b);

/// Finds other running copies of the application and makes them (or this
/// copy) quit; see the file overview. Subclass it to change what quitting
/// does (quitNotificationReceived(), terminate()).
///
/// Threads: main thread only (sharedManager() may be called from any thread).
/// Ownership: the shared manager lives until the process ends. While
/// registered, the manager is referenced by the notification observer; it
/// unregisters when destroyed.
class ORVELLAKIT_WIDGETS_EXPORT ORVDuplicateAppManager {
public:
    /// Unregisters.
    virtual ~ORVDuplicateAppManager();
    ORVDuplicateAppManager(const ORVDuplicateAppManager &) = delete;
    ORVDuplicateAppManager &operator=(const ORVDuplicateAppManager &) = delete;

    /// Made once per process, as an instance of the class that asks first:
    /// \code
    ///   ORVDuplicateAppManager::sharedManager<MyManager>()
    /// \endcode
    template<class Class = ORVDuplicateAppManager>
    static std::shared_ptr<ORVDuplicateAppManager> sharedManager()
    {
        return sharedManagerMadeBy([] { return std::shared_ptr<ORVDuplicateAppManager>(new Class()); });
    }
    /// The class form of quitDuplicates(): the shared manager, asking the
    /// user unless `quitWithoutAsking`, copies allowed together, no icon.
    /// True when this copy is the one ending.
    static bool quitDuplicates(bool quitWithoutAsking);

    /// Listens for the quit notification of this application's bundle
    /// identifier; false (with a log line) without a session bus or an
    /// identifier. Calling it again keeps one registration.
    bool registerApp();
    /// Stops listening; nothing when not registered.
    void unregisterApp();
    /// Whether registerApp() is in force.
    bool isRegistered() const { return static_cast<bool>(_observation); }

    /// Posts ORVDuplicateAppManagerWillQuitAsDuplicateNotification, then
    /// terminates the application.
    virtual void quitNotificationReceived();

    /// Looks for a copy; none: returns. `quitWithoutAsking`: unregisters and
    /// sends the quit message. Otherwise asks with an ORVMAlert (texts in the
    /// translation context "DuplicateApp"): quit the other copy (then as
    /// above), or, when `requireQuit`, quit this one, or else ignore it.
    /// True when this copy is the one ending (the user chose "Quit This
    /// Copy"): the caller should stop its start-up and let the event loop
    /// end.
    bool quitDuplicates(bool quitWithoutAsking, bool requireQuit, const QImage &appIcon);

    /// The alert quitDuplicates() asks with (not yet shown): for a copy that
    /// must not run beside another (`requireQuit`), or one that is `newer`.
    /// The caller owns the alert.
    static std::unique_ptr<ORVMAlert> duplicateAlert(bool requireQuit, bool newer, const QImage &appIcon = QImage());

    /// Posts the quit message, then checks every half second, at most ten
    /// times, whether a copy is still running; meanwhile the event loop runs
    /// (timers, painting, the session bus) but user input waits.
    void sendQuitMessage();

protected:
    /// Made through sharedManager().
    ORVDuplicateAppManager();
    /// Ends the application: every event loop of the main thread ends with
    /// 0, the running ones (a modal alert's too) and any started afterwards
    /// up to the application's own exec(), so neither a window that refuses
    /// to close nor start-up code that goes on can keep the copy running.
    virtual void terminate();

private:
    static std::shared_ptr<ORVDuplicateAppManager>
    sharedManagerMadeBy(const std::function<std::shared_ptr<ORVDuplicateAppManager>()> &make);

    ORVDistributedNotificationToken _observation;
};

/// Whether nothing exists any more at the bundle's path (it was moved,
/// renamed or deleted).
ORVELLAKIT_WIDGETS_EXPORT bool ORVCheckIfBundleMoved(const ORVBundle &bundle);
/// Whether the main bundle moved since launch. With `showAlert` and a moved
/// bundle, a critical alert tells the user; when the application can be found
/// again (the running executable's new place, a bundle of the same
/// identifier) it offers "Relaunch", which starts that executable as a new
/// process with the same arguments and quits this one, or "Don't Relaunch"
/// (Escape).
/// Main thread only.
ORVELLAKIT_WIDGETS_EXPORT bool ORVCheckIfApplicationMoved(bool showAlert);
