#include <OrvellaKit/ORVDistributedNotificationCenter.h>

#include <OrvellaKit/ORVLogging.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QThread>

#include <algorithm>

ORV_LOG_FILE(nullptr)

namespace {
const QString kPath = QStringLiteral("/com/orvella/OrvellaKit/DistributedNotifications");
const QString kInterface = QStringLiteral("com.orvella.OrvellaKit.DistributedNotifications");
const QString kSignal = QStringLiteral("Notification");
} // namespace

// Receives the bus's signals on the main thread.
class ORVDistributedNotificationRelay : public QObject {
    Q_OBJECT
public:
    explicit ORVDistributedNotificationRelay(ORVDistributedNotificationCenter *center) : _center(center) {}

public slots:
    void deliver(const QString &name, const QString &object) { _center->deliver(name, object); }

private:
    ORVDistributedNotificationCenter *_center;
};

ORVDistributedNotificationCenter::ORVDistributedNotificationCenter()
{
    orvRegisterFileLogLevel();
}

ORVDistributedNotificationCenter &ORVDistributedNotificationCenter::defaultCenter()
{
    // Never destroyed: observers may be removed by objects torn down late.
    static auto *center = new ORVDistributedNotificationCenter;
    return *center;
}

bool ORVDistributedNotificationCenter::isConnected() const
{
    return QDBusConnection::sessionBus().isConnected();
}

ORVDistributedNotificationToken ORVDistributedNotificationCenter::addObserverForName(const QString &name,
                                                                                      const QString &object,
                                                                                      Callback callback)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        ORVLogWarn("No D-Bus session bus: notifications from other processes (%@) are not received", name);
        return nullptr;
    }
    std::lock_guard guard(_lock);
    if (!_listening) {
        auto *relay = new ORVDistributedNotificationRelay(this);
        if (QCoreApplication *app = QCoreApplication::instance())
            relay->moveToThread(app->thread());
        _listening = bus.connect(QString(), kPath, kInterface, kSignal, relay, SLOT(deliver(QString, QString)));
        if (!_listening) {
            ORVLogWarn("Could not listen to notifications on the session bus: %@", bus.lastError().message());
            relay->deleteLater();
            return nullptr;
        }
    }
    auto observer = std::make_shared<ORVDistributedNotificationObserver>();
    observer->_name = name;
    observer->_object = object;
    observer->_callback = std::move(callback);
    _observers.push_back(observer);
    return observer;
}

void ORVDistributedNotificationCenter::removeObserver(const ORVDistributedNotificationToken &token)
{
    std::lock_guard guard(_lock);
    _observers.erase(std::remove(_observers.begin(), _observers.end(), token), _observers.end());
}

bool ORVDistributedNotificationCenter::postNotificationName(const QString &name, const QString &object)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        ORVLogWarn("No D-Bus session bus: the notification %@ was not sent", name);
        return false;
    }
    QDBusMessage signal = QDBusMessage::createSignal(kPath, kInterface, kSignal);
    signal << name << object;
    return bus.send(signal);
}

void ORVDistributedNotificationCenter::deliver(const QString &name, const QString &object)
{
    std::vector<ORVDistributedNotificationToken> observers;
    {
        std::lock_guard guard(_lock);
        observers = _observers;
    }
    for (const auto &observer : observers) {
        if (observer->_name != name || (!observer->_object.isNull() && observer->_object != object))
            continue;
        {
            // An observer removed by an earlier callback is not called.
            std::lock_guard guard(_lock);
            if (std::find(_observers.begin(), _observers.end(), observer) == _observers.end())
                continue;
        }
        observer->_callback(name, object);
    }
}

#include "ORVDistributedNotificationCenter.moc"
