#include "ORVThreadPump.h"

#include <QSocketNotifier>
#include <QThread>

#include <condition_variable>

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
    for (auto &block : blocks) {
        block();
        block = nullptr;
    }
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

NetworkThread &networkThread()
{
    // Never destroyed: a running QThread must not be destroyed at exit.
    static NetworkThread *thread = new NetworkThread;
    return *thread;
}

} // namespace

void postToNetworkThread(std::function<void()> block)
{
    networkThread().pump.post(std::move(block));
}

bool isNetworkThread()
{
    return QThread::currentThread() == &networkThread();
}

} // namespace orv::detail
