#include "ORVAccountSupport.h"
#include "ORVDeviceIdentity.h"

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QJsonDocument>
#include <QNetworkInterface>
#include <QStorageInfo>
#include <QSysInfo>
#include <QUuid>

#include <pwd.h>
#include <unistd.h>

ORV_LOG_FILE("Token Manager")

const QString ORVOrvellaTokenManagerSavedIdentifierForVendorDefaultKey = QStringLiteral("savedIdentifierForVendor");

namespace {

constexpr const char *kFile = "ORVOrvellaTokenManager";
// A stored token is adopted only with more than this much life left.
constexpr double kStoredTokenMargin = 60.0;
// The session's high task priority.
constexpr float kHighPriority = 0.75f;

std::mutex registrationLock;
std::shared_ptr<ORVOrvellaTokenManager> registeredManager;

QString loginName()
{
    if (const passwd *entry = ::getpwuid(::geteuid()); entry && entry->pw_name)
        return QString::fromLocal8Bit(entry->pw_name);
    return qEnvironmentVariable("USER");
}

} // namespace

using orv::detail::tokenError;

ORVOrvellaTokenManager::ORVOrvellaTokenManager() : _tokenRequestQueue(std::make_shared<ORVOperationQueue>())
{
    orvRegisterFileLogLevel();
    _tokenRequestQueue->setMaxConcurrentOperationCount(1);
}

ORVOrvellaTokenManager::~ORVOrvellaTokenManager() = default;

std::shared_ptr<ORVOrvellaTokenManager> ORVOrvellaTokenManager::sharedManager()
{
    std::lock_guard lock(registrationLock);
    return registeredManager;
}

void ORVRegisterSharedTokenManager(std::shared_ptr<ORVOrvellaTokenManager> tokenManager)
{
    constexpr const char *function = "void ORVRegisterSharedTokenManager(ORVOrvellaTokenManager *__strong _Nonnull)";
    if (!ORVFunctionParameterAssert(tokenManager != nullptr, "tokenManager != nil", function, kFile))
        return;
    bool alreadySet = false;
    {
        std::lock_guard lock(registrationLock);
        alreadySet = registeredManager != nullptr;
    }
    ORVFunctionAssert(!alreadySet, function, kFile, QStringLiteral("A Token Manager already exists"));
    {
        std::lock_guard lock(registrationLock);
        registeredManager = tokenManager;
    }
    ORVOrvellaNetworkManager::setSharedTokenManagerLookup([] { return ORVOrvellaTokenManager::sharedManager(); });
}

// --- hooks --------------------------------------------------------------------

QString ORVOrvellaTokenManager::appScope() const
{
    orv_abstractMethodException("appScope").raise();
}

void ORVOrvellaTokenManager::updateKeychainWithAccountCredential(const ORVURLCredential &,
                                                                 const std::shared_ptr<ORVOrvellaAccount> &)
{
}

QString ORVOrvellaTokenManager::deviceToken() const
{
    ORVMethodAssert(false, "deviceToken", "ORVOrvellaTokenManager", kFile, QStringLiteral("Unsupported platform"));
    return QString();
}

std::optional<ORVURLCredential> ORVOrvellaTokenManager::credentialForOrvellaAccount(
    const std::shared_ptr<ORVOrvellaAccount> &) const
{
    return std::nullopt;
}

QJsonObject ORVOrvellaTokenManager::dictionaryByAppendingDeviceInfo(const QJsonObject &dictionary) const
{
    return dictionary;
}

void ORVOrvellaTokenManager::clearCredentialManagerTimeout() {}

void ORVOrvellaTokenManager::setAccountCredential(const ORVURLCredential &, const std::shared_ptr<ORVOrvellaAccount> &)
{
    orv_abstractMethodException("setAccountCredential:forAccount:").raise();
}

void ORVOrvellaTokenManager::updateOrvellaEncryptionKey(const QByteArray &, const QString &)
{
    orv_abstractMethodException("updateOrvellaEncryptionKey:forAccountWithUsername:").raise();
}

void ORVOrvellaTokenManager::setOrvellaToken(const QString &, const QString &)
{
    orv_abstractMethodException("setOrvellaToken:forAccountIdentifier:").raise();
}

QString ORVOrvellaTokenManager::orvellaTokenForAccountIdentifier(const QString &)
{
    orv_abstractMethodException("orvellaTokenForAccountIdentifier:").raise();
}

const ORVISO8601DateFormatter &ORVOrvellaTokenManager::dateFormatter() const
{
    return orv_utcDateFormatter();
}

std::shared_ptr<ORVOrvellaNetworkManager> ORVOrvellaTokenManager::networkManager() const
{
    std::lock_guard lock(_networkManagerLock);
    return _networkManager ? _networkManager : ORVOrvellaNetworkManager::sharedManager();
}

void ORVOrvellaTokenManager::setNetworkManager(const std::shared_ptr<ORVOrvellaNetworkManager> &manager)
{
    std::lock_guard lock(_networkManagerLock);
    _networkManager = manager;
}

double ORVOrvellaTokenManager::tokenFetchTimeout() const
{
    return _tokenFetchTimeout.load();
}

void ORVOrvellaTokenManager::setTokenFetchTimeout(double seconds)
{
    _tokenFetchTimeout.store(seconds);
}

// --- device -------------------------------------------------------------------

QString ORVOrvellaTokenManager::deviceName() const
{
    QString name = orv::detail::prettyHostName();
    if (name.isEmpty())
        name = QSysInfo::machineHostName().trimmed();
    return name.isEmpty() ? QStringLiteral("Unknown Device") : name;
}

std::optional<QString> ORVOrvellaTokenManager::uniqueDeviceIdentifier() const
{
    QString base = orv::detail::primaryHardwareAddress();
    if (base.isEmpty())
        base = orv::detail::machineBoundIdentifier();
    if (base.isEmpty())
        base = ORVUUIDString(QUuid::createUuid());
    const QString volume = QStorageInfo::root().displayName();
    return base + ORVStringWithFormat("-%@-%@", loginName(), volume);
}

// --- tokens -------------------------------------------------------------------

void ORVOrvellaTokenManager::requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                                    TokenCompletion completion)
{
    requestTokenForAccount(account, nullptr, false, std::move(completion));
}

void ORVOrvellaTokenManager::requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                                    const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                                    bool ignoreCache, TokenCompletion completion)
{
    const QUuid requestIdentifier = task && task->request() ? task->request()->identifier() : QUuid();
    if (!account) {
        ORVLogError("No account provided in request for token %@",
                    requestIdentifier.isNull() ? QVariant() : QVariant(requestIdentifier));
        _tokenRequestQueue->addOperation(ORVBlockOperation::blockOperationWithBlock(
            [completion](const auto &) { completion(QString(), tokenError(1)); }));
        return;
    }
    const QString id = account->identifier();
    auto self = shared_from_this();
    {
        std::lock_guard lock(_tokensLock);
        QString token = _tokens.value(id);
        const bool active = _hasActiveTokenRequest.value(id, false);
        // What this caller's answer belongs to: a reset (sign-out) or a new
        // sign-in in between makes it an answer for nobody.
        const quint64 generation = _generations.value(id);
        if (token.isNull() && !ignoreCache) {
            const QString stored = storedTokenOrNull(id);
            if (!stored.isNull()) {
                const auto expiry = expirationDateForToken(stored);
                const double remaining =
                    expiry ? QDateTime::currentDateTimeUtc().msecsTo(*expiry) / 1000.0 : 0.0;
                if (expiry && remaining > kStoredTokenMargin) {
                    token = stored;
                    _tokens.insert(id, stored);
                    _tokenExpirations.insert(id, *expiry);
                    storeTokenOrLog(stored, id);
                }
            }
        }
        if (!token.isNull()) {
            // A token in memory is good up to its very expiry; one without a
            // readable expiry counts as good until the account is reset.
            const QDateTime expiry = _tokenExpirations.value(id);
            if (expiry.isValid() && QDateTime::currentDateTimeUtc().msecsTo(expiry) < 0)
                token = QString();
        }
        ORVLogVerbose("Requesting Orvella token: identifier: %@ ignoreCache: %d has token: %d is active token: %d",
                      requestIdentifier.isNull() ? QVariant() : QVariant(requestIdentifier), ignoreCache,
                      !token.isNull(), active);
        if (!active && (token.isNull() || ignoreCache)) {
            std::weak_ptr<ORVOrvellaNetworkTask> weakTask = task;
            auto fetch = std::make_shared<ORVBlockOperation>();
            fetch->setExecutionHandler(
                [self, weakTask, account, generation](const std::shared_ptr<ORVBlockOperation> &operation) {
                    return self->fetchToken(operation, weakTask, account, generation);
                });
            _tokenRequestQueue->addOperation(fetch);
            _hasActiveTokenRequest.insert(id, true);
        }
        _tokenRequestQueue->addOperation(
            ORVBlockOperation::blockOperationWithBlock([self, id, generation, completion](const auto &) {
                QString token;
                ORVError error;
                {
                    std::lock_guard lock(self->_tokensLock);
                    if (self->_generations.value(id) != generation) {
                        // Asked for before a sign-out or a new sign-in: this
                        // caller gets neither the old session's token nor the
                        // new one's.
                        error = tokenError(ORVOrvellaNetworkTaskCancelledErrorCode);
                    } else {
                        token = self->_tokens.value(id);
                        if (token.isNull())
                            error = self->_errors.value(id);
                    }
                }
                ORVLogVerbose("Replying with cached Orvella token %d %@", !token.isNull(), error);
                completion(token, error);
            }));
    }
}

// One token fetch in flight. Its callers are answered exactly once
// ("released"): by its reply, by its cancellation, by its time bound, or by
// a sign-out. Its reply is read exactly once too, and may come after the
// callers were answered: the server rotates the device token with every
// grant, and the reply is the only copy of the new one.
struct ORVOrvellaTokenManager::TokenFetch {
    std::atomic<bool> released = false;
    std::atomic<bool> replied = false;
    std::shared_ptr<ORVOrvellaAccount> account;
    quint64 generation = 0;
    // The fetch's request, for the log. Not the request itself: its
    // completion handler holds this fetch.
    QUuid requestIdentifier;
    // Taken out by the one call that answers the callers ("released").
    std::shared_ptr<ORVBlockOperation> operation;
};

namespace {
// The fetch's network task. Cancelling it (the network manager's bulk
// cancellations reach it like any other task) answers the callers at once,
// but does not abort the exchange: cut short after the server rotated the
// device token, it would leave the device with a token the server no
// longer knows, and the user signed out.
class TokenFetchTask : public ORVOrvellaNetworkTask {
public:
    using ORVOrvellaNetworkTask::ORVOrvellaNetworkTask;
    void cancel() override {}
};

bool isCancellation(const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)
{
    return !response && error.domain() == ORVOrvellaTokenManagerErrorDomain &&
           error.code() == ORVOrvellaNetworkTaskCancelledErrorCode;
}

// A hook of the application's subclass threw while the fetch started or its
// reply was read.
ORVError fetchFailedError(const QString &reason)
{
    QVariantMap userInfo{{ORVLocalizedFailureReasonErrorKey, QStringLiteral("Failed to get token")}};
    if (!reason.isEmpty())
        userInfo.insert(ORVLocalizedDescriptionKey, reason);
    return tokenError(ORVOrvellaTokenManagerTokenFetchFailedErrorCode, userInfo);
}
} // namespace

bool ORVOrvellaTokenManager::fetchToken(const std::shared_ptr<ORVBlockOperation> &operation,
                                        const std::weak_ptr<ORVOrvellaNetworkTask> &weakTask,
                                        const std::shared_ptr<ORVOrvellaAccount> &account, quint64 generation)
{
    const QString id = account->identifier();
    ORVLogVerbose("Starting Orvella token request %@", id);
    std::shared_ptr<ORVOrvellaSimpleRequest> request;
    try {
        ORVURLRequest urlRequest(account->URLForServerEndpoint(ORVOrvellaServerEndpointAuthDevice));
        urlRequest.setCachePolicy(ORVURLRequestReloadIgnoringLocalAndRemoteCacheData);
        urlRequest.setTimeoutInterval(60.0);

        const auto username = account->username();
        const auto credential = username ? credentialForOrvellaAccount(account) : std::nullopt;
        if (!credential) {
            storeFetchResult(id, generation, QString(),
                             tokenError(5, {{ORVLocalizedFailureReasonErrorKey, QStringLiteral("Not logged in")}}));
            return true;
        }
        QJsonObject body{
            {QStringLiteral("user"), credential->user},
            {QStringLiteral("device_token"), credential->password},
            {QStringLiteral("device_identifier"), deviceToken()},
            {QStringLiteral("version"),
             ORVBundle::mainBundle().objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString()},
        };
        body = dictionaryByAppendingDeviceInfo(body);
        // A JSON object of strings always serialises; the failure branch of
        // the platform's serialiser has no counterpart here.
        urlRequest.setHTTPMethod(QStringLiteral("POST"));
        urlRequest.setHTTPBody(QJsonDocument(body).toJson(QJsonDocument::Compact));
        urlRequest.setValue(QStringLiteral("application/json"), QStringLiteral("Content-Type"));

        request = ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest);
        if (auto task = weakTask.lock(); task && task->request()) {
            request->setShouldYieldHandler(task->request()->shouldYieldHandler());
            request->setShouldResumeHandler(task->request()->shouldResumeHandler());
        }
    } catch (const std::exception &exception) {
        // A hook of the application's subclass failed (a keyring that went
        // away, a platform without a device token). Every caller waiting on
        // this fetch hears of it, and the next request fetches again.
        failFetchToStart(id, generation, QString::fromUtf8(exception.what()));
        return true;
    } catch (...) {
        failFetchToStart(id, generation, QStringLiteral("unknown exception"));
        return true;
    }
    request->setCategory(QStringLiteral("Orvella token refresh"));
    request->setMaskRequestLogging(true);
    // The answer holds the new access token and the rotated device token;
    // the command log gets its length only.
    request->setMaskResponseLogging(true);
    request->setPriority(kHighPriority);

    auto fetch = std::make_shared<TokenFetch>();
    fetch->account = account;
    fetch->generation = generation;
    fetch->operation = operation;
    fetch->requestIdentifier = request->identifier();
    {
        std::lock_guard lock(_tokensLock);
        _fetches.insert(id, fetch);
    }
    std::weak_ptr<ORVOrvellaTokenManager> weakSelf = weak_from_this();
    // The fetch is not nested into the task that asked first: the callers
    // that wait for it share it, and one of them cancelling must not fail
    // the others.
    request->setCompletionHandler([weakSelf, fetch](const std::shared_ptr<ORVOrvellaData> &data,
                                                    const std::optional<ORVHTTPURLResponse> &response,
                                                    const ORVError &error) {
        auto self = weakSelf.lock();
        if (!self)
            return;
        if (isCancellation(response, error))
            self->releaseFetch(fetch, error);
        else
            self->replyToFetch(fetch, data ? data->data() : QByteArray(), response, error);
    });
    auto networkTask = ORVOrvellaNetworkTask::make<TokenFetchTask>(request);
    // Dropped from the network manager's active set, the exchange still
    // ends, and its reply still comes here.
    networkTask->setDroppedResultHandler(
        [weakSelf, fetch](const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response,
                          const ORVError &error) {
            if (auto self = weakSelf.lock())
                self->replyToFetch(fetch, data, response, error);
        });
    const auto bound = std::chrono::milliseconds(static_cast<qint64>(std::max(0.0, tokenFetchTimeout()) * 1000.0));
    ORVDispatchQueue::globalQueue()->after(bound, [weakSelf, fetch] {
        if (fetch->released.load())
            return;
        if (auto self = weakSelf.lock()) {
            ORVLogError("Orvella token request timed out %@", fetch->account->identifier());
            self->releaseFetch(fetch, ORVError(ORVURLErrorDomain, ORVURLErrorTimedOut,
                                               {{ORVLocalizedDescriptionKey,
                                                 QStringLiteral("The token request timed out")}}));
        }
    });
    try {
        networkManager()->startTask(networkTask);
    } catch (const std::exception &exception) {
        // The network manager reported a programming error (the account's
        // endpoint has no URL); the task has ended with its error already.
        ORVLogError("Failed to start Orvella token request: %@ %@", id, QString::fromUtf8(exception.what()));
    }
    return false;
}

void ORVOrvellaTokenManager::failFetchToStart(const QString &id, quint64 generation, const QString &reason)
{
    ORVLogError("Failed to start Orvella token request: %@ %@", id, reason);
    storeFetchResult(id, generation, QString(), fetchFailedError(reason));
}

void ORVOrvellaTokenManager::releaseFetch(const std::shared_ptr<TokenFetch> &fetch, const ORVError &error)
{
    if (fetch->released.exchange(true))
        return;
    storeFetchResult(fetch->account->identifier(), fetch->generation, QString(), error);
    finishFetchOperation(fetch);
}

void ORVOrvellaTokenManager::replyToFetch(const std::shared_ptr<TokenFetch> &fetch, const QByteArray &data,
                                          const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)
{
    if (fetch->replied.exchange(true))
        return;
    // Whether the callers were answered already (a cancellation, the time
    // bound, a sign-out): then only what must not be lost is kept.
    const bool late = fetch->released.exchange(true);
    const QString id = fetch->account->identifier();
    try {
        handleTokenResponse(fetch->account, fetch->requestIdentifier, response, data, error, fetch->generation, late);
    } catch (...) {
        // Whatever an application's hook throws, the callers get an answer
        // and the token queue moves on.
        ORVLogError("Failed to handle Orvella token response %@", id);
        if (!late)
            storeFetchResult(id, fetch->generation, QString(), fetchFailedError(QString()));
    }
    if (!late)
        finishFetchOperation(fetch);
}

void ORVOrvellaTokenManager::finishFetchOperation(const std::shared_ptr<TokenFetch> &fetch)
{
    const auto operation = std::exchange(fetch->operation, nullptr);
    {
        std::lock_guard lock(_tokensLock);
        const QString id = fetch->account->identifier();
        if (_fetches.value(id).lock() == fetch)
            _fetches.remove(id);
    }
    if (operation)
        operation->didFinishExecution();
}

std::shared_ptr<ORVOrvellaTokenManager::TokenFetch> ORVOrvellaTokenManager::beginNewGenerationLocked(const QString &id)
{
    ++_generations[id];
    return _fetches.take(id).lock();
}

void ORVOrvellaTokenManager::beginNewSession(const QString &id)
{
    std::shared_ptr<TokenFetch> superseded;
    {
        std::lock_guard credentialLock(_credentialLock);
        std::lock_guard lock(_tokensLock);
        superseded = beginNewGenerationLocked(id);
    }
    // Its callers belong to the session before; the queue moves on at once.
    if (superseded)
        releaseFetch(superseded, tokenError(ORVOrvellaNetworkTaskCancelledErrorCode));
}

void ORVOrvellaTokenManager::continueTokenRequestForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                                            const std::shared_ptr<ORVOrvellaRequest> &request,
                                                            const std::optional<ORVHTTPURLResponse> &response,
                                                            const QByteArray &data, const ORVError &transportError)
{
    handleTokenResponse(account, request ? request->identifier() : QUuid(), response, data, transportError, std::nullopt,
                        false);
}

void ORVOrvellaTokenManager::handleTokenResponse(const std::shared_ptr<ORVOrvellaAccount> &account,
                                                 const QUuid &requestIdentifier,
                                                 const std::optional<ORVHTTPURLResponse> &response,
                                                 const QByteArray &data, const ORVError &transportError,
                                                 std::optional<quint64> generation, bool late)
{
    ORVLogVerbose("Orvella token response: %@ %@ %@", requestIdentifier.isNull() ? QVariant() : QVariant(requestIdentifier),
                  response ? QVariant(QStringLiteral("HTTP %1").arg(response->statusCode())) : QVariant(),
                  transportError);
    const QString id = account->identifier();
    const int status = response ? response->statusCode() : 0;
    QString token;
    ORVError error;
    QString rotatedDeviceToken;
    if (status < 200 || status > 299) {
        if (transportError) {
            error = transportError;
        } else {
            ORVError decodeError;
            const auto body = orv_JSONDictionaryWithData(data, &decodeError);
            if (!body)
                // The body's length only: an unreadable body is not scrubbed.
                ORVLogError("Failed to decode error response: %@ %@", decodeError,
                            ORVStringWithFormat("(%lu Bytes)", static_cast<unsigned long>(data.size())));
            const QJsonObject object = body.value_or(QJsonObject());
            const QJsonValue code = object.value(QStringLiteral("code"));
            // The body's "code", else the whole (scrubbed) body, else nothing.
            QVariant codeOrBody;
            if (!code.isUndefined() && !code.isNull())
                codeOrBody = code.toVariant();
            else if (body)
                codeOrBody = QString::fromUtf8(QJsonDocument(copyScrubbedORV(object)).toJson(QJsonDocument::Compact));
            QVariantMap userInfo{
                {ORVLocalizedFailureReasonErrorKey,
                 ORVStringWithFormat("Failed to get token: %@, %ld", codeOrBody, static_cast<long>(status))}};
            if (const auto message = orv_stringForKey(object, QStringLiteral("message")))
                userInfo.insert(ORVLocalizedDescriptionKey, *message);
            error = tokenError(status, userInfo);
        }
    } else {
        const auto body = orv_JSONDictionaryWithData(data);
        const QJsonObject object = body.value_or(QJsonObject());
        const auto received = orv_stringForKey(object, QStringLiteral("token"));
        const auto deviceToken = orv_stringForKey(object, QStringLiteral("device_token"));
        if (!received) {
            error = tokenError(1, {{ORVLocalizedFailureReasonErrorKey, QStringLiteral("Failed to get token")},
                                   {QStringLiteral("backend-error"),
                                    orv_stringForKey(object, QStringLiteral("error")).value_or(QString())}});
        } else {
            token = *received;
        }
        if (body && deviceToken) {
            rotatedDeviceToken = *deviceToken;
        }
    }
    {
        // A sign-out takes this lock too: a reply either keeps its rotated
        // credential before the sign-out, or is discarded after it.
        std::lock_guard credentialLock(_credentialLock);
        if (generation && !isCurrentGeneration(id, *generation)) {
            // Signed out (or in anew) while the fetch was on its way: its
            // reply, token and rotated device credential alike, belongs to nobody.
            ORVLogInfo("Discarding Orvella token response for a reset account %@", id);
            return;
        }
        if (!rotatedDeviceToken.isNull()) {
            // The server rotates the device token with each grant.
            try {
                if (auto current = ORVFetchOrvellaAccount()) {
                    const ORVURLCredential credential{current->username().value_or(QString()), rotatedDeviceToken};
                    updateKeychainWithAccountCredential(credential, current);
                    setAccountCredential(credential, current);
                    ORVLogVerbose("Updated Orvella token in Keychain %@", current->identifier());
                }
            } catch (...) {
                ORVLogError("Failed to keep the rotated Orvella device token %@", id);
            }
        }
    }
    if (!generation)
        storeTokenForAccountIdentifier(id, token, error);
    else if (!late)
        storeFetchResult(id, *generation, token, error);
    else if (!token.isNull())
        storeLateToken(id, *generation, token);
    if (error)
        ORVLogError("Finished Orvella token update %@ %d %@", account->identifier(), !token.isNull(), error);
    else
        ORVLogInfo("Finished Orvella token update %@ %d %@", account->identifier(), !token.isNull(), error);
}

void ORVOrvellaTokenManager::storeTokenForAccountIdentifier(const QString &id, const QString &token,
                                                            const ORVError &error)
{
    std::lock_guard lock(_tokensLock);
    storeLocked(id, token, error);
}

void ORVOrvellaTokenManager::storeLateToken(const QString &id, quint64 generation, const QString &token)
{
    std::lock_guard lock(_tokensLock);
    // Only into a cache that nothing newer has claimed: the same session,
    // and no other fetch under way for it.
    if (_generations.value(id) != generation || _hasActiveTokenRequest.value(id, false))
        return;
    storeLocked(id, token, ORVError());
}

void ORVOrvellaTokenManager::storeFetchResult(const QString &id, quint64 generation, const QString &token,
                                              const ORVError &error)
{
    std::lock_guard lock(_tokensLock);
    if (_generations.value(id) != generation) {
        // The account was reset meanwhile: its fetch flag is no longer this
        // fetch's, and nothing of it may come back.
        ORVLogInfo("Discarding Orvella token response for a reset account %@", id);
        return;
    }
    storeLocked(id, token, error);
}

void ORVOrvellaTokenManager::storeLocked(const QString &id, const QString &token, const ORVError &error)
{
    if (token.isNull()) {
        _tokens.remove(id);
        _tokenExpirations.remove(id);
    } else {
        _tokens.insert(id, token);
        _tokenExpirations.insert(id, expirationDateForToken(token).value_or(QDateTime()));
    }
    if (error)
        _errors.insert(id, error);
    else
        _errors.remove(id);
    _hasActiveTokenRequest.remove(id);
    storeTokenOrLog(token, id);
}

bool ORVOrvellaTokenManager::isCurrentGeneration(const QString &id, quint64 generation) const
{
    std::lock_guard lock(_tokensLock);
    return _generations.value(id) == generation;
}

QString ORVOrvellaTokenManager::storedTokenOrNull(const QString &id)
{
    try {
        return orvellaTokenForAccountIdentifier(id);
    } catch (const std::exception &exception) {
        ORVLogError("Failed to read the stored Orvella token %@ %@", id, QString::fromUtf8(exception.what()));
        return QString();
    }
}

void ORVOrvellaTokenManager::storeTokenOrLog(const QString &token, const QString &id)
{
    // The cache in memory is right either way; only the stored copy is lost.
    try {
        setOrvellaToken(token, id);
    } catch (const std::exception &exception) {
        ORVLogError("Failed to store the Orvella token %@ %@", id, QString::fromUtf8(exception.what()));
    }
}

std::optional<QDateTime> ORVOrvellaTokenManager::expirationDateForToken(const QString &token) const
{
    const QStringList parts = token.split(QLatin1Char('.'));
    if (parts.size() != 3)
        return std::nullopt;
    QString payload = parts.at(1);
    while (payload.size() % 4 != 0)
        payload += QLatin1Char('=');
    payload.replace(QLatin1Char('_'), QLatin1Char('/')).replace(QLatin1Char('-'), QLatin1Char('+'));
    // Unknown characters are skipped, as the platform decoder's option does.
    const QByteArray decoded = QByteArray::fromBase64(payload.toLatin1());
    const auto object = orv_JSONDictionaryWithData(decoded);
    if (!object)
        return std::nullopt;
    return orv_dateSince1970ForKey(*object, QStringLiteral("exp"));
}

void ORVOrvellaTokenManager::resetTokensForAccountWithIdentifier(const QString &identifier)
{
    std::shared_ptr<TokenFetch> superseded;
    {
        std::lock_guard credentialLock(_credentialLock);
        std::lock_guard lock(_tokensLock);
        _tokens.remove(identifier);
        _tokenExpirations.remove(identifier);
        _errors.remove(identifier);
        _hasActiveTokenRequest.remove(identifier);
        // A fetch still on its way, and the callers waiting for it, now
        // belong to a session that has ended.
        superseded = beginNewGenerationLocked(identifier);
        storeTokenOrLog(QString(), identifier);
    }
    if (superseded)
        releaseFetch(superseded, tokenError(ORVOrvellaNetworkTaskCancelledErrorCode));
}
