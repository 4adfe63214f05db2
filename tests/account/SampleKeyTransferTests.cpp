// Three homes, one reference server, real sample processes: the account's
// encryption key reaches the second home by device approval and the third
// by recovery code; a wrong code, a refusal and a mistyped recovery code
// change nothing; neither the key nor its recovery code reaches the
// server's state file or any log.

#include "OrvTestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

using namespace orv::test;

namespace {

class Device {
public:
    Device(const QString &root, const QString &server) : _root(root), _server(server) { QDir().mkpath(root); }

    std::unique_ptr<QProcess> start(const QStringList &arguments) const
    {
        auto process = std::make_unique<QProcess>();
        auto environment = QProcessEnvironment::systemEnvironment();
        // No session bus: secrets go to the private file the test reads back.
        environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.insert(QStringLiteral("HOME"), _root);
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), _root + "/.config");
        environment.insert(QStringLiteral("XDG_DATA_HOME"), _root + "/.local/share");
        environment.insert(QStringLiteral("XDG_STATE_HOME"), _root + "/.local/state");
        environment.insert(QStringLiteral("XDG_CACHE_HOME"), _root + "/.cache");
        process->setProcessEnvironment(environment);
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->start(QStringLiteral(KALENDRO_SAMPLE_PATH), QStringList{"--verbose", "--server", _server} + arguments);
        return process;
    }

    // Runs to the end with `input` on standard input; the exit code.
    int run(const QStringList &arguments, const QByteArray &input = {})
    {
        auto process = start(arguments);
        process->write(input);
        process->closeWriteChannel();
        const bool finished = process->waitForFinished(90000);
        EXPECT_TRUE(finished);
        output = QString::fromUtf8(process->readAll());
        outputs += output;
        return finished ? process->exitCode() : -1;
    }

    // The key this home keeps for the account, once it has one.
    QByteArray key() const
    {
        QFile file(_root + "/.local/share/com.orvella.kalendro.sample/secrets.json");
        if (!file.open(QIODevice::ReadOnly))
            return {};
        const QJsonObject secrets = QJsonDocument::fromJson(file.readAll()).object();
        for (auto it = secrets.begin(); it != secrets.end(); ++it) {
            if (it.key().startsWith("encryption-key/"))
                return QByteArray::fromBase64(it.value().toString().toLatin1());
        }
        return {};
    }

    // Every log file and the command log.
    QString logs() const
    {
        QString all;
        QDirIterator files(_root + "/.local/state/Logs", QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            if (file.open(QIODevice::ReadOnly))
                all += QString::fromUtf8(file.readAll());
        }
        return all;
    }

    QString output;  // of the last run
    QString outputs; // of every run but those that asked for the recovery code

private:
    QString _root;
    QString _server;
};

// Reads what `process` writes until `pattern` matches; the match.
QString waitForOutput(QProcess &process, QString &seen, const QRegularExpression &pattern)
{
    for (int i = 0; i < 600; ++i) {
        seen += QString::fromUtf8(process.readAll());
        const auto match = pattern.match(seen);
        if (match.hasMatch())
            return match.captured(match.lastCapturedIndex());
        if (process.state() == QProcess::NotRunning)
            break;
        process.waitForReadyRead(100);
    }
    return {};
}

// The requests for the key the server keeps for `user`, from its state file.
int openRequests(const QString &stateFile, const QString &user)
{
    QFile file(stateFile);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    int count = 0;
    for (const QJsonValue &request : QJsonDocument::fromJson(file.readAll()).object().value("keyRequests").toArray())
        count += request.toObject().value("user").toString() == user;
    return count;
}

struct Approval {
    int requesterExit = -1;
    int approverExit = -1;
    QString requester;
    QString approver;
};

// The new device asks with --request-key, the old one runs
// --approve-device and is given `code` (the new device's own, with
// `useShownCode`) on standard input.
Approval approve(Device &requesting, Device &approving, bool useShownCode, const QByteArray &code = {})
{
    Approval result;
    auto asking = requesting.start({"--request-key"});
    waitForOutput(*asking, result.requester, QRegularExpression("asking your other devices"));
    auto approver = approving.start({"--approve-device"});
    const QString shown = waitForOutput(*asking, result.requester, QRegularExpression("confirmation code: (\\d{3} \\d{3})"));
    EXPECT_FALSE(shown.isEmpty()) << qPrintable(result.requester);
    waitForOutput(*approver, result.approver, QRegularExpression("type the code that"));
    approver->write(useShownCode ? shown.toLatin1() + "\n" : code + "\n");
    approver->closeWriteChannel();
    EXPECT_TRUE(approver->waitForFinished(60000));
    EXPECT_TRUE(asking->waitForFinished(60000));
    result.requester += QString::fromUtf8(asking->readAll());
    result.approver += QString::fromUtf8(approver->readAll());
    result.requesterExit = asking->exitCode();
    result.approverExit = approver->exitCode();
    requesting.outputs += result.requester;
    approving.outputs += result.approver;
    return result;
}

} // namespace

TEST(SampleKeyTransferTest, KeyReachesOtherHomesByApprovalAndRecoveryCodeAndIsNeverWrittenDown)
{
    TemporaryXdgHome home;
    // The reference server as its own process (a test process with threads
    // of its own could not start the sample under ThreadSanitizer).
    const QString state = home.path() + "/server-state.json";
    QProcess server;
    server.start(QStringLiteral(ORVELLA_ACCOUNT_SERVER_PATH), {"--state", state});
    QString announced;
    const QString base = waitForOutput(server, announced, QRegularExpression("(http://127\\.0\\.0\\.1:\\d+)"));
    ASSERT_FALSE(base.isEmpty()) << qPrintable(announced);
    const QString url = base + "/";
    Device first(home.path() + "/first", url);
    Device second(home.path() + "/second", url);
    Device third(home.path() + "/third", url);

    // The first device makes the key and leaves an encrypted note.
    ASSERT_EQ(first.run({"--note", "lunch at noon"}), 0) << qPrintable(first.output);
    const QByteArray key = first.key();
    ASSERT_EQ(key.size(), 16);
    ASSERT_EQ(first.run({"--show-recovery-code"}), 0);
    const QString recoveryCode =
        QRegularExpression("recovery code of the account's encryption key.*: (\\S+)").match(first.output).captured(1);
    ASSERT_EQ(recoveryCode.size(), 34) << "no recovery code in the output";
    first.outputs.chop(first.output.size()); // the one output that may show it

    // The second device signs in to the same account: its own key is refused,
    // and the ways on are offered.
    ASSERT_EQ(second.run({}), 1);
    EXPECT_TRUE(second.output.contains("--request-key")) << qPrintable(second.output);
    EXPECT_TRUE(second.output.contains("data encrypted with the old key can no longer be read"));
    const QByteArray ownKey = second.key();

    // A code typed wrong on the first device: refused, nothing sent.
    const Approval wrong = approve(second, first, false, "000 001");
    EXPECT_EQ(wrong.approverExit, 1) << qPrintable(wrong.approver);
    EXPECT_TRUE(wrong.approver.contains("refused the other device's request")) << qPrintable(wrong.approver);
    EXPECT_EQ(wrong.requesterExit, 1) << qPrintable(wrong.requester);
    EXPECT_TRUE(wrong.requester.contains("refused on the other device")) << qPrintable(wrong.requester);
    // An empty line refuses as well.
    const Approval refused = approve(second, first, false, "");
    EXPECT_EQ(refused.requesterExit, 1);
    EXPECT_TRUE(refused.requester.contains("refused on the other device")) << qPrintable(refused.requester);
    EXPECT_NE(second.key(), key);
    EXPECT_EQ(openRequests(state, "demo"), 0);

    // The right code: the key arrives, and the note the first device wrote reads.
    const Approval approved = approve(second, first, true);
    EXPECT_EQ(approved.approverExit, 0) << qPrintable(approved.approver);
    ASSERT_EQ(approved.requesterExit, 0) << qPrintable(approved.requester);
    EXPECT_TRUE(approved.requester.contains("encryption key received from the other device and accepted"));
    EXPECT_TRUE(approved.requester.contains("decrypted with the key: \"lunch at noon\"")) << qPrintable(approved.requester);
    EXPECT_EQ(second.key(), key);
    EXPECT_NE(ownKey, key);
    // And the first reads what the second encrypts.
    ASSERT_EQ(second.run({"--note", "dinner at eight"}), 0) << qPrintable(second.output);
    ASSERT_EQ(first.run({}), 0);
    EXPECT_TRUE(first.output.contains("decrypted with the key: \"dinner at eight\"")) << qPrintable(first.output);

    // With its window open, the first device notices a request by itself
    // but takes it up only on the user's word: the asking device shows no
    // code meanwhile. Closing the window sends nothing.
    ASSERT_EQ(third.run({}), 1);
    {
        // (The window first: a windowed copy that finds another copy of the
        // sample running on the machine offers to quit that one.)
        auto window = first.start({"--gui"});
        QString shown;
        waitForOutput(*window, shown, QRegularExpression("encryption key accepted"));
        auto asking = third.start({"--request-key"});
        QString asked;
        EXPECT_FALSE(waitForOutput(*window, shown, QRegularExpression("(asks for the account's encryption key)")).isEmpty())
            << qPrintable(shown);
        spinFor(2500ms);
        asked += QString::fromUtf8(asking->readAll());
        EXPECT_FALSE(asked.contains("confirmation code")) << qPrintable(asked);
        window->terminate();
        EXPECT_TRUE(window->waitForFinished(30000));
        EXPECT_EQ(window->exitCode(), 0);
        asking->kill();
        asking->waitForFinished(10000);
        first.outputs += shown + QString::fromUtf8(window->readAll());
        third.outputs += asked + QString::fromUtf8(asking->readAll());
        EXPECT_NE(third.key(), key);
    }

    // The third device: a mistyped recovery code changes nothing, the right one works.
    QString typo = recoveryCode;
    typo[5] = typo[5] == 'K' ? 'M' : 'K';
    EXPECT_EQ(third.run({"--recovery-code"}, typo.toLatin1() + "\n"), 1);
    EXPECT_TRUE(third.output.contains("typing mistake")) << qPrintable(third.output);
    EXPECT_NE(third.key(), key);
    ASSERT_EQ(third.run({"--recovery-code"}, recoveryCode.toLower().toLatin1() + "\n"), 0) << qPrintable(third.output);
    EXPECT_TRUE(third.output.contains("decrypted with the key: \"dinner at eight\"")) << qPrintable(third.output);
    EXPECT_EQ(third.key(), key);
    server.terminate();
    EXPECT_TRUE(server.waitForFinished(10000));

    // The server kept none of it; no log and no output (but the one run
    // that was asked to show the code) holds the key or the code.
    QFile stateFile(state);
    ASSERT_TRUE(stateFile.open(QIODevice::ReadOnly));
    const std::map<QString, QString> scanned{{"the server's state file", QString::fromUtf8(stateFile.readAll())},
                                             {"the first device's logs", first.logs()},
                                             {"the second device's logs", second.logs()},
                                             {"the third device's logs", third.logs()},
                                             {"the first device's output", first.outputs},
                                             {"the second device's output", second.outputs},
                                             {"the third device's output", third.outputs}};
    const QStringList secrets{QString::fromLatin1(key.toBase64()), QString::fromLatin1(key.toHex()), recoveryCode,
                              QString(recoveryCode).remove('-'), QString(recoveryCode).toLower()};
    for (const auto &[name, text] : scanned) {
        ASSERT_FALSE(text.isEmpty()) << qPrintable(name);
        for (int i = 0; i < secrets.size(); ++i)
            EXPECT_FALSE(text.contains(secrets[i], Qt::CaseInsensitive)) << "secret #" << i << " found in " << qPrintable(name);
    }
}
