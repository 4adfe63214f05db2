#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVOperation.h>

#include <QtGlobal>

#include <algorithm>

const QString ORVOperationIsExecutingKey = QStringLiteral("isExecuting");
const QString ORVOperationIsFinishedKey = QStringLiteral("isFinished");
const QString ORVOperationIsCancelledKey = QStringLiteral("isCancelled");

ORVOperationObserver::~ORVOperationObserver() = default;
void ORVOperationObserver::operationWillChangeValueForKey(ORVOperation &, const QString &) {}
void ORVOperationObserver::operationDidChangeValueForKey(ORVOperation &, const QString &) {}

// --- ORVOperation --------------------------------------------------------------

ORVOperation::ORVOperation() = default;
ORVOperation::~ORVOperation() = default;

QString ORVOperation::name() const
{
    std::lock_guard lock(_lock);
    return _name;
}

void ORVOperation::setName(const QString &name)
{
    std::lock_guard lock(_lock);
    _name = name;
}

std::function<void()> ORVOperation::completionBlock() const
{
    std::lock_guard lock(_lock);
    return _completionBlock;
}

void ORVOperation::setCompletionBlock(std::function<void()> block)
{
    std::lock_guard lock(_lock);
    _hasCompletionBlock.store(static_cast<bool>(block), std::memory_order_release);
    _completionBlock = std::move(block);
}

void ORVOperation::addObserver(const std::shared_ptr<ORVOperationObserver> &observer)
{
    std::lock_guard lock(_lock);
    _observers.push_back(observer);
    _observerCount.store(static_cast<int>(_observers.size()), std::memory_order_release);
}

void ORVOperation::removeObserver(const ORVOperationObserver *observer)
{
    std::lock_guard lock(_lock);
    _observers.removeIf([&](const std::weak_ptr<ORVOperationObserver> &weak) {
        const auto strong = weak.lock();
        return !strong || strong.get() == observer;
    });
    _observerCount.store(static_cast<int>(_observers.size()), std::memory_order_release);
}

ORVOperation::ObserverList ORVOperation::liveObservers()
{
    ObserverList observers;
    if (_observerCount.load(std::memory_order_acquire) == 0)
        return observers;
    std::lock_guard lock(_lock);
    for (const auto &weak : _observers) {
        if (auto strong = weak.lock())
            observers.push_back(std::move(strong));
    }
    return observers;
}

void ORVOperation::willChangeValueForKey(const QString &key)
{
    for (const auto &observer : liveObservers())
        observer->operationWillChangeValueForKey(*this, key);
}

void ORVOperation::setQueueObserver(const std::shared_ptr<ORVOperationObserver> &queue)
{
    std::lock_guard lock(_lock);
    _queueObserver = queue;
    _hasQueueObserver.store(queue != nullptr, std::memory_order_release);
}

void ORVOperation::didChangeValueForKey(const QString &key)
{
    for (const auto &observer : liveObservers())
        observer->operationDidChangeValueForKey(*this, key);
    if (key != ORVOperationIsFinishedKey)
        return;
    if (_hasQueueObserver.load(std::memory_order_acquire)) {
        std::shared_ptr<ORVOperationObserver> queue;
        {
            std::lock_guard lock(_lock);
            queue = _queueObserver.lock();
        }
        if (queue)
            queue->operationDidChangeValueForKey(*this, key);
    }
    if (_hasCompletionBlock.load(std::memory_order_acquire) && isFinished()) {
        std::function<void()> block;
        {
            std::lock_guard lock(_lock);
            block = std::exchange(_completionBlock, nullptr);
            _hasCompletionBlock.store(false, std::memory_order_release);
        }
        if (block)
            ORVDispatchQueue::globalQueue()->async(std::move(block));
    }
}

// --- ORVOperationQueue ---------------------------------------------------------

namespace {
// What "let the pool decide" means: as many as the worker pool runs at once.
constexpr int kDefaultLimit = 64;
constexpr auto kRunnerLinger = std::chrono::milliseconds(2);
} // namespace

// The waiting operations, first in first out. A deque allocates a block
// every few dozen pushes that the runner then frees while the producer holds
// malloc's arena lock; here the storage is kept and reused, so the queue's
// critical sections make no allocation once it has grown to its working size.
class OperationFifo {
public:
    using Slots = std::vector<std::shared_ptr<ORVOperation>>;
    bool empty() const { return _head == _slots.size(); }
    size_t size() const { return _slots.size() - _head; }
    Slots::iterator begin() { return _slots.begin() + static_cast<std::ptrdiff_t>(_head); }
    Slots::iterator end() { return _slots.end(); }
    Slots::const_iterator begin() const { return _slots.begin() + static_cast<std::ptrdiff_t>(_head); }
    Slots::const_iterator end() const { return _slots.end(); }
    void push_back(const std::shared_ptr<ORVOperation> &operation)
    {
        // Full, with the front half taken already: slide down instead of
        // growing, so a steady stream stays in the same storage.
        if (_slots.size() == _slots.capacity() && _head >= _slots.size() / 2 && _head > 0) {
            _slots.erase(_slots.begin(), begin());
            _head = 0;
        }
        _slots.push_back(operation);
    }
    std::shared_ptr<ORVOperation> pop_front()
    {
        auto operation = std::move(_slots[_head++]);
        if (_head == _slots.size())
            clear();
        return operation;
    }
    void erase(Slots::iterator at)
    {
        _slots.erase(at);
        if (_head == _slots.size())
            clear();
    }

private:
    // Empty: the storage is kept for the next run of operations, unless a
    // burst made it larger than a steady stream needs.
    void clear()
    {
        if (_slots.capacity() > kKeptCapacity)
            Slots().swap(_slots);
        else
            _slots.clear();
        _head = 0;
    }
    static constexpr size_t kKeptCapacity = 1024;

    Slots _slots;
    size_t _head = 0;
};

// The queue's state. It observes its operations and is shared with the
// runner tasks, so it outlives a queue object destroyed while work runs.
//
// The queue's mutex is never held while an operation's own methods run:
// operations call the queue back with their state lock held.
struct ORVOperationQueue::Shared final : ORVOperationObserver, std::enable_shared_from_this<Shared> {
    // A producer adding operations and a runner taking them meet here many
    // times a second; a lock that spins briefly before yielding keeps them
    // from putting each other to sleep in the kernel on every collision.
    mutable ORVUnfairLock mutex;
    std::condition_variable_any idle;
    int idleWaiters = 0; // threads in waitUntilAllOperationsAreFinished()
    QString name;
    int maxCount = ORVOperationQueueDefaultMaxConcurrentOperationCount;
    ORVDispatchQueue::QualityOfService qos = ORVDispatchQueue::QualityOfService::Default;
    bool suspended = false;
    OperationFifo waiting;
    std::vector<std::shared_ptr<ORVOperation>> running;
    int runners = 0;
    int idleRunners = 0;
    std::condition_variable_any workAvailable;
    // waiting.size(), readable without the lock.
    std::atomic<size_t> waitingCount = 0;

    int limit() const { return maxCount < 0 ? kDefaultLimit : maxCount; }

    // With the mutex held: wakes a lingering runner when there is work for
    // it, and answers whether another runner should start.
    bool needsRunner()
    {
        if (!canStartOne())
            return false;
        if (idleRunners > 0) {
            workAvailable.notify_one();
            return false;
        }
        return static_cast<size_t>(runners) < static_cast<size_t>(limit());
    }

    void startRunner()
    {
        ORVDispatchQueue::globalQueue(qos)->async([self = shared_from_this()] { self->run(); });
    }

    bool canStartOne() const
    {
        return !suspended && !waiting.empty() && running.size() < static_cast<size_t>(limit());
    }

    // With the mutex held: takes the operation out of the running (or
    // waiting) list and wakes waiters once the queue is empty.
    std::shared_ptr<ORVOperation> removeLocked(const ORVOperation *operation)
    {
        std::shared_ptr<ORVOperation> removed;
        auto it = std::find_if(running.begin(), running.end(), [&](const auto &op) { return op.get() == operation; });
        if (it != running.end()) {
            removed = std::move(*it);
            running.erase(it);
        } else {
            auto waitingIt =
                std::find_if(waiting.begin(), waiting.end(), [&](const auto &op) { return op.get() == operation; });
            if (waitingIt == waiting.end())
                return nullptr;
            removed = std::move(*waitingIt);
            waiting.erase(waitingIt);
            waitingCount.store(waiting.size(), std::memory_order_relaxed);
        }
        if (idleWaiters > 0 && waiting.empty() && running.empty())
            idle.notify_all();
        return removed;
    }

    // With the mutex held: moves the next waiting operation to the running list.
    std::shared_ptr<ORVOperation> takeNextLocked()
    {
        auto operation = waiting.pop_front();
        waitingCount.store(waiting.size(), std::memory_order_relaxed);
        running.push_back(operation);
        return operation;
    }

    // A runner takes operations one after another while the limit allows,
    // so a stream of short operations needs no thread hand-off per operation.
    // Out of work, it lingers a moment for more before it gives its thread
    // back: a producer that adds operations one by one then wakes a waiting
    // runner instead of starting a new one for each.
    void run()
    {
        // A synchronous operation (or one whose start() threw) ends when
        // start() returns; it is taken out under the same lock as the next
        // one is taken. Held, so that its address names it until then.
        std::shared_ptr<ORVOperation> done;
        for (;;) {
            std::shared_ptr<ORVOperation> operation;
            {
                std::shared_ptr<ORVOperation> ended = std::move(done);
                std::shared_ptr<ORVOperation> removed; // released without the mutex
                std::unique_lock lock(mutex);
                if (ended)
                    removed = removeLocked(ended.get());
                if (!canStartOne()) {
                    lock.unlock();
                    // Let go before lingering: a queue that has let an
                    // operation go no longer keeps it alive.
                    removed.reset();
                    ended.reset();
                    // A producer adding one operation after another is
                    // usually a moment behind: look again for a few
                    // microseconds before sleeping, which spares it a wake-up
                    // call per operation.
                    for (int spin = 0; spin < 512 && waitingCount.load(std::memory_order_relaxed) == 0; ++spin)
                        ORV_CPU_RELAX();
                    lock.lock();
                    if (!canStartOne()) {
                        ++idleRunners;
                        const bool more = workAvailable.wait_for(lock, kRunnerLinger, [&] { return canStartOne(); });
                        --idleRunners;
                        if (!more) {
                            --runners;
                            return;
                        }
                    }
                }
                operation = takeNextLocked();
            }
            try {
                operation->start();
                if (!operation->isAsynchronous())
                    done = std::move(operation);
            } catch (const std::exception &e) {
                // The operation cannot finish any more; do not let it hold a
                // place in the queue for ever.
                qCritical("ORVOperationQueue: an operation's start() threw: %s", e.what());
                done = std::move(operation);
            }
        }
    }

    void finished(ORVOperation *operation)
    {
        std::shared_ptr<ORVOperation> removed; // released after the mutex
        bool spawn = false;
        {
            std::lock_guard lock(mutex);
            removed = removeLocked(operation);
            if (!removed)
                return;
            spawn = needsRunner();
            if (spawn)
                ++runners;
        }
        if (spawn)
            startRunner();
    }

    void operationDidChangeValueForKey(ORVOperation &operation, const QString &key) override
    {
        if (key == ORVOperationIsFinishedKey && operation.isFinished())
            finished(&operation);
    }

    void wakeRunners()
    {
        int spawn = 0;
        {
            std::lock_guard lock(mutex);
            while (static_cast<size_t>(runners) < waiting.size() + running.size() && needsRunner()) {
                ++runners;
                ++spawn;
            }
        }
        for (int i = 0; i < spawn; ++i)
            startRunner();
    }
};

ORVOperationQueue::ORVOperationQueue() : _shared(std::make_shared<Shared>()) {}
ORVOperationQueue::~ORVOperationQueue() = default;

QString ORVOperationQueue::name() const
{
    std::lock_guard lock(_shared->mutex);
    return _shared->name;
}

void ORVOperationQueue::setName(const QString &name)
{
    std::lock_guard lock(_shared->mutex);
    _shared->name = name;
}

int ORVOperationQueue::maxConcurrentOperationCount() const
{
    std::lock_guard lock(_shared->mutex);
    return _shared->maxCount;
}

void ORVOperationQueue::setMaxConcurrentOperationCount(int count)
{
    {
        std::lock_guard lock(_shared->mutex);
        _shared->maxCount = count < 0 ? ORVOperationQueueDefaultMaxConcurrentOperationCount : count;
    }
    _shared->wakeRunners();
}

ORVDispatchQueue::QualityOfService ORVOperationQueue::qualityOfService() const
{
    std::lock_guard lock(_shared->mutex);
    return _shared->qos;
}

void ORVOperationQueue::setQualityOfService(ORVDispatchQueue::QualityOfService qos)
{
    std::lock_guard lock(_shared->mutex);
    _shared->qos = qos;
}

bool ORVOperationQueue::isSuspended() const
{
    std::lock_guard lock(_shared->mutex);
    return _shared->suspended;
}

void ORVOperationQueue::setSuspended(bool suspended)
{
    {
        std::lock_guard lock(_shared->mutex);
        _shared->suspended = suspended;
    }
    _shared->wakeRunners();
}

void ORVOperationQueue::addOperation(const std::shared_ptr<ORVOperation> &operation)
{
    if (!operation)
        return;
    operation->setQueueObserver(_shared);
    bool spawn = false;
    {
        std::lock_guard lock(_shared->mutex);
        _shared->waiting.push_back(operation);
        _shared->waitingCount.store(_shared->waiting.size(), std::memory_order_relaxed);
        spawn = _shared->needsRunner();
        if (spawn)
            ++_shared->runners;
    }
    // An operation that finished (was cancelled) before it reached the list
    // said so when nobody could find it: take it out again.
    if (operation->isFinished())
        _shared->finished(operation.get());
    if (spawn)
        _shared->startRunner();
}

void ORVOperationQueue::addOperationWithBlock(std::function<void()> block)
{
    addOperation(ORVBlockOperation::blockOperationWithBlock(
        [block = std::move(block)](const std::shared_ptr<ORVBlockOperation> &) {
            if (block)
                block();
        }));
}

std::vector<std::shared_ptr<ORVOperation>> ORVOperationQueue::operations() const
{
    std::lock_guard lock(_shared->mutex);
    std::vector<std::shared_ptr<ORVOperation>> all(_shared->running.begin(), _shared->running.end());
    all.insert(all.end(), _shared->waiting.begin(), _shared->waiting.end());
    return all;
}

qsizetype ORVOperationQueue::operationCount() const
{
    std::lock_guard lock(_shared->mutex);
    return static_cast<qsizetype>(_shared->running.size() + _shared->waiting.size());
}

void ORVOperationQueue::cancelAllOperations()
{
    for (const auto &operation : operations())
        operation->cancel();
}

void ORVOperationQueue::waitUntilAllOperationsAreFinished()
{
    std::unique_lock lock(_shared->mutex);
    ++_shared->idleWaiters;
    _shared->idle.wait(lock, [&] { return _shared->waiting.empty() && _shared->running.empty(); });
    --_shared->idleWaiters;
}
