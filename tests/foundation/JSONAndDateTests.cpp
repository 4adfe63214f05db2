#include "OrvTestSupport.h"

#include <OrvellaKit/ORVISO8601DateFormatter.h>
#include <OrvellaKit/ORVJSON.h>

#include <QJsonDocument>
#include <QStringEncoder>
#include <QTimeZone>

#include <thread>

namespace {
QJsonObject sample()
{
    return QJsonDocument::fromJson(R"({"s": "text", "empty": "", "n": 2.5, "zero": 0, "neg": -3, "t": true,
                                      "f": false, "null": null, "numstr": "12", "o": {"k": 1}, "a": [1, 2],
                                      "epoch": 1.5, "huge": 1e300})")
        .object();
}
} // namespace

TEST(TypedGetters, ReturnOnlyValuesOfTheAskedType)
{
    const QJsonObject o = sample();
    EXPECT_EQ(orv_stringForKey(o, "s"), QStringLiteral("text"));
    EXPECT_EQ(orv_stringForKey(o, "n"), std::nullopt) << "a number is not a string";
    EXPECT_EQ(orv_stringForKey(o, "null"), std::nullopt) << "JSON null is nothing";
    EXPECT_EQ(orv_stringForKey(o, "missing"), std::nullopt);
    ASSERT_TRUE(orv_stringForKey(o, "empty"));
    EXPECT_FALSE(orv_stringForKey(o, "empty")->isNull());
    EXPECT_EQ(orv_nonEmptyStringForKey(o, "empty"), std::nullopt);
    EXPECT_EQ(orv_nonEmptyStringForKey(o, "s"), QStringLiteral("text"));

    EXPECT_EQ(orv_numberForKey(o, "n"), 2.5);
    EXPECT_EQ(orv_numberForKey(o, "t"), 1.0) << "booleans are numbers";
    EXPECT_EQ(orv_numberForKey(o, "f"), 0.0);
    EXPECT_EQ(orv_numberForKey(o, "numstr"), std::nullopt);

    EXPECT_EQ(orv_dictionaryForKey(o, "o"), (QJsonObject{{"k", 1}}));
    EXPECT_EQ(orv_dictionaryForKey(o, "a"), std::nullopt);
    EXPECT_EQ(orv_arrayForKey(o, "a"), (QJsonArray{1, 2}));
    EXPECT_EQ(orv_arrayForKey(o, "o"), std::nullopt);
    EXPECT_TRUE(orv_checkedObjectForKey(o, "null", QJsonValue::Null).isUndefined());
}

TEST(TypedGetters, DatesSince1970OnlyForPositiveNumbers)
{
    const QJsonObject o = sample();
    EXPECT_EQ(orv_dateSince1970ForKey(o, "epoch"), QDateTime::fromMSecsSinceEpoch(1500, QTimeZone::utc()));
    EXPECT_EQ(orv_dateSince1970ForKey(o, "zero"), std::nullopt);
    EXPECT_EQ(orv_dateSince1970ForKey(o, "neg"), std::nullopt);
    EXPECT_EQ(orv_dateSince1970ForKey(o, "numstr"), std::nullopt);
    EXPECT_EQ(orv_dateSince1970ForKey(o, "missing"), std::nullopt);
    EXPECT_EQ(orv_dateSince1970ForKey(o, "huge"), std::nullopt) << "beyond any representable date";
    EXPECT_EQ(orv_dateSince1970ForKey(o, "t"), QDateTime::fromMSecsSinceEpoch(1000, QTimeZone::utc()));
}

TEST(JSONParsing, NilDataNamesTheMethod)
{
    ORVError error;
    EXPECT_EQ(orv_JSONObjectWithData(QByteArray(), &error), std::nullopt);
    EXPECT_EQ(error.domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(error.code(), 0);
    EXPECT_EQ(error.localizedFailureReason(),
              "nil data passed to +[NSJSONSerialization orv_JSONObjectWithData:error:]");
    EXPECT_EQ(orv_JSONDictionaryWithData(QByteArray()), std::nullopt) << "a null error pointer is allowed";
}

TEST(JSONParsing, WrongTopLevelTypeHasEmptyReason)
{
    ORVError error;
    EXPECT_EQ(orv_JSONDictionaryWithData("[1]", &error), std::nullopt);
    EXPECT_EQ(error.domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(error.code(), 0);
    EXPECT_TRUE(error.userInfo().contains(ORVLocalizedFailureReasonErrorKey));
    EXPECT_EQ(error.localizedFailureReason(), "");

    error = {};
    EXPECT_EQ(orv_JSONArrayWithData("{\"a\":1}", &error), std::nullopt);
    EXPECT_EQ(error.code(), 0);
    EXPECT_EQ(orv_JSONArrayWithData("[1,\"x\"]"), (QJsonArray{1, "x"}));
    EXPECT_EQ(orv_JSONDictionaryWithData("{\"a\":true}"), (QJsonObject{{"a", true}}));
}

TEST(JSONParsing, MalformedInputKeepsTheParserError)
{
    for (const QByteArray &bad : {QByteArray(""), QByteArray("{"), QByteArray("{\"a\":}"), QByteArray("[1,2"),
                                  QByteArray("\xff\xfe"), QByteArray("nul"), QByteArray("{} trailing")}) {
        ORVError error;
        EXPECT_EQ(orv_JSONDictionaryWithData(bad, &error), std::nullopt) << bad.constData();
        EXPECT_EQ(error.domain(), "NSCocoaErrorDomain") << bad.constData();
        EXPECT_EQ(error.code(), ORVPropertyListReadCorruptError) << bad.constData();
    }
    // Deep nesting is refused, not a stack overflow.
    const QByteArray deep = QByteArray(100000, '[') + QByteArray(100000, ']');
    ORVError error;
    EXPECT_EQ(orv_JSONObjectWithData(deep, &error), std::nullopt);
    EXPECT_TRUE(error);
}

TEST(JSONParsing, EveryUnicodeEncodingAndOnlyJSONNumbers)
{
    const QString text = QString::fromUtf8("{\"name\":\"Gr\u00fc\u00dfe \U0001F600\",\"n\":[1,-2.5e3,0.5]}");
    const auto expected = orv_JSONDictionaryWithData(text.toUtf8());
    ASSERT_TRUE(expected);
    using Encoding = QStringConverter::Encoding;
    for (const Encoding encoding : {Encoding::Utf8, Encoding::Utf16LE, Encoding::Utf16BE, Encoding::Utf32LE,
                                    Encoding::Utf32BE}) {
        for (const bool mark : {false, true}) {
            QStringEncoder encoder(encoding, mark ? QStringConverter::Flag::WriteBom : QStringConverter::Flag::Default);
            const QByteArray bytes(encoder.encode(text));
            ORVError error;
            EXPECT_EQ(orv_JSONDictionaryWithData(bytes, &error), expected)
                << QStringConverter::nameForEncoding(encoding) << (mark ? " with mark" : "") << " "
                << qPrintable(error.description());
        }
    }
    QStringEncoder utf16(Encoding::Utf16LE);
    const QByteArray seven(utf16.encode(QStringLiteral("7")));
    EXPECT_EQ(orv_JSONObjectWithData(seven, ORVJSONReadingFragmentsAllowed, nullptr), QJsonValue(7));
    // What does not decode is refused as such: a UTF-16 text cut in the
    // middle of a unit, a lone surrogate, and a UTF-32 value above U+10FFFF
    // (which Qt's decoder would fold into a quote and a surrogate).
    QStringEncoder again(Encoding::Utf16LE);
    const QByteArray cut = QByteArray(again.encode(QStringLiteral("[1]"))).chopped(1);
    const QByteArray loneSurrogate = QByteArray::fromHex("5b0022000ed822005d00");                       // ["\uD80E"]
    for (const QByteArray &bad : {cut, loneSurrogate,
                                  QByteArray::fromHex("5b000000" "0088a100" "61000000" "22000000" "5d000000")}) {
        ORVError undecodable;
        EXPECT_EQ(orv_JSONObjectWithData(bad, &undecodable), std::nullopt) << bad.toHex().constData();
        EXPECT_EQ(undecodable.code(), ORVPropertyListReadCorruptError);
        EXPECT_TRUE(undecodable.userInfo().value("NSDebugDescription").toString().startsWith("Unable to convert"))
            << qPrintable(undecodable.description());
    }

    // Numbers as JSON writes them, and nothing else.
    for (const QByteArray &bad : {QByteArray("[.5]"), QByteArray("[1.]"), QByteArray("[01]"), QByteArray("[-]"),
                                  QByteArray("[1e]"), QByteArray("[+1]"), QByteArray("[1.2.3]"), QByteArray("[-.5]")}) {
        ORVError error;
        EXPECT_EQ(orv_JSONObjectWithData(bad, &error), std::nullopt) << bad.constData();
        EXPECT_EQ(error.code(), ORVPropertyListReadCorruptError) << bad.constData();
    }
    EXPECT_EQ(orv_JSONObjectWithData("[0.5,-0,1E+2,10,\"1. and .5\"]"),
              QJsonValue(QJsonArray{0.5, -0.0, 100, 10, "1. and .5"}));
}

TEST(JSONParsing, FragmentsOnlyWhenAllowed)
{
    EXPECT_EQ(orv_JSONObjectWithData("42"), std::nullopt);
    EXPECT_EQ(orv_JSONObjectWithData("42", ORVJSONReadingFragmentsAllowed, nullptr), QJsonValue(42));
    EXPECT_EQ(orv_JSONObjectWithData("\"s\"", ORVJSONReadingFragmentsAllowed, nullptr), QJsonValue("s"));
    ORVError error;
    EXPECT_EQ(orv_JSONObjectWithData("1,2", ORVJSONReadingFragmentsAllowed, &error), std::nullopt);
    EXPECT_EQ(error.code(), ORVPropertyListReadCorruptError);
    EXPECT_EQ(orv_checkedJSONObjectWithData("true", QJsonValue::Bool, ORVJSONReadingFragmentsAllowed, nullptr),
              QJsonValue(true));
}

TEST(DateFormatters, InternetDateTimeInUTC)
{
    const QDateTime noon(QDate(2024, 3, 1), QTime(12, 0), QTimeZone::utc());
    EXPECT_EQ(orv_utcInternetDateFormatter().stringFromDate(noon), "2024-03-01T12:00:00Z");
    EXPECT_EQ(orv_internetDateFormatter().stringFromDate(noon), "2024-03-01T12:00:00Z");
    EXPECT_EQ(orv_utcDateFormatter().stringFromDate(noon), "2024-03-01T12:00:00Z");
    const QDateTime berlin(QDate(2024, 3, 1), QTime(13, 0, 0, 250), QTimeZone("Europe/Berlin"));
    EXPECT_EQ(orv_utcInternetWithFractionalSecondsDateFormatter().stringFromDate(berlin), "2024-03-01T12:00:00.250Z");
    EXPECT_EQ(orv_internetWithFractionalSecondsDateFormatter().stringFromDate(berlin), "2024-03-01T12:00:00.250Z");
    EXPECT_EQ(orv_utcInternetDateFormatter().formatOptions(), 1907u);
    EXPECT_EQ(orv_utcInternetWithFractionalSecondsDateFormatter().formatOptions(), 3955u);
    EXPECT_EQ(orv_utcInternetDateFormatter().timeZone().id(), "UTC");
    EXPECT_EQ(&orv_utcInternetDateFormatter(), &orv_utcInternetDateFormatter()) << "one shared instance";
}

TEST(DateFormatters, ParsingIsStrictAboutTheOptions)
{
    const auto &plain = orv_utcInternetDateFormatter();
    const auto &fractional = orv_utcInternetWithFractionalSecondsDateFormatter();
    const QDateTime noon(QDate(2024, 3, 1), QTime(12, 0), QTimeZone::utc());
    EXPECT_EQ(plain.dateFromString("2024-03-01T12:00:00Z"), noon);
    EXPECT_EQ(plain.dateFromString("2024-03-01T13:30:00+01:30"), noon.addSecs(0));
    EXPECT_EQ(fractional.dateFromString("2024-03-01T12:00:00.5Z"), noon.addMSecs(500));
    EXPECT_EQ(plain.dateFromString("2024-03-01T12:00:00.500Z"), std::nullopt) << "no fraction without the option";
    EXPECT_EQ(fractional.dateFromString("2024-03-01T12:00:00Z"), std::nullopt) << "the fraction is required";
    for (const char *bad : {"", "2024-03-01", "2024-13-01T12:00:00Z", "2024-02-30T12:00:00Z", "2024-03-01T25:00:00Z",
                            "2024-03-01T12:00:00", "2024-03-01T12:00:00Zjunk", "2024-03-01 12:00:00Z"}) {
        EXPECT_EQ(plain.dateFromString(bad), std::nullopt) << bad;
    }
    EXPECT_EQ(plain.stringFromDate(QDateTime()), "");
}

TEST(DateFormatters, WhatTheLayoutCannotSayIsRefusedAndTheRestReadsBack)
{
    ORVISO8601DateFormatter formatter;
    for (const QDate &day : {QDate(-5, 1, 1), QDate(-1, 12, 31), QDate(10000, 1, 1)})
        EXPECT_EQ(formatter.stringFromDate(QDateTime(day, QTime(0, 0), QTimeZone::utc())), "") << day.year();
    for (const QDateTime &date : {QDateTime(QDate(1, 1, 1), QTime(0, 0), QTimeZone::utc()),
                                  QDateTime(QDate(9999, 12, 31), QTime(23, 59, 59), QTimeZone::utc())}) {
        const QString text = formatter.stringFromDate(date);
        EXPECT_EQ(formatter.dateFromString(text), date) << qPrintable(text);
    }
    EXPECT_EQ(formatter.stringFromDate(QDateTime(QDate(1, 1, 1), QTime(0, 0), QTimeZone::utc())),
              "0001-01-01T00:00:00Z");

    // Local mean time: Amsterdam was +00:19:32 in 1850 (time-zone data that
    // folds it into Brussels has +00:17:30, also with seconds).
    ORVISO8601DateFormatter amsterdam;
    const QTimeZone zone("Europe/Amsterdam");
    ASSERT_TRUE(zone.isValid());
    amsterdam.setTimeZone(zone);
    const QDateTime in1850(QDate(1850, 6, 1), QTime(12, 0), QTimeZone::utc());
    if (in1850.toTimeZone(zone).offsetFromUtc() % 60 == 0)
        GTEST_SKIP() << "this time-zone data has no local mean time for 1850";
    EXPECT_EQ(amsterdam.stringFromDate(in1850), "");
    // Without the zone in the text, the local time is all it says.
    amsterdam.setFormatOptions(ORVISO8601DateFormatWithFullDate | ORVISO8601DateFormatWithTime |
                               ORVISO8601DateFormatWithColonSeparatorInTime);
    EXPECT_EQ(amsterdam.stringFromDate(in1850), in1850.toTimeZone(zone).toString("yyyy-MM-ddTHH:mm:ss"));
    // A whole-minute offset reads back as the same instant.
    amsterdam.setFormatOptions(ORVISO8601DateFormatWithInternetDateTime);
    const QDateTime in2024(QDate(2024, 3, 1), QTime(12, 0), QTimeZone::utc());
    EXPECT_EQ(amsterdam.stringFromDate(in2024), "2024-03-01T13:00:00+01:00");
    EXPECT_EQ(amsterdam.dateFromString("2024-03-01T13:00:00+01:00"), in2024);
}

TEST(DateFormatters, OtherOptionCombinations)
{
    ORVISO8601DateFormatter formatter;
    formatter.setFormatOptions(ORVISO8601DateFormatWithFullDate);
    const QDateTime date(QDate(2024, 12, 30), QTime(23, 5, 9), QTimeZone::utc());
    EXPECT_EQ(formatter.stringFromDate(date), "2024-12-30");
    formatter.setFormatOptions(ORVISO8601DateFormatWithYear | ORVISO8601DateFormatWithMonth |
                               ORVISO8601DateFormatWithDay | ORVISO8601DateFormatWithTime |
                               ORVISO8601DateFormatWithSpaceBetweenDateAndTime);
    EXPECT_EQ(formatter.stringFromDate(date), "20241230 230509");
    formatter.setFormatOptions(ORVISO8601DateFormatWithYear | ORVISO8601DateFormatWithWeekOfYear |
                               ORVISO8601DateFormatWithDay | ORVISO8601DateFormatWithDashSeparatorInDate);
    EXPECT_EQ(formatter.stringFromDate(date), "2025-W01-01") << "30 Dec 2024 is the Monday of ISO week 1 of 2025";
    EXPECT_EQ(formatter.dateFromString("2025-W01-01"), QDateTime(QDate(2024, 12, 30), QTime(0, 0), QTimeZone::utc()));
    formatter.setFormatOptions(ORVISO8601DateFormatWithInternetDateTime);
    formatter.setTimeZone(QTimeZone(-5 * 3600));
    EXPECT_EQ(formatter.stringFromDate(date), "2024-12-30T18:05:09-05:00");
}

TEST(DateFormatters, SharedFormattersAreSafeAcrossThreads)
{
    std::vector<std::thread> threads;
    std::atomic<int> mismatches = 0;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const QDateTime date = QDateTime::fromSecsSinceEpoch(1700000000 + t * 1000 + i, QTimeZone::utc());
                const QString text = orv_utcInternetDateFormatter().stringFromDate(date);
                if (orv_utcInternetDateFormatter().dateFromString(text) != date)
                    ++mismatches;
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, 0);
}
