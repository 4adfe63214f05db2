#include "KalendroTokenManager.h"

KalendroTokenManager::KalendroTokenManager(std::shared_ptr<KalendroSecrets> secrets)
    : _secrets(std::move(secrets)), _deviceIdentifier(uniqueDeviceIdentifier().value_or(QString()))
{
}

QString KalendroTokenManager::deviceToken() const
{
    return _deviceIdentifier;
}

std::optional<ORVURLCredential> KalendroTokenManager::credentialForOrvellaAccount(
    const std::shared_ptr<ORVOrvellaAccount> &account) const
{
    const QString id = account->identifier();
    const QString user = _secrets->value(QStringLiteral("device-user/") + id);
    const QString token = _secrets->value(QStringLiteral("device-token/") + id);
    if (user.isEmpty() || token.isEmpty())
        return std::nullopt;
    return ORVURLCredential{user, token};
}

void KalendroTokenManager::setAccountCredential(const ORVURLCredential &credential,
                                                const std::shared_ptr<ORVOrvellaAccount> &account)
{
    const QString id = account->identifier();
    _secrets->setValue(QStringLiteral("device-user/") + id, credential.user);
    _secrets->setValue(QStringLiteral("device-token/") + id, credential.password);
}

void KalendroTokenManager::updateOrvellaEncryptionKey(const QByteArray &key, const QString &username)
{
    _secrets->setValue(QStringLiteral("encryption-key/") + username, QString::fromLatin1(key.toBase64()));
}

QByteArray KalendroTokenManager::acceptedEncryptionKey(const QString &username) const
{
    return QByteArray::fromBase64(_secrets->value(QStringLiteral("encryption-key/") + username).toLatin1());
}

void KalendroTokenManager::setOrvellaToken(const QString &token, const QString &accountIdentifier)
{
    _secrets->setValue(QStringLiteral("access-token/") + accountIdentifier, token);
}

QString KalendroTokenManager::orvellaTokenForAccountIdentifier(const QString &accountIdentifier)
{
    return _secrets->value(QStringLiteral("access-token/") + accountIdentifier);
}
