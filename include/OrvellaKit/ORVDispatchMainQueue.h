#pragma once

// Running a callback on the main queue (the Qt main thread).

#include <functional>

// Whether the caller runs on the main queue. There are no target queues
// here, so this is the main-thread test.
bool ORVDispatchIsMainQueue();
// Runs the block on the main queue and waits; inline when already there.
// A null block fails "block != NULL".
void ORVDispatchMainQueueSync(const std::function<void()> &block);
// Runs the block on the main queue without waiting; inline (so before this
// returns) when already there. A null block fails "block != NULL".
void ORVDispatchMainQueueAsync(std::function<void()> block);
