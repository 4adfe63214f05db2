// Colour parsing from hexadecimal text, and what is computed from a colour.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVColor.h>

#include <cmath>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QColor color = orv_colorWithHexColorString(orv::fuzz::text(data, size));
    if (!color.isValid())
        return 0;
    const QString withAlpha = orv_hexString(color, true);
    const QString withoutAlpha = orv_hexString(color, false);
    if (withAlpha.size() != 9 || withoutAlpha.size() != 7)
        orv::fuzz::fail("hex text is #RRGGBBAA or #RRGGBB");
    // Printing and parsing again gives an equal colour.
    if (!orv_isEqualToColor(orv_colorWithHexColorString(withAlpha), color))
        orv::fuzz::fail("colour hex round trip");
    double luminance = -1;
    if (orv_getLuminance(color, &luminance) && !(luminance >= 0.0 && luminance <= 1.0))
        orv::fuzz::fail("luminance within 0 ... 1");
    const double ratio = orv_contrastRatioToColor(color, orv_colorWithWhite(1, 1));
    if (!(ratio >= 1.0 && ratio <= 21.0 + 1e-9))
        orv::fuzz::fail("contrast ratio within 1 ... 21");
    const double amount = size > 1 ? data[size - 1] / 255.0 : 0.5;
    (void)orv_rgbMixWithColor(color, orv_grayscaleColor(color), amount);
    return 0;
}
