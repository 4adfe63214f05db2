#pragma once

/// \file
/// ORVOrvellaNetworkTask: the handle of one submitted request while the
/// network manager runs it. Holds the frozen request, the URL task now
/// carrying it, and nested tasks started on its behalf. cancel() returns at
/// once and cancels all of them on a global queue.
///
/// Tasks of a class of your own are made with make<YourClass>(); like
/// requests, they keep their class through copyForRescheduling() without a
/// copy function of their own.

#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVURLSession.h>

#include <QString>

#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

/// The network manager's handle of one submitted request.
///
/// Thread rule: any thread; the task's state is guarded by its own lock.
/// The dropped-result handler runs on the main thread; the request's yield
/// and resume handlers run on the thread that calls yield() or resume().
/// Ownership: tasks live in shared pointers made by make() (or
/// taskWithRequest()). A task holds its frozen request, its current URL
/// task and its nested tasks, and its dropped-result handler until that is
/// taken.
class ORVELLAKIT_EXPORT ORVOrvellaNetworkTask : public std::enable_shared_from_this<ORVOrvellaNetworkTask> {
protected:
    /// Only make() can produce a key (see ORVOrvellaRequest::Key).
    class Key {
        Key() = default;
        friend class ORVOrvellaNetworkTask;
    };

public:
    /// Stores a frozen copy of the request.
    static std::shared_ptr<ORVOrvellaNetworkTask> taskWithRequest(const std::shared_ptr<ORVOrvellaRequest> &request);
    /// A task of class T; further arguments go to T's constructor after the
    /// key and the request, and again to the task copyForRescheduling() makes.
    template <class T, class... Args>
    static std::shared_ptr<T> make(const std::shared_ptr<ORVOrvellaRequest> &request, const Args &...args)
    {
        static_assert(std::is_base_of_v<ORVOrvellaNetworkTask, T>, "T must be a subclass of ORVOrvellaNetworkTask");
        auto task = std::make_shared<T>(Key(), request, args...);
        static_cast<ORVOrvellaNetworkTask &>(*task)._remake =
            [args...](const std::shared_ptr<ORVOrvellaRequest> &r) -> std::shared_ptr<ORVOrvellaNetworkTask> {
            return make<T>(r, args...);
        };
        return task;
    }

    /// A task around a frozen copy of `request`. Only make() has the key to
    /// call it.
    ORVOrvellaNetworkTask(Key, const std::shared_ptr<ORVOrvellaRequest> &request);
    virtual ~ORVOrvellaNetworkTask();
    ORVOrvellaNetworkTask(const ORVOrvellaNetworkTask &) = delete;
    ORVOrvellaNetworkTask &operator=(const ORVOrvellaNetworkTask &) = delete;

    /// The frozen request.
    const std::shared_ptr<ORVOrvellaRequest> &request() const { return _request; }

    /// Stores the URL task now carrying the request and whether it runs on
    /// the background session, even when the task was cancelled.
    void updateCurrentURLTask(std::shared_ptr<ORVURLSessionTask> urlTask, bool scheduledWithBackgroundSession);
    /// Forgets the URL task (and the background flag).
    void clearCurrentURLTask();
    /// The URL task now carrying the request; null for none.
    std::shared_ptr<ORVURLSessionTask> currentURLTask() const;
    /// Whether the current URL task runs on the background session.
    bool scheduledWithBackgroundSession() const;

    /// Keeps `task` to be cancelled with this one; null, or a task equal to
    /// one already kept, is ignored.
    void addNestedTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task);
    /// Forgets the nested tasks equal to `task`.
    void removeNestedTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task);

    /// Marks the task cancelled and lets go of its URL task and nested
    /// tasks, which are cancelled on a global queue; returns at once. Does
    /// not call the completion handler: the network manager does that.
    virtual void cancel();
    /// Whether cancel() was called on this task.
    bool isCancelled() const;
    /// Cancels this task and returns a new one of the same class around the
    /// same frozen request.
    std::shared_ptr<ORVOrvellaNetworkTask> copyForRescheduling();

    /// Stores the URL task unless the task was cancelled meanwhile; false then.
    /// The network manager attaches a new URL task this way, so that a cancel
    /// that came first is never undone by a URL task nobody would cancel.
    bool attachURLTaskUnlessCancelled(std::shared_ptr<ORVURLSessionTask> urlTask, bool scheduledWithBackgroundSession);

    /// The request's completion handler is called only while the network
    /// manager counts the task as active. A task that left the active set
    /// without being cancelled (cancelTasksWithCategories() drops the tasks it
    /// matches) still ends its exchange; this handler, if set, then receives
    /// its result, on the main queue, so that whoever started the request on
    /// another's behalf (the token manager's fetch) learns how it ended.
    using DroppedResultHandler = std::function<void(const QByteArray &data,
                                                    const std::optional<ORVHTTPURLResponse> &response,
                                                    const ORVError &error)>;
    /// Sets the dropped-result handler (see DroppedResultHandler).
    void setDroppedResultHandler(DroppedResultHandler handler);
    /// Takes the handler out, so that it runs at most once.
    DroppedResultHandler takeDroppedResultHandler();

    /// Run the request's should-yield / should-resume handler, if any.
    void yield();
    /// Runs the request's should-resume handler, if any.
    void resume();

    /// Same background flag and an equal request (same identifier).
    bool isEqual(const ORVOrvellaNetworkTask &other) const;
    /// The request's hash; equal tasks hash alike.
    size_t hash() const { return _request->hash(); }
    /// `"<ORVOrvellaNetworkTask: 0x...> "` followed by the request's description.
    QString debugDescription() const;

private:
    std::function<std::shared_ptr<ORVOrvellaNetworkTask>(const std::shared_ptr<ORVOrvellaRequest> &)> _remake;
    const std::shared_ptr<ORVOrvellaRequest> _request;
    std::shared_ptr<ORVURLSessionTask> _urlTask;
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> _nestedTasks;
    bool _scheduledWithBackgroundSession = false;
    bool _cancelled = false;
    DroppedResultHandler _droppedResultHandler;
    mutable std::mutex _queue;
};
