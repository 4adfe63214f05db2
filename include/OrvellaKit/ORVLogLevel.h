#pragma once

/// \file
/// Log levels and the flags they are made of. Plain values: usable on any
/// thread.

#include <QtGlobal>

/// A log level is a mask of flags; a message with flag F is written when
/// (level & F) != 0.
using ORVLogLevel = quint32;

/// The flag of a message: which kind of message it is.
enum ORVLogFlag : ORVLogLevel {
    ORVLogFlagError = 1 << 0,   ///< Errors.
    ORVLogFlagWarning = 1 << 1, ///< Warnings.
    ORVLogFlagInfo = 1 << 2,    ///< Information.
    ORVLogFlagDebug = 1 << 3,   ///< Debugging output.
    ORVLogFlagVerbose = 1 << 4, ///< Everything else, in detail.
};

/// The usual levels: each lets through its own flag and those of the levels
/// before it.
enum ORVLogLevelName : ORVLogLevel {
    ORVLogLevelOff = 0,                                        ///< Nothing is written.
    ORVLogLevelError = ORVLogFlagError,                        ///< Errors only.
    ORVLogLevelWarning = ORVLogLevelError | ORVLogFlagWarning, ///< Errors and warnings.
    ORVLogLevelInfo = ORVLogLevelWarning | ORVLogFlagInfo,     ///< Up to information.
    ORVLogLevelDebug = ORVLogLevelInfo | ORVLogFlagDebug,      ///< Up to debugging output.
    ORVLogLevelVerbose = ORVLogLevelDebug | ORVLogFlagVerbose, ///< Everything.
};
