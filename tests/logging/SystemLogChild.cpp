// Sets up logging twice, as an application that changes its identity at
// launch does, logs one error and writes what the system log received to
// a file, so the test can see under which name the error arrived.
//
//   orv_system_log_child <received file>
//
// The child has a mount table of its own with an empty /dev, where it
// listens at /dev/log itself; nothing of the machine's is touched. It
// exits with 77 when it may not make one (no rights for a namespace).

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVLogging.h>

#include <QCoreApplication>
#include <QFile>

#include <atomic>
#include <cstring>
#include <thread>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
class ChildCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("System Log Child"); }
    QString appGroupIdentifier() const override { return {}; }
};
} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 2;
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/dev", "tmpfs", 0, "size=64k") != 0)
        return 77;
    const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return 3;
    const timeval patience{5, 0};
    ::setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    QFile received(QString::fromLocal8Bit(argv[1]));
    if (!received.open(QIODevice::WriteOnly))
        return 5;
    // The set-up logs a dozen errors of its own, more than the socket
    // queues: they are read as they come, or the logging thread would wait.
    std::atomic<bool> heard{false};
    std::thread reader([&] {
        char buffer[4096];
        for (;;) {
            const ssize_t size = ::recv(listener, buffer, sizeof buffer, 0);
            if (size <= 0)
                return;
            const QByteArray datagram(buffer, static_cast<int>(size));
            received.write(datagram + '\n');
            if (datagram.contains("to the system log")) {
                heard = true;
                return;
            }
        }
    });

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("system-log-child"));
    ORVRegisterPlatformCoordinator(std::make_shared<ChildCoordinator>());
    const bool failed = ORVDebug::sharedDebug()->setupLogging() || ORVDebug::sharedDebug()->setupLogging();
    orv::detail::logMessage(ORVLogFlagError, "System Log Child", __FILE__, __func__, __LINE__,
                            QStringLiteral("to the system log"));
    reader.join();
    received.close();
    return failed ? 4 : heard ? 0 : 6;
}
