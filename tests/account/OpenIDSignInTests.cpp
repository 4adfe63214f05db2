// The browser sign-in against the reference server acting as the OpenID
// provider: a redirect-following HTTP client (and, once, headless Chromium)
// plays the browser, and hostile answers come from scripted routes.

#include "TokenManagerFixture.h"

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKitWidgets/ORVOpenIDSignIn.h>

#include <QCryptographicHash>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QUrlQuery>

using namespace orv::test;
using orv::server::AuthorizationAnswer;
using orv::server::ScriptedResponse;

namespace {

struct IdentityResult {
    int calls = 0;
    std::optional<ORVOpenIDIdentity> identity;
    ORVError error;
    ORVOpenIDSignIn::IdentityCompletion handler()
    {
        return [this](const std::optional<ORVOpenIDIdentity> &i, const ORVError &e) {
            identity = i;
            error = e;
            ++calls;
        };
    }
    // Waits for the call, then a little longer to catch a second one.
    bool wait(std::chrono::milliseconds timeout = 10s)
    {
        const bool called = waitUntil([&] { return calls > 0; }, timeout);
        spinFor(100ms);
        return called;
    }
};

QString parameter(const QUrl &url, const char *name)
{
    return QUrlQuery(url).queryItemValue(QLatin1String(name), QUrl::FullyDecoded);
}

QByteArray base64url(const QByteArray &bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

// An ID token with these claims; its signature is never looked at.
QString idToken(const QJsonObject &claims)
{
    return QString::fromLatin1(base64url(R"({"alg":"HS256"})") + '.' +
                               base64url(QJsonDocument(claims).toJson(QJsonDocument::Compact)) + ".c2ln");
}

bool portAccepts(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(1000);
}

class OpenIDSignInTest : public SignedOutTokenManagerTest {
protected:
    void SetUp() override
    {
        SignedOutTokenManagerTest::SetUp();
        server.service().addOpenIDClient("kalendro-tests");
    }

    ORVOpenIDProviderConfiguration provider(const std::string &kind = "google")
    {
        ORVOpenIDProviderConfiguration configuration;
        configuration.accountType = kind == "apple" ? ORVOrvellaAccountTypeApple : ORVOrvellaAccountTypeGoogle;
        configuration.issuer = QUrl(QString::fromStdString(server.service().issuer(kind)));
        configuration.clientIdentifier = QStringLiteral("kalendro-tests");
        return configuration;
    }

    // The browser: follows the authorization address and every redirect, so
    // the provider's answer reaches the loopback listener. Keeps what it was
    // asked to open.
    ORVOpenIDSignIn::OpenURLHandler browser()
    {
        return [this](const QUrl &url) {
            opened = url;
            QNetworkReply *reply = web.get(QNetworkRequest(url));
            QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
            return true;
        };
    }
    // A browser that opens the page and leaves it there.
    ORVOpenIDSignIn::OpenURLHandler idleBrowser()
    {
        return [this](const QUrl &url) {
            opened = url;
            return true;
        };
    }
    void answer(const std::string &email, const std::string &given = "", const std::string &family = "",
                const std::string &error = "")
    {
        server.service().setAuthorizationAnswer(AuthorizationAnswer{email, given, family, error});
    }
    QUrl redirectURI() const { return QUrl(parameter(opened, "redirect_uri")); }
    std::string lastBody(const std::string &path) const
    {
        const auto requests = server.requests();
        for (auto it = requests.rbegin(); it != requests.rend(); ++it) {
            if (it->path == path)
                return it->body;
        }
        return {};
    }

    QNetworkAccessManager web;
    QUrl opened;
};

TEST_F(OpenIDSignInTest, GoogleAndAppleSignInsRunTheWholeFlowWithPKCEStateAndNonce)
{
    answer("grace@example.org", "Grace", "Hopper");
    {
        ORVOpenIDSignIn signIn(provider("google"));
        signIn.setOpenURLHandler(browser());
        SignInResult result;
        signIn.signIn(tokens, result.handler());
        EXPECT_TRUE(signIn.isRunning());
        ASSERT_TRUE(result.wait());
        ASSERT_TRUE(result.account) << result.error.description().toStdString();
        EXPECT_EQ(result.account->emailAddress(), QStringLiteral("grace@example.org"));
        EXPECT_EQ(result.account->orvellaAccountType(), ORVOrvellaAccountTypeGoogle);
        EXPECT_EQ(result.calls, 1);
        EXPECT_FALSE(signIn.isRunning());

        // What went to the provider: PKCE with S256 whose verifier matches,
        // a long random state and nonce, a loopback redirect.
        EXPECT_EQ(parameter(opened, "code_challenge_method"), QStringLiteral("S256"));
        EXPECT_GE(parameter(opened, "state").size(), 43);
        EXPECT_GE(parameter(opened, "nonce").size(), 43);
        EXPECT_EQ(redirectURI().host(), QStringLiteral("127.0.0.1"));
        const QUrlQuery exchange(QString::fromStdString(lastBody("/oidc/google/token")));
        const QByteArray verifier = exchange.queryItemValue(QStringLiteral("code_verifier")).toLatin1();
        EXPECT_EQ(QString::fromLatin1(base64url(QCryptographicHash::hash(verifier, QCryptographicHash::Sha256))),
                  parameter(opened, "code_challenge"));
        // One redirect only: the listener is gone.
        EXPECT_FALSE(portAccepts(static_cast<quint16>(redirectURI().port())));
        // A client the provider does not know gets a page, not a redirect.
        QUrl stranger = opened;
        QUrlQuery query(stranger);
        query.removeQueryItem(QStringLiteral("client_id"));
        query.addQueryItem(QStringLiteral("client_id"), QStringLiteral("stranger"));
        stranger.setQuery(query);
        QNetworkReply *reply = web.get(QNetworkRequest(stranger));
        ASSERT_TRUE(waitUntil([&] { return reply->isFinished(); }));
        EXPECT_EQ(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 400);
        reply->deleteLater();
    }
    {
        // Apple: the names from the ID token go with it.
        ORVOpenIDSignIn signIn(provider("apple"));
        signIn.setOpenURLHandler(browser());
        SignInResult result;
        signIn.signIn(tokens, result.handler());
        ASSERT_TRUE(result.wait());
        ASSERT_TRUE(result.account) << result.error.description().toStdString();
        EXPECT_EQ(result.account->orvellaAccountType(), ORVOrvellaAccountTypeApple);
        const QJsonObject login = QJsonDocument::fromJson(QByteArray::fromStdString(lastBody("/v1/auth/apple/login/"))).object();
        EXPECT_EQ(login.value("first_name").toString(), QStringLiteral("Grace"));
        EXPECT_EQ(login.value("last_name").toString(), QStringLiteral("Hopper"));
    }
}

TEST_F(OpenIDSignInTest, EveryWayTheFlowFailsEndsInOneClearError)
{
    const auto run = [&](ORVOpenIDSignIn &signIn, const std::function<void()> &meanwhile = {}) {
        opened.clear();
        IdentityResult result;
        signIn.requestIdentity(result.handler());
        if (meanwhile)
            meanwhile();
        EXPECT_TRUE(result.wait());
        EXPECT_EQ(result.calls, 1);
        EXPECT_FALSE(result.identity);
        EXPECT_FALSE(signIn.isRunning());
        return result.error;
    };
    {
        SCOPED_TRACE("the person denies");
        answer("", "", "", "access_denied");
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(browser());
        const ORVError error = run(signIn);
        EXPECT_EQ(error.code(), ORVOpenIDSignInRefusedErrorCode);
        EXPECT_EQ(error.userInfo().value(ORVOpenIDSignInProviderErrorKey).toString(), QStringLiteral("access_denied"));
        EXPECT_EQ(server.requestCount("/oidc/google/token"), 0u);
    }
    answer("grace@example.org");
    {
        SCOPED_TRACE("a redirect with another state: nothing is exchanged");
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler([this](const QUrl &url) {
            opened = url;
            QUrl forged = QUrl(parameter(url, "redirect_uri"));
            forged.setQuery(QStringLiteral("code=stolen&state=forged"));
            web.get(QNetworkRequest(forged));
            return true;
        });
        const ORVError error = run(signIn);
        EXPECT_EQ(error.domain(), ORVOrvellaTokenManagerErrorDomain);
        EXPECT_EQ(error.code(), ORVOpenIDSignInStateMismatchErrorCode);
        EXPECT_EQ(server.requestCount("/oidc/google/token"), 0u);
    }
    {
        SCOPED_TRACE("the browser tab is closed: time-out, and the port is closed");
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(idleBrowser());
        signIn.setTimeout(300ms);
        EXPECT_EQ(run(signIn).code(), ORVOpenIDSignInTimedOutErrorCode);
        EXPECT_FALSE(portAccepts(static_cast<quint16>(redirectURI().port())));
    }
    {
        SCOPED_TRACE("cancelled while the browser is open");
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(idleBrowser());
        const ORVError error = run(signIn, [&] {
            ASSERT_TRUE(waitUntil([&] { return !opened.isEmpty(); }));
            signIn.cancel();
            signIn.cancel();
        });
        EXPECT_EQ(error.domain(), ORVOrvellaKitErrorDomain);
        EXPECT_EQ(error.code(), ORVUserCancelledErrorCode);
    }
    {
        SCOPED_TRACE("cancelled after the redirect, while the code is exchanged");
        server.script("POST", "/oidc/google/token", {ScriptedResponse{400, "{}", "application/json", {}, 1500ms}});
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(browser());
        const ORVError error = run(signIn, [&] {
            ASSERT_TRUE(waitUntil([&] { return server.requestCount("/oidc/google/token") == 1; }));
            signIn.cancel();
        });
        EXPECT_EQ(error.code(), ORVUserCancelledErrorCode);
        spinFor(1700ms); // the late answer finds nobody to call
        server.clearScripts();
    }
    {
        SCOPED_TRACE("the browser does not open");
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler([](const QUrl &) { return false; });
        EXPECT_EQ(run(signIn).code(), ORVOpenIDSignInCannotStartErrorCode);
    }
    {
        SCOPED_TRACE("the provider is down");
        auto configuration = provider();
        QTcpServer closed;
        ASSERT_TRUE(closed.listen(QHostAddress::LocalHost));
        configuration.issuer.setPort(closed.serverPort());
        closed.close();
        ORVOpenIDSignIn signIn(configuration);
        signIn.setOpenURLHandler(browser());
        EXPECT_EQ(run(signIn).code(), ORVOpenIDSignInProviderUnavailableErrorCode);
    }
    {
        SCOPED_TRACE("the provider refuses the code");
        server.script("POST", "/oidc/google/token",
                      {ScriptedResponse{400, R"({"error":"invalid_grant","error_description":"bad verifier"})"}});
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(browser());
        const ORVError error = run(signIn);
        EXPECT_EQ(error.code(), ORVOpenIDSignInRefusedErrorCode);
        EXPECT_TRUE(error.localizedFailureReason().contains(QStringLiteral("bad verifier")));
        server.clearScripts();
    }
    {
        SCOPED_TRACE("a discovery document of another issuer");
        server.script("GET", "/oidc/google/.well-known/openid-configuration",
                      {ScriptedResponse{200, R"({"issuer":"https://elsewhere.example","authorization_endpoint":)"
                                             R"("https://elsewhere.example/a","token_endpoint":"https://elsewhere.example/t"})"}});
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(browser());
        EXPECT_EQ(run(signIn).code(), ORVOpenIDSignInProviderUnavailableErrorCode);
        EXPECT_TRUE(opened.isEmpty() || opened.host() != QStringLiteral("elsewhere.example"));
        server.clearScripts();
    }
    {
        SCOPED_TRACE("a second flow while one runs");
        ORVOpenIDSignIn signIn(provider());
        signIn.setOpenURLHandler(idleBrowser());
        IdentityResult first;
        IdentityResult second;
        signIn.requestIdentity(first.handler());
        signIn.requestIdentity(second.handler());
        EXPECT_TRUE(second.wait());
        EXPECT_EQ(second.error.code(), ORVOpenIDSignInCannotStartErrorCode);
        EXPECT_EQ(first.calls, 0);
        EXPECT_TRUE(signIn.isRunning());
        signIn.cancel();
        EXPECT_EQ(first.calls, 1);
    }
    {
        SCOPED_TRACE("destroyed while the browser is open");
        IdentityResult result;
        {
            ORVOpenIDSignIn signIn(provider());
            signIn.setOpenURLHandler(idleBrowser());
            signIn.requestIdentity(result.handler());
        }
        EXPECT_EQ(result.calls, 1);
        EXPECT_EQ(result.error.code(), ORVUserCancelledErrorCode);
    }
}

// What a completion may do to the sign-in that called it: start it again,
// or destroy it; and a cancel once the ID token went to the token manager.
TEST_F(OpenIDSignInTest, CompletionsMayRestartOrDestroyAndLateCancelsChangeNothing)
{
    answer("grace@example.org");
    // With the endpoints configured the flow fails before any network wait.
    auto configured = provider();
    configured.authorizationEndpoint = QUrl(configured.issuer.toString() + QStringLiteral("/authorize"));
    configured.tokenEndpoint = QUrl(configured.issuer.toString() + QStringLiteral("/token"));
    auto signIn = std::make_unique<ORVOpenIDSignIn>(configured);
    signIn->setOpenURLHandler([](const QUrl &) { return false; });
    IdentityResult second;
    int firstCalls = 0;
    signIn->requestIdentity([&](const std::optional<ORVOpenIDIdentity> &, const ORVError &) {
        ++firstCalls;
        signIn->setOpenURLHandler(browser());
        signIn->requestIdentity(second.handler());
    });
    EXPECT_EQ(firstCalls, 0); // never inside the call that started it
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(firstCalls, 1);
    ASSERT_TRUE(second.identity) << second.error.description().toStdString();

    int destroyingCalls = 0;
    signIn->requestIdentity([&](const std::optional<ORVOpenIDIdentity> &, const ORVError &) {
        ++destroyingCalls;
        signIn.reset();
    });
    ASSERT_TRUE(waitUntil([&] { return !signIn; }));
    spinFor(200ms);
    EXPECT_EQ(destroyingCalls, 1);

    // The sign-in answers slowly; a cancel meanwhile cannot undo it.
    const QJsonObject slowAnswer{{"device_token", QString::fromStdString(server.service().registerDevice("ada"))},
                                 {"user", "ada"},
                                 {"token", QString::fromStdString(server.service().issueAccessToken("ada"))},
                                 {"email", "grace@example.org"}};
    server.script("POST", "/v1/auth/google/login/",
                  {ScriptedResponse{200, QJsonDocument(slowAnswer).toJson().toStdString(), "application/json", {}, 800ms}});
    ORVOpenIDSignIn late(provider());
    late.setOpenURLHandler(browser());
    SignInResult result;
    late.signIn(tokens, result.handler());
    ASSERT_TRUE(waitUntil([&] { return server.requestCount("/v1/auth/google/login/") == 1; }));
    late.cancel();
    EXPECT_TRUE(late.isRunning());
    ASSERT_TRUE(result.wait());
    spinFor(200ms);
    EXPECT_EQ(result.calls.load(), 1);
    EXPECT_TRUE(result.account) << result.error.description().toStdString();
    EXPECT_FALSE(late.isRunning());
}

TEST_F(OpenIDSignInTest, IDTokensWithAWrongIssuerAudienceExpiryOrNonceAreRefused)
{
    answer("grace@example.org");
    const QString issuer = QString::fromStdString(server.service().issuer("google"));
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    // The token endpoint answers with a token built from the claims the
    // case changes; the nonce is the one the authorization request carried.
    const auto tryClaims = [&](const std::function<void(QJsonObject &)> &change) {
        ORVOpenIDSignIn signIn(provider());
        IdentityResult result;
        signIn.setOpenURLHandler([&](const QUrl &url) {
            QJsonObject claims{{"iss", issuer},          {"aud", "kalendro-tests"},
                               {"exp", now + 600},       {"sub", "s1"},
                               {"nonce", parameter(url, "nonce")}, {"email", "grace@example.org"}};
            change(claims);
            server.script("POST", "/oidc/google/token",
                          {ScriptedResponse{200, QJsonDocument(QJsonObject{{"access_token", "a"},
                                                                           {"token_type", "Bearer"},
                                                                           {"id_token", idToken(claims)}})
                                                     .toJson()
                                                     .toStdString()}});
            return browser()(url);
        });
        signIn.requestIdentity(result.handler());
        EXPECT_TRUE(result.wait());
        server.clearScripts();
        return result;
    };
    const auto refusedFor = [&](const char *claim, const std::function<void(QJsonObject &)> &change) {
        SCOPED_TRACE(claim);
        const IdentityResult result = tryClaims(change);
        EXPECT_FALSE(result.identity);
        EXPECT_EQ(result.error.code(), ORVOpenIDSignInInvalidIDTokenErrorCode);
        EXPECT_TRUE(result.error.localizedFailureReason().contains(QLatin1String(claim)))
            << result.error.localizedFailureReason().toStdString();
    };
    refusedFor("iss", [&](QJsonObject &c) { c["iss"] = issuer + QStringLiteral("/other"); });
    refusedFor("aud", [](QJsonObject &c) { c["aud"] = "someone-else"; });
    refusedFor("aud", [](QJsonObject &c) { c["aud"] = QJsonArray{"kalendro-tests", "someone-else"}; });
    refusedFor("exp", [&](QJsonObject &c) { c["exp"] = now - 3600; });
    refusedFor("exp", [](QJsonObject &c) { c.remove("exp"); });
    refusedFor("nonce", [](QJsonObject &c) { c["nonce"] = "replayed"; });
    refusedFor("nonce", [](QJsonObject &c) { c.remove("nonce"); });

    // The same checks let a right token through, names and all.
    const IdentityResult accepted = tryClaims([](QJsonObject &c) {
        c["aud"] = QJsonArray{"kalendro-tests", "other"};
        c["azp"] = "kalendro-tests";
        c["given_name"] = "Grace";
    });
    ASSERT_TRUE(accepted.identity) << accepted.error.description().toStdString();
    EXPECT_EQ(accepted.identity->givenName, QStringLiteral("Grace"));
    EXPECT_EQ(accepted.identity->email, QStringLiteral("grace@example.org"));
}

// The loopback redirect proven with a real browser: headless Chromium opens
// the authorization address, the provider redirects it to the listener.
TEST_F(OpenIDSignInTest, HeadlessChromiumCarriesTheRedirectToTheListener)
{
    const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
    ASSERT_FALSE(chromium.isEmpty()) << "Debian's chromium package is needed (scripts/debian-packages.txt)";
    answer("grace@example.org", "Grace", "Hopper");
    QTemporaryDir profile;
    ASSERT_TRUE(profile.isValid());
    const QString page = profile.filePath(QStringLiteral("page.html"));
    ORVOpenIDSignIn signIn(provider());
    signIn.setTimeout(90s);
    // Started detached, as an application starts a browser (a sanitizer's
    // process cannot fork a child that starts threads before it execs).
    signIn.setOpenURLHandler([&](const QUrl &url) {
        opened = url;
        QProcess browserProcess;
        browserProcess.setProgram(chromium);
        browserProcess.setArguments({QStringLiteral("--headless=new"), QStringLiteral("--no-sandbox"),
                                     QStringLiteral("--disable-gpu"), QStringLiteral("--no-first-run"),
                                     QStringLiteral("--user-data-dir=") + profile.filePath(QStringLiteral("profile")),
                                     QStringLiteral("--dump-dom"), url.toString(QUrl::FullyEncoded)});
        browserProcess.setStandardOutputFile(page);
        browserProcess.setStandardErrorFile(QProcess::nullDevice());
        return browserProcess.startDetached();
    });
    SignInResult result;
    signIn.signIn(tokens, result.handler());
    ASSERT_TRUE(result.wait(100s));
    ASSERT_TRUE(result.account) << result.error.description().toStdString();
    EXPECT_EQ(result.account->emailAddress(), QStringLiteral("grace@example.org"));
    // The page the browser ended on is the listener's.
    EXPECT_TRUE(waitUntil([&] {
        QFile dump(page);
        return dump.open(QIODevice::ReadOnly) && dump.readAll().contains("You can close this tab.");
    }, 60s));
}

} // namespace
