#pragma once

// Peer comparisons of the benchmark suite. A benchmark file registers each
// comparison with the names of its two benchmarks; the main program prints
// one line per comparison once all benchmarks ran:
//     <name> ratio=<peer time / our time>
// so higher is better and 1.0 means as fast as the peer. A comparison with
// several argument sizes reports its lowest ratio.

#include <string>
#include <vector>

namespace orv::bench {

struct Comparison {
    std::string name;
    std::string ours;  // benchmark name prefix, e.g. "BM_HexOurs"
    std::string peer;  // e.g. "BM_HexOpenSSL"
};

std::vector<Comparison> &comparisons();

// A plain measurement: "<name> ns=<nanoseconds per iteration>", or with a
// number of items per iteration "<name> per_second=<items per second>".
struct Report {
    std::string name;
    std::string benchmark;
    long long itemsPerIteration = 0;
};
std::vector<Report> &reports();

struct RegisterReport {
    RegisterReport(std::string name, std::string benchmark, long long itemsPerIteration = 0)
    {
        reports().push_back({std::move(name), std::move(benchmark), itemsPerIteration});
    }
};

struct RegisterComparison {
    RegisterComparison(std::string name, std::string ours, std::string peer)
    {
        comparisons().push_back({std::move(name), std::move(ours), std::move(peer)});
    }
};

} // namespace orv::bench
