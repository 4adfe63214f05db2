// Sign-in, account creation and the registration of another device: the
// operations of ORVOrvellaTokenManager that turn what the user proves into a
// device registration.

#include "ORVAccountSupport.h"

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKit/ORVStringWithFormat.h>
#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>

#include <QJsonDocument>

ORV_LOG_FILE("Token Manager")

const QString ORVOrvellaAccountTypeUbiquitousKey = QStringLiteral("zel-signin-type");
const QString ORVOrvellaAccountLastUsedEmailUbiquitousKey = QStringLiteral("zel-signin-mail");

namespace {

constexpr const char *kFile = "ORVOrvellaTokenManager";

bool isSuccess(int status)
{
    return status >= 200 && status <= 299;
}

// The body's "code", else the whole body (with its token masked); what an
// error's reason quotes to tell the server's refusal.
QVariant codeOrBody(const std::optional<QJsonObject> &body)
{
    if (!body)
        return QVariant();
    const QJsonValue code = body->value(QStringLiteral("code"));
    if (!code.isUndefined() && !code.isNull())
        return code.toVariant();
    return QString::fromUtf8(QJsonDocument(copyScrubbedORV(*body)).toJson(QJsonDocument::Compact));
}

// The error of a sign-in or registration the server refused with `status`.
ORVError refusedError(int status, QVariantMap userInfo = {})
{
    userInfo.insert(ORVLocalizedDescriptionKey,
                    ORVStringWithFormat(ORVLocalizedString("Failed to sign in to account: %ld"), static_cast<long>(status)));
    return orv::detail::tokenError(status, std::move(userInfo));
}

// The first element of the body's array under `key`, when it is an object.
std::optional<QJsonObject> firstFieldError(const QJsonObject &body, const QString &key)
{
    const QJsonValue value = body.value(key);
    if (!value.isArray() || value.toArray().isEmpty() || !value.toArray().first().isObject())
        return std::nullopt;
    return value.toArray().first().toObject();
}

// A POST of a JSON object that ignores every cache.
ORVURLRequest jsonPost(const QUrl &url, const QJsonObject &body, double timeout)
{
    ORVURLRequest request(url);
    request.setHTTPMethod(QStringLiteral("POST"));
    request.setCachePolicy(ORVURLRequestReloadIgnoringLocalAndRemoteCacheData);
    request.setTimeoutInterval(timeout);
    request.setHTTPBody(QJsonDocument(body).toJson(QJsonDocument::Compact));
    request.setValue(QStringLiteral("application/json"), QStringLiteral("Content-Type"));
    return request;
}

} // namespace

using orv::detail::tokenError;

QString ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountType type)
{
    switch (type) {
    case ORVOrvellaAccountTypePassword:
        return ORVLocalizedString("You already have a Orvella account using email and password.");
    case ORVOrvellaAccountTypeApple:
        return ORVLocalizedString("You already have a Orvella account using Sign in with Apple.");
    case ORVOrvellaAccountTypeGoogle:
        return ORVLocalizedString("You already have a Orvella account using Sign in with Google.");
    default:
        return QStringLiteral("");
    }
}

QJsonArray ORVOrvellaTokenManager::signInScope() const
{
    return QJsonArray{appScope(), QStringLiteral("account")};
}

// --- sign-in ------------------------------------------------------------------

void ORVOrvellaTokenManager::registerDevice(const ORVURLCredential &credential, SignInCompletion completion)
{
    orvRegisterFileLogLevel();
    const QJsonObject body{
        {QStringLiteral("email"), credential.user},
        {QStringLiteral("password"), credential.password},
        {QStringLiteral("device_name"), deviceName()},
        {QStringLiteral("device_identifier"), deviceToken()},
        {QStringLiteral("scope"), signInScope()},
    };
    clearCredentialManagerTimeout();
    ORVLogVerbose("Registering device: %@ %@", deviceName(), deviceToken());
    startSignIn(SignInKind::Password, ORVOrvellaServerEndpointAuthLogin, 60.0, QStringLiteral("Orvella register device"),
                body, credential.user, ORVOrvellaAccountTypePassword, std::move(completion));
}

void ORVOrvellaTokenManager::signInWithToken(const QString &token, ORVOrvellaAccountType type,
                                             const QString &firstName, const QString &lastName,
                                             SignInCompletion completion)
{
    orvRegisterFileLogLevel();
    ORVOrvellaServerEndpoint endpoint;
    if (type == ORVOrvellaAccountTypeApple) {
        endpoint = ORVOrvellaServerEndpointAuthAppleLogin;
    } else if (type == ORVOrvellaAccountTypeGoogle) {
        endpoint = ORVOrvellaServerEndpointAuthGoogleLogin;
    } else {
        ORVMethodAssert(false, "signInWithToken:type:firstName:lastName:completionBlock:", "ORVOrvellaTokenManager",
                        kFile, QStringLiteral("Invalid Orvella account subtype"));
        // Reached only when the assertion handler returns: the caller still
        // hears back, with the refusal a server would give.
        if (completion)
            completion(nullptr, tokenError(10, {{ORVLocalizedFailureReasonErrorKey,
                                                 QStringLiteral("Invalid Orvella account subtype")}}));
        return;
    }
    QJsonObject body{
        {QStringLiteral("id_token"), token},
        {QStringLiteral("device_name"), deviceName()},
        {QStringLiteral("device_identifier"), deviceToken()},
        {QStringLiteral("scope"), signInScope()},
    };
    if (type == ORVOrvellaAccountTypeApple) {
        body.insert(QStringLiteral("first_name"), firstName);
        body.insert(QStringLiteral("last_name"), lastName);
    }
    ORVLogVerbose("Registering device: %@ %@", deviceName(), deviceToken());
    startSignIn(SignInKind::Token, endpoint, 30.0, QStringLiteral("Orvella register device"), body, QString(), type,
                std::move(completion));
}

void ORVOrvellaTokenManager::signInWithGoogleToken(const QString &token, SignInCompletion completion)
{
    orvRegisterFileLogLevel();
    ORVLogVerbose("Trying to register device with Google: %@ %@", deviceName(), deviceToken());
    signInWithToken(token, ORVOrvellaAccountTypeGoogle, QString(), QString(), std::move(completion));
}

void ORVOrvellaTokenManager::signInWithAppleToken(const QString &token, const QString &firstName,
                                                  const QString &lastName, SignInCompletion completion)
{
    orvRegisterFileLogLevel();
    ORVLogVerbose("Trying to register device with Apple: %@ %@", deviceName(), deviceToken());
    signInWithToken(token, ORVOrvellaAccountTypeApple, firstName, lastName, std::move(completion));
}

void ORVOrvellaTokenManager::signInWithMagicToken(const QString &magicToken, SignInCompletion completion)
{
    orvRegisterFileLogLevel();
    const QJsonObject body{
        {QStringLiteral("magic_token"), magicToken},
        {QStringLiteral("device_name"), deviceName()},
        {QStringLiteral("device_identifier"), deviceToken()},
        {QStringLiteral("scope"), signInScope()},
    };
    ORVLogVerbose("Registering device with magic token: %@ %@", deviceName(), deviceToken());
    // A magic-link account is recorded as an Apple one: the server treats
    // both kinds alike and the sign-in screens offer the same choices.
    startSignIn(SignInKind::Magic, ORVOrvellaServerEndpointAuthMagicDevice, 30.0,
                QStringLiteral("Orvella sign in with magic token"), body, QString(), ORVOrvellaAccountTypeApple,
                std::move(completion));
}

void ORVOrvellaTokenManager::startSignIn(SignInKind kind, ORVOrvellaServerEndpoint endpoint, double timeout,
                                         const QString &category, const QJsonObject &body, const QString &email,
                                         ORVOrvellaAccountType type, SignInCompletion completion)
{
    const auto account = ORVFetchOrvellaAccount();
    if (!account) {
        ORVLogError("Cannot register device with nil Orvella account");
        if (completion)
            completion(nullptr, tokenError(15));
        return;
    }
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(
        jsonPost(account->URLForServerEndpoint(endpoint), body, timeout));
    request->setCategory(category);
    // The body carries the password or an identity token, the answer the
    // device token and an access token: neither goes to the command log.
    request->setMaskRequestLogging(true);
    request->setMaskResponseLogging(true);

    auto activity = orv::detail::beginAccountActivity(category);
    auto self = shared_from_this();
    request->setCompletionHandler([self, kind, email, type, completion, activity](
                                      const std::shared_ptr<ORVOrvellaData> &data,
                                      const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
        self->finishSignIn(kind, response, data ? data->data() : QByteArray(), error, email, type, completion);
        orv::detail::endAccountActivity(activity);
    });
    networkManager()->startRequest(request);
}

void ORVOrvellaTokenManager::finishSignIn(SignInKind kind, const std::optional<ORVHTTPURLResponse> &response,
                                          const QByteArray &data, const ORVError &transportError, const QString &email,
                                          ORVOrvellaAccountType type, const SignInCompletion &completion)
{
    const auto fail = [&](const ORVError &error) {
        if (kind == SignInKind::Magic)
            ORVLogError("Magic token error: %@", error);
        else
            ORVLogError("Failed to register device: %@", error);
        if (completion)
            completion(nullptr, error);
    };

    const auto current = ORVFetchOrvellaAccount();
    if (!current) {
        ORVLogError("Cannot register device with nil Orvella account");
        fail(tokenError(15));
        return;
    }
    const int status = response ? response->statusCode() : 0;
    const auto body = orv_JSONDictionaryWithData(data);

    if (!isSuccess(status)) {
        if (transportError) {
            fail(transportError);
            return;
        }
        const QJsonObject object = body.value_or(QJsonObject());
        const QString code = orv_stringForKey(object, QStringLiteral("code")).value_or(QString());
        if (kind == SignInKind::Password) {
            QString reason;
            if (code == QLatin1String("authentication_failed"))
                reason = ORVLocalizedString("Invalid email or password. Please try again.");
            else if (object.contains(QStringLiteral("email")))
                reason = ORVLocalizedString("Enter a valid email address.");
            else if (object.contains(QStringLiteral("password")))
                reason = ORVLocalizedString("Enter your password.");
            if (!reason.isNull()) {
                fail(tokenError(11, {{ORVLocalizedFailureReasonErrorKey, reason}}));
                return;
            }
            fail(tokenError(status, {{ORVLocalizedFailureReasonErrorKey,
                                      ORVStringWithFormat("%@\n\n(%@, %ld)",
                                                          ORVLocalizedString("Failed to sign in to Orvella account."),
                                                          codeOrBody(body), static_cast<long>(status))}}));
            return;
        }
        QString reason;
        if (code == QLatin1String("email_in_use")) {
            reason = ORVLocalizedString("A Orvella account already exists for this email address.");
        } else {
            const QString message = orv_stringForKey(object, QStringLiteral("message")).value_or(QString());
            reason = ORVStringWithFormat("%@\n%@\n(%@, %ld)", ORVLocalizedString("Failed to sign in to Orvella account."),
                                         message + QLatin1Char('\n'), codeOrBody(body), static_cast<long>(status));
        }
        fail(refusedError(status, {{ORVLocalizedFailureReasonErrorKey, reason}}));
        return;
    }

    const QJsonObject object = body.value_or(QJsonObject());
    const auto deviceToken = orv_stringForKey(object, QStringLiteral("device_token"));
    const auto user = orv_stringForKey(object, QStringLiteral("user"));
    const auto token = orv_stringForKey(object, QStringLiteral("token"));
    if (!deviceToken || !user || !token) {
        fail(tokenError(10, {{ORVLocalizedFailureReasonErrorKey,
                              ORVLocalizedString("Failed to sign in to account. Received invalid response from server.")}}));
        return;
    }

    auto account = current->copy();
    const ORVURLCredential credential{*user, *deviceToken};
    beginNewSession(account->identifier());
    updateKeychainWithAccountCredential(credential, account);
    setAccountCredential(credential, account);
    account->setUsername(*user);
    const QString accountEmail =
        kind == SignInKind::Password ? email : orv_stringForKey(object, QStringLiteral("email")).value_or(QString());
    account->setEmailAddress(accountEmail);
    if (kind != SignInKind::Password)
        account->setDisplayName(orv_stringForKey(object, QStringLiteral("name")).value_or(QString()));
    account->setOrvellaAccountType(type);
    storeTokenForAccountIdentifier(account->identifier(), *token, ORVError());
    ORVSaveOrvellaAccount(account, [](const ORVError &error) {
        if (error)
            ORVLogError("Failed to save the updated Orvella account");
    });
    setLastUsedAccountType(type);
    setLastUsedEmail(accountEmail);
    ORVLogInfo("Registered device for %@", account->identifier());
    if (completion)
        completion(account, ORVError());
}

// --- account creation -----------------------------------------------------------

void ORVOrvellaTokenManager::createAccountWithName(const QString &name, const QString &email, const QString &password,
                                                   CreateAccountCompletion completion)
{
    orvRegisterFileLogLevel();
    const auto account = ORVFetchOrvellaAccount();
    if (!account) {
        ORVLogError("Cannot create an account without a current Orvella account");
        if (completion)
            completion(tokenError(15));
        return;
    }
    const QJsonObject body{
        {QStringLiteral("name"), name},
        {QStringLiteral("email"), email},
        {QStringLiteral("password1"), password},
        {QStringLiteral("password2"), password},
    };
    auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(
        jsonPost(account->URLForServerEndpoint(ORVOrvellaServerEndpointAccountRegister), body, 30.0));
    const QString category = QStringLiteral("Orvella create account");
    request->setCategory(category);
    request->setMaskRequestLogging(true);
    ORVLogVerbose("Creating Orvella account");

    auto activity = orv::detail::beginAccountActivity(category);
    request->setCompletionHandler([name, email, completion, activity](const std::shared_ptr<ORVOrvellaData> &data,
                                                                      const std::optional<ORVHTTPURLResponse> &response,
                                                                      const ORVError &transportError) {
        const int status = response ? response->statusCode() : 0;
        ORVError error;
        if (!isSuccess(status)) {
            if (status < 400 || status > 499) {
                error = transportError ? transportError
                                       : tokenError(status, {{ORVLocalizedFailureReasonErrorKey,
                                                              ORVStringWithFormat("Failed to create account: %ld",
                                                                                  static_cast<long>(status))}});
            } else {
                QVariantMap userInfo{{ORVLocalizedDescriptionKey, ORVLocalizedString("Failed to create account.")}};
                const QJsonObject object = orv_JSONDictionaryWithData(data ? data->data() : QByteArray())
                                               .value_or(QJsonObject());
                std::optional<QJsonObject> field = firstFieldError(object, QStringLiteral("name"));
                if (!field)
                    field = firstFieldError(object, QStringLiteral("email"));
                if (!field)
                    field = firstFieldError(object, QStringLiteral("password1"));
                qint64 code = 6;
                if (field) {
                    const QString fieldCode = orv_stringForKey(*field, QStringLiteral("code")).value_or(QString());
                    QString reason;
                    if (fieldCode == QLatin1String("email_claimed")) {
                        code = 7;
                        reason = ORVLocalizedString("Email address is already being used.");
                    } else if (fieldCode == QLatin1String("password_too_common") ||
                               fieldCode == QLatin1String("password_entirely_numeric")) {
                        code = 8;
                        reason = ORVLocalizedString("Your password is not strong enough.");
                    } else if (fieldCode == QLatin1String("password_too_short")) {
                        code = 8;
                        reason = ORVLocalizedString("Your password is not long enough.");
                    } else {
                        reason = orv_stringForKey(*field, QStringLiteral("message")).value_or(QString());
                    }
                    userInfo.insert(ORVLocalizedFailureReasonErrorKey, reason);
                    userInfo.insert(QStringLiteral("error_code"), fieldCode);
                }
                error = tokenError(code, userInfo);
            }
            ORVLogError("Failed to create Orvella account: %@", error);
        } else if (auto current = ORVFetchOrvellaAccount()) {
            auto account = current->copy();
            account->setDisplayName(name);
            account->setEmailAddress(email);
            ORVSaveOrvellaAccount(account, [](const ORVError &saveError) {
                if (saveError)
                    ORVLogError("Failed to save the updated Orvella account");
            });
            setLastUsedAccountType(ORVOrvellaAccountTypePassword);
            setLastUsedEmail(email);
        }
        if (completion)
            completion(error);
        orv::detail::endAccountActivity(activity);
    });
    networkManager()->startRequest(request);
}

// --- another device -------------------------------------------------------------

void ORVOrvellaTokenManager::registerOtherDeviceWithScope(const QJsonValue &scope, const QString &name,
                                                          const QString &deviceToken,
                                                          RegisterOtherDeviceCompletion completion)
{
    orvRegisterFileLogLevel();
    const auto account = ORVFetchOrvellaAccount();
    if (!account) {
        ORVLogError("Cannot register another device with nil Orvella account");
        ORVDispatchQueue::mainQueue()->async([completion] {
            if (completion)
                completion(nullptr, QString(), tokenError(15));
        });
        return;
    }
    const QJsonObject body{
        {QStringLiteral("name"), name},
        {QStringLiteral("identifier"), deviceToken},
        {QStringLiteral("scope"), scope},
    };
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(
        jsonPost(account->URLForServerEndpoint(ORVOrvellaServerEndpointAccountDevice), body, 60.0));
    const QString category = QStringLiteral("Orvella: register other device");
    request->setCategory(category);
    request->setMaskRequestLogging(true);
    request->setMaskResponseLogging(true);

    auto activity = orv::detail::beginAccountActivity(category);
    request->setCompletionHandler([completion, activity](const std::shared_ptr<ORVOrvellaData> &data,
                                                         const std::optional<ORVHTTPURLResponse> &response,
                                                         const ORVError &transportError) {
        const int status = response ? response->statusCode() : 0;
        std::shared_ptr<ORVOrvellaAccount> account;
        QString token;
        ORVError error = transportError;
        if (!isSuccess(status)) {
            if (!error)
                error = refusedError(status);
        } else {
            const auto object = orv_JSONDictionaryWithData(data ? data->data() : QByteArray());
            const auto received = object ? orv_stringForKey(*object, QStringLiteral("token")) : std::nullopt;
            if (!received) {
                if (!error)
                    error = tokenError(
                        10, {{ORVLocalizedFailureReasonErrorKey,
                              ORVLocalizedString("Failed to register device. Received invalid response from server.")}});
            } else {
                token = *received;
                // The other device gets its own account: the caller fills in
                // who it is.
                if (auto current = ORVFetchOrvellaAccount()) {
                    account = current->copy();
                    account->setUsername(std::nullopt);
                    account->setEmailAddress(QString());
                }
            }
        }
        if (token.isNull())
            ORVLogError("Failed to register other device: %@", error);
        ORVDispatchQueue::mainQueue()->async([completion, account, token, error, activity] {
            if (completion)
                completion(account, token, error);
            orv::detail::endAccountActivity(activity);
        });
    });
    networkManager()->startRequest(request);
}

// --- last used account ------------------------------------------------------------

void ORVOrvellaTokenManager::setLastUsedEmail(const QString &email)
{
    auto store = ORVUbiquitousKeyValueStore::defaultStore();
    if (email.isNull())
        store->removeObjectForKey(ORVOrvellaAccountLastUsedEmailUbiquitousKey);
    else
        store->setString(email, ORVOrvellaAccountLastUsedEmailUbiquitousKey);
}

QString ORVOrvellaTokenManager::lastUsedEmail()
{
    return ORVUbiquitousKeyValueStore::defaultStore()
        ->stringForKey(ORVOrvellaAccountLastUsedEmailUbiquitousKey)
        .value_or(QString());
}

void ORVOrvellaTokenManager::setLastUsedAccountType(ORVOrvellaAccountType type)
{
    auto store = ORVUbiquitousKeyValueStore::defaultStore();
    const QString text = ORVOrvellaAccountTypeString(type);
    if (text.isNull())
        store->removeObjectForKey(ORVOrvellaAccountTypeUbiquitousKey);
    else
        store->setString(text, ORVOrvellaAccountTypeUbiquitousKey);
}

ORVOrvellaAccountType ORVOrvellaTokenManager::lastUsedAccountType()
{
    const QString text =
        ORVUbiquitousKeyValueStore::defaultStore()->stringForKey(ORVOrvellaAccountTypeUbiquitousKey).value_or(QString());
    for (auto type : {ORVOrvellaAccountTypePassword, ORVOrvellaAccountTypeApple, ORVOrvellaAccountTypeGoogle}) {
        if (text == ORVOrvellaAccountTypeString(type))
            return type;
    }
    return ORVOrvellaAccountTypeNone;
}

void ORVOrvellaTokenManager::updateLastUsedAccount()
{
    const auto account = ORVFetchOrvellaAccount();
    if (!account || account->emailAddress().isEmpty()) {
        resetLastUsedAccount();
        return;
    }
    setLastUsedAccountType(account->orvellaAccountType());
    setLastUsedEmail(account->emailAddress());
}

void ORVOrvellaTokenManager::resetLastUsedAccount()
{
    auto store = ORVUbiquitousKeyValueStore::defaultStore();
    store->removeObjectForKey(ORVOrvellaAccountTypeUbiquitousKey);
    store->removeObjectForKey(ORVOrvellaAccountLastUsedEmailUbiquitousKey);
}
