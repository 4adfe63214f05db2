#include <OrvellaKit/ORVOrvellaNetworkTask.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <algorithm>

std::shared_ptr<ORVOrvellaNetworkTask> ORVOrvellaNetworkTask::taskWithRequest(const std::shared_ptr<ORVOrvellaRequest> &request)
{
    return make<ORVOrvellaNetworkTask>(request);
}

ORVOrvellaNetworkTask::ORVOrvellaNetworkTask(Key, const std::shared_ptr<ORVOrvellaRequest> &request)
    : _request(request->copy())
{
}

ORVOrvellaNetworkTask::~ORVOrvellaNetworkTask() = default;

void ORVOrvellaNetworkTask::updateCurrentURLTask(std::shared_ptr<ORVURLSessionTask> urlTask,
                                                 bool scheduledWithBackgroundSession)
{
    std::lock_guard lock(_queue);
    _urlTask = std::move(urlTask);
    _scheduledWithBackgroundSession = scheduledWithBackgroundSession;
}

void ORVOrvellaNetworkTask::clearCurrentURLTask()
{
    updateCurrentURLTask(nullptr, false);
}

std::shared_ptr<ORVURLSessionTask> ORVOrvellaNetworkTask::currentURLTask() const
{
    std::lock_guard lock(_queue);
    return _urlTask;
}

bool ORVOrvellaNetworkTask::scheduledWithBackgroundSession() const
{
    std::lock_guard lock(_queue);
    return _scheduledWithBackgroundSession;
}

void ORVOrvellaNetworkTask::addNestedTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task)
{
    if (!task)
        return;
    std::lock_guard lock(_queue);
    if (std::none_of(_nestedTasks.begin(), _nestedTasks.end(), [&](const auto &t) { return t->isEqual(*task); }))
        _nestedTasks.push_back(task);
}

void ORVOrvellaNetworkTask::removeNestedTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task)
{
    if (!task)
        return;
    std::lock_guard lock(_queue);
    std::erase_if(_nestedTasks, [&](const auto &t) { return t->isEqual(*task); });
}

bool ORVOrvellaNetworkTask::attachURLTaskUnlessCancelled(std::shared_ptr<ORVURLSessionTask> urlTask,
                                                         bool scheduledWithBackgroundSession)
{
    std::lock_guard lock(_queue);
    if (_cancelled)
        return false;
    _urlTask = std::move(urlTask);
    _scheduledWithBackgroundSession = scheduledWithBackgroundSession;
    return true;
}

bool ORVOrvellaNetworkTask::isCancelled() const
{
    std::lock_guard lock(_queue);
    return _cancelled;
}

void ORVOrvellaNetworkTask::setDroppedResultHandler(DroppedResultHandler handler)
{
    std::lock_guard lock(_queue);
    _droppedResultHandler = std::move(handler);
}

ORVOrvellaNetworkTask::DroppedResultHandler ORVOrvellaNetworkTask::takeDroppedResultHandler()
{
    std::lock_guard lock(_queue);
    return std::exchange(_droppedResultHandler, nullptr);
}

void ORVOrvellaNetworkTask::cancel()
{
    std::shared_ptr<ORVURLSessionTask> urlTask;
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> nested;
    {
        std::lock_guard lock(_queue);
        _cancelled = true;
        urlTask = std::exchange(_urlTask, nullptr);
        nested.swap(_nestedTasks);
    }
    if (!urlTask && nested.empty())
        return;
    // Returns at once; the cascade runs in the background.
    ORVDispatchQueue::globalQueue()->async([urlTask, nested] {
        if (urlTask)
            urlTask->cancel();
        for (const auto &task : nested)
            task->cancel();
    });
}

std::shared_ptr<ORVOrvellaNetworkTask> ORVOrvellaNetworkTask::copyForRescheduling()
{
    cancel();
    // make() always leaves the way to remake the task's own class.
    return _remake ? _remake(_request) : taskWithRequest(_request);
}

void ORVOrvellaNetworkTask::yield()
{
    if (const auto handler = _request->shouldYieldHandler())
        handler();
}

void ORVOrvellaNetworkTask::resume()
{
    if (const auto handler = _request->shouldResumeHandler())
        handler();
}

bool ORVOrvellaNetworkTask::isEqual(const ORVOrvellaNetworkTask &other) const
{
    if (this == &other)
        return true;
    return scheduledWithBackgroundSession() == other.scheduledWithBackgroundSession() &&
           _request->isEqual(*other._request);
}

QString ORVOrvellaNetworkTask::debugDescription() const
{
    return ORVStringWithFormat("<ORVOrvellaNetworkTask: %p> %@", static_cast<const void *>(this),
                               _request->debugDescription());
}
