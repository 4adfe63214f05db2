#pragma once

// Background activities around the account operations of the token manager.

#include <OrvellaKit/ORVCoordinator.h>

namespace orv::detail {

// Begins a background activity named `name` through the platform
// coordinator; should it expire, "<name> background task expired" is logged
// and the activity ended.
ORVBackgroundTaskToken beginAccountActivity(const QString &name);
// Ends it through the coordinator; a null token is ignored.
void endAccountActivity(const ORVBackgroundTaskToken &token);

} // namespace orv::detail
