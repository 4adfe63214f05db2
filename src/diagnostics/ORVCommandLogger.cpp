#include <OrvellaKit/ORVCommandLogger.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>

#include <mutex>

namespace {
std::mutex loggerLock;
std::shared_ptr<ORVCommandLogging> sharedCommandLogger;
constexpr const char *kFile = "ORVCommandLogger";
constexpr const char *kMethod = "setSharedLogger:";
} // namespace

ORVCommandLogging::~ORVCommandLogging() = default;

std::shared_ptr<ORVCommandLogging> ORVCommandLogger::sharedLogger()
{
    std::lock_guard lock(loggerLock);
    return sharedCommandLogger;
}

void ORVCommandLogger::setSharedLogger(std::shared_ptr<ORVCommandLogging> logger)
{
    bool alreadySet = false;
    {
        std::lock_guard lock(loggerLock);
        alreadySet = sharedCommandLogger != nullptr;
    }
    ORVMethodAssert(!alreadySet, kMethod, "ORVCommandLogger", kFile, QStringLiteral("A shared logger was already set"));
    ORVMethodAssert(ORVDispatchQueue::mainQueue()->isCurrent(), kMethod, "ORVCommandLogger", kFile,
                    QStringLiteral("Shared logger not set on the main thread"));
    std::lock_guard lock(loggerLock);
    sharedCommandLogger = std::move(logger);
}
