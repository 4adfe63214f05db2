#pragma once

// Whether a D-Bus system bus can be there at all. Without one (containers,
// CI) Qt would still start its D-Bus connection thread on every attempt, and
// a call would wait for its time-out.

#include <QByteArray>
#include <QFileInfo>
#include <QString>

namespace orv::detail {

inline bool systemBusMayExist()
{
    static const bool mayExist = [] {
        const QByteArray address = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
        if (!address.isEmpty())
            return !address.startsWith("unix:path=") ||
                   QFileInfo::exists(QString::fromUtf8(address.mid(10).split(',').first()));
        return QFileInfo::exists(QStringLiteral("/run/dbus/system_bus_socket")) ||
               QFileInfo::exists(QStringLiteral("/var/run/dbus/system_bus_socket"));
    }();
    return mayExist;
}

} // namespace orv::detail
