// The usage-report queue file: whatever is in it is read, written back and
// read again without a crash and without losing a report.

#include "FuzzSupport.h"

#include <OrvellaKit/ORVDataCollectionManager.h>

#include <QFile>

static std::shared_ptr<ORVDataCollectionManager> g_queue;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    g_queue = std::make_shared<ORVDataCollectionManager>();
    (void)g_queue->pendingItems();
    orv::fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString path = g_queue->URLForPendingItems().toLocalFile();
    QFile::remove(path + QStringLiteral(".unreadable"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        file.write(reinterpret_cast<const char *>(data), static_cast<qint64>(size));
    }
    const QList<ORVDataCollectionItem> items = g_queue->pendingItems();
    g_queue->setPendingItems(items);
    const QList<ORVDataCollectionItem> again = g_queue->pendingItems();
    if (again.size() != items.size())
        orv::fuzz::fail("a rewritten queue keeps every report");
    for (qsizetype i = 0; i < items.size(); ++i)
        if (again.at(i).text != items.at(i).text || again.at(i).category != items.at(i).category)
            orv::fuzz::fail("a rewritten queue keeps the reports' texts");
    return 0;
}
