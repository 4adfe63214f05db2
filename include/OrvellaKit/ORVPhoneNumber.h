#pragma once

/// \file
/// Display formatting of phone numbers with libphonenumber, keeping what the
/// library does not handle: dial-pad service codes ("*" and "#"), extension
/// and pass-code suffixes in several styles, US vertical service codes in
/// front of a number, and numbers written with a national trunk zero.
///
/// Never fails: whatever cannot be formatted comes back as given.
///
/// Threads: any thread (each thread keeps its own formatters).

#include <OrvellaKit/ORVExport.h>

#include <QString>

/// The phone number in `string` formatted for display:
///
/// - Shorter than 6 characters, or shorter than 7 and starting with `"*"` or
///   "#" or containing "-", or starting with ",": returned unchanged.
/// - A suffix is split off at the first of ";", " extension", " ext.",
///   " ext", " x", " passcode", " code" (tried in this order, case-insensitive,
///   first occurrence) found at position 8 or later, and put back after the
///   formatted number (one space in front for the spelled-out markers).
/// - The region is `region` (two letters, either case), or the territory of
///   the default QLocale when `region` is null or empty; the C locale has
///   none, and a national number then comes back as given. In the US a
///   leading three-character star code (such as `*67`) is kept in front of
///   the formatted rest; when the rest is no number the whole text comes
///   back as given.
/// - International form when forced, when the text starts with the number's
///   country code or with "+", "011" or "010"; national otherwise. Inputs
///   starting with "00" are always national, and outside the US so are those
///   starting with `"*"`.
/// - An extension the library found is appended as ",ext" when the input wrote
///   it after a comma, else as ";ext".
ORVELLAKIT_EXPORT QString orv_formattedPhoneNumber(const QString &string, bool forceInternational = false,
                                                   const QString &region = QString());
