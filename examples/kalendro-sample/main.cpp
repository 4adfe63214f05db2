// Kalendro sample: the start-up sequence of a hosting application.
//
// It registers its platform coordinator and its account blocks, as an
// application does early in its launch, and prints what it did.

#include "KalendroAccount.h"

#include <OrvellaKit/OrvellaKit.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QTextStream>
#include <QTimer>

ORV_LOG_FILE("Kalendro")

namespace {

class KalendroCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("Kalendro"); }
    QString appGroupIdentifier() const override { return QString(); }
};

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void say(const QString &line)
{
    out() << "kalendro-sample: " << line << Qt::endl;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("kalendro-sample"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Kalendro sample hosting application"));
    parser.addHelpOption();
    parser.process(app);

    const ORVBundle &bundle = ORVBundle::mainBundle();
    say(ORVStringWithFormat("OrvellaKit %@, bundle %@ (version %@) at %@", ORVOrvellaKitVersionString(),
                            bundle.bundleIdentifier(), bundle.objectForInfoDictionaryKey("CFBundleVersion"),
                            bundle.bundlePath()));
    if (!bundle.loadError().isNull())
        say(ORVStringWithFormat("Info.json could not be read: %@", bundle.loadError()));

    // 1. The platform coordinator.
    auto coordinator = std::make_shared<KalendroCoordinator>();
    ORVRegisterPlatformCoordinator(coordinator);
    auto registered = ORVCoordinator::platformCoordinator();
    say(ORVStringWithFormat("registered platform coordinator for %@ (default log level %lu, group \"%@\")",
                            registered->appName(), registered->prefererredDefaultLogLevel(),
                            registered->appGroupIdentifier()));

    // 2. Logging: the launch banner goes to the log file, errors also to syslog.
    ORVDebug::sharedDebug()->setupLogging();
    orvRegisterFileLogLevel();
    ORVLogError("Kalendro sample started with OrvellaKit %@", ORVOrvellaKitVersionString());
    ORVDebug::sharedDebug()->fileLogger()->flush();
    say(ORVStringWithFormat("logging set up at level %lu; log files in %@:",
                            ORVDebug::sharedDebug()->logLevel(),
                            ORVDebug::sharedDebug()->logsDirectoryURL().toLocalFile()));
    for (const QString &path : ORVDebug::sharedDebug()->fileLogger()->sortedLogFilePaths())
        say(QStringLiteral("  ") + path);

    // 3. The account blocks: the application owns the account and its storage.
    auto current = std::make_shared<KalendroAccount>(QStringLiteral("local-1"), std::nullopt, QString(),
                                                     ORVOrvellaAccountTypeNone, QStringLiteral("127.0.0.1"));
    ORVRegisterOrvellaAccountFetchBlock([&current] { return std::static_pointer_cast<ORVOrvellaAccount>(current); });
    ORVRegisterOrvellaAccountSaveBlock([&current](std::shared_ptr<ORVOrvellaAccount> account,
                                                  ORVOrvellaAccountSaveCompletion completion) {
        current = std::static_pointer_cast<KalendroAccount>(account->copy());
        if (completion)
            completion(ORVError());
    });
    say(QStringLiteral("registered account fetch and save blocks"));

    auto fetched = std::static_pointer_cast<KalendroAccount>(ORVFetchOrvellaAccount());
    say(ORVStringWithFormat("current account: %@ (API at %@)", fetched->description(), fetched->serverURLForAPIAccess()));

    auto renamed = fetched->copy();
    renamed->setDisplayName(QStringLiteral("Kalendro User"));
    ORVSaveOrvellaAccount(renamed, [](const ORVError &error) {
        say(ORVStringWithFormat("saved account, error: %@", error));
    });
    say(ORVStringWithFormat("display name after save: %@", ORVFetchOrvellaAccount()->displayName()));

    // 4. A background activity around start-up work.
    auto activity = registered->beginBackgroundTaskWithName(QStringLiteral("Kalendro start-up"));
    say(ORVStringWithFormat("began background activity \"%@\" (%@)", activity->reason(),
                            activity->isInhibiting() ? "logind inhibitor lock held" : "logind not reachable, no lock"));
    registered->endBackgroundTask(activity);

    say(ORVStringWithFormat("data folder %@", ORVApplicationSupportDirectory(false)));

    // The main queue runs once the event loop does.
    ORVDispatchQueue::mainQueue()->async([] {
        say(QStringLiteral("start-up finished on the main queue"));
        QCoreApplication::quit();
    });
    return QApplication::exec();
}
