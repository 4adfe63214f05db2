#include "OrvTestSupport.h"

#include <OrvellaKit/ORVUserDefaults.h>

#include <OrvellaKit/ORVStandardPaths.h>

#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orv::test;

namespace {

// Records what a key's observer heard.
struct Heard {
    std::mutex mutex;
    QStringList keys;
    std::vector<Qt::HANDLE> threads;
    ORVUserDefaults::ChangeHandler handler()
    {
        return [this](const QString &key, ORVUserDefaults &) {
            std::lock_guard lock(mutex);
            keys << key;
            threads.push_back(QThread::currentThreadId());
        };
    }
    int count()
    {
        std::lock_guard lock(mutex);
        return static_cast<int>(keys.size());
    }
};

class UserDefaultsTest : public XdgHomeTest {};

} // namespace

TEST_F(UserDefaultsTest, OneStorePerFileAndTypedValues)
{
    auto standard = ORVUserDefaults::standardUserDefaults();
    ASSERT_TRUE(standard);
    EXPECT_TRUE(standard->filePath().startsWith(home.path() + "/.config/"));
    EXPECT_TRUE(standard->filePath().endsWith(".conf"));
    EXPECT_EQ(ORVUserDefaults::standardUserDefaults(), standard);
    auto suite = ORVUserDefaults::defaultsWithSuiteName("com.example.shared");
    EXPECT_EQ(suite, ORVUserDefaults::defaultsWithPath(QDir(home.path()).filePath(".config/com.example.shared.conf")));
    EXPECT_FALSE(ORVUserDefaults::defaultsWithSuiteName(""));
    EXPECT_FALSE(ORVUserDefaults::defaultsWithSuiteName("a/b"));

    suite->setInteger(42, "Count");
    suite->setDouble(2.5, "Ratio");
    suite->setBool(true, "Enabled");
    suite->setString("Week", "View");
    suite->registerDefaults({{"View", "Month"}, {"Zoom", 3}});
    EXPECT_EQ(suite->integerForKey("Count"), 42);
    EXPECT_EQ(suite->doubleForKey("Ratio"), 2.5);
    EXPECT_TRUE(suite->boolForKey("Enabled"));
    EXPECT_EQ(suite->stringForKey("View"), std::optional<QString>("Week"));
    EXPECT_EQ(suite->integerForKey("Zoom"), 3); // registered
    suite->removeObjectForKey("View");
    EXPECT_EQ(suite->stringForKey("View"), std::optional<QString>("Month"));
    EXPECT_EQ(suite->integerForKey("Missing"), 0);
    EXPECT_FALSE(suite->boolForKey("Missing"));

    // On disk after synchronize(), typed values read back from text.
    ASSERT_TRUE(suite->synchronize());
    QSettings file(suite->filePath(), QSettings::IniFormat);
    EXPECT_EQ(file.value("Count").toInt(), 42);
    EXPECT_FALSE(file.contains("Zoom"));
    EXPECT_FALSE(file.contains("View"));
}

TEST_F(UserDefaultsTest, SetsAndRemovalsAreReportedPerKey)
{
    auto store = ORVUserDefaults::defaultsWithSuiteName("observed");
    Heard theme;
    Heard other;
    int context = 0;
    store->addObserver(&context, "Theme", theme.handler());
    store->addObserver(&other, "Theme", other.handler());
    EXPECT_EQ(store->observerCount("Theme"), 2);

    store->setString("dark", "Theme");
    store->setString("dark", "Theme"); // a set is reported even when nothing changed
    store->setString("x", "Unobserved");
    store->removeObjectForKey("Theme");
    EXPECT_EQ(theme.keys, QStringList({"Theme", "Theme", "Theme"}));
    EXPECT_EQ(theme.threads.front(), QThread::currentThreadId()); // synchronously, on the setter's thread

    store->removeObserver(&context, "Theme");
    store->setString("light", "Theme");
    EXPECT_EQ(theme.count(), 3);
    EXPECT_EQ(other.count(), 4);
    store->removeObserver(&other, "Theme");
    EXPECT_EQ(store->observerCount("Theme"), 0);
}

TEST_F(UserDefaultsTest, WritesOfAnotherProcessAreReportedOnce)
{
    auto store = ORVUserDefaults::defaultsWithSuiteName("shared");
    store->setString("before", "Untouched");
    // Lists read back from the file in another form (text, QStringList)
    // than they were given in; they are still the same settings.
    store->setObject(QVariantList{QStringLiteral("a"), 2, true}, "List");
    store->setObject(QStringList{"x", "y"}, "Names");
    store->setObject(QVariantList{7}, "One");
    store->setObject(QVariantList{}, "None");
    ASSERT_TRUE(store->synchronize());
    Heard heard;
    Heard untouched;
    store->addObserver(&heard, "Color", heard.handler());
    store->addObserver(&untouched, "Untouched", untouched.handler());
    store->addObserver(&untouched, "List", untouched.handler());
    store->addObserver(&untouched, "Names", untouched.handler());
    store->addObserver(&untouched, "One", untouched.handler());
    store->addObserver(&untouched, "None", untouched.handler());

    QProcess writer;
    writer.start(ORV_DEFAULTS_WRITER_PATH, {store->filePath(), "Color", "teal"});
    ASSERT_TRUE(writer.waitForFinished(10000));
    ASSERT_EQ(writer.exitCode(), 0);

    ASSERT_TRUE(waitUntil([&] { return heard.count() > 0; }, 10s));
    spinFor(300ms);
    EXPECT_EQ(heard.count(), 1);
    EXPECT_EQ(heard.threads.front(), QThread::currentThreadId()); // the main thread's event loop
    EXPECT_EQ(untouched.count(), 0);
    EXPECT_EQ(store->stringForKey("Color"), std::optional<QString>("teal"));
    EXPECT_EQ(store->stringForKey("Untouched"), std::optional<QString>("before"));

    // A second write of the same key, after QSettings replaced the file.
    QProcess again;
    again.start(ORV_DEFAULTS_WRITER_PATH, {store->filePath(), "Color", "navy"});
    ASSERT_TRUE(again.waitForFinished(10000));
    ASSERT_TRUE(waitUntil([&] { return heard.count() > 1; }, 10s));
    EXPECT_EQ(store->stringForKey("Color"), std::optional<QString>("navy"));
}

TEST_F(UserDefaultsTest, WithoutAHomeTheStoresStayInMemory)
{
    // A service account without a passwd entry, started without HOME and
    // with a relative XDG_CONFIG_HOME (which the XDG rules ignore): there is
    // no configuration folder, and the settings must not land in the
    // working folder or at the file-system root instead.
    if (::geteuid() != 0)
        GTEST_SKIP() << "acting as a user without a passwd entry needs root";
    uid_t uid = 54321;
    while (::getpwuid(uid))
        ++uid;
    QTemporaryDir work;
    ASSERT_TRUE(work.isValid());
    ASSERT_EQ(::chmod(QFile::encodeName(work.path()).constData(), 0777), 0);
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(work.path()));
    qunsetenv("HOME");
    qputenv("XDG_CONFIG_HOME", "relative/config");
    const QString rootConf = "/.config/" + ORVApplicationFolderName() + ".conf";
    const bool rootConfExisted = QFileInfo::exists(rootConf);
    ASSERT_EQ(::seteuid(uid), 0);

    {
        auto store = ORVUserDefaults::standardUserDefaults();
        ASSERT_TRUE(store);
        EXPECT_TRUE(store->filePath().isEmpty()) << qPrintable(store->filePath());
        EXPECT_EQ(ORVUserDefaults::standardUserDefaults(), store);
        auto other = ORVUserDefaults::defaultsWithSuiteName("other");
        ASSERT_TRUE(other);
        EXPECT_NE(other, store);

        Heard heard;
        store->addObserver(&heard, "View", heard.handler());
        store->setString("Week", "View");
        store->setInteger(7, "Days");
        other->setString("elsewhere", "View");
        EXPECT_EQ(store->stringForKey("View"), std::optional<QString>("Week"));
        EXPECT_EQ(store->integerForKey("Days"), 7);
        EXPECT_EQ(other->stringForKey("View"), std::optional<QString>("elsewhere"));
        EXPECT_EQ(heard.count(), 1);
        store->removeObjectForKey("Days");
        EXPECT_EQ(store->dictionaryRepresentationKeys(), QStringList{"View"});
        EXPECT_FALSE(store->synchronize()); // nowhere to write to
        spinFor(50ms);                      // a pending write would happen now
    }

    ASSERT_EQ(::seteuid(0), 0);
    QDir::setCurrent(previous);
    EXPECT_TRUE(QDir(work.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
    if (!rootConfExisted) {
        EXPECT_FALSE(QFileInfo::exists(rootConf));
    }
}
