#pragma once

/// \file
/// ISO-8601 date formatting and parsing with the platform's option bits, and
/// the five shared formatters.

#include <OrvellaKit/ORVExport.h>

#include <QDateTime>
#include <QString>
#include <QTimeZone>

#include <optional>

/// The parts and separators an ORVISO8601DateFormatter writes and expects
/// (bits, combined with |), with the platform's values.
enum ORVISO8601DateFormatOptions : quint32 {
    ORVISO8601DateFormatWithYear = 1UL << 0,                      ///< The year ("2024").
    ORVISO8601DateFormatWithMonth = 1UL << 1,                     ///< The month ("03").
    ORVISO8601DateFormatWithWeekOfYear = 1UL << 2,                ///< The ISO week ("W09").
    /// The day of the month (of the week with WithWeekOfYear).
    ORVISO8601DateFormatWithDay = 1UL << 4,
    ORVISO8601DateFormatWithTime = 1UL << 5,                      ///< The time ("12:00:00").
    ORVISO8601DateFormatWithTimeZone = 1UL << 6,                  ///< The zone offset, "Z" for zero.
    ORVISO8601DateFormatWithSpaceBetweenDateAndTime = 1UL << 7,   ///< A space instead of "T".
    ORVISO8601DateFormatWithDashSeparatorInDate = 1UL << 8,       ///< "-" between the date's parts.
    ORVISO8601DateFormatWithColonSeparatorInTime = 1UL << 9,      ///< ":" between the time's parts.
    ORVISO8601DateFormatWithColonSeparatorInTimeZone = 1UL << 10, ///< ":" in the zone offset.
    ORVISO8601DateFormatWithFractionalSeconds = 1UL << 11,        ///< Milliseconds (".000").
    /// Year, month and day with dashes.
    ORVISO8601DateFormatWithFullDate = ORVISO8601DateFormatWithYear | ORVISO8601DateFormatWithMonth |
                                       ORVISO8601DateFormatWithDay | ORVISO8601DateFormatWithDashSeparatorInDate,
    /// Time and zone, with colons.
    ORVISO8601DateFormatWithFullTime = ORVISO8601DateFormatWithTime | ORVISO8601DateFormatWithColonSeparatorInTime |
                                       ORVISO8601DateFormatWithTimeZone |
                                       ORVISO8601DateFormatWithColonSeparatorInTimeZone,
    /// Full date and full time (1907): "2024-03-01T12:00:00Z".
    ORVISO8601DateFormatWithInternetDateTime = ORVISO8601DateFormatWithFullDate | ORVISO8601DateFormatWithFullTime,
};

/// Formats and parses one fixed configuration. Defaults: internet date-time
/// (1907) in GMT. Reading is thread-safe; configure before sharing.
///
/// Ownership: a value.
class ORVELLAKIT_EXPORT ORVISO8601DateFormatter {
public:
    /// A formatter with the defaults.
    ORVISO8601DateFormatter() = default;

    /// The ORVISO8601DateFormatOptions bits in use.
    quint32 formatOptions() const { return _formatOptions; }
    /// Sets the ORVISO8601DateFormatOptions bits.
    void setFormatOptions(quint32 options) { _formatOptions = options; }
    /// The zone dates are written in, and read in when the text has no offset.
    QTimeZone timeZone() const { return _timeZone; }
    /// Sets the zone; an invalid zone means UTC.
    void setTimeZone(const QTimeZone &zone) { _timeZone = zone.isValid() ? zone : QTimeZone::utc(); }

    /// "2024-03-01T12:00:00Z" with the defaults; "" for an invalid date, for
    /// a year (or week-based year) outside 1 ... 9999 when the year is
    /// written, and for a zone offset with seconds (local mean time, such as
    /// Amsterdam's +00:19:32 before 1937) when the zone is written: neither
    /// has a form in this layout that reads back as the same date.
    QString stringFromDate(const QDateTime &date) const;
    /// Nothing when the text does not match the configured options exactly.
    std::optional<QDateTime> dateFromString(const QString &string) const;

private:
    quint32 _formatOptions = ORVISO8601DateFormatWithInternetDateTime;
    QTimeZone _timeZone = QTimeZone::utc();
};

/// \name Shared formatters
/// The shared formatters, each made once on first use and never changed
/// (safe to use from any thread). The first three have the explicit zone
/// "UTC", the last two the formatter's default zone (GMT).
/// \{
ORVELLAKIT_EXPORT const ORVISO8601DateFormatter &orv_utcDateFormatter();                         ///< default options
ORVELLAKIT_EXPORT const ORVISO8601DateFormatter &orv_utcInternetDateFormatter();                 ///< 1907
ORVELLAKIT_EXPORT const ORVISO8601DateFormatter &orv_utcInternetWithFractionalSecondsDateFormatter(); ///< 3955
ORVELLAKIT_EXPORT const ORVISO8601DateFormatter &orv_internetDateFormatter();                    ///< 1907
ORVELLAKIT_EXPORT const ORVISO8601DateFormatter &orv_internetWithFractionalSecondsDateFormatter(); ///< 3955
/// \}
