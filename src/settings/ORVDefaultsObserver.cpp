#include <OrvellaKit/ORVDefaultsObserver.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>

#include <QTimer>

namespace {

constexpr const char *kFile = "ORVDefaultsObserver";
constexpr const char *kClass = "ORVDefaultsObserver";

// Stores to their observers. The observer holds its store, so an entry
// lives as long as the process, as the store does; the table is never
// destroyed, so nothing is torn down in an unknown order at exit.
std::mutex registryLock;
using Registry =
    std::map<const ORVUserDefaults *, std::pair<std::weak_ptr<ORVUserDefaults>, std::shared_ptr<ORVDefaultsObserver>>>;
Registry &registry()
{
    static auto *observers = new Registry();
    return *observers;
}

} // namespace

std::shared_ptr<ORVDefaultsObserverInfo> ORVDefaultsObserverInfo::infoForObserver(std::weak_ptr<void> observer,
                                                                                  const void *identity,
                                                                                  Selector selector, QString key,
                                                                                  Invoker invoker)
{
    std::shared_ptr<ORVDefaultsObserverInfo> info(new ORVDefaultsObserverInfo());
    info->_observer = std::move(observer);
    info->_identity = identity;
    info->_selector = selector;
    info->_key = std::move(key);
    info->_invoker = std::move(invoker);
    return info;
}

std::shared_ptr<ORVDefaultsObserver> ORVDefaultsObserver::defaultObserver()
{
    return observerForDefaults(ORVUserDefaults::standardUserDefaults());
}

std::shared_ptr<ORVDefaultsObserver>
ORVDefaultsObserver::observerForDefaults(const std::shared_ptr<ORVUserDefaults> &defaults)
{
    if (!ORVMethodParameterAssert(defaults != nullptr, "defaults != nil", "observerForDefaults:", kClass, kFile))
        return nullptr;
    std::lock_guard lock(registryLock);
    auto &slot = registry()[defaults.get()];
    if (!slot.second || slot.first.lock() != defaults)
        slot = {defaults, std::make_shared<ORVDefaultsObserver>(defaults)};
    return slot.second;
}

ORVDefaultsObserver::ORVDefaultsObserver(std::shared_ptr<ORVUserDefaults> defaults) : _defaults(std::move(defaults))
{
    ORVMethodParameterAssert(_defaults != nullptr, "defaults != nil", "initWithDefaults:", kClass, kFile);
}

ORVDefaultsObserver::~ORVDefaultsObserver()
{
    std::lock_guard lock(_observerQueue);
    if (_defaults) {
        for (const auto &[key, infos] : _infoForKeys)
            _defaults->removeObserver(this, key);
    }
}

void ORVDefaultsObserver::addInfo(std::weak_ptr<void> object, const void *identity,
                                  ORVDefaultsObserverInfo::Selector selector, const QString &key,
                                  ORVDefaultsObserverInfo::Invoker invoker, bool hasSelector)
{
    constexpr const char *method = "addObserver:selector:forKey:";
    if (!ORVMethodParameterAssert(identity != nullptr, "observer != nil", method, kClass, kFile) ||
        !ORVMethodParameterAssert(hasSelector, "selector != nil", method, kClass, kFile) ||
        !ORVMethodParameterAssert(!key.isNull(), "key != nil", method, kClass, kFile) || !_defaults)
        return;
    std::lock_guard lock(_observerQueue);
    auto &infos = _infoForKeys[key];
    for (const auto &info : infos) {
        if (info->observerIdentity() == identity && info->selector() == selector && info->key() == key)
            return;
    }
    if (infos.empty()) {
        std::weak_ptr<ORVDefaultsObserver> weakSelf = weak_from_this();
        const void *context = this;
        auto posted = changePostedFlag(key);
        _defaults->addObserver(this, key, [weakSelf, context, posted](const QString &changed, ORVUserDefaults &store) {
            if (posted->load(std::memory_order_acquire))
                return; // the change on its way covers this one
            if (auto self = weakSelf.lock())
                self->observeValueForKeyPath(changed, &store, context);
        });
    }
    infos.push_back(ORVDefaultsObserverInfo::infoForObserver(std::move(object), identity, selector, key,
                                                             std::move(invoker)));
}

void ORVDefaultsObserver::removeObserver(const void *object, const QString &key)
{
    if (!ORVMethodParameterAssert(object != nullptr, "observer != nil", "removeObserver:forKey:", kClass, kFile))
        return;
    std::lock_guard lock(_observerQueue);
    removeInfosLocked(key, [object](const ORVDefaultsObserverInfo &info) { return info.observerIdentity() == object; });
}

void ORVDefaultsObserver::compact()
{
    std::lock_guard lock(_observerQueue);
    removeInfosLocked(QString(), [](const ORVDefaultsObserverInfo &info) { return info.observer() == nullptr; });
}

void ORVDefaultsObserver::removeInfosLocked(const QString &key,
                                            const std::function<bool(const ORVDefaultsObserverInfo &)> &matches)
{
    QStringList emptied;
    for (auto &[k, infos] : _infoForKeys) {
        // A key whose set was already empty is left alone.
        if ((!key.isNull() && k != key) || infos.empty())
            continue;
        std::erase_if(infos, [&](const auto &info) { return matches(*info); });
        if (infos.empty())
            emptied << k;
    }
    // A key is registered with the store exactly while its set has entries.
    for (const QString &k : emptied) {
        _infoForKeys.erase(k);
        if (_defaults)
            _defaults->removeObserver(this, k);
    }
}

std::map<QString, std::vector<std::shared_ptr<ORVDefaultsObserverInfo>>> ORVDefaultsObserver::infoForKeys() const
{
    std::lock_guard lock(_observerQueue);
    return _infoForKeys;
}

void ORVDefaultsObserver::observeValueForKeyPath(const QString &keyPath, const ORVUserDefaults *object,
                                                 const void *context)
{
    if (object != _defaults.get() || context != this || keyPath.isNull())
        return;
    // One main-queue task per key at a time: changes that come while one is
    // waiting are already covered by it.
    if (changePostedFlag(keyPath)->exchange(true, std::memory_order_acq_rel))
        return;
    std::weak_ptr<ORVDefaultsObserver> weakSelf = weak_from_this();
    ORVDispatchQueue::mainQueue()->async([weakSelf, keyPath] {
        if (auto self = weakSelf.lock())
            self->changeArrived(keyPath);
    });
}

std::shared_ptr<std::atomic<bool>> ORVDefaultsObserver::changePostedFlag(const QString &keyPath)
{
    std::lock_guard lock(_changesLock);
    auto &flag = _changeTaskPosted[keyPath];
    if (!flag)
        flag = std::make_shared<std::atomic<bool>>(false);
    return flag;
}

void ORVDefaultsObserver::changeArrived(const QString &keyPath)
{
    changePostedFlag(keyPath)->store(false, std::memory_order_release);
    PendingDelivery &pending = _pendingDeliveries[keyPath];
    ++pending.changes;
    if (!pending.scheduled) {
        pending.scheduled = true;
        scheduleDelivery(keyPath);
    }
}

// The delivery waits for a pass of the main loop that brought no further
// change of the key: what the cancel-and-reschedule of a zero-delay call
// does, with one timer per key instead of one per change.
void ORVDefaultsObserver::scheduleDelivery(const QString &keyPath)
{
    _pendingDeliveries[keyPath].seen = _pendingDeliveries[keyPath].changes;
    std::weak_ptr<ORVDefaultsObserver> weakSelf = weak_from_this();
    QTimer::singleShot(0, [weakSelf, keyPath] {
        auto self = weakSelf.lock();
        if (!self)
            return;
        const auto found = self->_pendingDeliveries.find(keyPath);
        if (found == self->_pendingDeliveries.end())
            return;
        if (found->changes != found->seen)
            return self->scheduleDelivery(keyPath);
        self->_pendingDeliveries.erase(found);
        self->observedKeyPathDidChange(keyPath);
    });
}

void ORVDefaultsObserver::observedKeyPathDidChange(const QString &keyPath)
{
    if (!ORVMethodParameterAssert(!keyPath.isNull(), "keyPath != nil", "observedKeyPathDidChange:", kClass, kFile))
        return;
    bool needsCompaction = false;
    {
        std::lock_guard lock(_observerQueue);
        const auto found = _infoForKeys.find(keyPath);
        const auto infos = found == _infoForKeys.end() ? std::vector<std::shared_ptr<ORVDefaultsObserverInfo>>()
                                                       : found->second;
        for (const auto &info : infos) {
            const auto object = info->observer();
            if (!object) {
                needsCompaction = true;
                continue;
            }
            info->invoke(object.get(), keyPath, *_defaults);
        }
    }
    if (needsCompaction)
        compact();
}
