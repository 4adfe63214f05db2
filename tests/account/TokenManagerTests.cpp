#include "TokenManagerFixture.h"

#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStorageInfo>

using namespace orv::test;
using orv::server::ScriptedResponse;

TEST_F(TokenManagerTest, ConcurrentRequestsShareOneFetchAndRotateTheDeviceToken)
{
    const auto account = ORVFetchOrvellaAccount();
    Replies replies;
    for (int i = 0; i < 3; ++i)
        tokens->requestTokenForAccount(account, nullptr, false, replies.handler(i));
    ASSERT_TRUE(replies.waitFor(3));
    EXPECT_EQ(fetches(), 1u);
    EXPECT_EQ(replies.order, (std::vector<int>{0, 1, 2}));
    const QString token = replies.received[0].first;
    ASSERT_FALSE(token.isEmpty());
    for (const auto &[t, e] : replies.received) {
        EXPECT_EQ(t, token);
        EXPECT_FALSE(e);
    }
    EXPECT_EQ(server.service().userForAccessToken(token.toStdString()), std::optional<std::string>("ada"));
    // The body carried the device credential and the device's identifier.
    const auto sent = QJsonDocument::fromJson(QByteArray::fromStdString(server.requests().back().body)).object();
    EXPECT_EQ(sent.value("user").toString(), "ada");
    EXPECT_EQ(sent.value("device_identifier").toString(), "test-device");
    // The server rotated the device token and the manager kept the new one.
    const auto credential = tokens->currentCredential();
    ASSERT_TRUE(credential);
    EXPECT_NE(credential->password, firstDeviceToken);
    EXPECT_EQ(tokens->stored, token);
    const auto expiry = tokens->expirationDateForToken(token);
    ASSERT_TRUE(expiry);
    EXPECT_GT(QDateTime::currentDateTimeUtc().secsTo(*expiry), 3000);

    // A later request is answered from memory.
    Replies again;
    tokens->requestTokenForAccount(account, again.handler(0));
    ASSERT_TRUE(again.waitFor(1));
    EXPECT_EQ(again.received[0].first, token);
    EXPECT_EQ(fetches(), 1u);
}

TEST_F(TokenManagerTest, IgnoreCache)
{
    const auto account = ORVFetchOrvellaAccount();
    // While a (slow) fetch is active, ignoreCache starts no second one.
    const QString slowToken = makeToken(3600);
    server.script("POST", "/v1/auth/device/",
                  {ScriptedResponse{200, R"({"token":")" + slowToken.toStdString() + R"("})", "application/json", {},
                                    300ms}});
    Replies first;
    tokens->requestTokenForAccount(account, nullptr, false, first.handler(0));
    tokens->requestTokenForAccount(account, nullptr, true, first.handler(1));
    ASSERT_TRUE(first.waitFor(2));
    EXPECT_EQ(fetches(), 1u);
    EXPECT_EQ(first.received[0].first, slowToken);
    EXPECT_EQ(first.received[1].first, slowToken);

    // With a valid token cached, ignoreCache fetches anew.
    server.clearScripts();
    Replies second;
    tokens->requestTokenForAccount(account, nullptr, true, second.handler(0));
    ASSERT_TRUE(second.waitFor(1));
    EXPECT_EQ(fetches(), 2u);
    EXPECT_NE(second.received[0].first, slowToken);
    EXPECT_FALSE(second.received[0].first.isEmpty());
}

TEST_F(TokenManagerTest, StoredTokensNeedMoreThanAMinute)
{
    const auto account = ORVFetchOrvellaAccount();
    struct Case {
        qint64 secondsLeft;
        int parts;
        bool adopted;
    };
    const std::vector<Case> cases = {
        {60, 3, false},
        // "exp" is in whole seconds: made at the end of a second, a token
        // of 61 has a little over 60 left and can fall below by the check.
        // Each token is made just before its request, so that a slow fetch
        // in the case before cannot age it.
        {62, 3, true},
        {3600, 2, false}, // no readable expiry
        {-5, 3, false},
    };
    size_t expectedFetches = 0;
    for (const Case &c : cases) {
        auto fresh = makeManager();
        const QString stored = makeToken(c.secondsLeft, c.parts);
        fresh->stored = stored;
        Replies replies;
        fresh->requestTokenForAccount(account, replies.handler(0));
        ASSERT_TRUE(replies.waitFor(1));
        expectedFetches += c.adopted ? 0 : 1;
        EXPECT_EQ(fetches(), expectedFetches) << qPrintable(stored);
        EXPECT_EQ(replies.received[0].first == stored, c.adopted) << qPrintable(stored);
        // Each fetch rotated the device token; the next manager starts from it.
        if (const auto credential = fresh->currentCredential())
            firstDeviceToken = credential->password;
    }
}

TEST_F(TokenManagerTest, TokensWithoutExpiryStayInMemoryUntilReset)
{
    EXPECT_FALSE(tokens->expirationDateForToken(makeToken(100, 2)));
    EXPECT_FALSE(tokens->expirationDateForToken(makeToken(100, 4)));
    EXPECT_FALSE(tokens->expirationDateForToken(QStringLiteral("a.%%%.c")));
    EXPECT_FALSE(tokens->expirationDateForToken(QString()));
    // base64url with "-" and "_" and no padding.
    const QString urlSafe = makeToken(100, 3, QStringLiteral("~~~?>?>>"));
    ASSERT_TRUE(urlSafe.contains('-') || urlSafe.contains('_'));
    EXPECT_TRUE(tokens->expirationDateForToken(urlSafe));

    const auto account = ORVFetchOrvellaAccount();
    server.script("POST", "/v1/auth/device/", {ScriptedResponse{200, R"({"token":"two.parts"})"}});
    Replies replies;
    tokens->requestTokenForAccount(account, replies.handler(0));
    tokens->requestTokenForAccount(account, replies.handler(1));
    ASSERT_TRUE(replies.waitFor(2));
    Replies later;
    tokens->requestTokenForAccount(account, later.handler(0));
    ASSERT_TRUE(later.waitFor(1));
    EXPECT_EQ(later.received[0].first, "two.parts");
    EXPECT_EQ(fetches(), 1u);

    tokens->resetTokensForAccountWithIdentifier(account->identifier());
    EXPECT_TRUE(tokens->stored.isNull());
    Replies afterReset;
    tokens->requestTokenForAccount(account, afterReset.handler(0));
    ASSERT_TRUE(afterReset.waitFor(1));
    EXPECT_EQ(fetches(), 2u);
}

TEST_F(TokenManagerTest, FailuresGiveTheirErrorValues)
{
    const auto account = ORVFetchOrvellaAccount();
    struct Case {
        const char *name;
        ScriptedResponse answer;
        qint64 code;
        QString failureReason;
        QString description;
        QString backendError;
    };
    const std::vector<Case> cases = {
        {"refused", ScriptedResponse{401, R"({"code":"x","message":"y"})"}, 401, "Failed to get token: x, 401", "y", {}},
        {"no token", ScriptedResponse{200, R"({"status":"error","error":"bad"})"}, 1, "Failed to get token", {}, "bad"},
        {"no token, no error", ScriptedResponse{200, R"({"status":"ok"})"}, 1, "Failed to get token", {}, ""},
        {"garbage", ScriptedResponse{502, "<html>", "text/html"}, 502, "Failed to get token: (null), 502", {}, {}},
        {"wrong type", ScriptedResponse{200, R"({"token":42})"}, 1, "Failed to get token", {}, ""},
    };
    for (const Case &c : cases) {
        server.script("POST", "/v1/auth/device/", {c.answer});
        Replies replies;
        tokens->requestTokenForAccount(account, replies.handler(0));
        ASSERT_TRUE(replies.waitFor(1)) << c.name;
        const auto &[token, error] = replies.received[0];
        EXPECT_TRUE(token.isNull()) << c.name;
        EXPECT_EQ(error.domain(), ORVOrvellaTokenManagerErrorDomain) << c.name;
        EXPECT_EQ(error.code(), c.code) << c.name;
        EXPECT_EQ(error.userInfo().value(ORVLocalizedFailureReasonErrorKey).toString(), c.failureReason) << c.name;
        EXPECT_EQ(error.userInfo().value(ORVLocalizedDescriptionKey).toString(), c.description) << c.name;
        if (!c.backendError.isNull()) {
            EXPECT_EQ(error.userInfo().value("backend-error").toString(), c.backendError) << c.name;
        }
        EXPECT_TRUE(tokens->stored.isNull()) << c.name;
    }
    // An error does not block the next attempt.
    server.clearScripts();
    Replies recovered;
    tokens->requestTokenForAccount(account, recovered.handler(0));
    ASSERT_TRUE(recovered.waitFor(1));
    EXPECT_FALSE(recovered.received[0].second);
    EXPECT_FALSE(recovered.received[0].first.isEmpty());

    // Signed out: no credential, no request, code 5, and the stored token goes.
    const size_t before = fetches();
    tokens->resetTokensForAccountWithIdentifier(account->identifier());
    tokens->credential.reset();
    tokens->stored = makeToken(3600);
    Replies signedOut;
    tokens->requestTokenForAccount(account, nullptr, true, signedOut.handler(0));
    ASSERT_TRUE(signedOut.waitFor(1));
    EXPECT_EQ(signedOut.received[0].second.code(), 5);
    EXPECT_EQ(signedOut.received[0].second.userInfo().value(ORVLocalizedFailureReasonErrorKey).toString(),
              "Not logged in");
    EXPECT_TRUE(tokens->stored.isNull());
    EXPECT_EQ(fetches(), before);

    // No account at all: code 1.
    Replies noAccount;
    tokens->requestTokenForAccount(nullptr, noAccount.handler(0));
    ASSERT_TRUE(noAccount.waitFor(1));
    EXPECT_EQ(noAccount.received[0].second.code(), 1);
    EXPECT_TRUE(noAccount.received[0].second.userInfo().isEmpty());
}

// Sign in (device credential), request, token revoked on the server, 401,
// fresh token, success: all through the network manager.
TEST_F(TokenManagerTest, ExpiredTokenIsReplacedAfter401)
{
    auto run = [&] {
        return deliver(ORVOrvellaAccountRequest::requestWithURLRequest(
            ORVURLRequest(ORVFetchOrvellaAccount()->URLForServerEndpoint(ORVOrvellaServerEndpointAccountDetails))));
    };
    auto first = run();
    EXPECT_EQ(first->status(), 200);
    EXPECT_EQ(QJsonDocument::fromJson(first->body()).object().value("user").toString(), "ada");

    server.service().revokeAccessTokens();
    auto second = run();
    EXPECT_EQ(second->calls.load(), 1);
    EXPECT_EQ(second->status(), 200) << second->body().toStdString();
    EXPECT_EQ(fetches(), 2u);
    EXPECT_EQ(server.requestCount("/v1/account/details/"), 3u);
}

TEST(TokenManager, RegistrationAndAbstractHooks)
{
    ORVOrvellaTokenManager base;
    EXPECT_THROW(base.setOrvellaToken(QStringLiteral("t"), QStringLiteral("id")), ORVException);
    EXPECT_THROW(base.orvellaTokenForAccountIdentifier(QStringLiteral("id")), ORVException);
    EXPECT_THROW(base.setAccountCredential({}, nullptr), ORVException);
    EXPECT_THROW(base.updateOrvellaEncryptionKey(QByteArray(16, 'k'), QStringLiteral("ada")), ORVException);
    EXPECT_THROW(base.appScope(), ORVException);
    {
        RecordAssertions record;
        EXPECT_TRUE(base.deviceToken().isEmpty());
        EXPECT_EQ(record.descriptions(), QStringList{"Unsupported platform"});
    }

    EXPECT_FALSE(ORVOrvellaTokenManager::sharedManager());
    RecordAssertions record;
    ORVRegisterSharedTokenManager(nullptr);
    auto first = std::make_shared<TestTokenManager>();
    ORVRegisterSharedTokenManager(first);
    EXPECT_EQ(ORVOrvellaTokenManager::sharedManager(), first);
    ORVRegisterSharedTokenManager(std::make_shared<TestTokenManager>());
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: tokenManager != nil",
                                                  "A Token Manager already exists"}));
    // The shared network manager now forwards token requests to it (a
    // request without an account gets its code 1).
    Replies forwarded;
    ORVOrvellaNetworkManager::sharedManager()->requestTokenForAccount(nullptr, nullptr, false, forwarded.handler(0));
    ASSERT_TRUE(forwarded.waitFor(1));
    EXPECT_EQ(forwarded.received[0].second.domain(), ORVOrvellaTokenManagerErrorDomain);
    EXPECT_EQ(forwarded.received[0].second.code(), 1);
}

TEST(TokenManager, DeviceNameAndIdentifier)
{
    ORVOrvellaTokenManager base;
    const QString name = base.deviceName();
    EXPECT_FALSE(name.isEmpty());
    EXPECT_EQ(name, name.trimmed());
    const auto identifier = base.uniqueDeviceIdentifier();
    ASSERT_TRUE(identifier);
    const QString suffix = QStringLiteral("-%1-%2").arg(qEnvironmentVariable("USER", QStringLiteral("root")),
                                                        QStorageInfo::root().displayName());
    EXPECT_TRUE(identifier->endsWith(suffix)) << qPrintable(*identifier);
    const QString base_ = identifier->left(identifier->size() - suffix.size());
    const QRegularExpression mac(QStringLiteral("^([0-9a-f]{2}:){5}[0-9a-f]{2}$"));
    const QRegularExpression uuid(QStringLiteral("^[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}$"));
    EXPECT_TRUE(mac.match(base_).hasMatch() || uuid.match(base_).hasMatch()) << qPrintable(base_);
}
