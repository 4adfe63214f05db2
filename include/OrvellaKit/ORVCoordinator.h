#pragma once

// The platform coordinator: what the framework asks the hosting application
// (its name, its group, its preferred log level) and how it runs background
// activities. The application registers its own coordinator at start with
// ORVRegisterPlatformCoordinator(); until then ORVCoordinator answers with
// the shared default coordinator.
//
// Background activities share one systemd-logind inhibitor lock (what
// "sleep:idle", mode "block"), taken over D-Bus on the system bus when the
// first activity begins and released when the last one ends. Beginning an
// activity never waits for logind: the lock is asked for on a queue of its
// own and held once logind answers. When logind does not answer, the
// activities hold nothing.

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVLogLevel.h>

#include <QString>

#include <functional>
#include <memory>
#include <mutex>

// A running background activity. While it runs, the process keeps the
// shared inhibitor lock (once logind has granted it); ending it (or
// destroying it) lets the lock go when no other activity runs.
class ORVBackgroundActivity {
public:
    ~ORVBackgroundActivity();
    ORVBackgroundActivity(const ORVBackgroundActivity &) = delete;
    ORVBackgroundActivity &operator=(const ORVBackgroundActivity &) = delete;

    const QString &reason() const { return _reason; }
    // The activity options, as the platform numbers them (255: background).
    quint64 options() const { return _options; }
    // True while the activity runs and the process holds the lock.
    bool isInhibiting() const;
    // Ends the activity; later calls do nothing.
    void end();

private:
    friend class ORVPlatformCoordinator;
    ORVBackgroundActivity(QString reason, quint64 options, bool sharesInhibitor);

    QString _reason;
    quint64 _options;
    mutable std::mutex _lock;
    bool _sharesInhibitor;
};

using ORVBackgroundTaskToken = std::shared_ptr<ORVBackgroundActivity>;

// Both the interface and the default coordinator. Subclass it and override
// what the application knows; appName() and appGroupIdentifier() must be
// overridden (the defaults throw the abstract-method exception).
class ORVPlatformCoordinator {
public:
    ORVPlatformCoordinator();
    virtual ~ORVPlatformCoordinator();
    ORVPlatformCoordinator(const ORVPlatformCoordinator &) = delete;
    ORVPlatformCoordinator &operator=(const ORVPlatformCoordinator &) = delete;

    virtual QString appName() const;
    virtual bool isRunningInBackground() const;
    virtual double backgroundTimeRemaining() const;
    // Begins an activity with the background options (255); the reason is
    // the name, or "ORVPlatformCoordinator" when the name is null. The
    // expiration handler is neither kept nor called.
    virtual ORVBackgroundTaskToken beginBackgroundTaskWithName(const QString &name,
                                                               std::function<void()> expirationHandler = {});
    virtual void endBackgroundTask(const ORVBackgroundTaskToken &token);
    virtual QString appGroupIdentifier() const;
    // The spelling is deliberate; 1 is the error level.
    virtual ORVLogLevel prefererredDefaultLogLevel() const;

    // Made once per process, as an instance of the class that asks first:
    //   MyCoordinator::sharedCoordinator<MyCoordinator>()
    template <typename Class = ORVPlatformCoordinator>
    static std::shared_ptr<ORVPlatformCoordinator> sharedCoordinator()
    {
        return sharedCoordinatorMadeBy([] { return std::shared_ptr<ORVPlatformCoordinator>(new Class()); });
    }

private:
    static std::shared_ptr<ORVPlatformCoordinator>
    sharedCoordinatorMadeBy(const std::function<std::shared_ptr<ORVPlatformCoordinator>()> &make);
};

class ORVCoordinator {
public:
    ORVCoordinator() = delete;
    // The registered coordinator, or else the shared default one.
    static std::shared_ptr<ORVPlatformCoordinator> platformCoordinator();
};

// Registers the application's coordinator, once, at start on the main
// thread. A null coordinator fails "coordinator != nil"; a second
// registration fails "A platform coordinator was already set".
void ORVRegisterPlatformCoordinator(std::shared_ptr<ORVPlatformCoordinator> coordinator);
