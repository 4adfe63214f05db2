// A short-lived application for the usage queue's process tests: it adds
// usage reports one after another and then ends the way the test asks.
//
//   orv_usage_queue_child kill   <count> <label> <marker file>
//       adds the reports, creates the marker file, then waits to be killed
//   orv_usage_queue_child return <count> <label> [<submission URL>]
//       adds the reports and returns from main at once; with a URL the
//       reports are due at once and go to that URL
//
// Report i's text is "<label> <i>".

#include <OrvellaKit/ORVDataCollectionManager.h>

#include <QCoreApplication>
#include <QFile>

#include <cstdio>

#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("usage-queue-child"));
    if (argc < 4)
        return 2;
    const QByteArray mode = argv[1];
    const int count = QByteArray(argv[2]).toInt();
    const QString label = QString::fromLocal8Bit(argv[3]);
    const bool due = mode == "return" && argc > 4;

    auto queue = ORVDataCollectionManager::sharedManager();
    queue->setSubmissionURL(due ? QUrl(QString::fromLocal8Bit(argv[4])) : QUrl(QStringLiteral("http://127.0.0.1:9/")));
    for (int i = 0; i < count; ++i) {
        ORVDataCollectionItem item;
        item.text = label + QLatin1Char(' ') + QString::number(i);
        item.category = QStringLiteral("child");
        queue->addItem(item, due ? -1.0 : 3600.0);
    }

    if (mode == "kill") {
        QFile marker(QString::fromLocal8Bit(argv[4]));
        if (!marker.open(QIODevice::WriteOnly))
            return 3;
        marker.close();
        for (;;)
            ::pause();
    }
    return 0;
}
