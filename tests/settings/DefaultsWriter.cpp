// A second process for the settings tests: writes one key into a settings
// file the way another application would, then exits.
//   orv_defaults_writer <file> <key> <value>

#include <QCoreApplication>
#include <QSettings>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 4)
        return 2;
    QSettings settings(arguments[1], QSettings::IniFormat);
    settings.setValue(arguments[2], arguments[3]);
    settings.sync();
    return settings.status() == QSettings::NoError ? 0 : 1;
}
