#include "OrvTestSupport.h"

#include <OrvellaKit/ORVDefaultsNotificationManager.h>

using namespace orv::test;

namespace {

// Counts the notifications of some names on the default centre.
struct Posted {
    explicit Posted(const QStringList &names)
    {
        for (const QString &name : names)
            tokens.push_back(ORVNotificationCenter::defaultCenter().addObserverForName(
                name, QVariant(), nullptr, [this](const ORVNotification &n) { received.push_back(n); }));
    }
    ~Posted()
    {
        for (const auto &token : tokens)
            ORVNotificationCenter::defaultCenter().removeObserver(token);
    }
    int count(const QString &name) const
    {
        return static_cast<int>(std::count_if(received.begin(), received.end(),
                                              [&](const ORVNotification &n) { return n.name == name; }));
    }
    std::vector<ORVNotificationToken> tokens;
    std::vector<ORVNotification> received;
};

// Waits for what must arrive (a loaded machine can be slow to deliver),
// then a little longer for anything that must not arrive twice.
void settle(const std::function<bool()> &arrived = {})
{
    if (arrived) {
        EXPECT_TRUE(waitUntil(arrived, 10s));
    }
    spinFor(100ms);
}

class DefaultsNotificationManagerTest : public XdgHomeTest {
protected:
    std::shared_ptr<ORVUserDefaults> store = ORVUserDefaults::defaultsWithSuiteName("notification-tests");
    std::shared_ptr<ORVDefaultsNotificationManager> manager = ORVDefaultsNotificationManager::managerForDefaults(store);
};

} // namespace

TEST_F(DefaultsNotificationManagerTest, NamesPerKey)
{
    EXPECT_EQ(ORVDefaultsNotificationManager::managerForDefaults(store), manager);
    EXPECT_EQ(manager->notificationCenter(), &ORVNotificationCenter::defaultCenter());
    Posted posted({"ThemeChanged", "AppearanceChanged", "LayoutChanged"});

    // Two names on one key.
    manager->registerNotificationName("ThemeChanged", "Theme");
    manager->registerNotificationName("AppearanceChanged", "Theme");
    manager->registerNotificationName("AppearanceChanged", "Theme"); // a set: once
    store->setString("dark", "Theme");
    store->setString("light", "Theme");
    settle([&] { return posted.count("ThemeChanged") > 0 && posted.count("AppearanceChanged") > 0; });
    EXPECT_EQ(posted.count("ThemeChanged"), 1);
    EXPECT_EQ(posted.count("AppearanceChanged"), 1);
    ASSERT_FALSE(posted.received.empty());
    EXPECT_EQ(posted.received[0].object, ORVNotificationObject(manager.get()));
    EXPECT_TRUE(posted.received[0].userInfo.isEmpty());

    manager->deregisterNotificationName("ThemeChanged", "Theme");
    store->setString("sepia", "Theme");
    settle([&] { return posted.count("AppearanceChanged") > 1; });
    EXPECT_EQ(posted.count("ThemeChanged"), 1);
    EXPECT_EQ(posted.count("AppearanceChanged"), 2);

    // One name on two keys: once per changed key and pass.
    manager->registerNotificationName("LayoutChanged", QStringList{"Columns", "Rows"});
    store->setInteger(3, "Columns");
    settle([&] { return posted.count("LayoutChanged") > 0; });
    store->setInteger(4, "Rows");
    settle([&] { return posted.count("LayoutChanged") > 1; });
    EXPECT_EQ(posted.count("LayoutChanged"), 2);

    // The last name of a key gone: nothing posted, and the observer lets go.
    manager->deregisterNotificationName("AppearanceChanged", "Theme");
    manager->deregisterNotificationName("Never registered", "Theme");
    EXPECT_EQ(ORVDefaultsObserver::observerForDefaults(store)->infoForKeys().count("Theme"), 0u);
    EXPECT_FALSE(manager->notificationNames().contains("Theme"));
    store->setString("x", "Theme");
    settle();
    EXPECT_EQ(posted.count("AppearanceChanged"), 2);
}

TEST_F(DefaultsNotificationManagerTest, PrivateCentreIsKeptButNotUsed)
{
    ORVNotificationCenter privateCenter;
    int privatePosts = 0;
    auto token = privateCenter.addObserverForName("Changed", QVariant(), nullptr,
                                                  [&](const ORVNotification &) { ++privatePosts; });
    auto own = std::make_shared<ORVDefaultsNotificationManager>(&privateCenter, store);
    EXPECT_EQ(own->notificationCenter(), &privateCenter);
    Posted posted({"Changed"});
    own->registerNotificationName("Changed", "Key");
    store->setBool(true, "Key");
    settle([&] { return posted.count("Changed") > 0; });
    EXPECT_EQ(posted.count("Changed"), 1);
    EXPECT_EQ(privatePosts, 0);
    privateCenter.removeObserver(token);
}

TEST_F(DefaultsNotificationManagerTest, Assertions)
{
    RecordAssertions record;
    EXPECT_FALSE(ORVDefaultsNotificationManager::managerForDefaults(nullptr));
    manager->registerNotificationName("", "Key");
    manager->registerNotificationName("Name", QString());
    manager->deregisterNotificationName("", QStringList{"Key"});
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: defaults != nil",
                                                  "Invalid parameter not satisfying: [notificationName length] > 0",
                                                  "Invalid parameter not satisfying: [key length] > 0",
                                                  "Invalid parameter not satisfying: [notificationName length] > 0"}));
    EXPECT_TRUE(manager->notificationNames().isEmpty());
}
