#include "AccountServerFixture.h"

#include <OrvellaKit/ORVNotificationCenter.h>
#include <OrvellaKitWidgets/ORVMAlert.h>
#include <OrvellaKitWidgets/ORVMBackgroundView.h>
#include <OrvellaKitWidgets/ORVOnboardingFeatureItem.h>

#include <QBuffer>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QTimer>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

TEST(Alert, AnnouncesItselfAroundItsModalRunAndAnswersByButtonOrder)
{
    ORVMAlert alert;
    alert.setMessageText("Quit the other copy?");
    alert.addButtonWithTitle("Quit Other Copy");
    QPushButton *second = alert.addButtonWithTitle("Cancel");
    EXPECT_EQ(alert.defaultButton(), alert.alertButtons().first());
    EXPECT_EQ(alert.escapeButton(), second);

    std::vector<QString> seen;
    const QVariant object = ORVNotificationObject(&alert);
    auto &center = ORVNotificationCenter::defaultCenter();
    auto willShow = center.addObserverForName(ORVMAlertWillShowNotification, object, nullptr,
                                              [&](const ORVNotification &n) { seen.push_back(n.name); });
    auto didHide = center.addObserverForName(ORVMAlertDidHideNotification, object, nullptr,
                                             [&](const ORVNotification &n) { seen.push_back(n.name); });
    std::vector<QString> seenWhileShown;
    QTimer::singleShot(0, &alert, [&] {
        seenWhileShown = seen;
        EXPECT_TRUE(alert.isVisible());
        second->click();
    });
    EXPECT_EQ(alert.runModal(), ORVAlertSecondButtonReturn);
    center.removeObserver(willShow);
    center.removeObserver(didHide);

    EXPECT_EQ(seenWhileShown, std::vector<QString>{"ORVMAlertWillShowNotification"});
    EXPECT_EQ(seen, (std::vector<QString>{"ORVMAlertWillShowNotification", "ORVMAlertDidHideNotification"}));
    // Offscreen there are no workspaces to join.
    EXPECT_FALSE(alert.showsOnAllWorkspaces());

    // exec() announces itself too; Escape answers the cancel button.
    int posts = 0;
    auto any = center.addObserverForName(QString(), object, nullptr, [&](const ORVNotification &) { ++posts; });
    QTimer::singleShot(0, &alert, [&] { QTest::keyClick(&alert, Qt::Key_Escape); });
    EXPECT_EQ(alert.exec(), ORVAlertSecondButtonReturn);
    center.removeObserver(any);
    EXPECT_EQ(posts, 2);
}

TEST(Alert, GivesItsInformativeTextRoomAndEmphasisesTheMessage)
{
    ORVMAlert alert;
    alert.setMessageText("Another copy of kalendro-sample is open");
    alert.setInformativeText(
        "An older version of kalendro-sample is already open. Would you like to quit the older version?");
    alert.addButtonWithTitle("Quit Older Version");
    alert.addButtonWithTitle("Ignore");
    alert.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&alert));
    auto *informative = alert.findChild<QLabel *>("qt_msgbox_informativelabel");
    ASSERT_TRUE(informative);
    // Two lines at most, where a narrow column needed five: each line
    // beyond the first adds a line's spacing to the label's height.
    const int oneLine = informative->heightForWidth(100000);
    const int lines = 1 + (informative->heightForWidth(informative->width()) - oneLine) /
                              informative->fontMetrics().lineSpacing();
    EXPECT_LE(lines, 2) << informative->width() << " px wide";
    auto *message = alert.findChild<QLabel *>("qt_msgbox_label");
    ASSERT_TRUE(message);
    EXPECT_TRUE(message->font().bold());
    alert.hide();

    // Without a button of its own, its one button answers as the first.
    ORVMAlert bare;
    bare.setMessageText("Saved");
    QTimer::singleShot(0, &bare, [&] {
        ASSERT_EQ(bare.alertButtons().size(), 1);
        EXPECT_EQ(bare.alertButtons().first()->text(), "OK");
        bare.alertButtons().first()->click();
    });
    EXPECT_EQ(bare.runModal(), ORVAlertFirstButtonReturn);

    // Shown before it runs (QMessageBox would add its own Ok then), it
    // still answers as its first button.
    ORVMAlert shownFirst;
    shownFirst.setMessageText("Saved");
    shownFirst.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&shownFirst));
    QTimer::singleShot(0, &shownFirst, [&] {
        ASSERT_EQ(shownFirst.buttons().size(), 1);
        shownFirst.buttons().first()->click();
    });
    EXPECT_EQ(shownFirst.runModal(), ORVAlertFirstButtonReturn);
}

TEST(BackgroundView, FillsItselfWithItsColour)
{
    ORVMBackgroundView view;
    view.resize(20, 10);
    EXPECT_EQ(view.backgroundColor(), QColor(Qt::white));
    EXPECT_EQ(view.grab().toImage().pixelColor(5, 5), QColor(Qt::white));
    view.setBackgroundColor(QColor(10, 120, 200));
    EXPECT_EQ(view.grab().toImage().pixelColor(19, 9), QColor(10, 120, 200));
}

QByteArray pngOfSize(int width, int height)
{
    QImage image(width, height, QImage::Format_ARGB32);
    image.fill(QColor(200, 20, 20));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

struct LoadResult {
    std::atomic<int> calls = 0;
    std::optional<ORVOnboardingFeatureItem::Items> items;
    ORVError error;
    ORVOnboardingFeatureItem::LoadCompletion completion()
    {
        return [this](const std::optional<ORVOnboardingFeatureItem::Items> &i, const ORVError &e) {
            items = i;
            error = e;
            ++calls;
        };
    }
};

class OnboardingTest : public AccountServerTest {
protected:
    std::shared_ptr<LoadResult> load(const std::string &body, int status = 200)
    {
        server.script("GET", "/features.json", {ScriptedResponse{status, body}});
        auto result = std::make_shared<LoadResult>();
        ORVOnboardingFeatureItem::loadFeatureItemsAtURL(url("/features.json"), result->completion());
        EXPECT_TRUE(waitUntil([&] { return result->calls.load() > 0; }, 10s));
        spinFor(20ms);
        EXPECT_EQ(result->calls.load(), 1);
        return result;
    }
};

TEST_F(OnboardingTest, ListsKeepOnlyElementsWithTextAndImage)
{
    const auto result = load(R"([
        {"text": "Plan your week", "image": "https://example.org/week.png",
         "badgeImage": "https://example.org/new.png", "backgroundColor": "#FF800080"},
        {"text": "No image here"},
        "not an object",
        {"image": "https://example.org/untitled.png"},
        {"text": "Shared calendars", "image": "https://example.org/shared.png", "backgroundColor": 12}
    ])");
    ASSERT_TRUE(result->items);
    EXPECT_TRUE(result->error.isNull());
    ASSERT_EQ(result->items->size(), 2);
    const auto &first = result->items->at(0);
    EXPECT_EQ(first->featureDescription(), "Plan your week");
    EXPECT_EQ(first->imageURL(), QUrl("https://example.org/week.png"));
    EXPECT_EQ(first->badgeImageURL(), QUrl("https://example.org/new.png"));
    EXPECT_EQ(first->backgroundColor().rgba(), qRgba(0xFF, 0x80, 0x00, 0x80));
    EXPECT_TRUE(first->needsImageLoading());
    const auto &second = result->items->at(1);
    EXPECT_EQ(second->featureDescription(), "Shared calendars");
    EXPECT_TRUE(second->badgeImageURL().isEmpty());
    EXPECT_FALSE(second->backgroundColor().isValid());
}

TEST_F(OnboardingTest, BadListsGiveTheirErrorCodes)
{
    const auto object = load("{}");
    EXPECT_FALSE(object->items);
    EXPECT_EQ(object->error, ORVError(ORVOnboardingFeatureItemErrorDomain, 3));

    const auto garbage = load("[{\"text\": \"cut off");
    EXPECT_FALSE(garbage->items);
    EXPECT_EQ(garbage->error, ORVError(ORVOnboardingFeatureItemErrorDomain, 2));

    const auto huge = load(std::string(4 << 20, '['));
    EXPECT_FALSE(huge->items);
    EXPECT_EQ(huge->error.code(), 2);

    // A refusing status gives no items and the transport's (absent) error.
    const auto missing = load("[]", 404);
    EXPECT_FALSE(missing->items);
    EXPECT_TRUE(missing->error.isNull());

    // Nothing listening: the transport's error is passed on.
    const QUrl closed = url("/features.json");
    server.stop();
    auto refused = std::make_shared<LoadResult>();
    ORVOnboardingFeatureItem::loadFeatureItemsAtURL(closed, refused->completion());
    ASSERT_TRUE(waitUntil([&] { return refused->calls.load() > 0; }, 10s));
    EXPECT_FALSE(refused->items);
    EXPECT_EQ(refused->error.domain(), ORVURLErrorDomain);
    ASSERT_TRUE(server.start());
}

TEST_F(OnboardingTest, ImagesLoadInTheBackgroundAndArriveOnTheMainThread)
{
    const QByteArray png = pngOfSize(8, 6);
    server.script("GET", "/week.png", {ScriptedResponse{200, png.toStdString(), "image/png"}});
    server.script("GET", "/badge.png", {ScriptedResponse{200, pngOfSize(3, 3).toStdString(), "image/png"}});
    auto item = std::make_shared<ORVOnboardingFeatureItem>(url("/week.png"), url("/badge.png"), "Week", QColor());
    ASSERT_TRUE(item->needsImageLoading());

    std::atomic<int> calls = 0;
    bool onMain = false;
    item->loadImagesIfNeededWithCompletionBlock([&] {
        onMain = QThread::currentThread() == qApp->thread();
        ++calls;
    });
    EXPECT_FALSE(item->needsImageLoading()); // while loading
    ASSERT_TRUE(waitUntil([&] { return calls.load() == 1; }, 10s));
    EXPECT_TRUE(onMain);
    EXPECT_EQ(item->image().size(), QSize(8, 6));
    EXPECT_EQ(item->badgeImage().size(), QSize(3, 3));
    EXPECT_FALSE(item->needsImageLoading());

    // Not an image, and a missing one: the images stay null, no crash.
    server.script("GET", "/junk.png", {ScriptedResponse{200, "not a picture", "image/png"}});
    auto broken = std::make_shared<ORVOnboardingFeatureItem>(url("/junk.png"), url("/gone.png"), "Broken", QColor());
    std::atomic<int> brokenCalls = 0;
    broken->loadImagesIfNeededWithCompletionBlock([&] { ++brokenCalls; });
    ASSERT_TRUE(waitUntil([&] { return brokenCalls.load() == 1; }, 10s));
    EXPECT_TRUE(broken->image().isNull());
    EXPECT_TRUE(broken->badgeImage().isNull());
}

TEST(OnboardingItem, ItemsMadeWithImagesNeedNoLoading)
{
    QImage image(4, 4, QImage::Format_ARGB32);
    image.fill(Qt::blue);
    auto item = std::make_shared<ORVOnboardingFeatureItem>(image, QImage(), "Ready", QColor(Qt::white));
    EXPECT_FALSE(item->needsImageLoading());
    int calls = 0;
    item->loadImagesIfNeededWithCompletionBlock([&] { ++calls; });
    EXPECT_EQ(calls, 1); // at once, nothing loaded

    // Only a badge URL: loading is wanted until a badge image exists.
    auto badgeOnly = std::make_shared<ORVOnboardingFeatureItem>(QUrl(), QUrl("file:///nonexistent/badge.png"), "B",
                                                                QColor());
    EXPECT_TRUE(badgeOnly->needsImageLoading());

    RecordAssertions record;
    ORVOnboardingFeatureItem::loadFeatureItemsAtURL(QUrl(), {});
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid parameter not satisfying: URL != nil"});
}

} // namespace
