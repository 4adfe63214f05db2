#include <OrvellaKit/ORVDistributedNotificationCenter.h>

#include <OrvellaKit/ORVLogging.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDBusMessage>
#include <QObject>
#include <QThread>

#include <algorithm>
#include <optional>

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

public Q_SLOTS:
    // The message names its sender's unique bus name, which the bus daemon
    // can map to a process.
    void deliver(const QString &name, const QString &object, const QDBusMessage &message)
    {
        _center->deliver(name, object, message.service());
    }

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
    return addObserver(
        name, object, [callback = std::move(callback)](const QString &n, const QString &o, qint64) { callback(n, o); },
        false);
}

ORVDistributedNotificationToken ORVDistributedNotificationCenter::addObserverWithSenderForName(const QString &name,
                                                                                                const QString &object,
                                                                                                SenderCallback callback)
{
    return addObserver(name, object, std::move(callback), true);
}

ORVDistributedNotificationToken ORVDistributedNotificationCenter::addObserver(const QString &name,
                                                                              const QString &object,
                                                                              SenderCallback callback, bool wantsSender)
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
        _listening = bus.connect(QString(), kPath, kInterface, kSignal, relay,
                                 SLOT(deliver(QString, QString, QDBusMessage)));
        if (!_listening) {
            ORVLogWarn("Could not listen to notifications on the session bus: %@", bus.lastError().message());
            relay->deleteLater();
            return nullptr;
        }
        // Lives as long as the centre, which is never destroyed.
        _relay = relay;
    }
    auto observer = std::make_shared<ORVDistributedNotificationObserver>();
    observer->_name = name;
    observer->_object = object;
    observer->_callback = std::move(callback);
    observer->_wantsSender = wantsSender;
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

void ORVDistributedNotificationCenter::deliver(const QString &name, const QString &object, const QString &sender)
{
    // Asked of the bus daemon only for an observer that wants it, once.
    std::optional<qint64> senderProcess;
    const auto senderProcessIdentifier = [&]() -> qint64 {
        if (!senderProcess) {
            senderProcess = -1;
            const QDBusConnection bus = QDBusConnection::sessionBus();
            if (!sender.isEmpty() && bus.isConnected() && bus.interface()) {
                const QDBusReply<uint> pid = bus.interface()->servicePid(sender);
                if (pid.isValid())
                    senderProcess = static_cast<qint64>(pid.value());
            }
        }
        return *senderProcess;
    };
    std::vector<ORVDistributedNotificationToken> observers;
    {
        std::lock_guard guard(_lock);
        observers = _observers;
    }
    for (const auto &observer : observers) {
        if (observer->_name != name || (!observer->_object.isNull() && observer->_object != object))
            continue;
        // Asked before the check below: the bus daemon's answer takes a
        // moment, in which the observer may go.
        const qint64 senderProcess = observer->_wantsSender ? senderProcessIdentifier() : -1;
        {
            // An observer removed by an earlier callback is not called.
            std::lock_guard guard(_lock);
            if (std::find(_observers.begin(), _observers.end(), observer) == _observers.end())
                continue;
        }
        observer->_callback(name, object, senderProcess);
    }
}

#include "ORVDistributedNotificationCenter.moc"
