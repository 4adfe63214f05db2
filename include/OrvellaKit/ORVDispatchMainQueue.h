#pragma once

/// \file
/// Running a callback on the main queue (the Qt main thread).
///
/// The functions may be called on any thread; they keep no reference to the
/// block once it has run.

#include <OrvellaKit/ORVExport.h>

#include <functional>

/// Whether the caller runs on the main queue. There are no target queues
/// here, so this is the main-thread test.
ORVELLAKIT_EXPORT bool ORVDispatchIsMainQueue();
/// Runs the block on the main queue and waits; inline when already there.
/// A null block fails "block != NULL".
ORVELLAKIT_EXPORT void ORVDispatchMainQueueSync(const std::function<void()> &block);
/// Runs the block on the main queue without waiting; inline (so before this
/// returns) when already there. A null block fails "block != NULL".
ORVELLAKIT_EXPORT void ORVDispatchMainQueueAsync(std::function<void()> block);
