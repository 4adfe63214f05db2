#pragma once

/// \file
/// The usage-data submission queue: small text reports the application wants
/// to send to its collection server. Each report waits (a week by default) so
/// the user can review or delete it, then goes out with other due reports in
/// batches of at most 50, as a JSON array POSTed to submissionURL() through
/// the shared URL session (no account token).
///
/// The queue is one JSON file, "PendingSubmissions.json" in the application's
/// data folder (ORVApplicationSupportDirectory()); nothing is kept in memory
/// between calls. A report is in the file when addItem() returns, and leaves
/// it only after the server answered 2xx for its batch.
///
/// Every read-modify-write of the file holds a lock, within the process and
/// across processes ("PendingSubmissions.json.lock" beside it), so copies of
/// the application that share the file never lose each other's reports. One
/// submission pass runs at a time: a request made while one is under way is
/// served by one more pass when it ends.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUrl>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class QTimer;

/// The domain of the queue's errors: "com.orvella.orvellakit.datacollection.error".
extern ORVELLAKIT_EXPORT const QString ORVDataCollectionManagerErrorDomain;
/// The application's data folder cannot be made, so there is no queue file.
constexpr qint64 ORVDataCollectionManagerNoQueueFolderErrorCode = 1;
/// The queue file cannot be locked, read back or written; nothing was changed,
/// except that a damaged file may have been set aside as ".unreadable".
constexpr qint64 ORVDataCollectionManagerWriteFailedErrorCode = 2;
/// The item was queued before (it has a date); it is not queued again.
constexpr qint64 ORVDataCollectionManagerItemAlreadyQueuedErrorCode = 3;
/// The delay is not a finite number of seconds within a few thousand years.
constexpr qint64 ORVDataCollectionManagerInvalidDelayErrorCode = 4;

/// One report. A field without a value is left out of both JSON forms.
///
/// Thread rule: a plain value; one object on one thread at a time.
/// Ownership: holds its values, nothing else.
class ORVELLAKIT_EXPORT ORVDataCollectionItem {
public:
    /// A report without any field.
    ORVDataCollectionItem() = default;
    /// Reads the storage form: strings under "text", "category", "language",
    /// "country", an object under "userInfo", and "scheduledSubmissionDate"
    /// as seconds since 2001-01-01 00:00:00 UTC (a number, or a string
    /// holding one). Anything else the form holds is kept in storedValues.
    explicit ORVDataCollectionItem(const QJsonObject &dictionary);

    std::optional<QString> text;     ///< The report's text ("text").
    std::optional<QString> category; ///< The report's category ("category").
    std::optional<QString> language; ///< The report's language ("language").
    std::optional<QString> country;  ///< The report's country ("country").
    /// Its values must be JSON.
    std::optional<QJsonObject> userInfo;
    /// Set when the item is queued.
    std::optional<QDateTime> scheduledSubmissionDate;
    /// What a stored form held that the fields above cannot: a value of
    /// another type under one of their keys (a number as "text", say) or a
    /// key this version does not know. Both JSON forms carry it as it was
    /// read, so a report is never changed on its way through the queue; a
    /// field above that has a value takes precedence over it.
    QJsonObject storedValues;

    /// The file's form of the item (with "scheduledSubmissionDate").
    QJsonObject JSONDictionaryForStorage() const;
    /// What is sent: the storage form without "scheduledSubmissionDate".
    QJsonObject JSONDictionaryForSubmission() const;

    /// Every field, storedValues included, is equal.
    bool operator==(const ORVDataCollectionItem &) const = default;

    /// The "scheduledSubmissionDate" of a storage form, read as above.
    static std::optional<QDateTime> dateOf(const QJsonObject &dictionary);
};

/// The queue of usage reports and their submission (see the file overview).
///
/// Background work holds the manager: make it with std::make_shared (or use
/// sharedManager()), never on the stack.
///
/// Thread rule: any thread; submission handlers run on the main thread. A
/// pass reads the file on the thread that asks for it and goes on on a
/// background global queue. The timer calls (start, stop,
/// isSubmissionTimerActive()) must not race each other. Ownership: the
/// shared manager lives as long as the process; a submission pass and a
/// queued submission hold the manager until they end. The timer belongs to
/// the manager.
class ORVELLAKIT_EXPORT ORVDataCollectionManager : public std::enable_shared_from_this<ORVDataCollectionManager> {
public:
    /// The handler of a submission: an error (or a null one) and the number of
    /// reports sent.
    using SubmissionHandler = std::function<void(const ORVError &error, quint64 sentCount)>;

    /// A manager without a submission URL, with the default delay.
    ORVDataCollectionManager();
    /// Stops the submission timer.
    virtual ~ORVDataCollectionManager();
    ORVDataCollectionManager(const ORVDataCollectionManager &) = delete;
    ORVDataCollectionManager &operator=(const ORVDataCollectionManager &) = delete;

    /// Made once per process, as an instance of the class that asks first:
    ///   ORVDataCollectionManager::sharedManager<MyManager>()
    template <typename Class = ORVDataCollectionManager>
    static std::shared_ptr<ORVDataCollectionManager> sharedManager()
    {
        return sharedManagerMadeBy([] { return std::shared_ptr<ORVDataCollectionManager>(new Class()); });
    }

    /// Where reports are posted; the application must set it before the first
    /// submission.
    QUrl submissionURL() const;
    /// Sets where reports are posted.
    void setSubmissionURL(const QUrl &url);
    /// The delay addItem() gives a report, in seconds; 604800 (a week) at first.
    double submissionDelay() const;
    /// Sets the delay addItem() gives a report, in seconds.
    void setSubmissionDelay(double seconds);

    /// Queues the item, due submissionDelay() seconds from now, and sets its
    /// scheduledSubmissionDate to that date. The item is in the file when the
    /// call returns (written and synced, behind whatever was queued before),
    /// so a quit or a crash right after it loses nothing. Returns a null
    /// error once it is queued, whether or not a submission URL is set yet;
    /// otherwise an ORVDataCollectionManagerErrorDomain error, the file as it
    /// was and the item's date cleared, so the add can be tried again. An
    /// item that has a date already fails "[item scheduledSubmissionDate] ==
    /// nil" and is not queued twice. When the queue holds a due report and a
    /// submission URL is set, a submission follows on a background queue.
    ///
    /// The call blocks for one read-modify-write of the file (a millisecond
    /// or so for a queue of a few hundred reports). When another copy of the
    /// application, or this process's submission pass as it removes a sent
    /// batch, holds the file's lock, it waits for it, at most 5 seconds;
    /// then it fails with ORVDataCollectionManagerWriteFailedErrorCode.
    ORVError addItem(ORVDataCollectionItem &item);
    /// addItem() with a delay of its own, in seconds; a delay that is not a
    /// finite number within a few thousand years fails with
    /// ORVDataCollectionManagerInvalidDelayErrorCode.
    ORVError addItem(ORVDataCollectionItem &item, double submissionDelay);

    /// The queued items in order; none when the file is missing or unreadable.
    QList<ORVDataCollectionItem> pendingItems() const;
    /// Replaces the queue ("[]" for none). The file is replaced atomically.
    /// A null error once written.
    ORVError setPendingItems(const QList<ORVDataCollectionItem> &items);
    /// The queue file's URL (its folder is created); empty when there is no
    /// data folder.
    QUrl URLForPendingItems() const;
    /// Removes the reports `removed` and makes the reports `dueNow` due at
    /// `due`, in one read-modify-write under the file's lock: reports queued
    /// meanwhile, by this process or another, and those sent meanwhile are
    /// left as the file has them. A report is found by its storage form as
    /// pendingItems() returned it (each given report stands for one element
    /// of the file); one no longer queued is passed over, and one due
    /// already is left as stored (a pass may be sending it). A null
    /// error once written (or when there was nothing to change).
    ORVError updatePendingItems(const QList<ORVDataCollectionItem> &removed,
                                const QList<ORVDataCollectionItem> &dueNow, const QDateTime &due);

    /// Posts the due items, 50 at a time, until none is due or a batch fails;
    /// the handler (if any) runs once on the main thread: with the last
    /// batch's count, with (null, 0) when nothing was due or submission is
    /// disabled, or with the transport error (null for a refusing HTTP
    /// status) and 0. Items stay queued unless their batch got a 2xx answer.
    /// While a pass is under way, the request waits for it and is served by
    /// the one pass that follows (its handler gets that pass's result). While
    /// another process sends from the same file, a pass sends nothing and
    /// answers (null, 0): the reports stay queued for the next one. A queue
    /// file that is there but cannot be read (a link, a folder, no access)
    /// ends the pass with ORVDataCollectionManagerWriteFailedErrorCode, no
    /// data folder with ORVDataCollectionManagerNoQueueFolderErrorCode.
    /// Without a submission URL it fails "[self submissionURL] != nil" and
    /// answers (null, 0).
    void submitPendingItemsWithCompletionHandler(SubmissionHandler handler = {});

    /// A nesting counter: submissions send nothing while it is above 0.
    void beginSubmissionDisabled();
    /// Fails "_submissionDisabledCount > 0" without a matching begin.
    void endSubmissionDisabled();

    /// Submits every 8 hours (600 seconds tolerance) on the calling thread's
    /// event loop; a firing before a submission URL is set sends nothing.
    /// Stopping on another thread (or destroying the manager there) cuts the
    /// timer off at once; its own thread's event loop deletes it.
    void startSubmissionTimer();
    /// Stops the timer (see startSubmissionTimer()); nothing when none runs.
    void stopSubmissionTimer();
    /// Whether the timer runs.
    bool isSubmissionTimerActive() const;
    /// The timer's interval in seconds (8 hours).
    static constexpr double submissionTimerInterval = 28800.0;
    /// How late the timer may fire, in seconds.
    static constexpr double submissionTimerTolerance = 600.0;

protected:
    /// Called by the timer; submits with no handler once a URL is set.
    virtual void submissionTimerFired();

private:
    class FileLock;
    struct Pass;
    static std::shared_ptr<ORVDataCollectionManager>
    sharedManagerMadeBy(const std::function<std::shared_ptr<ORVDataCollectionManager>()> &make);
    /// The queue as read; `readable` false when the file exists but is not a
    /// queue (it is then moved aside before the next write).
    /// `failure` receives why a file that is there cannot be read (then it
    /// must not be replaced).
    static QJsonArray readArray(const QString &path, bool *readable, QString *failure = nullptr);
    static QList<ORVDataCollectionItem> itemsOfArray(const QJsonArray &array);
    /// `replacesReadableFile` false moves the present file aside first.
    static ORVError writeArray(const QString &path, const QJsonArray &array, bool replacesReadableFile);
    /// Starts a pass, or leaves the handler to the pass that follows the
    /// running one.
    void requestPass(SubmissionHandler handler);
    /// One pass: batches until none is due or one fails, then the handlers.
    void runPass(std::vector<SubmissionHandler> handlers);
    void sendBatch(std::shared_ptr<Pass> pass);
    void endPass(const std::shared_ptr<Pass> &pass, const ORVError &error, quint64 count);

    std::atomic<qint64> _submissionDisabledCount{0};
    QTimer *_submissionTimer = nullptr;
    mutable std::mutex _settingsLock;
    QUrl _submissionURL;
    double _submissionDelay = 604800.0;
    /// Serialises the file's read-modify-write cycles within this process;
    /// a lock on the lock file's first byte does it across processes.
    mutable std::mutex _fileLock;
    /// The submission pass: whether one runs, and the handlers of the
    /// requests it absorbed (served together by the next pass).
    std::mutex _passLock;
    bool _passRunning = false;
    bool _passRequested = false;
    std::vector<SubmissionHandler> _waitingHandlers;
};
