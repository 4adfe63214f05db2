#include "KalendroSignInWindow.h"

#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <QFormLayout>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace {

QLabel *errorLabel(QWidget *parent)
{
    auto *label = new QLabel(parent);
    label->setStyleSheet(QStringLiteral("color: #b00020;"));
    label->setWordWrap(true);
    label->hide();
    return label;
}

// A field with its error beneath it.
QWidget *fieldWithError(QLineEdit *field, QLabel *error, QWidget *parent)
{
    auto *box = new QWidget(parent);
    auto *layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);
    layout->addWidget(field);
    layout->addWidget(error);
    return box;
}

enum class Field { None, Name, Email, Password };

// Which field a sign-in or account-creation error is about. The framework
// words them itself for the codes it knows (translated); the server's
// "error_code" tells the rest.
Field fieldOf(const ORVError &error)
{
    if (error.domain() != ORVOrvellaTokenManagerErrorDomain)
        return Field::None;
    const QString reason = error.localizedFailureReason();
    const QString serverCode = error.userInfo().value(QStringLiteral("error_code")).toString();
    switch (error.code()) {
    case 7: // e-mail address in use
        return Field::Email;
    case 8: // password too weak or short
        return Field::Password;
    case 11:
        return reason == ORVLocalizedString("Enter a valid email address.") ? Field::Email : Field::Password;
    case 6:
        if (serverCode.contains(QLatin1String("password")))
            return Field::Password;
        if (serverCode == QLatin1String("invalid") || serverCode.contains(QLatin1String("email")))
            return Field::Email;
        if (serverCode == QLatin1String("required"))
            return Field::Name;
        return Field::None;
    default:
        return Field::None;
    }
}

} // namespace

KalendroSignInWindow::KalendroSignInWindow(Actions actions, QWidget *parent)
    : QWidget(parent), _actions(std::move(actions))
{
    setWindowTitle(QStringLiteral("Kalendro"));
    auto *outer = new QVBoxLayout(this);
    _pages = new QStackedWidget(this);
    outer->addWidget(_pages);

    // Sign-in page.
    auto *signIn = new QWidget(_pages);
    auto *column = new QVBoxLayout(signIn);
    column->setContentsMargins(28, 20, 28, 20);
    auto *title = new QLabel(QStringLiteral("<h2>Sign in to Kalendro</h2>"), signIn);
    column->addWidget(title);
    auto *form = new QFormLayout;
    _name = new QLineEdit(signIn);
    _name->setPlaceholderText(QStringLiteral("only to create an account"));
    _email = new QLineEdit(signIn);
    _email->setPlaceholderText(QStringLiteral("you@example.org"));
    _password = new QLineEdit(signIn);
    _password->setEchoMode(QLineEdit::Password);
    _nameError = errorLabel(signIn);
    _emailError = errorLabel(signIn);
    _passwordError = errorLabel(signIn);
    form->addRow(QStringLiteral("Name:"), fieldWithError(_name, _nameError, signIn));
    form->addRow(QStringLiteral("E-mail:"), fieldWithError(_email, _emailError, signIn));
    form->addRow(QStringLiteral("Password:"), fieldWithError(_password, _passwordError, signIn));
    column->addLayout(form);

    const auto addButton = [this, signIn](QLayout *layout, const QString &text, const std::function<void()> &act) {
        auto *button = new QPushButton(text, signIn);
        layout->addWidget(button);
        _signInButtons << button;
        connect(button, &QPushButton::clicked, this, act);
        return button;
    };
    auto *passwordRow = new QHBoxLayout;
    addButton(passwordRow, QStringLiteral("Sign In"), [this] {
        setBusy(true, QStringLiteral("Signing in…"));
        _actions.signIn(_email->text().trimmed(), _password->text());
    })->setDefault(true);
    addButton(passwordRow, QStringLiteral("Create Account"), [this] {
        setBusy(true, QStringLiteral("Creating the account…"));
        _actions.createAccount(_name->text().trimmed(), _email->text().trimmed(), _password->text());
    });
    column->addLayout(passwordRow);

    auto *rule = new QFrame(signIn);
    rule->setFrameShape(QFrame::HLine);
    column->addWidget(rule);
    auto *others = new QVBoxLayout;
    addButton(others, QStringLiteral("Sign in with Google"), [this] {
        setBusy(true, QStringLiteral("Approve the sign-in in your browser…"));
        _actions.signInWithBrowser(ORVOrvellaAccountTypeGoogle);
    });
    addButton(others, QStringLiteral("Sign in with Apple"), [this] {
        setBusy(true, QStringLiteral("Approve the sign-in in your browser…"));
        _actions.signInWithBrowser(ORVOrvellaAccountTypeApple);
    });
    addButton(others, QStringLiteral("Email me a sign-in link"), [this] {
        setBusy(true, QStringLiteral("Sending the link…"));
        _actions.emailLink(_email->text().trimmed());
    });
    column->addLayout(others);
    _message = new QLabel(signIn);
    _message->setWordWrap(true);
    column->addWidget(_message);
    column->addStretch();
    _pages->addWidget(signIn);

    // Account page.
    auto *accountPage = new QWidget(_pages);
    auto *accountColumn = new QVBoxLayout(accountPage);
    accountColumn->setContentsMargins(28, 20, 28, 20);
    accountColumn->addWidget(new QLabel(QStringLiteral("<h2>Kalendro account</h2>"), accountPage));
    _account = new QLabel(accountPage);
    _account->setWordWrap(true);
    accountColumn->addWidget(_account);
    _accountMessage = new QLabel(accountPage);
    _accountMessage->setWordWrap(true);
    accountColumn->addWidget(_accountMessage);
    // A new device asking for the key.
    _approval = new QFrame(accountPage);
    static_cast<QFrame *>(_approval)->setFrameShape(QFrame::StyledPanel);
    auto *approvalColumn = new QVBoxLayout(_approval);
    _approvalText = new QLabel(_approval);
    // The name is the other device's own word: shown as it is, never as markup.
    _approvalText->setTextFormat(Qt::PlainText);
    _approvalText->setWordWrap(true);
    approvalColumn->addWidget(_approvalText);
    _approvalCode = new QLineEdit(_approval);
    _approvalCode->setPlaceholderText(QStringLiteral("123 456"));
    approvalColumn->addWidget(_approvalCode);
    auto *approvalRow = new QHBoxLayout;
    _continue = new QPushButton(QStringLiteral("Continue"), _approval);
    connect(_continue, &QPushButton::clicked, this, [this] { _actions.takeUpDevice(); });
    _approve = new QPushButton(QStringLiteral("Approve"), _approval);
    connect(_approve, &QPushButton::clicked, this, [this] { _actions.approveDevice(_approvalCode->text()); });
    auto *refuse = new QPushButton(QStringLiteral("Refuse"), _approval);
    connect(refuse, &QPushButton::clicked, this, [this] { _actions.refuseDevice(); });
    approvalRow->addStretch();
    approvalRow->addWidget(refuse);
    approvalRow->addWidget(_continue);
    approvalRow->addWidget(_approve);
    approvalColumn->addLayout(approvalRow);
    _approval->hide();
    accountColumn->addWidget(_approval);
    _recoveryCodeText = new QLabel(accountPage);
    _recoveryCodeText->setWordWrap(true);
    _recoveryCodeText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    accountColumn->addWidget(_recoveryCodeText);
    auto *accountRow = new QHBoxLayout;
    auto *recovery = new QPushButton(QStringLiteral("Show Recovery Code"), accountPage);
    connect(recovery, &QPushButton::clicked, this, [this] { _actions.showRecoveryCode(); });
    accountRow->addWidget(recovery);
    auto *preferences = new QPushButton(QStringLiteral("Preferences…"), accountPage);
    connect(preferences, &QPushButton::clicked, this, [this] { _actions.showPreferences(); });
    auto *signOut = new QPushButton(QStringLiteral("Sign Out"), accountPage);
    connect(signOut, &QPushButton::clicked, this, [this] { _actions.signOut(); });
    accountRow->addWidget(preferences);
    accountRow->addStretch();
    accountRow->addWidget(signOut);
    accountColumn->addLayout(accountRow);
    accountColumn->addStretch();
    _pages->addWidget(accountPage);

    // The key page: this device's key is not the account's.
    auto *keyPage = new QWidget(_pages);
    auto *keyColumn = new QVBoxLayout(keyPage);
    keyColumn->setContentsMargins(28, 20, 28, 20);
    keyColumn->addWidget(new QLabel(QStringLiteral("<h2>Your encryption key</h2>"), keyPage));
    auto *explanation = new QLabel(QStringLiteral("This device does not have the key that your Kalendro data is "
                                                  "encrypted with. Bring it here from a device that has it:"),
                                   keyPage);
    explanation->setWordWrap(true);
    keyColumn->addWidget(explanation);
    _ask = new QPushButton(QStringLiteral("Approve from another device"), keyPage);
    connect(_ask, &QPushButton::clicked, this, [this] { _actions.requestKey(); });
    keyColumn->addWidget(_ask);
    auto *codeRow = new QHBoxLayout;
    _recoveryCode = new QLineEdit(keyPage);
    _recoveryCode->setPlaceholderText(QStringLiteral("XXXX-XXXX-XXXX-XXXX-XXXX-XXXX-XXXX"));
    _enter = new QPushButton(QStringLiteral("Enter recovery code"), keyPage);
    connect(_enter, &QPushButton::clicked, this, [this] { _actions.enterRecoveryCode(_recoveryCode->text()); });
    codeRow->addWidget(_recoveryCode);
    codeRow->addWidget(_enter);
    keyColumn->addLayout(codeRow);
    auto *resetRow = new QHBoxLayout;
    auto *warning = new QLabel(QStringLiteral("Reset makes a new key. Everything encrypted with the old key can "
                                              "no longer be read, on any device."),
                               keyPage);
    warning->setWordWrap(true);
    warning->setStyleSheet(QStringLiteral("color: #b00020;"));
    // Two presses: what a reset costs cannot be undone.
    _reset = new QPushButton(QStringLiteral("Reset"), keyPage);
    connect(_reset, &QPushButton::clicked, this, [this] {
        if (_reset->text() == QLatin1String("Reset")) {
            _reset->setText(QStringLiteral("Confirm Reset"));
            _keyMessage->setText(QStringLiteral("Press “Confirm Reset” to make a new key; your encrypted data stays "
                                                "unreadable for good."));
            return;
        }
        _reset->setText(QStringLiteral("Reset"));
        _actions.resetKey();
    });
    resetRow->addWidget(warning, 1);
    resetRow->addWidget(_reset);
    keyColumn->addLayout(resetRow);
    _keyMessage = new QLabel(keyPage);
    _keyMessage->setTextFormat(Qt::PlainText);
    _keyMessage->setWordWrap(true);
    _keyMessage->setTextInteractionFlags(Qt::TextSelectableByMouse);
    keyColumn->addWidget(_keyMessage);
    keyColumn->addStretch();
    _pages->addWidget(keyPage);

    resize(440, 380);
}

void KalendroSignInWindow::showSignIn()
{
    clearErrors();
    setBusy(false);
    _password->clear();
    _pages->setCurrentIndex(0);
}

void KalendroSignInWindow::showError(const ORVError &error)
{
    clearErrors();
    setBusy(false);
    QString text = error.localizedFailureReason();
    if (text.isEmpty())
        text = error.localizedDescription();
    switch (fieldOf(error)) {
    case Field::Name:
        _nameError->setText(text);
        _nameError->show();
        break;
    case Field::Email:
        _emailError->setText(text);
        _emailError->show();
        break;
    case Field::Password:
        _passwordError->setText(text);
        _passwordError->show();
        break;
    case Field::None:
        _message->setText(text.trimmed());
        break;
    }
}

void KalendroSignInWindow::showMessage(const QString &message)
{
    if (isShowingAccount())
        return _accountMessage->setText(message);
    if (isShowingKeyChoices())
        return _keyMessage->setText(message);
    clearErrors();
    setBusy(false, message);
}

void KalendroSignInWindow::showProgress(const QString &message)
{
    clearErrors();
    setBusy(true, message);
}

void KalendroSignInWindow::showSignedIn(const QString &accountText)
{
    setBusy(false);
    _account->setText(accountText);
    _accountMessage->clear();
    _recoveryCodeText->clear();
    showApprovalRequest(QString());
    _pages->setCurrentIndex(1);
}

void KalendroSignInWindow::showKeyChoices(const QString &message)
{
    setBusy(false);
    _keyMessage->setText(message);
    _recoveryCodeText->clear();
    _reset->setText(QStringLiteral("Reset"));
    _pages->setCurrentIndex(2);
}

void KalendroSignInWindow::showApprovalRequest(const QString &deviceName)
{
    _approvingDevice = deviceName;
    _approvalCode->clear();
    _approvalCode->hide();
    _approve->hide();
    _continue->show();
    _approval->setVisible(!deviceName.isEmpty());
    _approvalText->setText(deviceName.isEmpty()
                               ? QString()
                               : QStringLiteral("“%1” asks for your encryption key. Continue only if you are setting "
                                                "up that device now; otherwise refuse.")
                                     .arg(deviceName));
}

void KalendroSignInWindow::showKeyRequestRunning(bool asking)
{
    _ask->setText(asking ? QStringLiteral("Stop Asking") : QStringLiteral("Approve from another device"));
    for (QWidget *other : std::initializer_list<QWidget *>{_recoveryCode, _enter, _reset})
        other->setEnabled(!asking);
}

void KalendroSignInWindow::showApprovalCodeEntry()
{
    _continue->hide();
    _approvalCode->show();
    _approve->show();
    _approve->setDefault(true);
    _approvalCode->setFocus();
    _approvalText->setText(QStringLiteral("Type the code “%1” shows now, then approve.").arg(_approvingDevice));
}

void KalendroSignInWindow::showRecoveryCode(const QString &code)
{
    _recoveryCodeText->setText(
        QStringLiteral("Recovery code (write it down and keep it safe; it opens your data):\n%1").arg(code));
}

bool KalendroSignInWindow::isShowingKeyChoices() const
{
    return _pages->currentIndex() == 2;
}

QString KalendroSignInWindow::keyMessage() const
{
    return _keyMessage->text();
}

QString KalendroSignInWindow::approvalText() const
{
    return _approval->isHidden() ? QString() : _approvalText->text();
}

QString KalendroSignInWindow::recoveryCodeText() const
{
    return _recoveryCodeText->text();
}

QString KalendroSignInWindow::fieldError(const QLineEdit *field) const
{
    const QLabel *label = errorLabelFor(field);
    return label && !label->isHidden() ? label->text() : QString();
}

QString KalendroSignInWindow::message() const
{
    return isShowingAccount() ? _accountMessage->text() : _message->text();
}

QString KalendroSignInWindow::accountText() const
{
    return _account->text();
}

bool KalendroSignInWindow::isShowingAccount() const
{
    return _pages->currentIndex() == 1;
}

QPushButton *KalendroSignInWindow::button(const QString &text) const
{
    for (QPushButton *candidate : findChildren<QPushButton *>()) {
        if (candidate->text() == text)
            return candidate;
    }
    return nullptr;
}

void KalendroSignInWindow::setBusy(bool busy, const QString &message)
{
    for (QPushButton *button : _signInButtons)
        button->setEnabled(!busy);
    _message->setText(message);
}

void KalendroSignInWindow::clearErrors()
{
    for (QLabel *label : {_nameError, _emailError, _passwordError}) {
        label->clear();
        label->hide();
    }
    _message->clear();
}

QLabel *KalendroSignInWindow::errorLabelFor(const QLineEdit *field) const
{
    if (field == _name)
        return _nameError;
    if (field == _email)
        return _emailError;
    if (field == _password)
        return _passwordError;
    return nullptr;
}
