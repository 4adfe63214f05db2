#pragma once

// ORVOrvellaNetworkManager: the one entry point for HTTP exchanges. Wraps a
// request in a network task, gets an access token when the request needs
// one, sends it as "Authorization: Bearer <token>", runs the exchange on the
// foreground or background session, retries once after a 401 with a fresh
// token, writes the exchange to the command log, and calls the request's
// completion handler on the main queue.

#include <OrvellaKit/ORVLocks.h>
#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaNetworkTask.h>
#include <OrvellaKit/ORVOrvellaURLSession.h>

#include <QSet>
#include <QString>
#include <QUuid>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

extern const QString ORVOrvellaTokenManagerErrorDomain; // "com.orvella.orvellakit.token.error"
constexpr qint64 ORVOrvellaNetworkTaskCancelledErrorCode = 16;

class ORVOrvellaTokenProviding {
public:
    // Null token: none.
    using TokenCompletion = std::function<void(const QString &token, const ORVError &error)>;
    virtual ~ORVOrvellaTokenProviding();
    // Calls `completion` exactly once, on any thread. Requests the provider
    // starts for the token should be added to `task` with addNestedTask().
    virtual void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                        const std::shared_ptr<ORVOrvellaNetworkTask> &task, bool ignoreCache,
                                        TokenCompletion completion) = 0;
};

class ORVOrvellaNetworkManager : public ORVOrvellaTokenProviding,
                                 public std::enable_shared_from_this<ORVOrvellaNetworkManager> {
public:
    ORVOrvellaNetworkManager();
    ~ORVOrvellaNetworkManager() override;

    // Made once per process, as an instance of the class that asks first.
    template <typename Class = ORVOrvellaNetworkManager>
    static std::shared_ptr<ORVOrvellaNetworkManager> sharedManager()
    {
        return sharedManagerMadeBy([] { return std::shared_ptr<ORVOrvellaNetworkManager>(new Class()); });
    }

    std::shared_ptr<ORVOrvellaNetworkTask> startRequest(const std::shared_ptr<ORVOrvellaRequest> &request);
    void startTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task);
    void continueTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const QString &token,
                      const ORVError &tokenError);
    bool shouldRetryRequest(const std::shared_ptr<ORVOrvellaRequest> &request,
                            const std::optional<ORVHTTPURLResponse> &response, ORVError *error);
    void finishTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const std::optional<ORVHTTPURLResponse> &response,
                    const QByteArray &data, ORVError error);
    void finishTaskWithDownload(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                const std::optional<ORVHTTPURLResponse> &response, const QUrl &dataURL, ORVError error);

    void cancelActiveTasks();
    // Cancels the tasks whose category is NOT in the set and drops the ones
    // whose category is in it from the active set without cancelling them;
    // an inverted selection, kept as established.
    void cancelTasksWithCategories(const QSet<QString> &categories);
    void cancelTasksWithIdentifiers(const QSet<QUuid> &identifiers);
    void cancelTasks(const std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> &tasks);
    void rescheduleBackgroundDownloadTasks();

    // Held weakly; when none is set (or it went away) the manager itself.
    std::shared_ptr<ORVOrvellaTokenProviding> tokenProvider();
    void setTokenProvider(const std::shared_ptr<ORVOrvellaTokenProviding> &provider);

    // Forwards to the shared token manager.
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                const std::shared_ptr<ORVOrvellaNetworkTask> &task, bool ignoreCache,
                                TokenCompletion completion) override;

    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> activeTasks() const;
    const std::shared_ptr<ORVOrvellaURLSession> &foregroundSession() const { return _foregroundSession; }
    const std::shared_ptr<ORVOrvellaURLSession> &backgroundSession() const { return _backgroundSession; }

    // Where requestTokenForAccount() finds the shared token manager; the
    // token manager registers itself here.
    static void setSharedTokenManagerLookup(std::function<std::shared_ptr<ORVOrvellaTokenProviding>()> lookup);

private:
    static std::shared_ptr<ORVOrvellaNetworkManager>
    sharedManagerMadeBy(const std::function<std::shared_ptr<ORVOrvellaNetworkManager>()> &make);
    void logCommand(const std::shared_ptr<ORVOrvellaRequest> &request, const QByteArray &responseData,
                    const std::optional<ORVHTTPURLResponse> &response, const ORVError &error);
    bool stillActive(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                     const std::optional<ORVHTTPURLResponse> &response, bool retry);
    static void logAlreadyCancelled(const std::shared_ptr<ORVOrvellaRequest> &request,
                                    const std::optional<ORVHTTPURLResponse> &response);
    void deliver(const std::shared_ptr<ORVOrvellaRequest> &request, std::shared_ptr<ORVOrvellaData> data,
                 const std::optional<ORVHTTPURLResponse> &response, const ORVError &error);
    // Ends a task that cannot be sent: out of the active set, and one call
    // unless a cancellation had it first (or it was never active).
    void failTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const ORVError &error, bool neverActive = false);
    // Whether the task was active.
    bool removeFromActiveTasks(const std::shared_ptr<ORVOrvellaNetworkTask> &task);
    static void handDroppedResult(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const QByteArray &data,
                                  const std::optional<ORVHTTPURLResponse> &response, const ORVError &error);

    std::shared_ptr<ORVOrvellaURLSession> _foregroundSession;
    std::shared_ptr<ORVOrvellaURLSession> _backgroundSession;
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> _activeTasks;
    mutable std::mutex _queue;
    ORVUnfairLock _tokenProviderLock;
    std::weak_ptr<ORVOrvellaTokenProviding> _tokenProvider;
};
