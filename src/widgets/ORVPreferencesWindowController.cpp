#include <OrvellaKitWidgets/ORVPreferencesViewController.h>
#include <OrvellaKitWidgets/ORVPreferencesWindowController.h>

#include <OrvellaKit/ORVImage.h>

#include <QActionGroup>
#include <QWindow>
#include <QApplication>
#include <QCloseEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QParallelAnimationGroup>
#include <QPropertyAnimation>
#include <QScreen>
#include <QToolBar>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include <algorithm>

namespace {

constexpr int kTransitionMilliseconds = 250;
constexpr int kSlowTransitionMilliseconds = 2000;

// Shows the old and the new pane's snapshots during a cross-fade, both
// anchored at the top left: the old one fading out, the new one in.
class CrossFadeView : public QWidget {
public:
    CrossFadeView(QPixmap from, QPixmap to, QWidget *parent)
        : QWidget(parent), _from(std::move(from)), _to(std::move(to))
    {
        setAttribute(Qt::WA_OpaquePaintEvent, false);
    }
    void setProgress(double progress)
    {
        _progress = progress;
        update();
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setOpacity(1.0 - _progress);
        painter.drawPixmap(0, 0, _from);
        painter.setOpacity(_progress);
        painter.drawPixmap(0, 0, _to);
    }

private:
    QPixmap _from;
    QPixmap _to;
    double _progress = 0.0;
};

// The first widget of the view that takes focus by tab, in focus order.
QWidget *firstKeyView(QWidget *view)
{
    for (QWidget *w = view->nextInFocusChain(); w && w != view; w = w->nextInFocusChain())
        if (view->isAncestorOf(w) && (w->focusPolicy() & Qt::TabFocus) && w->isEnabled())
            return w;
    return nullptr;
}

QPixmap snapshot(QWidget *view, const QSize &size)
{
    if (!view)
        return {};
    view->resize(size);
    if (view->layout())
        view->layout()->activate();
    return view->grab();
}

} // namespace

// ---------------------------------------------------------------------------

ORVPreferencesWindow::ORVPreferencesWindow(QWidget *parent)
    : QMainWindow(parent, Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint |
                              Qt::WindowMinimizeButtonHint)
{
    auto *content = new QWidget(this);
    auto *layout = new QVBoxLayout(content);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    setCentralWidget(content);
}

void ORVPreferencesWindow::cancelOperation()
{
    hide();
}

void ORVPreferencesWindow::setVisible(bool visible)
{
    if (!visible && isVisible())
        Q_EMIT willHide();
    QMainWindow::setVisible(visible);
}

void ORVPreferencesWindow::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape && event->modifiers() == Qt::NoModifier) {
        cancelOperation();
        return;
    }
    QMainWindow::keyPressEvent(event);
}

void ORVPreferencesWindow::closeEvent(QCloseEvent *event)
{
    Q_EMIT willClose();
    QMainWindow::closeEvent(event);
}

void ORVPreferencesWindow::showEvent(QShowEvent *event)
{
    QMainWindow::showEvent(event);
    if (!event->spontaneous())
        Q_EMIT didShow();
}

// ---------------------------------------------------------------------------

ORVPreferencesWindowController::ORVPreferencesWindowController(QObject *parent)
    : ORVPreferencesWindowController(nullptr, parent)
{
}

ORVPreferencesWindowController::ORVPreferencesWindowController(ORVPreferencesWindow *window, QObject *parent)
    : QObject(parent), _window(window)
{
}

ORVPreferencesWindowController::~ORVPreferencesWindowController()
{
    if (_transition)
        _transition->stop();
    // Panes outlive the window only as objects: their views go with it.
    for (const auto &pane : _viewControllers)
        if (pane && pane->isViewLoaded() && pane->view()->parentWidget())
            unpinView(pane->view());
    delete _window;
}

ORVPreferencesWindow *ORVPreferencesWindowController::window()
{
    if (!_windowLoaded) {
        loadWindow();
        windowDidLoad();
    }
    return _window;
}

void ORVPreferencesWindowController::loadWindow()
{
    if (!_window)
        _window = new ORVPreferencesWindow;
    _window->setObjectName(QStringLiteral("preferences"));
    _window->setGeometry(QRect(QPoint(0, 0), _defaultWindowSize.toSize()));

    _toolbar = new QToolBar(_window);
    _toolbar->setObjectName(QStringLiteral("ORVPreferencesToolbar"));
    _toolbar->setMovable(false);
    _toolbar->setFloatable(false);
    _toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    _toolbar->setContextMenuPolicy(Qt::PreventContextMenu);
    _toolbar->toggleViewAction()->setEnabled(false);
    _window->setContextMenuPolicy(Qt::NoContextMenu);
    _window->addToolBar(Qt::TopToolBarArea, _toolbar);
    _toolbarGroup = new QActionGroup(_toolbar);
    _toolbarGroup->setExclusionPolicy(QActionGroup::ExclusionPolicy::ExclusiveOptional);

    connect(_window, &ORVPreferencesWindow::willClose, this, &ORVPreferencesWindowController::windowWillClose);
    connect(_window, &ORVPreferencesWindow::willHide, this, [this] {
        if (_activeViewController && _activeViewController->isVisible())
            _activeViewController->viewWillDisappear();
    });
    connect(_window, &ORVPreferencesWindow::didShow, this, [this] {
        if (_activeViewController && !_activeViewController->isVisible() && !_animatingTransition)
            _activeViewController->viewDidAppear();
    });
    _windowLoaded = true;
}

void ORVPreferencesWindowController::windowDidLoad()
{
    for (qsizetype index = 0; index < _viewControllers.size(); ++index)
        insertToolbarItem(QString::number(index));
    if (!_viewControllers.isEmpty())
        selectPreferencesViewController(_viewControllers.first(), false);
}

void ORVPreferencesWindowController::showWindow()
{
    ORVPreferencesWindow *w = window();
    if (!w->isVisible()) {
        QRect frame = w->frameGeometry();
        frame.moveCenter(availableScreenGeometry().center());
        w->move(frame.topLeft());
    }
    w->show();
    w->raise();
    w->activateWindow();
    activeViewDidAppear();
}

QList<ORVPreferencesViewController *> ORVPreferencesWindowController::viewControllers() const
{
    QList<ORVPreferencesViewController *> panes;
    panes.reserve(_viewControllers.size());
    for (const auto &pane : _viewControllers)
        if (pane)
            panes.append(pane);
    return panes;
}

int ORVPreferencesWindowController::transitionDuration() const
{
    return _transition && _animatingTransition ? _transition->totalDuration() : 0;
}

void ORVPreferencesWindowController::addPreferencesViewController(ORVPreferencesViewController *viewController)
{
    if (!viewController)
        return;
    viewController->setPreferencesController(this);
    if (!viewController->parent())
        viewController->setParent(this);
    _viewControllers.append(viewController);
    if (_windowLoaded)
        insertToolbarItem(QString::number(_viewControllers.size()));
}

void ORVPreferencesWindowController::toolbarItemClicked(QAction *item)
{
    if (!item)
        return;
    // The group lets the code clear the selection, so a click on the
    // selected item unchecks it: the pane is still the one shown.
    if (!item->isChecked())
        item->setChecked(true);
    bool ok = false;
    const int tag = item->data().toInt(&ok);
    if (!ok || tag < 0 || tag >= _viewControllers.size())
        return;
    ORVPreferencesViewController *pane = _viewControllers.at(tag);
    if (_animatingTransition)
        _requestedViewController = pane;
    else
        selectPreferencesViewController(pane, true);
}

QRect ORVPreferencesWindowController::availableScreenGeometry() const
{
    QScreen *screen = _window ? _window->screen() : nullptr;
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    return screen ? screen->availableGeometry() : QRect(0, 0, 4096, 4096);
}

QRect ORVPreferencesWindowController::windowFrameForNewSize(const QSize &contentSize) const
{
    QRect frame = _window->geometry();
    const int difference = contentSize.height() - _window->contentView()->height();
    frame.setWidth(qRound(_defaultWindowSize.width()));
    // Qt's y axis points down: growing the height keeps the top edge.
    frame.setHeight(std::max(0, frame.height() + difference));

    // Keep the frame on screen: first the top, then the bottom, then the
    // height when it is taller than the screen.
    const QRect screen = availableScreenGeometry();
    if (frame.height() > screen.height())
        frame.setHeight(screen.height());
    if (frame.bottom() > screen.bottom())
        frame.moveBottom(screen.bottom());
    if (frame.top() < screen.top())
        frame.moveTop(screen.top());
    if (frame.right() > screen.right())
        frame.moveRight(screen.right());
    if (frame.left() < screen.left())
        frame.moveLeft(screen.left());
    return frame;
}

void ORVPreferencesWindowController::pinView(QWidget *view)
{
    auto *layout = static_cast<QVBoxLayout *>(_window->contentView()->layout());
    layout->addWidget(view);
    view->show();
}

void ORVPreferencesWindowController::unpinView(QWidget *view)
{
    if (!view)
        return;
    view->hide();
    if (_window && _window->contentView()->layout())
        _window->contentView()->layout()->removeWidget(view);
    view->setParent(nullptr);
}

void ORVPreferencesWindowController::selectPreferencesViewController(ORVPreferencesViewController *viewController,
                                                                      bool animate)
{
    const qsizetype index = _viewControllers.indexOf(viewController);
    if (!viewController || index < 0 || viewController == _activeViewController)
        return;
    // One cross-fade at a time: a selection made meanwhile waits for its end,
    // as a toolbar click does.
    if (_animatingTransition) {
        _requestedViewController = viewController;
        return;
    }
    ORVPreferencesWindow *w = window();
    // A fixed pane takes its own frame, and its window has no maximise
    // button to leave a maximised state with: the window leaves it first.
    const Qt::WindowStates filling = Qt::WindowMaximized | Qt::WindowFullScreen;
    if (!viewController->canResize() && (w->windowState() & filling))
        w->setWindowState(w->windowState() & ~filling);

    setSelectedItemIdentifier(QString::number(index));
    QPointer<ORVPreferencesViewController> previous = _activeViewController;
    _activeViewController = viewController;
    Q_EMIT activeViewControllerChanged(viewController);

    // Lift the previous pane's size limits, or the new frame would be held
    // to them, and lay the window out so the content height is current.
    liftSizeLimits();

    // The size the pane is laid out at: on first use its own size hint; the
    // stored one afterwards, clamped to what the screen can show.
    QWidget *view = viewController->view();
    const QRect screen = availableScreenGeometry();
    const int chrome = w->geometry().height() - w->contentView()->height();
    const int width = qRound(_defaultWindowSize.width());
    if (!viewController->heightConstraint()) {
        const QSize fitting = view->sizeHint().expandedTo(view->minimumSizeHint()).expandedTo(QSize(0, 0));
        viewController->setHeightConstraint(fitting.height());
        viewController->setWidthConstraint(width);
    } else {
        viewController->setHeightConstraint(
            std::clamp(*viewController->heightConstraint(), 0, std::max(0, screen.height() - chrome)));
        viewController->setWidthConstraint(std::clamp(*viewController->widthConstraint(), 0, screen.width()));
    }
    const QSize contentSize(*viewController->widthConstraint(), *viewController->heightConstraint());
    view->setMinimumHeight(contentSize.height());
    const QRect target = windowFrameForNewSize(contentSize);

    QWidget *oldView = previous && previous->isViewLoaded() ? previous->view() : nullptr;
    if (previous && previous->isVisible())
        previous->viewWillDisappear();
    if (previous && oldView && previous->canResize()) {
        previous->setHeightConstraint(oldView->height());
        previous->setWidthConstraint(oldView->width());
    }

    const bool animated = animate && w->isVisible() && ORVAnimationsEnabled();
    if (!animated) {
        unpinView(oldView);
        pinView(view);
        w->setGeometry(target);
        if (QWidget *first = firstKeyView(view))
            first->setFocus();
        w->setWindowTitle(viewController->title());
        activeViewDidAppear();
        return;
    }

    // Snapshots of both panes at the window's device pixel ratio (grab()
    // renders at the widget's own ratio), then the old view leaves.
    const QPixmap from = oldView ? oldView->grab() : QPixmap();
    unpinView(oldView);
    view->setParent(w->contentView());
    const QPixmap to = snapshot(view, QSize(contentSize.width(), contentSize.height()));
    view->hide();

    auto *fade = new CrossFadeView(from, to, w->contentView());
    fade->setObjectName(QStringLiteral("ORVPreferencesAnimationView"));
    _animationView = fade;
    pinView(fade);

    const int duration = (QGuiApplication::queryKeyboardModifiers() & Qt::ShiftModifier) ? kSlowTransitionMilliseconds
                                                                                          : kTransitionMilliseconds;
    auto *group = new QParallelAnimationGroup(this);
    auto *frame = new QPropertyAnimation(w, "geometry", group);
    frame->setStartValue(w->geometry());
    frame->setEndValue(target);
    frame->setDuration(duration);
    auto *crossFade = new QVariantAnimation(group);
    crossFade->setStartValue(0.0);
    crossFade->setEndValue(1.0);
    crossFade->setDuration(duration);
    QPointer<CrossFadeView> guardedFade = fade;
    connect(crossFade, &QVariantAnimation::valueChanged, fade, [guardedFade](const QVariant &value) {
        if (guardedFade)
            guardedFade->setProgress(value.toDouble());
    });
    group->addAnimation(frame);
    group->addAnimation(crossFade);
    QPointer<ORVPreferencesViewController> shown = viewController;
    connect(group, &QAbstractAnimation::finished, this, [this, shown] { finishTransition(shown); });

    _animatingTransition = true;
    _transition = group;
    w->setWindowTitle(viewController->title());
    group->start(QAbstractAnimation::DeleteWhenStopped);
}

void ORVPreferencesWindowController::finishTransition(ORVPreferencesViewController *viewController)
{
    _animatingTransition = false;
    if (_animationView) {
        unpinView(_animationView);
        _animationView->deleteLater();
        _animationView = nullptr;
    }
    if (viewController && viewController == _activeViewController && _window) {
        QWidget *view = viewController->view();
        pinView(view);
        if (QWidget *first = firstKeyView(view))
            first->setFocus();
        activeViewDidAppear();
    }
    Q_EMIT transitionFinished();
    if (ORVPreferencesViewController *requested = std::exchange(_requestedViewController, nullptr))
        selectPreferencesViewController(requested, true);
}

void ORVPreferencesWindowController::liftSizeLimits()
{
    _window->setMinimumSize(0, 0);
    _window->setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
    if (_window->layout())
        _window->layout()->activate();
}

void ORVPreferencesWindowController::activeViewDidAppear()
{
    if (!_activeViewController || !_window)
        return;
    ORVPreferencesViewController *pane = _activeViewController;
    QWidget *view = pane->view();
    view->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    // Measure the window as it is now laid out (a menu bar may have come
    // since the pane was selected).
    liftSizeLimits();
    // A pane that can grow gets the maximise button. The flag goes to the
    // platform window directly: QWidget::setWindowFlags() would hide the
    // window while it changes.
    const Qt::WindowFlags flags = _window->windowFlags().setFlag(Qt::WindowMaximizeButtonHint, pane->canResize());
    if (flags != _window->windowFlags()) {
        _window->overrideWindowFlags(flags);
        if (QWindow *handle = _window->windowHandle())
            handle->setFlags(flags);
    }
    if (pane->canResize()) {
        _window->setMinimumSize(windowFrameForNewSize(pane->minSize()).size());
        const QSize maxContent = pane->maxSize();
        _window->setMaximumSize(maxContent.isEmpty() ? QSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX)
                                                     : windowFrameForNewSize(maxContent).size());
    } else {
        // A fixed pane: minimum and maximum are the frame for the view's
        // size, so neither the user nor the window manager can resize it
        // (window managers drop the maximise button and the resize handles
        // of such a window).
        // The view's height is the one it was laid out at; its geometry
        // may not be settled yet while the window is hidden.
        const int height = pane->heightConstraint().value_or(view->height());
        const QSize fixed = windowFrameForNewSize(QSize(view->width(), height)).size();
        _window->setMinimumSize(fixed);
        _window->setMaximumSize(fixed);
    }
    if (_window->isVisible() && !pane->isVisible())
        pane->viewDidAppear();
}

void ORVPreferencesWindowController::setSize(const QSizeF &size, bool animate)
{
    ORVPreferencesWindow *w = window();
    const QRect target = windowFrameForNewSize(size.toSize());
    if (!animate || !w->isVisible() || !ORVAnimationsEnabled()) {
        w->setGeometry(target);
        return;
    }
    auto *frame = new QPropertyAnimation(w, "geometry", this);
    frame->setEndValue(target);
    frame->setDuration(kTransitionMilliseconds);
    frame->start(QAbstractAnimation::DeleteWhenStopped);
}

void ORVPreferencesWindowController::registerDefaults()
{
    for (ORVPreferencesViewController *pane : viewControllers())
        pane->registerDefaults();
}

void ORVPreferencesWindowController::windowWillClose()
{
    // Width follows the window, the height stays: the view keeps its place
    // at the top while the window goes.
    if (_activeViewController && _activeViewController->isViewLoaded())
        _activeViewController->view()->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QStringList ORVPreferencesWindowController::toolbarAllowedItemIdentifiers() const
{
    QStringList identifiers;
    for (qsizetype index = 0; index < _viewControllers.size(); ++index)
        identifiers << QString::number(index);
    return identifiers;
}

QStringList ORVPreferencesWindowController::toolbarSelectableItemIdentifiers() const
{
    return toolbarAllowedItemIdentifiers();
}

QStringList ORVPreferencesWindowController::toolbarDefaultItemIdentifiers() const
{
    return {};
}

QAction *ORVPreferencesWindowController::toolbarItemForItemIdentifier(const QString &identifier)
{
    auto *item = new QAction(_toolbar ? static_cast<QObject *>(_toolbar) : this);
    item->setObjectName(identifier);
    item->setCheckable(true);
    bool ok = false;
    const int index = identifier.toInt(&ok);
    item->setData(index);
    if (ok && index >= 0 && index < _viewControllers.size() && _viewControllers.at(index)) {
        ORVPreferencesViewController *pane = _viewControllers.at(index);
        const QImage image = pane->image();
        if (!image.isNull())
            item->setIcon(QIcon(QPixmap::fromImage(image)));
        item->setText(pane->title());
    } else {
        item->setEnabled(false);
    }
    connect(item, &QAction::triggered, this, [this, item] { toolbarItemClicked(item); });
    return item;
}

void ORVPreferencesWindowController::insertToolbarItem(const QString &identifier)
{
    if (!_toolbar)
        return;
    QAction *item = toolbarItemForItemIdentifier(identifier);
    _toolbarGroup->addAction(item);
    _toolbar->addAction(item);
}

QAction *ORVPreferencesWindowController::toolbarItemWithIdentifier(const QString &identifier) const
{
    if (!_toolbar)
        return nullptr;
    for (QAction *item : _toolbar->actions())
        if (item->objectName() == identifier)
            return item;
    return nullptr;
}

QString ORVPreferencesWindowController::selectedItemIdentifier() const
{
    QAction *checked = _toolbarGroup ? _toolbarGroup->checkedAction() : nullptr;
    return checked ? checked->objectName() : QString();
}

void ORVPreferencesWindowController::setSelectedItemIdentifier(const QString &identifier)
{
    if (QAction *item = toolbarItemWithIdentifier(identifier))
        item->setChecked(true);
    else if (QAction *checked = _toolbarGroup ? _toolbarGroup->checkedAction() : nullptr)
        checked->setChecked(false);
}
