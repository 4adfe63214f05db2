#include <OrvellaKitWidgets/ORVCrashReportWindowController.h>

#include "ui_ORVCrashReportWindowController.h"

#include "../platform/ORVSystemBus.h"

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVStringWithFormat.h>
#include <OrvellaKit/ORVUserDefaults.h>

#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QLayout>
#include <QThread>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

#include <pwd.h>
#include <unistd.h>

#include <vector>

const QString ORVCrashReportNameKey = QStringLiteral("CrashReportName");
const QString ORVCrashReportEmailKey = QStringLiteral("CrashReportEmail");

namespace {

constexpr int kAccountsServiceTimeoutMilliseconds = 2000;

// AccountsService's lookup of this user's object, and the read of that
// object's properties: the calls the blocking and the asynchronous card
// reads both make.
QDBusMessage findUserCall()
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Accounts"), QStringLiteral("/org/freedesktop/Accounts"),
        QStringLiteral("org.freedesktop.Accounts"), QStringLiteral("FindUserById"));
    call << static_cast<qint64>(getuid());
    return call;
}

QDBusMessage userPropertiesCall(const QString &path)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Accounts"), path,
                                                       QStringLiteral("org.freedesktop.DBus.Properties"),
                                                       QStringLiteral("GetAll"));
    call << QStringLiteral("org.freedesktop.Accounts.User");
    return call;
}

QVariantMap propertiesOf(const QDBusConnection &bus, const QString &path)
{
    const QDBusMessage reply = bus.call(userPropertiesCall(path), QDBus::Block, kAccountsServiceTimeoutMilliseconds);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return {};
    const QVariant argument = reply.arguments().first();
    if (argument.canConvert<QDBusArgument>())
        return qdbus_cast<QVariantMap>(argument.value<QDBusArgument>());
    return argument.toMap();
}

// The card of an AccountsService user's properties (RealName, Email); the
// passwd entry's name when RealName is empty.
ORVContactCard cardFromProperties(const QVariantMap &properties)
{
    ORVContactCard card;
    card.fullName = properties.value(QStringLiteral("RealName")).toString().trimmed();
    if (card.fullName.isEmpty())
        card.fullName = ORVPasswdFullName();
    const QString email = properties.value(QStringLiteral("Email")).toString().trimmed();
    if (!email.isEmpty())
        card.emailAddresses << email;
    return card;
}

QString localizedInfoValue(const char *key)
{
    // An application translates its information dictionary in the context
    // "InfoPlist", with the key as source text.
    const QString translated = QCoreApplication::translate("InfoPlist", key);
    return translated == QLatin1String(key) ? QString() : translated;
}

} // namespace

QString ORVPasswdFullName()
{
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(static_cast<size_t>(size > 0 ? size : 16384));
    passwd entry {};
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return {};
    QString name = QString::fromLocal8Bit(found->pw_gecos ? found->pw_gecos : "").section(QLatin1Char(','), 0, 0);
    if (name.contains(QLatin1Char('&'))) {
        QString login = QString::fromLocal8Bit(found->pw_name ? found->pw_name : "");
        if (!login.isEmpty())
            login[0] = login[0].toUpper();
        name.replace(QLatin1Char('&'), login);
    }
    return name.trimmed();
}

std::optional<ORVContactCard> ORVMeContactCard()
{
    if (!orv::detail::systemBusMayExist())
        return std::nullopt;
    const QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return std::nullopt;
    const QDBusMessage reply = bus.call(findUserCall(), QDBus::Block, kAccountsServiceTimeoutMilliseconds);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    const QString path = qvariant_cast<QDBusObjectPath>(reply.arguments().first()).path();
    if (path.isEmpty())
        return std::nullopt;
    return cardFromProperties(propertiesOf(bus, path));
}

void ORVMeContactCardInBackground(QObject *context, std::function<void(std::optional<ORVContactCard>)> handler)
{
    // Asynchronous calls on the calling (main) thread rather than blocking
    // ones on a worker: a service that hangs holds up nothing, and nothing
    // is left running inside the bus library when the application ends.
    // The calls belong to `context`: gone with it, they answer no one.
    QObject *owner = context ? context : QCoreApplication::instance();
    if (!owner)
        return handler(std::nullopt); // no application, no event loop to wait in
    if (QThread::currentThread() != owner->thread()) {
        // The calls and their watchers live on the owner's thread.
        QMetaObject::invokeMethod(owner, [owner, handler = std::move(handler)]() mutable {
            ORVMeContactCardInBackground(owner, std::move(handler));
        });
        return;
    }
    auto finish = std::make_shared<std::function<void(std::optional<ORVContactCard>)>>(std::move(handler));
    const auto answerLater = [owner, finish] {
        QMetaObject::invokeMethod(owner, [finish] { (*finish)(std::nullopt); }, Qt::QueuedConnection);
    };
    if (!orv::detail::systemBusMayExist())
        return answerLater();
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return answerLater();
    auto *finding =
        new QDBusPendingCallWatcher(bus.asyncCall(findUserCall(), kAccountsServiceTimeoutMilliseconds), owner);
    const auto cardRead = [bus, owner, finish](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> found = *call;
        const QString path = found.isValid() ? found.value().path() : QString();
        if (path.isEmpty())
            return (*finish)(std::nullopt);
        auto *reading = new QDBusPendingCallWatcher(
            bus.asyncCall(userPropertiesCall(path), kAccountsServiceTimeoutMilliseconds), owner);
        QObject::connect(reading, &QDBusPendingCallWatcher::finished, owner, [finish](QDBusPendingCallWatcher *read) {
            read->deleteLater();
            const QDBusPendingReply<QVariantMap> reply = *read;
            const QVariantMap properties = reply.isValid() ? reply.value() : QVariantMap();
            (*finish)(cardFromProperties(properties));
        });
    };
    QObject::connect(finding, &QDBusPendingCallWatcher::finished, owner, cardRead);
}

// ---------------------------------------------------------------------------

ORVCrashReportWindowController::ORVCrashReportWindowController(const std::shared_ptr<ORVUserDefaults> &userDefaults,
                                                               QWidget *parent)
    : QDialog(parent), _userDefaults(userDefaults), _ui(std::make_unique<Ui::ORVCrashReportWindowController>())
{
    _ui->setupUi(this);
    // Send and Cancel sit in a button box, which orders them as the desktop
    // does; Details stays on the far side.
    auto *sendButton = _ui->buttonBox->addButton(tr("&Send Report"), QDialogButtonBox::AcceptRole);
    sendButton->setObjectName(QStringLiteral("sendButton"));
    sendButton->setDefault(true);
    auto *cancelButton = _ui->buttonBox->addButton(tr("Cancel"), QDialogButtonBox::RejectRole);
    cancelButton->setObjectName(QStringLiteral("cancelButton"));
    cancelButton->setAutoDefault(false);
    connect(sendButton, &QPushButton::clicked, this, &ORVCrashReportWindowController::send);
    connect(cancelButton, &QPushButton::clicked, this, &ORVCrashReportWindowController::cancel);
    // Tab runs in reading order: the fields, Details, then the box's
    // buttons from left to right.
    QWidget *previous = _ui->_detailsButton;
    QLayout *boxLayout = _ui->buttonBox->layout();
    for (int i = 0; boxLayout && i < boxLayout->count(); ++i) {
        if (QWidget *button = boxLayout->itemAt(i)->widget()) {
            setTabOrder(previous, button);
            previous = button;
        }
    }
    connect(_ui->_detailsButton, &QPushButton::clicked, this, &ORVCrashReportWindowController::detailsRequested);
    windowDidLoad();
}

ORVCrashReportWindowController::~ORVCrashReportWindowController() = default;

QLabel *ORVCrashReportWindowController::headingTextField() const
{
    return _ui->_headingTextField;
}

QLineEdit *ORVCrashReportWindowController::nameTextField() const
{
    return _ui->_nameTextField;
}

QLineEdit *ORVCrashReportWindowController::emailTextField() const
{
    return _ui->_emailTextField;
}

QPlainTextEdit *ORVCrashReportWindowController::commentsTextView() const
{
    return _ui->_commentsTextView;
}

QPushButton *ORVCrashReportWindowController::detailsButton() const
{
    return _ui->_detailsButton;
}

QString ORVCrashReportWindowController::comments() const
{
    return _ui->_commentsTextView->toPlainText();
}

QString ORVCrashReportWindowController::applicationName()
{
    const ORVBundle &bundle = ORVBundle::mainBundle();
    for (const char *key : {"CFBundleDisplayName", "CFBundleName"}) {
        const QString localized = localizedInfoValue(key);
        if (!localized.isEmpty())
            return localized;
        const QString plain = bundle.objectForInfoDictionaryKey(QString::fromLatin1(key)).toString();
        if (!plain.isEmpty())
            return plain;
    }
    return QCoreApplication::applicationName();
}

void ORVCrashReportWindowController::windowDidLoad()
{
    QLabel *heading = _ui->_headingTextField;
    heading->setText(ORVStringWithFormat(heading->text(), applicationName()));

    const std::shared_ptr<ORVUserDefaults> defaults = _userDefaults.lock();
    std::optional<QString> name = defaults ? defaults->stringForKey(ORVCrashReportNameKey) : std::nullopt;
    std::optional<QString> email = defaults ? defaults->stringForKey(ORVCrashReportEmailKey) : std::nullopt;
    const bool lookUpCard = !name || !email;
    // Until the card comes (a service that hangs must not hold up the
    // dialog), a missing name comes from the passwd entry.
    if (!name) {
        const QString passwdName = ORVPasswdFullName();
        if (!passwdName.isEmpty())
            name = passwdName;
    }
    _ui->_nameTextField->setText(name.value_or(QString()));
    _ui->_emailTextField->setText(email.value_or(QString()));
    _filledName = _ui->_nameTextField->text();
    _filledEmail = _ui->_emailTextField->text();
    if (!_ui->_nameTextField->text().isEmpty() && !_ui->_emailTextField->text().isEmpty())
        _ui->_commentsTextView->setFocus();
    if (lookUpCard)
        ORVMeContactCardInBackground(this, [this](const std::optional<ORVContactCard> &card) { contactCardArrived(card); });
}

void ORVCrashReportWindowController::contactCardArrived(const std::optional<ORVContactCard> &card)
{
    if (card) {
        // The card replaces both, as the user's own card is the better
        // source; what the user typed meanwhile stays, and so does what the
        // application put in the fields since the dialog filled them.
        QLineEdit *nameField = _ui->_nameTextField;
        QLineEdit *emailField = _ui->_emailTextField;
        const bool nameUntouched = !nameField->isModified() && nameField->text() == _filledName;
        const bool emailUntouched = !emailField->isModified() && emailField->text() == _filledEmail;
        if (nameUntouched)
            nameField->setText(card->fullName);
        if (emailUntouched)
            emailField->setText(card->emailAddresses.value(0));
        const QWidget *focused = focusWidget();
        if (!nameField->text().isEmpty() && !emailField->text().isEmpty() &&
            (!focused || focused == nameField || focused == emailField) && nameUntouched && emailUntouched)
            _ui->_commentsTextView->setFocus();
    }
    Q_EMIT contactCardLookupFinished();
}

void ORVCrashReportWindowController::send()
{
    if (const std::shared_ptr<ORVUserDefaults> defaults = _userDefaults.lock()) {
        defaults->setString(_ui->_nameTextField->text(), ORVCrashReportNameKey);
        defaults->setString(_ui->_emailTextField->text(), ORVCrashReportEmailKey);
    }
    done(1);
}

void ORVCrashReportWindowController::cancel()
{
    done(0);
}
