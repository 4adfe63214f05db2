#include "../platform/ORVSystemBus.h"
#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVCoordinator.h>

#include <OrvellaKit/ORVDispatchQueue.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QFileInfo>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr quint64 kBackgroundActivityOptions = 255;
constexpr int kLogindTimeoutMs = 1000;
constexpr const char *kCoordinatorFile = "ORVCoordinator";

std::mutex registrationLock;
std::shared_ptr<ORVPlatformCoordinator> registeredCoordinator;

// Asks logind for a "block" inhibitor of sleep and idle. Returns the lock's
// file descriptor, or -1 when logind does not answer (no system bus in a
// container, no logind, or a refusal).
int takeInhibitorLock(const QString &who, const QString &why)
{
    if (!orv::detail::systemBusMayExist())
        return -1;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return -1;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep:idle") << who << why << QStringLiteral("block");
    const QDBusReply<QDBusUnixFileDescriptor> reply = bus.call(call, QDBus::Block, kLogindTimeoutMs);
    if (!reply.isValid() || !reply.value().isValid())
        return -1;
    // The reply object closes its own copy; keep a duplicate.
    return ::fcntl(reply.value().fileDescriptor(), F_DUPFD_CLOEXEC, 0);
}

// One inhibitor lock for all of the process's activities: taken when the
// first one begins, released when the last one ends. Asking logind is a
// system-bus call that can take a second or more (or its whole time-out when
// logind is busy); it runs on a queue of its own, never on the caller's
// thread, and the activity is running before the answer is in.
class SharedInhibitor {
public:
    static SharedInhibitor &instance()
    {
        // Never destroyed: an answer may still arrive while the process exits.
        static auto *shared = new SharedInhibitor;
        return *shared;
    }

    // `who` is asked for only when logind is: it may cost an exception.
    void acquire(const std::function<QString()> &who, const QString &why)
    {
        {
            std::lock_guard lock(_lock);
            ++_users;
            if (_fd >= 0 || _asking || !orv::detail::systemBusMayExist())
                return;
            _asking = true;
        }
        _queue->async([this, owner = who(), why] { answered(takeInhibitorLock(owner, why)); });
    }

    void release()
    {
        std::lock_guard lock(_lock);
        if (_users > 0 && --_users == 0 && _fd >= 0) {
            ::close(_fd);
            _fd = -1;
        }
    }

    bool isHeld() const
    {
        std::lock_guard lock(_lock);
        return _fd >= 0;
    }

private:
    void answered(int fd)
    {
        std::lock_guard lock(_lock);
        _asking = false;
        if (_users > 0 && _fd < 0) {
            _fd = fd;
            return;
        }
        // Everybody finished before logind answered.
        if (fd >= 0)
            ::close(fd);
    }

    mutable std::mutex _lock;
    int _users = 0;
    int _fd = -1;
    bool _asking = false;
    const std::shared_ptr<ORVDispatchQueue> _queue = ORVDispatchQueue::create(QStringLiteral("ORVBackgroundActivity"));
};

QString activityOwnerName(const ORVPlatformCoordinator &coordinator)
{
    try {
        const QString name = coordinator.appName();
        if (!name.isEmpty())
            return name;
    } catch (const ORVException &) {
        // The default coordinator has no name of its own.
    }
    if (!QCoreApplication::applicationName().isEmpty())
        return QCoreApplication::applicationName();
    return QFileInfo(ORVLaunchExecutablePath()).fileName();
}

} // namespace

ORVBackgroundActivity::ORVBackgroundActivity(QString reason, quint64 options, bool sharesInhibitor)
    : _reason(std::move(reason)), _options(options), _sharesInhibitor(sharesInhibitor)
{
}

ORVBackgroundActivity::~ORVBackgroundActivity()
{
    end();
}

bool ORVBackgroundActivity::isInhibiting() const
{
    std::lock_guard lock(_lock);
    return _sharesInhibitor && SharedInhibitor::instance().isHeld();
}

void ORVBackgroundActivity::end()
{
    std::lock_guard lock(_lock);
    if (_sharesInhibitor) {
        _sharesInhibitor = false;
        SharedInhibitor::instance().release();
    }
}

ORVPlatformCoordinator::ORVPlatformCoordinator() = default;
ORVPlatformCoordinator::~ORVPlatformCoordinator() = default;

QString ORVPlatformCoordinator::appName() const
{
    orv_abstractMethodException("appName").raise();
}

bool ORVPlatformCoordinator::isRunningInBackground() const
{
    return false;
}

double ORVPlatformCoordinator::backgroundTimeRemaining() const
{
    return 0.0;
}

ORVBackgroundTaskToken ORVPlatformCoordinator::beginBackgroundTaskWithName(const QString &name,
                                                                           std::function<void()> expirationHandler)
{
    Q_UNUSED(expirationHandler); // deliberately neither kept nor called
    const QString reason = name.isNull() ? QStringLiteral("ORVPlatformCoordinator") : name;
    SharedInhibitor::instance().acquire([this] { return activityOwnerName(*this); }, reason);
    return ORVBackgroundTaskToken(new ORVBackgroundActivity(reason, kBackgroundActivityOptions, true));
}

void ORVPlatformCoordinator::endBackgroundTask(const ORVBackgroundTaskToken &token)
{
    if (token)
        token->end();
}

QString ORVPlatformCoordinator::appGroupIdentifier() const
{
    orv_abstractMethodException("appGroupIdentifier").raise();
}

ORVLogLevel ORVPlatformCoordinator::prefererredDefaultLogLevel() const
{
    return 1;
}

std::shared_ptr<ORVPlatformCoordinator> ORVPlatformCoordinator::sharedCoordinatorMadeBy(
    const std::function<std::shared_ptr<ORVPlatformCoordinator>()> &make)
{
    static std::once_flag once;
    static std::shared_ptr<ORVPlatformCoordinator> shared;
    std::call_once(once, [&] { shared = make(); });
    return shared;
}

std::shared_ptr<ORVPlatformCoordinator> ORVCoordinator::platformCoordinator()
{
    {
        std::lock_guard lock(registrationLock);
        if (registeredCoordinator)
            return registeredCoordinator;
    }
    return ORVPlatformCoordinator::sharedCoordinator();
}

void ORVRegisterPlatformCoordinator(std::shared_ptr<ORVPlatformCoordinator> coordinator)
{
    constexpr const char *function = "void ORVRegisterPlatformCoordinator(id<ORVPlatformCoordinator> _Nonnull)";
    if (!coordinator) {
        orv::detail::assertionFailedInFunction(function, kCoordinatorFile, 19,
                                               orv::detail::parameterAssertionDescription("coordinator != nil"));
    }
    bool alreadySet = false;
    {
        std::lock_guard lock(registrationLock);
        alreadySet = registeredCoordinator != nullptr;
    }
    if (alreadySet) {
        orv::detail::assertionFailedInFunction(function, kCoordinatorFile, 20,
                                               QStringLiteral("A platform coordinator was already set"));
    }
    std::lock_guard lock(registrationLock);
    registeredCoordinator = std::move(coordinator);
}
