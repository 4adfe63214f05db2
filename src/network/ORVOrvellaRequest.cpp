#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

ORV_LOG_FILE("Orvella Networking")

#define ORV_GET(field)                                                                                                 \
    std::lock_guard lock(_queue);                                                                                      \
    return field
#define ORV_SET(field, value)                                                                                          \
    std::lock_guard lock(_queue);                                                                                      \
    checkMutable();                                                                                                    \
    field = value

ORVOrvellaRequest::ORVOrvellaRequest(Key, const ORVURLRequest &request)
    : _identifier(QUuid::createUuid()), _originalRequest(request)
{
    orvRegisterFileLogLevel();
}

ORVOrvellaRequest::ORVOrvellaRequest(const ORVOrvellaRequest &source)
    : std::enable_shared_from_this<ORVOrvellaRequest>()
{
    std::lock_guard lock(source._queue);
    _copier = source._copier;
    _identifier = source._identifier;
    _originalRequest = source._originalRequest;
    _completionHandler = source._completionHandler;
    _category = source._category;
    _maskRequestLogging = source._maskRequestLogging;
    _maskResponseLogging = source._maskResponseLogging;
    _skipResponseLogging = source._skipResponseLogging;
    _countOfBytesClientExpectsToReceive = source._countOfBytesClientExpectsToReceive;
    _countOfBytesClientExpectsToSend = source._countOfBytesClientExpectsToSend;
    _priority = source._priority;
    _shouldYieldHandler = source._shouldYieldHandler;
    _shouldResumeHandler = source._shouldResumeHandler;
    _retryCount = source._retryCount;
    // Every copy is frozen, whether or not its source was.
    _immutable = true;
}

ORVOrvellaRequest::~ORVOrvellaRequest() = default;

void ORVOrvellaRequest::checkMutable() const
{
    if (_immutable)
        ORVException(ORVException::internalInconsistencyName,
                     QStringLiteral("Mutated request after submitting to network manager"))
            .raise();
}

ORVOrvellaRequest::CompletionHandler ORVOrvellaRequest::completionHandler() const { ORV_GET(_completionHandler); }
void ORVOrvellaRequest::setCompletionHandler(CompletionHandler handler) { ORV_SET(_completionHandler, std::move(handler)); }
QString ORVOrvellaRequest::category() const { ORV_GET(_category); }
void ORVOrvellaRequest::setCategory(const QString &category) { ORV_SET(_category, category); }
bool ORVOrvellaRequest::maskRequestLogging() const { ORV_GET(_maskRequestLogging); }
void ORVOrvellaRequest::setMaskRequestLogging(bool mask) { ORV_SET(_maskRequestLogging, mask); }
bool ORVOrvellaRequest::maskResponseLogging() const { ORV_GET(_maskResponseLogging); }
void ORVOrvellaRequest::setMaskResponseLogging(bool mask) { ORV_SET(_maskResponseLogging, mask); }
bool ORVOrvellaRequest::skipResponseLogging() const { ORV_GET(_skipResponseLogging); }
void ORVOrvellaRequest::setSkipResponseLogging(bool skip) { ORV_SET(_skipResponseLogging, skip); }
quint64 ORVOrvellaRequest::countOfBytesClientExpectsToReceive() const { ORV_GET(_countOfBytesClientExpectsToReceive); }
void ORVOrvellaRequest::setCountOfBytesClientExpectsToReceive(quint64 count) { ORV_SET(_countOfBytesClientExpectsToReceive, count); }
quint64 ORVOrvellaRequest::countOfBytesClientExpectsToSend() const { ORV_GET(_countOfBytesClientExpectsToSend); }
void ORVOrvellaRequest::setCountOfBytesClientExpectsToSend(quint64 count) { ORV_SET(_countOfBytesClientExpectsToSend, count); }
float ORVOrvellaRequest::priority() const { ORV_GET(_priority); }
void ORVOrvellaRequest::setPriority(float priority) { ORV_SET(_priority, priority); }
ORVOrvellaRequest::Handler ORVOrvellaRequest::shouldYieldHandler() const { ORV_GET(_shouldYieldHandler); }
void ORVOrvellaRequest::setShouldYieldHandler(Handler handler) { ORV_SET(_shouldYieldHandler, std::move(handler)); }
ORVOrvellaRequest::Handler ORVOrvellaRequest::shouldResumeHandler() const { ORV_GET(_shouldResumeHandler); }
void ORVOrvellaRequest::setShouldResumeHandler(Handler handler) { ORV_SET(_shouldResumeHandler, std::move(handler)); }
quint64 ORVOrvellaRequest::retryCount() const { ORV_GET(_retryCount); }
bool ORVOrvellaRequest::isImmutable() const { ORV_GET(_immutable); }

void ORVOrvellaRequest::incrementRetryCount()
{
    std::lock_guard lock(_queue);
    ++_retryCount;
}

std::shared_ptr<ORVOrvellaRequest> ORVOrvellaRequest::copy() const
{
    // make() is the only way to a key, so every request has its copier; the
    // check guards against a key kept and reused by hand.
    if (!_copier)
        ORVException(ORVException::internalInconsistencyName,
                     QStringLiteral("Requests are made with ORVOrvellaRequest::make()"))
            .raise();
    return _copier(*this);
}

QString ORVOrvellaRequest::className() const
{
    const char *mangled = typeid(*this).name();
    int status = 0;
    char *demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    const QString name = QString::fromLatin1(status == 0 && demangled ? demangled : mangled);
    std::free(demangled);
    return name;
}

QString ORVOrvellaRequest::debugDescription() const
{
    return ORVStringWithFormat("%@ %@", ORVStringWithFormat("<%@: %p>", className(), static_cast<const void *>(this)),
                               _identifier);
}

// --- account and simple requests ---------------------------------------------

std::shared_ptr<ORVOrvellaAccountRequest> ORVOrvellaAccountRequest::requestWithURLRequest(const ORVURLRequest &request)
{
    return make<ORVOrvellaAccountRequest>(request);
}

ORVOrvellaAccountRequest::ORVOrvellaAccountRequest(const ORVOrvellaAccountRequest &source) : ORVOrvellaRequest(source)
{
    std::lock_guard lock(source._queue);
    _canStartWithoutToken = source._canStartWithoutToken;
}

bool ORVOrvellaAccountRequest::canStartWithoutToken() const
{
    std::lock_guard lock(_queue);
    return _canStartWithoutToken;
}

void ORVOrvellaAccountRequest::setCanStartWithoutToken(bool canStart)
{
    std::lock_guard lock(_queue);
    checkMutable();
    _canStartWithoutToken = canStart;
}

std::shared_ptr<ORVOrvellaSimpleRequest> ORVOrvellaSimpleRequest::requestWithURLRequest(const ORVURLRequest &request)
{
    return make<ORVOrvellaSimpleRequest>(request);
}
