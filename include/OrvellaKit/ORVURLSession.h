#pragma once

/// \file
/// ORVURLSession: the HTTP(S) transport. One QNetworkAccessManager per session
/// runs on the framework's network thread; tasks are started, redirected and
/// finished there, and every delegate call and completion handler runs on the
/// session's serial delegate queue.
///
/// Redirects are not followed by Qt: the delegate decides (default: follow).
/// The request proposed for a redirect to another origin (scheme, host or
/// port) carries no "Authorization" header, and one that turns a POST into a
/// GET (301, 302, 303) loses its body and content headers.
///
/// TLS certificates are checked against the system's CA set plus the
/// configuration's caCertificates; errors are never ignored.

#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVURLRequest.h>

#include <QByteArray>
#include <QList>
#include <QSslCertificate>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

/// The domain of the transport's errors (codes: ORVURLError).
ORVELLAKIT_EXPORT extern const QString ORVURLErrorDomain; ///< "NSURLErrorDomain"

/// Codes of ORVURLErrorDomain. The errors a session makes carry a
/// description and, under "NSErrorFailingURLStringKey", the URL concerned.
enum ORVURLError : qint64 {
    ORVURLErrorUnknown = -1,                  ///< a transport failure of no other kind
    ORVURLErrorCancelled = -999,              ///< the task was cancelled
    ORVURLErrorBadURL = -1000,                ///< the URL is invalid or has no scheme
    ORVURLErrorTimedOut = -1001,              ///< the request timed out
    ORVURLErrorUnsupportedURL = -1002,        ///< an unknown scheme, or a redirect to one other than http(s)
    ORVURLErrorCannotFindHost = -1003,        ///< the host name did not resolve
    ORVURLErrorCannotConnectToHost = -1004,   ///< the connection was refused
    ORVURLErrorNetworkConnectionLost = -1005, ///< the connection closed or the network went away
    ORVURLErrorHTTPTooManyRedirects = -1007,  ///< more than 16 redirects
    ORVURLErrorBadServerResponse = -1011,     ///< the server broke the protocol
    ORVURLErrorCannotCreateFile = -3000,      ///< a download's file could not be made
    ORVURLErrorCannotWriteToFile = -3003,     ///< a download's file could not be written
    /// A redirect from https to http was refused.
    ORVURLErrorAppTransportSecurityRequiresSecureConnection = -1022,
    ORVURLErrorSecureConnectionFailed = -1200,    ///< the TLS handshake failed
    ORVURLErrorServerCertificateUntrusted = -1202, ///< the server's certificate did not verify
};

/// How a session is made: its identity, cache and trusted certificates.
///
/// Thread rule: a value; the static functions may be called on any thread.
/// Ownership: holds copies of everything it is given.
struct ORVELLAKIT_EXPORT ORVURLSessionConfiguration {
    /// Set for background sessions.
    QString identifier;
    /// Where a group shares background downloads; informational here.
    QString sharedContainerIdentifier;
    /// The response cache. Qt has no memory-only cache, so a disk capacity
    /// above 0 gives a cache in a private temporary folder that is removed
    /// with the session (nothing persists, as in an ephemeral session).
    qint64 urlCacheMemoryCapacity = 0;
    /// Bytes the cache may keep on disk; see urlCacheMemoryCapacity.
    qint64 urlCacheDiskCapacity = 0;
    /// Trusted in addition to the system's CA set.
    QList<QSslCertificate> caCertificates;

    /// A configuration without cache, starting with the default CA certificates.
    static ORVURLSessionConfiguration ephemeralSessionConfiguration();
    /// As ephemeralSessionConfiguration(), with `identifier` set.
    static ORVURLSessionConfiguration backgroundSessionConfigurationWithIdentifier(const QString &identifier);

    /// Certificates every configuration made by the two functions above
    /// starts with (a hosting application's private CA, or a test server's).
    static void setDefaultCACertificates(const QList<QSslCertificate> &certificates);
    /// The certificates set with setDefaultCACertificates(); none by default.
    static QList<QSslCertificate> defaultCACertificates();
};

/// Where a task is in its life.
enum class ORVURLSessionTaskState {
    Running = 0,   ///< resumed and not finished
    Suspended = 1, ///< made and not yet resumed
    Canceling = 2, ///< cancel() was called; the task has not ended yet
    Completed = 3, ///< ended, with or without an error
};

class ORVURLSession;

/// One exchange of a session: a data task (the body in memory) or a
/// download task (the body in a file).
///
/// Tasks are made by ORVURLSession::dataTaskWithRequest() and
/// ORVURLSession::downloadTaskWithRequest(), suspended; resume() starts one.
///
/// Thread rule: any thread; every member is guarded by the task's own lock.
/// Ownership: shared. The session holds each task it made until the task
/// completes; the task holds its session weakly, so resume() and cancel() do
/// nothing once the session is gone. A data task's completion handler is
/// held until it is called.
class ORVELLAKIT_EXPORT ORVURLSessionTask : public std::enable_shared_from_this<ORVURLSessionTask> {
public:
    /// Where the body goes.
    enum class Kind {
        Data,     ///< into memory
        Download, ///< into a private temporary file
    };

    ~ORVURLSessionTask();
    ORVURLSessionTask(const ORVURLSessionTask &) = delete;
    ORVURLSessionTask &operator=(const ORVURLSessionTask &) = delete;

    /// Unique within its session, counting from 1.
    quint64 taskIdentifier() const { return _taskIdentifier; }
    /// Data or download task.
    Kind kind() const { return _kind; }
    /// The request the task was made with.
    ORVURLRequest originalRequest() const;
    /// The request now being sent (after redirects).
    ORVURLRequest currentRequest() const;
    /// The HTTP response once headers arrived; nothing for none or a non-HTTP one.
    std::optional<ORVHTTPURLResponse> response() const;
    /// The error the task ended with; null while it runs and after a success.
    ORVError error() const;
    /// Where the task is in its life.
    ORVURLSessionTaskState state() const;

    /// The caller's own description; null by default.
    QString taskDescription() const;
    /// Sets the caller's description.
    void setTaskDescription(const QString &description);
    /// 0 to 1, default 0.5; mapped to QNetworkRequest's low, normal and high.
    float priority() const;
    /// Sets the priority, clamped to [0, 1]; read when the task starts and
    /// at each redirect.
    void setPriority(float priority);
    /// Size hints; -1 means unknown.
    qint64 countOfBytesClientExpectsToReceive() const;
    /// Sets the hint of bytes to receive; kept, not used by the transport.
    void setCountOfBytesClientExpectsToReceive(qint64 count);
    /// The hint of bytes to send; -1 means unknown.
    qint64 countOfBytesClientExpectsToSend() const;
    /// Sets the hint of bytes to send; kept, not used by the transport.
    void setCountOfBytesClientExpectsToSend(qint64 count);
    /// Bytes of response bodies received so far (redirect answers included).
    qint64 countOfBytesReceived() const;

    /// Starts the task (once).
    void resume();
    /// Ends the task with ORVURLErrorCancelled.
    void cancel();

private:
    friend class ORVURLSession;
    friend struct ORVURLSessionEngine;
    ORVURLSessionTask(std::weak_ptr<ORVURLSession> session, Kind kind, const ORVURLRequest &request, quint64 identifier);

    const std::weak_ptr<ORVURLSession> _session;
    const Kind _kind;
    const quint64 _taskIdentifier;
    mutable std::mutex _lock;
    ORVURLRequest _originalRequest;
    ORVURLRequest _currentRequest;
    std::optional<ORVHTTPURLResponse> _response;
    ORVError _error;
    ORVURLSessionTaskState _state = ORVURLSessionTaskState::Suspended;
    QString _taskDescription;
    float _priority = 0.5f;
    qint64 _expectsToReceive = -1;
    qint64 _expectsToSend = -1;
    qint64 _received = 0;
    bool _cancelRequested = false;
    std::function<void(const QByteArray &, const std::optional<ORVHTTPURLResponse> &, const ORVError &)> _completion;
};

/// What a session tells its owner; every function has a default.
///
/// Thread rule: the session calls every function on its delegate queue.
/// Ownership: the session holds its delegate (shared) until it becomes
/// invalid; the delegate gets the session by reference, for the call only.
class ORVELLAKIT_EXPORT ORVURLSessionDelegate {
public:
    virtual ~ORVURLSessionDelegate();
    /// Call `completion` with the request to follow, or nothing to stop and
    /// deliver the redirect response itself. The default follows `request`.
    /// `completion` may be called later and on any thread; only its first
    /// call counts.
    virtual void willPerformHTTPRedirection(ORVURLSession &session, const std::shared_ptr<ORVURLSessionTask> &task,
                                            const ORVHTTPURLResponse &response, const ORVURLRequest &request,
                                            std::function<void(std::optional<ORVURLRequest>)> completion);
    /// The session became invalid after finishTasksAndInvalidate() or
    /// invalidateAndCancel() and its last task ended; `error` is null. The
    /// last call the delegate gets. The default does nothing.
    virtual void didBecomeInvalidWithError(ORVURLSession &session, const ORVError &error);
    /// The file at `location` is deleted when this returns: move it to keep it.
    /// Called for a download that succeeded, before didCompleteWithError().
    /// The default does nothing.
    virtual void didFinishDownloadingToURL(ORVURLSession &session, const std::shared_ptr<ORVURLSessionTask> &task,
                                           const QUrl &location);
    /// Not called for data tasks made with a completion handler.
    /// `error` is null after a success. The default does nothing.
    virtual void didCompleteWithError(ORVURLSession &session, const std::shared_ptr<ORVURLSessionTask> &task,
                                      const ORVError &error);
};

/// A set of tasks sharing one configuration, one network connection pool and
/// cache, and one delegate.
///
/// Thread rule: any thread. Delegate calls and completion handlers run on
/// the delegate queue.
/// Ownership: made only by sessionWithConfiguration() (shared). The session
/// holds its delegate until it becomes invalid, the tasks it made until they
/// complete, and itself stays alive while a task of it runs.
class ORVELLAKIT_EXPORT ORVURLSession : public std::enable_shared_from_this<ORVURLSession> {
public:
    /// A data task's completion: the body (null after an error, else at
    /// least empty), the HTTP response (nothing for none), the error (null
    /// for none).
    using DataCompletion =
        std::function<void(const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)>;

    /// The delegate is held until the session is invalidated. A null delegate
    /// queue gets a new serial queue.
    static std::shared_ptr<ORVURLSession> sessionWithConfiguration(const ORVURLSessionConfiguration &configuration,
                                                                   std::shared_ptr<ORVURLSessionDelegate> delegate = {},
                                                                   std::shared_ptr<ORVDispatchQueue> delegateQueue = {});
    /// A process-wide session without a delegate, for plain use.
    static std::shared_ptr<ORVURLSession> sharedSession();

    ~ORVURLSession();
    ORVURLSession(const ORVURLSession &) = delete;
    ORVURLSession &operator=(const ORVURLSession &) = delete;

    /// Not started: call resume(). The completion, if any, replaces the
    /// delegate's completion call. Null after invalidation.
    std::shared_ptr<ORVURLSessionTask> dataTaskWithRequest(const ORVURLRequest &request, DataCompletion completion = {});
    /// A download task, not started: call resume(). Its file goes to the
    /// delegate's didFinishDownloadingToURL(). Null after invalidation.
    std::shared_ptr<ORVURLSessionTask> downloadTaskWithRequest(const ORVURLRequest &request);

    /// The configuration the session was made with.
    const ORVURLSessionConfiguration &configuration() const { return _configuration; }
    /// The queue of delegate calls and completion handlers.
    std::shared_ptr<ORVDispatchQueue> delegateQueue() const { return _delegateQueue; }
    /// The caller's own description; null by default.
    QString sessionDescription() const;
    /// Sets the caller's description.
    void setSessionDescription(const QString &description);
    /// False once invalidation has begun: no more tasks are made.
    bool isValid() const;

    /// Lets running tasks finish, then tells the delegate it became invalid.
    void finishTasksAndInvalidate();
    /// Cancels every task, then tells the delegate.
    void invalidateAndCancel();

private:
    friend class ORVURLSessionTask;
    friend struct ORVURLSessionEngine;
    ORVURLSession(const ORVURLSessionConfiguration &configuration, std::shared_ptr<ORVURLSessionDelegate> delegate,
                  std::shared_ptr<ORVDispatchQueue> delegateQueue);

    struct Private;
    const ORVURLSessionConfiguration _configuration;
    const std::shared_ptr<ORVDispatchQueue> _delegateQueue;
    std::unique_ptr<Private> d;
};
