#include <OrvellaKit/ORVDefaultsNotificationManager.h>
#include <OrvellaKit/ORVException.h>

namespace {

constexpr const char *kFile = "ORVDefaultsNotificationManager";
constexpr const char *kClass = "ORVDefaultsNotificationManager";

// Never destroyed: managers live as long as the process, and tearing them
// down at exit would reach into observers already gone.
std::mutex registryLock;
std::map<const ORVUserDefaults *, std::shared_ptr<ORVDefaultsNotificationManager>> &registry()
{
    static auto *managers = new std::map<const ORVUserDefaults *, std::shared_ptr<ORVDefaultsNotificationManager>>();
    return *managers;
}

} // namespace

std::shared_ptr<ORVDefaultsNotificationManager> ORVDefaultsNotificationManager::defaultManager()
{
    return managerForDefaults(ORVUserDefaults::standardUserDefaults());
}

std::shared_ptr<ORVDefaultsNotificationManager>
ORVDefaultsNotificationManager::managerForDefaults(const std::shared_ptr<ORVUserDefaults> &defaults)
{
    if (!ORVMethodParameterAssert(defaults != nullptr, "defaults != nil", "managerForDefaults:", kClass, kFile))
        return nullptr;
    std::lock_guard lock(registryLock);
    auto &slot = registry()[defaults.get()];
    // The manager holds its store, so the entry stays valid.
    if (!slot || slot->defaults() != defaults)
        slot = std::make_shared<ORVDefaultsNotificationManager>(&ORVNotificationCenter::defaultCenter(), defaults);
    return slot;
}

ORVDefaultsNotificationManager::ORVDefaultsNotificationManager(ORVNotificationCenter *notificationCenter,
                                                               std::shared_ptr<ORVUserDefaults> defaults)
    : _notificationCenter(notificationCenter), _defaults(std::move(defaults))
{
    constexpr const char *method = "initWithNotificationCenter:defaults:";
    ORVMethodParameterAssert(_notificationCenter != nullptr, "notificationCenter != nil", method, kClass, kFile);
    ORVMethodParameterAssert(_defaults != nullptr, "defaults != nil", method, kClass, kFile);
    _notificationNames.reserve(10);
}

ORVDefaultsNotificationManager::~ORVDefaultsNotificationManager()
{
    if (_defaults)
        ORVDefaultsObserver::observerForDefaults(_defaults)->removeObserver(static_cast<const void *>(this));
}

QHash<QString, QSet<QString>> ORVDefaultsNotificationManager::notificationNames() const
{
    std::lock_guard lock(_namesLock);
    return _notificationNames;
}

void ORVDefaultsNotificationManager::registerNotificationName(const QString &notificationName, const QString &key)
{
    constexpr const char *method = "registerNotificationName:forKey:";
    if (!ORVMethodParameterAssert(!notificationName.isEmpty(), "[notificationName length] > 0", method, kClass, kFile) ||
        !ORVMethodParameterAssert(!key.isEmpty(), "[key length] > 0", method, kClass, kFile))
        return;
    registerNotificationName(notificationName, QStringList{key});
}

void ORVDefaultsNotificationManager::registerNotificationName(const QString &notificationName, const QStringList &keys)
{
    constexpr const char *method = "registerNotificationName:forKeys:";
    if (!ORVMethodParameterAssert(!notificationName.isEmpty(), "[notificationName length] > 0", method, kClass, kFile) ||
        !_defaults)
        return;
    std::lock_guard lock(_registrationLock);
    for (const QString &key : keys) {
        bool wasEmpty = false;
        {
            std::lock_guard names(_namesLock);
            QSet<QString> &set = _notificationNames[key];
            wasEmpty = set.isEmpty();
            set.insert(notificationName);
        }
        if (wasEmpty)
            ORVDefaultsObserver::observerForDefaults(_defaults)->addObserver(
                shared_from_this(), &ORVDefaultsNotificationManager::defaultsDidChangeForKey, key);
    }
}

void ORVDefaultsNotificationManager::deregisterNotificationName(const QString &notificationName, const QString &key)
{
    constexpr const char *method = "deregisterNotificationName:forKey:";
    if (!ORVMethodParameterAssert(!notificationName.isEmpty(), "[notificationName length] > 0", method, kClass, kFile) ||
        !ORVMethodParameterAssert(!key.isEmpty(), "[key length] > 0", method, kClass, kFile))
        return;
    deregisterNotificationName(notificationName, QStringList{key});
}

void ORVDefaultsNotificationManager::deregisterNotificationName(const QString &notificationName,
                                                                const QStringList &keys)
{
    constexpr const char *method = "deregisterNotificationName:forKeys:";
    if (!ORVMethodParameterAssert(!notificationName.isEmpty(), "[notificationName length] > 0", method, kClass, kFile) ||
        !_defaults)
        return;
    std::lock_guard lock(_registrationLock);
    for (const QString &key : keys) {
        bool emptied = false;
        {
            std::lock_guard names(_namesLock);
            const auto found = _notificationNames.find(key);
            if (found == _notificationNames.end())
                continue;
            found->remove(notificationName);
            emptied = found->isEmpty();
            if (emptied)
                _notificationNames.erase(found);
        }
        if (emptied)
            ORVDefaultsObserver::observerForDefaults(_defaults)->removeObserver(static_cast<const void *>(this), key);
    }
}

void ORVDefaultsNotificationManager::defaultsDidChangeForKey(const QString &key)
{
    if (key.isNull())
        return;
    QSet<QString> names;
    {
        // Registration may come from another thread: the table is read
        // under its own short lock (never the registration lock, which is
        // held while calling into the observer that is delivering now).
        std::lock_guard lock(_namesLock);
        names = _notificationNames.value(key);
    }
    for (const QString &name : names)
        ORVNotificationCenter::defaultCenter().postNotificationName(name, ORVNotificationObject(this));
}
