#include <OrvellaKit/ORVColor.h>

#include <OrvellaKit/ORVException.h>

#include <algorithm>
#include <cmath>

namespace {
constexpr const char kColorFile[] = "NSUIColor+OrvellaKit";
constexpr const char kColorClass[] = "QColor";
// Half of one 8-bit step, and one step of QColor's 16-bit storage.
constexpr double kTolerance = 0.00196078431372549;
constexpr double kStorageStep = 1.0 / 65535.0;

double notNaN(double value)
{
    return std::isnan(value) ? 0.0 : value;
}

double unit(double value)
{
    return std::clamp(notNaN(value), 0.0, 1.0);
}

int channel(double component)
{
    return static_cast<int>(std::round(unit(component) * 255.0));
}

double linearised(double c)
{
    return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

struct RGBA {
    double red = 0, green = 0, blue = 0, alpha = 0;
};

RGBA components(const QColor &color)
{
    if (!color.isValid())
        return {};
    const QColor rgb = color.spec() == QColor::Rgb || color.spec() == QColor::ExtendedRgb ? color : color.toRgb();
    return {rgb.redF(), rgb.greenF(), rgb.blueF(), rgb.alphaF()};
}

int hexDigit(char16_t c)
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

// The scanner's hexadecimal read: white space, an optional "0x", then the
// digits, saturating at the largest 64-bit value.
bool scanHex(QStringView text, quint64 *value)
{
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace())
        ++i;
    if (i + 2 < text.size() && text[i] == u'0' && (text[i + 1] == u'x' || text[i + 1] == u'X') &&
        hexDigit(text[i + 2].unicode()) >= 0)
        i += 2;
    quint64 result = 0;
    bool any = false;
    bool overflow = false;
    for (; i < text.size(); ++i) {
        const int digit = hexDigit(text[i].unicode());
        if (digit < 0)
            break;
        any = true;
        if (result >> 60)
            overflow = true;
        result = (result << 4) | static_cast<quint64>(digit);
    }
    *value = overflow ? ~quint64(0) : result;
    return any;
}
} // namespace

QColor orv_colorWithWhite(double white, double alpha)
{
    return orv_colorWithRed(white, white, white, alpha);
}

QColor orv_colorWithRed(double red, double green, double blue, double alpha)
{
    return QColor::fromRgbF(static_cast<float>(notNaN(red)), static_cast<float>(notNaN(green)),
                            static_cast<float>(notNaN(blue)), static_cast<float>(unit(alpha)));
}

QColor orv_colorWithHue(double hue, double saturation, double brightness, double alpha)
{
    return QColor::fromHsvF(static_cast<float>(unit(hue)), static_cast<float>(unit(saturation)),
                            static_cast<float>(unit(brightness)), static_cast<float>(unit(alpha)));
}

QColor orv_colorWithHexColorString(const QString &hexString)
{
    if (!ORVMethodParameterAssert(!hexString.isNull(), "hexString != nil", "orv_colorWithHexColorString:", kColorClass,
                                  kColorFile))
        return {};
    QStringView text(hexString);
    if (text.startsWith(u'#'))
        text = text.mid(1);
    quint64 value = 0;
    if (!scanHex(text, &value))
        return {};
    auto byte = [value](int shift) { return static_cast<double>((value >> shift) & 0xFF) / 255.0; };
    if (text.size() == 6)
        return orv_colorWithRed(byte(16), byte(8), byte(0), 1.0);
    return orv_colorWithRed(byte(24), byte(16), byte(8), byte(0));
}

QString orv_hexString(const QColor &color, bool includeAlpha)
{
    if (!color.isValid())
        return {};
    const RGBA c = components(color);
    QString text = QStringLiteral("#%1%2%3")
                       .arg(channel(c.red), 2, 16, QLatin1Char('0'))
                       .arg(channel(c.green), 2, 16, QLatin1Char('0'))
                       .arg(channel(c.blue), 2, 16, QLatin1Char('0'));
    if (includeAlpha)
        text += QStringLiteral("%1").arg(channel(c.alpha), 2, 16, QLatin1Char('0'));
    return text.toUpper();
}

bool orv_isEqualToColor(const QColor &color, const QColor &other)
{
    if (!color.isValid() || !other.isValid())
        return color == other;
    const RGBA a = components(color);
    const RGBA b = components(other);
    const double limit = kTolerance + kStorageStep;
    return std::fabs(a.red - b.red) <= limit && std::fabs(a.green - b.green) <= limit &&
           std::fabs(a.blue - b.blue) <= limit && std::fabs(a.alpha - b.alpha) <= limit;
}

bool orv_getWhite(const QColor &color, double *white, double *alpha)
{
    if (!color.isValid())
        return false;
    const RGBA c = components(color);
    double w = c.red;
    if (!(c.red == c.green && c.green == c.blue)) {
        // Generic grey with gamma 2.2: the white whose light equals the
        // colour's luminance.
        auto toLinear = [](double v) {
            v = notNaN(v);
            return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        };
        const double y = 0.2126 * toLinear(c.red) + 0.7152 * toLinear(c.green) + 0.0722 * toLinear(c.blue);
        w = std::pow(std::max(y, 0.0), 1.0 / 2.2);
    }
    if (white)
        *white = w;
    if (alpha)
        *alpha = c.alpha;
    return true;
}

bool orv_getRed(const QColor &color, double *red, double *green, double *blue, double *alpha)
{
    if (!color.isValid())
        return false;
    const RGBA c = components(color);
    if (red)
        *red = c.red;
    if (green)
        *green = c.green;
    if (blue)
        *blue = c.blue;
    if (alpha)
        *alpha = c.alpha;
    return true;
}

bool orv_getHue(const QColor &color, double *hue, double *saturation, double *brightness, double *alpha)
{
    if (!color.isValid())
        return false;
    float h = 0, s = 0, v = 0, a = 0;
    color.toHsv().getHsvF(&h, &s, &v, &a);
    if (hue)
        *hue = h < 0 ? 0.0 : h; // Qt reports -1 for greys
    if (saturation)
        *saturation = s;
    if (brightness)
        *brightness = v;
    if (alpha)
        *alpha = a;
    return true;
}

bool orv_getLuminance(const QColor &color, double *luminance)
{
    // The RGB read fails only for no colour, and then the white read fails
    // too, so it is never needed as a fallback.
    double red = 0, green = 0, blue = 0;
    if (!orv_getRed(color, &red, &green, &blue, nullptr))
        return false;
    if (luminance)
        *luminance = 0.2126 * linearised(notNaN(red)) + 0.7152 * linearised(notNaN(green)) +
                     0.0722 * linearised(notNaN(blue));
    return true;
}

double orv_contrastRatioToColor(const QColor &color, const QColor &otherColor)
{
    ORVMethodParameterAssert(otherColor.isValid(), "otherColor != nil", "orv_contrastRatioToColor:", kColorClass,
                             kColorFile);
    double l1 = 0, l2 = 0;
    if (!orv_getLuminance(color, &l1) || !orv_getLuminance(otherColor, &l2))
        return 1.0;
    return (std::max(l1, l2) + 0.05) / (std::min(l1, l2) + 0.05);
}

QColor orv_grayscaleColor(const QColor &color)
{
    if (!color.isValid())
        return color;
    const RGBA c = components(color);
    return orv_colorWithWhite(0.2126 * c.red + 0.7152 * c.green + 0.0722 * c.blue, c.alpha);
}

QColor orv_rgbMixWithColor(const QColor &color, const QColor &other, double amount)
{
    ORVMethodParameterAssert(other.isValid(), "color != nil", "orv_rgbMixWithColor:amount:", kColorClass, kColorFile);
    ORVMethodParameterAssert(amount >= 0.0 && amount <= 1.0, "amount >= 0.0 && amount <= 1.0",
                             "orv_rgbMixWithColor:amount:", kColorClass, kColorFile);
    amount = unit(amount);
    if (!color.isValid() || !other.isValid())
        return amount > 0.5 ? other : color;
    const RGBA a = components(color);
    const RGBA b = components(other);
    auto mix = [amount](double own, double theirs) { return theirs * amount + own * (1.0 - amount); };
    return orv_colorWithRed(mix(a.red, b.red), mix(a.green, b.green), mix(a.blue, b.blue), mix(a.alpha, b.alpha));
}
