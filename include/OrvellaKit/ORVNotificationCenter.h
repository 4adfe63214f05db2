#pragma once

/// \file
/// ORVNotificationCenter: in-process broadcast of named notifications.

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVExport.h>

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// A notification: a name, the object it concerns and extra information.
/// A plain value; any thread.
struct ORVNotification {
    QString name;         ///< What happened.
    QVariant object;      ///< What it concerns: a string, a number, or ORVNotificationObject(); may be invalid.
    QVariantMap userInfo; ///< Details, as the poster chooses.
};

/// Wraps an object's address as a notification object (identity comparison).
/// A null pointer gives an invalid QVariant. Any thread.
inline QVariant ORVNotificationObject(const void *object)
{
    return object ? QVariant::fromValue(const_cast<void *>(object)) : QVariant();
}

class ORVNotificationObserver;
/// What addObserverForName() returns, to be given to removeObserver().
using ORVNotificationToken = std::shared_ptr<ORVNotificationObserver>;

/// In-process broadcast of named notifications.
///
/// Observers register a callback for a name (or every name) and optionally an
/// object (or any object). A notification's object is a QVariant: a string, a
/// number, or a pointer wrapped with ORVNotificationObject(). Delivery is
/// synchronous on the posting thread, or asynchronous on the observer's queue
/// when one was given. An observer removed while a notification is being
/// delivered is not called afterwards, even by a post already under way.
///
/// Thread rule: any thread; callbacks run on the posting thread or on the
/// observer's queue, without the centre's lock held (they may add or remove
/// observers and post). Ownership: the centre keeps each registration, with
/// its callback and queue, until removeObserver(); dropping the token does
/// not end it. The default centre lives as long as the process.
class ORVELLAKIT_EXPORT ORVNotificationCenter {
public:
    /// Receives a notification.
    using Callback = std::function<void(const ORVNotification &)>;

    /// A centre without observers.
    ORVNotificationCenter();
    ~ORVNotificationCenter();
    ORVNotificationCenter(const ORVNotificationCenter &) = delete;
    ORVNotificationCenter &operator=(const ORVNotificationCenter &) = delete;

    /// The process's default centre.
    static ORVNotificationCenter &defaultCenter();

    /// `name` null or empty: every name. `object` invalid: any object.
    /// `queue` null: called synchronously on the posting thread.
    ORVNotificationToken addObserverForName(const QString &name, const QVariant &object,
                                            std::shared_ptr<ORVDispatchQueue> queue, Callback callback);
    /// Ends the registration: no further calls, not even of a delivery
    /// already under way or waiting on the queue. A null token is ignored.
    void removeObserver(const ORVNotificationToken &token);

    /// Calls every observer whose name and object match, in the order they
    /// registered.
    void postNotification(const ORVNotification &notification);
    /// postNotification() of a notification made of the arguments.
    void postNotificationName(const QString &name, const QVariant &object = {}, const QVariantMap &userInfo = {});

private:
    std::mutex _lock;
    std::vector<ORVNotificationToken> _observers;
};

/// A registration; removing it from its centre stops further deliveries.
///
/// Thread rule: any thread. Ownership: made by the centre, which keeps it
/// until it is removed; it holds the callback and the queue.
class ORVELLAKIT_EXPORT ORVNotificationObserver {
public:
    /// The name it observes; empty for every name.
    const QString &name() const { return _name; }
    /// False once the registration has been removed.
    bool isActive() const;

private:
    friend class ORVNotificationCenter;
    QString _name;
    QVariant _object;
    std::shared_ptr<ORVDispatchQueue> _queue;
    ORVNotificationCenter::Callback _callback;
    mutable std::mutex _activeLock;
    bool _active = true;
};
