#pragma once

// The usage-data submission queue: small text reports the application wants
// to send to its collection server. Each report waits (a week by default) so
// the user can review or delete it, then goes out with other due reports in
// batches of at most 50, as a JSON array POSTed to submissionURL() through
// the shared URL session (no account token).
//
// The queue is one JSON file, "PendingSubmissions.json" in the application's
// data folder (ORVApplicationSupportDirectory()); nothing is kept in memory
// between calls. A sent report leaves the file only after the server
// answered 2xx.

#include <OrvellaKit/ORVError.h>

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

// One report. A field without a value is left out of both JSON forms.
class ORVDataCollectionItem {
public:
    ORVDataCollectionItem() = default;
    // Reads the storage form: strings under "text", "category", "language",
    // "country", an object under "userInfo", and "scheduledSubmissionDate"
    // as seconds since 2001-01-01 00:00:00 UTC (a number, or a string
    // holding one). Values of another type read as no value.
    explicit ORVDataCollectionItem(const QJsonObject &dictionary);

    std::optional<QString> text;
    std::optional<QString> category;
    std::optional<QString> language;
    std::optional<QString> country;
    // Its values must be JSON.
    std::optional<QJsonObject> userInfo;
    // Set when the item is queued.
    std::optional<QDateTime> scheduledSubmissionDate;

    // The file's form of the item (with "scheduledSubmissionDate").
    QJsonObject JSONDictionaryForStorage() const;
    // What is sent: the storage form without "scheduledSubmissionDate".
    QJsonObject JSONDictionaryForSubmission() const;

    bool operator==(const ORVDataCollectionItem &) const = default;

    // The "scheduledSubmissionDate" of a storage form, read as above.
    static std::optional<QDateTime> dateOf(const QJsonObject &dictionary);
};

// Background work holds the manager: make it with std::make_shared (or use
// sharedManager()), never on the stack.
class ORVDataCollectionManager : public std::enable_shared_from_this<ORVDataCollectionManager> {
public:
    // The handler of a submission: an error (or a null one) and the number of
    // reports sent.
    using SubmissionHandler = std::function<void(const ORVError &error, quint64 sentCount)>;

    ORVDataCollectionManager();
    virtual ~ORVDataCollectionManager();
    ORVDataCollectionManager(const ORVDataCollectionManager &) = delete;
    ORVDataCollectionManager &operator=(const ORVDataCollectionManager &) = delete;

    // Made once per process, as an instance of the class that asks first:
    //   ORVDataCollectionManager::sharedManager<MyManager>()
    template <typename Class = ORVDataCollectionManager>
    static std::shared_ptr<ORVDataCollectionManager> sharedManager()
    {
        return sharedManagerMadeBy([] { return std::shared_ptr<ORVDataCollectionManager>(new Class()); });
    }

    // Where reports are posted; the application must set it before the first
    // submission.
    QUrl submissionURL() const;
    void setSubmissionURL(const QUrl &url);
    // The delay addItem() gives a report, in seconds; 604800 (a week) at first.
    double submissionDelay() const;
    void setSubmissionDelay(double seconds);

    // Queues the item, due submissionDelay() seconds from now. The item must
    // not have a date yet ("[item scheduledSubmissionDate] == nil"). The date
    // is set at once; writing the file and trying a submission happen on a
    // background queue, after which `queued` (if any) is called there.
    void addItem(ORVDataCollectionItem item, std::function<void()> queued = {});
    void addItem(ORVDataCollectionItem item, double submissionDelay, std::function<void()> queued = {});

    // The queued items in order; none when the file is missing or unreadable.
    QList<ORVDataCollectionItem> pendingItems() const;
    // Replaces the queue ("[]" for none). The file is replaced atomically.
    void setPendingItems(const QList<ORVDataCollectionItem> &items);
    QUrl URLForPendingItems() const;

    // Posts the due items, 50 at a time, until none is due or a batch fails;
    // the handler (if any) runs once on the main thread: with the last
    // batch's count, with (null, 0) when nothing was due or submission is
    // disabled, or with the transport error (null for a refusing HTTP
    // status) and 0. Items stay queued unless their batch got a 2xx answer.
    void submitPendingItemsWithCompletionHandler(SubmissionHandler handler = {});

    // A nesting counter: submissions send nothing while it is above 0.
    void beginSubmissionDisabled();
    // Fails "_submissionDisabledCount > 0" without a matching begin.
    void endSubmissionDisabled();

    // Submits every 8 hours (600 seconds tolerance) on the calling thread's
    // event loop; start and stop on the same thread.
    void startSubmissionTimer();
    void stopSubmissionTimer();
    bool isSubmissionTimerActive() const;
    static constexpr double submissionTimerInterval = 28800.0;
    static constexpr double submissionTimerTolerance = 600.0;

protected:
    // Called by the timer; submits with no handler.
    virtual void submissionTimerFired();

private:
    static std::shared_ptr<ORVDataCollectionManager>
    sharedManagerMadeBy(const std::function<std::shared_ptr<ORVDataCollectionManager>()> &make);
    // The queue as read; `readable` false when the file exists but is not a
    // queue (it is then moved aside before the next write).
    QJsonArray readArrayLocked(bool *readable) const;
    static QList<ORVDataCollectionItem> itemsOfArray(const QJsonArray &array);
    // `replacesReadableFile` false moves the present file aside first.
    void writeArrayLocked(const QJsonArray &array, bool replacesReadableFile);
    // Checks the submission URL, then submitBatch().
    void submit(SubmissionHandler handler, std::optional<QJsonArray> queue);
    // Sends the first batch of due items of `queue` (the file's when none).
    void submitBatch(SubmissionHandler handler, std::optional<QJsonArray> queue);

    std::atomic<qint64> _submissionDisabledCount{0};
    QTimer *_submissionTimer = nullptr;
    mutable std::mutex _settingsLock;
    QUrl _submissionURL;
    double _submissionDelay = 604800.0;
    // Serialises the file's read-modify-write cycles within this process.
    mutable std::mutex _fileLock;
};
