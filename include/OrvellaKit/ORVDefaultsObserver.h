#pragma once

// ORVDefaultsObserver: tells objects, by a method call on the main thread,
// that a settings key of an ORVUserDefaults store changed. There is one
// observer per store (observerForDefaults()); it registers with the store
// once per key, keeps for each key the (object, method) pairs interested in
// it with weak references to the objects, and coalesces the changes of a key
// into one delivery per pass of the main event loop.
//
// Observing objects are owned by std::shared_ptr; their methods take no
// argument, the key, or the key and the store:
//
//   observer->addObserver(view, &CalendarView::reloadTheme, "Theme");
//
// The same (object, method, key) registered twice is kept once. An object
// that is destroyed is dropped at the next delivery for its key. A method
// may add or remove registrations of the same observer while it is being
// called; those take effect from the next change on.

#include <OrvellaKit/ORVUserDefaults.h>

#include <QHash>
#include <QSet>
#include <QString>

#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <typeindex>
#include <vector>

// One registration: a weakly held object, a method and a key.
class ORVDefaultsObserverInfo {
public:
    // Identifies a member function across the type erasure (its type and the
    // bytes of its pointer).
    struct Selector {
        std::type_index type = typeid(void);
        std::array<unsigned char, 2 * sizeof(void *)> bytes{};
        bool operator==(const Selector &) const = default;
    };
    using Invoker = std::function<void(void *object, const QString &key, ORVUserDefaults &defaults)>;

    static std::shared_ptr<ORVDefaultsObserverInfo> infoForObserver(std::weak_ptr<void> observer, const void *identity,
                                                                     Selector selector, QString key, Invoker invoker);

    // The object, or null once it is gone.
    std::shared_ptr<void> observer() const { return _observer.lock(); }
    // The object's address, for identity (valid as a number even when gone).
    const void *observerIdentity() const { return _identity; }
    const Selector &selector() const { return _selector; }
    const QString &key() const { return _key; }
    // Calls the method on the object (which must be alive).
    void invoke(void *object, const QString &key, ORVUserDefaults &defaults) const { _invoker(object, key, defaults); }

private:
    ORVDefaultsObserverInfo() = default;
    std::weak_ptr<void> _observer;
    const void *_identity = nullptr;
    Selector _selector;
    QString _key;
    Invoker _invoker;
};

class ORVDefaultsObserver : public std::enable_shared_from_this<ORVDefaultsObserver> {
public:
    // observerForDefaults() of the standard store.
    static std::shared_ptr<ORVDefaultsObserver> defaultObserver();
    // The store's observer, made on first use. A null store fails
    // "defaults != nil".
    static std::shared_ptr<ORVDefaultsObserver> observerForDefaults(const std::shared_ptr<ORVUserDefaults> &defaults);

    // Prefer observerForDefaults(); a null store fails "defaults != nil".
    explicit ORVDefaultsObserver(std::shared_ptr<ORVUserDefaults> defaults);
    ~ORVDefaultsObserver();
    ORVDefaultsObserver(const ORVDefaultsObserver &) = delete;
    ORVDefaultsObserver &operator=(const ORVDefaultsObserver &) = delete;

    const std::shared_ptr<ORVUserDefaults> &defaults() const { return _defaults; }

    template <class T>
    void addObserver(const std::shared_ptr<T> &object, void (T::*method)(), const QString &key)
    {
        addInfo(object, object.get(), selectorOf(method), key,
                [method](void *o, const QString &, ORVUserDefaults &) { (static_cast<T *>(o)->*method)(); },
                method != nullptr);
    }
    template <class T>
    void addObserver(const std::shared_ptr<T> &object, void (T::*method)(const QString &), const QString &key)
    {
        addInfo(object, object.get(), selectorOf(method), key,
                [method](void *o, const QString &k, ORVUserDefaults &) { (static_cast<T *>(o)->*method)(k); },
                method != nullptr);
    }
    template <class T>
    void addObserver(const std::shared_ptr<T> &object, void (T::*method)(const QString &, ORVUserDefaults &),
                     const QString &key)
    {
        addInfo(object, object.get(), selectorOf(method), key,
                [method](void *o, const QString &k, ORVUserDefaults &d) { (static_cast<T *>(o)->*method)(k, d); },
                method != nullptr);
    }

    // Removes the object's registrations for the key (all methods), or for
    // every key when the key is null. A null object fails "observer != nil".
    void removeObserver(const void *object, const QString &key = QString());
    template <class T>
    void removeObserver(const std::shared_ptr<T> &object, const QString &key = QString())
    {
        removeObserver(static_cast<const void *>(object.get()), key);
    }

    // Drops the registrations whose objects are gone.
    void compact();

    // The registry: key to its registrations (a copy).
    std::map<QString, std::vector<std::shared_ptr<ORVDefaultsObserverInfo>>> infoForKeys() const;

    // What the store calls: a change of `keyPath` in `object` for `context`.
    void observeValueForKeyPath(const QString &keyPath, const ORVUserDefaults *object, const void *context);
    // The delivery of a change (main thread).
    void observedKeyPathDidChange(const QString &keyPath);

private:
    template <class M>
    static ORVDefaultsObserverInfo::Selector selectorOf(M method)
    {
        static_assert(sizeof(M) <= sizeof(ORVDefaultsObserverInfo::Selector{}.bytes));
        ORVDefaultsObserverInfo::Selector selector;
        selector.type = typeid(M);
        std::memcpy(selector.bytes.data(), &method, sizeof(M));
        return selector;
    }
    void addInfo(std::weak_ptr<void> object, const void *identity, ORVDefaultsObserverInfo::Selector selector,
                 const QString &key, ORVDefaultsObserverInfo::Invoker invoker, bool hasSelector);
    // Removes the matching registrations of the key (every key when null)
    // and ends the store registration of each key left without any.
    void removeInfosLocked(const QString &key, const std::function<bool(const ORVDefaultsObserverInfo &)> &matches);

    // Stands for the serial queue of the registry: a lock its owner may take
    // again, so a method called during a delivery can add or remove
    // registrations in place.
    mutable std::recursive_mutex _observerQueue;
    std::shared_ptr<ORVUserDefaults> _defaults;
    std::map<QString, std::vector<std::shared_ptr<ORVDefaultsObserverInfo>>> _infoForKeys;
    void changeArrived(const QString &keyPath);
    void scheduleDelivery(const QString &keyPath);
    // Keys with a change on its way to the main queue (any thread).
    std::mutex _changesLock;
    QSet<QString> _changeTaskPosted;
    // Main thread only: per key, the changes seen and the delivery waiting.
    struct PendingDelivery {
        quint64 changes = 0;
        quint64 seen = 0;
        bool scheduled = false;
    };
    QHash<QString, PendingDelivery> _pendingDeliveries;
};
