#pragma once

/// \file
/// A toolbar-driven preferences window. Each pane is an
/// ORVPreferencesViewController; the toolbar has one exclusive, checkable item
/// per pane. Choosing an item swaps the pane in: the window is resized around
/// the pane's height with its top edge kept in place, and the old and new
/// pane cross-fade while the frame moves (0.25 s, or 2.0 s while Shift is
/// held). A pane chosen during a cross-fade is shown once it ends (only the
/// last one chosen).
///
/// \code
///   auto *preferences = new ORVPreferencesWindowController(app);
///   preferences->addPreferencesViewController(new GeneralPane);
///   preferences->addPreferencesViewController(new AccountPane);
///   preferences->showWindow();
/// \endcode
///
/// Everything runs on the main thread.

#include <OrvellaKitWidgets/ORVPreferencesViewController.h>
#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QAction>
#include <QList>
#include <QMainWindow>
#include <QObject>
#include <QPointer>
#include <QRect>
#include <QSizeF>
#include <QString>
#include <QStringList>
#include <QToolBar>

class QAbstractAnimation;
class QActionGroup;

/// The preferences window: a QMainWindow whose toolbar shows text under icons
/// and cannot be moved or customised. Escape orders it out (hides it).
///
/// Threads: main thread only.
/// Ownership: a QMainWindow; its parent, if any, owns it, and so does the
/// ORVPreferencesWindowController that made it or was given it.
class ORVELLAKIT_WIDGETS_EXPORT ORVPreferencesWindow : public QMainWindow {
    Q_OBJECT
public:
    /// A window with title, close and minimise buttons and an empty content
    /// view.
    explicit ORVPreferencesWindow(QWidget *parent = nullptr);

    /// The widget the panes are shown in (the central widget).
    QWidget *contentView() const { return centralWidget(); }
    /// Hides the window (the Escape key).
    void cancelOperation();

    /// Emits willHide() before a shown window is hidden.
    void setVisible(bool visible) override;

Q_SIGNALS:
    /// Before the window leaves the screen (hidden or closed).
    void willHide();
    /// After it is on screen.
    void didShow();
    /// When it is about to close (the close button, close()).
    void willClose();

protected:
    /// Escape without modifiers calls cancelOperation().
    void keyPressEvent(QKeyEvent *event) override;
    /// Emits willClose().
    void closeEvent(QCloseEvent *event) override;
    /// Emits didShow() (not for a show from the window system, such as
    /// leaving the minimised state).
    void showEvent(QShowEvent *event) override;
};

/// The controller of a preferences window (see the file overview): its
/// toolbar, its panes and the transitions between them.
///
/// Threads: main thread only.
/// Ownership: a QObject; its parent, if any, owns it. It owns the window
/// (deleted with the controller) and the panes added without a parent. The
/// toolbar, its items and the animation view belong to the window.
class ORVELLAKIT_WIDGETS_EXPORT ORVPreferencesWindowController : public QObject {
    Q_OBJECT
public:
    /// A controller whose window is made on first use (loadWindow()).
    explicit ORVPreferencesWindowController(QObject *parent = nullptr);
    /// A controller of an existing window; null: made on first use.
    explicit ORVPreferencesWindowController(ORVPreferencesWindow *window, QObject *parent = nullptr);
    /// Deletes the window. The panes' views are taken out of it first, so
    /// they stay with their panes.
    ~ORVPreferencesWindowController() override;

    /// The window, loaded (loadWindow(), then windowDidLoad()) on first use.
    ORVPreferencesWindow *window();
    /// Whether loadWindow() has run.
    bool isWindowLoaded() const { return _windowLoaded; }

    /// Makes the window: the default size at the origin, a title, close and
    /// minimise buttons (no maximise), and the toolbar "ORVPreferencesToolbar"
    /// (object name) whose items this controller provides.
    virtual void loadWindow();
    /// Puts one toolbar item per pane, with the identifiers "0", "1", ..., and
    /// selects the first pane without animation.
    virtual void windowDidLoad();
    /// Centres the window when it is not on screen, shows, raises and
    /// activates it, then applies the active pane's size limits.
    void showWindow();

    /// The toolbar; null before the window is loaded.
    QToolBar *toolbar() const { return _toolbar; }
    /// The panes in the order added (those deleted meanwhile left out).
    QList<ORVPreferencesViewController *> viewControllers() const;
    /// The pane shown (or being shown); null before the first selection.
    ORVPreferencesViewController *activeViewController() const { return _activeViewController; }
    /// A pane chosen during a cross-fade, shown when it ends.
    ORVPreferencesViewController *requestedViewController() const { return _requestedViewController; }
    /// The widget that shows the cross-fade while one runs; null otherwise.
    QWidget *animationView() const { return _animationView; }
    /// The window's width, and its first height; 475 x 338.
    QSizeF defaultWindowSize() const { return _defaultWindowSize; }
    /// Sets defaultWindowSize(); set it before the window is loaded.
    void setDefaultWindowSize(const QSizeF &size) { _defaultWindowSize = size; }
    /// Whether a cross-fade is running.
    bool isAnimatingTransition() const { return _animatingTransition; }
    /// The length of the running cross-fade in milliseconds; 0 when none runs.
    int transitionDuration() const;

    /// Appends the pane (taking ownership when it has no parent). When the
    /// window is loaded already, a toolbar item is put at the end whose
    /// identifier is the new number of panes, one more than the pane's index:
    /// that item carries no pane. This numbering is deliberate; add panes
    /// before the window is loaded.
    void addPreferencesViewController(ORVPreferencesViewController *viewController);
    /// The pane at the item's tag; during a cross-fade it is only remembered.
    void toolbarItemClicked(QAction *item);
    /// The first pane that is a T (or derived from T); null when none.
    template<class T>
    T *viewControllerForClass() const
    {
        for (ORVPreferencesViewController *pane : viewControllers())
            if (auto *match = dynamic_cast<T *>(pane))
                return match;
        return nullptr;
    }
    /// Shows the pane (nothing when it is not one of this window's, or is
    /// active already). Animation is skipped while the window is hidden or
    /// inside orv_performWithoutAnimation(). During a cross-fade the pane is
    /// remembered and shown when it ends, as a toolbar click is.
    void selectPreferencesViewController(ORVPreferencesViewController *viewController, bool animate);
    /// Sets the window frame for a content size (width: the default width).
    void setSize(const QSizeF &size, bool animate);
    /// registerDefaults() of every pane.
    void registerDefaults();
    /// Called when the window closes: the active pane's view keeps its width
    /// following the window and its height.
    virtual void windowWillClose();

    /// Toolbar items: the identifiers "0" ... pane count - 1 are allowed and
    /// selectable; no item is there by default.
    QStringList toolbarAllowedItemIdentifiers() const;
    /// The same identifiers as toolbarAllowedItemIdentifiers().
    QStringList toolbarSelectableItemIdentifiers() const;
    /// Empty.
    QStringList toolbarDefaultItemIdentifiers() const;
    /// A new item for the identifier: the pane at the identifier's value
    /// (its image, its title as text, the index as tag), checkable, calling
    /// toolbarItemClicked(). No pane there: an item without text or icon.
    /// The item is disabled then. It is a child of the toolbar (of the
    /// controller before the window is loaded).
    QAction *toolbarItemForItemIdentifier(const QString &identifier);
    /// The toolbar's item with that identifier (the action's object name).
    QAction *toolbarItemWithIdentifier(const QString &identifier) const;
    /// The identifier of the checked item; empty when none is.
    QString selectedItemIdentifier() const;

Q_SIGNALS:
    /// A pane became the active one.
    void activeViewControllerChanged(ORVPreferencesViewController *viewController);
    /// A cross-fade ended (before a pane requested meanwhile is selected).
    void transitionFinished();

private:
    QRect windowFrameForNewSize(const QSize &contentSize) const; ///< _windowFrameForNewSize:
    void activeViewDidAppear();                                   ///< _activeViewDidAppear
    QRect availableScreenGeometry() const;
    void liftSizeLimits();
    void insertToolbarItem(const QString &identifier);
    void setSelectedItemIdentifier(const QString &identifier);
    void pinView(QWidget *view);
    void unpinView(QWidget *view);
    void finishTransition(ORVPreferencesViewController *viewController);

    bool _animatingTransition = false;
    bool _windowLoaded = false;
    QPointer<QToolBar> _toolbar;
    QList<QPointer<ORVPreferencesViewController>> _viewControllers;
    QPointer<ORVPreferencesViewController> _activeViewController;
    QPointer<ORVPreferencesViewController> _requestedViewController;
    QPointer<QWidget> _animationView;
    QSizeF _defaultWindowSize{475.0, 338.0};

    QPointer<ORVPreferencesWindow> _window;
    QPointer<QActionGroup> _toolbarGroup;
    QPointer<QAbstractAnimation> _transition;
};
