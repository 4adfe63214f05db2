#pragma once

// Runs blocks on one Qt thread's event loop. Blocks wait in a list guarded
// by a std::mutex and an eventfd wakes the thread through a QSocketNotifier,
// so the hand-off of our data between threads is visible to
// ThreadSanitizer (Qt's posted events synchronise inside uninstrumented Qt
// code).

#include <QObject>

#include <deque>
#include <functional>
#include <mutex>

namespace orv::detail {

class ThreadPump {
public:
    ThreadPump();
    ~ThreadPump();
    ThreadPump(const ThreadPump &) = delete;
    ThreadPump &operator=(const ThreadPump &) = delete;

    // Thread-safe.
    void post(std::function<void()> block);
    // On the thread that is to run the blocks, with its event loop about to
    // run: listens for wake-ups there (children of `parent`).
    void attach(QObject *parent);

private:
    void wake();
    void drain();

    std::mutex _mutex;
    std::deque<std::function<void()>> _blocks;
    int _eventFd;
};

// The framework's network thread: its event loop runs every session's
// QNetworkAccessManager. Started on first use, never stopped.
void postToNetworkThread(std::function<void()> block);
bool isNetworkThread();

} // namespace orv::detail
