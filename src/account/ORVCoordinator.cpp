#include "../platform/ORVSystemBus.h"
#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVCoordinator.h>

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

ORVBackgroundActivity::ORVBackgroundActivity(QString reason, quint64 options, int inhibitorFd)
    : _reason(std::move(reason)), _options(options), _inhibitorFd(inhibitorFd)
{
}

ORVBackgroundActivity::~ORVBackgroundActivity()
{
    end();
}

bool ORVBackgroundActivity::isInhibiting() const
{
    std::lock_guard lock(_lock);
    return _inhibitorFd >= 0;
}

void ORVBackgroundActivity::end()
{
    std::lock_guard lock(_lock);
    if (_inhibitorFd >= 0) {
        ::close(_inhibitorFd);
        _inhibitorFd = -1;
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
    const int fd = takeInhibitorLock(activityOwnerName(*this), reason);
    return ORVBackgroundTaskToken(new ORVBackgroundActivity(reason, kBackgroundActivityOptions, fd));
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
