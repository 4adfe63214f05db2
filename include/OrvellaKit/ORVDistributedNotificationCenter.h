#pragma once

// ORVDistributedNotificationCenter: notifications between processes of the
// same user, as D-Bus signals on the session bus. A notification is a name
// and an object string (an application's bundle identifier, say); every
// process observing that name (and object) receives it at once, the sender
// included when it observes it too.
//
// On the bus a notification is the signal "Notification" (arguments: name,
// object) of the interface "com.orvella.OrvellaKit.DistributedNotifications"
// on the object path "/com/orvella/OrvellaKit/DistributedNotifications".
//
// Observers are called on the main thread. Without a session bus nothing is
// delivered or sent, and the calls say so by their results.

#include <QString>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ORVDistributedNotificationObserver;
class ORVDistributedNotificationRelay;
using ORVDistributedNotificationToken = std::shared_ptr<ORVDistributedNotificationObserver>;

class ORVDistributedNotificationCenter {
public:
    using Callback = std::function<void(const QString &name, const QString &object)>;
    // The same, with the process identifier of the sender as the bus knows
    // it (-1 when the bus cannot tell): an observer can tell its own
    // notifications from others' and see where a notification came from.
    using SenderCallback =
        std::function<void(const QString &name, const QString &object, qint64 senderProcessIdentifier)>;

    // The centre of the session bus.
    static ORVDistributedNotificationCenter &defaultCenter();

    // Calls `callback` for notifications of `name` whose object equals
    // `object` (a null object: any). Null when there is no session bus.
    ORVDistributedNotificationToken addObserverForName(const QString &name, const QString &object, Callback callback);
    // addObserverForName() with the sender's process identifier.
    ORVDistributedNotificationToken addObserverWithSenderForName(const QString &name, const QString &object,
                                                                 SenderCallback callback);
    void removeObserver(const ORVDistributedNotificationToken &token);
    // Sends the notification; false when there is no session bus or the
    // signal could not be sent.
    bool postNotificationName(const QString &name, const QString &object);
    // Whether the session bus answers.
    bool isConnected() const;

private:
    ORVDistributedNotificationCenter();
    friend class ORVDistributedNotificationRelay;
    ORVDistributedNotificationToken addObserver(const QString &name, const QString &object, SenderCallback callback,
                                                bool wantsSender);
    void deliver(const QString &name, const QString &object, const QString &sender);

    mutable std::mutex _lock;
    std::vector<ORVDistributedNotificationToken> _observers;
    bool _listening = false;
    ORVDistributedNotificationRelay *_relay = nullptr;
};

class ORVDistributedNotificationObserver {
public:
    const QString &name() const { return _name; }
    const QString &object() const { return _object; }

private:
    friend class ORVDistributedNotificationCenter;
    QString _name;
    QString _object;
    ORVDistributedNotificationCenter::SenderCallback _callback;
    bool _wantsSender = false;
};
