#pragma once

/// \file
/// Text helpers on QString: character sets, reversal by composed characters,
/// file-name normalising, SHA-256 of the text, simple HTML filtering, word and
/// suffix enumeration for full-text indexes, scattered-prefix and skipping
/// range searches, and the longest common substring under folding options.
///
/// "Character" means a UTF-16 unit, as QString::size() counts; "composed
/// character" means an extended grapheme cluster (a base with its combining
/// marks, a surrogate pair, ...), found with QTextBoundaryFinder. A null
/// QString argument stands for "nothing" where an assertion names one.
///
/// Threads: any thread. The functions keep no state of their own (the
/// enumerators call their block on the calling thread, before they return).

#include <QChar>
#include <QSet>
#include <QString>
#include <QStringView>

#include <functional>
#include <memory>
#include <vector>

#include <OrvellaKit/ORVCollections.h>
#include <OrvellaKit/ORVExport.h>

/// A range of UTF-16 units. Not found: location ORVNotFound, length 0.
struct ORVRange {
    qsizetype location = 0; ///< The index of the first unit.
    qsizetype length = 0;   ///< The number of units.
    /// Equal locations and lengths.
    friend bool operator==(const ORVRange &, const ORVRange &) = default;
};

/// A set of Unicode code points made of ranges, general categories (such as
/// QChar::Number_DecimalDigit) and unions, optionally inverted. Immutable and
/// cheap to copy; membership is a table lookup for ASCII.
///
/// Threads: any thread (immutable; the shared sets are made once, on first
/// use, thread-safely).
/// Ownership: a value; copies, unions and inversions share their operands.
class ORVELLAKIT_EXPORT ORVCharacterSet {
public:
    ORVCharacterSet(); ///< the empty set

    /// The code points of the text (a surrogate pair counts as one).
    static ORVCharacterSet characterSetWithCharactersInString(QStringView characters);
    /// Code points first ... first + count - 1.
    static ORVCharacterSet characterSetWithRange(char32_t first, char32_t count);
    /// The code points of the given general categories.
    static ORVCharacterSet characterSetWithCategories(std::initializer_list<QChar::Category> categories);

    /// Tab and the space separators (category Zs).
    static const ORVCharacterSet &whitespaceCharacterSet();
    /// U+000A ... U+000D, U+0085, U+2028, U+2029.
    static const ORVCharacterSet &newlineCharacterSet();
    /// Both of the above.
    static const ORVCharacterSet &whitespaceAndNewlineCharacterSet();
    /// Category Nd.
    static const ORVCharacterSet &decimalDigitCharacterSet();
    /// Categories L* and M*.
    static const ORVCharacterSet &letterCharacterSet();
    /// Categories L*, M* and N*.
    static const ORVCharacterSet &alphanumericCharacterSet();
    /// Categories P*.
    static const ORVCharacterSet &punctuationCharacterSet();

    /// Every code point that is not a member.
    ORVCharacterSet invertedSet() const;
    /// The members of this set and of `other`.
    ORVCharacterSet unionWithCharacterSet(const ORVCharacterSet &other) const;

    /// Whether the UTF-16 unit is a member (a lone surrogate is taken as its
    /// own code point).
    bool characterIsMember(QChar character) const { return longCharacterIsMember(character.unicode()); }
    /// Whether the code point is a member.
    bool longCharacterIsMember(char32_t codePoint) const;

private:
    struct Part;
    std::shared_ptr<const Part> _part;
};

/// Composed character sequences in reverse order, each kept whole.
ORVELLAKIT_EXPORT QString orv_reversedString(const QString &string);

/// `":"`, `"/"` and `"\"` become `"-"`; leading and trailing dots become dashes.
ORVELLAKIT_EXPORT QString orv_stringByNormalizingFilename(const QString &string);

/// The string without the members of the set (a surrogate pair is removed
/// whole when its code point is a member).
ORVELLAKIT_EXPORT QString orv_stringByRemovingCharactersInSet(const QString &string,
                                                              const ORVCharacterSet &characterSet);

/// SHA-256 of the UTF-8 text as 64 upper-case hexadecimal characters; an
/// unpaired surrogate is hashed as "?". Short texts are converted in a shared
/// 512-byte buffer taken with a try-lock, so concurrent callers never wait.
ORVELLAKIT_EXPORT QString orv_SHA256String(const QString &string);
/// A literal (or any NUL-terminated UTF-8 text) hashes as the same text: it
/// would otherwise convert to QString and to QByteArray alike, and a call
/// seeing both forms (ORVData.h declares the QByteArray one) would not
/// compile. Null hashes as the empty text.
inline QString orv_SHA256String(const char *string)
{
    return orv_SHA256String(QString::fromUtf8(string));
}

/// `"<br>"`, `"<br/>"`, `"<br />"` become line feeds and `"&nbsp;"` U+00A0; a
/// tag that is exactly `"<div"` starts a new line (unless the output is empty
/// or already ends with one), exactly `"</div"` ends one; every other tag is
/// dropped; the result is trimmed.
ORVELLAKIT_EXPORT QString orv_stringWithSimpleHTMLFiltering(const QString &string);

/// Options of orv_stringByFoldingWithOptions and orv_longestCommonSubstring,
/// with the values of the platform's comparison options.
enum ORVStringCompareOption : unsigned {
    ORVCaseInsensitiveSearch = 1,        ///< Folds case.
    ORVLiteralSearch = 2,                ///< Accepted; has no effect here.
    ORVDiacriticInsensitiveSearch = 128, ///< Drops diacritics (non-spacing marks).
    ORVWidthInsensitiveSearch = 256,     ///< Folds wide and narrow forms.
};
/// A bitwise OR of ORVStringCompareOption values.
using ORVStringCompareOptions = unsigned;

/// Removes the distinctions the options name, with Qt's Unicode tables and no
/// locale: width (wide and narrow compatibility forms), diacritics (canonical
/// decomposition, non-spacing marks dropped, recomposition), case
/// (QString::toCaseFolded, one character for one).
ORVELLAKIT_EXPORT QString orv_stringByFoldingWithOptions(const QString &string, ORVStringCompareOptions options);

/// Within `range`, hands every maximal run of non-members of `separators` to
/// block(run, &stop) in order; stop ends the walk. The range is clipped to the
/// string.
ORVELLAKIT_EXPORT void orv_enumerateComponentsSeparatedByCharacterSet(
    const QString &string, const ORVCharacterSet &separators, ORVRange range,
    const std::function<void(const QString &, bool *)> &block);

/// Every suffix of `substring` that starts on a composed-character boundary,
/// longest first, to block(suffix, &stop). A null substring fails
/// "substring != nil", an empty block "block != NULL".
ORVELLAKIT_EXPORT void orv_enumerateSuffixesInSubstring(const QString &substring,
                                                        const std::function<void(const QString &, bool *)> &block);

/// The longest suffix the two functions below hand out, in UTF-16 units: a
/// longer one is cut to its first 64 units (never inside a surrogate pair;
/// a combining mark right after the cut is left out with the rest).
/// A suffix serves a prefix search, which its start answers; without the cut
/// one 4,000,000-character word made 100 suffixes of about 4,000,000
/// characters each (800 MB), and all of its suffixes about 8 TB.
constexpr qsizetype ORVSuffixLengthLimit = 64;

/// All suffixes of all words (separated by white space and newlines), each
/// cut to ORVSuffixLengthLimit units: memory grows linearly with the longest
/// word (about 200 bytes per character of it: a 64-unit string and its set
/// entry), not with its square.
ORVELLAKIT_EXPORT QSet<QString> orv_suffixes(const QString &string);

/// The suffixes of the lower-cased text's words, each once, joined by single
/// spaces: at most 10,000 words and 100 suffixes per word contribute, each
/// cut to ORVSuffixLengthLimit units, so the result is at most 100 x 65
/// characters per word visited, and no larger than 100 times the text.
ORVELLAKIT_EXPORT QString orv_suffixStringForFTSIndex(const QString &string);

/// Whether the prefix's UTF-16 units occur in the string in order, not
/// necessarily adjacent (case-sensitive). An empty string gives false, an
/// empty prefix true. A null prefix fails "prefix != nil".
ORVELLAKIT_EXPORT bool orv_hasIntermittentPrefix(const QString &string, const QString &prefix);

/// The shortest range of the string matching `searched` when members of
/// `skipping` may be left out between matched characters; ties go to the
/// earliest start; an unskipped match ends the search at once. Nothing found
/// (or an empty `searched`): {ORVNotFound, 0}. A null `searched` fails
/// "string != nil".
ORVELLAKIT_EXPORT ORVRange orv_rangeOfString(const QString &string, const QString &searched,
                                             const ORVCharacterSet &skipping);

/// The longest common substring, in folded form. Empty when either is empty;
/// a copy of `string` when the two compare equal under the options; each is
/// cut to its first 250 characters first (the table has 8-bit cells), and
/// among equally long matches the one ending first in `string` wins.
ORVELLAKIT_EXPORT QString orv_longestCommonSubstring(const QString &string, const QString &other,
                                                     ORVStringCompareOptions options = 0);
