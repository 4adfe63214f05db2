#include "OrvTestSupport.h"

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVWorkItemMultiplexer.h>

#include <atomic>
#include <stdexcept>
#include <thread>

using namespace orv::test;

namespace {
// Counts its starts; finishes only when told to.
class ManualItem : public ORVWorkItem {
public:
    explicit ManualItem(std::shared_ptr<ORVDispatchQueue> queue) { setCompletionQueue(std::move(queue)); }
    void start() override
    {
        if (tryStart())
            ++starts;
    }
    void complete(const ORVError &error = ORVError())
    {
        if (tryFinish())
            finishWithError(error);
    }
    std::atomic<int> starts = 0;
};
} // namespace

// An item whose start() throws.
class ThrowingItem : public ORVWorkItem {
public:
    void start() override { throw std::runtime_error("no start"); }
};

TEST(Multiplexer, AKeyIsReleasedWhenItsItemCannotRun)
{
    auto queue = ORVDispatchQueue::create("test.mux.release");
    ORVWorkItemMultiplexer<QString> multiplexer;
    std::atomic<int> answered = 0;
    std::atomic<qint64> code = 0;
    auto handler = [&](const std::shared_ptr<ORVWorkItem> &, const ORVError &error) {
        code = error.code();
        ++answered;
    };

    // Started already by someone else: its completion never comes here.
    auto started = std::make_shared<ManualItem>(queue);
    started->start();
    multiplexer.startWorkItemIfNeeded(started, QStringLiteral("k"), handler);
    EXPECT_EQ(multiplexer.runningCount(), 0);
    ASSERT_TRUE(waitUntil([&] { return answered.load() == 1; }));
    EXPECT_EQ(code.load(), ORVWorkItemMultiplexerItemNotStartableErrorCode);
    started->complete();

    // A start() that throws: the caller sees the exception, the handler
    // its error, and the key is free again.
    auto throwing = std::make_shared<ThrowingItem>();
    throwing->setCompletionQueue(queue);
    EXPECT_THROW(multiplexer.startWorkItemIfNeeded(throwing, QStringLiteral("k"), handler), std::runtime_error);
    EXPECT_EQ(multiplexer.runningCount(), 0);
    ASSERT_TRUE(waitUntil([&] { return answered.load() == 2; }));
    EXPECT_EQ(code.load(), ORVWorkItemMultiplexerItemNotStartableErrorCode);

    // The next request runs an item of its own.
    auto next = std::make_shared<ManualItem>(queue);
    multiplexer.startWorkItemIfNeeded(next, QStringLiteral("k"), handler);
    EXPECT_EQ(next->starts.load(), 1);
    next->complete();
    ASSERT_TRUE(waitUntil([&] { return answered.load() == 3; }));
    EXPECT_EQ(code.load(), 0);
    spinFor(100ms);
    EXPECT_EQ(answered.load(), 3);
}

TEST(Multiplexer, JoinsRequestsForARunningKey)
{
    auto queue = ORVDispatchQueue::create("test.mux");
    ORVWorkItemMultiplexer<QString> multiplexer;
    auto first = std::make_shared<ManualItem>(queue);
    auto second = std::make_shared<ManualItem>(queue);
    auto third = std::make_shared<ManualItem>(queue);
    std::mutex lock;
    QStringList order;
    std::vector<std::shared_ptr<ORVWorkItem>> receivedItems;
    auto handler = [&](const QString &name) {
        return [&, name](const std::shared_ptr<ORVWorkItem> &item, const ORVError &error) {
            std::lock_guard guard(lock);
            order << name + (error.code() == 42 ? " failed" : " ok");
            receivedItems.push_back(item);
        };
    };
    multiplexer.startWorkItemIfNeeded(first, QStringLiteral("k"), handler("a"));
    multiplexer.startWorkItemIfNeeded(second, QStringLiteral("k"), handler("b"));
    multiplexer.startWorkItemIfNeeded(third, QStringLiteral("k"), handler("c"));
    EXPECT_EQ(first->starts.load(), 1);
    EXPECT_EQ(second->starts.load(), 0) << "a joined item is never started";
    EXPECT_EQ(third->starts.load(), 0);
    EXPECT_EQ(multiplexer.runningCount(), 1);

    first->complete(ORVError("test", 42));
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard guard(lock);
        return order.size() == 3;
    }));
    EXPECT_EQ(order, QStringList({"a failed", "b failed", "c failed"}));
    for (const auto &item : receivedItems)
        EXPECT_EQ(item, first) << "everyone receives the item that ran";
    EXPECT_EQ(multiplexer.runningCount(), 0);

    // After the finish a request starts a new item.
    auto fourth = std::make_shared<ManualItem>(queue);
    multiplexer.startWorkItemIfNeeded(fourth, QStringLiteral("k"), handler("d"));
    EXPECT_EQ(fourth->starts.load(), 1);
    fourth->complete();
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard guard(lock);
        return order.size() == 4;
    }));
    EXPECT_EQ(order.last(), "d ok");
}

TEST(Multiplexer, KeylessAndDistinctKeysRunIndependently)
{
    auto queue = ORVDispatchQueue::create("test.mux.keys");
    ORVWorkItemMultiplexer<int> multiplexer;
    auto keyed = std::make_shared<ManualItem>(queue);
    auto keyless = std::make_shared<ManualItem>(queue);
    auto other = std::make_shared<ManualItem>(queue);
    std::atomic<int> calls = 0;
    auto count = [&](const auto &, const auto &) { ++calls; };
    multiplexer.startWorkItemIfNeeded(keyed, 1, count);
    multiplexer.startWorkItemIfNeeded(keyless, std::nullopt, count);
    multiplexer.startWorkItemIfNeeded(other, 2, count);
    EXPECT_EQ(keyless->starts.load(), 1) << "no key: started directly";
    EXPECT_EQ(other->starts.load(), 1);
    EXPECT_EQ(multiplexer.runningCount(), 2) << "keyless work is not recorded";
    keyless->complete();
    keyed->complete();
    other->complete();
    EXPECT_TRUE(waitUntil([&] { return calls.load() == 3; }));
}

TEST(Multiplexer, JoinedHandlersRunAfterTheItemsOwnCompletionOnItsQueue)
{
    auto queue = ORVDispatchQueue::create("test.mux.queue");
    ORVWorkItemMultiplexer<QString> multiplexer;
    auto item = std::make_shared<ManualItem>(queue);
    std::atomic<int> onQueue = 0;
    for (int i = 0; i < 5; ++i) {
        multiplexer.startWorkItemIfNeeded(i == 0 ? item : std::make_shared<ManualItem>(queue), QStringLiteral("q"),
                                          [&](const auto &, const auto &) {
                                              if (queue->isCurrent())
                                                  ++onQueue;
                                          });
    }
    item->complete();
    EXPECT_TRUE(waitUntil([&] { return onQueue.load() == 5; }));
}

TEST(MultiplexerStress, EightThreadsThousandKeys)
{
    constexpr int kThreads = 8;
    constexpr int kKeys = 1000;
    auto queue = ORVDispatchQueue::create("test.mux.stress");
    ORVWorkItemMultiplexer<int> multiplexer;
    std::atomic<int> delivered = 0;
    std::vector<std::atomic<int>> startsPerKey(kKeys);
    std::mutex itemsLock;
    std::vector<std::shared_ptr<ManualItem>> started;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int key = 0; key < kKeys; ++key) {
                auto item = std::make_shared<ManualItem>(queue);
                multiplexer.startWorkItemIfNeeded(item, key, [&](const auto &, const auto &) { ++delivered; });
                if (item->starts.load() == 1) {
                    ++startsPerKey[key];
                    std::lock_guard guard(itemsLock);
                    started.push_back(item);
                }
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    // Nothing finished yet, so every key ran exactly one item.
    for (int key = 0; key < kKeys; ++key)
        ASSERT_EQ(startsPerKey[key].load(), 1) << key;
    EXPECT_EQ(multiplexer.runningCount(), kKeys);
    for (auto &item : started)
        item->complete();
    EXPECT_TRUE(waitUntil([&] { return delivered.load() == kThreads * kKeys; }, 30s));
    EXPECT_EQ(multiplexer.runningCount(), 0);
}
