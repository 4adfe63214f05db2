// Phone-number formatting: the first two bytes pick the options and the region.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVPhoneNumber.h>

#include <QStringList>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    static const QStringList regions{QString(), "US", "GB", "DE", "FR", "IT", "AU", "JP", "us", "XX", "", "001"};
    const bool international = data[0] & 1;
    const QString region = regions.at(data[1] % regions.size());
    const QString input = orv::fuzz::text(data + 2, size - 2);
    const QString formatted = orv_formattedPhoneNumber(input, international, region);
    if (formatted.isEmpty() && !input.isEmpty())
        orv::fuzz::fail("formatting never loses the input");
    return 0;
}
