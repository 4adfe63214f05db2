#include <OrvellaKit/ORVNotificationCenter.h>

#include <algorithm>

ORVNotificationCenter::ORVNotificationCenter() = default;
ORVNotificationCenter::~ORVNotificationCenter() = default;

ORVNotificationCenter &ORVNotificationCenter::defaultCenter()
{
    static ORVNotificationCenter *center = new ORVNotificationCenter;
    return *center;
}

bool ORVNotificationObserver::isActive() const
{
    std::lock_guard lock(_activeLock);
    return _active;
}

ORVNotificationToken ORVNotificationCenter::addObserverForName(const QString &name, const QVariant &object,
                                                               std::shared_ptr<ORVDispatchQueue> queue,
                                                               Callback callback)
{
    auto observer = std::make_shared<ORVNotificationObserver>();
    observer->_name = name;
    observer->_object = object;
    observer->_queue = std::move(queue);
    observer->_callback = std::move(callback);
    std::lock_guard lock(_lock);
    _observers.push_back(observer);
    return observer;
}

void ORVNotificationCenter::removeObserver(const ORVNotificationToken &token)
{
    if (!token)
        return;
    {
        std::lock_guard lock(token->_activeLock);
        token->_active = false;
    }
    std::lock_guard lock(_lock);
    _observers.erase(std::remove(_observers.begin(), _observers.end(), token), _observers.end());
}

void ORVNotificationCenter::postNotification(const ORVNotification &notification)
{
    std::vector<ORVNotificationToken> targets;
    {
        std::lock_guard lock(_lock);
        for (const auto &observer : _observers) {
            if (!observer->_name.isEmpty() && observer->_name != notification.name)
                continue;
            if (observer->_object.isValid() && observer->_object != notification.object)
                continue;
            targets.push_back(observer);
        }
    }
    // Called outside the lock, so callbacks may add or remove observers and
    // post further notifications.
    for (const auto &observer : targets) {
        if (!observer->isActive() || !observer->_callback)
            continue;
        if (observer->_queue) {
            observer->_queue->async([observer, notification] {
                if (observer->isActive())
                    observer->_callback(notification);
            });
        } else {
            observer->_callback(notification);
        }
    }
}

void ORVNotificationCenter::postNotificationName(const QString &name, const QVariant &object,
                                                 const QVariantMap &userInfo)
{
    postNotification(ORVNotification{name, object, userInfo});
}
