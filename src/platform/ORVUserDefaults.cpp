#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVUserDefaults.h>

#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QSettings>
#include <QThread>

namespace {

std::mutex registryLock;
std::map<QString, std::weak_ptr<ORVUserDefaults>> &registry()
{
    static std::map<QString, std::weak_ptr<ORVUserDefaults>> stores;
    return stores;
}

// The framework's own rule for the home folder: never "/", never relative
// to the working folder. Null when there is no home at all; the stores are
// then kept in memory rather than written where they do not belong.
QString configFolder()
{
    return ORVUserConfigDirectory();
}

// Registry keys of stores without a file: never an absolute path, so never
// the key of a file's store.
QString memoryKey(const QString &name)
{
    return QStringLiteral("memory:") + name;
}

// Text, whole numbers and booleans: the INI file keeps each as its own text
// form.
bool isKeptAsItsText(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QString:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Bool:
        return true;
    default:
        return false;
    }
}

// Whether a value as written and a value as read back are one setting: the
// INI file keeps numbers and booleans as text, reads a list back as a
// QStringList (one of a single element as its text, an empty one as no
// value), whatever list it was given.
bool sameSetting(const QVariant &written, const QVariant &read)
{
    if (written == read)
        return true;
    const auto isList = [](const QVariant &value) {
        return value.typeId() == QMetaType::QVariantList || value.typeId() == QMetaType::QStringList;
    };
    if (isList(written) && !isList(read)) {
        const QVariantList elements = written.toList();
        if (elements.isEmpty())
            return !read.isValid();
        if (elements.size() == 1)
            return sameSetting(elements.first(), read);
        return false;
    }
    if (isList(written) && isList(read)) {
        const QVariantList a = written.toList();
        const QVariantList b = read.toList();
        if (a.size() != b.size())
            return false;
        for (qsizetype i = 0; i < a.size(); ++i) {
            if (!sameSetting(a.at(i), b.at(i)))
                return false;
        }
        return true;
    }
    const auto isText = [](const QVariant &value) { return value.typeId() == QMetaType::QString; };
    const auto isScalar = [](const QVariant &value) {
        return isKeptAsItsText(value) || value.typeId() == QMetaType::Double || value.typeId() == QMetaType::Float;
    };
    return (isText(written) || isText(read)) && isScalar(written) && isScalar(read) &&
           written.toString() == read.toString();
}

QVariantMap readAll(QSettings &settings)
{
    QVariantMap values;
    for (const QString &key : settings.allKeys())
        values.insert(key, settings.value(key));
    return values;
}

} // namespace

std::shared_ptr<ORVUserDefaults> ORVUserDefaults::standardUserDefaults()
{
    return defaultsWithSuiteName(ORVApplicationFolderName());
}

std::shared_ptr<ORVUserDefaults> ORVUserDefaults::defaultsWithSuiteName(const QString &name)
{
    if (name.isEmpty() || name.contains(QLatin1Char('/')))
        return nullptr;
    const QString folder = configFolder();
    if (folder.isEmpty())
        return defaultsInMemory(name);
    return defaultsWithPath(QDir(folder).filePath(name + QStringLiteral(".conf")));
}

std::shared_ptr<ORVUserDefaults> ORVUserDefaults::defaultsInMemory(const QString &name)
{
    const QString key = memoryKey(name);
    std::lock_guard lock(registryLock);
    auto &slot = registry()[key];
    if (auto existing = slot.lock())
        return existing;
    qWarning("No configuration folder (no home folder and no absolute XDG_CONFIG_HOME): "
             "the settings \"%s\" are kept in memory only",
             qPrintable(name));
    std::shared_ptr<ORVUserDefaults> store(new ORVUserDefaults(QString(), key));
    slot = store;
    return store;
}

std::shared_ptr<ORVUserDefaults> ORVUserDefaults::defaultsWithPath(const QString &filePath)
{
    const QString path = QFileInfo(filePath).absoluteFilePath();
    std::lock_guard lock(registryLock);
    auto &slot = registry()[path];
    if (auto existing = slot.lock())
        return existing;
    std::shared_ptr<ORVUserDefaults> store(new ORVUserDefaults(path, path));
    slot = store;
    return store;
}

ORVUserDefaults::ORVUserDefaults(QString filePath, QString registryKey)
    : _filePath(std::move(filePath)), _registryKey(std::move(registryKey))
{
    if (_filePath.isEmpty()) {
        if (QCoreApplication *app = QCoreApplication::instance(); app && thread() != app->thread())
            moveToThread(app->thread());
        return;
    }
    QDir().mkpath(QFileInfo(_filePath).absolutePath());
    _settings = new QSettings(_filePath, QSettings::IniFormat, this);
    // QSettings writes on a later pass of the event loop; that write takes
    // the store's lock, as every other use of the settings object does.
    _settings->installEventFilter(this);
    _snapshot = readAll(*_settings);
    _watcher = new QFileSystemWatcher(this);
    // QSettings replaces the file by renaming, which ends a watch on the
    // file: the folder is watched too and the file watched again.
    _watcher->addPath(QFileInfo(_filePath).absolutePath());
    if (QFileInfo::exists(_filePath))
        _watcher->addPath(_filePath);
    connect(_watcher, &QFileSystemWatcher::fileChanged, this, &ORVUserDefaults::fileMayHaveChanged);
    connect(_watcher, &QFileSystemWatcher::directoryChanged, this, &ORVUserDefaults::fileMayHaveChanged);
    if (QCoreApplication *app = QCoreApplication::instance(); app && thread() != app->thread())
        moveToThread(app->thread());
}

ORVUserDefaults::~ORVUserDefaults()
{
    if (_settings) {
        std::lock_guard lock(_lock);
        _settings->removeEventFilter(this);
        _settings->sync();
    }
    std::lock_guard lock(registryLock);
    auto it = registry().find(_registryKey);
    if (it != registry().end() && it->second.expired())
        registry().erase(it);
}

bool ORVUserDefaults::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == _settings && event->type() == QEvent::UpdateRequest) {
        std::lock_guard lock(_lock);
        syncLocked();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

QVariant ORVUserDefaults::objectForKey(const QString &key) const
{
    std::lock_guard lock(_lock);
    const QVariant value = _settings ? _settings->value(key) : _values.value(key);
    return value.isValid() ? value : _registered.value(key);
}

std::optional<QString> ORVUserDefaults::stringForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    if (!value.isValid() || value.typeId() == QMetaType::QVariantMap || value.typeId() == QMetaType::QVariantList ||
        value.typeId() == QMetaType::QStringList)
        return std::nullopt;
    return value.toString();
}

qint64 ORVUserDefaults::integerForKey(const QString &key) const
{
    bool ok = false;
    const qint64 number = objectForKey(key).toLongLong(&ok);
    if (ok)
        return number;
    // INI files keep "3.7" as text; read it as the number it names.
    const double real = objectForKey(key).toDouble(&ok);
    return ok ? static_cast<qint64>(real) : 0;
}

double ORVUserDefaults::doubleForKey(const QString &key) const
{
    bool ok = false;
    const double number = objectForKey(key).toDouble(&ok);
    return ok ? number : 0.0;
}

bool ORVUserDefaults::boolForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString().trimmed().toLower();
        if (text == QLatin1String("true") || text == QLatin1String("yes"))
            return true;
        bool ok = false;
        const double number = text.toDouble(&ok);
        return ok && number != 0.0;
    }
    return value.toBool();
}

QStringList ORVUserDefaults::dictionaryRepresentationKeys() const
{
    std::lock_guard lock(_lock);
    QStringList keys = _settings ? _settings->allKeys() : _values.keys();
    for (auto it = _registered.begin(); it != _registered.end(); ++it) {
        if (!keys.contains(it.key()))
            keys << it.key();
    }
    return keys;
}

void ORVUserDefaults::setObject(const QVariant &value, const QString &key)
{
    if (key.isEmpty())
        return;
    std::shared_ptr<const Handlers> handlers;
    {
        std::lock_guard lock(_lock);
        if (key != _cachedHandlersKey) {
            _cachedHandlers = handlersLocked(key);
            _cachedHandlersKey = key;
        }
        handlers = _cachedHandlers;
        if (!_settings) {
            if (value.isValid())
                _values.insert(key, value);
            else
                _values.remove(key);
        } else if (value.isValid()) {
            _settings->setValue(key, value);
            if (key != _lastSetKey) {
                _setSinceSnapshot.insert(key);
                _lastSetKey = key;
            }
        } else {
            _settings->remove(key);
            _snapshot.remove(key);
            _setSinceSnapshot.remove(key);
            _lastSetKey.clear();
        }
    }
    notify(key, handlers);
}

// Before the settings object reads the file again: the values set here are
// what the file says from now on, in the form it will give them back (INI
// keeps whole numbers, booleans and text as their own text; other types are
// asked for). Done after that read, another process's value would be taken
// for ours and its change never reported.
void ORVUserDefaults::foldSetsIntoSnapshotLocked()
{
    for (const QString &key : std::as_const(_setSinceSnapshot)) {
        const QVariant value = _settings->value(key);
        if (value.isValid())
            _snapshot.insert(key, isKeptAsItsText(value) ? QVariant(value.toString()) : value);
    }
    _setSinceSnapshot.clear();
    _lastSetKey.clear();
}

void ORVUserDefaults::registerDefaults(const QVariantMap &defaults)
{
    std::lock_guard lock(_lock);
    for (auto it = defaults.begin(); it != defaults.end(); ++it)
        _registered.insert(it.key(), it.value());
}

bool ORVUserDefaults::synchronize()
{
    std::lock_guard lock(_lock);
    // A store in memory has nowhere to write to.
    if (!_settings)
        return false;
    syncLocked();
    return _settings->status() == QSettings::NoError;
}

void ORVUserDefaults::fileMayHaveChanged()
{
    if (QFileInfo::exists(_filePath) && !_watcher->files().contains(_filePath))
        _watcher->addPath(_filePath);
    QStringList changed;
    {
        std::lock_guard lock(_lock);
        foldSetsIntoSnapshotLocked();
        _settings->sync();
        const QVariantMap now = readAll(*_settings);
        for (auto it = now.begin(); it != now.end(); ++it) {
            if (!sameSetting(_snapshot.value(it.key()), it.value()))
                changed << it.key();
        }
        for (auto it = _snapshot.begin(); it != _snapshot.end(); ++it) {
            if (!now.contains(it.key()))
                changed << it.key();
        }
        _snapshot = now;
    }
    for (const QString &key : std::as_const(changed))
        notify(key);
}

std::shared_ptr<const ORVUserDefaults::Handlers> ORVUserDefaults::handlersLocked(const QString &key) const
{
    // Most stores, and most keys, have no observer.
    if (_observedKeys.load(std::memory_order_acquire) == 0)
        return nullptr;
    const auto found = _observers.constFind(key);
    return found == _observers.cend() ? nullptr : found.value();
}

// Writes the store's changes; what was set is in the snapshot first.
void ORVUserDefaults::syncLocked()
{
    foldSetsIntoSnapshotLocked();
    _settings->sync();
}

void ORVUserDefaults::notify(const QString &key)
{
    std::shared_ptr<const Handlers> handlers;
    {
        std::lock_guard lock(_lock);
        handlers = handlersLocked(key);
    }
    notify(key, handlers);
}

// Without the lock: a handler may call back into the store.
void ORVUserDefaults::notify(const QString &key, const std::shared_ptr<const Handlers> &handlers)
{
    if (!handlers)
        return;
    for (const auto &[context, handler] : *handlers)
        (*handler)(key, *this);
}

void ORVUserDefaults::addObserver(const void *context, const QString &key, ChangeHandler handler)
{
    std::lock_guard lock(_lock);
    auto &current = _observers[key];
    auto handlers = current ? std::make_shared<Handlers>(*current) : std::make_shared<Handlers>();
    auto made = std::make_shared<ChangeHandler>(std::move(handler));
    const auto same = std::find_if(handlers->begin(), handlers->end(), [&](const auto &entry) { return entry.first == context; });
    if (same != handlers->end())
        same->second = std::move(made);
    else
        handlers->emplace_back(context, std::move(made));
    current = std::move(handlers);
    _cachedHandlersKey.clear();
    _cachedHandlers.reset();
    _observedKeys.store(static_cast<int>(_observers.size()), std::memory_order_release);
}

void ORVUserDefaults::removeObserver(const void *context, const QString &key)
{
    std::lock_guard lock(_lock);
    const auto found = _observers.find(key);
    if (found == _observers.end())
        return;
    auto handlers = std::make_shared<Handlers>(*found.value());
    std::erase_if(*handlers, [&](const auto &entry) { return entry.first == context; });
    if (handlers->empty())
        _observers.erase(found);
    else
        found.value() = std::move(handlers);
    _cachedHandlersKey.clear();
    _cachedHandlers.reset();
    _observedKeys.store(static_cast<int>(_observers.size()), std::memory_order_release);
}

int ORVUserDefaults::observerCount(const QString &key) const
{
    std::lock_guard lock(_lock);
    const auto found = _observers.constFind(key);
    return found == _observers.cend() ? 0 : static_cast<int>(found.value()->size());
}
