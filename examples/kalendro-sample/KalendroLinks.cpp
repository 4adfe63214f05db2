#include "KalendroLinks.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUrlQuery>

#include <utility>

namespace {

const QString kService = QStringLiteral("com.orvella.kalendro.sample");
const QString kPath = QStringLiteral("/SignInLinks");
const QString kInterface = QStringLiteral("com.orvella.kalendro.SignInLinks");
const QString kDesktopFile = QStringLiteral("kalendro-sample.desktop");
const QString kSchemeType = QStringLiteral("x-scheme-handler/kalendro");

// An Exec argument the way desktop entries want it: quoted,
// with `"`, backquote, `$` and `\` escaped by a backslash inside the quotes,
// and then, as every string value, each backslash written twice; a literal
// "%" is "%%".
QString desktopQuoted(const QString &argument)
{
    QString quoted;
    for (const QChar c : argument) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') || c == QLatin1Char('\\'))
            quoted += QLatin1Char('\\');
        quoted += c == QLatin1Char('%') ? QStringLiteral("%%") : QString(c);
    }
    quoted.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
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
    // A plain call with its own time-out: a copy that hangs costs five
    // seconds, not an introspection's twenty-five.
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Open"));
    call << link.toString(QUrl::FullyEncoded);
    const QDBusReply<bool> taken = bus.call(call, QDBus::Block, 5000);
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
    if (!_delivering) {
        _pending = *token;
        return true;
    }
    Q_EMIT magicTokenReceived(*token);
    return true;
}

void KalendroLinkReceiver::startDelivering()
{
    _delivering = true;
    if (!_pending.isEmpty())
        Q_EMIT magicTokenReceived(std::exchange(_pending, QString()));
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
    if (program.contains(QLatin1Char('\n')) || program.contains(QLatin1Char('\r'))) {
        *problem = QStringLiteral("the program's path holds a line break");
        return QString();
    }
    // Read the list first: nothing is written when it cannot be read.
    const QString listPath = QDir(configuration).filePath(QStringLiteral("mimeapps.list"));
    QFile list(listPath);
    QByteArray existing;
    if (list.exists()) {
        if (!list.open(QIODevice::ReadOnly)) {
            *problem = QStringLiteral("cannot read ") + listPath;
            return QString();
        }
        existing = list.readAll();
        list.close();
    }

    const QString entryPath = QDir(applications).filePath(kDesktopFile);
    // A link opens the window; "--" keeps a link that starts with "-" a link.
    const QByteArray entry = QStringLiteral("[Desktop Entry]\n"
                                            "Type=Application\n"
                                            "Name=Kalendro sample\n"
                                            "Comment=Opens Kalendro sign-in links\n"
                                            "Exec=%1 --gui -- %u\n"
                                            "Terminal=false\n"
                                            "NoDisplay=true\n"
                                            "MimeType=%2;\n")
                                 .arg(desktopQuoted(program), kSchemeType)
                                 .toUtf8();
    if (!writePrivately(entryPath, entry)) {
        *problem = QStringLiteral("cannot write ") + entryPath;
        return QString();
    }

    // mimeapps.list, byte for byte but for our one line: in the
    // [Default Applications] group (made when missing) our handler replaces
    // any other for kalendro: links; other groups and lines stay as they are.
    const QByteArray key = kSchemeType.toUtf8() + '=';
    const QByteArray ours = key + kDesktopFile.toUtf8();
    const bool crlf = existing.contains("\r\n");
    QList<QByteArray> lines = existing.isEmpty() ? QList<QByteArray>() : existing.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    const auto trimmed = [](const QByteArray &line) { return line.trimmed(); };
    bool inDefaults = false;
    qsizetype defaults = -1;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray line = trimmed(lines[i]);
        if (line.startsWith('[')) {
            inDefaults = line == "[Default Applications]";
            if (inDefaults && defaults < 0)
                defaults = i;
            continue;
        }
        // "x-scheme-handler/kalendro = old.desktop" is the same key.
        if (inDefaults && line.contains('=') && line.left(line.indexOf('=')).trimmed() + '=' == key)
            lines.remove(i--);
    }
    const QByteArray ending = crlf ? "\r" : "";
    if (defaults < 0) {
        lines << "[Default Applications]" + ending;
        defaults = lines.size() - 1;
    }
    lines.insert(defaults + 1, ours + ending);
    if (!writePrivately(listPath, lines.join('\n') + '\n')) {
        *problem = QStringLiteral("cannot write ") + listPath;
        return QString();
    }
    return entryPath;
}
