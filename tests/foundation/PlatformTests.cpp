#include "OrvTestSupport.h"

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVNotificationCenter.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <latch>

using namespace orv::test;

TEST(DispatchQueue, SerialQueueRunsInOrderOneAtATime)
{
    auto queue = ORVDispatchQueue::create("test.serial");
    std::mutex lock;
    std::vector<int> order;
    std::atomic<int> running = 0;
    std::atomic<int> overlap = 0;
    for (int i = 0; i < 500; ++i) {
        queue->async([&, i] {
            if (running.fetch_add(1) != 0)
                ++overlap;
            std::lock_guard guard(lock);
            order.push_back(i);
            running.fetch_sub(1);
        });
    }
    queue->sync([] {});
    std::lock_guard guard(lock);
    ASSERT_EQ(order.size(), 500u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(overlap, 0);
}

TEST(DispatchQueue, IsCurrentAndReentrantSync)
{
    auto queue = ORVDispatchQueue::create("test.current");
    auto other = ORVDispatchQueue::create("test.other");
    EXPECT_FALSE(queue->isCurrent());
    bool inside = false, otherInside = true, nested = false, current = false;
    queue->sync([&] {
        inside = queue->isCurrent();
        otherInside = other->isCurrent();
        current = ORVDispatchQueue::currentQueue() == queue;
        queue->sync([&] { nested = queue->isCurrent(); }); // inline, no deadlock
    });
    EXPECT_TRUE(inside);
    EXPECT_FALSE(otherInside);
    EXPECT_TRUE(current);
    EXPECT_TRUE(nested);
}

TEST(DispatchQueue, MainQueueIsTheQtMainThread)
{
    auto main = ORVDispatchQueue::mainQueue();
    EXPECT_TRUE(main->isCurrent());
    EXPECT_EQ(ORVDispatchQueue::currentQueue(), main);
    std::atomic<bool> ranOnMain = false;
    std::atomic<bool> workerSawMain = true;
    ORVDispatchQueue::globalQueue()->async([&] {
        workerSawMain = main->isCurrent();
        main->async([&] { ranOnMain = QThread::currentThread() == qApp->thread() && main->isCurrent(); });
    });
    EXPECT_TRUE(waitUntil([&] { return ranOnMain.load(); }));
    EXPECT_FALSE(workerSawMain);
}

TEST(DispatchQueue, SyncRethrowsAndQueueSurvivesThrowingBlocks)
{
    auto queue = ORVDispatchQueue::create("test.throw");
    EXPECT_THROW(queue->sync([] { throw ORVException("Test", "boom"); }), ORVException);
    queue->async([] { throw std::runtime_error("ignored"); });
    int value = 0;
    queue->sync([&] { value = 1; });
    EXPECT_EQ(value, 1);
}

TEST(DispatchQueue, AfterRunsOnTheQueueOnceTheDelayPassed)
{
    auto queue = ORVDispatchQueue::create("test.after");
    std::atomic<bool> onQueue = false;
    std::atomic<bool> done = false;
    const auto start = std::chrono::steady_clock::now();
    std::atomic<long long> elapsedMs = 0;
    queue->after(std::chrono::milliseconds(80), [&] {
        onQueue = queue->isCurrent();
        elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        done = true;
    });
    std::atomic<bool> earlier = false;
    queue->after(std::chrono::milliseconds(10), [&] { earlier = !done; });
    ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    EXPECT_TRUE(onQueue);
    EXPECT_GE(elapsedMs, 80);
    EXPECT_TRUE(earlier) << "the shorter delay fires first";
}

TEST(DispatchQueue, BlockedBlocksDoNotStarveThePool)
{
    // More blocks wait at once than the machine has cores: each waits until
    // every one of them has started, which needs the pool to grow.
    constexpr int kWaiters = 24;
    std::latch started(kWaiters);
    std::vector<std::shared_ptr<ORVDispatchQueue>> queues;
    std::atomic<int> finished = 0;
    for (int i = 0; i < kWaiters; ++i) {
        queues.push_back(ORVDispatchQueue::create(QStringLiteral("test.wait.%1").arg(i)));
        queues.back()->async([&] {
            started.arrive_and_wait();
            ++finished;
        });
    }
    EXPECT_TRUE(waitUntil([&] { return finished.load() == kWaiters; }, 10s));
}

TEST(DispatchQueue, NestedSyncAcrossQueuesFromPoolThreads)
{
    auto a = ORVDispatchQueue::create("test.a");
    auto b = ORVDispatchQueue::create("test.b");
    std::atomic<int> count = 0;
    for (int i = 0; i < 50; ++i) {
        ORVDispatchQueue::globalQueue(ORVDispatchQueue::QualityOfService::Utility)->async([&] {
            a->sync([&] { b->sync([&] { ++count; }); });
        });
    }
    EXPECT_TRUE(waitUntil([&] { return count.load() == 50; }, 10s));
}

TEST(NotificationCenter, FiltersByNameAndObject)
{
    ORVNotificationCenter center;
    int sender = 0, stranger = 0;
    QStringList seen;
    auto any = center.addObserverForName({}, {}, nullptr, [&](const ORVNotification &n) { seen << "any:" + n.name; });
    auto named = center.addObserverForName("A", {}, nullptr, [&](const ORVNotification &n) { seen << "A"; });
    auto fromSender = center.addObserverForName("A", ORVNotificationObject(&sender), nullptr,
                                                [&](const ORVNotification &n) { seen << "A from sender"; });
    auto byString = center.addObserverForName("B", QStringLiteral("com.orvella.kalendro"), nullptr,
                                              [&](const ORVNotification &n) { seen << "B " + n.userInfo["k"].toString(); });
    center.postNotificationName("A", ORVNotificationObject(&stranger));
    center.postNotificationName("A", ORVNotificationObject(&sender));
    center.postNotificationName("B", QStringLiteral("com.orvella.kalendro"), {{"k", "v"}});
    center.postNotificationName("B", QStringLiteral("com.other"));
    EXPECT_EQ(seen, QStringList({"any:A", "A", "any:A", "A", "A from sender", "any:B", "B v", "any:B"}));
}

TEST(NotificationCenter, RemovalDuringDeliveryStopsLaterCallbacks)
{
    ORVNotificationCenter center;
    int secondCalls = 0;
    ORVNotificationToken second;
    auto first = center.addObserverForName("N", {}, nullptr, [&](const ORVNotification &) {
        center.removeObserver(second);
    });
    second = center.addObserverForName("N", {}, nullptr, [&](const ORVNotification &) { ++secondCalls; });
    center.postNotificationName("N");
    EXPECT_EQ(secondCalls, 0);
    EXPECT_FALSE(second->isActive());
    center.removeObserver(first);
    center.postNotificationName("N");
    EXPECT_EQ(secondCalls, 0);
}

TEST(NotificationCenter, QueueObserversRunOnTheirQueue)
{
    auto queue = ORVDispatchQueue::create("test.notifications");
    std::atomic<bool> onQueue = false;
    auto token = ORVNotificationCenter::defaultCenter().addObserverForName(
        "Q", {}, queue, [&](const ORVNotification &) { onQueue = queue->isCurrent(); });
    ORVNotificationCenter::defaultCenter().postNotificationName("Q");
    EXPECT_TRUE(waitUntil([&] { return onQueue.load(); }));
    ORVNotificationCenter::defaultCenter().removeObserver(token);
}

class BundleTest : public XdgHomeTest {};

TEST_F(BundleTest, ReadsInfoJsonOfAFolder)
{
    QDir(home.path()).mkpath("App");
    QFile info(home.filePath("App/Info.json"));
    ASSERT_TRUE(info.open(QIODevice::WriteOnly));
    info.write(R"({"CFBundleIdentifier": "com.orvella.kalendro", "CFBundleVersion": "42", "CFBundleExecutable": "kalendro"})");
    info.close();

    auto bundle = ORVBundle::bundleWithPath(home.filePath("App"));
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->bundleIdentifier(), "com.orvella.kalendro");
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion").toString(), "42");
    EXPECT_EQ(bundle->executablePath(), home.filePath("App/kalendro"));
    EXPECT_TRUE(bundle->loadError().isNull());

    auto forExecutable = ORVBundle::bundleForExecutable(home.filePath("App/kalendro"));
    ASSERT_TRUE(forExecutable);
    EXPECT_EQ(forExecutable->bundleIdentifier(), "com.orvella.kalendro");
    EXPECT_FALSE(ORVBundle::bundleForExecutable(home.filePath("elsewhere/kalendro")));
    EXPECT_FALSE(ORVBundle::bundleWithPath(home.filePath("missing")));
}

TEST_F(BundleTest, OddInfoFilesGiveAnEmptyDictionaryAndAReason)
{
    for (const QByteArray &content : {QByteArray("[1,2]"), QByteArray("{broken"), QByteArray("")}) {
        QDir(home.path()).mkpath("Odd");
        QFile info(home.filePath("Odd/Info.json"));
        ASSERT_TRUE(info.open(QIODevice::WriteOnly | QIODevice::Truncate));
        info.write(content);
        info.close();
        auto bundle = ORVBundle::bundleWithPath(home.filePath("Odd"));
        EXPECT_TRUE(bundle->infoDictionary().isEmpty()) << content.constData();
        EXPECT_TRUE(bundle->bundleIdentifier().isNull()) << content.constData();
        EXPECT_FALSE(bundle->loadError().isEmpty()) << content.constData();
    }
    auto bundle = ORVBundle::bundleWithPath(home.path());
    bundle->setInfoDictionary({{"CFBundleIdentifier", "set.by.app"}});
    EXPECT_EQ(bundle->bundleIdentifier(), "set.by.app");
}

TEST(MainBundle, IsTheFolderOfTheLaunchedExecutable)
{
    EXPECT_EQ(ORVLaunchExecutablePath(), QCoreApplication::applicationFilePath());
    EXPECT_EQ(ORVBundle::mainBundle().bundlePath(), QCoreApplication::applicationDirPath());
}

class StandardPathsTest : public XdgHomeTest {};

TEST_F(StandardPathsTest, FollowTheXdgBaseDirectories)
{
    const QString name = ORVApplicationFolderName();
    EXPECT_FALSE(name.isEmpty());
    EXPECT_EQ(ORVUserLibraryDirectory(), home.filePath(".local/state"));
    EXPECT_EQ(ORVApplicationSupportDirectory(), home.filePath(".local/share/" + name));
    EXPECT_EQ(ORVCachesDirectory(), home.filePath(".cache/" + name));
    EXPECT_EQ(ORVGroupContainerDirectory("group.com.orvella"), home.filePath(".local/share/group-containers/group.com.orvella"));
    EXPECT_TRUE(QFileInfo(ORVApplicationSupportDirectory()).isDir()) << "created on request";
    EXPECT_EQ(ORVGroupContainerDirectory("../escape", false), home.filePath(".local/share/group-containers/.._escape"));

    qputenv("XDG_STATE_HOME", "relative/path"); // not absolute: ignored, as the XDG rules say
    EXPECT_EQ(ORVUserLibraryDirectory(false), home.filePath(".local/state"));
}

TEST(Translations, LocalizableContextIsTranslated)
{
    EXPECT_EQ(ORVLocalizedString("Cancel"), "Cancel");
    ASSERT_TRUE(ORVInstallTranslations(QLocale(QLocale::German, QLocale::Germany)));
    EXPECT_EQ(ORVLocalizedString("Cancel"), "Abbrechen");
    EXPECT_EQ(ORVLocalizedStringFromTable("Cancel", "DuplicateApp"), "Cancel") << "other tables are other contexts";
    EXPECT_FALSE(ORVInstallTranslations(QLocale(QLocale::Japanese)));
    EXPECT_EQ(ORVLocalizedString("Cancel"), "Abbrechen") << "a failed install keeps the previous translator";
}
