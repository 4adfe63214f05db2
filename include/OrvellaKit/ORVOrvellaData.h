#pragma once

/// \file
/// ORVOrvellaData: a response body, either bytes in memory or the file of a
/// finished download that is read on first use. Also the log scrubbing of
/// header fields and token dictionaries.
///
/// Thread rule: the functions of this file may be called on any thread.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVURLRequest.h>

#include <QByteArray>
#include <QJsonObject>
#include <QUrl>
#include <QVariantMap>

#include <memory>
#include <mutex>

/// A response body handed to a request's completion handler.
///
/// Thread rule: any thread; the file is read under the object's own lock.
/// Ownership: shared (the network manager hands it out in a shared pointer).
/// A file-backed body never deletes its file: the file belongs to whoever
/// received the body.
class ORVELLAKIT_EXPORT ORVOrvellaData {
public:
    /// Bytes in memory (a null QByteArray: no bytes).
    explicit ORVOrvellaData(const QByteArray &data);
    /// A downloaded file; a URL that is not a file URL fails "[fileURL isFileURL]".
    explicit ORVOrvellaData(const QUrl &fileURL);
    ORVOrvellaData(const ORVOrvellaData &) = delete;
    ORVOrvellaData &operator=(const ORVOrvellaData &) = delete;

    /// The file, or an empty URL.
    QUrl url() const { return _url; }
    /// The bytes; a file is read on the first call only, and a failed read
    /// (null result) is never retried.
    QByteArray data() const;
    /// The error of a failed read, or a null error.
    ORVError readError() const;
    /// Describes what is held without reading the file.
    QString debugDescription() const;

private:
    const bool _fileBacked;
    mutable std::mutex _queue;
    mutable QByteArray _data;
    QUrl _url;
    mutable ORVError _error;
};

/// The request's header fields with the value of "Authorization" (exact
/// case) replaced by "MASKED".
ORVELLAKIT_EXPORT ORVHTTPHeaders orv_scrubbedHeaders(const ORVURLRequest &request);
/// The header fields with the value of "Authorization" (exact case) replaced
/// by "MASKED".
ORVELLAKIT_EXPORT ORVHTTPHeaders orv_scrubbedHeaders(const ORVHTTPHeaders &headers);
/// A copy with the value under "token" (exact case) replaced by "MASKED".
ORVELLAKIT_EXPORT QVariantMap copyScrubbedORV(const QVariantMap &dictionary);
/// A copy with the value under "token" (exact case) replaced by "MASKED".
ORVELLAKIT_EXPORT QJsonObject copyScrubbedORV(const QJsonObject &dictionary);
