#include "AccountServerFixture.h"

#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKitWidgets/ORVCrashReportWindowController.h>
#include <OrvellaKitWidgets/ORVDataCollectionPendingItemsViewController.h>

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QItemSelectionModel>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTableView>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

using namespace orv::test;

namespace {

ORVDataCollectionItem report(const QString &text, qint64 secondsFromNow)
{
    ORVDataCollectionItem item;
    item.text = text;
    item.category = QStringLiteral("usage");
    item.scheduledSubmissionDate = QDateTime::currentDateTimeUtc().addSecs(secondsFromNow);
    return item;
}

QStringList texts(const QList<ORVDataCollectionItem> &items)
{
    QStringList result;
    for (const auto &item : items)
        result << item.text.value_or(QString());
    return result;
}

class PendingItemsTest : public AccountServerTest {
protected:
    void SetUp() override
    {
        AccountServerTest::SetUp();
        queue = std::make_shared<ORVDataCollectionManager>();
        queue->setSubmissionURL(url("/v1/usage/collect/"));
        queue->setPendingItems({report("Opened the week view", 3600 * 24 * 7),
                                report("Imported a calendar\nwith 12 events", 3600 * 24 * 3),
                                report("Changed the theme", 3600)});
    }
    void select(ORVDataCollectionPendingItemsViewController &view, std::initializer_list<int> rows)
    {
        QItemSelectionModel *selection = view.tableView()->selectionModel();
        selection->clearSelection();
        for (int row : rows)
            selection->select(view.tableView()->model()->index(row, 0),
                              QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }
    // Holds the queue's lock as another process would, past a write's
    // bounded wait, until the descriptor is closed; -1 when it cannot.
    int holdQueueLock()
    {
        const QByteArray lockPath = QFile::encodeName(queue->URLForPendingItems().toLocalFile() + ".lock");
        const int holder = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_len = 1;
        if (holder >= 0 && ::fcntl(holder, F_OFD_SETLK, &lock) != 0) {
            ::close(holder);
            return -1;
        }
        return holder;
    }
    std::shared_ptr<ORVDataCollectionManager> queue;
};

TEST_F(PendingItemsTest, AMultiLineReportShowsOnOneLineAndCopyKeepsTheLines)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    QAbstractItemModel *model = view.tableView()->model();
    ASSERT_EQ(model->rowCount(), 3);
    EXPECT_EQ(model->headerData(0, Qt::Horizontal, Qt::UserRole).toString(), "sentence");
    EXPECT_EQ(model->index(1, 0).data().toString(), "Imported a calendar with 12 events");
    EXPECT_EQ(view.objectValue("sentence", 1), "Imported a calendar with 12 events");
    // A future date is formatted, never "Now".
    EXPECT_NE(view.objectValue("date", 0), "Now");
    EXPECT_FALSE(view.objectValue("date", 0).isEmpty());

    EXPECT_FALSE(view.deleteButton()->isEnabled());
    EXPECT_FALSE(view.copyAction()->isEnabled());
    select(view, {2, 1});
    EXPECT_TRUE(view.deleteButton()->isEnabled());
    EXPECT_TRUE(view.copyAction()->isEnabled());
    view.copyAction()->trigger();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "Imported a calendar\nwith 12 events\nChanged the theme");
}

TEST_F(PendingItemsTest, SubmitAllNowThenClosingSendsEveryReport)
{
    auto view = std::make_unique<ORVDataCollectionPendingItemsViewController>(queue);
    view->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(view.get()));

    // Without a clicked row the menu only offers to send everything.
    std::unique_ptr<QMenu> menu(view->contextMenuForClickedRow(-1));
    ASSERT_EQ(menu->actions().size(), 1);
    EXPECT_EQ(menu->actions().first()->text(), "Submit All Now");
    EXPECT_TRUE(menu->actions().first()->shortcut().isEmpty());

    // While the view is shown the queue sends nothing.
    queue->setPendingItems(view->rows() << report("Due already", -10));
    std::atomic<int> handled = 0;
    queue->submitPendingItemsWithCompletionHandler([&](const ORVError &, quint64 sent) {
        EXPECT_EQ(sent, 0u);
        ++handled;
    });
    ASSERT_TRUE(waitUntil([&] { return handled.load() == 1; }));
    EXPECT_TRUE(server.service().collectedReports().empty());
    queue->setPendingItems(view->rows());

    menu->actions().first()->trigger();
    for (int row = 0; row < 3; ++row)
        EXPECT_EQ(view->objectValue("date", row), "Now");
    EXPECT_TRUE(view->submitNowTextField()->isVisible());
    EXPECT_TRUE(server.service().collectedReports().empty());

    view->hide();
    ASSERT_TRUE(waitUntil([&] { return server.service().collectedReports().size() == 3; }, 10s));
    ASSERT_TRUE(waitUntil([&] { return queue->pendingItems().isEmpty(); }, 10s));
    const auto reports = server.service().collectedReports();
    EXPECT_NE(reports[1].find("Imported a calendar\\nwith 12 events"), std::string::npos);
}

TEST_F(PendingItemsTest, DeletingRowsThenClosingRewritesTheQueue)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));

    select(view, {0, 2});
    QTest::mouseClick(view.deleteButton(), Qt::LeftButton);
    EXPECT_EQ(texts(view.rows()), QStringList{"Imported a calendar\nwith 12 events"});
    EXPECT_FALSE(view.deleteButton()->isEnabled());
    // The file is only rewritten when the view goes.
    EXPECT_EQ(queue->pendingItems().size(), 3);

    view.hide();
    EXPECT_EQ(texts(queue->pendingItems()), QStringList{"Imported a calendar\nwith 12 events"});
    spinFor(100ms);
    EXPECT_TRUE(server.service().collectedReports().empty());
}

TEST_F(PendingItemsTest, OnlyTheUsersChangesAreWrittenBackAndEachShowReloads)
{
    const auto queueLater = [&](const QString &text) {
        ORVDataCollectionItem item;
        item.text = text;
        ASSERT_FALSE(queue->addItem(item, 3600));
    };
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));

    // A report queued while the view is open survives the user's delete.
    queueLater("Queued while open");
    select(view, {0});
    QTest::mouseClick(view.deleteButton(), Qt::LeftButton);
    view.hide();
    const QStringList afterDelete{"Imported a calendar\nwith 12 events", "Changed the theme", "Queued while open"};
    EXPECT_EQ(texts(queue->pendingItems()), afterDelete);

    // Shown again, the view lists what is queued now.
    view.show();
    EXPECT_EQ(texts(view.rows()), afterDelete);

    // "Submit All Now" sends the reports it showed; one queued after it
    // stays queued with its own date.
    view.submitAllPendingItems();
    queueLater("Queued after Submit All");
    view.hide();
    ASSERT_TRUE(waitUntil([&] { return server.service().collectedReports().size() == 3; }, 10s));
    ASSERT_TRUE(waitUntil([&] { return queue->pendingItems().size() == 1; }, 10s));
    EXPECT_EQ(texts(queue->pendingItems()), QStringList{"Queued after Submit All"});

    // Shown and closed again without a change: nothing sent comes back.
    view.show();
    EXPECT_EQ(texts(view.rows()), QStringList{"Queued after Submit All"});
    view.hide();
    spinFor(200ms);
    EXPECT_EQ(server.service().collectedReports().size(), 3u);
    EXPECT_EQ(texts(queue->pendingItems()), QStringList{"Queued after Submit All"});
}

TEST_F(PendingItemsTest, ADeleteThatCannotBeWrittenIsKeptAndWrittenNextTime)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    const int holder = holdQueueLock();
    ASSERT_GE(holder, 0);
    select(view, {0});
    QTest::mouseClick(view.deleteButton(), Qt::LeftButton);
    view.hide();
    ::close(holder);
    const QStringList all{"Opened the week view", "Imported a calendar\nwith 12 events", "Changed the theme"};
    EXPECT_EQ(texts(queue->pendingItems()), all);

    // The user's delete is not forgotten: shown again, the report stays out
    // of the list, and it leaves the queue when the view goes.
    view.show();
    const QStringList rest{"Imported a calendar\nwith 12 events", "Changed the theme"};
    EXPECT_EQ(texts(view.rows()), rest);
    view.hide();
    EXPECT_EQ(texts(queue->pendingItems()), rest);
}

TEST_F(PendingItemsTest, ASubmitAllNowThatCannotBeWrittenCoversWhatTheNextShowingLists)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    const int holder = holdQueueLock();
    ASSERT_GE(holder, 0);
    view.submitAllPendingItems();
    view.hide();
    ::close(holder);
    EXPECT_TRUE(server.service().collectedReports().empty());

    // Shown again with a report queued meanwhile: everything listed is due
    // and goes out when the view goes.
    ORVDataCollectionItem later;
    later.text = QStringLiteral("Queued meanwhile");
    ASSERT_FALSE(queue->addItem(later, 3600));
    view.show();
    ASSERT_EQ(view.rows().size(), 4);
    for (int row = 0; row < 4; ++row)
        EXPECT_EQ(view.objectValue("date", row), "Now");
    view.hide();
    ASSERT_TRUE(waitUntil([&] { return server.service().collectedReports().size() == 4; }, 10s));
    EXPECT_TRUE(waitUntil([&] { return queue->pendingItems().isEmpty(); }, 10s));
}

TEST_F(PendingItemsTest, SubmitAllNowWithoutAnAddressLeavesTheReportsDueAndQueued)
{
    auto unaddressed = std::make_shared<ORVDataCollectionManager>();
    {
        // Destroyed while shown, as a parent window closing takes it along.
        ORVDataCollectionPendingItemsViewController view(unaddressed);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
        view.submitAllPendingItems();
    }
    const QList<ORVDataCollectionItem> items = queue->pendingItems();
    ASSERT_EQ(items.size(), 3);
    for (const ORVDataCollectionItem &item : items)
        EXPECT_LT(QDateTime::currentDateTimeUtc().msecsTo(*item.scheduledSubmissionDate), 0);
}

TEST_F(PendingItemsTest, TheViewListsTheQueueAsItIsWhenShownAndKeepsChangesMadeWhileHidden)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    ORVDataCollectionItem later;
    later.text = QStringLiteral("Queued before the view was shown");
    ASSERT_FALSE(queue->addItem(later, 3600));
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    EXPECT_EQ(view.rows().size(), 4);
    view.hide();

    // A delete asked for in code while the view is hidden is not dropped by
    // the next showing: it reaches the queue first.
    view.deleteItemsAtIndexes({0});
    view.show();
    const QStringList rest{"Imported a calendar\nwith 12 events", "Changed the theme",
                           "Queued before the view was shown"};
    EXPECT_EQ(texts(view.rows()), rest);
    EXPECT_EQ(texts(queue->pendingItems()), rest);
}

TEST_F(PendingItemsTest, ClosingTheViewWhileMinimisedLetsTheQueueSendAgain)
{
    queue->setPendingItems({report("Due already", -10)});
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.setWindowState(Qt::WindowMinimized);
    view.close();
    std::atomic<int> handled = 0;
    std::atomic<quint64> sent = 0;
    queue->submitPendingItemsWithCompletionHandler([&](const ORVError &, quint64 count) {
        sent = count;
        ++handled;
    });
    ASSERT_TRUE(waitUntil([&] { return handled.load() == 1; }, 10s));
    EXPECT_EQ(sent.load(), 1u);
}

TEST_F(PendingItemsTest, DeleteAndCopyFollowTheSelectionAfterSubmitAllNow)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    select(view, {1});
    ASSERT_TRUE(view.deleteButton()->isEnabled());
    view.submitAllPendingItems();
    const bool selected = view.tableView()->selectionModel()->hasSelection();
    EXPECT_EQ(view.deleteButton()->isEnabled(), selected);
    EXPECT_EQ(view.copyAction()->isEnabled(), selected);
    // Whatever the button offers is what it deletes.
    if (view.deleteButton()->isEnabled()) {
        QTest::mouseClick(view.deleteButton(), Qt::LeftButton);
        EXPECT_EQ(view.rows().size(), 2);
    }
    view.tableView()->selectionModel()->clearSelection();
    EXPECT_FALSE(view.deleteButton()->isEnabled());
    EXPECT_FALSE(view.copyAction()->isEnabled());
}

TEST_F(PendingItemsTest, TheKeyboardAndAButtonReachDeleteAndSubmitAllNow)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.tableView()->setFocus();
    select(view, {0});
    QTest::keyClick(view.tableView(), Qt::Key_Delete);
    EXPECT_EQ(texts(view.rows()), (QStringList{"Imported a calendar\nwith 12 events", "Changed the theme"}));

    ASSERT_TRUE(view.submitAllButton()->isEnabled());
    EXPECT_EQ(view.submitAllButton()->text(), "Submit All Now");
    QTest::mouseClick(view.submitAllButton(), Qt::LeftButton);
    EXPECT_EQ(view.objectValue("date", 0), "Now");
    EXPECT_TRUE(view.submitNowTextField()->isVisible());
    // The menu's own items keep no key equivalents.
    std::unique_ptr<QMenu> menu(view.contextMenuForClickedRow(0));
    for (QAction *action : menu->actions())
        EXPECT_TRUE(action->shortcut().isEmpty());

    view.deleteItemsAtIndexes({0, 1});
    EXPECT_FALSE(view.submitAllButton()->isEnabled());
}

TEST_F(PendingItemsTest, TheMenusDeleteTakesTheSelectionOnlyWhenTheClickedRowIsInIt)
{
    ORVDataCollectionPendingItemsViewController view(queue);
    select(view, {0, 1});
    std::unique_ptr<QMenu> outside(view.contextMenuForClickedRow(2));
    ASSERT_EQ(outside->actions().size(), 2);
    EXPECT_EQ(outside->actions().at(1)->text(), "Delete");
    outside->actions().at(1)->trigger();
    EXPECT_EQ(texts(view.rows()), (QStringList{"Opened the week view", "Imported a calendar\nwith 12 events"}));

    select(view, {0, 1});
    std::unique_ptr<QMenu> inside(view.contextMenuForClickedRow(1));
    inside->actions().at(1)->trigger();
    EXPECT_TRUE(view.rows().isEmpty());
    EXPECT_TRUE(view.didModifyItems());

    // Nothing left: no menu items at all, and deleting nothing is harmless.
    std::unique_ptr<QMenu> empty(view.contextMenuForClickedRow(0));
    EXPECT_TRUE(empty->actions().isEmpty());
    view.deleteItems();
    view.deleteItemsAtIndexes({5, -1});
    EXPECT_TRUE(view.rows().isEmpty());
}

TEST_F(PendingItemsTest, TextsComeInGermanWithTheGermanTranslation)
{
    ASSERT_TRUE(ORVInstallTranslations(QLocale(QLocale::German, QLocale::Germany)));
    queue->setPendingItems({report("Fällig", -5)});
    {
        ORVDataCollectionPendingItemsViewController view(queue);
        EXPECT_EQ(view.objectValue("date", 0), "Jetzt");
        EXPECT_EQ(view.deleteButton()->text(), "Löschen");
        std::unique_ptr<QMenu> menu(view.contextMenuForClickedRow(0));
        ASSERT_EQ(menu->actions().size(), 2);
        EXPECT_EQ(menu->actions().at(0)->text(), "Alle jetzt senden");
        EXPECT_EQ(menu->actions().at(1)->text(), "Löschen");
        ORVCrashReportWindowController dialog(nullptr);
        EXPECT_TRUE(dialog.headingTextField()->text().endsWith(" wurde unerwartet beendet."));
    }
    ORVRemoveTranslations();
    ORVDataCollectionPendingItemsViewController english(queue);
    EXPECT_EQ(english.objectValue("date", 0), "Now");
}

} // namespace
