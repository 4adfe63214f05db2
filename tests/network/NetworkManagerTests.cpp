#include "AccountServerFixture.h"

#include <OrvellaKit/ORVCommandLogger.h>
#include <OrvellaKit/ORVOrvellaURLSession.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslCertificate>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

QJsonObject echoed(const Delivery &delivery)
{
    return QJsonDocument::fromJson(delivery.body()).object();
}

class RecordingCommandLogger : public ORVCommandLogging {
public:
    void logRequest(const ORVURLRequest &, const QString &category, const QByteArray &responseData,
                    const std::optional<ORVHTTPURLResponse> &, bool maskRequestBody, const ORVError &) override
    {
        std::lock_guard lock(mutex);
        entries << category + "|" + QString::fromUtf8(responseData) + "|" + (maskRequestBody ? "masked" : "plain");
    }
    QStringList all()
    {
        std::lock_guard lock(mutex);
        return entries;
    }
    std::mutex mutex;
    QStringList entries;
};

} // namespace

class NetworkManagerTest : public AccountServerTest {};

TEST_F(NetworkManagerTest, AccountRequestCarriesExactlyOneBearerHeader)
{
    ORVURLRequest urlRequest(url("/v1/echo/"));
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(urlRequest);
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_EQ(delivery.calls.load(), 1);
    EXPECT_TRUE(delivery.onMainThread);
    EXPECT_EQ(delivery.status(), 200);
    EXPECT_EQ(echoed(delivery).value("authorization").toString(), "Bearer test-token");
    EXPECT_EQ(echoed(delivery).value("authorizationCount").toInt(), 1);
    EXPECT_FALSE(request->originalRequest().allHTTPHeaderFields().contains("Authorization"))
        << "the caller's request is unchanged";
    EXPECT_EQ(provider->flags(), std::vector<bool>{false});
    EXPECT_TRUE(manager->activeTasks().empty());

    // A request that already carries a header gets it replaced, not doubled.
    urlRequest.setValue("Bearer stale", "Authorization");
    auto again = ORVOrvellaAccountRequest::requestWithURLRequest(urlRequest);
    Delivery second;
    again->setCompletionHandler(second.handler());
    manager->startRequest(again);
    ASSERT_TRUE(second.waitForCall());
    EXPECT_EQ(echoed(second).value("authorization").toString(), "Bearer test-token");
    EXPECT_EQ(echoed(second).value("authorizationCount").toInt(), 1);
}

TEST_F(NetworkManagerTest, SimpleRequestNeverAsksForAToken)
{
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/plain")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_TRUE(provider->flags().empty());
    EXPECT_EQ(echoed(delivery).value("authorizationCount").toInt(), 0);
}

TEST_F(NetworkManagerTest, RetriesOnceAfter401WithAFreshToken)
{
    server.script("GET", "/v1/retry", {ScriptedResponse{401, "{}"}, ScriptedResponse{200, "{\"ok\":1}"}});
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/retry")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    auto task = manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_EQ(delivery.calls.load(), 1);
    EXPECT_EQ(delivery.status(), 200);
    EXPECT_FALSE(delivery.error);
    EXPECT_EQ(server.requestCount("/v1/retry"), 2u);
    EXPECT_EQ(provider->flags(), std::vector<bool>({false, true})) << "the retry ignores the cache";
    EXPECT_EQ(task->request()->retryCount(), 1u);

    server.script("GET", "/v1/always401", {ScriptedResponse{401, "{}"}});
    auto refused = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/always401")));
    Delivery twice;
    refused->setCompletionHandler(twice.handler());
    manager->startRequest(refused);
    ASSERT_TRUE(twice.waitForCall());
    EXPECT_EQ(twice.calls.load(), 1);
    EXPECT_EQ(twice.status(), 401);
    EXPECT_FALSE(twice.error) << "the second 401 comes with the transport's error, none";
    EXPECT_EQ(server.requestCount("/v1/always401"), 2u);
}

TEST_F(NetworkManagerTest, TokenFailureReachesTheHandler)
{
    provider->token = QString();
    provider->error = ORVError("com.orvella.orvellakit.token.error", 3);
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/x")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_EQ(delivery.error.code(), 3);
    EXPECT_FALSE(delivery.response);
    EXPECT_EQ(server.requests().size(), 0u);
    EXPECT_TRUE(manager->activeTasks().empty());
}

TEST_F(NetworkManagerTest, PriorityOnlyInsideTheUnitRange)
{
    server.script("GET", "/slow", {ScriptedResponse{200, "{}", "application/json", {}, 300ms}});
    for (const auto &[priority, expected] : std::vector<std::pair<float, float>>{{0.3f, 0.3f}, {-1.0f, 0.5f}, {1.5f, 0.5f}}) {
        auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/slow")));
        request->setPriority(priority);
        Delivery delivery;
        request->setCompletionHandler(delivery.handler());
        auto task = manager->startRequest(request);
        ASSERT_TRUE(task->currentURLTask());
        EXPECT_FLOAT_EQ(task->currentURLTask()->priority(), expected) << priority;
        EXPECT_EQ(task->currentURLTask()->taskDescription(), ORVUUIDString(request->identifier()));
        ASSERT_TRUE(delivery.waitForCall());
    }
}

TEST_F(NetworkManagerTest, CancelByIdentifierDeliversCode16Once)
{
    server.script("GET", "/slow", {ScriptedResponse{200, "{}", "application/json", {}, 400ms}});
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/slow")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    manager->cancelTasksWithIdentifiers({request->identifier()});
    ASSERT_TRUE(delivery.waitForCall());
    spinFor(600ms); // the URL task's own end must not deliver again
    EXPECT_EQ(delivery.calls.load(), 1);
    EXPECT_EQ(delivery.error.domain(), "com.orvella.orvellakit.token.error");
    EXPECT_EQ(delivery.error.code(), 16);
    EXPECT_TRUE(manager->activeTasks().empty());
}

TEST_F(NetworkManagerTest, CancelByCategoriesUsesTheInvertedSelection)
{
    server.script("GET", "/slow", {ScriptedResponse{200, "{}", "application/json", {}, 400ms}});
    auto inSet = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/slow")));
    inSet->setCategory("a");
    auto outside = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/slow")));
    outside->setCategory("b");
    Delivery inSetDelivery, outsideDelivery;
    inSet->setCompletionHandler(inSetDelivery.handler());
    outside->setCompletionHandler(outsideDelivery.handler());
    manager->startRequest(inSet);
    manager->startRequest(outside);
    manager->cancelTasksWithCategories({"a"});
    EXPECT_EQ(manager->activeTasks().size(), 1u) << "only the cancelled one stays active";
    ASSERT_TRUE(waitUntil([&] { return outsideDelivery.calls.load() >= 2; }));
    spinFor(700ms);
    // The cancelled task stays active, so its URL task's cancellation is
    // delivered too; the task in the set ran on but is no longer active.
    EXPECT_EQ(outsideDelivery.calls.load(), 2);
    EXPECT_EQ(outsideDelivery.error.domain(), "NSURLErrorDomain");
    EXPECT_EQ(outsideDelivery.error.code(), ORVURLErrorCancelled);
    EXPECT_EQ(inSetDelivery.calls.load(), 0);
    EXPECT_GE(server.requestCount("/slow"), 1u) << "the task in the set ran on";
}

TEST_F(NetworkManagerTest, CancelActiveTasks)
{
    server.script("GET", "/slow", {ScriptedResponse{200, "{}", "application/json", {}, 300ms}});
    Delivery first, second;
    for (Delivery *delivery : {&first, &second}) {
        auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/slow")));
        request->setCompletionHandler(delivery->handler());
        manager->startRequest(request);
    }
    manager->cancelActiveTasks();
    EXPECT_TRUE(manager->activeTasks().empty());
    ASSERT_TRUE(waitUntil([&] { return first.calls.load() && second.calls.load(); }));
    spinFor(500ms);
    EXPECT_EQ(first.calls.load() + second.calls.load(), 2);
    EXPECT_EQ(first.error.code(), 16);
}

TEST_F(NetworkManagerTest, BackgroundDownloadAndRescheduling)
{
    manager->rescheduleBackgroundDownloadTasks(); // nothing to do
    server.script("GET", "/download", {ScriptedResponse{200, "downloaded body", "text/plain", {}, 300ms}});
    auto request = BackgroundAccountRequest::make(ORVURLRequest(url("/download")));
    int yields = 0, resumes = 0;
    request->setShouldYieldHandler([&] { ++yields; });
    request->setShouldResumeHandler([&] { ++resumes; });
    request->setCategory("dl");
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    auto logger = std::make_shared<RecordingCommandLogger>();
    const bool loggerSet = ORVCommandLogger::sharedLogger() != nullptr;
    if (!loggerSet)
        ORVCommandLogger::setSharedLogger(logger);
    auto task = manager->startRequest(request);
    EXPECT_TRUE(task->scheduledWithBackgroundSession());
    manager->rescheduleBackgroundDownloadTasks();
    ASSERT_TRUE(delivery.waitForCall());
    spinFor(400ms);
    EXPECT_EQ(delivery.calls.load(), 1) << "the rescheduled task delivers, the old one is gone";
    EXPECT_EQ(delivery.status(), 200) << qPrintable(delivery.error.description());
    ASSERT_TRUE(delivery.data);
    EXPECT_TRUE(delivery.data->url().isLocalFile()) << "account requests get the moved file";
    EXPECT_EQ(delivery.data->data(), "downloaded body");
    EXPECT_EQ(yields, 2);
    EXPECT_EQ(resumes, 1);
    QFile::remove(delivery.data->url().toLocalFile());
    if (!loggerSet) {
        const QStringList entries = logger->all();
        ASSERT_GE(entries.size(), 2);
        EXPECT_TRUE(entries.first().startsWith("Orvella: dl|Starting Request " + ORVUUIDString(request->identifier())));
        EXPECT_EQ(entries.last(), "Orvella: dl|downloaded body|plain");
    }
}

TEST_F(NetworkManagerTest, CommandLogMasksResponses)
{
    auto logger = std::make_shared<RecordingCommandLogger>();
    if (ORVCommandLogger::sharedLogger())
        GTEST_SKIP() << "another test of this process set the shared logger";
    ORVCommandLogger::setSharedLogger(logger);
    server.script("GET", "/secret", {ScriptedResponse{200, "{\"token\":\"abc\"}"}});
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/secret")));
    request->setCategory("Token");
    request->setMaskResponseLogging(true);
    request->setMaskRequestLogging(true);
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_EQ(logger->all(), QStringList{"Orvella: Token|Masked Content (15 Bytes)|masked"});
    EXPECT_EQ(delivery.body(), "{\"token\":\"abc\"}") << "the handler still gets the real body";

    auto skipped = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/secret")));
    skipped->setCategory("Token");
    skipped->setSkipResponseLogging(true);
    Delivery second;
    skipped->setCompletionHandler(second.handler());
    manager->startRequest(skipped);
    ASSERT_TRUE(second.waitForCall());
    EXPECT_EQ(logger->all().size(), 1);
}

TEST_F(NetworkManagerTest, RedirectsKeepOrDropHeaders)
{
    orv::server::AccountServer other;
    ASSERT_TRUE(other.start());
    const std::string otherPort = std::to_string(other.port());

    // To another host the proposed request goes as it is: without the token.
    server.script("POST", "/away", {ScriptedResponse{307, "", "text/plain", {}, 0ms, "http://localhost:" + otherPort + "/target"}});
    ORVURLRequest away(url("/away"));
    away.setHTTPMethod("POST");
    auto awayRequest = ORVOrvellaAccountRequest::requestWithURLRequest(away);
    Delivery dropped;
    awayRequest->setCompletionHandler(dropped.handler());
    manager->startRequest(awayRequest);
    ASSERT_TRUE(dropped.waitForCall());
    EXPECT_EQ(echoed(dropped).value("authorizationCount").toInt(), 0);

    // A GET is followed as proposed; within one origin that keeps the token.
    server.script("GET", "/hop", {ScriptedResponse{302, "", "text/plain", {}, 0ms, "/landed"}});
    auto get = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/hop")));
    Delivery followed;
    get->setCompletionHandler(followed.handler());
    manager->startRequest(get);
    ASSERT_TRUE(followed.waitForCall());
    EXPECT_EQ(echoed(followed).value("path").toString(), "/landed");
    EXPECT_EQ(echoed(followed).value("authorization").toString(), "Bearer test-token");
    other.stop();
}

TEST_F(NetworkManagerTest, FaultsGiveOneErrorOnTheMainThread)
{
    struct Case {
        const char *name;
        ScriptedResponse answer;
        double timeout;
        qint64 code;
    };
    const std::vector<Case> cases = {
        {"truncated", ScriptedResponse{200, std::string(100000, 'x'), "text/plain", {}, 0ms, "", 1000}, 10.0,
         ORVURLErrorNetworkConnectionLost},
        {"slow", ScriptedResponse{200, "{}", "application/json", {}, 1500ms}, 0.3, ORVURLErrorTimedOut},
    };
    for (const Case &c : cases) {
        const std::string path = std::string("/fault/") + c.name;
        server.script("GET", path, {c.answer});
        ORVURLRequest urlRequest(url(QString::fromStdString(path)));
        urlRequest.setTimeoutInterval(c.timeout);
        auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest);
        Delivery delivery;
        request->setCompletionHandler(delivery.handler());
        manager->startRequest(request);
        ASSERT_TRUE(delivery.waitForCall()) << c.name;
        EXPECT_EQ(delivery.calls.load(), 1) << c.name;
        EXPECT_TRUE(delivery.onMainThread) << c.name;
        EXPECT_EQ(delivery.error.code(), c.code) << c.name << " " << qPrintable(delivery.error.description());
    }
    // Nothing listens on the port any more.
    const QUrl closed = url("/gone");
    server.stop();
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(closed));
    Delivery refused;
    request->setCompletionHandler(refused.handler());
    manager->startRequest(request);
    ASSERT_TRUE(refused.waitForCall());
    EXPECT_EQ(refused.error.code(), ORVURLErrorCannotConnectToHost);
    EXPECT_TRUE(manager->activeTasks().empty());
}

TEST_F(NetworkManagerTest, LargeBodyArrivesWhole)
{
    std::string big(50 * 1024 * 1024, 'z');
    big[12345] = 'A';
    server.script("GET", "/big", {ScriptedResponse{200, big, "application/octet-stream"}});
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/big")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall(60s));
    EXPECT_EQ(delivery.calls.load(), 1);
    const QByteArray body = delivery.body();
    EXPECT_EQ(body.size(), 50 * 1024 * 1024);
    EXPECT_EQ(body.at(12345), 'A');
}

TEST(HTTPS, TrustsOnlyTheConfiguredAuthority)
{
    TemporaryXdgHome home;
    const auto certificate = orv::server::TestCertificate::generate();
    ASSERT_FALSE(certificate.certificatePem.empty());
    orv::server::AccountServer server(&certificate, home.path().toStdString());
    ASSERT_TRUE(server.start());
    const QUrl api(QString::fromStdString(server.baseURL()) + "/");
    ORVRegisterOrvellaAccountFetchBlock([api] { return std::make_shared<ServerAccount>(api); });

    auto untrusting = std::make_shared<ORVOrvellaNetworkManager>();
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(api.resolved(QUrl("echo"))));
    Delivery refused;
    request->setCompletionHandler(refused.handler());
    untrusting->startRequest(request);
    ASSERT_TRUE(refused.waitForCall());
    EXPECT_EQ(refused.error.code(), ORVURLErrorServerCertificateUntrusted) << qPrintable(refused.error.description());

    ORVURLSessionConfiguration::setDefaultCACertificates(
        QSslCertificate::fromData(QByteArray::fromStdString(certificate.certificatePem)));
    auto trusting = std::make_shared<ORVOrvellaNetworkManager>();
    auto again = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(api.resolved(QUrl("echo"))));
    Delivery accepted;
    again->setCompletionHandler(accepted.handler());
    trusting->startRequest(again);
    ASSERT_TRUE(accepted.waitForCall());
    EXPECT_FALSE(accepted.error) << qPrintable(accepted.error.description());
    EXPECT_EQ(accepted.status(), 200);
    ORVURLSessionConfiguration::setDefaultCACertificates({});
    server.stop();
}

TEST(OrvellaURLSession, NonHTTPResponseAndInvalidation)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("local.txt"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("local bytes");
    file.close();
    auto session = ORVOrvellaURLSession::foregroundSession();
    std::atomic<int> calls = 0;
    QByteArray received;
    std::optional<ORVHTTPURLResponse> response = ORVHTTPURLResponse();
    auto task = session->dataTaskWithURLRequest(
        ORVURLRequest(QUrl::fromLocalFile(file.fileName())),
        [&](const QByteArray &data, const std::optional<ORVHTTPURLResponse> &r, const ORVError &) {
            received = data;
            response = r;
            ++calls;
        });
    ASSERT_TRUE(task);
    task->resume();
    ASSERT_TRUE(waitUntil([&] { return calls.load() == 1; }));
    EXPECT_EQ(received, "local bytes");
    EXPECT_FALSE(response) << "a non-HTTP response is delivered as nothing";

    session->invalidateAndCancel();
    ASSERT_TRUE(waitUntil([&] { return !session->isValid(); }));
    RecordAssertions record;
    EXPECT_FALSE(session->dataTaskWithURLRequest(ORVURLRequest(QUrl("http://127.0.0.1/")), {}));
    EXPECT_FALSE(session->dataTaskWithURLRequest(ORVURLRequest(), {}));
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: _isValid",
                                                  "Invalid parameter not satisfying: urlRequest != nil"}));
}

// A programming error on the request path is reported through the
// assertion handler on the caller's thread, and the task still ends: its
// handler is called once with an error and it leaves the active set.
TEST_F(NetworkManagerTest, ProgrammingErrorsStillEndTheTask)
{
    RecordAssertions record;
    for (const bool account : {false, true}) {
        std::shared_ptr<ORVOrvellaRequest> request;
        if (account)
            request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest());
        else
            request = ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest());
        Delivery delivery;
        request->setCompletionHandler(delivery.handler());
        manager->startRequest(request);
        ASSERT_TRUE(delivery.waitForCall()) << account;
        EXPECT_EQ(delivery.calls.load(), 1);
        EXPECT_EQ(delivery.error.domain(), ORVURLErrorDomain);
        EXPECT_EQ(delivery.error.code(), ORVURLErrorBadURL);
        EXPECT_TRUE(manager->activeTasks().empty()) << account;
    }
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: urlRequest != nil",
                                                  "Invalid parameter not satisfying: urlRequest != nil"}));

    manager->foregroundSession()->invalidateAndCancel();
    ASSERT_TRUE(waitUntil([&] { return !manager->foregroundSession()->isValid(); }));
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/echo/")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_EQ(delivery.calls.load(), 1);
    EXPECT_TRUE(delivery.error);
    EXPECT_TRUE(manager->activeTasks().empty());
    EXPECT_EQ(record.descriptions().last(), "Invalid parameter not satisfying: _isValid");
    EXPECT_EQ(server.requestCount("/v1/echo/"), 0u);
}

// A subclass that only asks for the background session gets it.
TEST_F(NetworkManagerTest, ASubclassWithoutACopyHookKeepsItsSession)
{
    class OnlyBackground : public ORVOrvellaAccountRequest {
    public:
        using ORVOrvellaAccountRequest::ORVOrvellaAccountRequest;
        bool useBackgroundSession() const override { return true; }
    };
    auto request = ORVOrvellaRequest::make<OnlyBackground>(ORVURLRequest(url("/v1/echo/")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    auto task = manager->startRequest(request);
    EXPECT_TRUE(task->scheduledWithBackgroundSession());
    ASSERT_TRUE(delivery.waitForCall());
    ASSERT_TRUE(delivery.data);
    EXPECT_TRUE(delivery.data->url().isLocalFile()) << "a download hands over its file";
    QFile::remove(delivery.data->url().toLocalFile());
}
