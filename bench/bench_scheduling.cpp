// Work scheduling: block operations through ORVOperationQueue (maximum 1)
// against the same functions on a one-thread QThreadPool; work items
// through their whole life; joins on one running multiplexer key.

#include "BenchRatios.h"

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVOperation.h>
#include <OrvellaKit/ORVWorkItem.h>
#include <OrvellaKit/ORVWorkItemMultiplexer.h>

#include <QThreadPool>

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>

namespace {

constexpr int kOperations = 10000;

void BM_OperationQueueOurs(benchmark::State &state)
{
    ORVOperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    std::atomic<int> counter = 0;
    for (auto _ : state) {
        for (int i = 0; i < kOperations; ++i)
            queue.addOperation(ORVBlockOperation::blockOperationWithBlock([&](const auto &) { ++counter; }));
        queue.waitUntilAllOperationsAreFinished();
    }
    state.SetItemsProcessed(state.iterations() * kOperations);
}

void BM_OperationQueueThreadPool(benchmark::State &state)
{
    QThreadPool pool;
    pool.setMaxThreadCount(1);
    std::atomic<int> counter = 0;
    for (auto _ : state) {
        for (int i = 0; i < kOperations; ++i)
            pool.start([&] { ++counter; });
        pool.waitForDone();
    }
    state.SetItemsProcessed(state.iterations() * kOperations);
}

constexpr int kItems = 10000;

// Created, started, finished, and completed on a serial queue.
void BM_WorkItemLifecycle(benchmark::State &state)
{
    auto queue = ORVDispatchQueue::create("bench.workitems");
    std::atomic<int> completed = 0;
    for (auto _ : state) {
        completed = 0;
        for (int i = 0; i < kItems; ++i) {
            auto item = std::make_shared<ORVWorkItem>();
            item->setCompletionQueue(queue);
            item->setCompletionHandler([&](const auto &, const auto &) { ++completed; });
            if (item->tryStart() && item->tryFinish())
                item->finishWithError();
        }
        queue->sync([] {});
    }
    if (completed.load() != kItems)
        state.SkipWithError("not every completion ran");
    state.SetItemsProcessed(state.iterations() * kItems);
}

constexpr int kJoiners = 10000;

class NeverFinishing : public ORVWorkItem {
public:
    void start() override { tryStart(); }
};

void BM_MultiplexerJoins(benchmark::State &state)
{
    auto queue = ORVDispatchQueue::create("bench.joins");
    for (auto _ : state) {
        ORVWorkItemMultiplexer<int> multiplexer;
        auto running = std::make_shared<NeverFinishing>();
        running->setCompletionQueue(queue);
        multiplexer.startWorkItemIfNeeded(running, 1, [](const auto &, const auto &) {});
        for (int i = 0; i < kJoiners; ++i)
            multiplexer.startWorkItemIfNeeded(std::make_shared<NeverFinishing>(), 1, [](const auto &, const auto &) {});
        state.PauseTiming();
        if (running->tryFinish())
            running->finishWithError();
        queue->sync([] {});
        queue->sync([] {});
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kJoiners);
}

} // namespace

BENCHMARK(BM_OperationQueueOurs)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OperationQueueThreadPool)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WorkItemLifecycle)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MultiplexerJoins)->Unit(benchmark::kMillisecond);

static orv::bench::RegisterComparison operationQueue("operation_queue_vs_threadpool", "BM_OperationQueueOurs",
                                                     "BM_OperationQueueThreadPool");
static orv::bench::RegisterReport workItems("work_items", "BM_WorkItemLifecycle", kItems);
static orv::bench::RegisterReport joins("multiplexer_joins", "BM_MultiplexerJoins", kJoiners);
