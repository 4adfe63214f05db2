#include "OrvTestSupport.h"

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVOrvellaAccount.h>

#include <QCoreApplication>

#include <cstdlib>

using namespace orv::test;

namespace {

class TestCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("Kalendro"); }
    QString appGroupIdentifier() const override { return QString(); }
};

class TestAccount : public ORVOrvellaAccount {
public:
    QString identifier() const override { return QStringLiteral("id-1"); }
    std::optional<QString> username() const override { return QStringLiteral("ada"); }
    QString emailAddress() const override { return QStringLiteral("ada@example.org"); }
    ORVOrvellaAccountType orvellaAccountType() const override { return ORVOrvellaAccountTypePassword; }
    QString displayName() const override { return _displayName; }
    void setDisplayName(const QString &name) override { _displayName = name; }
    void setUsername(const std::optional<QString> &) override {}
    void setEmailAddress(const QString &) override {}
    void setOrvellaAccountType(ORVOrvellaAccountType) override {}
    std::shared_ptr<ORVOrvellaAccount> copy() const override { return std::make_shared<TestAccount>(*this); }
    QUrl URLForServerEndpoint(ORVOrvellaServerEndpoint) const override { return {}; }
    QUrl serverURLForAPIAccess() const override { return QUrl("https://127.0.0.1/"); }

private:
    QString _displayName;
};

// Shared instances and registrations live for the whole process, so each
// check that depends on "first" runs in a child process of its own.
#define EXPECT_IN_CHILD(statements) EXPECT_EXIT({ statements; std::exit(0); }, ::testing::ExitedWithCode(0), "")

} // namespace

TEST(PlatformCoordinator, DefaultAnswers)
{
    auto coordinator = ORVCoordinator::platformCoordinator();
    ASSERT_TRUE(coordinator);
    EXPECT_EQ(coordinator, ORVCoordinator::platformCoordinator()) << "the same default instance every time";
    EXPECT_EQ(coordinator->backgroundTimeRemaining(), 0.0);
    EXPECT_FALSE(coordinator->isRunningInBackground());
    EXPECT_EQ(coordinator->prefererredDefaultLogLevel(), 1u);
    try {
        coordinator->appName();
        FAIL() << "appName must be overridden";
    } catch (const ORVException &exception) {
        EXPECT_EQ(exception.name(), "AbstractMethodException");
        EXPECT_EQ(exception.reason(), "You must override appName in a subclass");
    }
    EXPECT_THROW(coordinator->appGroupIdentifier(), ORVException);
}

TEST(PlatformCoordinator, BackgroundTaskReasons)
{
    auto coordinator = ORVCoordinator::platformCoordinator();
    auto unnamed = coordinator->beginBackgroundTaskWithName(QString(), [] { FAIL() << "never called"; });
    ASSERT_TRUE(unnamed);
    EXPECT_EQ(unnamed->reason(), "ORVPlatformCoordinator");
    EXPECT_EQ(unnamed->options(), 255u);
    auto named = coordinator->beginBackgroundTaskWithName("Uploading reports");
    EXPECT_EQ(named->reason(), "Uploading reports");
    coordinator->endBackgroundTask(named);
    EXPECT_FALSE(named->isInhibiting());
    coordinator->endBackgroundTask(named); // a second end does nothing
    coordinator->endBackgroundTask(nullptr);
}

TEST(PlatformCoordinator, SharedCoordinatorIsMadeByTheClassAskingFirst)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_IN_CHILD({
        auto first = TestCoordinator::sharedCoordinator<TestCoordinator>();
        if (!dynamic_cast<TestCoordinator *>(first.get()) || ORVPlatformCoordinator::sharedCoordinator() != first)
            std::exit(1);
    });
    EXPECT_IN_CHILD({
        auto first = ORVPlatformCoordinator::sharedCoordinator();
        if (dynamic_cast<TestCoordinator *>(TestCoordinator::sharedCoordinator<TestCoordinator>().get()))
            std::exit(1);
        (void)first;
    });
}

TEST(PlatformCoordinator, RegistrationAssertions)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_IN_CHILD({
        RecordAssertions record;
        auto mine = std::make_shared<TestCoordinator>();
        ORVRegisterPlatformCoordinator(mine);
        if (ORVCoordinator::platformCoordinator() != mine || !record.failures().empty())
            std::exit(1);
        ORVRegisterPlatformCoordinator(std::make_shared<TestCoordinator>());
        ORVRegisterPlatformCoordinator(nullptr);
        const auto failures = record.failures();
        if (failures.size() != 3 || failures[0].description != "A platform coordinator was already set" ||
            failures[0].file != "ORVCoordinator" || failures[0].line != 20 ||
            failures[1].description != "Invalid parameter not satisfying: coordinator != nil" ||
            failures[1].line != 19)
            std::exit(2);
    });
    EXPECT_EXIT(
        {
            ORVRegisterPlatformCoordinator(std::make_shared<TestCoordinator>());
            try {
                ORVRegisterPlatformCoordinator(std::make_shared<TestCoordinator>());
            } catch (const ORVException &exception) {
                std::exit(exception.reason() == "A platform coordinator was already set" ? 3 : 4);
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(3), "");
}

TEST(AccountHooks, FetchAndSaveGoThroughTheRegisteredBlocks)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_IN_CHILD({
        {
            RecordAssertions record;
            if (ORVFetchOrvellaAccount() != nullptr || record.descriptions() != QStringList{"Invalid parameter not satisfying: fetchBlock != nil"})
                std::exit(1);
        }
        auto account = std::make_shared<TestAccount>();
        ORVRegisterOrvellaAccountFetchBlock([account] { return account; });
        if (ORVFetchOrvellaAccount() != account)
            std::exit(2);
        ORVRegisterOrvellaAccountFetchBlock([] { return std::shared_ptr<ORVOrvellaAccount>(); });
        if (ORVFetchOrvellaAccount() != nullptr)
            std::exit(3); // the second registration replaces the first

        std::shared_ptr<ORVOrvellaAccount> saved;
        ORVError delivered(QStringLiteral("unset"), 1);
        ORVRegisterOrvellaAccountSaveBlock([&](std::shared_ptr<ORVOrvellaAccount> a, ORVOrvellaAccountSaveCompletion done) {
            saved = a;
            done(ORVError());
        });
        ORVSaveOrvellaAccount(account, [&](const ORVError &error) { delivered = error; });
        if (saved != account || delivered)
            std::exit(4);
    });
}

TEST(AccountHooks, AccountCopiesAreIndependent)
{
    TestAccount account;
    account.setDisplayName("Ada");
    auto copy = account.copy();
    copy->setDisplayName("Grace");
    EXPECT_EQ(account.displayName(), "Ada");
    EXPECT_EQ(copy->displayName(), "Grace");
    EXPECT_EQ(copy->identifier(), account.identifier());
}
