#include <OrvellaKit/ORVVersion.h>
#include <OrvellaKitWidgets/ORVWidgets.h>

QString ORVOrvellaKitWidgetsVersionString()
{
    return ORVOrvellaKitVersionString();
}
