#include <OrvellaKit/ORVJSON.h>

#include <QJsonDocument>
#include <QJsonParseError>
#include <QTimeZone>

#include <cmath>

QJsonValue orv_checkedObjectForKey(const QJsonObject &object, const QString &key, QJsonValue::Type type)
{
    const QJsonValue value = object.value(key);
    if (value.type() == type && type != QJsonValue::Null && type != QJsonValue::Undefined)
        return value;
    // The platform's JSON reader gives numbers for true and false.
    if (type == QJsonValue::Double && value.isBool())
        return QJsonValue(value.toBool() ? 1.0 : 0.0);
    return QJsonValue(QJsonValue::Undefined);
}

std::optional<double> orv_numberForKey(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = orv_checkedObjectForKey(object, key, QJsonValue::Double);
    if (value.isUndefined())
        return std::nullopt;
    return value.toDouble();
}

std::optional<QString> orv_stringForKey(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = orv_checkedObjectForKey(object, key, QJsonValue::String);
    if (value.isUndefined())
        return std::nullopt;
    QString string = value.toString();
    // An empty JSON string is still a string, never "nothing".
    if (string.isNull())
        string = QStringLiteral("");
    return string;
}

std::optional<QString> orv_nonEmptyStringForKey(const QJsonObject &object, const QString &key)
{
    auto string = orv_stringForKey(object, key);
    if (!string || string->isEmpty())
        return std::nullopt;
    return string;
}

std::optional<QDateTime> orv_dateSince1970ForKey(const QJsonObject &object, const QString &key)
{
    const auto number = orv_numberForKey(object, key);
    if (!number || !(*number > 0.0) || !std::isfinite(*number))
        return std::nullopt;
    const double milliseconds = std::round(*number * 1000.0);
    // Beyond QDateTime's range (about 292 million years) there is no date.
    if (milliseconds > 9.2e18)
        return std::nullopt;
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(milliseconds), QTimeZone::utc());
}

std::optional<QJsonObject> orv_dictionaryForKey(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = orv_checkedObjectForKey(object, key, QJsonValue::Object);
    if (value.isUndefined())
        return std::nullopt;
    return value.toObject();
}

std::optional<QJsonArray> orv_arrayForKey(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = orv_checkedObjectForKey(object, key, QJsonValue::Array);
    if (value.isUndefined())
        return std::nullopt;
    return value.toArray();
}

namespace {

void setError(ORVError *error, ORVError value)
{
    if (error)
        *error = std::move(value);
}

ORVError parseError(const QJsonParseError &parseError, qsizetype offsetCorrection)
{
    const qsizetype offset = std::max<qsizetype>(0, parseError.offset - offsetCorrection);
    return ORVError(ORVCocoaErrorDomain, ORVPropertyListReadCorruptError,
                    {{ORVLocalizedDescriptionKey,
                      QStringLiteral("The data couldn\u2019t be read because it isn\u2019t in the correct format.")},
                     {QStringLiteral("NSDebugDescription"),
                      QStringLiteral("%1 around character %2.").arg(parseError.errorString()).arg(offset)},
                     {QStringLiteral("NSJSONSerializationErrorIndex"), offset}});
}

} // namespace

std::optional<QJsonValue> orv_JSONObjectWithData(const QByteArray &data, quint32 options, ORVError *error)
{
    if (data.isNull()) {
        setError(error, ORVError(ORVCocoaErrorDomain, 0,
                                 {{ORVLocalizedFailureReasonErrorKey,
                                   QStringLiteral("nil data passed to +[NSJSONSerialization "
                                                  "orv_JSONObjectWithData:error:]")}}));
        return std::nullopt;
    }
    QJsonParseError result{};
    if (options & ORVJSONReadingFragmentsAllowed) {
        // Qt's reader wants an object or an array at the top; a scalar is read
        // as the only element of an array around it.
        QByteArray wrapped;
        wrapped.reserve(data.size() + 2);
        wrapped.append('[').append(data).append(']');
        const QJsonDocument document = QJsonDocument::fromJson(wrapped, &result);
        if (result.error != QJsonParseError::NoError) {
            setError(error, parseError(result, 1));
            return std::nullopt;
        }
        const QJsonArray array = document.array();
        if (array.size() != 1) {
            QJsonParseError garbage{static_cast<int>(data.size()), QJsonParseError::GarbageAtEnd};
            setError(error, parseError(garbage, 0));
            return std::nullopt;
        }
        return array.first();
    }
    const QJsonDocument document = QJsonDocument::fromJson(data, &result);
    if (result.error != QJsonParseError::NoError) {
        setError(error, parseError(result, 0));
        return std::nullopt;
    }
    if (document.isObject())
        return QJsonValue(document.object());
    return QJsonValue(document.array());
}

std::optional<QJsonValue> orv_JSONObjectWithData(const QByteArray &data, ORVError *error)
{
    return orv_JSONObjectWithData(data, 0, error);
}

std::optional<QJsonValue> orv_JSONObjectWithData(const QByteArray &data)
{
    return orv_JSONObjectWithData(data, 0, nullptr);
}

std::optional<QJsonValue> orv_checkedJSONObjectWithData(const QByteArray &data, QJsonValue::Type type,
                                                        quint32 options, ORVError *error)
{
    auto value = orv_JSONObjectWithData(data, options, error);
    if (!value)
        return std::nullopt;
    if (value->type() != type) {
        setError(error, ORVError(ORVCocoaErrorDomain, 0, {{ORVLocalizedFailureReasonErrorKey, QStringLiteral("")}}));
        return std::nullopt;
    }
    return value;
}

std::optional<QJsonObject> orv_JSONDictionaryWithData(const QByteArray &data, quint32 options, ORVError *error)
{
    const auto value = orv_checkedJSONObjectWithData(data, QJsonValue::Object, options, error);
    return value ? std::optional(value->toObject()) : std::nullopt;
}

std::optional<QJsonObject> orv_JSONDictionaryWithData(const QByteArray &data, ORVError *error)
{
    return orv_JSONDictionaryWithData(data, 0, error);
}

std::optional<QJsonObject> orv_JSONDictionaryWithData(const QByteArray &data)
{
    return orv_JSONDictionaryWithData(data, 0, nullptr);
}

std::optional<QJsonArray> orv_JSONArrayWithData(const QByteArray &data, quint32 options, ORVError *error)
{
    const auto value = orv_checkedJSONObjectWithData(data, QJsonValue::Array, options, error);
    return value ? std::optional(value->toArray()) : std::nullopt;
}

std::optional<QJsonArray> orv_JSONArrayWithData(const QByteArray &data, ORVError *error)
{
    return orv_JSONArrayWithData(data, 0, error);
}

std::optional<QJsonArray> orv_JSONArrayWithData(const QByteArray &data)
{
    return orv_JSONArrayWithData(data, 0, nullptr);
}
