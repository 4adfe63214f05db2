#pragma once

/// \file
/// ORVUserDefaults: a store of application settings.

#include <OrvellaKit/ORVExport.h>

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

class QFileSystemWatcher;
class QSettings;

/// A store of application settings, kept in a QSettings INI file, with
/// per-key change observation.
///
/// - The standard store of an application is "$XDG_CONFIG_HOME/\<bundle
///   identifier\>.conf"; others are made by name (a file of that name in the
///   same folder) or by path. One object exists per file in a process, so
///   every part of the application sees the same values and the same changes.
/// - Every set or removal made in this process is reported, synchronously on
///   the thread that made it, to the observers of that key. Changes another
///   process writes to the file are noticed through QFileSystemWatcher (on
///   the main thread's event loop) and reported for the keys whose values
///   changed.
/// - Values reach the file on the next pass of the main event loop, or at
///   synchronize().
/// - Without a configuration folder (no home folder, and XDG_CONFIG_HOME
///   unset or relative) the standard and named stores keep their values in
///   memory for the life of the process: nothing is written to "/" or to the
///   working folder. Such a store has an empty filePath(), synchronize()
///   answers false, and a warning says so once per store.
///
/// The object is thread-safe.
///
/// Thread rule: any thread; change handlers run on the thread that made the
/// change, or on the main thread for changes from other processes. The
/// object itself lives on the main thread (it moves there when made
/// elsewhere while the QCoreApplication exists). Ownership: stores are
/// shared; the process's table of stores holds them weakly, so a store lives
/// as long as someone holds it. A store keeps its change handlers until they
/// are removed.
class ORVELLAKIT_EXPORT ORVUserDefaults : public QObject, public std::enable_shared_from_this<ORVUserDefaults> {
    Q_OBJECT
public:
    /// Receives the key that changed and the store.
    using ChangeHandler = std::function<void(const QString &key, ORVUserDefaults &defaults)>;

    /// The application's store.
    static std::shared_ptr<ORVUserDefaults> standardUserDefaults();
    /// "\<name\>.conf" beside the standard store; null for an empty name or one
    /// holding "/".
    static std::shared_ptr<ORVUserDefaults> defaultsWithSuiteName(const QString &name);
    /// The store of that file (made on first use).
    static std::shared_ptr<ORVUserDefaults> defaultsWithPath(const QString &filePath);

    /// Writes pending changes to the file.
    ~ORVUserDefaults() override;

    /// Empty for a store kept in memory.
    QString filePath() const { return _filePath; }

    /// The value set for the key, else the registered default, else invalid.
    QVariant objectForKey(const QString &key) const;
    /// The value as text; nullopt when there is none or it is a list or a
    /// map.
    std::optional<QString> stringForKey(const QString &key) const;
    /// The value as a whole number (text such as "3.7" is cut to 3); 0 when
    /// missing or not a number.
    qint64 integerForKey(const QString &key) const;
    /// The value as a number; 0.0 likewise.
    double doubleForKey(const QString &key) const;
    /// The value as a boolean (text is true for "true", "yes", in any case,
    /// or a number other than 0); false likewise.
    bool boolForKey(const QString &key) const;
    /// The keys that have a value or a registered default.
    QStringList dictionaryRepresentationKeys() const;

    /// An invalid value removes the key. An empty key is ignored. Observers
    /// of the key are told, on this thread, before this returns.
    void setObject(const QVariant &value, const QString &key);
    /// setObject() of a string.
    void setString(const QString &value, const QString &key) { setObject(value, key); }
    /// setObject() of a whole number.
    void setInteger(qint64 value, const QString &key) { setObject(value, key); }
    /// setObject() of a number.
    void setDouble(double value, const QString &key) { setObject(value, key); }
    /// setObject() of a boolean.
    void setBool(bool value, const QString &key) { setObject(value, key); }
    /// setObject() of an invalid value: removes the key.
    void removeObjectForKey(const QString &key) { setObject(QVariant(), key); }

    /// Values answered for keys that have none; not written to the file.
    void registerDefaults(const QVariantMap &defaults);
    /// Writes pending changes and reads the file again; false on failure.
    bool synchronize();

    /// Observation of one key, by context (one handler per context and key;
    /// adding again replaces it). The handler runs without the store's lock
    /// and may call back into the store.
    void addObserver(const void *context, const QString &key, ChangeHandler handler);
    /// Removes the handler of the context for the key.
    void removeObserver(const void *context, const QString &key);
    /// How many contexts observe the key.
    int observerCount(const QString &key) const;

protected:
    /// Writes the settings file, under the store's lock, when QSettings asks
    /// for it.
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    ORVUserDefaults(QString filePath, QString registryKey);
    static std::shared_ptr<ORVUserDefaults> defaultsInMemory(const QString &name);
    void fileMayHaveChanged();
    void syncLocked();
    void foldSetsIntoSnapshotLocked();
    /// One key's handlers, by context. Replaced (never changed) when one is
    /// added or removed, so a change report copies one pointer under the lock.
    using Handlers = std::vector<std::pair<const void *, std::shared_ptr<ChangeHandler>>>;
    std::shared_ptr<const Handlers> handlersLocked(const QString &key) const;
    void notify(const QString &key);
    void notify(const QString &key, const std::shared_ptr<const Handlers> &handlers);

    QString _filePath;
    QString _registryKey;
    mutable std::mutex _lock;
    QSettings *_settings = nullptr;
    QFileSystemWatcher *_watcher = nullptr;
    QVariantMap _snapshot;   ///< what the file held at the last look, plus our folded sets
    /// Keys set here since the last fold into the snapshot. A set only marks
    /// its key; the snapshot form of the value is worked out once per pass of
    /// the event loop (or when the file changes), not on every set.
    QSet<QString> _setSinceSnapshot;
    QString _lastSetKey; ///< the key last marked, which a run of sets repeats
    QVariantMap _registered; ///< registered defaults
    QVariantMap _values;     ///< the values of a store without a file
    /// The observed keys' handlers, under _lock (the lock a set takes
    /// anyway, so a set takes one lock in all).
    QHash<QString, std::shared_ptr<const Handlers>> _observers;
    std::atomic<int> _observedKeys = 0; ///< _observers.size(), read without the lock
    /// The handlers of the key set last, while no observer came or went: a
    /// run of sets of one key looks them up once.
    QString _cachedHandlersKey;
    std::shared_ptr<const Handlers> _cachedHandlers;
};
