#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

// $VARIABLE when it holds an absolute path (the XDG rule), else HOME/fallback.
QString xdgBase(const char *variable, const char *fallback)
{
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return QDir::cleanPath(QDir::homePath() + QLatin1Char('/') + QLatin1String(fallback));
}

QString ensure(const QString &path, bool create)
{
    if (create && !QDir().mkpath(path))
        return {};
    return path;
}

// A group or bundle identifier becomes one path component.
QString component(QString name)
{
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        name = QStringLiteral("_");
    return name;
}

} // namespace

QString ORVApplicationFolderName()
{
    QString name = ORVBundle::mainBundle().bundleIdentifier();
    if (name.isEmpty())
        name = QCoreApplication::applicationName();
    if (name.isEmpty())
        name = QFileInfo(ORVLaunchExecutablePath()).fileName();
    return component(name);
}

QString ORVUserLibraryDirectory(bool create)
{
    return ensure(xdgBase("XDG_STATE_HOME", ".local/state"), create);
}

QString ORVApplicationSupportDirectory(bool create)
{
    return ensure(xdgBase("XDG_DATA_HOME", ".local/share") + QLatin1Char('/') + ORVApplicationFolderName(), create);
}

QString ORVCachesDirectory(bool create)
{
    return ensure(xdgBase("XDG_CACHE_HOME", ".cache") + QLatin1Char('/') + ORVApplicationFolderName(), create);
}

QString ORVGroupContainerDirectory(const QString &groupIdentifier, bool create)
{
    return ensure(xdgBase("XDG_DATA_HOME", ".local/share") + QStringLiteral("/group-containers/") +
                      component(groupIdentifier),
                  create);
}

QString ORVTemporaryDirectory()
{
    return QDir::tempPath();
}
