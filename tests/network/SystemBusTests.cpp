// No network request waits for the system bus. A private bus daemon stands
// in for the system bus, with a logind and a hostnamed that answer only when
// the test says so (as a busy or hung service would).

#include "AccountServerFixture.h"

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QStandardPaths>
#include <QThread>

#include <mutex>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

// Keeps every call it receives unanswered until told otherwise.
class HeldCalls : public QDBusVirtualObject {
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        std::lock_guard lock(_mutex);
        _held.push_back(message);
        ++_received;
        return true;
    }
    int count()
    {
        std::lock_guard lock(_mutex);
        return _received;
    }
    std::vector<QDBusMessage> take()
    {
        std::lock_guard lock(_mutex);
        return std::exchange(_held, {});
    }

private:
    std::mutex _mutex;
    std::vector<QDBusMessage> _held;
    int _received = 0;
};

// logind and hostnamed on their own thread of this process. What the test
// and that thread share is handed over through atomics and mutexes of ours,
// so that ThreadSanitizer sees it (Qt's own synchronisation is not
// instrumented).
class StandInServices : public QThread {
public:
    explicit StandInServices(QString address) : _address(std::move(address))
    {
        // The services answer on this thread, whatever the test's thread does.
        _logind.moveToThread(this);
        _hostnamed.moveToThread(this);
        start();
        // What run() sets up before it says so is the test's to read after.
        while (!_started.load(std::memory_order_acquire))
            QThread::msleep(1);
    }
    ~StandInServices() override
    {
        quit();
        wait();
        for (int fd : _readEnds)
            ::close(fd);
    }
    bool isReady() const { return _ok; }
    int inhibitCalls() { return _logind.count(); }
    int hostnamedCalls() { return _hostnamed.count(); }
    // Answers every held Inhibit call with the write end of a new pipe; the
    // read end tells whether the caller still holds the lock.
    void answerInhibitCalls()
    {
        const std::vector<QDBusMessage> calls = _logind.take();
        for (const QDBusMessage &call : calls) {
            int ends[2];
            ASSERT_EQ(::pipe(ends), 0);
            _readEnds.push_back(ends[0]);
            _connection.send(call.createReply(QVariant::fromValue(QDBusUnixFileDescriptor(ends[1]))));
            ::close(ends[1]); // the message took its own copy
        }
    }
    // True while some caller keeps a write end open.
    bool lockHeld() const
    {
        for (int fd : _readEnds) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 0) == 0)
                return true; // no end of file: a writer is still there
        }
        return false;
    }

protected:
    void run() override
    {
        const QString name = QStringLiteral("stand-in-services");
        {
            QDBusConnection connection = QDBusConnection::connectToBus(_address, name);
            const bool ok = connection.isConnected() &&
                            connection.registerService(QStringLiteral("org.freedesktop.login1")) &&
                            connection.registerService(QStringLiteral("org.freedesktop.hostname1")) &&
                            connection.registerVirtualObject(QStringLiteral("/org/freedesktop/login1"), &_logind) &&
                            connection.registerVirtualObject(QStringLiteral("/org/freedesktop/hostname1"), &_hostnamed);
            _connection = connection;
            _ok = ok;
            _started.store(true, std::memory_order_release);
        }
        exec();
        QDBusConnection::disconnectFromBus(name);
    }

private:
    const QString _address;
    HeldCalls _logind;
    HeldCalls _hostnamed;
    std::atomic<bool> _started = false;
    bool _ok = false;
    QDBusConnection _connection{QString()};
    std::vector<int> _readEnds;
};

// A private bus daemon, started with posix_spawn: QProcess forks in a way
// that leaves ThreadSanitizer's view of the starting thread's locks wrong.
class BusDaemon {
public:
    ~BusDaemon()
    {
        if (_pid > 0) {
            ::kill(_pid, SIGTERM);
            ::waitpid(_pid, nullptr, 0);
        }
        if (_output >= 0)
            ::close(_output);
    }
    // The daemon's address, or an empty string.
    QString start(const QString &program, const QString &socket)
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            return {};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        const QByteArray path = QFile::encodeName(program);
        const QByteArray address = "--address=unix:path=" + QFile::encodeName(socket);
        char session[] = "--session", nofork[] = "--nofork", print[] = "--print-address=1";
        char *argv[] = {const_cast<char *>(path.constData()), session, nofork, print,
                        const_cast<char *>(address.constData()), nullptr};
        const int spawned = ::posix_spawn(&_pid, path.constData(), &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        _output = ends[0];
        if (spawned != 0) {
            _pid = -1;
            return {};
        }
        QByteArray line;
        char c = 0;
        pollfd p{_output, POLLIN, 0};
        while (::poll(&p, 1, 10000) > 0 && ::read(_output, &c, 1) == 1 && c != '\n')
            line.append(c);
        return QString::fromUtf8(line).trimmed();
    }

private:
    pid_t _pid = -1;
    int _output = -1;
};

class SystemBusTest : public AccountServerTest {
protected:
    void SetUp() override
    {
        const QString daemonPath = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemonPath.isEmpty())
            GTEST_SKIP() << "no dbus-daemon";
        const QString address = _daemon.start(daemonPath, home.filePath(QStringLiteral("system_bus_socket")));
        ASSERT_FALSE(address.isEmpty());
        // Must be in place before anything of this process looks for the
        // system bus: each test runs in a process of its own.
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
        _services = std::make_unique<StandInServices>(address);
        ASSERT_TRUE(_services->isReady());
        AccountServerTest::SetUp();
    }
    void TearDown() override
    {
        AccountServerTest::TearDown();
        _services.reset();
    }

    BusDaemon _daemon;
    std::unique_ptr<StandInServices> _services;
};

} // namespace

// A foreground request returns at once while logind has not answered; the
// process then holds one inhibitor lock for all requests in flight and
// lets it go when the last one ends.
TEST_F(SystemBusTest, RequestsTakeOneInhibitorWithoutWaitingForIt)
{
    server.script("GET", "/slow", {ScriptedResponse{200, "{}", "application/json", {}, 600ms}});
    std::vector<std::shared_ptr<Delivery>> deliveries;
    for (int i = 0; i < 3; ++i) {
        auto delivery = std::make_shared<Delivery>();
        auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/slow")));
        request->setCompletionHandler(delivery->handler());
        manager->startRequest(request);
        deliveries.push_back(delivery);
    }
    // Had a call waited for logind, it would have given up by now and the
    // answer below would find nobody to take the lock.
    ASSERT_TRUE(waitUntil([&] { return _services->inhibitCalls() >= 1; }));
    _services->answerInhibitCalls();
    EXPECT_TRUE(waitUntil([&] { return _services->lockHeld(); }, 2s)) << "the lock never reached the process";
    EXPECT_EQ(_services->inhibitCalls(), 1) << "one lock for all requests in flight";
    for (const auto &delivery : deliveries) {
        ASSERT_TRUE(delivery->waitForCall());
        EXPECT_EQ(delivery->status(), 200);
    }
    EXPECT_TRUE(waitUntil([&] { return !_services->lockHeld(); })) << "the lock outlived the requests";
}

// The device's name never comes from a D-Bus call that could keep its
// caller waiting.
TEST_F(SystemBusTest, TheDeviceNameNeedsNoBusCall)
{
    class Manager : public ORVOrvellaTokenManager {};
    auto tokenManager = std::make_shared<Manager>();
    const QString name = tokenManager->deviceName();
    EXPECT_FALSE(name.isEmpty());
    spinFor(50ms);
    EXPECT_EQ(_services->hostnamedCalls(), 0);
}
