#pragma once

/// \file
/// The core headers of OrvellaKit: includes every public header of the
/// OrvellaKit library (everything but the window components, which are in
/// `<OrvellaKitWidgets/OrvellaKitWidgets.h>`).
///
/// Link OrvellaKit::OrvellaKit. Each header states the thread rule of what it
/// declares; unless it says otherwise, objects are used on the main thread.

#include <OrvellaKit/ORVAsyncOperation.h>
#include <OrvellaKit/ORVBezierPath.h>
#include <OrvellaKit/ORVBundle.h>
#include <OrvellaKit/ORVCollections.h>
#include <OrvellaKit/ORVColor.h>
#include <OrvellaKit/ORVCommandLogger.h>
#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVDataCollectionManager.h>
#include <OrvellaKit/ORVDebug.h>
#include <OrvellaKit/ORVDefaultsNotificationManager.h>
#include <OrvellaKit/ORVDefaultsObserver.h>
#include <OrvellaKit/ORVDispatchMainQueue.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVDistributedNotificationCenter.h>
#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVGeometry.h>
#include <OrvellaKit/ORVISO8601DateFormatter.h>
#include <OrvellaKit/ORVImage.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLocks.h>
#include <OrvellaKit/ORVLogLevel.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVNotificationCenter.h>
#include <OrvellaKit/ORVOperation.h>
#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>
#include <OrvellaKit/ORVOrvellaNetworkTask.h>
#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>
#include <OrvellaKit/ORVOrvellaKeyTransfer.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKit/ORVOrvellaURLSession.h>
#include <OrvellaKit/ORVOverrides.h>
#include <OrvellaKit/ORVPhoneNumber.h>
#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVString.h>
#include <OrvellaKit/ORVStringWithFormat.h>
#include <OrvellaKit/ORVURLRequest.h>
#include <OrvellaKit/ORVURLSession.h>
#include <OrvellaKit/ORVUbiquitousKeyValueStore.h>
#include <OrvellaKit/ORVUserDefaults.h>
#include <OrvellaKit/ORVVersion.h>
#include <OrvellaKit/ORVVersionMacros.h>
#include <OrvellaKit/ORVWorkItem.h>
#include <OrvellaKit/ORVWorkItemMultiplexer.h>
