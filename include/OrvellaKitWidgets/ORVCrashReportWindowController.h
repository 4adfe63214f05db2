#pragma once

// ORVCrashReportWindowController: the dialog in which the user, after a
// crash, confirms sending a report and may add a name, an e-mail address and
// comments. The dialog only collects them; the application runs it, reads
// the result and comments(), and sends the report itself:
//
//   ORVCrashReportWindowController dialog(ORVUserDefaults::standardUserDefaults());
//   connect(&dialog, &ORVCrashReportWindowController::detailsRequested, ...);
//   if (dialog.exec() == 1)
//       sendReport(report, dialog.comments());
//
// Name and e-mail are remembered under "CrashReportName" and
// "CrashReportEmail" in the defaults store when the user sends. When either
// is missing, the dialog shows at once what is known (a missing name from
// the account's passwd entry) and reads the user's own card (AccountsService
// on the system bus) in the background; the card then fills both fields,
// unless the user has typed in them meanwhile.

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

extern const QString ORVCrashReportNameKey;  // "CrashReportName"
extern const QString ORVCrashReportEmailKey; // "CrashReportEmail"

// The user's own contact card.
struct ORVContactCard {
    QString fullName;
    QStringList emailAddresses;
};

// The card of the user running the process from AccountsService
// (org.freedesktop.Accounts on the system bus: RealName, and Email as the
// only address), the name falling back to the passwd entry when RealName is
// empty. Nothing when the service does not answer within two seconds.
std::optional<ORVContactCard> ORVMeContactCard();
// ORVMeContactCard() without blocking: asynchronous calls made on the
// calling thread (the main one); `handler` runs there with the result,
// once, unless `context` (an object of that thread) is gone by then.
// Called on another thread, the calls are made on `context`'s.
void ORVMeContactCardInBackground(QObject *context, std::function<void(std::optional<ORVContactCard>)> handler);
// The full name of the passwd entry (the GECOS field up to its first comma,
// "&" standing for the capitalised login name); empty when there is none.
QString ORVPasswdFullName();

class ORVCrashReportWindowController : public QDialog {
    Q_OBJECT
public:
    // Loads the layout (ORVCrashReportWindowController.ui) and fills it in.
    // The store is held weakly: once it is gone nothing is read or stored.
    explicit ORVCrashReportWindowController(const std::shared_ptr<ORVUserDefaults> &userDefaults,
                                            QWidget *parent = nullptr);
    ~ORVCrashReportWindowController() override;

    // The comments as typed.
    QString comments() const;
    // The application's name for the heading: the first of the localised
    // and the plain "CFBundleDisplayName" of the main bundle, then the same
    // for "CFBundleName" (localised through the translation context
    // "InfoPlist", the key as source text), then the Qt application name.
    static QString applicationName();

    QLabel *headingTextField() const;
    QLineEdit *nameTextField() const;
    QLineEdit *emailTextField() const;
    QPlainTextEdit *commentsTextView() const;
    QPushButton *detailsButton() const;

public slots:
    // Remembers name and e-mail, then ends the dialog with 1.
    void send();
    // Ends the dialog with 0; nothing is stored (also Escape).
    void cancel();

signals:
    // The details button: the application shows the report's details.
    void detailsRequested();
    // The background read of the user's card has ended (with or without a
    // card); not emitted when name and e-mail were both stored.
    void contactCardLookupFinished();

private:
    void windowDidLoad();
    void contactCardArrived(const std::optional<ORVContactCard> &card);

    std::weak_ptr<ORVUserDefaults> _userDefaults;
    // What the dialog put in the fields before the card came.
    QString _filledName;
    QString _filledEmail;
    std::unique_ptr<Ui::ORVCrashReportWindowController> _ui;
};
