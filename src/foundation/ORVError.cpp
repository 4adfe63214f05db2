#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVStringWithFormat.h>

const QString ORVCocoaErrorDomain = QStringLiteral("NSCocoaErrorDomain");
const QString ORVLocalizedDescriptionKey = QStringLiteral("NSLocalizedDescription");
const QString ORVLocalizedFailureReasonErrorKey = QStringLiteral("NSLocalizedFailureReason");
const QString ORVUnderlyingErrorKey = QStringLiteral("NSUnderlyingError");

ORVError::ORVError(QString domain, qint64 code, QVariantMap userInfo)
    : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo))
{
}

QString ORVError::localizedDescription() const
{
    const QString description = _userInfo.value(ORVLocalizedDescriptionKey).toString();
    if (!description.isEmpty())
        return description;
    return ORVStringWithFormat("The operation couldn\u2019t be completed. (%@ error %ld.)", _domain, _code);
}

QString ORVError::localizedFailureReason() const
{
    const auto it = _userInfo.constFind(ORVLocalizedFailureReasonErrorKey);
    return it == _userInfo.constEnd() ? QString() : it->toString();
}

ORVError ORVError::underlyingError() const
{
    return _userInfo.value(ORVUnderlyingErrorKey).value<ORVError>();
}

QString ORVError::description() const
{
    return ORVStringWithFormat("Error Domain=%@ Code=%ld \"%@\" UserInfo=%@", _domain, _code, localizedDescription(),
                               QVariant(_userInfo));
}
