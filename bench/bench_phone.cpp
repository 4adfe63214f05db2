// 100,000 formats of a fixed mixed set of inputs against libphonenumber's
// Parse plus Format called directly on the same inputs.

#include "BenchRatios.h"

#include <OrvellaKit/ORVPhoneNumber.h>

#include <QStringList>

#include <benchmark/benchmark.h>
#include <phonenumbers/phonenumber.pb.h>
#include <phonenumbers/phonenumberutil.h>

#include <string>
#include <utility>
#include <vector>

namespace {
using i18n::phonenumbers::PhoneNumber;
using i18n::phonenumbers::PhoneNumberUtil;

const std::vector<std::pair<QString, QString>> &inputs()
{
    static const std::vector<std::pair<QString, QString>> list = {
        {"6505551234", "US"},          {"+1 650 555 1234", "US"},   {"(650) 555-1234 ext. 12", "US"},
        {"*676505551234", "US"},       {"02079460958", "GB"},       {"+44 20 7946 0958", "DE"},
        {"030 123456", "DE"},          {"01 42 68 53 00", "FR"},    {"0612345678", "IT"},
        {"02 9876 5432", "AU"},        {"03-1234-5678", "JP"},      {"00442079460958", "GB"},
        {"6505551234;4711", "US"},     {"011 44 20 7946 0958", "US"}, {"442079460958", "GB"},
        {"6505551234 passcode 99", "US"},
    };
    return list;
}

constexpr int kFormatsPerIteration = 100000;

void BM_PhoneOurs(benchmark::State &state)
{
    const auto &list = inputs();
    for (auto _ : state) {
        for (int i = 0; i < kFormatsPerIteration; ++i) {
            const auto &[text, region] = list[static_cast<size_t>(i) % list.size()];
            QString formatted = orv_formattedPhoneNumber(text, false, region);
            benchmark::DoNotOptimize(formatted.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * kFormatsPerIteration);
}

// The peer gets the same inputs already as UTF-8, and gives back UTF-8.
void BM_PhoneLibphonenumber(benchmark::State &state)
{
    std::vector<std::pair<std::string, std::string>> list;
    for (const auto &[text, region] : inputs())
        list.emplace_back(text.toStdString(), region.toStdString());
    const PhoneNumberUtil &util = *PhoneNumberUtil::GetInstance();
    for (auto _ : state) {
        for (int i = 0; i < kFormatsPerIteration; ++i) {
            const auto &[text, region] = list[static_cast<size_t>(i) % list.size()];
            PhoneNumber number;
            util.Parse(text, region, &number);
            std::string formatted;
            util.Format(number, PhoneNumberUtil::NATIONAL, &formatted);
            benchmark::DoNotOptimize(formatted.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * kFormatsPerIteration);
}
} // namespace

BENCHMARK(BM_PhoneOurs)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_PhoneLibphonenumber)->Unit(benchmark::kMillisecond)->Iterations(3);

static orv::bench::RegisterComparison phone("phone_vs_libphonenumber", "BM_PhoneOurs", "BM_PhoneLibphonenumber");
