#include "OrvTestSupport.h"

#include <OrvellaKit/ORVImage.h>
#include <OrvellaKitWidgets/ORVPreferencesViewController.h>
#include <OrvellaKitWidgets/ORVPreferencesWindowController.h>

#include <QLineEdit>
#include <QSignalSpy>
#include <QTest>
#include <QWindow>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

using namespace orv::test;

namespace {

// A view whose natural height is what the pane asks for.
class SizedView : public QWidget {
public:
    explicit SizedView(int height) : _height(height)
    {
        auto *layout = new QVBoxLayout(this);
        edit = new QLineEdit(this);
        layout->addWidget(edit);
        layout->addStretch();
    }
    QSize sizeHint() const override { return QSize(300, _height); }
    QSize minimumSizeHint() const override { return QSize(100, 40); }
    QLineEdit *edit;

private:
    int _height;
};

class Pane : public ORVPreferencesViewController {
public:
    Pane(const QString &title, int height, bool resizable = false) : _height(height), _resizable(resizable)
    {
        setTitle(title);
    }
    QString helpAnchor() const override { return title().toLower(); }
    bool canResize() const override { return _resizable; }
    QSize minSize() const override { return _resizable ? QSize(300, 150) : QSize(); }
    QSize maxSize() const override { return _resizable ? QSize(600, 500) : QSize(); }
    void registerDefaults() override { ++defaultsRegistered; }
    void viewDidAppear() override
    {
        ORVPreferencesViewController::viewDidAppear();
        ++appeared;
    }
    QLineEdit *edit() { return static_cast<SizedView *>(view())->edit; }
    int appeared = 0;
    int defaultsRegistered = 0;

protected:
    QWidget *loadView() override { return new SizedView(_height); }

private:
    int _height;
    bool _resizable;
};

class PreferencesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        controller = std::make_unique<ORVPreferencesWindowController>();
        for (auto [title, height] : {std::pair{"General", 120}, {"Accounts", 320}, {"Advanced", 200}}) {
            auto *pane = new Pane(QString::fromLatin1(title), height);
            panes.push_back(pane);
            controller->addPreferencesViewController(pane);
        }
        QObject::connect(controller.get(), &ORVPreferencesWindowController::activeViewControllerChanged,
                         [this](ORVPreferencesViewController *pane) { activations.push_back(pane); });
    }
    void TearDown() override { controller.reset(); }

    void showWindow()
    {
        controller->showWindow();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(controller->window()));
        activations.clear();
    }
    void click(int index, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        QAction *item = controller->toolbarItemWithIdentifier(QString::number(index));
        ASSERT_NE(item, nullptr);
        QWidget *button = controller->toolbar()->widgetForAction(item);
        ASSERT_NE(button, nullptr);
        QTest::mouseClick(button, Qt::LeftButton, modifiers);
    }
    bool waitForIdle()
    {
        return waitUntil([this] { return !controller->isAnimatingTransition(); }, 10s);
    }

    std::unique_ptr<ORVPreferencesWindowController> controller;
    std::vector<Pane *> panes;
    std::vector<ORVPreferencesViewController *> activations;
};

TEST_F(PreferencesTest, LoadingNumbersItemsFromZeroAndAddingLaterKeepsTheCountAsIdentifier)
{
    ORVPreferencesWindow *window = controller->window();
    EXPECT_EQ(window->objectName(), "preferences");
    EXPECT_EQ(controller->toolbar()->objectName(), "ORVPreferencesToolbar");
    EXPECT_EQ(controller->toolbarAllowedItemIdentifiers(), (QStringList{"0", "1", "2"}));
    EXPECT_TRUE(controller->toolbarDefaultItemIdentifiers().isEmpty());
    QStringList identifiers;
    for (QAction *item : controller->toolbar()->actions())
        identifiers << item->objectName();
    EXPECT_EQ(identifiers, (QStringList{"0", "1", "2"}));
    EXPECT_EQ(controller->toolbarItemWithIdentifier("1")->text(), "Accounts");

    // The first pane is selected without animation, and titles the window.
    EXPECT_EQ(controller->activeViewController(), panes[0]);
    EXPECT_EQ(controller->selectedItemIdentifier(), "0");
    EXPECT_EQ(window->windowTitle(), "General");
    EXPECT_FALSE(controller->isAnimatingTransition());

    // A pane added to a loaded window gets the identifier "4": the new count,
    // one more than its index. That item carries no pane.
    auto *late = new Pane("Late", 100);
    controller->addPreferencesViewController(late);
    QAction *added = controller->toolbar()->actions().last();
    EXPECT_EQ(added->objectName(), "4");
    EXPECT_FALSE(added->isEnabled());
    EXPECT_EQ(late->preferencesController(), controller.get());
    EXPECT_EQ(controller->viewControllerForClass<Pane>(), panes[0]);
    EXPECT_EQ(controller->viewControllerForClass<QObject>(), panes[0]);

    controller->registerDefaults();
    EXPECT_EQ(panes[1]->defaultsRegistered, 1);
    EXPECT_EQ(late->defaultsRegistered, 1);
}

TEST_F(PreferencesTest, SelectingTheActivePaneDoesNothing)
{
    showWindow();
    const QRect frame = controller->window()->geometry();
    controller->selectPreferencesViewController(panes[0], true);
    click(0);
    EXPECT_TRUE(activations.empty());
    // The selected item stays selected when clicked again.
    EXPECT_EQ(controller->selectedItemIdentifier(), "0");
    EXPECT_TRUE(controller->toolbarItemWithIdentifier("0")->isChecked());
    EXPECT_FALSE(controller->isAnimatingTransition());
    EXPECT_EQ(controller->animationView(), nullptr);
    EXPECT_EQ(controller->window()->geometry(), frame);

    // A pane that is not the window's is ignored as well.
    Pane stranger("Stranger", 100);
    controller->selectPreferencesViewController(&stranger, true);
    EXPECT_TRUE(activations.empty());
}

TEST_F(PreferencesTest, TwoClicksDuringOneCrossFadeShowOnlyTheLastAfterwards)
{
    showWindow();
    click(1);
    ASSERT_TRUE(controller->isAnimatingTransition());
    EXPECT_EQ(controller->transitionDuration(), 250);
    ASSERT_NE(controller->animationView(), nullptr);
    click(2);
    controller->selectPreferencesViewController(panes[2], true); // waits like a click
    click(0);
    EXPECT_EQ(controller->requestedViewController(), panes[0]);
    EXPECT_EQ(controller->activeViewController(), panes[1]);

    ASSERT_TRUE(waitUntil([this] { return activations.size() == 2 && !controller->isAnimatingTransition(); }, 10s));
    spinFor(100ms);
    EXPECT_EQ(activations, (std::vector<ORVPreferencesViewController *>{panes[1], panes[0]}));
    EXPECT_EQ(controller->activeViewController(), panes[0]);
    EXPECT_EQ(controller->requestedViewController(), nullptr);
    EXPECT_EQ(controller->selectedItemIdentifier(), "0");
    EXPECT_EQ(controller->animationView(), nullptr);
    EXPECT_TRUE(panes[0]->view()->isVisible());
    EXPECT_FALSE(panes[1]->view()->isVisible());
    EXPECT_EQ(panes[2]->appeared, 0);
    EXPECT_EQ(controller->window()->windowTitle(), "General");
}

TEST_F(PreferencesTest, ShiftMakesTheCrossFadeTwoSeconds)
{
    showWindow();
    QTest::keyPress(controller->window(), Qt::Key_Shift, Qt::ShiftModifier);
    click(1, Qt::ShiftModifier);
    ASSERT_TRUE(controller->isAnimatingTransition());
    EXPECT_EQ(controller->transitionDuration(), 2000);
    QTest::keyRelease(controller->window(), Qt::Key_Shift, Qt::NoModifier);
    // Tearing the controller down in the middle of it is safe.
    controller.reset();
    spinFor(50ms);
}

TEST_F(PreferencesTest, TheWindowKeepsItsTopEdgeAndGrowsByTheContentDifference)
{
    showWindow();
    ORVPreferencesWindow *window = controller->window();
    const QRect before = window->geometry();
    const int contentBefore = window->contentView()->height();

    controller->selectPreferencesViewController(panes[1], false);
    const QRect after = window->geometry();
    EXPECT_EQ(after.top(), before.top());
    EXPECT_EQ(after.width(), 475);
    EXPECT_EQ(after.height() - before.height(), 320 - contentBefore);

    // Animated, the frame ends at the same place.
    click(2);
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(window->geometry().top(), before.top());
    EXPECT_EQ(window->contentView()->height(), 200);
    EXPECT_EQ(window->windowTitle(), "Advanced");
}

TEST_F(PreferencesTest, PaneSizeLimitsFollowCanResize)
{
    controller = std::make_unique<ORVPreferencesWindowController>();
    auto *fixed = new Pane("Fixed", 150);
    auto *resizable = new Pane("Resizable", 200, true);
    controller->addPreferencesViewController(fixed);
    controller->addPreferencesViewController(resizable);
    controller->showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(controller->window()));
    ORVPreferencesWindow *window = controller->window();
    EXPECT_EQ(window->minimumSize(), window->maximumSize());
    EXPECT_EQ(window->minimumSize(), window->geometry().size());
    EXPECT_FALSE(window->windowFlags() & Qt::WindowMaximizeButtonHint);

    controller->selectPreferencesViewController(resizable, false);
    const int chrome = window->geometry().height() - window->contentView()->height();
    EXPECT_EQ(window->minimumSize(), QSize(475, 150 + chrome));
    EXPECT_EQ(window->maximumSize(), QSize(475, 500 + chrome));
    EXPECT_TRUE(resizable->isVisible());
    EXPECT_FALSE(fixed->isVisible());
    // A pane that can grow can be maximised; the window stays on screen
    // while its buttons change.
    EXPECT_TRUE(window->windowFlags() & Qt::WindowMaximizeButtonHint);
    ASSERT_TRUE(window->windowHandle());
    EXPECT_TRUE(window->windowHandle()->flags() & Qt::WindowMaximizeButtonHint);
    EXPECT_TRUE(window->isVisible());
    controller->selectPreferencesViewController(fixed, false);
    EXPECT_FALSE(window->windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_TRUE(window->isVisible());

    // Maximised, then a fixed pane: without a maximise button the window
    // could not leave that state, so it leaves it itself.
    controller->selectPreferencesViewController(resizable, false);
    window->showMaximized();
    ASSERT_TRUE(window->windowState() & Qt::WindowMaximized);
    controller->selectPreferencesViewController(fixed, false);
    EXPECT_FALSE(window->windowState() & Qt::WindowMaximized);
    EXPECT_EQ(window->minimumSize(), window->maximumSize());
}

TEST_F(PreferencesTest, EscapeOrdersTheWindowOutAndCommitsEditing)
{
    showWindow();
    Pane *pane = panes[0];
    ASSERT_TRUE(pane->isVisible());
    QLineEdit *edit = pane->edit();
    controller->window()->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(controller->window()));
    edit->setFocus();
    QSignalSpy finished(edit, &QLineEdit::editingFinished);
    QTest::keyClicks(edit, "changed"); // editingFinished needs a change
    QTest::keyClick(edit, Qt::Key_Escape);
    EXPECT_FALSE(controller->window()->isVisible());
    EXPECT_FALSE(pane->isVisible());
    EXPECT_GE(finished.count(), 1);

    // Shown again, the pane appears again.
    const int appeared = pane->appeared;
    showWindow();
    EXPECT_TRUE(pane->isVisible());
    EXPECT_GT(pane->appeared, appeared);
}

TEST_F(PreferencesTest, NoAnimationInsideAnAnimationFreeBlock)
{
    showWindow();
    orv_performWithoutAnimation([this] { click(1); });
    EXPECT_FALSE(controller->isAnimatingTransition());
    EXPECT_EQ(controller->activeViewController(), panes[1]);
    EXPECT_TRUE(panes[1]->view()->isVisible());
}

TEST(PreferencesViewController, HelpAnchorMustBeOverridden)
{
    ORVPreferencesViewController pane;
    try {
        (void)pane.helpAnchor();
        FAIL() << "helpAnchor() returned";
    } catch (const ORVException &exception) {
        EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(exception.reason(), "You must override helpAnchor in a subclass");
    }
    EXPECT_FALSE(pane.canResize());
    EXPECT_TRUE(pane.image().isNull());
    EXPECT_EQ(pane.minSize(), QSize(0, 0));
}

} // namespace
