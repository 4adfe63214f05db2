#pragma once

/// \file
/// The logging convention of every source file that logs.
///
/// At the top of the .cpp file, once:
///
/// \code
///     ORV_LOG_FILE("Orvella Networking");   // or ORV_LOG_FILE(nullptr)
/// \endcode
///
/// This defines the file's own level variable and orvRegisterFileLogLevel(),
/// which registers the variable with ORVDebug::sharedDebug() under the file's
/// name and category the first time it is called. Call it from the one-time
/// initialisation of the file's class (its constructor or first use); calls
/// after the first cost one guard check.
///
/// Then log with
///
/// \code
///     ORVLogError("Request %@ failed: %@", identifier, error);
///     ORVLogInfo("Creating Logs directory");
/// \endcode
///
/// Each statement tests the file's level against its flag before anything is
/// formatted; a statement whose flag is off costs a relaxed load, an AND and a
/// branch. The format is ORVStringWithFormat's. File, function and line travel
/// with the message, and the file's category shows on its line:
///
/// \verbatim
///     2026/11/23 09:41:07:512  [error] [Orvella Networking] Request ... failed
/// \endverbatim
///
/// Everything goes through one queue, so a file reads in the order things
/// were logged. An error call returns once the error, and everything logged
/// before it, is written; the other levels return at once.
///
/// The logging macros may be used on any thread.

#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVLogLevel.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QString>

#include <atomic>

class ORVDebug;

namespace orv::detail {
/// Hands a formatted message to the sinks; a null category is "No category".
ORVELLAKIT_EXPORT void logMessage(ORVLogFlag flag, const char *category, const char *file, const char *function,
                                   int line, const QString &message);
/// Registers a file's level variable with the shared ORVDebug.
ORVELLAKIT_EXPORT void registerFileLogLevel(std::atomic<ORVLogLevel> *level, const char *file, const char *category);
} // namespace orv::detail

/// Defines, in an anonymous namespace, the file's level variable
/// `orvFileLogLevel` (errors only until it is registered), its category
/// `orvFileLogCategory` (a C string, or nullptr for "No category") and
/// `orvRegisterFileLogLevel()`, which registers the variable with
/// ORVDebug::sharedDebug() on its first call. Use it once per .cpp file, at
/// namespace scope.
#define ORV_LOG_FILE(category)                                                                                         \
    namespace {                                                                                                        \
    /* Errors are on until the file is registered. */                                                                  \
    std::atomic<ORVLogLevel> orvFileLogLevel{ORVLogLevelError};                                                        \
    [[maybe_unused]] constexpr const char *orvFileLogCategory = (category);                                            \
    [[maybe_unused]] void orvRegisterFileLogLevel()                                                                    \
    {                                                                                                                  \
        [[maybe_unused]] static const bool registered =                                                                \
            (::orv::detail::registerFileLogLevel(&orvFileLogLevel, __FILE__, (category)), true);                       \
    }                                                                                                                  \
    }

/// Logs with an explicit level variable (a std::atomic<ORVLogLevel>) and
/// category (a C string, or nullptr for "No category"): when the variable
/// lets `flag` through, formats the remaining arguments with
/// ORVStringWithFormat() and logs them with the file, function and line.
#define ORVLogWithLevelInCategory(levelVariable, category, flag, ...)                                                 \
    do {                                                                                                               \
        if ((levelVariable).load(std::memory_order_relaxed) & (flag)) [[unlikely]]                                     \
            ::orv::detail::logMessage((flag), (category), __FILE__, static_cast<const char *>(__func__), __LINE__,    \
                                      ORVStringWithFormat(__VA_ARGS__));                                               \
    } while (0)
/// ORVLogWithLevelInCategory() with "No category".
#define ORVLogWithLevel(levelVariable, flag, ...) ORVLogWithLevelInCategory(levelVariable, nullptr, flag, __VA_ARGS__)

/// Logs an error with the file's level and category (see ORV_LOG_FILE()).
/// Returns once the message, and everything logged before it, is written.
#define ORVLogError(...) ORVLogWithLevelInCategory(orvFileLogLevel, orvFileLogCategory, ORVLogFlagError, __VA_ARGS__)
/// Logs a warning with the file's level and category (see ORV_LOG_FILE()).
#define ORVLogWarn(...) ORVLogWithLevelInCategory(orvFileLogLevel, orvFileLogCategory, ORVLogFlagWarning, __VA_ARGS__)
/// Logs information with the file's level and category (see ORV_LOG_FILE()).
#define ORVLogInfo(...) ORVLogWithLevelInCategory(orvFileLogLevel, orvFileLogCategory, ORVLogFlagInfo, __VA_ARGS__)
/// Logs debugging output with the file's level and category (see ORV_LOG_FILE()).
#define ORVLogDebug(...) ORVLogWithLevelInCategory(orvFileLogLevel, orvFileLogCategory, ORVLogFlagDebug, __VA_ARGS__)
/// Logs verbose output with the file's level and category (see ORV_LOG_FILE()).
#define ORVLogVerbose(...)                                                                                             \
    ORVLogWithLevelInCategory(orvFileLogLevel, orvFileLogCategory, ORVLogFlagVerbose, __VA_ARGS__)
