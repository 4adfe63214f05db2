#include "OrvTestSupport.h"

#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaNetworkTask.h>
#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QFile>
#include <QTemporaryDir>

using namespace orv::test;

namespace {
ORVURLRequest urlRequest()
{
    return ORVURLRequest(QUrl("https://127.0.0.1/v1/account/details/"));
}
} // namespace

TEST(RequestModel, DefaultsAndFrozenCopies)
{
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(urlRequest());
    EXPECT_EQ(request->priority(), -1.0f);
    EXPECT_EQ(request->retryCount(), 0u);
    EXPECT_FALSE(request->maskRequestLogging() || request->maskResponseLogging() || request->skipResponseLogging());
    EXPECT_EQ(request->countOfBytesClientExpectsToReceive(), 0u);
    EXPECT_FALSE(request->useBackgroundSession());
    EXPECT_FALSE(request->canStartWithoutToken());
    EXPECT_TRUE(request->category().isNull());

    request->setCategory("Token");
    request->setCanStartWithoutToken(true);
    auto copy = std::dynamic_pointer_cast<ORVOrvellaAccountRequest>(request->copy());
    ASSERT_TRUE(copy);
    EXPECT_TRUE(copy->isImmutable());
    EXPECT_TRUE(copy->canStartWithoutToken()) << "the copy keeps the subclass's field";
    EXPECT_EQ(copy->category(), "Token");
    try {
        copy->setCategory("Other");
        FAIL() << "a frozen copy must refuse changes";
    } catch (const ORVException &exception) {
        EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(exception.reason(), "Mutated request after submitting to network manager");
        EXPECT_TRUE(exception.userInfo().isEmpty());
    }
    EXPECT_THROW(copy->setCanStartWithoutToken(false), ORVException);
    EXPECT_THROW(copy->setPriority(0.5f), ORVException);
    copy->incrementRetryCount(); // allowed on the frozen copy
    EXPECT_EQ(copy->retryCount(), 1u);
    EXPECT_EQ(request->retryCount(), 0u);
    request->setCategory("Changed"); // the caller's own request stays configurable
    EXPECT_EQ(copy->category(), "Token");
}

TEST(RequestModel, EqualityByIdentifier)
{
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest());
    auto copy = request->copy();
    EXPECT_TRUE(copy->isEqual(*request));
    EXPECT_EQ(copy->hash(), request->hash());
    EXPECT_EQ(copy->identifier(), request->identifier());
    auto other = ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest());
    EXPECT_FALSE(other->isEqual(*request)) << "same URL request, different identifiers";
    EXPECT_TRUE(request->canStartWithoutToken());
    EXPECT_TRUE(request->debugDescription().endsWith(ORVUUIDString(request->identifier())));
}

TEST(ResponseData, FileBackedAndDescriptions)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("body");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("{\"ok\":true}");
    file.close();
    ORVOrvellaData fromFile{QUrl::fromLocalFile(path)};
    EXPECT_EQ(fromFile.debugDescription(), "URL: " + QUrl::fromLocalFile(path).toString()) << "no read before use";
    EXPECT_EQ(fromFile.data(), "{\"ok\":true}");
    EXPECT_EQ(fromFile.debugDescription(),
              "URL: " + QUrl::fromLocalFile(path).toString() + ", Data: (UTF8 String) - {\"ok\":true}");

    ORVOrvellaData missing{QUrl::fromLocalFile(dir.filePath("gone"))};
    EXPECT_TRUE(missing.data().isNull());
    EXPECT_TRUE(missing.debugDescription().contains(", Error: Error Domain=NSCocoaErrorDomain"));
    QFile late(dir.filePath("gone"));
    ASSERT_TRUE(late.open(QIODevice::WriteOnly));
    late.write("now here");
    late.close();
    EXPECT_TRUE(missing.data().isNull()) << "a failed read is not retried";

    EXPECT_EQ(ORVOrvellaData(QByteArray("\xff\xfe", 2)).debugDescription(), "Data: (Base 64 Encoded) - //4=");
    EXPECT_EQ(ORVOrvellaData(QByteArray()).debugDescription(), "Data: (null)");

    RecordAssertions record;
    ORVOrvellaData notFile{QUrl("https://127.0.0.1/")};
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid parameter not satisfying: [fileURL isFileURL]"});
}

TEST(ResponseData, Scrubbing)
{
    ORVURLRequest request = urlRequest();
    request.setValue("Bearer secret", "Authorization");
    request.setValue("text/plain", "Accept");
    const auto scrubbed = orv_scrubbedHeaders(request);
    EXPECT_EQ(scrubbed.value("Authorization"), "MASKED");
    EXPECT_EQ(scrubbed.value("Accept"), "text/plain");
    EXPECT_EQ(request.valueForHTTPHeaderField("Authorization"), "Bearer secret") << "the request is untouched";
    ORVHTTPHeaders lower;
    lower.appendRaw("authorization", "Bearer secret");
    EXPECT_EQ(orv_scrubbedHeaders(lower).fields().first().second, "Bearer secret") << "the key matches exactly";

    const QVariantMap dictionary{{"token", "abc"}, {"Token", "kept"}, {"user", "ada"}};
    const QVariantMap masked = copyScrubbedORV(dictionary);
    EXPECT_EQ(masked.value("token"), "MASKED");
    EXPECT_EQ(masked.value("Token"), "kept");
    EXPECT_EQ(dictionary.value("token"), "abc");
    EXPECT_EQ(copyScrubbedORV(QVariantMap{{"a", 1}}), (QVariantMap{{"a", 1}}));
}

TEST(NetworkTask, NestedCancellationAndRescheduling)
{
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(urlRequest());
    auto task = ORVOrvellaNetworkTask::taskWithRequest(request);
    auto other = ORVOrvellaNetworkTask::taskWithRequest(request);
    EXPECT_TRUE(task->isEqual(*other)) << "tasks of one request are equal";
    EXPECT_TRUE(task->request()->isImmutable());
    task->cancel(); // nothing to cancel, nothing happens

    auto session = ORVURLSession::sessionWithConfiguration(ORVURLSessionConfiguration::ephemeralSessionConfiguration());
    auto before = ORVOrvellaNetworkTask::taskWithRequest(ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest()));
    auto beforeURLTask = session->dataTaskWithRequest(urlRequest(), [](const auto &, const auto &, const auto &) {});
    before->updateCurrentURLTask(beforeURLTask, false);
    task->addNestedTask(before);
    task->cancel();
    auto after = ORVOrvellaNetworkTask::taskWithRequest(ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest()));
    auto afterURLTask = session->dataTaskWithRequest(urlRequest(), [](const auto &, const auto &, const auto &) {});
    after->updateCurrentURLTask(afterURLTask, false);
    task->addNestedTask(after);
    EXPECT_TRUE(waitUntil([&] { return beforeURLTask->state() == ORVURLSessionTaskState::Completed; }));
    EXPECT_EQ(beforeURLTask->error().code(), ORVURLErrorCancelled);
    EXPECT_EQ(afterURLTask->state(), ORVURLSessionTaskState::Suspended) << "added after the cancel";

    task->updateCurrentURLTask(nullptr, true);
    auto rescheduled = task->copyForRescheduling();
    EXPECT_FALSE(rescheduled->isEqual(*task)) << "the background flags differ";
    task->clearCurrentURLTask();
    EXPECT_TRUE(rescheduled->isEqual(*task));
    EXPECT_EQ(rescheduled->request()->identifier(), request->identifier());
}

namespace {
// A subclass that changes one thing only and writes no copy function.
class DownloadRequest : public ORVOrvellaAccountRequest {
public:
    using ORVOrvellaAccountRequest::ORVOrvellaAccountRequest;
    static std::shared_ptr<DownloadRequest> make(const ORVURLRequest &request)
    {
        return ORVOrvellaRequest::make<DownloadRequest>(request);
    }
    bool useBackgroundSession() const override { return true; }
    int tag = 0;
};

class CountingTask : public ORVOrvellaNetworkTask {
public:
    using ORVOrvellaNetworkTask::ORVOrvellaNetworkTask;
    static std::shared_ptr<CountingTask> make(const std::shared_ptr<ORVOrvellaRequest> &request)
    {
        return ORVOrvellaNetworkTask::make<CountingTask>(request);
    }
    void cancel() override
    {
        ++cancels;
        ORVOrvellaNetworkTask::cancel();
    }
    std::atomic<int> cancels = 0;
};
} // namespace

// Frozen copies and rescheduled tasks are of the class they were made from,
// though the class writes no copy hook of its own.
TEST(RequestModel, CopiesKeepTheirSubclass)
{
    auto request = DownloadRequest::make(urlRequest());
    request->tag = 7;
    request->setCanStartWithoutToken(true);
    auto copy = request->copy();
    auto typed = std::dynamic_pointer_cast<DownloadRequest>(copy);
    ASSERT_TRUE(typed) << "the copy lost its class";
    EXPECT_TRUE(copy->useBackgroundSession());
    EXPECT_TRUE(copy->canStartWithoutToken());
    EXPECT_EQ(typed->tag, 7);
    EXPECT_TRUE(copy->isImmutable());

    auto task = CountingTask::make(request);
    auto rescheduled = task->copyForRescheduling();
    EXPECT_EQ(task->cancels.load(), 1);
    auto typedTask = std::dynamic_pointer_cast<CountingTask>(rescheduled);
    ASSERT_TRUE(typedTask) << "the rescheduled task lost its class";
    EXPECT_TRUE(std::dynamic_pointer_cast<DownloadRequest>(rescheduled->request()));
    rescheduled->cancel();
    EXPECT_EQ(typedTask->cancels.load(), 1);
}
