#pragma once

/// \file
/// ORVWorkItem and the states of its life.

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVLocks.h>

#include <functional>
#include <memory>
#include <mutex>

/// The states of a work item (and of an ORVAsyncOperation), in order.
enum ORVWorkItemState : qint8 {
    ORVWorkItemStateNotStarted = 0, ///< Not started yet.
    ORVWorkItemStateStarted = 1,    ///< tryStart() said yes; the work runs.
    ORVWorkItemStateFinishing = 2,  ///< tryFinish() said yes; finishWithError() is due.
    ORVWorkItemStateFinished = 3,   ///< Finished; the completion is on its way.
};

/// A one-shot unit of asynchronous work. It is started once, may be
/// cancelled once, finishes exactly once with an optional error, and then
/// hands itself and that error to its completion handler, always
/// asynchronously, on its completion queue (the main queue when none is set).
///
/// Subclasses override start(): call tryStart() and work only when it says
/// yes. Whoever ends the item (the work, or cancel()) first calls
/// tryFinish(); only the caller that got yes may then call finishWithError(),
/// once. Configure the handler and the queue before submitting the item.
///
/// Create items with std::make_shared: the completion handler receives the
/// item as a shared pointer.
///
/// Thread rule: any thread; the completion handler runs on the completion
/// queue. Ownership: the item keeps its completion handler and queue until
/// it finishes; it then lets go of the handler, and the delivery task holds
/// the item until the handler has run.
class ORVELLAKIT_EXPORT ORVWorkItem : public std::enable_shared_from_this<ORVWorkItem> {
public:
    /// Receives the finished item and its error (a null error on success).
    using CompletionHandler = std::function<void(const std::shared_ptr<ORVWorkItem> &item, const ORVError &error)>;

    /// A work item in the state ORVWorkItemStateNotStarted.
    ORVWorkItem();
    virtual ~ORVWorkItem();
    ORVWorkItem(const ORVWorkItem &) = delete;
    ORVWorkItem &operator=(const ORVWorkItem &) = delete;

    /// Does nothing here; subclasses start their work.
    virtual void start();

    /// 0 -> 1. Answers whether this call made the move.
    bool tryStart();
    /// 0 or 1 -> 2; a never-started item can be finished. Answers whether
    /// this call made the move.
    bool tryFinish();
    /// Sets the cancelled flag once; the state is untouched. Answers whether
    /// this call set it.
    bool tryCancel();
    /// Whether tryCancel() (or cancel()) has set the cancelled flag.
    bool isCanceled() const;
    /// tryCancel() and then tryFinish(); when both say yes, finishes with the
    /// framework's cancel error ("com.orvella.orvellakit" 3072).
    virtual void cancel();
    /// Moves to the finished state and delivers the completion. Call it only
    /// after an affirmative tryFinish(); a second call fails "Called
    /// finishWithError: without an affirmative response from tryFinish or
    /// called it multiple times.".
    void finishWithError(const ORVError &error = ORVError());

    /// The handler, or null (none set, or taken by the finish).
    CompletionHandler completionHandler() const;
    /// Before submission only: once the item has left
    /// ORVWorkItemStateNotStarted it fails "completionHandler can only be
    /// safely mutated before submitting work item." and keeps the handler it
    /// had.
    void setCompletionHandler(CompletionHandler handler);
    /// The stored queue, or the main queue when none is stored.
    std::shared_ptr<ORVDispatchQueue> completionQueue() const;
    /// Before submission only, like setCompletionHandler(); afterwards it
    /// fails "completionQueue can only be safely mutated before submitting
    /// work item.". A null queue means the main queue.
    void setCompletionQueue(std::shared_ptr<ORVDispatchQueue> queue);

    /// The current state.
    ORVWorkItemState state() const;

private:
    qint8 _state = ORVWorkItemStateNotStarted;
    mutable ORVUnfairLock _stateLock;
    bool _cancelled = false;
    mutable ORVUnfairLock _cancelLock;
    CompletionHandler _completionHandler;
    mutable ORVUnfairLock _completionHandlerLock;
    std::shared_ptr<ORVDispatchQueue> _completionQueue;
    mutable ORVUnfairLock _completionQueueLock;
};
