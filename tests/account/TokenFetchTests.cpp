// The token fetch against the reference server when things go wrong around
// it: callers that cancel, hooks that throw, a fetch that is dropped or
// never answered, and a sign-out while the fetch is on its way.

#include "TokenManagerFixture.h"

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVException.h>

#include <QFile>
#include <QRegularExpression>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

ScriptedResponse tokenReply(const QString &token, std::chrono::milliseconds delay, const QString &deviceToken = {})
{
    std::string body = R"({"status":"ok","token":")" + token.toStdString() + "\"";
    if (!deviceToken.isEmpty())
        body += R"(,"device_token":")" + deviceToken.toStdString() + "\"";
    return ScriptedResponse{200, body + "}", "application/json", {}, delay};
}

QJsonObject echoed(const Delivery &delivery)
{
    return QJsonDocument::fromJson(delivery.body()).object();
}

std::shared_ptr<ORVOrvellaAccountRequest> echoRequest(const QUrl &url, Delivery &delivery)
{
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url));
    request->setCompletionHandler(delivery.handler());
    return request;
}

} // namespace

class TokenFetchTest : public TokenManagerTest {
protected:
    QUrl echo() const { return url("/v1/echo/"); }
};

// Cancelled while its token is on the way, a request gets one call, code
// 16, and is never sent: not when the token arrives, not when the fetch fails.
TEST_F(TokenFetchTest, ARequestCancelledWhileItWaitsForItsTokenIsNeverSent)
{
    struct Case {
        const char *name;
        ScriptedResponse tokenAnswer;
    };
    const std::vector<Case> cases = {
        {"token arrives", tokenReply(makeToken(3600), 300ms)},
        {"fetch fails", ScriptedResponse{500, R"({"code":"down"})", "application/json", {}, 300ms}},
    };
    for (const Case &c : cases) {
        for (const bool all : {false, true}) {
            tokens->resetTokensForAccountWithIdentifier(QStringLiteral("account-1"));
            server.script("POST", "/v1/auth/device/", {c.tokenAnswer});
            Delivery delivery;
            auto request = echoRequest(echo(), delivery);
            manager->startRequest(request);
            if (all)
                manager->cancelActiveTasks();
            else
                manager->cancelTasksWithIdentifiers({request->identifier()});
            ASSERT_TRUE(delivery.waitForCall()) << c.name;
            spinFor(600ms); // the fetch ends meanwhile
            EXPECT_EQ(delivery.calls.load(), 1) << c.name << " all " << all;
            EXPECT_EQ(delivery.error.domain(), ORVOrvellaTokenManagerErrorDomain) << c.name;
            EXPECT_EQ(delivery.error.code(), 16) << c.name;
            EXPECT_EQ(server.requestCount("/v1/echo/"), 0u) << c.name << " all " << all;
            EXPECT_TRUE(manager->activeTasks().empty()) << c.name;
        }
    }
}

// Two requests wait on one fetch; cancelling one must not fail the other.
TEST_F(TokenFetchTest, CancellingOneWaiterLeavesTheFetchToTheOthers)
{
    const QString token = makeToken(3600);
    server.script("POST", "/v1/auth/device/", {tokenReply(token, 300ms)});
    Delivery leaving, staying;
    auto leaver = echoRequest(echo(), leaving);
    auto stayer = echoRequest(echo(), staying);
    manager->startRequest(leaver);
    manager->startRequest(stayer);
    ASSERT_TRUE(waitUntil([&] { return fetches() == 1; })) << "the fetch is on its way";
    manager->cancelTasksWithIdentifiers({leaver->identifier()});
    ASSERT_TRUE(staying.waitForCall());
    EXPECT_EQ(staying.calls.load(), 1);
    EXPECT_FALSE(staying.error) << qPrintable(staying.error.description());
    EXPECT_EQ(staying.status(), 200);
    EXPECT_EQ(echoed(staying).value("authorization").toString(), "Bearer " + token);
    EXPECT_EQ(leaving.calls.load(), 1);
    EXPECT_EQ(leaving.error.code(), 16);
    EXPECT_EQ(fetches(), 1u);
    EXPECT_EQ(server.requestCount("/v1/echo/"), 1u);
}

// A hook of the application's subclass that throws inside the fetch ends
// that fetch with an error for every caller; the next request fetches anew.
TEST_F(TokenFetchTest, AHookThatThrowsEndsTheFetchWithAnError)
{
    class ThrowingManager : public TestTokenManager {
    public:
        QString deviceToken() const override
        {
            if (failDeviceToken)
                return ORVOrvellaTokenManager::deviceToken(); // "Unsupported platform"
            return TestTokenManager::deviceToken();
        }
        std::optional<ORVURLCredential> credentialForOrvellaAccount(
            const std::shared_ptr<ORVOrvellaAccount> &account) const override
        {
            if (failCredential)
                throw std::runtime_error("the keyring went away");
            return TestTokenManager::credentialForOrvellaAccount(account);
        }
        std::atomic<bool> failDeviceToken = false;
        std::atomic<bool> failCredential = false;
    };
    auto throwing = std::make_shared<ThrowingManager>();
    throwing->credential = ORVURLCredential{QStringLiteral("ada"), firstDeviceToken};
    throwing->setNetworkManager(manager);
    manager->setTokenProvider(throwing);

    for (const bool credentialThrows : {true, false}) {
        throwing->failCredential = credentialThrows;
        throwing->failDeviceToken = !credentialThrows;
        Delivery first, second;
        manager->startRequest(echoRequest(echo(), first));
        manager->startRequest(echoRequest(echo(), second));
        ASSERT_TRUE(first.waitForCall()) << credentialThrows;
        ASSERT_TRUE(second.waitForCall()) << credentialThrows;
        for (const Delivery *d : {&first, &second}) {
            EXPECT_EQ(d->calls.load(), 1);
            EXPECT_EQ(d->error.domain(), ORVOrvellaTokenManagerErrorDomain) << credentialThrows;
            EXPECT_EQ(d->error.code(), ORVOrvellaTokenManagerTokenFetchFailedErrorCode) << credentialThrows;
        }
    }
    throwing->failCredential = false;
    throwing->failDeviceToken = false;
    Delivery healed;
    manager->startRequest(echoRequest(echo(), healed));
    ASSERT_TRUE(healed.waitForCall());
    EXPECT_FALSE(healed.error) << qPrintable(healed.error.description());
    EXPECT_EQ(healed.status(), 200);
    EXPECT_EQ(fetches(), 1u);
}

// The category selection drops the running fetch from the active set
// without cancelling it; its callers still get its result, and nothing
// waits behind it for ever.
TEST_F(TokenFetchTest, AFetchDroppedByTheCategorySelectionStillEnds)
{
    const QString token = makeToken(3600);
    server.script("POST", "/v1/auth/device/", {tokenReply(token, 300ms)});
    Delivery waiting;
    manager->startRequest(echoRequest(echo(), waiting));
    ASSERT_TRUE(waitUntil([&] { return fetches() == 1; }));
    manager->cancelTasksWithCategories({QStringLiteral("Orvella token refresh")});
    ASSERT_TRUE(waiting.waitForCall());
    // The waiting request itself has no category, so it was cancelled.
    EXPECT_EQ(waiting.calls.load(), 1);
    EXPECT_EQ(waiting.error.code(), 16);
    spinFor(500ms); // the token arrives meanwhile
    EXPECT_TRUE(manager->activeTasks().empty()) << "the cancelled request never had a URL task to end it";
    manager->cancelActiveTasks();
    spinFor(50ms);
    EXPECT_EQ(waiting.calls.load(), 1) << "a later cancellation called it again";

    // The manager is not wedged: the next request is answered, with the token
    // the dropped fetch brought.
    Delivery next;
    manager->startRequest(echoRequest(echo(), next));
    ASSERT_TRUE(next.waitForCall());
    EXPECT_EQ(next.status(), 200);
    EXPECT_EQ(echoed(next).value("authorization").toString(), "Bearer " + token);
    EXPECT_EQ(fetches(), 1u);
}

// A fetch the server never answers ends after the bound with a time-out for
// every caller, and the next request fetches again.
TEST_F(TokenFetchTest, AFetchHasABoundOnItsDuration)
{
    tokens->setTokenFetchTimeout(0.5);
    server.script("POST", "/v1/auth/device/",
                  {ScriptedResponse{200, R"({"token":"late"})", "application/json", {}, 3000ms}});
    Delivery first, second;
    manager->startRequest(echoRequest(echo(), first));
    manager->startRequest(echoRequest(echo(), second));
    ASSERT_TRUE(first.waitForCall(2500ms));
    ASSERT_TRUE(second.waitForCall(500ms));
    for (const Delivery *d : {&first, &second}) {
        EXPECT_EQ(d->calls.load(), 1);
        EXPECT_EQ(d->error.domain(), ORVURLErrorDomain);
        EXPECT_EQ(d->error.code(), ORVURLErrorTimedOut);
    }
    server.clearScripts();
    Delivery again;
    manager->startRequest(echoRequest(echo(), again));
    ASSERT_TRUE(again.waitForCall());
    EXPECT_EQ(again.status(), 200) << qPrintable(again.error.description());
    EXPECT_EQ(fetches(), 2u);
}

// Signing out while a fetch is on its way wins: the late reply writes
// neither the token nor the rotated device credential back.
TEST_F(TokenFetchTest, SigningOutWinsOverALateReply)
{
    const auto account = ORVFetchOrvellaAccount();
    server.script("POST", "/v1/auth/device/", {tokenReply(makeToken(3600), 400ms, QStringLiteral("dev-rotated"))});
    Replies replies;
    tokens->requestTokenForAccount(account, replies.handler(0));
    ASSERT_TRUE(waitUntil([&] { return fetches() == 1; }));
    tokens->resetTokensForAccountWithIdentifier(account->identifier());
    {
        std::lock_guard lock(tokens->mutex);
        tokens->credential.reset(); // the application forgets the device too
    }
    ASSERT_TRUE(replies.waitFor(1));
    spinFor(200ms);
    EXPECT_TRUE(replies.received[0].first.isNull());
    EXPECT_TRUE(replies.received[0].second);
    EXPECT_TRUE(tokens->stored.isNull());
    EXPECT_FALSE(tokens->currentCredential()) << "the rotated device token came back";

    // Nothing in memory either: the next request fetches (and, signed out,
    // is told so).
    Replies after;
    tokens->requestTokenForAccount(account, after.handler(0));
    ASSERT_TRUE(after.waitFor(1));
    EXPECT_TRUE(after.received[0].first.isNull());
    EXPECT_EQ(after.received[0].second.code(), 5);
}

// The log of a token fetch names the request it answers, and never holds
// the token it brought.
TEST_F(TokenFetchTest, TheTokenResponseLogNamesItsRequestAndNotItsToken)
{
    // Logging asks the coordinator for the application's group (none here).
    class Coordinator : public ORVPlatformCoordinator {
    public:
        QString appName() const override { return QStringLiteral("Kalendro"); }
        QString appGroupIdentifier() const override { return QString(); }
    };
    ORVRegisterPlatformCoordinator(std::make_shared<Coordinator>());
    auto debug = ORVDebug::sharedDebug();
    debug->setupLogging();
    debug->setLogLevel(ORVLogLevelVerbose);
    Delivery delivery;
    manager->startRequest(echoRequest(echo(), delivery));
    ASSERT_TRUE(delivery.waitForCall());
    const QString token = echoed(delivery).value("authorization").toString().mid(7);
    ASSERT_FALSE(token.isEmpty());
    spinFor(100ms);
    debug->fileLogger()->flush();
    QFile file(debug->fileLogger()->currentLogFilePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString log = QString::fromUtf8(file.readAll());
    const QRegularExpression named(QStringLiteral("Orvella token response: [0-9A-F]{8}-[0-9A-F-]{27} "));
    EXPECT_TRUE(named.match(log).hasMatch()) << qPrintable(log.right(2000));
    EXPECT_FALSE(log.contains(QLatin1String("Orvella token response: (null)")));
    EXPECT_FALSE(log.contains(token)) << "the access token reached the log";
}

// The account block of the application throws: the request still ends, once.
TEST_F(TokenFetchTest, AnAccountBlockThatThrowsStillEndsTheRequest)
{
    ORVRegisterOrvellaAccountFetchBlock([]() -> std::shared_ptr<ORVOrvellaAccount> {
        throw std::runtime_error("the account store is locked");
    });
    Delivery delivery;
    RecordAssertions record;
    EXPECT_THROW(manager->startRequest(echoRequest(echo(), delivery)), std::runtime_error);
    ASSERT_TRUE(delivery.waitForCall());
    EXPECT_EQ(delivery.calls.load(), 1);
    EXPECT_TRUE(delivery.error);
    EXPECT_TRUE(manager->activeTasks().empty());
    accounts->registerBlocks(accounts);
}

// Given up by its callers after the time bound, a fetch's late reply still
// keeps the device token the server rotated: without it the next fetch
// would present a token the server no longer knows.
TEST_F(TokenFetchTest, ALateReplyStillKeepsTheRotatedDeviceToken)
{
    tokens->setTokenFetchTimeout(0.3);
    server.script("POST", "/v1/auth/device/", {tokenReply(makeToken(3600), 1200ms, QStringLiteral("dev-rotated"))});
    Delivery given;
    manager->startRequest(echoRequest(echo(), given));
    ASSERT_TRUE(given.waitForCall());
    EXPECT_EQ(given.error.code(), ORVURLErrorTimedOut);
    ASSERT_TRUE(waitUntil([&] {
        const auto credential = tokens->currentCredential();
        return credential && credential->password == "dev-rotated";
    })) << "the rotated device token was lost";
    // Cancelling every waiter does not cut the exchange short either.
    tokens->resetTokensForAccountWithIdentifier(QStringLiteral("account-1"));
    server.script("POST", "/v1/auth/device/", {tokenReply(makeToken(3600), 400ms, QStringLiteral("dev-again"))});
    Delivery cancelled;
    auto request = echoRequest(echo(), cancelled);
    manager->startRequest(request);
    ASSERT_TRUE(waitUntil([&] { return fetches() == 2; }));
    manager->cancelActiveTasks();
    ASSERT_TRUE(cancelled.waitForCall());
    EXPECT_EQ(cancelled.error.code(), 16);
    EXPECT_TRUE(waitUntil([&] {
        const auto credential = tokens->currentCredential();
        return credential && credential->password == "dev-again";
    })) << "cancelling the waiters cut the exchange short";
}

// After a sign-out the next session's requests do not wait behind the old
// session's fetch.
TEST_F(TokenFetchTest, ASignOutDoesNotLeaveTheQueueToTheOldFetch)
{
    // The old reply comes long after the new session's own would.
    server.script("POST", "/v1/auth/device/", {tokenReply(makeToken(3600), 6000ms)});
    Delivery old;
    manager->startRequest(echoRequest(echo(), old));
    ASSERT_TRUE(waitUntil([&] { return fetches() == 1; }));
    tokens->resetTokensForAccountWithIdentifier(QStringLiteral("account-1"));
    server.clearScripts();
    // The old caller is told at once; the new session fetches anew.
    ASSERT_TRUE(old.waitForCall(2s));
    EXPECT_EQ(old.error.code(), 16);
    Delivery next;
    manager->startRequest(echoRequest(echo(), next));
    ASSERT_TRUE(next.waitForCall(4500ms)) << "the new request waited for the old session's fetch";
    EXPECT_EQ(next.status(), 200) << qPrintable(next.error.description());
}
