#pragma once

/// \file
/// ORVOrvellaNetworkManager: the one entry point for HTTP exchanges. Wraps a
/// request in a network task, gets an access token when the request needs
/// one, sends it as "Authorization: Bearer <token>", runs the exchange on the
/// foreground or background session, retries once after a 401 with a fresh
/// token, writes the exchange to the command log, and calls the request's
/// completion handler on the main queue.

#include <OrvellaKit/ORVExport.h>
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

/// The domain of the token manager's and the network manager's own errors.
ORVELLAKIT_EXPORT extern const QString ORVOrvellaTokenManagerErrorDomain; ///< "com.orvella.orvellakit.token.error"
/// The code (token domain) a request's completion handler gets when the
/// network manager cancelled it, and a token caller gets when its account's
/// session ended (a reset or a new sign-in) before the answer.
constexpr qint64 ORVOrvellaNetworkTaskCancelledErrorCode = 16;

/// What gives the network manager its access tokens.
///
/// Thread rule: requestTokenForAccount() is called on any thread (the one
/// that starts or retries a task); its completion may be called on any
/// thread.
/// Ownership: a provider may keep the completion until it calls it; the
/// network manager holds its provider weakly.
class ORVELLAKIT_EXPORT ORVOrvellaTokenProviding {
public:
    /// The answer: the token, or a null token and the error.
    /// Null token: none.
    using TokenCompletion = std::function<void(const QString &token, const ORVError &error)>;
    virtual ~ORVOrvellaTokenProviding();
    /// Calls `completion` exactly once, on any thread. Requests the provider
    /// starts for the token should be added to `task` with addNestedTask().
    virtual void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                        const std::shared_ptr<ORVOrvellaNetworkTask> &task, bool ignoreCache,
                                        TokenCompletion completion) = 0;
};

/// Runs requests: see the file's description.
///
/// Thread rule: any thread. Completion handlers (and dropped-result
/// handlers) run on the main thread; the command logger and the token
/// provider are called on the thread the work happens on.
/// Ownership: must be owned by a shared pointer (sharedManager() or one of
/// the caller's). The manager holds its active tasks until they end, its two
/// sessions, and its token provider weakly; the handlers of a request are
/// held by the request.
class ORVELLAKIT_EXPORT ORVOrvellaNetworkManager : public ORVOrvellaTokenProviding,
                                                   public std::enable_shared_from_this<ORVOrvellaNetworkManager> {
public:
    /// A manager with a new foreground and a new background session.
    ORVOrvellaNetworkManager();
    ~ORVOrvellaNetworkManager() override;

    /// Made once per process, as an instance of the class that asks first.
    template <typename Class = ORVOrvellaNetworkManager>
    static std::shared_ptr<ORVOrvellaNetworkManager> sharedManager()
    {
        return sharedManagerMadeBy([] { return std::shared_ptr<ORVOrvellaNetworkManager>(new Class()); });
    }

    /// Wraps a frozen copy of `request` in a new network task and starts it
    /// (startTask()); cancel the returned task to cancel the request.
    std::shared_ptr<ORVOrvellaNetworkTask> startRequest(const std::shared_ptr<ORVOrvellaRequest> &request);
    /// Makes `task` active and asks the token provider for a token unless
    /// the request can start without one, then sends it (continueTask()).
    /// A request without a URL, or for a session no longer valid, ends the
    /// task with an error and, on its first try, fails the assertion
    /// "urlRequest != nil" or "_isValid". What the account fetch block
    /// throws is thrown on after the task ended with an error.
    void startTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task);
    /// Sends the task's request with `token` as "Authorization: Bearer
    /// <token>". A null token for a request that needs one ends the task
    /// with `tokenError`; a task cancelled meanwhile is dropped unsent.
    void continueTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const QString &token,
                      const ORVError &tokenError);
    /// Whether the exchange is tried again: a first try answered 401. Then
    /// a null `*error` becomes a 401 error of ORVURLErrorDomain.
    bool shouldRetryRequest(const std::shared_ptr<ORVOrvellaRequest> &request,
                            const std::optional<ORVHTTPURLResponse> &response, ORVError *error);
    /// Ends an exchange of the foreground session: retries it, or logs it
    /// and calls the completion handler (on the main thread) while the task
    /// is active.
    void finishTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const std::optional<ORVHTTPURLResponse> &response,
                    const QByteArray &data, ORVError error);
    /// Ends a download of the background session as finishTask() does. An
    /// account request's handler gets the file and owns it; otherwise the
    /// file is removed.
    void finishTaskWithDownload(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                const std::optional<ORVHTTPURLResponse> &response, const QUrl &dataURL, ORVError error);

    /// Cancels every active task (cancelTasks()) and empties the active set.
    void cancelActiveTasks();
    /// Cancels the tasks whose category is NOT in the set and drops the ones
    /// whose category is in it from the active set without cancelling them;
    /// an inverted selection, kept as established.
    void cancelTasksWithCategories(const QSet<QString> &categories);
    /// Takes the active tasks whose request has one of `identifiers` out of
    /// the active set and cancels them (cancelTasks()).
    void cancelTasksWithIdentifiers(const QSet<QUuid> &identifiers);
    /// Cancels each task and calls its request's completion handler, on the
    /// main thread, with no data, no response and the error
    /// ORVOrvellaNetworkTaskCancelledErrorCode of the token domain. Leaves
    /// the active set as it is.
    void cancelTasks(const std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> &tasks);
    /// Takes the active tasks whose URL task runs on the background session
    /// out of the active set, cancels each without calling its handler, and
    /// starts a copy of it (ORVOrvellaNetworkTask::copyForRescheduling()).
    void rescheduleBackgroundDownloadTasks();

    /// The provider asked for tokens.
    /// Held weakly; when none is set (or it went away) the manager itself.
    std::shared_ptr<ORVOrvellaTokenProviding> tokenProvider();
    /// Sets the provider asked for tokens; held weakly.
    void setTokenProvider(const std::shared_ptr<ORVOrvellaTokenProviding> &provider);

    /// Forwards to the shared token manager.
    /// Without one, `completion` is called at once with neither a token nor
    /// an error.
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                const std::shared_ptr<ORVOrvellaNetworkTask> &task, bool ignoreCache,
                                TokenCompletion completion) override;

    /// A copy of the active set, in the order the tasks started.
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> activeTasks() const;
    /// The session of the exchanges in memory.
    const std::shared_ptr<ORVOrvellaURLSession> &foregroundSession() const { return _foregroundSession; }
    /// The session of the downloads (requests whose useBackgroundSession() is true).
    const std::shared_ptr<ORVOrvellaURLSession> &backgroundSession() const { return _backgroundSession; }

    /// Where requestTokenForAccount() finds the shared token manager; the
    /// token manager registers itself here.
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
    /// Ends a task that cannot be sent: out of the active set, and one call
    /// unless a cancellation had it first (or it was never active).
    void failTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const ORVError &error, bool neverActive = false);
    /// Whether the task was active.
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
