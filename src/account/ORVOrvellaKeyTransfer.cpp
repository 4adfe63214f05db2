// Device approval and recovery codes: the account encryption key reaches a
// second device through the account server without the server being able to
// read it. See ORVOrvellaKeyTransfer.h for the protocol.

#include "ORVAccountSupport.h"

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaKeyTransfer.h>
#include <OrvellaKit/ORVOrvellaNetworkTask.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <array>
#include <cstring>
#include <openssl/rand.h>

ORV_LOG_FILE("Token Manager")

namespace {

constexpr int kKeyLength = 16;
constexpr int kPublicKeyLength = 32;
constexpr int kNonceLength = 12;
constexpr int kTagLength = 16;
constexpr double kTimeout = 30.0;
// How long one exchange may take in all before its caller is told it failed:
// past the token fetch's own bound (90 s) and the request's time-out. Only
// a task dropped without its handler ever gets that far.
constexpr std::chrono::seconds kBackstop{130};
// Consecutive failed polls (the network gone for a while) before giving up.
constexpr int kMaxPollFailures = 5;

ORVError transferError(qint64 code, const char *reason = nullptr, const ORVError &underlying = ORVError())
{
    QVariantMap userInfo;
    if (reason)
        userInfo.insert(ORVLocalizedFailureReasonErrorKey, QCoreApplication::translate("Localizable", reason));
    if (underlying)
        userInfo.insert(ORVUnderlyingErrorKey, QVariant::fromValue(underlying));
    return orv::detail::tokenError(code, userInfo);
}

// --- cryptography (OpenSSL EVP) ------------------------------------------------

struct PKeyFree {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct PKeyCtxFree {
    void operator()(EVP_PKEY_CTX *ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using PKey = std::unique_ptr<EVP_PKEY, PKeyFree>;
using PKeyCtx = std::unique_ptr<EVP_PKEY_CTX, PKeyCtxFree>;
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

const unsigned char *bytes(const QByteArray &data)
{
    return reinterpret_cast<const unsigned char *>(data.constData());
}

PKey newKeyPair()
{
    return PKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"));
}

QByteArray publicKey(EVP_PKEY *key)
{
    QByteArray raw(kPublicKeyLength, Qt::Uninitialized);
    size_t length = kPublicKeyLength;
    if (!key || EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char *>(raw.data()), &length) != 1 ||
        length != kPublicKeyLength)
        return {};
    return raw;
}

// What both sides bind into the code and the key derivation: the account
// and both public keys, each of fixed or prefixed length.
QByteArray binding(const char *purpose, const QString &username, const QByteArray &requesterKey,
                   const QByteArray &approverKey)
{
    const QByteArray user = username.toUtf8();
    QByteArray out(purpose);
    out.append('\0');
    const quint32 length = static_cast<quint32>(user.size());
    out.append(static_cast<char>(length >> 24)).append(static_cast<char>(length >> 16));
    out.append(static_cast<char>(length >> 8)).append(static_cast<char>(length));
    out.append(user).append(requesterKey).append(approverKey);
    return out;
}

// X25519 agreement, then HKDF-SHA256 to an AES-256 key; empty on failure
// (OpenSSL refuses a peer key that yields the all-zero secret).
QByteArray sessionKey(EVP_PKEY *own, const QByteArray &peerPublic, const QByteArray &info)
{
    PKey peer(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, bytes(peerPublic), peerPublic.size()));
    if (!own || !peer)
        return {};
    PKeyCtx agree(EVP_PKEY_CTX_new(own, nullptr));
    QByteArray shared(32, Qt::Uninitialized);
    size_t sharedLength = shared.size();
    if (!agree || EVP_PKEY_derive_init(agree.get()) != 1 || EVP_PKEY_derive_set_peer(agree.get(), peer.get()) != 1 ||
        EVP_PKEY_derive(agree.get(), reinterpret_cast<unsigned char *>(shared.data()), &sharedLength) != 1)
        return {};
    shared.resize(static_cast<qsizetype>(sharedLength));
    PKeyCtx kdf(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr));
    QByteArray key(32, Qt::Uninitialized);
    size_t keyLength = key.size();
    const bool ok = kdf && EVP_PKEY_derive_init(kdf.get()) == 1 && EVP_PKEY_CTX_set_hkdf_md(kdf.get(), EVP_sha256()) == 1 &&
                    EVP_PKEY_CTX_set1_hkdf_key(kdf.get(), bytes(shared), shared.size()) == 1 &&
                    EVP_PKEY_CTX_add1_hkdf_info(kdf.get(), bytes(info), info.size()) == 1 &&
                    EVP_PKEY_derive(kdf.get(), reinterpret_cast<unsigned char *>(key.data()), &keyLength) == 1 &&
                    keyLength == 32;
    OPENSSL_cleanse(shared.data(), static_cast<size_t>(shared.size()));
    return ok ? key : QByteArray();
}

// nonce || ciphertext || tag
QByteArray seal(const QByteArray &key, const QByteArray &plain, const QByteArray &aad)
{
    QByteArray nonce(kNonceLength, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char *>(nonce.data()), kNonceLength) != 1)
        return {};
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    QByteArray out(plain.size() + 16, Qt::Uninitialized);
    QByteArray tag(kTagLength, Qt::Uninitialized);
    int length = 0;
    int total = 0;
    if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, bytes(key), bytes(nonce)) != 1 ||
        EVP_EncryptUpdate(ctx.get(), nullptr, &length, bytes(aad), aad.size()) != 1 ||
        EVP_EncryptUpdate(ctx.get(), reinterpret_cast<unsigned char *>(out.data()), &length, bytes(plain), plain.size()) != 1)
        return {};
    total = length;
    if (EVP_EncryptFinal_ex(ctx.get(), reinterpret_cast<unsigned char *>(out.data()) + total, &length) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagLength, tag.data()) != 1)
        return {};
    out.resize(total + length);
    return nonce + out + tag;
}

std::optional<QByteArray> open(const QByteArray &key, const QByteArray &sealed, const QByteArray &aad)
{
    if (sealed.size() < kNonceLength + kTagLength)
        return std::nullopt;
    const QByteArray nonce = sealed.left(kNonceLength);
    const QByteArray body = sealed.mid(kNonceLength, sealed.size() - kNonceLength - kTagLength);
    QByteArray tag = sealed.right(kTagLength);
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    QByteArray out(body.size() + 16, Qt::Uninitialized);
    int length = 0;
    if (!ctx || EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, bytes(key), bytes(nonce)) != 1 ||
        EVP_DecryptUpdate(ctx.get(), nullptr, &length, bytes(aad), aad.size()) != 1 ||
        EVP_DecryptUpdate(ctx.get(), reinterpret_cast<unsigned char *>(out.data()), &length, bytes(body), body.size()) != 1)
        return std::nullopt;
    const int total = length;
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagLength, tag.data()) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), reinterpret_cast<unsigned char *>(out.data()) + total, &length) != 1)
        return std::nullopt;
    out.resize(total + length);
    return out;
}

QByteArray sha256(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256);
}

// Six digits, "123 456", from both keys and the user name.
QString confirmationCode(const QString &username, const QByteArray &requesterKey, const QByteArray &approverKey)
{
    const QByteArray digest = sha256(binding("OrvellaKit key approval code v1", username, requesterKey, approverKey));
    const quint32 value = (quint32(quint8(digest[0])) << 24) | (quint32(quint8(digest[1])) << 16) |
                          (quint32(quint8(digest[2])) << 8) | quint32(quint8(digest[3]));
    const QString digits = QStringLiteral("%1").arg(value % 1000000u, 6, 10, QLatin1Char('0'));
    return digits.left(3) + QLatin1Char(' ') + digits.mid(3);
}

QString digitsOnly(const QString &text)
{
    QString out;
    for (const QChar c : text) {
        if (c.isDigit())
            out.append(c);
        else if (!c.isSpace() && c != QLatin1Char('-'))
            return QStringLiteral("x"); // anything else cannot match
    }
    return out;
}

// A device's name as a person may see it: printable characters only (no
// controls, no bidi overrides, no line breaks), at most 100 UTF-16 units
// and never half a surrogate pair.
QString printableName(const QString &name)
{
    QString out;
    for (const char32_t c : name.toUcs4()) {
        const auto category = QChar::category(c);
        if (!QChar::isPrint(c) || category == QChar::Separator_Line || category == QChar::Separator_Paragraph)
            continue;
        const QString piece = QString::fromUcs4(&c, 1);
        if (out.size() + piece.size() > 100)
            break;
        out += piece;
    }
    return out.simplified();
}

// Calls `completion` once: with the answer, or with error 13 when none came
// within kBackstop (a task dropped without its handler must not leave the
// caller waiting for ever).
template <class Result>
std::function<void(Result, const ORVError &)> guarded(std::function<void(Result, const ORVError &)> completion)
{
    using Completion = std::function<void(Result, const ORVError &)>;
    auto pending = std::make_shared<Completion>(std::move(completion));
    QTimer::singleShot(kBackstop, QCoreApplication::instance(), [pending] {
        if (auto called = std::exchange(*pending, nullptr))
            called(std::decay_t<Result>(), transferError(13, "The account server did not answer in time."));
    });
    return [pending](Result result, const ORVError &error) {
        if (auto called = std::exchange(*pending, nullptr))
            called(result, error);
    };
}

std::optional<QByteArray> base64Field(const QJsonObject &object, const QString &key, qsizetype size = -1)
{
    const auto decoded = QByteArray::fromBase64Encoding(object.value(key).toString().toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.isEmpty() || (size >= 0 && decoded.decoded.size() != size))
        return std::nullopt;
    return decoded.decoded;
}

// --- server calls ---------------------------------------------------------------

void later(const std::function<void()> &block)
{
    ORVDispatchQueue::mainQueue()->async(block);
}

using Reply = std::function<void(int status, const std::optional<QJsonObject> &body, const ORVError &error)>;

QUrl keyRequestsURL(const ORVOrvellaAccount &account, const QString &path)
{
    return account.URLForServerEndpoint(ORVOrvellaServerEndpointAccountDetails)
        .resolved(QUrl(QStringLiteral("../key-requests/") + path));
}

std::shared_ptr<ORVOrvellaNetworkTask> call(const std::shared_ptr<ORVOrvellaTokenManager> &tokens, const QString &method,
                                            const QString &path, const std::optional<QJsonObject> &body, Reply reply)
{
    const auto account = ORVFetchOrvellaAccount();
    if (!account || !account->username()) {
        // Signed out meanwhile: the request belongs to nobody now.
        later([reply] {
            reply(0, std::nullopt, transferError(ORVOrvellaKeyTransferCannotStartErrorCode, "Nobody is signed in."));
        });
        return nullptr;
    }
    ORVURLRequest urlRequest(keyRequestsURL(*account, path));
    urlRequest.setHTTPMethod(method);
    urlRequest.setCachePolicy(ORVURLRequestReloadIgnoringLocalAndRemoteCacheData);
    urlRequest.setTimeoutInterval(kTimeout);
    if (body) {
        urlRequest.setHTTPBody(QJsonDocument(*body).toJson(QJsonDocument::Compact));
        urlRequest.setValue(QStringLiteral("application/json"), QStringLiteral("Content-Type"));
    }
    auto request = ORVOrvellaAccountRequest::requestWithURLRequest(urlRequest);
    request->setCategory(QStringLiteral("Orvella: Key Request"));
    // Keys and ciphertext are no use to a reader of the logs, but neither is
    // there a reason to put them there.
    request->setMaskRequestLogging(true);
    request->setMaskResponseLogging(true);
    request->setCompletionHandler([reply = std::move(reply)](const std::shared_ptr<ORVOrvellaData> &data,
                                                             const std::optional<ORVHTTPURLResponse> &response,
                                                             const ORVError &error) {
        reply(response ? response->statusCode() : 0, orv_JSONDictionaryWithData(data ? data->data() : QByteArray()),
              error);
    });
    return tokens->networkManager()->startRequest(request);
}

// The error of a failed call: the request is gone, too many, out of order,
// or the server could not be reached.
ORVError callError(int status, const ORVError &error)
{
    if (status == 404)
        return transferError(ORVOrvellaKeyRequestExpiredErrorCode, "The request for the key has expired.");
    if (status == 429)
        return transferError(ORVOrvellaKeyRequestRateLimitedErrorCode,
                             "Too many requests for the key were made; try again later.");
    if (status == 409)
        return transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                             "Another device has already answered this request.");
    // Ours already (signed out meanwhile): as it is.
    if (error.domain() == ORVOrvellaTokenManagerErrorDomain && error.code() >= ORVOrvellaKeyRequestExpiredErrorCode &&
        error.code() <= ORVOrvellaKeyTransferCannotStartErrorCode)
        return error;
    return transferError(13, nullptr, error);
}

bool isSuccess(int status)
{
    return status >= 200 && status <= 299;
}

std::optional<QString> currentUsername()
{
    const auto account = ORVFetchOrvellaAccount();
    return account ? account->username() : std::nullopt;
}

} // namespace

// --- recovery codes -----------------------------------------------------------------

namespace {

// 32 symbols: the digits and capital letters without 0, 1, I and O.
constexpr char kAlphabet[] = "23456789ABCDEFGHJKLMNPQRSTUVWXYZ";
constexpr int kDataSymbols = 26; // 128 key bits and 2 zero bits
constexpr int kCodeSymbols = kDataSymbols + 2;

// The first check symbol: a weighted sum with odd weights, so that any one
// changed symbol changes it. The second: 5 bits of a hash of the key.
int weightedCheck(const std::array<int, kDataSymbols> &values)
{
    int sum = 0;
    for (int i = 0; i < kDataSymbols; ++i)
        sum += (2 * i + 1) * values[i];
    return sum % 32;
}

int hashCheck(const QByteArray &key)
{
    return quint8(sha256(QByteArrayLiteral("OrvellaKit recovery code v1") + key)[0]) >> 3;
}

} // namespace

QString ORVEncryptionKeyRecoveryCode(const QByteArray &key)
{
    if (key.size() != kKeyLength)
        return {};
    std::array<int, kDataSymbols> values{};
    for (int i = 0; i < kDataSymbols; ++i) {
        int value = 0;
        for (int bit = 0; bit < 5; ++bit) {
            const int index = i * 5 + bit;
            const int set = index < kKeyLength * 8 ? (quint8(key[index / 8]) >> (7 - index % 8)) & 1 : 0;
            value = (value << 1) | set;
        }
        values[i] = value;
    }
    QString symbols;
    for (const int value : values)
        symbols.append(QLatin1Char(kAlphabet[value]));
    symbols.append(QLatin1Char(kAlphabet[weightedCheck(values)]));
    symbols.append(QLatin1Char(kAlphabet[hashCheck(key)]));
    QString code;
    for (int i = 0; i < kCodeSymbols; i += 4) {
        if (!code.isEmpty())
            code.append(QLatin1Char('-'));
        code.append(symbols.mid(i, 4));
    }
    return code;
}

std::optional<QByteArray> ORVEncryptionKeyFromRecoveryCode(const QString &code, ORVError *error)
{
    const auto fail = [error](const QString &reason) -> std::optional<QByteArray> {
        if (error)
            *error = orv::detail::tokenError(ORVOrvellaRecoveryCodeInvalidErrorCode,
                                             {{ORVLocalizedFailureReasonErrorKey, reason}});
        return std::nullopt;
    };
    QString symbols;
    for (const QChar c : code) {
        if (!c.isSpace() && c != QLatin1Char('-'))
            symbols.append(c.toUpper());
    }
    if (symbols.size() != kCodeSymbols)
        return fail(ORVStringWithFormat(ORVLocalizedString("A recovery code has 28 letters and digits; this one has %ld."),
                                        static_cast<long>(symbols.size())));
    std::array<int, kCodeSymbols> values{};
    for (int i = 0; i < kCodeSymbols; ++i) {
        const char *found = symbols[i].unicode() < 128 ? std::strchr(kAlphabet, symbols[i].toLatin1()) : nullptr;
        if (!found || symbols[i].unicode() == 0)
            return fail(ORVStringWithFormat(
                ORVLocalizedString("Recovery codes have no \"%@\" (nor 0, 1, I or O); check the character."),
                QString(symbols[i])));
        values[i] = static_cast<int>(found - kAlphabet);
    }
    std::array<int, kDataSymbols> data{};
    std::copy_n(values.begin(), kDataSymbols, data.begin());
    QByteArray key(kKeyLength, '\0');
    for (int index = 0; index < kKeyLength * 8; ++index) {
        const int bit = (data[index / 5] >> (4 - index % 5)) & 1;
        key[index / 8] = static_cast<char>(quint8(key[index / 8]) | (bit << (7 - index % 8)));
    }
    const bool paddingClear = (data[kDataSymbols - 1] & 0x3) == 0;
    if (!paddingClear || values[kDataSymbols] != weightedCheck(data) || values[kDataSymbols + 1] != hashCheck(key))
        return fail(ORVLocalizedString("The recovery code has a typing mistake; compare it with the one you wrote down."));
    return key;
}

void ORVOrvellaTokenManager::restoreEncryptionKeyWithRecoveryCode(const QString &code, EncryptionKeyCompletion completion)
{
    orvRegisterFileLogLevel();
    ORVError error;
    const auto key = ORVEncryptionKeyFromRecoveryCode(code, &error);
    if (key && !currentUsername())
        error = transferError(ORVOrvellaKeyTransferCannotStartErrorCode, "Nobody is signed in.");
    if (!key || error) {
        ORVLogError("The recovery code was not accepted: %@", error);
        later([completion, error] {
            if (completion)
                completion(false, error);
        });
        return;
    }
    checkEncryptionKey(*key, std::move(completion));
}

// --- the new device -----------------------------------------------------------------

struct ORVOrvellaKeyRequest::State {
    std::shared_ptr<ORVOrvellaTokenManager> tokens;
    QString username;
    PKey keyPair;
    QByteArray publicKey;
    QString identifier;
    QByteArray approverKey; // fixed once we revealed ours against it
    QDateTime deadline;
    int pollInterval = 1000;
    int pollFailures = 0;
    bool started = false;
    bool finished = false;
    bool revealing = false;
    bool checking = false;   // the received key is with checkEncryptionKey()
    bool serverGone = false; // the server no longer knows the request
    int checkFailures = 0;
    quint64 deadlineSerial = 0;
    CodeHandler codeHandler;
    ORVOrvellaTokenManager::EncryptionKeyCompletion completion;
    std::shared_ptr<ORVOrvellaNetworkTask> task;
};

ORVOrvellaKeyRequest::ORVOrvellaKeyRequest(std::shared_ptr<ORVOrvellaTokenManager> tokenManager)
    : _state(std::make_unique<State>())
{
    _state->tokens = std::move(tokenManager);
}

ORVOrvellaKeyRequest::~ORVOrvellaKeyRequest() = default;

std::shared_ptr<ORVOrvellaKeyRequest> ORVOrvellaKeyRequest::create(std::shared_ptr<ORVOrvellaTokenManager> tokenManager)
{
    return std::shared_ptr<ORVOrvellaKeyRequest>(new ORVOrvellaKeyRequest(std::move(tokenManager)));
}

void ORVOrvellaKeyRequest::setPollInterval(int milliseconds)
{
    _state->pollInterval = std::max(10, milliseconds);
}

QString ORVOrvellaKeyRequest::identifier() const
{
    return _state->identifier;
}

void ORVOrvellaKeyRequest::start(const QString &deviceName, CodeHandler codeHandler,
                                 ORVOrvellaTokenManager::EncryptionKeyCompletion completion)
{
    orvRegisterFileLogLevel();
    auto &s = *_state;
    if (s.started) {
        later([completion] {
            if (completion)
                completion(false, transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                                                "This request for the key has already been made."));
        });
        return;
    }
    s.started = true;
    s.codeHandler = std::move(codeHandler);
    s.completion = std::move(completion);
    const auto username = currentUsername();
    s.keyPair = newKeyPair();
    s.publicKey = publicKey(s.keyPair.get());
    if (!username || !s.tokens || s.publicKey.isEmpty()) {
        auto self = shared_from_this();
        later([self, signedIn = username.has_value()] {
            self->finish(false, transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                                              signedIn ? "No key pair could be made." : "Nobody is signed in."));
        });
        return;
    }
    s.username = *username;
    const QJsonObject body{{QStringLiteral("device_name"), printableName(deviceName)},
                           {QStringLiteral("commitment"), QString::fromLatin1(sha256(s.publicKey).toBase64())}};
    auto self = shared_from_this();
    s.task = call(s.tokens, QStringLiteral("POST"), QString(), body,
                  [self](int status, const std::optional<QJsonObject> &reply, const ORVError &error) {
        auto &s = *self->_state;
        s.task.reset();
        const QString id = reply ? reply->value(QStringLiteral("id")).toString() : QString();
        const bool usable = isSuccess(status) && !error && !id.isEmpty() && !id.contains(QLatin1Char('/')) &&
                            !id.contains(QLatin1Char('?'));
        if (s.finished) {
            // Cancelled while it was being made: withdrawn now.
            if (usable)
                call(s.tokens, QStringLiteral("DELETE"), id, std::nullopt, [](int, const auto &, const auto &) {});
            return;
        }
        if (!usable)
            return self->finish(false, isSuccess(status) ? transferError(13, nullptr, error) : callError(status, error));
        s.identifier = id;
        const qint64 lifetime = std::clamp<qint64>(reply->value(QStringLiteral("expires_in")).toInteger(600), 1, 900);
        // A little past the server's lifetime: the server's word that it
        // expired comes first as a rule.
        s.deadline = QDateTime::currentDateTimeUtc().addSecs(lifetime + 5);
        self->armDeadline(static_cast<int>(lifetime + 10) * 1000);
        ORVLogInfo("Asked the account's other devices for the encryption key");
        self->poll();
    });
    armDeadline(static_cast<int>(kTimeout + 5) * 1000);
}

void ORVOrvellaKeyRequest::armDeadline(int milliseconds)
{
    // Ends the wait should no answer come at all (not even an error); a
    // later arming replaces an earlier one.
    const quint64 serial = ++_state->deadlineSerial;
    auto self = shared_from_this();
    QTimer::singleShot(milliseconds, QCoreApplication::instance(), [self, serial] {
        auto &s = *self->_state;
        if (s.finished || s.checking || serial != s.deadlineSerial)
            return;
        self->finish(false, s.identifier.isEmpty() ? transferError(13, "The account server did not answer in time.")
                                                   : callError(404, ORVError()));
    });
}

void ORVOrvellaKeyRequest::poll()
{
    auto self = shared_from_this();
    QTimer::singleShot(_state->pollInterval, QCoreApplication::instance(), [self] {
        auto &s = *self->_state;
        if (s.finished)
            return;
        if (QDateTime::currentDateTimeUtc() > s.deadline)
            return self->finish(false, callError(404, ORVError()));
        s.task = call(s.tokens, QStringLiteral("GET"), s.identifier, std::nullopt,
                      [self](int status, const std::optional<QJsonObject> &reply, const ORVError &error) {
            auto &s = *self->_state;
            s.task.reset();
            if (s.finished)
                return;
            s.serverGone = status == 404;
            if (status == 404 || status == 401 || error.code() == ORVOrvellaKeyTransferCannotStartErrorCode)
                return self->finish(false, callError(status == 404 ? 404 : 0, error));
            if (status != 200 || !reply) {
                // The network may come back; the request lives on the server.
                if (++s.pollFailures >= kMaxPollFailures)
                    return self->finish(false, transferError(13, nullptr, error));
                return self->poll();
            }
            s.pollFailures = 0;
            self->handle(*reply);
        });
    });
}

void ORVOrvellaKeyRequest::handle(const QJsonObject &request)
{
    auto &s = *_state;
    const QString state = request.value(QStringLiteral("state")).toString();
    if (state == QLatin1String("refused"))
        return finish(false, transferError(ORVOrvellaKeyRequestRefusedErrorCode,
                                           "The request for the key was refused on the other device."));
    if (state == QLatin1String("answered")) {
        const auto ciphertext = base64Field(request, QStringLiteral("ciphertext"));
        if (s.approverKey.isEmpty() || !ciphertext)
            return finish(false, transferError(ORVOrvellaKeyTransferUnverifiedErrorCode,
                                               "The answer to the request for the key cannot be verified."));
        const QByteArray info = binding("OrvellaKit account key transfer v1", s.username, s.publicKey, s.approverKey);
        QByteArray wrapping = sessionKey(s.keyPair.get(), s.approverKey, info);
        const auto key = wrapping.isEmpty() ? std::nullopt : open(wrapping, *ciphertext, info);
        OPENSSL_cleanse(wrapping.data(), static_cast<size_t>(wrapping.size()));
        if (!key || key->size() != kKeyLength)
            return finish(false, transferError(ORVOrvellaKeyTransferUnverifiedErrorCode,
                                               "The answer to the request for the key cannot be verified."));
        s.keyPair.reset();
        s.checking = true;
        check(*key);
        return;
    }
    if (state == QLatin1String("approving") && s.approverKey.isEmpty() && !s.revealing) {
        const auto approverKey = base64Field(request, QStringLiteral("approver_key"), kPublicKeyLength);
        if (!approverKey)
            return finish(false, transferError(ORVOrvellaKeyTransferUnverifiedErrorCode,
                                               "The answer to the request for the key cannot be verified."));
        s.revealing = true;
        auto self = shared_from_this();
        const QJsonObject body{{QStringLiteral("public_key"), QString::fromLatin1(s.publicKey.toBase64())}};
        s.task = call(s.tokens, QStringLiteral("POST"), s.identifier + QStringLiteral("/requester"), body,
                      [self, approverKey = *approverKey](int status, const std::optional<QJsonObject> &,
                                                         const ORVError &error) {
            auto &s = *self->_state;
            s.task.reset();
            if (s.finished)
                return;
            if (!isSuccess(status))
                return self->finish(false, callError(status, error));
            // From here on only this approver's answer can be read.
            s.approverKey = approverKey;
            if (s.codeHandler)
                s.codeHandler(confirmationCode(s.username, s.publicKey, s.approverKey));
            self->poll();
        });
        return;
    }
    poll();
}

void ORVOrvellaKeyRequest::check(const QByteArray &key)
{
    auto &s = *_state;
    // Signed out (or in as someone else) meanwhile: the key is not theirs.
    if (currentUsername() != s.username)
        return finish(false, transferError(ORVOrvellaKeyTransferCannotStartErrorCode, "Nobody is signed in."));
    // Kept only when the server's record accepts it; a server that cannot
    // be reached is asked again, as the key exists nowhere else now.
    auto self = shared_from_this();
    s.tokens->checkEncryptionKey(key, guarded<bool>([self, key](bool success, const ORVError &error) {
        auto &s = *self->_state;
        if (!success && error.code() == 13 && ++s.checkFailures < kMaxPollFailures) {
            QTimer::singleShot(s.pollInterval, QCoreApplication::instance(), [self, key] { self->check(key); });
            return;
        }
        // Signed out while the server was asked: not this account's key any more.
        if (success && currentUsername() != s.username)
            return self->finish(false, transferError(ORVOrvellaKeyTransferCannotStartErrorCode, "Nobody is signed in."));
        if (success)
            ORVLogInfo("Received the encryption key from another device");
        self->finish(success, error);
    }));
}

void ORVOrvellaKeyRequest::cancel()
{
    auto &s = *_state;
    // Once the answer is being checked, its outcome stands.
    if (s.finished || !s.started || s.checking)
        return;
    ORVLogInfo("The request for the encryption key was cancelled");
    finish(false, orv_orvellaKitCancelError());
}

void ORVOrvellaKeyRequest::finish(bool success, const ORVError &error)
{
    auto &s = *_state;
    if (s.finished)
        return;
    s.finished = true;
    // The request being made is left to finish, so that its reply can
    // withdraw it; a poll or a reveal is cancelled.
    if (s.task && !s.identifier.isEmpty())
        s.tokens->networkManager()->cancelTasks({s.task});
    s.task.reset();
    s.keyPair.reset();
    if (!success)
        ORVLogError("The request for the encryption key ended: %@", error);
    auto completion = std::move(s.completion);
    s.codeHandler = nullptr;
    auto deliver = std::make_shared<std::function<void()>>([completion, success, error] {
        if (completion)
            completion(success, error);
    });
    const auto once = [deliver] {
        if (auto call = std::exchange(*deliver, nullptr))
            call();
    };
    // Whatever the end, the request leaves the server (it would otherwise
    // wait there, and count against the account's limit, until it lapses).
    // The caller hears of the end once the server did, so that a program
    // that quits then does not cut the deletion off; at most a few seconds.
    if (s.identifier.isEmpty() || s.serverGone || !s.tokens)
        return later(once); // never inside cancel()
    s.serverGone = true;
    call(s.tokens, QStringLiteral("DELETE"), s.identifier, std::nullopt, [once](int, const auto &, const auto &) { once(); });
    QTimer::singleShot(5000, QCoreApplication::instance(), once);
}

// --- the approving device -----------------------------------------------------------

struct ORVOrvellaKeyApproval::State {
    std::shared_ptr<ORVOrvellaTokenManager> tokens;
    ORVOrvellaKeyRequestInfo request;
    QString username;
    PKey keyPair;
    QByteArray publicKey;
    QByteArray requesterKey; // checked against the commitment
    QString code;
    int pollInterval = 1000;
    int pollFailures = 0;
    bool begun = false;
    bool waiting = false;
    bool done = false; // answered or refused
    CodeCompletion codeCompletion;
    std::shared_ptr<ORVOrvellaNetworkTask> task;

    void endWait(const QString &code, const ORVError &error)
    {
        if (!waiting)
            return;
        waiting = false;
        if (task)
            tokens->networkManager()->cancelTasks({task});
        task.reset();
        if (error) {
            ORVLogError("Taking up the request for the encryption key failed: %@", error);
            keyPair.reset();
        }
        // Never inside cancel() or refuse(): the caller is mid-call.
        later([completion = std::move(codeCompletion), code, error] {
            if (completion)
                completion(code, error);
        });
    }
};

ORVOrvellaKeyApproval::ORVOrvellaKeyApproval(std::shared_ptr<ORVOrvellaTokenManager> tokenManager,
                                             const ORVOrvellaKeyRequestInfo &request)
    : _state(std::make_unique<State>())
{
    _state->tokens = std::move(tokenManager);
    _state->request = request;
}

ORVOrvellaKeyApproval::~ORVOrvellaKeyApproval() = default;

std::shared_ptr<ORVOrvellaKeyApproval> ORVOrvellaKeyApproval::create(std::shared_ptr<ORVOrvellaTokenManager> tokenManager,
                                                                     const ORVOrvellaKeyRequestInfo &request)
{
    return std::shared_ptr<ORVOrvellaKeyApproval>(new ORVOrvellaKeyApproval(std::move(tokenManager), request));
}

void ORVOrvellaKeyApproval::pendingRequests(std::shared_ptr<ORVOrvellaTokenManager> tokenManager,
                                            PendingCompletion completion)
{
    orvRegisterFileLogLevel();
    if (!currentUsername() || !tokenManager) {
        later([completion] {
            if (completion)
                completion({}, transferError(ORVOrvellaKeyTransferCannotStartErrorCode, "Nobody is signed in."));
        });
        return;
    }
    call(tokenManager, QStringLiteral("GET"), QString(), std::nullopt,
         [completion = guarded<const QList<ORVOrvellaKeyRequestInfo> &>(std::move(completion))](
             int status, const std::optional<QJsonObject> &reply, const ORVError &error) {
        QList<ORVOrvellaKeyRequestInfo> requests;
        if (status != 200 || !reply) {
            if (completion)
                completion(requests, callError(status == 200 ? 0 : status, error));
            return;
        }
        const QDateTime now = QDateTime::currentDateTimeUtc();
        for (const QJsonValue &value : reply->value(QStringLiteral("requests")).toArray()) {
            const QJsonObject object = value.toObject();
            const auto commitment = base64Field(object, QStringLiteral("commitment"), 32);
            const QString id = object.value(QStringLiteral("id")).toString();
            // What cannot be answered is left out.
            if (!commitment || id.isEmpty() || id.contains(QLatin1Char('/')) || id.contains(QLatin1Char('?')))
                continue;
            ORVOrvellaKeyRequestInfo info;
            info.identifier = id;
            // Another device's word, shown to the user: printable only.
            info.deviceName = printableName(object.value(QStringLiteral("device_name")).toString());
            info.created = QDateTime::fromSecsSinceEpoch(object.value(QStringLiteral("created")).toInteger(), Qt::UTC);
            info.expires = now.addSecs(std::clamp<qint64>(object.value(QStringLiteral("expires_in")).toInteger(), 0, 900));
            info.commitment = *commitment;
            requests.append(info);
        }
        std::stable_sort(requests.begin(), requests.end(), [](const auto &a, const auto &b) { return a.created < b.created; });
        if (completion)
            completion(requests, ORVError());
    });
}

void ORVOrvellaKeyApproval::setPollInterval(int milliseconds)
{
    _state->pollInterval = std::max(10, milliseconds);
}

void ORVOrvellaKeyApproval::begin(CodeCompletion completion)
{
    orvRegisterFileLogLevel();
    auto &s = *_state;
    auto self = shared_from_this();
    const auto username = currentUsername();
    if (s.begun || !username || !s.tokens) {
        later([completion, begun = s.begun] {
            if (completion)
                completion(QString(), transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                                                    begun ? "This request for the key has already been taken up."
                                                          : "Nobody is signed in."));
        });
        return;
    }
    s.begun = true;
    s.waiting = true;
    s.username = *username;
    s.codeCompletion = std::move(completion);
    s.keyPair = newKeyPair();
    s.publicKey = publicKey(s.keyPair.get());
    if (s.publicKey.isEmpty()) {
        later([self] {
            self->_state->endWait(QString(), transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                                                           "No key pair could be made."));
        });
        return;
    }
    const QJsonObject body{{QStringLiteral("public_key"), QString::fromLatin1(s.publicKey.toBase64())}};
    s.task = call(s.tokens, QStringLiteral("POST"), s.request.identifier + QStringLiteral("/approver"), body,
                  [self](int status, const std::optional<QJsonObject> &, const ORVError &error) {
        auto &s = *self->_state;
        s.task.reset();
        if (!s.waiting)
            return;
        if (!isSuccess(status))
            return s.endWait(QString(), callError(status, error));
        self->poll();
    });
    // Ends the wait should no answer come at all, not even an error.
    const qint64 left = std::max<qint64>(0, QDateTime::currentDateTimeUtc().secsTo(s.request.expires));
    QTimer::singleShot(static_cast<int>(left + 10) * 1000, QCoreApplication::instance(), [self] {
        self->_state->endWait(QString(), callError(404, ORVError()));
    });
}

void ORVOrvellaKeyApproval::poll()
{
    auto self = shared_from_this();
    QTimer::singleShot(_state->pollInterval, QCoreApplication::instance(), [self] {
        auto &s = *self->_state;
        if (!s.waiting)
            return;
        if (QDateTime::currentDateTimeUtc() > s.request.expires.addSecs(5))
            return s.endWait(QString(), callError(404, ORVError()));
        s.task = call(s.tokens, QStringLiteral("GET"), s.request.identifier, std::nullopt,
                      [self](int status, const std::optional<QJsonObject> &reply, const ORVError &error) {
            auto &s = *self->_state;
            s.task.reset();
            if (!s.waiting)
                return;
            if (status == 404 || status == 401)
                return s.endWait(QString(), callError(status == 404 ? 404 : 0, error));
            if (status != 200 || !reply) {
                if (++s.pollFailures >= kMaxPollFailures)
                    return s.endWait(QString(), transferError(13, nullptr, error));
                return self->poll();
            }
            s.pollFailures = 0;
            const QString state = reply->value(QStringLiteral("state")).toString();
            if (state == QLatin1String("approving"))
                return self->poll();
            const auto requesterKey = base64Field(*reply, QStringLiteral("requester_key"), kPublicKeyLength);
            const auto approverKey = base64Field(*reply, QStringLiteral("approver_key"), kPublicKeyLength);
            // The revealed key must be the one the request committed to when
            // this device listed it, and ours must still be the approver's.
            if (state != QLatin1String("confirming") || !requesterKey || !approverKey || *approverKey != s.publicKey ||
                sha256(*requesterKey) != s.request.commitment)
                return s.endWait(QString(), transferError(ORVOrvellaKeyTransferUnverifiedErrorCode,
                                                          "The device that asked for the key cannot be verified."));
            s.requesterKey = *requesterKey;
            s.code = confirmationCode(s.username, s.requesterKey, s.publicKey);
            s.endWait(s.code, ORVError());
        });
    });
}

void ORVOrvellaKeyApproval::approve(const QByteArray &key, const QString &typedCode, StepCompletion completion)
{
    auto &s = *_state;
    const auto fail = [completion](const ORVError &error) {
        ORVLogError("The encryption key was not sent: %@", error);
        later([completion, error] {
            if (completion)
                completion(false, error);
        });
    };
    if (s.code.isEmpty() || s.done || key.size() != kKeyLength)
        return fail(transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                                  key.size() != kKeyLength ? "The encryption key is not 16 bytes long."
                                                           : "The request for the key is not waiting for an answer."));
    if (digitsOnly(typedCode) != digitsOnly(s.code))
        return fail(transferError(ORVOrvellaKeyApprovalCodeMismatchErrorCode,
                                  "The code does not match the one this device shows."));
    const QByteArray info = binding("OrvellaKit account key transfer v1", s.username, s.requesterKey, s.publicKey);
    QByteArray wrapping = sessionKey(s.keyPair.get(), s.requesterKey, info);
    const QByteArray sealed = wrapping.isEmpty() ? QByteArray() : seal(wrapping, key, info);
    OPENSSL_cleanse(wrapping.data(), static_cast<size_t>(wrapping.size()));
    if (sealed.isEmpty())
        return fail(transferError(ORVOrvellaKeyTransferCannotStartErrorCode, "The key could not be encrypted."));
    s.done = true;
    s.keyPair.reset();
    const QJsonObject body{{QStringLiteral("ciphertext"), QString::fromLatin1(sealed.toBase64())}};
    call(s.tokens, QStringLiteral("POST"), s.request.identifier + QStringLiteral("/answer"), body,
         [completion = guarded<bool>(std::move(completion))](int status, const std::optional<QJsonObject> &, const ORVError &error) {
        const bool success = isSuccess(status);
        const ORVError result = success ? ORVError() : callError(status, error);
        if (success)
            ORVLogInfo("Sent the encryption key to another device");
        else
            ORVLogError("The encryption key was not sent: %@", result);
        if (completion)
            completion(success, result);
    });
}

void ORVOrvellaKeyApproval::refuse(StepCompletion completion)
{
    auto &s = *_state;
    s.endWait(QString(), orv_orvellaKitCancelError());
    if (s.done) {
        later([completion] {
            if (completion)
                completion(false, transferError(ORVOrvellaKeyTransferCannotStartErrorCode,
                                                "The request for the key is not waiting for an answer."));
        });
        return;
    }
    s.done = true;
    s.keyPair.reset();
    call(s.tokens, QStringLiteral("POST"), s.request.identifier + QStringLiteral("/refuse"), QJsonObject(),
         [completion = guarded<bool>(std::move(completion))](int status, const std::optional<QJsonObject> &, const ORVError &error) {
        const bool success = isSuccess(status);
        if (completion)
            completion(success, success ? ORVError() : callError(status, error));
    });
}

void ORVOrvellaKeyApproval::cancel()
{
    _state->endWait(QString(), orv_orvellaKitCancelError());
}
