#pragma once

/// \file
/// ORVMAlert: a modal alert that announces itself. runModal() posts
/// "ORVMAlertWillShowNotification" before it shows and
/// "ORVMAlertDidHideNotification" after it is gone, both on the default
/// ORVNotificationCenter with the alert as object
/// (ORVNotificationObject(alert)), so an application can pause what it shows
/// behind. Where the window manager allows (X11 with EWMH), the alert shows on
/// all workspaces.
///
/// \code
///   ORVMAlert alert;
///   alert.setMessageText(tr("Quit the other copy?"));
///   alert.addButtonWithTitle(tr("Quit Other Copy"));   // first: default
///   alert.addButtonWithTitle(tr("Cancel"));            // Escape
///   if (alert.runModal() == ORVAlertFirstButtonReturn) ...
/// \endcode

#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QList>
#include <QMessageBox>
#include <QString>

class QPushButton;

extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVMAlertWillShowNotification; ///< "ORVMAlertWillShowNotification"
extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVMAlertDidHideNotification;  ///< "ORVMAlertDidHideNotification"

/// \name Button answers
/// runModal()'s answer for the buttons added with addButtonWithTitle(), in
/// the order they were added.
/// \{
constexpr int ORVAlertFirstButtonReturn = 1000;  ///< The first button added.
constexpr int ORVAlertSecondButtonReturn = 1001; ///< The second button added.
constexpr int ORVAlertThirdButtonReturn = 1002;  ///< The third button added.
/// \}

/// The alert's icon.
enum class ORVAlertStyle {
    Warning,       ///< The warning icon (the default).
    Informational, ///< The information icon.
    Critical       ///< The critical icon.
};

/// A modal alert that announces itself (see the file overview).
///
/// Threads: main thread only.
/// Ownership: a QMessageBox; its parent, if any, owns it. The buttons belong
/// to the alert.
class ORVELLAKIT_WIDGETS_EXPORT ORVMAlert : public QMessageBox {
    Q_OBJECT
public:
    /// An alert with the warning icon and no buttons yet.
    explicit ORVMAlert(QWidget *parent = nullptr);
    /// Destroys the alert.
    ~ORVMAlert() override;

    /// Stored for the application; the alert itself does nothing with it.
    bool skipsUserAttentionRequest() const { return _skipsUserAttentionRequest; }
    /// Sets skipsUserAttentionRequest().
    void setSkipsUserAttentionRequest(bool skips) { _skipsUserAttentionRequest = skips; }

    /// Sets the message (QMessageBox::setText()), shown in bold.
    void setMessageText(const QString &text) { setText(text); }
    /// The message.
    QString messageText() const { return text(); }
    /// Sets the text under the message.
    void setInformativeText(const QString &text) { QMessageBox::setInformativeText(text); }
    /// Sets the icon for the style.
    void setAlertStyle(ORVAlertStyle style);

    /// Adds a button on the alert's right, after the ones before. The first
    /// one is the default button (Return); one titled "Cancel" (or its
    /// translation) also answers Escape, and so does one made the escape
    /// button with setEscapeButton().
    QPushButton *addButtonWithTitle(const QString &title);
    /// The buttons added with addButtonWithTitle(), in order.
    QList<QPushButton *> alertButtons() const { return _alertButtons; }

    /// Posts the will-show notification, asks for all workspaces, runs the
    /// alert modally, posts the did-hide notification and answers
    /// ORVAlertFirstButtonReturn + the index of the clicked button among
    /// alertButtons(), or QMessageBox::exec()'s result for other buttons. An
    /// alert without buttons gets one, "OK" (1000), also when it was shown
    /// before it runs.
    int runModal();
    /// The same as runModal(), so the alert announces itself however it runs.
    int exec() override;

    /// True once runModal() asked the window manager to show the alert on
    /// every workspace (X11 with a window manager following EWMH); false
    /// where that cannot be asked (Wayland, offscreen).
    bool showsOnAllWorkspaces() const { return _showsOnAllWorkspaces; }

protected:
    /// Sets the message in bold and widens the informative text to up to
    /// about 75 average characters before the box sizes itself.
    void showEvent(QShowEvent *event) override;

private:
    void addDefaultButtonIfNone();

    bool _skipsUserAttentionRequest = false;
    QList<QPushButton *> _alertButtons;
    bool _showsOnAllWorkspaces = false;
};

/// Asks the window manager to show the window on all workspaces (EWMH
/// _NET_WM_DESKTOP 0xFFFFFFFF, set before the window is mapped); false when
/// the platform has no such notion or the request could not be made.
/// Main thread only.
ORVELLAKIT_WIDGETS_EXPORT bool ORVWindowJoinAllWorkspaces(QWidget *window);
