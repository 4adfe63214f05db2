#include "ORVURLCache.h"

#include <QNetworkDiskCache>

namespace orv::detail {

namespace {
// A reply may fill at most this share of a tier.
constexpr qint64 kEntryShareDivisor = 20;
} // namespace

ORVURLCache::ORVURLCache(qint64 memoryCapacity, qint64 diskCapacity, const QString &diskFolder, QObject *parent)
    : QAbstractNetworkCache(parent), _memoryCapacity(qMax<qint64>(0, memoryCapacity)),
      _diskCapacity(diskFolder.isEmpty() ? 0 : qMax<qint64>(0, diskCapacity))
{
    if (_diskCapacity > 0) {
        _disk = new QNetworkDiskCache(this);
        _disk->setCacheDirectory(diskFolder);
        _disk->setMaximumCacheSize(_diskCapacity);
    }
}

ORVURLCache::~ORVURLCache()
{
    for (auto &[metaData, buffer] : _pending)
        delete buffer;
}

qint64 ORVURLCache::announcedLength(const QNetworkCacheMetaData &metaData)
{
    const auto headers = metaData.rawHeaders();
    for (const auto &[name, value] : headers) {
        if (name.compare("content-length", Qt::CaseInsensitive) == 0) {
            bool ok = false;
            const qint64 length = value.trimmed().toLongLong(&ok);
            return ok ? length : -1;
        }
    }
    return -1;
}

QNetworkCacheMetaData ORVURLCache::metaData(const QUrl &url)
{
    if (const auto it = _index.constFind(url); it != _index.constEnd())
        return (*it)->metaData;
    return _disk ? _disk->metaData(url) : QNetworkCacheMetaData();
}

void ORVURLCache::updateMetaData(const QNetworkCacheMetaData &metaData)
{
    if (const auto it = _index.constFind(metaData.url()); it != _index.constEnd()) {
        (*it)->metaData = metaData;
        return;
    }
    if (_disk)
        _disk->updateMetaData(metaData);
}

QIODevice *ORVURLCache::data(const QUrl &url)
{
    if (const auto it = _index.constFind(url); it != _index.constEnd()) {
        _entries.splice(_entries.begin(), _entries, *it);
        auto *buffer = new QBuffer();
        buffer->setData(_entries.front().body);
        buffer->open(QIODevice::ReadOnly);
        return buffer; // the caller owns it
    }
    return _disk ? _disk->data(url) : nullptr;
}

bool ORVURLCache::remove(const QUrl &url)
{
    // A reply that failed is removed instead of inserted, and its buffer
    // goes with it; like QNetworkDiskCache, only the first one for the URL.
    dropPending(url, true);
    const bool inMemory = removeFromMemory(url);
    const bool onDisk = _disk && _disk->remove(url);
    return inMemory || onDisk;
}

qint64 ORVURLCache::diskCacheSize() const
{
    return _disk ? _disk->cacheSize() : 0;
}

qint64 ORVURLCache::cacheSize() const
{
    return _memoryUsed + diskCacheSize();
}

QIODevice *ORVURLCache::prepare(const QNetworkCacheMetaData &metaData)
{
    if (!metaData.isValid() || !metaData.url().isValid() || !metaData.saveToDisk())
        return nullptr;
    const qint64 limit = qMax(_memoryCapacity, _diskCapacity) / kEntryShareDivisor;
    if (limit == 0 || announcedLength(metaData) > limit)
        return nullptr;
    auto *buffer = new QBuffer();
    buffer->open(QIODevice::ReadWrite);
    _pending.insert(buffer, {metaData, buffer});
    return buffer;
}

void ORVURLCache::insert(QIODevice *device)
{
    const auto it = _pending.find(device);
    if (it == _pending.end())
        return;
    const QNetworkCacheMetaData metaData = it->first;
    QBuffer *buffer = it->second;
    _pending.erase(it);
    const QByteArray body = buffer->data();
    delete buffer;
    if (!metaData.saveToDisk()) // cleared while it was being received
        return;

    // An older copy in either tier.
    removeFromMemory(metaData.url());
    if (_disk)
        _disk->remove(metaData.url());
    const qint64 size = body.size();
    if (size <= _memoryCapacity / kEntryShareDivisor)
        storeInMemory(metaData, body);
    else if (size <= _diskCapacity / kEntryShareDivisor)
        storeOnDisk(metaData, body);
}

void ORVURLCache::discardPending(const QUrl &url)
{
    dropPending(url, false);
}

void ORVURLCache::dropPending(const QUrl &url, bool firstOnly)
{
    for (auto it = _pending.begin(); it != _pending.end();) {
        if (it->first.url() != url) {
            ++it;
            continue;
        }
        delete it->second;
        it = _pending.erase(it);
        if (firstOnly)
            return;
    }
}

void ORVURLCache::clear()
{
    _entries.clear();
    _index.clear();
    _memoryUsed = 0;
    if (_disk)
        _disk->clear();
    // Replies still being received are dropped when they are inserted.
    for (auto &[metaData, buffer] : _pending)
        metaData.setSaveToDisk(false);
}

bool ORVURLCache::removeFromMemory(const QUrl &url)
{
    const auto it = _index.find(url);
    if (it == _index.end())
        return false;
    _memoryUsed -= (*it)->body.size();
    _entries.erase(*it);
    _index.erase(it);
    return true;
}

void ORVURLCache::storeInMemory(const QNetworkCacheMetaData &metaData, QByteArray body)
{
    _memoryUsed += body.size();
    _entries.push_front(Entry{metaData.url(), metaData, std::move(body)});
    _index.insert(metaData.url(), _entries.begin());
    while (_memoryUsed > _memoryCapacity && !_entries.empty()) {
        _memoryUsed -= _entries.back().body.size();
        _index.remove(_entries.back().url);
        _entries.pop_back();
    }
}

bool ORVURLCache::storeOnDisk(const QNetworkCacheMetaData &metaData, const QByteArray &body)
{
    if (!_disk)
        return false;
    QIODevice *device = _disk->prepare(metaData);
    if (!device)
        return false;
    if (device->write(body) != body.size()) {
        _disk->remove(metaData.url());
        return false;
    }
    _disk->insert(device);
    return true;
}

} // namespace orv::detail
