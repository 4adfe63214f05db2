#include "KalendroCommandLog.h"

#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

namespace {

constexpr int kMaximumBodyLength = 2000;

QString describeBody(const QByteArray &body)
{
    if (body.isEmpty())
        return QStringLiteral("(empty)");
    if (auto object = orv_JSONDictionaryWithData(body)) {
        // The framework masks "token"; the other secret fields an answer or
        // a body of ours can carry are masked here as well.
        for (const char *key : {"device_token", "password", "password1", "password2", "id_token", "magic_token"}) {
            if (object->contains(QLatin1String(key)))
                object->insert(QLatin1String(key), QStringLiteral("MASKED"));
        }
        return QString::fromUtf8(QJsonDocument(copyScrubbedORV(*object)).toJson(QJsonDocument::Compact));
    }
    const QString text = QString::fromUtf8(body);
    // Anything else that is not JSON: its size, never its bytes, since it
    // cannot be scrubbed.
    if (body.startsWith("Masked Content"))
        return text.left(kMaximumBodyLength);
    return ORVStringWithFormat("(%ld bytes)", static_cast<long>(body.size()));
}

} // namespace

KalendroCommandLog::KalendroCommandLog(QString path) : _path(std::move(path)) {}

void KalendroCommandLog::logRequest(const ORVURLRequest &request, const QString &category,
                                    const QByteArray &responseData, const std::optional<ORVHTTPURLResponse> &response,
                                    bool maskRequestBody, const ORVError &error)
{
    QString entry = ORVStringWithFormat(
        "%@ %@ %@ %@ -> %@%@\n  request: %@\n  response: %@\n",
        QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs), category, request.HTTPMethod(),
        request.URL().toString(),
        response ? QStringLiteral("HTTP %1").arg(response->statusCode()) : QStringLiteral("no response"),
        error ? QStringLiteral(" (") + error.description() + QLatin1Char(')') : QString(),
        maskRequestBody ? QStringLiteral("MASKED") : describeBody(request.HTTPBody()), describeBody(responseData));
    std::lock_guard lock(_lock);
    QDir().mkpath(QFileInfo(_path).absolutePath());
    QFile file(_path);
    if (file.open(QIODevice::Append | QIODevice::Text))
        file.write(entry.toUtf8());
}
