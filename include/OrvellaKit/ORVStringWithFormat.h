#pragma once

// ORVStringWithFormat: an Objective-C style formatter.
//
//   ORVStringWithFormat("Changing log level: %d", level)
//   ORVStringWithFormat("%2$@ before %1$@", first, second)
//
// Conversions: %@ (anything with a description: strings, numbers, UUIDs,
// URLs, dates, errors, JSON and Qt variants, and any type with a
// `description()` member), %d %i %u %o %x %X %c %s %f %e %g %a %p and %%,
// with flags, width, precision (`*` too), length modifiers (which may narrow
// a value, never widen it) and positional arguments ("%1$@").
//
// "Nothing" prints "(null)": nullptr, an empty std::optional, a null
// shared_ptr, an invalid QVariant, a null ORVError. UUIDs print upper-case
// without braces. A missing argument or a conversion that does not fit its
// argument never crashes: numbers convert, and text prints as text.

#include <OrvellaKit/ORVError.h>

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QUuid>
#include <QVariant>

#include <concepts>
#include <initializer_list>
#include <memory>
#include <optional>
#include <type_traits>

template <typename T>
concept ORVDescribable = requires(const T &value) {
    { value.description() } -> std::convertible_to<QString>;
};

class ORVFormatArgument {
public:
    enum class Kind { Null, Signed, Unsigned, Double, Text, Pointer };

    ORVFormatArgument() = default;
    ORVFormatArgument(std::nullptr_t) {}

    template <typename T>
        requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
    ORVFormatArgument(T value) : _byteWidth(sizeof(T))
    {
        if constexpr (std::is_signed_v<T>) {
            _kind = Kind::Signed;
            _signed = static_cast<long long>(value);
        } else {
            _kind = Kind::Unsigned;
            _unsigned = static_cast<unsigned long long>(value);
        }
    }
    // Booleans print as 1 and 0, as a BOOL does.
    ORVFormatArgument(bool value) : _kind(Kind::Signed), _signed(value ? 1 : 0), _byteWidth(1) {}

    template <typename E>
        requires std::is_enum_v<E>
    ORVFormatArgument(E value) : ORVFormatArgument(static_cast<std::underlying_type_t<E>>(value))
    {
    }

    ORVFormatArgument(double value) : _kind(Kind::Double), _double(value) {}
    ORVFormatArgument(float value) : _kind(Kind::Double), _double(value) {}

    ORVFormatArgument(const char *text);
    ORVFormatArgument(const QString &text) : _kind(Kind::Text), _text(text) {}
    ORVFormatArgument(QStringView text) : _kind(Kind::Text), _text(text.toString()) {}
    ORVFormatArgument(QLatin1StringView text) : _kind(Kind::Text), _text(text) {}
    ORVFormatArgument(const QByteArray &data);
    ORVFormatArgument(const QUuid &uuid);
    ORVFormatArgument(const QUrl &url);
    ORVFormatArgument(const QDateTime &date);
    ORVFormatArgument(const ORVError &error);
    ORVFormatArgument(const QVariant &value);
    ORVFormatArgument(const QJsonValue &value);
    ORVFormatArgument(const QJsonObject &value);
    ORVFormatArgument(const QJsonArray &value);
    ORVFormatArgument(const QStringList &value);
    ORVFormatArgument(const void *pointer) : _kind(Kind::Pointer), _unsigned(reinterpret_cast<quintptr>(pointer)) {}

    template <ORVDescribable T>
    ORVFormatArgument(const T &value) : _kind(Kind::Text), _text(value.description())
    {
    }

    template <typename T>
    ORVFormatArgument(const std::optional<T> &value) : ORVFormatArgument(value ? ORVFormatArgument(*value) : ORVFormatArgument())
    {
    }

    template <typename T>
        requires std::is_constructible_v<ORVFormatArgument, const T &>
    ORVFormatArgument(const std::shared_ptr<T> &value)
        : ORVFormatArgument(value ? ORVFormatArgument(*value) : ORVFormatArgument())
    {
    }

    Kind kind() const { return _kind; }
    // What %@ prints for this argument.
    QString objectDescription() const;

    long long signedValue() const;
    unsigned long long unsignedValue() const;
    double doubleValue() const;
    int byteWidth() const { return _byteWidth; }
    // The text of a Text argument.
    const QString &text() const { return _text; }

private:
    Kind _kind = Kind::Null;
    long long _signed = 0;
    unsigned long long _unsigned = 0;
    double _double = 0.0;
    QString _text;
    int _byteWidth = 8;
};

QString ORVStringWithFormatArguments(QStringView format, std::initializer_list<ORVFormatArgument> arguments);

template <typename... Args>
QString ORVStringWithFormat(const QString &format, const Args &...args)
{
    return ORVStringWithFormatArguments(format, {ORVFormatArgument(args)...});
}

template <typename... Args>
QString ORVStringWithFormat(const char *format, const Args &...args)
{
    return ORVStringWithFormatArguments(QString::fromUtf8(format), {ORVFormatArgument(args)...});
}

// Apple's UUID text: upper-case, no braces.
QString ORVUUIDString(const QUuid &uuid);
// A date as Apple's date description prints it: "2024-03-01 12:00:00 +0000".
QString ORVDateDescription(const QDateTime &date);
