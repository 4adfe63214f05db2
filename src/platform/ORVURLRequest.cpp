#include <OrvellaKit/ORVURLRequest.h>

#include <QStringList>

QString ORVHTTPHeaders::value(const QString &name) const
{
    for (const auto &field : _fields) {
        if (field.first.compare(name, Qt::CaseInsensitive) == 0)
            return field.second;
    }
    return {};
}

bool ORVHTTPHeaders::contains(const QString &name) const
{
    return std::any_of(_fields.cbegin(), _fields.cend(),
                       [&](const auto &field) { return field.first.compare(name, Qt::CaseInsensitive) == 0; });
}

void ORVHTTPHeaders::setValue(const QString &name, const QString &value)
{
    remove(name);
    _fields.append({name, value});
}

void ORVHTTPHeaders::remove(const QString &name)
{
    _fields.removeIf([&](const auto &field) { return field.first.compare(name, Qt::CaseInsensitive) == 0; });
}

QString ORVHTTPHeaders::description() const
{
    QStringList parts;
    for (const auto &[name, value] : _fields)
        parts << name + QStringLiteral(": ") + value;
    return u'{' + parts.join(QStringLiteral(", ")) + u'}';
}

ORVURLRequest::ORVURLRequest(QUrl url, ORVURLRequestCachePolicy cachePolicy, double timeoutInterval)
    : _url(std::move(url)), _timeout(timeoutInterval), _cachePolicy(cachePolicy)
{
}

void ORVURLRequest::setValue(const QString &value, const QString &headerName)
{
    if (value.isNull())
        _headers.remove(headerName);
    else
        _headers.setValue(headerName, value);
}

ORVHTTPURLResponse::ORVHTTPURLResponse(QUrl url, int statusCode, ORVHTTPHeaders headers)
    : _url(std::move(url)), _statusCode(statusCode), _headers(std::move(headers))
{
}

QString ORVHTTPURLResponse::MIMEType() const
{
    const QString type = _headers.value(QStringLiteral("Content-Type"));
    if (type.isNull())
        return {};
    return type.section(u';', 0, 0).trimmed().toLower();
}

qint64 ORVHTTPURLResponse::expectedContentLength() const
{
    bool ok = false;
    const qint64 length = _headers.value(QStringLiteral("Content-Length")).trimmed().toLongLong(&ok);
    return ok && length >= 0 ? length : -1;
}

namespace {
int defaultPort(const QString &scheme)
{
    if (scheme == QLatin1String("https"))
        return 443;
    if (scheme == QLatin1String("http"))
        return 80;
    return -1;
}
} // namespace

bool ORVURLHasSameOrigin(const QUrl &first, const QUrl &second)
{
    const QString scheme = first.scheme().toLower();
    return scheme == second.scheme().toLower() && first.host().compare(second.host(), Qt::CaseInsensitive) == 0 &&
           first.port(defaultPort(scheme)) == second.port(defaultPort(scheme));
}
