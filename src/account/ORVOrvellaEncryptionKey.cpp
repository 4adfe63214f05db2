// The account encryption key: made on the first device that asks, carried to
// the others by the ubiquitous key-value store, and checked against a
// verification record on the server (the user name encrypted with the key).

#include "ORVAccountSupport.h"

#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>

#include <QtDebug>

#include <openssl/rand.h>

ORV_LOG_FILE("Token Manager")

const QString ORVOrvellaAccountKeyUbiquitousKeyPrefix = QStringLiteral("OrvellaAccountKey-");

namespace {

constexpr const char *kFile = "ORVOrvellaTokenManager";
constexpr int kKeyLength = 16;
constexpr double kTimeout = 30.0;

ORVError keyError(qint64 code, const ORVError &underlying = ORVError())
{
    QVariantMap userInfo;
    if (underlying)
        userInfo.insert(ORVUnderlyingErrorKey, QVariant::fromValue(underlying));
    return orv::detail::tokenError(code, userInfo);
}

// A request for the account's key verification record, sent with the
// account's access token and never answered from a cache.
std::shared_ptr<ORVOrvellaAccountRequest> verificationRecordRequest(const ORVOrvellaAccount &account,
                                                                    const QString &category,
                                                                    const QString &method = QStringLiteral("GET"),
                                                                    const QByteArray &body = QByteArray())
{
    QUrl url = account.URLForServerEndpoint(ORVOrvellaServerEndpointKeyValue);
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    url.setPath(path + QStringLiteral("key/keyVerification"));
    ORVURLRequest urlRequest(url);
    urlRequest.setHTTPMethod(method);
    urlRequest.setCachePolicy(ORVURLRequestReloadIgnoringLocalAndRemoteCacheData);
    urlRequest.setTimeoutInterval(kTimeout);
    if (!body.isNull()) {
        urlRequest.setHTTPBody(body);
        urlRequest.setValue(QStringLiteral("application/octet-stream"), QStringLiteral("Content-Type"));
    }
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(urlRequest);
    request->setCategory(category);
    return request;
}

} // namespace

std::optional<QByteArray> ORVOrvellaTokenManager::encryptionKeyFromUbiquitousKeyValueStore()
{
    orvRegisterFileLogLevel();
    const auto account = ORVFetchOrvellaAccount();
    const auto username = account ? account->username() : std::nullopt;
    if (!username) {
        ORVLogError("No signed-in Orvella account to hold an encryption key");
        return std::nullopt;
    }
    auto store = ORVUbiquitousKeyValueStore::defaultStore();
    const QString key = ORVOrvellaAccountKeyUbiquitousKeyPrefix + *username;
    if (auto stored = store->dataForKey(key))
        return stored;
    QByteArray bytes(kKeyLength, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), kKeyLength) != 1) {
        qWarning("Unable to generate encryption key");
        return std::nullopt;
    }
    store->setData(bytes, key);
    return bytes;
}

void ORVOrvellaTokenManager::checkEncryptionKey(const QByteArray &key, EncryptionKeyCompletion completion)
{
    orvRegisterFileLogLevel();
    constexpr const char *method = "checkEncryptionKey:completionBlock:";
    const auto account = ORVFetchOrvellaAccount();
    const auto username = account ? account->username() : std::nullopt;
    if (!ORVMethodParameterAssert(!key.isNull(), "key != nil", method, "ORVOrvellaTokenManager", kFile) ||
        !ORVMethodAssert(username.has_value(), method, "ORVOrvellaTokenManager", kFile,
                         QStringLiteral("Missing Orvella account username"))) {
        // Only when the assertion handler returns.
        if (completion)
            completion(false, keyError(13));
        return;
    }

    const QString category = QStringLiteral("Orvella: Verify Key");
    auto activity = orv::detail::beginAccountActivity(category);
    auto request = verificationRecordRequest(*account, category);

    auto self = shared_from_this();
    const QString user = *username;
    request->setCompletionHandler([self, key, user, completion, activity](
                                      const std::shared_ptr<ORVOrvellaData> &data,
                                      const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
        const int status = response ? response->statusCode() : 0;
        const auto end = [&] { orv::detail::endAccountActivity(activity); };
        if (!error && status == 404) {
            // No record yet: this key becomes the account's key.
            ORVLogInfo("No key verification record yet; creating it");
            self->resetEncryptionKey(key, completion);
            end();
            return;
        }
        bool success = false;
        ORVError result;
        if (!error && status >= 200 && status <= 299) {
            const auto plain = orv_decryptedDataWithKey(data ? data->data() : QByteArray(), key);
            if (plain && QString::fromUtf8(*plain) == user) {
                self->updateOrvellaEncryptionKey(key, user);
                ORVUbiquitousKeyValueStore::defaultStore()->setData(key, ORVOrvellaAccountKeyUbiquitousKeyPrefix + user);
                success = true;
            } else {
                result = keyError(14);
            }
        } else {
            result = keyError(13, error);
        }
        if (!success)
            ORVLogError("Failed to verify the encryption key: HTTP %d %@", status, result);
        end();
        if (completion)
            completion(success, result);
    });
    networkManager()->startRequest(request);
}

void ORVOrvellaTokenManager::resetEncryptionKey(const QByteArray &key, EncryptionKeyCompletion completion)
{
    orvRegisterFileLogLevel();
    const auto account = ORVFetchOrvellaAccount();
    const auto username = account ? account->username() : std::nullopt;
    if (!ORVMethodAssert(username.has_value(), "resetEncryptionKey:completionBlock:", "ORVOrvellaTokenManager", kFile,
                         QStringLiteral("Missing Orvella account identifier"))) {
        if (completion)
            completion(false, keyError(13));
        return;
    }
    const auto record = orv_encryptedDataWithKey(username->toUtf8(), key);
    if (!record) {
        // A key of the wrong length: nothing the server could check.
        ORVLogError("Cannot encrypt the key verification record (key of %ld bytes)", static_cast<long>(key.size()));
        if (completion)
            completion(false, keyError(13));
        return;
    }

    const QString category = QStringLiteral("Orvella: Update Key Verification");
    auto activity = orv::detail::beginAccountActivity(category);
    auto request = verificationRecordRequest(*account, category, QStringLiteral("PUT"), *record);

    auto self = shared_from_this();
    const QString user = *username;
    request->setCompletionHandler([self, key, user, completion, activity](
                                      const std::shared_ptr<ORVOrvellaData> &,
                                      const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
        const int status = response ? response->statusCode() : 0;
        const bool success = !error && status >= 200 && status <= 299;
        ORVError result;
        if (success) {
            self->updateOrvellaEncryptionKey(key, user);
        } else {
            result = keyError(13, error);
            ORVLogError("Failed to update the key verification record: HTTP %d %@", status, result);
        }
        orv::detail::endAccountActivity(activity);
        if (completion)
            completion(success, result);
    });
    networkManager()->startRequest(request);
}
