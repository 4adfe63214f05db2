#include <OrvellaKit/ORVDataCollectionManager.h>

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVStringWithFormat.h>
#include <OrvellaKit/ORVURLSession.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

const QString ORVDataCollectionManagerErrorDomain = QStringLiteral("com.orvella.orvellakit.datacollection.error");

namespace {

constexpr const char *kFile = "ORVDataCollectionManager";
constexpr const char *kClass = "ORVDataCollectionManager";
constexpr qsizetype kBatchSize = 50;
constexpr double kTimeout = 30.0;
const QString kDateKey = QStringLiteral("scheduledSubmissionDate");

const QDateTime &referenceDate()
{
    static const QDateTime date(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    return date;
}

std::mutex sharedLock;
std::shared_ptr<ORVDataCollectionManager> sharedInstance;

ORVError queueError(qint64 code, const QString &description, const QString &reason = {})
{
    QVariantMap userInfo{{ORVLocalizedDescriptionKey, description}};
    if (!reason.isEmpty())
        userInfo.insert(ORVLocalizedFailureReasonErrorKey, reason);
    return ORVError(ORVDataCollectionManagerErrorDomain, code, userInfo);
}

ORVError writeFailedError(const QString &reason)
{
    return queueError(ORVDataCollectionManagerWriteFailedErrorCode,
                      ORVLocalizedString("The usage reports could not be saved."), reason);
}

ORVError noQueueFolderError()
{
    return queueError(ORVDataCollectionManagerNoQueueFolderErrorCode,
                      ORVLocalizedString("The folder for usage reports cannot be created."),
                      ORVApplicationSupportDirectory(false));
}

// The bytes of "PendingSubmissions.json.lock" that stand for the two locks.
constexpr off_t kQueueByte = 0;   // held for each read-modify-write of the file
constexpr off_t kSendingByte = 1; // held for a whole submission pass

// How long an add waits for another process's read-modify-write (which
// takes milliseconds) before it gives up: a stopped process holding the
// lock must not freeze the caller, often the GUI thread, for good.
constexpr auto kLockWait = std::chrono::seconds(5);

enum class LockResult {
    Held,        // the descriptor holds the lock
    Busy,        // someone else held it for the whole wait
    Unsupported, // the file system has no such locks: go on without
    Failed,      // the lock file cannot be opened
};

// Locks one byte of the lock file beside the queue; on Held, `*fd` holds
// it (closing it unlocks). These are open file description locks: they
// belong to the descriptor, not to the process, so a second descriptor in
// this process is kept out as well as another process, and the kernel
// drops them when the holder dies.
LockResult lockQueueByte(const QString &queuePath, off_t byte, std::chrono::milliseconds wait, int *fd,
                         QString *failure)
{
    *fd = -1;
    const QByteArray path = QFile::encodeName(queuePath + QStringLiteral(".lock"));
    const int opened = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (opened < 0) {
        *failure = ORVStringWithFormat("%@: %@", QFile::decodeName(path), QString::fromLocal8Bit(std::strerror(errno)));
        return LockResult::Failed;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    const auto end = std::chrono::steady_clock::now() + wait;
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        if (::fcntl(opened, F_OFD_SETLK, &lock) == 0) {
            *fd = opened;
            return LockResult::Held;
        }
        const int error = errno;
        if (error == EINTR)
            continue;
        if (error != EAGAIN && error != EACCES) {
            ::close(opened);
            if (error == ENOLCK || error == EINVAL || error == EOPNOTSUPP || error == ENOSYS)
                return LockResult::Unsupported;
            *failure = ORVStringWithFormat("%@: %@", QFile::decodeName(path), QString::fromLocal8Bit(std::strerror(error)));
            return LockResult::Failed;
        }
        if (std::chrono::steady_clock::now() >= end) {
            ::close(opened);
            *failure = ORVStringWithFormat("%@ is held by another process", QFile::decodeName(path));
            return LockResult::Busy;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(20));
    }
}

// Whether anything at all is at the path, a link (dangling or not) included.
bool nameTaken(const QString &path)
{
    struct stat info {};
    const QByteArray native = QFile::encodeName(path);
    return ::lstat(native.constData(), &info) == 0 || errno != ENOENT;
}

enum class MoveResult { Moved, TargetTaken, Failed };

// Renames `from` to `to` unless something is at `to`, in one step: a name
// taken between a check and a rename would be replaced, and a copy made in
// place of a rename would follow a link there.
MoveResult moveWithoutReplacing(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) == 0)
        return MoveResult::Moved;
    if (errno == EEXIST)
        return MoveResult::TargetTaken;
    if (errno != EINVAL && errno != ENOSYS)
        return MoveResult::Failed;
    // A file system without the flag: a new hard link fails on any name
    // that is taken, and the old name goes once the new one holds the file.
    if (::link(source.constData(), target.constData()) != 0)
        return errno == EEXIST ? MoveResult::TargetTaken : MoveResult::Failed;
    ::unlink(source.constData());
    return MoveResult::Moved;
}

} // namespace

// The file's lock for one read-modify-write: the lock file's first byte,
// then the manager's mutex. The byte keeps out other processes and, being
// an open file description lock, this process's other threads too; the
// mutex does so where the file system has no such locks. Taking the byte
// first means no thread sits on the mutex while it waits for another
// process, so an add on the GUI thread waits at most the bounded wait.
class ORVDataCollectionManager::FileLock {
public:
    FileLock(std::mutex &mutex, const QString &queuePath)
    {
        const LockResult result = lockQueueByte(queuePath, kQueueByte, kLockWait, &_fd, &_error);
        if (result != LockResult::Held && result != LockResult::Unsupported)
            return;
        _error.clear();
        _guard = std::unique_lock(mutex);
    }
    ~FileLock()
    {
        if (_fd >= 0)
            ::close(_fd);
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    // A null string once held (or when the file system has no locks), else why not.
    const QString &error() const { return _error; }

private:
    int _fd = -1;
    std::unique_lock<std::mutex> _guard;
    QString _error;
};

// One submission pass: the handlers it answers and, while it sends, the
// lock that keeps other processes' passes out.
struct ORVDataCollectionManager::Pass {
    std::vector<SubmissionHandler> handlers;
    int sendingLock = -1;
    // The count of the last batch the server accepted, for the handlers.
    quint64 lastBatchCount = 0;
    void releaseSendingLock()
    {
        if (sendingLock >= 0)
            ::close(sendingLock);
        sendingLock = -1;
    }
    ~Pass() { releaseSendingLock(); }
};

// --- item -----------------------------------------------------------------------

ORVDataCollectionItem::ORVDataCollectionItem(const QJsonObject &dictionary)
{
    for (auto it = dictionary.begin(); it != dictionary.end(); ++it) {
        const QString &key = it.key();
        const QJsonValue value = it.value();
        std::optional<QString> *field = key == QLatin1String("text")       ? &text
                                        : key == QLatin1String("category") ? &category
                                        : key == QLatin1String("language") ? &language
                                        : key == QLatin1String("country")  ? &country
                                                                           : nullptr;
        if (field && value.isString()) {
            *field = value.toString();
        } else if (key == QLatin1String("userInfo") && value.isObject()) {
            userInfo = value.toObject();
        } else if (key == kDateKey && (scheduledSubmissionDate = dateOf(dictionary))) {
            // read as a date
        } else {
            storedValues.insert(key, value);
        }
    }
}

std::optional<QDateTime> ORVDataCollectionItem::dateOf(const QJsonObject &dictionary)
{
    const QJsonValue date = dictionary.value(kDateKey);
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
    QJsonObject object = JSONDictionaryForStorage();
    object.remove(kDateKey);
    return object;
}

QJsonObject ORVDataCollectionItem::JSONDictionaryForStorage() const
{
    QJsonObject object = storedValues;
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
    if (scheduledSubmissionDate)
        object.insert(kDateKey, referenceDate().msecsTo(*scheduledSubmissionDate) / 1000.0);
    return object;
}

// --- manager --------------------------------------------------------------------

ORVDataCollectionManager::ORVDataCollectionManager() = default;

ORVDataCollectionManager::~ORVDataCollectionManager()
{
    stopSubmissionTimer();
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
    // No folder, no queue: never a file relative to the working folder.
    const QString folder = ORVApplicationSupportDirectory(true);
    if (folder.isEmpty())
        return {};
    return QUrl::fromLocalFile(QDir(folder).filePath(QStringLiteral("PendingSubmissions.json")));
}

ORVError ORVDataCollectionManager::addItem(ORVDataCollectionItem &item)
{
    return addItem(item, submissionDelay());
}

ORVError ORVDataCollectionManager::addItem(ORVDataCollectionItem &item, double delay)
{
    if (!ORVMethodParameterAssert(!item.scheduledSubmissionDate, "[item scheduledSubmissionDate] == nil",
                                  "addItem:submissionDelay:", kClass, kFile))
        return queueError(ORVDataCollectionManagerItemAlreadyQueuedErrorCode,
                          ORVLocalizedString("The usage report was queued before."));
    // Beyond a few thousand years the date is no date (and a NaN would be
    // read back as due at once).
    if (!std::isfinite(delay) || std::abs(delay) > 1e11)
        return queueError(ORVDataCollectionManagerInvalidDelayErrorCode,
                          ORVLocalizedString("The submission delay is not a usable number of seconds."));
    item.scheduledSubmissionDate = QDateTime::currentDateTimeUtc().addMSecs(qRound64(delay * 1000.0));

    const QString path = URLForPendingItems().toLocalFile();
    if (path.isEmpty()) {
        item.scheduledSubmissionDate.reset();
        qWarning("No folder for the pending submissions file; the usage report is not queued");
        return noQueueFolderError();
    }
    bool anythingDue = false;
    ORVError error;
    {
        // Written before the call returns, so a quit or a crash right after
        // it loses nothing; the file's other elements stay as they are.
        FileLock lock(_fileLock, path);
        bool readable = true;
        QString failure = lock.error();
        QJsonArray array;
        if (failure.isEmpty())
            array = readArray(path, &readable, &failure);
        if (!failure.isEmpty()) {
            error = writeFailedError(failure);
        } else {
            array.append(item.JSONDictionaryForStorage());
            error = writeArray(path, array, readable);
            const QDateTime now = QDateTime::currentDateTimeUtc();
            for (const QJsonValue &element : std::as_const(array)) {
                const auto date = ORVDataCollectionItem::dateOf(element.toObject());
                if (date && now.msecsTo(*date) < 0) {
                    anythingDue = true;
                    break;
                }
            }
        }
    }
    if (error) {
        item.scheduledSubmissionDate.reset();
        qWarning("The usage report is not queued: %s", qPrintable(error.localizedFailureReason()));
        return error;
    }
    // A report that is already due goes out now, without holding up the
    // caller; the pass reads the file again under its own lock.
    if (anythingDue && _submissionDisabledCount.load() == 0 && !submissionURL().isEmpty()) {
        if (auto self = weak_from_this().lock()) {
            ORVDispatchQueue::globalQueue(ORVDispatchQueue::QualityOfService::Background)->async([self] {
                if (self->_submissionDisabledCount.load() == 0 && !self->submissionURL().isEmpty())
                    self->requestPass({});
            });
        }
    }
    return {};
}

QList<ORVDataCollectionItem> ORVDataCollectionManager::pendingItems() const
{
    // The file is only ever replaced whole, so a read needs no lock.
    const QString path = URLForPendingItems().toLocalFile();
    return path.isEmpty() ? QList<ORVDataCollectionItem>() : itemsOfArray(readArray(path, nullptr));
}

QJsonArray ORVDataCollectionManager::readArray(const QString &path, bool *readable, QString *failure)
{
    if (readable)
        *readable = true;
    const auto fail = [&](const QString &why) {
        qWarning("Cannot read the pending submissions file %s: %s", qPrintable(path), qPrintable(why));
        if (failure)
            *failure = ORVStringWithFormat("%@: %@", path, why);
        return QJsonArray();
    };
    // Only a missing file is an empty queue. One that is there but cannot
    // be read must not be replaced by a queue without its reports, and a
    // link would lead the writes out of the application's folder.
    struct stat info {};
    const QByteArray native = QFile::encodeName(path);
    if (::lstat(native.constData(), &info) != 0)
        return errno == ENOENT ? QJsonArray() : fail(QString::fromLocal8Bit(std::strerror(errno)));
    if (!S_ISREG(info.st_mode))
        return fail(QStringLiteral("not a regular file"));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(file.errorString());
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

ORVError ORVDataCollectionManager::setPendingItems(const QList<ORVDataCollectionItem> &items)
{
    const QString path = URLForPendingItems().toLocalFile();
    if (path.isEmpty())
        return noQueueFolderError();
    QJsonArray array;
    for (const ORVDataCollectionItem &item : items)
        array.append(item.JSONDictionaryForStorage());
    FileLock lock(_fileLock, path);
    QString failure = lock.error();
    bool readable = true;
    if (failure.isEmpty())
        readArray(path, &readable, &failure);
    if (!failure.isEmpty())
        return writeFailedError(failure);
    return writeArray(path, array, readable);
}

ORVError ORVDataCollectionManager::updatePendingItems(const QList<ORVDataCollectionItem> &removed,
                                                      const QList<ORVDataCollectionItem> &dueNow, const QDateTime &due)
{
    if (removed.isEmpty() && dueNow.isEmpty())
        return {};
    const QString path = URLForPendingItems().toLocalFile();
    if (path.isEmpty())
        return noQueueFolderError();
    // Each given report accounts for one element: the same report queued
    // twice and deleted once leaves one copy.
    QList<QJsonObject> toRemove;
    for (const ORVDataCollectionItem &item : removed)
        toRemove.append(item.JSONDictionaryForStorage());
    QList<QJsonObject> toReschedule;
    for (const ORVDataCollectionItem &item : dueNow)
        toReschedule.append(item.JSONDictionaryForStorage());
    const double dueSeconds = referenceDate().msecsTo(due.toUTC()) / 1000.0;

    FileLock lock(_fileLock, path);
    QString failure = lock.error();
    bool readable = true;
    QJsonArray array;
    if (failure.isEmpty())
        array = readArray(path, &readable, &failure);
    if (!failure.isEmpty())
        return writeFailedError(failure);
    if (!readable)
        return {}; // nothing in it was shown, so nothing to change
    // Taken once the lock is held: a pass that began during the wait took
    // what was due by then.
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QJsonArray updated;
    bool changed = false;
    for (const QJsonValue &element : std::as_const(array)) {
        if (!element.isObject()) {
            updated.append(element);
            continue;
        }
        // Compared in the form the view was given, so a date stored as a
        // string still matches; the element itself is kept as stored.
        QJsonObject object = element.toObject();
        const QJsonObject form = ORVDataCollectionItem(object).JSONDictionaryForStorage();
        if (const qsizetype at = toRemove.indexOf(form); at >= 0) {
            toRemove.removeAt(at);
            changed = true;
            continue;
        }
        if (const qsizetype at = toReschedule.indexOf(form); at >= 0) {
            toReschedule.removeAt(at);
            // A report due already keeps its stored form: a pass may be
            // sending it now (one takes what is due by its own clock), and
            // it finds the report by that form to take it out afterwards.
            const std::optional<QDateTime> date = ORVDataCollectionItem::dateOf(object);
            if (!date || *date > now) {
                object.insert(kDateKey, dueSeconds);
                changed = true;
            }
        }
        updated.append(object);
    }
    return changed ? writeArray(path, updated, true) : ORVError();
}

ORVError ORVDataCollectionManager::writeArray(const QString &path, const QJsonArray &array, bool replacesReadableFile)
{
    // A file that is not a queue may still be worth something to someone:
    // it is kept beside the new one rather than overwritten.
    if (!replacesReadableFile && nameTaken(path)) {
        // An earlier copy set aside stays too: the first free name of
        // ".unreadable", ".unreadable.1", ... ".unreadable.99". A name is
        // taken by anything there, a link included (dangling or not), and
        // the move never replaces or follows what it finds.
        bool moved = false;
        for (int n = 0; n < 100 && !moved; ++n) {
            const QString aside = path + QStringLiteral(".unreadable") +
                                  (n == 0 ? QString() : QStringLiteral(".") + QString::number(n));
            const MoveResult result = moveWithoutReplacing(path, aside);
            if (result == MoveResult::TargetTaken)
                continue;
            moved = result == MoveResult::Moved;
            break;
        }
        if (!moved) {
            qWarning("Pending submissions file %s is unreadable and cannot be moved aside; not replacing it",
                     qPrintable(path));
            return writeFailedError(ORVStringWithFormat("%@ cannot be moved aside", path));
        }
    }
    // Atomic, so a crash mid-write cannot cut the queue short; a failed
    // write leaves the previous file as it was. QSaveFile syncs the data
    // before it renames.
    const QByteArray json = QJsonDocument(array).toJson(QJsonDocument::Compact);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size() || !file.commit()) {
        qWarning("Cannot write the pending submissions file %s: %s", qPrintable(path), qPrintable(file.errorString()));
        return writeFailedError(ORVStringWithFormat("%@: %@", path, file.errorString()));
    }
    // The new file is only there for good once its folder, which holds the
    // rename, is on disk too; until then a power cut could bring back the
    // queue without the report just added.
    const QByteArray folder = QFile::encodeName(QFileInfo(path).absolutePath());
    const int folderFd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd < 0 || ::fsync(folderFd) != 0)
        qWarning("Cannot sync the folder of %s: %s", qPrintable(path), std::strerror(errno));
    if (folderFd >= 0)
        ::close(folderFd);
    return {};
}

namespace {
void answer(const ORVDataCollectionManager::SubmissionHandler &handler, const ORVError &error, quint64 count)
{
    if (handler)
        ORVDispatchQueue::mainQueue()->async([handler, error, count] { handler(error, count); });
}
} // namespace

void ORVDataCollectionManager::submitPendingItemsWithCompletionHandler(SubmissionHandler handler)
{
    if (!ORVMethodParameterAssert(!submissionURL().isEmpty(), "[self submissionURL] != nil",
                                  "submitPendingItemsWithCompletionHandler:", kClass, kFile))
        return answer(handler, ORVError(), 0);
    if (_submissionDisabledCount.load() != 0)
        return answer(handler, ORVError(), 0);
    requestPass(std::move(handler));
}

void ORVDataCollectionManager::requestPass(SubmissionHandler handler)
{
    {
        std::lock_guard lock(_passLock);
        if (_passRunning) {
            _passRequested = true;
            _waitingHandlers.push_back(std::move(handler));
            return;
        }
        _passRunning = true;
    }
    std::vector<SubmissionHandler> handlers;
    handlers.push_back(std::move(handler));
    runPass(std::move(handlers));
}

void ORVDataCollectionManager::runPass(std::vector<SubmissionHandler> handlers)
{
    auto pass = std::make_shared<Pass>();
    pass->handlers = std::move(handlers);
    const QString path = URLForPendingItems().toLocalFile();
    if (_submissionDisabledCount.load() != 0)
        return endPass(pass, ORVError(), 0);
    if (path.isEmpty())
        return endPass(pass, noQueueFolderError(), 0);
    // Another copy of the application sending from the same file would send
    // the same reports: its pass goes first, ours leaves them queued.
    QString failure;
    switch (lockQueueByte(path, kSendingByte, std::chrono::milliseconds(0), &pass->sendingLock, &failure)) {
    case LockResult::Busy:
        return endPass(pass, ORVError(), 0);
    case LockResult::Failed:
        // Without the lock file the sent reports could not leave the file
        // either: they would go out again with every pass.
        return endPass(pass, writeFailedError(failure), 0);
    case LockResult::Held:
    case LockResult::Unsupported:
        break;
    }
    sendBatch(pass);
}

void ORVDataCollectionManager::sendBatch(std::shared_ptr<Pass> pass)
{
    const QString path = URLForPendingItems().toLocalFile();
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QJsonArray batch;
    QList<QJsonObject> sent;
    bool more = false;
    // A file that is there but cannot be read is no empty queue: the pass
    // says so.
    QString failure;
    const QJsonArray array = readArray(path, nullptr, &failure);
    if (!failure.isEmpty())
        return endPass(pass, writeFailedError(failure), pass->lastBatchCount);
    for (const QJsonValue &element : array) {
        if (!element.isObject())
            continue;
        // Only a due element is read whole.
        const QJsonObject object = element.toObject();
        const auto date = ORVDataCollectionItem::dateOf(object);
        if (!date || now.msecsTo(*date) >= 0)
            continue;
        if (batch.size() == kBatchSize) {
            // The rest goes with the next batch.
            more = true;
            break;
        }
        batch.append(ORVDataCollectionItem(object).JSONDictionaryForSubmission());
        sent.append(object);
    }
    if (batch.isEmpty() || _submissionDisabledCount.load() != 0)
        return endPass(pass, ORVError(), pass->lastBatchCount);

    ORVURLRequest request(submissionURL());
    request.setCachePolicy(ORVURLRequestReloadIgnoringLocalCacheData);
    request.setTimeoutInterval(kTimeout);
    request.setHTTPMethod(QStringLiteral("POST"));
    request.setValue(QStringLiteral("application/json"), QStringLiteral("Content-Type"));
    request.setHTTPBody(QJsonDocument(batch).toJson(QJsonDocument::Compact));

    auto self = shared_from_this();
    auto task = ORVURLSession::sharedSession()->dataTaskWithRequest(
        request, [self, pass, sent, more](const QByteArray &, const std::optional<ORVHTTPURLResponse> &response,
                                          const ORVError &error) {
            // The file work stays off the main thread.
            ORVDispatchQueue::globalQueue(ORVDispatchQueue::QualityOfService::Background)
                ->async([self, pass, sent, more, response, error] {
                    const int status = response ? response->statusCode() : 0;
                    if (status < 200 || status > 299)
                        return self->endPass(pass, error, 0);
                    const quint64 count = static_cast<quint64>(sent.size());
                    const QString path = self->URLForPendingItems().toLocalFile();
                    ORVError writeError;
                    {
                        // Only now do the sent items leave the queue. The
                        // file is read again, so items added meanwhile stay,
                        // and what is not sent stays as it was written.
                        FileLock lock(self->_fileLock, path);
                        bool readable = true;
                        QString failure = lock.error();
                        const QJsonArray array = failure.isEmpty() ? readArray(path, &readable, &failure) : QJsonArray();
                        QList<QJsonObject> unmatched = sent;
                        QJsonArray remaining;
                        for (const QJsonValue &element : array) {
                            if (element.isObject() && unmatched.removeOne(element.toObject()))
                                continue;
                            remaining.append(element);
                        }
                        writeError = failure.isEmpty() ? writeArray(path, remaining, readable)
                                                       : writeFailedError(failure);
                    }
                    // The server has the reports but the file still holds
                    // them: say so and stop, rather than send them again.
                    if (writeError)
                        return self->endPass(pass, writeError, count);
                    pass->lastBatchCount = count;
                    if (more)
                        self->sendBatch(pass);
                    else
                        self->endPass(pass, ORVError(), count);
                });
        });
    if (!task)
        return endPass(pass, ORVError(), 0);
    task->resume();
}

void ORVDataCollectionManager::endPass(const std::shared_ptr<Pass> &pass, const ORVError &error, quint64 count)
{
    pass->releaseSendingLock();
    for (const SubmissionHandler &handler : pass->handlers)
        answer(handler, error, count);
    pass->handlers.clear();
    std::vector<SubmissionHandler> next;
    {
        std::lock_guard lock(_passLock);
        if (!_passRequested) {
            _passRunning = false;
            return;
        }
        // The requests made meanwhile share one more pass.
        _passRequested = false;
        next.swap(_waitingHandlers);
    }
    auto self = shared_from_this();
    ORVDispatchQueue::globalQueue(ORVDispatchQueue::QualityOfService::Background)
        ->async([self, next = std::move(next)]() mutable { self->runPass(std::move(next)); });
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
    QTimer *timer = std::exchange(_submissionTimer, nullptr);
    if (!timer)
        return;
    // A timer can only be stopped on its own thread. From any other, it is
    // cut off from the manager at once (a firing under way may still
    // finish) and taken down by its thread's event loop.
    if (timer->thread() == QThread::currentThread()) {
        delete timer;
        return;
    }
    QObject::disconnect(timer, nullptr, nullptr, nullptr);
    timer->deleteLater();
}

bool ORVDataCollectionManager::isSubmissionTimerActive() const
{
    return _submissionTimer && _submissionTimer->isActive();
}

void ORVDataCollectionManager::submissionTimerFired()
{
    // The timer may be started before the application knows where to send
    // (and the reports are queued all the same): a firing without a URL
    // waits for the next one, since the missing-URL assertion would be
    // thrown out of the timer's slot and end the application.
    if (submissionURL().isEmpty()) {
        qInfo("The submission timer fired before a submission URL was set; the usage reports stay queued");
        return;
    }
    submitPendingItemsWithCompletionHandler();
}
