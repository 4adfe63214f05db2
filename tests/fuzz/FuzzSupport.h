#pragma once

// Shared set-up of the fuzz targets: a scratch XDG home, Qt's messages and
// the framework's log kept quiet (they would slow every run down), and
// helpers that turn the fuzzer's bytes into text of either encoding.

#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVLogLevel.h>

#include <QByteArray>
#include <QDir>
#include <QString>
#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace orv::fuzz {

inline void quietMessages(QtMsgType, const QMessageLogContext &, const QString &) {}

// Call from LLVMFuzzerInitialize.
inline void setUp()
{
    const QByteArray home = QDir::tempPath().toUtf8() + "/orvellakit-fuzz-" + QByteArray::number(qint64(::getpid()));
    QDir().mkpath(QString::fromUtf8(home));
    for (const char *variable : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"})
        qputenv(variable, home);
    qInstallMessageHandler(quietMessages);
}

// Turns the framework's log off once the files have registered their levels.
inline void silenceLog()
{
    ORVDebug::sharedDebug()->setLogLevel(ORVLogLevelOff);
}

// The bytes as text: UTF-8 when the first byte is even, else raw UTF-16
// units (so unpaired surrogates and any code unit can occur). Never a null
// string: "nothing" is a programming error the functions assert on.
inline QString text(const uint8_t *data, size_t size)
{
    QString result = QStringLiteral("");
    if (size == 0)
        return result;
    const bool utf16 = data[0] & 1;
    ++data;
    --size;
    if (utf16)
        result.append(reinterpret_cast<const QChar *>(data), static_cast<qsizetype>(size / 2));
    else
        result.append(QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size)));
    return result;
}

inline QByteArray bytes(const uint8_t *data, size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
}

// A broken promise of the code under test: report and stop, so libFuzzer
// keeps the input.
[[noreturn]] inline void fail(const char *what)
{
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

} // namespace orv::fuzz

#include <unistd.h>
