#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVOperation.h>

#include <QtGlobal>

#include <algorithm>

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
    _completionBlock = std::move(block);
}

void ORVOperation::addObserver(const std::shared_ptr<ORVOperationObserver> &observer)
{
    std::lock_guard lock(_lock);
    _observers.push_back(observer);
}

void ORVOperation::removeObserver(const ORVOperationObserver *observer)
{
    std::lock_guard lock(_lock);
    std::erase_if(_observers, [&](const std::weak_ptr<ORVOperationObserver> &weak) {
        const auto strong = weak.lock();
        return !strong || strong.get() == observer;
    });
}

std::vector<std::shared_ptr<ORVOperationObserver>> ORVOperation::liveObservers()
{
    std::vector<std::shared_ptr<ORVOperationObserver>> observers;
    std::lock_guard lock(_lock);
    observers.reserve(_observers.size());
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

void ORVOperation::didChangeValueForKey(const QString &key)
{
    for (const auto &observer : liveObservers())
        observer->operationDidChangeValueForKey(*this, key);
    if (key == QLatin1String("isFinished") && isFinished()) {
        std::function<void()> block;
        {
            std::lock_guard lock(_lock);
            block = std::exchange(_completionBlock, nullptr);
        }
        if (block)
            ORVDispatchQueue::globalQueue()->async(std::move(block));
    }
}

// --- ORVOperationQueue ---------------------------------------------------------

namespace {
// What "let the pool decide" means: as many as the worker pool runs at once.
constexpr int kDefaultLimit = 64;
} // namespace

// The queue's state. It observes its operations and is shared with the
// runner tasks, so it outlives a queue object destroyed while work runs.
//
// The queue's mutex is never held while an operation's own methods run:
// operations call the queue back with their state lock held.
struct ORVOperationQueue::Shared final : ORVOperationObserver, std::enable_shared_from_this<Shared> {
    mutable std::mutex mutex;
    std::condition_variable idle;
    QString name;
    int maxCount = ORVOperationQueueDefaultMaxConcurrentOperationCount;
    ORVDispatchQueue::QualityOfService qos = ORVDispatchQueue::QualityOfService::Default;
    bool suspended = false;
    std::deque<std::shared_ptr<ORVOperation>> waiting;
    std::vector<std::shared_ptr<ORVOperation>> running;
    int runners = 0;

    int limit() const { return maxCount < 0 ? kDefaultLimit : maxCount; }

    // With the mutex held: whether another runner should start.
    bool needsRunner() const
    {
        const auto max = static_cast<size_t>(limit());
        return !suspended && !waiting.empty() && static_cast<size_t>(runners) < max && running.size() < max;
    }

    void startRunner()
    {
        ORVDispatchQueue::globalQueue(qos)->async([self = shared_from_this()] { self->run(); });
    }

    // A runner takes operations one after another while the limit allows,
    // so a stream of short operations needs no thread hand-off per operation.
    void run()
    {
        for (;;) {
            std::shared_ptr<ORVOperation> operation;
            {
                std::lock_guard lock(mutex);
                if (suspended || waiting.empty() || running.size() >= static_cast<size_t>(limit())) {
                    --runners;
                    return;
                }
                operation = std::move(waiting.front());
                waiting.pop_front();
                running.push_back(operation);
            }
            try {
                operation->start();
            } catch (const std::exception &e) {
                // The operation cannot finish any more; do not let it hold a
                // place in the queue for ever.
                qCritical("ORVOperationQueue: an operation's start() threw: %s", e.what());
                finished(operation.get());
                continue;
            }
            if (!operation->isAsynchronous())
                finished(operation.get());
        }
    }

    void finished(ORVOperation *operation)
    {
        std::shared_ptr<ORVOperation> removed; // released after the mutex
        bool spawn = false;
        {
            std::lock_guard lock(mutex);
            auto it = std::find_if(running.begin(), running.end(), [&](const auto &op) { return op.get() == operation; });
            if (it != running.end()) {
                removed = std::move(*it);
                running.erase(it);
            } else {
                auto waitingIt = std::find_if(waiting.begin(), waiting.end(),
                                              [&](const auto &op) { return op.get() == operation; });
                if (waitingIt == waiting.end())
                    return;
                removed = std::move(*waitingIt);
                waiting.erase(waitingIt);
            }
            spawn = needsRunner();
            if (spawn)
                ++runners;
            if (waiting.empty() && running.empty())
                idle.notify_all();
        }
        if (spawn)
            startRunner();
    }

    void operationDidChangeValueForKey(ORVOperation &operation, const QString &key) override
    {
        if (key == QLatin1String("isFinished") && operation.isFinished())
            finished(&operation);
    }

    void wakeRunners()
    {
        int spawn = 0;
        {
            std::lock_guard lock(mutex);
            while (needsRunner() && static_cast<size_t>(runners) < waiting.size() + running.size()) {
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
    operation->addObserver(_shared);
    bool spawn = false;
    {
        std::lock_guard lock(_shared->mutex);
        _shared->waiting.push_back(operation);
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
    _shared->idle.wait(lock, [&] { return _shared->waiting.empty() && _shared->running.empty(); });
}
