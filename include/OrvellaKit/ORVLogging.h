#pragma once

// The logging convention of every source file that logs.
//
// At the top of the .cpp file, once:
//
//     ORV_LOG_FILE("Orvella Networking");   // or ORV_LOG_FILE(nullptr)
//
// This defines the file's own level variable and orvRegisterFileLogLevel(),
// which registers the variable with ORVDebug::sharedDebug() under the file's
// name and category the first time it is called. Call it from the one-time
// initialisation of the file's class (its constructor or first use); calls
// after the first cost one guard check.
//
// Then log with
//
//     ORVLogError("Request %@ failed: %@", identifier, error);
//     ORVLogInfo("Creating Logs directory");
//
// Each statement tests the file's level against its flag before anything is
// formatted; a statement whose flag is off costs a relaxed load, an AND and a
// branch. The format is ORVStringWithFormat's. File, function and line travel
// with the message. Errors are written synchronously, everything else
// through the asynchronous logger.

#include <OrvellaKit/ORVLogLevel.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QString>

#include <atomic>

class ORVDebug;

namespace orv::detail {
// Hands a formatted message to the sinks.
void logMessage(ORVLogFlag flag, const char *file, const char *function, int line, const QString &message);
// Registers a file's level variable with the shared ORVDebug.
void registerFileLogLevel(std::atomic<ORVLogLevel> *level, const char *file, const char *category);
} // namespace orv::detail

#define ORV_LOG_FILE(category)                                                                                         \
    namespace {                                                                                                        \
    /* Errors are on until the file is registered. */                                                                  \
    std::atomic<ORVLogLevel> orvFileLogLevel{ORVLogLevelError};                                                        \
    [[maybe_unused]] void orvRegisterFileLogLevel()                                                                    \
    {                                                                                                                  \
        [[maybe_unused]] static const bool registered =                                                                \
            (::orv::detail::registerFileLogLevel(&orvFileLogLevel, __FILE__, (category)), true);                       \
    }                                                                                                                  \
    }

// Logs with an explicit level variable (a std::atomic<ORVLogLevel>).
#define ORVLogWithLevel(levelVariable, flag, ...)                                                                     \
    do {                                                                                                               \
        if ((levelVariable).load(std::memory_order_relaxed) & (flag)) [[unlikely]]                                     \
            ::orv::detail::logMessage((flag), __FILE__, static_cast<const char *>(__func__), __LINE__,                \
                                      ORVStringWithFormat(__VA_ARGS__));                                               \
    } while (0)

#define ORVLogError(...) ORVLogWithLevel(orvFileLogLevel, ORVLogFlagError, __VA_ARGS__)
#define ORVLogWarn(...) ORVLogWithLevel(orvFileLogLevel, ORVLogFlagWarning, __VA_ARGS__)
#define ORVLogInfo(...) ORVLogWithLevel(orvFileLogLevel, ORVLogFlagInfo, __VA_ARGS__)
#define ORVLogDebug(...) ORVLogWithLevel(orvFileLogLevel, ORVLogFlagDebug, __VA_ARGS__)
#define ORVLogVerbose(...) ORVLogWithLevel(orvFileLogLevel, ORVLogFlagVerbose, __VA_ARGS__)
