#pragma once

// Where the sample keeps its secrets (device credentials, access tokens,
// encryption keys): the desktop's Secret Service through QtKeychain when a
// keyring answers, otherwise a JSON file only the user may read. Values are
// held in memory and written through; reads never wait for the keyring.

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <memory>
#include <mutex>

class KalendroSecrets {
public:
    // Asks the Secret Service (at most ten seconds); without an answer the
    // secrets live in `fallbackFile`. Call on the main thread.
    explicit KalendroSecrets(QString fallbackFile);
    ~KalendroSecrets();

    bool usesKeyring() const { return _keyring; }
    // "the Secret Service (keyring)" or the file's path, for the user.
    QString location() const;

    // Thread-safe. A null value removes the key.
    QString value(const QString &key) const;
    void setValue(const QString &key, const QString &value);
    // Whether the keyring or the file holds `value` under `key` for sure
    // (read from there, or written there since). Thread-safe.
    bool isStored(const QString &key, const QString &value) const;
    // Removes every secret of this device's sign-in; the account encryption
    // keys ("ubiquitous/..." entries) stay: they are the user's, and data
    // encrypted with them is unreadable without them.
    void clear();
    // Waits (main thread, at most ten seconds) until every change has
    // reached the keyring; false when one did not.
    bool flush();

private:
    void writeChanged();
    void writeKeyring();
    bool keyringWriting() const;
    bool writeFile(const QByteArray &json);

    QString _file;
    bool _keyring = false;
    // The context of queued calls and keyring jobs: gone with this object.
    std::unique_ptr<QObject> _context = std::make_unique<QObject>();
    mutable std::mutex _lock;
    QJsonObject _values;
    QJsonObject _stored;                 // what the keyring or the file holds for sure
    bool _keyringWritePending = false;   // a change not yet handed to a job
    bool _keyringWriting = false;        // a job runs or is about to
    bool _keyringWriteFailed = false;    // since the last flush()
};

#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>

#include <memory>

// The sample's ubiquitous store: the framework's device-local file, except
// that the account encryption keys ("OrvellaAccountKey-<user>") live with the
// other secrets, in the keyring when there is one. A key found in the file
// from an earlier run moves over on first read.
class KalendroKeyValueStore : public ORVUbiquitousKeyValueStore {
public:
    explicit KalendroKeyValueStore(std::shared_ptr<KalendroSecrets> secrets);
    QVariant objectForKey(const QString &key) const override;
    void setObject(const QVariant &value, const QString &key) override;
    bool synchronize() override;

private:
    std::shared_ptr<KalendroSecrets> _secrets;
    std::shared_ptr<ORVLocalKeyValueStore> _local;
    mutable std::mutex _lock; // a move out of the file and a new value do not cross
};
