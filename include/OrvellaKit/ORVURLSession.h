#pragma once

// ORVURLSession: the HTTP(S) transport. One QNetworkAccessManager per session
// runs on the framework's network thread; tasks are started, redirected and
// finished there, and every delegate call and completion handler runs on the
// session's serial delegate queue.
//
// Redirects are not followed by Qt: the delegate decides (default: follow).
// The request proposed for a redirect to another origin (scheme, host or
// port) carries no "Authorization" header, and one that turns a POST into a
// GET (301, 302, 303) loses its body and content headers.
//
// TLS certificates are checked against the system's CA set plus the
// configuration's caCertificates; errors are never ignored.

#include <OrvellaKit/ORVDispatchQueue.h>
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

extern const QString ORVURLErrorDomain; // "NSURLErrorDomain"
enum ORVURLError : qint64 {
    ORVURLErrorUnknown = -1,
    ORVURLErrorCancelled = -999,
    ORVURLErrorBadURL = -1000,
    ORVURLErrorTimedOut = -1001,
    ORVURLErrorUnsupportedURL = -1002,
    ORVURLErrorCannotFindHost = -1003,
    ORVURLErrorCannotConnectToHost = -1004,
    ORVURLErrorNetworkConnectionLost = -1005,
    ORVURLErrorHTTPTooManyRedirects = -1007,
    ORVURLErrorBadServerResponse = -1011,
    ORVURLErrorCannotCreateFile = -3000,
    ORVURLErrorCannotWriteToFile = -3003,
    ORVURLErrorAppTransportSecurityRequiresSecureConnection = -1022,
    ORVURLErrorSecureConnectionFailed = -1200,
    ORVURLErrorServerCertificateUntrusted = -1202,
};

struct ORVURLSessionConfiguration {
    // Set for background sessions.
    QString identifier;
    // Where a group shares background downloads; informational here.
    QString sharedContainerIdentifier;
    // The response cache. Qt has no memory-only cache, so a disk capacity
    // above 0 gives a cache in a private temporary folder that is removed
    // with the session (nothing persists, as in an ephemeral session).
    qint64 urlCacheMemoryCapacity = 0;
    qint64 urlCacheDiskCapacity = 0;
    // Trusted in addition to the system's CA set.
    QList<QSslCertificate> caCertificates;

    static ORVURLSessionConfiguration ephemeralSessionConfiguration();
    static ORVURLSessionConfiguration backgroundSessionConfigurationWithIdentifier(const QString &identifier);

    // Certificates every configuration made by the two functions above
    // starts with (a hosting application's private CA, or a test server's).
    static void setDefaultCACertificates(const QList<QSslCertificate> &certificates);
    static QList<QSslCertificate> defaultCACertificates();
};

enum class ORVURLSessionTaskState { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };

class ORVURLSession;

class ORVURLSessionTask : public std::enable_shared_from_this<ORVURLSessionTask> {
public:
    enum class Kind { Data, Download };

    ~ORVURLSessionTask();
    ORVURLSessionTask(const ORVURLSessionTask &) = delete;
    ORVURLSessionTask &operator=(const ORVURLSessionTask &) = delete;

    quint64 taskIdentifier() const { return _taskIdentifier; }
    Kind kind() const { return _kind; }
    ORVURLRequest originalRequest() const;
    // The request now being sent (after redirects).
    ORVURLRequest currentRequest() const;
    // The HTTP response once headers arrived; nothing for none or a non-HTTP one.
    std::optional<ORVHTTPURLResponse> response() const;
    ORVError error() const;
    ORVURLSessionTaskState state() const;

    QString taskDescription() const;
    void setTaskDescription(const QString &description);
    // 0 to 1, default 0.5; mapped to QNetworkRequest's low, normal and high.
    float priority() const;
    void setPriority(float priority);
    // Size hints; -1 means unknown.
    qint64 countOfBytesClientExpectsToReceive() const;
    void setCountOfBytesClientExpectsToReceive(qint64 count);
    qint64 countOfBytesClientExpectsToSend() const;
    void setCountOfBytesClientExpectsToSend(qint64 count);
    qint64 countOfBytesReceived() const;

    // Starts the task (once).
    void resume();
    // Ends the task with ORVURLErrorCancelled.
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

class ORVURLSessionDelegate {
public:
    virtual ~ORVURLSessionDelegate();
    // Call `completion` with the request to follow, or nothing to stop and
    // deliver the redirect response itself. The default follows `request`.
    virtual void willPerformHTTPRedirection(ORVURLSession &session, const std::shared_ptr<ORVURLSessionTask> &task,
                                            const ORVHTTPURLResponse &response, const ORVURLRequest &request,
                                            std::function<void(std::optional<ORVURLRequest>)> completion);
    virtual void didBecomeInvalidWithError(ORVURLSession &session, const ORVError &error);
    // The file at `location` is deleted when this returns: move it to keep it.
    virtual void didFinishDownloadingToURL(ORVURLSession &session, const std::shared_ptr<ORVURLSessionTask> &task,
                                           const QUrl &location);
    // Not called for data tasks made with a completion handler.
    virtual void didCompleteWithError(ORVURLSession &session, const std::shared_ptr<ORVURLSessionTask> &task,
                                      const ORVError &error);
};

class ORVURLSession : public std::enable_shared_from_this<ORVURLSession> {
public:
    using DataCompletion =
        std::function<void(const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)>;

    // The delegate is held until the session is invalidated. A null delegate
    // queue gets a new serial queue.
    static std::shared_ptr<ORVURLSession> sessionWithConfiguration(const ORVURLSessionConfiguration &configuration,
                                                                   std::shared_ptr<ORVURLSessionDelegate> delegate = {},
                                                                   std::shared_ptr<ORVDispatchQueue> delegateQueue = {});
    // A process-wide session without a delegate, for plain use.
    static std::shared_ptr<ORVURLSession> sharedSession();

    ~ORVURLSession();
    ORVURLSession(const ORVURLSession &) = delete;
    ORVURLSession &operator=(const ORVURLSession &) = delete;

    // Not started: call resume(). The completion, if any, replaces the
    // delegate's completion call. Null after invalidation.
    std::shared_ptr<ORVURLSessionTask> dataTaskWithRequest(const ORVURLRequest &request, DataCompletion completion = {});
    std::shared_ptr<ORVURLSessionTask> downloadTaskWithRequest(const ORVURLRequest &request);

    const ORVURLSessionConfiguration &configuration() const { return _configuration; }
    std::shared_ptr<ORVDispatchQueue> delegateQueue() const { return _delegateQueue; }
    QString sessionDescription() const;
    void setSessionDescription(const QString &description);
    bool isValid() const;

    // Lets running tasks finish, then tells the delegate it became invalid.
    void finishTasksAndInvalidate();
    // Cancels every task, then tells the delegate.
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
