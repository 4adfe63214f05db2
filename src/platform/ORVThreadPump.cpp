#include "ORVThreadPump.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSocketNotifier>
#include <QThread>

#include <condition_variable>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

namespace orv::detail {

ThreadPump::ThreadPump() : _eventFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ThreadPump::~ThreadPump()
{
    if (_eventFd >= 0)
        ::close(_eventFd);
}

void ThreadPump::post(std::function<void()> block)
{
    {
        std::lock_guard lock(_mutex);
        _blocks.push_back(std::move(block));
    }
    wake();
}

void ThreadPump::attach(QObject *parent)
{
    if (_eventFd < 0)
        return;
    auto *notifier = new QSocketNotifier(_eventFd, QSocketNotifier::Read, parent);
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [this] { drain(); });
    wake();
}

void ThreadPump::wake()
{
    if (_eventFd < 0)
        return;
    const quint64 one = 1;
    [[maybe_unused]] const auto written = ::write(_eventFd, &one, sizeof one);
}

void ThreadPump::drain()
{
    quint64 count = 0;
    [[maybe_unused]] const auto read = ::read(_eventFd, &count, sizeof count);
    std::deque<std::function<void()>> blocks;
    {
        std::lock_guard lock(_mutex);
        blocks.swap(_blocks);
    }
    while (!blocks.empty() && !_closed) {
        blocks.front()();
        blocks.pop_front();
    }
    if (_closed && !blocks.empty()) {
        // Kept rather than destroyed: destroying them could run
        // destructors that expect the thread to go on.
        std::lock_guard lock(_mutex);
        _blocks.insert(_blocks.begin(), std::make_move_iterator(blocks.begin()),
                       std::make_move_iterator(blocks.end()));
    }
}

void ThreadPump::close()
{
    _closed = true;
}

namespace {

class NetworkThread : public QThread {
public:
    NetworkThread()
    {
        setObjectName(QStringLiteral("ORVURLSession network thread"));
        start();
        std::unique_lock lock(_startedMutex);
        _startedCondition.wait(lock, [this] { return _started; });
    }

    ThreadPump pump;

protected:
    void run() override
    {
        QObject context;
        pump.attach(&context);
        {
            std::lock_guard lock(_startedMutex);
            _started = true;
        }
        _startedCondition.notify_all();
        exec();
    }

private:
    std::mutex _startedMutex;
    std::condition_variable _startedCondition;
    bool _started = false;
};

// Never destroyed, like the thread: nothing at exit touches them.
std::mutex &teardownMutex = *new std::mutex;
std::vector<std::function<void()>> &teardownBlocks = *new std::vector<std::function<void()>>;

void stopNetworkThread();

NetworkThread &networkThread()
{
    // Never destroyed: it may be stopped, but a QThread object must outlive
    // every caller that still holds a reference to it.
    static NetworkThread *thread = [] {
        auto *made = new NetworkThread;
        qAddPostRoutine(stopNetworkThread);
        return made;
    }();
    return *thread;
}

// Runs while the application object is destroyed, on its thread.
void stopNetworkThread()
{
    NetworkThread &thread = networkThread();
    thread.pump.post([&thread] {
        std::vector<std::function<void()>> blocks;
        {
            std::lock_guard lock(teardownMutex);
            blocks.swap(teardownBlocks);
        }
        for (auto &block : blocks)
            block();
        thread.pump.close();
        thread.quit();
    });
    // The managers wait up to five seconds each for their own threads.
    if (!thread.wait(QDeadlineTimer(30000)))
        qWarning("OrvellaKit: the network thread did not stop within 30 seconds");
}

} // namespace

void addNetworkThreadTeardown(std::function<void()> block)
{
    std::lock_guard lock(teardownMutex);
    teardownBlocks.push_back(std::move(block));
}

void postToNetworkThread(std::function<void()> block)
{
    networkThread().pump.post(std::move(block));
}

bool isNetworkThread()
{
    return QThread::currentThread() == &networkThread();
}

} // namespace orv::detail
