#pragma once

// A small key-value store meant to follow the user across devices. The
// framework keeps the last sign-in kind and e-mail and the account
// encryption key in it. The default store is device-local: a JSON file in
// the application's data folder, readable by the user only. An application
// that syncs these values (through its own service) installs its store with
// setDefaultStore().

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <memory>
#include <mutex>
#include <optional>

class ORVUbiquitousKeyValueStore {
public:
    virtual ~ORVUbiquitousKeyValueStore();

    // The installed store, else the local file store (made on first use).
    static std::shared_ptr<ORVUbiquitousKeyValueStore> defaultStore();
    static void setDefaultStore(std::shared_ptr<ORVUbiquitousKeyValueStore> store);

    // A string, a QByteArray, a number or a bool; an invalid QVariant when
    // the key has no value.
    virtual QVariant objectForKey(const QString &key) const = 0;
    // An invalid QVariant removes the key.
    virtual void setObject(const QVariant &value, const QString &key) = 0;
    // Writes pending changes; false when that failed.
    virtual bool synchronize() = 0;

    void removeObjectForKey(const QString &key) { setObject(QVariant(), key); }
    // Typed reads: nothing when the key is missing or holds another type.
    std::optional<QString> stringForKey(const QString &key) const;
    std::optional<QByteArray> dataForKey(const QString &key) const;
    std::optional<qint64> longLongForKey(const QString &key) const;
    void setString(const QString &value, const QString &key) { setObject(value, key); }
    void setData(const QByteArray &value, const QString &key) { setObject(value, key); }
    void setLongLong(qint64 value, const QString &key) { setObject(value, key); }
};

// The device-local store: every change is written at once (atomically, mode
// 0600). A file that cannot be read as the store is moved aside to
// "<name>.unreadable" before the first write, so nothing in it is lost.
class ORVLocalKeyValueStore : public ORVUbiquitousKeyValueStore {
public:
    // By default "UbiquitousKeyValueStore.json" in ORVApplicationSupportDirectory().
    explicit ORVLocalKeyValueStore(QString filePath = QString());

    QString filePath() const { return _filePath; }
    QVariant objectForKey(const QString &key) const override;
    void setObject(const QVariant &value, const QString &key) override;
    bool synchronize() override;

private:
    bool writeLocked();

    QString _filePath;
    mutable std::mutex _lock;
    QVariantMap _values;
    bool _unreadable = false;
    bool _dirty = false;
};
