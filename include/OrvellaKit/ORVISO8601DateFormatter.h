#pragma once

// ISO-8601 date formatting and parsing with the platform's option bits, and
// the five shared formatters.

#include <QDateTime>
#include <QString>
#include <QTimeZone>

#include <optional>

enum ORVISO8601DateFormatOptions : quint32 {
    ORVISO8601DateFormatWithYear = 1UL << 0,
    ORVISO8601DateFormatWithMonth = 1UL << 1,
    ORVISO8601DateFormatWithWeekOfYear = 1UL << 2,
    ORVISO8601DateFormatWithDay = 1UL << 4,
    ORVISO8601DateFormatWithTime = 1UL << 5,
    ORVISO8601DateFormatWithTimeZone = 1UL << 6,
    ORVISO8601DateFormatWithSpaceBetweenDateAndTime = 1UL << 7,
    ORVISO8601DateFormatWithDashSeparatorInDate = 1UL << 8,
    ORVISO8601DateFormatWithColonSeparatorInTime = 1UL << 9,
    ORVISO8601DateFormatWithColonSeparatorInTimeZone = 1UL << 10,
    ORVISO8601DateFormatWithFractionalSeconds = 1UL << 11,
    ORVISO8601DateFormatWithFullDate = ORVISO8601DateFormatWithYear | ORVISO8601DateFormatWithMonth |
                                       ORVISO8601DateFormatWithDay | ORVISO8601DateFormatWithDashSeparatorInDate,
    ORVISO8601DateFormatWithFullTime = ORVISO8601DateFormatWithTime | ORVISO8601DateFormatWithColonSeparatorInTime |
                                       ORVISO8601DateFormatWithTimeZone |
                                       ORVISO8601DateFormatWithColonSeparatorInTimeZone,
    ORVISO8601DateFormatWithInternetDateTime = ORVISO8601DateFormatWithFullDate | ORVISO8601DateFormatWithFullTime,
};

// Formats and parses one fixed configuration. Defaults: internet date-time
// (1907) in GMT. Reading is thread-safe; configure before sharing.
class ORVISO8601DateFormatter {
public:
    ORVISO8601DateFormatter() = default;

    quint32 formatOptions() const { return _formatOptions; }
    void setFormatOptions(quint32 options) { _formatOptions = options; }
    QTimeZone timeZone() const { return _timeZone; }
    void setTimeZone(const QTimeZone &zone) { _timeZone = zone.isValid() ? zone : QTimeZone::utc(); }

    // "2024-03-01T12:00:00Z" with the defaults; "" for an invalid date, for
    // a year (or week-based year) outside 1 ... 9999 when the year is
    // written, and for a zone offset with seconds (local mean time, such as
    // Amsterdam's +00:19:32 before 1937) when the zone is written: neither
    // has a form in this layout that reads back as the same date.
    QString stringFromDate(const QDateTime &date) const;
    // Nothing when the text does not match the configured options exactly.
    std::optional<QDateTime> dateFromString(const QString &string) const;

private:
    quint32 _formatOptions = ORVISO8601DateFormatWithInternetDateTime;
    QTimeZone _timeZone = QTimeZone::utc();
};

// The shared formatters, each made once on first use and never changed.
// Explicit zone "UTC":
const ORVISO8601DateFormatter &orv_utcDateFormatter();                               // default options
const ORVISO8601DateFormatter &orv_utcInternetDateFormatter();                       // 1907
const ORVISO8601DateFormatter &orv_utcInternetWithFractionalSecondsDateFormatter(); // 3955
// The formatter's default zone (GMT):
const ORVISO8601DateFormatter &orv_internetDateFormatter();                          // 1907
const ORVISO8601DateFormatter &orv_internetWithFractionalSecondsDateFormatter();     // 3955
