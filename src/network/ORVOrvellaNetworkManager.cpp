#include <OrvellaKit/ORVCommandLogger.h>
#include <OrvellaKit/ORVCoordinator.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>

#include <QFile>
#include <QStringList>

ORV_LOG_FILE("Orvella Networking")

const QString ORVOrvellaTokenManagerErrorDomain = QStringLiteral("com.orvella.orvellakit.token.error");

namespace {
constexpr const char *kFile = "ORVOrvellaNetworkManager";

std::mutex tokenManagerLookupLock;
std::function<std::shared_ptr<ORVOrvellaTokenProviding>()> tokenManagerLookup;

bool contains(const std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> &tasks,
              const std::shared_ptr<ORVOrvellaNetworkTask> &task)
{
    return std::any_of(tasks.begin(), tasks.end(), [&](const auto &t) { return t->isEqual(*task); });
}

bool isAccountRequest(const ORVOrvellaRequest &request)
{
    return dynamic_cast<const ORVOrvellaAccountRequest *>(&request) != nullptr;
}

bool isSimpleRequest(const ORVOrvellaRequest &request)
{
    return dynamic_cast<const ORVOrvellaSimpleRequest *>(&request) != nullptr;
}

QByteArray readWholeFile(const QUrl &url)
{
    if (!url.isLocalFile())
        return {};
    QFile file(url.toLocalFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QByteArray bytes = file.readAll();
    return bytes.isNull() ? QByteArray("", 0) : bytes;
}

// A downloaded file that no caller will ever see goes at once.
void removeDownload(const QUrl &url)
{
    if (url.isLocalFile())
        QFile::remove(url.toLocalFile());
}

ORVError invalidSessionError(const QUrl &url)
{
    return ORVError(ORVURLErrorDomain, ORVURLErrorUnknown,
                    {{ORVLocalizedDescriptionKey, QStringLiteral("The URL session is no longer valid")},
                     {QStringLiteral("NSErrorFailingURLStringKey"), url.toString()}});
}

ORVError badURLError()
{
    return ORVError(ORVURLErrorDomain, ORVURLErrorBadURL,
                    {{ORVLocalizedDescriptionKey, QStringLiteral("The request has no URL")}});
}
} // namespace

ORVOrvellaTokenProviding::~ORVOrvellaTokenProviding() = default;

ORVOrvellaNetworkManager::ORVOrvellaNetworkManager()
    : _foregroundSession(ORVOrvellaURLSession::foregroundSession()),
      _backgroundSession(ORVOrvellaURLSession::backgroundSession())
{
    orvRegisterFileLogLevel();
}

ORVOrvellaNetworkManager::~ORVOrvellaNetworkManager() = default;

std::shared_ptr<ORVOrvellaNetworkManager> ORVOrvellaNetworkManager::sharedManagerMadeBy(
    const std::function<std::shared_ptr<ORVOrvellaNetworkManager>()> &make)
{
    static std::once_flag once;
    static std::shared_ptr<ORVOrvellaNetworkManager> shared;
    std::call_once(once, [&] { shared = make(); });
    return shared;
}

void ORVOrvellaNetworkManager::setSharedTokenManagerLookup(std::function<std::shared_ptr<ORVOrvellaTokenProviding>()> lookup)
{
    std::lock_guard lock(tokenManagerLookupLock);
    tokenManagerLookup = std::move(lookup);
}

std::shared_ptr<ORVOrvellaTokenProviding> ORVOrvellaNetworkManager::tokenProvider()
{
    std::lock_guard lock(_tokenProviderLock);
    if (auto provider = _tokenProvider.lock())
        return provider;
    return shared_from_this();
}

void ORVOrvellaNetworkManager::setTokenProvider(const std::shared_ptr<ORVOrvellaTokenProviding> &provider)
{
    std::lock_guard lock(_tokenProviderLock);
    _tokenProvider = provider;
}

void ORVOrvellaNetworkManager::requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &account,
                                                      const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                                      bool ignoreCache, TokenCompletion completion)
{
    std::function<std::shared_ptr<ORVOrvellaTokenProviding>()> lookup;
    {
        std::lock_guard lock(tokenManagerLookupLock);
        lookup = tokenManagerLookup;
    }
    auto tokenManager = lookup ? lookup() : nullptr;
    if (!tokenManager || tokenManager.get() == this) {
        // No token manager: neither a token nor an error.
        completion(QString(), ORVError());
        return;
    }
    tokenManager->requestTokenForAccount(account, task, ignoreCache, std::move(completion));
}

std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> ORVOrvellaNetworkManager::activeTasks() const
{
    std::lock_guard lock(_queue);
    return _activeTasks;
}

std::shared_ptr<ORVOrvellaNetworkTask> ORVOrvellaNetworkManager::startRequest(const std::shared_ptr<ORVOrvellaRequest> &request)
{
    auto task = ORVOrvellaNetworkTask::taskWithRequest(request);
    startTask(task);
    return task;
}

// Registers the task and asks for a token when the request needs one.
void ORVOrvellaNetworkManager::startTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task)
{
    const auto &request = task->request();
    // A request that cannot be sent is a programming error of the caller's:
    // it is reported on the caller's thread, and the task still ends.
    const bool background = request->useBackgroundSession();
    const auto &session = background ? _backgroundSession : _foregroundSession;
    const bool hasURL = !request->originalRequest().URL().isEmpty();
    if (!hasURL || !session->isValid()) {
        const ORVError error = hasURL ? invalidSessionError(request->originalRequest().URL()) : badURLError();
        failTask(task, error, true);
        // A retry is the manager's own doing, not the caller's mistake.
        if (request->retryCount() == 0) {
            const char *method = background ? "downloadTaskWithURLRequest:completionHandler:"
                                            : "dataTaskWithURLRequest:completionHandler:";
            ORVMethodParameterAssert(hasURL, "urlRequest != nil", method, "ORVOrvellaURLSession", "ORVOrvellaURLSession");
            if (hasURL)
                ORVMethodParameterAssert(false, "_isValid", method, "ORVOrvellaURLSession", "ORVOrvellaURLSession");
        }
        return;
    }
    {
        std::lock_guard lock(_queue);
        if (!contains(_activeTasks, task))
            _activeTasks.push_back(task);
    }
    std::shared_ptr<ORVOrvellaAccount> account;
    try {
        account = ORVFetchOrvellaAccount();
    } catch (const std::exception &exception) {
        // No fetch block (an assertion) or one that threw: the caller hears
        // of it, and the task still ends with its one call.
        failTask(task, ORVError(ORVOrvellaTokenManagerErrorDomain, 15,
                                {{ORVLocalizedDescriptionKey, QString::fromUtf8(exception.what())}}));
        throw;
    }
    if (!request->canStartWithoutToken()) {
        ORVLogInfo("Orvella Networking: Requesting token %@", request->identifier());
        std::weak_ptr<ORVOrvellaNetworkManager> weakSelf = weak_from_this();
        // A provider is asked to answer once; a second answer is ignored, so
        // that a request is never sent (or failed) twice.
        auto answered = std::make_shared<std::atomic<bool>>(false);
        tokenProvider()->requestTokenForAccount(
            account, task, request->retryCount() != 0,
            [weakSelf, task, answered](const QString &token, const ORVError &error) {
                if (answered->exchange(true)) {
                    ORVLogError("Orvella Networking: Token provider answered twice for request %@",
                                task->request()->identifier());
                    return;
                }
                if (auto self = weakSelf.lock())
                    self->continueTask(task, token, error);
            });
    } else {
        continueTask(task, QString(), ORVError());
    }
}

void ORVOrvellaNetworkManager::failTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const ORVError &error,
                                        bool neverActive)
{
    const auto request = task->request();
    ORVLogError("Orvella Networking: Cannot start request %@ %@", request->identifier(), error);
    if (!removeFromActiveTasks(task) && !neverActive) {
        // Cancelled (or dropped) meanwhile: its handler had its call.
        logAlreadyCancelled(request, std::nullopt);
        return;
    }
    if (!request->category().isNull())
        logCommand(request, QByteArray(), std::nullopt, error);
    deliver(request, nullptr, std::nullopt, error);
}

// Attaches the token and hands the request to a session.
void ORVOrvellaNetworkManager::continueTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task, const QString &token,
                                            const ORVError &tokenError)
{
    const auto request = task->request();
    // Cancelled while it waited for its token: its handler has had its one
    // call, and the request is never sent.
    if (task->isCancelled()) {
        ORVLogInfo("Orvella Networking: Token for already cancelled request %@", request->identifier());
        // A task the category selection cancelled stays active until its URL
        // task ends; this one never had one.
        removeFromActiveTasks(task);
        return;
    }
    if (token.isNull() && !request->canStartWithoutToken()) {
        ORVLogError("Orvella Networking: tokenError %@ %@", request->identifier(), tokenError);
        if (!request->category().isNull())
            logCommand(request, QByteArray(), std::nullopt, tokenError);
        // A task that left the active set is not delivered to any more.
        if (!removeFromActiveTasks(task)) {
            logAlreadyCancelled(request, std::nullopt);
            return;
        }
        ORVDispatchQueue::mainQueue()->async([request, tokenError] {
            if (auto handler = request->completionHandler()) {
                ORVLogError("Orvella Networking: Calling completion handler for request %@ with tokenError %@",
                            request->identifier(), tokenError);
                handler(nullptr, std::nullopt, tokenError);
            }
        });
        return;
    }

    ORVURLRequest urlRequest = request->originalRequest();
    if (!token.isNull())
        urlRequest.setValue(QStringLiteral("Bearer ") + token, QStringLiteral("Authorization"));

    const bool background = request->useBackgroundSession();
    const auto &session = background ? _backgroundSession : _foregroundSession;
    if (!session->isValid()) {
        // Invalidated while the token was fetched: nobody's mistake to assert.
        failTask(task, invalidSessionError(urlRequest.URL()));
        return;
    }
    std::shared_ptr<ORVURLSessionTask> urlTask;
    std::weak_ptr<ORVOrvellaNetworkManager> weakSelf = weak_from_this();
    // Set once the URL task carries this task: a URL task that never did
    // (the task was cancelled first) ends unheard.
    auto attached = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<ORVPlatformCoordinator> coordinator;
    std::shared_ptr<ORVBackgroundTaskToken> activity;
    try {
        if (!background) {
            coordinator = ORVCoordinator::platformCoordinator();
            activity = std::make_shared<ORVBackgroundTaskToken>();
            // The expiration handler is part of the contract even though the
            // coordinator here never calls it.
            *activity = coordinator->beginBackgroundTaskWithName(QStringLiteral("Orvella request"), [coordinator, activity] {
                ORVLogError("Orvella Networking: %@ background task expired",
                            "-[ORVOrvellaNetworkManager continueTask:token:tokenError:]_block_invoke");
                coordinator->endBackgroundTask(*activity);
            });
            urlTask = _foregroundSession->dataTaskWithURLRequest(
                urlRequest, [weakSelf, task, coordinator, activity, attached](
                                const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response,
                                const ORVError &error) {
                    if (attached->load())
                        if (auto self = weakSelf.lock())
                            self->finishTask(task, response, data, error);
                    coordinator->endBackgroundTask(*activity);
                });
        } else {
            if (!request->category().isNull())
                logCommand(request, ORVStringWithFormat("Starting Request %@", request->identifier()).toUtf8(),
                           std::nullopt, ORVError());
            task->yield();
            // Which URL task this completion belongs to, by identity.
            auto carrier = std::make_shared<const ORVURLSessionTask *>(nullptr);
            urlTask = _backgroundSession->downloadTaskWithURLRequest(
                urlRequest, [weakSelf, task, carrier, attached](const QUrl &url,
                                                                const std::optional<ORVHTTPURLResponse> &response,
                                                                const ORVError &error) {
                    auto self = weakSelf.lock();
                    // Here a download cancelled by rescheduling still ends in
                    // this process; its network task no longer carries it, and
                    // the new task (equal to the old one) must not take its result.
                    if (!self || !attached->load() || task->currentURLTask().get() != *carrier) {
                        if (attached->load())
                            logAlreadyCancelled(task->request(), response);
                        removeDownload(url);
                        return;
                    }
                    self->finishTaskWithDownload(task, response, url, error);
                });
            *carrier = urlTask.get();
        }
    } catch (const ORVException &exception) {
        // The session's own assertion, here on a thread that is not the
        // caller's: the task ends with an error instead of staying active.
        ORVLogError("Orvella Networking: %@", exception.reason());
        urlTask.reset();
    }
    if (!urlTask) {
        if (activity)
            coordinator->endBackgroundTask(*activity);
        failTask(task, invalidSessionError(urlRequest.URL()));
        return;
    }

    if (request->countOfBytesClientExpectsToReceive() != 0)
        urlTask->setCountOfBytesClientExpectsToReceive(static_cast<qint64>(request->countOfBytesClientExpectsToReceive()));
    if (request->countOfBytesClientExpectsToSend() != 0)
        urlTask->setCountOfBytesClientExpectsToSend(static_cast<qint64>(request->countOfBytesClientExpectsToSend()));
    const float priority = request->priority();
    if (priority >= 0.0f && priority <= 1.0f)
        urlTask->setPriority(priority);
    urlTask->setTaskDescription(ORVUUIDString(request->identifier()));
    if (!task->attachURLTaskUnlessCancelled(urlTask, background)) {
        // Cancelled between the check above and now: nothing is sent.
        ORVLogInfo("Orvella Networking: Token for already cancelled request %@", request->identifier());
        removeFromActiveTasks(task);
        urlTask->cancel();
        return;
    }
    attached->store(true);
    ORVLogInfo("Orvella Networking: Starting request %@ %d", request->identifier(), background ? 1 : 0);
    urlTask->resume();
}

bool ORVOrvellaNetworkManager::shouldRetryRequest(const std::shared_ptr<ORVOrvellaRequest> &request,
                                                  const std::optional<ORVHTTPURLResponse> &response, ORVError *error)
{
    if (request->retryCount() != 0 || !response || response->statusCode() != 401)
        return false;
    if (error && error->isNull())
        *error = ORVError(ORVURLErrorDomain, 401, {{QStringLiteral("url"), request->originalRequest().URL()}});
    return true;
}

void ORVOrvellaNetworkManager::logAlreadyCancelled(const std::shared_ptr<ORVOrvellaRequest> &request,
                                                   const std::optional<ORVHTTPURLResponse> &response)
{
    ORVLogInfo("Orvella Networking: Finishing already cancelled request %@ %@ %@", request->identifier(),
               request->originalRequest().URL(), response ? QVariant(response->statusCode()) : QVariant());
}

// Whether the task was still active (it is removed unless it is retried). A
// task cancelled meanwhile is only logged: its handler had its call. One
// that was dropped without being cancelled hands its result to whoever
// asked for it with setDroppedResultHandler().
bool ORVOrvellaNetworkManager::stillActive(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                           const std::optional<ORVHTTPURLResponse> &response, bool retry)
{
    bool wasActive = false;
    {
        std::lock_guard lock(_queue);
        wasActive = contains(_activeTasks, task);
        if (wasActive && !retry)
            std::erase_if(_activeTasks, [&](const auto &t) { return t->isEqual(*task); });
    }
    if (!wasActive)
        logAlreadyCancelled(task->request(), response);
    return wasActive;
}

bool ORVOrvellaNetworkManager::removeFromActiveTasks(const std::shared_ptr<ORVOrvellaNetworkTask> &task)
{
    // This very task: a rescheduled copy is equal to it, and must stay.
    std::lock_guard lock(_queue);
    return std::erase_if(_activeTasks, [&](const auto &t) { return t == task; }) > 0;
}

void ORVOrvellaNetworkManager::handDroppedResult(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                                 const QByteArray &data,
                                                 const std::optional<ORVHTTPURLResponse> &response,
                                                 const ORVError &error)
{
    if (task->isCancelled())
        return;
    if (auto handler = task->takeDroppedResultHandler())
        ORVDispatchQueue::mainQueue()->async([handler, data, response, error] { handler(data, response, error); });
}

void ORVOrvellaNetworkManager::deliver(const std::shared_ptr<ORVOrvellaRequest> &request,
                                       std::shared_ptr<ORVOrvellaData> data,
                                       const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)
{
    auto handler = request->completionHandler();
    if (!handler)
        return;
    ORVLogInfo("Orvella Networking: Calling completion handler for request %@", request->identifier());
    ORVDispatchQueue::mainQueue()->async([handler, data, response, error] { handler(data, response, error); });
}

// Finishing an exchange of the foreground session.
void ORVOrvellaNetworkManager::finishTask(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                          const std::optional<ORVHTTPURLResponse> &response, const QByteArray &data,
                                          ORVError error)
{
    const auto request = task->request();
    ORVLogInfo("Finish request: %@ %@ %@ %@", request->identifier(), request->originalRequest().URL(),
               response ? QVariant(response->statusCode()) : QVariant(), error);
    const ORVError transportError = error;
    const bool retry = shouldRetryRequest(request, response, &error);
    if (!stillActive(task, response, retry)) {
        handDroppedResult(task, data, response, transportError);
        return;
    }
    if (retry) {
        ORVLogError("Retrying request due to error: %@ %@", request->identifier(), error);
        request->incrementRetryCount();
        startTask(task);
        return;
    }
    if (!request->category().isNull() && !request->skipResponseLogging()) {
        const QByteArray logged = request->maskResponseLogging()
                                      ? ORVStringWithFormat("Masked Content (%lu Bytes)", static_cast<quint64>(data.size())).toUtf8()
                                      : data;
        logCommand(request, logged, response, error);
    }
    if (isAccountRequest(*request) || isSimpleRequest(*request))
        deliver(request, data.isNull() ? nullptr : std::make_shared<ORVOrvellaData>(data), response, error);
}

// Finishing an exchange of the background session (a download).
void ORVOrvellaNetworkManager::finishTaskWithDownload(const std::shared_ptr<ORVOrvellaNetworkTask> &task,
                                                      const std::optional<ORVHTTPURLResponse> &response,
                                                      const QUrl &dataURL, ORVError error)
{
    const auto request = task->request();
    ORVLogInfo("Orvella Networking: Finish request %@ %@ %d %@ %@", request->identifier(),
               request->originalRequest().URL(), request->useBackgroundSession() ? 1 : 0,
               response ? QVariant(response->statusCode()) : QVariant(), error);
    const ORVError transportError = error;
    const bool retry = shouldRetryRequest(request, response, &error);
    if (!stillActive(task, response, retry)) {
        handDroppedResult(task, readWholeFile(dataURL), response, transportError);
        removeDownload(dataURL);
        return;
    }
    task->resume();
    task->clearCurrentURLTask();
    if (retry) {
        ORVLogError("Orvella Networking: Retrying request due to error: %@ %@", request->identifier(), error);
        removeDownload(dataURL);
        request->incrementRetryCount();
        startTask(task);
        return;
    }
    if (!request->category().isNull() && !request->skipResponseLogging())
        logCommand(request, request->maskResponseLogging() ? QByteArray("Masked Content") : readWholeFile(dataURL),
                   response, error);
    // An account request's handler receives the file itself and owns it;
    // every other file has no reader once this returns.
    if (isAccountRequest(*request) && request->completionHandler()) {
        deliver(request, dataURL.isEmpty() ? nullptr : std::make_shared<ORVOrvellaData>(dataURL), response, error);
        return;
    }
    if (isSimpleRequest(*request)) {
        const QByteArray bytes = readWholeFile(dataURL);
        deliver(request, bytes.isNull() ? nullptr : std::make_shared<ORVOrvellaData>(bytes), response, error);
    }
    removeDownload(dataURL);
}

void ORVOrvellaNetworkManager::cancelActiveTasks()
{
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> tasks;
    {
        std::lock_guard lock(_queue);
        tasks.swap(_activeTasks);
    }
    cancelTasks(tasks);
}

void ORVOrvellaNetworkManager::cancelTasksWithCategories(const QSet<QString> &categories)
{
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> nonMatching;
    {
        std::lock_guard lock(_queue);
        for (const auto &task : _activeTasks) {
            const QString category = task->request()->category();
            if (!(!category.isNull() && categories.contains(category)))
                nonMatching.push_back(task);
        }
        // The matching tasks leave the active set without being cancelled,
        // and the non-matching ones are cancelled while they stay in it.
        _activeTasks = nonMatching;
    }
    cancelTasks(nonMatching);
}

void ORVOrvellaNetworkManager::cancelTasksWithIdentifiers(const QSet<QUuid> &identifiers)
{
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> matching;
    {
        std::lock_guard lock(_queue);
        std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> nonMatching;
        for (const auto &task : _activeTasks)
            (identifiers.contains(task->request()->identifier()) ? matching : nonMatching).push_back(task);
        _activeTasks = std::move(nonMatching);
    }
    cancelTasks(matching);
}

void ORVOrvellaNetworkManager::cancelTasks(const std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> &tasks)
{
    const ORVError error(ORVOrvellaTokenManagerErrorDomain, ORVOrvellaNetworkTaskCancelledErrorCode);
    for (const auto &task : tasks) {
        task->cancel();
        const auto request = task->request();
        ORVLogInfo("Orvella Networking: Cancel request %@", request->identifier());
        if (auto handler = request->completionHandler()) {
            ORVLogInfo("Orvella Networking: Calling completion handler for request %@", request->identifier());
            ORVDispatchQueue::mainQueue()->async([handler, error] { handler(nullptr, std::nullopt, error); });
        }
    }
}

void ORVOrvellaNetworkManager::rescheduleBackgroundDownloadTasks()
{
    std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> background;
    {
        std::lock_guard lock(_queue);
        std::vector<std::shared_ptr<ORVOrvellaNetworkTask>> rest;
        for (const auto &task : _activeTasks)
            (task->scheduledWithBackgroundSession() ? background : rest).push_back(task);
        _activeTasks = std::move(rest);
    }
    QStringList identifiers;
    for (const auto &task : background)
        identifiers << ORVUUIDString(task->request()->identifier());
    ORVLogInfo("Orvella Networking: Rescheduling background tasks %@", identifiers);
    for (const auto &task : background)
        startTask(task->copyForRescheduling());
}

void ORVOrvellaNetworkManager::logCommand(const std::shared_ptr<ORVOrvellaRequest> &request,
                                          const QByteArray &responseData,
                                          const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)
{
    if (auto logger = ORVCommandLogger::sharedLogger())
        logger->logRequest(request->originalRequest(), QStringLiteral("Orvella: ") + request->category(), responseData,
                           response, request->maskRequestLogging(), error);
}
