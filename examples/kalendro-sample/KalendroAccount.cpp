#include "KalendroAccount.h"

#include <OrvellaKit/ORVStringWithFormat.h>

KalendroAccount::KalendroAccount(QString identifier, std::optional<QString> username, QString email,
                                 ORVOrvellaAccountType type, QString serverHost)
    : _identifier(std::move(identifier)), _username(std::move(username)), _emailAddress(std::move(email)),
      _type(type), _serverHost(std::move(serverHost))
{
}

std::shared_ptr<ORVOrvellaAccount> KalendroAccount::copy() const
{
    return std::make_shared<KalendroAccount>(*this);
}

QUrl KalendroAccount::URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const
{
    // The endpoint table arrives with the account client; until then only the
    // interface root is known.
    Q_UNUSED(endpoint);
    return {};
}

QUrl KalendroAccount::serverURLForAPIAccess() const
{
    return QUrl(QStringLiteral("https://") + _serverHost + QStringLiteral("/"));
}

QString KalendroAccount::description() const
{
    return ORVStringWithFormat("<KalendroAccount %@ user=%@ type=%ld>", _identifier, _username,
                               static_cast<qint64>(_type));
}
