#pragma once

/// \file
/// ORVDefaultsNotificationManager: named notifications when settings keys
/// change.

#include <OrvellaKit/ORVDefaultsObserver.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVNotificationCenter.h>

#include <QSet>
#include <QStringList>

/// Posts named notifications when settings keys change. Declare once that
/// notification N follows key K (registerNotificationName()), and any number
/// of listeners subscribe to N on ORVNotificationCenter::defaultCenter().
/// Notifications are posted on the main thread, once per pass of the main
/// loop for each changed key, with the manager as object
/// (ORVNotificationObject(manager)) and no user info.
///
/// Thread rule: any thread for registrations; notifications are posted on
/// the main thread. Ownership: holds its store strongly and does not own
/// the notification centre it is given. The store's ORVDefaultsObserver holds
/// the manager weakly. The managers of managerForDefaults() live as long as
/// the process.
class ORVELLAKIT_EXPORT ORVDefaultsNotificationManager
    : public std::enable_shared_from_this<ORVDefaultsNotificationManager> {
public:
    /// managerForDefaults() of the standard store.
    static std::shared_ptr<ORVDefaultsNotificationManager> defaultManager();
    /// The store's manager, made on first use with the default centre. A null
    /// store fails "defaults != nil".
    static std::shared_ptr<ORVDefaultsNotificationManager> managerForDefaults(const std::shared_ptr<ORVUserDefaults> &defaults);

    /// The centre is kept and answered by notificationCenter(), but
    /// notifications always go to the default centre. Make it with
    /// std::make_shared.
    /// A null centre fails "notificationCenter != nil", a null store
    /// "defaults != nil".
    ORVDefaultsNotificationManager(ORVNotificationCenter *notificationCenter, std::shared_ptr<ORVUserDefaults> defaults);
    /// Ends the manager's registrations with the store's observer.
    ~ORVDefaultsNotificationManager();
    ORVDefaultsNotificationManager(const ORVDefaultsNotificationManager &) = delete;
    ORVDefaultsNotificationManager &operator=(const ORVDefaultsNotificationManager &) = delete;

    /// The centre given at creation (not the one notifications go to).
    ORVNotificationCenter *notificationCenter() const { return _notificationCenter; }
    /// The store whose keys it follows.
    const std::shared_ptr<ORVUserDefaults> &defaults() const { return _defaults; }
    /// Key to the names posted for it (a copy).
    QHash<QString, QSet<QString>> notificationNames() const;

    /// Posts `notificationName` whenever `key` changes. An empty name fails
    /// "[notificationName length] > 0", an empty key "[key length] > 0".
    /// The manager must be owned by a std::shared_ptr.
    void registerNotificationName(const QString &notificationName, const QString &key);
    /// The same for each of `keys` (empty keys are not checked here).
    void registerNotificationName(const QString &notificationName, const QStringList &keys);
    /// Stops posting `notificationName` for `key`; the checks are those of
    /// registerNotificationName().
    void deregisterNotificationName(const QString &notificationName, const QString &key);
    /// The same for each of `keys`.
    void deregisterNotificationName(const QString &notificationName, const QStringList &keys);

    /// Called by the defaults observer (main thread).
    void defaultsDidChangeForKey(const QString &key);

private:
    /// Serialises registration and de-registration (held while calling
    /// into the defaults observer).
    std::mutex _registrationLock;
    ORVNotificationCenter *_notificationCenter;
    std::shared_ptr<ORVUserDefaults> _defaults;
    /// Guards the table alone; taken inside the registration lock and during
    /// deliveries.
    mutable std::mutex _namesLock;
    QHash<QString, QSet<QString>> _notificationNames;
};
