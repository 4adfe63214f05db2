#include "ORVAccountSupport.h"

#include <OrvellaKit/ORVOrvellaNetworkManager.h>

#include <OrvellaKit/ORVLogging.h>

ORV_LOG_FILE("Token Manager")

namespace orv::detail {

ORVError tokenError(qint64 code, QVariantMap userInfo)
{
    return ORVError(ORVOrvellaTokenManagerErrorDomain, code, std::move(userInfo));
}

ORVBackgroundTaskToken beginAccountActivity(const QString &name)
{
    orvRegisterFileLogLevel();
    auto coordinator = ORVCoordinator::platformCoordinator();
    // The handler must not own the activity it ends.
    auto holder = std::make_shared<std::weak_ptr<ORVBackgroundActivity>>();
    auto token = coordinator->beginBackgroundTaskWithName(name, [name, holder, coordinator] {
        ORVLogError("%@ background task expired", name);
        if (auto activity = holder->lock())
            coordinator->endBackgroundTask(activity);
    });
    *holder = token;
    return token;
}

void endAccountActivity(const ORVBackgroundTaskToken &token)
{
    if (token)
        ORVCoordinator::platformCoordinator()->endBackgroundTask(token);
}

} // namespace orv::detail
