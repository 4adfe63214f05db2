#include "ORVThreadPump.h"

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>

#include <QCoreApplication>
#include <QThread>
#include <QtGlobal>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <vector>


namespace {

// The queues the calling thread is running blocks of, innermost last.
thread_local std::vector<const ORVDispatchQueue *> tlsQueueStack;
thread_local bool tlsIsPoolThread = false;

struct QueueScope {
    explicit QueueScope(const ORVDispatchQueue *queue) { tlsQueueStack.push_back(queue); }
    ~QueueScope() { tlsQueueStack.pop_back(); }
};

void runGuarded(const ORVDispatchQueue &queue, const std::function<void()> &block)
{
    try {
        block();
    } catch (const std::exception &e) {
        qCritical("Uncaught exception in a block on queue \"%s\": %s", qUtf8Printable(queue.label()), e.what());
    } catch (...) {
        qCritical("Uncaught exception in a block on queue \"%s\"", qUtf8Printable(queue.label()));
    }
}

// The framework's worker pool. A thread is started whenever a task waits and
// no thread is idle, up to kBaseLimit threads plus one for every thread that
// is blocked in sync(). Idle threads end after 30 seconds. The pool object
// lives until the process ends (threads are detached and never joined).
class DispatchPool {
public:
    static constexpr int kBaseLimit = 64;
    static constexpr int kLevels = 5;

    static DispatchPool &instance()
    {
        static DispatchPool *pool = new DispatchPool;
        return *pool;
    }

    void submit(std::function<void()> task, int level)
    {
        std::unique_lock lock(_mutex);
        _tasks[static_cast<size_t>(std::clamp(level, 0, kLevels - 1))].push_back(std::move(task));
        ++_pending;
        if (_pending > _idle && _threads < kBaseLimit + _blocked) {
            ++_threads;
            std::thread([this] { work(); }).detach();
        } else {
            _available.notify_one();
        }
    }

    // A pool thread that is about to wait lets another thread take its place.
    void willBlock()
    {
        std::lock_guard lock(_mutex);
        ++_blocked;
        if (_pending > _idle && _threads < kBaseLimit + _blocked) {
            ++_threads;
            std::thread([this] { work(); }).detach();
        }
    }
    void didUnblock()
    {
        std::lock_guard lock(_mutex);
        --_blocked;
    }

private:
    void work()
    {
        tlsIsPoolThread = true;
        std::unique_lock lock(_mutex);
        for (;;) {
            while (_pending == 0) {
                ++_idle;
                const bool woke = _available.wait_for(lock, std::chrono::seconds(30), [this] { return _pending > 0; });
                --_idle;
                if (!woke) {
                    --_threads;
                    return;
                }
            }
            std::function<void()> task;
            for (int level = kLevels - 1; level >= 0; --level) {
                auto &queue = _tasks[static_cast<size_t>(level)];
                if (!queue.empty()) {
                    task = std::move(queue.front());
                    queue.pop_front();
                    break;
                }
            }
            --_pending;
            lock.unlock();
            task();
            task = nullptr;
            lock.lock();
        }
    }

    std::mutex _mutex;
    std::condition_variable _available;
    std::array<std::deque<std::function<void()>>, kLevels> _tasks;
    int _pending = 0;
    int _idle = 0;
    int _threads = 0;
    int _blocked = 0;
};

// Runs delayed blocks: one thread keeps the deadlines and hands each block
// to its queue when it is due.
class DelayTimer {
public:
    static DelayTimer &instance()
    {
        static DelayTimer *timer = new DelayTimer;
        return *timer;
    }

    void schedule(std::chrono::milliseconds delay, std::shared_ptr<ORVDispatchQueue> queue, std::function<void()> block)
    {
        std::lock_guard lock(_mutex);
        _due.emplace(std::chrono::steady_clock::now() + std::max(delay, std::chrono::milliseconds(0)),
                     Entry{std::move(queue), std::move(block)});
        if (!_started) {
            _started = true;
            std::thread([this] { run(); }).detach();
        }
        _changed.notify_one();
    }

private:
    struct Entry {
        std::shared_ptr<ORVDispatchQueue> queue;
        std::function<void()> block;
    };

    void run()
    {
        std::unique_lock lock(_mutex);
        for (;;) {
            if (_due.empty()) {
                _changed.wait(lock);
                continue;
            }
            const auto deadline = _due.begin()->first;
            if (std::chrono::steady_clock::now() < deadline) {
                _changed.wait_until(lock, deadline);
                continue;
            }
            Entry entry = std::move(_due.begin()->second);
            _due.erase(_due.begin());
            lock.unlock();
            entry.queue->async(std::move(entry.block));
            entry = {};
            lock.lock();
        }
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    std::multimap<std::chrono::steady_clock::time_point, Entry> _due;
    bool _started = false;
};

// The main queue's blocks wait in a list of our own and an eventfd wakes the
// main thread's event loop (see ThreadPump): posting captured functors
// through Qt's event queue would hand our data between threads inside
// uninstrumented Qt code, where ThreadSanitizer cannot see the
// synchronisation. Blocks added before the application object exists are
// kept until its event loop runs.
orv::detail::ThreadPump &mainQueuePump()
{
    static auto *pump = new orv::detail::ThreadPump;
    return *pump;
}

// Runs on the main thread when the application object is created.
void attachMainQueuePump()
{
    if (QCoreApplication *app = QCoreApplication::instance())
        mainQueuePump().attach(app);
}

int levelFor(ORVDispatchQueue::QualityOfService qos)
{
    return static_cast<int>(qos);
}

bool onMainThread()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(attachMainQueuePump)

struct ORVDispatchQueue::Private {
    std::mutex mutex;
    std::deque<Block> blocks;
    bool scheduled = false;
};

ORVDispatchQueue::ORVDispatchQueue(QString label, Kind kind, QualityOfService qos)
    : _label(std::move(label)), _kind(kind), _qos(qos), d(std::make_unique<Private>())
{
}

ORVDispatchQueue::~ORVDispatchQueue() = default;

std::shared_ptr<ORVDispatchQueue> ORVDispatchQueue::create(const QString &label)
{
    struct Serial : ORVDispatchQueue {
        explicit Serial(const QString &label) : ORVDispatchQueue(label, Kind::Serial, QualityOfService::Default) {}
    };
    return std::make_shared<Serial>(label);
}

std::shared_ptr<ORVDispatchQueue> ORVDispatchQueue::mainQueue()
{
    struct Main : ORVDispatchQueue {
        Main() : ORVDispatchQueue(QStringLiteral("com.orvella.main-thread"), Kind::Main, QualityOfService::UserInteractive) {}
    };
    static const std::shared_ptr<ORVDispatchQueue> queue = std::make_shared<Main>();
    return queue;
}

std::shared_ptr<ORVDispatchQueue> ORVDispatchQueue::globalQueue(QualityOfService qos)
{
    struct Global : ORVDispatchQueue {
        Global(const QString &label, QualityOfService qos) : ORVDispatchQueue(label, Kind::Concurrent, qos) {}
    };
    static const std::array<std::shared_ptr<ORVDispatchQueue>, 5> queues = {
        std::make_shared<Global>(QStringLiteral("com.orvella.root.background-qos"), QualityOfService::Background),
        std::make_shared<Global>(QStringLiteral("com.orvella.root.utility-qos"), QualityOfService::Utility),
        std::make_shared<Global>(QStringLiteral("com.orvella.root.default-qos"), QualityOfService::Default),
        std::make_shared<Global>(QStringLiteral("com.orvella.root.user-initiated-qos"), QualityOfService::UserInitiated),
        std::make_shared<Global>(QStringLiteral("com.orvella.root.user-interactive-qos"),
                                 QualityOfService::UserInteractive),
    };
    return queues[static_cast<size_t>(levelFor(qos))];
}

std::shared_ptr<ORVDispatchQueue> ORVDispatchQueue::currentQueue()
{
    if (!tlsQueueStack.empty())
        return const_cast<ORVDispatchQueue *>(tlsQueueStack.back())->shared_from_this();
    if (onMainThread())
        return mainQueue();
    return nullptr;
}

bool ORVDispatchQueue::isCurrent() const
{
    if (_kind == Kind::Main)
        return onMainThread();
    return std::find(tlsQueueStack.begin(), tlsQueueStack.end(), this) != tlsQueueStack.end();
}

void ORVDispatchQueue::async(Block block)
{
    if (!block)
        return;
    switch (_kind) {
    case Kind::Main:
        mainQueuePump().post([self = shared_from_this(), block = std::move(block)] {
            QueueScope scope(self.get());
            runGuarded(*self, block);
        });
        return;
    case Kind::Concurrent:
        DispatchPool::instance().submit(
            [self = shared_from_this(), block = std::move(block)] {
                QueueScope scope(self.get());
                runGuarded(*self, block);
            },
            levelFor(_qos));
        return;
    case Kind::Serial: {
        std::lock_guard lock(d->mutex);
        d->blocks.push_back(std::move(block));
        if (d->scheduled)
            return;
        d->scheduled = true;
        DispatchPool::instance().submit([self = shared_from_this()] { self->drain(); }, levelFor(_qos));
        return;
    }
    }
}

void ORVDispatchQueue::drain()
{
    QueueScope scope(this);
    // Run a bounded batch, then give the thread back so that one busy queue
    // cannot keep a pool thread for ever.
    for (int i = 0; i < 64; ++i) {
        Block block;
        {
            std::lock_guard lock(d->mutex);
            if (d->blocks.empty()) {
                d->scheduled = false;
                return;
            }
            block = std::move(d->blocks.front());
            d->blocks.pop_front();
        }
        runGuarded(*this, block);
    }
    DispatchPool::instance().submit([self = shared_from_this()] { self->drain(); }, levelFor(_qos));
}

void ORVDispatchQueue::sync(const Block &block)
{
    if (!block)
        return;
    if (isCurrent() && isSerial()) {
        QueueScope scope(this);
        block();
        return;
    }
    if (_kind == Kind::Main && !QCoreApplication::instance()) {
        // Nobody could ever run it: fail instead of waiting for ever.
        throw ORVException(ORVException::internalInconsistencyName,
                           QStringLiteral("sync() on the main queue needs a QCoreApplication"));
    }

    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::exception_ptr failure;
    async([&] {
        try {
            block();
        } catch (...) {
            failure = std::current_exception();
        }
        std::lock_guard lock(mutex);
        done = true;
        finished.notify_one();
    });
    const bool poolThread = tlsIsPoolThread;
    if (poolThread)
        DispatchPool::instance().willBlock();
    {
        std::unique_lock lock(mutex);
        finished.wait(lock, [&] { return done; });
    }
    if (poolThread)
        DispatchPool::instance().didUnblock();
    if (failure)
        std::rethrow_exception(failure);
}

void ORVDispatchQueue::after(std::chrono::milliseconds delay, Block block)
{
    if (!block)
        return;
    DelayTimer::instance().schedule(delay, shared_from_this(), std::move(block));
}
