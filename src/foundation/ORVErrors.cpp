#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVStringWithFormat.h>

const QString ORVOrvellaKitErrorDomain = QStringLiteral("com.orvella.orvellakit");
const QString ORVAbstractMethodExceptionName = QStringLiteral("AbstractMethodException");

ORVError orv_orvellaKitCancelError()
{
    return ORVError(ORVOrvellaKitErrorDomain, ORVUserCancelledErrorCode);
}

bool orv_isOrvellaKitCancelError(const ORVError &error)
{
    return error.domain() == ORVOrvellaKitErrorDomain && error.code() == ORVUserCancelledErrorCode;
}

bool orv_isCocoaCancelError(const ORVError &error)
{
    return error.domain() == ORVCocoaErrorDomain && error.code() == ORVUserCancelledErrorCode;
}

ORVException orv_abstractMethodException(const char *selector)
{
    ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_abstractMethodException:", "NSException",
                             "NSException+OrvellaKit");
    return ORVException(ORVAbstractMethodExceptionName,
                        ORVStringWithFormat("You must override %@ in a subclass", selector));
}
