#pragma once

/// \file
/// The platform coordinator: what the framework asks the hosting application
/// (its name, its group, its preferred log level) and how it runs background
/// activities. The application registers its own coordinator at start with
/// ORVRegisterPlatformCoordinator(); until then ORVCoordinator answers with
/// the shared default coordinator.
///
/// Background activities share one systemd-logind inhibitor lock (what
/// "sleep:idle", mode "block"), taken over D-Bus on the system bus when the
/// first activity begins and released when the last one ends. Beginning an
/// activity never waits for logind: the lock is asked for on a queue of its
/// own and held once logind answers. When logind does not answer, the
/// activities hold nothing.

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVLogLevel.h>

#include <QString>

#include <functional>
#include <memory>
#include <mutex>

/// A running background activity. While it runs, the process keeps the
/// shared inhibitor lock (once logind has granted it); ending it (or
/// destroying it) lets the lock go when no other activity runs.
///
/// Thread rule: any thread; the activity has its own lock.
/// Ownership: made by ORVPlatformCoordinator::beginBackgroundTaskWithName()
/// and shared through ORVBackgroundTaskToken; the last owner to let go ends
/// it.
class ORVELLAKIT_EXPORT ORVBackgroundActivity {
public:
    /// Ends the activity if it still runs.
    ~ORVBackgroundActivity();
    ORVBackgroundActivity(const ORVBackgroundActivity &) = delete;
    ORVBackgroundActivity &operator=(const ORVBackgroundActivity &) = delete;

    /// Why the activity runs: the name it was begun with.
    const QString &reason() const { return _reason; }
    /// The activity options, as the platform numbers them (255: background).
    quint64 options() const { return _options; }
    /// True while the activity runs and the process holds the lock.
    bool isInhibiting() const;
    /// Ends the activity; later calls do nothing.
    void end();

private:
    friend class ORVPlatformCoordinator;
    ORVBackgroundActivity(QString reason, quint64 options, bool sharesInhibitor);

    QString _reason;
    quint64 _options;
    mutable std::mutex _lock;
    bool _sharesInhibitor;
};

/// The handle of a background activity; null for none.
using ORVBackgroundTaskToken = std::shared_ptr<ORVBackgroundActivity>;

/// Both the interface and the default coordinator. Subclass it and override
/// what the application knows; appName() and appGroupIdentifier() must be
/// overridden (the defaults throw the abstract-method exception).
///
/// \warning The application MUST override appName() and appGroupIdentifier().
/// The defaults throw ORVException, the abstract-method exception (e.g.
/// "You must override appGroupIdentifier in a subclass" from
/// ORVDebug::setupLogging(), which asks for the group and lets the exception
/// through: logging cannot start with the default coordinator).
/// An application without a group returns an empty string from
/// appGroupIdentifier().
///
/// Thread rule: the framework calls a coordinator on any thread (the network
/// manager, the token manager's queue, logging set-up): overrides must be
/// safe to call from any thread. The default functions are.
/// Ownership: shared. Register the application's one coordinator with
/// ORVRegisterPlatformCoordinator(), which keeps it for the life of the
/// process; the coordinator keeps no reference to the handlers passed in.
class ORVELLAKIT_EXPORT ORVPlatformCoordinator {
public:
    ORVPlatformCoordinator();
    virtual ~ORVPlatformCoordinator();
    ORVPlatformCoordinator(const ORVPlatformCoordinator &) = delete;
    ORVPlatformCoordinator &operator=(const ORVPlatformCoordinator &) = delete;

    /// The application's name. Must be overridden: the default throws the
    /// abstract-method exception.
    virtual QString appName() const;
    /// Whether the application runs in the background; the default: false.
    virtual bool isRunningInBackground() const;
    /// Seconds left to background work; the default: 0.
    virtual double backgroundTimeRemaining() const;
    /// Begins an activity with the background options (255); the reason is
    /// the name, or "ORVPlatformCoordinator" when the name is null. The
    /// expiration handler is neither kept nor called.
    virtual ORVBackgroundTaskToken beginBackgroundTaskWithName(const QString &name,
                                                               std::function<void()> expirationHandler = {});
    /// Ends the activity of `token`; a null token is ignored.
    virtual void endBackgroundTask(const ORVBackgroundTaskToken &token);
    /// The application group whose shared folders hold the logs (empty for
    /// none: the user's own folders). Must be overridden: the default throws
    /// the abstract-method exception.
    virtual QString appGroupIdentifier() const;
    /// The log level logging starts with.
    /// The spelling is deliberate; 1 is the error level.
    virtual ORVLogLevel prefererredDefaultLogLevel() const;

    /// Made once per process, as an instance of the class that asks first:
    ///   MyCoordinator::sharedCoordinator<MyCoordinator>()
    template <typename Class = ORVPlatformCoordinator>
    static std::shared_ptr<ORVPlatformCoordinator> sharedCoordinator()
    {
        return sharedCoordinatorMadeBy([] { return std::shared_ptr<ORVPlatformCoordinator>(new Class()); });
    }

private:
    static std::shared_ptr<ORVPlatformCoordinator>
    sharedCoordinatorMadeBy(const std::function<std::shared_ptr<ORVPlatformCoordinator>()> &make);
};

/// Where the framework finds the coordinator.
///
/// Thread rule: any thread. Ownership: returns a shared coordinator kept for
/// the life of the process.
class ORVELLAKIT_EXPORT ORVCoordinator {
public:
    ORVCoordinator() = delete;
    /// The registered coordinator, or else the shared default one.
    static std::shared_ptr<ORVPlatformCoordinator> platformCoordinator();
};

/// Registers the application's coordinator, once, at start on the main
/// thread. A null coordinator fails "coordinator != nil"; a second
/// registration fails "A platform coordinator was already set".
ORVELLAKIT_EXPORT void ORVRegisterPlatformCoordinator(std::shared_ptr<ORVPlatformCoordinator> coordinator);
