#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

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

namespace {
// Makes `path` a directory of our own with mode 0700; false when it is
// anything else (a link, someone else's, not a directory).
bool makePrivateFolder(const QString &path)
{
    if (path.isEmpty())
        return false;
    // A parent that others may write to without the sticky bit would let
    // them swap the folder for one of their own.
    struct stat parent {};
    const QByteArray parentPath = QFile::encodeName(QFileInfo(path).path());
    if (::stat(parentPath.constData(), &parent) != 0 ||
        ((parent.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (parent.st_mode & S_ISVTX) == 0))
        return false;
    const QByteArray native = QFile::encodeName(path);
    if (::mkdir(native.constData(), 0700) != 0 && errno != EEXIST)
        return false;
    struct stat info {};
    if (::lstat(native.constData(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
        return false;
    if ((info.st_mode & 07777) != 0700 && ::chmod(native.constData(), 0700) != 0)
        return false;
    return true;
}
} // namespace

QString ORVPrivateTemporaryDirectory()
{
    const QString caches = ORVCachesDirectory(true);
    if (!caches.isEmpty()) {
        const QString folder = caches + QStringLiteral("/tmp");
        if (makePrivateFolder(folder))
            return folder;
    }
    // The runtime folder is the user's alone by the XDG rules; check anyway.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QDir::isAbsolutePath(runtime)) {
        struct stat info {};
        const QByteArray native = QFile::encodeName(runtime);
        if (::lstat(native.constData(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() &&
            (info.st_mode & 0077) == 0) {
            const QString folder = QDir::cleanPath(runtime) + QLatin1Char('/') + ORVApplicationFolderName();
            if (makePrivateFolder(folder))
                return folder;
        }
    }
    return {};
}
