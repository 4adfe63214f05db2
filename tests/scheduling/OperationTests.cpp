#include "OrvTestSupport.h"

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVDispatchMainQueue.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVOperation.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <thread>
#include <vector>

using namespace orv::test;

namespace {
// Records every notification with the values the operation reports while
// the change is being published. Like any observer it reads back only the
// values guarded by the lock that is held: the state for "isExecuting" and
// "isFinished", the flag for "isCancelled" (reading the other would take
// the two locks in both orders).
class Recorder : public ORVOperationObserver {
public:
    void operationWillChangeValueForKey(ORVOperation &op, const QString &key) override { record(op, "will " + key); }
    void operationDidChangeValueForKey(ORVOperation &op, const QString &key) override { record(op, "did " + key); }
    QStringList events() const
    {
        std::lock_guard guard(lock);
        return list;
    }

private:
    void record(ORVOperation &op, const QString &what)
    {
        const QString values = what.endsWith("isCancelled")
                                   ? QStringLiteral(" c%1").arg(int(op.isCancelled()))
                                   : QStringLiteral(" e%1f%2").arg(int(op.isExecuting())).arg(int(op.isFinished()));
        std::lock_guard guard(lock);
        list << what + values;
    }
    mutable std::mutex lock;
    QStringList list;
};
} // namespace

TEST(AsyncOperation, NotificationsInOrderThroughARealQueue)
{
    ORVOperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    std::atomic<int> runs = 0;
    auto operation = ORVBlockOperation::blockOperationWithBlock([&](const auto &) { ++runs; });
    EXPECT_TRUE(operation->isAsynchronous());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->isFinished());
    auto recorder = std::make_shared<Recorder>();
    operation->addObserver(recorder);
    std::atomic<int> completions = 0;
    ORVError received("unset", 1);
    operation->setCompletionHandler([&](const auto &, const ORVError &error) {
        received = error;
        ++completions;
    });
    queue.addOperation(operation);
    queue.waitUntilAllOperationsAreFinished();
    ASSERT_TRUE(waitUntil([&] { return completions.load() == 1; }));
    EXPECT_EQ(runs.load(), 1);
    EXPECT_FALSE(received);
    EXPECT_EQ(queue.operationCount(), 0);
    // Executing goes off at tryFinish, before finished goes on.
    EXPECT_EQ(recorder->events(), QStringList({"will isExecuting e0f0", "did isExecuting e1f0",
                                               "will isExecuting e1f0", "did isExecuting e0f0",
                                               "will isFinished e0f0", "did isFinished e0f1"}));
    EXPECT_FALSE(operation->executionHandler()) << "cleared once run";
}

TEST(AsyncOperation, CancelBeforeStart)
{
    auto operation = ORVBlockOperation::blockOperationWithBlock([](const auto &) { FAIL() << "must not run"; });
    auto recorder = std::make_shared<Recorder>();
    operation->addObserver(recorder);
    ORVError received;
    bool calledInline = false;
    operation->setCompletionHandler([&](const auto &, const ORVError &error) {
        received = error;
        calledInline = true;
    });
    operation->cancel();
    EXPECT_TRUE(calledInline) << "an operation's completion runs at once";
    EXPECT_TRUE(orv_isOrvellaKitCancelError(received));
    EXPECT_TRUE(operation->isFinished());
    operation->start();
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->executionHandler()) << "start still clears the handler, unrun";
    EXPECT_EQ(recorder->events(), QStringList({"will isCancelled c0", "did isCancelled c1",
                                               "will isExecuting e0f0", "did isExecuting e0f0",
                                               "will isFinished e0f0", "did isFinished e0f1"}));

    // A block that holds its own operation lets go of it when a cancelled
    // operation is started, so neither stays alive.
    std::weak_ptr<ORVBlockOperation> weak;
    {
        auto self = std::make_shared<std::shared_ptr<ORVBlockOperation>>();
        auto holding = ORVBlockOperation::blockOperationWithBlock([self](const auto &) { FAIL() << "must not run"; });
        *self = holding;
        weak = holding;
        holding->cancel();
        holding->start();
    }
    EXPECT_TRUE(weak.expired());

    // A queue given an operation cancelled while waiting drops it, without
    // starting it; a block holding its own operation lets go there too.
    ORVOperationQueue queue;
    queue.setSuspended(true);
    std::weak_ptr<ORVBlockOperation> dropped;
    {
        auto self = std::make_shared<std::shared_ptr<ORVBlockOperation>>();
        auto waiting = ORVBlockOperation::blockOperationWithBlock([self](const auto &) { FAIL() << "must not run"; });
        *self = waiting;
        dropped = waiting;
        queue.addOperation(waiting);
    }
    EXPECT_EQ(queue.operationCount(), 1);
    queue.cancelAllOperations();
    EXPECT_EQ(queue.operationCount(), 0);
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(dropped.expired());
}

TEST(AsyncOperation, AssertionTexts)
{
    RecordAssertions record;
    auto operation = std::make_shared<ORVAsyncOperation>();
    ASSERT_TRUE(operation->tryStart());
    operation->finishWithError(); // executing, without tryFinish
    EXPECT_FALSE(operation->isFinished());
    operation->setCompletionHandler(nullptr);
    ASSERT_TRUE(operation->tryFinish());
    operation->finishWithError();
    operation->finishWithError(); // a second finish

    auto unstarted = std::make_shared<ORVAsyncOperation>();
    unstarted->finishWithError(); // state 0 is let through
    EXPECT_TRUE(unstarted->isFinished());

    auto empty = std::make_shared<ORVBlockOperation>();
    empty->start();
    const QString misuse = "Unable to complete operation, it is likely -finishWithError: was called without an "
                           "affirmative response from tryFinish or called multiple times.";
    EXPECT_EQ(record.descriptions(),
              QStringList({misuse, "completionHandler can only be safely mutated before submitting operation.",
                           misuse, "Invalid parameter not satisfying: executionHandler != nil"}));
    EXPECT_EQ(record.failures()[3].file, "ORVBlockOperation");
}

TEST(AsyncOperation, HandlerThatFinishesLater)
{
    ORVOperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    std::shared_ptr<ORVBlockOperation> pending;
    std::mutex lock;
    auto first = std::make_shared<ORVBlockOperation>();
    first->setExecutionHandler([&](const std::shared_ptr<ORVBlockOperation> &op) {
        std::lock_guard guard(lock);
        pending = op;
        return false; // finishes later
    });
    std::atomic<bool> secondRan = false;
    queue.addOperation(first);
    queue.addOperationWithBlock([&] { secondRan = true; });
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard guard(lock);
        return pending != nullptr;
    }));
    spinFor(50ms);
    EXPECT_FALSE(secondRan) << "a maximum of one keeps the second waiting";
    EXPECT_TRUE(first->isExecuting());
    {
        std::lock_guard guard(lock);
        pending->didFinishExecution();
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(secondRan);
    EXPECT_TRUE(first->isFinished());
}

// A change of state is one step with its notifications: another thread
// that asks, or a queue the operation is added to meanwhile, sees it
// finished only once the "isFinished" observers have run.
TEST(AsyncOperation, OtherThreadsSeeTheFinishOnlyAfterItsObservers)
{
    struct SlowObserver : ORVOperationObserver {
        std::atomic<bool> entered = false;
        std::atomic<bool> done = false;
        void operationDidChangeValueForKey(ORVOperation &, const QString &key) override
        {
            if (key != ORVOperationIsFinishedKey)
                return;
            entered = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            done = true;
        }
    };
    for (const bool throughAQueue : {false, true}) {
        SCOPED_TRACE(throughAQueue ? "added to a queue meanwhile" : "asked directly");
        auto operation = std::make_shared<ORVAsyncOperation>();
        auto observer = std::make_shared<SlowObserver>();
        operation->addObserver(observer);
        std::thread canceller([&] { operation->cancel(); });
        while (!observer->entered)
            std::this_thread::yield();
        if (throughAQueue) {
            ORVOperationQueue queue;
            queue.addOperation(operation);
            queue.waitUntilAllOperationsAreFinished();
            EXPECT_TRUE(observer->done) << "the queue let the operation go before its observers ran";
        } else {
            EXPECT_TRUE(operation->isFinished());
            EXPECT_TRUE(observer->done) << "finished was visible before its observers ran";
        }
        canceller.join();
    }
}

TEST(OperationQueue, RespectsTheMaximumAndRunsEverything)
{
    ORVOperationQueue queue;
    queue.setMaxConcurrentOperationCount(3);
    std::atomic<int> running = 0, peak = 0, done = 0;
    for (int i = 0; i < 60; ++i) {
        queue.addOperationWithBlock([&] {
            const int now = ++running;
            int seen = peak.load();
            while (now > seen && !peak.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(1ms);
            --running;
            ++done;
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(done.load(), 60);
    EXPECT_LE(peak.load(), 3);
    EXPECT_GE(peak.load(), 2) << "operations do run side by side";
    std::atomic<bool> completionBlockRan = false;
    auto operation = ORVBlockOperation::blockOperationWithBlock([](const auto &) {});
    operation->setCompletionBlock([&] { completionBlockRan = true; });
    queue.addOperation(operation);
    EXPECT_TRUE(waitUntil([&] { return completionBlockRan.load(); }));
}

// Operations made on several threads and freed on the queue's: each runs
// once and in the order its thread added it, a new operation never shares its
// address with one still held, and cancelled waiting operations leave the
// order of the rest as it was.
TEST(OperationQueue, StreamsFromSeveralThreadsRunOnceInOrder)
{
    constexpr int kProducers = 3;
    constexpr int kEach = 3000;
    ORVOperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    std::vector<int> next(kProducers, 0);
    std::atomic<int> outOfOrder = 0;
    std::atomic<int> sharedAddress = 0;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            std::deque<std::shared_ptr<ORVBlockOperation>> held; // the last 64 made here
            for (int i = 0; i < kEach; ++i) {
                auto operation = ORVBlockOperation::blockOperationWithBlock([&, p, i](const auto &) {
                    // One at a time (serial queue), so the counters need no lock.
                    if (next[p] != i)
                        ++outOfOrder;
                    next[p] = i + 1;
                });
                for (const auto &other : held)
                    if (other.get() == operation.get())
                        ++sharedAddress;
                held.push_back(operation);
                if (held.size() > 64)
                    held.pop_front();
                queue.addOperation(operation);
            }
        });
    }
    for (auto &producer : producers)
        producer.join();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(next, std::vector<int>(kProducers, kEach));
    EXPECT_EQ(outOfOrder.load(), 0);
    EXPECT_EQ(sharedAddress.load(), 0) << "a live operation's memory was handed out again";
    EXPECT_EQ(queue.operationCount(), 0);

    // Synchronous operations end when start() returns.
    struct Counting : ORVOperation {
        std::atomic<int> *runs;
        explicit Counting(std::atomic<int> *counter) : runs(counter) {}
        void start() override { ++*runs; }
        void cancel() override {}
        bool isExecuting() const override { return false; }
        bool isFinished() const override { return false; }
        bool isCancelled() const override { return false; }
    };
    std::atomic<int> runs = 0;
    for (int i = 0; i < 500; ++i)
        queue.addOperation(std::make_shared<Counting>(&runs));
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(runs.load(), 500);
    EXPECT_EQ(queue.operationCount(), 0);

    queue.setSuspended(true);
    std::vector<int> ran;
    std::vector<std::shared_ptr<ORVBlockOperation>> operations;
    for (int i = 0; i < 200; ++i) {
        operations.push_back(ORVBlockOperation::blockOperationWithBlock([&ran, i](const auto &) { ran.push_back(i); }));
        queue.addOperation(operations.back());
    }
    std::vector<int> expected;
    for (int i = 0; i < 200; ++i) {
        if (i % 3 == 0)
            operations[static_cast<size_t>(i)]->cancel();
        else
            expected.push_back(i);
    }
    EXPECT_EQ(queue.operationCount(), static_cast<qsizetype>(expected.size()));
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ran, expected);
}

TEST(MainQueueFunctions, InlineOnTheMainQueue)
{
    EXPECT_TRUE(ORVDispatchIsMainQueue());
    bool ran = false;
    ORVDispatchMainQueueAsync([&] { ran = true; });
    EXPECT_TRUE(ran) << "ran before returning";
    ran = false;
    ORVDispatchMainQueueSync([&] { ran = true; });
    EXPECT_TRUE(ran);

    std::atomic<bool> workerOnMain = true, syncRanOnMain = false, asyncRanOnMain = false;
    std::thread worker([&] {
        workerOnMain = ORVDispatchIsMainQueue();
        ORVDispatchMainQueueAsync([&] { asyncRanOnMain = ORVDispatchIsMainQueue(); });
    });
    worker.join();
    EXPECT_FALSE(workerOnMain);
    EXPECT_TRUE(waitUntil([&] { return asyncRanOnMain.load(); }));

    std::thread syncWorker([&] { ORVDispatchMainQueueSync([&] { syncRanOnMain = ORVDispatchIsMainQueue(); }); });
    EXPECT_TRUE(waitUntil([&] { return syncRanOnMain.load(); }));
    syncWorker.join();

    RecordAssertions record;
    ORVDispatchMainQueueAsync(nullptr);
    ORVDispatchMainQueueSync(nullptr);
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: block != NULL",
                                                  "Invalid parameter not satisfying: block != NULL"}));
    EXPECT_EQ(record.failures()[0].file, "ORVDispatchMainQueue");
}
