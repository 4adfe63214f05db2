#pragma once

/// \file
/// ORVCrashReportWindowController: the dialog in which the user, after a
/// crash, confirms sending a report and may add a name, an e-mail address and
/// comments. The dialog only collects them; the application runs it, reads
/// the result and comments(), and sends the report itself:
///
/// \code
///   ORVCrashReportWindowController dialog(ORVUserDefaults::standardUserDefaults());
///   connect(&dialog, &ORVCrashReportWindowController::detailsRequested, ...);
///   if (dialog.exec() == 1)
///       sendReport(report, dialog.comments());
/// \endcode
///
/// Name and e-mail are remembered under "CrashReportName" and
/// "CrashReportEmail" in the defaults store when the user sends. When either
/// is missing, the dialog shows at once what is known (a missing name from
/// the account's passwd entry) and reads the user's own card (AccountsService
/// on the system bus) in the background; the card then fills both fields,
/// unless the user has typed in them meanwhile.

#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

class ORVUserDefaults;

namespace Ui {
class ORVCrashReportWindowController;
}

extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVCrashReportNameKey;  ///< "CrashReportName"
extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVCrashReportEmailKey; ///< "CrashReportEmail"

/// The user's own contact card.
///
/// Threads: any thread (a value).
struct ORVContactCard {
    QString fullName;           ///< The user's full name; empty when unknown.
    QStringList emailAddresses; ///< The user's e-mail addresses, if any.
};

/// The card of the user running the process from AccountsService
/// (org.freedesktop.Accounts on the system bus: RealName, and Email as the
/// only address), the name falling back to the passwd entry when RealName is
/// empty. Nothing when the service does not answer within two seconds.
/// Blocks the calling thread meanwhile (each of its two bus calls may take
/// the two seconds); any thread.
ORVELLAKIT_WIDGETS_EXPORT std::optional<ORVContactCard> ORVMeContactCard();
/// ORVMeContactCard() without blocking: asynchronous calls made on the
/// calling thread (the main one); `handler` runs there with the result,
/// once, unless `context` (an object of that thread) is gone by then.
/// Called on another thread, the calls are made on `context`'s.
/// A null `context` stands for the application object; without one the
/// handler runs at once, with nothing. The handler is kept until it has run
/// or `context` is gone.
ORVELLAKIT_WIDGETS_EXPORT void ORVMeContactCardInBackground(QObject *context,
                                                            std::function<void(std::optional<ORVContactCard>)> handler);
/// The full name of the passwd entry (the GECOS field up to its first comma,
/// "&" standing for the capitalised login name); empty when there is none.
/// Any thread.
ORVELLAKIT_WIDGETS_EXPORT QString ORVPasswdFullName();

/// The crash report dialog (see the file overview). It ends with 1 when the
/// user sends and 0 when the user cancels.
///
/// Threads: main thread only.
/// Ownership: a QDialog; its parent, if any, owns it. The widgets the
/// accessors return belong to the dialog. The defaults store is held weakly.
class ORVELLAKIT_WIDGETS_EXPORT ORVCrashReportWindowController : public QDialog {
    Q_OBJECT
public:
    /// Loads the layout (ORVCrashReportWindowController.ui) and fills it in.
    /// The store is held weakly: once it is gone nothing is read or stored.
    explicit ORVCrashReportWindowController(const std::shared_ptr<ORVUserDefaults> &userDefaults,
                                            QWidget *parent = nullptr);
    /// Destroys the dialog; a card that arrives later is dropped.
    ~ORVCrashReportWindowController() override;

    /// The comments as typed.
    QString comments() const;
    /// The application's name for the heading: the first of the localised
    /// and the plain "CFBundleDisplayName" of the main bundle, then the same
    /// for "CFBundleName" (localised through the translation context
    /// "InfoPlist", the key as source text), then the Qt application name.
    static QString applicationName();

    /// The heading: the layout's "%@ quit unexpectedly." with
    /// applicationName() for %@.
    QLabel *headingTextField() const;
    /// The name field.
    QLineEdit *nameTextField() const;
    /// The e-mail field.
    QLineEdit *emailTextField() const;
    /// The comments field.
    QPlainTextEdit *commentsTextView() const;
    /// The button that emits detailsRequested().
    QPushButton *detailsButton() const;

public Q_SLOTS:
    /// Remembers name and e-mail, then ends the dialog with 1.
    void send();
    /// Ends the dialog with 0; nothing is stored (also Escape).
    void cancel();

Q_SIGNALS:
    /// The details button: the application shows the report's details.
    void detailsRequested();
    /// The background read of the user's card has ended (with or without a
    /// card); not emitted when name and e-mail were both stored.
    void contactCardLookupFinished();

private:
    void windowDidLoad();
    void contactCardArrived(const std::optional<ORVContactCard> &card);

    std::weak_ptr<ORVUserDefaults> _userDefaults;
    /// What the dialog put in the fields before the card came.
    QString _filledName;
    QString _filledEmail;
    std::unique_ptr<Ui::ORVCrashReportWindowController> _ui;
};
