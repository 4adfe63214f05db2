#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace {

std::mutex defaultStoreLock;
std::shared_ptr<ORVUbiquitousKeyValueStore> installedStore;

// Bytes are kept as {"data": "<base64>"} so they read back as bytes.
const QString kDataTag = QStringLiteral("data");

QJsonValue toJson(const QVariant &value)
{
    if (value.typeId() == QMetaType::QByteArray)
        return QJsonObject{{kDataTag, QString::fromLatin1(value.toByteArray().toBase64())}};
    return QJsonValue::fromVariant(value);
}

QVariant fromJson(const QJsonValue &value)
{
    if (value.isObject()) {
        const QJsonValue data = value.toObject().value(kDataTag);
        if (data.isString())
            return QByteArray::fromBase64(data.toString().toLatin1());
        return QVariant();
    }
    if (value.isDouble()) {
        const double number = value.toDouble();
        if (number == static_cast<double>(static_cast<qint64>(number)))
            return static_cast<qint64>(number);
        return number;
    }
    if (value.isString() || value.isBool())
        return value.toVariant();
    return QVariant();
}

bool storable(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QString:
    case QMetaType::QByteArray:
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

} // namespace

ORVUbiquitousKeyValueStore::~ORVUbiquitousKeyValueStore() = default;

std::shared_ptr<ORVUbiquitousKeyValueStore> ORVUbiquitousKeyValueStore::defaultStore()
{
    std::lock_guard lock(defaultStoreLock);
    if (!installedStore)
        installedStore = std::make_shared<ORVLocalKeyValueStore>();
    return installedStore;
}

void ORVUbiquitousKeyValueStore::setDefaultStore(std::shared_ptr<ORVUbiquitousKeyValueStore> store)
{
    std::lock_guard lock(defaultStoreLock);
    installedStore = std::move(store);
}

std::optional<QString> ORVUbiquitousKeyValueStore::stringForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    return value.typeId() == QMetaType::QString ? std::optional(value.toString()) : std::nullopt;
}

std::optional<QByteArray> ORVUbiquitousKeyValueStore::dataForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    return value.typeId() == QMetaType::QByteArray ? std::optional(value.toByteArray()) : std::nullopt;
}

std::optional<qint64> ORVUbiquitousKeyValueStore::longLongForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    switch (value.typeId()) {
    case QMetaType::LongLong:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Bool:
        return value.toLongLong();
    default:
        return std::nullopt;
    }
}

ORVLocalKeyValueStore::ORVLocalKeyValueStore(QString filePath) : _filePath(std::move(filePath))
{
    if (_filePath.isEmpty()) {
        const QString folder = ORVApplicationSupportDirectory();
        if (!folder.isEmpty())
            _filePath = QDir(folder).filePath(QStringLiteral("UbiquitousKeyValueStore.json"));
    }
    // Without a data folder the values live in memory only, never in a
    // file relative to the working folder.
    if (_filePath.isEmpty())
        return;
    QFile file(_filePath);
    if (!file.exists())
        return;
    if (!file.open(QIODevice::ReadOnly)) {
        _unreadable = true;
        return;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.read(16 * 1024 * 1024), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        _unreadable = true;
        return;
    }
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QVariant value = fromJson(it.value());
        if (value.isValid())
            _values.insert(it.key(), value);
    }
}

QVariant ORVLocalKeyValueStore::objectForKey(const QString &key) const
{
    std::lock_guard lock(_lock);
    return _values.value(key);
}

void ORVLocalKeyValueStore::setObject(const QVariant &value, const QString &key)
{
    std::lock_guard lock(_lock);
    if (!value.isValid())
        _values.remove(key);
    else if (storable(value))
        _values.insert(key, value);
    else
        return; // not a value this store keeps
    _dirty = true;
    writeLocked();
}

bool ORVLocalKeyValueStore::synchronize()
{
    std::lock_guard lock(_lock);
    return !_dirty || writeLocked();
}

bool ORVLocalKeyValueStore::writeLocked()
{
    if (_filePath.isEmpty())
        return false;
    QDir().mkpath(QFileInfo(_filePath).absolutePath());
    if (_unreadable) {
        const QString aside = _filePath + QStringLiteral(".unreadable");
        QFile::remove(aside);
        if (!QFile::rename(_filePath, aside))
            return false; // keep the file; try again on the next change
        _unreadable = false;
    }
    QJsonObject object;
    for (auto it = _values.cbegin(); it != _values.cend(); ++it)
        object.insert(it.key(), toJson(it.value()));
    QSaveFile file(_filePath);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(QJsonDocument(object).toJson(QJsonDocument::Indented));
    if (!file.commit())
        return false;
    _dirty = false;
    return true;
}
