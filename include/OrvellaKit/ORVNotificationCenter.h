#pragma once

// ORVNotificationCenter: in-process broadcast of named notifications.
//
// Observers register a callback for a name (or every name) and optionally an
// object (or any object). A notification's object is a QVariant: a string, a
// number, or a pointer wrapped with ORVNotificationObject(). Delivery is
// synchronous on the posting thread, or asynchronous on the observer's queue
// when one was given. An observer removed while a notification is being
// delivered is not called afterwards, even by a post already under way.

#include <OrvellaKit/ORVDispatchQueue.h>

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

struct ORVNotification {
    QString name;
    QVariant object;
    QVariantMap userInfo;
};

// Wraps an object's address as a notification object (identity comparison).
inline QVariant ORVNotificationObject(const void *object)
{
    return object ? QVariant::fromValue(const_cast<void *>(object)) : QVariant();
}

class ORVNotificationObserver;
using ORVNotificationToken = std::shared_ptr<ORVNotificationObserver>;

class ORVNotificationCenter {
public:
    using Callback = std::function<void(const ORVNotification &)>;

    ORVNotificationCenter();
    ~ORVNotificationCenter();
    ORVNotificationCenter(const ORVNotificationCenter &) = delete;
    ORVNotificationCenter &operator=(const ORVNotificationCenter &) = delete;

    // The process's default centre.
    static ORVNotificationCenter &defaultCenter();

    // `name` null or empty: every name. `object` invalid: any object.
    // `queue` null: called synchronously on the posting thread.
    ORVNotificationToken addObserverForName(const QString &name, const QVariant &object,
                                            std::shared_ptr<ORVDispatchQueue> queue, Callback callback);
    void removeObserver(const ORVNotificationToken &token);

    void postNotification(const ORVNotification &notification);
    void postNotificationName(const QString &name, const QVariant &object = {}, const QVariantMap &userInfo = {});

private:
    std::mutex _lock;
    std::vector<ORVNotificationToken> _observers;
};

// A registration; removing it from its centre stops further deliveries.
class ORVNotificationObserver {
public:
    const QString &name() const { return _name; }
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
