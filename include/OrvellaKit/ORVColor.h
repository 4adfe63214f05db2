#pragma once

/// \file
/// Portable, comparable colours on QColor: constructors, hexadecimal text,
/// component reads that never fail, tolerance equality, relative luminance
/// and contrast ratio, a luminance-weighted grey and a linear mix.
///
/// Components are doubles from 0.0 to 1.0. Every valid QColor is readable
/// (Qt converts any colour model to sRGB). An invalid QColor is no colour at
/// all, and every operation treats it so: reads return false and store
/// nothing, it prints as a null string, the contrast ratio with it is 1.0,
/// and passed as
/// the other colour to the contrast ratio or the mix (or as a tint) it fails
/// the parameter assertion ("otherColor != nil", "color != nil").
/// Constructors read a NaN component as 0.0 and clamp alpha to 0.0 ... 1.0;
/// red, green and blue outside 0 ... 1 are kept (Qt's extended RGB) and
/// clamped when printed. QColor stores 16 bits per channel, so a component
/// reads back within 1/65535 of what was given.
///
/// Threads: any thread; the functions keep no state.

#include <OrvellaKit/ORVExport.h>

#include <QColor>
#include <QString>

/// Grey of the given white value (red = green = blue = white, sRGB).
ORVELLAKIT_EXPORT QColor orv_colorWithWhite(double white, double alpha);
/// An sRGB colour of the given components.
ORVELLAKIT_EXPORT QColor orv_colorWithRed(double red, double green, double blue, double alpha);
/// Hue, saturation and brightness each 0 ... 1 (clamped).
ORVELLAKIT_EXPORT QColor orv_colorWithHue(double hue, double saturation, double brightness, double alpha);

/// "#RRGGBB" or "#RRGGBBAA" (the "#" optional). The leading hexadecimal
/// digits are read as one number after optional white space and "0x";
/// trailing junk is ignored. Exactly six characters after the "#" read as
/// RGB; any other length as RGBA, so "#FFF" is red 0, green 0, blue 0x0F,
/// alpha 1. No digits: an invalid QColor. A null string fails
/// "hexString != nil".
ORVELLAKIT_EXPORT QColor orv_colorWithHexColorString(const QString &hexString);

/// "#RRGGBBAA" or "#RRGGBB", upper case; each channel clamped to 0 ... 1,
/// times 255, rounded half away from zero. No colour prints as a null
/// string (not as black, which would read back as a colour).
ORVELLAKIT_EXPORT QString orv_hexString(const QColor &color, bool includeAlpha);

/// Whether every RGBA component differs by at most half an 8-bit step
/// (0.5/255, plus one 16-bit storage step for QColor's rounding). No colour
/// equals only no colour.
ORVELLAKIT_EXPORT bool orv_isEqualToColor(const QColor &color, const QColor &other);

/// White and alpha. A colour whose red, green and blue are equal reads
/// directly; any other is converted to grey with gamma 2.2 (the white of its
/// luminance). False only for no colour. Pointers may be null.
ORVELLAKIT_EXPORT bool orv_getWhite(const QColor &color, double *white, double *alpha);
/// sRGB components. True for every valid colour.
ORVELLAKIT_EXPORT bool orv_getRed(const QColor &color, double *red, double *green, double *blue, double *alpha);
/// HSB components (hue 0 for greys). True for every valid colour.
ORVELLAKIT_EXPORT bool orv_getHue(const QColor &color, double *hue, double *saturation, double *brightness,
                                  double *alpha);

/// Relative luminance 0.2126 R + 0.7152 G + 0.0722 B of the linearised
/// components (c / 12.92 up to 0.03928, else ((c + 0.055) / 1.055)^2.4).
/// False for no colour.
ORVELLAKIT_EXPORT bool orv_getLuminance(const QColor &color, double *luminance);
/// (lighter + 0.05) / (darker + 0.05): 1.0 ... 21.0; 1.0 when either is no
/// colour.
ORVELLAKIT_EXPORT double orv_contrastRatioToColor(const QColor &color, const QColor &otherColor);
/// Grey of 0.2126 R + 0.7152 G + 0.0722 B on the stored components, same
/// alpha; no colour comes back unchanged.
ORVELLAKIT_EXPORT QColor orv_grayscaleColor(const QColor &color);
/// other * amount + color * (1 - amount) per RGBA component. amount outside
/// 0 ... 1 fails "amount >= 0.0 && amount <= 1.0" (and is clamped after).
/// With no colour on either side: other when amount > 0.5, else color.
ORVELLAKIT_EXPORT QColor orv_rgbMixWithColor(const QColor &color, const QColor &other, double amount);
