#include <OrvellaKit/ORVJSON.h>

#include <QJsonDocument>
#include <QJsonParseError>
#include <QStringDecoder>
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

ORVError corruptError(const QString &reason, qsizetype offset)
{
    return ORVError(ORVCocoaErrorDomain, ORVPropertyListReadCorruptError,
                    {{ORVLocalizedDescriptionKey,
                      QStringLiteral("The data couldn\u2019t be read because it isn\u2019t in the correct format.")},
                     {QStringLiteral("NSDebugDescription"),
                      QStringLiteral("%1 around character %2.").arg(reason).arg(offset)},
                     {QStringLiteral("NSJSONSerializationErrorIndex"), offset}});
}

ORVError parseError(const QJsonParseError &parseError, qsizetype offsetCorrection)
{
    return corruptError(parseError.errorString(), std::max<qsizetype>(0, parseError.offset - offsetCorrection));
}

// JSON text as UTF-8, whatever Unicode encoding it came in: a byte-order
// mark names it, or else the pattern of zero bytes among the first four
// (JSON text starts with two ASCII characters, or one for a fragment). A
// UTF-8 mark is dropped. False, with the error, when the text does not
// decode.
bool toUTF8(const QByteArray &data, QByteArray *utf8, ORVError *error)
{
    const auto byte = [&](qsizetype i) { return i < data.size() ? static_cast<uchar>(data[i]) : -1; };
    std::optional<QStringConverter::Encoding> encoding;
    qsizetype mark = 0;
    if (byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
        *utf8 = data.mid(3);
        return true;
    }
    const auto marked = [&](QStringConverter::Encoding named, qsizetype length) {
        encoding = named;
        mark = length;
    };
    if (byte(0) == 0x00 && byte(1) == 0x00 && byte(2) == 0xFE && byte(3) == 0xFF)
        marked(QStringConverter::Utf32BE, 4);
    else if (byte(0) == 0xFF && byte(1) == 0xFE && byte(2) == 0x00 && byte(3) == 0x00)
        marked(QStringConverter::Utf32LE, 4);
    else if (byte(0) == 0xFE && byte(1) == 0xFF)
        marked(QStringConverter::Utf16BE, 2);
    else if (byte(0) == 0xFF && byte(1) == 0xFE)
        marked(QStringConverter::Utf16LE, 2);
    else if (data.size() >= 4 && byte(0) == 0 && byte(1) == 0 && byte(2) == 0 && byte(3) != 0)
        encoding = QStringConverter::Utf32BE;
    else if (data.size() >= 4 && byte(0) != 0 && byte(1) == 0 && byte(2) == 0 && byte(3) == 0)
        encoding = QStringConverter::Utf32LE;
    else if (data.size() >= 2 && byte(0) == 0 && byte(1) != 0)
        encoding = QStringConverter::Utf16BE;
    else if (data.size() >= 2 && byte(0) != 0 && byte(1) == 0)
        encoding = QStringConverter::Utf16LE;
    if (!encoding) {
        *utf8 = data;
        return true;
    }
    const QByteArrayView body = QByteArrayView(data).sliced(mark);
    const auto undecodable = [&] {
        *error = corruptError(QStringLiteral("Unable to convert data to a string"), 0);
        return false;
    };
    // Qt's UTF-32 decoder folds a value above U+10FFFF into other
    // characters (a quote among them) instead of failing: such text is
    // refused before it is decoded.
    if (*encoding == QStringConverter::Utf32LE || *encoding == QStringConverter::Utf32BE) {
        if (body.size() % 4 != 0)
            return undecodable();
        const bool little = *encoding == QStringConverter::Utf32LE;
        for (qsizetype i = 0; i < body.size(); i += 4) {
            const auto at = [&](int k) { return static_cast<quint32>(static_cast<uchar>(body[i + k])); };
            const quint32 value = little ? at(0) | at(1) << 8 | at(2) << 16 | at(3) << 24
                                         : at(3) | at(2) << 8 | at(1) << 16 | at(0) << 24;
            if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
                return undecodable();
        }
    }
    // Nor does Qt's UTF-16 decoder count a lone surrogate or a cut-off last
    // unit as an error.
    if (body.size() % 2 != 0)
        return undecodable();
    QStringDecoder decoder(*encoding, QStringConverter::Flag::Stateless);
    const QString text = decoder.decode(body);
    if (decoder.hasError() || !QStringView(text).isValidUtf16())
        return undecodable();
    *utf8 = text.toUtf8();
    return true;
}

// Where the first number outside strings breaks JSON's number grammar
// (-?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?); -1 when none does. Qt's
// reader takes ".5" and "1." as numbers, which JSON does not.
qsizetype badNumberAt(const QByteArray &text)
{
    const char *c = text.constData();
    const qsizetype size = text.size();
    const auto digit = [&](qsizetype i) { return i < size && c[i] >= '0' && c[i] <= '9'; };
    bool inString = false;
    for (qsizetype i = 0; i < size; ++i) {
        const char ch = c[i];
        if (inString) {
            if (ch == '\\')
                ++i;
            else if (ch == '"')
                inString = false;
            continue;
        }
        if (ch == '"') {
            inString = true;
            continue;
        }
        if (ch != '-' && ch != '.' && !(ch >= '0' && ch <= '9'))
            continue;
        const qsizetype start = i;
        if (c[i] == '-')
            ++i;
        if (!digit(i))
            return start;
        if (c[i] == '0')
            ++i;
        else
            while (digit(i))
                ++i;
        if (i < size && c[i] == '.') {
            ++i;
            if (!digit(i))
                return start;
            while (digit(i))
                ++i;
        }
        if (i < size && (c[i] == 'e' || c[i] == 'E')) {
            ++i;
            if (i < size && (c[i] == '+' || c[i] == '-'))
                ++i;
            if (!digit(i))
                return start;
            while (digit(i))
                ++i;
        }
        // What follows a number is a separator for the parser to judge; a
        // stray digit or point right after one ("01", "1.2.3") is not.
        if (i < size && (c[i] == '.' || (c[i] >= '0' && c[i] <= '9')))
            return start;
        --i;
    }
    return -1;
}

// Qt's reader on UTF-8 text, a top-level scalar read inside an array when
// fragments are allowed.
std::optional<QJsonValue> parseUTF8(const QByteArray &data, quint32 options, ORVError *error)
{
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
    QByteArray text;
    ORVError encodingError;
    if (!toUTF8(data, &text, &encodingError)) {
        setError(error, encodingError);
        return std::nullopt;
    }
    if (const qsizetype bad = badNumberAt(text); bad >= 0) {
        setError(error, corruptError(QStringLiteral("Invalid number"), bad));
        return std::nullopt;
    }
    return parseUTF8(text, options, error);
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
