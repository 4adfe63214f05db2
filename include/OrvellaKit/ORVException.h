#pragma once

// Exceptions and the assertion handler.
//
// Programming errors (a null argument where one is required, a call out of
// order) are reported through the current thread's ORVAssertionHandler. The
// default handler writes the failure to the Qt log and throws an
// ORVException named "NSInternalInconsistencyException" whose reason is the
// assertion's description. Assertions stay active in every build type.
//
// Tests and hosting applications can install their own handler per thread;
// one that returns instead of throwing lets the failing code carry on with
// its documented fallback (for example ORVBytesToHexString returns "").

#include <QString>
#include <QVariantMap>

#include <exception>
#include <memory>

class ORVException : public std::exception {
public:
    ORVException(QString name, QString reason, QVariantMap userInfo = {});

    const QString &name() const noexcept { return _name; }
    const QString &reason() const noexcept { return _reason; }
    const QVariantMap &userInfo() const noexcept { return _userInfo; }

    // "name: reason", UTF-8.
    const char *what() const noexcept override;
    QString description() const { return _reason; }

    // Throws this exception (the counterpart of -raise).
    [[noreturn]] void raise() const;

    static const QString internalInconsistencyName; // "NSInternalInconsistencyException"
    static const QString invalidArgumentName;       // "NSInvalidArgumentException"

private:
    QString _name;
    QString _reason;
    QVariantMap _userInfo;
    QByteArray _what;
};

class ORVAssertionHandler {
public:
    virtual ~ORVAssertionHandler();

    // The handler of the calling thread. Each thread gets the default handler
    // until one is installed with setCurrentHandler().
    static ORVAssertionHandler &currentHandler();
    // Installs a handler for the calling thread; nullptr restores the default.
    static void setCurrentHandler(std::shared_ptr<ORVAssertionHandler> handler);

    // Method form: `method` is the member function's name, `object` describes
    // the receiver (usually its class name).
    virtual void handleFailureInMethod(const QString &method, const QString &object, const QString &file,
                                       qint64 line, const QString &description);
    // Function form: `function` is the function's description.
    virtual void handleFailureInFunction(const QString &function, const QString &file, qint64 line,
                                         const QString &description);
};

// Installs a handler for the lifetime of the guard, on the calling thread.
class ORVScopedAssertionHandler {
public:
    explicit ORVScopedAssertionHandler(std::shared_ptr<ORVAssertionHandler> handler);
    ~ORVScopedAssertionHandler();
    ORVScopedAssertionHandler(const ORVScopedAssertionHandler &) = delete;
    ORVScopedAssertionHandler &operator=(const ORVScopedAssertionHandler &) = delete;

private:
    std::shared_ptr<ORVAssertionHandler> _previous;
};

namespace orv::detail {
void assertionFailedInMethod(const char *method, const char *object, const char *file, qint64 line,
                             const QString &description);
void assertionFailedInFunction(const char *function, const char *file, qint64 line, const QString &description);
QString parameterAssertionDescription(const char *conditionText);
} // namespace orv::detail

// The assertion macros evaluate to `true` when the condition holds and to
// `false` after reporting the failure (when the handler returns), so a caller
// can fall back:  if (!ORVFunctionParameterAssert(...)) return {};
//
// `conditionText` is the condition as the framework documents it ("bytes !=
// NULL"), which need not be the C++ spelling of the test.

#define ORVFunctionAssert(condition, function, file, description)                                                      \
    ((condition) ? true : (::orv::detail::assertionFailedInFunction((function), (file), __LINE__, (description)), false))

#define ORVFunctionParameterAssert(condition, conditionText, function, file)                                           \
    ORVFunctionAssert(condition, function, file, ::orv::detail::parameterAssertionDescription(conditionText))

#define ORVMethodAssert(condition, method, object, file, description)                                                  \
    ((condition) ? true                                                                                                \
                 : (::orv::detail::assertionFailedInMethod((method), (object), (file), __LINE__, (description)), false))

#define ORVMethodParameterAssert(condition, conditionText, method, object, file)                                       \
    ORVMethodAssert(condition, method, object, file, ::orv::detail::parameterAssertionDescription(conditionText))
