// A hosting application in miniature, built against the installed package.

#include <OrvellaKit/OrvellaKit.h>
#include <OrvellaKitWidgets/OrvellaKitWidgets.h>

#include <QApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const unsigned char bytes[] = {0x00, 0xAB, 0xFF};
    if (ORVOrvellaKitWidgetsVersionString() != ORVOrvellaKitVersionString())
        return 1;
    // The installed translations and a widget of the widgets library.
    if (!ORVInstallTranslations(QLocale(QLocale::German)))
        return 2;
    ORVMBackgroundView view;
    view.resize(4, 4);
    view.setBackgroundColor(orv_colorWithHexColorString("#00ABFF"));
    if (view.grab().toImage().pixelColor(1, 1) != QColor(0x00, 0xAB, 0xFF))
        return 3;
    std::printf("consumer ok %s (OrvellaKit %s)\n", qPrintable(ORVBytesToHexString(bytes, sizeof bytes)),
                qPrintable(ORVOrvellaKitVersionString()));
    return 0;
}
