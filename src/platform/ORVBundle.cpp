#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVJSON.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

namespace {

QString readLaunchExecutablePath()
{
    // Read as early as possible: once the binary is replaced or removed the
    // link gains " (deleted)", and a renamed folder makes it point elsewhere.
    return QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
}

const QString &launchExecutablePath()
{
    static const QString path = readLaunchExecutablePath();
    return path;
}

// Reads the path while the library is being loaded, before main() runs.
[[maybe_unused]] const QString &kLaunchPath = launchExecutablePath();

constexpr qint64 kMaxInfoSize = 1 << 20;

// The main bundle's dictionary is read when the application object is made,
// while the bundle is surely where it was launched from: a moved application
// still knows its name and identifier.
void readMainBundleAtStart()
{
    (void)ORVBundle::mainBundle().infoDictionary();
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(readMainBundleAtStart)

QString ORVLaunchExecutablePath()
{
    return launchExecutablePath();
}

ORVBundle::ORVBundle(QString bundlePath, QString executablePath)
    : _bundlePath(std::move(bundlePath)), _executablePath(std::move(executablePath))
{
}

ORVBundle &ORVBundle::mainBundle()
{
    static ORVBundle *bundle = [] {
        const QString executable = launchExecutablePath();
        return new ORVBundle(QFileInfo(executable).absolutePath(), executable);
    }();
    return *bundle;
}

std::shared_ptr<ORVBundle> ORVBundle::bundleWithPath(const QString &path)
{
    const QFileInfo info(path);
    if (path.isEmpty() || !info.isDir())
        return nullptr;
    return std::make_shared<ORVBundle>(info.absoluteFilePath());
}

std::shared_ptr<ORVBundle> ORVBundle::bundleForExecutable(const QString &executablePath)
{
    const QFileInfo executable(executablePath);
    const QString folder = executable.absolutePath();
    if (!QFileInfo::exists(folder + QStringLiteral("/Info.json")))
        return nullptr;
    return std::make_shared<ORVBundle>(folder, executable.absoluteFilePath());
}

QString ORVBundle::bundlePath() const
{
    std::lock_guard lock(_lock);
    return _bundlePath;
}

QString ORVBundle::executablePath() const
{
    {
        std::lock_guard lock(_lock);
        if (!_executablePath.isEmpty())
            return _executablePath;
    }
    const QString name = objectForInfoDictionaryKey(QStringLiteral("CFBundleExecutable")).toString();
    if (name.isEmpty())
        return {};
    std::lock_guard lock(_lock);
    return QDir(_bundlePath).filePath(name);
}

void ORVBundle::loadIfNeeded() const
{
    if (_loaded)
        return;
    _loaded = true;
    QFile file(QDir(_bundlePath).filePath(QStringLiteral("Info.json")));
    if (!file.exists())
        return;
    if (!file.open(QIODevice::ReadOnly)) {
        _loadError = file.errorString();
        return;
    }
    if (file.size() > kMaxInfoSize) {
        _loadError = QStringLiteral("Info.json is larger than %1 bytes").arg(kMaxInfoSize);
        return;
    }
    ORVError error;
    const auto object = orv_JSONDictionaryWithData(file.readAll(), &error);
    if (!object) {
        _loadError = error.userInfo().value(QStringLiteral("NSDebugDescription"),
                                            QStringLiteral("Info.json does not hold a JSON object")).toString();
        return;
    }
    _info = object->toVariantMap();
}

QVariantMap ORVBundle::infoDictionary() const
{
    std::lock_guard lock(_lock);
    loadIfNeeded();
    return _info;
}

void ORVBundle::setInfoDictionary(const QVariantMap &info)
{
    std::lock_guard lock(_lock);
    _loaded = true;
    _loadError.clear();
    _info = info;
}

QVariant ORVBundle::objectForInfoDictionaryKey(const QString &key) const
{
    std::lock_guard lock(_lock);
    loadIfNeeded();
    return _info.value(key);
}

QString ORVBundle::bundleIdentifier() const
{
    const QVariant value = objectForInfoDictionaryKey(QStringLiteral("CFBundleIdentifier"));
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

QStringList ORVBundle::preferredLocalizations() const
{
    const QVariantMap info = infoDictionary();
    QString development = info.value(QStringLiteral("CFBundleDevelopmentRegion")).toString();
    if (development.isEmpty())
        development = QStringLiteral("en");
    QStringList available = info.value(QStringLiteral("CFBundleLocalizations")).toStringList();
    available.removeAll(QString());
    if (available.isEmpty())
        available << development;
    auto normalized = [](QString tag) { return tag.replace(u'_', u'-').toLower(); };
    for (const QString &language : QLocale().uiLanguages()) {
        const QString wanted = normalized(language);
        for (const QString &candidate : available) {
            if (normalized(candidate) == wanted)
                return {candidate};
        }
        const QString base = wanted.section(u'-', 0, 0);
        for (const QString &candidate : available) {
            if (normalized(candidate).section(u'-', 0, 0) == base)
                return {candidate};
        }
    }
    return {available.contains(development) ? development : available.first()};
}

QString ORVBundle::loadError() const
{
    std::lock_guard lock(_lock);
    loadIfNeeded();
    return _loadError;
}
