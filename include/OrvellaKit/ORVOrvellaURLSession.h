#pragma once

/// \file
/// ORVOrvellaURLSession wraps one URL session and is its delegate: one
/// completion call per task, always on the main queue; finished downloads
/// moved out of the transport's temporary file; and a non-GET redirect within
/// the account server keeps the original request's headers.

#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVURLSession.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// What an ORVOrvellaURLSession keeps of one of its tasks until it
/// completes: the URL task and the handler to call. The session's own record.
///
/// Thread rule: a plain record; the session reads and writes it on its queue.
/// Ownership: holds the URL task and the handler.
class ORVOrvellaURLSessionTaskData {
public:
    /// The URL task.
    std::shared_ptr<ORVURLSessionTask> task;
    /// The handler of a data task; empty for a download.
    std::function<void(const QByteArray &, const std::optional<ORVHTTPURLResponse> &, const ORVError &)> dataHandler;
    /// The handler of a download task; empty for a data task.
    std::function<void(const QUrl &, const std::optional<ORVHTTPURLResponse> &, const ORVError &)> downloadHandler;
};

/// A URL session of the network manager's, with one handler per task.
///
/// Thread rule: any thread; the session's bookkeeping runs on a serial queue
/// of its own, and every handler runs on the main thread.
/// Ownership: shared (made by create() and the two functions that call it).
/// The session holds its URL session, and each task's handler until it is
/// called; the URL session's delegate holds this session weakly.
class ORVELLAKIT_EXPORT ORVOrvellaURLSession : public std::enable_shared_from_this<ORVOrvellaURLSession> {
public:
    /// A data task's handler: the body, the HTTP response and the error
    /// (null for none). After a transport error: a null body, no response.
    using DataHandler = std::function<void(const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response,
                                           const ORVError &error)>;
    /// A download task's handler: the file (an empty URL after an error),
    /// the HTTP response and the error (null for none). The file, in the
    /// user's private temporary folder, is the handler's to remove.
    using DownloadHandler = std::function<void(const QUrl &fileURL, const std::optional<ORVHTTPURLResponse> &response,
                                               const ORVError &error)>;

    /// A new foreground session (ephemeral; 1 MiB memory and 10 MiB disk
    /// cache) described "Foreground".
    static std::shared_ptr<ORVOrvellaURLSession> foregroundSession();
    /// A new background session "ORVOrvellaURLSession-Background" described
    /// "Background". Linux has no system daemon that finishes downloads of a
    /// suspended process: its downloads run in this process like any other.
    static std::shared_ptr<ORVOrvellaURLSession> backgroundSession();

    /// A session with `configuration` whose URL session is described
    /// `description`; its delegate calls run on a new serial queue.
    static std::shared_ptr<ORVOrvellaURLSession> create(const ORVURLSessionConfiguration &configuration,
                                                        const QString &description);
    ~ORVOrvellaURLSession();

    /// A data task whose handler is called once, on the main thread.
    /// Not yet resumed. An empty request URL fails "urlRequest != nil"; an
    /// invalidated session fails "_isValid". Both return null then.
    std::shared_ptr<ORVURLSessionTask> dataTaskWithURLRequest(const ORVURLRequest &request, DataHandler handler);
    /// A download task whose handler is called once, on the main thread; as
    /// dataTaskWithURLRequest() otherwise.
    std::shared_ptr<ORVURLSessionTask> downloadTaskWithURLRequest(const ORVURLRequest &request, DownloadHandler handler);

    /// A file URL in the user's private temporary folder named by a new
    /// UUID; an empty URL when there is no such folder.
    static QUrl temporaryURL();

    /// The wrapped URL session.
    const std::shared_ptr<ORVURLSession> &session() const { return _session; }
    /// False once the wrapped session has told it became invalid (after
    /// invalidateAndCancel() and the end of its tasks).
    bool isValid() const;
    /// Invalidates the wrapped session (its tasks are cancelled).
    void invalidateAndCancel();
    /// The tasks whose handler has not been called yet.
    qsizetype activeTaskCount() const;

private:
    class Delegate;
    friend class Delegate;
    ORVOrvellaURLSession() = default;

    void finishDownload(const std::shared_ptr<ORVURLSessionTask> &task, const QUrl &location);
    void completeTask(const std::shared_ptr<ORVURLSessionTask> &task, const ORVError &error);
    void redirect(const std::shared_ptr<ORVURLSessionTask> &task, const ORVURLRequest &request,
                  const std::function<void(std::optional<ORVURLRequest>)> &completion);
    void becameInvalid(const ORVError &error);

    std::shared_ptr<ORVURLSession> _session;
    std::vector<std::shared_ptr<ORVOrvellaURLSessionTaskData>> _activeDataTasks;
    std::vector<std::shared_ptr<ORVOrvellaURLSessionTaskData>> _activeDownloadTasks;
    std::shared_ptr<ORVDispatchQueue> _queue;
    mutable std::mutex _validLock;
    bool _isValid = true;
};
