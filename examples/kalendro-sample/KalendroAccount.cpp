#include "KalendroAccount.h"

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>

KalendroAccount::KalendroAccount(QString identifier, QUrl server)
    : _identifier(std::move(identifier)), _server(std::move(server))
{
}

std::shared_ptr<ORVOrvellaAccount> KalendroAccount::copy() const
{
    return std::make_shared<KalendroAccount>(*this);
}

QUrl KalendroAccount::URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const
{
    // The endpoint table speaks HTTPS to a host; a local server may speak
    // plain HTTP on its own port.
    QUrl url = ORVOrvellaAccountURLForServerEndpoint(endpoint, _server.authority());
    if (!url.isEmpty() && url.host() == _server.host())
        url.setScheme(_server.scheme());
    return url;
}

QString KalendroAccount::description() const
{
    return ORVStringWithFormat("%@ (user %@, %@, %@)", _identifier, _username.value_or(QStringLiteral("none")),
                               _emailAddress.isEmpty() ? QStringLiteral("no e-mail") : _emailAddress,
                               ORVOrvellaAccountTypeString(_type));
}

QJsonObject KalendroAccount::toJson() const
{
    QJsonObject object{{"identifier", _identifier},
                       {"email", _emailAddress},
                       {"type", static_cast<qint64>(_type)},
                       {"displayName", _displayName}};
    if (_username)
        object.insert("username", *_username);
    return object;
}

std::shared_ptr<KalendroAccount> KalendroAccount::fromJson(const QJsonObject &object, const QUrl &server)
{
    const auto identifier = orv_nonEmptyStringForKey(object, "identifier");
    if (!identifier)
        return nullptr;
    auto account = std::make_shared<KalendroAccount>(*identifier, server);
    account->_username = orv_stringForKey(object, "username");
    account->_emailAddress = orv_stringForKey(object, "email").value_or(QString());
    const qint64 type = orv_numberForKey(object, "type").value_or(0);
    account->_type = type >= 0 && type <= 3 ? static_cast<ORVOrvellaAccountType>(type) : ORVOrvellaAccountTypeNone;
    account->_displayName = orv_stringForKey(object, "displayName").value_or(QString());
    return account;
}

KalendroAccountFile::KalendroAccountFile(QString path, QString serverName, QUrl server)
    : _path(std::move(path)), _serverName(std::move(serverName)), _server(std::move(server))
{
}

std::shared_ptr<KalendroAccount> KalendroAccountFile::load(QString *problem)
{
    std::shared_ptr<KalendroAccount> account;
    QString serverName;
    QFile file(_path);
    if (file.exists()) {
        if (file.open(QIODevice::ReadOnly)) {
            if (auto object = orv_JSONDictionaryWithData(file.readAll())) {
                serverName = orv_stringForKey(*object, "server").value_or(QString());
                account = KalendroAccount::fromJson(orv_dictionaryForKey(*object, "account").value_or(QJsonObject()),
                                                    _server);
            }
        }
        file.close();
        if (!account) {
            const QString aside = _path + QStringLiteral(".unreadable");
            QFile::remove(aside);
            QFile::rename(_path, aside);
            if (problem)
                *problem = ORVStringWithFormat("the account file could not be read and was moved to %@", aside);
        }
    }
    if (account && serverName != _serverName) {
        // Another server knows nothing of this sign-in: start signed out.
        if (problem)
            *problem = ORVStringWithFormat("the saved account belongs to the server %@; starting signed out",
                                           serverName);
        account.reset();
    }
    if (!account)
        account = std::make_shared<KalendroAccount>(QStringLiteral("kalendro-account-1"), _server);
    std::lock_guard lock(_lock);
    _current = account;
    return account;
}

std::shared_ptr<ORVOrvellaAccount> KalendroAccountFile::current() const
{
    std::lock_guard lock(_lock);
    return _current;
}

ORVError KalendroAccountFile::save(const std::shared_ptr<ORVOrvellaAccount> &account)
{
    auto kalendro = std::dynamic_pointer_cast<KalendroAccount>(account);
    if (!kalendro)
        return ORVError(ORVOrvellaAccountErrorDomain, 1, {{ORVLocalizedDescriptionKey, "Not a Kalendro account"}});
    std::lock_guard lock(_lock);
    QDir().mkpath(QFileInfo(_path).absolutePath());
    QSaveFile file(_path);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(QJsonDocument(QJsonObject{{"server", _serverName}, {"account", kalendro->toJson()}})
                       .toJson(QJsonDocument::Indented)) < 0 ||
        !file.commit())
        return ORVError(ORVOrvellaAccountErrorDomain, 2,
                        {{ORVLocalizedDescriptionKey, ORVStringWithFormat("Cannot write %@: %@", _path,
                                                                          file.errorString())}});
    _current = std::static_pointer_cast<KalendroAccount>(kalendro->copy());
    return ORVError();
}
