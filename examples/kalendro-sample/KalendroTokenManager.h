#pragma once

#include "KalendroSecrets.h"

#include <OrvellaKit/ORVOrvellaTokenManager.h>

// The sample's token manager: the device credential, the access tokens and
// the accepted encryption keys go to its secret store.
class KalendroTokenManager : public ORVOrvellaTokenManager {
public:
    explicit KalendroTokenManager(std::shared_ptr<KalendroSecrets> secrets);

    QString appScope() const override { return QStringLiteral("kalendro"); }
    QString deviceToken() const override;
    std::optional<ORVURLCredential> credentialForOrvellaAccount(
        const std::shared_ptr<ORVOrvellaAccount> &account) const override;
    void setAccountCredential(const ORVURLCredential &credential,
                              const std::shared_ptr<ORVOrvellaAccount> &account) override;
    void updateOrvellaEncryptionKey(const QByteArray &key, const QString &username) override;
    void setOrvellaToken(const QString &token, const QString &accountIdentifier) override;
    QString orvellaTokenForAccountIdentifier(const QString &accountIdentifier) override;

    // The key accepted for the user, if any.
    QByteArray acceptedEncryptionKey(const QString &username) const;

private:
    std::shared_ptr<KalendroSecrets> _secrets;
    QString _deviceIdentifier;
};
