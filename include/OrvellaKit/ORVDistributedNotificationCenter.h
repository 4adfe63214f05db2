#pragma once

/// \file
/// ORVDistributedNotificationCenter: notifications between processes of the
/// same user.

#include <OrvellaKit/ORVExport.h>

#include <QString>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ORVDistributedNotificationObserver;
class ORVDistributedNotificationRelay;
/// What the add-observer calls return, to be given to removeObserver().
using ORVDistributedNotificationToken = std::shared_ptr<ORVDistributedNotificationObserver>;

/// Notifications between processes of the same user, as D-Bus signals on the
/// session bus. A notification is a name and an object string (an
/// application's bundle identifier, say); every process observing that name
/// (and object) receives it at once, the sender included when it observes it
/// too.
///
/// On the bus a notification is the signal "Notification" (arguments: name,
/// object) of the interface "com.orvella.OrvellaKit.DistributedNotifications"
/// on the object path "/com/orvella/OrvellaKit/DistributedNotifications".
///
/// Observers are called on the main thread. Without a session bus nothing is
/// delivered or sent, and the calls say so by their results.
///
/// Thread rule: any thread; callbacks run on the main thread, in the order
/// the observers registered (on the thread of the first registration when
/// that came before the QCoreApplication existed). Ownership: the centre keeps each registration,
/// with its callback, until removeObserver(); dropping the token does not
/// end it. The centre lives as long as the process.
class ORVELLAKIT_EXPORT ORVDistributedNotificationCenter {
public:
    /// Receives a notification's name and object.
    using Callback = std::function<void(const QString &name, const QString &object)>;
    /// The same, with the process identifier of the sender as the bus knows
    /// it (-1 when the bus cannot tell): an observer can tell its own
    /// notifications from others' and see where a notification came from.
    using SenderCallback =
        std::function<void(const QString &name, const QString &object, qint64 senderProcessIdentifier)>;

    /// The centre of the session bus.
    static ORVDistributedNotificationCenter &defaultCenter();

    /// Calls `callback` for notifications of `name` whose object equals
    /// `object` (a null object: any). Null when there is no session bus or
    /// the centre cannot listen on it.
    ORVDistributedNotificationToken addObserverForName(const QString &name, const QString &object, Callback callback);
    /// addObserverForName() with the sender's process identifier.
    ORVDistributedNotificationToken addObserverWithSenderForName(const QString &name, const QString &object,
                                                                 SenderCallback callback);
    /// Ends the registration; a callback not yet reached in a delivery under
    /// way is not called.
    void removeObserver(const ORVDistributedNotificationToken &token);
    /// Sends the notification; false when there is no session bus or the
    /// signal could not be sent.
    bool postNotificationName(const QString &name, const QString &object);
    /// Whether the session bus answers.
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

/// A registration with ORVDistributedNotificationCenter.
///
/// Thread rule: any thread (its values never change). Ownership: made by the
/// centre, which keeps it until it is removed; it holds the callback.
class ORVDistributedNotificationObserver {
public:
    /// The name it observes.
    const QString &name() const { return _name; }
    /// The object it observes; null for any object.
    const QString &object() const { return _object; }

private:
    friend class ORVDistributedNotificationCenter;
    QString _name;
    QString _object;
    ORVDistributedNotificationCenter::SenderCallback _callback;
    bool _wantsSender = false;
};
