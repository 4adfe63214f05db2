#include "ORVDeviceIdentity.h"

#include <OrvellaKit/ORVStringWithFormat.h>

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QNetworkInterface>
#include <QUuid>

#include <algorithm>
#include <vector>

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::detail {

namespace {

// The shell-like value of a machine-info line: quoted or bare, with
// backslash escapes.
QString unquote(const QString &raw)
{
    QString value = raw.trimmed();
    QChar quote;
    if (value.size() >= 2 && (value.front() == u'"' || value.front() == u'\'') && value.back() == value.front()) {
        quote = value.front();
        value = value.mid(1, value.size() - 2);
    }
    if (quote == u'\'')
        return value;
    QString out;
    out.reserve(value.size());
    for (qsizetype i = 0; i < value.size(); ++i) {
        if (value.at(i) == u'\\' && i + 1 < value.size())
            ++i;
        out.append(value.at(i));
    }
    return out;
}

// The address the hardware came with, which privacy features leave alone;
// empty when the driver does not tell (virtual interfaces).
QByteArray permanentAddress(const QString &interfaceName)
{
    const QByteArray name = interfaceName.toLocal8Bit();
    if (name.isEmpty() || name.size() >= IFNAMSIZ)
        return {};
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return {};
    // The header ends in a flexible array that the kernel fills.
    alignas(ethtool_perm_addr) unsigned char buffer[sizeof(ethtool_perm_addr) + 32] = {};
    auto *request = reinterpret_cast<ethtool_perm_addr *>(buffer);
    request->cmd = ETHTOOL_GPERMADDR;
    request->size = 32;
    ifreq ifr{};
    std::copy(name.constBegin(), name.constEnd(), ifr.ifr_name);
    ifr.ifr_data = reinterpret_cast<char *>(buffer);
    QByteArray address;
    if (::ioctl(fd, SIOCETHTOOL, &ifr) == 0 && request->size == 6)
        address = QByteArray(reinterpret_cast<const char *>(buffer + sizeof(ethtool_perm_addr)), 6);
    ::close(fd);
    return address;
}

bool usable(const QByteArray &address)
{
    return address.size() == 6 && address.count('\0') != 6 && address.count('\xff') != 6;
}

} // namespace

QString prettyHostName(const QString &machineInfoPath)
{
    QFile file(machineInfoPath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    // The file is a few lines; a larger one is not machine-info.
    const QByteArray contents = file.read(64 * 1024);
    for (const QByteArray &line : contents.split('\n')) {
        const QString text = QString::fromUtf8(line).trimmed();
        if (text.startsWith(QLatin1String("PRETTY_HOSTNAME=")))
            return unquote(text.mid(16)).trimmed();
    }
    return {};
}

QString primaryHardwareAddress()
{
    struct Candidate {
        bool removable;
        QString name;
        QByteArray address;
    };
    std::vector<Candidate> candidates;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (interface.flags().testFlag(QNetworkInterface::IsLoopBack))
            continue;
        // Only interfaces of real devices: bridges, tunnels and container
        // links get new random addresses whenever they are made.
        const QString device = QStringLiteral("/sys/class/net/%1/device").arg(interface.name());
        if (!QFileInfo::exists(device))
            continue;
        QByteArray address = permanentAddress(interface.name());
        if (!usable(address))
            address = QByteArray::fromHex(interface.hardwareAddress().remove(QLatin1Char(':')).toLatin1());
        if (!usable(address))
            continue;
        // A USB adapter comes and goes with its dock.
        const bool removable =
            QFileInfo(device + QStringLiteral("/subsystem")).symLinkTarget().endsWith(QLatin1String("/usb"));
        candidates.push_back({removable, interface.name(), address});
    }
    if (candidates.empty())
        return {};
    // Neither the link state nor the order the kernel lists interfaces in
    // decides: the same hardware gives the same answer at every launch.
    const auto best = std::min_element(candidates.begin(), candidates.end(), [](const auto &a, const auto &b) {
        if (a.removable != b.removable)
            return !a.removable;
        return a.name < b.name;
    });
    const auto b = [&](int i) { return static_cast<unsigned>(static_cast<unsigned char>(best->address[i])); };
    return ORVStringWithFormat("%02x:%02x:%02x:%02x:%02x:%02x", b(0), b(1), b(2), b(3), b(4), b(5));
}

QString machineBoundIdentifier()
{
    QByteArray machineID;
    for (const QString &path : {QStringLiteral("/etc/machine-id"), QStringLiteral("/var/lib/dbus/machine-id")}) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly))
            machineID = file.read(64).trimmed();
        if (machineID.size() == 32)
            break;
        machineID.clear();
    }
    if (machineID.isEmpty())
        return {};
    // The raw identifier is not to leave the machine; a keyed hash of it is.
    QByteArray digest = QCryptographicHash::hash("OrvellaKit device identifier:" + machineID, QCryptographicHash::Sha256);
    digest.truncate(16);
    digest[6] = static_cast<char>((digest[6] & 0x0f) | 0x80); // version 8: custom
    digest[8] = static_cast<char>((digest[8] & 0x3f) | 0x80); // RFC 4122 variant
    return ORVUUIDString(QUuid::fromRfc4122(digest));
}

} // namespace orv::detail
