// A second process for the device identity test: prints the token
// manager's unique device identifier, as a new launch of an application
// would compute it, then exits.

#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    class Manager : public ORVOrvellaTokenManager {};
    const auto identifier = Manager().uniqueDeviceIdentifier();
    if (!identifier)
        return 1;
    std::printf("%s\n", qPrintable(*identifier));
    return 0;
}
