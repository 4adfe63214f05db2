#include "OrvTestSupport.h"

#include <QCoreApplication>
#include <QProcess>
#include <QDeadlineTimer>
#include <QThread>

#include <ostream>

namespace orv::test {

bool waitUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(timeout);
    while (!condition()) {
        if (deadline.hasExpired())
            return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QThread::msleep(1);
    }
    return true;
}

void spinFor(std::chrono::milliseconds duration)
{
    QDeadlineTimer deadline(duration);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
}

namespace {
const char *const kVariables[] = {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME",
                                  "TMPDIR"};
}

TemporaryXdgHome::TemporaryXdgHome()
{
    if (!_dir.isValid())
        throw std::runtime_error("cannot create a temporary home");
    for (const char *variable : kVariables) {
        _saved[variable] = qEnvironmentVariableIsSet(variable) ? std::optional(qgetenv(variable)) : std::nullopt;
    }
    const QByteArray root = _dir.path().toUtf8();
    qputenv("HOME", root);
    qputenv("XDG_CONFIG_HOME", root + "/.config");
    qputenv("XDG_DATA_HOME", root + "/.local/share");
    qputenv("XDG_STATE_HOME", root + "/.local/state");
    qputenv("XDG_CACHE_HOME", root + "/.cache");
}

TemporaryXdgHome::~TemporaryXdgHome()
{
    for (const auto &[variable, value] : _saved) {
        if (value)
            qputenv(variable.constData(), *value);
        else
            qunsetenv(variable.constData());
    }
}

void RecordingAssertionHandler::handleFailureInMethod(const QString &method, const QString &object,
                                                      const QString &file, qint64 line, const QString &description)
{
    std::lock_guard lock(_lock);
    _failures.push_back({true, method, object, file, line, description});
}

void RecordingAssertionHandler::handleFailureInFunction(const QString &function, const QString &file, qint64 line,
                                                        const QString &description)
{
    std::lock_guard lock(_lock);
    _failures.push_back({false, function, {}, file, line, description});
}

std::vector<AssertionFailure> RecordingAssertionHandler::failures() const
{
    std::lock_guard lock(_lock);
    return _failures;
}

QStringList RecordingAssertionHandler::descriptions() const
{
    std::lock_guard lock(_lock);
    QStringList list;
    for (const auto &failure : _failures)
        list << failure.description;
    return list;
}

ProcessResult runOffscreenProgram(const QString &program, const QStringList &arguments,
                                  std::chrono::milliseconds timeout)
{
    QProcess process;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    ProcessResult result;
    result.finished = process.waitForFinished(static_cast<int>(timeout.count()));
    if (!result.finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    result.output = QString::fromUtf8(process.readAll());
    result.exitCode = process.exitCode();
    return result;
}

} // namespace orv::test

QT_BEGIN_NAMESPACE
void PrintTo(const QString &string, std::ostream *os)
{
    *os << '"' << string.toStdString() << '"';
}

void PrintTo(const QByteArray &data, std::ostream *os)
{
    *os << "QByteArray(" << data.toHex().toStdString() << ")";
}
QT_END_NAMESPACE
