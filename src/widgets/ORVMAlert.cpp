#include <OrvellaKitWidgets/ORVMAlert.h>

#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVNotificationCenter.h>

#include <QGuiApplication>
#include <QLibrary>
#include <QFontMetrics>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QShowEvent>

#include <algorithm>
#include <QtGui/qguiapplication_platform.h>

#include <cstdint>
#include <cstdlib>

const QString ORVMAlertWillShowNotification = QStringLiteral("ORVMAlertWillShowNotification");
const QString ORVMAlertDidHideNotification = QStringLiteral("ORVMAlertDidHideNotification");

namespace {

// The few libxcb calls that set a window property. libxcb is loaded at run
// time: it is there whenever Qt runs on X11, and the library does not need
// its headers to build.
struct Xcb {
    struct AtomCookie {
        unsigned int sequence;
    };
    struct AtomReply {
        std::uint8_t responseType;
        std::uint8_t pad0;
        std::uint16_t sequence;
        std::uint32_t length;
        std::uint32_t atom;
    };
    struct VoidCookie {
        unsigned int sequence;
    };
    using InternAtom = AtomCookie (*)(xcb_connection_t *, std::uint8_t, std::uint16_t, const char *);
    using InternAtomReply = AtomReply *(*)(xcb_connection_t *, AtomCookie, void **);
    using ChangeProperty = VoidCookie (*)(xcb_connection_t *, std::uint8_t, std::uint32_t, std::uint32_t,
                                          std::uint32_t, std::uint8_t, std::uint32_t, const void *);
    using Flush = int (*)(xcb_connection_t *);

    InternAtom internAtom = nullptr;
    InternAtomReply internAtomReply = nullptr;
    ChangeProperty changeProperty = nullptr;
    Flush flush = nullptr;

    static const Xcb *instance()
    {
        static const Xcb xcb = [] {
            Xcb loaded;
            QLibrary library(QStringLiteral("xcb"), 1);
            if (library.load()) {
                loaded.internAtom = reinterpret_cast<InternAtom>(library.resolve("xcb_intern_atom"));
                loaded.internAtomReply = reinterpret_cast<InternAtomReply>(library.resolve("xcb_intern_atom_reply"));
                loaded.changeProperty = reinterpret_cast<ChangeProperty>(library.resolve("xcb_change_property"));
                loaded.flush = reinterpret_cast<Flush>(library.resolve("xcb_flush"));
            }
            return loaded;
        }();
        return xcb.internAtom && xcb.internAtomReply && xcb.changeProperty && xcb.flush ? &xcb : nullptr;
    }
};

constexpr std::uint8_t kPropModeReplace = 0;
constexpr std::uint32_t kAtomCardinal = 6;
constexpr std::uint32_t kAllDesktops = 0xFFFFFFFF;

} // namespace

bool ORVWindowJoinAllWorkspaces(QWidget *window)
{
    if (!window || QGuiApplication::platformName() != QLatin1String("xcb"))
        return false;
    auto *x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    const Xcb *xcb = Xcb::instance();
    if (!x11 || !x11->connection() || !xcb)
        return false;
    xcb_connection_t *connection = x11->connection();
    const auto windowId = static_cast<std::uint32_t>(window->winId());
    static const char name[] = "_NET_WM_DESKTOP";
    Xcb::AtomReply *reply =
        xcb->internAtomReply(connection, xcb->internAtom(connection, 0, sizeof(name) - 1, name), nullptr);
    if (!reply)
        return false;
    const std::uint32_t atom = reply->atom;
    std::free(reply);
    xcb->changeProperty(connection, kPropModeReplace, windowId, atom, kAtomCardinal, 32, 1, &kAllDesktops);
    xcb->flush(connection);
    return true;
}

// ---------------------------------------------------------------------------

ORVMAlert::ORVMAlert(QWidget *parent) : QMessageBox(parent)
{
    setIcon(QMessageBox::Warning);
}

ORVMAlert::~ORVMAlert() = default;

void ORVMAlert::setAlertStyle(ORVAlertStyle style)
{
    switch (style) {
    case ORVAlertStyle::Warning:
        setIcon(QMessageBox::Warning);
        break;
    case ORVAlertStyle::Informational:
        setIcon(QMessageBox::Information);
        break;
    case ORVAlertStyle::Critical:
        setIcon(QMessageBox::Critical);
        break;
    }
}

QPushButton *ORVMAlert::addButtonWithTitle(const QString &title)
{
    // The roles only order the buttons: the first added is the default one,
    // the others are actions, so none of them answers Escape by accident
    // (QMessageBox would take a lone reject-role button for it).
    QPushButton *button = addButton(title, _alertButtons.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::ActionRole);
    if (_alertButtons.isEmpty())
        setDefaultButton(button);
    if (title == QLatin1String("Cancel") || title == ORVLocalizedString("Cancel"))
        setEscapeButton(button);
    _alertButtons.append(button);
    return button;
}

void ORVMAlert::addDefaultButtonIfNone()
{
    // An alert given no button has one, "OK", answering as the first.
    // QMessageBox would add its own Ok on showing, answering 1024.
    if (_alertButtons.isEmpty() && buttons().isEmpty())
        addButtonWithTitle(ORVLocalizedString("OK"));
}

void ORVMAlert::showEvent(QShowEvent *event)
{
    addDefaultButtonIfNone();
    // A platform alert sets its message in bold and gives the informative
    // text room for a few lines: QMessageBox would wrap it into a narrow
    // column (and break words at hyphens) to keep itself small.
    if (auto *message = findChild<QLabel *>(QStringLiteral("qt_msgbox_label"))) {
        QFont emphasised = message->font();
        emphasised.setBold(true);
        message->setFont(emphasised);
    }
    if (auto *informative = findChild<QLabel *>(QStringLiteral("qt_msgbox_informativelabel"))) {
        const QFontMetrics metrics(informative->font());
        const int roomy = metrics.averageCharWidth() * 75;
        int longest = 0;
        for (const QString &paragraph : informative->text().split(QLatin1Char('\n')))
            longest = std::max(longest, metrics.horizontalAdvance(paragraph));
        // QMessageBox holds itself to a share of the screen (all of a small
        // one); the text's column stays inside it, beside the icon.
        int room = roomy;
        if (const QScreen *screen = this->screen()) {
            const int width = screen->availableGeometry().width();
            const int boxLimit = width <= 1024 ? width : std::min(width - 480, 1000);
            room = std::min(room, boxLimit - 160);
        }
        informative->setMinimumWidth(std::max(0, std::min(room, longest)));
    }
    QMessageBox::showEvent(event);
}

int ORVMAlert::runModal()
{
    addDefaultButtonIfNone();
    ORVNotificationCenter::defaultCenter().postNotificationName(ORVMAlertWillShowNotification,
                                                                ORVNotificationObject(this));
    _showsOnAllWorkspaces = ORVWindowJoinAllWorkspaces(this);
    const int result = QMessageBox::exec();
    ORVNotificationCenter::defaultCenter().postNotificationName(ORVMAlertDidHideNotification,
                                                                ORVNotificationObject(this));
    const auto *clicked = clickedButton();
    for (qsizetype index = 0; index < _alertButtons.size(); ++index)
        if (_alertButtons.at(index) == clicked)
            return ORVAlertFirstButtonReturn + static_cast<int>(index);
    return result;
}

int ORVMAlert::exec()
{
    return runModal();
}
