#pragma once

// Helpers shared by the test suites: spinning the Qt event loop until a
// condition holds, a temporary XDG home per test, and an assertion handler
// that records failures instead of throwing.

#include <OrvellaKit/ORVException.h>

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace orv::test {

using namespace std::chrono_literals;

// Processes events until `condition` is true or `timeout` passes; returns the
// condition's last value.
bool waitUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout = 5s);
// Processes events for the given time.
void spinFor(std::chrono::milliseconds duration);

struct ProcessResult {
    bool finished = false;
    int exitCode = -1;
    QString output; // standard output and error, merged
};
// Runs a program to its end (at most `timeout`) on the offscreen platform
// and without the session bus, so it keeps its secrets in files and never
// reaches the machine's keyring.
ProcessResult runOffscreenProgram(const QString &program, const QStringList &arguments,
                                  std::chrono::milliseconds timeout = 60s);

// Points HOME and the XDG base variables at a fresh temporary folder for its
// lifetime and restores them afterwards.
class TemporaryXdgHome {
public:
    TemporaryXdgHome();
    ~TemporaryXdgHome();
    TemporaryXdgHome(const TemporaryXdgHome &) = delete;
    TemporaryXdgHome &operator=(const TemporaryXdgHome &) = delete;

    QString path() const { return _dir.path(); }
    QString filePath(const QString &relative) const { return _dir.filePath(relative); }

private:
    QTemporaryDir _dir;
    std::map<QByteArray, std::optional<QByteArray>> _saved;
};

// A fixture that gives each test its own XDG home.
class XdgHomeTest : public ::testing::Test {
protected:
    TemporaryXdgHome home;
};

struct AssertionFailure {
    bool inMethod = false;
    QString functionOrMethod;
    QString object;
    QString file;
    qint64 line = 0;
    QString description;
};

// Records failures instead of throwing, so a test can see both the report
// and the fallback value. Install it for a scope with RecordAssertions.
class RecordingAssertionHandler : public ORVAssertionHandler {
public:
    void handleFailureInMethod(const QString &method, const QString &object, const QString &file, qint64 line,
                               const QString &description) override;
    void handleFailureInFunction(const QString &function, const QString &file, qint64 line,
                                 const QString &description) override;

    std::vector<AssertionFailure> failures() const;
    QStringList descriptions() const;

private:
    mutable std::mutex _lock;
    std::vector<AssertionFailure> _failures;
};

class RecordAssertions {
public:
    RecordAssertions() : _handler(std::make_shared<RecordingAssertionHandler>()), _scope(_handler) {}
    std::vector<AssertionFailure> failures() const { return _handler->failures(); }
    QStringList descriptions() const { return _handler->descriptions(); }

private:
    std::shared_ptr<RecordingAssertionHandler> _handler;
    ORVScopedAssertionHandler _scope;
};

} // namespace orv::test

// QString printing for GoogleTest messages.
QT_BEGIN_NAMESPACE
void PrintTo(const QString &string, std::ostream *os);
void PrintTo(const QByteArray &data, std::ostream *os);
QT_END_NAMESPACE
