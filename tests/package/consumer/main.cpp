// A hosting application in miniature, built against the installed package.

#include <OrvellaKit/OrvellaKit.h>
#include <OrvellaKitWidgets/OrvellaKitWidgets.h>

#include <QApplication>
#include <QTranslator>

#include <cstdio>

static_assert(ORVELLAKIT_VERSION >= ORVELLAKIT_VERSION_CHECK(0, 1, 0), "the package's version macros");
static_assert(__cplusplus >= 202002L, "C++20 comes from the package");

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const unsigned char bytes[] = {0x00, 0xAB, 0xFF};
    if (ORVOrvellaKitWidgetsVersionString() != ORVOrvellaKitVersionString() ||
        ORVOrvellaKitVersionString() != QStringLiteral(ORVELLAKIT_VERSION_STR))
        return 1;
    // The installed German translation, found through the package variable.
    QTranslator german;
    if (!german.load(QStringLiteral("orvellakit_de"), QStringLiteral(ORVELLAKIT_TRANSLATIONS)))
        return 2;
    QCoreApplication::installTranslator(&german);
    if (ORVLocalizedString("Cancel") != QStringLiteral("Abbrechen"))
        return 3;
    ORVMBackgroundView view;
    view.resize(4, 4);
    view.setBackgroundColor(orv_colorWithHexColorString("#00ABFF"));
    if (view.grab().toImage().pixelColor(1, 1) != QColor(0x00, 0xAB, 0xFF))
        return 4;
    std::printf("consumer ok %s (OrvellaKit %s, translations in %s)\n",
                qPrintable(ORVBytesToHexString(bytes, sizeof bytes)), qPrintable(ORVOrvellaKitVersionString()),
                ORVELLAKIT_TRANSLATIONS);
    return 0;
}
