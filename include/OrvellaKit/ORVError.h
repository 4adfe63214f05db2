#pragma once

/// \file
/// ORVError: a run-time failure as a value (domain, code, user info).
/// A default-constructed error means "no error"; test it with isNull() or
/// in a boolean context.

#include <OrvellaKit/ORVExport.h>

#include <QString>
#include <QVariantMap>
#include <QMetaType>

extern ORVELLAKIT_EXPORT const QString ORVCocoaErrorDomain;               ///< "NSCocoaErrorDomain"
extern ORVELLAKIT_EXPORT const QString ORVLocalizedDescriptionKey;        ///< "NSLocalizedDescription"
extern ORVELLAKIT_EXPORT const QString ORVLocalizedFailureReasonErrorKey; ///< "NSLocalizedFailureReason"
extern ORVELLAKIT_EXPORT const QString ORVUnderlyingErrorKey;             ///< "NSUnderlyingError"

/// A run-time failure: a domain, a code within it and a user-info dictionary
/// (ORVLocalizedDescriptionKey, ORVLocalizedFailureReasonErrorKey,
/// ORVUnderlyingErrorKey and the domain's own keys). Declared to Qt's
/// meta-type system, so it can be held in a QVariant (as the underlying error
/// is, under ORVUnderlyingErrorKey).
///
/// Threads: any thread (a value).
/// Ownership: a value; keeps copies of what it is given.
class ORVELLAKIT_EXPORT ORVError {
public:
    /// The null error: "no error".
    ORVError() = default;
    /// An error of `domain` with `code`; an empty domain makes the null error.
    ORVError(QString domain, qint64 code, QVariantMap userInfo = {});

    /// Whether this is "no error" (an empty domain).
    bool isNull() const { return _domain.isEmpty(); }
    /// True for an error, false for "no error".
    explicit operator bool() const { return !isNull(); }

    /// The error domain, such as ORVCocoaErrorDomain; empty for "no error".
    const QString &domain() const { return _domain; }
    /// The code within the domain.
    qint64 code() const { return _code; }
    /// The user-info dictionary.
    const QVariantMap &userInfo() const { return _userInfo; }

    /// The user-info description when present, otherwise a generic sentence
    /// naming the domain and code.
    QString localizedDescription() const;
    /// The user-info failure reason, or a null string.
    QString localizedFailureReason() const;
    /// The error stored under ORVUnderlyingErrorKey, or a null error.
    ORVError underlyingError() const;

    /// "Error Domain=<domain> Code=<code> "<description>" UserInfo={...}"
    QString description() const;

    /// Equal domains, codes and user-info dictionaries.
    friend bool operator==(const ORVError &a, const ORVError &b)
    {
        return a._domain == b._domain && a._code == b._code && a._userInfo == b._userInfo;
    }

private:
    QString _domain;
    qint64 _code = 0;
    QVariantMap _userInfo;
};

Q_DECLARE_METATYPE(ORVError)
