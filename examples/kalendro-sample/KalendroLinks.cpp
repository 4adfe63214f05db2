#include "KalendroLinks.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUrlQuery>

namespace {

const QString kService = QStringLiteral("com.orvella.kalendro.sample");
const QString kPath = QStringLiteral("/SignInLinks");
const QString kInterface = QStringLiteral("com.orvella.kalendro.SignInLinks");
const QString kDesktopFile = QStringLiteral("kalendro-sample.desktop");
const QString kSchemeType = QStringLiteral("x-scheme-handler/kalendro");

// Quotes an Exec argument as the desktop entry specification wants.
QString desktopQuoted(const QString &argument)
{
    QString quoted = argument;
    for (const char c : {'\\', '"', '`', '$'})
        quoted.replace(QLatin1Char(c), QStringLiteral("\\") + QLatin1Char(c));
    quoted.replace(QLatin1Char('%'), QStringLiteral("%%"));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

bool writePrivately(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.commit();
}

} // namespace

std::optional<QString> kalendroMagicToken(const QUrl &link)
{
    const bool scheme = link.scheme() == QLatin1String("kalendro") && link.host() == QLatin1String("magic");
    QString path = link.path();
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    const bool web = link.scheme() == QLatin1String("https") && path.endsWith(QLatin1String("/magic"));
    const QString token = QUrlQuery(link).queryItemValue(QStringLiteral("token"), QUrl::FullyDecoded);
    if (!(scheme || web) || token.isEmpty() || token.size() > 512)
        return std::nullopt;
    return token;
}

bool kalendroForwardLink(const QUrl &link)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface()->isServiceRegistered(kService))
        return false;
    QDBusInterface receiver(kService, kPath, kInterface, bus);
    receiver.setTimeout(5000);
    const QDBusReply<bool> taken = receiver.call(QStringLiteral("Open"), link.toString(QUrl::FullyEncoded));
    return taken.isValid() && taken.value();
}

bool KalendroLinkReceiver::registerOnSessionBus()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.registerObject(kPath, this, QDBusConnection::ExportScriptableSlots))
        return false;
    if (!bus.registerService(kService)) {
        bus.unregisterObject(kPath);
        return false;
    }
    return true;
}

bool KalendroLinkReceiver::Open(const QString &link)
{
    const auto token = kalendroMagicToken(QUrl(link));
    if (!token)
        return false;
    Q_EMIT magicTokenReceived(*token);
    return true;
}

QString kalendroInstallURLHandler(const QString &program, QString *problem)
{
    const QString applications = QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation);
    const QString configuration = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    if (applications.isEmpty() || configuration.isEmpty() || !QDir().mkpath(applications) ||
        !QDir().mkpath(configuration)) {
        *problem = QStringLiteral("no applications or configuration folder");
        return QString();
    }
    const QString entryPath = QDir(applications).filePath(kDesktopFile);
    const QByteArray entry = QStringLiteral("[Desktop Entry]\n"
                                            "Type=Application\n"
                                            "Name=Kalendro sample\n"
                                            "Comment=Opens Kalendro sign-in links\n"
                                            "Exec=%1 %u\n"
                                            "Terminal=false\n"
                                            "NoDisplay=true\n"
                                            "MimeType=%2;\n")
                                 .arg(desktopQuoted(program), kSchemeType)
                                 .toUtf8();
    if (!writePrivately(entryPath, entry)) {
        *problem = QStringLiteral("cannot write ") + entryPath;
        return QString();
    }
    // mimeapps.list: this handler becomes the default; every other line stays.
    const QString listPath = QDir(configuration).filePath(QStringLiteral("mimeapps.list"));
    QFile list(listPath);
    QStringList lines;
    if (list.open(QIODevice::ReadOnly))
        lines = QString::fromUtf8(list.readAll()).split(QLatin1Char('\n'));
    list.close();
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    lines.removeIf([](const QString &line) { return line.startsWith(kSchemeType + QLatin1Char('=')); });
    qsizetype section = lines.indexOf(QStringLiteral("[Default Applications]"));
    if (section < 0) {
        lines << QStringLiteral("[Default Applications]");
        section = lines.size() - 1;
    }
    lines.insert(section + 1, kSchemeType + QLatin1Char('=') + kDesktopFile);
    if (!writePrivately(listPath, (lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8())) {
        *problem = QStringLiteral("cannot write ") + listPath;
        return QString();
    }
    return entryPath;
}
