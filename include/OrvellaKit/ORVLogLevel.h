#pragma once

#include <QtGlobal>

// A log level is a mask of flags; a message with flag F is written when
// (level & F) != 0.
using ORVLogLevel = quint32;

enum ORVLogFlag : ORVLogLevel {
    ORVLogFlagError = 1 << 0,
    ORVLogFlagWarning = 1 << 1,
    ORVLogFlagInfo = 1 << 2,
    ORVLogFlagDebug = 1 << 3,
    ORVLogFlagVerbose = 1 << 4,
};

enum ORVLogLevelName : ORVLogLevel {
    ORVLogLevelOff = 0,
    ORVLogLevelError = ORVLogFlagError,
    ORVLogLevelWarning = ORVLogLevelError | ORVLogFlagWarning,
    ORVLogLevelInfo = ORVLogLevelWarning | ORVLogFlagInfo,
    ORVLogLevelDebug = ORVLogLevelInfo | ORVLogFlagDebug,
    ORVLogLevelVerbose = ORVLogLevelDebug | ORVLogFlagVerbose,
};
