#pragma once

#include <OrvellaKit/ORVCommandLogger.h>

#include <QString>

#include <mutex>

// The sample's command log: one entry per exchange of a categorised account
// request, appended to a text file beside the log files. Bodies the
// framework marks as secret are written as "MASKED"; other JSON bodies have
// their token, password and device-token fields masked.
class KalendroCommandLog : public ORVCommandLogging {
public:
    explicit KalendroCommandLog(QString path);
    const QString &path() const { return _path; }
    void logRequest(const ORVURLRequest &request, const QString &category, const QByteArray &responseData,
                    const std::optional<ORVHTTPURLResponse> &response, bool maskRequestBody,
                    const ORVError &error) override;

private:
    QString _path;
    std::mutex _lock;
};
