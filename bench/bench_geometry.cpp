// The smooth cubic curve through 100,000 and 1,000,000 points: linear time
// means a ratio of about 10 between the two.

#include "BenchRatios.h"

#include <OrvellaKit/ORVBezierPath.h>

#include <QList>
#include <QPointF>

#include <benchmark/benchmark.h>

#include <cmath>

namespace {

QList<QPointF> wave(qsizetype count)
{
    QList<QPointF> points;
    points.reserve(count);
    for (qsizetype i = 0; i < count; ++i)
        points.append(QPointF(double(i), std::sin(double(i) * 0.01) * 100.0));
    return points;
}

void runSmoothPath(benchmark::State &state, const QList<QPointF> &points)
{
    for (auto _ : state) {
        ORVBezierPath path = ORVCubicCurveAlgorithm::smoothPathThroughPoints(points);
        benchmark::DoNotOptimize(path.elements().data());
    }
    state.SetItemsProcessed(state.iterations() * points.size());
}

void BM_SmoothPath100k(benchmark::State &state)
{
    static const QList<QPointF> points = wave(100000);
    runSmoothPath(state, points);
}

void BM_SmoothPath1M(benchmark::State &state)
{
    static const QList<QPointF> points = wave(1000000);
    runSmoothPath(state, points);
}

} // namespace

BENCHMARK(BM_SmoothPath100k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmoothPath1M)->Unit(benchmark::kMillisecond);

static orv::bench::RegisterReport smooth1M("smooth_path_1m_points", "BM_SmoothPath1M");
static orv::bench::RegisterReport smooth100k("smooth_path_100k_points", "BM_SmoothPath100k");
// time(1,000,000) / time(100,000): 10 is linear.
static orv::bench::RegisterComparison smoothScaling("smooth_path_1m_over_100k", "BM_SmoothPath100k", "BM_SmoothPath1M");
