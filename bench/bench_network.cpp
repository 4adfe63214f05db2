// Network round trips: 2,000 small GETs over keep-alive HTTP to the
// reference account server on loopback, 8 in flight, through the network
// manager (simple requests, and account requests with a token provider that
// answers from memory) against the same GETs through a bare
// QNetworkAccessManager on the main thread.

#include "BenchAccount.h"
#include "BenchRatios.h"

#include <AccountServer.h>

#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>
#include <OrvellaKit/ORVOrvellaRequest.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <benchmark/benchmark.h>

#include <functional>

namespace {

constexpr int kRequests = 2000;
constexpr int kInFlight = 8;

orv::server::AccountServer &server()
{
    static orv::server::AccountServer *instance = [] {
        auto *s = new orv::server::AccountServer();
        if (!s->start())
            return static_cast<orv::server::AccountServer *>(nullptr);
        return s;
    }();
    return *instance;
}

QUrl pingURL()
{
    return QUrl(QString::fromStdString(server().baseURL()) + QStringLiteral("/ping"));
}

class MemoryTokens : public ORVOrvellaTokenProviding {
public:
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &, const std::shared_ptr<ORVOrvellaNetworkTask> &,
                                bool, TokenCompletion completion) override
    {
        completion(QStringLiteral("bench-token"), ORVError());
    }
};

// Keeps `kInFlight` requests going until `kRequests` finished; `start` sends
// one and calls its argument when that one is done.
bool runPipeline(const std::function<void(std::function<void(bool)>)> &start)
{
    QEventLoop loop;
    int started = 0;
    int finished = 0;
    bool allOK = true;
    std::function<void()> next;
    next = [&] {
        if (started == kRequests)
            return;
        ++started;
        start([&](bool ok) {
            allOK = allOK && ok;
            if (++finished == kRequests)
                loop.quit();
            else
                next();
        });
    };
    for (int i = 0; i < kInFlight; ++i)
        next();
    loop.exec();
    return allOK;
}

void BM_NetworkQNAM(benchmark::State &state)
{
    QNetworkAccessManager nam;
    const QUrl url = pingURL();
    for (auto _ : state) {
        const bool ok = runPipeline([&](std::function<void(bool)> done) {
            QNetworkReply *reply = nam.get(QNetworkRequest(url));
            QObject::connect(reply, &QNetworkReply::finished, reply, [reply, done = std::move(done)] {
                const bool ok = reply->error() == QNetworkReply::NoError && !reply->readAll().isEmpty();
                reply->deleteLater();
                done(ok);
            });
        });
        if (!ok)
            state.SkipWithError("a bare request failed");
    }
    state.SetItemsProcessed(state.iterations() * kRequests);
}

template <typename Request>
void runThroughManager(benchmark::State &state, bool withToken)
{
    const QUrl url = pingURL();
    const QUrl api(QString::fromStdString(server().baseURL()) + QStringLiteral("/"));
    ORVRegisterOrvellaAccountFetchBlock([api] { return std::make_shared<orv::bench::BenchAccount>(api); });
    auto manager = std::make_shared<ORVOrvellaNetworkManager>();
    auto tokens = std::make_shared<MemoryTokens>();
    if (withToken)
        manager->setTokenProvider(tokens);
    for (auto _ : state) {
        const bool ok = runPipeline([&](std::function<void(bool)> done) {
            auto request = Request::requestWithURLRequest(ORVURLRequest(url));
            request->setCompletionHandler([done = std::move(done)](const std::shared_ptr<ORVOrvellaData> &data,
                                                                   const std::optional<ORVHTTPURLResponse> &response,
                                                                   const ORVError &error) {
                done(!error && response && response->statusCode() == 200 && data && !data->data().isEmpty());
            });
            manager->startRequest(request);
        });
        if (!ok)
            state.SkipWithError("a request through the manager failed");
    }
    state.SetItemsProcessed(state.iterations() * kRequests);
}

void BM_NetworkSimpleOurs(benchmark::State &state)
{
    runThroughManager<ORVOrvellaSimpleRequest>(state, false);
}

void BM_NetworkAccountOurs(benchmark::State &state)
{
    runThroughManager<ORVOrvellaAccountRequest>(state, true);
}

} // namespace

BENCHMARK(BM_NetworkQNAM)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NetworkSimpleOurs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NetworkAccountOurs)->Unit(benchmark::kMillisecond)->UseRealTime();

static orv::bench::RegisterComparison simpleVsQNAM("network_simple_vs_qnam", "BM_NetworkSimpleOurs", "BM_NetworkQNAM");
static orv::bench::RegisterComparison accountVsQNAM("network_account_vs_qnam", "BM_NetworkAccountOurs", "BM_NetworkQNAM");
