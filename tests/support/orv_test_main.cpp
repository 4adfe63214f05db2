// The main of every test binary: a QApplication on the offscreen platform,
// so that widgets, the main queue and timers behave as in an application.

#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("orvellakit-tests"));
    return RUN_ALL_TESTS();
}
