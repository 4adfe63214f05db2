#pragma once

/// \file
/// ORVDefaultsObserver: method calls on the main thread when settings keys
/// change.

#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVUserDefaults.h>

#include <QHash>
#include <QSet>
#include <QString>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <typeindex>
#include <vector>

/// One registration: a weakly held object, a method and a key.
///
/// Thread rule: any thread (its values never change); invoke() on the main
/// thread, as ORVDefaultsObserver does. Ownership: holds the object weakly and
/// the method's invoker strongly.
class ORVELLAKIT_EXPORT ORVDefaultsObserverInfo {
public:
    /// Identifies a member function across the type erasure (its type and the
    /// bytes of its pointer).
    struct Selector {
        std::type_index type = typeid(void);                   ///< The member function pointer's type.
        std::array<unsigned char, 2 * sizeof(void *)> bytes{}; ///< The pointer's bytes, zero-padded.
        /// Same type and same bytes.
        bool operator==(const Selector &) const = default;
    };
    /// Calls the method on `object` (the registered object's address).
    using Invoker = std::function<void(void *object, const QString &key, ORVUserDefaults &defaults)>;

    /// A registration of `observer` (whose address is `identity`) for `key`,
    /// calling the method `selector` stands for through `invoker`.
    static std::shared_ptr<ORVDefaultsObserverInfo> infoForObserver(std::weak_ptr<void> observer, const void *identity,
                                                                     Selector selector, QString key, Invoker invoker);

    /// The object, or null once it is gone.
    std::shared_ptr<void> observer() const { return _observer.lock(); }
    /// The object's address, for identity (valid as a number even when gone).
    const void *observerIdentity() const { return _identity; }
    /// The method.
    const Selector &selector() const { return _selector; }
    /// The key.
    const QString &key() const { return _key; }
    /// Calls the method on the object (which must be alive).
    void invoke(void *object, const QString &key, ORVUserDefaults &defaults) const { _invoker(object, key, defaults); }

private:
    ORVDefaultsObserverInfo() = default;
    std::weak_ptr<void> _observer;
    const void *_identity = nullptr;
    Selector _selector;
    QString _key;
    Invoker _invoker;
};

/// Tells objects, by a method call on the main thread, that a settings key
/// of an ORVUserDefaults store changed. There is one observer per store
/// (observerForDefaults()); it registers with the store once per key, keeps
/// for each key the (object, method) pairs interested in it with weak
/// references to the objects, and coalesces the changes of a key into one
/// delivery per pass of the main event loop.
///
/// Observing objects are owned by std::shared_ptr; their methods take no
/// argument, the key, or the key and the store:
///
/// \code
///   observer->addObserver(view, &CalendarView::reloadTheme, "Theme");
/// \endcode
///
/// The same (object, method, key) registered twice is kept once. An object
/// that is destroyed is dropped at the next delivery for its key. A method
/// may add or remove registrations of the same observer while it is being
/// called; those take effect from the next change on.
///
/// Thread rule: any thread for registrations; methods are called on the main
/// thread. Ownership: holds its store strongly and the observing objects
/// weakly; the per-store observers of observerForDefaults() live as long as
/// the process.
class ORVELLAKIT_EXPORT ORVDefaultsObserver : public std::enable_shared_from_this<ORVDefaultsObserver> {
public:
    /// observerForDefaults() of the standard store.
    static std::shared_ptr<ORVDefaultsObserver> defaultObserver();
    /// The store's observer, made on first use. A null store fails
    /// "defaults != nil".
    static std::shared_ptr<ORVDefaultsObserver> observerForDefaults(const std::shared_ptr<ORVUserDefaults> &defaults);

    /// Prefer observerForDefaults(); a null store fails "defaults != nil".
    explicit ORVDefaultsObserver(std::shared_ptr<ORVUserDefaults> defaults);
    /// Ends the observer's registrations with the store.
    ~ORVDefaultsObserver();
    ORVDefaultsObserver(const ORVDefaultsObserver &) = delete;
    ORVDefaultsObserver &operator=(const ORVDefaultsObserver &) = delete;

    /// The store it observes.
    const std::shared_ptr<ORVUserDefaults> &defaults() const { return _defaults; }

    /// Calls `method` on `object` after changes of `key`. A null object fails
    /// "observer != nil", a null method "selector != nil", a null key
    /// "key != nil".
    template <class T>
    void addObserver(const std::shared_ptr<T> &object, void (T::*method)(), const QString &key)
    {
        addInfo(object, object.get(), selectorOf(method), key,
                [method](void *o, const QString &, ORVUserDefaults &) { (static_cast<T *>(o)->*method)(); },
                method != nullptr);
    }
    /// The same, for a method that takes the key.
    template <class T>
    void addObserver(const std::shared_ptr<T> &object, void (T::*method)(const QString &), const QString &key)
    {
        addInfo(object, object.get(), selectorOf(method), key,
                [method](void *o, const QString &k, ORVUserDefaults &) { (static_cast<T *>(o)->*method)(k); },
                method != nullptr);
    }
    /// The same, for a method that takes the key and the store.
    template <class T>
    void addObserver(const std::shared_ptr<T> &object, void (T::*method)(const QString &, ORVUserDefaults &),
                     const QString &key)
    {
        addInfo(object, object.get(), selectorOf(method), key,
                [method](void *o, const QString &k, ORVUserDefaults &d) { (static_cast<T *>(o)->*method)(k, d); },
                method != nullptr);
    }

    /// Removes the object's registrations for the key (all methods), or for
    /// every key when the key is null. A null object fails "observer != nil".
    void removeObserver(const void *object, const QString &key = QString());
    /// removeObserver() of the object's address.
    template <class T>
    void removeObserver(const std::shared_ptr<T> &object, const QString &key = QString())
    {
        removeObserver(static_cast<const void *>(object.get()), key);
    }

    /// Drops the registrations whose objects are gone.
    void compact();

    /// The registry: key to its registrations (a copy).
    std::map<QString, std::vector<std::shared_ptr<ORVDefaultsObserverInfo>>> infoForKeys() const;

    /// What the store calls: a change of `keyPath` in `object` for `context`.
    void observeValueForKeyPath(const QString &keyPath, const ORVUserDefaults *object, const void *context);
    /// The delivery of a change (main thread).
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
    /// Removes the matching registrations of the key (every key when null)
    /// and ends the store registration of each key left without any.
    void removeInfosLocked(const QString &key, const std::function<bool(const ORVDefaultsObserverInfo &)> &matches);

    /// Stands for the serial queue of the registry: a lock its owner may take
    /// again, so a method called during a delivery can add or remove
    /// registrations in place.
    mutable std::recursive_mutex _observerQueue;
    std::shared_ptr<ORVUserDefaults> _defaults;
    std::map<QString, std::vector<std::shared_ptr<ORVDefaultsObserverInfo>>> _infoForKeys;
    void changeArrived(const QString &keyPath);
    void scheduleDelivery(const QString &keyPath);
    /// Per key, whether a change is on its way to the main queue (any
    /// thread). The store's handler for the key holds the same flag and
    /// reads it before anything else, so the sets that follow the first in a
    /// pass of the loop cost one atomic load here.
    std::shared_ptr<std::atomic<bool>> changePostedFlag(const QString &keyPath);
    std::mutex _changesLock;
    QHash<QString, std::shared_ptr<std::atomic<bool>>> _changeTaskPosted;
    /// Main thread only: per key, the changes seen and the delivery waiting.
    struct PendingDelivery {
        quint64 changes = 0;
        quint64 seen = 0;
        bool scheduled = false;
    };
    QHash<QString, PendingDelivery> _pendingDeliveries;
};
