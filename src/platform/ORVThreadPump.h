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

    // On the pump's thread: no block runs after the current one. Later
    // posts are kept, never run.
    void close();

private:
    void wake();
    void drain();

    std::mutex _mutex;
    std::deque<std::function<void()>> _blocks;
    bool _closed = false; // the pump's thread only
    int _eventFd;
};

// The framework's network thread: its event loop runs every session's
// QNetworkAccessManager. Started on first use and stopped when the
// application object is destroyed: the teardown blocks run there (they
// delete the network access managers, whose own HTTP threads end with
// them), then the thread ends. Without this, Qt's network threads would
// still be using OpenSSL while it cleans up at exit.
void postToNetworkThread(std::function<void()> block);
bool isNetworkThread();
// Thread-safe; the block runs on the network thread at its stop.
void addNetworkThreadTeardown(std::function<void()> block);

} // namespace orv::detail
