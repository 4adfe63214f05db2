#include <OrvellaKit/ORVStringWithFormat.h>

#include <QJsonDocument>
#include <QLocale>
#include <QTimeZone>

#include <cmath>
#include <cstdio>
#include <vector>

namespace {

const QString kNull = QStringLiteral("(null)");

QString jsonText(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Null:
        return QStringLiteral("<null>");
    case QJsonValue::Undefined:
        return kNull;
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QJsonValue::Double:
        return QString::number(value.toDouble(), 'g', QLocale::FloatingPointShortest);
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Array:
        return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    case QJsonValue::Object:
        return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
    }
    return kNull;
}

QString dataDescription(const QByteArray &data)
{
    // "<00abff01 02>": lower-case hex in groups of four bytes, like the
    // platform's data description.
    static constexpr char digits[] = "0123456789abcdef";
    QString text;
    text.reserve(2 + data.size() * 2 + data.size() / 4);
    text += u'<';
    for (qsizetype i = 0; i < data.size(); ++i) {
        if (i > 0 && i % 4 == 0)
            text += u' ';
        const auto byte = static_cast<unsigned char>(data[i]);
        text += QLatin1Char(digits[byte >> 4]);
        text += QLatin1Char(digits[byte & 0xF]);
    }
    text += u'>';
    return text;
}

QString variantText(const QVariant &value);

QString mapText(const QVariantMap &map)
{
    QStringList parts;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        parts << it.key() + QStringLiteral(" = ") + variantText(it.value());
    return u'{' + parts.join(QStringLiteral("; ")) + u'}';
}

QString listText(const QVariantList &list)
{
    QStringList parts;
    for (const QVariant &item : list)
        parts << variantText(item);
    return u'(' + parts.join(QStringLiteral(", ")) + u')';
}

QString variantText(const QVariant &value)
{
    if (!value.isValid())
        return kNull;
    switch (value.typeId()) {
    case QMetaType::QString:
        return value.toString();
    case QMetaType::QUuid:
        return ORVUUIDString(value.toUuid());
    case QMetaType::QUrl:
        return value.toUrl().toString();
    case QMetaType::QDateTime:
        return ORVDateDescription(value.toDateTime());
    case QMetaType::QByteArray:
        return dataDescription(value.toByteArray());
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Double:
    case QMetaType::Float:
        return QString::number(value.toDouble(), 'g', QLocale::FloatingPointShortest);
    case QMetaType::QVariantMap:
        return mapText(value.toMap());
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return listText(value.toList());
    case QMetaType::QJsonValue:
        return jsonText(value.toJsonValue());
    case QMetaType::QJsonObject:
        return jsonText(value.toJsonObject());
    case QMetaType::QJsonArray:
        return jsonText(value.toJsonArray());
    case QMetaType::Nullptr:
        return kNull;
    default:
        break;
    }
    if (value.metaType() == QMetaType::fromType<ORVError>()) {
        const auto error = value.value<ORVError>();
        return error.isNull() ? kNull : error.description();
    }
    if (value.canConvert<QString>())
        return value.toString();
    return QStringLiteral("<%1>").arg(QString::fromLatin1(value.typeName()));
}

struct Directive {
    QByteArray flags;
    int width = -1;
    int precision = -1;
    int lengthBytes = 0; // 0: none, 1: hh, 2: h, 8: l, ll, q, z, j, t
    char conversion = 0;
};

QString pad(QString text, const Directive &directive)
{
    if (directive.precision >= 0 && text.size() > directive.precision)
        text.truncate(directive.precision);
    if (directive.width > text.size()) {
        const QString fill(directive.width - text.size(), u' ');
        text = directive.flags.contains('-') ? text + fill : fill + text;
    }
    return text;
}

QString cFormat(const Directive &directive, const char *length, char conversion, auto value)
{
    QByteArray format = "%";
    format += directive.flags;
    if (directive.width >= 0)
        format += QByteArray::number(directive.width);
    if (directive.precision >= 0)
        format += '.' + QByteArray::number(directive.precision);
    format += length;
    format += conversion;
    char small[128];
    const int needed = std::snprintf(small, sizeof small, format.constData(), value);
    if (needed < 0)
        return {};
    if (needed < static_cast<int>(sizeof small))
        return QString::fromUtf8(small, needed);
    std::vector<char> large(static_cast<size_t>(needed) + 1);
    std::snprintf(large.data(), large.size(), format.constData(), value);
    return QString::fromUtf8(large.data(), needed);
}

// Narrows an integer to the width that a length modifier asks for, or to the
// argument's own width when there is none (so -1 of an int prints ffffffff
// under %x, as in C).
unsigned long long narrowUnsigned(unsigned long long value, int bytes)
{
    if (bytes >= 8)
        return value;
    return value & ((1ULL << (bytes * 8)) - 1);
}

long long narrowSigned(long long value, int bytes)
{
    switch (bytes) {
    case 1:
        return static_cast<signed char>(value);
    case 2:
        return static_cast<short>(value);
    case 4:
        return static_cast<int>(value);
    default:
        return value;
    }
}

QString convert(const Directive &directive, const ORVFormatArgument &arg);

// Appends the conversion of one argument to `out`.
void convertInto(QString &out, const Directive &directive, const ORVFormatArgument &arg)
{
    using Kind = ORVFormatArgument::Kind;
    // The common plain cases skip the C formatter: they are most of what a
    // log statement prints.
    const bool plain = directive.flags.isEmpty() && directive.width < 0 && directive.precision < 0;
    if (plain) {
        const int bytes = directive.lengthBytes ? std::min(directive.lengthBytes, arg.byteWidth()) : arg.byteWidth();
        switch (directive.conversion) {
        case '@':
            if (arg.kind() == Kind::Text) {
                out += arg.text();
                return;
            }
            break;
        case 'd':
        case 'i':
            if (arg.kind() == Kind::Signed || arg.kind() == Kind::Unsigned) {
                out += QString::number(narrowSigned(arg.signedValue(), bytes));
                return;
            }
            break;
        case 'u':
        case 'x':
        case 'X':
            if (arg.kind() == Kind::Signed || arg.kind() == Kind::Unsigned) {
                const unsigned long long value = narrowUnsigned(arg.unsignedValue(), bytes);
                if (directive.conversion == 'u')
                    out += QString::number(value);
                else if (directive.conversion == 'x')
                    out += QString::number(value, 16);
                else
                    out += QString::number(value, 16).toUpper();
                return;
            }
            break;
        default:
            break;
        }
    }
    out += convert(directive, arg);
}

QString convert(const Directive &directive, const ORVFormatArgument &arg)
{
    using Kind = ORVFormatArgument::Kind;
    const int bytes = directive.lengthBytes ? std::min(directive.lengthBytes, arg.byteWidth()) : arg.byteWidth();
    switch (directive.conversion) {
    case '@':
        return pad(arg.objectDescription(), directive);
    case 's':
    case 'S':
        return pad(arg.kind() == Kind::Null ? kNull : arg.objectDescription(), directive);
    case 'd':
    case 'i':
        if (arg.kind() == Kind::Text || arg.kind() == Kind::Null)
            return pad(arg.objectDescription(), directive);
        return cFormat(directive, "ll", 'd', narrowSigned(arg.signedValue(), bytes));
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        if (arg.kind() == Kind::Text || arg.kind() == Kind::Null)
            return pad(arg.objectDescription(), directive);
        return cFormat(directive, "ll", directive.conversion, narrowUnsigned(arg.unsignedValue(), bytes));
    case 'c':
    case 'C': {
        if (arg.kind() == Kind::Text)
            return pad(arg.objectDescription().left(1), directive);
        const auto code = static_cast<char32_t>(arg.unsignedValue() & 0x1FFFFF);
        return pad(QString::fromUcs4(&code, 1), directive);
    }
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        if (arg.kind() == Kind::Text || arg.kind() == Kind::Null)
            return pad(arg.objectDescription(), directive);
        return cFormat(directive, "", directive.conversion, arg.doubleValue());
    case 'p':
        return pad(QStringLiteral("0x") + QString::number(arg.unsignedValue(), 16), directive);
    default:
        return {};
    }
}

} // namespace

ORVFormatArgument::ORVFormatArgument(const char *text)
{
    if (text) {
        _kind = Kind::Text;
        _text = QString::fromUtf8(text);
    }
}

ORVFormatArgument::ORVFormatArgument(const QByteArray &data) : _kind(Kind::Text), _text(dataDescription(data)) {}

ORVFormatArgument::ORVFormatArgument(const QUuid &uuid) : _kind(Kind::Text), _text(ORVUUIDString(uuid)) {}

ORVFormatArgument::ORVFormatArgument(const QUrl &url)
{
    if (!url.isEmpty()) {
        _kind = Kind::Text;
        _text = url.toString();
    }
}

ORVFormatArgument::ORVFormatArgument(const QDateTime &date)
{
    if (date.isValid()) {
        _kind = Kind::Text;
        _text = ORVDateDescription(date);
    }
}

ORVFormatArgument::ORVFormatArgument(const ORVError &error)
{
    if (!error.isNull()) {
        _kind = Kind::Text;
        _text = error.description();
    }
}

ORVFormatArgument::ORVFormatArgument(const QVariant &value)
{
    if (!value.isValid() || value.typeId() == QMetaType::Nullptr)
        return;
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::SChar:
        _kind = Kind::Signed;
        _signed = value.toLongLong();
        _byteWidth = static_cast<int>(value.metaType().sizeOf());
        return;
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::UChar:
        _kind = Kind::Unsigned;
        _unsigned = value.toULongLong();
        _byteWidth = static_cast<int>(value.metaType().sizeOf());
        return;
    case QMetaType::Double:
    case QMetaType::Float:
        _kind = Kind::Double;
        _double = value.toDouble();
        return;
    default:
        _kind = Kind::Text;
        _text = variantText(value);
    }
}

ORVFormatArgument::ORVFormatArgument(const QJsonValue &value)
{
    if (value.isUndefined())
        return;
    if (value.isDouble()) {
        _kind = Kind::Double;
        _double = value.toDouble();
        // Integral JSON numbers print without a fraction under %@ and can
        // feed %d directly.
        const qint64 integer = value.toInteger();
        if (static_cast<double>(integer) == _double) {
            _kind = Kind::Signed;
            _signed = integer;
        }
        return;
    }
    _kind = Kind::Text;
    _text = jsonText(value);
}

ORVFormatArgument::ORVFormatArgument(const QJsonObject &value) : _kind(Kind::Text), _text(jsonText(value)) {}
ORVFormatArgument::ORVFormatArgument(const QJsonArray &value) : _kind(Kind::Text), _text(jsonText(value)) {}
ORVFormatArgument::ORVFormatArgument(const QStringList &value) : _kind(Kind::Text), _text(listText(QVariant(value).toList())) {}

QString ORVFormatArgument::objectDescription() const
{
    switch (_kind) {
    case Kind::Null:
        return kNull;
    case Kind::Signed:
        return QString::number(_signed);
    case Kind::Unsigned:
        return QString::number(_unsigned);
    case Kind::Double:
        return QString::number(_double, 'g', QLocale::FloatingPointShortest);
    case Kind::Text:
        return _text;
    case Kind::Pointer:
        return QStringLiteral("0x") + QString::number(_unsigned, 16);
    }
    return kNull;
}

long long ORVFormatArgument::signedValue() const
{
    switch (_kind) {
    case Kind::Signed:
        return _signed;
    case Kind::Unsigned:
    case Kind::Pointer:
        return static_cast<long long>(_unsigned);
    case Kind::Double:
        if (!std::isfinite(_double))
            return 0;
        if (_double >= 9.2233720368547758e18)
            return std::numeric_limits<long long>::max();
        if (_double <= -9.2233720368547758e18)
            return std::numeric_limits<long long>::min();
        return static_cast<long long>(_double);
    default:
        return 0;
    }
}

unsigned long long ORVFormatArgument::unsignedValue() const
{
    if (_kind == Kind::Unsigned || _kind == Kind::Pointer)
        return _unsigned;
    return static_cast<unsigned long long>(signedValue());
}

double ORVFormatArgument::doubleValue() const
{
    switch (_kind) {
    case Kind::Double:
        return _double;
    case Kind::Signed:
        return static_cast<double>(_signed);
    case Kind::Unsigned:
    case Kind::Pointer:
        return static_cast<double>(_unsigned);
    default:
        return 0.0;
    }
}

QString ORVStringWithFormatArguments(QStringView format, std::initializer_list<ORVFormatArgument> arguments)
{
    const ORVFormatArgument *args = arguments.begin();
    const qsizetype count = static_cast<qsizetype>(arguments.size());
    const ORVFormatArgument missing;
    qsizetype nextArgument = 0;
    auto argumentAt = [&](qsizetype index) -> const ORVFormatArgument & {
        return index >= 0 && index < count ? args[index] : missing;
    };

    QString result;
    result.reserve(format.size() + count * 8);
    const qsizetype n = format.size();
    qsizetype i = 0;
    while (i < n) {
        const QChar ch = format[i];
        if (ch != u'%') {
            // Copy the literal run in one go.
            qsizetype end = i + 1;
            while (end < n && format[end] != u'%')
                ++end;
            result += format.mid(i, end - i);
            i = end;
            continue;
        }
        const qsizetype start = i++;
        if (i >= n) {
            result += u'%';
            break;
        }
        if (format[i] == u'%') {
            result += u'%';
            ++i;
            continue;
        }

        auto readNumber = [&](qsizetype &pos) -> int {
            long long value = 0;
            while (pos < n && format[pos].isDigit() && format[pos].unicode() < 128) {
                value = std::min<long long>(value * 10 + (format[pos].unicode() - '0'), 1 << 20);
                ++pos;
            }
            return static_cast<int>(value);
        };

        Directive directive;
        qsizetype position = -1;
        // Positional argument: digits followed by '$'.
        {
            qsizetype probe = i;
            const int number = readNumber(probe);
            if (probe > i && probe < n && format[probe] == u'$') {
                position = number - 1;
                i = probe + 1;
            }
        }
        while (i < n && QStringView(u"-+ #0'").contains(format[i])) {
            if (format[i] != u'\'')
                directive.flags += static_cast<char>(format[i].unicode());
            ++i;
        }
        if (i < n && format[i] == u'*') {
            const int width = static_cast<int>(argumentAt(nextArgument++).signedValue());
            if (width < 0) {
                directive.flags += '-';
                directive.width = std::min(-width, 1 << 20);
            } else {
                directive.width = std::min(width, 1 << 20);
            }
            ++i;
        } else if (i < n && format[i].isDigit()) {
            directive.width = readNumber(i);
        }
        if (i < n && format[i] == u'.') {
            ++i;
            if (i < n && format[i] == u'*') {
                directive.precision = std::clamp(static_cast<int>(argumentAt(nextArgument++).signedValue()), -1, 1 << 20);
                ++i;
            } else {
                directive.precision = readNumber(i);
            }
        }
        while (i < n) {
            const char16_t c = format[i].unicode();
            if (c == u'h') {
                directive.lengthBytes = directive.lengthBytes == 2 ? 1 : 2;
            } else if (c == u'l' || c == u'q' || c == u'z' || c == u'j' || c == u't' || c == u'L') {
                directive.lengthBytes = 8;
            } else {
                break;
            }
            ++i;
        }
        if (i >= n) {
            // A dangling directive is copied as it stands.
            result += format.mid(start);
            break;
        }
        directive.conversion = format[i].unicode() < 128 ? static_cast<char>(format[i].unicode()) : 0;
        ++i;
        if (!QByteArrayView("@diuoxXcCsSfFeEgGaAp").contains(directive.conversion)) {
            result += format.mid(start, i - start);
            continue;
        }
        const qsizetype index = position >= 0 ? position : nextArgument++;
        convertInto(result, directive, argumentAt(index));
    }
    return result;
}

QString ORVUUIDString(const QUuid &uuid)
{
    return uuid.toString(QUuid::WithoutBraces).toUpper();
}

QString ORVDateDescription(const QDateTime &date)
{
    if (!date.isValid())
        return kNull;
    return date.toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss +0000"));
}
