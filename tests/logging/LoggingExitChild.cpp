// A short-lived application whose threads are in the middle of handing a
// line to the logger when the main thread returns from main, so that the
// logger's exit handler shuts the logger down under their feet.
//
//   orv_logging_exit_child <threads> <held lines file>
//
// Every thread logs info lines in a loop. To stop them at exactly the
// wrong moment, this program puts its own system_clock::now() in front of
// the C++ library's (spdlog stamps each line with it after the logger has
// decided to queue the line, and before it looks for the queue's worker):
// once the main thread asks, each logging thread waits inside it. The main
// thread then returns from main; an exit handler that runs after the
// logger's own writes which line each thread holds to the file, lets the
// threads go on, and gives them time before the process ends.

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVLogging.h>

#include <QCoreApplication>
#include <QFile>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace {

constexpr int kMaxThreads = 16;
std::atomic<bool> holding{false};
std::atomic<int> held{0};
thread_local bool loggingThread = false;
std::array<std::atomic<quint64>, kMaxThreads> currentLine{};
int threadCount = 0;
QString heldLinesPath;

QString lineText(int thread, quint64 line)
{
    return QStringLiteral("thread %1 line %2").arg(thread).arg(line);
}

class ChildCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("Exit Child"); }
    QString appGroupIdentifier() const override { return {}; }
    ORVLogLevel prefererredDefaultLogLevel() const override { return ORVLogLevelVerbose; }
};

void pause(std::chrono::milliseconds duration)
{
    const timespec time{0, static_cast<long>(std::chrono::nanoseconds(duration).count())};
    ::nanosleep(&time, nullptr);
}

} // namespace

// libstdc++'s clock, replaced in this program only.
namespace std::chrono::_V2 {
system_clock::time_point system_clock::now() noexcept
{
    if (loggingThread && holding.load()) {
        held.fetch_add(1);
        while (holding.load())
            pause(std::chrono::milliseconds(1));
    }
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return time_point(duration(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec)));
}
} // namespace std::chrono::_V2

int main(int argc, char **argv)
{
    // Registered before anything is logged, so it runs after the logger's
    // own exit handler.
    std::atexit([] {
        QFile file(heldLinesPath);
        if (file.open(QIODevice::WriteOnly)) {
            for (int t = 0; t < threadCount; ++t)
                file.write(lineText(t, currentLine[t].load()).toUtf8() + '\n');
        }
        file.close();
        holding = false;
        pause(std::chrono::milliseconds(100));
    });
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("logging-exit-child"));
    if (argc < 3)
        return 2;
    threadCount = std::min(QByteArray(argv[1]).toInt(), kMaxThreads);
    heldLinesPath = QString::fromLocal8Bit(argv[2]);
    ORVRegisterPlatformCoordinator(std::make_shared<ChildCoordinator>());
    if (ORVDebug::sharedDebug()->setupLogging())
        return 3;
    ORVDebug::sharedDebug()->setLogLevel(ORVLogLevelVerbose);

    for (int t = 0; t < threadCount; ++t) {
        // Detached: they are still logging when the process exits.
        std::thread([t] {
            loggingThread = true;
            for (quint64 i = 0;; ++i) {
                currentLine[t] = i;
                orv::detail::logMessage(ORVLogFlagInfo, "Exit Child", __FILE__, __func__, __LINE__, lineText(t, i));
            }
        }).detach();
    }
    pause(std::chrono::milliseconds(20));
    holding = true;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (held.load() < threadCount) {
        if (std::chrono::steady_clock::now() > end)
            return 4;
        pause(std::chrono::milliseconds(1));
    }
    return 0;
}
