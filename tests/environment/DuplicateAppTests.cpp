// Copies of a small helper application in bundle folders, run as real
// processes in this suite's own D-Bus session: they find each other through
// /proc, talk through the session bus, and answer their alerts themselves.

#include "OrvTestSupport.h"

#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <csignal>

#include <unistd.h>

using namespace orv::test;

namespace {

// Tests run side by side as separate processes: each test's copies get an
// identifier of their own, so they never see another test's copies.
QString testIdentifier()
{
    return QStringLiteral("com.orvella.tests.duplicate-helper.") +
           QString::fromLatin1(::testing::UnitTest::GetInstance()->current_test_info()->name());
}

// One running copy and everything it printed.
class Copy {
public:
    Copy(const QString &bundle, const QStringList &arguments, bool withSessionBus = true, const QString &language = "C",
         const QMap<QString, QString> &extra = {})
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LC_ALL"), language);
        for (auto it = extra.cbegin(); it != extra.cend(); ++it)
            environment.insert(it.key(), it.value());
        if (!withSessionBus)
            environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QDir(bundle).filePath("orv_duplicate_helper"), arguments);
    }
    ~Copy()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    // Waits until a line starting with `prefix` was printed; returns it.
    QString waitForLine(const QString &prefix, std::chrono::milliseconds timeout = 10s)
    {
        QString found;
        waitUntil(
            [&] {
                output += QString::fromUtf8(process.readAll());
                for (const QString &line : output.split('\n'))
                    if (line.startsWith(prefix)) {
                        found = line;
                        return true;
                    }
                return false;
            },
            timeout);
        return found;
    }
    bool waitForExit(std::chrono::milliseconds timeout = 10s)
    {
        const bool exited =
            waitUntil([&] { return process.state() == QProcess::NotRunning; }, timeout);
        output += QString::fromUtf8(process.readAll());
        return exited;
    }
    bool running() const { return process.state() == QProcess::Running; }
    qint64 pid() const { return process.processId(); }

    QProcess process;
    QString output;
};

class DuplicateAppTest : public XdgHomeTest {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) << "run under dbus-run-session";
    }
    // A bundle folder holding a copy of the helper and its Info.json.
    QString makeBundle(const QString &name, const QString &version, const QByteArray &info = {})
    {
        const QString folder = home.filePath(name + "/DuplicateHelper.app");
        EXPECT_TRUE(QDir().mkpath(folder));
        const QString executable = QDir(folder).filePath("orv_duplicate_helper");
        EXPECT_TRUE(QFile::copy(QStringLiteral(DUPLICATE_HELPER_PATH), executable));
        QFile::setPermissions(executable, QFile::permissions(executable) | QFile::ExeOwner);
        QFile file(QDir(folder).filePath("Info.json"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(!info.isNull() ? info
                                  : QJsonDocument(QJsonObject{{"CFBundleIdentifier", testIdentifier()},
                                                              {"CFBundleVersion", version},
                                                              {"CFBundleExecutable", "orv_duplicate_helper"},
                                                              {"CFBundleName", "DuplicateHelper"}})
                                        .toJson());
        return folder;
    }
};

TEST_F(DuplicateAppTest, QuitWithoutAskingEndsTheOtherCopyWithinTheWait)
{
    Copy first(makeBundle("first", "1.9"), {"wait"});
    ASSERT_EQ(first.waitForLine("registered"), "registered: yes");

    Copy second(makeBundle("second", "1.10"), {"quit-duplicates", "1", "0", ""});
    const QString returned = second.waitForLine("returned after", 15s);
    ASSERT_FALSE(returned.isEmpty()) << second.output.toStdString();
    ASSERT_TRUE(first.waitForExit());
    EXPECT_TRUE(first.output.contains("will-quit-as-duplicate\nterminating\nexited")) << first.output.toStdString();
    EXPECT_EQ(first.process.exitCode(), 0) << first.output.toStdString();
    // The sender stopped waiting once the other copy was gone.
    EXPECT_LT(returned.section(' ', 2, 2).toInt(), 5000);
    EXPECT_FALSE(second.output.contains("will-quit-as-duplicate"));
    EXPECT_FALSE(second.output.contains("alert-message"));
}

TEST_F(DuplicateAppTest, ANewerCopyOffersToQuitTheOlderVersionOrToIgnoreIt)
{
    Copy older(makeBundle("older", "1.9"), {"wait"});
    ASSERT_EQ(older.waitForLine("registered"), "registered: yes");

    Copy ignoring(makeBundle("newer", "1.10"), {"quit-duplicates", "0", "0", "Ignore"});
    ASSERT_TRUE(ignoring.waitForExit(15s));
    EXPECT_EQ(ignoring.waitForLine("alert-message"), "alert-message: Another copy of orv_duplicate_helper is open");
    EXPECT_EQ(ignoring.waitForLine("alert-informative"),
              "alert-informative: An older version of orv_duplicate_helper is already open. Would you like to quit "
              "the older version?");
    EXPECT_EQ(ignoring.waitForLine("alert-buttons"), "alert-buttons: Quit Older Version|Ignore");
    spinFor(300ms);
    EXPECT_TRUE(older.running());

    Copy quitting(makeBundle("newest", "1.10"), {"quit-duplicates", "0", "0", "Quit Older Version"});
    ASSERT_TRUE(older.waitForExit(15s)) << quitting.output.toStdString();
    EXPECT_TRUE(older.output.contains("will-quit-as-duplicate"));
    ASSERT_FALSE(quitting.waitForLine("returned after", 15s).isEmpty());
}

TEST_F(DuplicateAppTest, WhenTwoCopiesMayNotRunQuitThisCopyEndsTheNewOne)
{
    Copy running(makeBundle("running", "2.0"), {"wait"});
    ASSERT_EQ(running.waitForLine("registered"), "registered: yes");

    Copy opened(makeBundle("opened", "2.0"), {"quit-duplicates", "0", "1", "Quit This Copy"});
    ASSERT_TRUE(opened.waitForExit(15s));
    EXPECT_EQ(opened.waitForLine("alert-informative"),
              "alert-informative: You can not have two copies of orv_duplicate_helper open at the same "
              "time.\\n\\nWould you like to quit the copy you just opened or the one that is already open?");
    EXPECT_EQ(opened.waitForLine("alert-buttons"), "alert-buttons: Quit Other Copy|Quit This Copy");
    EXPECT_TRUE(opened.output.contains("terminating")) << opened.output.toStdString();
    // The caller learns that its start-up should stop.
    EXPECT_TRUE(opened.waitForLine("returned after").endsWith("this copy ends: yes")) << opened.output.toStdString();
    spinFor(300ms);
    EXPECT_TRUE(running.running());
    EXPECT_FALSE(running.output.contains("will-quit-as-duplicate"));
}

TEST_F(DuplicateAppTest, ACopyToldToQuitEndsWhateverItsWindowsOrItsStartUpSay)
{
    // An open alert that refuses to close, while the event loop runs or
    // during start-up before it (start-up goes on once the alert ends).
    for (const char *mode : {"wait-with-alert", "alert-before-exec"}) {
        SCOPED_TRACE(mode);
        Copy busy(makeBundle(QString("busy-") + mode, "1.0"), {mode});
        ASSERT_EQ(busy.waitForLine("alert-open"), "alert-open") << busy.output.toStdString();

        Copy second(makeBundle(QString("second-") + mode, "1.0"), {"quit-duplicates", "1", "0", ""});
        ASSERT_TRUE(busy.waitForExit(8s)) << busy.output.toStdString();
        EXPECT_TRUE(busy.output.contains("will-quit-as-duplicate\nterminating")) << busy.output.toStdString();
        EXPECT_FALSE(busy.output.contains("timed out")) << busy.output.toStdString();
        EXPECT_EQ(busy.process.exitCode(), 0) << busy.output.toStdString();
        const QString returned = second.waitForLine("returned after", 15s);
        EXPECT_LT(returned.section(' ', 2, 2).toInt(), 5000) << second.output.toStdString();
        EXPECT_TRUE(returned.endsWith("this copy ends: no"));
    }
}

TEST_F(DuplicateAppTest, ACopyInAnotherLoginSessionIsNoDuplicate)
{
    Copy elsewhere(makeBundle("elsewhere", "1.0"), {"wait"}, true, "C", {{"XDG_SESSION_ID", "orv-a"}});
    ASSERT_EQ(elsewhere.waitForLine("registered"), "registered: yes");
    // The message sent by hand from another session, by a process gone by
    // the time it arrives (or nearly): not obeyed either way.
    QProcess sendByHand;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_SESSION_ID", "orv-z");
    sendByHand.setProcessEnvironment(environment);
    sendByHand.start("dbus-send", {"--session", "--type=signal", "/com/orvella/OrvellaKit/DistributedNotifications",
                                   "com.orvella.OrvellaKit.DistributedNotifications.Notification",
                                   "string:" + ORVDuplicateAppManagerQuitDuplicatesNotification,
                                   "string:" + testIdentifier()});
    ASSERT_TRUE(sendByHand.waitForFinished(10000));
    ASSERT_EQ(sendByHand.exitCode(), 0) << sendByHand.readAllStandardError().toStdString();
    Copy here(makeBundle("here", "1.0"), {"quit-duplicates", "1", "0", ""}, true, "C", {{"XDG_SESSION_ID", "orv-b"}});
    const QString returned = here.waitForLine("returned after", 15s);
    ASSERT_FALSE(returned.isEmpty()) << here.output.toStdString();
    EXPECT_LT(returned.section(' ', 2, 2).toInt(), 1000);
    spinFor(300ms);
    EXPECT_TRUE(elsewhere.running());
    EXPECT_FALSE(elsewhere.output.contains("will-quit-as-duplicate"));

    // The same session: a copy. The quit message goes over the bus that
    // both sessions share, but only the copy in the sender's session ends.
    Copy other(makeBundle("other", "1.0"), {"wait"}, true, "C", {{"XDG_SESSION_ID", "orv-b"}});
    ASSERT_EQ(other.waitForLine("registered"), "registered: yes");
    Copy again(makeBundle("again", "1.0"), {"quit-duplicates", "1", "0", ""}, true, "C", {{"XDG_SESSION_ID", "orv-a"}});
    EXPECT_TRUE(elsewhere.waitForExit(8s)) << again.output.toStdString();
    EXPECT_FALSE(again.waitForLine("returned after", 15s).isEmpty()) << again.output.toStdString();
    spinFor(300ms);
    EXPECT_TRUE(other.running()) << other.output.toStdString();
    EXPECT_FALSE(other.output.contains("will-quit-as-duplicate")) << other.output.toStdString();
}

TEST_F(DuplicateAppTest, AnApplicationWithoutInfoJsonFindsItsCopies)
{
    // Both copies run the same executable from a folder without Info.json
    // and set their dictionary themselves.
    const QString folder = home.filePath("usr/bin");
    ASSERT_TRUE(QDir().mkpath(folder));
    const QString executable = QDir(folder).filePath("orv_duplicate_helper");
    ASSERT_TRUE(QFile::copy(QStringLiteral(DUPLICATE_HELPER_PATH), executable));
    QFile::setPermissions(executable, QFile::permissions(executable) | QFile::ExeOwner);
    const QString info =
        QJsonDocument(QJsonObject{{"CFBundleIdentifier", testIdentifier()}, {"CFBundleVersion", "1.0"},
                                  {"CFBundleExecutable", "orv_duplicate_helper"}})
            .toJson(QJsonDocument::Compact);
    Copy first(folder, {"wait"}, true, "C", {{"ORV_HELPER_INFO", info}});
    ASSERT_EQ(first.waitForLine("registered"), "registered: yes");
    Copy second(folder, {"quit-duplicates", "1", "0", ""}, true, "C", {{"ORV_HELPER_INFO", info}});
    ASSERT_TRUE(first.waitForExit(8s)) << second.output.toStdString();
    EXPECT_TRUE(first.output.contains("will-quit-as-duplicate"));
}

TEST_F(DuplicateAppTest, WaitingForACopyThatDoesNotQuitKeepsTheEventLoopRunning)
{
    Copy stuck(makeBundle("stuck", "1.0"), {"wait"});
    ASSERT_EQ(stuck.waitForLine("registered"), "registered: yes");
    ::kill(static_cast<pid_t>(stuck.pid()), SIGSTOP);
    Copy waiting(makeBundle("waiting", "1.0"), {"quit-duplicates", "1", "0", ""});
    const QString returned = waiting.waitForLine("returned after", 15s);
    ::kill(static_cast<pid_t>(stuck.pid()), SIGCONT);
    ASSERT_FALSE(returned.isEmpty()) << waiting.output.toStdString();
    // About five seconds, and the 100 ms ticker ran all along.
    EXPECT_GE(returned.section(' ', 2, 2).toInt(), 4500);
    EXPECT_GE(returned.section(' ', 4, 4).toInt(), 20) << qPrintable(returned);
}

TEST_F(DuplicateAppTest, TheAlertSpeaksGermanWithTheGermanTranslation)
{
    Copy running(makeBundle("laufend", "3.0"), {"wait"});
    ASSERT_EQ(running.waitForLine("registered"), "registered: yes");
    Copy opened(makeBundle("neu", "3.1"), {"quit-duplicates", "0", "0", "Ignorieren"}, true, "de_DE.UTF-8");
    ASSERT_TRUE(opened.waitForExit(15s));
    EXPECT_EQ(opened.waitForLine("alert-message"), "alert-message: Eine weitere Kopie von orv_duplicate_helper ist "
                                                   "geöffnet");
    EXPECT_EQ(opened.waitForLine("alert-buttons"), "alert-buttons: Ältere Version beenden|Ignorieren");
    EXPECT_TRUE(running.running());
}

TEST_F(DuplicateAppTest, ACopyWhoseBundleIsGoneIsNoDuplicate)
{
    const QString bundle = makeBundle("doomed", "1.0");
    Copy copy(bundle, {"wait"});
    ASSERT_EQ(copy.waitForLine("registered"), "registered: yes");
    const auto found = ORVFindDuplicateProcess(testIdentifier());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->processIdentifier, copy.pid());
    EXPECT_EQ(found->bundlePath, bundle);

    // Renamed, it still runs from an existing bundle: still a copy.
    const QString renamed = home.filePath("doomed/Renamed.app");
    ASSERT_TRUE(QDir().rename(bundle, renamed));
    const auto moved = ORVFindDuplicateProcess(testIdentifier());
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->bundlePath, renamed);

    ASSERT_TRUE(QDir(renamed).removeRecursively());
    EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier()));
}

TEST_F(DuplicateAppTest, ARenamedBundleHasMovedAndRelaunchStartsItFromItsNewPlace)
{
    const QString log = home.filePath("starts.log");
    const QString bundle = makeBundle("mover", "1.0");
    Copy copy(bundle, {"check-moved", "Relaunch", log});
    ASSERT_EQ(copy.waitForLine("ready"), "ready");
    const QString renamed = home.filePath("mover/Moved.app");
    ASSERT_TRUE(QDir().rename(bundle, renamed));
    copy.process.write("go\n");
    copy.process.closeWriteChannel();

    EXPECT_EQ(copy.waitForLine("bundle-moved"), "bundle-moved: yes");
    EXPECT_EQ(copy.waitForLine("alert-message"), "alert-message: DuplicateHelper has been moved");
    EXPECT_EQ(copy.waitForLine("alert-buttons"), "alert-buttons: Relaunch|Don't Relaunch");
    EXPECT_EQ(copy.waitForLine("application-moved"), "application-moved: yes");
    ASSERT_TRUE(copy.waitForExit());

    // The new instance starts from the new place and finds nothing moved.
    QStringList starts;
    waitUntil([&] {
        QFile file(log);
        starts = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts)
                                                : QStringList();
        return starts.size() == 2;
    });
    ASSERT_EQ(starts.size(), 2);
    EXPECT_EQ(starts[0], QDir(bundle).filePath("orv_duplicate_helper"));
    EXPECT_EQ(starts[1], QDir(renamed).filePath("orv_duplicate_helper"));
}

TEST_F(DuplicateAppTest, DontRelaunchKeepsRunningAndAnUnmovedBundleAsksNothing)
{
    const QString bundle = makeBundle("stayer", "1.0");
    Copy unmoved(bundle, {"check-moved", "Relaunch"});
    ASSERT_EQ(unmoved.waitForLine("ready"), "ready");
    unmoved.process.closeWriteChannel();
    EXPECT_EQ(unmoved.waitForLine("application-moved"), "application-moved: no");
    EXPECT_FALSE(unmoved.output.contains("alert-message"));
    ASSERT_TRUE(unmoved.waitForExit());

    Copy declining(bundle, {"check-moved", "Don't Relaunch"});
    ASSERT_EQ(declining.waitForLine("ready"), "ready");
    ASSERT_TRUE(QDir().rename(bundle, home.filePath("stayer/Elsewhere.app")));
    declining.process.closeWriteChannel();
    EXPECT_EQ(declining.waitForLine("application-moved"), "application-moved: yes");
    ASSERT_TRUE(declining.waitForExit());
    EXPECT_EQ(declining.process.exitCode(), 0);
    EXPECT_TRUE(declining.output.contains("exited"));
}

TEST_F(DuplicateAppTest, WithoutASessionBusTheCheckGivesUpQuietly)
{
    Copy first(makeBundle("bus-first", "1.0"), {"wait"});
    ASSERT_EQ(first.waitForLine("registered"), "registered: yes");
    Copy lonely(makeBundle("bus-second", "1.0"), {"quit-duplicates", "1", "0", ""}, /*withSessionBus=*/false);
    EXPECT_EQ(lonely.waitForLine("registered"), "registered: no");
    const QString returned = lonely.waitForLine("returned after");
    ASSERT_FALSE(returned.isEmpty()) << lonely.output.toStdString();
    EXPECT_LT(returned.section(' ', 2, 2).toInt(), 1000);
    spinFor(200ms);
    EXPECT_TRUE(first.running());
}

TEST_F(DuplicateAppTest, OddProcessEntriesAreSkipped)
{
    // A process table of odd entries: no link, a dangling link, an
    // Info.json that is not JSON, a removed executable, plain files.
    const QString proc = home.filePath("proc");
    const QString garbage = makeBundle("garbage", "1.0", "{ this is not json");
    const QString gone = makeBundle("gone", "1.0");
    for (const char *entry : {"100", "101", "102", "103", "self-ish"})
        QDir().mkpath(QDir(proc).filePath(entry));
    QFile::link("/nonexistent/orv_duplicate_helper", QDir(proc).filePath("101/exe"));
    QFile::link(QDir(garbage).filePath("orv_duplicate_helper"), QDir(proc).filePath("102/exe"));
    QFile::link(QDir(gone).filePath("orv_duplicate_helper") + " (deleted)", QDir(proc).filePath("103/exe"));
    QDir(gone).removeRecursively();
    QFile plain(QDir(proc).filePath("104"));
    ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
    EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier(), proc));
    EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier(), home.filePath("no-such-proc")));

    // The same entry pointing at a live bundle is found when it runs as
    // this user in this session, and only then.
    const QString live = makeBundle("live", "1.0");
    QFile::link(QDir(live).filePath("orv_duplicate_helper"), QDir(proc).filePath("100/exe"));
    const auto writeEntry = [&](const QString &name, const QByteArray &contents) {
        QFile file(QDir(proc).filePath("100/" + name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    };
    const QByteArray ownUid = QByteArray::number(::geteuid());
    const QByteArray environment = "DBUS_SESSION_BUS_ADDRESS=" + qgetenv("DBUS_SESSION_BUS_ADDRESS") + '\0' +
                                   "XDG_SESSION_ID=" + qgetenv("XDG_SESSION_ID") + '\0';
    writeEntry("status", "Name:\thelper\nUid:\t4242\t4242\t4242\t4242\n");
    writeEntry("environ", environment);
    EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier(), proc)) << "another user's";
    writeEntry("status", "Name:\thelper\nUid:\t" + ownUid + "\t" + ownUid + "\t" + ownUid + "\t" + ownUid + "\n");
    writeEntry("environ", "DBUS_SESSION_BUS_ADDRESS=unix:path=/elsewhere/bus\0");
    EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier(), proc)) << "another session bus";
    writeEntry("environ", environment);
    const auto found = ORVFindDuplicateProcess(testIdentifier(), proc);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->processIdentifier, 100);

    // A process started without the bus variable reaches the user's bus in
    // its runtime folder, the same bus as a variable naming that socket.
    const QByteArray ownBus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    const QByteArray ownRuntime = qgetenv("XDG_RUNTIME_DIR");
    const QByteArray runtime = QFile::encodeName(home.filePath("run"));
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + runtime + "/bus");
    qputenv("XDG_RUNTIME_DIR", runtime);
    writeEntry("environ", "XDG_RUNTIME_DIR=" + runtime + '\0' + "XDG_SESSION_ID=" + qgetenv("XDG_SESSION_ID") + '\0');
    EXPECT_TRUE(ORVFindDuplicateProcess(testIdentifier(), proc)) << "the default bus, named or not";
    writeEntry("environ", "XDG_RUNTIME_DIR=/run/user/4242" + QByteArray(1, '\0'));
    EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier(), proc)) << "another runtime folder's bus";
    qputenv("DBUS_SESSION_BUS_ADDRESS", ownBus);
    if (ownRuntime.isNull())
        qunsetenv("XDG_RUNTIME_DIR");
    else
        qputenv("XDG_RUNTIME_DIR", ownRuntime);

    // The real table, while processes come and go.
    QElapsedTimer timer;
    timer.start();
    std::vector<std::unique_ptr<QProcess>> shortLived;
    while (timer.elapsed() < 500) {
        auto process = std::make_unique<QProcess>();
        process->start("true", QStringList());
        shortLived.push_back(std::move(process));
        EXPECT_FALSE(ORVFindDuplicateProcess(testIdentifier()));
    }
    for (auto &process : shortLived)
        process->waitForFinished(5000);
}

TEST(VersionStrings, CompareTheirNumbersAsNumbers)
{
    EXPECT_GT(ORVCompareVersionStrings("1.10", "1.9"), 0);
    EXPECT_LT(ORVCompareVersionStrings("1.9", "1.10"), 0);
    EXPECT_EQ(ORVCompareVersionStrings("2.0", "2.0"), 0);
    EXPECT_GT(ORVCompareVersionStrings("1.0.1", "1.0"), 0);
    EXPECT_EQ(ORVCompareVersionStrings("1.010", "1.10"), 0);
    EXPECT_LT(ORVCompareVersionStrings("1.0b2", "1.0b10"), 0);
    EXPECT_GT(ORVCompareVersionStrings("100", "99"), 0);
}

} // namespace
