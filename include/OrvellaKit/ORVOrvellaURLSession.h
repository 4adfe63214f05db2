#pragma once

// ORVOrvellaURLSession wraps one URL session and is its delegate: one
// completion call per task, always on the main queue; finished downloads
// moved out of the transport's temporary file; and a non-GET redirect within
// the account server keeps the original request's headers.

#include <OrvellaKit/ORVURLSession.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ORVOrvellaURLSessionTaskData {
public:
    std::shared_ptr<ORVURLSessionTask> task;
    std::function<void(const QByteArray &, const std::optional<ORVHTTPURLResponse> &, const ORVError &)> dataHandler;
    std::function<void(const QUrl &, const std::optional<ORVHTTPURLResponse> &, const ORVError &)> downloadHandler;
};

class ORVOrvellaURLSession : public std::enable_shared_from_this<ORVOrvellaURLSession> {
public:
    using DataHandler = std::function<void(const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response,
                                           const ORVError &error)>;
    using DownloadHandler = std::function<void(const QUrl &fileURL, const std::optional<ORVHTTPURLResponse> &response,
                                               const ORVError &error)>;

    // A new foreground session (ephemeral; 1 MiB memory and 10 MiB disk
    // cache) described "Foreground".
    static std::shared_ptr<ORVOrvellaURLSession> foregroundSession();
    // A new background session "ORVOrvellaURLSession-Background" described
    // "Background". Linux has no system daemon that finishes downloads of a
    // suspended process: its downloads run in this process like any other.
    static std::shared_ptr<ORVOrvellaURLSession> backgroundSession();

    static std::shared_ptr<ORVOrvellaURLSession> create(const ORVURLSessionConfiguration &configuration,
                                                        const QString &description);
    ~ORVOrvellaURLSession();

    // Not yet resumed. An empty request URL fails "urlRequest != nil"; an
    // invalidated session fails "_isValid". Both return null then.
    std::shared_ptr<ORVURLSessionTask> dataTaskWithURLRequest(const ORVURLRequest &request, DataHandler handler);
    std::shared_ptr<ORVURLSessionTask> downloadTaskWithURLRequest(const ORVURLRequest &request, DownloadHandler handler);

    // A file URL in the temporary directory named by a new UUID.
    static QUrl temporaryURL();

    const std::shared_ptr<ORVURLSession> &session() const { return _session; }
    bool isValid() const;
    // Invalidates the wrapped session (its tasks are cancelled).
    void invalidateAndCancel();
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
