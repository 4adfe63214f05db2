#pragma once

// ORVOrvellaTokenManager: obtains, caches and hands out the short-lived
// access tokens (JSON Web Tokens with "exp") that authorise requests to the
// account server. The network manager asks it through
// ORVOrvellaTokenProviding. The application subclasses it to store tokens
// and the device credential (a keyring, a private file) and registers one
// instance with ORVRegisterSharedTokenManager().
//
// Per account the manager keeps a token, its expiry, the error of the last
// failed fetch and whether a fetch is under way. Fetches and replies run one
// at a time on an operation queue, so callers that arrive while a fetch runs
// all receive its result, in the order they asked. Completion blocks run on
// that queue's thread, never on the main thread.

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVISO8601DateFormatter.h>
#include <OrvellaKit/ORVOperation.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>

#include <QDateTime>
#include <QHash>
#include <QJsonObject>

#include <mutex>

extern const QString ORVOrvellaTokenManagerSavedIdentifierForVendorDefaultKey; // "savedIdentifierForVendor"

// A user name and password pair kept for the session only.
struct ORVURLCredential {
    QString user;
    QString password;
    bool operator==(const ORVURLCredential &) const = default;
};

class ORVOrvellaTokenManager : public ORVOrvellaTokenProviding,
                               public std::enable_shared_from_this<ORVOrvellaTokenManager> {
public:
    ORVOrvellaTokenManager();
    ~ORVOrvellaTokenManager() override;
    ORVOrvellaTokenManager(const ORVOrvellaTokenManager &) = delete;
    ORVOrvellaTokenManager &operator=(const ORVOrvellaTokenManager &) = delete;

    // The registered instance; nothing before registration.
    static std::shared_ptr<ORVOrvellaTokenManager> sharedManager();

    // --- hooks of the application's subclass -------------------------------
    // The application's scope string, sent when a device registers. Abstract.
    virtual QString appScope() const;
    // Writes the device credential to the application's secret store; the
    // base class does nothing.
    virtual void updateKeychainWithAccountCredential(const ORVURLCredential &credential,
                                                     const std::shared_ptr<ORVOrvellaAccount> &account);
    // The device's identifier sent as "device_identifier". The base class
    // fails the assertion "Unsupported platform" and gives an empty string.
    virtual QString deviceToken() const;
    // The stored device credential of the account; the base class has none.
    virtual std::optional<ORVURLCredential> credentialForOrvellaAccount(
        const std::shared_ptr<ORVOrvellaAccount> &account) const;
    // Adds device fields to request bodies; the base class returns the body.
    virtual QJsonObject dictionaryByAppendingDeviceInfo(const QJsonObject &dictionary) const;
    virtual void clearCredentialManagerTimeout();
    // Abstract (they raise the abstract-method exception in the base class).
    virtual void setAccountCredential(const ORVURLCredential &credential,
                                      const std::shared_ptr<ORVOrvellaAccount> &account);
    virtual void updateOrvellaEncryptionKey(const QByteArray &key, const QString &username);
    // Stores the account's token, or with a null token deletes it. Called
    // with the manager's state locked: it must not call back into the manager.
    virtual void setOrvellaToken(const QString &token, const QString &accountIdentifier);
    // The stored token or a null string. Same locking rule.
    virtual QString orvellaTokenForAccountIdentifier(const QString &accountIdentifier);

    // --- device -------------------------------------------------------------
    // systemd-hostnamed's pretty host name when it answers, else the host
    // name; trimmed; "Unknown Device" when empty.
    virtual QString deviceName() const;
    // The primary interface's hardware address ("%02x:..." lower case) or a
    // random UUID, then "-<login name>-<root volume's display name>".
    virtual std::optional<QString> uniqueDeviceIdentifier() const;

    // --- tokens -------------------------------------------------------------
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account, TokenCompletion completion);
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                const std::shared_ptr<ORVOrvellaNetworkTask> &task, bool ignoreCache,
                                TokenCompletion completion) override;
    // Handles the reply of a token fetch.
    void continueTokenRequestForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                        const std::shared_ptr<ORVOrvellaRequest> &request,
                                        const std::optional<ORVHTTPURLResponse> &response, const QByteArray &data,
                                        const ORVError &error);
    // The "exp" date of a token, unchecked; nothing unless the token has
    // three parts and a readable "exp".
    std::optional<QDateTime> expirationDateForToken(const QString &token) const;
    // Forgets the account's token, expiry, error and fetch flag and deletes
    // its stored token.
    void resetTokensForAccountWithIdentifier(const QString &identifier);

    const ORVISO8601DateFormatter &dateFormatter() const;

    // The network manager that carries the manager's own requests: the
    // shared one unless another is set (a test's, an application's own).
    std::shared_ptr<ORVOrvellaNetworkManager> networkManager() const;
    void setNetworkManager(const std::shared_ptr<ORVOrvellaNetworkManager> &manager);

protected:
    // Puts a token received from the server (or, with a null token, an
    // error) into the cache exactly as a token fetch does; sign-in uses it too.
    void storeTokenForAccountIdentifier(const QString &identifier, const QString &token, const ORVError &error);

private:
    // The token fetch: true when it finished at once.
    bool fetchToken(const std::shared_ptr<ORVBlockOperation> &operation,
                    const std::weak_ptr<ORVOrvellaNetworkTask> &task,
                    const std::shared_ptr<ORVOrvellaAccount> &account);

    // Guarded by _tokensLock, in this order of declaration.
    QHash<QString, QString> _tokens;
    QHash<QString, QDateTime> _tokenExpirations; // a null date: no readable expiry
    QHash<QString, ORVError> _errors;
    QHash<QString, bool> _hasActiveTokenRequest;
    mutable std::mutex _tokensLock;
    std::shared_ptr<ORVOperationQueue> _tokenRequestQueue;

    mutable std::mutex _networkManagerLock;
    std::shared_ptr<ORVOrvellaNetworkManager> _networkManager;
};

// Registers the process's one token manager and makes it the shared network
// manager's token provider. A null argument fails "tokenManager != nil", a
// second registration "A Token Manager already exists".
void ORVRegisterSharedTokenManager(std::shared_ptr<ORVOrvellaTokenManager> tokenManager);
