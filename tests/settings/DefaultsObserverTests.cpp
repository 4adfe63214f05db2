#include "OrvTestSupport.h"

#include <OrvellaKit/ORVDefaultsObserver.h>

#include <QProcess>
#include <QThread>

using namespace orv::test;

namespace {

class Listener {
public:
    void changed() { ++plain; }
    void changedKey(const QString &key) { keys << key; }
    void changedKeyIn(const QString &key, ORVUserDefaults &defaults)
    {
        keys << key;
        stores.push_back(&defaults);
    }
    int plain = 0;
    QStringList keys;
    std::vector<ORVUserDefaults *> stores;
};

// Lets the main loop run its passes: deliveries come from there. A loaded
// machine (sanitizers, two cores) can take far longer than one short pause,
// so first wait for what must arrive, then a little longer for anything
// that must not arrive twice.
void settle(const std::function<bool()> &arrived = {})
{
    if (arrived) {
        EXPECT_TRUE(waitUntil(arrived, 10s));
    }
    spinFor(100ms);
}

class DefaultsObserverTest : public XdgHomeTest {
protected:
    std::shared_ptr<ORVUserDefaults> store = ORVUserDefaults::defaultsWithSuiteName("observer-tests");
    std::shared_ptr<ORVDefaultsObserver> observer = ORVDefaultsObserver::observerForDefaults(store);
};

} // namespace

TEST_F(DefaultsObserverTest, OneObserverPerStoreAndAssertions)
{
    EXPECT_EQ(ORVDefaultsObserver::observerForDefaults(store), observer);
    EXPECT_EQ(observer->defaults(), store);
    EXPECT_NE(ORVDefaultsObserver::defaultObserver(), observer);
    EXPECT_EQ(ORVDefaultsObserver::defaultObserver()->defaults(), ORVUserDefaults::standardUserDefaults());

    RecordAssertions record;
    EXPECT_FALSE(ORVDefaultsObserver::observerForDefaults(nullptr));
    auto listener = std::make_shared<Listener>();
    observer->addObserver(std::shared_ptr<Listener>(), &Listener::changed, "A");
    observer->addObserver(listener, static_cast<void (Listener::*)()>(nullptr), "A");
    observer->addObserver(listener, &Listener::changed, QString());
    observer->removeObserver(static_cast<const void *>(nullptr));
    observer->observedKeyPathDidChange(QString());
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: defaults != nil",
                                                  "Invalid parameter not satisfying: observer != nil",
                                                  "Invalid parameter not satisfying: selector != nil",
                                                  "Invalid parameter not satisfying: key != nil",
                                                  "Invalid parameter not satisfying: observer != nil",
                                                  "Invalid parameter not satisfying: keyPath != nil"}));
    EXPECT_TRUE(observer->infoForKeys().empty());
}

TEST_F(DefaultsObserverTest, DeliveriesAreDedupedAndCoalescedPerPass)
{
    auto listener = std::make_shared<Listener>();
    observer->addObserver(listener, &Listener::changed, "Theme");
    observer->addObserver(listener, &Listener::changed, "Theme"); // the same registration
    observer->addObserver(listener, &Listener::changedKey, "Theme");
    EXPECT_EQ(observer->infoForKeys().at("Theme").size(), 2u);

    store->setString("dark", "Theme");
    store->setString("light", "Theme");
    store->setString("sepia", "Theme");
    settle([&] { return listener->plain > 0; });
    EXPECT_EQ(listener->plain, 1);
    EXPECT_EQ(listener->keys, QStringList{"Theme"});

    // A later pass delivers again; different keys are delivered separately.
    observer->addObserver(listener, &Listener::changedKey, "Zoom");
    store->setString("x", "Theme");
    store->setInteger(2, "Zoom");
    settle([&] { return listener->keys.size() >= 3; });
    EXPECT_EQ(listener->plain, 2);
    EXPECT_EQ(listener->keys.size(), 3);
    EXPECT_TRUE(listener->keys.contains("Zoom"));
}

TEST_F(DefaultsObserverTest, ArgumentFormsAndStoreRegistrations)
{
    auto first = std::make_shared<Listener>();
    auto second = std::make_shared<Listener>();
    observer->addObserver(first, &Listener::changedKeyIn, "Week");
    observer->addObserver(second, &Listener::changedKey, "Week");
    EXPECT_EQ(store->observerCount("Week"), 1); // the store is asked once per key

    store->setBool(true, "Week");
    settle([&] { return !first->keys.isEmpty() && !second->keys.isEmpty(); });
    EXPECT_EQ(first->keys, QStringList{"Week"});
    ASSERT_EQ(first->stores.size(), 1u);
    EXPECT_EQ(first->stores[0], store.get());
    EXPECT_EQ(second->keys, QStringList{"Week"});

    observer->removeObserver(first, "Week");
    EXPECT_EQ(store->observerCount("Week"), 1);
    observer->removeObserver(second, "Week");
    EXPECT_EQ(store->observerCount("Week"), 0);
    EXPECT_TRUE(observer->infoForKeys().empty());

    // Without a key: every key of the object.
    observer->addObserver(first, &Listener::changed, "A");
    observer->addObserver(first, &Listener::changed, "B");
    observer->addObserver(second, &Listener::changed, "B");
    observer->removeObserver(first);
    EXPECT_EQ(store->observerCount("A"), 0);
    EXPECT_EQ(store->observerCount("B"), 1);
    EXPECT_EQ(observer->infoForKeys().size(), 1u);
    observer->removeObserver(second);
}

TEST_F(DefaultsObserverTest, VanishedObserversAreCompactedAtDelivery)
{
    auto staying = std::make_shared<Listener>();
    auto leaving = std::make_shared<Listener>();
    observer->addObserver(staying, &Listener::changed, "K");
    observer->addObserver(leaving, &Listener::changed, "K");
    leaving.reset();
    store->setString("1", "K");
    settle([&] { return staying->plain > 0; });
    EXPECT_EQ(staying->plain, 1);
    EXPECT_EQ(observer->infoForKeys().at("K").size(), 1u);

    staying.reset();
    store->setString("2", "K");
    settle([&] { return observer->infoForKeys().empty(); });
    EXPECT_TRUE(observer->infoForKeys().empty());
    EXPECT_EQ(store->observerCount("K"), 0);
}

TEST_F(DefaultsObserverTest, MethodsMayRegisterDuringDelivery)
{
    struct Reentrant : std::enable_shared_from_this<Reentrant> {
        std::shared_ptr<ORVDefaultsObserver> observer;
        int calls = 0;
        void changed()
        {
            ++calls;
            // In place, without waiting for the registry held by the delivery.
            observer->addObserver(shared_from_this(), &Reentrant::changed, "Other");
            observer->removeObserver(shared_from_this(), "Key");
        }
    };
    auto reentrant = std::make_shared<Reentrant>();
    reentrant->observer = observer;
    observer->addObserver(reentrant, &Reentrant::changed, "Key");
    store->setString("v", "Key");
    settle([&] { return reentrant->calls > 0; });
    EXPECT_EQ(reentrant->calls, 1);
    const auto infos = observer->infoForKeys();
    EXPECT_EQ(infos.count("Key"), 0u);
    EXPECT_EQ(infos.count("Other"), 1u);
    observer->removeObserver(reentrant);
}

TEST_F(DefaultsObserverTest, AnotherProcessWriteIsDeliveredOnce)
{
    auto listener = std::make_shared<Listener>();
    observer->addObserver(listener, &Listener::changedKey, "Color");
    ASSERT_TRUE(store->synchronize());
    QProcess writer;
    writer.start(ORV_DEFAULTS_WRITER_PATH, {store->filePath(), "Color", "teal"});
    ASSERT_TRUE(writer.waitForFinished(10000));
    ASSERT_TRUE(waitUntil([&] { return !listener->keys.isEmpty(); }, 10s));
    settle();
    EXPECT_EQ(listener->keys, QStringList{"Color"});
    observer->removeObserver(listener);
}
