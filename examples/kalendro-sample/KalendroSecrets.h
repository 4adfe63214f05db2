#pragma once

// Where the sample keeps its secrets (device credentials, access tokens,
// encryption keys): the desktop's Secret Service through QtKeychain when a
// keyring answers, otherwise a JSON file only the user may read. Values are
// held in memory and written through; reads never wait for the keyring.

#include <QJsonObject>
#include <QString>

#include <mutex>

class KalendroSecrets {
public:
    // Asks the Secret Service (at most a few seconds); without an answer the
    // secrets live in `fallbackFile`. Call on the main thread.
    explicit KalendroSecrets(QString fallbackFile);
    ~KalendroSecrets();

    bool usesKeyring() const { return _keyring; }
    // "the Secret Service (keyring)" or the file's path, for the user.
    QString location() const;

    // Thread-safe. A null value removes the key.
    QString value(const QString &key) const;
    void setValue(const QString &key, const QString &value);
    // Removes every secret.
    void clear();
    // Waits (main thread) until every change has reached the keyring.
    void flush();

private:
    void writeChanged();
    bool writeKeyring(const QByteArray &json);
    bool writeFile(const QByteArray &json);

    QString _file;
    bool _keyring = false;
    mutable std::mutex _lock;
    QJsonObject _values;
    bool _keyringWritePending = false;
};
