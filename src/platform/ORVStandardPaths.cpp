#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>

#include <vector>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// $HOME when it is an absolute path other than "/", else the home folder of
// the user's passwd entry; never the file-system root that QDir::homePath()
// falls back to (a service started without HOME, or a container's HOME=/,
// would write its files there).
QString homeFolder()
{
    const QString home = QDir::cleanPath(qEnvironmentVariable("HOME"));
    if (!home.isEmpty() && QDir::isAbsolutePath(home) && home != QLatin1String("/"))
        return home;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(static_cast<size_t>(size > 0 ? size : 16384));
    struct passwd entry {};
    struct passwd *found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir) {
        const QString directory = QFile::decodeName(found->pw_dir);
        if (QDir::isAbsolutePath(directory) && QDir::cleanPath(directory) != QLatin1String("/"))
            return QDir::cleanPath(directory);
    }
    return {};
}

// $VARIABLE when it holds an absolute path (the XDG rule) other than the
// root, which is nobody's folder of their own (as with HOME), else
// home/fallback; a null string when there is no home either.
QString xdgBase(const char *variable, const char *fallback)
{
    const QString value = QDir::cleanPath(qEnvironmentVariable(variable));
    if (!value.isEmpty() && QDir::isAbsolutePath(value) && value != QLatin1String("/"))
        return value;
    const QString home = homeFolder();
    if (home.isEmpty())
        return {};
    return QDir::cleanPath(home + QLatin1Char('/') + QLatin1String(fallback));
}

QString ensure(const QString &path, bool create)
{
    if (path.isEmpty() || (create && !QDir().mkpath(path)))
        return {};
    return path;
}

// Joins a base folder and one component; null when the base is.
QString below(const QString &base, const QString &component)
{
    return base.isEmpty() ? QString() : base + QLatin1Char('/') + component;
}

// A group or bundle identifier becomes one path component, taken literally
// (":", "#", "?" and "%" stay as they are); only "/" and NUL, which cannot
// be part of a file name, are replaced.
QString component(QString name)
{
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    name.replace(QChar(u'\0'), QLatin1Char('_'));
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

QString ORVUserConfigDirectory(bool create)
{
    return ensure(xdgBase("XDG_CONFIG_HOME", ".config"), create);
}

QString ORVUserLibraryDirectory(bool create)
{
    return ensure(xdgBase("XDG_STATE_HOME", ".local/state"), create);
}

QString ORVApplicationSupportDirectory(bool create)
{
    return ensure(below(xdgBase("XDG_DATA_HOME", ".local/share"), ORVApplicationFolderName()), create);
}

QString ORVCachesDirectory(bool create)
{
    return ensure(below(xdgBase("XDG_CACHE_HOME", ".cache"), ORVApplicationFolderName()), create);
}

QString ORVGroupContainerDirectory(const QString &groupIdentifier, bool create)
{
    return ensure(below(below(xdgBase("XDG_DATA_HOME", ".local/share"), QStringLiteral("group-containers")),
                        component(groupIdentifier)),
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
