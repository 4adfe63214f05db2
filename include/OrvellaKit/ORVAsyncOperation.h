#pragma once

/// \file
/// ORVAsyncOperation and ORVBlockOperation: operations whose life follows
/// the work item's state machine. Create both with std::make_shared.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVLocks.h>
#include <OrvellaKit/ORVOperation.h>
#include <OrvellaKit/ORVWorkItem.h>

#include <functional>
#include <memory>
#include <mutex>

/// An asynchronous operation whose life follows the work item's state
/// machine (0 not started, 1 executing, 2 finishing, 3 finished) and
/// publishes it to its observers: tryStart() and tryFinish() change
/// "isExecuting", finishWithError() changes "isFinished", tryCancel()
/// changes "isCancelled", each as will-change, change, did-change with the
/// value's recursive lock held (an observer may read the values back).
///
/// Subclasses override start(): tryStart(), work only on yes, and at the end
/// tryFinish() and, on yes, finishWithError(). Unlike a work item the
/// completion handler runs at once, on the thread that finishes.
///
/// Create it with std::make_shared.
///
/// Thread rule: any thread; the completion handler runs on the thread that
/// calls finishWithError(). Ownership: the operation keeps its completion
/// handler until it finishes and lets go of it then; while it notifies
/// observers it holds a reference to itself.
class ORVELLAKIT_EXPORT ORVAsyncOperation : public ORVOperation {
public:
    /// Receives the finished operation and its error (a null error on
    /// success).
    using CompletionHandler =
        std::function<void(const std::shared_ptr<ORVAsyncOperation> &operation, const ORVError &error)>;

    /// An operation in state 0, not cancelled.
    ORVAsyncOperation();
    ~ORVAsyncOperation() override;

    /// Does nothing here; subclasses start their work.
    void start() override {}
    /// True.
    bool isAsynchronous() const override { return true; }
    /// State 1.
    bool isExecuting() const override;
    /// State 3.
    bool isFinished() const override;
    /// Whether tryCancel() has set the cancelled flag.
    bool isCancelled() const override;

    /// 0 -> 1, publishing "isExecuting". Answers whether this call made the
    /// move.
    bool tryStart();
    /// 0 or 1 -> 2, publishing "isExecuting". Answers whether this call made
    /// the move.
    bool tryFinish();
    /// Sets the cancelled flag once, publishing "isCancelled"; the state is
    /// untouched. Answers whether this call set it.
    bool tryCancel();
    /// tryCancel() and then tryFinish(); when both say yes, finishes with the
    /// framework's cancel error.
    void cancel() override;
    /// Moves to state 3, publishing "isFinished", and runs the completion
    /// handler at once with `error`.
    /// From state 0 or 2 only; otherwise fails "Unable to complete operation,
    /// it is likely -finishWithError: was called without an affirmative
    /// response from tryFinish or called multiple times.".
    void finishWithError(const ORVError &error = ORVError());

    /// The handler, or null (none set, or taken by the finish).
    CompletionHandler completionHandler() const;
    /// Before submission only: fails "completionHandler can only be safely
    /// mutated before submitting operation." afterwards.
    void setCompletionHandler(CompletionHandler handler);

private:
    qint8 _state = ORVWorkItemStateNotStarted;
    mutable ORVRecursiveLock _stateLock;  ///< "state"
    bool _cancelled = false;
    mutable ORVRecursiveLock _cancelLock; ///< "cancel"
    CompletionHandler _completionHandler;
    mutable ORVUnfairLock _completionHandlerLock;
};

/// Runs an execution handler instead of a subclass's start().
///
/// Create it with std::make_shared (or blockOperationWithBlock()).
///
/// Thread rule: any thread; the handler and the block run on the thread that
/// calls start(). Ownership: the operation keeps its execution handler and
/// block until start() takes them out; cancel() drops a block that has not
/// run.
class ORVELLAKIT_EXPORT ORVBlockOperation : public ORVAsyncOperation {
public:
    /// Takes the operation; answers whether the work is finished now. When it
    /// answers false it must call didFinishExecution() itself later.
    using ExecutionHandler = std::function<bool(const std::shared_ptr<ORVBlockOperation> &operation)>;

    /// An operation without an execution handler.
    ORVBlockOperation();
    ~ORVBlockOperation() override;

    /// An operation that runs the block and finishes when it returns.
    static std::shared_ptr<ORVBlockOperation>
    blockOperationWithBlock(std::function<void(const std::shared_ptr<ORVBlockOperation> &operation)> block);

    /// The handler, or null (none set, or taken by start()).
    ExecutionHandler executionHandler() const;
    /// Sets the handler start() runs.
    /// Publishes "executionHandler" to observers.
    void setExecutionHandler(ExecutionHandler handler);

    /// Takes the handler out (so it runs at most once) and runs it when
    /// tryStart() says yes. Without a handler it fails "executionHandler != nil".
    void start() override;
    /// tryFinish() and, on yes, finishWithError() with no error.
    void didFinishExecution();
    /// Cancels (see ORVAsyncOperation) and lets go of a block that has not
    /// run yet: a queue drops a cancelled waiting operation without starting
    /// it, and a block holding its own operation would keep both alive.
    void cancel() override;

private:
    /// The block of blockOperationWithBlock(), taken out once: to run it, or
    /// to drop it when the operation can no longer start.
    std::function<void(const std::shared_ptr<ORVBlockOperation> &)> takeBlock();

    ExecutionHandler _executionHandler;
    mutable ORVUnfairLock _executionHandlerLock;
    /// Guarded by _executionHandlerLock.
    std::function<void(const std::shared_ptr<ORVBlockOperation> &)> _block;
};
