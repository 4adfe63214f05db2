// A command-line tool on the core library only (built with CMake and with
// pkg-config): no widgets, no display.

#include <OrvellaKit/OrvellaKit.h>

#include <QCoreApplication>
#include <QTranslator>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTranslator german;
    if (!german.load(QStringLiteral("orvellakit_de"), QStringLiteral(ORVELLAKIT_TRANSLATIONS)))
        return 2;
    QCoreApplication::installTranslator(&german);
    if (ORVLocalizedString("Cancel") != QStringLiteral("Abbrechen"))
        return 3;
    ORVError error;
    const auto object = orv_JSONDictionaryWithData(QByteArray(R"({"token":"x"})"), &error);
    if (!object || orv_nonEmptyStringForKey(*object, "token") != QStringLiteral("x"))
        return 4;
    std::printf("core consumer ok %s %s\n", ORVELLAKIT_VERSION_STR, qPrintable(orv_SHA256String("abc").left(8)));
    return 0;
}
