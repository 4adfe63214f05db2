// Runs the sample application as a real process, with every log level at
// verbose, through account creation, password sign-in, the key check, and a
// second run that exchanges the device credential for a fresh token. Then
// reads every log file, the command log and the process's output, and looks
// for the password, the device tokens and the access tokens.

#include "OrvTestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

using namespace orv::test;

namespace {

const QString kPassword = QStringLiteral("Kalendro-Secret-Passphrase-77");

class SampleSecurityTest : public XdgHomeTest {
protected:
    // Runs the sample with `arguments`; its output is kept for the scan.
    int runSample(const QStringList &arguments)
    {
        // Without the session bus the secrets go to the private file the
        // test can read back, not to a keyring of the machine's session.
        const ProcessResult run = runOffscreenProgram(
            QStringLiteral(KALENDRO_SAMPLE_PATH),
            QStringList{"--verbose", "--email", "ada@example.org", "--password", kPassword} + arguments);
        EXPECT_TRUE(run.finished);
        output += run.output;
        return run.exitCode;
    }

    QString dataFolder() const { return home.filePath(".local/share/com.orvella.kalendro.sample"); }

    // Every secret the run produced: the password, the device tokens the
    // server knows and the stored device credential and access token.
    QStringList secrets() const
    {
        QStringList found{kPassword};
        QFile serverState(QDir(dataFolder()).filePath("embedded-account-server.json"));
        if (serverState.open(QIODevice::ReadOnly))
            found += QJsonDocument::fromJson(serverState.readAll()).object().value("devices").toObject().keys();
        QFile secretsFile(QDir(dataFolder()).filePath("secrets.json"));
        if (secretsFile.open(QIODevice::ReadOnly)) {
            const QJsonObject stored = QJsonDocument::fromJson(secretsFile.readAll()).object();
            for (auto it = stored.begin(); it != stored.end(); ++it) {
                if (it.key().startsWith("device-token/") || it.key().startsWith("access-token/"))
                    found << it.value().toString();
            }
        }
        return found;
    }

    // Runs `script` (sh; $0 is the sample, then `arguments`) in a session
    // bus of its own with gnome-keyring-daemon unlocked and named on it.
    // Standard output and error, merged; the exit code in `exitCode`.
    QString runInKeyringSession(const QString &script, const QStringList &arguments, int *exitCode)
    {
        const QString keyring = QStringLiteral(
            "printf %s keyring-password-for-tests | gnome-keyring-daemon --unlock --components=secrets >/dev/null\n"
            // The daemon may take its name on the bus a moment after it returns.
            "for i in $(seq 100); do\n"
            "  dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \\\n"
            "    org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets | grep -q 'boolean true' && break\n"
            "  sleep 0.1\n"
            "done\n");
        QProcess session;
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        // libsecret answers through GLib's main loop, which Qt runs only with
        // its GLib event dispatcher (the ThreadSanitizer preset turns it off).
        environment.remove(QStringLiteral("QT_NO_GLIB"));
        session.setProcessEnvironment(environment);
        session.setProcessChannelMode(QProcess::MergedChannels);
        session.start(QStringLiteral("dbus-run-session"),
                      QStringList{"--", "sh", "-c", keyring + script, QStringLiteral(KALENDRO_SAMPLE_PATH)} + arguments);
        const bool finished = session.waitForFinished(110000);
        EXPECT_TRUE(finished);
        *exitCode = finished ? session.exitCode() : -1;
        return QString::fromUtf8(session.readAll());
    }

    // Every log file and the command log, by name relative to the home.
    std::map<QString, QString> logs() const
    {
        std::map<QString, QString> found;
        QDirIterator files(home.filePath(".local/state/Logs"), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            QFile file(path);
            if (file.open(QIODevice::ReadOnly))
                found[QDir(home.path()).relativeFilePath(path)] = QString::fromUtf8(file.readAll());
        }
        return found;
    }

    QString output;
};

} // namespace

TEST_F(SampleSecurityTest, NoSecretReachesLogsCommandLogOrOutput)
{
    ASSERT_EQ(runSample({}), 0) << qPrintable(output);
    ASSERT_EQ(runSample({"--refresh"}), 0) << qPrintable(output);
    EXPECT_TRUE(output.contains("exchanging the device credential for a fresh access token"));
    EXPECT_TRUE(output.contains("encryption key accepted"));

    const QStringList known = secrets();
    // The password, one device token (rotated once) and an access token at
    // least: otherwise the scan below would prove nothing.
    ASSERT_GE(known.size(), 3);
    const auto hasDeviceToken = [&] { return known.filter(QRegularExpression("^dev-")).size() >= 1; };
    const auto hasAccessToken = [&] { return known.filter(QRegularExpression("^eyJ")).size() >= 1; };
    ASSERT_TRUE(hasDeviceToken());
    ASSERT_TRUE(hasAccessToken());
    QFile secretsFile(QDir(dataFolder()).filePath("secrets.json"));
    EXPECT_EQ(secretsFile.permissions() & (QFileDevice::ReadGroup | QFileDevice::ReadOther), QFileDevice::Permissions());

    // Every file under the logs folder: the log files and the command log.
    std::map<QString, QString> scanned = logs();
    scanned[QStringLiteral("process output")] = output;
    ASSERT_TRUE(std::any_of(scanned.begin(), scanned.end(), [](const auto &e) { return e.first.endsWith("commands.log"); }));
    ASSERT_GE(scanned.size(), 3u);
    // The verbose logs did record the exchanges.
    bool sawRefresh = false;
    for (const auto &[name, text] : scanned)
        sawRefresh = sawRefresh || text.contains("Orvella token refresh");
    EXPECT_TRUE(sawRefresh);

    // Access tokens are JWTs ("eyJ..."), device tokens "dev-<uuid>": the
    // patterns also catch tokens rotated away before the end of the run.
    const QRegularExpression tokenPattern(QStringLiteral("eyJ[A-Za-z0-9_-]{10,}|dev-[0-9a-f]{8}-"));
    for (const auto &[name, text] : scanned) {
        for (int i = 0; i < known.size(); ++i) {
            // The test names the kind of secret, never the secret itself.
            EXPECT_FALSE(text.contains(known[i])) << "secret #" << i << " found in " << qPrintable(name);
        }
        EXPECT_FALSE(tokenPattern.match(text).hasMatch()) << "a token found in " << qPrintable(name);
    }
}

TEST_F(SampleSecurityTest, QueuesOneUsageReportAtLaunch)
{
    ASSERT_EQ(runSample({}), 0) << qPrintable(output);
    QFile queueFile(QDir(dataFolder()).filePath("PendingSubmissions.json"));
    ASSERT_TRUE(queueFile.open(QIODevice::ReadOnly));
    const QJsonArray queued = QJsonDocument::fromJson(queueFile.readAll()).array();
    ASSERT_EQ(queued.size(), 1);
    const QJsonObject report = queued[0].toObject();
    EXPECT_EQ(report.value("category").toString(), "launch");
    EXPECT_EQ(report.value("text").toString(), "Kalendro sample launched");
    // Due a week after the launch, counted from 2001-01-01 UTC.
    const double due = report.value("scheduledSubmissionDate").toDouble();
    const double now = QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC).msecsTo(QDateTime::currentDateTimeUtc()) / 1000.0;
    EXPECT_NEAR(due - now, 604800, 120);
}

// A sign-in through a real browser (headless Chromium, recording its network
// log): the code, state, nonce and PKCE challenge it carried, and the ID
// token, appear in no log, in the command log, in the sample's output or in
// its secrets file.
TEST_F(SampleSecurityTest, BrowserSignInLeavesNoCodeStateNonceOrIDTokenBehind)
{
    const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
    ASSERT_FALSE(chromium.isEmpty()) << "Debian's chromium package is needed (scripts/debian-packages.txt)";
    const QString netLog = home.filePath("browser-net-log.json");
    const QString browser = QStringLiteral("%1 --headless=new --no-sandbox --disable-gpu --no-first-run "
                                           "--user-data-dir=%2 --log-net-log=%3 --dump-dom")
                                .arg(chromium, home.filePath("browser-profile"), netLog);
    ASSERT_EQ(runSample({"--sign-in-with", "google", "--approve-as", "grace@example.org", "--browser", browser}), 0)
        << qPrintable(output);
    EXPECT_TRUE(output.contains("signed in: user grace <grace@example.org>"));

    // The browser ends on its own, after the sample; its log is whole once it parses.
    QByteArray recorded;
    EXPECT_TRUE(waitUntil([&] {
        QFile file(netLog);
        recorded = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        return QJsonDocument::fromJson(recorded).isObject();
    }, 60s));
    QStringList carried;
    const QRegularExpression parameter(QStringLiteral("[?&](code|state|nonce|code_challenge)=([A-Za-z0-9_-]{20,})"));
    for (auto it = parameter.globalMatch(QString::fromUtf8(recorded)); it.hasNext();)
        carried << it.next().captured(2);
    carried.removeDuplicates();
    // The code, the state (in the request and the redirect), the nonce and the challenge.
    ASSERT_GE(carried.size(), 4) << "the browser's network log shows no sign-in";

    std::map<QString, QString> scanned = logs();
    // All of it, Qt's own messages included (the browser prints elsewhere).
    scanned[QStringLiteral("process output")] = output;
    QFile secretsFile(QDir(dataFolder()).filePath("secrets.json"));
    ASSERT_TRUE(secretsFile.open(QIODevice::ReadOnly));
    const QString secretsText = QString::fromUtf8(secretsFile.readAll());
    for (const auto &[name, text] : scanned) {
        for (int i = 0; i < carried.size(); ++i)
            EXPECT_FALSE(text.contains(carried[i])) << "sign-in value #" << i << " found in " << qPrintable(name);
        EXPECT_FALSE(text.contains(QStringLiteral("eyJ"))) << "a JSON Web Token found in " << qPrintable(name);
    }
    for (int i = 0; i < carried.size(); ++i)
        EXPECT_FALSE(secretsText.contains(carried[i])) << "sign-in value #" << i << " kept in secrets.json";
}

// The sample with a real keyring: gnome-keyring-daemon, unlocked, on the
// session bus of a dbus-run-session of the test's own. The device
// credential, the access token and the encryption key are read back from
// the keyring with secret-tool, and no file under the home holds them.
TEST_F(SampleSecurityTest, SecretsGoToTheKeyringAndToNoFile)
{
    for (const char *tool : {"dbus-run-session", "gnome-keyring-daemon", "secret-tool"})
        ASSERT_FALSE(QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
            << tool << " is needed (scripts/debian-packages.txt)";
    QTemporaryDir outside; // the read-back lands outside the scanned home
    ASSERT_TRUE(outside.isValid());
    const QString readBack = outside.filePath("keyring.txt");
    const QString script = QStringLiteral("set -e\n"
                                          "\"$0\" --verbose --email ada@example.org --password \"$1\"\n"
                                          "secret-tool lookup server kalendro-sample user secrets > \"$2\"\n");
    int exitCode = -1;
    output = runInKeyringSession(script, {kPassword, readBack}, &exitCode);
    ASSERT_EQ(exitCode, 0) << qPrintable(output);
    EXPECT_TRUE(output.contains("secrets go to the Secret Service (keyring)")) << qPrintable(output);
    EXPECT_FALSE(output.contains("did not store")) << qPrintable(output);

    QFile stored(readBack);
    ASSERT_TRUE(stored.open(QIODevice::ReadOnly));
    // QtKeychain keeps binary data base64-encoded.
    const QJsonObject secretsInKeyring =
        QJsonDocument::fromJson(QByteArray::fromBase64(stored.readAll().trimmed())).object();
    QStringList values;
    for (const char *prefix : {"device-token/", "access-token/", "encryption-key/"}) {
        const QStringList keys = secretsInKeyring.keys().filter(QRegularExpression(QStringLiteral("^") + prefix));
        ASSERT_EQ(keys.size(), 1) << prefix << " is not in the keyring";
        values << secretsInKeyring.value(keys.first()).toString();
    }
    // The key as the ubiquitous store would hold it, too.
    values << QString::fromLatin1(QByteArray::fromBase64(values.last().toLatin1()).toBase64());

    QDirIterator files(home.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    int scanned = 0;
    while (files.hasNext()) {
        QFile file(files.next());
        // The embedded server's database is the server's side: it knows the
        // device tokens it issued, as a real server does on its own machine.
        if (file.fileName().endsWith("embedded-account-server.json"))
            continue;
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(file.fileName());
        const QByteArray content = file.readAll();
        ++scanned;
        for (int i = 0; i < values.size(); ++i)
            EXPECT_FALSE(content.contains(values[i].toUtf8()))
                << "secret #" << i << " found in " << qPrintable(QDir(home.path()).relativeFilePath(file.fileName()));
    }
    EXPECT_GE(scanned, 4); // the account, the queue, the logs and the command log at least
    EXPECT_FALSE(QFile::exists(QDir(dataFolder()).filePath("secrets.json")));
}

// A sign-in link from the embedded server's mail, opened while a copy runs:
// the second copy hands it over the session bus (its own bus here) and
// ends; the running copy signs in with it. The link's token appears in no
// log and in neither copy's output.
TEST_F(SampleSecurityTest, SignInLinkGoesToTheRunningCopyAndIsNeverLogged)
{
    ASSERT_EQ(runSample({"--email-link", "--email", "grace@example.org"}), 0) << qPrintable(output);
    const QString mailbox = QDir(dataFolder()).filePath("Mail");
    const QStringList mails = QDir(mailbox).entryList(QDir::Files);
    ASSERT_EQ(mails.size(), 1);
    QFile mail(QDir(mailbox).filePath(mails.first()));
    EXPECT_EQ(mail.permissions() & (QFileDevice::ReadGroup | QFileDevice::ReadOther), QFileDevice::Permissions());
    ASSERT_TRUE(mail.open(QIODevice::ReadOnly));
    const QString link = QRegularExpression(QStringLiteral("kalendro://magic\\?token=\\S+"))
                             .match(QString::fromUtf8(mail.readAll()))
                             .captured(0);
    const QString token = link.section(QLatin1Char('='), 1);
    ASSERT_GE(token.size(), 20) << "no link in the mail";

    QTemporaryDir outside;
    ASSERT_TRUE(outside.isValid());
    const QString runningOutput = outside.filePath("running.txt");
    // The running copy is ended with SIGTERM, as a session's end would, and
    // must write its logs out and end with 0; a second link while signed in
    // is not used.
    const QString script = QStringLiteral(
        "\"$0\" --gui --verbose > \"$2\" 2>&1 &\n"
        "running=$!\n"
        "trap 'kill $running 2>/dev/null' EXIT\n"
        "for i in $(seq 400); do grep -q 'come to this copy over the session bus' \"$2\" && break; sleep 0.1; done\n"
        "\"$0\" --verbose \"$1\"\n"
        "for i in $(seq 400); do grep -q 'encryption key accepted' \"$2\" && break; sleep 0.1; done\n"
        "\"$0\" \"$1\"\n"
        "for i in $(seq 100); do grep -q 'not used, as an account is signed in' \"$2\" && break; sleep 0.1; done\n"
        "kill -TERM $running; wait $running; echo \"running copy ended with $?\"\n");
    int exitCode = -1;
    const QString opener = runInKeyringSession(script, {link, runningOutput}, &exitCode);
    QFile runningFile(runningOutput);
    ASSERT_TRUE(runningFile.open(QIODevice::ReadOnly));
    const QString running = QString::fromUtf8(runningFile.readAll());
    EXPECT_TRUE(opener.contains("handed the sign-in link to the copy that is already running")) << qPrintable(opener);
    EXPECT_FALSE(opener.contains("signing in")) << qPrintable(opener);
    EXPECT_TRUE(running.contains("a later copy handed over a sign-in link")) << qPrintable(running);
    EXPECT_TRUE(running.contains("signed in: user grace <grace@example.org>")) << qPrintable(running);
    EXPECT_TRUE(running.contains("not used, as an account is signed in")) << qPrintable(running);
    EXPECT_TRUE(opener.contains("running copy ended with 0")) << qPrintable(opener) << qPrintable(running);

    std::map<QString, QString> scanned = logs();
    scanned[QStringLiteral("first run's output")] = output;
    scanned[QStringLiteral("opening copy's output")] = opener;
    scanned[QStringLiteral("running copy's output")] = running;
    for (const auto &[name, text] : scanned)
        EXPECT_FALSE(text.contains(token)) << "the link's token found in " << qPrintable(name);
}

// The desktop learns that kalendro: links open the sample; what
// mimeapps.list held before stays.
TEST_F(SampleSecurityTest, InstallsItselfAsTheHandlerOfKalendroLinks)
{
    QDir().mkpath(home.filePath(".config"));
    QFile list(home.filePath(".config/mimeapps.list"));
    ASSERT_TRUE(list.open(QIODevice::WriteOnly));
    list.write("[Added Associations]\r\nx-scheme-handler/kalendro=other.desktop;\r\n\r\n[Default Applications]\r\n"
               "x-scheme-handler/kalendro=old.desktop\r\ntext/html=browser.desktop\r\n");
    list.close();
    ASSERT_EQ(runSample({"--install-url-handler"}), 0) << qPrintable(output);
    QFile entry(home.filePath(".local/share/applications/kalendro-sample.desktop"));
    ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
    const QString desktop = QString::fromUtf8(entry.readAll());
    EXPECT_TRUE(desktop.contains("MimeType=x-scheme-handler/kalendro;"));
    EXPECT_TRUE(desktop.contains(QStringLiteral("Exec=\"%1\" --gui -- %u").arg(QStringLiteral(KALENDRO_SAMPLE_PATH))));
    ASSERT_TRUE(list.open(QIODevice::ReadOnly));
    // One default, ours, in the file's own line endings; the other group's
    // line and the other default stay.
    EXPECT_EQ(QString::fromUtf8(list.readAll()),
              QStringLiteral("[Added Associations]\r\nx-scheme-handler/kalendro=other.desktop;\r\n\r\n"
                             "[Default Applications]\r\nx-scheme-handler/kalendro=kalendro-sample.desktop\r\n"
                             "text/html=browser.desktop\r\n"));
}
