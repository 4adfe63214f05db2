#pragma once

// ORVURLRequest and ORVHTTPURLResponse: plain values describing one HTTP
// exchange, independent of the transport.

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

#include <optional>

// Whether two URLs have the same origin: scheme and host (both without
// regard to case) and port (80 and 443 when not given for http and https).
bool ORVURLHasSameOrigin(const QUrl &first, const QUrl &second);

enum ORVURLRequestCachePolicy : quint32 {
    ORVURLRequestUseProtocolCachePolicy = 0,
    ORVURLRequestReloadIgnoringLocalCacheData = 1,
    ORVURLRequestReturnCacheDataElseLoad = 2,
    ORVURLRequestReturnCacheDataDontLoad = 3,
    ORVURLRequestReloadIgnoringLocalAndRemoteCacheData = 4,
    ORVURLRequestReloadRevalidatingCacheData = 5,
};

// Header names compare without regard to case; setting a header replaces
// every earlier value of that name.
class ORVHTTPHeaders {
public:
    QString value(const QString &name) const; // null when absent
    bool contains(const QString &name) const;
    void setValue(const QString &name, const QString &value);
    void remove(const QString &name);
    // Appends a field as it is, keeping any earlier one of that name.
    void appendRaw(const QString &name, const QString &value) { _fields.append({name, value}); }
    // "{Name: value, ...}" for log messages.
    QString description() const;
    const QList<QPair<QString, QString>> &fields() const { return _fields; }
    bool isEmpty() const { return _fields.isEmpty(); }

    friend bool operator==(const ORVHTTPHeaders &, const ORVHTTPHeaders &) = default;

private:
    QList<QPair<QString, QString>> _fields;
};

class ORVURLRequest {
public:
    ORVURLRequest() = default;
    explicit ORVURLRequest(QUrl url, ORVURLRequestCachePolicy cachePolicy = ORVURLRequestUseProtocolCachePolicy,
                           double timeoutInterval = 60.0);

    QUrl URL() const { return _url; }
    void setURL(const QUrl &url) { _url = url; }
    QString HTTPMethod() const { return _method; }
    void setHTTPMethod(const QString &method) { _method = method.isEmpty() ? QStringLiteral("GET") : method; }
    QByteArray HTTPBody() const { return _body; }
    void setHTTPBody(const QByteArray &body) { _body = body; }
    const ORVHTTPHeaders &allHTTPHeaderFields() const { return _headers; }
    QString valueForHTTPHeaderField(const QString &name) const { return _headers.value(name); }
    void setValue(const QString &value, const QString &headerName); // a null value removes the field
    double timeoutInterval() const { return _timeout; }
    void setTimeoutInterval(double seconds) { _timeout = seconds; }
    ORVURLRequestCachePolicy cachePolicy() const { return _cachePolicy; }
    void setCachePolicy(ORVURLRequestCachePolicy policy) { _cachePolicy = policy; }

    friend bool operator==(const ORVURLRequest &, const ORVURLRequest &) = default;

private:
    QUrl _url;
    QString _method = QStringLiteral("GET");
    QByteArray _body;
    ORVHTTPHeaders _headers;
    double _timeout = 60.0;
    ORVURLRequestCachePolicy _cachePolicy = ORVURLRequestUseProtocolCachePolicy;
};

class ORVHTTPURLResponse {
public:
    ORVHTTPURLResponse() = default;
    ORVHTTPURLResponse(QUrl url, int statusCode, ORVHTTPHeaders headers = {});

    QUrl URL() const { return _url; }
    int statusCode() const { return _statusCode; }
    const ORVHTTPHeaders &allHeaderFields() const { return _headers; }
    QString valueForHTTPHeaderField(const QString &name) const { return _headers.value(name); }
    // The Content-Type without parameters, lower case; null when absent.
    QString MIMEType() const;
    // Content-Length, or -1 when unknown.
    qint64 expectedContentLength() const;

    friend bool operator==(const ORVHTTPURLResponse &, const ORVHTTPURLResponse &) = default;

private:
    QUrl _url;
    int _statusCode = 0;
    ORVHTTPHeaders _headers;
};
