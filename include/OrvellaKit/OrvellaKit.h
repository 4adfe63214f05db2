#pragma once

// The core headers of OrvellaKit.

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVCommandLogger.h>
#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVDispatchMainQueue.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVISO8601DateFormatter.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVNotificationCenter.h>
#include <OrvellaKit/ORVOperation.h>
#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVStringWithFormat.h>
#include <OrvellaKit/ORVURLRequest.h>
#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>
#include <OrvellaKit/ORVVersion.h>
#include <OrvellaKit/ORVWorkItem.h>
#include <OrvellaKit/ORVWorkItemMultiplexer.h>
