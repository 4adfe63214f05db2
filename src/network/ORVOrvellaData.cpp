#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QFile>
#include <QStringDecoder>

ORVOrvellaData::ORVOrvellaData(const QByteArray &data) : _fileBacked(false), _data(data) {}

ORVOrvellaData::ORVOrvellaData(const QUrl &fileURL) : _fileBacked(true)
{
    ORVMethodParameterAssert(fileURL.isLocalFile(), "[fileURL isFileURL]", "initWithFileURL:", "ORVOrvellaData",
                             "ORVOrvellaData");
    _url = fileURL;
}

QByteArray ORVOrvellaData::data() const
{
    if (!_fileBacked)
        return _data;
    std::lock_guard lock(_queue);
    if (!_data.isNull() || !_url.isLocalFile() || !_error.isNull())
        return _data;
    QFile file(_url.toLocalFile());
    if (!file.open(QIODevice::ReadOnly)) {
        _error = ORVError(ORVCocoaErrorDomain, file.error() == QFileDevice::OpenError && !file.exists() ? 260 : 256,
                          {{ORVLocalizedDescriptionKey, file.errorString()},
                           {QStringLiteral("NSFilePath"), _url.toLocalFile()}});
        return {};
    }
    QByteArray bytes = file.readAll();
    if (bytes.isNull())
        bytes = QByteArray("", 0);
    _data = bytes;
    return _data;
}

ORVError ORVOrvellaData::readError() const
{
    std::lock_guard lock(_queue);
    return _error;
}

QString ORVOrvellaData::debugDescription() const
{
    QByteArray bytes;
    ORVError error;
    {
        std::lock_guard lock(_queue);
        bytes = _data;
        error = _error;
    }
    std::optional<QString> described;
    if (!bytes.isNull()) {
        QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
        const QString text = decoder.decode(bytes);
        described = decoder.hasError() ? ORVStringWithFormat("(Base 64 Encoded) - %@", QString::fromLatin1(bytes.toBase64()))
                                       : ORVStringWithFormat("(UTF8 String) - %@", text);
    }
    if (!_fileBacked)
        return ORVStringWithFormat("Data: %@", described);
    if (described)
        return ORVStringWithFormat("URL: %@, Data: %@", _url, *described);
    if (!error.isNull())
        return ORVStringWithFormat("URL: %@, Error: %@", _url, error);
    return ORVStringWithFormat("URL: %@", _url);
}

ORVHTTPHeaders orv_scrubbedHeaders(const ORVHTTPHeaders &headers)
{
    // The key matches exactly, case included.
    ORVHTTPHeaders scrubbed;
    for (const auto &[name, value] : headers.fields())
        scrubbed.appendRaw(name, name == QLatin1String("Authorization") ? QStringLiteral("MASKED") : value);
    return scrubbed;
}

ORVHTTPHeaders orv_scrubbedHeaders(const ORVURLRequest &request)
{
    return orv_scrubbedHeaders(request.allHTTPHeaderFields());
}

QVariantMap copyScrubbedORV(const QVariantMap &dictionary)
{
    QVariantMap copy = dictionary;
    if (copy.contains(QStringLiteral("token")))
        copy.insert(QStringLiteral("token"), QStringLiteral("MASKED"));
    return copy;
}

QJsonObject copyScrubbedORV(const QJsonObject &dictionary)
{
    QJsonObject copy = dictionary;
    if (copy.contains(QStringLiteral("token")))
        copy.insert(QStringLiteral("token"), QStringLiteral("MASKED"));
    return copy;
}
