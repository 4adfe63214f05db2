#include "TokenManagerFixture.h"

#include <OrvellaKit/ORVLocalization.h>

#include <QJsonArray>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

struct ErrorResult {
    std::atomic<int> calls = 0;
    ORVError error;
    ORVOrvellaTokenManager::CreateAccountCompletion handler()
    {
        return [this](const ORVError &e) {
            error = e;
            ++calls;
        };
    }
    bool wait() { return waitUntil([&] { return calls.load() > 0; }); }
};

QString reason(const ORVError &error)
{
    return error.userInfo().value(ORVLocalizedFailureReasonErrorKey).toString();
}

class SignInTest : public SignedOutTokenManagerTest {
protected:
    QJsonObject lastBody(const std::string &path)
    {
        const auto requests = server.requests();
        for (auto it = requests.rbegin(); it != requests.rend(); ++it) {
            if (it->path == path)
                return QJsonDocument::fromJson(QByteArray::fromStdString(it->body)).object();
        }
        return {};
    }
    std::shared_ptr<ORVOrvellaAccount> signInWithPassword(const QString &email, const QString &password,
                                                          ORVError *error = nullptr)
    {
        SignInResult result;
        tokens->registerDevice({email, password}, result.handler());
        EXPECT_TRUE(result.wait());
        if (error)
            *error = result.error;
        return result.account;
    }
    // Signs in, then checks that the token cached by the sign-in opens the
    // account's details without a token fetch.
    void expectSignedInAs(const QString &user)
    {
        const size_t before = fetches();
        auto details = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(
            ORVURLRequest(ORVFetchOrvellaAccount()->URLForServerEndpoint(ORVOrvellaServerEndpointAccountDetails))));
        EXPECT_EQ(details->status(), 200);
        EXPECT_EQ(QJsonDocument::fromJson(details->body()).object().value("user").toString(), user);
        EXPECT_EQ(fetches(), before);
    }
};

} // namespace

TEST_F(SignInTest, PasswordSignInRegistersTheDeviceAndKeepsItsToken)
{
    const auto account = signInWithPassword("ADA@example.org", "correct horse");
    ASSERT_TRUE(account);
    EXPECT_EQ(account->username(), std::optional<QString>("ada"));
    // The address as typed, not as the server spells it.
    EXPECT_EQ(account->emailAddress(), "ADA@example.org");
    EXPECT_EQ(account->orvellaAccountType(), ORVOrvellaAccountTypePassword);
    EXPECT_EQ(accounts->saves(), 1);
    EXPECT_EQ(accounts->current()->username(), std::optional<QString>("ada"));

    const QJsonObject sent = lastBody("/v1/auth/login/");
    EXPECT_EQ(sent.value("email").toString(), "ADA@example.org");
    EXPECT_EQ(sent.value("password").toString(), "correct horse");
    EXPECT_EQ(sent.value("device_name").toString(), tokens->deviceName());
    EXPECT_EQ(sent.value("device_identifier").toString(), "test-device");
    EXPECT_EQ(sent.value("scope").toArray(), (QJsonArray{"kalendro-test", "account"}));
    EXPECT_EQ(server.requests().back().header("content-type"), "application/json");

    // The device credential is the server's device token, which works for a
    // token fetch; the access token is cached and stored.
    const auto credential = tokens->currentCredential();
    ASSERT_TRUE(credential);
    EXPECT_EQ(credential->user, "ada");
    EXPECT_TRUE(credential->password.startsWith("dev-"));
    EXPECT_EQ(server.service().userForAccessToken(tokens->stored.toStdString()), std::optional<std::string>("ada"));
    expectSignedInAs("ada");
    Replies fresh;
    tokens->requestTokenForAccount(ORVFetchOrvellaAccount(), nullptr, true, fresh.handler(0));
    ASSERT_TRUE(fresh.waitFor(1));
    EXPECT_FALSE(fresh.received[0].second);

    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedAccountType(), ORVOrvellaAccountTypePassword);
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedEmail(), "ADA@example.org");
}

TEST_F(SignInTest, PasswordSignInErrors)
{
    struct Case {
        const char *name;
        std::optional<ScriptedResponse> answer; // none: the real server
        qint64 code;
        QString reason;
    };
    const std::vector<Case> cases = {
        {"wrong password", std::nullopt, 11, "Invalid email or password. Please try again."},
        {"bad e-mail", ScriptedResponse{400, R"({"email":["bad"]})"}, 11, "Enter a valid email address."},
        {"no password", ScriptedResponse{400, R"({"password":["required"]})"}, 11, "Enter your password."},
        {"other refusal", ScriptedResponse{503, R"({"code":"maintenance"})"}, 503,
         "Failed to sign in to Orvella account.\n\n(maintenance, 503)"},
        {"body without code", ScriptedResponse{500, R"({"detail":"x","token":"secret"})"}, 500,
         "Failed to sign in to Orvella account.\n\n({\"detail\":\"x\",\"token\":\"MASKED\"}, 500)"},
        {"unreadable body", ScriptedResponse{502, "<html>", "text/html"}, 502,
         "Failed to sign in to Orvella account.\n\n((null), 502)"},
        {"success without token", ScriptedResponse{200, R"({"user":"ada","device_token":"d"})"}, 10,
         "Failed to sign in to account. Received invalid response from server."},
    };
    for (const Case &c : cases) {
        server.clearScripts();
        if (c.answer)
            server.script("POST", "/v1/auth/login/", {*c.answer});
        ORVError error;
        EXPECT_FALSE(signInWithPassword("ada@example.org", "wrong horse", &error)) << c.name;
        EXPECT_EQ(error.domain(), ORVOrvellaTokenManagerErrorDomain) << c.name;
        EXPECT_EQ(error.code(), c.code) << c.name;
        EXPECT_EQ(reason(error), c.reason) << c.name;
    }
    // Nothing of the account changed.
    EXPECT_EQ(accounts->saves(), 0);
    EXPECT_FALSE(tokens->currentCredential());
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedAccountType(), ORVOrvellaAccountTypeNone);

    // A transport error comes through as it is.
    server.clearScripts();
    server.stop();
    ORVError error;
    EXPECT_FALSE(signInWithPassword("ada@example.org", "correct horse", &error));
    EXPECT_NE(error.domain(), ORVOrvellaTokenManagerErrorDomain);
    EXPECT_TRUE(error);
}

TEST_F(SignInTest, SignInWithoutCurrentAccountFailsWith15)
{
    ORVRegisterOrvellaAccountFetchBlock([] { return std::shared_ptr<ORVOrvellaAccount>(); });
    ORVError error;
    EXPECT_FALSE(signInWithPassword("ada@example.org", "correct horse", &error));
    EXPECT_EQ(error.code(), 15);
    EXPECT_EQ(server.requestCount("/v1/auth/login/"), 0u);
}

TEST_F(SignInTest, AppleGoogleAndMagicSignIn)
{
    // Apple: the names go to the server, which makes the account.
    SignInResult apple;
    tokens->signInWithAppleToken(
        QString::fromStdString(server.service().issueIdentityToken("apple", "grace@example.org")), "Grace", "Hopper",
        apple.handler());
    ASSERT_TRUE(apple.wait());
    ASSERT_TRUE(apple.account) << qPrintable(apple.error.description());
    EXPECT_EQ(apple.account->orvellaAccountType(), ORVOrvellaAccountTypeApple);
    EXPECT_EQ(apple.account->emailAddress(), "grace@example.org");
    EXPECT_EQ(apple.account->displayName(), "Grace Hopper");
    EXPECT_EQ(apple.account->username(), std::optional<QString>("grace"));
    QJsonObject sent = lastBody("/v1/auth/apple/login/");
    EXPECT_EQ(sent.value("first_name").toString(), "Grace");
    EXPECT_EQ(sent.value("last_name").toString(), "Hopper");
    EXPECT_EQ(sent.value("scope").toArray(), (QJsonArray{"kalendro-test", "account"}));
    expectSignedInAs("grace");

    // Google: no names in the body.
    SignInResult google;
    tokens->signInWithGoogleToken(
        QString::fromStdString(server.service().issueIdentityToken("google", "alan@example.org", "Alan Turing")),
        google.handler());
    ASSERT_TRUE(google.wait());
    ASSERT_TRUE(google.account);
    EXPECT_EQ(google.account->orvellaAccountType(), ORVOrvellaAccountTypeGoogle);
    EXPECT_EQ(google.account->displayName(), "Alan Turing");
    sent = lastBody("/v1/auth/google/login/");
    EXPECT_FALSE(sent.contains("first_name"));
    EXPECT_FALSE(sent.contains("last_name"));
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedAccountType(), ORVOrvellaAccountTypeGoogle);
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedEmail(), "alan@example.org");

    // Magic link: recorded as an Apple account, and the link works once.
    const QString magic = QString::fromStdString(server.service().issueMagicToken("ada@example.org"));
    SignInResult viaLink;
    tokens->signInWithMagicToken(magic, viaLink.handler());
    ASSERT_TRUE(viaLink.wait());
    ASSERT_TRUE(viaLink.account);
    EXPECT_EQ(viaLink.account->username(), std::optional<QString>("ada"));
    EXPECT_EQ(viaLink.account->displayName(), "Ada");
    EXPECT_EQ(viaLink.account->orvellaAccountType(), ORVOrvellaAccountTypeApple);
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedAccountType(), ORVOrvellaAccountTypeApple);
    EXPECT_EQ(lastBody("/v1/auth/magic/device/").value("magic_token").toString(), magic);

    SignInResult reused;
    tokens->signInWithMagicToken(magic, reused.handler());
    ASSERT_TRUE(reused.wait());
    EXPECT_FALSE(reused.account);
    EXPECT_EQ(reused.error.code(), 401);
    EXPECT_EQ(reused.error.localizedDescription(), "Failed to sign in to account: 401");
    EXPECT_EQ(reason(reused.error), "Failed to sign in to Orvella account.\nThe sign-in link is not valid any more.\n\n"
                                    "(invalid_magic_token, 401)");
}

TEST_F(SignInTest, TokenSignInErrors)
{
    // A password account owns the address.
    SignInResult inUse;
    tokens->signInWithGoogleToken(
        QString::fromStdString(server.service().issueIdentityToken("google", "ada@example.org")), inUse.handler());
    ASSERT_TRUE(inUse.wait());
    EXPECT_FALSE(inUse.account);
    EXPECT_EQ(inUse.error.code(), 409);
    EXPECT_EQ(reason(inUse.error), "A Orvella account already exists for this email address.");

    // A token of the other provider is refused.
    SignInResult wrongProvider;
    tokens->signInWithAppleToken(
        QString::fromStdString(server.service().issueIdentityToken("google", "alan@example.org")), {}, {},
        wrongProvider.handler());
    ASSERT_TRUE(wrongProvider.wait());
    EXPECT_EQ(wrongProvider.error.code(), 401);

    // No message in the body: an empty line stands for it.
    server.script("POST", "/v1/auth/google/login/", {ScriptedResponse{500, R"({"code":"x"})"}});
    SignInResult bare;
    tokens->signInWithGoogleToken("t", bare.handler());
    ASSERT_TRUE(bare.wait());
    EXPECT_EQ(reason(bare.error), "Failed to sign in to Orvella account.\n\n\n(x, 500)");

    // Other kinds are a programming error.
    RecordAssertions record;
    SignInResult invalid;
    tokens->signInWithToken("t", ORVOrvellaAccountTypePassword, {}, {}, invalid.handler());
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid Orvella account subtype"});
    EXPECT_EQ(invalid.calls.load(), 1);
    EXPECT_EQ(accounts->saves(), 0);
}

TEST_F(SignInTest, AccountCreation)
{
    ErrorResult created;
    tokens->createAccountWithName("Grace Hopper", "grace@example.org", "cobol-1959!", created.handler());
    ASSERT_TRUE(created.wait());
    EXPECT_FALSE(created.error) << qPrintable(created.error.description());
    EXPECT_EQ(server.service().userForEmail("grace@example.org"), std::optional<std::string>("grace"));
    const QJsonObject sent = lastBody("/v1/account/register/");
    EXPECT_EQ(sent.value("password1").toString(), "cobol-1959!");
    EXPECT_EQ(sent.value("password2").toString(), "cobol-1959!");
    EXPECT_EQ(accounts->current()->displayName(), "Grace Hopper");
    EXPECT_EQ(accounts->current()->emailAddress(), "grace@example.org");
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedAccountType(), ORVOrvellaAccountTypePassword);
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedEmail(), "grace@example.org");
    // The new account signs in.
    EXPECT_TRUE(signInWithPassword("grace@example.org", "cobol-1959!"));

    struct Case {
        const char *name;
        QString email;
        QString password;
        std::optional<ScriptedResponse> answer;
        qint64 code;
        QString reason;
        QString errorCode;
    };
    const std::vector<Case> cases = {
        {"claimed", "ada@example.org", "long enough pass", {}, 7, "Email address is already being used.", "email_claimed"},
        {"short", "new@example.org", "short", {}, 8, "Your password is not long enough.", "password_too_short"},
        {"numeric", "new@example.org", "1234567890", {}, 8, "Your password is not strong enough.",
         "password_entirely_numeric"},
        {"common", "new@example.org", "password", {}, 8, "Your password is not strong enough.", "password_too_common"},
        {"invalid e-mail", "no-at-sign", "long enough pass", {}, 6, "Enter a valid email address.", "invalid"},
        {"name before e-mail", "x@example.org", "p",
         ScriptedResponse{400, R"({"name":[{"code":"x","message":"m"}],"email":[{"code":"email_claimed"}]})"}, 6, "m",
         "x"},
        {"no field errors", "x@example.org", "p", ScriptedResponse{400, R"({"detail":"?"})"}, 6, {}, {}},
        {"unavailable", "x@example.org", "p", ScriptedResponse{503, "{}"}, 503, "Failed to create account: 503", {}},
    };
    for (const Case &c : cases) {
        server.clearScripts();
        if (c.answer)
            server.script("POST", "/v1/account/register/", {*c.answer});
        ErrorResult result;
        tokens->createAccountWithName("New", c.email, c.password, result.handler());
        ASSERT_TRUE(result.wait()) << c.name;
        EXPECT_EQ(result.error.code(), c.code) << c.name;
        EXPECT_EQ(reason(result.error), c.reason) << c.name;
        EXPECT_EQ(result.error.userInfo().value("error_code").toString(), c.errorCode) << c.name;
        if (c.code != 503) {
            EXPECT_EQ(result.error.localizedDescription(), "Failed to create account.") << c.name;
        }
    }
    EXPECT_EQ(accounts->current()->emailAddress(), "grace@example.org");
}

TEST_F(SignInTest, RegisteringAnotherDevice)
{
    ASSERT_TRUE(signInWithPassword("ada@example.org", "correct horse"));
    std::atomic<int> calls = 0;
    std::atomic<bool> onMain = false;
    std::shared_ptr<ORVOrvellaAccount> other;
    QString token;
    ORVError error;
    tokens->registerOtherDeviceWithScope(QJsonArray{"kalendro-ios"}, "Ada's phone", "phone-device-id",
                                         [&](std::shared_ptr<ORVOrvellaAccount> a, const QString &t, const ORVError &e) {
                                             onMain = QThread::currentThread() == qApp->thread();
                                             other = std::move(a);
                                             token = t;
                                             error = e;
                                             ++calls;
                                         });
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_TRUE(onMain);
    EXPECT_FALSE(error);
    ASSERT_TRUE(other);
    EXPECT_FALSE(other->username());
    EXPECT_TRUE(other->emailAddress().isEmpty());
    std::string authorization;
    for (const auto &request : server.requests()) {
        if (request.path == "/v1/account/device/")
            authorization = request.header("authorization");
    }
    EXPECT_EQ(authorization.rfind("Bearer ", 0), 0u);
    const QJsonObject body = lastBody("/v1/account/device/");
    EXPECT_EQ(body.value("identifier").toString(), "phone-device-id");
    EXPECT_EQ(body.value("scope").toArray(), QJsonArray{"kalendro-ios"});
    // The token is a device token of the same account: the other device
    // exchanges it for access tokens.
    auto phone = makeManager();
    phone->credential = ORVURLCredential{"ada", token};
    Replies replies;
    phone->requestTokenForAccount(ORVFetchOrvellaAccount(), replies.handler(0));
    ASSERT_TRUE(replies.waitFor(1));
    EXPECT_FALSE(replies.received[0].second);

    // A refusal gives nothing but the error.
    server.script("POST", "/v1/account/device/", {ScriptedResponse{500, "{}"}});
    calls = 0;
    tokens->registerOtherDeviceWithScope("s", "n", "i",
                                         [&](std::shared_ptr<ORVOrvellaAccount> a, const QString &t, const ORVError &e) {
                                             other = std::move(a);
                                             token = t;
                                             error = e;
                                             ++calls;
                                         });
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_FALSE(other);
    EXPECT_TRUE(token.isNull());
    EXPECT_EQ(error.code(), 500);
    EXPECT_EQ(error.localizedDescription(), "Failed to sign in to account: 500");

    server.script("POST", "/v1/account/device/", {ScriptedResponse{200, R"({"status":"ok"})"}});
    calls = 0;
    tokens->registerOtherDeviceWithScope("s", "n", "i", [&](auto, const QString &, const ORVError &e) {
        error = e;
        ++calls;
    });
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_EQ(error.code(), 10);
    EXPECT_EQ(reason(error), "Failed to register device. Received invalid response from server.");
}

TEST_F(SignInTest, LastUsedAccount)
{
    auto store = ORVUbiquitousKeyValueStore::defaultStore();
    ORVOrvellaTokenManager::setLastUsedAccountType(ORVOrvellaAccountTypeGoogle);
    EXPECT_EQ(store->stringForKey("zel-signin-type"), std::optional<QString>("google"));
    store->setString("facebook", "zel-signin-type");
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedAccountType(), ORVOrvellaAccountTypeNone);
    ORVOrvellaTokenManager::setLastUsedAccountType(static_cast<ORVOrvellaAccountType>(9));
    EXPECT_FALSE(store->stringForKey("zel-signin-type"));

    // The current account has no e-mail address: both keys go.
    ORVOrvellaTokenManager::setLastUsedEmail("old@example.org");
    ORVOrvellaTokenManager::setLastUsedAccountType(ORVOrvellaAccountTypeApple);
    ORVOrvellaTokenManager::updateLastUsedAccount();
    EXPECT_FALSE(store->stringForKey("zel-signin-mail"));
    EXPECT_FALSE(store->stringForKey("zel-signin-type"));

    auto account = accounts->current()->copy();
    account->setEmailAddress("ada@example.org");
    account->setOrvellaAccountType(ORVOrvellaAccountTypePassword);
    accounts->setCurrent(account);
    ORVOrvellaTokenManager::updateLastUsedAccount();
    EXPECT_EQ(store->stringForKey("zel-signin-type"), std::optional<QString>("password"));
    EXPECT_EQ(ORVOrvellaTokenManager::lastUsedEmail(), "ada@example.org");

    EXPECT_EQ(ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountTypePassword),
              "You already have a Orvella account using email and password.");
    EXPECT_EQ(ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountTypeApple),
              "You already have a Orvella account using Sign in with Apple.");
    EXPECT_EQ(ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountTypeGoogle),
              "You already have a Orvella account using Sign in with Google.");
    EXPECT_EQ(ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountTypeNone), "");
    // The sentences are translated through the framework's table.
    ASSERT_TRUE(ORVInstallTranslations(QLocale(QLocale::German)));
    EXPECT_NE(ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountTypeApple),
              "You already have a Orvella account using Sign in with Apple.");
}
