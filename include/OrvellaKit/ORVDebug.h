#pragma once

/// \file
/// ORVDebug, the process-wide owner of logging, and its file logger.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVLogLevel.h>

#include <QMap>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

class ORVFileLogger;

/// The process-wide owner of logging.
///
/// setupLogging() installs two sinks: the system log (syslog, so journald
/// collects it), which receives errors only, and a rolling file logger in
/// logsDirectoryURL() that receives everything each file's level lets
/// through. It keeps the registry of every source file's level variable, so
/// setLogLevel() changes all of them at once, and groups the files into
/// categories.
///
/// Thread rule: any thread; the registry is guarded by a lock.
/// Ownership: the shared instance lives as long as the process. The registry
/// keeps the addresses of the registered level variables, which must outlive
/// it (static storage, as ORV_LOG_FILE() makes them).
class ORVELLAKIT_EXPORT ORVDebug {
public:
    /// Prefer sharedDebug(); an instance made otherwise has no registered
    /// files.
    ORVDebug();
    virtual ~ORVDebug();
    ORVDebug(const ORVDebug &) = delete;
    ORVDebug &operator=(const ORVDebug &) = delete;

    /// Made once per process, as an instance of the class that asks first:
    /// \code
    ///   MyDebug::sharedDebug<MyDebug>()
    /// \endcode
    template <typename Class = ORVDebug>
    static std::shared_ptr<ORVDebug> sharedDebug()
    {
        return sharedDebugMadeBy([] { return std::shared_ptr<ORVDebug>(new Class()); });
    }

    /// ORVLogLevelError.
    ORVLogLevel defaultLogLevel() const { return ORVLogLevelError; }
    /// The level last set with setLogLevel(); 0 before.
    ORVLogLevel logLevel() const;
    /// Logs "Changing log level: %d", then writes the level into every
    /// registered variable.
    void setLogLevel(ORVLogLevel level);

    /// Registers a file's level variable under the last component of `file`
    /// and files it under `category` ("No category" when null). The variable
    /// receives the current level (1 while none was set). A later
    /// registration of the same file name replaces the earlier variable.
    void registerLogLevel(std::atomic<ORVLogLevel> *logLevel, const char *file, const QString &category);

    /// The group container's Library/Logs when the platform coordinator has a
    /// group identifier, else the user Library's Logs (see the README).
    QUrl sharedLogsDirectoryURL() const;
    /// sharedLogsDirectoryURL() / \<main bundle identifier\>.
    QUrl logsDirectoryURL() const;

    /// Installs the sinks and writes the launch banner. Call once, early.
    /// When the logs folder cannot be made, the system log still gets the
    /// errors, nothing is written anywhere else, and the error says why.
    ORVError setupLogging();

    /// Qt's own messages (qDebug, qInfo, qWarning, qCritical, qFatal and
    /// their QLoggingCategory forms) go to the framework's sinks as well:
    /// debug, info, warning, error and error, with the category "Qt: "
    /// followed by the Qt category's name. They pass the level like every
    /// registered file's messages (the bridge registers as "Qt messages" in
    /// the category "Qt"); the message handler installed before keeps
    /// receiving them. Off until asked for; false puts the earlier handler
    /// back.
    void setForwardsQtMessages(bool forwards);
    /// Whether Qt's messages are forwarded.
    bool forwardsQtMessages() const;

    /// The tail of the log files, oldest to newest, at most 10240 characters
    /// (see the implementation for the exact cut).
    QString recentLogContent() const;

    /// Whether a tracer (a debugger) is attached; read once per process.
    bool isDebuggerAttached() const;

    /// The file logger installed by setupLogging(), or null before.
    std::shared_ptr<ORVFileLogger> fileLogger() const;

    /// File name to the address of its level variable.
    using LogLevelRegistry = QMap<QString, std::atomic<ORVLogLevel> *>;
    /// The registered level variables (a copy).
    LogLevelRegistry logLevels() const;
    /// Replaces the registry of level variables.
    void setLogLevels(const LogLevelRegistry &logLevels);
    /// Category to the names of its files (a copy).
    QMap<QString, QStringList> logCategories() const;
    /// Replaces the categories.
    void setLogCategories(const QMap<QString, QStringList> &logCategories);

private:
    static std::shared_ptr<ORVDebug> sharedDebugMadeBy(const std::function<std::shared_ptr<ORVDebug>()> &make);

    ORVLogLevel _logLevel = 0;
    std::shared_ptr<ORVFileLogger> _fileLogger;
    /// Guards the registry, as a private serial queue used synchronously would.
    mutable std::mutex _registrationQueue;
    LogLevelRegistry _logLevels;
    QMap<QString, QStringList> _logCategories;
};

/// The rolling file logger: one file at a time in its directory, rolled when
/// the next message would pass the maximum size or when the file is older
/// than the rolling frequency; the oldest files beyond the maximum count are
/// deleted. File names are "\<name\> \<UTC time of creation\>.log".
///
/// Thread rule: any thread. Ownership: made and installed by
/// ORVDebug::setupLogging(), which keeps it; the logging machinery holds its
/// sink while it is installed.
class ORVELLAKIT_EXPORT ORVFileLogger {
public:
    /// A logger for files named after `baseName` in `logsDirectory` (an
    /// empty one: no files). Only the logger setupLogging() makes receives
    /// messages.
    ORVFileLogger(const QString &logsDirectory, const QString &baseName);
    ~ORVFileLogger();
    ORVFileLogger(const ORVFileLogger &) = delete;
    ORVFileLogger &operator=(const ORVFileLogger &) = delete;

    /// The folder of the log files.
    QString logsDirectory() const;
    /// The log files, newest first.
    QStringList sortedLogFilePaths() const;
    /// The file being written, or a null string before the first message.
    QString currentLogFilePath() const;

    /// The size in bytes a file may not pass (4194304 at first).
    quint64 maximumFileSize() const;
    /// Sets the maximum file size.
    void setMaximumFileSize(quint64 bytes);
    /// The age at which a file is rolled (a day at first).
    std::chrono::seconds rollingFrequency() const;
    /// Sets the rolling frequency.
    void setRollingFrequency(std::chrono::seconds frequency);
    /// How many files are kept (10 at first).
    quint32 maximumNumberOfLogFiles() const;
    /// Sets the number of files kept.
    void setMaximumNumberOfLogFiles(quint32 count);

    /// Writes out every message logged so far (queued ones included).
    void flush();

private:
    friend class ORVDebug;
    struct Private;
    std::unique_ptr<Private> _d;
};
