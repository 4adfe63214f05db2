#pragma once

/// \file
/// ORVCommandLogger holds the application's command logger: the object that
/// receives one entry per exchange of a categorised account request. What it
/// does with an entry (where it writes it, how it formats it) is the
/// application's own; the framework masks secrets before it calls.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVURLRequest.h>

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

/// The application's command logger, implemented by the application.
///
/// Thread rule: the network manager calls logRequest() on any thread
/// (wherever an exchange ends or fails): implementations must be safe to
/// call from several threads at once.
/// Ownership: the arguments are lent for the call only.
class ORVELLAKIT_EXPORT ORVCommandLogging {
public:
    virtual ~ORVCommandLogging();
    /// One entry: the request as its caller made it (without the access
    /// token), the category ("Orvella: " and the request's category), the
    /// response body (a stand-in when the request masks it), and whether the
    /// request body must be masked.
    ///
    /// `responseData` is null when there are no response bytes; `response`
    /// is empty when there was no HTTP response; `error` is null for none.
    virtual void logRequest(const ORVURLRequest &request, const QString &category, const QByteArray &responseData,
                            const std::optional<ORVHTTPURLResponse> &response, bool maskRequestBody,
                            const ORVError &error) = 0;
};

/// Where the framework finds the command logger.
///
/// Thread rule: sharedLogger() on any thread; setSharedLogger() once, on the
/// main thread. Ownership: the logger set is kept (shared) for the life of
/// the process.
class ORVELLAKIT_EXPORT ORVCommandLogger {
public:
    ORVCommandLogger() = delete;
    /// The logger last set, or null.
    static std::shared_ptr<ORVCommandLogging> sharedLogger();
    /// Once, on the main thread, during launch: a second call fails "A shared
    /// logger was already set", a call off the main thread fails "Shared
    /// logger not set on the main thread"; the logger is stored either way
    /// when the assertion handler returns.
    static void setSharedLogger(std::shared_ptr<ORVCommandLogging> logger);
};
