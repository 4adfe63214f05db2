#pragma once

/// \file
/// ORVOperation and ORVOperationQueue: operations that an operation queue
/// runs, at most a given number at a time, on the framework's worker pool.
///
/// An operation publishes changes of its "isExecuting", "isFinished" and
/// "isCancelled" values to its observers as a will-change call, the change
/// itself, and a did-change call. The queue is such an observer: it removes
/// an operation once it has said "isFinished" with isFinished() true.

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVLocks.h>

#include <QString>
#include <QVarLengthArray>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

class ORVOperation;

// The keys an operation publishes.
/// The key of an operation's isExecuting() value: "isExecuting".
extern ORVELLAKIT_EXPORT const QString ORVOperationIsExecutingKey;
/// The key of an operation's isFinished() value: "isFinished".
extern ORVELLAKIT_EXPORT const QString ORVOperationIsFinishedKey;
/// The key of an operation's isCancelled() value: "isCancelled".
extern ORVELLAKIT_EXPORT const QString ORVOperationIsCancelledKey;

/// Hears the changes an operation publishes (see ORVOperation::addObserver()).
///
/// Thread rule: called on the thread that changes the value, with the lock
/// guarding that value held. Ownership: operations hold their observers
/// weakly.
class ORVELLAKIT_EXPORT ORVOperationObserver {
public:
    virtual ~ORVOperationObserver();
    /// The value of `key` is about to change. Does nothing here.
    virtual void operationWillChangeValueForKey(ORVOperation &operation, const QString &key);
    /// The value of `key` has changed. Does nothing here.
    virtual void operationDidChangeValueForKey(ORVOperation &operation, const QString &key);
};

/// An operation: a unit of work an ORVOperationQueue starts. Subclasses say
/// how it starts, is cancelled, and what state it is in (ORVAsyncOperation
/// is the framework's own); this class keeps its name, its completion block
/// and its observers.
///
/// Create operations with std::make_shared.
///
/// Thread rule: any thread. Ownership: shared; a queue holds an operation
/// until it has finished. Observers are held weakly; the completion block is
/// kept until it is handed to a global queue.
class ORVELLAKIT_EXPORT ORVOperation : public std::enable_shared_from_this<ORVOperation> {
public:
    ORVOperation();
    virtual ~ORVOperation();
    ORVOperation(const ORVOperation &) = delete;
    ORVOperation &operator=(const ORVOperation &) = delete;

    /// Starts the work. A queue calls it on one of its worker threads.
    virtual void start() = 0;
    /// Asks the operation to stop; what that does is the subclass's.
    virtual void cancel() = 0;
    /// False (the default): the operation is finished when start() returns.
    /// True: it finishes later and says so by publishing "isFinished".
    virtual bool isAsynchronous() const { return false; }
    /// Whether the work is under way.
    virtual bool isExecuting() const = 0;
    /// Whether the operation has finished.
    virtual bool isFinished() const = 0;
    /// Whether the operation has been cancelled.
    virtual bool isCancelled() const = 0;
    /// Whether it may start; true here. ORVOperationQueue does not ask.
    virtual bool isReady() const { return true; }

    /// The operation's name; empty unless set.
    QString name() const;
    /// Sets the name.
    void setName(const QString &name);

    /// Runs once, on a global queue, after the operation has finished (when
    /// it publishes "isFinished" with isFinished() true).
    std::function<void()> completionBlock() const;
    /// Sets the block completionBlock() answers; null removes it.
    void setCompletionBlock(std::function<void()> block);

    /// Observers are held weakly.
    void addObserver(const std::shared_ptr<ORVOperationObserver> &observer);
    /// Removes the observer (and every observer that is gone).
    void removeObserver(const ORVOperationObserver *observer);

protected:
    /// Whether anyone observes the operation (a queue included).
    bool hasObservers() const
    {
        return _observerCount.load(std::memory_order_acquire) > 0 || _hasQueueObserver.load(std::memory_order_acquire);
    }
    /// Call these around a change of a published value, with the lock that
    /// guards the value held.
    void willChangeValueForKey(const QString &key);
    /// The did-change half of willChangeValueForKey(). For "isFinished" it
    /// also tells the queue and, once isFinished() is true, hands the
    /// completion block to a global queue.
    void didChangeValueForKey(const QString &key);

private:
    friend class ORVOperationQueue;
    /// The queue the operation was added to hears its did-change of
    /// "isFinished" directly, without the general observer list.
    void setQueueObserver(const std::shared_ptr<ORVOperationObserver> &queue);

    /// Observers to call, collected without allocating for the usual one or two.
    using ObserverList = QVarLengthArray<std::shared_ptr<ORVOperationObserver>, 4>;
    ObserverList liveObservers();

    /// Its sections are a few instructions long and an operation passes
    /// through it on each of its notifications.
    mutable ORVUnfairLock _lock;
    QString _name;
    std::function<void()> _completionBlock;
    QVarLengthArray<std::weak_ptr<ORVOperationObserver>, 2> _observers;
    /// Lets a notification without observers skip the lock.
    std::atomic<int> _observerCount = 0;
    std::atomic<bool> _hasCompletionBlock = false;
    std::weak_ptr<ORVOperationObserver> _queueObserver;
    std::atomic<bool> _hasQueueObserver = false;
};

/// The default maximum: as many as the worker pool runs at once.
constexpr int ORVOperationQueueDefaultMaxConcurrentOperationCount = -1;

/// Runs operations in the order they were added, at most
/// maxConcurrentOperationCount() at a time, on the framework's worker pool.
/// A queue starts an operation by calling its start() on a pool thread; a
/// synchronous operation is done when start() returns, an asynchronous one
/// when it publishes "isFinished" with isFinished() true. An operation whose
/// start() throws a std::exception is reported on the Qt log and removed.
///
/// Thread rule: any thread. Ownership: the queue holds each operation from
/// addOperation() until it has finished. Its state is shared with the work
/// under way, so destroying the queue neither waits for nor cancels its
/// operations.
class ORVELLAKIT_EXPORT ORVOperationQueue {
public:
    /// An empty queue, not suspended, with the default maximum and quality
    /// of service.
    ORVOperationQueue();
    ~ORVOperationQueue();
    ORVOperationQueue(const ORVOperationQueue &) = delete;
    ORVOperationQueue &operator=(const ORVOperationQueue &) = delete;

    /// The queue's name; empty unless set.
    QString name() const;
    /// Sets the name.
    void setName(const QString &name);
    /// How many operations may run at once; -1 for the default.
    int maxConcurrentOperationCount() const;
    /// -1 (the default) lets the worker pool decide; 1 makes a serial queue.
    void setMaxConcurrentOperationCount(int count);
    /// The quality of service of the pool threads that run the operations.
    ORVDispatchQueue::QualityOfService qualityOfService() const;
    /// Sets the quality of service of the pool work the queue starts from
    /// now on.
    void setQualityOfService(ORVDispatchQueue::QualityOfService qos);
    /// Whether the queue is suspended.
    bool isSuspended() const;
    /// A suspended queue starts nothing new; running operations go on.
    void setSuspended(bool suspended);

    /// Adds the operation and starts it when a place is free; a null one is
    /// ignored.
    void addOperation(const std::shared_ptr<ORVOperation> &operation);
    /// Wraps the block in an operation that finishes when the block returns.
    void addOperationWithBlock(std::function<void()> block);
    /// Operations not yet finished: the waiting ones and the running ones.
    std::vector<std::shared_ptr<ORVOperation>> operations() const;
    /// How many operations are waiting or running.
    qsizetype operationCount() const;
    /// Calls cancel() on every operation waiting or running.
    void cancelAllOperations();
    /// Blocks until no operation is waiting or running.
    void waitUntilAllOperationsAreFinished();

private:
    struct Shared;
    std::shared_ptr<Shared> _shared;
};
