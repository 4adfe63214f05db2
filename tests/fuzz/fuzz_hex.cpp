// Hexadecimal parsing and printing.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVData.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray parsed = orv_dataFromHexString(orv::fuzz::text(data, size));
    (void)ORVBytesToHexString(parsed.constData(), static_cast<size_t>(parsed.size()));

    // Printing then parsing gives the bytes back.
    const QString printed = ORVBytesToHexString(data, size);
    if (size > 0 && printed.size() != static_cast<qsizetype>(2 * size))
        orv::fuzz::fail("two hexadecimal digits per byte");
    if (size > 0 && orv_dataFromHexString(printed) != orv::fuzz::bytes(data, size))
        orv::fuzz::fail("hex round trip");
    return 0;
}
