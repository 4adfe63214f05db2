#pragma once

// The framework's loggers: a synchronous one for errors and an asynchronous
// one for everything else, both writing into one list of sinks that
// ORVDebug::setupLogging() fills. Until then messages reach no sink.

#include <spdlog/sinks/sink.h>

#include <memory>

namespace orv::detail {

void addLogSink(std::shared_ptr<spdlog::sinks::sink> sink);
void removeLogSink(const std::shared_ptr<spdlog::sinks::sink> &sink);
// Writes out everything queued so far and flushes the sinks.
void flushLogs();

} // namespace orv::detail
