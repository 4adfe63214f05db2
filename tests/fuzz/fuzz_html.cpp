// The simple HTML filter, with the other one-string helpers on the same text.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVString.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = orv::fuzz::text(data, size);
    const QString filtered = orv_stringWithSimpleHTMLFiltering(text);
    if (filtered.contains(QLatin1Char('<')) && !text.contains(QLatin1Char('<')))
        orv::fuzz::fail("filtering adds no tags");
    if (!filtered.isEmpty() && (filtered.front() == u'\n' || filtered.back() == u'\n'))
        orv::fuzz::fail("filtered text is trimmed");
    const QString reversed = orv_reversedString(text);
    if (reversed.size() != text.size())
        orv::fuzz::fail("reversal keeps the length");
    if (orv_stringByNormalizingFilename(text).size() != text.size())
        orv::fuzz::fail("file-name normalising keeps the length");
    if (orv_SHA256String(text).size() != 64 && !text.isNull())
        orv::fuzz::fail("64 hexadecimal digits");
    (void)orv_stringByRemovingCharactersInSet(text, ORVCharacterSet::decimalDigitCharacterSet());
    return 0;
}
