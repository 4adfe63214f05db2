#pragma once

// What names and identifies this computer, read without a D-Bus call: the
// token manager asks while it builds request bodies, often on the GUI
// thread, and a system-bus call there can stall it for seconds.

#include <QString>

namespace orv::detail {

// PRETTY_HOSTNAME of machine-info(5), the file systemd-hostnamed keeps the
// pretty host name in; empty when it is not set.
QString prettyHostName(const QString &machineInfoPath = QStringLiteral("/etc/machine-info"));

// The primary network interface's permanent hardware address as
// "%02x:%02x:%02x:%02x:%02x:%02x", whatever the link state: only interfaces
// of real devices, built-in ones before USB adapters, then by name; the
// permanent address (not one randomised for privacy) when the driver tells
// it. Empty when there is no such interface.
QString primaryHardwareAddress();

// A stable UUID string derived from machine-id(5) (hashed, as the file
// asks of applications; D-Bus's copy when /etc has none); empty without one.
QString machineBoundIdentifier();

} // namespace orv::detail
