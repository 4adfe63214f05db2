// A small application for the duplicate-copy and moved-application tests.
// Copied into bundle folders (beside an Info.json) and started as separate
// processes; it reports what happens on standard output, one line per event.
//
//   orv_duplicate_helper wait
//       registers for the quit message and runs until told to quit
//   orv_duplicate_helper wait-with-alert
//       the same, with an alert open that has no Escape button (so it
//       refuses to be closed)
//   orv_duplicate_helper alert-before-exec
//       registers, then runs such an alert before the event loop starts
//
// With ORV_HELPER_INFO set (a JSON object), the helper sets its info
// dictionary itself, as an application installed without an Info.json.
//   orv_duplicate_helper quit-duplicates Q R ANSWER
//       registers, then runs quitDuplicates(Q, R) answering its alert with
//       the button titled ANSWER
//   orv_duplicate_helper check-moved ANSWER [LOG]
//       waits for a line (or the end) on standard input, then checks whether
//       it was moved, answering the alert with ANSWER; every start is
//       appended to LOG

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVNotificationCenter.h>
#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>
#include <OrvellaKitWidgets/ORVMAlert.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPushButton>
#include <QTextStream>
#include <QTimer>

#include <csignal>
#include <iostream>
#include <string>

namespace {

void say(const QString &line)
{
    QTextStream out(stdout);
    out << line << Qt::endl;
}

class HelperManager : public ORVDuplicateAppManager {
protected:
    void terminate() override
    {
        say("terminating");
        ORVDuplicateAppManager::terminate();
    }
};

// Prints every alert's texts and answers it with the button titled `answer`.
void answerAlerts(const QString &answer)
{
    ORVNotificationCenter::defaultCenter().addObserverForName(
        ORVMAlertWillShowNotification, QVariant(), nullptr, [answer](const ORVNotification &notification) {
            auto *alert = static_cast<ORVMAlert *>(notification.object.value<void *>());
            QStringList titles;
            for (QPushButton *button : alert->alertButtons())
                titles << button->text();
            say("alert-message: " + alert->messageText());
            say("alert-informative: " + alert->informativeText().replace('\n', "\\n"));
            say("alert-buttons: " + titles.join('|'));
            QTimer::singleShot(0, alert, [alert, answer] {
                for (QPushButton *button : alert->alertButtons())
                    if (button->text() == answer)
                        return button->click();
                say("no button titled " + answer);
            });
        });
}

// Runs an alert that refuses to be closed (no Escape button) until
// something ends its loop.
void runAlertWithoutEscape()
{
    ORVMAlert alert;
    alert.setMessageText(QStringLiteral("Unsaved changes"));
    alert.addButtonWithTitle(QStringLiteral("Save"));
    alert.addButtonWithTitle(QStringLiteral("Keep Editing"));
    QTimer::singleShot(100, [] { say("alert-open"); });
    say(QStringLiteral("alert answered %1").arg(alert.runModal()));
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // A relaunched copy inherits the test's output pipe, which closes when
    // the first copy ends; writing to it must not kill the new one.
    std::signal(SIGPIPE, SIG_IGN);
    QApplication app(argc, argv);
    ORVInstallTranslations(QLocale());
    const QStringList arguments = QCoreApplication::arguments();
    const QString mode = arguments.value(1);
    // Nothing here may hang a test run.
    QTimer::singleShot(30000, &app, [] {
        say("timed out");
        QCoreApplication::exit(3);
    });
    if (const QByteArray info = qgetenv("ORV_HELPER_INFO"); !info.isEmpty())
        ORVBundle::mainBundle().setInfoDictionary(QJsonDocument::fromJson(info).object().toVariantMap());
    auto manager = ORVDuplicateAppManager::sharedManager<HelperManager>();
    ORVNotificationCenter::defaultCenter().addObserverForName(
        ORVDuplicateAppManagerWillQuitAsDuplicateNotification, QVariant(), nullptr,
        [](const ORVNotification &) { say("will-quit-as-duplicate"); });

    if (mode == "wait") {
        say(manager->registerApp() ? "registered: yes" : "registered: no");
    } else if (mode == "wait-with-alert") {
        say(manager->registerApp() ? "registered: yes" : "registered: no");
        QTimer::singleShot(0, &app, [] { runAlertWithoutEscape(); });
    } else if (mode == "alert-before-exec") {
        // An alert run during start-up, before the event loop; start-up
        // goes on when it ends.
        say(manager->registerApp() ? "registered: yes" : "registered: no");
        runAlertWithoutEscape();
        say("start-up goes on");
    } else if (mode == "quit-duplicates") {
        const bool quitWithoutAsking = arguments.value(2) == "1";
        const bool requireQuit = arguments.value(3) == "1";
        answerAlerts(arguments.value(4));
        say(manager->registerApp() ? "registered: yes" : "registered: no");
        QTimer::singleShot(0, &app, [&app, manager, quitWithoutAsking, requireQuit] {
            QElapsedTimer timer;
            timer.start();
            // Counts how often the event loop got to run meanwhile.
            int ticks = 0;
            QTimer ticker;
            QObject::connect(&ticker, &QTimer::timeout, [&ticks] { ++ticks; });
            ticker.start(100);
            const bool ending = manager->quitDuplicates(quitWithoutAsking, requireQuit, QImage());
            say(QStringLiteral("returned after %1 ms, %2 ticks, this copy ends: %3")
                    .arg(timer.elapsed())
                    .arg(ticks)
                    .arg(ending ? "yes" : "no"));
            QTimer::singleShot(200, &app, &QCoreApplication::quit);
        });
    } else if (mode == "check-moved") {
        if (arguments.size() > 3) {
            QFile log(arguments.value(3));
            if (log.open(QIODevice::Append))
                log.write((ORVLaunchExecutablePath() + '\n').toUtf8());
        }
        answerAlerts(arguments.value(2));
        say("ready");
        std::string line;
        std::getline(std::cin, line);
        say(ORVCheckIfBundleMoved(ORVBundle::mainBundle()) ? "bundle-moved: yes" : "bundle-moved: no");
        QTimer::singleShot(0, &app, [] {
            say(ORVCheckIfApplicationMoved(true) ? "application-moved: yes" : "application-moved: no");
            QTimer::singleShot(100, qApp, &QCoreApplication::quit);
        });
    } else {
        say("unknown mode " + mode);
        return 2;
    }
    const int status = QApplication::exec();
    say("exited");
    return status;
}
