#pragma once

// ORVWorkItem: a one-shot unit of asynchronous work. It is started once,
// may be cancelled once, finishes exactly once with an optional error, and
// then hands itself and that error to its completion handler, always
// asynchronously, on its completion queue (the main queue when none is set).
//
// Subclasses override start(): call tryStart() and work only when it says
// yes. Whoever ends the item (the work, or cancel()) first calls
// tryFinish(); only the caller that got yes may then call finishWithError(),
// once. Configure the handler and the queue before submitting the item.
//
// Create items with std::make_shared: the completion handler receives the
// item as a shared pointer.

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVLocks.h>

#include <functional>
#include <memory>
#include <mutex>

enum ORVWorkItemState : qint8 {
    ORVWorkItemStateNotStarted = 0,
    ORVWorkItemStateStarted = 1,
    ORVWorkItemStateFinishing = 2,
    ORVWorkItemStateFinished = 3,
};

class ORVWorkItem : public std::enable_shared_from_this<ORVWorkItem> {
public:
    using CompletionHandler = std::function<void(const std::shared_ptr<ORVWorkItem> &item, const ORVError &error)>;

    ORVWorkItem();
    virtual ~ORVWorkItem();
    ORVWorkItem(const ORVWorkItem &) = delete;
    ORVWorkItem &operator=(const ORVWorkItem &) = delete;

    // Does nothing here; subclasses start their work.
    virtual void start();

    // 0 -> 1.
    bool tryStart();
    // 0 or 1 -> 2; a never-started item can be finished.
    bool tryFinish();
    // Sets the cancelled flag once; the state is untouched.
    bool tryCancel();
    bool isCanceled() const;
    // tryCancel() and then tryFinish(); when both say yes, finishes with the
    // framework's cancel error ("com.orvella.orvellakit" 3072).
    virtual void cancel();
    // Moves to the finished state and delivers the completion. Call it only
    // after an affirmative tryFinish(); a second call fails "Called
    // finishWithError: without an affirmative response from tryFinish or
    // called it multiple times.".
    void finishWithError(const ORVError &error = ORVError());

    CompletionHandler completionHandler() const;
    void setCompletionHandler(CompletionHandler handler);
    // The stored queue, or the main queue when none is stored.
    std::shared_ptr<ORVDispatchQueue> completionQueue() const;
    void setCompletionQueue(std::shared_ptr<ORVDispatchQueue> queue);

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
