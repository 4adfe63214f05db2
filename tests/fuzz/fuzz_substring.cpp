// The longest common substring and the searches that skip characters. The
// input is two texts separated by the first zero byte; the first byte picks
// the comparison options.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVString.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t choice = data[0];
    ORVStringCompareOptions options = 0;
    if (choice & 1)
        options |= ORVCaseInsensitiveSearch;
    if (choice & 2)
        options |= ORVDiacriticInsensitiveSearch;
    if (choice & 4)
        options |= ORVWidthInsensitiveSearch;
    ++data;
    --size;
    size_t split = 0;
    while (split < size && data[split] != 0)
        ++split;
    const QString a = orv::fuzz::text(data, split);
    const QString b = split < size ? orv::fuzz::text(data + split + 1, size - split - 1) : QStringLiteral("");

    const QString common = orv_longestCommonSubstring(a, b, options);
    // Both texts are compared in composed form, so that is where the
    // common part is found.
    const QString composedA = a.normalized(QString::NormalizationForm_C);
    const QString composedB = b.normalized(QString::NormalizationForm_C);
    if (options == 0 && composedA != composedB) {
        if (common.size() > 250)
            orv::fuzz::fail("the common substring is at most 250 characters");
        if (!composedA.left(250).contains(common) || !composedB.left(250).contains(common))
            orv::fuzz::fail("the common substring occurs in both");
    }

    const ORVRange range =
        orv_rangeOfString(a, b, ORVCharacterSet::characterSetWithCharactersInString(u"- ./()").unionWithCharacterSet(
                                    ORVCharacterSet::whitespaceCharacterSet()));
    if (range.location != ORVNotFound &&
        (range.location < 0 || range.length < b.size() || range.location + range.length > a.size()))
        orv::fuzz::fail("a found range lies in the text and is at least as long as the string");
    const bool scattered = orv_hasIntermittentPrefix(a, b);
    if (range.location != ORVNotFound && !b.isEmpty() && !scattered)
        orv::fuzz::fail("a string found with skipped characters is a scattered prefix");
    for (const QString &suffix : orv_suffixes(a.left(2000))) {
        if (suffix.isEmpty() || suffix.size() > ORVSuffixLengthLimit)
            orv::fuzz::fail("a suffix is cut to ORVSuffixLengthLimit units");
    }
    for (QStringView suffix : QStringView(orv_suffixStringForFTSIndex(a)).split(u' ', Qt::SkipEmptyParts)) {
        if (suffix.size() > ORVSuffixLengthLimit)
            orv::fuzz::fail("an index suffix is cut to ORVSuffixLengthLimit units");
    }
    return 0;
}
