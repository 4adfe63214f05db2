#pragma once

// A token manager that keeps its secrets in memory, over the reference
// server with one account ("ada", signed in with a registered device).

#include "AccountServerFixture.h"

#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>

#include <QJsonDocument>
#include <QJsonObject>

namespace orv::test {

// Keeps the stored token and the device credential in memory.
class TestTokenManager : public ORVOrvellaTokenManager {
public:
    QString appScope() const override { return QStringLiteral("kalendro-test"); }
    QString deviceToken() const override { return QStringLiteral("test-device"); }
    std::optional<ORVURLCredential> credentialForOrvellaAccount(const std::shared_ptr<ORVOrvellaAccount> &) const override
    {
        std::lock_guard lock(mutex);
        return credential;
    }
    void setAccountCredential(const ORVURLCredential &c, const std::shared_ptr<ORVOrvellaAccount> &) override
    {
        std::lock_guard lock(mutex);
        credential = c;
    }
    void updateOrvellaEncryptionKey(const QByteArray &key, const QString &username) override
    {
        std::lock_guard lock(mutex);
        acceptedKeys.emplace_back(key, username);
    }
    void setOrvellaToken(const QString &token, const QString &) override
    {
        std::lock_guard lock(mutex);
        stored = token;
        storeCalls << (token.isNull() ? QStringLiteral("(deleted)") : token);
    }
    QString orvellaTokenForAccountIdentifier(const QString &) override
    {
        std::lock_guard lock(mutex);
        return stored;
    }
    std::optional<ORVURLCredential> currentCredential() const
    {
        std::lock_guard lock(mutex);
        return credential;
    }

    mutable std::mutex mutex;
    std::optional<ORVURLCredential> credential;
    QString stored;
    QStringList storeCalls;
    std::vector<std::pair<QByteArray, QString>> acceptedKeys;
};

// A token of `parts` parts whose payload holds "exp" `secondsFromNow` ahead.
inline QString makeToken(qint64 secondsFromNow, int parts = 3, const QString &subject = QStringLiteral("ada"))
{
    const auto encode = [](const QByteArray &bytes) {
        return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
    };
    const QString payload = encode(
        QJsonDocument(QJsonObject{{"sub", subject}, {"exp", QDateTime::currentSecsSinceEpoch() + secondsFromNow}})
            .toJson(QJsonDocument::Compact));
    QStringList list{encode(R"({"alg":"none"})"), payload, QStringLiteral("sig"), QStringLiteral("extra")};
    return list.mid(0, parts).join('.');
}

struct Replies {
    std::mutex mutex;
    std::vector<std::pair<QString, ORVError>> received;
    std::vector<int> order;
    ORVOrvellaTokenProviding::TokenCompletion handler(int index)
    {
        return [this, index](const QString &token, const ORVError &error) {
            std::lock_guard lock(mutex);
            received.emplace_back(token, error);
            order.push_back(index);
        };
    }
    bool waitFor(size_t count)
    {
        return waitUntil([&] {
            std::lock_guard lock(mutex);
            return received.size() >= count;
        });
    }
};

// What a sign-in's completion received.
struct SignInResult {
    std::atomic<int> calls = 0;
    std::shared_ptr<ORVOrvellaAccount> account;
    ORVError error;
    ORVOrvellaTokenManager::SignInCompletion handler()
    {
        return [this](std::shared_ptr<ORVOrvellaAccount> a, const ORVError &e) {
            account = std::move(a);
            error = e;
            ++calls;
        };
    }
    bool wait(std::chrono::milliseconds timeout = 5s) { return waitUntil([&] { return calls.load() > 0; }, timeout); }
};

// What a key check, reset or transfer's completion received.
struct KeyResult {
    std::atomic<int> calls = 0;
    bool success = false;
    ORVError error;
    ORVOrvellaTokenManager::EncryptionKeyCompletion handler()
    {
        return [this](bool s, const ORVError &e) {
            success = s;
            error = e;
            ++calls;
        };
    }
    bool wait() { return waitUntil([&] { return calls.load() > 0; }); }
};

class TokenManagerTest : public AccountServerTest {
protected:
    void SetUp() override
    {
        AccountServerTest::SetUp();
        server.service().addAccount("ada", "ada@example.org", "correct horse", "Ada");
        firstDeviceToken = QString::fromStdString(server.service().registerDevice("ada"));
        tokens = makeManager();
        manager->setTokenProvider(tokens);
        // The ubiquitous store lives in this test's home.
        ORVUbiquitousKeyValueStore::setDefaultStore(std::make_shared<ORVLocalKeyValueStore>());
    }
    void TearDown() override
    {
        ORVUbiquitousKeyValueStore::setDefaultStore(nullptr);
        AccountServerTest::TearDown();
    }
    std::shared_ptr<TestTokenManager> makeManager()
    {
        auto made = std::make_shared<TestTokenManager>();
        made->credential = ORVURLCredential{QStringLiteral("ada"), firstDeviceToken};
        made->setNetworkManager(manager);
        return made;
    }
    size_t fetches() const { return server.requestCount("/v1/auth/device/"); }

    QString firstDeviceToken;
    std::shared_ptr<TestTokenManager> tokens;
};

// The same, with nobody signed in on this device yet.
class SignedOutTokenManagerTest : public TokenManagerTest {
protected:
    void SetUp() override
    {
        TokenManagerTest::SetUp();
        auto signedOut = accounts->current()->copy();
        signedOut->setUsername(std::nullopt);
        signedOut->setEmailAddress(QString());
        signedOut->setOrvellaAccountType(ORVOrvellaAccountTypeNone);
        accounts->setCurrent(signedOut);
        tokens->credential.reset();
    }
};

} // namespace orv::test
