#include "OrvTestSupport.h"

#include <OrvellaKit/ORVPhoneNumber.h>

#include <QLocale>

#include <phonenumbers/asyoutypeformatter.h>
#include <phonenumbers/phonenumber.pb.h>
#include <phonenumbers/phonenumberutil.h>

#include <memory>

using i18n::phonenumbers::PhoneNumber;
using i18n::phonenumbers::PhoneNumberUtil;

namespace {
// The library called directly: parse with the region, format.
QString library(const QString &text, const char *region, PhoneNumberUtil::PhoneNumberFormat format)
{
    const PhoneNumberUtil &util = *PhoneNumberUtil::GetInstance();
    PhoneNumber number;
    if (util.Parse(text.toStdString(), region, &number) != PhoneNumberUtil::NO_PARSING_ERROR)
        return {};
    number.clear_extension();
    std::string out;
    util.Format(number, format, &out);
    return QString::fromStdString(out);
}

QString national(const QString &text, const char *region)
{
    return library(text, region, PhoneNumberUtil::NATIONAL);
}

QString international(const QString &text, const char *region)
{
    return library(text, region, PhoneNumberUtil::INTERNATIONAL);
}

// What the as-you-type formatter makes of the whole text.
QString typed(const QString &text, const char *region)
{
    std::unique_ptr<i18n::phonenumbers::AsYouTypeFormatter> formatter(
        PhoneNumberUtil::GetInstance()->GetAsYouTypeFormatter(region));
    std::string out;
    for (char32_t c : text.toUcs4())
        formatter->InputDigit(static_cast<i18n::phonenumbers::char32>(c), &out);
    return QString::fromStdString(out);
}
} // namespace

TEST(PhoneNumber, EarlyReturnsKeepTheInput)
{
    for (const QString &input : {QString(""), QString("12345"), QString("12-345"), QString("*12345"), QString("#12345"),
                                 QString(",6505551234"), QString(",,")})
        EXPECT_EQ(orv_formattedPhoneNumber(input, false, "US"), input);
    EXPECT_NE(orv_formattedPhoneNumber("123-4567", false, "US"), "") << "seven characters with a dash go on";
}

TEST(PhoneNumber, RegionsNationalAndInternational)
{
    struct Case {
        const char *input;
        const char *region;
    };
    for (const Case &c : {Case{"6505551234", "US"}, Case{"02079460958", "GB"}, Case{"030 123456", "DE"},
                          Case{"01 42 68 53 00", "FR"}, Case{"02 9876 5432", "AU"}, Case{"03-1234-5678", "JP"}}) {
        const QString result = orv_formattedPhoneNumber(c.input, false, c.region);
        EXPECT_FALSE(result.isEmpty());
        EXPECT_EQ(result, national(c.input, c.region)) << c.input << " in " << c.region;
        EXPECT_EQ(orv_formattedPhoneNumber(c.input, true, c.region), international(c.input, c.region)) << c.input;
    }
    EXPECT_EQ(orv_formattedPhoneNumber("+442079460958", false, "US"), international("+442079460958", "US"));
    EXPECT_EQ(orv_formattedPhoneNumber("011442079460958", false, "US"), international("011442079460958", "US"));
    // Starting with the country code's digits reads as international.
    EXPECT_EQ(orv_formattedPhoneNumber("442079460958", false, "GB"), international("442079460958", "GB"));
    EXPECT_TRUE(orv_formattedPhoneNumber("442079460958", false, "GB").startsWith("+44"));
    // "00" is always national, even where it is the international prefix.
    EXPECT_EQ(orv_formattedPhoneNumber("00442079460958", false, "GB"), national("00442079460958", "GB"));
    EXPECT_EQ(orv_formattedPhoneNumber("00442079460958", true, "DE"), national("00442079460958", "DE"));

    // No region: the default locale's territory.
    const QLocale saved;
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedKingdom));
    EXPECT_EQ(orv_formattedPhoneNumber("02079460958"), national("02079460958", "GB"));
    QLocale::setDefault(saved);
}

TEST(PhoneNumber, ItalianLeadingZeroIsKept)
{
    for (const QString &input : {QString("0612345678"), QString("02 1234 5678")}) {
        const QString result = orv_formattedPhoneNumber(input, false, "IT");
        EXPECT_TRUE(result.startsWith("0")) << result.toStdString();
        EXPECT_EQ(result, typed(input, "IT")) << "repaired through the as-you-type formatter";
    }
    // Shown internationally the zero stays part of the number.
    EXPECT_EQ(orv_formattedPhoneNumber("+390612345678", false, "US"), international("+390612345678", "US"));
}

TEST(PhoneNumber, SuffixStylesAndPosition)
{
    const QString number = national("6505551234", "US");
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234;123", false, "US"), number + ";123");
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234 extension 12", false, "US"), number + " extension 12");
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234 ext. 123", false, "US"), number + " ext. 123");
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234 EXT 9", false, "US"), number + " EXT 9") << "case-insensitive";
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234 x 55", false, "US"), number + " x 55");
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234 passcode 4711", false, "US"), number + " passcode 4711");
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234 code 4711  ", false, "US"), number + " code 4711");
    // One white-space character before the marker is left out, and the
    // suffix is trimmed.
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234\n;  77 ", false, "US"), number + ";  77");

    // Before position 8 a marker is no suffix: the library sees the whole
    // text and the extension it finds is appended with ";".
    const QString early = orv_formattedPhoneNumber("5551234 x12", false, "US");
    EXPECT_EQ(early, national("5551234 x12", "US") + ";12");
    // An extension written after a comma is put back after a comma.
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234,,123", false, "US"), number + ",123");
}

TEST(PhoneNumber, StarAndHashCodes)
{
    const QString number = national("6505551234", "US");
    EXPECT_EQ(orv_formattedPhoneNumber("*676505551234", false, "US"), "*67 " + number);
    // The suffix stays inside the text parsed after a star code.
    EXPECT_EQ(orv_formattedPhoneNumber("*676505551234 ext. 12", false, "US"), "*67 " + number + ";12");
    // Outside the US a star input is formatted nationally as a whole, or
    // kept when the library cannot read it.
    for (const QString &input : {QString("*31#12345"), QString("#31#6505551234"), QString("*676505551234")}) {
        const QString library = national(input, "DE");
        EXPECT_EQ(orv_formattedPhoneNumber(input, true, "DE"), library.isEmpty() ? input : library) << input.toStdString();
    }
}

TEST(PhoneNumber, WhatTheUserTypedIsNeverLost)
{
    const QString number = national("6505551234", "US");
    // Region codes in either case.
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234", false, "us"), number);
    EXPECT_EQ(orv_formattedPhoneNumber("*676505551234", false, "us"), "*67 " + number);
    EXPECT_EQ(orv_formattedPhoneNumber("0612345678", false, "it"), orv_formattedPhoneNumber("0612345678", false, "IT"));
    // A star code followed by no number: the text as typed, not "*67".
    for (const QString &input : {QString("*67 hello world"), QString("*67#########")})
        EXPECT_EQ(orv_formattedPhoneNumber(input, false, "US"), input);

    // The C locale names no territory: a national number comes back as
    // typed, an international one is still formatted.
    const QLocale saved;
    QLocale::setDefault(QLocale::c());
    EXPECT_EQ(orv_formattedPhoneNumber("6505551234"), "6505551234");
    EXPECT_EQ(orv_formattedPhoneNumber("+16505551234"), international("+16505551234", "US"));
    QLocale::setDefault(saved);
}

TEST(PhoneNumber, BadInputComesBackOrFormatted)
{
    const QString digits(10000, u'7');
    const QString surrogates = QString("650555") + QChar(0xD800) + "1234" + QChar(0xDC00);
    const QString withNul = QString("650555") + QChar(0) + "1234";
    for (const QString &input : {digits, QString("letters only"), surrogates, withNul, QString(200, u';'),
                                 QString("++++++++"), QString("6505551234 x")}) {
        for (const char *region : {"US", "DE", "", "ZZ", "not a region"}) {
            const QString result = orv_formattedPhoneNumber(input, false, region);
            EXPECT_FALSE(result.isEmpty()) << region;
        }
    }
    EXPECT_EQ(orv_formattedPhoneNumber("letters only", false, "US"), "letters only");
    EXPECT_EQ(orv_formattedPhoneNumber(digits, false, "US"), digits);
}
