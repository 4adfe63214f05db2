#include "OrvTestSupport.h"

#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace orv::test;

class LocalKeyValueStoreTest : public XdgHomeTest {};

TEST_F(LocalKeyValueStoreTest, ValuesSurviveAReopenWithTheirTypes)
{
    const QByteArray key("\x00\x01\xfe\xff-sixteen-bytes", 16);
    QString path;
    {
        ORVLocalKeyValueStore store;
        path = store.filePath();
        EXPECT_TRUE(path.startsWith(home.path())) << qPrintable(path);
        store.setLongLong(1, QStringLiteral("zel-signin-type"));
        store.setString(QStringLiteral("ada@example.org"), QStringLiteral("zel-signin-mail"));
        store.setData(key, QStringLiteral("OrvellaAccountKey-ada"));
        store.setString(QStringLiteral("gone"), QStringLiteral("removed"));
        store.removeObjectForKey(QStringLiteral("removed"));
        store.setObject(QVariant::fromValue(QStringList{"not", "kept"}), QStringLiteral("list"));
        EXPECT_TRUE(store.synchronize());
    }
    const auto permissions = QFileInfo(path).permissions();
    EXPECT_TRUE(permissions.testFlag(QFileDevice::ReadOwner));
    EXPECT_FALSE(permissions & (QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ReadOther |
                                QFileDevice::WriteOther))
        << "the file holds an encryption key";
    ORVLocalKeyValueStore reopened(path);
    EXPECT_EQ(reopened.longLongForKey("zel-signin-type"), 1);
    EXPECT_EQ(reopened.stringForKey("zel-signin-mail"), QStringLiteral("ada@example.org"));
    EXPECT_EQ(reopened.dataForKey("OrvellaAccountKey-ada"), key);
    // Typed reads refuse other types; missing keys give nothing.
    EXPECT_FALSE(reopened.stringForKey("OrvellaAccountKey-ada"));
    EXPECT_FALSE(reopened.dataForKey("zel-signin-mail"));
    EXPECT_FALSE(reopened.objectForKey("removed").isValid());
    EXPECT_FALSE(reopened.objectForKey("list").isValid());
}

TEST_F(LocalKeyValueStoreTest, UnreadableFileIsMovedAsideNotOverwritten)
{
    const QString path = home.filePath("store.json");
    for (const QByteArray &content : {QByteArray("{not json"), QByteArray("[1,2]"), QByteArray(1000, '\0')}) {
        QFile::remove(path);
        QFile::remove(path + ".unreadable");
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();

        ORVLocalKeyValueStore store(path);
        EXPECT_FALSE(store.objectForKey("anything").isValid());
        store.setString(QStringLiteral("v"), QStringLiteral("k"));
        QFile aside(path + ".unreadable");
        ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
        EXPECT_EQ(aside.readAll(), content);
        EXPECT_EQ(ORVLocalKeyValueStore(path).stringForKey("k"), QStringLiteral("v"));
    }
}

TEST_F(LocalKeyValueStoreTest, InstalledStoreReplacesTheDefault)
{
    auto mine = std::make_shared<ORVLocalKeyValueStore>(home.filePath("mine.json"));
    ORVUbiquitousKeyValueStore::setDefaultStore(mine);
    EXPECT_EQ(ORVUbiquitousKeyValueStore::defaultStore(), mine);
    ORVUbiquitousKeyValueStore::setDefaultStore(nullptr);
    auto fallback = ORVUbiquitousKeyValueStore::defaultStore();
    ASSERT_TRUE(fallback);
    EXPECT_NE(fallback, mine);
}
