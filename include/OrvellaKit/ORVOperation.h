#pragma once

// ORVOperation and ORVOperationQueue: operations that an operation queue
// runs, at most a given number at a time, on the framework's worker pool.
//
// An operation publishes changes of its "isExecuting", "isFinished" and
// "isCancelled" values to its observers as a will-change call, the change
// itself, and a did-change call. The queue is such an observer: it removes
// an operation once it has said "isFinished" with isFinished() true.

#include <OrvellaKit/ORVDispatchQueue.h>
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
extern const QString ORVOperationIsExecutingKey; // "isExecuting"
extern const QString ORVOperationIsFinishedKey;  // "isFinished"
extern const QString ORVOperationIsCancelledKey; // "isCancelled"

class ORVOperationObserver {
public:
    virtual ~ORVOperationObserver();
    virtual void operationWillChangeValueForKey(ORVOperation &operation, const QString &key);
    virtual void operationDidChangeValueForKey(ORVOperation &operation, const QString &key);
};

class ORVOperation : public std::enable_shared_from_this<ORVOperation> {
public:
    ORVOperation();
    virtual ~ORVOperation();
    ORVOperation(const ORVOperation &) = delete;
    ORVOperation &operator=(const ORVOperation &) = delete;

    virtual void start() = 0;
    virtual void cancel() = 0;
    virtual bool isAsynchronous() const { return false; }
    virtual bool isExecuting() const = 0;
    virtual bool isFinished() const = 0;
    virtual bool isCancelled() const = 0;
    virtual bool isReady() const { return true; }

    QString name() const;
    void setName(const QString &name);

    // Runs once, on a global queue, after the operation has finished.
    std::function<void()> completionBlock() const;
    void setCompletionBlock(std::function<void()> block);

    // Observers are held weakly.
    void addObserver(const std::shared_ptr<ORVOperationObserver> &observer);
    void removeObserver(const ORVOperationObserver *observer);

protected:
    bool hasObservers() const
    {
        return _observerCount.load(std::memory_order_acquire) > 0 || _hasQueueObserver.load(std::memory_order_acquire);
    }
    // Call these around a change of a published value, with the lock that
    // guards the value held.
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);

private:
    friend class ORVOperationQueue;
    // The queue the operation was added to hears its did-change of
    // "isFinished" directly, without the general observer list.
    void setQueueObserver(const std::shared_ptr<ORVOperationObserver> &queue);

    // Observers to call, collected without allocating for the usual one or two.
    using ObserverList = QVarLengthArray<std::shared_ptr<ORVOperationObserver>, 4>;
    ObserverList liveObservers();

    // Its sections are a few instructions long and an operation passes
    // through it on each of its notifications.
    mutable ORVUnfairLock _lock;
    QString _name;
    std::function<void()> _completionBlock;
    QVarLengthArray<std::weak_ptr<ORVOperationObserver>, 2> _observers;
    // Lets a notification without observers skip the lock.
    std::atomic<int> _observerCount = 0;
    std::atomic<bool> _hasCompletionBlock = false;
    std::weak_ptr<ORVOperationObserver> _queueObserver;
    std::atomic<bool> _hasQueueObserver = false;
};

// The default maximum: as many as the worker pool runs at once.
constexpr int ORVOperationQueueDefaultMaxConcurrentOperationCount = -1;

class ORVOperationQueue {
public:
    ORVOperationQueue();
    ~ORVOperationQueue();
    ORVOperationQueue(const ORVOperationQueue &) = delete;
    ORVOperationQueue &operator=(const ORVOperationQueue &) = delete;

    QString name() const;
    void setName(const QString &name);
    int maxConcurrentOperationCount() const;
    // -1 (the default) lets the worker pool decide; 1 makes a serial queue.
    void setMaxConcurrentOperationCount(int count);
    ORVDispatchQueue::QualityOfService qualityOfService() const;
    void setQualityOfService(ORVDispatchQueue::QualityOfService qos);
    bool isSuspended() const;
    // A suspended queue starts nothing new; running operations go on.
    void setSuspended(bool suspended);

    void addOperation(const std::shared_ptr<ORVOperation> &operation);
    // Wraps the block in an operation that finishes when the block returns.
    void addOperationWithBlock(std::function<void()> block);
    // Operations not yet finished: the waiting ones and the running ones.
    std::vector<std::shared_ptr<ORVOperation>> operations() const;
    qsizetype operationCount() const;
    void cancelAllOperations();
    // Blocks until no operation is waiting or running.
    void waitUntilAllOperationsAreFinished();

private:
    struct Shared;
    std::shared_ptr<Shared> _shared;
};
