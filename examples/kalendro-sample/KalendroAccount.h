#pragma once

#include <OrvellaKit/ORVOrvellaAccount.h>

#include <QJsonObject>

#include <mutex>

// The sample's account: a plain value the application keeps itself. Its
// endpoints live on one account server, given by its root URL
// ("http://127.0.0.1:8080/" for the embedded one).
class KalendroAccount : public ORVOrvellaAccount {
public:
    KalendroAccount(QString identifier, QUrl server);

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
    QUrl serverURLForAPIAccess() const override { return _server; }

    QString description() const;
    // The account without its server, which the file records apart.
    QJsonObject toJson() const;
    // Nothing when the object lacks an identifier.
    static std::shared_ptr<KalendroAccount> fromJson(const QJsonObject &object, const QUrl &server);

private:
    QString _identifier;
    QUrl _server;
    std::optional<QString> _username;
    QString _emailAddress;
    ORVOrvellaAccountType _type = ORVOrvellaAccountTypeNone;
    QString _displayName;
};

// The account file: one JSON object {"server": ..., "account": {...}},
// written atomically on every save. The framework reaches it through the
// fetch and save blocks.
class KalendroAccountFile {
public:
    // `serverName` tells which server the account belongs to ("embedded" or
    // the server's URL); `server` is where that server answers now.
    KalendroAccountFile(QString path, QString serverName, QUrl server);
    const QString &path() const { return _path; }
    // Reads the file. An unreadable file is moved aside (".unreadable") and
    // reported in `problem`, as is an account of another server; the account
    // is then a new, signed-out one.
    std::shared_ptr<KalendroAccount> load(QString *problem);
    std::shared_ptr<ORVOrvellaAccount> current() const;
    ORVError save(const std::shared_ptr<ORVOrvellaAccount> &account);

private:
    QString _path;
    QString _serverName;
    QUrl _server;
    mutable std::mutex _lock;
    std::shared_ptr<KalendroAccount> _current;
};
