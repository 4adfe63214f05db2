#pragma once

/// \file
/// Bringing the account encryption key to another of the user's devices
/// without the account server ever holding it.
///
/// Device approval. The device that lacks the key (ORVOrvellaKeyRequest)
/// makes an X25519 key pair and posts a request carrying the SHA-256 of its
/// public key (a commitment) and its name. A device that holds the key lists
/// the requests (ORVOrvellaKeyApproval::pendingRequests()) and
/// takes one up (ORVOrvellaKeyApproval::begin()): it posts a public key of
/// its own; the new device then reveals its public key, which the approver
/// checks against the commitment. Both now show the same six-digit
/// confirmation code, derived from both public keys and the account's user
/// name. The user types the code the new device shows into the approving
/// device; only when it matches is the key sent: encrypted with AES-256-GCM
/// under a key from X25519 agreement and HKDF-SHA256, whose derivation binds
/// both public keys and the user name. The new device decrypts it, proves it
/// with checkEncryptionKey() and so keeps it through
/// updateOrvellaEncryptionKey() and the ubiquitous store.
///
/// Because the new device commits to its key before it sees the approver's,
/// and the approver's key is fixed before the new device reveals its own, a
/// server that puts its own keys in between cannot choose them so that the
/// two codes agree: it is caught with odds of one in a million.
///
/// Recovery code. ORVEncryptionKeyRecoveryCode() writes the key as 28
/// characters in groups of four from an alphabet without 0, 1, I and O, the
/// last two a checksum that catches any one mistyped character;
/// ORVOrvellaTokenManager::restoreEncryptionKeyWithRecoveryCode() reads such
/// a code back and checks the key with the server before keeping it.
///
/// Errors are in ORVOrvellaTokenManagerErrorDomain; a cancel gives
/// ORVUserCancelledErrorCode in ORVOrvellaKitErrorDomain. Nothing here
/// blocks: every step is a request of the network manager, and completions
/// run on the main thread, each exactly once.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

/// The request expired, was deleted, or the server no longer knows it.
constexpr qint64 ORVOrvellaKeyRequestExpiredErrorCode = 30;
/// The user refused the request on the other device.
constexpr qint64 ORVOrvellaKeyRequestRefusedErrorCode = 31;
/// The other device's answer or key cannot be trusted: the ciphertext does
/// not decrypt (it was altered, or encrypted for another key), or the new
/// device's public key does not match its commitment. Nothing was kept or sent.
constexpr qint64 ORVOrvellaKeyTransferUnverifiedErrorCode = 32;
/// The recovery code is not one: a wrong length, a character no code has,
/// or a checksum that does not match (a typing mistake). Nothing was changed.
constexpr qint64 ORVOrvellaRecoveryCodeInvalidErrorCode = 33;
/// The server refuses more key requests for now (HTTP 429).
constexpr qint64 ORVOrvellaKeyRequestRateLimitedErrorCode = 34;
/// The code the user typed is not the confirmation code of this approval;
/// the key was not sent.
constexpr qint64 ORVOrvellaKeyApprovalCodeMismatchErrorCode = 35;
/// The step cannot run: nobody is signed in, the key is not 16 bytes, the
/// step comes out of order, or another device took the request up first.
constexpr qint64 ORVOrvellaKeyTransferCannotStartErrorCode = 36;

/// A request for the key, as the approving device sees it.
struct ORVOrvellaKeyRequestInfo {
    QString identifier; ///< the server's identifier of the request
    QString deviceName; ///< the name the new device gave (its own word, unchecked)
    QDateTime created;  ///< when it was made (UTC)
    QDateTime expires;  ///< when it lapses (UTC, by this device's clock)
    QByteArray commitment; ///< SHA-256 of the new device's public key
};

/// The recovery code of a 16-byte key ("XXXX-XXXX-…", 7 groups); empty for
/// a key of another length. Show it only when the user asks: it is the key.
ORVELLAKIT_EXPORT QString ORVEncryptionKeyRecoveryCode(const QByteArray &key);
/// The key of a recovery code, or nothing and error 33 with a reason the
/// user can act on. Case, spaces and dashes do not matter.
ORVELLAKIT_EXPORT std::optional<QByteArray> ORVEncryptionKeyFromRecoveryCode(const QString &code,
                                                                            ORVError *error = nullptr);

/// The new device's side of device approval.
///
/// Thread rule: main thread only. Ownership: held by a shared pointer; it
/// keeps itself alive while it runs and holds its private key in memory
/// only. Destroying the last reference does not stop it; cancel() does.
class ORVELLAKIT_EXPORT ORVOrvellaKeyRequest : public std::enable_shared_from_this<ORVOrvellaKeyRequest> {
public:
    /// Receives the confirmation code once a device has taken the request
    /// up; the user compares it with (types it into) that device.
    using CodeHandler = std::function<void(const QString &confirmationCode)>;

    /// A request of the shared token manager's current account.
    static std::shared_ptr<ORVOrvellaKeyRequest> create(std::shared_ptr<ORVOrvellaTokenManager> tokenManager);
    ~ORVOrvellaKeyRequest();
    ORVOrvellaKeyRequest(const ORVOrvellaKeyRequest &) = delete;
    ORVOrvellaKeyRequest &operator=(const ORVOrvellaKeyRequest &) = delete;

    /// How often the server is asked for news, in milliseconds (default 1000).
    void setPollInterval(int milliseconds);
    /// Posts the request under `deviceName` (its printable characters, at
    /// most 100) and waits for the answer; the request is deleted on the
    /// server however the wait ends. The
    /// completion gets true once the received key passed checkEncryptionKey()
    /// and is kept; else false and the error (30 to 36, 13, 14, cancel). Its
    /// key is not kept unless the server's record accepts it. Once only.
    void start(const QString &deviceName, CodeHandler codeHandler, ORVOrvellaTokenManager::EncryptionKeyCompletion completion);
    /// Stops waiting and deletes the request on the server; the completion
    /// gets the cancel error (once the server answered the deletion, or a
    /// few seconds passed) unless it already ran. Once the answer is being
    /// checked with the server, a cancel changes nothing: the check decides.
    void cancel();
    /// The server's identifier, once the request is posted.
    QString identifier() const;

private:
    struct State;
    explicit ORVOrvellaKeyRequest(std::shared_ptr<ORVOrvellaTokenManager> tokenManager);
    void poll();
    void armDeadline(int milliseconds);
    void handle(const QJsonObject &request);
    void check(const QByteArray &key);
    void finish(bool success, const ORVError &error);
    std::unique_ptr<State> _state;
};

/// The approving device's side of device approval: one request, taken up,
/// then approved or refused.
///
/// Thread rule: main thread only. Ownership: as ORVOrvellaKeyRequest.
class ORVELLAKIT_EXPORT ORVOrvellaKeyApproval : public std::enable_shared_from_this<ORVOrvellaKeyApproval> {
public:
    /// Receives the confirmation code, or an empty code and the error.
    using CodeCompletion = std::function<void(const QString &confirmationCode, const ORVError &error)>;
    /// Whether the step was done, and the error.
    using StepCompletion = ORVOrvellaTokenManager::EncryptionKeyCompletion;
    /// Receives the open requests (none taken up yet), or none and the error.
    using PendingCompletion = std::function<void(const QList<ORVOrvellaKeyRequestInfo> &requests, const ORVError &error)>;

    /// The current account's open requests for the key, newest last. The
    /// completion runs on the main thread.
    static void pendingRequests(std::shared_ptr<ORVOrvellaTokenManager> tokenManager, PendingCompletion completion);

    /// An approval of `request` for the shared token manager's current account.
    static std::shared_ptr<ORVOrvellaKeyApproval> create(std::shared_ptr<ORVOrvellaTokenManager> tokenManager,
                                                         const ORVOrvellaKeyRequestInfo &request);
    ~ORVOrvellaKeyApproval();
    ORVOrvellaKeyApproval(const ORVOrvellaKeyApproval &) = delete;
    ORVOrvellaKeyApproval &operator=(const ORVOrvellaKeyApproval &) = delete;

    /// How often the server is asked for news, in milliseconds (default 1000).
    void setPollInterval(int milliseconds);
    /// Takes the request up and waits for the new device to reveal its key;
    /// then gives the confirmation code to show. Error 32 when the revealed
    /// key does not match the request's commitment (someone else answered).
    ///
    /// Call it only on the user's word ("that is my device"), never by
    /// itself and never again after a failure: each begin() gives a server
    /// that lies one try at making the two codes agree, and only a person
    /// in the loop keeps the tries few.
    void begin(CodeCompletion completion);
    /// Sends `key`, encrypted for the new device, when `typedCode` (spaces
    /// ignored) is the confirmation code; otherwise error 35 and nothing is
    /// sent, and the approval may be tried again or refused.
    void approve(const QByteArray &key, const QString &typedCode, StepCompletion completion);
    /// Refuses the request; the new device is told.
    void refuse(StepCompletion completion);
    /// Stops a begin() that waits; its completion gets the cancel error.
    void cancel();

private:
    struct State;
    ORVOrvellaKeyApproval(std::shared_ptr<ORVOrvellaTokenManager> tokenManager, const ORVOrvellaKeyRequestInfo &request);
    void poll();
    std::unique_ptr<State> _state;
};
