#pragma once

// Shared pieces of the token manager's account operations.

#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVError.h>

namespace orv::detail {

// An error of ORVOrvellaTokenManagerErrorDomain.
ORVError tokenError(qint64 code, QVariantMap userInfo = {});

// Begins a background activity named `name` through the platform
// coordinator; should it expire, "<name> background task expired" is logged
// and the activity ended.
ORVBackgroundTaskToken beginAccountActivity(const QString &name);
// Ends it through the coordinator; a null token is ignored.
void endAccountActivity(const ORVBackgroundTaskToken &token);

} // namespace orv::detail
