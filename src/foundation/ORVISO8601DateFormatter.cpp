#include <OrvellaKit/ORVISO8601DateFormatter.h>

#include <mutex>

namespace {

void appendNumber(QString &text, int value, int digits)
{
    text += QString::number(value).rightJustified(digits, u'0');
}

// A strict reader over the text, for the fixed layouts the options describe.
class Scanner {
public:
    explicit Scanner(const QString &text) : _text(text) {}

    bool digits(int count, int &value)
    {
        if (_pos + count > _text.size())
            return false;
        int result = 0;
        for (int i = 0; i < count; ++i) {
            const QChar ch = _text[_pos + i];
            if (ch < u'0' || ch > u'9')
                return false;
            result = result * 10 + (ch.unicode() - u'0');
        }
        _pos += count;
        value = result;
        return true;
    }
    bool literal(QChar ch)
    {
        if (_pos < _text.size() && _text[_pos] == ch) {
            ++_pos;
            return true;
        }
        return false;
    }
    bool peek(QChar ch) const { return _pos < _text.size() && _text[_pos] == ch; }
    // One or more digits after a decimal point, as milliseconds (rounded).
    bool fraction(int &milliseconds)
    {
        const qsizetype start = _pos;
        double value = 0.0;
        double scale = 0.1;
        while (_pos < _text.size() && _text[_pos].isDigit() && _text[_pos].unicode() < 128) {
            value += scale * (_text[_pos].unicode() - u'0');
            scale /= 10.0;
            ++_pos;
        }
        milliseconds = std::min(999, static_cast<int>(value * 1000.0 + 0.5));
        return _pos > start;
    }
    bool atEnd() const { return _pos == _text.size(); }

private:
    const QString &_text;
    qsizetype _pos = 0;
};

} // namespace

QString ORVISO8601DateFormatter::stringFromDate(const QDateTime &date) const
{
    if (!date.isValid())
        return QStringLiteral("");
    const quint32 o = _formatOptions;
    const QDateTime local = date.toTimeZone(_timeZone);
    const QDate day = local.date();
    const QTime time = local.time();
    // What the layout cannot say is refused, never printed wrongly: a year
    // outside 1 ... 9999 has no four-digit form (a negative one printed
    // "00-5"), and an offset with seconds (local mean time, Amsterdam's
    // +00:19:32 before 1937) has no hour-minute form that reads back as the
    // same instant.
    if (o & ORVISO8601DateFormatWithYear) {
        int weekYear = day.year();
        if (o & ORVISO8601DateFormatWithWeekOfYear)
            day.weekNumber(&weekYear);
        if (weekYear < 1 || weekYear > 9999)
            return QStringLiteral("");
    }
    if ((o & ORVISO8601DateFormatWithTimeZone) && local.offsetFromUtc() % 60 != 0)
        return QStringLiteral("");
    const bool dash = o & ORVISO8601DateFormatWithDashSeparatorInDate;
    const bool colon = o & ORVISO8601DateFormatWithColonSeparatorInTime;

    QString text;
    text.reserve(32);
    bool hasDate = false;
    auto dateSeparator = [&] {
        if (hasDate && dash)
            text += u'-';
        hasDate = true;
    };
    if (o & ORVISO8601DateFormatWithWeekOfYear) {
        int weekYear = 0;
        const int week = day.weekNumber(&weekYear);
        if (o & ORVISO8601DateFormatWithYear) {
            dateSeparator();
            appendNumber(text, weekYear, 4);
        }
        if (o & ORVISO8601DateFormatWithMonth) {
            dateSeparator();
            appendNumber(text, day.month(), 2);
        }
        dateSeparator();
        text += u'W';
        appendNumber(text, week, 2);
        if (o & ORVISO8601DateFormatWithDay) {
            dateSeparator();
            appendNumber(text, day.dayOfWeek(), 2);
        }
    } else {
        if (o & ORVISO8601DateFormatWithYear) {
            dateSeparator();
            appendNumber(text, day.year(), 4);
        }
        if (o & ORVISO8601DateFormatWithMonth) {
            dateSeparator();
            appendNumber(text, day.month(), 2);
        }
        if (o & ORVISO8601DateFormatWithDay) {
            dateSeparator();
            appendNumber(text, day.day(), 2);
        }
    }
    if (o & ORVISO8601DateFormatWithTime) {
        if (hasDate)
            text += (o & ORVISO8601DateFormatWithSpaceBetweenDateAndTime) ? u' ' : u'T';
        appendNumber(text, time.hour(), 2);
        if (colon)
            text += u':';
        appendNumber(text, time.minute(), 2);
        if (colon)
            text += u':';
        appendNumber(text, time.second(), 2);
        if (o & ORVISO8601DateFormatWithFractionalSeconds) {
            text += u'.';
            appendNumber(text, time.msec(), 3);
        }
    }
    if (o & ORVISO8601DateFormatWithTimeZone) {
        const int offset = local.offsetFromUtc();
        if (offset == 0) {
            text += u'Z';
        } else {
            const int minutes = std::abs(offset) / 60;
            text += offset < 0 ? u'-' : u'+';
            appendNumber(text, minutes / 60, 2);
            if (o & ORVISO8601DateFormatWithColonSeparatorInTimeZone)
                text += u':';
            appendNumber(text, minutes % 60, 2);
        }
    }
    return text;
}

std::optional<QDateTime> ORVISO8601DateFormatter::dateFromString(const QString &string) const
{
    const quint32 o = _formatOptions;
    const bool dash = o & ORVISO8601DateFormatWithDashSeparatorInDate;
    const bool colon = o & ORVISO8601DateFormatWithColonSeparatorInTime;
    Scanner in(string);

    int year = 1970, month = 1, day = 1, week = 0, weekday = 1;
    bool hasDate = false;
    auto separator = [&]() -> bool {
        if (!hasDate) {
            hasDate = true;
            return true;
        }
        return !dash || in.literal(u'-');
    };
    if (o & ORVISO8601DateFormatWithYear) {
        if (!separator() || !in.digits(4, year))
            return std::nullopt;
    }
    if (o & ORVISO8601DateFormatWithMonth) {
        if (!separator() || !in.digits(2, month))
            return std::nullopt;
    }
    if (o & ORVISO8601DateFormatWithWeekOfYear) {
        if (!separator() || !in.literal(u'W') || !in.digits(2, week))
            return std::nullopt;
        if ((o & ORVISO8601DateFormatWithDay) && (!separator() || !in.digits(2, weekday)))
            return std::nullopt;
    } else if (o & ORVISO8601DateFormatWithDay) {
        if (!separator() || !in.digits(2, day))
            return std::nullopt;
    }

    QDate date(year, month, day);
    if (o & ORVISO8601DateFormatWithWeekOfYear) {
        // Monday of ISO week 1 is the Monday on or before 4 January.
        const QDate jan4(year, 1, 4);
        if (!jan4.isValid() || week < 1 || week > 53 || weekday < 1 || weekday > 7)
            return std::nullopt;
        date = jan4.addDays(1 - jan4.dayOfWeek() + (week - 1) * 7 + (weekday - 1));
    }
    if (!date.isValid())
        return std::nullopt;

    int hour = 0, minute = 0, second = 0, msec = 0;
    if (o & ORVISO8601DateFormatWithTime) {
        if (hasDate && !in.literal((o & ORVISO8601DateFormatWithSpaceBetweenDateAndTime) ? u' ' : u'T'))
            return std::nullopt;
        if (!in.digits(2, hour) || (colon && !in.literal(u':')) || !in.digits(2, minute) ||
            (colon && !in.literal(u':')) || !in.digits(2, second))
            return std::nullopt;
        if (o & ORVISO8601DateFormatWithFractionalSeconds) {
            if (!in.literal(u'.') || !in.fraction(msec))
                return std::nullopt;
        }
    }
    const QTime time(hour, minute, second, msec);
    if (!time.isValid())
        return std::nullopt;

    QTimeZone zone = _timeZone;
    if (o & ORVISO8601DateFormatWithTimeZone) {
        if (in.literal(u'Z')) {
            zone = QTimeZone::utc();
        } else if (in.peek(u'+') || in.peek(u'-')) {
            const int sign = in.literal(u'-') ? -1 : (in.literal(u'+'), 1);
            int zoneHours = 0, zoneMinutes = 0;
            if (!in.digits(2, zoneHours))
                return std::nullopt;
            in.literal(u':');
            if (!in.digits(2, zoneMinutes) || zoneHours > 23 || zoneMinutes > 59)
                return std::nullopt;
            zone = QTimeZone(sign * (zoneHours * 3600 + zoneMinutes * 60));
        } else {
            return std::nullopt;
        }
    }
    if (!in.atEnd())
        return std::nullopt;
    const QDateTime result(date, time, zone);
    if (!result.isValid())
        return std::nullopt;
    return result.toUTC();
}

namespace {

ORVISO8601DateFormatter makeFormatter(std::optional<quint32> options, bool explicitUTC)
{
    ORVISO8601DateFormatter formatter;
    if (options)
        formatter.setFormatOptions(*options);
    if (explicitUTC)
        formatter.setTimeZone(QTimeZone("UTC"));
    return formatter;
}

constexpr quint32 kInternet = ORVISO8601DateFormatWithInternetDateTime;
constexpr quint32 kInternetFractional = ORVISO8601DateFormatWithInternetDateTime | ORVISO8601DateFormatWithFractionalSeconds;
static_assert(kInternet == 1907 && kInternetFractional == 3955);

} // namespace

// Function-local statics give the once-only, thread-safe creation.
const ORVISO8601DateFormatter &orv_utcDateFormatter()
{
    static const ORVISO8601DateFormatter formatter = makeFormatter(std::nullopt, true);
    return formatter;
}

const ORVISO8601DateFormatter &orv_utcInternetDateFormatter()
{
    static const ORVISO8601DateFormatter formatter = makeFormatter(kInternet, true);
    return formatter;
}

const ORVISO8601DateFormatter &orv_utcInternetWithFractionalSecondsDateFormatter()
{
    static const ORVISO8601DateFormatter formatter = makeFormatter(kInternetFractional, true);
    return formatter;
}

const ORVISO8601DateFormatter &orv_internetDateFormatter()
{
    static const ORVISO8601DateFormatter formatter = makeFormatter(kInternet, false);
    return formatter;
}

const ORVISO8601DateFormatter &orv_internetWithFractionalSecondsDateFormatter()
{
    static const ORVISO8601DateFormatter formatter = makeFormatter(kInternetFractional, false);
    return formatter;
}
