#include "ORVLoggingCore.h"

#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVLogging.h>

#include <spdlog/details/log_msg.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/spdlog.h>

#include <QStringEncoder>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace orv::detail {

namespace {

// The most messages waiting for the worker: a thread that logs faster than
// the sinks write waits for room rather than let the queue grow without end.
constexpr size_t kQueueSize = 8192;
constexpr size_t kKeptTextCapacity = size_t(16) << 20;

// Set on the worker thread: an error logged from there (by a sink, or by Qt
// while a sink runs) cannot wait for the worker, which is itself, and a
// message from there never waits for room.
thread_local bool isLogWorker = false;

// The messages handed to the worker and not yet taken: their texts end to
// end in one buffer, so that queueing a message allocates nothing once the
// buffers have grown, and no message is freed on its own on another thread.
struct Batch {
    struct Entry {
        spdlog::log_clock::time_point time;
        size_t threadId;
        spdlog::source_loc location;
        spdlog::level::level_enum level;
        size_t offset;
        size_t length;
    };
    std::vector<Entry> entries;
    std::string text;
    void clear()
    {
        entries.clear();
        text.clear();
    }
};

// Created on first use and never destroyed, so that logging from other
// static destructors stays safe; an exit handler drains the queue instead.
//
// One worker thread writes what the logging threads queue. A logging thread
// takes the queue's lock only to append its message, and the worker takes
// it once per batch, to swap the whole queue for its own empty one: the two
// do not take turns at a lock for every message, and the worker is woken
// only when it sleeps.
struct LoggingCore {
    LoggingCore()
        : sinks(std::make_shared<spdlog::sinks::dist_sink_mt>()),
          sync(std::make_shared<spdlog::logger>("orvellakit", sinks))
    {
        sync->set_level(spdlog::level::trace);
        // A failing sink must never take the process down or spam stderr.
        sync->set_error_handler([](const std::string &) {});
        worker = std::thread([this] { work(); });
        std::atexit([] { instance().shutDown(); });
    }

    static LoggingCore &instance()
    {
        static LoggingCore *core = new LoggingCore;
        return *core;
    }

    // Hands a message to the worker and answers its place in the queue
    // (counted from 1), or 0 when it was not queued: the worker has stopped
    // (the process is exiting) or there was no memory for it, and the caller
    // then writes it itself. Once the exit handler has begun, a thread other
    // than the worker waits until the worker has written out what it holds,
    // so that the line it then writes itself comes after them.
    quint64 enqueue(const spdlog::source_loc &location, spdlog::level::level_enum level, spdlog::string_view_t text)
    {
        const auto now = spdlog::log_clock::now();
        const size_t threadId = spdlog::details::os::thread_id();
        bool wake = false;
        quint64 sequence = 0;
        {
            std::unique_lock lock(queueMutex);
            if (!isLogWorker && pending.entries.size() >= kQueueSize && !stopping) {
                if (workerSleeps) {
                    workerSleeps = false;
                    queueChanged.notify_one();
                }
                ++waitingForRoom;
                roomMade.wait(lock, [&] { return pending.entries.size() < kQueueSize || stopping; });
                --waitingForRoom;
            }
            if (stopping && !isLogWorker) {
                lock.unlock();
                waitUntilWorkerGone();
                return 0;
            }
            // The text first: an entry never points past it, even when
            // memory runs out half way (the caller then writes the line
            // itself).
            const size_t offset = pending.text.size();
            try {
                pending.text.append(text.data(), text.size());
                pending.entries.push_back({now, threadId, location, level, offset, text.size()});
            } catch (const std::bad_alloc &) {
                pending.text.resize(offset);
                return 0;
            }
            sequence = queued.fetch_add(1, std::memory_order_release) + 1;
            wake = workerSleeps;
            workerSleeps = false;
        }
        if (wake)
            queueChanged.notify_one();
        return sequence;
    }

    void waitUntilWorkerGone()
    {
        std::unique_lock lock(writtenMutex);
        writtenChanged.wait(lock, [&] { return workerGone; });
    }

    // Waits until the worker has written everything queued so far, or up to
    // the given place in the queue.
    void waitForWorker(quint64 target = 0)
    {
        if (target == 0)
            target = queued.load(std::memory_order_acquire);
        std::unique_lock lock(writtenMutex);
        writtenChanged.wait_for(lock, std::chrono::seconds(5), [&] {
            return written.load(std::memory_order_acquire) >= target || workerGone;
        });
    }

    void work()
    {
        isLogWorker = true;
        Batch batch;
        auto lastFlush = std::chrono::steady_clock::now();
        bool unflushed = false;
        // Buffered file text reaches the disk within a second, whether lines
        // keep coming or stop. Flushed without the queue's lock.
        const auto flushDue = [&] {
            return unflushed && std::chrono::steady_clock::now() - lastFlush >= std::chrono::seconds(1);
        };
        const auto flushNow = [&] {
            flushSinks();
            unflushed = false;
            lastFlush = std::chrono::steady_clock::now();
        };
        std::unique_lock lock(queueMutex);
        for (;;) {
            if (pending.entries.empty()) {
                if (stopping)
                    break;
                if (flushDue()) {
                    lock.unlock();
                    flushNow();
                    lock.lock();
                    continue;
                }
                workerSleeps = true;
                if (unflushed)
                    queueChanged.wait_until(lock, lastFlush + std::chrono::seconds(1));
                else
                    queueChanged.wait(lock);
                workerSleeps = false;
                continue;
            }
            std::swap(batch, pending);
            const bool someoneWaits = waitingForRoom > 0;
            lock.unlock();
            if (someoneWaits)
                roomMade.notify_all();
            write(batch);
            unflushed = true;
            if (flushDue())
                flushNow();
            // The buffers keep their size for the next batch, unless one
            // huge message grew them.
            if (batch.text.capacity() > kKeptTextCapacity)
                batch = Batch();
            else
                batch.clear();
            lock.lock();
        }
        lock.unlock();
        flushSinks();
        {
            std::lock_guard writtenLock(writtenMutex);
            workerGone = true;
        }
        writtenChanged.notify_all();
    }

    void write(const Batch &batch)
    {
        for (const Batch::Entry &entry : batch.entries) {
            spdlog::details::log_msg message(entry.time, entry.location, kLoggerName, entry.level,
                                             spdlog::string_view_t(batch.text.data() + entry.offset, entry.length));
            message.thread_id = entry.threadId;
            try {
                sinks->log(message);
            } catch (...) {
                // A failing sink costs this line, not the worker.
            }
        }
        {
            // Under the lock a waiter checks under, so that no wake-up is
            // lost between its check and its wait.
            std::lock_guard writtenLock(writtenMutex);
            written.fetch_add(batch.entries.size(), std::memory_order_release);
        }
        writtenChanged.notify_all();
    }

    void flushSinks()
    {
        try {
            sinks->flush();
        } catch (...) {
        }
    }

    void shutDown()
    {
        // What is queued is written first, so the last lines of an exiting
        // process stay in the order they were logged; only then do the
        // remaining messages go straight to the sinks. From the moment the
        // worker is told to stop, a line logged on another thread waits for
        // it to finish (see enqueue()).
        {
            std::lock_guard lock(queueMutex);
            stopping = true;
        }
        queueChanged.notify_one();
        roomMade.notify_all();
        // An exit from the worker itself (a sink calling exit()) can neither
        // wait for the worker nor flush the sinks, whose lock it holds.
        if (isLogWorker) {
            closed.store(true, std::memory_order_release);
            return;
        }
        if (worker.joinable())
            worker.join();
        closed.store(true, std::memory_order_release);
        sync->flush();
    }

    static constexpr const char *kLoggerName = "orvellakit";

    // Messages handed to the queue, and messages the worker has written.
    // When the two are equal, nothing logged before is still on its way.
    std::atomic<quint64> queued = 0;
    std::atomic<quint64> written = 0;
    std::shared_ptr<spdlog::sinks::dist_sink_mt> sinks;
    std::shared_ptr<spdlog::logger> sync;
    std::mutex queueMutex;
    std::condition_variable queueChanged;
    std::condition_variable roomMade;
    int waitingForRoom = 0;   ///< under queueMutex
    Batch pending;            ///< under queueMutex
    bool workerSleeps = false; ///< under queueMutex
    bool stopping = false;     ///< under queueMutex
    std::mutex writtenMutex;
    std::condition_variable writtenChanged;
    bool workerGone = false; ///< under writtenMutex
    std::thread worker;
    std::atomic<bool> closed = false;
};

spdlog::level::level_enum levelFor(ORVLogFlag flag)
{
    switch (flag) {
    case ORVLogFlagError:
        return spdlog::level::err;
    case ORVLogFlagWarning:
        return spdlog::level::warn;
    case ORVLogFlagInfo:
        return spdlog::level::info;
    case ORVLogFlagDebug:
        return spdlog::level::debug;
    default:
        return spdlog::level::trace;
    }
}

} // namespace

void logMessage(ORVLogFlag flag, const char *category, const char *file, const char *function, int line,
                const QString &message)
{
    LoggingCore &core = LoggingCore::instance();
    // "[category] message", encoded straight into a buffer that lives on
    // the stack for all but long messages.
    const char *name = category ? category : "No category";
    const size_t nameLength = std::strlen(name);
    QStringEncoder encoder(QStringConverter::Utf8);
    spdlog::memory_buf_t text;
    text.resize(nameLength + 3 + static_cast<size_t>(encoder.requiredSpace(message.size())));
    char *out = text.data();
    *out++ = '[';
    std::memcpy(out, name, nameLength);
    out += nameLength;
    *out++ = ']';
    *out++ = ' ';
    out = encoder.appendToBuffer(out, message);
    const spdlog::source_loc location{file ? file : "", line, function ? function : ""};
    const spdlog::string_view_t view(text.data(), static_cast<size_t>(out - text.data()));
    // After shut-down everything is written at once, and flushed: the
    // process is on its way out.
    if (core.closed.load(std::memory_order_acquire)) {
        core.sync->log(location, levelFor(flag), view);
        core.sync->flush();
        return;
    }
    // One queue for every level keeps the file in the order things were
    // logged. An error returns once it, and so everything before it, is
    // written (the file sink flushes errors and warnings at once): when
    // nothing is on its way it is written here and now, else it joins the
    // queue and waits for the worker to reach it.
    if (flag == ORVLogFlagError && !isLogWorker) {
        if (core.written.load(std::memory_order_acquire) == core.queued.load(std::memory_order_acquire)) {
            core.sync->log(location, levelFor(flag), view);
            return;
        }
        if (const quint64 place = core.enqueue(location, levelFor(flag), view)) {
            core.waitForWorker(place);
            return;
        }
        // Not queued: written here, after what was queued before it.
        core.waitForWorker();
        core.sync->log(location, levelFor(flag), view);
        return;
    }
    if (core.enqueue(location, levelFor(flag), view) == 0) {
        // The worker has stopped (the process is on its way out), or there
        // was no memory to queue the line: it is written here, after what
        // was queued before it. On the worker, inside a sink whose lock it
        // holds, it cannot be written at all.
        if (isLogWorker)
            return;
        core.waitForWorker();
        core.sync->log(location, levelFor(flag), view);
        core.sync->flush();
    }
}

void registerFileLogLevel(std::atomic<ORVLogLevel> *level, const char *file, const char *category)
{
    ORVDebug::sharedDebug()->registerLogLevel(level, file, category ? QString::fromUtf8(category) : QString());
}

void addLogSink(std::shared_ptr<spdlog::sinks::sink> sink)
{
    LoggingCore::instance().sinks->add_sink(std::move(sink));
}

void removeLogSink(const std::shared_ptr<spdlog::sinks::sink> &sink)
{
    LoggingCore::instance().sinks->remove_sink(sink);
}

void flushLogs()
{
    LoggingCore &core = LoggingCore::instance();
    if (!core.closed.load(std::memory_order_acquire) && !isLogWorker)
        core.waitForWorker();
    core.sinks->flush();
}

} // namespace orv::detail
