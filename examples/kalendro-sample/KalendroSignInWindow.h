#pragma once

// The sample's sign-in window: e-mail and password (with account creation),
// "Sign in with Google", "Sign in with Apple" and "Email me a sign-in link";
// once signed in, the account with "Sign out". It only shows and asks: what
// the buttons do is the application's (Actions), and the application tells
// it how things went (showError(), showMessage(), showSignedIn()).
//
// The account encryption key has a page of its own for a device whose key
// the account does not accept (showKeyChoices()): ask another device,
// enter the recovery code, or reset. A device that has the key shows a
// request from a new device on the account page (showApprovalRequest()) and
// the recovery code on request.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVOrvellaAccount.h>

#include <QWidget>

#include <functional>

class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;

class KalendroSignInWindow : public QWidget {
    Q_OBJECT
public:
    struct Actions {
        std::function<void(const QString &email, const QString &password)> signIn;
        std::function<void(const QString &name, const QString &email, const QString &password)> createAccount;
        std::function<void(ORVOrvellaAccountType type)> signInWithBrowser;
        std::function<void(const QString &email)> emailLink;
        std::function<void()> signOut;
        std::function<void()> showPreferences;
        // The encryption key on a device that lacks it.
        std::function<void()> requestKey;
        std::function<void(const QString &code)> enterRecoveryCode;
        std::function<void()> resetKey;
        // A device that has it.
        std::function<void()> takeUpDevice; // "that is my device": show its code
        std::function<void(const QString &typedCode)> approveDevice;
        std::function<void()> refuseDevice;
        std::function<void()> showRecoveryCode;
    };

    explicit KalendroSignInWindow(Actions actions, QWidget *parent = nullptr);

    // The sign-in page, empty of errors, the buttons enabled.
    void showSignIn();
    // A failure: beside the field it concerns when it concerns one (with
    // the framework's text), otherwise under the buttons. Enables the buttons.
    void showError(const ORVError &error);
    // A line under the buttons (a link sent), enabling them; on the account
    // page, a line under the account.
    void showMessage(const QString &message);
    // Something runs: the line, and the buttons disabled until the next
    // showError(), showMessage() or page.
    void showProgress(const QString &message);
    // The account page.
    void showSignedIn(const QString &accountText);
    // The page that offers the ways to the account's key, with `message`
    // (an error, a confirmation code to compare) under them.
    void showKeyChoices(const QString &message = QString());
    // On the account page: `deviceName` asks for the key, with "Continue"
    // (take it up) and "Refuse"; an empty name hides it.
    void showApprovalRequest(const QString &deviceName);
    // Taken up: the field for the code the other device shows, "Approve".
    void showApprovalCodeEntry();
    // While this device asks its other devices for the key: "Stop Asking",
    // and the other ways wait.
    void showKeyRequestRunning(bool asking);
    // On the account page: the recovery code, until the page is left.
    void showRecoveryCode(const QString &code);

    // For tests and screenshots.
    QLineEdit *nameField() const { return _name; }
    QLineEdit *emailField() const { return _email; }
    QLineEdit *passwordField() const { return _password; }
    QString fieldError(const QLineEdit *field) const;
    QString message() const;
    QString accountText() const;
    bool isShowingAccount() const;
    bool isShowingKeyChoices() const;
    QLineEdit *recoveryCodeField() const { return _recoveryCode; }
    QLineEdit *approvalCodeField() const { return _approvalCode; }
    QString keyMessage() const;
    QString approvalText() const;
    QString recoveryCodeText() const;
    QPushButton *button(const QString &text) const;

private:
    void setBusy(bool busy, const QString &message = QString());
    void clearErrors();
    QLabel *errorLabelFor(const QLineEdit *field) const;

    Actions _actions;
    QStackedWidget *_pages = nullptr;
    QLineEdit *_name = nullptr;
    QLineEdit *_email = nullptr;
    QLineEdit *_password = nullptr;
    QLabel *_nameError = nullptr;
    QLabel *_emailError = nullptr;
    QLabel *_passwordError = nullptr;
    QLabel *_message = nullptr;
    QLabel *_account = nullptr;
    QLabel *_accountMessage = nullptr;
    QList<QPushButton *> _signInButtons;
    QLineEdit *_recoveryCode = nullptr;
    QLabel *_keyMessage = nullptr;
    QWidget *_approval = nullptr;
    QLabel *_approvalText = nullptr;
    QLineEdit *_approvalCode = nullptr;
    QPushButton *_continue = nullptr;
    QPushButton *_approve = nullptr;
    QPushButton *_reset = nullptr;
    QPushButton *_ask = nullptr;
    QPushButton *_enter = nullptr;
    QString _approvingDevice;
    QLabel *_recoveryCodeText = nullptr;
};
