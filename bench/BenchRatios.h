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

// A plain measurement printed as "<name> ns=<nanoseconds per iteration>".
struct Report {
    std::string name;
    std::string benchmark;
};
std::vector<Report> &reports();

struct RegisterReport {
    RegisterReport(std::string name, std::string benchmark)
    {
        reports().push_back({std::move(name), std::move(benchmark)});
    }
};

struct RegisterComparison {
    RegisterComparison(std::string name, std::string ours, std::string peer)
    {
        comparisons().push_back({std::move(name), std::move(ours), std::move(peer)});
    }
};

} // namespace orv::bench
