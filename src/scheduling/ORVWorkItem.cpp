#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVWorkItem.h>

namespace {
constexpr const char *kFile = "ORVWorkItem";
constexpr const char *kClass = "ORVWorkItem";
} // namespace

ORVWorkItem::ORVWorkItem() = default;
ORVWorkItem::~ORVWorkItem() = default;

void ORVWorkItem::start() {}

bool ORVWorkItem::tryStart()
{
    std::lock_guard lock(_stateLock);
    if (_state != ORVWorkItemStateNotStarted)
        return false;
    _state = ORVWorkItemStateStarted;
    return true;
}

bool ORVWorkItem::tryFinish()
{
    std::lock_guard lock(_stateLock);
    if (_state >= ORVWorkItemStateFinishing)
        return false;
    _state = ORVWorkItemStateFinishing;
    return true;
}

bool ORVWorkItem::tryCancel()
{
    std::lock_guard lock(_cancelLock);
    if (_cancelled)
        return false;
    _cancelled = true;
    return true;
}

bool ORVWorkItem::isCanceled() const
{
    std::lock_guard lock(_cancelLock);
    return _cancelled;
}

void ORVWorkItem::cancel()
{
    if (tryCancel() && tryFinish())
        finishWithError(orv_orvellaKitCancelError());
}

void ORVWorkItem::finishWithError(const ORVError &error)
{
    // Only a repeated finish (state 3) is caught; a finish without
    // tryFinish (state 0 or 1) just moves to state 3. Deliberately so.
    bool repeated = false;
    {
        std::lock_guard lock(_stateLock);
        repeated = _state > ORVWorkItemStateFinishing;
        if (!repeated)
            _state = ORVWorkItemStateFinished;
    }
    if (repeated) {
        ORVMethodAssert(false, "finishWithError:", kClass, kFile,
                        QStringLiteral("Called finishWithError: without an affirmative response from tryFinish or "
                                       "called it multiple times."));
        return;
    }

    // Taking the handler out breaks a cycle between the item and its
    // handler and makes a second call find nothing.
    CompletionHandler handler;
    {
        std::lock_guard lock(_completionHandlerLock);
        handler = std::exchange(_completionHandler, nullptr);
    }
    if (!handler)
        return;
    std::shared_ptr<ORVDispatchQueue> queue;
    {
        std::lock_guard lock(_completionQueueLock);
        queue = _completionQueue ? _completionQueue : ORVDispatchQueue::mainQueue();
    }
    // Always asynchronous, even when the caller is on that queue.
    std::shared_ptr<ORVWorkItem> self = weak_from_this().lock();
    if (!self) // not owned by a shared_ptr: the caller keeps it alive
        self = std::shared_ptr<ORVWorkItem>(std::shared_ptr<void>(), this);
    queue->async([handler = std::move(handler), self = std::move(self), error] { handler(self, error); });
}

// The accessors keep the lock order: handler or queue lock first, then the
// state lock. The queue's setter takes the handler lock, not the queue lock.

ORVWorkItem::CompletionHandler ORVWorkItem::completionHandler() const
{
    std::lock_guard handlerLock(_completionHandlerLock);
    std::lock_guard stateLock(_stateLock);
    return _completionHandler;
}

void ORVWorkItem::setCompletionHandler(CompletionHandler handler)
{
    std::lock_guard handlerLock(_completionHandlerLock);
    std::lock_guard stateLock(_stateLock);
    if (!ORVMethodAssert(_state == ORVWorkItemStateNotStarted, "setCompletionHandler:", kClass, kFile,
                         QStringLiteral("completionHandler can only be safely mutated before submitting work item.")))
        return;
    _completionHandler = std::move(handler);
}

std::shared_ptr<ORVDispatchQueue> ORVWorkItem::completionQueue() const
{
    std::lock_guard queueLock(_completionQueueLock);
    std::lock_guard stateLock(_stateLock);
    return _completionQueue ? _completionQueue : ORVDispatchQueue::mainQueue();
}

void ORVWorkItem::setCompletionQueue(std::shared_ptr<ORVDispatchQueue> queue)
{
    std::lock_guard handlerLock(_completionHandlerLock);
    std::lock_guard stateLock(_stateLock);
    if (!ORVMethodAssert(_state == ORVWorkItemStateNotStarted, "setCompletionQueue:", kClass, kFile,
                         QStringLiteral("completionQueue can only be safely mutated before submitting work item.")))
        return;
    _completionQueue = std::move(queue);
}

ORVWorkItemState ORVWorkItem::state() const
{
    std::lock_guard lock(_stateLock);
    return static_cast<ORVWorkItemState>(_state);
}
