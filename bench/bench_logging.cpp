// Logging: a million info messages through the framework's path into the
// rolling file sink, against a raw spdlog async logger with a plain file
// sink; the cost of a statement whose flag is off; and one error line, which
// returns once it and everything before it is written and flushed, against
// what errors cost before they kept their order: a synchronous spdlog logger
// writing and flushing a plain file and the system log (both alone, and
// right behind an info line, which an error now waits for).

#include "BenchRatios.h"

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVLogging.h>

#include <QDir>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>

#include <syslog.h>

ORV_LOG_FILE("Benchmark")

namespace {

constexpr int kMessages = 1000000;

class BenchCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("bench"); }
    QString appGroupIdentifier() const override { return {}; }
    ORVLogLevel prefererredDefaultLogLevel() const override { return ORVLogLevelInfo; }
};

// Logs land in a scratch XDG state folder, never in the user's own.
QTemporaryDir &scratch()
{
    static QTemporaryDir dir;
    return dir;
}

std::shared_ptr<ORVDebug> setUpFrameworkLogging()
{
    static std::shared_ptr<ORVDebug> debug = [] {
        qputenv("XDG_STATE_HOME", scratch().filePath("state").toUtf8());
        ORVRegisterPlatformCoordinator(std::make_shared<BenchCoordinator>());
        auto shared = ORVDebug::sharedDebug();
        shared->setupLogging();
        orvRegisterFileLogLevel();
        return shared;
    }();
    return debug;
}

void BM_LoggingOurs(benchmark::State &state)
{
    auto debug = setUpFrameworkLogging();
    const QString subject = QStringLiteral("benchmark");
    for (auto _ : state) {
        for (int i = 0; i < kMessages; ++i)
            ORVLogInfo("Message %d of %@", i, subject);
        debug->fileLogger()->flush(); // everything queued is written
    }
    state.SetItemsProcessed(state.iterations() * kMessages);
}

void BM_LoggingSpdlog(benchmark::State &state)
{
    const std::string path = scratch().filePath("raw.log").toStdString();
    for (auto _ : state) {
        auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger = std::make_shared<spdlog::async_logger>("raw", sink, pool, spdlog::async_overflow_policy::block);
        for (int i = 0; i < kMessages; ++i)
            logger->info("Message {} of {}", i, "benchmark");
        logger.reset();
        pool.reset(); // joins once the queue is written out
        sink->flush();
    }
    state.SetItemsProcessed(state.iterations() * kMessages);
}

void BM_LogErrorOurs(benchmark::State &state)
{
    setUpFrameworkLogging();
    int i = 0;
    for (auto _ : state)
        ORVLogError("Error %d of %@", ++i, QStringLiteral("benchmark"));
}

// The peer of the error lines: the file and the system log, written on the
// calling thread; info lines go through an asynchronous logger of their own.
struct SyncErrorPeer {
    std::shared_ptr<spdlog::sinks::basic_file_sink_mt> file =
        std::make_shared<spdlog::sinks::basic_file_sink_mt>(scratch().filePath("raw-errors.log").toStdString(), true);
    std::shared_ptr<spdlog::sinks::syslog_sink_mt> system =
        std::make_shared<spdlog::sinks::syslog_sink_mt>("bench", LOG_PID, LOG_USER, false);
    std::shared_ptr<spdlog::details::thread_pool> pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    spdlog::logger errors{"raw-errors", {file, system}};
    std::shared_ptr<spdlog::async_logger> infos =
        std::make_shared<spdlog::async_logger>("raw-infos", file, pool, spdlog::async_overflow_policy::block);
    SyncErrorPeer()
    {
        system->set_level(spdlog::level::err);
        errors.flush_on(spdlog::level::err);
    }
};

void BM_LogErrorSpdlogSync(benchmark::State &state)
{
    SyncErrorPeer peer;
    int i = 0;
    for (auto _ : state)
        peer.errors.error("Error {} of {}", ++i, "benchmark");
}

void BM_LogErrorBehindInfoOurs(benchmark::State &state)
{
    setUpFrameworkLogging();
    int i = 0;
    for (auto _ : state) {
        ORVLogInfo("Info %d of %@", ++i, QStringLiteral("benchmark"));
        ORVLogError("Error %d of %@", i, QStringLiteral("benchmark"));
    }
}

void BM_LogErrorBehindInfoSpdlog(benchmark::State &state)
{
    SyncErrorPeer peer;
    int i = 0;
    for (auto _ : state) {
        peer.infos->info("Info {} of {}", ++i, "benchmark");
        peer.errors.error("Error {} of {}", i, "benchmark");
    }
}

void BM_LogStatementOff(benchmark::State &state)
{
    setUpFrameworkLogging();
    int i = 0;
    for (auto _ : state) {
        ORVLogDebug("never formatted %d", i);
        benchmark::DoNotOptimize(++i);
    }
}

} // namespace

BENCHMARK(BM_LoggingOurs)->Unit(benchmark::kMillisecond)->Iterations(1)->ReportAggregatesOnly(false);
BENCHMARK(BM_LoggingSpdlog)->Unit(benchmark::kMillisecond)->Iterations(1)->ReportAggregatesOnly(false);
BENCHMARK(BM_LogErrorOurs)->UseRealTime();
BENCHMARK(BM_LogErrorSpdlogSync)->UseRealTime();
BENCHMARK(BM_LogErrorBehindInfoOurs)->UseRealTime();
BENCHMARK(BM_LogErrorBehindInfoSpdlog)->UseRealTime();
BENCHMARK(BM_LogStatementOff);

static orv::bench::RegisterComparison logging("logging_vs_spdlog", "BM_LoggingOurs", "BM_LoggingSpdlog");
static orv::bench::RegisterReport loggingOff("log_statement_off", "BM_LogStatementOff");
static orv::bench::RegisterComparison errorLine("log_error_line_vs_spdlog_sync", "BM_LogErrorOurs", "BM_LogErrorSpdlogSync");
static orv::bench::RegisterComparison errorBehindInfo("log_error_behind_info_vs_spdlog_sync", "BM_LogErrorBehindInfoOurs",
                                                      "BM_LogErrorBehindInfoSpdlog");
static orv::bench::RegisterReport errorLineOurs("log_error_line", "BM_LogErrorOurs");
