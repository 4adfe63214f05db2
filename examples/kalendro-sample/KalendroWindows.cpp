#include "KalendroWindows.h"
#include "KalendroSignInWindow.h"

#include <OrvellaKit/OrvellaKit.h>
#include <OrvellaKitWidgets/OrvellaKitWidgets.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFormLayout>
#include <QLabel>
#include <QMenuBar>
#include <QPainter>
#include <QPushButton>
#include <QSpinBox>
#include <QTextStream>
#include <QTimer>
#include <QVBoxLayout>

namespace {

void tell(const QString &line)
{
    QTextStream(stdout) << "kalendro-sample: " << line << Qt::endl;
}

// A toolbar icon drawn in code, so the sample needs no image files.
QImage paneIcon(const QColor &colour, const QString &letter)
{
    QImage image(64, 64, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(colour);
    painter.setPen(Qt::NoPen);
    painter.drawRoundedRect(QRectF(4, 4, 56, 56), 12, 12);
    painter.setPen(Qt::white);
    QFont font = painter.font();
    font.setPixelSize(34);
    font.setBold(true);
    painter.setFont(font);
    painter.drawText(QRectF(4, 4, 56, 56), Qt::AlignCenter, letter);
    return image;
}

class GeneralPane : public ORVPreferencesViewController {
public:
    explicit GeneralPane(std::shared_ptr<ORVUserDefaults> defaults) : _defaults(std::move(defaults))
    {
        setTitle(QStringLiteral("General"));
    }
    QImage image() const override { return paneIcon(QColor(0x3A, 0x7B, 0xD5), QStringLiteral("G")); }
    QString helpAnchor() const override { return QStringLiteral("general-settings"); }
    void registerDefaults() override
    {
        _defaults->registerDefaults({{QStringLiteral("ShowWeekNumbers"), true},
                                     {QStringLiteral("FirstWeekday"), 1},
                                     {QStringLiteral("DefaultReminderMinutes"), 15}});
    }

protected:
    QWidget *loadView() override
    {
        auto *view = new QWidget;
        auto *form = new QFormLayout(view);
        form->setContentsMargins(24, 20, 24, 20);
        auto *weekNumbers = new QCheckBox(QStringLiteral("Show week numbers"), view);
        weekNumbers->setChecked(_defaults->boolForKey(QStringLiteral("ShowWeekNumbers")));
        QObject::connect(weekNumbers, &QCheckBox::toggled, view,
                         [d = _defaults](bool on) { d->setBool(on, QStringLiteral("ShowWeekNumbers")); });
        auto *firstDay = new QComboBox(view);
        firstDay->addItems({QStringLiteral("Sunday"), QStringLiteral("Monday"), QStringLiteral("Saturday")});
        firstDay->setCurrentIndex(static_cast<int>(_defaults->integerForKey(QStringLiteral("FirstWeekday"))));
        QObject::connect(firstDay, &QComboBox::currentIndexChanged, view,
                         [d = _defaults](int index) { d->setInteger(index, QStringLiteral("FirstWeekday")); });
        auto *reminder = new QSpinBox(view);
        reminder->setRange(0, 1440);
        reminder->setSuffix(QStringLiteral(" minutes before"));
        reminder->setValue(static_cast<int>(_defaults->integerForKey(QStringLiteral("DefaultReminderMinutes"))));
        QObject::connect(reminder, &QSpinBox::valueChanged, view,
                         [d = _defaults](int value) { d->setInteger(value, QStringLiteral("DefaultReminderMinutes")); });
        form->addRow(QString(), weekNumbers);
        form->addRow(QStringLiteral("Start weeks on:"), firstDay);
        form->addRow(QStringLiteral("Default reminder:"), reminder);
        return view;
    }

private:
    std::shared_ptr<ORVUserDefaults> _defaults;
};

class AccountPane : public ORVPreferencesViewController {
public:
    AccountPane(QString accountText, std::function<void()> showPending)
        : _accountText(std::move(accountText)), _showPending(std::move(showPending))
    {
        setTitle(QStringLiteral("Account"));
    }
    QImage image() const override { return paneIcon(QColor(0x2E, 0xA0, 0x6B), QStringLiteral("A")); }
    QString helpAnchor() const override { return QStringLiteral("account-settings"); }
    bool canResize() const override { return true; }
    QSize minSize() const override { return QSize(475, 200); }
    QSize maxSize() const override { return QSize(475, 600); }

protected:
    QWidget *loadView() override
    {
        auto *view = new QWidget;
        auto *layout = new QVBoxLayout(view);
        layout->setContentsMargins(24, 20, 24, 20);
        auto *account = new QLabel(_accountText, view);
        account->setWordWrap(true);
        account->setTextInteractionFlags(Qt::TextSelectableByMouse);
        auto *note = new QLabel(QStringLiteral("Usage reports wait a week before they are sent, so you can review "
                                               "or delete them."),
                                view);
        note->setWordWrap(true);
        auto *pending = new QPushButton(QStringLiteral("Show Pending Reports…"), view);
        QObject::connect(pending, &QPushButton::clicked, view, [show = _showPending] { show(); });
        layout->addWidget(account);
        layout->addSpacing(12);
        layout->addWidget(note);
        layout->addWidget(pending, 0, Qt::AlignLeft);
        layout->addStretch();
        view->setMinimumHeight(220);
        return view;
    }

private:
    QString _accountText;
    std::function<void()> _showPending;
};

// Lets the event loop lay out and paint what was just shown.
void settle(int milliseconds = 150)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

bool save(QWidget *widget, const QString &path)
{
    const bool saved = widget->grab().save(path, "PNG");
    tell(saved ? QStringLiteral("wrote ") + path : QStringLiteral("could not write ") + path);
    return saved;
}

} // namespace

KalendroWindows::KalendroWindows(std::shared_ptr<ORVDataCollectionManager> usage, QString accountText, QObject *parent)
    : QObject(parent), _usage(std::move(usage)), _defaults(ORVUserDefaults::standardUserDefaults()),
      _preferences(std::make_unique<ORVPreferencesWindowController>())
{
    _preferences->addPreferencesViewController(new GeneralPane(_defaults));
    _preferences->addPreferencesViewController(new AccountPane(std::move(accountText), [this] { showPendingReports(); }));
    _preferences->registerDefaults();

    ORVPreferencesWindow *window = _preferences->window();
    QMenu *menu = window->menuBar()->addMenu(QStringLiteral("&Kalendro"));
    menu->addAction(QStringLiteral("Report a Problem…"), this, &KalendroWindows::showCrashReport);
    menu->addAction(QStringLiteral("Pending Reports…"), this, &KalendroWindows::showPendingReports);
    menu->addAction(QStringLiteral("About Kalendro"), this, &KalendroWindows::showAbout);
    menu->addSeparator();
    menu->addAction(QStringLiteral("Quit"), QKeySequence(QKeySequence::Quit), qApp, &QCoreApplication::quit);
}

KalendroWindows::~KalendroWindows()
{
    delete _pendingWindow;
}

void KalendroWindows::show(bool endsTheSample)
{
    // Closing or ordering out the preferences window ends the sample.
    if (endsTheSample)
        connect(_preferences->window(), &ORVPreferencesWindow::willHide, qApp, &QCoreApplication::quit,
                Qt::QueuedConnection);
    _preferences->showWindow();
    tell("showing the preferences window; its Kalendro menu opens the crash report and the pending reports");
}

void KalendroWindows::showCrashReport()
{
    ORVCrashReportWindowController dialog(_defaults, _preferences->window());
    connect(&dialog, &ORVCrashReportWindowController::detailsRequested, &dialog,
            [] { tell("the report's details would show here"); });
    if (dialog.exec() != 1) {
        tell("crash report cancelled");
        return;
    }
    // The application sends the report itself; the sample queues it with
    // the usage reports.
    ORVDataCollectionItem item;
    item.text = QStringLiteral("Problem report: ") + dialog.comments();
    item.category = QStringLiteral("crash-report");
    if (const ORVError error = _usage->addItem(item))
        tell(ORVStringWithFormat("the problem report was not queued: %@", error.localizedDescription()));
    else
        tell("queued the problem report with the usage reports");
}

void KalendroWindows::showPendingReports()
{
    if (!_pendingWindow) {
        auto *view = new ORVDataCollectionPendingItemsViewController(_usage);
        view->setAttribute(Qt::WA_DeleteOnClose);
        view->setWindowTitle(QStringLiteral("Pending Reports"));
        view->resize(560, 320);
        _pendingWindow = view;
        connect(view, &QObject::destroyed, this, [this] { _pendingWindow = nullptr; });
    }
    _pendingWindow->show();
    _pendingWindow->raise();
    _pendingWindow->activateWindow();
}

void KalendroWindows::showAbout()
{
    ORVMAlert alert(_preferences->window());
    alert.setAlertStyle(ORVAlertStyle::Informational);
    alert.setMessageText(QStringLiteral("Kalendro sample"));
    alert.setInformativeText(QStringLiteral("Built on OrvellaKit %1.").arg(ORVOrvellaKitVersionString()));
    alert.addButtonWithTitle(QStringLiteral("OK"));
    alert.runModal();
}

bool KalendroWindows::writeScreenshots(const QString &folder, KalendroSignInWindow *signIn)
{
    QDir().mkpath(folder);
    const QDir dir(folder);
    bool ok = true;

    if (signIn) {
        signIn->show();
        settle();
        ok &= save(signIn, dir.filePath(QStringLiteral("signed-in.png")));
        // The framework's own error for a refused password, beside its field.
        signIn->showSignIn();
        signIn->emailField()->setText(QStringLiteral("demo@kalendro.example"));
        signIn->showError(ORVError(ORVOrvellaTokenManagerErrorDomain, 11,
                                   {{ORVLocalizedFailureReasonErrorKey,
                                     ORVLocalizedString("Invalid email or password. Please try again.")}}));
        settle();
        ok &= save(signIn, dir.filePath(QStringLiteral("sign-in.png")));
        // A device whose key the account does not accept, asking another.
        signIn->showKeyChoices(QStringLiteral("Confirmation code: 482 913\nType it on your other device, where "
                                              "Kalendro now shows this request, and approve there."));
        settle();
        ok &= save(signIn, dir.filePath(QStringLiteral("encryption-key.png")));
        signIn->hide();
    }

    orv_performWithoutAnimation([&] {
        _preferences->showWindow();
        settle();
        ok &= save(_preferences->window(), dir.filePath(QStringLiteral("preferences-general.png")));
        _preferences->selectPreferencesViewController(_preferences->viewControllers().at(1), true);
        settle();
        ok &= save(_preferences->window(), dir.filePath(QStringLiteral("preferences-account.png")));
    });

    // The alert a newer copy shows when an older one is open, as the
    // library builds it.
    const std::unique_ptr<ORVMAlert> alert = ORVDuplicateAppManager::duplicateAlert(false, true);
    alert->show();
    settle();
    ok &= save(alert.get(), dir.filePath(QStringLiteral("alert.png")));
    alert->hide();

    ORVCrashReportWindowController dialog(_defaults);
    dialog.commentsTextView()->setPlainText(QStringLiteral("I was moving an event to next week."));
    dialog.show();
    settle();
    ok &= save(&dialog, dir.filePath(QStringLiteral("crash-report.png")));
    dialog.hide();

    ORVDataCollectionPendingItemsViewController pending(_usage);
    pending.setWindowTitle(QStringLiteral("Pending Reports"));
    pending.resize(560, 320);
    pending.show();
    settle();
    ok &= save(&pending, dir.filePath(QStringLiteral("pending-submissions.png")));
    pending.hide();

    _preferences->window()->hide();
    return ok;
}
