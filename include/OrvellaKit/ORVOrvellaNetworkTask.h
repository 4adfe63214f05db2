#pragma once

// ORVOrvellaNetworkTask: the handle of one submitted request while the
// network manager runs it. Holds the frozen request, the URL task now
// carrying it, and nested tasks started on its behalf (a token fetch).
// cancel() returns at once and cancels all of them on a global queue.

#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVURLSession.h>

#include <QString>

#include <memory>
#include <mutex>
#include <vector>

class ORVOrvellaNetworkTask : public std::enable_shared_from_this<ORVOrvellaNetworkTask> {
public:
    // Stores a frozen copy of the request.
    static std::shared_ptr<ORVOrvellaNetworkTask> taskWithRequest(const std::shared_ptr<ORVOrvellaRequest> &request);
    virtual ~ORVOrvellaNetworkTask();
    ORVOrvellaNetworkTask(const ORVOrvellaNetworkTask &) = delete;
    ORVOrvellaNetworkTask &operator=(const ORVOrvellaNetworkTask &) = delete;

    const std::shared_ptr<ORVOrvellaRequest> &request() const { return _request; }

    void updateCurrentURLTask(std::shared_ptr<ORVURLSessionTask> urlTask, bool scheduledWithBackgroundSession);
    void clearCurrentURLTask();
    std::shared_ptr<ORVURLSessionTask> currentURLTask() const;
    bool scheduledWithBackgroundSession() const;

    void addNestedTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task);
    void removeNestedTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task);

    virtual void cancel();
    // Cancels this task and returns a new one around the same frozen request.
    std::shared_ptr<ORVOrvellaNetworkTask> copyForRescheduling();

    // Run the request's should-yield / should-resume handler, if any.
    void yield();
    void resume();

    // Same background flag and an equal request (same identifier).
    bool isEqual(const ORVOrvellaNetworkTask &other) const;
    size_t hash() const { return _request->hash(); }
    QString debugDescription() const;

protected:
    explicit ORVOrvellaNetworkTask(const std::shared_ptr<ORVOrvellaRequest> &request);

private:
    const std::shared_ptr<ORVOrvellaRequest> _request;
    std::shared_ptr<ORVURLSessionTask> _urlTask;
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> _nestedTasks;
    bool _scheduledWithBackgroundSession = false;
    mutable std::mutex _queue;
};
