#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>
#include <OrvellaKitWidgets/ORVMAlert.h>

#include "ORVApplicationTermination.h"

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QWidget>

#include <unistd.h>

ORV_LOG_FILE(nullptr)

namespace {

// Where this application can be started again: the running executable's
// present place (the kernel follows a renamed folder), when that is still a
// bundle of the same identifier. Empty when it cannot be found.
QString relaunchableExecutable()
{
    char target[4096];
    const ssize_t length = ::readlink("/proc/self/exe", target, sizeof(target) - 1);
    if (length <= 0)
        return {};
    const QString executable = QFile::decodeName(QByteArray(target, static_cast<int>(length)));
    if (executable.endsWith(QLatin1String(" (deleted)")) || !QFileInfo(executable).isExecutable())
        return {};
    const std::shared_ptr<ORVBundle> bundle = ORVBundle::bundleForExecutable(executable);
    if (!bundle || bundle->bundleIdentifier() != ORVBundle::mainBundle().bundleIdentifier())
        return {};
    return executable;
}

} // namespace

bool ORVCheckIfBundleMoved(const ORVBundle &bundle)
{
    return !QFileInfo::exists(bundle.bundlePath());
}

bool ORVCheckIfApplicationMoved(bool showAlert)
{
    orvRegisterFileLogLevel();
    const ORVBundle &main = ORVBundle::mainBundle();
    if (!ORVCheckIfBundleMoved(main))
        return false;
    ORVLogWarn("The application was moved from %@", main.bundlePath());
    if (!showAlert)
        return true;

    const QString name = main.objectForInfoDictionaryKey(QStringLiteral("CFBundleName")).toString();
    const QString executable = relaunchableExecutable();
    ORVMAlert alert;
    alert.setAlertStyle(ORVAlertStyle::Critical);
    alert.setMessageText(ORVStringWithFormat(ORVLocalizedString("%@ has been moved"), name));
    QPushButton *relaunch = nullptr;
    if (!executable.isEmpty()) {
        alert.setInformativeText(ORVStringWithFormat(
            ORVLocalizedString("%1$@ has been moved from where it was originally launched. This can cause unexpected "
                               "behavior. Would you like to quit and reopen %1$@ to avoid problems?"),
            name));
        relaunch = alert.addButtonWithTitle(ORVLocalizedString("Relaunch"));
        alert.setEscapeButton(alert.addButtonWithTitle(ORVLocalizedString("Don't Relaunch")));
    } else {
        alert.setInformativeText(ORVStringWithFormat(
            ORVLocalizedString("%1$@ has been moved from where it was originally launched. This can cause unexpected "
                               "behavior. Please quit and relaunch %1$@."),
            name));
        alert.addButtonWithTitle(ORVLocalizedString("OK"));
    }
    if (QWidget *active = QApplication::activeWindow())
        active->raise();
    alert.runModal();
    if (relaunch && alert.clickedButton() == relaunch) {
        QStringList arguments = QCoreApplication::arguments();
        if (!arguments.isEmpty())
            arguments.removeFirst();
        if (QProcess::startDetached(executable, arguments, QFileInfo(executable).path())) {
            orv::detail::quitApplication();
        } else {
            ORVLogError("Could not relaunch %@", executable);
        }
    }
    return true;
}
