#pragma once

// Runs the reference account server in the test process and registers an
// account whose API host is that server, plus helpers to run one request
// through a network manager and collect what its handler received.

#include "OrvTestSupport.h"

#include <AccountServer.h>

#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaData.h>
#include <OrvellaKit/ORVOrvellaNetworkManager.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>

namespace orv::test {

class ServerAccount : public ORVOrvellaAccount {
public:
    explicit ServerAccount(QUrl api) : _api(std::move(api)) {}
    QString identifier() const override { return QStringLiteral("account-1"); }
    std::optional<QString> username() const override { return QStringLiteral("ada"); }
    QString emailAddress() const override { return QStringLiteral("ada@example.org"); }
    ORVOrvellaAccountType orvellaAccountType() const override { return ORVOrvellaAccountTypePassword; }
    QString displayName() const override { return {}; }
    void setDisplayName(const QString &) override {}
    std::shared_ptr<ORVOrvellaAccount> copy() const override { return std::make_shared<ServerAccount>(_api); }
    // The endpoint table's path on the test server (plain HTTP), else the API root.
    QUrl URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const override
    {
        QUrl url = ORVOrvellaAccountURLForServerEndpoint(endpoint, _api.authority());
        if (url.isEmpty())
            return _api;
        url.setScheme(_api.scheme());
        return url;
    }
    QUrl serverURLForAPIAccess() const override { return _api; }

private:
    QUrl _api;
};

// What a request's completion handler received.
struct Delivery {
    std::atomic<int> calls = 0;
    std::atomic<bool> onMainThread = true;
    std::shared_ptr<ORVOrvellaData> data;
    std::optional<ORVHTTPURLResponse> response;
    ORVError error;

    ORVOrvellaRequest::CompletionHandler handler()
    {
        return [this](const std::shared_ptr<ORVOrvellaData> &d, const std::optional<ORVHTTPURLResponse> &r,
                      const ORVError &e) {
            if (QThread::currentThread() != QCoreApplication::instance()->thread())
                onMainThread = false;
            data = d;
            response = r;
            error = e;
            ++calls;
        };
    }
    // Waits for the first call, then a little longer to catch a second one.
    bool waitForCall(std::chrono::milliseconds timeout = 10s)
    {
        const bool called = waitUntil([&] { return calls.load() > 0; }, timeout);
        spinFor(50ms);
        return called;
    }
    int status() const { return response ? response->statusCode() : 0; }
    QByteArray body() const { return data ? data->data() : QByteArray(); }
};

// Answers from memory and records what it was asked.
class MemoryTokenProvider : public ORVOrvellaTokenProviding {
public:
    void requestTokenForAccount(const std::shared_ptr<ORVOrvellaAccount> &, const std::shared_ptr<ORVOrvellaNetworkTask> &,
                                bool ignoreCache, TokenCompletion completion) override
    {
        {
            std::lock_guard lock(mutex);
            ignoreCacheFlags.push_back(ignoreCache);
        }
        completion(token, error);
    }
    std::vector<bool> flags() const
    {
        std::lock_guard lock(mutex);
        return ignoreCacheFlags;
    }
    QString token = QStringLiteral("test-token");
    ORVError error;
    mutable std::mutex mutex;
    std::vector<bool> ignoreCacheFlags;
};

class AccountServerTest : public XdgHomeTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        const QUrl api(QString::fromStdString(server.baseURL()) + QStringLiteral("/"));
        ORVRegisterOrvellaAccountFetchBlock([api] { return std::make_shared<ServerAccount>(api); });
        manager = std::make_shared<ORVOrvellaNetworkManager>();
        manager->setTokenProvider(provider);
    }
    void TearDown() override
    {
        // Closing the client's connections first lets the server stop at once.
        manager.reset();
        spinFor(20ms);
        server.stop();
    }

    QUrl url(const QString &path) const { return QUrl(QString::fromStdString(server.baseURL()) + path); }

    // Starts the request on the fixture's manager and waits for its handler.
    std::shared_ptr<Delivery> deliver(const std::shared_ptr<ORVOrvellaRequest> &request)
    {
        auto delivery = std::make_shared<Delivery>();
        request->setCompletionHandler(delivery->handler());
        manager->startRequest(request);
        EXPECT_TRUE(delivery->waitForCall());
        return delivery;
    }

    server::AccountServer server;
    std::shared_ptr<MemoryTokenProvider> provider = std::make_shared<MemoryTokenProvider>();
    std::shared_ptr<ORVOrvellaNetworkManager> manager;
};

} // namespace orv::test
