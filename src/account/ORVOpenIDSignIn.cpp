// The browser sign-in: Qt's authorization code flow with PKCE, a nonce and
// the checks that Qt 6.4 leaves out added on top. Qt 6.4 only logs a warning
// when the redirect carries an error or a wrong state, or when the token
// request fails, and then waits for ever; so this class watches the redirect
// and the token reply itself and ends the flow with an error value in each
// of those cases.

#include <OrvellaKitWidgets/ORVOpenIDSignIn.h>

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDesktopServices>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QOAuth2AuthorizationCodeFlow>
#include <QOAuthHttpServerReplyHandler>
#include <QPointer>
#include <QRandomGenerator>
#include <QTimer>
#include <QUrlQuery>

#include <mutex>

ORV_LOG_FILE("Token Manager")

const QString ORVOpenIDSignInProviderErrorKey = QStringLiteral("OpenIDProviderError");

namespace {

constexpr std::chrono::minutes kDefaultTimeout{5};
constexpr int kNetworkTimeoutMs = 30000;
// Clocks of the provider and this computer may differ a little.
constexpr qint64 kClockSkewSeconds = 60;

QString randomURLSafe(int bytes)
{
    QByteArray random(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->generate(reinterpret_cast<quint32 *>(random.data()),
                                         reinterpret_cast<quint32 *>(random.data() + random.size()));
    return QString::fromLatin1(random.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

bool isLoopback(const QUrl &url)
{
    const QString host = url.host();
    return host == QLatin1String("127.0.0.1") || host == QLatin1String("localhost") || host == QLatin1String("::1");
}

// Codes and tokens travel to these addresses; plain HTTP only on this computer.
bool isAcceptableEndpoint(const QUrl &url)
{
    return url.isValid() && !url.host().isEmpty() &&
           (url.scheme() == QLatin1String("https") || (url.scheme() == QLatin1String("http") && isLoopback(url)));
}

ORVError signInError(qint64 code, const QString &reason, const QString &providerError = QString())
{
    QVariantMap userInfo{{ORVLocalizedDescriptionKey, ORVLocalizedString("Could not sign in with the browser.")},
                         {ORVLocalizedFailureReasonErrorKey, reason}};
    if (!providerError.isEmpty())
        userInfo.insert(ORVOpenIDSignInProviderErrorKey, providerError);
    return ORVError(ORVOrvellaTokenManagerErrorDomain, code, userInfo);
}

ORVError providerUnavailable(const QString &what)
{
    return signInError(ORVOpenIDSignInProviderUnavailableErrorCode,
                       ORVStringWithFormat(ORVLocalizedString("The sign-in provider is not available (%@)."), what));
}

// The provider's OAuth error in words: its description when it gave one.
ORVError refused(const QString &error, const QString &description)
{
    const QString reason = error == QLatin1String("access_denied")
                               ? ORVLocalizedString("The sign-in was not approved.")
                               : ORVStringWithFormat(ORVLocalizedString("The sign-in provider refused (%@)."),
                                                     description.isEmpty() ? error : description);
    return signInError(ORVOpenIDSignInRefusedErrorCode, reason, error);
}

ORVError invalidToken(const QString &what)
{
    return signInError(ORVOpenIDSignInInvalidIDTokenErrorCode,
                       ORVStringWithFormat(ORVLocalizedString("The sign-in provider's ID token is not valid (%@)."), what));
}

// Checks what a relying party must check of an ID token received straight
// from the token endpoint: its form, issuer, audience, expiry and nonce.
std::optional<ORVOpenIDIdentity> checkIDToken(const QString &token, const ORVOpenIDProviderConfiguration &configuration,
                                              const QString &nonce, ORVError *error)
{
    const QList<QByteArray> parts = token.toLatin1().split('.');
    const auto payload = parts.size() == 3 ? QJsonDocument::fromJson(QByteArray::fromBase64(
                                                 parts[1], QByteArray::Base64UrlEncoding | QByteArray::AbortOnBase64DecodingErrors))
                                           : QJsonDocument();
    if (!payload.isObject()) {
        *error = invalidToken(QStringLiteral("form"));
        return std::nullopt;
    }
    const QJsonObject claims = payload.object();
    const QString issuer = configuration.issuer.toString(QUrl::FullyEncoded);
    if (claims.value(QLatin1String("iss")).toString() != issuer) {
        *error = invalidToken(QStringLiteral("iss"));
        return std::nullopt;
    }
    const QJsonValue audience = claims.value(QLatin1String("aud"));
    const bool forUs = audience.isString() ? audience.toString() == configuration.clientIdentifier
                                           : audience.toArray().contains(configuration.clientIdentifier) &&
                                                 (audience.toArray().size() == 1 ||
                                                  claims.value(QLatin1String("azp")).toString() == configuration.clientIdentifier);
    if (!forUs) {
        *error = invalidToken(QStringLiteral("aud"));
        return std::nullopt;
    }
    const QJsonValue expiry = claims.value(QLatin1String("exp"));
    if (!expiry.isDouble() || expiry.toDouble() + kClockSkewSeconds <= QDateTime::currentSecsSinceEpoch()) {
        *error = invalidToken(QStringLiteral("exp"));
        return std::nullopt;
    }
    if (claims.value(QLatin1String("nonce")).toString() != nonce) {
        *error = invalidToken(QStringLiteral("nonce"));
        return std::nullopt;
    }
    return ORVOpenIDIdentity{token, claims.value(QLatin1String("sub")).toString(),
                             claims.value(QLatin1String("email")).toString(),
                             claims.value(QLatin1String("given_name")).toString(),
                             claims.value(QLatin1String("family_name")).toString()};
}

// Qt's OAuth classes warn with the whole callback address or the whole
// token answer in some failures; those can hold a code or a token, so their
// categories stay silent. Every other category goes to the filter that was
// installed before.
QLoggingCategory::CategoryFilter filterBeforeOurs = nullptr;

void silenceQtOAuthMessages(QLoggingCategory *category)
{
    if (qstrncmp(category->categoryName(), "qt.networkauth", 14) == 0) {
        for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg, QtCriticalMsg})
            category->setEnabled(type, false);
    } else if (filterBeforeOurs) {
        filterBeforeOurs(category);
    }
}

} // namespace

struct ORVOpenIDSignIn::Private : std::enable_shared_from_this<Private> {
    ORVOpenIDProviderConfiguration configuration;
    OpenURLHandler openURL = [](const QUrl &url) { return QDesktopServices::openUrl(url); };
    std::chrono::milliseconds timeout = kDefaultTimeout;

    // One flow: its objects live under `run`, made anew for each flow.
    QObject *run = nullptr;
    QNetworkAccessManager *network = nullptr;
    QOAuthHttpServerReplyHandler *listener = nullptr;
    QOAuth2AuthorizationCodeFlow *flow = nullptr;
    QTimer *timer = nullptr;
    QUrl tokenEndpoint;
    QString state;
    QString nonce;
    QString verifier;
    IdentityCompletion completion;
    bool answered = false;  // the redirect came
    bool starting = false;  // inside requestIdentity(): completions wait for the caller to return
    bool signingIn = false; // the ID token went to the token manager
    int callbackDepth = 0;  // inside a signal of the run's objects

    bool running() const { return completion != nullptr; }

    void start(IdentityCompletion done);
    void discover();
    void authorize(const QUrl &authorizationEndpoint, const QUrl &tokenURL);
    void redirected(const QVariantMap &values);
    void tokenAnswered(QNetworkReply *reply);
    void finish(const std::optional<ORVOpenIDIdentity> &identity, const ORVError &error);
    void dispose();
};

void ORVOpenIDSignIn::Private::start(IdentityCompletion done)
{
    auto failLater = [](IdentityCompletion c, ORVError error) {
        QTimer::singleShot(0, QCoreApplication::instance(), [c = std::move(c), error] { c(std::nullopt, error); });
    };
    if (running() || signingIn)
        return failLater(std::move(done), signInError(ORVOpenIDSignInCannotStartErrorCode,
                                                      ORVLocalizedString("A sign-in is already under way.")));
    if (configuration.clientIdentifier.isEmpty() || !isAcceptableEndpoint(configuration.issuer) ||
        configuration.authorizationEndpoint.isEmpty() != configuration.tokenEndpoint.isEmpty() ||
        !configuration.scopes.contains(QLatin1String("openid")))
        return failLater(std::move(done), signInError(ORVOpenIDSignInCannotStartErrorCode,
                                                      ORVLocalizedString("The sign-in provider is not configured.")));
    completion = std::move(done);
    answered = false;
    state = randomURLSafe(32);
    nonce = randomURLSafe(32);
    verifier = randomURLSafe(32); // 43 characters, as PKCE wants at least
    run = new QObject();
    network = new QNetworkAccessManager(run);
    network->setTransferTimeout(kNetworkTimeoutMs);
    // A redirect would carry the code, the verifier and the client secret
    // to wherever the token endpoint points: none is followed.
    network->setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
    starting = true;
    if (configuration.authorizationEndpoint.isEmpty())
        discover();
    else
        authorize(configuration.authorizationEndpoint, configuration.tokenEndpoint);
    starting = false;
}

void ORVOpenIDSignIn::Private::discover()
{
    QUrl url = configuration.issuer;
    QString path = url.path();
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    url.setPath(path + QStringLiteral("/.well-known/openid-configuration"));
    QNetworkReply *reply = network->get(QNetworkRequest(url));
    const std::weak_ptr<Private> weak = weak_from_this();
    QObject::connect(reply, &QNetworkReply::finished, run, [weak, reply] {
        reply->deleteLater();
        const auto self = weak.lock();
        if (!self)
            return;
        ++self->callbackDepth;
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const QJsonObject document = QJsonDocument::fromJson(reply->readAll()).object();
        const QUrl authorization(document.value(QLatin1String("authorization_endpoint")).toString());
        const QUrl token(document.value(QLatin1String("token_endpoint")).toString());
        if (reply->error() != QNetworkReply::NoError && status == 0)
            self->finish(std::nullopt, providerUnavailable(reply->errorString()));
        else if (status != 200)
            self->finish(std::nullopt, providerUnavailable(QStringLiteral("HTTP %1").arg(status)));
        // The document must be the issuer's own (OpenID Connect Discovery 4.3).
        else if (document.value(QLatin1String("issuer")).toString() !=
                 self->configuration.issuer.toString(QUrl::FullyEncoded))
            self->finish(std::nullopt, providerUnavailable(QStringLiteral("discovery names another issuer")));
        else if (!isAcceptableEndpoint(authorization) || !isAcceptableEndpoint(token))
            self->finish(std::nullopt, providerUnavailable(QStringLiteral("discovery lacks usable endpoints")));
        else
            self->authorize(authorization, token);
        --self->callbackDepth;
    });
}

void ORVOpenIDSignIn::Private::authorize(const QUrl &authorizationEndpoint, const QUrl &tokenURL)
{
    // Loopback only, on a port the system picks.
    listener = new QOAuthHttpServerReplyHandler(QHostAddress::LocalHost, 0, run);
    if (!listener->isListening())
        return finish(std::nullopt, signInError(ORVOpenIDSignInCannotStartErrorCode,
                                                ORVLocalizedString("No port on this computer can receive the answer.")));
    // A path of its own, so that a stray request (a browser asking for its
    // icon) is not taken for the answer.
    listener->setCallbackPath(QStringLiteral("orvellakit-sign-in"));
    listener->setCallbackText(
        ORVStringWithFormat(ORVLocalizedString("%@ has the answer. You can close this tab."),
                            QCoreApplication::applicationName()).toHtmlEscaped());
    tokenEndpoint = tokenURL;
    flow = new QOAuth2AuthorizationCodeFlow(network, run);
    flow->setAuthorizationUrl(authorizationEndpoint);
    flow->setAccessTokenUrl(tokenURL);
    flow->setClientIdentifier(configuration.clientIdentifier);
    flow->setClientIdentifierSharedKey(configuration.clientSecret);
    flow->setScope(configuration.scopes.join(QLatin1Char(' ')));
    flow->setState(state);
    const QString challenge = QString::fromLatin1(
        QCryptographicHash::hash(verifier.toLatin1(), QCryptographicHash::Sha256)
            .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
    flow->setModifyParametersFunction([challenge, nonce = nonce, verifier = verifier](
                                          QAbstractOAuth::Stage stage, QMultiMap<QString, QVariant> *parameters) {
        if (stage == QAbstractOAuth::Stage::RequestingAuthorization) {
            parameters->insert(QStringLiteral("code_challenge"), challenge);
            parameters->insert(QStringLiteral("code_challenge_method"), QStringLiteral("S256"));
            parameters->insert(QStringLiteral("nonce"), nonce);
        } else if (stage == QAbstractOAuth::Stage::RequestingAccessToken) {
            parameters->insert(QStringLiteral("code_verifier"), verifier);
        }
    });

    const std::weak_ptr<Private> weak = weak_from_this();
    // Connected before the flow's own handler, so the redirect is judged here first.
    QObject::connect(listener, &QAbstractOAuthReplyHandler::callbackReceived, run, [weak](const QVariantMap &values) {
        if (const auto self = weak.lock()) {
            ++self->callbackDepth;
            self->redirected(values);
            --self->callbackDepth;
        }
    });
    // The manager signals a finished reply before the flow's own handler reads it.
    QObject::connect(network, &QNetworkAccessManager::finished, run, [weak](QNetworkReply *reply) {
        if (const auto self = weak.lock()) {
            ++self->callbackDepth;
            self->tokenAnswered(reply);
            --self->callbackDepth;
        }
    });
    flow->setReplyHandler(listener);

    bool opened = false;
    const QMetaObject::Connection opening =
        QObject::connect(flow, &QAbstractOAuth::authorizeWithBrowser, run, [this, &opened](const QUrl &url) {
            opened = openURL(url);
        });
    timer = new QTimer(run);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, run, [weak] {
        if (const auto self = weak.lock()) {
            ++self->callbackDepth;
            self->finish(std::nullopt, signInError(ORVOpenIDSignInTimedOutErrorCode,
                                                   ORVLocalizedString("No answer came from the browser in time.")));
            --self->callbackDepth;
        }
    });
    ++callbackDepth;
    flow->grant();
    --callbackDepth;
    QObject::disconnect(opening);
    if (!running())
        return;
    if (!opened)
        return finish(std::nullopt, signInError(ORVOpenIDSignInCannotStartErrorCode,
                                                ORVLocalizedString("The browser could not be opened.")));
    timer->start(timeout);
}

void ORVOpenIDSignIn::Private::redirected(const QVariantMap &values)
{
    if (!running() || !listener || answered)
        return;
    // One answer only: whatever it says, nobody else may answer after it.
    // The listener closes once the flow has read it, as Qt names the
    // redirect address in the code exchange by the port it listens on.
    answered = true;
    QMetaObject::invokeMethod(listener, &QOAuthHttpServerReplyHandler::close, Qt::QueuedConnection);
    timer->stop();
    const auto value = [&](const char *key) {
        return QUrl::fromPercentEncoding(values.value(QLatin1String(key)).toString().toUtf8());
    };
    if (value("state") != state)
        return finish(std::nullopt, signInError(ORVOpenIDSignInStateMismatchErrorCode,
                                                ORVLocalizedString("The answer does not belong to this sign-in.")));
    if (!value("error").isEmpty())
        return finish(std::nullopt, refused(value("error"), value("error_description")));
    if (value("code").isEmpty())
        return finish(std::nullopt, refused(QStringLiteral("invalid_request"), QStringLiteral("no code")));
    ORVLogVerbose("The sign-in provider answered; exchanging the code");
}

void ORVOpenIDSignIn::Private::tokenAnswered(QNetworkReply *reply)
{
    if (!running() || reply->request().url() != tokenEndpoint)
        return;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // Peeked, not read: the flow's own handler reads the body after this.
    const QJsonObject body = QJsonDocument::fromJson(reply->peek(reply->bytesAvailable())).object();
    if (reply->error() != QNetworkReply::NoError && status == 0)
        return finish(std::nullopt, providerUnavailable(reply->errorString()));
    if (status < 200 || status > 299) {
        const QString error = body.value(QLatin1String("error")).toString();
        if (error.isEmpty())
            return finish(std::nullopt, providerUnavailable(QStringLiteral("HTTP %1").arg(status)));
        return finish(std::nullopt, refused(error, body.value(QLatin1String("error_description")).toString()));
    }
    const QString idToken = body.value(QLatin1String("id_token")).toString();
    if (idToken.isEmpty())
        return finish(std::nullopt, providerUnavailable(QStringLiteral("no ID token")));
    ORVError error;
    const auto identity = checkIDToken(idToken, configuration, nonce, &error);
    finish(identity, error);
}

void ORVOpenIDSignIn::Private::finish(const std::optional<ORVOpenIDIdentity> &identity, const ORVError &error)
{
    if (!running())
        return;
    if (error)
        ORVLogWarn("Browser sign-in failed: %@ (%lld)", error.localizedFailureReason(), error.code());
    if (listener)
        listener->close();
    dispose();
    IdentityCompletion done = std::move(completion);
    completion = nullptr;
    if (starting)
        QTimer::singleShot(0, QCoreApplication::instance(),
                           [done = std::move(done), identity, error] { done(identity, error); });
    else
        done(identity, error);
}

void ORVOpenIDSignIn::Private::dispose()
{
    if (!run)
        return;
    if (timer)
        timer->stop();
    // Inside one of its own signals the run's objects must outlive the call.
    if (callbackDepth > 0) {
        QObject::disconnect(network, nullptr, run, nullptr);
        if (listener)
            QObject::disconnect(listener, nullptr, run, nullptr);
        run->deleteLater();
    } else {
        delete run;
    }
    run = nullptr;
    network = nullptr;
    listener = nullptr;
    flow = nullptr;
    timer = nullptr;
}

// --- public ---------------------------------------------------------------------

ORVOpenIDSignIn::ORVOpenIDSignIn(ORVOpenIDProviderConfiguration configuration) : d(std::make_shared<Private>())
{
    orvRegisterFileLogLevel();
    static std::once_flag silenced;
    std::call_once(silenced, [] { filterBeforeOurs = QLoggingCategory::installFilter(silenceQtOAuthMessages); });
    d->configuration = std::move(configuration);
}

ORVOpenIDSignIn::~ORVOpenIDSignIn()
{
    cancel();
}

const ORVOpenIDProviderConfiguration &ORVOpenIDSignIn::configuration() const
{
    return d->configuration;
}

void ORVOpenIDSignIn::setOpenURLHandler(OpenURLHandler handler)
{
    d->openURL = std::move(handler);
}

void ORVOpenIDSignIn::setTimeout(std::chrono::milliseconds timeout)
{
    d->timeout = timeout;
}

void ORVOpenIDSignIn::requestIdentity(IdentityCompletion completion)
{
    Q_ASSERT(completion);
    d->start(std::move(completion));
}

void ORVOpenIDSignIn::signIn(const std::shared_ptr<ORVOrvellaTokenManager> &tokens,
                             ORVOrvellaTokenManager::SignInCompletion completion)
{
    Q_ASSERT(tokens && completion);
    const std::weak_ptr<Private> weak = d;
    const ORVOrvellaAccountType type = d->configuration.accountType;
    d->start([weak, tokens, type, completion](const std::optional<ORVOpenIDIdentity> &identity, const ORVError &error) {
        if (!identity)
            return completion(nullptr, error);
        if (const auto self = weak.lock())
            self->signingIn = true;
        auto done = [weak, completion](std::shared_ptr<ORVOrvellaAccount> account, const ORVError &signInError) {
            if (const auto self = weak.lock())
                self->signingIn = false;
            completion(std::move(account), signInError);
        };
        if (type == ORVOrvellaAccountTypeApple)
            tokens->signInWithAppleToken(identity->idToken, identity->givenName, identity->familyName, done);
        else
            tokens->signInWithGoogleToken(identity->idToken, done);
    });
}

void ORVOpenIDSignIn::cancel()
{
    d->finish(std::nullopt, ORVError(ORVOrvellaKitErrorDomain, ORVUserCancelledErrorCode,
                                     {{ORVLocalizedDescriptionKey, ORVLocalizedString("The sign-in was cancelled.")}}));
}

bool ORVOpenIDSignIn::isRunning() const
{
    return d->running() || d->signingIn;
}
