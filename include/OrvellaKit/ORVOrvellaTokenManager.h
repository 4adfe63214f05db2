#pragma once

/// \file
/// ORVOrvellaTokenManager: obtains, caches and hands out the short-lived
/// access tokens (JSON Web Tokens with "exp") that authorise requests to the
/// account server. The network manager asks it through
/// ORVOrvellaTokenProviding. The application subclasses it to store tokens
/// and the device credential (a keyring, a private file) and registers one
/// instance with ORVRegisterSharedTokenManager().
///
/// Per account the manager keeps a token, its expiry, the error of the last
/// failed fetch and whether a fetch is under way. Fetches and replies run one
/// at a time on an operation queue, so callers that arrive while a fetch runs
/// all receive its result, in the order they asked. Completion blocks run on
/// that queue's thread, never on the main thread.
///
/// The free functions of this file may be called on any thread.

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVISO8601DateFormatter.h>
#include <OrvellaKit/ORVOperation.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>

#include <QDateTime>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

#include <atomic>
#include <mutex>
#include <optional>

/// A user-defaults key kept for applications; the framework does not use it:
/// "savedIdentifierForVendor"
ORVELLAKIT_EXPORT extern const QString ORVOrvellaTokenManagerSavedIdentifierForVendorDefaultKey;
/// Key of the last sign-in kind in the ubiquitous key-value store.
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountTypeUbiquitousKey; ///< "zel-signin-type"
/// Key of the last e-mail address used to sign in.
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountLastUsedEmailUbiquitousKey; ///< "zel-signin-mail"
/// Prefix of the account encryption key's entry; the user name follows.
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountKeyUbiquitousKeyPrefix; ///< "OrvellaAccountKey-"

/// The user-facing sentence telling that an account of this kind exists
/// ("You already have a Orvella account using ..."); "" for other kinds.
ORVELLAKIT_EXPORT QString ORVOrvellaAccountAlreadyHaveAccountStringForType(ORVOrvellaAccountType type);

/// The token fetch could not run: a hook of the application's subclass threw
/// (its reason is in the error's description). Token domain.
constexpr qint64 ORVOrvellaTokenManagerTokenFetchFailedErrorCode = 2;

/// A user name and password pair kept for the session only.
///
/// Thread rule: a value. Ownership: holds copies.
struct ORVURLCredential {
    QString user;     ///< the user name (or e-mail address)
    QString password; ///< the password (or the device token)
    /// Same user and password.
    bool operator==(const ORVURLCredential &) const = default;
};

/// The process's token manager; see the file's description.
///
/// Thread rule: any thread; the manager's state is guarded by its own locks.
/// Token completions run on the token queue's thread (never the main
/// thread); the completions of sign-in, account creation, another device's
/// registration and the encryption key run on the main thread. The hooks
/// below are called on any thread (the token queue's, the main thread): a
/// subclass's must be safe to call from several threads at once.
/// Ownership: must be owned by a shared pointer (the token manager hands
/// itself to its requests). ORVRegisterSharedTokenManager() keeps the shared
/// instance for the life of the process. The manager holds each completion
/// until it calls it, and the network manager set with setNetworkManager().
class ORVELLAKIT_EXPORT ORVOrvellaTokenManager : public ORVOrvellaTokenProviding,
                                                 public std::enable_shared_from_this<ORVOrvellaTokenManager> {
public:
    /// A manager with an empty cache and its own serial token queue.
    ORVOrvellaTokenManager();
    ~ORVOrvellaTokenManager() override;
    ORVOrvellaTokenManager(const ORVOrvellaTokenManager &) = delete;
    ORVOrvellaTokenManager &operator=(const ORVOrvellaTokenManager &) = delete;

    /// The registered instance; nothing before registration.
    static std::shared_ptr<ORVOrvellaTokenManager> sharedManager();

    // --- hooks of the application's subclass -------------------------------

    /// The application's scope string, sent when a device registers. Abstract.
    virtual QString appScope() const;
    /// Writes the device credential to the application's secret store; the
    /// base class does nothing.
    virtual void updateKeychainWithAccountCredential(const ORVURLCredential &credential,
                                                     const std::shared_ptr<ORVOrvellaAccount> &account);
    /// The device's identifier sent as "device_identifier". The base class
    /// fails the assertion "Unsupported platform" and gives an empty string.
    virtual QString deviceToken() const;
    /// The stored device credential of the account; the base class has none.
    virtual std::optional<ORVURLCredential> credentialForOrvellaAccount(
        const std::shared_ptr<ORVOrvellaAccount> &account) const;
    /// Adds device fields to the token fetch's request body; the base class
    /// returns the body.
    virtual QJsonObject dictionaryByAppendingDeviceInfo(const QJsonObject &dictionary) const;
    /// Called when a password sign-in starts; the base class does nothing.
    virtual void clearCredentialManagerTimeout();
    /// Stores the account's device credential (user name and device token)
    /// after a sign-in and whenever the server rotates the device token.
    /// Abstract (the base class raises the abstract-method exception).
    virtual void setAccountCredential(const ORVURLCredential &credential,
                                      const std::shared_ptr<ORVOrvellaAccount> &account);
    /// Stores the account encryption key of `username` once it was checked
    /// or made. Abstract (the base class raises the abstract-method exception).
    virtual void updateOrvellaEncryptionKey(const QByteArray &key, const QString &username);
    /// Stores the account's token, or with a null token deletes it. Called
    /// with the manager's state locked: it must not call back into the manager.
    /// Abstract (the base class raises the abstract-method exception).
    virtual void setOrvellaToken(const QString &token, const QString &accountIdentifier);
    /// The stored token or a null string. Same locking rule.
    /// Abstract (the base class raises the abstract-method exception).
    virtual QString orvellaTokenForAccountIdentifier(const QString &accountIdentifier);

    // --- device -------------------------------------------------------------

    /// The pretty host name (PRETTY_HOSTNAME of machine-info(5), the file
    /// systemd-hostnamed keeps it in; read without a D-Bus call), else the
    /// host name, trimmed; "Unknown Device" when empty.
    virtual QString deviceName() const;
    /// The primary interface's hardware address (`"%02x:..."` lower case),
    /// else an identifier derived from machine-id(5), else a random UUID;
    /// then `"-<login name>-<root volume's display name>"`.
    virtual std::optional<QString> uniqueDeviceIdentifier() const;

    // --- tokens -------------------------------------------------------------

    /// As the other overload, without a task and from the cache when it can.
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account, TokenCompletion completion);
    /// Answers with the account's cached token until it expires (or a stored
    /// one with more than 60 s left); otherwise, or with `ignoreCache`,
    /// fetches one unless a fetch is under way, and answers once it ends. A
    /// null account gets error 1; a caller whose account was reset or signed
    /// in anew before the answer gets ORVOrvellaNetworkTaskCancelledErrorCode.
    /// `completion` runs on the token queue's thread.
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                const std::shared_ptr<ORVOrvellaNetworkTask> &task, bool ignoreCache,
                                TokenCompletion completion) override;
    /// Handles the reply of a token fetch.
    /// The token (or the error) goes into the cache as a fetch's would, and a
    /// rotated device token to setAccountCredential().
    void continueTokenRequestForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                        const std::shared_ptr<ORVOrvellaRequest> &request,
                                        const std::optional<ORVHTTPURLResponse> &response, const QByteArray &data,
                                        const ORVError &error);
    /// The "exp" date of a token, unchecked; nothing unless the token has
    /// three parts and a readable "exp".
    std::optional<QDateTime> expirationDateForToken(const QString &token) const;
    /// Forgets the account's token, expiry, error and fetch flag and deletes
    /// its stored token.
    void resetTokensForAccountWithIdentifier(const QString &identifier);

    /// How long the callers of one token fetch wait for it in all, in seconds
    /// (default 90: past the fetch request's own 60 s time-out, which usually
    /// ends a fetch first). Past it they get NSURLErrorTimedOut; the exchange
    /// itself may still end later, and a device token it rotated is kept.
    double tokenFetchTimeout() const;
    /// Sets the time bound of the fetches that start from now on, in seconds.
    void setTokenFetchTimeout(double seconds);

    /// The shared UTC ISO 8601 formatter (orv_utcDateFormatter()).
    const ORVISO8601DateFormatter &dateFormatter() const;

    // --- sign-in and account creation ----------------------------------------

    /// The completion of a sign-in: the signed-in account, or null and the error.
    ///
    /// A sign-in registers this device with the account server: the server's
    /// device token becomes the account's credential (setAccountCredential())
    /// and its access token goes into the token cache. The completion receives
    /// a copy of the current account with the new user name, e-mail address,
    /// kind (and display name), already handed to the save block, or nothing
    /// and the error. Errors are in ORVOrvellaTokenManagerErrorDomain: 10 an
    /// unreadable success answer, 11 a refused e-mail or password (with a
    /// user-facing reason), 15 no current account, else the HTTP status.
    /// Completions run on the network manager's callback queue (the main
    /// thread); without a current account when the sign-in starts, at once on
    /// the calling thread.
    using SignInCompletion = std::function<void(std::shared_ptr<ORVOrvellaAccount> account, const ORVError &error)>;
    /// The completion of createAccountWithName(): a null error for success.
    using CreateAccountCompletion = std::function<void(const ORVError &error)>;
    /// The completion of registerOtherDeviceWithScope(): the other device's
    /// account and token, or null, a null token and the error.
    using RegisterOtherDeviceCompletion =
        std::function<void(std::shared_ptr<ORVOrvellaAccount> account, const QString &token, const ORVError &error)>;

    /// E-mail (credential.user) and password (credential.password).
    void registerDevice(const ORVURLCredential &credential, SignInCompletion completion);
    /// An identity token of Sign in with Apple (type 2, with the names the
    /// first sign-in gave) or Google (type 3); other types fail the assertion
    /// "Invalid Orvella account subtype".
    void signInWithToken(const QString &token, ORVOrvellaAccountType type, const QString &firstName,
                         const QString &lastName, SignInCompletion completion);
    /// signInWithToken() with a Google identity token.
    void signInWithGoogleToken(const QString &token, SignInCompletion completion);
    /// signInWithToken() with an Apple identity token and the user's names.
    void signInWithAppleToken(const QString &token, const QString &firstName, const QString &lastName,
                              SignInCompletion completion);
    /// The token of a magic sign-in link. The account's kind becomes "apple",
    /// as the server treats such accounts alike.
    void signInWithMagicToken(const QString &magicToken, SignInCompletion completion);
    /// Creates an account. Field errors: 7 e-mail already used, 8 password too
    /// weak or short, 6 any other (reason: the server's message); the user
    /// info's "error_code" holds the server's code. On success a copy of the
    /// current account with `name` and `email` goes to the save block. The
    /// completion runs on the main thread; without a current account, at once
    /// on the calling thread (error 15).
    void createAccountWithName(const QString &name, const QString &email, const QString &password,
                               CreateAccountCompletion completion);
    /// Registers another device (identified by its device token) for the
    /// signed-in account, with the access token of this one. `scope` is sent
    /// as given (a string or an array of strings). The completion runs on the
    /// main thread with a copy of the current account (user name and e-mail
    /// cleared) and the server's "token", or nothing and the error.
    void registerOtherDeviceWithScope(const QJsonValue &scope, const QString &name, const QString &deviceToken,
                                      RegisterOtherDeviceCompletion completion);

    // The last sign-in kind and e-mail, kept in the ubiquitous key-value store.

    /// Stores the last e-mail address used to sign in.
    static void setLastUsedEmail(const QString &email); ///< a null string removes it
    /// The last e-mail address used to sign in; null when none.
    static QString lastUsedEmail();
    /// Stores the last sign-in kind.
    static void setLastUsedAccountType(ORVOrvellaAccountType type); ///< unknown values remove it
    /// The last sign-in kind.
    static ORVOrvellaAccountType lastUsedAccountType(); ///< unknown or missing: none
    /// Copies the current account's kind and e-mail into the store, or resets
    /// both when it has no e-mail address.
    static void updateLastUsedAccount();
    /// Removes the last sign-in kind and e-mail from the store.
    static void resetLastUsedAccount();

    // --- account encryption key --------------------------------------------------

    /// The completion of a key check or reset: whether the key is now the
    /// account's, and the error. Runs on the main thread, or at once on the
    /// calling thread when the call cannot start (a failed assertion whose
    /// handler returns, a key that cannot be used).
    ///
    /// The key travels between the user's devices in the ubiquitous store; the
    /// server keeps only the user name encrypted with it, to tell a right key
    /// from a wrong one. Errors: 13 the server could not be read or written,
    /// 14 the key does not decrypt the record to the user name.
    using EncryptionKeyCompletion = std::function<void(bool success, const ORVError &error)>;

    /// The key stored for the current account; without one, 16 new random
    /// bytes, stored. Nothing when there is no signed-in account or no random
    /// source.
    std::optional<QByteArray> encryptionKeyFromUbiquitousKeyValueStore();
    /// Checks `key` against the server's record; with no record yet, the key
    /// becomes the account's key (resetEncryptionKey()). An accepted key goes
    /// to updateOrvellaEncryptionKey() and into the ubiquitous store.
    void checkEncryptionKey(const QByteArray &key, EncryptionKeyCompletion completion);
    /// Makes `key` the account's key by replacing the server's record.
    void resetEncryptionKey(const QByteArray &key, EncryptionKeyCompletion completion);
    /// Reads the key from a recovery code (ORVEncryptionKeyRecoveryCode())
    /// and checks it as checkEncryptionKey() does, which keeps it when the
    /// server's record accepts it. A code that is not one fails with
    /// ORVOrvellaRecoveryCodeInvalidErrorCode (33) before anything is asked
    /// or changed; the key of another account's code fails with 14.
    void restoreEncryptionKeyWithRecoveryCode(const QString &code, EncryptionKeyCompletion completion);

    /// The network manager that carries the manager's own requests: the
    /// shared one unless another is set (a test's, an application's own).
    std::shared_ptr<ORVOrvellaNetworkManager> networkManager() const;
    /// Sets the network manager of the manager's own requests; null: the shared one.
    void setNetworkManager(const std::shared_ptr<ORVOrvellaNetworkManager> &manager);

protected:
    /// Puts a token received from the server (or, with a null token, an
    /// error) into the cache exactly as a token fetch does; sign-in uses it too.
    void storeTokenForAccountIdentifier(const QString &identifier, const QString &token, const ORVError &error);
    /// A sign-in starts a new session of the account: a fetch still on its
    /// way for the old one, and its callers, count for nothing from here on.
    /// Call it before writing the new device credential.
    void beginNewSession(const QString &identifier);

private:
    enum class SignInKind { Password, Token, Magic };
    void startSignIn(SignInKind kind, ORVOrvellaServerEndpoint endpoint, double timeout, const QString &category,
                     const QJsonObject &body, const QString &email, ORVOrvellaAccountType type,
                     SignInCompletion completion);
    void finishSignIn(SignInKind kind, const std::optional<ORVHTTPURLResponse> &response, const QByteArray &data,
                      const ORVError &transportError, const QString &email, ORVOrvellaAccountType type,
                      const SignInCompletion &completion);
    QJsonArray signInScope() const;

    struct TokenFetch;
    /// The token fetch: true when it finished at once.
    bool fetchToken(const std::shared_ptr<ORVBlockOperation> &operation,
                    const std::weak_ptr<ORVOrvellaNetworkTask> &task,
                    const std::shared_ptr<ORVOrvellaAccount> &account, quint64 generation);
    void failFetchToStart(const QString &identifier, quint64 generation, const QString &reason);
    /// Answers the fetch's callers with the error (once) and lets the token
    /// queue move on.
    void releaseFetch(const std::shared_ptr<TokenFetch> &fetch, const ORVError &error);
    /// Reads the fetch's reply (once); answers its callers unless that was done.
    void replyToFetch(const std::shared_ptr<TokenFetch> &fetch, const QByteArray &data,
                      const std::optional<ORVHTTPURLResponse> &response, const ORVError &error);
    void finishFetchOperation(const std::shared_ptr<TokenFetch> &fetch);
    /// A new generation for the account; the fetch under way, if any, to release.
    std::shared_ptr<TokenFetch> beginNewGenerationLocked(const QString &identifier);
    /// A fetch's reply is kept only while its account's generation is the one
    /// it started in (nothing means: keep it). A late one (its callers had
    /// their answer) keeps the rotated device credential, and its token only
    /// when no other fetch is under way.
    void handleTokenResponse(const std::shared_ptr<ORVOrvellaAccount> &account, const QUuid &requestIdentifier,
                             const std::optional<ORVHTTPURLResponse> &response, const QByteArray &data,
                             const ORVError &error, std::optional<quint64> generation, bool late);
    void storeLateToken(const QString &identifier, quint64 generation, const QString &token);
    void storeFetchResult(const QString &identifier, quint64 generation, const QString &token, const ORVError &error);
    void storeLocked(const QString &identifier, const QString &token, const ORVError &error);
    bool isCurrentGeneration(const QString &identifier, quint64 generation) const;
    /// The subclass's stored-token hooks; what they throw is logged, not passed on.
    QString storedTokenOrNull(const QString &identifier);
    void storeTokenOrLog(const QString &token, const QString &identifier);

    /// Guarded by _tokensLock, in this order of declaration.
    QHash<QString, QString> _tokens;
    QHash<QString, QDateTime> _tokenExpirations; ///< a null date: no readable expiry
    QHash<QString, ORVError> _errors;
    QHash<QString, bool> _hasActiveTokenRequest;
    /// Bumped by a reset and by a sign-in: a fetch or a waiting caller of an
    /// older generation belongs to a session that has ended.
    QHash<QString, quint64> _generations;
    QHash<QString, std::weak_ptr<TokenFetch>> _fetches; ///< the fetch under way
    /// Taken before _tokensLock: a sign-out and the keeping of a rotated
    /// device credential exclude each other.
    mutable std::recursive_mutex _credentialLock;
    mutable std::mutex _tokensLock;
    std::shared_ptr<ORVOperationQueue> _tokenRequestQueue;

    mutable std::mutex _networkManagerLock;
    std::shared_ptr<ORVOrvellaNetworkManager> _networkManager;
    std::atomic<double> _tokenFetchTimeout = 90.0;
};

/// Registers the process's one token manager and makes it the shared network
/// manager's token provider. A null argument fails "tokenManager != nil", a
/// second registration "A Token Manager already exists".
ORVELLAKIT_EXPORT void ORVRegisterSharedTokenManager(std::shared_ptr<ORVOrvellaTokenManager> tokenManager);
