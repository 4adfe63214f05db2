#pragma once

/// \file
/// ORVStringWithFormat: an Objective-C style formatter.
///
/// \code
///   ORVStringWithFormat("Changing log level: %d", level)
///   ORVStringWithFormat("%2$@ before %1$@", first, second)
/// \endcode
///
/// Conversions: %@ (anything with a description: strings, numbers, UUIDs,
/// URLs, dates, errors, JSON and Qt variants, and any type with a
/// `description()` member), %d %i %u %o %x %X %c %s %f %e %g %a %p and %%,
/// with flags, width, precision (`*` too), length modifiers (which may narrow
/// a value, never widen it) and positional arguments ("%1$@").
///
/// "Nothing" prints "(null)": nullptr, an empty std::optional, a null
/// shared_ptr, an invalid QVariant, a null ORVError. UUIDs print upper-case
/// without braces. A missing argument or a conversion that does not fit its
/// argument never crashes: numbers convert, and text prints as text.
///
/// Threads: any thread; the functions keep no state.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>

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

/// A type that %@ prints through its `description()` member.
template <typename T>
concept ORVDescribable = requires(const T &value) {
    { value.description() } -> std::convertible_to<QString>;
};

/// One argument of ORVStringWithFormat(), converted on construction to a
/// number, a text or "nothing". The constructors are implicit: the
/// formatter's arguments turn into these without being named.
///
/// Threads: any thread (a value).
/// Ownership: a value; keeps copies (texts are made at construction), never
/// a reference to the argument.
class ORVELLAKIT_EXPORT ORVFormatArgument {
public:
    /// What the argument holds.
    enum class Kind {
        Null,     ///< Nothing: prints "(null)".
        Signed,   ///< A signed integer (also booleans and integral JSON numbers).
        Unsigned, ///< An unsigned integer.
        Double,   ///< A floating-point number.
        Text,     ///< A text (also every description).
        Pointer   ///< An address, for %p.
    };

    /// Nothing (a missing argument).
    ORVFormatArgument() = default;
    /// Nothing.
    ORVFormatArgument(std::nullptr_t) {}

    /// An integer of any width (not bool); it remembers its width in bytes.
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
    /// Booleans print as 1 and 0, as a BOOL does.
    ORVFormatArgument(bool value) : _kind(Kind::Signed), _signed(value ? 1 : 0), _byteWidth(1) {}

    /// An enumerator, as its underlying integer.
    template <typename E>
        requires std::is_enum_v<E>
    ORVFormatArgument(E value) : ORVFormatArgument(static_cast<std::underlying_type_t<E>>(value))
    {
    }

    /// A double.
    ORVFormatArgument(double value) : _kind(Kind::Double), _double(value) {}
    /// A float, as a double.
    ORVFormatArgument(float value) : _kind(Kind::Double), _double(value) {}

    /// UTF-8 text; nothing for a null pointer.
    ORVFormatArgument(const char *text);
    /// A text.
    ORVFormatArgument(const QString &text) : _kind(Kind::Text), _text(text) {}
    /// A text.
    ORVFormatArgument(QStringView text) : _kind(Kind::Text), _text(text.toString()) {}
    /// A text.
    ORVFormatArgument(QLatin1StringView text) : _kind(Kind::Text), _text(text) {}
    /// Bytes, as lower-case hexadecimal in groups of four bytes: "<00abff01 02>".
    ORVFormatArgument(const QByteArray &data);
    /// A UUID as ORVUUIDString() writes it.
    ORVFormatArgument(const QUuid &uuid);
    /// The URL's text; nothing for an empty URL.
    ORVFormatArgument(const QUrl &url);
    /// The date as ORVDateDescription() writes it; nothing for an invalid date.
    ORVFormatArgument(const QDateTime &date);
    /// ORVError::description(); nothing for a null error.
    ORVFormatArgument(const ORVError &error);
    /// Integers and floating-point numbers as numbers, everything else as its
    /// description (maps as {key = value; ...}, lists as (a, b)); nothing for
    /// an invalid or null variant.
    ORVFormatArgument(const QVariant &value);
    /// Integral numbers as integers, other numbers as doubles, strings as
    /// themselves, booleans as 1 and 0, JSON null as "<null>", objects and
    /// arrays as compact JSON; nothing for Undefined.
    ORVFormatArgument(const QJsonValue &value);
    /// Compact JSON text.
    ORVFormatArgument(const QJsonObject &value);
    /// Compact JSON text.
    ORVFormatArgument(const QJsonArray &value);
    /// The strings as a list: (a, b).
    ORVFormatArgument(const QStringList &value);
    /// An address, for %p (and as a number).
    ORVFormatArgument(const void *pointer) : _kind(Kind::Pointer), _unsigned(reinterpret_cast<quintptr>(pointer)) {}

    /// Any type with a `description()` member, as that text.
    template <ORVDescribable T>
    ORVFormatArgument(const T &value) : _kind(Kind::Text), _text(value.description())
    {
    }

    /// The value, or nothing when empty.
    template <typename T>
    ORVFormatArgument(const std::optional<T> &value) : ORVFormatArgument(value ? ORVFormatArgument(*value) : ORVFormatArgument())
    {
    }

    /// The pointee, or nothing for a null pointer.
    template <typename T>
        requires std::is_constructible_v<ORVFormatArgument, const T &>
    ORVFormatArgument(const std::shared_ptr<T> &value)
        : ORVFormatArgument(value ? ORVFormatArgument(*value) : ORVFormatArgument())
    {
    }

    /// What the argument holds.
    Kind kind() const { return _kind; }
    /// What %@ prints for this argument.
    QString objectDescription() const;

    /// The value as a signed integer: doubles truncate (saturating; NaN and
    /// infinities give 0), unsigned values and addresses reinterpret, nothing
    /// and text give 0.
    long long signedValue() const;
    /// The value as an unsigned integer; anything but an unsigned value or an
    /// address goes through signedValue().
    unsigned long long unsignedValue() const;
    /// The value as a double; nothing and text give 0.
    double doubleValue() const;
    /// The width in bytes of the integer given (1 for bool); 8 for others.
    int byteWidth() const { return _byteWidth; }
    /// The text of a Text argument.
    const QString &text() const { return _text; }

private:
    Kind _kind = Kind::Null;
    long long _signed = 0;
    unsigned long long _unsigned = 0;
    double _double = 0.0;
    QString _text;
    int _byteWidth = 8;
};

/// Formats with arguments already converted: what ORVStringWithFormat()
/// calls. A directive without a matching argument gets nothing; an unknown
/// conversion, and a directive cut off by the end of the format, are copied
/// as they stand.
ORVELLAKIT_EXPORT QString ORVStringWithFormatArguments(QStringView format,
                                                       std::initializer_list<ORVFormatArgument> arguments);

/// The format with its directives replaced by the arguments (see the file
/// overview).
template <typename... Args>
QString ORVStringWithFormat(const QString &format, const Args &...args)
{
    return ORVStringWithFormatArguments(format, {ORVFormatArgument(args)...});
}

/// The same with a UTF-8 format.
template <typename... Args>
QString ORVStringWithFormat(const char *format, const Args &...args)
{
    return ORVStringWithFormatArguments(QString::fromUtf8(format), {ORVFormatArgument(args)...});
}

/// Apple's UUID text: upper-case, no braces.
ORVELLAKIT_EXPORT QString ORVUUIDString(const QUuid &uuid);
/// A date as Apple's date description prints it: "2024-03-01 12:00:00 +0000".
/// An invalid date gives "(null)".
ORVELLAKIT_EXPORT QString ORVDateDescription(const QDateTime &date);
