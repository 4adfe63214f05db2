#pragma once

/// \file
/// Typed reads from decoded JSON objects and JSON parsing that reports a
/// wrong top-level type.
///
/// The typed getters (orv_...ForKey) each return nothing for a missing key, a
/// JSON null, or a value of another type; none of them throws. JSON booleans
/// count as numbers (1 and 0).
///
/// Threads: any thread; the functions keep no state.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

// --- typed getters ------------------------------------------------------
// Each returns nothing for a missing key, a JSON null, or a value of another
// type; none of them throws. JSON booleans count as numbers (1 and 0).

/// The value when it has the given type; Undefined otherwise. Asking for
/// QJsonValue::Double accepts booleans and returns them as numbers; asking
/// for Null or Undefined always gives Undefined.
ORVELLAKIT_EXPORT QJsonValue orv_checkedObjectForKey(const QJsonObject &object, const QString &key,
                                                     QJsonValue::Type type);
/// The number (booleans as 1 and 0).
ORVELLAKIT_EXPORT std::optional<double> orv_numberForKey(const QJsonObject &object, const QString &key);
/// The string; an empty JSON string gives an empty (not null) QString.
ORVELLAKIT_EXPORT std::optional<QString> orv_stringForKey(const QJsonObject &object, const QString &key);
/// The string only when it is not empty.
ORVELLAKIT_EXPORT std::optional<QString> orv_nonEmptyStringForKey(const QJsonObject &object, const QString &key);
/// A date that many seconds after 1970-01-01 UTC, when the number is > 0.
/// QDateTime keeps milliseconds, so finer fractions are rounded.
ORVELLAKIT_EXPORT std::optional<QDateTime> orv_dateSince1970ForKey(const QJsonObject &object, const QString &key);
/// The object.
ORVELLAKIT_EXPORT std::optional<QJsonObject> orv_dictionaryForKey(const QJsonObject &object, const QString &key);
/// The array.
ORVELLAKIT_EXPORT std::optional<QJsonArray> orv_arrayForKey(const QJsonObject &object, const QString &key);

// --- parsing ----------------------------------------------------------------

/// Reading options, as the platform's JSON reader numbers them.
enum ORVJSONReadingOptions : quint32 {
    ORVJSONReadingMutableContainers = 1 << 0, ///< accepted; Qt's containers are values anyway
    ORVJSONReadingMutableLeaves = 1 << 1,     ///< accepted; same
    ORVJSONReadingFragmentsAllowed = 1 << 2,  ///< a top-level scalar is accepted
};

/// Error of the JSON reader for text that does not parse: "NSCocoaErrorDomain"
/// code 3840 with a description naming the position.
constexpr qint64 ORVPropertyListReadCorruptError = 3840;

/// A null `data` gives nothing and the error "NSCocoaErrorDomain" 0 with the
/// failure reason "nil data passed to +[NSJSONSerialization
/// orv_JSONObjectWithData:error:]". Otherwise the parser's result: an object
/// or array (or a scalar with ORVJSONReadingFragmentsAllowed), or nothing and
/// its error. `error` may be null.
ORVELLAKIT_EXPORT std::optional<QJsonValue> orv_JSONObjectWithData(const QByteArray &data, quint32 options,
                                                                   ORVError *error);
/// The same without options.
ORVELLAKIT_EXPORT std::optional<QJsonValue> orv_JSONObjectWithData(const QByteArray &data, ORVError *error);
/// The same without options or error.
ORVELLAKIT_EXPORT std::optional<QJsonValue> orv_JSONObjectWithData(const QByteArray &data);

/// Parses and requires the given top-level type (Object, Array, String,
/// Double, Bool, Null). A parse failure keeps the parser's error; the wrong
/// type gives "NSCocoaErrorDomain" 0 with an empty failure reason.
ORVELLAKIT_EXPORT std::optional<QJsonValue> orv_checkedJSONObjectWithData(const QByteArray &data,
                                                                          QJsonValue::Type type, quint32 options,
                                                                          ORVError *error);

/// orv_checkedJSONObjectWithData() for a top-level object.
ORVELLAKIT_EXPORT std::optional<QJsonObject> orv_JSONDictionaryWithData(const QByteArray &data, quint32 options,
                                                                        ORVError *error);
/// The same without options.
ORVELLAKIT_EXPORT std::optional<QJsonObject> orv_JSONDictionaryWithData(const QByteArray &data, ORVError *error);
/// The same without options or error.
ORVELLAKIT_EXPORT std::optional<QJsonObject> orv_JSONDictionaryWithData(const QByteArray &data);

/// orv_checkedJSONObjectWithData() for a top-level array.
ORVELLAKIT_EXPORT std::optional<QJsonArray> orv_JSONArrayWithData(const QByteArray &data, quint32 options,
                                                                  ORVError *error);
/// The same without options.
ORVELLAKIT_EXPORT std::optional<QJsonArray> orv_JSONArrayWithData(const QByteArray &data, ORVError *error);
/// The same without options or error.
ORVELLAKIT_EXPORT std::optional<QJsonArray> orv_JSONArrayWithData(const QByteArray &data);
