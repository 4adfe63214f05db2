#include <OrvellaKit/OrvellaKit.h>
#include <OrvellaKitWidgets/ORVWidgets.h>

#include <cstdio>

int main()
{
    const unsigned char bytes[] = {0x00, 0xAB, 0xFF};
    if (ORVOrvellaKitWidgetsVersionString() != ORVOrvellaKitVersionString())
        return 1;
    std::printf("consumer ok %s (OrvellaKit %s)\n", qPrintable(ORVBytesToHexString(bytes, sizeof bytes)),
                qPrintable(ORVOrvellaKitVersionString()));
    return 0;
}
