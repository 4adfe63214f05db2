#include <OrvellaKit/ORVDataCollectionManager.h>

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVURLSession.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QThread>
#include <QTimer>

#include <cmath>

namespace {

constexpr const char *kFile = "ORVDataCollectionManager";
constexpr const char *kClass = "ORVDataCollectionManager";
constexpr qsizetype kBatchSize = 50;
constexpr double kTimeout = 30.0;

const QDateTime &referenceDate()
{
    static const QDateTime date(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    return date;
}

std::optional<QString> stringValue(const QJsonObject &object, const char *key)
{
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
}

std::mutex sharedLock;
std::shared_ptr<ORVDataCollectionManager> sharedInstance;

} // namespace

// --- item -----------------------------------------------------------------------

ORVDataCollectionItem::ORVDataCollectionItem(const QJsonObject &dictionary)
    : text(stringValue(dictionary, "text")), category(stringValue(dictionary, "category")),
      language(stringValue(dictionary, "language")), country(stringValue(dictionary, "country"))
{
    const QJsonValue info = dictionary.value(QStringLiteral("userInfo"));
    if (info.isObject())
        userInfo = info.toObject();
    scheduledSubmissionDate = dateOf(dictionary);
}

std::optional<QDateTime> ORVDataCollectionItem::dateOf(const QJsonObject &dictionary)
{
    const QJsonValue date = dictionary.value(QStringLiteral("scheduledSubmissionDate"));
    std::optional<double> seconds;
    if (date.isDouble()) {
        seconds = date.toDouble();
    } else if (date.isString()) {
        bool ok = false;
        const double parsed = date.toString().trimmed().toDouble(&ok);
        if (ok)
            seconds = parsed;
    }
    // Beyond a few million years QDateTime cannot follow; such a date is no date.
    if (!seconds || !std::isfinite(*seconds) || std::abs(*seconds) >= 1e14)
        return std::nullopt;
    return referenceDate().addMSecs(qRound64(*seconds * 1000.0));
}

QJsonObject ORVDataCollectionItem::JSONDictionaryForSubmission() const
{
    QJsonObject object;
    if (text)
        object.insert(QStringLiteral("text"), *text);
    if (category)
        object.insert(QStringLiteral("category"), *category);
    if (language)
        object.insert(QStringLiteral("language"), *language);
    if (country)
        object.insert(QStringLiteral("country"), *country);
    if (userInfo)
        object.insert(QStringLiteral("userInfo"), *userInfo);
    return object;
}

QJsonObject ORVDataCollectionItem::JSONDictionaryForStorage() const
{
    QJsonObject object = JSONDictionaryForSubmission();
    if (scheduledSubmissionDate)
        object.insert(QStringLiteral("scheduledSubmissionDate"),
                      referenceDate().msecsTo(*scheduledSubmissionDate) / 1000.0);
    return object;
}

// --- manager --------------------------------------------------------------------

ORVDataCollectionManager::ORVDataCollectionManager() = default;

ORVDataCollectionManager::~ORVDataCollectionManager()
{
    if (_submissionTimer) {
        if (_submissionTimer->thread() == QThread::currentThread())
            delete _submissionTimer;
        else
            _submissionTimer->deleteLater();
    }
}

std::shared_ptr<ORVDataCollectionManager>
ORVDataCollectionManager::sharedManagerMadeBy(const std::function<std::shared_ptr<ORVDataCollectionManager>()> &make)
{
    std::lock_guard lock(sharedLock);
    if (!sharedInstance)
        sharedInstance = make();
    return sharedInstance;
}

QUrl ORVDataCollectionManager::submissionURL() const
{
    std::lock_guard lock(_settingsLock);
    return _submissionURL;
}

void ORVDataCollectionManager::setSubmissionURL(const QUrl &url)
{
    std::lock_guard lock(_settingsLock);
    _submissionURL = url;
}

double ORVDataCollectionManager::submissionDelay() const
{
    std::lock_guard lock(_settingsLock);
    return _submissionDelay;
}

void ORVDataCollectionManager::setSubmissionDelay(double seconds)
{
    std::lock_guard lock(_settingsLock);
    _submissionDelay = seconds;
}

QUrl ORVDataCollectionManager::URLForPendingItems() const
{
    return QUrl::fromLocalFile(QDir(ORVApplicationSupportDirectory(true)).filePath(QStringLiteral("PendingSubmissions.json")));
}

void ORVDataCollectionManager::addItem(ORVDataCollectionItem item, std::function<void()> queued)
{
    addItem(std::move(item), submissionDelay(), std::move(queued));
}

void ORVDataCollectionManager::addItem(ORVDataCollectionItem item, double delay, std::function<void()> queued)
{
    if (!ORVMethodParameterAssert(!item.scheduledSubmissionDate, "[item scheduledSubmissionDate] == nil",
                                  "addItem:submissionDelay:", kClass, kFile))
        return;
    item.scheduledSubmissionDate = QDateTime::currentDateTimeUtc().addMSecs(qRound64(delay * 1000.0));
    ORVDispatchQueue::globalQueue(ORVDispatchQueue::QualityOfService::Background)
        ->async([self = shared_from_this(), this, item = std::move(item), queued = std::move(queued)] {
            QJsonArray written;
            {
                // The file's elements are kept as they are; only the new one
                // is added.
                std::lock_guard lock(_fileLock);
                bool readable = true;
                QJsonArray array = readArrayLocked(&readable);
                array.append(item.JSONDictionaryForStorage());
                writeArrayLocked(array, readable);
                written = std::move(array);
            }
            // The queue just written is the one to look at.
            submit({}, std::move(written));
            if (queued)
                queued();
        });
}

QList<ORVDataCollectionItem> ORVDataCollectionManager::pendingItems() const
{
    std::lock_guard lock(_fileLock);
    return itemsOfArray(readArrayLocked(nullptr));
}

QJsonArray ORVDataCollectionManager::readArrayLocked(bool *readable) const
{
    if (readable)
        *readable = true;
    QFile file(URLForPendingItems().toLocalFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        qWarning("Unreadable pending submissions file %s: %s", qPrintable(file.fileName()),
                 qPrintable(parseError.errorString()));
        if (readable)
            *readable = false;
        return {};
    }
    if (!document.isArray()) {
        qWarning("Unexpected JSON object: %s", document.toJson(QJsonDocument::Compact).constData());
        if (readable)
            *readable = false;
        return {};
    }
    return document.array();
}

QList<ORVDataCollectionItem> ORVDataCollectionManager::itemsOfArray(const QJsonArray &array)
{
    QList<ORVDataCollectionItem> items;
    items.reserve(array.size());
    for (const QJsonValue &element : array) {
        // An element that is no object holds no report.
        if (element.isObject())
            items.append(ORVDataCollectionItem(element.toObject()));
    }
    return items;
}

void ORVDataCollectionManager::setPendingItems(const QList<ORVDataCollectionItem> &items)
{
    QJsonArray array;
    for (const ORVDataCollectionItem &item : items)
        array.append(item.JSONDictionaryForStorage());
    std::lock_guard lock(_fileLock);
    bool readable = true;
    readArrayLocked(&readable);
    writeArrayLocked(array, readable);
}

void ORVDataCollectionManager::writeArrayLocked(const QJsonArray &array, bool replacesReadableFile)
{
    const QString path = URLForPendingItems().toLocalFile();
    // A file that is not a queue may still be worth something to someone:
    // it is kept beside the new one rather than overwritten.
    if (!replacesReadableFile && QFile::exists(path)) {
        const QString aside = path + QStringLiteral(".unreadable");
        QFile::remove(aside);
        if (!QFile::rename(path, aside)) {
            qWarning("Pending submissions file %s is unreadable and cannot be moved aside; not replacing it",
                     qPrintable(path));
            return;
        }
    }
    // Atomic, so a crash mid-write cannot cut the queue short; a failed
    // write leaves the previous file as it was.
    const QByteArray json = QJsonDocument(array).toJson(QJsonDocument::Compact);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size() || !file.commit())
        qWarning("Cannot write the pending submissions file %s: %s", qPrintable(path), qPrintable(file.errorString()));
}

void ORVDataCollectionManager::submitPendingItemsWithCompletionHandler(SubmissionHandler handler)
{
    submit(std::move(handler), std::nullopt);
}

void ORVDataCollectionManager::submit(SubmissionHandler handler, std::optional<QJsonArray> queue)
{
    if (!ORVMethodParameterAssert(!submissionURL().isEmpty(), "[self submissionURL] != nil",
                                  "submitPendingItemsWithCompletionHandler:", kClass, kFile)) {
        if (handler)
            ORVDispatchQueue::mainQueue()->async([handler] { handler(ORVError(), 0); });
        return;
    }
    submitBatch(std::move(handler), std::move(queue));
}

void ORVDataCollectionManager::submitBatch(SubmissionHandler handler, std::optional<QJsonArray> queue)
{
    const auto finish = [](const SubmissionHandler &h, const ORVError &error, quint64 count) {
        if (h)
            ORVDispatchQueue::mainQueue()->async([h, error, count] { h(error, count); });
    };
    if (_submissionDisabledCount.load() != 0)
        return finish(handler, ORVError(), 0);

    const QDateTime now = QDateTime::currentDateTimeUtc();
    QJsonArray batch;
    QList<ORVDataCollectionItem> sent;
    bool more = false;
    if (!queue) {
        std::lock_guard lock(_fileLock);
        queue = readArrayLocked(nullptr);
    }
    for (const QJsonValue &element : *queue) {
        if (!element.isObject())
            continue;
        // Only a due element is read whole.
        const QJsonObject object = element.toObject();
        const auto date = ORVDataCollectionItem::dateOf(object);
        const bool due = date && now.msecsTo(*date) < 0;
        if (!due)
            continue;
        if (batch.size() == kBatchSize) {
            // The rest goes with the next batch.
            more = true;
            break;
        }
        const ORVDataCollectionItem item(object);
        batch.append(item.JSONDictionaryForSubmission());
        sent.append(item);
    }
    if (batch.isEmpty())
        return finish(handler, ORVError(), 0);

    ORVURLRequest request(submissionURL());
    request.setCachePolicy(ORVURLRequestReloadIgnoringLocalCacheData);
    request.setTimeoutInterval(kTimeout);
    request.setHTTPMethod(QStringLiteral("POST"));
    request.setValue(QStringLiteral("application/json"), QStringLiteral("Content-Type"));
    request.setHTTPBody(QJsonDocument(batch).toJson(QJsonDocument::Compact));

    auto task = ORVURLSession::sharedSession()->dataTaskWithRequest(
        request, [self = shared_from_this(), handler, sent, more, finish](
                     const QByteArray &, const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
            ORVDispatchQueue::mainQueue()->async([self, handler, sent, more, finish, response, error] {
                const int status = response ? response->statusCode() : 0;
                if (status < 200 || status > 299)
                    return finish(handler, error, 0);
                {
                    // Only now do the sent items leave the queue. The file is
                    // read again, so items added meanwhile stay, and what is
                    // not sent stays as it was written.
                    std::lock_guard lock(self->_fileLock);
                    bool readable = true;
                    const QJsonArray array = self->readArrayLocked(&readable);
                    QList<ORVDataCollectionItem> unmatched = sent;
                    QJsonArray remaining;
                    for (const QJsonValue &element : array) {
                        if (element.isObject() && unmatched.removeOne(ORVDataCollectionItem(element.toObject())))
                            continue;
                        remaining.append(element);
                    }
                    self->writeArrayLocked(remaining, readable);
                }
                if (more)
                    self->submitBatch(handler, std::nullopt);
                else
                    finish(handler, ORVError(), static_cast<quint64>(sent.size()));
            });
        });
    if (!task)
        return finish(handler, ORVError(), 0);
    task->resume();
}

void ORVDataCollectionManager::beginSubmissionDisabled()
{
    ++_submissionDisabledCount;
}

void ORVDataCollectionManager::endSubmissionDisabled()
{
    if (!ORVMethodParameterAssert(_submissionDisabledCount.load() > 0, "_submissionDisabledCount > 0",
                                  "endSubmissionDisabled", kClass, kFile))
        return;
    --_submissionDisabledCount;
}

void ORVDataCollectionManager::startSubmissionTimer()
{
    stopSubmissionTimer();
    _submissionTimer = new QTimer();
    // A whole-second timer: the system may fire it late, well within the
    // tolerance, to save wake-ups.
    _submissionTimer->setTimerType(Qt::VeryCoarseTimer);
    _submissionTimer->setInterval(static_cast<int>(submissionTimerInterval * 1000));
    // The timer belongs to the manager, so it never fires after it.
    QObject::connect(_submissionTimer, &QTimer::timeout, [this] { submissionTimerFired(); });
    _submissionTimer->start();
}

void ORVDataCollectionManager::stopSubmissionTimer()
{
    delete _submissionTimer;
    _submissionTimer = nullptr;
}

bool ORVDataCollectionManager::isSubmissionTimerActive() const
{
    return _submissionTimer && _submissionTimer->isActive();
}

void ORVDataCollectionManager::submissionTimerFired()
{
    submitPendingItemsWithCompletionHandler();
}
