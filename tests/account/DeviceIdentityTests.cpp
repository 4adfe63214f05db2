// The device's identity against real network interfaces: a network
// namespace of the test's own with two virtual Ethernet interfaces, taken
// up and down between launches of a process that asks for the identifier.

#include "OrvTestSupport.h"

#include "../../src/account/ORVDeviceIdentity.h"

#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

using namespace orv::test;

// The identifier must not change with the link state of the interfaces,
// nor with the order they come up in. The namespace has virtual interfaces
// only, whose addresses a real computer makes anew at every boot, so the
// identifier comes from the machine's identity instead.
TEST(DeviceIdentity, UniqueIdentifierIgnoresTheLinkState)
{
    if (orv::detail::machineBoundIdentifier().isEmpty())
        GTEST_SKIP() << "no machine-id on this machine";
    const QString unshare = QStandardPaths::findExecutable(QStringLiteral("unshare"));
    const QString ip = QStandardPaths::findExecutable(QStringLiteral("ip"), {"/usr/sbin", "/sbin", "/usr/bin", "/bin"});
    if (unshare.isEmpty() || ip.isEmpty())
        GTEST_SKIP() << "needs unshare and ip";
    const QString printer = QStringLiteral(ORV_DEVICE_IDENTITY_PRINTER_PATH);
    // Each launch prints one line; the link state changes between them.
    const QString script = QStringLiteral(
        "set -e\n"
        "ip link add v0 address 02:aa:bb:cc:dd:ee type veth peer name v1 address 02:11:22:33:44:55\n"
        "\"$1\"\n"
        "ip link set v1 up\n"
        "\"$1\"\n"
        "ip link set v0 up\n"
        "\"$1\"\n"
        "ip link set v1 down\n"
        "\"$1\"\n");
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"), QFileInfo(ip).path() + u':' + environment.value(QStringLiteral("PATH")));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(environment);
    process.start(unshare, {QStringLiteral("--net"), QStringLiteral("sh"), QStringLiteral("-c"), script,
                            QStringLiteral("sh"), printer});
    ASSERT_TRUE(process.waitForFinished(60000));
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    const QString errors = QString::fromUtf8(process.readAllStandardError());
    if (process.exitCode() != 0 && errors.contains(QLatin1String("unshare")))
        GTEST_SKIP() << "no network namespace here: " << qPrintable(errors);
    ASSERT_EQ(process.exitCode(), 0) << qPrintable(errors);
    const QStringList identifiers = output.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(identifiers.size(), 4) << qPrintable(output);
    for (const QString &identifier : identifiers)
        EXPECT_EQ(identifier, identifiers.first());
    EXPECT_TRUE(identifiers.first().startsWith(orv::detail::machineBoundIdentifier() + u'-'))
        << qPrintable(identifiers.first());
}

TEST(DeviceIdentity, PrettyHostNameReadsMachineInfo)
{
    QTemporaryDir dir;
    const auto write = [&](const QByteArray &contents) {
        QFile file(dir.filePath("machine-info"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(contents);
        file.close();
        return orv::detail::prettyHostName(file.fileName());
    };
    EXPECT_EQ(write("PRETTY_HOSTNAME=\"Ada's \\\"Laptop\\\"\"\nICON_NAME=computer-laptop\n"), "Ada's \"Laptop\"");
    EXPECT_EQ(write("# comment\nCHASSIS=desktop\nPRETTY_HOSTNAME='Study PC'\n"), "Study PC");
    EXPECT_EQ(write("PRETTY_HOSTNAME=plain\n"), "plain");
    EXPECT_EQ(write("ICON_NAME=computer\n"), "");
    EXPECT_EQ(orv::detail::prettyHostName(dir.filePath("missing")), "");
}
