// The crash report dialog reads the user's own card from AccountsService on
// the system bus. The test machine has no system bus, so this suite runs in
// its own D-Bus session and points the system bus address at that session,
// where a stand-in for AccountsService answers (the one service here that
// cannot exist on the machine).

#include "OrvTestSupport.h"

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVUserDefaults.h>
#include <OrvellaKitWidgets/ORVCrashReportWindowController.h>

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDialogButtonBox>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <unistd.h>

using namespace orv::test;

// A user as AccountsService publishes it.
class FakeAccountsUser : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Accounts.User")
    Q_PROPERTY(QString RealName READ realName)
    Q_PROPERTY(QString Email READ email)
public:
    QString realName() const { return QStringLiteral("Ada Lovelace"); }
    QString email() const { return QStringLiteral("ada@analytical.example"); }
};

class FakeAccounts : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Accounts")
public:
    FakeAccounts(std::atomic<int> &lookups, std::atomic<qint64> &askedFor, int delayMilliseconds)
        : lookups(lookups), askedFor(askedFor), delayMilliseconds(delayMilliseconds)
    {
    }
    std::atomic<int> &lookups;
    std::atomic<qint64> &askedFor;
    const int delayMilliseconds;
public slots:
    QDBusObjectPath FindUserById(qint64 uid)
    {
        // A service that hangs for a while.
        if (delayMilliseconds > 0)
            QThread::msleep(static_cast<unsigned long>(delayMilliseconds));
        ++lookups;
        askedFor = uid;
        return QDBusObjectPath(QStringLiteral("/org/freedesktop/Accounts/User%1").arg(uid));
    }
};

namespace {

// Points the system bus at this test's session bus before anything asks
// for it.
class SystemBusOnSessionBus : public ::testing::Environment {
public:
    void SetUp() override
    {
        const QByteArray session = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        if (!session.isEmpty())
            qputenv("DBUS_SYSTEM_BUS_ADDRESS", session);
    }
};
[[maybe_unused]] auto *const systemBusEnvironment = ::testing::AddGlobalTestEnvironment(new SystemBusOnSessionBus);

// The stand-in service on its own connection and thread, so that the
// dialog's blocking call on the main thread gets a real answer. The thread
// is a std::thread and hands over through a mutex, so ThreadSanitizer sees
// every handoff between it and the test.
class AccountsService {
public:
    explicit AccountsService(int delayMilliseconds = 0) : _delayMilliseconds(delayMilliseconds)
    {
        _thread = std::thread([this] { serve(); });
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [this] { return _ready; });
    }
    ~AccountsService()
    {
        _stop = true;
        _thread.join();
    }
    int lookups() const { return _lookups.load(); }
    qint64 askedFor() const { return _askedFor.load(); }
    bool registered() const
    {
        std::lock_guard lock(_mutex);
        return _registered;
    }

private:
    void serve()
    {
        QEventLoop loop;
        FakeAccounts accounts(_lookups, _askedFor, _delayMilliseconds);
        FakeAccountsUser user;
        QDBusConnection bus = QDBusConnection::connectToBus(qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"),
                                                            QStringLiteral("fake-accounts"));
        const bool registered =
            bus.registerObject(QStringLiteral("/org/freedesktop/Accounts"), &accounts, QDBusConnection::ExportAllSlots) &&
            bus.registerObject(QStringLiteral("/org/freedesktop/Accounts/User%1").arg(getuid()), &user,
                               QDBusConnection::ExportAllProperties) &&
            bus.registerService(QStringLiteral("org.freedesktop.Accounts"));
        {
            std::lock_guard lock(_mutex);
            _registered = registered;
            _ready = true;
        }
        _changed.notify_all();
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
            if (_stop)
                loop.quit();
        });
        poll.start(10);
        loop.exec();
        bus.unregisterService(QStringLiteral("org.freedesktop.Accounts"));
        bus.unregisterObject(QStringLiteral("/org/freedesktop/Accounts"), QDBusConnection::UnregisterTree);
        QDBusConnection::disconnectFromBus(QStringLiteral("fake-accounts"));
    }

    const int _delayMilliseconds;
    std::thread _thread;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    bool _ready = false;
    bool _registered = false;
    std::atomic<bool> _stop = false;
    std::atomic<int> _lookups = 0;
    std::atomic<qint64> _askedFor = -1;
};

class CrashReportTest : public XdgHomeTest {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) << "run under dbus-run-session";
        defaults = ORVUserDefaults::defaultsWithPath(home.filePath("crash.conf"));
        ORVBundle::mainBundle().setInfoDictionary({{"CFBundleName", "kalendro"}, {"CFBundleDisplayName", "Kalendro"}});
    }
    std::shared_ptr<ORVUserDefaults> defaults;
};

TEST_F(CrashReportTest, WithBothStoredNoCardIsReadAndTheCommentsHaveFocus)
{
    AccountsService service;
    ASSERT_TRUE(service.registered());
    defaults->setString("Grace Hopper", "CrashReportName");
    defaults->setString("grace@example.org", "CrashReportEmail");

    ORVCrashReportWindowController dialog(defaults);
    dialog.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
    EXPECT_EQ(service.lookups(), 0);
    EXPECT_EQ(dialog.nameTextField()->text(), "Grace Hopper");
    EXPECT_EQ(dialog.emailTextField()->text(), "grace@example.org");
    EXPECT_EQ(dialog.focusWidget(), dialog.commentsTextView());
    EXPECT_EQ(dialog.headingTextField()->text(), "Kalendro quit unexpectedly.");
}

TEST_F(CrashReportTest, AMissingValueBringsInTheUsersOwnCardForBoth)
{
    AccountsService service;
    ASSERT_TRUE(service.registered());
    defaults->setString("Someone Else", "CrashReportName");

    ORVCrashReportWindowController dialog(defaults);
    QSignalSpy finished(&dialog, &ORVCrashReportWindowController::contactCardLookupFinished);
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_EQ(service.lookups(), 1);
    EXPECT_EQ(service.askedFor(), static_cast<qint64>(getuid()));
    EXPECT_EQ(dialog.nameTextField()->text(), "Ada Lovelace");
    EXPECT_EQ(dialog.emailTextField()->text(), "ada@analytical.example");
    EXPECT_EQ(dialog.focusWidget(), dialog.commentsTextView());
}

TEST_F(CrashReportTest, WhatTheUserTypesBeforeTheCardArrivesStays)
{
    AccountsService service;
    ASSERT_TRUE(service.registered());
    ORVCrashReportWindowController dialog(defaults);
    QSignalSpy finished(&dialog, &ORVCrashReportWindowController::contactCardLookupFinished);
    // The card can only arrive once the event loop runs: this comes first.
    QTest::keyClicks(dialog.emailTextField(), "typed@example.org");
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_EQ(dialog.nameTextField()->text(), "Ada Lovelace");
    EXPECT_EQ(dialog.emailTextField()->text(), "typed@example.org");
}

TEST_F(CrashReportTest, WhatTheApplicationFillsInBeforeTheCardArrivesStays)
{
    AccountsService service;
    ASSERT_TRUE(service.registered());
    ORVCrashReportWindowController dialog(defaults);
    QSignalSpy finished(&dialog, &ORVCrashReportWindowController::contactCardLookupFinished);
    dialog.nameTextField()->setText("Filled In");
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_EQ(dialog.nameTextField()->text(), "Filled In");
    EXPECT_EQ(dialog.emailTextField()->text(), "ada@analytical.example");
}

TEST_F(CrashReportTest, ADialogClosedBeforeTheCardArrivesIsLeftAlone)
{
    // The service answers after the dialog is gone; nothing may reach it.
    AccountsService service(500);
    ASSERT_TRUE(service.registered());
    {
        ORVCrashReportWindowController dialog(defaults);
    }
    ASSERT_TRUE(waitUntil([&] { return service.lookups() == 1; }, 10s));
    spinFor(700ms);
}

TEST_F(CrashReportTest, AServiceThatHangsDoesNotHoldUpTheDialog)
{
    AccountsService service(3000);
    ASSERT_TRUE(service.registered());
    QElapsedTimer opening;
    opening.start();
    ORVCrashReportWindowController dialog(defaults);
    // The old blocking read waited the whole two-second time-out here.
    EXPECT_LT(opening.elapsed(), 1500);
    EXPECT_EQ(dialog.nameTextField()->text(), ORVPasswdFullName());
    QSignalSpy finished(&dialog, &ORVCrashReportWindowController::contactCardLookupFinished);
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_EQ(dialog.nameTextField()->text(), ORVPasswdFullName());
}

TEST_F(CrashReportTest, ButtonsFollowThePlatformAndTheKeyboardReachesEverything)
{
    defaults->setString("Grace Hopper", "CrashReportName");
    defaults->setString("grace@example.org", "CrashReportEmail");
    ORVCrashReportWindowController dialog(defaults);
    dialog.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
    auto *box = dialog.findChild<QDialogButtonBox *>();
    ASSERT_TRUE(box);
    auto *send = dialog.findChild<QPushButton *>("sendButton");
    auto *cancel = dialog.findChild<QPushButton *>("cancelButton");
    ASSERT_TRUE(send && cancel);
    EXPECT_EQ(box->buttonRole(send), QDialogButtonBox::AcceptRole);
    EXPECT_EQ(box->buttonRole(cancel), QDialogButtonBox::RejectRole);
    EXPECT_TRUE(send->isDefault());

    // Tab goes through the dialog as it reads: the fields, Details, then the
    // box's buttons from left to right.
    QList<QWidget *> buttons{send, cancel};
    std::sort(buttons.begin(), buttons.end(),
              [](QWidget *a, QWidget *b) { return a->mapToGlobal(QPoint()).x() < b->mapToGlobal(QPoint()).x(); });
    const QList<QWidget *> expected{dialog.nameTextField(), dialog.emailTextField(), dialog.commentsTextView(),
                                    dialog.detailsButton(), buttons.at(0), buttons.at(1)};
    QList<QWidget *> order{dialog.nameTextField()};
    for (QWidget *next = dialog.nameTextField()->nextInFocusChain(); order.size() < expected.size();
         next = next->nextInFocusChain())
        if (next->focusPolicy() & Qt::TabFocus)
            order << next;
    EXPECT_EQ(order, expected);

    // Every field's label and every action but Cancel has a mnemonic.
    int labelled = 0;
    for (QLabel *label : dialog.findChildren<QLabel *>()) {
        if (!label->buddy())
            continue;
        ++labelled;
        EXPECT_TRUE(label->text().contains('&')) << qPrintable(label->text());
    }
    EXPECT_EQ(labelled, 3);
    EXPECT_TRUE(send->text().contains('&'));
    EXPECT_TRUE(dialog.detailsButton()->text().contains('&'));
}

TEST_F(CrashReportTest, WithoutTheServiceTheNameComesFromPasswd)
{
    ORVCrashReportWindowController dialog(defaults);
    EXPECT_EQ(dialog.nameTextField()->text(), ORVPasswdFullName());
    EXPECT_EQ(dialog.emailTextField()->text(), "");
    EXPECT_NE(dialog.focusWidget(), dialog.commentsTextView());
}

TEST_F(CrashReportTest, SendRemembersNameAndEmailAndAnswersOneCancelAnswersZero)
{
    {
        ORVCrashReportWindowController dialog(defaults);
        QTimer::singleShot(0, &dialog, [&] {
            dialog.nameTextField()->setText("Ada");
            dialog.emailTextField()->setText("ada@example.org");
            dialog.commentsTextView()->setPlainText("It froze\nafter saving");
            dialog.findChild<QPushButton *>("sendButton")->click();
        });
        EXPECT_EQ(dialog.exec(), 1);
        EXPECT_FALSE(dialog.isVisible());
        EXPECT_EQ(dialog.comments(), "It froze\nafter saving");
    }
    EXPECT_EQ(defaults->stringForKey("CrashReportName"), "Ada");
    EXPECT_EQ(defaults->stringForKey("CrashReportEmail"), "ada@example.org");

    ORVCrashReportWindowController dialog(defaults);
    QSignalSpy details(&dialog, &ORVCrashReportWindowController::detailsRequested);
    QTimer::singleShot(0, &dialog, [&] {
        dialog.detailsButton()->click();
        dialog.nameTextField()->setText("Changed");
        QTest::keyClick(&dialog, Qt::Key_Escape);
    });
    EXPECT_EQ(dialog.exec(), 0);
    EXPECT_EQ(details.count(), 1);
    EXPECT_EQ(defaults->stringForKey("CrashReportName"), "Ada");
}

} // namespace

#include "CrashReportTests.moc"
