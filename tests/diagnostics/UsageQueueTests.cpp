#include "AccountServerFixture.h"

#include <OrvellaKit/ORVDataCollectionManager.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

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

    std::shared_ptr<ORVDataCollectionManager> queue = std::make_shared<ORVDataCollectionManager>();
};

} // namespace

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

    // Reading: a date given as text, wrong types as no value.
    const ORVDataCollectionItem read(QJsonObject{{"text", 5},
                                                 {"category", "c"},
                                                 {"country", "AT"},
                                                 {"userInfo", "x"},
                                                 {"scheduledSubmissionDate", "-86400.25"}});
    EXPECT_FALSE(read.text);
    EXPECT_EQ(read.category, std::optional<QString>("c"));
    EXPECT_EQ(read.country, std::optional<QString>("AT"));
    EXPECT_FALSE(read.userInfo);
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
    {
        RecordAssertions record;
        queue->addItem(makeItem("dated", 10));
        EXPECT_EQ(record.descriptions(),
                  QStringList{"Invalid parameter not satisfying: [item scheduledSubmissionDate] == nil"});
    }
    std::atomic<int> queued = 0;
    const QDateTime before = QDateTime::currentDateTimeUtc();
    queue->addItem(makeItem("later", {}), [&] { ++queued; });
    ASSERT_TRUE(waitUntil([&] { return queued.load() == 1; }));
    const auto items = queue->pendingItems();
    ASSERT_EQ(items.size(), 1);
    ASSERT_TRUE(items[0].scheduledSubmissionDate);
    EXPECT_NEAR(before.secsTo(*items[0].scheduledSubmissionDate), 604800, 2);

    // A due item goes out as part of the add.
    queue->addItem(makeItem("now", {}), -1, [&] { ++queued; });
    ASSERT_TRUE(waitUntil([&] { return server.service().collectedBatches().size() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return queue->pendingItems().size() == 1; }));
    EXPECT_EQ(queue->pendingItems()[0].text, std::optional<QString>("later"));
}

TEST_F(UsageQueueTest, ItemsAddedDuringASubmissionStay)
{
    queue->setPendingItems({makeItem("due", -1)});
    server.script("POST", "/v1/usage/collect/", {ScriptedResponse{200, "{}", "application/json", {}, 300ms}});
    Submission submission;
    queue->submitPendingItemsWithCompletionHandler(submission.handler());
    ASSERT_TRUE(waitUntil([&] { return posts() == 1; }));
    std::atomic<bool> queued = false;
    queue->addItem(makeItem("added meanwhile", {}), [&] { queued = true; });
    ASSERT_TRUE(submission.wait());
    ASSERT_TRUE(waitUntil([&] { return queued.load(); }));
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
        QFile::remove(queue->URLForPendingItems().toLocalFile() + ".unreadable");
        EXPECT_EQ(queue->pendingItems().size(), c.items) << c.name;
        std::atomic<bool> queued = false;
        queue->addItem(makeItem("new", {}), [&] { queued = true; });
        ASSERT_TRUE(waitUntil([&] { return queued.load(); })) << c.name;
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
        }
    }
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
}
