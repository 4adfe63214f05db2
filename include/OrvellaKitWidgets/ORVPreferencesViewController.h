#pragma once

/// \file
/// ORVPreferencesViewController: the base class of every pane of an
/// ORVPreferencesWindowController. A pane owns one view (made by loadView() on
/// first use); its title is the toolbar label and the window title while it is
/// shown, its image the toolbar icon.
///
/// Subclasses override what describes them:
///
/// \code
///   class GeneralPane : public ORVPreferencesViewController {
///   public:
///       QString title() const override { return tr("General"); }
///       QImage image() const override { return QImage(":/general.png"); }
///       QString helpAnchor() const override { return "general"; }
///   protected:
///       QWidget *loadView() override;   // builds the pane's widgets
///   };
/// \endcode

#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QImage>
#include <QObject>
#include <QPointer>
#include <QSize>
#include <QString>

#include <optional>

class QWidget;
class ORVPreferencesWindowController;

/// The base class of a preferences pane (see the file overview).
///
/// Threads: main thread only.
/// Ownership: a QObject; its parent owns it (ORVPreferencesWindowController
/// becomes the parent of a pane added without one). The pane owns its view
/// until a window shows it; from then on the view belongs to the window's
/// widgets while it is there. The window controller is referenced weakly.
class ORVELLAKIT_WIDGETS_EXPORT ORVPreferencesViewController : public QObject {
    Q_OBJECT
public:
    /// A pane without a view yet.
    explicit ORVPreferencesViewController(QObject *parent = nullptr);
    /// Deletes the view unless a window still shows it.
    ~ORVPreferencesViewController() override;

    /// The pane's view, made by loadView() on first use.
    QWidget *view();
    /// Whether the view has been made (and not deleted since).
    bool isViewLoaded() const { return !_view.isNull(); }

    /// The toolbar label and window title; setTitle() for panes that do not
    /// override title().
    virtual QString title() const;
    /// Sets the title the base title() returns.
    void setTitle(const QString &title);
    /// The toolbar icon; null by default.
    virtual QImage image() const;
    /// The pane's anchor in the application's help. Must be overridden: the
    /// base raises the ORVException "NSInternalInconsistencyException" with
    /// the reason "You must override helpAnchor in a subclass".
    virtual QString helpAnchor() const;
    /// Whether the user may resize the window while this pane is shown (then
    /// between the window sizes for minSize() and maxSize()); false by default.
    virtual bool canResize() const;
    /// Content sizes of a resizable pane; empty by default (an empty maxSize()
    /// means no maximum).
    virtual QSize minSize() const;
    /// See minSize().
    virtual QSize maxSize() const;
    /// Registers the pane's settings defaults; nothing by default.
    virtual void registerDefaults();

    /// True while the pane's view is on screen.
    bool isVisible() const { return _visible; }
    /// Sets isVisible(); the window controller keeps it current.
    void setVisible(bool visible) { _visible = visible; }

    /// The window controller the pane was added to; null before, or once it
    /// is gone.
    ORVPreferencesWindowController *preferencesController() const;
    /// Sets preferencesController() (done by addPreferencesViewController()).
    void setPreferencesController(ORVPreferencesWindowController *controller);

    /// The size the window controller lays the view out at: its height is a
    /// minimum, its width the width the pane was last shown with. Made when the
    /// pane is first selected and reused (clamped to the screen) afterwards.
    std::optional<int> heightConstraint() const { return _heightConstraint; }
    /// See heightConstraint().
    std::optional<int> widthConstraint() const { return _widthConstraint; }
    /// Sets heightConstraint().
    void setHeightConstraint(std::optional<int> height) { _heightConstraint = height; }
    /// Sets widthConstraint().
    void setWidthConstraint(std::optional<int> width) { _widthConstraint = width; }

    /// Sets visible. Called by the window controller once the view is shown.
    virtual void viewDidAppear();
    /// Clears visible and ends editing in the window, so that a line edit
    /// with focus commits its text (editingFinished). Called before the view
    /// leaves the screen.
    virtual void viewWillDisappear();

    /// Opens helpAnchor() in the application's help: the main bundle's
    /// "CFBundleHelpBookName" (a URL, or a path of a local file) with the
    /// anchor as its fragment, through QDesktopServices. False when there is
    /// no help book or nothing could open it.
    bool openHelpAnchor();

protected:
    /// Makes the pane's view; an empty QWidget by default. The pane takes the
    /// widget returned; null gives an empty QWidget.
    virtual QWidget *loadView();

private:
    bool _visible = false;
    QPointer<ORVPreferencesWindowController> _preferencesController;
    std::optional<int> _heightConstraint;
    std::optional<int> _widthConstraint;
    QPointer<QWidget> _view;
    QString _title;
};
