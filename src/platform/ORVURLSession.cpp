#include "ORVThreadPump.h"
#include "ORVURLCache.h"

#include <OrvellaKit/ORVStandardPaths.h>
#include <OrvellaKit/ORVURLSession.h>

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QUuid>

#include <atomic>
#include <set>
#include <unordered_map>

const QString ORVURLErrorDomain = QStringLiteral("NSURLErrorDomain");

namespace {

constexpr int kMaximumRedirects = 16;

std::mutex defaultCALock;
QList<QSslCertificate> defaultCA;

ORVError urlError(qint64 code, const QString &description, const QUrl &url)
{
    return ORVError(ORVURLErrorDomain, code,
                    {{ORVLocalizedDescriptionKey, description},
                     {QStringLiteral("NSErrorFailingURLStringKey"), url.toString()}});
}

bool isRedirectStatus(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool isHTTPScheme(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    return scheme == QLatin1String("http") || scheme == QLatin1String("https");
}

// Why a redirect from `from` to `to` must not be followed, or a null error.
// Only http and https are ever followed (QNetworkAccessManager would read a
// file: or qrc: URL as readily as a web page), and never from https down to
// http: the request's token and body would travel in clear text.
ORVError refusedRedirect(const QUrl &from, const QUrl &to)
{
    if (!to.isValid() || !isHTTPScheme(to))
        return urlError(ORVURLErrorUnsupportedURL, QStringLiteral("A redirect to an unsupported URL was refused"), to);
    if (from.scheme().toLower() == QLatin1String("https") && to.scheme().toLower() == QLatin1String("http"))
        return urlError(ORVURLErrorAppTransportSecurityRequiresSecureConnection,
                        QStringLiteral("A redirect from https to http was refused"), to);
    return {};
}

// Whether a request may be answered from, or stored in, the session's cache.
// A reply to a request that carries credentials belongs to those credentials
// and QNetworkAccessManager keys its cache by URL alone; a request that asks
// to ignore local data must not even revalidate against it.
bool mayUseCache(const ORVURLRequest &request, const QByteArray &verb)
{
    if (verb != "GET" && verb != "HEAD")
        return false;
    if (request.allHTTPHeaderFields().contains(QStringLiteral("Authorization")) ||
        request.allHTTPHeaderFields().contains(QStringLiteral("Cookie")))
        return false;
    switch (request.cachePolicy()) {
    case ORVURLRequestReloadIgnoringLocalCacheData:
    case ORVURLRequestReloadIgnoringLocalAndRemoteCacheData:
    case ORVURLRequestReloadRevalidatingCacheData:
        return false;
    default:
        return true;
    }
}

// The request a redirect leads to, as the platform proposes it.
ORVURLRequest redirectedRequest(const ORVURLRequest &current, int status, const QUrl &location)
{
    ORVURLRequest next = current;
    next.setURL(location);
    const QString method = current.HTTPMethod().toUpper();
    if ((status == 303 && method != QLatin1String("HEAD")) ||
        ((status == 301 || status == 302) && method == QLatin1String("POST"))) {
        next.setHTTPMethod(QStringLiteral("GET"));
        next.setHTTPBody(QByteArray());
        next.setValue(QString(), QStringLiteral("Content-Type"));
        next.setValue(QString(), QStringLiteral("Content-Length"));
    }
    // A bearer token never follows a redirect to another origin.
    if (!ORVURLHasSameOrigin(location, current.URL()))
        next.setValue(QString(), QStringLiteral("Authorization"));
    return next;
}

QNetworkRequest::Priority qtPriority(float priority)
{
    if (priority >= 0.75f)
        return QNetworkRequest::HighPriority;
    if (priority <= 0.25f)
        return QNetworkRequest::LowPriority;
    return QNetworkRequest::NormalPriority;
}

QNetworkRequest::CacheLoadControl cacheControl(ORVURLRequestCachePolicy policy)
{
    switch (policy) {
    case ORVURLRequestReloadIgnoringLocalCacheData:
    case ORVURLRequestReloadIgnoringLocalAndRemoteCacheData:
    case ORVURLRequestReloadRevalidatingCacheData:
        return QNetworkRequest::AlwaysNetwork;
    case ORVURLRequestReturnCacheDataElseLoad:
        return QNetworkRequest::PreferCache;
    case ORVURLRequestReturnCacheDataDontLoad:
        return QNetworkRequest::AlwaysCache;
    default:
        return QNetworkRequest::PreferNetwork;
    }
}

} // namespace

// --- configuration -----------------------------------------------------------

ORVURLSessionConfiguration ORVURLSessionConfiguration::ephemeralSessionConfiguration()
{
    ORVURLSessionConfiguration configuration;
    configuration.caCertificates = defaultCACertificates();
    return configuration;
}

ORVURLSessionConfiguration ORVURLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(const QString &identifier)
{
    ORVURLSessionConfiguration configuration = ephemeralSessionConfiguration();
    configuration.identifier = identifier;
    return configuration;
}

void ORVURLSessionConfiguration::setDefaultCACertificates(const QList<QSslCertificate> &certificates)
{
    std::lock_guard lock(defaultCALock);
    defaultCA = certificates;
}

QList<QSslCertificate> ORVURLSessionConfiguration::defaultCACertificates()
{
    std::lock_guard lock(defaultCALock);
    return defaultCA;
}

// --- the network-thread side --------------------------------------------------

struct ORVURLSessionEngine;

struct ORVURLSession::Private {
    std::mutex lock;
    QString description;
    bool valid = true;
    bool finishing = false;
    std::shared_ptr<ORVURLSessionDelegate> delegate;
    std::set<std::shared_ptr<ORVURLSessionTask>> running;
    std::atomic<quint64> nextIdentifier = 1;
    ::ORVURLSessionEngine *engine = nullptr; // network thread only
};

namespace {
// Every engine alive, so that the network thread's stop can delete them
// (network thread only). A session whose engine went that way keeps a
// dangling pointer, but nothing runs on the network thread after its stop.
std::set<ORVURLSessionEngine *> &liveEngines()
{
    static auto *engines = new std::set<ORVURLSessionEngine *>;
    return *engines;
}
} // namespace

// Lives on the network thread; one per session.
struct ORVURLSessionEngine {
    struct Transfer {
        std::shared_ptr<ORVURLSession> session;
        std::shared_ptr<ORVURLSessionTask> task;
        QByteArray body;
        std::shared_ptr<QFile> file;
        int redirects = 0;
        bool sawSslErrors = false;
        // Why the body could not be kept (a write to the download failed).
        ORVError writeError;
    };

    explicit ORVURLSessionEngine(const ORVURLSessionConfiguration &configuration)
    {
        static const bool teardownAdded = [] {
            orv::detail::addNetworkThreadTeardown([] {
                while (!liveEngines().empty())
                    delete *liveEngines().begin();
            });
            return true;
        }();
        (void)teardownAdded;
        liveEngines().insert(this);
        sweepLeftovers();
        // The disk tier lives in a folder of the session's own inside the
        // user's private temporary folder, removed with the session: an
        // ephemeral session leaves nothing behind.
        QString diskFolder;
        if (configuration.urlCacheDiskCapacity > 0) {
            if (const QString privateFolder = ORVPrivateTemporaryDirectory(); !privateFolder.isEmpty()) {
                cacheFolder = std::make_unique<QTemporaryDir>(privateFolder + QStringLiteral("/URLCache-XXXXXX"));
                if (cacheFolder->isValid())
                    diskFolder = cacheFolder->path();
            }
        }
        if (configuration.urlCacheMemoryCapacity > 0 || !diskFolder.isEmpty()) {
            cache = new orv::detail::ORVURLCache(configuration.urlCacheMemoryCapacity,
                                                 configuration.urlCacheDiskCapacity, diskFolder, &manager);
            manager.setCache(cache);
        }
    }

    // Downloads and cache folders of a process that was killed stay in the
    // private folder; once a day old, nobody is using them any more.
    static void sweepLeftovers()
    {
        static std::once_flag once;
        std::call_once(once, [] {
            const QString folder = ORVPrivateTemporaryDirectory();
            if (folder.isEmpty())
                return;
            const QDateTime dayAgo = QDateTime::currentDateTimeUtc().addDays(-1);
            const QFileInfoList entries =
                QDir(folder).entryInfoList({QStringLiteral("ORVDownload-*.part"), QStringLiteral("URLCache-*")},
                                           QDir::Files | QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot | QDir::NoSymLinks);
            for (const QFileInfo &entry : entries) {
                if (entry.lastModified().toUTC() >= dayAgo)
                    continue;
                if (entry.isDir())
                    QDir(entry.filePath()).removeRecursively();
                else
                    QFile::remove(entry.filePath());
            }
        });
    }

    static ORVURLSessionEngine &of(ORVURLSession &session)
    {
        if (!session.d->engine)
            session.d->engine = new ORVURLSessionEngine(session.configuration());
        return *session.d->engine;
    }

    void start(const std::shared_ptr<ORVURLSession> &session, const std::shared_ptr<ORVURLSessionTask> &task,
               Transfer transfer)
    {
        ORVURLRequest request;
        float priority = 0.5f;
        bool cancelled = false;
        std::optional<ORVHTTPURLResponse> lastResponse;
        {
            std::lock_guard lock(task->_lock);
            cancelled = task->_cancelRequested;
            lastResponse = task->_response;
            if (!cancelled)
                task->_state = ORVURLSessionTaskState::Running;
            request = task->_currentRequest;
            priority = task->_priority;
        }
        // finish() takes the task's lock itself.
        if (cancelled) {
            finish(std::move(transfer), lastResponse,
                   urlError(ORVURLErrorCancelled, QStringLiteral("cancelled"), request.URL()));
            return;
        }
        const QUrl url = request.URL();
        if (!url.isValid() || url.scheme().isEmpty()) {
            finish(std::move(transfer), std::nullopt, urlError(ORVURLErrorBadURL, QStringLiteral("bad URL"), url));
            return;
        }
        if (task->kind() == ORVURLSessionTask::Kind::Download && !transfer.file) {
            // A download is the user's data: it streams into a file only the
            // user can read, in a folder only the user can enter.
            const QString folder = ORVPrivateTemporaryDirectory();
            if (folder.isEmpty()) {
                finish(std::move(transfer), std::nullopt,
                       urlError(ORVURLErrorCannotCreateFile, QStringLiteral("No private folder for the download"), url));
                return;
            }
            transfer.file = std::make_shared<QFile>(folder + QStringLiteral("/ORVDownload-") +
                                                    QUuid::createUuid().toString(QUuid::WithoutBraces) +
                                                    QStringLiteral(".part"));
            if (!transfer.file->open(QIODevice::WriteOnly | QIODevice::NewOnly,
                                     QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
                const QString reason = transfer.file->errorString();
                transfer.file.reset();
                finish(std::move(transfer), std::nullopt, urlError(ORVURLErrorCannotCreateFile, reason, url));
                return;
            }
        }

        QNetworkRequest qrequest(url);
        for (const auto &[name, value] : request.allHTTPHeaderFields().fields())
            qrequest.setRawHeader(name.toLatin1(), value.toUtf8());
        // Redirects are ours to decide.
        qrequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        const QByteArray verb = request.HTTPMethod().toUpper().toLatin1();
        const bool cached = cache && mayUseCache(request, verb);
        qrequest.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                              cached ? cacheControl(request.cachePolicy()) : QNetworkRequest::AlwaysNetwork);
        qrequest.setAttribute(QNetworkRequest::CacheSaveControlAttribute, cached);
        if (request.timeoutInterval() > 0)
            qrequest.setTransferTimeout(static_cast<int>(std::min(request.timeoutInterval() * 1000.0, 2.0e9)));
        qrequest.setPriority(qtPriority(priority));
        // No cookie jar between requests: a server's cookie would otherwise
        // go with every later request of the session, whoever signs in. A
        // caller that needs one sends its own "Cookie" header.
        qrequest.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
        qrequest.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
        if (url.scheme() == QLatin1String("https")) {
            QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
            if (!session->configuration().caCertificates.isEmpty())
                ssl.addCaCertificates(session->configuration().caCertificates);
            qrequest.setSslConfiguration(ssl);
        }

        // The standard verbs go through their own calls: custom verbs are
        // HTTP only (file: and data: URLs need get()). A request that may
        // not touch the cache goes through a manager that has none.
        QNetworkAccessManager &through = cached ? manager : uncachedManager;
        QNetworkReply *reply = nullptr;
        if (verb == "GET")
            reply = through.get(qrequest);
        else if (verb == "HEAD")
            reply = through.head(qrequest);
        else if (verb == "DELETE" && request.HTTPBody().isEmpty())
            reply = through.deleteResource(qrequest);
        else if (verb == "POST")
            reply = through.post(qrequest, request.HTTPBody());
        else if (verb == "PUT")
            reply = through.put(qrequest, request.HTTPBody());
        else
            reply = through.sendCustomRequest(qrequest, verb, request.HTTPBody());
        transfer.body.clear();
        transfer.writeError = ORVError();
        if (cached && verb == "GET") {
            const QUrl key = reply->url();
            ++cachedFetchesInFlight[key];
            QObject::connect(reply, &QObject::destroyed, &manager, [this, key] {
                if (--cachedFetchesInFlight[key] > 0)
                    return;
                cachedFetchesInFlight.remove(key);
                cache->discardPending(key);
            });
        }
        QObject::connect(reply, &QNetworkReply::readyRead, reply, [this, reply] { receive(reply); });
        QObject::connect(reply, &QNetworkReply::sslErrors, reply, [this, reply](const QList<QSslError> &) {
            if (auto it = transfers.find(reply); it != transfers.end())
                it->second.sawSslErrors = true;
        });
        QObject::connect(reply, &QNetworkReply::finished, reply, [this, reply] { finished(reply); });
        replies[task.get()] = reply;
        transfers.emplace(reply, std::move(transfer));
    }

    void receive(QNetworkReply *reply)
    {
        auto it = transfers.find(reply);
        if (it == transfers.end())
            return;
        if (!reply->isOpen())
            return;
        const QByteArray chunk = reply->readAll();
        Transfer &transfer = it->second;
        if (!transfer.writeError.isNull())
            return;
        if (transfer.file) {
            if (transfer.file->write(chunk) != chunk.size()) {
                // A full disk or a size limit: the download cannot be whole,
                // so it ends here with an error instead of a short file.
                transfer.writeError =
                    urlError(ORVURLErrorCannotWriteToFile, transfer.file->errorString(), reply->request().url());
                // abort() finishes the reply at once; the transfer is gone then.
                reply->abort();
                return;
            }
        } else {
            transfer.body.append(chunk);
        }
        std::lock_guard lock(transfer.task->_lock);
        transfer.task->_received += chunk.size();
    }

    static ORVError errorOf(QNetworkReply *reply, bool hasStatus, bool cancelled, bool sawSslErrors)
    {
        const auto error = reply->error();
        if (error == QNetworkReply::NoError)
            return {};
        const QUrl url = reply->request().url();
        if (cancelled)
            return urlError(ORVURLErrorCancelled, QStringLiteral("cancelled"), url);
        // An HTTP status is an answer, not a transport failure.
        const bool httpStatusError = (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError) ||
                                     (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError) ||
                                     error == QNetworkReply::ProtocolInvalidOperationError;
        if (hasStatus && httpStatusError)
            return {};
        qint64 code = ORVURLErrorUnknown;
        switch (error) {
        case QNetworkReply::OperationCanceledError: // the transfer time-out aborts this way
        case QNetworkReply::TimeoutError:
            code = ORVURLErrorTimedOut;
            break;
        case QNetworkReply::ConnectionRefusedError:
            code = ORVURLErrorCannotConnectToHost;
            break;
        case QNetworkReply::HostNotFoundError:
            code = ORVURLErrorCannotFindHost;
            break;
        case QNetworkReply::RemoteHostClosedError:
        case QNetworkReply::NetworkSessionFailedError:
        case QNetworkReply::TemporaryNetworkFailureError:
            code = ORVURLErrorNetworkConnectionLost;
            break;
        case QNetworkReply::SslHandshakeFailedError:
            code = sawSslErrors ? ORVURLErrorServerCertificateUntrusted : ORVURLErrorSecureConnectionFailed;
            break;
        case QNetworkReply::ProtocolUnknownError:
            code = ORVURLErrorUnsupportedURL;
            break;
        case QNetworkReply::ProtocolFailure:
            code = ORVURLErrorBadServerResponse;
            break;
        default:
            break;
        }
        return urlError(code, reply->errorString(), url);
    }

    void finished(QNetworkReply *reply)
    {
        if (transfers.find(reply) == transfers.end())
            return;
        receive(reply);
        // A write that failed in receive() aborts the reply, which may have
        // finished the transfer already.
        auto it = transfers.find(reply);
        if (it == transfers.end())
            return;
        Transfer transfer = std::move(it->second);
        transfers.erase(it);
        replies.erase(transfer.task.get());
        reply->deleteLater();

        const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        std::optional<ORVHTTPURLResponse> response;
        const QString scheme = reply->url().scheme();
        if (statusAttribute.isValid() && (scheme == QLatin1String("http") || scheme == QLatin1String("https"))) {
            ORVHTTPHeaders headers;
            for (const auto &[name, value] : reply->rawHeaderPairs())
                headers.appendRaw(QString::fromLatin1(name), QString::fromUtf8(value));
            response = ORVHTTPURLResponse(reply->url(), statusAttribute.toInt(), headers);
        }
        bool cancelled = false;
        {
            std::lock_guard lock(transfer.task->_lock);
            cancelled = transfer.task->_cancelRequested;
            transfer.task->_response = response;
        }
        ORVError error = errorOf(reply, response.has_value(), cancelled, transfer.sawSslErrors);
        if (!transfer.writeError.isNull() && !cancelled)
            error = transfer.writeError;

        const QString location = response ? response->valueForHTTPHeaderField(QStringLiteral("Location")) : QString();
        if (error.isNull() && response && isRedirectStatus(response->statusCode()) && !location.isEmpty()) {
            if (transfer.redirects >= kMaximumRedirects) {
                finish(std::move(transfer), response,
                       urlError(ORVURLErrorHTTPTooManyRedirects, QStringLiteral("too many redirects"), reply->url()));
                return;
            }
            const QUrl next = reply->url().resolved(QUrl(location));
            if (const ORVError refused = refusedRedirect(reply->url(), next); !refused.isNull()) {
                finish(std::move(transfer), response, refused);
                return;
            }
            redirect(std::move(transfer), *response, next);
            return;
        }
        finish(std::move(transfer), response, error);
    }

    void redirect(Transfer transfer, const ORVHTTPURLResponse &response, const QUrl &location)
    {
        auto session = transfer.session;
        auto task = transfer.task;
        ORVURLRequest proposed;
        ORVURLRequest original;
        QUrl from;
        {
            std::lock_guard lock(task->_lock);
            proposed = redirectedRequest(task->_currentRequest, response.statusCode(), location);
            original = task->_originalRequest;
            from = task->_currentRequest.URL();
        }
        auto shared = std::make_shared<Transfer>(std::move(transfer));
        // The delegate answers on its queue; the answer comes back here.
        // A delegate answers once; a second answer would find the transfer
        // gone.
        auto answered = std::make_shared<std::atomic<bool>>(false);
        auto decide = [this, shared, response, original, from, answered](std::optional<ORVURLRequest> next) {
            if (answered->exchange(true))
                return;
            orv::detail::postToNetworkThread([this, shared, response, original, from, next = std::move(next)]() mutable {
                Transfer transfer = std::move(*shared);
                if (!next) {
                    finish(std::move(transfer), response, {});
                    return;
                }
                // The delegate's answer obeys the same rules as the proposal.
                if (const ORVError refused = refusedRedirect(from, next->URL()); !refused.isNull()) {
                    finish(std::move(transfer), response, refused);
                    return;
                }
                // The caller's credential goes only to the origin it was made
                // for, whatever the delegate put back.
                const QString credential = original.valueForHTTPHeaderField(QStringLiteral("Authorization"));
                if (!credential.isNull() && !ORVURLHasSameOrigin(next->URL(), original.URL()) &&
                    next->valueForHTTPHeaderField(QStringLiteral("Authorization")) == credential)
                    next->setValue(QString(), QStringLiteral("Authorization"));
                {
                    std::lock_guard lock(transfer.task->_lock);
                    transfer.task->_currentRequest = *next;
                }
                ++transfer.redirects;
                if (transfer.file) {
                    transfer.file->resize(0);
                    transfer.file->seek(0);
                }
                auto session = transfer.session;
                auto task = transfer.task;
                start(session, task, std::move(transfer));
            });
        };
        std::shared_ptr<ORVURLSessionDelegate> delegate;
        {
            std::lock_guard lock(session->d->lock);
            delegate = session->d->delegate;
        }
        if (!delegate) {
            decide(proposed);
            return;
        }
        session->delegateQueue()->async([session, task, delegate, response, proposed, decide] {
            delegate->willPerformHTTPRedirection(*session, task, response, proposed, decide);
        });
    }

    void finish(Transfer transfer, const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)
    {
        auto session = transfer.session;
        auto task = transfer.task;
        decltype(task->_completion) completion;
        {
            std::lock_guard lock(task->_lock);
            completion = std::exchange(task->_completion, nullptr);
        }
        QString location;
        ORVError finalError = error;
        if (transfer.file) {
            // Bytes still in QFile's buffer can fail to reach the disk too.
            if (finalError.isNull() && (!transfer.file->flush() || transfer.file->error() != QFileDevice::NoError))
                finalError = urlError(ORVURLErrorCannotWriteToFile, transfer.file->errorString(),
                                      transfer.task->currentRequest().URL());
            transfer.file->close();
            location = transfer.file->fileName();
            if (!finalError.isNull()) {
                QFile::remove(location);
                location.clear();
            }
        }
        {
            std::lock_guard lock(task->_lock);
            task->_state = ORVURLSessionTaskState::Completed;
            task->_response = response;
            task->_error = finalError;
        }
        std::shared_ptr<ORVURLSessionDelegate> delegate;
        bool nowInvalid = false;
        {
            std::lock_guard lock(session->d->lock);
            delegate = session->d->delegate;
            session->d->running.erase(task);
            if (session->d->finishing && session->d->running.empty()) {
                nowInvalid = true;
                session->d->valid = false;
                session->d->delegate.reset();
            }
        }
        // A failed exchange has no body (not even the part that arrived); a
        // successful one has one, if only an empty one.
        QByteArray body;
        if (finalError.isNull())
            body = transfer.body.isNull() ? QByteArray("", 0) : std::move(transfer.body);
        session->delegateQueue()->async([session, task, delegate, completion, body, response, error = finalError, location,
                                         nowInvalid, isDownload = task->kind() == ORVURLSessionTask::Kind::Download] {
            if (completion) {
                completion(body, response, error);
            } else if (delegate) {
                if (isDownload && error.isNull())
                    delegate->didFinishDownloadingToURL(*session, task, QUrl::fromLocalFile(location));
                delegate->didCompleteWithError(*session, task, error);
            }
            // The downloaded file belongs to the delegate only while it runs.
            if (isDownload && !location.isEmpty())
                QFile::remove(location);
            if (nowInvalid && delegate)
                delegate->didBecomeInvalidWithError(*session, ORVError());
        });
    }

    void cancel(const ORVURLSessionTask *task)
    {
        if (auto it = replies.find(task); it != replies.end())
            it->second->abort();
    }

    ~ORVURLSessionEngine()
    {
        liveEngines().erase(this);
        // Replies still alive would tell this engine of their end while its
        // members are being destroyed: they go first, without a word.
        for (QNetworkAccessManager *through : {&manager, &uncachedManager}) {
            for (QNetworkReply *reply : through->findChildren<QNetworkReply *>()) {
                QObject::disconnect(reply, nullptr, nullptr, nullptr);
                reply->abort();
                delete reply;
            }
        }
        transfers.clear();
        replies.clear();
    }
    ORVURLSessionEngine(const ORVURLSessionEngine &) = delete;
    ORVURLSessionEngine &operator=(const ORVURLSessionEngine &) = delete;

    // Requests that may use the cache, and those that may not (see mayUseCache()).
    QNetworkAccessManager manager;
    QNetworkAccessManager uncachedManager;
    std::unique_ptr<QTemporaryDir> cacheFolder;
    orv::detail::ORVURLCache *cache = nullptr;
    QHash<QUrl, int> cachedFetchesInFlight;
    std::unordered_map<QNetworkReply *, Transfer> transfers;
    std::unordered_map<const ORVURLSessionTask *, QNetworkReply *> replies;
};

// --- tasks ----------------------------------------------------------------------

ORVURLSessionTask::ORVURLSessionTask(std::weak_ptr<ORVURLSession> session, Kind kind, const ORVURLRequest &request,
                                     quint64 identifier)
    : _session(std::move(session)), _kind(kind), _taskIdentifier(identifier), _originalRequest(request),
      _currentRequest(request)
{
}

ORVURLSessionTask::~ORVURLSessionTask() = default;

ORVURLRequest ORVURLSessionTask::originalRequest() const
{
    std::lock_guard lock(_lock);
    return _originalRequest;
}

ORVURLRequest ORVURLSessionTask::currentRequest() const
{
    std::lock_guard lock(_lock);
    return _currentRequest;
}

std::optional<ORVHTTPURLResponse> ORVURLSessionTask::response() const
{
    std::lock_guard lock(_lock);
    return _response;
}

ORVError ORVURLSessionTask::error() const
{
    std::lock_guard lock(_lock);
    return _error;
}

ORVURLSessionTaskState ORVURLSessionTask::state() const
{
    std::lock_guard lock(_lock);
    return _state;
}

QString ORVURLSessionTask::taskDescription() const
{
    std::lock_guard lock(_lock);
    return _taskDescription;
}

void ORVURLSessionTask::setTaskDescription(const QString &description)
{
    std::lock_guard lock(_lock);
    _taskDescription = description;
}

float ORVURLSessionTask::priority() const
{
    std::lock_guard lock(_lock);
    return _priority;
}

void ORVURLSessionTask::setPriority(float priority)
{
    std::lock_guard lock(_lock);
    _priority = std::clamp(priority, 0.0f, 1.0f);
}

qint64 ORVURLSessionTask::countOfBytesClientExpectsToReceive() const
{
    std::lock_guard lock(_lock);
    return _expectsToReceive;
}

void ORVURLSessionTask::setCountOfBytesClientExpectsToReceive(qint64 count)
{
    std::lock_guard lock(_lock);
    _expectsToReceive = count;
}

qint64 ORVURLSessionTask::countOfBytesClientExpectsToSend() const
{
    std::lock_guard lock(_lock);
    return _expectsToSend;
}

void ORVURLSessionTask::setCountOfBytesClientExpectsToSend(qint64 count)
{
    std::lock_guard lock(_lock);
    _expectsToSend = count;
}

qint64 ORVURLSessionTask::countOfBytesReceived() const
{
    std::lock_guard lock(_lock);
    return _received;
}

void ORVURLSessionTask::resume()
{
    auto session = _session.lock();
    if (!session)
        return;
    {
        std::lock_guard lock(_lock);
        if (_state != ORVURLSessionTaskState::Suspended)
            return;
        _state = ORVURLSessionTaskState::Running;
    }
    auto self = shared_from_this();
    orv::detail::postToNetworkThread([session, self] {
        ORVURLSessionEngine::of(*session).start(session, self, ORVURLSessionEngine::Transfer{session, self, {}, {}, 0, false, {}});
    });
}

void ORVURLSessionTask::cancel()
{
    auto session = _session.lock();
    if (!session)
        return;
    bool neverStarted = false;
    {
        std::lock_guard lock(_lock);
        if (_state == ORVURLSessionTaskState::Completed || _cancelRequested)
            return;
        neverStarted = _state == ORVURLSessionTaskState::Suspended;
        _cancelRequested = true;
        _state = ORVURLSessionTaskState::Canceling;
    }
    auto self = shared_from_this();
    orv::detail::postToNetworkThread([session, self, neverStarted] {
        ORVURLSessionEngine &engine = ORVURLSessionEngine::of(*session);
        if (neverStarted) // completes at once with the cancellation error
            engine.start(session, self, ORVURLSessionEngine::Transfer{session, self, {}, {}, 0, false, {}});
        else
            engine.cancel(self.get());
    });
}

// --- the session ----------------------------------------------------------------

ORVURLSessionDelegate::~ORVURLSessionDelegate() = default;

void ORVURLSessionDelegate::willPerformHTTPRedirection(ORVURLSession &, const std::shared_ptr<ORVURLSessionTask> &,
                                                       const ORVHTTPURLResponse &, const ORVURLRequest &request,
                                                       std::function<void(std::optional<ORVURLRequest>)> completion)
{
    completion(request);
}

void ORVURLSessionDelegate::didBecomeInvalidWithError(ORVURLSession &, const ORVError &) {}
void ORVURLSessionDelegate::didFinishDownloadingToURL(ORVURLSession &, const std::shared_ptr<ORVURLSessionTask> &,
                                                      const QUrl &)
{
}
void ORVURLSessionDelegate::didCompleteWithError(ORVURLSession &, const std::shared_ptr<ORVURLSessionTask> &,
                                                 const ORVError &)
{
}

ORVURLSession::ORVURLSession(const ORVURLSessionConfiguration &configuration,
                             std::shared_ptr<ORVURLSessionDelegate> delegate,
                             std::shared_ptr<ORVDispatchQueue> delegateQueue)
    : _configuration(configuration),
      _delegateQueue(delegateQueue ? std::move(delegateQueue) : ORVDispatchQueue::create(QStringLiteral("ORVURLSession"))),
      d(std::make_unique<Private>())
{
    d->delegate = std::move(delegate);
}

ORVURLSession::~ORVURLSession()
{
    if (ORVURLSessionEngine *engine = d->engine)
        orv::detail::postToNetworkThread([engine] { delete engine; });
}

std::shared_ptr<ORVURLSession> ORVURLSession::sessionWithConfiguration(const ORVURLSessionConfiguration &configuration,
                                                                       std::shared_ptr<ORVURLSessionDelegate> delegate,
                                                                       std::shared_ptr<ORVDispatchQueue> delegateQueue)
{
    return std::shared_ptr<ORVURLSession>(new ORVURLSession(configuration, std::move(delegate), std::move(delegateQueue)));
}

std::shared_ptr<ORVURLSession> ORVURLSession::sharedSession()
{
    static const std::shared_ptr<ORVURLSession> shared =
        sessionWithConfiguration(ORVURLSessionConfiguration::ephemeralSessionConfiguration());
    return shared;
}

std::shared_ptr<ORVURLSessionTask> ORVURLSession::dataTaskWithRequest(const ORVURLRequest &request,
                                                                      DataCompletion completion)
{
    std::lock_guard lock(d->lock);
    if (!d->valid || d->finishing)
        return nullptr;
    auto task = std::shared_ptr<ORVURLSessionTask>(
        new ORVURLSessionTask(weak_from_this(), ORVURLSessionTask::Kind::Data, request, d->nextIdentifier++));
    task->_completion = std::move(completion);
    d->running.insert(task);
    return task;
}

std::shared_ptr<ORVURLSessionTask> ORVURLSession::downloadTaskWithRequest(const ORVURLRequest &request)
{
    std::lock_guard lock(d->lock);
    if (!d->valid || d->finishing)
        return nullptr;
    auto task = std::shared_ptr<ORVURLSessionTask>(
        new ORVURLSessionTask(weak_from_this(), ORVURLSessionTask::Kind::Download, request, d->nextIdentifier++));
    d->running.insert(task);
    return task;
}

QString ORVURLSession::sessionDescription() const
{
    std::lock_guard lock(d->lock);
    return d->description;
}

void ORVURLSession::setSessionDescription(const QString &description)
{
    std::lock_guard lock(d->lock);
    d->description = description;
}

bool ORVURLSession::isValid() const
{
    std::lock_guard lock(d->lock);
    return d->valid && !d->finishing;
}

void ORVURLSession::finishTasksAndInvalidate()
{
    std::shared_ptr<ORVURLSessionDelegate> delegate;
    {
        std::lock_guard lock(d->lock);
        if (d->finishing || !d->valid)
            return;
        d->finishing = true;
        if (!d->running.empty())
            return; // the last task to finish tells the delegate
        d->valid = false;
        delegate = std::exchange(d->delegate, nullptr);
    }
    if (delegate) {
        auto self = shared_from_this();
        _delegateQueue->async([self, delegate] { delegate->didBecomeInvalidWithError(*self, ORVError()); });
    }
}

void ORVURLSession::invalidateAndCancel()
{
    std::vector<std::shared_ptr<ORVURLSessionTask>> tasks;
    {
        std::lock_guard lock(d->lock);
        tasks.assign(d->running.begin(), d->running.end());
    }
    finishTasksAndInvalidate();
    for (const auto &task : tasks)
        task->cancel();
}
