#include "OrvTestSupport.h"

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVWorkItem.h>

#include <QThread>

#include <atomic>
#include <thread>

using namespace orv::test;

namespace {
struct Delivery {
    std::atomic<int> calls = 0;
    std::atomic<bool> onQueue = false;
    ORVError error;
    std::shared_ptr<ORVWorkItem> item;
    std::mutex lock;
};

ORVWorkItem::CompletionHandler recordInto(Delivery &delivery, std::shared_ptr<ORVDispatchQueue> queue)
{
    return [&delivery, queue](const std::shared_ptr<ORVWorkItem> &item, const ORVError &error) {
        std::lock_guard guard(delivery.lock);
        delivery.item = item;
        delivery.error = error;
        delivery.onQueue = queue->isCurrent();
        ++delivery.calls;
    };
}
} // namespace

TEST(WorkItem, StateMachineEdges)
{
    auto item = std::make_shared<ORVWorkItem>();
    EXPECT_FALSE(item->isCanceled());
    EXPECT_EQ(item->completionQueue(), ORVDispatchQueue::mainQueue()) << "the main queue when none is set";
    EXPECT_TRUE(item->tryStart());
    EXPECT_FALSE(item->tryStart());
    EXPECT_TRUE(item->tryFinish());
    EXPECT_FALSE(item->tryFinish());
    EXPECT_TRUE(item->tryCancel());
    EXPECT_FALSE(item->tryCancel());
    EXPECT_EQ(item->state(), ORVWorkItemStateFinishing) << "cancelling leaves the state alone";

    auto fresh = std::make_shared<ORVWorkItem>();
    EXPECT_TRUE(fresh->tryFinish()) << "a never-started item can be finished";
    EXPECT_FALSE(fresh->tryStart());
}

TEST(WorkItem, CompletionIsAsynchronousOnItsQueue)
{
    auto queue = ORVDispatchQueue::create("test.completion");
    auto item = std::make_shared<ORVWorkItem>();
    Delivery delivery;
    item->setCompletionQueue(queue);
    item->setCompletionHandler(recordInto(delivery, queue));
    ASSERT_TRUE(item->tryStart());
    ASSERT_TRUE(item->tryFinish());
    const ORVError failure("test", 7);
    // Finishing from the completion queue itself still does not call inline.
    bool calledInline = true;
    queue->sync([&] {
        item->finishWithError(failure);
        calledInline = delivery.calls.load() != 0;
    });
    EXPECT_FALSE(calledInline);
    ASSERT_TRUE(waitUntil([&] { return delivery.calls.load() == 1; }));
    EXPECT_TRUE(delivery.onQueue);
    EXPECT_EQ(delivery.error, failure);
    EXPECT_EQ(delivery.item, item);
    EXPECT_EQ(item->state(), ORVWorkItemStateFinished);
    EXPECT_FALSE(item->completionHandler()) << "the handler is cleared when it is taken";
}

TEST(WorkItem, DefaultsToTheMainQueue)
{
    auto item = std::make_shared<ORVWorkItem>();
    Delivery delivery;
    item->setCompletionHandler(recordInto(delivery, ORVDispatchQueue::mainQueue()));
    std::thread([&] {
        if (item->tryFinish())
            item->finishWithError();
    }).join();
    ASSERT_TRUE(waitUntil([&] { return delivery.calls.load() == 1; }));
    EXPECT_TRUE(delivery.onQueue);
    EXPECT_FALSE(delivery.error);
}

TEST(WorkItem, CancelBeforeStartAndAfterTheWorkWon)
{
    auto queue = ORVDispatchQueue::create("test.cancel");
    auto unstarted = std::make_shared<ORVWorkItem>();
    Delivery cancelled;
    unstarted->setCompletionQueue(queue);
    unstarted->setCompletionHandler(recordInto(cancelled, queue));
    unstarted->cancel();
    unstarted->cancel();
    EXPECT_FALSE(unstarted->tryStart());
    ASSERT_TRUE(waitUntil([&] { return cancelled.calls.load() >= 1; }));
    queue->sync([] {});
    EXPECT_EQ(cancelled.calls.load(), 1);
    EXPECT_TRUE(orv_isOrvellaKitCancelError(cancelled.error));

    auto working = std::make_shared<ORVWorkItem>();
    Delivery result;
    working->setCompletionQueue(queue);
    working->setCompletionHandler(recordInto(result, queue));
    ASSERT_TRUE(working->tryStart());
    ASSERT_TRUE(working->tryFinish()); // the work wins
    working->cancel();
    EXPECT_TRUE(working->isCanceled());
    working->finishWithError();
    ASSERT_TRUE(waitUntil([&] { return result.calls.load() == 1; }));
    EXPECT_FALSE(result.error) << "the work's own result, not the cancel error";
}

TEST(WorkItem, AssertionTexts)
{
    {
        RecordAssertions record;
        auto item = std::make_shared<ORVWorkItem>();
        item->finishWithError(); // no tryFinish on a new item: not detected, deliberately
        EXPECT_TRUE(record.failures().empty());
        EXPECT_EQ(item->state(), ORVWorkItemStateFinished);
        item->finishWithError();
        item->setCompletionHandler([](const auto &, const auto &) {});
        item->setCompletionQueue(nullptr);
        const auto failures = record.failures();
        ASSERT_EQ(failures.size(), 3u);
        EXPECT_EQ(failures[0].description,
                  "Called finishWithError: without an affirmative response from tryFinish or called it multiple times.");
        EXPECT_EQ(failures[1].description, "completionHandler can only be safely mutated before submitting work item.");
        EXPECT_EQ(failures[2].description, "completionQueue can only be safely mutated before submitting work item.");
        EXPECT_EQ(failures[0].file, "ORVWorkItem");
        EXPECT_TRUE(failures[0].inMethod);
    }

    auto started = std::make_shared<ORVWorkItem>();
    started->tryStart();
    EXPECT_THROW(started->setCompletionHandler(nullptr), ORVException) << "the default handler throws";
}

TEST(WorkItem, NoHandlerFinishesSilently)
{
    auto item = std::make_shared<ORVWorkItem>();
    ASSERT_TRUE(item->tryFinish());
    item->finishWithError(ORVError("x", 1));
    EXPECT_EQ(item->state(), ORVWorkItemStateFinished);
}

TEST(WorkItemStress, CancelRacesFinishingAndEveryHandlerRunsOnce)
{
    constexpr int kItems = 100000;
    constexpr int kThreads = 8;
    auto queue = ORVDispatchQueue::create("test.stress");
    std::vector<std::shared_ptr<ORVWorkItem>> items(kItems);
    std::vector<std::atomic<int>> calls(kItems);
    std::vector<std::atomic<int>> cancelErrors(kItems);
    std::vector<std::atomic<bool>> workWon(kItems);
    std::atomic<int> delivered = 0;
    for (int i = 0; i < kItems; ++i) {
        items[i] = std::make_shared<ORVWorkItem>();
        items[i]->setCompletionQueue(queue);
        items[i]->setCompletionHandler([&, i](const std::shared_ptr<ORVWorkItem> &, const ORVError &error) {
            ++calls[i];
            if (orv_isOrvellaKitCancelError(error))
                ++cancelErrors[i];
            ++delivered;
        });
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Even threads finish as the work would, odd threads cancel; each
            // item meets one of each.
            const bool canceller = t % 2 == 1;
            for (int i = t / 2; i < kItems; i += kThreads / 2) {
                if (canceller) {
                    items[i]->cancel();
                } else if (items[i]->tryStart() && items[i]->tryFinish()) {
                    workWon[i] = true;
                    items[i]->finishWithError();
                }
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    ASSERT_TRUE(waitUntil([&] { return delivered.load() == kItems; }, 60s));
    queue->sync([] {});
    int mismatches = 0;
    for (int i = 0; i < kItems; ++i) {
        if (calls[i] != 1 || (cancelErrors[i] == 1) == workWon[i].load())
            ++mismatches;
        if (!items[i]->isCanceled())
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(delivered.load(), kItems);
}
