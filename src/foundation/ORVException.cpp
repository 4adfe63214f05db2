#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QtGlobal>

const QString ORVException::internalInconsistencyName = QStringLiteral("NSInternalInconsistencyException");
const QString ORVException::invalidArgumentName = QStringLiteral("NSInvalidArgumentException");

ORVException::ORVException(QString name, QString reason, QVariantMap userInfo)
    : _name(std::move(name)), _reason(std::move(reason)), _userInfo(std::move(userInfo)),
      _what((_name + QStringLiteral(": ") + _reason).toUtf8())
{
}

const char *ORVException::what() const noexcept
{
    return _what.constData();
}

void ORVException::raise() const
{
    throw *this;
}

namespace {

ORVAssertionHandler &defaultHandler()
{
    static ORVAssertionHandler handler;
    return handler;
}

// Each thread has its own current handler, as with the platform's per-thread
// assertion handler.
thread_local std::shared_ptr<ORVAssertionHandler> tlsHandler;

} // namespace

ORVAssertionHandler::~ORVAssertionHandler() = default;

ORVAssertionHandler &ORVAssertionHandler::currentHandler()
{
    return tlsHandler ? *tlsHandler : defaultHandler();
}

void ORVAssertionHandler::setCurrentHandler(std::shared_ptr<ORVAssertionHandler> handler)
{
    tlsHandler = std::move(handler);
}

void ORVAssertionHandler::handleFailureInMethod(const QString &method, const QString &object, const QString &file,
                                                qint64 line, const QString &description)
{
    qCritical("*** Assertion failure in %s::%s, %s:%lld", qUtf8Printable(object), qUtf8Printable(method),
              qUtf8Printable(file), static_cast<long long>(line));
    throw ORVException(ORVException::internalInconsistencyName, description);
}

void ORVAssertionHandler::handleFailureInFunction(const QString &function, const QString &file, qint64 line,
                                                  const QString &description)
{
    qCritical("*** Assertion failure in %s, %s:%lld", qUtf8Printable(function), qUtf8Printable(file),
              static_cast<long long>(line));
    throw ORVException(ORVException::internalInconsistencyName, description);
}

ORVScopedAssertionHandler::ORVScopedAssertionHandler(std::shared_ptr<ORVAssertionHandler> handler)
    : _previous(tlsHandler)
{
    tlsHandler = std::move(handler);
}

ORVScopedAssertionHandler::~ORVScopedAssertionHandler()
{
    tlsHandler = std::move(_previous);
}

namespace orv::detail {

void assertionFailedInMethod(const char *method, const char *object, const char *file, qint64 line,
                             const QString &description)
{
    ORVAssertionHandler::currentHandler().handleFailureInMethod(QString::fromUtf8(method), QString::fromUtf8(object),
                                                                QString::fromUtf8(file), line, description);
}

void assertionFailedInFunction(const char *function, const char *file, qint64 line, const QString &description)
{
    ORVAssertionHandler::currentHandler().handleFailureInFunction(QString::fromUtf8(function),
                                                                  QString::fromUtf8(file), line, description);
}

QString parameterAssertionDescription(const char *conditionText)
{
    return ORVStringWithFormat("Invalid parameter not satisfying: %@", conditionText);
}

} // namespace orv::detail
