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

// Shows the usual table on stderr and keeps every repetition's time per
// iteration, so a comparison stands on medians rather than on one run.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration || run.iterations == 0)
                continue;
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty())
                name += '/' + run.run_name.args;
            times[name].push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
        }
    }
    std::map<std::string, std::vector<double>> times;
};

// The median of the repetitions, and their spread: (slowest - fastest) /
// median.
struct Summary {
    double median = 0;
    double spread = 0;
    size_t count = 0;
};

Summary summarise(std::vector<double> values)
{
    Summary summary;
    summary.count = values.size();
    if (values.empty())
        return summary;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    summary.median = values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    if (summary.median > 0)
        summary.spread = (values.back() - values.front()) / summary.median;
    return summary;
}

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
    // several sizes reports the size with the lowest ratio of medians.
    std::map<std::string, orv::bench::Summary> summaries;
    for (const auto &[name, values] : reporter.times)
        summaries[name] = orv::bench::summarise(values);
    struct Row {
        std::string name;
        orv::bench::Summary ours;
        orv::bench::Summary peer;
        double ratio = std::numeric_limits<double>::infinity();
    };
    std::vector<Row> rows;
    for (const auto &comparison : orv::bench::comparisons()) {
        Row row{comparison.name, {}, {}};
        for (const auto &[name, ours] : summaries) {
            if (name.rfind(comparison.ours, 0) != 0)
                continue;
            const std::string suffix = name.substr(comparison.ours.size());
            if (!suffix.empty() && suffix[0] != '/')
                continue;
            const auto peer = summaries.find(comparison.peer + suffix);
            if (peer == summaries.end() || ours.median <= 0.0)
                continue;
            if (peer->second.median / ours.median < row.ratio)
                row = Row{comparison.name, ours, peer->second, peer->second.median / ours.median};
        }
        if (row.ratio != std::numeric_limits<double>::infinity()) {
            std::printf("%s ratio=%.2f (medians of %zu and %zu runs; spread ours %.0f%%, peer %.0f%%)\n",
                        row.name.c_str(), row.ratio, row.ours.count, row.peer.count, row.ours.spread * 100,
                        row.peer.spread * 100);
            rows.push_back(row);
        }
    }
    for (const auto &report : orv::bench::reports()) {
        const auto found = summaries.find(report.benchmark);
        if (found == summaries.end() || found->second.median <= 0)
            continue;
        if (report.itemsPerIteration > 0)
            std::printf("%s per_second=%.0f\n", report.name.c_str(),
                        static_cast<double>(report.itemsPerIteration) / found->second.median);
        else
            std::printf("%s ns=%.2f\n", report.name.c_str(), found->second.median * 1e9);
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
        std::printf("\n| comparison | ours (median) | peer (median) | ratio (peer / ours) | spread ours / peer |\n"
                    "|---|---|---|---|---|\n");
        for (const Row &row : rows)
            std::printf("| %s | %s | %s | %.2f | %.0f%% / %.0f%% |\n", row.name.c_str(),
                        time(row.ours.median).c_str(), time(row.peer.median).c_str(), row.ratio,
                        row.ours.spread * 100, row.peer.spread * 100);
    }
    return 0;
}
