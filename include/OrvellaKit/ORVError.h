#pragma once

// ORVError: a run-time failure as a value (domain, code, user info).
// A default-constructed error means "no error"; test it with isNull() or
// in a boolean context.

#include <QString>
#include <QVariantMap>
#include <QMetaType>

extern const QString ORVCocoaErrorDomain;                  // "NSCocoaErrorDomain"
extern const QString ORVLocalizedDescriptionKey;           // "NSLocalizedDescription"
extern const QString ORVLocalizedFailureReasonErrorKey;    // "NSLocalizedFailureReason"
extern const QString ORVUnderlyingErrorKey;                // "NSUnderlyingError"

class ORVError {
public:
    ORVError() = default;
    ORVError(QString domain, qint64 code, QVariantMap userInfo = {});

    bool isNull() const { return _domain.isEmpty(); }
    explicit operator bool() const { return !isNull(); }

    const QString &domain() const { return _domain; }
    qint64 code() const { return _code; }
    const QVariantMap &userInfo() const { return _userInfo; }

    // The user-info description when present, otherwise a generic sentence
    // naming the domain and code.
    QString localizedDescription() const;
    // The user-info failure reason, or a null string.
    QString localizedFailureReason() const;
    // The error stored under ORVUnderlyingErrorKey, or a null error.
    ORVError underlyingError() const;

    // "Error Domain=<domain> Code=<code> "<description>" UserInfo={...}"
    QString description() const;

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
