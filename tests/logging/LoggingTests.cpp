#include "OrvTestSupport.h"

#include <OrvellaKit/ORVCommandLogger.h>
#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVError.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>

extern char **environ;

using namespace orv::test;

ORV_LOG_FILE("Logging Tests")

namespace {

// Each test runs in a process of its own under CTest; the registrations
// below are made once per process.
class TestCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("Kalendro"); }
    QString appGroupIdentifier() const override
    {
        std::lock_guard lock(mutex);
        return group;
    }
    ORVLogLevel prefererredDefaultLogLevel() const override { return ORVLogLevelInfo; }

    static TestCoordinator &instance()
    {
        static auto coordinator = [] {
            auto made = std::make_shared<TestCoordinator>();
            ORVRegisterPlatformCoordinator(made);
            return made;
        }();
        return *coordinator;
    }

    mutable std::mutex mutex;
    QString group;
};

class LoggingTest : public XdgHomeTest {
protected:
    void SetUp() override
    {
        TestCoordinator::instance().group.clear();
        debug = ORVDebug::sharedDebug();
    }

    QString logsDirectory() const { return debug->logsDirectoryURL().toLocalFile(); }

    static QString readAll(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

    std::shared_ptr<ORVDebug> debug;
};

std::atomic<ORVLogLevel> earlyLevel{0};
std::atomic<ORVLogLevel> lateLevel{0};
std::atomic<ORVLogLevel> uncategorised{0};

} // namespace

TEST_F(LoggingTest, LogDirectoryFollowsTheAppGroup)
{
    const QString bundleFolder = ORVApplicationFolderName();
    EXPECT_EQ(logsDirectory(), home.filePath(".local/state/Logs/" + bundleFolder + "/"));
    TestCoordinator::instance().group = QStringLiteral("group.com.orvella");
    EXPECT_EQ(debug->sharedLogsDirectoryURL().toLocalFile(),
              home.filePath(".local/share/group-containers/group.com.orvella/Library/Logs/"));
    EXPECT_EQ(logsDirectory(),
              home.filePath(".local/share/group-containers/group.com.orvella/Library/Logs/" + bundleFolder + "/"));
}

TEST_F(LoggingTest, RegistrationBeforeAndAfterSetup)
{
    debug->registerLogLevel(&earlyLevel, "/src/somewhere/EarlyFile.cpp", QStringLiteral("Early"));
    EXPECT_EQ(earlyLevel.load(), ORVLogLevelError) << "level 1 until one is set";
    EXPECT_EQ(debug->logLevel(), 0u);

    debug->setupLogging();
    EXPECT_EQ(debug->logLevel(), ORVLogLevelInfo) << "the coordinator's preferred level";
    EXPECT_EQ(earlyLevel.load(), ORVLogLevelInfo);
    debug->registerLogLevel(&lateLevel, "LateFile.cpp", QString());
    EXPECT_EQ(lateLevel.load(), ORVLogLevelInfo) << "a later registration receives the current level";

    debug->setLogLevel(7);
    debug->setLogLevel(ORVLogLevelVerbose);
    EXPECT_EQ(earlyLevel.load(), ORVLogLevelVerbose);
    EXPECT_EQ(lateLevel.load(), ORVLogLevelVerbose);
    EXPECT_EQ(debug->logLevels().value("EarlyFile.cpp"), &earlyLevel);
    EXPECT_EQ(debug->logCategories().value("Early"), QStringList{"EarlyFile.cpp"});
    EXPECT_TRUE(debug->logCategories().value("No category").contains("LateFile.cpp"));
    EXPECT_TRUE(debug->logCategories().value("Debug").contains("ORVDebug.cpp"));

    // The convention's own registration files this test under its category.
    orvRegisterFileLogLevel();
    EXPECT_EQ(debug->logCategories().value("Logging Tests"), QStringList{"LoggingTests.cpp"});
    EXPECT_EQ(orvFileLogLevel.load(), ORVLogLevelVerbose);

    debug->fileLogger()->flush();
    const QString log = readAll(debug->fileLogger()->currentLogFilePath());
    EXPECT_TRUE(log.contains(QStringLiteral(" launching\n")));
    EXPECT_TRUE(log.contains(QStringLiteral("] System version: ")));
    EXPECT_TRUE(log.contains(QStringLiteral("] Changing log level: 7\n")));
    EXPECT_TRUE(log.contains(QStringLiteral("] Default log level: 7\n")));
    EXPECT_TRUE(log.contains(QStringLiteral("] System time zone: ")));
    EXPECT_TRUE(log.contains(QStringLiteral("] Default time zone: ")));
    // The banner's errors made the file, and with it the folder, before the
    // last step looks for the folder.
    EXPECT_FALSE(log.contains(QStringLiteral("Creating Logs directory")));
    EXPECT_LT(log.indexOf("Changing log level: 7"), log.indexOf("Default log level: 7"));
}

TEST_F(LoggingTest, RegistrationAssertionsAndDuplicates)
{
    RecordAssertions record;
    debug->registerLogLevel(nullptr, "File.cpp", QString());
    debug->registerLogLevel(&uncategorised, nullptr, QString());
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: logLevel != NULL",
                                                  "logLevel must not be null",
                                                  "Invalid parameter not satisfying: file != NULL"}));
    EXPECT_FALSE(debug->logLevels().contains("File.cpp"));

    std::atomic<ORVLogLevel> replacement{0};
    debug->registerLogLevel(&uncategorised, "dir/Same.cpp", QString());
    debug->registerLogLevel(&replacement, "other/Same.cpp", QString());
    EXPECT_EQ(debug->logLevels().value("Same.cpp"), &replacement) << "the later registration replaces the pointer";
    EXPECT_EQ(debug->logCategories().value("No category").count("Same.cpp"), 2) << "duplicates are kept";
}

TEST_F(LoggingTest, StatementsHonourTheFileLevel)
{
    debug->setupLogging();
    orvRegisterFileLogLevel();
    debug->setLogLevel(ORVLogLevelWarning);
    ORVLogInfo("info %d is filtered", 1);
    ORVLogWarn("warning %@ passes", QStringLiteral("two"));
    ORVLogError("error %d passes", 3);
    debug->fileLogger()->flush();
    const QString log = readAll(debug->fileLogger()->currentLogFilePath());
    EXPECT_FALSE(log.contains("is filtered"));
    EXPECT_TRUE(log.contains("warning two passes"));
    EXPECT_TRUE(log.contains("error 3 passes"));
}

TEST_F(LoggingTest, RollsAtFourMebibytesAndKeepsTen)
{
    debug->setupLogging();
    orvRegisterFileLogLevel();
    auto logger = debug->fileLogger();
    EXPECT_EQ(logger->maximumFileSize(), 4194304u);
    EXPECT_EQ(logger->maximumNumberOfLogFiles(), 10u);
    EXPECT_EQ(logger->rollingFrequency(), std::chrono::seconds(86400));

    // About 56 MiB in 1 KiB lines: 13 files' worth.
    const QString line(1000, u'x');
    for (int i = 0; i < 57000; ++i)
        ORVLogError("%d %@", i, line);
    logger->flush();

    const QStringList files = logger->sortedLogFilePaths();
    EXPECT_EQ(files.size(), 10);
    for (const QString &path : files)
        EXPECT_LE(QFileInfo(path).size(), 4194304) << qPrintable(path);
    EXPECT_EQ(files.first(), logger->currentLogFilePath()) << "newest first";
    EXPECT_TRUE(readAll(files.first()).contains("56999 x"));
    // Newest first: each file's first message comes after the next file's.
    auto firstNumber = [&](const QString &path) {
        const QString text = readAll(path);
        const QString category = QStringLiteral("[Logging Tests] ");
        const qsizetype start = text.indexOf(category) + category.size();
        return text.mid(start, text.indexOf(u' ', start) - start).toInt();
    };
    for (qsizetype i = 0; i + 1 < files.size(); ++i)
        EXPECT_GT(firstNumber(files[i]), firstNumber(files[i + 1])) << i;
}

TEST_F(LoggingTest, RecentLogContentOfShortAndLongLogs)
{
    EXPECT_EQ(debug->recentLogContent(), "") << "nothing before setup";
    debug->setupLogging();
    orvRegisterFileLogLevel();
    debug->fileLogger()->flush();
    const QString shortLog = readAll(debug->fileLogger()->currentLogFilePath());
    ASSERT_FALSE(shortLog.isEmpty());
    ASSERT_LT(shortLog.size(), 10241);
    EXPECT_EQ(debug->recentLogContent(), shortLog) << "a short log comes back whole";

    for (int i = 0; i < 400; ++i)
        ORVLogError("line %03d %@", i, QString(60, u'y'));
    const QString recent = debug->recentLogContent();
    const QString whole = readAll(debug->fileLogger()->currentLogFilePath());
    ASSERT_GT(whole.size(), 20000);
    EXPECT_EQ(recent.size(), 10240);
    EXPECT_EQ(recent, whole.mid(whole.size() - 10241, 10240)) << "ends one character before the end";
    EXPECT_TRUE(whole.endsWith(u'\n'));
    EXPECT_FALSE(recent.endsWith(u'\n'));
}

TEST_F(LoggingTest, RecentLogContentReadsOlderFilesOldestFirst)
{
    debug->setupLogging();
    orvRegisterFileLogLevel();
    auto logger = debug->fileLogger();
    logger->flush();
    const QString dir = logger->logsDirectory();
    const QString base = ORVApplicationFolderName();
    // An older file from an earlier run, and one with bytes that are not UTF-8.
    QFile older(dir + "/" + base + " 2000-01-01--00-00-00-000.log");
    ASSERT_TRUE(older.open(QIODevice::WriteOnly));
    older.write("older run\n");
    older.close();
    QFile binary(dir + "/" + base + " 2000-01-02--00-00-00-000.log");
    ASSERT_TRUE(binary.open(QIODevice::WriteOnly));
    binary.write("cut \xc3\x28 short \xff\n");
    binary.close();

    const QString recent = debug->recentLogContent();
    EXPECT_TRUE(recent.startsWith("older run\n")) << qPrintable(recent.left(80));
    EXPECT_TRUE(recent.contains(QStringLiteral("older run\ncut \uFFFD( short \uFFFD\n"))) << qPrintable(recent.left(80));
    EXPECT_TRUE(recent.contains(" launching"));
}

TEST_F(LoggingTest, DeletedFileAndUnwritableDirectoryDoNotStopLogging)
{
    debug->setupLogging();
    orvRegisterFileLogLevel();
    auto logger = debug->fileLogger();
    logger->flush();
    const QString first = logger->currentLogFilePath();
    ASSERT_TRUE(QFile::remove(first));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ORVLogError("after the file was deleted");
    logger->flush();
    const QString second = logger->currentLogFilePath();
    EXPECT_NE(second, first);
    EXPECT_TRUE(readAll(second).contains("after the file was deleted"));

    // The directory turns read-only (root ignores permissions, so a plain
    // file takes the directory's place instead).
    ASSERT_TRUE(QDir(logger->logsDirectory()).removeRecursively());
    QFile blocker(QDir::cleanPath(logger->logsDirectory()));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    for (int i = 0; i < 100; ++i)
        ORVLogError("nowhere to go %d", i);
    logger->flush();
    EXPECT_TRUE(logger->sortedLogFilePaths().isEmpty());
    EXPECT_EQ(debug->recentLogContent(), "");

    // Once the directory can be made again, logging carries on.
    ASSERT_TRUE(QFile::remove(blocker.fileName()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ORVLogError("back again");
    logger->flush();
    EXPECT_TRUE(debug->recentLogContent().contains("back again"));
}

TEST_F(LoggingTest, AnErrorIsWrittenAfterEverythingLoggedBeforeIt)
{
    debug->setupLogging();
    orvRegisterFileLogLevel();
    for (int i = 0; i < 5000; ++i)
        ORVLogInfo("info line %04d", i);
    ORVLogError("the error after them");
    // No flush: the error call itself returns once it is written.
    const QString log = readAll(debug->fileLogger()->currentLogFilePath());
    const qsizetype error = log.indexOf("the error after them");
    ASSERT_GE(error, 0);
    EXPECT_GT(error, log.indexOf("info line 4999"));
    EXPECT_GE(log.indexOf("info line 4999"), 0);
}

TEST_F(LoggingTest, ThreadsLoggingFasterThanTheFileLoseNothingAndKeepTheirOrder)
{
    // Far more than the queue holds, from four threads at once, in lines
    // long enough that the file cannot keep up: the threads wait for room,
    // no line is lost or doubled, and each thread's lines keep their order
    // (across the files the log rolls into). An error at the end still
    // waits for all of them.
    debug->setupLogging();
    orvRegisterFileLogLevel();
    constexpr int kThreads = 4;
    constexpr int kLines = 2500;
    const QString padding(3000, u'p');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &padding] {
            for (int i = 0; i < kLines; ++i)
                ORVLogInfo("flood %d %05d %@", t, i, padding);
        });
    for (auto &thread : threads)
        thread.join();
    ORVLogError("after the flood");
    QString log;
    QStringList files = debug->fileLogger()->sortedLogFilePaths();
    std::reverse(files.begin(), files.end()); // oldest first
    for (const QString &file : files)
        log += readAll(file);
    std::array<int, kThreads> next{};
    static const QRegularExpression line(QStringLiteral("flood (\\d) (\\d{5}) p"));
    for (auto match = line.globalMatch(log); match.hasNext();) {
        const auto found = match.next();
        const int t = found.captured(1).toInt();
        ASSERT_EQ(found.captured(2).toInt(), next[t]) << "thread " << t;
        ++next[t];
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(next[t], kLines) << "thread " << t;
    EXPECT_GT(log.indexOf("after the flood"), log.lastIndexOf("flood "));
}

TEST_F(LoggingTest, LinesShowTheirLevelAndCategory)
{
    debug->setupLogging();
    orvRegisterFileLogLevel();
    debug->setLogLevel(ORVLogLevelVerbose);
    ORVLogError("an error");
    ORVLogWarn("a warning");
    ORVLogInfo("some info");
    ORVLogDebug("a debug line");
    ORVLogVerbose("a verbose line");
    std::atomic<ORVLogLevel> uncategorisedLevel{ORVLogLevelVerbose};
    ORVLogWithLevel(uncategorisedLevel, ORVLogFlagWarning, "from no category");
    debug->fileLogger()->flush();
    const QStringList lines = readAll(debug->fileLogger()->currentLogFilePath()).split(u'\n');
    const auto line = [&](const QString &text) {
        for (const QString &l : lines)
            if (l.endsWith(text))
                return l;
        return QString();
    };
    const QString stamp = QStringLiteral(R"(^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3}  )");
    const std::pair<QString, QString> expected[] = {
        {"an error", R"(\[error\] \[Logging Tests\] )"},
        {"a warning", R"(\[warning\] \[Logging Tests\] )"},
        {"some info", R"(\[info\] \[Logging Tests\] )"},
        {"a debug line", R"(\[debug\] \[Logging Tests\] )"},
        {"a verbose line", R"(\[verbose\] \[Logging Tests\] )"},
        {"from no category", R"(\[warning\] \[No category\] )"},
        {"Changing log level: 31", R"(\[error\] \[Debug\] )"},
    };
    for (const auto &[text, prefix] : expected) {
        const QRegularExpression pattern(stamp + prefix + QRegularExpression::escape(text) + "$");
        EXPECT_TRUE(pattern.match(line(text)).hasMatch()) << qPrintable(line(text));
    }
}

Q_LOGGING_CATEGORY(kalendroTests, "kalendro.tests")

TEST_F(LoggingTest, QtMessagesReachTheLogOnlyWhenAsked)
{
    debug->setupLogging();
    debug->setLogLevel(ORVLogLevelVerbose);
    EXPECT_FALSE(debug->forwardsQtMessages());
    qWarning("not asked for");

    debug->setForwardsQtMessages(true);
    EXPECT_TRUE(debug->forwardsQtMessages());
    qCWarning(kalendroTests) << "a bridged warning";
    qCritical("a bridged critical %d", 2);
    qInfo("a bridged info");
    qCDebug(kalendroTests, "a bridged debug line");
    std::thread([] { qWarning("from another thread"); }).join();
    // The bridge's level follows the others.
    debug->setLogLevel(ORVLogLevelError);
    qWarning("below the level");
    qCritical("still an error");
    debug->setForwardsQtMessages(false);
    qCritical("after the bridge was closed");

    debug->fileLogger()->flush();
    const QString log = readAll(debug->fileLogger()->currentLogFilePath());
    EXPECT_FALSE(log.contains("not asked for"));
    EXPECT_TRUE(log.contains("  [warning] [Qt: kalendro.tests] a bridged warning\n")) << qPrintable(log.right(600));
    EXPECT_TRUE(log.contains("  [error] [Qt: default] a bridged critical 2\n"));
    EXPECT_TRUE(log.contains("  [info] [Qt: default] a bridged info\n"));
    EXPECT_TRUE(log.contains("  [debug] [Qt: kalendro.tests] a bridged debug line\n"));
    EXPECT_TRUE(log.contains("  [warning] [Qt: default] from another thread\n"));
    EXPECT_FALSE(log.contains("below the level"));
    EXPECT_TRUE(log.contains("  [error] [Qt: default] still an error\n"));
    EXPECT_FALSE(log.contains("after the bridge was closed"));
}

// A handler that someone installs on top of the bridge and that passes
// every message on, as handlers usually do.
QtMessageHandler handlerBelowTheirs = nullptr;
std::atomic<int> theirCalls = 0;
void theirHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    ++theirCalls;
    if (handlerBelowTheirs)
        handlerBelowTheirs(type, context, message);
}

TEST_F(LoggingTest, TheQtBridgeSharesTheHandlerChain)
{
    debug->setupLogging();
    debug->setLogLevel(ORVLogLevelVerbose);
    debug->setForwardsQtMessages(true);
    debug->setForwardsQtMessages(true);
    handlerBelowTheirs = qInstallMessageHandler(theirHandler);
    // Closing the bridge cannot take it out of their chain; opening it again
    // must not put it in a second time (a loop through both handlers).
    debug->setForwardsQtMessages(false);
    qWarning("while closed");
    debug->setForwardsQtMessages(true);
    qWarning("opened again");
    EXPECT_EQ(theirCalls.load(), 2);
    // Closed again with their handler below it: theirs hears each message once.
    debug->setForwardsQtMessages(false);
    qWarning("closed over theirs");
    EXPECT_EQ(theirCalls.load(), 3);
    // Their handler leaves, and the chain with it: opening the bridge again
    // must put it back where messages arrive.
    qInstallMessageHandler(nullptr);
    debug->setForwardsQtMessages(true);
    qWarning("after theirs left");
    EXPECT_EQ(theirCalls.load(), 3);
    debug->setForwardsQtMessages(false);
    qInstallMessageHandler(nullptr);

    debug->fileLogger()->flush();
    const QString log = readAll(debug->fileLogger()->currentLogFilePath());
    EXPECT_FALSE(log.contains("while closed"));
    EXPECT_EQ(log.count("opened again"), 1);
    EXPECT_FALSE(log.contains("closed over theirs"));
    EXPECT_EQ(log.count("after theirs left"), 1);
    EXPECT_EQ(debug->logCategories().value("Qt"), QStringList{"Qt messages"});
}

TEST_F(LoggingTest, NoFolderMeansNoLogFileElsewhere)
{
    // The state folder cannot be made: a plain file stands where it would go.
    QFile blocker(home.filePath("blocker"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    qputenv("XDG_STATE_HOME", home.filePath("blocker/state").toUtf8());
    QTemporaryDir work;
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(work.path()));
    const QString rootLogs = "/Logs/" + ORVApplicationFolderName();
    const bool rootLogsExisted = QFileInfo::exists(rootLogs);

    EXPECT_TRUE(debug->sharedLogsDirectoryURL().isEmpty());
    EXPECT_TRUE(debug->logsDirectoryURL().isEmpty());
    const ORVError error = debug->setupLogging();
    EXPECT_TRUE(error);
    orvRegisterFileLogLevel();
    ORVLogError("goes to no file");
    debug->fileLogger()->flush();
    EXPECT_TRUE(debug->fileLogger()->sortedLogFilePaths().isEmpty());
    EXPECT_EQ(debug->recentLogContent(), "");
    EXPECT_TRUE(QDir(work.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
    if (!rootLogsExisted) {
        EXPECT_FALSE(QFileInfo::exists(rootLogs));
        QDir(rootLogs).removeRecursively();
        QDir().rmdir(QStringLiteral("/Logs")); // only when empty
    }
    QDir::setCurrent(previous);

    // A state folder of "/" is no folder of the user's: the logs go below
    // the home folder, as with no setting at all.
    qputenv("XDG_STATE_HOME", "/");
    EXPECT_EQ(logsDirectory(), home.filePath(".local/state/Logs/" + ORVApplicationFolderName() + "/"));
    qputenv("XDG_STATE_HOME", "//");
    EXPECT_EQ(logsDirectory(), home.filePath(".local/state/Logs/" + ORVApplicationFolderName() + "/"));
}

TEST_F(LoggingTest, ABundleIdentifierIsOneLiteralFolder)
{
    const QString logs = home.filePath(".local/state/Logs/");
    const QVariantMap saved = ORVBundle::mainBundle().infoDictionary();
    for (const QString &identifier : {QStringLiteral("app:x"), QStringLiteral("kalendro#beta"),
                                      QStringLiteral("a?b c%20d"), QStringLiteral("../../escape")}) {
        ORVBundle::mainBundle().setInfoDictionary({{"CFBundleIdentifier", identifier}});
        const QString folder = logsDirectory();
        EXPECT_EQ(QFileInfo(QDir::cleanPath(folder)).dir().absolutePath() + "/", logs) << qPrintable(folder);
        if (!identifier.contains(u'/'))
            EXPECT_EQ(folder, logs + identifier + "/");
        debug->setupLogging();
        orvRegisterFileLogLevel();
        ORVLogError("logged under %@", identifier);
        const QString file = debug->fileLogger()->currentLogFilePath();
        EXPECT_TRUE(file.startsWith(folder)) << qPrintable(file);
        EXPECT_TRUE(readAll(file).contains("logged under " + identifier)) << qPrintable(file);
    }
    ORVBundle::mainBundle().setInfoDictionary(saved);
}

TEST_F(LoggingTest, ThreadsStillLoggingWhenTheProcessExitsDoNotCrashIt)
{
    // The exit handler shuts the logger's worker down while other threads
    // are handing it a line (see LoggingExitChild.cpp, which stops them at
    // that point). The process ends normally, and the lines they were
    // logging are in the file. Started with posix_spawn for
    // ThreadSanitizer's sake.
    for (int run = 0; run < 2; ++run) {
        const QString held = home.filePath(QStringLiteral("held-%1.txt").arg(run));
        QByteArray path = ORV_LOGGING_EXIT_CHILD_PATH;
        QByteArray threads = "4";
        QByteArray heldArgument = QFile::encodeName(held);
        char *argv[] = {path.data(), threads.data(), heldArgument.data(), nullptr};
        pid_t pid = -1;
        ASSERT_EQ(::posix_spawn(&pid, path.constData(), nullptr, nullptr, argv, environ), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);

        QString log;
        const QDir logs(home.filePath(".local/state/Logs/logging-exit-child"));
        for (const QString &file : logs.entryList({"*.log"}, QDir::Files, QDir::Name))
            log += readAll(logs.filePath(file));
        EXPECT_TRUE(log.endsWith(u'\n'));
        const QStringList heldLines = readAll(held).split(u'\n', Qt::SkipEmptyParts);
        EXPECT_EQ(heldLines.size(), 4);
        for (const QString &line : heldLines)
            EXPECT_TRUE(log.contains("] [Exit Child] " + line + "\n")) << qPrintable(line);
    }
}

TEST_F(LoggingTest, ErrorsReachTheSystemLogUnderTheApplicationsName)
{
    // Set up twice, the system log still knows the application's name (see
    // SystemLogChild.cpp, which listens at /dev/log of a mount table of its
    // own).
    const QString received = home.filePath(QStringLiteral("received.txt"));
    QByteArray path = ORV_SYSTEM_LOG_CHILD_PATH;
    QByteArray receivedArgument = QFile::encodeName(received);
    char *argv[] = {path.data(), receivedArgument.data(), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, path.constData(), nullptr, nullptr, argv, environ), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no mount namespace may be made here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const QString datagrams = readAll(received);
    EXPECT_TRUE(datagrams.contains(QStringLiteral(" system-log-child[%1]: [System Log Child] to the system log\n").arg(pid)))
        << qPrintable(datagrams);
}

TEST(DebuggerAttached, ReadsTracerPid)
{
    QFile status("/proc/self/status");
    ASSERT_TRUE(status.open(QIODevice::ReadOnly));
    const bool traced = !status.readAll().contains("TracerPid:\t0\n");
    EXPECT_EQ(ORVDebug::sharedDebug()->isDebuggerAttached(), traced);
}

namespace {
class RecordingCommandLogger : public ORVCommandLogging {
public:
    void logRequest(const ORVURLRequest &request, const QString &category, const QByteArray &, 
                    const std::optional<ORVHTTPURLResponse> &, bool, const ORVError &) override
    {
        entries << category + " " + request.URL().toString();
    }
    QStringList entries;
};
} // namespace

TEST(CommandLogger, SetOnceOnTheMainThread)
{
    EXPECT_EQ(ORVCommandLogger::sharedLogger(), nullptr);
    auto first = std::make_shared<RecordingCommandLogger>();
    ORVCommandLogger::setSharedLogger(first);
    EXPECT_EQ(ORVCommandLogger::sharedLogger(), first);
    try {
        ORVCommandLogger::setSharedLogger(std::make_shared<RecordingCommandLogger>());
        FAIL() << "a second logger must be refused";
    } catch (const ORVException &exception) {
        EXPECT_EQ(exception.reason(), "A shared logger was already set");
    }
    EXPECT_EQ(ORVCommandLogger::sharedLogger(), first);

    QStringList offMain;
    std::thread([&] {
        RecordAssertions record;
        ORVCommandLogger::setSharedLogger(first);
        offMain = record.descriptions();
    }).join();
    EXPECT_EQ(offMain, QStringList({"A shared logger was already set", "Shared logger not set on the main thread"}));

    ORVURLRequest request(QUrl("https://127.0.0.1/v1/auth/device/"));
    ORVCommandLogger::sharedLogger()->logRequest(request, "Orvella: Token", {}, std::nullopt, false, {});
    EXPECT_EQ(first->entries, QStringList{"Orvella: Token https://127.0.0.1/v1/auth/device/"});
}
