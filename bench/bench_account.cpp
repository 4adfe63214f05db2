// The token manager under a burst: 1,000 callers ask for one account's
// token at once with nothing cached. Exactly one fetch must reach the
// reference server; everyone else waits on the manager's queue. Measured:
// - token_queued_reply: the median gap between successive replies once the
//   fetch is answered (what each queued caller adds), against
//   token_cached_reply, the same gap when the token was already cached;
// - account_requests_cold: 1,000 account requests through the network
//   manager starting with an empty cache, against the same with the token
//   cached; the difference divided by 1,000 is the latency each request
//   gains from waiting for the token (the one fetch included).

#include "BenchAccount.h"
#include "BenchRatios.h"

#include <AccountServer.h>

#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>
#include <OrvellaKit/ORVOrvellaRequest.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

namespace {

constexpr int kCallers = 1000;
using Clock = std::chrono::steady_clock;

orv::server::AccountServer &server()
{
    static orv::server::AccountServer *instance = [] {
        auto *s = new orv::server::AccountServer();
        s->start();
        s->service().addAccount("bench", "bench@example.org", "bench password");
        return s;
    }();
    return *instance;
}

// Keeps the device credential in memory; stores no tokens.
class Tokens : public ORVOrvellaTokenManager {
public:
    QString appScope() const override { return QStringLiteral("bench"); }
    QString deviceToken() const override { return QStringLiteral("bench-device"); }
    std::optional<ORVURLCredential> credentialForOrvellaAccount(const std::shared_ptr<ORVOrvellaAccount> &) const override
    {
        std::lock_guard lock(_mutex);
        return _credential;
    }
    void setAccountCredential(const ORVURLCredential &credential, const std::shared_ptr<ORVOrvellaAccount> &) override
    {
        std::lock_guard lock(_mutex);
        _credential = credential;
    }
    void setOrvellaToken(const QString &, const QString &) override {}
    QString orvellaTokenForAccountIdentifier(const QString &) override { return QString(); }

private:
    mutable std::mutex _mutex;
    std::optional<ORVURLCredential> _credential{
        ORVURLCredential{QStringLiteral("bench"), QString::fromStdString(server().service().registerDevice("bench"))}};
};

struct Setup {
    std::shared_ptr<orv::bench::BenchAccount> account;
    std::shared_ptr<Tokens> tokens = std::make_shared<Tokens>();
    std::shared_ptr<ORVOrvellaNetworkManager> manager = std::make_shared<ORVOrvellaNetworkManager>();
    Setup()
    {
        account = std::make_shared<orv::bench::BenchAccount>(QUrl(QString::fromStdString(server().baseURL()) + QStringLiteral("/")));
        auto shared = account;
        ORVRegisterOrvellaAccountFetchBlock([shared] { return shared; });
        tokens->setNetworkManager(manager);
        manager->setTokenProvider(tokens);
    }
    // Fetches a token into the cache.
    void warm();
};

size_t fetches()
{
    return server().requestCount("/v1/auth/device/");
}

// Runs the event loop until `done` holds (at most 30 s).
bool spinUntil(const std::function<bool()> &done)
{
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (!done()) {
        if (Clock::now() > deadline)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

void Setup::warm()
{
    std::atomic<bool> warmed = false;
    tokens->requestTokenForAccount(account, [&](const QString &, const ORVError &) { warmed = true; });
    spinUntil([&] { return warmed.load(); });
}

// 1,000 token requests at once; the median gap between successive replies.
void tokenReplies(benchmark::State &state, bool cached)
{
    Setup setup;
    for (auto _ : state) {
        setup.tokens->resetTokensForAccountWithIdentifier(setup.account->identifier());
        if (cached)
            setup.warm();
        const size_t before = fetches();
        std::vector<Clock::time_point> replies(kCallers);
        std::atomic<int> count = 0;
        std::atomic<int> failures = 0;
        for (int i = 0; i < kCallers; ++i) {
            setup.tokens->requestTokenForAccount(setup.account, [&](const QString &token, const ORVError &) {
                if (token.isEmpty())
                    ++failures;
                replies[count++] = Clock::now(); // replies run one at a time
            });
        }
        if (!spinUntil([&] { return count.load() == kCallers; }) || failures > 0) {
            state.SkipWithError("token replies failed");
            break;
        }
        if (fetches() - before != (cached ? 0u : 1u)) {
            state.SkipWithError("the burst did not start exactly one token fetch");
            break;
        }
        std::vector<double> gaps;
        gaps.reserve(kCallers - 1);
        for (int i = 1; i < kCallers; ++i)
            gaps.push_back(std::chrono::duration<double>(replies[i] - replies[i - 1]).count());
        std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
        state.SetIterationTime(gaps[gaps.size() / 2]);
    }
    state.counters["fetches_per_burst"] = cached ? 0 : 1;
}

void BM_TokenQueuedReply(benchmark::State &state)
{
    tokenReplies(state, false);
}

void BM_TokenCachedReply(benchmark::State &state)
{
    tokenReplies(state, true);
}

// 1,000 account requests at once through the network manager.
void accountRequests(benchmark::State &state, bool cached)
{
    Setup setup;
    const QUrl url = setup.account->URLForServerEndpoint(ORVOrvellaServerEndpointAccountDetails);
    for (auto _ : state) {
        state.PauseTiming();
        setup.tokens->resetTokensForAccountWithIdentifier(setup.account->identifier());
        if (cached)
            setup.warm();
        const size_t before = fetches();
        state.ResumeTiming();
        int finished = 0;
        int failed = 0;
        for (int i = 0; i < kCallers; ++i) {
            auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url));
            request->setCompletionHandler([&](const std::shared_ptr<ORVOrvellaData> &,
                                              const std::optional<ORVHTTPURLResponse> &response, const ORVError &) {
                if (!response || response->statusCode() != 200)
                    ++failed;
                ++finished;
            });
            setup.manager->startRequest(request);
        }
        const bool ok = spinUntil([&] { return finished == kCallers; });
        state.PauseTiming();
        if (!ok || failed > 0) {
            state.SkipWithError("account requests failed");
            break;
        }
        if (fetches() - before != (cached ? 0u : 1u)) {
            state.SkipWithError("the burst did not start exactly one token fetch");
            break;
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kCallers);
}

void BM_AccountRequestsCold(benchmark::State &state)
{
    accountRequests(state, false);
}

void BM_AccountRequestsCached(benchmark::State &state)
{
    accountRequests(state, true);
}

} // namespace

BENCHMARK(BM_TokenQueuedReply)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20);
BENCHMARK(BM_TokenCachedReply)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20);
BENCHMARK(BM_AccountRequestsCold)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_AccountRequestsCached)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

static orv::bench::RegisterReport queuedReply("token_queued_reply_median", "BM_TokenQueuedReply");
static orv::bench::RegisterReport cachedReply("token_cached_reply_median", "BM_TokenCachedReply");
static orv::bench::RegisterReport coldRequests("account_requests_cold_1000", "BM_AccountRequestsCold");
static orv::bench::RegisterReport cachedRequests("account_requests_cached_1000", "BM_AccountRequestsCached");
static orv::bench::RegisterComparison coldVsCached("account_requests_cold_vs_cached", "BM_AccountRequestsCold",
                                                   "BM_AccountRequestsCached");
