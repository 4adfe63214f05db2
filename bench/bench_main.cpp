#include "BenchRatios.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <vector>

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

    // "BM_HexOurs/4096" pairs with "BM_HexOpenSSL/4096". A comparison over
    // several sizes reports the size with the lowest ratio.
    struct Row {
        std::string name;
        double ours = 0;
        double peer = 0;
        double ratio = std::numeric_limits<double>::infinity();
    };
    std::vector<Row> rows;
    for (const auto &comparison : orv::bench::comparisons()) {
        Row row{comparison.name};
        for (const auto &[name, ours] : reporter.times) {
            if (name.rfind(comparison.ours, 0) != 0)
                continue;
            const std::string suffix = name.substr(comparison.ours.size());
            if (!suffix.empty() && suffix[0] != '/')
                continue;
            const auto peer = reporter.times.find(comparison.peer + suffix);
            if (peer == reporter.times.end() || ours <= 0.0)
                continue;
            if (peer->second / ours < row.ratio)
                row = Row{comparison.name, ours, peer->second, peer->second / ours};
        }
        if (row.ratio != std::numeric_limits<double>::infinity()) {
            std::printf("%s ratio=%.2f\n", row.name.c_str(), row.ratio);
            rows.push_back(row);
        }
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
    // The table of every peer comparison, as Markdown.
    if (!rows.empty()) {
        auto time = [](double seconds) {
            char text[32];
            if (seconds >= 1.0)
                std::snprintf(text, sizeof text, "%.2f s", seconds);
            else if (seconds >= 1e-3)
                std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
            else if (seconds >= 1e-6)
                std::snprintf(text, sizeof text, "%.2f µs", seconds * 1e6);
            else
                std::snprintf(text, sizeof text, "%.0f ns", seconds * 1e9);
            return std::string(text);
        };
        std::printf("\n| comparison | ours | peer | ratio (peer / ours) |\n|---|---|---|---|\n");
        for (const Row &row : rows)
            std::printf("| %s | %s | %s | %.2f |\n", row.name.c_str(), time(row.ours).c_str(), time(row.peer).c_str(),
                        row.ratio);
    }
    return 0;
}
