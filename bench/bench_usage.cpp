// The usage-data queue: every add reads the whole queue file and writes it
// again (by design: nothing is kept in memory between calls), so the cost of
// one add grows with the queue's length. Measured:
// - BM_UsageAddDurable/N: one addItem() onto a queue of N items; the report
//   is on disk (written, synced and renamed into place, under the queue's
//   lock) when the call returns; nothing is due, so no submission follows;
//   against
//   BM_UsageRawRewrite/N: the same read, parse, append, serialise and atomic
//   write done directly with Qt;
// - BM_UsageAddThousand: 1,000 adds one by one onto an empty queue;
// - BM_UsageDrainThousand: 1,000 due items posted to the local server in 20
//   batches of 50, until the file is empty.

#include "BenchRatios.h"

#include <AccountServer.h>

#include <OrvellaKit/ORVDataCollectionManager.h>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// The queue lives in a temporary data folder of the benchmark's own.
struct Environment {
    QTemporaryDir home;
    orv::server::AccountServer server;
    Environment()
    {
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        server.start();
    }
};

Environment &environment()
{
    static Environment *instance = new Environment();
    return *instance;
}

ORVDataCollectionItem report(int index)
{
    ORVDataCollectionItem item;
    item.text = QStringLiteral("Calendar view opened from the menu bar, report %1").arg(index);
    item.category = QStringLiteral("usage");
    item.language = QStringLiteral("en");
    item.country = QStringLiteral("US");
    item.userInfo = QJsonObject{{"build", 1042}, {"view", "week"}};
    return item;
}

QList<ORVDataCollectionItem> queueOf(int count, qint64 secondsFromNow)
{
    QList<ORVDataCollectionItem> items;
    for (int i = 0; i < count; ++i) {
        ORVDataCollectionItem item = report(i);
        item.scheduledSubmissionDate = QDateTime::currentDateTimeUtc().addSecs(secondsFromNow);
        items << item;
    }
    return items;
}

std::shared_ptr<ORVDataCollectionManager> makeManager()
{
    environment();
    auto manager = std::make_shared<ORVDataCollectionManager>();
    manager->setSubmissionURL(QUrl(QString::fromStdString(environment().server.baseURL()) + "/v1/usage/collect/"));
    manager->setSubmissionDelay(3600);
    return manager;
}

void add(ORVDataCollectionManager &manager, ORVDataCollectionItem item, benchmark::State &state)
{
    if (manager.addItem(item))
        state.SkipWithError("the report was not queued");
}

void BM_UsageAddDurable(benchmark::State &state)
{
    auto manager = makeManager();
    const auto prefill = queueOf(static_cast<int>(state.range(0)), 3600);
    for (auto _ : state) {
        state.PauseTiming();
        manager->setPendingItems(prefill);
        state.ResumeTiming();
        add(*manager, report(-1), state);
    }
}

void BM_UsageRawRewrite(benchmark::State &state)
{
    auto manager = makeManager();
    const auto prefill = queueOf(static_cast<int>(state.range(0)), 3600);
    const QString path = manager->URLForPendingItems().toLocalFile();
    ORVDataCollectionItem added = report(-1);
    added.scheduledSubmissionDate = QDateTime::currentDateTimeUtc();
    for (auto _ : state) {
        state.PauseTiming();
        manager->setPendingItems(prefill);
        state.ResumeTiming();
        QFile in(path);
        in.open(QIODevice::ReadOnly);
        QJsonArray array = QJsonDocument::fromJson(in.readAll()).array();
        array.append(added.JSONDictionaryForStorage());
        QSaveFile out(path);
        out.open(QIODevice::WriteOnly);
        out.write(QJsonDocument(array).toJson(QJsonDocument::Compact));
        out.commit();
    }
}

void BM_UsageAddThousand(benchmark::State &state)
{
    auto manager = makeManager();
    for (auto _ : state) {
        state.PauseTiming();
        manager->setPendingItems({});
        state.ResumeTiming();
        for (int i = 0; i < 1000; ++i)
            add(*manager, report(i), state);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}

void BM_UsageDrainThousand(benchmark::State &state)
{
    auto manager = makeManager();
    const auto due = queueOf(1000, -60);
    for (auto _ : state) {
        state.PauseTiming();
        manager->setPendingItems(due);
        state.ResumeTiming();
        std::atomic<bool> done = false;
        quint64 sent = 0;
        manager->submitPendingItemsWithCompletionHandler([&](const ORVError &, quint64 count) {
            sent = count;
            done = true;
        });
        while (!done)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        if (sent != 50 || !manager->pendingItems().isEmpty()) {
            state.SkipWithError("the queue was not drained");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}

} // namespace

BENCHMARK(BM_UsageAddDurable)->Arg(0)->Arg(100)->Arg(500)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_UsageRawRewrite)->Arg(0)->Arg(100)->Arg(500)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_UsageAddThousand)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_UsageDrainThousand)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

static orv::bench::RegisterComparison addVsRaw("usage_add_vs_raw_rewrite", "BM_UsageAddDurable", "BM_UsageRawRewrite");
static orv::bench::RegisterReport add0("usage_add_durable_0", "BM_UsageAddDurable/0");
static orv::bench::RegisterReport add100("usage_add_durable_100", "BM_UsageAddDurable/100");
static orv::bench::RegisterReport add500("usage_add_durable_500", "BM_UsageAddDurable/500");
static orv::bench::RegisterReport add1000("usage_add_durable_1000", "BM_UsageAddDurable/1000");
static orv::bench::RegisterReport addThousand("usage_add_1000_one_by_one", "BM_UsageAddThousand");
static orv::bench::RegisterReport drainThousand("usage_drain_1000", "BM_UsageDrainThousand");
