#pragma once

/// \file
/// A small key-value store meant to follow the user across devices. The
/// framework keeps the last sign-in kind and e-mail and the account
/// encryption key in it. The default store is device-local: a JSON file in
/// the application's data folder, readable by the user only. An application
/// that syncs these values (through its own service) installs its store with
/// setDefaultStore().

#include <OrvellaKit/ORVExport.h>

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <memory>
#include <mutex>
#include <optional>

/// The interface of a store, and the place of the default one.
///
/// Thread rule: defaultStore() and setDefaultStore() on any thread. The
/// framework uses the default store on any thread (the token manager's
/// queue, the main thread): an implementation must be safe to call from
/// several threads at once.
/// Ownership: the installed store is kept (shared) until another replaces it.
class ORVELLAKIT_EXPORT ORVUbiquitousKeyValueStore {
public:
    virtual ~ORVUbiquitousKeyValueStore();

    /// The installed store, else the local file store (made on first use).
    static std::shared_ptr<ORVUbiquitousKeyValueStore> defaultStore();
    /// Installs `store` as the default; null brings back the local file
    /// store on the next defaultStore().
    static void setDefaultStore(std::shared_ptr<ORVUbiquitousKeyValueStore> store);

    /// A string, a QByteArray, a number or a bool; an invalid QVariant when
    /// the key has no value.
    virtual QVariant objectForKey(const QString &key) const = 0;
    /// Sets the value of `key`.
    /// An invalid QVariant removes the key.
    virtual void setObject(const QVariant &value, const QString &key) = 0;
    /// Writes pending changes; false when that failed.
    virtual bool synchronize() = 0;

    /// Removes the value of `key`.
    void removeObjectForKey(const QString &key) { setObject(QVariant(), key); }
    /// Typed reads: nothing when the key is missing or holds another type.
    std::optional<QString> stringForKey(const QString &key) const;
    /// The bytes of `key`; nothing when missing or not bytes.
    std::optional<QByteArray> dataForKey(const QString &key) const;
    /// The integer (or bool) of `key`; nothing when missing or of another type.
    std::optional<qint64> longLongForKey(const QString &key) const;
    /// Sets a string.
    void setString(const QString &value, const QString &key) { setObject(value, key); }
    /// Sets bytes.
    void setData(const QByteArray &value, const QString &key) { setObject(value, key); }
    /// Sets an integer.
    void setLongLong(qint64 value, const QString &key) { setObject(value, key); }
};

/// The device-local store: every change is written at once (atomically, mode
/// 0600). A file that cannot be read as the store is moved aside to
/// `"<name>.unreadable"` before the first write, so nothing in it is lost.
///
/// Values other than strings, bytes, bools and numbers are ignored. Without
/// a data folder the values live in memory only.
///
/// Thread rule: any thread; the store has its own lock.
/// Ownership: shared, like every store.
class ORVELLAKIT_EXPORT ORVLocalKeyValueStore : public ORVUbiquitousKeyValueStore {
public:
    /// Reads the file at `filePath`, if it exists.
    /// By default "UbiquitousKeyValueStore.json" in ORVApplicationSupportDirectory().
    explicit ORVLocalKeyValueStore(QString filePath = QString());

    /// The file; empty when there is no data folder.
    QString filePath() const { return _filePath; }
    /// The value of `key`: numbers read back from the file are qint64 or double.
    QVariant objectForKey(const QString &key) const override;
    /// Sets or removes the value of `key` and writes the file.
    void setObject(const QVariant &value, const QString &key) override;
    /// Writes the file if a change was not written yet; false when that failed.
    bool synchronize() override;

private:
    bool writeLocked();

    QString _filePath;
    mutable std::mutex _lock;
    QVariantMap _values;
    bool _unreadable = false;
    bool _dirty = false;
};
