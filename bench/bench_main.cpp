#include "BenchRatios.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <limits>
#include <map>

namespace orv::bench {

std::vector<Comparison> &comparisons()
{
    static std::vector<Comparison> list;
    return list;
}

std::vector<Report> &reports()
{
    static std::vector<Report> list;
    return list;
}

namespace {

// Shows the usual table on stderr and keeps each run's time per iteration.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration)
                continue;
            // Repetitions of one benchmark keep their best time.
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty())
                name += '/' + run.run_name.args;
            const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
            auto [it, inserted] = times.emplace(name, seconds);
            if (!inserted)
                it->second = std::min(it->second, seconds);
        }
    }
    std::map<std::string, double> times;
};

} // namespace
} // namespace orv::bench

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    // The network benchmarks deliver on the main queue, which needs an
    // application object on this thread.
    QCoreApplication app(argc, argv);
    orv::bench::RecordingReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    // "BM_HexOurs/4096" pairs with "BM_HexOpenSSL/4096".
    for (const auto &comparison : orv::bench::comparisons()) {
        double lowest = std::numeric_limits<double>::infinity();
        for (const auto &[name, ours] : reporter.times) {
            if (name.rfind(comparison.ours, 0) != 0)
                continue;
            const std::string suffix = name.substr(comparison.ours.size());
            if (!suffix.empty() && suffix[0] != '/')
                continue;
            const auto peer = reporter.times.find(comparison.peer + suffix);
            if (peer == reporter.times.end() || ours <= 0.0)
                continue;
            lowest = std::min(lowest, peer->second / ours);
        }
        if (lowest != std::numeric_limits<double>::infinity())
            std::printf("%s ratio=%.2f\n", comparison.name.c_str(), lowest);
    }
    for (const auto &report : orv::bench::reports()) {
        const auto found = reporter.times.find(report.benchmark);
        if (found == reporter.times.end())
            continue;
        if (report.itemsPerIteration > 0)
            std::printf("%s per_second=%.0f\n", report.name.c_str(),
                        static_cast<double>(report.itemsPerIteration) / found->second);
        else
            std::printf("%s ns=%.2f\n", report.name.c_str(), found->second * 1e9);
    }
    return 0;
}
