#include <OrvellaKitWidgets/ORVPreferencesViewController.h>
#include <OrvellaKitWidgets/ORVPreferencesWindowController.h>

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVException.h>

#include <QApplication>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>
#include <QWidget>

ORVPreferencesViewController::ORVPreferencesViewController(QObject *parent) : QObject(parent) {}

ORVPreferencesViewController::~ORVPreferencesViewController()
{
    // A view that a window still holds goes with that window.
    if (_view && !_view->parentWidget())
        delete _view;
}

ORVPreferencesWindowController *ORVPreferencesViewController::preferencesController() const
{
    return _preferencesController;
}

void ORVPreferencesViewController::setPreferencesController(ORVPreferencesWindowController *controller)
{
    _preferencesController = controller;
}

QWidget *ORVPreferencesViewController::view()
{
    if (!_view) {
        _view = loadView();
        if (!_view)
            _view = new QWidget;
    }
    return _view;
}

QWidget *ORVPreferencesViewController::loadView()
{
    return new QWidget;
}

QString ORVPreferencesViewController::title() const
{
    return _title;
}

void ORVPreferencesViewController::setTitle(const QString &title)
{
    _title = title;
}

QImage ORVPreferencesViewController::image() const
{
    return {};
}

QString ORVPreferencesViewController::helpAnchor() const
{
    ORVException(ORVException::internalInconsistencyName,
                 QStringLiteral("You must override %1 in a subclass").arg(QStringLiteral("helpAnchor")))
        .raise();
}

bool ORVPreferencesViewController::canResize() const
{
    return false;
}

QSize ORVPreferencesViewController::minSize() const
{
    return QSize(0, 0);
}

QSize ORVPreferencesViewController::maxSize() const
{
    return QSize(0, 0);
}

void ORVPreferencesViewController::registerDefaults() {}

void ORVPreferencesViewController::viewDidAppear()
{
    _visible = true;
}

void ORVPreferencesViewController::viewWillDisappear()
{
    _visible = false;
    // Taking the focus away makes a line edit emit editingFinished, the
    // counterpart of ending editing in the window.
    if (_view) {
        QWidget *focus = QApplication::focusWidget();
        if (focus && _view->isAncestorOf(focus))
            focus->clearFocus();
    }
}

bool ORVPreferencesViewController::openHelpAnchor()
{
    const QString book = ORVBundle::mainBundle().objectForInfoDictionaryKey(QStringLiteral("CFBundleHelpBookName")).toString();
    if (book.isEmpty())
        return false;
    QUrl url = QFileInfo::exists(book) ? QUrl::fromLocalFile(QFileInfo(book).absoluteFilePath()) : QUrl(book);
    if (!url.isValid() || url.scheme().isEmpty())
        return false;
    url.setFragment(helpAnchor());
    return QDesktopServices::openUrl(url);
}
