#pragma once

/// \file
/// ORVURLRequest and ORVHTTPURLResponse: plain values describing one HTTP
/// exchange, independent of the transport.
///
/// Thread rule: these are values without locks of their own. Any thread may
/// use them; one object must not be changed on one thread while another
/// thread reads it (copies are independent). ORVURLHasSameOrigin() may be
/// called on any thread.

#include <OrvellaKit/ORVExport.h>

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

#include <optional>

/// Whether two URLs have the same origin: scheme and host (both without
/// regard to case) and port (80 and 443 when not given for http and https).
ORVELLAKIT_EXPORT bool ORVURLHasSameOrigin(const QUrl &first, const QUrl &second);

/// How a request may use the session's response cache. Requests with an
/// "Authorization" or "Cookie" header, and methods other than GET and HEAD,
/// never use the cache whatever their policy.
enum ORVURLRequestCachePolicy : quint32 {
    /// The cache answers when its entry is still fresh, else the network.
    ORVURLRequestUseProtocolCachePolicy = 0,
    /// Always the network; the answer is not stored.
    ORVURLRequestReloadIgnoringLocalCacheData = 1,
    /// A cached answer when there is one, even a stale one, else the network.
    ORVURLRequestReturnCacheDataElseLoad = 2,
    /// A cached answer only; the exchange fails without one.
    ORVURLRequestReturnCacheDataDontLoad = 3,
    /// As ORVURLRequestReloadIgnoringLocalCacheData.
    ORVURLRequestReloadIgnoringLocalAndRemoteCacheData = 4,
    /// As ORVURLRequestReloadIgnoringLocalCacheData: the session does not
    /// revalidate cached answers.
    ORVURLRequestReloadRevalidatingCacheData = 5,
};

/// The header fields of a request or response, in order.
///
/// Header names compare without regard to case; setting a header replaces
/// every earlier value of that name.
///
/// Thread rule: a value (see the file's thread rule). Ownership: holds copies
/// of the strings it is given.
class ORVELLAKIT_EXPORT ORVHTTPHeaders {
public:
    /// The value of the first field named `name`.
    QString value(const QString &name) const; ///< null when absent
    /// Whether a field named `name` exists.
    bool contains(const QString &name) const;
    /// Removes every field named `name`, then appends `name: value`.
    void setValue(const QString &name, const QString &value);
    /// Removes every field named `name`.
    void remove(const QString &name);
    /// Appends a field as it is, keeping any earlier one of that name.
    void appendRaw(const QString &name, const QString &value) { _fields.append({name, value}); }
    /// "{Name: value, ...}" for log messages.
    QString description() const;
    /// Every field as (name, value), in order, names as they were set.
    const QList<QPair<QString, QString>> &fields() const { return _fields; }
    /// Whether there is no field.
    bool isEmpty() const { return _fields.isEmpty(); }

    /// The same fields in the same order, names compared with their case.
    friend bool operator==(const ORVHTTPHeaders &, const ORVHTTPHeaders &) = default;

private:
    QList<QPair<QString, QString>> _fields;
};

/// What to send: URL, method, body, header fields, time-out and cache policy.
///
/// Thread rule: a value (see the file's thread rule). Ownership: holds copies
/// of everything it is given.
class ORVELLAKIT_EXPORT ORVURLRequest {
public:
    /// An empty GET request (no URL) with a 60 s time-out.
    ORVURLRequest() = default;
    /// A GET request for `url`.
    explicit ORVURLRequest(QUrl url, ORVURLRequestCachePolicy cachePolicy = ORVURLRequestUseProtocolCachePolicy,
                           double timeoutInterval = 60.0);

    /// The URL the request is sent to.
    QUrl URL() const { return _url; }
    /// Sets the URL.
    void setURL(const QUrl &url) { _url = url; }
    /// The method as set, "GET" by default.
    QString HTTPMethod() const { return _method; }
    /// Sets the method; an empty one means "GET".
    void setHTTPMethod(const QString &method) { _method = method.isEmpty() ? QStringLiteral("GET") : method; }
    /// The body; null for none.
    QByteArray HTTPBody() const { return _body; }
    /// Sets the body.
    void setHTTPBody(const QByteArray &body) { _body = body; }
    /// Every header field.
    const ORVHTTPHeaders &allHTTPHeaderFields() const { return _headers; }
    /// The value of the header field `name` (any case); null when absent.
    QString valueForHTTPHeaderField(const QString &name) const { return _headers.value(name); }
    /// Sets the header field `headerName`, replacing every earlier value.
    void setValue(const QString &value, const QString &headerName); ///< a null value removes the field
    /// Seconds the transfer may stall before it fails; 0 or less: no limit.
    double timeoutInterval() const { return _timeout; }
    /// Sets the time-out, in seconds.
    void setTimeoutInterval(double seconds) { _timeout = seconds; }
    /// How the request may use the session's cache.
    ORVURLRequestCachePolicy cachePolicy() const { return _cachePolicy; }
    /// Sets the cache policy.
    void setCachePolicy(ORVURLRequestCachePolicy policy) { _cachePolicy = policy; }

    /// Every part equal (header fields in the same order).
    friend bool operator==(const ORVURLRequest &, const ORVURLRequest &) = default;

private:
    QUrl _url;
    QString _method = QStringLiteral("GET");
    QByteArray _body;
    ORVHTTPHeaders _headers;
    double _timeout = 60.0;
    ORVURLRequestCachePolicy _cachePolicy = ORVURLRequestUseProtocolCachePolicy;
};

/// The status line and header fields of an HTTP answer.
///
/// Thread rule: a value (see the file's thread rule). Ownership: holds copies
/// of everything it is given.
class ORVELLAKIT_EXPORT ORVHTTPURLResponse {
public:
    /// An empty response (status 0).
    ORVHTTPURLResponse() = default;
    /// The answer for `url` with `statusCode` and `headers`.
    ORVHTTPURLResponse(QUrl url, int statusCode, ORVHTTPHeaders headers = {});

    /// The URL that answered (after redirects).
    QUrl URL() const { return _url; }
    /// The HTTP status code.
    int statusCode() const { return _statusCode; }
    /// Every header field, as received.
    const ORVHTTPHeaders &allHeaderFields() const { return _headers; }
    /// The value of the header field `name` (any case); null when absent.
    QString valueForHTTPHeaderField(const QString &name) const { return _headers.value(name); }
    /// The Content-Type without parameters, lower case; null when absent.
    QString MIMEType() const;
    /// Content-Length, or -1 when unknown.
    qint64 expectedContentLength() const;

    /// Same URL, status and header fields.
    friend bool operator==(const ORVHTTPURLResponse &, const ORVHTTPURLResponse &) = default;

private:
    QUrl _url;
    int _statusCode = 0;
    ORVHTTPHeaders _headers;
};
