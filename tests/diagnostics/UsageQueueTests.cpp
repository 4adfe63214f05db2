#include "AccountServerFixture.h"

#include <OrvellaKit/ORVDataCollectionManager.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <csignal>
#include <set>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

const QDateTime kReference(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);

ORVDataCollectionItem makeItem(const QString &text, std::optional<qint64> secondsFromNow)
{
    ORVDataCollectionItem item;
    item.text = text;
    item.category = QStringLiteral("usage");
    item.language = QStringLiteral("de");
    if (secondsFromNow)
        item.scheduledSubmissionDate = QDateTime::currentDateTimeUtc().addSecs(*secondsFromNow);
    return item;
}

// What a submission handler received.
struct Submission {
    std::atomic<int> calls = 0;
    std::atomic<bool> onMain = true;
    ORVError error;
    quint64 count = 99;
    ORVDataCollectionManager::SubmissionHandler handler()
    {
        return [this](const ORVError &e, quint64 c) {
            if (QThread::currentThread() != qApp->thread())
                onMain = false;
            error = e;
            count = c;
            ++calls;
        };
    }
    bool wait()
    {
        const bool called = waitUntil([&] { return calls.load() > 0; }, 10s);
        spinFor(50ms); // a second call would show now
        return called;
    }
};

class UsageQueueTest : public AccountServerTest {
protected:
    void SetUp() override
    {
        AccountServerTest::SetUp();
        queue->setSubmissionURL(url("/v1/usage/collect/"));
    }
    QByteArray fileContents() const
    {
        QFile file(queue->URLForPendingItems().toLocalFile());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    void writeFile(const QByteArray &contents)
    {
        QFile file(queue->URLForPendingItems().toLocalFile());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }
    size_t posts() const { return server.requestCount("/v1/usage/collect/"); }
    // Adds a copy of the item.
    ORVError add(ORVDataCollectionItem item, std::optional<double> delay = {})
    {
        return delay ? queue->addItem(item, *delay) : queue->addItem(item);
    }

    std::shared_ptr<ORVDataCollectionManager> queue = std::make_shared<ORVDataCollectionManager>();
};

// A real child process of the test's own (see UsageQueueChild.cpp), started
// with posix_spawn: QProcess forks in a way ThreadSanitizer cannot follow.
class Child {
public:
    explicit Child(const QStringList &arguments)
    {
        std::vector<QByteArray> storage{QByteArrayLiteral(ORV_USAGE_QUEUE_CHILD_PATH)};
        for (const QString &argument : arguments)
            storage.push_back(argument.toLocal8Bit());
        std::vector<char *> argv;
        for (QByteArray &argument : storage)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&_pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
            _pid = -1;
    }
    ~Child()
    {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
    }
    bool started() const { return _pid > 0; }
    void kill() const { ::kill(_pid, SIGKILL); }
    // The wait status, or nothing when the child is still running after `timeout`.
    std::optional<int> wait(std::chrono::milliseconds timeout = 30s)
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < end) {
            int status = 0;
            if (::waitpid(_pid, &status, WNOHANG) == _pid) {
                _pid = -1;
                return status;
            }
            std::this_thread::sleep_for(5ms);
        }
        return std::nullopt;
    }

private:
    pid_t _pid = -1;
};

// The texts of the reports in the child's queue file, in file order.
QStringList childQueueTexts(const TemporaryXdgHome &home)
{
    QFile file(home.filePath(".local/share/usage-queue-child/PendingSubmissions.json"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList texts;
    for (const QJsonValue &element : QJsonDocument::fromJson(file.readAll()).array())
        texts << element.toObject().value("text").toString();
    return texts;
}

QStringList numbered(const QString &label, int count)
{
    QStringList texts;
    for (int i = 0; i < count; ++i)
        texts << label + ' ' + QString::number(i);
    return texts;
}

// The reports the collection endpoint received, scripted answers included.
QStringList postedTexts(const orv::server::AccountServer &server)
{
    QStringList texts;
    for (const auto &request : server.requests()) {
        if (request.path != "/v1/usage/collect/")
            continue;
        for (const QJsonValue &element : QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).array())
            texts << element.toObject().value("text").toString();
    }
    return texts;
}

} // namespace

TEST_F(UsageQueueTest, ReportsAreOnDiskWhenAddReturns)
{
    // Killed right after the adds.
    {
        const QString marker = home.filePath("added");
        Child child({"kill", "5", "killed", marker});
        ASSERT_TRUE(child.started());
        ASSERT_TRUE(waitUntil([&] { return QFile::exists(marker); }, 30s));
        child.kill();
        const auto status = child.wait();
        ASSERT_TRUE(status && WIFSIGNALED(*status));
        EXPECT_EQ(childQueueTexts(home), numbered("killed", 5));
    }
    // Returning from main right after the adds.
    {
        Child child({"return", "5", "returned"});
        const auto status = child.wait();
        ASSERT_TRUE(status && WIFEXITED(*status));
        EXPECT_EQ(WEXITSTATUS(*status), 0);
        EXPECT_EQ(childQueueTexts(home), numbered("killed", 5) + numbered("returned", 5));
    }
    // Due reports with a submission still under way at the quit: each one is
    // either still queued or was received, and the process ends cleanly.
    {
        QFile::remove(home.filePath(".local/share/usage-queue-child/PendingSubmissions.json"));
        Child child({"return", "5", "due", url("/v1/usage/collect/").toString()});
        const auto status = child.wait();
        ASSERT_TRUE(status && WIFEXITED(*status));
        EXPECT_EQ(WEXITSTATUS(*status), 0);
        const QStringList seen = childQueueTexts(home) + postedTexts(server);
        for (const QString &text : numbered("due", 5))
            EXPECT_TRUE(seen.contains(text)) << qPrintable(text);
    }
}

TEST_F(UsageQueueTest, TwoProcessesShareTheQueueFile)
{
    Child first({"return", "150", "first"});
    Child second({"return", "150", "second"});
    for (Child *child : {&first, &second}) {
        const auto status = child->wait(60s);
        ASSERT_TRUE(status && WIFEXITED(*status));
        EXPECT_EQ(WEXITSTATUS(*status), 0);
    }
    const QStringList texts = childQueueTexts(home);
    EXPECT_EQ(texts.size(), 300);
    // Each process's reports are all there, in the order it added them.
    for (const QString &label : {QStringLiteral("first"), QStringLiteral("second")}) {
        QStringList own;
        for (const QString &text : texts)
            if (text.startsWith(label + ' '))
                own << qPrintable(text);
        EXPECT_EQ(own, numbered(label, 150)) << qPrintable(label);
    }
}

TEST_F(UsageQueueTest, OneSubmissionPassAtATime)
{
    // Slow answers, so that every add below finds a pass under way.
    server.script("POST", "/v1/usage/collect/", {ScriptedResponse{200, "{}", "application/json", {}, 300ms}});
    for (int i = 0; i < 4; ++i)
        add(makeItem(QString::number(i), {}), -1);
    ASSERT_TRUE(waitUntil([&] { return postedTexts(server).size() >= 4 && queue->pendingItems().isEmpty(); }, 10s));
    spinFor(700ms); // a second pass would post again now
    const QStringList posted = postedTexts(server);
    EXPECT_EQ(std::set<QString>(posted.begin(), posted.end()).size(), 4u);
    EXPECT_EQ(posted.size(), 4) << qPrintable(posted.join(", "));

    // Requests made while a pass runs share one more pass; each handler
    // runs once.
    server.clearRequests();
    queue->setPendingItems({makeItem("first", -1)});
    Submission running, absorbed1, absorbed2;
    queue->submitPendingItemsWithCompletionHandler(running.handler());
    ASSERT_TRUE(waitUntil([&] { return posts() == 1; }));
    add(makeItem("second", {}), -1);
    queue->submitPendingItemsWithCompletionHandler(absorbed1.handler());
    queue->submitPendingItemsWithCompletionHandler(absorbed2.handler());
    ASSERT_TRUE(absorbed1.wait() && absorbed2.wait() && running.wait());
    EXPECT_EQ(running.count, 1u);
    EXPECT_EQ(absorbed1.count, 1u);
    EXPECT_EQ(absorbed2.count, 1u);
    spinFor(400ms);
    EXPECT_EQ(running.calls.load() + absorbed1.calls.load() + absorbed2.calls.load(), 3);
    EXPECT_EQ(postedTexts(server), (QStringList{"first", "second"}));
}

TEST_F(UsageQueueTest, StoredValuesArePostedAsStored)
{
    const QByteArray stored =
        R"([{"text":5,"category":["a",1],"language":null,"country":"AT","userInfo":"x","scheduledSubmissionDate":1}])";
    writeFile(stored);
    // What the queue reads and writes back keeps every value.
    queue->setPendingItems(queue->pendingItems());
    EXPECT_EQ(QJsonDocument::fromJson(fileContents()), QJsonDocument::fromJson(stored));

    Submission submission;
    queue->submitPendingItemsWithCompletionHandler(submission.handler());
    ASSERT_TRUE(submission.wait());
    EXPECT_EQ(submission.count, 1u);
    const auto reports = server.service().collectedReports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(QJsonDocument::fromJson(QByteArray::fromStdString(reports[0])).object(),
              (QJsonObject{{"text", 5}, {"category", QJsonArray{"a", 1}}, {"language", QJsonValue::Null},
                           {"country", "AT"}, {"userInfo", "x"}}));
    EXPECT_EQ(fileContents(), "[]");
}

TEST_F(UsageQueueTest, ItemFormsAndDefaults)
{
    EXPECT_EQ(queue->submissionDelay(), 604800.0);
    EXPECT_TRUE(queue->URLForPendingItems().toLocalFile().endsWith("/PendingSubmissions.json"));
    EXPECT_TRUE(queue->pendingItems().isEmpty());

    ORVDataCollectionItem item;
    item.text = "crashed";
    item.userInfo = QJsonObject{{"build", 7}};
    item.scheduledSubmissionDate = kReference.addMSecs(1500);
    EXPECT_EQ(item.JSONDictionaryForStorage(),
              (QJsonObject{{"text", "crashed"}, {"userInfo", QJsonObject{{"build", 7}}}, {"scheduledSubmissionDate", 1.5}}));
    EXPECT_EQ(item.JSONDictionaryForSubmission(), (QJsonObject{{"text", "crashed"}, {"userInfo", QJsonObject{{"build", 7}}}}));

    // Reading: a date given as text; a value of another type is kept as it was.
    const ORVDataCollectionItem read(QJsonObject{{"text", 5},
                                                 {"category", "c"},
                                                 {"country", "AT"},
                                                 {"userInfo", "x"},
                                                 {"scheduledSubmissionDate", "-86400.25"}});
    EXPECT_FALSE(read.text);
    EXPECT_EQ(read.category, std::optional<QString>("c"));
    EXPECT_EQ(read.country, std::optional<QString>("AT"));
    EXPECT_FALSE(read.userInfo);
    EXPECT_EQ(read.storedValues, (QJsonObject{{"text", 5}, {"userInfo", "x"}}));
    EXPECT_EQ(read.JSONDictionaryForSubmission(),
              (QJsonObject{{"text", 5}, {"category", "c"}, {"country", "AT"}, {"userInfo", "x"}}));
    ASSERT_TRUE(read.scheduledSubmissionDate);
    EXPECT_EQ(*read.scheduledSubmissionDate, kReference.addMSecs(-86400250));

    queue->setPendingItems({item, read});
    EXPECT_EQ(queue->pendingItems(), (QList<ORVDataCollectionItem>{item, read}));
    queue->setPendingItems({});
    EXPECT_EQ(fileContents(), "[]");
}

TEST_F(UsageQueueTest, LongQueueIsDrainedFiftyAtATime)
{
    QList<ORVDataCollectionItem> items;
    for (int i = 0; i < 120; ++i)
        items << makeItem(QString::number(i), -60);
    queue->setPendingItems(items);

    Submission submission;
    queue->submitPendingItemsWithCompletionHandler(submission.handler());
    ASSERT_TRUE(submission.wait());
    EXPECT_EQ(submission.calls.load(), 1);
    EXPECT_TRUE(submission.onMain);
    EXPECT_FALSE(submission.error);
    EXPECT_EQ(submission.count, 20u);
    EXPECT_EQ(server.service().collectedBatches(), (std::vector<int>{50, 50, 20}));
    EXPECT_EQ(fileContents(), "[]");

    // In queue order, without the date, as JSON.
    const auto reports = server.service().collectedReports();
    ASSERT_EQ(reports.size(), 120u);
    EXPECT_EQ(QJsonDocument::fromJson(QByteArray::fromStdString(reports[119])).object(),
              (QJsonObject{{"text", "119"}, {"category", "usage"}, {"language", "de"}}));
    const auto request = server.requests().back();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.header("content-type"), "application/json");
    EXPECT_EQ(request.header("authorization"), "");
}

TEST_F(UsageQueueTest, OnlyDueItemsAreSentAndRefusalsKeepEverything)
{
    const QList<ORVDataCollectionItem> items{makeItem("due", -1), makeItem("later", 3600), makeItem("undated", {})};
    queue->setPendingItems(items);
    const QByteArray before = fileContents();

    server.service().setCollectionStatus(500);
    Submission refused;
    queue->submitPendingItemsWithCompletionHandler(refused.handler());
    ASSERT_TRUE(refused.wait());
    EXPECT_FALSE(refused.error);
    EXPECT_EQ(refused.count, 0u);
    EXPECT_EQ(fileContents(), before);

    // A transport error comes through, the file still unchanged.
    server.stop();
    Submission offline;
    queue->submitPendingItemsWithCompletionHandler(offline.handler());
    ASSERT_TRUE(offline.wait());
    EXPECT_TRUE(offline.error);
    EXPECT_EQ(offline.count, 0u);
    EXPECT_EQ(fileContents(), before);

    ASSERT_TRUE(server.start());
    queue->setSubmissionURL(url("/v1/usage/collect/"));
    server.service().setCollectionStatus(202);
    Submission accepted;
    queue->submitPendingItemsWithCompletionHandler(accepted.handler());
    ASSERT_TRUE(accepted.wait());
    EXPECT_EQ(accepted.count, 1u);
    EXPECT_EQ(queue->pendingItems(), items.mid(1));

    // Nothing due: no post, no rewrite.
    const size_t sent = posts();
    Submission idle;
    queue->submitPendingItemsWithCompletionHandler(idle.handler());
    ASSERT_TRUE(idle.wait());
    EXPECT_EQ(idle.count, 0u);
    EXPECT_EQ(posts(), sent);
}

TEST_F(UsageQueueTest, DisabledSubmissionSendsNothing)
{
    queue->setPendingItems({makeItem("due", -1)});
    queue->beginSubmissionDisabled();
    queue->beginSubmissionDisabled();
    queue->endSubmissionDisabled();
    Submission disabled;
    queue->submitPendingItemsWithCompletionHandler(disabled.handler());
    ASSERT_TRUE(disabled.wait());
    EXPECT_EQ(disabled.count, 0u);
    EXPECT_EQ(posts(), 0u);

    queue->endSubmissionDisabled();
    RecordAssertions record;
    queue->endSubmissionDisabled();
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid parameter not satisfying: _submissionDisabledCount > 0"});
    Submission enabled;
    queue->submitPendingItemsWithCompletionHandler(enabled.handler());
    ASSERT_TRUE(enabled.wait());
    EXPECT_EQ(enabled.count, 1u);
}

TEST_F(UsageQueueTest, AddingItems)
{
    // The caller's item learns its date and is in the file at once.
    ORVDataCollectionItem later = makeItem("later", {});
    const QDateTime before = QDateTime::currentDateTimeUtc();
    EXPECT_FALSE(queue->addItem(later));
    ASSERT_TRUE(later.scheduledSubmissionDate);
    EXPECT_NEAR(before.secsTo(*later.scheduledSubmissionDate), 604800, 2);
    EXPECT_EQ(queue->pendingItems(), QList<ORVDataCollectionItem>{later});

    // The same item again is a programming error and is not queued twice.
    {
        RecordAssertions record;
        const ORVError again = queue->addItem(later);
        EXPECT_EQ(record.descriptions(),
                  QStringList{"Invalid parameter not satisfying: [item scheduledSubmissionDate] == nil"});
        EXPECT_EQ(again.domain(), ORVDataCollectionManagerErrorDomain);
        EXPECT_EQ(again.code(), ORVDataCollectionManagerItemAlreadyQueuedErrorCode);
    }
    EXPECT_EQ(queue->pendingItems().size(), 1);

    // Adds from one thread keep their order.
    QStringList expected{"later"};
    for (int i = 0; i < 20; ++i) {
        EXPECT_FALSE(add(makeItem(QString::number(i), {})));
        expected << QString::number(i);
    }
    QStringList texts;
    for (const auto &item : queue->pendingItems())
        texts << item.text.value_or("?");
    EXPECT_EQ(texts, expected);

    // A due item goes out after the add.
    ORVDataCollectionItem now = makeItem("now", {});
    EXPECT_FALSE(queue->addItem(now, -1));
    ASSERT_TRUE(waitUntil([&] { return server.service().collectedBatches().size() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return queue->pendingItems().size() == 21; }));
    EXPECT_EQ(server.service().collectedBatches(), std::vector<int>{1});
}

TEST_F(UsageQueueTest, AnAddThatCannotBeWrittenSaysSo)
{
    // Before the submission URL is set, a report is still queued, and its
    // due date brings no assertion.
    {
        auto early = std::make_shared<ORVDataCollectionManager>();
        RecordAssertions record;
        ORVDataCollectionItem item = makeItem("early", {});
        EXPECT_FALSE(early->addItem(item, -1));
        spinFor(200ms);
        EXPECT_TRUE(record.descriptions().isEmpty()) << qPrintable(record.descriptions().join("; "));
        EXPECT_EQ(early->pendingItems().size(), 1);
    }
    // A folder in the file's place: the add fails and says why; the item
    // can be added once the place is free.
    const QString path = queue->URLForPendingItems().toLocalFile();
    ASSERT_TRUE(QFile::remove(path));
    ASSERT_TRUE(QDir().mkpath(path + "/inside"));
    ORVDataCollectionItem blocked = makeItem("blocked", {});
    const ORVError error = queue->addItem(blocked);
    EXPECT_EQ(error.domain(), ORVDataCollectionManagerErrorDomain);
    EXPECT_EQ(error.code(), ORVDataCollectionManagerWriteFailedErrorCode);
    EXPECT_FALSE(error.localizedDescription().isEmpty());
    EXPECT_FALSE(blocked.scheduledSubmissionDate);
    EXPECT_EQ(queue->setPendingItems({}).code(), ORVDataCollectionManagerWriteFailedErrorCode);
    ASSERT_TRUE(QDir(path).removeRecursively());
    EXPECT_FALSE(queue->addItem(blocked));
    EXPECT_EQ(queue->pendingItems().size(), 1);

    // A delay that is no number of seconds is refused; the file is untouched.
    const QByteArray before = fileContents();
    for (const double delay : {qQNaN(), qInf(), -qInf(), 1e300}) {
        ORVDataCollectionItem odd = makeItem("odd delay", {});
        EXPECT_EQ(queue->addItem(odd, delay).code(), ORVDataCollectionManagerInvalidDelayErrorCode) << delay;
        EXPECT_FALSE(odd.scheduledSubmissionDate);
    }
    EXPECT_EQ(fileContents(), before);

    // A link in the file's place is neither followed nor replaced: the
    // reports it leads to stay as they are.
    QFile outside(home.filePath("outside.json"));
    ASSERT_TRUE(outside.open(QIODevice::WriteOnly));
    outside.write(R"([{"text":"elsewhere"}])");
    outside.close();
    ASSERT_TRUE(QFile::remove(path));
    ASSERT_TRUE(QFile::link(outside.fileName(), path));
    ORVDataCollectionItem linked = makeItem("linked", {});
    EXPECT_EQ(queue->addItem(linked).code(), ORVDataCollectionManagerWriteFailedErrorCode);
    // A submission cannot read it either, and says so rather than take it
    // for an empty queue.
    Submission unreadable;
    queue->submitPendingItemsWithCompletionHandler(unreadable.handler());
    ASSERT_TRUE(unreadable.wait());
    EXPECT_EQ(unreadable.error.code(), ORVDataCollectionManagerWriteFailedErrorCode);
    EXPECT_EQ(posts(), 0u);
    ASSERT_TRUE(outside.open(QIODevice::ReadOnly));
    EXPECT_EQ(outside.readAll(), R"([{"text":"elsewhere"}])");
    outside.close();
    ASSERT_TRUE(QFile::remove(path));

    // A lock file that cannot be opened (a dangling link) stops adds and
    // submissions alike, rather than sending the same reports again and again.
    ASSERT_TRUE(queue->setPendingItems({makeItem("due", -60)}).isNull());
    QFile::remove(path + ".lock");
    ASSERT_TRUE(QFile::link(home.filePath("nowhere"), path + ".lock"));
    ORVDataCollectionItem unlocked = makeItem("unlocked", {});
    EXPECT_EQ(queue->addItem(unlocked).code(), ORVDataCollectionManagerWriteFailedErrorCode);
    Submission refused;
    queue->submitPendingItemsWithCompletionHandler(refused.handler());
    ASSERT_TRUE(refused.wait());
    EXPECT_EQ(refused.error.code(), ORVDataCollectionManagerWriteFailedErrorCode);
    EXPECT_EQ(posts(), 0u);
    ASSERT_TRUE(QFile::remove(path + ".lock"));
    EXPECT_EQ(queue->pendingItems().size(), 1);

    // No data folder can be made (a plain file where it would go): nothing
    // is written anywhere else, the working folder included.
    QTemporaryDir work;
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(work.path()));
    QFile blocker(home.filePath("blocker"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    qputenv("XDG_DATA_HOME", home.filePath("blocker/share").toUtf8());
    ORVDataCollectionItem homeless = makeItem("homeless", {});
    const ORVError noFolder = queue->addItem(homeless);
    EXPECT_EQ(noFolder.code(), ORVDataCollectionManagerNoQueueFolderErrorCode);
    EXPECT_TRUE(queue->URLForPendingItems().isEmpty());
    EXPECT_TRUE(queue->pendingItems().isEmpty());
    EXPECT_EQ(queue->setPendingItems({}).code(), ORVDataCollectionManagerNoQueueFolderErrorCode);
    Submission homelessPass;
    queue->submitPendingItemsWithCompletionHandler(homelessPass.handler());
    ASSERT_TRUE(homelessPass.wait());
    EXPECT_EQ(homelessPass.error.code(), ORVDataCollectionManagerNoQueueFolderErrorCode);
    EXPECT_EQ(homelessPass.calls.load(), 1);
    EXPECT_TRUE(QDir(work.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
    QDir::setCurrent(previous);
}

TEST_F(UsageQueueTest, UpdatesTouchOnlyTheReportsNamed)
{
    // Two copies of one report, one with its date stored as a string, and
    // an element that is no report.
    writeFile(R"([{"text":"twice","scheduledSubmissionDate":"900000000"},)"
              R"({"text":"twice","scheduledSubmissionDate":900000000},)"
              R"({"text":"later","scheduledSubmissionDate":900000000,"extra":[1]},7])");
    const QList<ORVDataCollectionItem> shown = queue->pendingItems();
    ASSERT_EQ(shown.size(), 3);
    // Queued after the list was read: not named, so untouched.
    ASSERT_FALSE(add(makeItem("new", {}), 3600));
    ORVDataCollectionItem gone;
    gone.text = QStringLiteral("not queued");

    const QDateTime due = kReference.addSecs(1000);
    ASSERT_FALSE(queue->updatePendingItems({shown.at(0), gone}, {shown.at(2)}, due));
    const QJsonArray array = QJsonDocument::fromJson(fileContents()).array();
    ASSERT_EQ(array.size(), 4) << fileContents().constData();
    EXPECT_EQ(array.at(0).toObject().value("text"), "twice");
    EXPECT_EQ(array.at(1).toObject().value("scheduledSubmissionDate").toDouble(), 1000.0);
    EXPECT_EQ(array.at(1).toObject().value("extra"), QJsonArray{1});
    EXPECT_EQ(array.at(2), QJsonValue(7));
    EXPECT_EQ(array.at(3).toObject().value("text"), "new");
}

TEST_F(UsageQueueTest, AReportRescheduledWhileItIsBeingSentLeavesTheQueueOnce)
{
    // The server takes its time with the batch; meanwhile "Submit All Now"
    // makes every shown report due, the one on its way included.
    server.script("POST", "/v1/usage/collect/", {ScriptedResponse{200, "{}", "application/json", {}, 600ms}});
    ASSERT_FALSE(queue->setPendingItems({makeItem("on its way", -10), makeItem("later", 3600)}));
    std::atomic<int> handled = 0;
    queue->submitPendingItemsWithCompletionHandler([&](const ORVError &, quint64) { ++handled; });
    ASSERT_TRUE(waitUntil([&] { return posts() == 1; }, 10s));
    const QList<ORVDataCollectionItem> shown = queue->pendingItems();
    ASSERT_EQ(shown.size(), 2);
    ASSERT_FALSE(queue->updatePendingItems({}, shown, QDateTime::currentDateTimeUtc().addSecs(-1)));
    ASSERT_TRUE(waitUntil([&] { return handled.load() == 1; }, 10s));

    // The sent report is gone; only the one not yet sent waits, now due.
    const QList<ORVDataCollectionItem> left = queue->pendingItems();
    ASSERT_EQ(left.size(), 1);
    EXPECT_EQ(left.first().text, "later");
    EXPECT_LT(QDateTime::currentDateTimeUtc().msecsTo(*left.first().scheduledSubmissionDate), 0);
    EXPECT_EQ(posts(), 1u);
}

TEST_F(UsageQueueTest, ItemsAddedDuringASubmissionStay)
{
    queue->setPendingItems({makeItem("due", -1)});
    server.script("POST", "/v1/usage/collect/", {ScriptedResponse{200, "{}", "application/json", {}, 300ms}});
    Submission submission;
    queue->submitPendingItemsWithCompletionHandler(submission.handler());
    ASSERT_TRUE(waitUntil([&] { return posts() == 1; }));
    EXPECT_FALSE(add(makeItem("added meanwhile", {})));
    ASSERT_TRUE(submission.wait());
    const auto items = queue->pendingItems();
    ASSERT_EQ(items.size(), 1);
    EXPECT_EQ(items[0].text, std::optional<QString>("added meanwhile"));
}

TEST_F(UsageQueueTest, BadFilesReadAsDocumentedAndAreKeptAside)
{
    struct Case {
        const char *name;
        QByteArray contents;
        int items;
        bool keptAside;
    };
    const std::vector<Case> cases = {
        {"truncated", R"([{"text":"a","scheduledSubmissionDate":1},{"te)", 0, true},
        {"not JSON", "\x89PNG\r\n", 0, true},
        {"object", R"({"text":"a"})", 0, true},
        {"empty", "", 0, true},
        {"wrong elements", R"([5,"x",null,{"text":"ok","scheduledSubmissionDate":"12"}])", 1, false},
    };
    for (const Case &c : cases) {
        writeFile(c.contents);
        const QString path = queue->URLForPendingItems().toLocalFile();
        QFile::remove(path + ".unreadable");
        QFile::remove(path + ".unreadable.1");
        EXPECT_EQ(queue->pendingItems().size(), c.items) << c.name;
        EXPECT_FALSE(add(makeItem("new", {}))) << c.name;
        EXPECT_EQ(queue->pendingItems().size(), c.items + 1) << c.name;
        QFile aside(queue->URLForPendingItems().toLocalFile() + ".unreadable");
        EXPECT_EQ(aside.exists(), c.keptAside) << c.name;
        if (c.items > 0) {
            // Elements that hold no report stay in the file as they were.
            EXPECT_TRUE(fileContents().startsWith(R"([5,"x",null,{)")) << c.name;
        }
        if (c.keptAside) {
            ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
            EXPECT_EQ(aside.readAll(), c.contents) << c.name;
            // A second damaged file is set aside beside the first.
            writeFile("second damage");
            EXPECT_FALSE(add(makeItem("newer", {}))) << c.name;
            QFile second(path + ".unreadable.1");
            ASSERT_TRUE(second.open(QIODevice::ReadOnly)) << c.name;
            EXPECT_EQ(second.readAll(), "second damage");
            aside.seek(0);
            EXPECT_EQ(aside.readAll(), c.contents) << c.name;
        }
    }

    // A link where the copy would be set aside takes that name, dangling or
    // not: it is neither replaced nor followed.
    const QString path = queue->URLForPendingItems().toLocalFile();
    QFile::remove(path + ".unreadable");
    QFile::remove(path + ".unreadable.1");
    const QString nowhere = home.filePath("nowhere-aside");
    ASSERT_TRUE(QFile::link(nowhere, path + ".unreadable"));
    writeFile("damaged beside a link");
    EXPECT_FALSE(add(makeItem("after the link", {})));
    EXPECT_EQ(QFileInfo(path + ".unreadable").symLinkTarget(), nowhere);
    EXPECT_FALSE(QFileInfo::exists(nowhere));
    QFile moved(path + ".unreadable.1");
    ASSERT_TRUE(moved.open(QIODevice::ReadOnly));
    EXPECT_EQ(moved.readAll(), "damaged beside a link");
    EXPECT_EQ(queue->pendingItems().size(), 1);
}

TEST_F(UsageQueueTest, SubmissionTimer)
{
    EXPECT_FALSE(queue->isSubmissionTimerActive());
    queue->startSubmissionTimer();
    EXPECT_TRUE(queue->isSubmissionTimerActive());
    queue->startSubmissionTimer(); // replaces the first
    EXPECT_TRUE(queue->isSubmissionTimerActive());
    queue->stopSubmissionTimer();
    EXPECT_FALSE(queue->isSubmissionTimerActive());

    // The timer may run before the application has a submission URL: a
    // firing then leaves the reports queued. An assertion thrown from the
    // timer's slot would end the application.
    struct Timed : ORVDataCollectionManager {
        using ORVDataCollectionManager::submissionTimerFired;
    } early;
    ORVDataCollectionItem report = makeItem("early", {});
    ASSERT_FALSE(early.addItem(report, -60));
    EXPECT_NO_THROW(early.submissionTimerFired());
    spinFor(100ms);
    EXPECT_EQ(early.pendingItems().size(), 1);
    EXPECT_EQ(posts(), 0u);

    // A timer stopped, or its manager destroyed, on another thread than the
    // one it runs on is taken down on its own thread.
    static QStringList complaints;
    const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
        complaints.append(text);
    });
    queue->startSubmissionTimer();
    std::thread([&] { queue->stopSubmissionTimer(); }).join();
    EXPECT_FALSE(queue->isSubmissionTimerActive());
    queue->startSubmissionTimer();
    std::thread([&] { queue.reset(); }).join();
    spinFor(50ms);
    qInstallMessageHandler(previous);
    EXPECT_TRUE(complaints.filter("thread").isEmpty()) << qPrintable(complaints.join('\n'));
}
