#include "OrvTestSupport.h"

#include <OrvellaKit/ORVColor.h>

#include <cmath>

using namespace orv::test;

namespace {
struct Components {
    double red = -1, green = -1, blue = -1, alpha = -1;
};

Components rgba(const QColor &color)
{
    Components c;
    EXPECT_TRUE(orv_getRed(color, &c.red, &c.green, &c.blue, &c.alpha));
    return c;
}

constexpr double kStep = 1.0 / 65535.0; // QColor's storage precision
} // namespace

TEST(ColorHex, ParsingLengthsAndJunk)
{
    Components c = rgba(orv_colorWithHexColorString("#FF8000"));
    EXPECT_NEAR(c.red, 1.0, kStep);
    EXPECT_NEAR(c.green, 128.0 / 255.0, kStep);
    EXPECT_NEAR(c.blue, 0.0, kStep);
    EXPECT_NEAR(c.alpha, 1.0, kStep);

    c = rgba(orv_colorWithHexColorString("FF800080"));
    EXPECT_NEAR(c.alpha, 128.0 / 255.0, kStep);
    EXPECT_NEAR(c.red, 1.0, kStep);

    // Three digits are not expanded: bits 0-7 are the alpha.
    c = rgba(orv_colorWithHexColorString("#FFF"));
    EXPECT_NEAR(c.red, 0.0, kStep);
    EXPECT_NEAR(c.green, 0.0, kStep);
    EXPECT_NEAR(c.blue, 15.0 / 255.0, kStep);
    EXPECT_NEAR(c.alpha, 1.0, kStep);

    EXPECT_FALSE(orv_colorWithHexColorString("#ZZZ").isValid());
    EXPECT_FALSE(orv_colorWithHexColorString("").isValid());
    // Leading digits are read, trailing junk ignored; the length rule counts
    // the junk too (7 characters: RGBA reading).
    EXPECT_EQ(orv_hexString(orv_colorWithHexColorString("#12345Gz"), true), "#00012345");
    EXPECT_EQ(orv_hexString(orv_colorWithHexColorString("#1234zz"), false), "#001234") << "6 characters: RGB of 0x1234";
    EXPECT_EQ(orv_hexString(orv_colorWithHexColorString("#FFFFFFFFFFFFFFFFFFFF"), true), "#FFFFFFFF") << "saturates";

    RecordAssertions record;
    EXPECT_FALSE(orv_colorWithHexColorString(QString()).isValid());
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid parameter not satisfying: hexString != nil"});
}

TEST(ColorHex, PrintingClampsAndRoundsHalfAway)
{
    EXPECT_EQ(orv_hexString(orv_colorWithWhite(1.0, 1.0), true), "#FFFFFFFF");
    EXPECT_EQ(orv_hexString(orv_colorWithRed(1.2, -0.5, 0.5, 1.0), false), "#FF0080") << "0.5 * 255 = 127.5 rounds up";
    for (int value : {0, 1, 127, 128, 254, 255}) {
        const QString text = QStringLiteral("#%1%1%1%1").arg(value, 2, 16, QLatin1Char('0')).toUpper();
        EXPECT_EQ(orv_hexString(orv_colorWithHexColorString(text), true), text);
    }
}

TEST(ColorCompare, ToleranceAndReads)
{
    const QColor base = orv_colorWithRed(0.5, 0.5, 0.5, 1.0);
    EXPECT_TRUE(orv_isEqualToColor(base, orv_colorWithRed(0.5 + 0.5 / 255.0, 0.5, 0.5, 1.0)));
    EXPECT_FALSE(orv_isEqualToColor(base, orv_colorWithRed(0.5 + 1.0 / 255.0, 0.5, 0.5, 1.0)));
    EXPECT_FALSE(orv_isEqualToColor(base, orv_colorWithRed(0.5, 0.5, 0.5, 0.99)));

    double white = -1, alpha = -1;
    EXPECT_TRUE(orv_getWhite(orv_colorWithWhite(0.25, 0.5), &white, &alpha));
    EXPECT_NEAR(white, 0.25, kStep);
    EXPECT_NEAR(alpha, 0.5, kStep);
    EXPECT_TRUE(orv_getWhite(orv_colorWithRed(1, 0, 0, 1), &white, nullptr));
    EXPECT_NEAR(white, std::pow(0.2126, 1 / 2.2), 1e-4) << "gamma 2.2 grey of the luminance";

    double hue = -1, saturation = -1, brightness = -1;
    EXPECT_TRUE(orv_getHue(orv_colorWithWhite(0.5, 1), &hue, &saturation, &brightness, nullptr));
    EXPECT_EQ(hue, 0.0) << "greys have hue 0, not Qt's -1";
    EXPECT_TRUE(orv_getHue(orv_colorWithHue(0.5, 1, 1, 1), &hue, &saturation, &brightness, nullptr));
    EXPECT_NEAR(hue, 0.5, 1e-4);
}

TEST(ColorLuminance, ExtremesContrastGreyAndMix)
{
    double luminance = -1;
    EXPECT_TRUE(orv_getLuminance(orv_colorWithWhite(0, 1), &luminance));
    EXPECT_EQ(luminance, 0.0);
    EXPECT_TRUE(orv_getLuminance(orv_colorWithWhite(1, 1), &luminance));
    EXPECT_NEAR(luminance, 1.0, 1e-12);
    // Below both common thresholds (0.03928 and 0.04045) a component is
    // divided by 12.92; 0.04 lies between them, where only the 0.03928 one
    // takes the power curve (the two results differ by about 3e-6).
    EXPECT_TRUE(orv_getLuminance(orv_colorWithHexColorString("#090909"), &luminance));
    EXPECT_NEAR(luminance, (9.0 / 255.0) / 12.92, 1e-6);
    const QColor between = orv_colorWithWhite(0.04, 1);
    double stored = 0;
    ASSERT_TRUE(orv_getWhite(between, &stored, nullptr));
    ASSERT_GT(stored, 0.03928);
    ASSERT_LT(stored, 0.04045);
    EXPECT_TRUE(orv_getLuminance(between, &luminance));
    EXPECT_NEAR(luminance, std::pow((stored + 0.055) / 1.055, 2.4), 1e-9);

    const QColor black = orv_colorWithWhite(0, 1);
    const QColor white = orv_colorWithWhite(1, 1);
    EXPECT_NEAR(orv_contrastRatioToColor(black, white), 21.0, 1e-9);
    EXPECT_NEAR(orv_contrastRatioToColor(white, black), 21.0, 1e-9);
    EXPECT_NEAR(orv_contrastRatioToColor(white, white), 1.0, 1e-12);

    double grey = -1, alpha = -1;
    ASSERT_TRUE(orv_getWhite(orv_grayscaleColor(orv_colorWithRed(1, 0, 0, 0.5)), &grey, &alpha));
    EXPECT_NEAR(grey, 0.2126, kStep);
    EXPECT_NEAR(alpha, 0.5, kStep);

    const QColor red = orv_colorWithRed(1, 0, 0, 1);
    const QColor blue = orv_colorWithRed(0, 0, 1, 0);
    EXPECT_TRUE(orv_isEqualToColor(orv_rgbMixWithColor(red, blue, 0.0), red));
    EXPECT_TRUE(orv_isEqualToColor(orv_rgbMixWithColor(red, blue, 1.0), blue));
    const Components half = rgba(orv_rgbMixWithColor(red, blue, 0.25));
    EXPECT_NEAR(half.red, 0.75, kStep);
    EXPECT_NEAR(half.blue, 0.25, kStep);
    EXPECT_NEAR(half.alpha, 0.75, kStep);
    RecordAssertions record;
    orv_rgbMixWithColor(red, blue, 1.5);
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid parameter not satisfying: amount >= 0.0 && amount <= 1.0"});
    EXPECT_EQ(record.failures().front().file, "NSUIColor+OrvellaKit");
}

// An invalid QColor holds no colour: every read says so, nothing computes
// with it as if it were black, and an invalid argument fails its assertion
// as the tint's does.
TEST(ColorInvalid, NoColourIsReadByNoOperation)
{
    const QColor none;
    const QColor white = orv_colorWithWhite(1, 1);
    double value = -1, alpha = -1;
    EXPECT_FALSE(orv_getWhite(none, &value, &alpha));
    EXPECT_FALSE(orv_getRed(none, &value, nullptr, nullptr, &alpha));
    EXPECT_FALSE(orv_getHue(none, &value, nullptr, nullptr, &alpha));
    EXPECT_FALSE(orv_getLuminance(none, &value));
    EXPECT_EQ(value, -1.0) << "nothing is stored for no colour";
    EXPECT_EQ(alpha, -1.0);

    EXPECT_TRUE(orv_hexString(none, true).isNull());

    EXPECT_TRUE(orv_isEqualToColor(none, QColor()));
    EXPECT_FALSE(orv_isEqualToColor(orv_colorWithWhite(0, 1), none));
    EXPECT_FALSE(orv_isEqualToColor(none, orv_colorWithWhite(0, 0)));
    EXPECT_FALSE(orv_grayscaleColor(none).isValid());

    RecordAssertions record;
    EXPECT_EQ(orv_contrastRatioToColor(none, white), 1.0) << "no contrast is known, not black's 21";
    EXPECT_EQ(orv_contrastRatioToColor(white, none), 1.0);
    EXPECT_EQ(orv_rgbMixWithColor(none, white, 0.6), white);
    EXPECT_FALSE(orv_rgbMixWithColor(none, white, 0.5).isValid());
    EXPECT_EQ(orv_rgbMixWithColor(white, none, 0.4), white);
    EXPECT_EQ(record.descriptions(), (QStringList{"Invalid parameter not satisfying: otherColor != nil",
                                                  "Invalid parameter not satisfying: color != nil"}));
}

TEST(ColorRobustness, NaNAndInfinityNeverCrash)
{
    const double nan = std::nan("");
    const double inf = std::numeric_limits<double>::infinity();
    const QColor fromNaN = orv_colorWithRed(nan, nan, nan, nan);
    EXPECT_EQ(orv_hexString(fromNaN, true), "#00000000") << "NaN reads as 0";
    const QColor fromInf = orv_colorWithRed(inf, -inf, 0.5, inf);
    EXPECT_EQ(orv_hexString(fromInf, true), "#FF0080FF");
    double luminance = 0;
    orv_getLuminance(fromInf, &luminance);
    orv_contrastRatioToColor(fromInf, fromNaN);
    orv_grayscaleColor(fromInf);
    orv_colorWithHue(nan, inf, -inf, nan);
    EXPECT_EQ(orv_hexString(orv_colorWithWhite(nan, 1), false), "#000000");
}
