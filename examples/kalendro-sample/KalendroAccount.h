#pragma once

#include <OrvellaKit/ORVOrvellaAccount.h>

// The sample's account: a plain value the application keeps itself.
class KalendroAccount : public ORVOrvellaAccount {
public:
    KalendroAccount(QString identifier, std::optional<QString> username, QString email, ORVOrvellaAccountType type,
                    QString serverHost);

    QString identifier() const override { return _identifier; }
    std::optional<QString> username() const override { return _username; }
    QString emailAddress() const override { return _emailAddress; }
    ORVOrvellaAccountType orvellaAccountType() const override { return _type; }
    QString displayName() const override { return _displayName; }
    void setDisplayName(const QString &name) override { _displayName = name; }
    void setUsername(const std::optional<QString> &username) override { _username = username; }
    void setEmailAddress(const QString &email) override { _emailAddress = email; }
    void setOrvellaAccountType(ORVOrvellaAccountType type) override { _type = type; }
    std::shared_ptr<ORVOrvellaAccount> copy() const override;
    QUrl URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const override;
    QUrl serverURLForAPIAccess() const override;

    QString description() const;

private:
    QString _identifier;
    std::optional<QString> _username;
    QString _emailAddress;
    ORVOrvellaAccountType _type;
    QString _displayName;
    QString _serverHost;
};
