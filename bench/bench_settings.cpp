// Settings: 10,000 sets of one key within one pass of the main loop must
// give exactly one delivery to its observer. Measured: those 10,000 sets
// and the pass that delivers, with one (object, method) registered on the
// key, against 10,000 QSettings::setValue() calls on a bare QSettings and a
// pass of the loop (where QSettings writes).

#include "BenchRatios.h"

#include <OrvellaKit/ORVDefaultsObserver.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

constexpr int kSets = 10000;

QTemporaryDir &folder()
{
    static auto *dir = new QTemporaryDir();
    return *dir;
}

struct Listener {
    int deliveries = 0;
    void changed(const QString &) { ++deliveries; }
};

void pass()
{
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents(QEventLoop::AllEvents);
}

void BM_DefaultsSetObserved(benchmark::State &state)
{
    auto store = ORVUserDefaults::defaultsWithPath(folder().filePath("observed.conf"));
    auto observer = ORVDefaultsObserver::observerForDefaults(store);
    auto listener = std::make_shared<Listener>();
    observer->addObserver(listener, &Listener::changed, "Zoom");
    for (auto _ : state) {
        listener->deliveries = 0;
        for (int i = 0; i < kSets; ++i)
            store->setInteger(i, "Zoom");
        pass();
        if (listener->deliveries != 1) {
            state.SkipWithError("10,000 sets in one pass did not give exactly one delivery");
            break;
        }
    }
    observer->removeObserver(listener);
    state.SetItemsProcessed(state.iterations() * kSets);
}

void BM_QSettingsSet(benchmark::State &state)
{
    QSettings settings(folder().filePath("bare.conf"), QSettings::IniFormat);
    for (auto _ : state) {
        for (int i = 0; i < kSets; ++i)
            settings.setValue("Zoom", i);
        pass();
    }
    state.SetItemsProcessed(state.iterations() * kSets);
}

} // namespace

BENCHMARK(BM_DefaultsSetObserved)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QSettingsSet)->Unit(benchmark::kMillisecond)->UseRealTime();

static orv::bench::RegisterComparison setVsQSettings("defaults_set_vs_qsettings", "BM_DefaultsSetObserved",
                                                     "BM_QSettingsSet");
