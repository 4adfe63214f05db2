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
    std::map<QString, QString> scanned{{QStringLiteral("process output"), output}};
    QDirIterator files(home.filePath(".local/state/Logs"), QDir::Files, QDirIterator::Subdirectories);
    bool sawCommandLog = false;
    while (files.hasNext()) {
        const QString path = files.next();
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        scanned[QDir(home.path()).relativeFilePath(path)] = QString::fromUtf8(file.readAll());
        sawCommandLog = sawCommandLog || path.endsWith("commands.log");
    }
    ASSERT_TRUE(sawCommandLog);
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
