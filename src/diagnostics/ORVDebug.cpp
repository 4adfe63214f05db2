#include "ORVLoggingCore.h"
#include "ORVRollingFileSink.h"

#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QStringDecoder>
#include <QSysInfo>
#include <QTimeZone>

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <climits>
#include <list>
#include <mutex>

#include <syslog.h>

struct ORVFileLogger::Private {
    std::shared_ptr<orv::detail::RollingFileSink> sink;
};

// ORVDebug's own level: registered by sharedDebug() itself, since the
// registration goes through the shared instance being made.
namespace {
std::atomic<ORVLogLevel> debugFileLogLevel{ORVLogLevelError};

constexpr const char *kDebugFile = "ORVDebug";
const QString kNoCategory = QStringLiteral("No category");
constexpr qsizetype kRecentLogLength = 10240;

// The system log under the application's name. A sink that closed the log
// when it went (as spdlog's does) would take the name of the sink that
// replaced it along, and errors would arrive under the executable's name:
// this one opens the log and leaves it open. openlog() keeps the pointer it
// is given, so every name it was given stays alive with the process.
class SystemLogSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit SystemLogSink(const std::string &name)
    {
        static std::mutex namesLock;
        static std::list<std::string> names;
        std::lock_guard lock(namesLock);
        auto kept = std::find(names.begin(), names.end(), name);
        if (kept == names.end())
            kept = names.insert(names.end(), name);
        ::openlog(kept->empty() ? nullptr : kept->c_str(), LOG_PID, LOG_USER);
    }

protected:
    void sink_it_(const spdlog::details::log_msg &message) override
    {
        ::syslog(priority(message.level), "%.*s", static_cast<int>(std::min<size_t>(message.payload.size(), INT_MAX)),
                 message.payload.data());
    }
    void flush_() override {}

private:
    static int priority(spdlog::level::level_enum level)
    {
        switch (level) {
        case spdlog::level::trace:
        case spdlog::level::debug:
            return LOG_DEBUG;
        case spdlog::level::warn:
            return LOG_WARNING;
        case spdlog::level::err:
            return LOG_ERR;
        case spdlog::level::critical:
            return LOG_CRIT;
        default:
            return LOG_INFO;
        }
    }
};

#define ORVDebugLog(flag, ...) ORVLogWithLevelInCategory(debugFileLogLevel, "Debug", flag, __VA_ARGS__)

// The bridge for Qt's own messages: its level, as a registered file's, and
// the handlers it passes every message on to.
std::atomic<ORVLogLevel> qtMessagesLogLevel{ORVLogLevelError};
std::atomic<bool> bridgeOpen{false};
std::mutex bridgeLock;
// The handler the bridge was put in front of when it entered the handler
// chain, and the one its latest installation on top passes on to. They
// differ only when the bridge went back on top of a chain that already
// holds it (someone chained a handler onto it while it was on, and it was
// turned off and on again): a message then reaches the bridge twice, first
// at the top, then from inside that chain, where it goes on to the first.
std::atomic<QtMessageHandler> handlerBelowBridge{nullptr};
std::atomic<QtMessageHandler> handlerBelowTop{nullptr};
// Whether a handler chained onto the bridge may still call it.
bool bridgeInAChain = false;
// What this thread is doing inside forwardQtMessage. A message Qt emits
// while the bridge logs goes only on down the chain, and each handler of a
// chain that leads back to the bridge is called once, never in a loop.
enum class BridgeStep { None, Logging, PassingOn, PassingOnBelow };
thread_local BridgeStep bridgeStep = BridgeStep::None;

ORVLogFlag flagForQtMessage(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return ORVLogFlagDebug;
    case QtInfoMsg:
        return ORVLogFlagInfo;
    case QtWarningMsg:
        return ORVLogFlagWarning;
    default: // critical and fatal
        return ORVLogFlagError;
    }
}

void forwardQtMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const BridgeStep entered = bridgeStep;
    if (entered == BridgeStep::PassingOnBelow)
        return;
    QtMessageHandler next = nullptr;
    if (entered == BridgeStep::None) {
        if (bridgeOpen.load(std::memory_order_acquire)) {
            const ORVLogFlag flag = flagForQtMessage(type);
            if (qtMessagesLogLevel.load(std::memory_order_relaxed) & flag) {
                bridgeStep = BridgeStep::Logging;
                const QByteArray category =
                    QByteArrayLiteral("Qt: ") + (context.category ? context.category : "default");
                orv::detail::logMessage(flag, category.constData(), context.file, context.function, context.line,
                                        message);
            }
        }
        bridgeStep = BridgeStep::PassingOn;
        next = handlerBelowTop.load(std::memory_order_acquire);
    } else {
        // Back from the chain below the top, or a message of the logging
        // itself: on to the handler below the bridge's first place.
        bridgeStep = BridgeStep::PassingOnBelow;
        next = handlerBelowBridge.load(std::memory_order_acquire);
    }
    if (next)
        next(type, context, message);
    bridgeStep = entered;
}

QString lastPathComponent(const char *file)
{
    const QString path = QString::fromUtf8(file);
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash < 0 ? path : path.mid(slash + 1);
}

// Apple's time-zone description: "Europe/Berlin (CET) offset 3600".
QString timeZoneDescription(const QTimeZone &zone)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    return ORVStringWithFormat("%@ (%@) offset %d", QString::fromUtf8(zone.id()),
                               zone.abbreviation(now), zone.offsetFromUtc(now));
}

// The file's text: a byte-order mark picks UTF-16 or UTF-32, otherwise it
// is UTF-8. Bytes that do not decode become replacement characters, so one
// damaged line costs that line, not the whole file.
QString readLogText(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    auto encoding = QStringConverter::encodingForData(bytes);
    QStringDecoder decoder(encoding.value_or(QStringConverter::Utf8), QStringConverter::Flag::Stateless);
    return decoder.decode(bytes);
}

ORVError logsFolderError(const QString &path)
{
    return ORVError(ORVCocoaErrorDomain, 512, // NSFileWriteUnknownError
                    {{ORVLocalizedDescriptionKey, ORVLocalizedString("The logs folder cannot be created.")},
                     {QStringLiteral("NSFilePath"), path}});
}

} // namespace

ORVDebug::ORVDebug() = default;
ORVDebug::~ORVDebug() = default;

std::shared_ptr<ORVDebug> ORVDebug::sharedDebugMadeBy(const std::function<std::shared_ptr<ORVDebug>()> &make)
{
    static std::once_flag once;
    static std::shared_ptr<ORVDebug> shared;
    std::call_once(once, [&] {
        shared = make();
        shared->registerLogLevel(&debugFileLogLevel, __FILE__, QStringLiteral("Debug"));
    });
    return shared;
}

ORVLogLevel ORVDebug::logLevel() const
{
    std::lock_guard lock(_registrationQueue);
    return _logLevel;
}

void ORVDebug::setLogLevel(ORVLogLevel level)
{
    std::lock_guard lock(_registrationQueue);
    ORVDebugLog(ORVLogFlagError, "Changing log level: %d", level);
    _logLevel = level;
    for (auto *variable : std::as_const(_logLevels))
        variable->store(level, std::memory_order_relaxed);
}

void ORVDebug::registerLogLevel(std::atomic<ORVLogLevel> *logLevel, const char *file, const QString &category)
{
    constexpr const char *method = "registerLogLevel:forFile:category:";
    ORVMethodParameterAssert(logLevel != nullptr, "logLevel != NULL", method, "ORVDebug", kDebugFile);
    const bool hasFile = ORVMethodParameterAssert(file != nullptr, "file != NULL", method, "ORVDebug", kDebugFile);

    std::lock_guard lock(_registrationQueue);
    if (!ORVMethodAssert(logLevel != nullptr, method, "ORVDebug", kDebugFile, QStringLiteral("logLevel must not be null")))
        return;
    if (!hasFile)
        return;
    logLevel->store(_logLevel != 0 ? _logLevel : defaultLogLevel(), std::memory_order_relaxed);
    const QString fileName = lastPathComponent(file);
    _logLevels.insert(fileName, logLevel);
    _logCategories[category.isNull() ? kNoCategory : category].append(fileName);
}

QUrl ORVDebug::sharedLogsDirectoryURL() const
{
    const QString group = ORVCoordinator::platformCoordinator()->appGroupIdentifier();
    QString library = group.isEmpty() ? ORVUserLibraryDirectory(true) : ORVGroupContainerDirectory(group);
    // A folder that cannot be made gives no URL, never one at the root.
    if (library.isEmpty())
        return {};
    if (!group.isEmpty())
        library += QStringLiteral("/Library");
    return QUrl::fromLocalFile(library + QStringLiteral("/Logs/"));
}

QUrl ORVDebug::logsDirectoryURL() const
{
    const QUrl shared = sharedLogsDirectoryURL();
    if (shared.isEmpty())
        return {};
    // The identifier is a folder name, never parsed as a URL: "app:x" and
    // "kalendro#beta" are folders of those names.
    return QUrl::fromLocalFile(shared.toLocalFile() + ORVApplicationFolderName() + QLatin1Char('/'));
}

bool ORVDebug::forwardsQtMessages() const
{
    return bridgeOpen.load(std::memory_order_acquire);
}

void ORVDebug::setForwardsQtMessages(bool forwards)
{
    std::lock_guard lock(bridgeLock);
    if (forwards == bridgeOpen.load(std::memory_order_acquire))
        return;
    if (forwards) {
        static std::once_flag registered;
        std::call_once(registered,
                       [this] { registerLogLevel(&qtMessagesLogLevel, "Qt messages", QStringLiteral("Qt")); });
        // Always on top, so that it hears every message whatever became of
        // a chain it was part of.
        const QtMessageHandler below = qInstallMessageHandler(forwardQtMessage);
        if (below != forwardQtMessage) {
            if (!bridgeInAChain)
                handlerBelowBridge.store(below, std::memory_order_release);
            handlerBelowTop.store(below, std::memory_order_release);
        }
        bridgeOpen.store(true, std::memory_order_release);
        return;
    }
    bridgeOpen.store(false, std::memory_order_release);
    // Put back what was below it, unless someone installed a handler on
    // top of it: then it stays in their chain and only passes messages on.
    const QtMessageHandler top = qInstallMessageHandler(handlerBelowTop.load(std::memory_order_acquire));
    if (top != forwardQtMessage) {
        qInstallMessageHandler(top);
        bridgeInAChain = true;
        return;
    }
    // Any chain that still calls it was built on its first place.
    handlerBelowTop.store(handlerBelowBridge.load(std::memory_order_acquire), std::memory_order_release);
}

ORVError ORVDebug::setupLogging()
{
    // The system log receives errors only.
    // A second call replaces the sinks of the first instead of doubling them.
    static std::shared_ptr<spdlog::sinks::sink> installedSystemLog;
    auto systemLog = std::make_shared<SystemLogSink>(ORVApplicationFolderName().toStdString());
    systemLog->set_level(spdlog::level::err);
    {
        std::lock_guard lock(_registrationQueue);
        if (installedSystemLog)
            orv::detail::removeLogSink(installedSystemLog);
        installedSystemLog = systemLog;
    }
    orv::detail::addLogSink(systemLog);

    // The rolling file logger, without a level of its own. Without a folder
    // it writes nothing (the system log still gets the errors).
    const QString logsDirectory = logsDirectoryURL().toLocalFile();
    auto fileLogger = std::make_shared<ORVFileLogger>(logsDirectory, ORVApplicationFolderName());
    fileLogger->setMaximumNumberOfLogFiles(10);
    fileLogger->setMaximumFileSize(4194304);
    fileLogger->setRollingFrequency(std::chrono::seconds(86400));
    {
        std::lock_guard lock(_registrationQueue);
        if (_fileLogger)
            orv::detail::removeLogSink(_fileLogger->_d->sink);
        _fileLogger = fileLogger;
    }
    orv::detail::addLogSink(fileLogger->_d->sink);

    // The launch banner.
    const ORVBundle &bundle = ORVBundle::mainBundle();
    const QString version = bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString();
    const QString build = bundle.objectForInfoDictionaryKey(QStringLiteral("BuildIdentifier")).toString();
    const QString localization = bundle.preferredLocalizations().value(0);
    const QString languageCode = QLocale::languageToCode(QLocale().language());

    ORVDebugLog(ORVLogFlagError, "%@ (%@, %@, %@/%@) launching", QFileInfo(bundle.bundlePath()).fileName(), version,
                build, localization, languageCode);
    ORVDebugLog(ORVLogFlagError, "System version: %@",
                ORVStringWithFormat("%@ (%@ %@)", QSysInfo::prettyProductName(), QSysInfo::kernelType(),
                                    QSysInfo::kernelVersion()));

    setLogLevel(ORVCoordinator::platformCoordinator()->prefererredDefaultLogLevel());

    ORVDebugLog(ORVLogFlagError, "Default log level: %d", logLevel());
    ORVDebugLog(ORVLogFlagError, "System time zone: %@", timeZoneDescription(QTimeZone::systemTimeZone()));
    ORVDebugLog(ORVLogFlagError, "Default time zone: %@",
                timeZoneDescription(QDateTime::currentDateTime().timeZone()));

    if (logsDirectory.isEmpty()) {
        // The folder that was tried, as far as there is one.
        const QString group = ORVCoordinator::platformCoordinator()->appGroupIdentifier();
        QString library = group.isEmpty() ? ORVUserLibraryDirectory(false) : ORVGroupContainerDirectory(group, false);
        if (library.isEmpty())
            library = QStringLiteral("(no home folder)");
        else if (!group.isEmpty())
            library += QStringLiteral("/Library");
        ORVDebugLog(ORVLogFlagError, "No logs folder: %@ cannot be created; logging to the system log only",
                    library);
        return logsFolderError(library);
    }
    // The file logger makes its files lazily; the folder is made here.
    if (!QFileInfo(logsDirectory).isDir()) {
        ORVDebugLog(ORVLogFlagInfo, "Creating Logs directory");
        if (!QDir().mkpath(logsDirectory)) {
            ORVDebugLog(ORVLogFlagError, "The logs folder %@ cannot be created; logging to the system log only",
                        logsDirectory);
            return logsFolderError(logsDirectory);
        }
    }
    return {};
}

QString ORVDebug::recentLogContent() const
{
    const auto logger = fileLogger();
    if (!logger)
        return QStringLiteral("");
    logger->flush();
    QString result;
    for (const QString &path : logger->sortedLogFilePaths()) {
        const QString text = readLogText(path);
        if (!text.isEmpty())
            result.prepend(text);
        if (text.toUtf8().size() > kRecentLogLength)
            break;
    }
    if (result.size() < kRecentLogLength + 1)
        return result;
    // Begins 10241 characters before the end and so leaves the last
    // character out: the established output, kept on purpose.
    return result.mid(result.size() - (kRecentLogLength + 1), kRecentLogLength);
}

bool ORVDebug::isDebuggerAttached() const
{
    static const bool attached = [] {
        QFile status(QStringLiteral("/proc/self/status"));
        if (!status.open(QIODevice::ReadOnly | QIODevice::Text))
            return false;
        while (!status.atEnd()) {
            const QByteArray line = status.readLine();
            if (line.startsWith("TracerPid:"))
                return line.mid(10).trimmed().toLongLong() != 0;
        }
        return false;
    }();
    return attached;
}

std::shared_ptr<ORVFileLogger> ORVDebug::fileLogger() const
{
    std::lock_guard lock(_registrationQueue);
    return _fileLogger;
}

ORVDebug::LogLevelRegistry ORVDebug::logLevels() const
{
    std::lock_guard lock(_registrationQueue);
    return _logLevels;
}

void ORVDebug::setLogLevels(const LogLevelRegistry &logLevels)
{
    std::lock_guard lock(_registrationQueue);
    _logLevels = logLevels;
}

QMap<QString, QStringList> ORVDebug::logCategories() const
{
    std::lock_guard lock(_registrationQueue);
    return _logCategories;
}

void ORVDebug::setLogCategories(const QMap<QString, QStringList> &logCategories)
{
    std::lock_guard lock(_registrationQueue);
    _logCategories = logCategories;
}

// --- ORVFileLogger ---------------------------------------------------------

ORVFileLogger::ORVFileLogger(const QString &logsDirectory, const QString &baseName)
    : _d(std::make_unique<Private>())
{
    _d->sink = std::make_shared<orv::detail::RollingFileSink>(std::filesystem::path(logsDirectory.toStdString()),
                                                              baseName.toStdString());
}

ORVFileLogger::~ORVFileLogger() = default;

QString ORVFileLogger::logsDirectory() const
{
    return QString::fromStdString(_d->sink->directory().string());
}

QStringList ORVFileLogger::sortedLogFilePaths() const
{
    QStringList paths;
    for (const auto &path : _d->sink->sortedLogFiles())
        paths << QString::fromStdString(path.string());
    return paths;
}

QString ORVFileLogger::currentLogFilePath() const
{
    const auto path = _d->sink->currentFile();
    return path.empty() ? QString() : QString::fromStdString(path.string());
}

quint64 ORVFileLogger::maximumFileSize() const
{
    return _d->sink->maximumFileSize();
}

void ORVFileLogger::setMaximumFileSize(quint64 bytes)
{
    _d->sink->setMaximumFileSize(bytes);
}

std::chrono::seconds ORVFileLogger::rollingFrequency() const
{
    return _d->sink->rollingFrequency();
}

void ORVFileLogger::setRollingFrequency(std::chrono::seconds frequency)
{
    _d->sink->setRollingFrequency(frequency);
}

quint32 ORVFileLogger::maximumNumberOfLogFiles() const
{
    return _d->sink->maximumNumberOfFiles();
}

void ORVFileLogger::setMaximumNumberOfLogFiles(quint32 count)
{
    _d->sink->setMaximumNumberOfFiles(count);
}

void ORVFileLogger::flush()
{
    orv::detail::flushLogs();
}
