#pragma once

// ORVDefaultsNotificationManager: posts named notifications when settings
// keys change. Declare once that notification N follows key K
// (registerNotificationName()), and any number of listeners subscribe to N
// on ORVNotificationCenter::defaultCenter(). Notifications are posted on the
// main thread, once per pass of the main loop for each changed key, with the
// manager as object (ORVNotificationObject(manager)) and no user info.

#include <OrvellaKit/ORVDefaultsObserver.h>
#include <OrvellaKit/ORVNotificationCenter.h>

#include <QSet>
#include <QStringList>

class ORVDefaultsNotificationManager : public std::enable_shared_from_this<ORVDefaultsNotificationManager> {
public:
    // managerForDefaults() of the standard store.
    static std::shared_ptr<ORVDefaultsNotificationManager> defaultManager();
    // The store's manager, made on first use with the default centre. A null
    // store fails "defaults != nil".
    static std::shared_ptr<ORVDefaultsNotificationManager> managerForDefaults(const std::shared_ptr<ORVUserDefaults> &defaults);

    // The centre is kept and answered by notificationCenter(), but
    // notifications always go to the default centre. Make it with
    // std::make_shared.
    ORVDefaultsNotificationManager(ORVNotificationCenter *notificationCenter, std::shared_ptr<ORVUserDefaults> defaults);
    ~ORVDefaultsNotificationManager();
    ORVDefaultsNotificationManager(const ORVDefaultsNotificationManager &) = delete;
    ORVDefaultsNotificationManager &operator=(const ORVDefaultsNotificationManager &) = delete;

    ORVNotificationCenter *notificationCenter() const { return _notificationCenter; }
    const std::shared_ptr<ORVUserDefaults> &defaults() const { return _defaults; }
    // Key to the names posted for it (a copy).
    QHash<QString, QSet<QString>> notificationNames() const;

    void registerNotificationName(const QString &notificationName, const QString &key);
    void registerNotificationName(const QString &notificationName, const QStringList &keys);
    void deregisterNotificationName(const QString &notificationName, const QString &key);
    void deregisterNotificationName(const QString &notificationName, const QStringList &keys);

    // Called by the defaults observer (main thread).
    void defaultsDidChangeForKey(const QString &key);

private:
    // Serialises registration and de-registration (held while calling
    // into the defaults observer).
    std::mutex _registrationLock;
    ORVNotificationCenter *_notificationCenter;
    std::shared_ptr<ORVUserDefaults> _defaults;
    // Guards the table alone; taken inside the registration lock and during
    // deliveries.
    mutable std::mutex _namesLock;
    QHash<QString, QSet<QString>> _notificationNames;
};
