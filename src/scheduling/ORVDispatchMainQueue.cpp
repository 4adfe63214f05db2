#include <OrvellaKit/ORVDispatchMainQueue.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>

namespace {
constexpr const char *kFile = "ORVDispatchMainQueue";
}

bool ORVDispatchIsMainQueue()
{
    return ORVDispatchQueue::mainQueue()->isCurrent();
}

void ORVDispatchMainQueueSync(const std::function<void()> &block)
{
    if (!ORVFunctionParameterAssert(static_cast<bool>(block), "block != NULL",
                                    "void ORVDispatchMainQueueSync(void (^ _Nonnull)(void))", kFile))
        return;
    if (ORVDispatchIsMainQueue())
        block();
    else
        ORVDispatchQueue::mainQueue()->sync(block);
}

void ORVDispatchMainQueueAsync(std::function<void()> block)
{
    if (!ORVFunctionParameterAssert(static_cast<bool>(block), "block != NULL",
                                    "void ORVDispatchMainQueueAsync(void (^ _Nonnull)(void))", kFile))
        return;
    // Inline when already on the main queue, deliberately.
    if (ORVDispatchIsMainQueue())
        block();
    else
        ORVDispatchQueue::mainQueue()->async(std::move(block));
}
