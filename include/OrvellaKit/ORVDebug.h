#pragma once

// ORVDebug: the process-wide owner of logging.
//
// setupLogging() installs two sinks: the system log (syslog, so journald
// collects it), which receives errors only, and a rolling file logger in
// logsDirectoryURL() that receives everything each file's level lets
// through. It keeps the registry of every source file's level variable, so
// setLogLevel() changes all of them at once, and groups the files into
// categories.

#include <OrvellaKit/ORVError.h>
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

class ORVDebug {
public:
    ORVDebug();
    virtual ~ORVDebug();
    ORVDebug(const ORVDebug &) = delete;
    ORVDebug &operator=(const ORVDebug &) = delete;

    // Made once per process, as an instance of the class that asks first:
    //   MyDebug::sharedDebug<MyDebug>()
    template <typename Class = ORVDebug>
    static std::shared_ptr<ORVDebug> sharedDebug()
    {
        return sharedDebugMadeBy([] { return std::shared_ptr<ORVDebug>(new Class()); });
    }

    ORVLogLevel defaultLogLevel() const { return ORVLogLevelError; }
    ORVLogLevel logLevel() const;
    // Logs "Changing log level: %d", then writes the level into every
    // registered variable.
    void setLogLevel(ORVLogLevel level);

    // Registers a file's level variable under the last component of `file`
    // and files it under `category` ("No category" when null). The variable
    // receives the current level (1 while none was set). A later
    // registration of the same file name replaces the earlier variable.
    void registerLogLevel(std::atomic<ORVLogLevel> *logLevel, const char *file, const QString &category);

    // The group container's Library/Logs when the platform coordinator has a
    // group identifier, else the user Library's Logs (see the README).
    QUrl sharedLogsDirectoryURL() const;
    // sharedLogsDirectoryURL() / <main bundle identifier>.
    QUrl logsDirectoryURL() const;

    // Installs the sinks and writes the launch banner. Call once, early.
    // When the logs folder cannot be made, the system log still gets the
    // errors, nothing is written anywhere else, and the error says why.
    ORVError setupLogging();

    // Qt's own messages (qDebug, qInfo, qWarning, qCritical, qFatal and
    // their QLoggingCategory forms) go to the framework's sinks as well:
    // debug, info, warning, error and error, with the category "Qt: "
    // followed by the Qt category's name. They pass the level like every
    // registered file's messages (the bridge registers as "Qt messages" in
    // the category "Qt"); the message handler installed before keeps
    // receiving them. Off until asked for; false puts the earlier handler
    // back.
    void setForwardsQtMessages(bool forwards);
    bool forwardsQtMessages() const;

    // The tail of the log files, oldest to newest, at most 10240 characters
    // (see the implementation for the exact cut).
    QString recentLogContent() const;

    // Whether a tracer (a debugger) is attached; read once per process.
    bool isDebuggerAttached() const;

    // The file logger installed by setupLogging(), or null before.
    std::shared_ptr<ORVFileLogger> fileLogger() const;

    using LogLevelRegistry = QMap<QString, std::atomic<ORVLogLevel> *>;
    LogLevelRegistry logLevels() const;
    void setLogLevels(const LogLevelRegistry &logLevels);
    QMap<QString, QStringList> logCategories() const;
    void setLogCategories(const QMap<QString, QStringList> &logCategories);

private:
    static std::shared_ptr<ORVDebug> sharedDebugMadeBy(const std::function<std::shared_ptr<ORVDebug>()> &make);

    ORVLogLevel _logLevel = 0;
    std::shared_ptr<ORVFileLogger> _fileLogger;
    // Guards the registry, as a private serial queue used synchronously would.
    mutable std::mutex _registrationQueue;
    LogLevelRegistry _logLevels;
    QMap<QString, QStringList> _logCategories;
};

// The rolling file logger: one file at a time in its directory, rolled when
// the next message would pass the maximum size or when the file is older
// than the rolling frequency; the oldest files beyond the maximum count are
// deleted. File names are "<name> <UTC time of creation>.log".
class ORVFileLogger {
public:
    ORVFileLogger(const QString &logsDirectory, const QString &baseName);
    ~ORVFileLogger();
    ORVFileLogger(const ORVFileLogger &) = delete;
    ORVFileLogger &operator=(const ORVFileLogger &) = delete;

    QString logsDirectory() const;
    // The log files, newest first.
    QStringList sortedLogFilePaths() const;
    // The file being written, or a null string before the first message.
    QString currentLogFilePath() const;

    quint64 maximumFileSize() const;
    void setMaximumFileSize(quint64 bytes);
    std::chrono::seconds rollingFrequency() const;
    void setRollingFrequency(std::chrono::seconds frequency);
    quint32 maximumNumberOfLogFiles() const;
    void setMaximumNumberOfLogFiles(quint32 count);

    // Writes out every message logged so far (queued ones included).
    void flush();

private:
    friend class ORVDebug;
    struct Private;
    std::unique_ptr<Private> _d;
};
