#include "ORVLoggingCore.h"

#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVLogging.h>

#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/periodic_worker.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/spdlog.h>

#include <QStringEncoder>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace orv::detail {

namespace {

constexpr size_t kQueueSize = 8192;

// Set on the pool's worker thread once it writes its first message: an
// error logged from there (by a sink, or by Qt while a sink runs) cannot
// wait for the worker, which is itself.
thread_local bool isLogWorker = false;

// What the asynchronous logger writes into: it marks the worker thread,
// hands the message to the sinks and counts it as written.
class WorkerSink final : public spdlog::sinks::sink {
public:
    WorkerSink(std::shared_ptr<spdlog::sinks::sink> sinks, std::atomic<quint64> *written)
        : _sinks(std::move(sinks)), _written(written)
    {
    }
    void log(const spdlog::details::log_msg &msg) override
    {
        isLogWorker = true;
        // Counted even when a sink throws: a message the worker has dealt
        // with must not leave the queue looking busy for good.
        struct Counted {
            std::atomic<quint64> *written;
            ~Counted() { written->fetch_add(1, std::memory_order_release); }
        } counted{_written};
        _sinks->log(msg);
    }
    void flush() override { _sinks->flush(); }
    void set_pattern(const std::string &pattern) override { _sinks->set_pattern(pattern); }
    void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override
    {
        _sinks->set_formatter(std::move(formatter));
    }

private:
    std::shared_ptr<spdlog::sinks::sink> _sinks;
    std::atomic<quint64> *_written;
};

// Counts the markers the pool's worker has reached, so that a thread can
// wait until everything queued before its marker has been written.
class MarkerSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    bool waitFor(quint64 marker, std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(_countMutex);
        return _written.wait_for(lock, timeout, [&] { return _reached >= marker || _abandoned; });
    }
    // The pool is gone: a marker that did not make it will never come.
    void abandon()
    {
        std::lock_guard lock(_countMutex);
        _abandoned = true;
        _written.notify_all();
    }

protected:
    void sink_it_(const spdlog::details::log_msg &) override
    {
        std::lock_guard lock(_countMutex);
        ++_reached;
        _written.notify_all();
    }
    void flush_() override {}

private:
    std::mutex _countMutex;
    std::condition_variable _written;
    quint64 _reached = 0;
    bool _abandoned = false;
};

// Created on first use and never destroyed, so that logging from other
// static destructors stays safe; an exit handler drains the queue instead.
struct LoggingCore {
    LoggingCore()
        : sinks(std::make_shared<spdlog::sinks::dist_sink_mt>()),
          sync(std::make_shared<spdlog::logger>("orvellakit", sinks)),
          pool(std::make_shared<spdlog::details::thread_pool>(kQueueSize, 1)),
          async(std::make_shared<spdlog::async_logger>("orvellakit-async", std::make_shared<WorkerSink>(sinks, &written),
                                                        pool, spdlog::async_overflow_policy::block))
    {
        // Lives as long as the process: the pool's worker drops its
        // references to it inside the uninstrumented spdlog library, which
        // ThreadSanitizer would take for an unsynchronised free.
        markers = std::make_shared<MarkerSink>();
        markerLogger = std::make_shared<spdlog::async_logger>("orvellakit-flush-marker", markers, pool,
                                                               spdlog::async_overflow_policy::block);
        markerLogger->set_error_handler([](const std::string &) {});
        sync->set_level(spdlog::level::trace);
        async->set_level(spdlog::level::trace);
        // A failing sink must never take the process down or spam stderr.
        sync->set_error_handler([](const std::string &) {});
        async->set_error_handler([](const std::string &) {});
        // Buffered file text reaches the disk within a second.
        flusher = std::make_unique<spdlog::details::periodic_worker>([this] { async->flush(); },
                                                                      std::chrono::seconds(1));
        std::atexit([] { instance().shutDown(); });
    }

    static LoggingCore &instance()
    {
        static LoggingCore *core = new LoggingCore;
        return *core;
    }

    // Waits until the worker has written everything queued so far.
    void waitForWorker()
    {
        // The pool has one worker that takes messages in order: once it
        // reaches a marker sent after everything logged so far, all of that
        // has been written.
        quint64 marker = 0;
        {
            std::lock_guard lock(markerMutex);
            try {
                markerLogger->log(spdlog::level::info, "flush");
            } catch (const std::exception &) {
                // The pool has shut down (the process is exiting): it
                // writes out what it holds as it goes; there is no worker
                // left to wait for.
                return;
            }
            marker = ++markersSent;
        }
        markers->waitFor(marker, std::chrono::seconds(5));
    }

    // Hands a message to the worker. A thread that saw the logger open may
    // get here after the exit handler shut the pool down, and spdlog then
    // throws: the message is written on this thread instead.
    void enqueue(const spdlog::source_loc &location, spdlog::level::level_enum level, spdlog::string_view_t text)
    {
        queued.fetch_add(1, std::memory_order_relaxed);
        try {
            async->log(location, level, text);
        } catch (const std::exception &) {
            queued.fetch_sub(1, std::memory_order_relaxed);
            sync->log(location, level, text);
            sync->flush();
        }
    }

    void shutDown()
    {
        // What is queued is written first, so the last lines of an exiting
        // process stay in the order they were logged; only then do the
        // remaining messages go straight to the sinks.
        if (!isLogWorker)
            waitForWorker();
        closed.store(true, std::memory_order_release);
        flusher.reset();
        // The pool's destructor lets its thread write out what is queued.
        pool.reset();
        markers->abandon();
        sync->flush();
    }

    // Messages handed to the queue, and messages the worker has written
    // (declared first: the asynchronous logger's sink counts into it).
    // When the two are equal, nothing logged before is still on its way.
    std::atomic<quint64> queued = 0;
    std::atomic<quint64> written = 0;
    std::shared_ptr<spdlog::sinks::dist_sink_mt> sinks;
    std::shared_ptr<spdlog::logger> sync;
    std::shared_ptr<spdlog::details::thread_pool> pool;
    std::shared_ptr<spdlog::async_logger> async;
    std::unique_ptr<spdlog::details::periodic_worker> flusher;
    std::shared_ptr<MarkerSink> markers;
    std::shared_ptr<spdlog::async_logger> markerLogger;
    std::mutex markerMutex;
    quint64 markersSent = 0;
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
        core.enqueue(location, levelFor(flag), view);
        core.waitForWorker();
        return;
    }
    core.enqueue(location, levelFor(flag), view);
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
