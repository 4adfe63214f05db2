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
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

#include <poll.h>
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
        std::lock_guard lock(mutex);
        held.push_back(message);
        ++received;
        return true;
    }
    std::mutex mutex;
    std::vector<QDBusMessage> held;
    int received = 0;
};

// logind and hostnamed on their own thread of this process.
class StandInServices {
public:
    explicit StandInServices(const QString &address)
    {
        _thread.start();
        _logind = new HeldCalls;
        _hostnamed = new HeldCalls;
        _logind->moveToThread(&_thread);
        _hostnamed->moveToThread(&_thread);
        QMetaObject::invokeMethod(
            _logind,
            [this, address] {
                _connection = QDBusConnection::connectToBus(address, QStringLiteral("stand-in-services"));
                _ok = _connection.isConnected() &&
                      _connection.registerService(QStringLiteral("org.freedesktop.login1")) &&
                      _connection.registerService(QStringLiteral("org.freedesktop.hostname1")) &&
                      _connection.registerVirtualObject(QStringLiteral("/org/freedesktop/login1"), _logind) &&
                      _connection.registerVirtualObject(QStringLiteral("/org/freedesktop/hostname1"), _hostnamed);
            },
            Qt::BlockingQueuedConnection);
    }
    ~StandInServices()
    {
        QMetaObject::invokeMethod(
            _logind,
            [this] {
                QDBusConnection::disconnectFromBus(QStringLiteral("stand-in-services"));
                delete _logind;
                delete _hostnamed;
            },
            Qt::BlockingQueuedConnection);
        _thread.quit();
        _thread.wait();
        for (int fd : _readEnds)
            ::close(fd);
    }
    bool isReady() const { return _ok; }
    int inhibitCalls()
    {
        std::lock_guard lock(_logind->mutex);
        return _logind->received;
    }
    int hostnamedCalls()
    {
        std::lock_guard lock(_hostnamed->mutex);
        return _hostnamed->received;
    }
    // Answers every held Inhibit call with the write end of a new pipe; the
    // read end tells whether the caller still holds the lock.
    void answerInhibitCalls()
    {
        std::vector<QDBusMessage> calls;
        {
            std::lock_guard lock(_logind->mutex);
            calls.swap(_logind->held);
        }
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

private:
    QThread _thread;
    HeldCalls *_logind = nullptr;
    HeldCalls *_hostnamed = nullptr;
    QDBusConnection _connection{QString()};
    bool _ok = false;
    std::vector<int> _readEnds;
};

class SystemBusTest : public AccountServerTest {
protected:
    void SetUp() override
    {
        const QString daemonPath = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemonPath.isEmpty())
            GTEST_SKIP() << "no dbus-daemon";
        const QString socket = home.filePath(QStringLiteral("system_bus_socket"));
        _daemon.setProgram(daemonPath);
        _daemon.setArguments({QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1"),
                              QStringLiteral("--address=unix:path=") + socket});
        _daemon.start();
        ASSERT_TRUE(_daemon.waitForStarted());
        ASSERT_TRUE(waitUntil([&] { return _daemon.canReadLine(); }, 10s));
        const QString address = QString::fromUtf8(_daemon.readLine()).trimmed();
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
        _daemon.kill();
        _daemon.waitForFinished();
    }

    QProcess _daemon;
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
