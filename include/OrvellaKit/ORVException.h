#pragma once

/// \file
/// Exceptions and the assertion handler.
///
/// Programming errors (a null argument where one is required, a call out of
/// order) are reported through the current thread's ORVAssertionHandler. The
/// default handler writes the failure to the Qt log and throws an
/// ORVException named "NSInternalInconsistencyException" whose reason is the
/// assertion's description. Assertions stay active in every build type.
///
/// Tests and hosting applications can install their own handler per thread;
/// one that returns instead of throwing lets the failing code carry on with
/// its documented fallback (for example ORVBytesToHexString returns "").
///
/// The assertion macros evaluate to `true` when the condition holds and to
/// `false` after reporting the failure (when the handler returns), so a caller
/// can fall back:  `if (!ORVFunctionParameterAssert(...)) return {};`
///
/// `conditionText` is the condition as the framework documents it ("bytes !=
/// NULL"), which need not be the C++ spelling of the test.
///
/// Threads: any thread; a failure is reported to the handler of the thread
/// it happens on.

#include <OrvellaKit/ORVExport.h>

#include <QString>
#include <QVariantMap>

#include <exception>
#include <memory>

/// An exception with a name, a reason and a user-info dictionary, thrown by
/// the framework for programming errors.
///
/// Threads: any thread (a value, unchanged after construction).
/// Ownership: a value; keeps copies of what it is given.
class ORVELLAKIT_EXPORT ORVException : public std::exception {
public:
    /// An exception with the given name (such as internalInconsistencyName),
    /// reason and user info.
    ORVException(QString name, QString reason, QVariantMap userInfo = {});

    /// The exception's name, such as "NSInvalidArgumentException".
    const QString &name() const noexcept { return _name; }
    /// Why the exception was raised, for people.
    const QString &reason() const noexcept { return _reason; }
    /// Further details; empty unless given to the constructor.
    const QVariantMap &userInfo() const noexcept { return _userInfo; }

    /// "name: reason", UTF-8.
    const char *what() const noexcept override;
    /// The reason (what %@ prints for the exception).
    QString description() const { return _reason; }

    /// Throws this exception (the counterpart of -raise).
    [[noreturn]] void raise() const;

    static const QString internalInconsistencyName; ///< "NSInternalInconsistencyException"
    static const QString invalidArgumentName;       ///< "NSInvalidArgumentException"

private:
    QString _name;
    QString _reason;
    QVariantMap _userInfo;
    QByteArray _what;
};

/// Receives assertion failures. The base class is the default handler: it
/// logs the failure with qCritical() and throws an ORVException named
/// "NSInternalInconsistencyException" with the description as reason.
/// Subclass it to record failures instead (a handler that returns lets the
/// failing code take its fallback).
///
/// Threads: each thread has its own current handler; currentHandler() and
/// setCurrentHandler() act on the calling thread only. A handler installed on
/// several threads is called from each of them.
/// Ownership: setCurrentHandler() keeps a shared reference to the handler
/// until it is replaced or the thread ends.
class ORVELLAKIT_EXPORT ORVAssertionHandler {
public:
    /// Destroys the handler.
    virtual ~ORVAssertionHandler();

    /// The handler of the calling thread. Each thread gets the default handler
    /// until one is installed with setCurrentHandler().
    static ORVAssertionHandler &currentHandler();
    /// Installs a handler for the calling thread; nullptr restores the default.
    static void setCurrentHandler(std::shared_ptr<ORVAssertionHandler> handler);

    /// Method form: `method` is the member function's name, `object` describes
    /// the receiver (usually its class name).
    virtual void handleFailureInMethod(const QString &method, const QString &object, const QString &file,
                                       qint64 line, const QString &description);
    /// Function form: `function` is the function's description.
    virtual void handleFailureInFunction(const QString &function, const QString &file, qint64 line,
                                         const QString &description);
};

/// Installs a handler for the lifetime of the guard, on the calling thread.
/// Destruction reinstates the handler that was current before (nullptr: the
/// default).
///
/// Threads: make and destroy the guard on the same thread.
/// Ownership: holds the handler (through the thread's current handler) and
/// the previous one until it is destroyed.
class ORVELLAKIT_EXPORT ORVScopedAssertionHandler {
public:
    /// Makes `handler` (nullptr: the default) the calling thread's handler.
    explicit ORVScopedAssertionHandler(std::shared_ptr<ORVAssertionHandler> handler);
    /// Reinstates the previous handler.
    ~ORVScopedAssertionHandler();
    ORVScopedAssertionHandler(const ORVScopedAssertionHandler &) = delete;
    ORVScopedAssertionHandler &operator=(const ORVScopedAssertionHandler &) = delete;

private:
    std::shared_ptr<ORVAssertionHandler> _previous;
};

namespace orv::detail {
ORVELLAKIT_EXPORT void assertionFailedInMethod(const char *method, const char *object, const char *file, qint64 line,
                                               const QString &description);
ORVELLAKIT_EXPORT void assertionFailedInFunction(const char *function, const char *file, qint64 line,
                                                 const QString &description);
ORVELLAKIT_EXPORT QString parameterAssertionDescription(const char *conditionText);
} // namespace orv::detail

/// Checks `condition` in a free function; when it does not hold, reports
/// `description` for `function` in `file` (and this line) to the calling
/// thread's handler. `true` when the condition holds, `false` after a
/// handler that returns.
#define ORVFunctionAssert(condition, function, file, description)                                                      \
    ((condition) ? true : (::orv::detail::assertionFailedInFunction((function), (file), __LINE__, (description)), false))

/// ORVFunctionAssert() for a parameter: the description is "Invalid parameter
/// not satisfying: " followed by `conditionText`.
#define ORVFunctionParameterAssert(condition, conditionText, function, file)                                           \
    ORVFunctionAssert(condition, function, file, ::orv::detail::parameterAssertionDescription(conditionText))

/// Checks `condition` in a member function; when it does not hold, reports
/// `description` for `method` of `object` in `file` (and this line) to the
/// calling thread's handler. `true` when the condition holds, `false` after a
/// handler that returns.
#define ORVMethodAssert(condition, method, object, file, description)                                                  \
    ((condition) ? true                                                                                                \
                 : (::orv::detail::assertionFailedInMethod((method), (object), (file), __LINE__, (description)), false))

/// ORVMethodAssert() for a parameter: the description is "Invalid parameter
/// not satisfying: " followed by `conditionText`.
#define ORVMethodParameterAssert(condition, conditionText, method, object, file)                                       \
    ORVMethodAssert(condition, method, object, file, ::orv::detail::parameterAssertionDescription(conditionText))
