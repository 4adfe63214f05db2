#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaURLSession.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QDir>
#include <QFile>
#include <QUuid>

ORV_LOG_FILE("Orvella Networking")

namespace {
constexpr const char *kFile = "ORVOrvellaURLSession";

bool moveFile(const QString &from, const QString &to, ORVError &error)
{
    if (QFile::rename(from, to))
        return true;
    // Another file system: copy, then remove; the copy is the user's alone too.
    QFile source(from);
    if (source.copy(to)) {
        QFile::setPermissions(to, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        QFile::remove(from);
        return true;
    }
    error = ORVError(ORVCocoaErrorDomain, 512,
                     {{ORVLocalizedDescriptionKey, source.errorString()}, {QStringLiteral("NSFilePath"), from}});
    return false;
}
} // namespace

class ORVOrvellaURLSession::Delegate : public ORVURLSessionDelegate {
public:
    explicit Delegate(std::weak_ptr<ORVOrvellaURLSession> owner) : _owner(std::move(owner)) {}

    void willPerformHTTPRedirection(ORVURLSession &, const std::shared_ptr<ORVURLSessionTask> &task,
                                    const ORVHTTPURLResponse &, const ORVURLRequest &request,
                                    std::function<void(std::optional<ORVURLRequest>)> completion) override
    {
        if (auto owner = _owner.lock())
            owner->redirect(task, request, completion);
        else
            completion(request);
    }
    void didBecomeInvalidWithError(ORVURLSession &, const ORVError &error) override
    {
        if (auto owner = _owner.lock())
            owner->becameInvalid(error);
    }
    void didFinishDownloadingToURL(ORVURLSession &, const std::shared_ptr<ORVURLSessionTask> &task,
                                   const QUrl &location) override
    {
        if (auto owner = _owner.lock())
            owner->finishDownload(task, location);
    }
    void didCompleteWithError(ORVURLSession &, const std::shared_ptr<ORVURLSessionTask> &task,
                              const ORVError &error) override
    {
        if (auto owner = _owner.lock())
            owner->completeTask(task, error);
    }

private:
    std::weak_ptr<ORVOrvellaURLSession> _owner;
};

std::shared_ptr<ORVOrvellaURLSession> ORVOrvellaURLSession::create(const ORVURLSessionConfiguration &configuration,
                                                                   const QString &description)
{
    orvRegisterFileLogLevel();
    auto self = std::shared_ptr<ORVOrvellaURLSession>(new ORVOrvellaURLSession());
    self->_queue = ORVDispatchQueue::create(QStringLiteral("ORVOrvellaURLSession"));
    // All delegate callbacks run serially on our queue.
    self->_session = ORVURLSession::sessionWithConfiguration(configuration, std::make_shared<Delegate>(self), self->_queue);
    self->_session->setSessionDescription(description);
    return self;
}

std::shared_ptr<ORVOrvellaURLSession> ORVOrvellaURLSession::foregroundSession()
{
    ORVURLSessionConfiguration configuration = ORVURLSessionConfiguration::ephemeralSessionConfiguration();
    configuration.urlCacheMemoryCapacity = 1048576;
    configuration.urlCacheDiskCapacity = 10485760;
    return create(configuration, QStringLiteral("Foreground"));
}

std::shared_ptr<ORVOrvellaURLSession> ORVOrvellaURLSession::backgroundSession()
{
    ORVURLSessionConfiguration configuration =
        ORVURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
            QStringLiteral("ORVOrvellaURLSession-Background"));
    try {
        configuration.sharedContainerIdentifier = ORVCoordinator::platformCoordinator()->appGroupIdentifier();
    } catch (const ORVException &) {
        // A coordinator without a group: the downloads stay the process's own.
    }
    return create(configuration, QStringLiteral("Background"));
}

ORVOrvellaURLSession::~ORVOrvellaURLSession() = default;

bool ORVOrvellaURLSession::isValid() const
{
    std::lock_guard lock(_validLock);
    return _isValid;
}

qsizetype ORVOrvellaURLSession::activeTaskCount() const
{
    qsizetype count = 0;
    _queue->sync([&] { count = static_cast<qsizetype>(_activeDataTasks.size() + _activeDownloadTasks.size()); });
    return count;
}

void ORVOrvellaURLSession::invalidateAndCancel()
{
    _session->invalidateAndCancel();
}

QUrl ORVOrvellaURLSession::temporaryURL()
{
    // Downloads are the user's data: never in the shared temporary folder.
    // Without a private folder the move fails and the task reports it.
    const QString folder = ORVPrivateTemporaryDirectory();
    if (folder.isEmpty())
        return {};
    return QUrl::fromLocalFile(QDir(folder).filePath(ORVUUIDString(QUuid::createUuid())));
}

std::shared_ptr<ORVURLSessionTask> ORVOrvellaURLSession::dataTaskWithURLRequest(const ORVURLRequest &request,
                                                                                DataHandler handler)
{
    constexpr const char *method = "dataTaskWithURLRequest:completionHandler:";
    if (!ORVMethodParameterAssert(!request.URL().isEmpty(), "urlRequest != nil", method, "ORVOrvellaURLSession", kFile))
        return nullptr;
    if (!ORVMethodParameterAssert(isValid(), "_isValid", method, "ORVOrvellaURLSession", kFile))
        return nullptr;
    auto record = std::make_shared<ORVOrvellaURLSessionTaskData>();
    record->dataHandler = std::move(handler);
    std::weak_ptr<ORVOrvellaURLSession> weakSelf = weak_from_this();
    auto task = _session->dataTaskWithRequest(
        request, [weakSelf, record](const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response,
                                    const ORVError &error) {
            auto self = weakSelf.lock();
            if (!self)
                return;
            auto complete = [self, record, data, response, error] {
                std::erase(self->_activeDataTasks, record);
                if (record->dataHandler) {
                    auto handler = record->dataHandler;
                    // A transport error comes alone: no partial body and no
                    // response with it.
                    if (error.isNull())
                        ORVDispatchQueue::mainQueue()->async(
                            [handler, data, response, error] { handler(data, response, error); });
                    else
                        ORVDispatchQueue::mainQueue()->async(
                            [handler, error] { handler(QByteArray(), std::nullopt, error); });
                }
            };
            // The transport calls this on our own queue; no second trip through it.
            if (self->_queue->isCurrent())
                complete();
            else
                self->_queue->async(std::move(complete));
        });
    if (!task)
        return nullptr;
    record->task = task;
    _queue->sync([&] { _activeDataTasks.push_back(record); });
    return task;
}

std::shared_ptr<ORVURLSessionTask> ORVOrvellaURLSession::downloadTaskWithURLRequest(const ORVURLRequest &request,
                                                                                    DownloadHandler handler)
{
    constexpr const char *method = "downloadTaskWithURLRequest:completionHandler:";
    if (!ORVMethodParameterAssert(!request.URL().isEmpty(), "urlRequest != nil", method, "ORVOrvellaURLSession", kFile))
        return nullptr;
    if (!ORVMethodParameterAssert(isValid(), "_isValid", method, "ORVOrvellaURLSession", kFile))
        return nullptr;
    auto record = std::make_shared<ORVOrvellaURLSessionTaskData>();
    record->downloadHandler = std::move(handler);
    auto task = _session->downloadTaskWithRequest(request);
    if (!task)
        return nullptr;
    record->task = task;
    _queue->sync([&] { _activeDownloadTasks.push_back(record); });
    return task;
}

void ORVOrvellaURLSession::finishDownload(const std::shared_ptr<ORVURLSessionTask> &task, const QUrl &location)
{
    ORVLogVerbose("URL session finished download task: %@ %@", task->taskIdentifier(), location);
    const auto response = task->response();
    ORVError error = task->error();
    auto it = std::find_if(_activeDownloadTasks.begin(), _activeDownloadTasks.end(),
                           [&](const auto &record) { return record->task == task; });
    if (it == _activeDownloadTasks.end())
        return; // the transport deletes the file
    const auto record = *it;
    QUrl result;
    if (!location.isEmpty()) {
        const QUrl destination = temporaryURL();
        ORVError moveError;
        if (destination.isEmpty()) {
            moveError = ORVError(ORVCocoaErrorDomain, 513,
                                 {{ORVLocalizedDescriptionKey, QStringLiteral("No private folder for the download")},
                                  {QStringLiteral("NSFilePath"), location.toLocalFile()}});
            ORVLogError("Error moving download task file %@", moveError);
            if (error.isNull())
                error = moveError;
        } else if (moveFile(location.toLocalFile(), destination.toLocalFile(), moveError)) {
            result = destination;
        } else {
            ORVLogError("Error moving download task file %@", moveError);
            if (error.isNull())
                error = moveError;
        }
    }
    _activeDownloadTasks.erase(it);
    if (record->downloadHandler) {
        auto handler = record->downloadHandler;
        ORVDispatchQueue::mainQueue()->async([handler, result, response, error] { handler(result, response, error); });
    }
}

void ORVOrvellaURLSession::completeTask(const std::shared_ptr<ORVURLSessionTask> &task, const ORVError &error)
{
    ORVLogVerbose("URL session task did complete: %@ %@", task->taskIdentifier(), error);
    if (error.isNull())
        return;
    auto &records = task->kind() == ORVURLSessionTask::Kind::Data ? _activeDataTasks : _activeDownloadTasks;
    auto it = std::find_if(records.begin(), records.end(), [&](const auto &record) { return record->task == task; });
    if (it == records.end())
        return;
    const auto record = *it;
    records.erase(it);
    if (record->dataHandler) {
        auto handler = record->dataHandler;
        ORVDispatchQueue::mainQueue()->async([handler, error] { handler(QByteArray(), std::nullopt, error); });
    } else if (record->downloadHandler) {
        auto handler = record->downloadHandler;
        ORVDispatchQueue::mainQueue()->async([handler, error] { handler(QUrl(), std::nullopt, error); });
    }
}

void ORVOrvellaURLSession::redirect(const std::shared_ptr<ORVURLSessionTask> &task, const ORVURLRequest &request,
                                    const std::function<void(std::optional<ORVURLRequest>)> &completion)
{
    if (request.HTTPMethod().compare(QLatin1String("GET"), Qt::CaseInsensitive) == 0) {
        completion(request);
        return;
    }
    std::shared_ptr<ORVOrvellaAccount> account;
    QUrl api;
    try {
        account = ORVFetchOrvellaAccount();
        api = account ? account->serverURLForAPIAccess() : QUrl();
    } catch (...) {
        // No account registered, or the application's block failed: nothing
        // to compare with, so the redirect goes ahead as proposed (without
        // the original headers) rather than stalling the task.
    }
    // The original headers come back only within the origin (scheme, host
    // and port) of the account server that the request was made for: the
    // bearer token among them is never sent anywhere else.
    const ORVURLRequest original = task->originalRequest();
    if (api.host().isEmpty() || !ORVURLHasSameOrigin(request.URL(), api) ||
        !ORVURLHasSameOrigin(request.URL(), original.URL())) {
        completion(request);
        return;
    }
    if (original.allHTTPHeaderFields() == request.allHTTPHeaderFields()) {
        completion(request);
        return;
    }
    ORVLogWarn("Request headers changed by redirect original: %@ %@ %@, updated: %@ %@ %@", original.URL(),
               original.HTTPMethod(), orv_scrubbedHeaders(original).description(), request.URL(), request.HTTPMethod(),
               orv_scrubbedHeaders(request).description());
    ORVURLRequest kept = request;
    for (const auto &[name, value] : request.allHTTPHeaderFields().fields())
        kept.setValue(QString(), name);
    for (const auto &[name, value] : original.allHTTPHeaderFields().fields())
        kept.setValue(value, name);
    completion(kept);
}

void ORVOrvellaURLSession::becameInvalid(const ORVError &error)
{
    {
        std::lock_guard lock(_validLock);
        _isValid = false;
    }
    if (!error.isNull())
        ORVLogError("%@", error);
}
