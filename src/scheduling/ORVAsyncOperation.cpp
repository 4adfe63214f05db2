#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>

#include "ORVRecycledAllocator.h"

namespace {
const QString &kIsExecuting = ORVOperationIsExecutingKey;
const QString &kIsFinished = ORVOperationIsFinishedKey;
const QString &kIsCancelled = ORVOperationIsCancelledKey;
const QString kExecutionHandler = QStringLiteral("executionHandler");
} // namespace

ORVAsyncOperation::ORVAsyncOperation() = default;
ORVAsyncOperation::~ORVAsyncOperation() = default;

bool ORVAsyncOperation::isExecuting() const
{
    std::lock_guard lock(_stateLock);
    return _state == ORVWorkItemStateStarted;
}

bool ORVAsyncOperation::isFinished() const
{
    std::lock_guard lock(_stateLock);
    return _state == ORVWorkItemStateFinished;
}

bool ORVAsyncOperation::isCancelled() const
{
    std::lock_guard lock(_cancelLock);
    return _cancelled;
}

// Observers may drop the last reference to the operation from inside a
// notification (a queue removing a finished operation); each notifying
// method holds one of its own until it returns, when anyone observes.
#define ORV_KEEP_ALIVE_WHILE_NOTIFYING() const auto self = hasObservers() ? weak_from_this().lock() : nullptr

bool ORVAsyncOperation::tryStart()
{
    ORV_KEEP_ALIVE_WHILE_NOTIFYING();
    std::lock_guard lock(_stateLock);
    if (_state != ORVWorkItemStateNotStarted)
        return false;
    willChangeValueForKey(kIsExecuting);
    _state = ORVWorkItemStateStarted;
    didChangeValueForKey(kIsExecuting);
    return true;
}

bool ORVAsyncOperation::tryFinish()
{
    ORV_KEEP_ALIVE_WHILE_NOTIFYING();
    std::lock_guard lock(_stateLock);
    if (_state >= ORVWorkItemStateFinishing)
        return false;
    // "isExecuting": the operation stops executing here and is finished only
    // in finishWithError().
    willChangeValueForKey(kIsExecuting);
    _state = ORVWorkItemStateFinishing;
    didChangeValueForKey(kIsExecuting);
    return true;
}

bool ORVAsyncOperation::tryCancel()
{
    ORV_KEEP_ALIVE_WHILE_NOTIFYING();
    std::lock_guard lock(_cancelLock);
    if (_cancelled)
        return false;
    willChangeValueForKey(kIsCancelled);
    _cancelled = true;
    didChangeValueForKey(kIsCancelled);
    return true;
}

void ORVAsyncOperation::cancel()
{
    if (tryCancel() && tryFinish())
        finishWithError(orv_orvellaKitCancelError());
}

void ORVAsyncOperation::finishWithError(const ORVError &error)
{
    ORV_KEEP_ALIVE_WHILE_NOTIFYING();
    // Not the work item's test: state 1 (skipped tryFinish) and state 3
    // are caught, a never-started operation (state 0) is let through.
    bool misuse = false;
    {
        std::lock_guard lock(_stateLock);
        misuse = _state != ORVWorkItemStateNotStarted && _state != ORVWorkItemStateFinishing;
        if (!misuse) {
            willChangeValueForKey(kIsFinished);
            _state = ORVWorkItemStateFinished;
            didChangeValueForKey(kIsFinished);
        }
    }
    if (misuse) {
        ORVMethodAssert(false, "finishWithError:", "ORVAsyncOperation", "ORVAsyncOperation",
                        QStringLiteral("Unable to complete operation, it is likely -finishWithError: was called "
                                       "without an affirmative response from tryFinish or called multiple times."));
        return;
    }
    CompletionHandler handler;
    {
        std::lock_guard lock(_completionHandlerLock);
        handler = std::exchange(_completionHandler, nullptr);
    }
    // The handler runs at once, on this thread.
    if (handler) {
        auto operation = std::static_pointer_cast<ORVAsyncOperation>(self ? self : weak_from_this().lock());
        if (!operation)
            operation = std::shared_ptr<ORVAsyncOperation>(std::shared_ptr<void>(), this);
        handler(operation, error);
    }
}

ORVAsyncOperation::CompletionHandler ORVAsyncOperation::completionHandler() const
{
    std::lock_guard handlerLock(_completionHandlerLock);
    std::lock_guard stateLock(_stateLock);
    return _completionHandler;
}

void ORVAsyncOperation::setCompletionHandler(CompletionHandler handler)
{
    std::lock_guard handlerLock(_completionHandlerLock);
    std::lock_guard stateLock(_stateLock);
    if (!ORVMethodAssert(_state == ORVWorkItemStateNotStarted, "setCompletionHandler:", "ORVAsyncOperation",
                         "ORVAsyncOperation",
                         QStringLiteral("completionHandler can only be safely mutated before submitting operation.")))
        return;
    _completionHandler = std::move(handler);
}

// --- ORVBlockOperation -----------------------------------------------------------

ORVBlockOperation::ORVBlockOperation() = default;
ORVBlockOperation::~ORVBlockOperation() = default;

std::shared_ptr<ORVBlockOperation>
ORVBlockOperation::blockOperationWithBlock(std::function<void(const std::shared_ptr<ORVBlockOperation> &)> block)
{
    // Made here and usually freed by the pool thread that ran it: recycled
    // between the two in batches rather than through malloc's arena lock.
    auto operation = std::allocate_shared<ORVBlockOperation>(orv::detail::RecycledAllocator<ORVBlockOperation>());
    // The block waits in a member, so the handler captures nothing and needs
    // no allocation of its own.
    operation->_block = std::move(block);
    operation->setExecutionHandler([](const std::shared_ptr<ORVBlockOperation> &op) {
        if (auto block = op->takeBlock())
            block(op);
        return true;
    });
    return operation;
}

ORVBlockOperation::ExecutionHandler ORVBlockOperation::executionHandler() const
{
    std::lock_guard lock(_executionHandlerLock);
    return _executionHandler;
}

void ORVBlockOperation::setExecutionHandler(ExecutionHandler handler)
{
    // The property publishes its changes in the default way.
    willChangeValueForKey(kExecutionHandler);
    {
        std::lock_guard lock(_executionHandlerLock);
        _executionHandler = std::move(handler);
    }
    didChangeValueForKey(kExecutionHandler);
}

void ORVBlockOperation::start()
{
    ExecutionHandler handler;
    {
        std::lock_guard lock(_executionHandlerLock);
        handler = std::exchange(_executionHandler, nullptr);
    }
    if (!ORVMethodParameterAssert(static_cast<bool>(handler), "executionHandler != nil", "start",
                                  "ORVBlockOperation", "ORVBlockOperation"))
        return;
    if (!tryStart()) {
        // Cancelled (or started) already: the block never runs, so what it
        // captures goes now; a block holding its own operation would
        // otherwise keep both alive for good.
        takeBlock();
        return;
    }
    auto self = std::static_pointer_cast<ORVBlockOperation>(weak_from_this().lock());
    if (!self)
        self = std::shared_ptr<ORVBlockOperation>(std::shared_ptr<void>(), this);
    if (handler(self))
        didFinishExecution();
}

void ORVBlockOperation::cancel()
{
    ORVAsyncOperation::cancel();
    // Cancelled before its block was taken to run: it never will be.
    takeBlock();
}

std::function<void(const std::shared_ptr<ORVBlockOperation> &)> ORVBlockOperation::takeBlock()
{
    // Taken under the handler's lock, since start() may run on one thread
    // while another one starts or cancels the same operation; the caller
    // lets go of the captures outside it.
    std::lock_guard lock(_executionHandlerLock);
    return std::exchange(_block, nullptr);
}

void ORVBlockOperation::didFinishExecution()
{
    if (tryFinish())
        finishWithError(ORVError());
}
