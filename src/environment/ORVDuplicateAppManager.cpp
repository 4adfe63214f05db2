#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>
#include <OrvellaKitWidgets/ORVMAlert.h>

#include "ORVApplicationTermination.h"

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVNotificationCenter.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPixmap>
#include <QPushButton>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

#include <mutex>

#include <unistd.h>

ORV_LOG_FILE(nullptr)

const QString ORVDuplicateAppManagerQuitDuplicatesNotification =
    QStringLiteral("ORVDuplicateAppManagerQuitDuplicatesNotification");
const QString ORVDuplicateAppManagerWillQuitAsDuplicateNotification =
    QStringLiteral("ORVDuplicateAppManagerWillQuitAsDuplicateNotification");

namespace {

constexpr int kQuitChecks = 10;
constexpr int kQuitCheckMilliseconds = 500;

QString duplicateText(const char *text)
{
    return QCoreApplication::translate("DuplicateApp", text);
}

// The target of a /proc/<pid>/exe link; empty when it cannot be read.
QString executableOfProcess(const QString &procRoot, const QString &pid)
{
    const QByteArray link = QFile::encodeName(procRoot + QLatin1Char('/') + pid + QStringLiteral("/exe"));
    char target[4096];
    const ssize_t length = ::readlink(link.constData(), target, sizeof(target) - 1);
    if (length <= 0)
        return {};
    return QFile::decodeName(QByteArray(target, static_cast<int>(length)));
}

// What a process's status file says of it; none when it cannot be read.
struct StatusOfProcess {
    uint effectiveUser = 0;
    qint64 parent = -1;
};
std::optional<StatusOfProcess> statusOfProcess(const QString &procRoot, const QString &pid)
{
    QFile status(procRoot + QLatin1Char('/') + pid + QStringLiteral("/status"));
    if (!status.open(QIODevice::ReadOnly))
        return std::nullopt;
    StatusOfProcess result;
    bool user = false;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("Uid:")) {
            const QList<QByteArray> ids = line.mid(4).simplified().split(' ');
            result.effectiveUser = ids.value(1).toUInt(&user);
        } else if (line.startsWith("PPid:")) {
            bool ok = false;
            const qint64 parent = line.mid(5).trimmed().toLongLong(&ok);
            if (ok)
                result.parent = parent;
        }
    }
    return user ? std::optional<StatusOfProcess>(result) : std::nullopt;
}

// The session bus a process with these variables reaches: the one its
// address names or, without one, the user's bus in its runtime folder,
// where the bus library looks then. Empty when neither is known.
QByteArray sessionBusOf(const QByteArray &address, const QByteArray &runtimeFolder)
{
    if (!address.isEmpty())
        return address;
    if (!runtimeFolder.isEmpty())
        return "unix:path=" + runtimeFolder + "/bus";
    return {};
}

// The variables that place a process in a login session: its session bus
// (where the quit message goes) and its logind session. Read from the
// environment it started with; none when that cannot be read.
struct SessionOfProcess {
    QByteArray bus;
    QByteArray login;
};
std::optional<SessionOfProcess> sessionOfProcess(const QString &procRoot, const QString &pid)
{
    QFile environ(procRoot + QLatin1Char('/') + pid + QStringLiteral("/environ"));
    if (!environ.open(QIODevice::ReadOnly))
        return std::nullopt;
    QByteArray address;
    QByteArray runtimeFolder;
    SessionOfProcess session;
    for (const QByteArray &entry : environ.readAll().split('\0')) {
        if (entry.startsWith("DBUS_SESSION_BUS_ADDRESS="))
            address = entry.mid(25);
        else if (entry.startsWith("XDG_RUNTIME_DIR="))
            runtimeFolder = entry.mid(16);
        else if (entry.startsWith("XDG_SESSION_ID="))
            session.login = entry.mid(15);
    }
    session.bus = sessionBusOf(address, runtimeFolder);
    return session;
}

// Whether a process runs in this process's login session, as a user sees
// it: the same user, the same session bus and, when both know it, the same
// logind session. A process in another session is another desktop's (a
// second seat, a remote login), even when the user's sessions share a bus.
bool runsInThisSession(const QString &procRoot, const QString &pid, bool compareBus = true)
{
    const std::optional<StatusOfProcess> status = statusOfProcess(procRoot, pid);
    if (!status || status->effectiveUser != ::geteuid())
        return false;
    const std::optional<SessionOfProcess> session = sessionOfProcess(procRoot, pid);
    if (!session)
        return false;
    const QByteArray ownBus = sessionBusOf(qgetenv("DBUS_SESSION_BUS_ADDRESS"), qgetenv("XDG_RUNTIME_DIR"));
    const QByteArray ownLogin = qgetenv("XDG_SESSION_ID");
    return (!compareBus || session->bus == ownBus) &&
           (session->login.isEmpty() || ownLogin.isEmpty() || session->login == ownLogin);
}

// This process's executable, as /proc shows it for another process.
QString ownExecutable()
{
    static const QString path = executableOfProcess(QStringLiteral("/proc"), QStringLiteral("self"));
    return path;
}

QString mainBundleString(const char *key)
{
    return ORVBundle::mainBundle().objectForInfoDictionaryKey(QString::fromLatin1(key)).toString();
}

} // namespace

int ORVCompareVersionStrings(const QString &a, const QString &b)
{
    qsizetype i = 0;
    qsizetype j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            // Digit runs compare as numbers: without leading zeros, the
            // longer run is the larger, else the first differing digit.
            while (i < a.size() && a[i] == u'0' && i + 1 < a.size() && a[i + 1].isDigit())
                ++i;
            while (j < b.size() && b[j] == u'0' && j + 1 < b.size() && b[j + 1].isDigit())
                ++j;
            qsizetype ei = i;
            qsizetype ej = j;
            while (ei < a.size() && a[ei].isDigit())
                ++ei;
            while (ej < b.size() && b[ej].isDigit())
                ++ej;
            if (ei - i != ej - j)
                return ei - i < ej - j ? -1 : 1;
            const int digits = QStringView(a).mid(i, ei - i).compare(QStringView(b).mid(j, ej - j));
            if (digits != 0)
                return digits < 0 ? -1 : 1;
            i = ei;
            j = ej;
            continue;
        }
        if (a[i] != b[j])
            return a[i] < b[j] ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size())
        return 1;
    if (j < b.size())
        return -1;
    return 0;
}

std::optional<ORVRunningApplication> ORVFindDuplicateProcess(const QString &bundleIdentifier, const QString &procRoot)
{
    orvRegisterFileLogLevel();
    if (bundleIdentifier.isEmpty())
        return std::nullopt;
    const QDir processes(procRoot);
    const QStringList entries = processes.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    if (entries.isEmpty()) {
        ORVLogWarn("Cannot list the running processes in %@", procRoot);
        return std::nullopt;
    }
    const QString self = QString::number(::getpid());
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric || entry == self)
            continue;
        QString executable = executableOfProcess(procRoot, entry);
        if (executable.isEmpty())
            continue; // gone meanwhile, or another user's
        // A removed or replaced executable is shown with this suffix; its
        // folder decides.
        static const QString deleted = QStringLiteral(" (deleted)");
        if (executable.endsWith(deleted))
            executable.chop(deleted.size());
        const QString folder = QFileInfo(executable).path();
        QString bundlePath;
        if (QFileInfo::exists(QDir(folder).filePath(QStringLiteral("Info.json")))) {
            const std::shared_ptr<ORVBundle> bundle = ORVBundle::bundleWithPath(folder);
            if (!bundle || bundle->bundleIdentifier() != bundleIdentifier)
                continue;
            bundlePath = bundle->bundlePath();
        } else if (executable == ownExecutable() &&
                   ORVBundle::mainBundle().bundleIdentifier() == bundleIdentifier) {
            // An application installed without an Info.json (in /usr/bin,
            // its dictionary set in code): a process of the same executable
            // is a copy of it, unless this copy started it as a helper.
            const std::optional<StatusOfProcess> status = statusOfProcess(procRoot, entry);
            if (status && status->parent == ::getpid())
                continue;
            bundlePath = ORVBundle::mainBundle().bundlePath();
        } else {
            continue;
        }
        if (!QFileInfo::exists(bundlePath) || !runsInThisSession(procRoot, entry))
            continue;
        return ORVRunningApplication{pid, executable, bundlePath};
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------

ORVDuplicateAppManager::ORVDuplicateAppManager()
{
    orvRegisterFileLogLevel();
}

ORVDuplicateAppManager::~ORVDuplicateAppManager()
{
    unregisterApp();
}

std::shared_ptr<ORVDuplicateAppManager>
ORVDuplicateAppManager::sharedManagerMadeBy(const std::function<std::shared_ptr<ORVDuplicateAppManager>()> &make)
{
    static std::once_flag once;
    static std::shared_ptr<ORVDuplicateAppManager> *shared = nullptr;
    std::call_once(once, [&] { shared = new std::shared_ptr<ORVDuplicateAppManager>(make()); });
    return *shared;
}

bool ORVDuplicateAppManager::quitDuplicates(bool quitWithoutAsking)
{
    return sharedManager()->quitDuplicates(quitWithoutAsking, false, QImage());
}

bool ORVDuplicateAppManager::registerApp()
{
    if (_observation)
        return true;
    const QString identifier = ORVBundle::mainBundle().bundleIdentifier();
    if (identifier.isEmpty()) {
        ORVLogWarn("The main bundle has no identifier; other copies cannot ask this one to quit");
        return false;
    }
    _observation = ORVDistributedNotificationCenter::defaultCenter().addObserverWithSenderForName(
        ORVDuplicateAppManagerQuitDuplicatesNotification, identifier,
        [this](const QString &, const QString &, qint64 sender) {
            // The message reaches every copy on the bus, and the user's
            // login sessions may share one: only a copy in this session
            // (one that would find this copy as its duplicate) is obeyed.
            // This copy's own message is not for it, and a sender the bus
            // cannot name (gone already, or a message sent by hand) could
            // be anywhere. The bus itself is shared by construction.
            if (sender == ::getpid())
                return;
            if (sender <= 0 || !runsInThisSession(QStringLiteral("/proc"), QString::number(sender), false)) {
                ORVLogInfo("A process outside this login session (%ld) asked copies to quit; this one stays",
                           static_cast<long>(sender));
                return;
            }
            quitNotificationReceived();
        });
    if (!_observation)
        ORVLogWarn("Other copies of %@ cannot ask this one to quit (no session bus)", identifier);
    return static_cast<bool>(_observation);
}

void ORVDuplicateAppManager::unregisterApp()
{
    if (_observation)
        ORVDistributedNotificationCenter::defaultCenter().removeObserver(std::exchange(_observation, nullptr));
}

void ORVDuplicateAppManager::quitNotificationReceived()
{
    ORVLogInfo("Another copy asked this one to quit");
    ORVNotificationCenter::defaultCenter().postNotificationName(ORVDuplicateAppManagerWillQuitAsDuplicateNotification);
    terminate();
}

void ORVDuplicateAppManager::terminate()
{
    orv::detail::endApplication();
}

void ORVDuplicateAppManager::sendQuitMessage()
{
    const QString identifier = ORVBundle::mainBundle().bundleIdentifier();
    if (!ORVDistributedNotificationCenter::defaultCenter().postNotificationName(
            ORVDuplicateAppManagerQuitDuplicatesNotification, identifier))
        return;
    // The wait keeps the event loop running (windows repaint, the session
    // bus is served), holding back only the user's input until it ends.
    bool gone = false;
    if (QCoreApplication::instance()) {
        QEventLoop loop;
        QTimer check;
        int checks = 0;
        check.setInterval(kQuitCheckMilliseconds);
        QObject::connect(&check, &QTimer::timeout, &loop, [&] {
            gone = !ORVFindDuplicateProcess(identifier);
            if (gone || ++checks == kQuitChecks)
                loop.quit();
        });
        check.start();
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    } else {
        for (int check = 0; check < kQuitChecks && !gone; ++check) {
            QThread::msleep(kQuitCheckMilliseconds);
            gone = !ORVFindDuplicateProcess(identifier);
        }
    }
    if (gone)
        return;
    ORVLogWarn("Another copy of %@ is still running after it was asked to quit", identifier);
}

std::unique_ptr<ORVMAlert> ORVDuplicateAppManager::duplicateAlert(bool requireQuit, bool newer, const QImage &appIcon)
{
    const QString name = mainBundleString("CFBundleExecutable");
    auto alert = std::make_unique<ORVMAlert>();
    alert->setMessageText(ORVStringWithFormat(duplicateText("Another copy of %@ is open"), name));
    if (requireQuit)
        alert->setInformativeText(ORVStringWithFormat(
            duplicateText("You can not have two copies of %@ open at the same time.\n\nWould you like to quit the "
                          "copy you just opened or the one that is already open?"),
            name));
    else if (newer)
        alert->setInformativeText(ORVStringWithFormat(
            duplicateText("An older version of %@ is already open. Would you like to quit the older version?"), name));
    else
        alert->setInformativeText(ORVStringWithFormat(duplicateText("Would you like to quit the other copy?"), name));
    alert->addButtonWithTitle(newer ? duplicateText("Quit Older Version") : duplicateText("Quit Other Copy"));
    alert->addButtonWithTitle(requireQuit ? duplicateText("Quit This Copy") : duplicateText("Ignore"));
    if (!appIcon.isNull())
        alert->setIconPixmap(QPixmap::fromImage(appIcon));
    return alert;
}

bool ORVDuplicateAppManager::quitDuplicates(bool quitWithoutAsking, bool requireQuit, const QImage &appIcon)
{
    const std::optional<ORVRunningApplication> duplicate =
        ORVFindDuplicateProcess(ORVBundle::mainBundle().bundleIdentifier());
    if (!duplicate)
        return false;
    ORVLogInfo("Another copy is running: process %ld in %@", static_cast<long>(duplicate->processIdentifier),
               duplicate->bundlePath);
    if (quitWithoutAsking) {
        unregisterApp();
        sendQuitMessage();
        return false;
    }

    const QString ownVersion = mainBundleString("CFBundleVersion");
    const std::shared_ptr<ORVBundle> other = ORVBundle::bundleWithPath(duplicate->bundlePath);
    const QString otherVersion =
        other ? other->objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString() : QString();
    const bool newer = !ownVersion.isEmpty() && !otherVersion.isEmpty() &&
                       ORVCompareVersionStrings(ownVersion, otherVersion) > 0;

    const std::unique_ptr<ORVMAlert> alert = duplicateAlert(requireQuit, newer, appIcon);
    const int response = alert->runModal();
    if (response == ORVAlertFirstButtonReturn) {
        unregisterApp();
        sendQuitMessage();
    } else if (response == ORVAlertSecondButtonReturn && requireQuit) {
        terminate();
        return true;
    }
    return false;
}
