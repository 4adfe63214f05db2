#pragma once

// The URL cache of a session: a memory tier and a disk tier with their own
// capacities. Small replies live in memory; QNetworkDiskCache alone would
// write every cacheable reply that is not text into a file of its own, which
// costs more than the loopback exchange itself. A reply is kept only when it
// is at most a twentieth of the tier's capacity, so one large download
// cannot empty the cache. Lives on the session's network thread, like the
// QNetworkAccessManager that uses it.

#include <QAbstractNetworkCache>
#include <QBuffer>
#include <QHash>
#include <QNetworkCacheMetaData>

#include <list>
#include <memory>

class QNetworkDiskCache;

namespace orv::detail {

class ORVURLCache : public QAbstractNetworkCache {
    Q_OBJECT
public:
    // An empty folder or a zero disk capacity: memory only.
    ORVURLCache(qint64 memoryCapacity, qint64 diskCapacity, const QString &diskFolder, QObject *parent = nullptr);
    ~ORVURLCache() override;

    QNetworkCacheMetaData metaData(const QUrl &url) override;
    void updateMetaData(const QNetworkCacheMetaData &metaData) override;
    QIODevice *data(const QUrl &url) override;
    bool remove(const QUrl &url) override;
    qint64 cacheSize() const override;
    QIODevice *prepare(const QNetworkCacheMetaData &metaData) override;
    void insert(QIODevice *device) override;

    // QNetworkAccessManager neither inserts nor removes a reply whose body
    // arrived compressed (its byte count differs from Content-Length), so
    // its buffer would stay here. The session calls this once no reply for
    // the URL is in flight any more.
    void discardPending(const QUrl &url);
    qsizetype pendingCount() const { return _pending.size(); }

    qint64 memoryCacheSize() const { return _memoryUsed; }
    qint64 diskCacheSize() const;

public Q_SLOTS:
    void clear() override;

private:
    struct Entry {
        QUrl url;
        QNetworkCacheMetaData metaData;
        QByteArray body;
    };
    using EntryList = std::list<Entry>; // most recently used first

    bool removeFromMemory(const QUrl &url);
    void dropPending(const QUrl &url, bool firstOnly);
    void storeInMemory(const QNetworkCacheMetaData &metaData, QByteArray body);
    bool storeOnDisk(const QNetworkCacheMetaData &metaData, const QByteArray &body);
    static qint64 announcedLength(const QNetworkCacheMetaData &metaData);

    qint64 _memoryCapacity;
    qint64 _memoryUsed = 0;
    qint64 _diskCapacity;
    EntryList _entries;
    QHash<QUrl, EntryList::iterator> _index;
    QNetworkDiskCache *_disk = nullptr;
    // Replies being received, by the device handed out in prepare().
    QHash<QIODevice *, std::pair<QNetworkCacheMetaData, QBuffer *>> _pending;
};

} // namespace orv::detail
