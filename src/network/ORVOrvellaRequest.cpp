#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVStringWithFormat.h>

ORV_LOG_FILE("Orvella Networking")

#define ORV_GET(field)                                                                                                 \
    std::lock_guard lock(_queue);                                                                                      \
    return field
#define ORV_SET(field, value)                                                                                          \
    std::lock_guard lock(_queue);                                                                                      \
    checkMutable();                                                                                                    \
    field = value

ORVOrvellaRequest::ORVOrvellaRequest(const ORVURLRequest &request)
    : _identifier(QUuid::createUuid()), _originalRequest(request)
{
    orvRegisterFileLogLevel();
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
    std::shared_ptr<ORVOrvellaRequest> copy = makeEmptyCopy();
    std::lock_guard lock(_queue);
    // The copy is new and not shared yet, so its fields need no lock.
    copy->_immutable = true;
    copy->_identifier = _identifier;
    copy->_originalRequest = _originalRequest;
    copy->_completionHandler = _completionHandler;
    copy->_category = _category;
    copy->_shouldYieldHandler = _shouldYieldHandler;
    copy->_shouldResumeHandler = _shouldResumeHandler;
    copy->_countOfBytesClientExpectsToReceive = _countOfBytesClientExpectsToReceive;
    copy->_countOfBytesClientExpectsToSend = _countOfBytesClientExpectsToSend;
    copy->_priority = _priority;
    copy->_retryCount = _retryCount;
    copy->_maskRequestLogging = _maskRequestLogging;
    copy->_maskResponseLogging = _maskResponseLogging;
    copy->_skipResponseLogging = _skipResponseLogging;
    return copy;
}

QString ORVOrvellaRequest::debugDescription() const
{
    return ORVStringWithFormat("%@ %@", ORVStringWithFormat("<%s: %p>", className(), static_cast<const void *>(this)),
                               _identifier);
}

// --- account and simple requests ---------------------------------------------

std::shared_ptr<ORVOrvellaAccountRequest> ORVOrvellaAccountRequest::requestWithURLRequest(const ORVURLRequest &request)
{
    return std::shared_ptr<ORVOrvellaAccountRequest>(new ORVOrvellaAccountRequest(request));
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

std::shared_ptr<ORVOrvellaRequest> ORVOrvellaAccountRequest::copy() const
{
    auto copy = std::static_pointer_cast<ORVOrvellaAccountRequest>(ORVOrvellaRequest::copy());
    std::lock_guard lock(_queue);
    copy->_canStartWithoutToken = _canStartWithoutToken;
    return copy;
}

std::shared_ptr<ORVOrvellaRequest> ORVOrvellaAccountRequest::makeEmptyCopy() const
{
    return std::shared_ptr<ORVOrvellaRequest>(new ORVOrvellaAccountRequest(ORVURLRequest()));
}

std::shared_ptr<ORVOrvellaSimpleRequest> ORVOrvellaSimpleRequest::requestWithURLRequest(const ORVURLRequest &request)
{
    return std::shared_ptr<ORVOrvellaSimpleRequest>(new ORVOrvellaSimpleRequest(request));
}

std::shared_ptr<ORVOrvellaRequest> ORVOrvellaSimpleRequest::makeEmptyCopy() const
{
    return std::shared_ptr<ORVOrvellaRequest>(new ORVOrvellaSimpleRequest(ORVURLRequest()));
}
