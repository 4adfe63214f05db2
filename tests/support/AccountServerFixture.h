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

// A plain account value whose endpoints live on the test server. Signed in
// as "ada" unless a test says otherwise.
class ServerAccount : public ORVOrvellaAccount {
public:
    explicit ServerAccount(QUrl api) : _api(std::move(api)) {}
    QString identifier() const override { return QStringLiteral("account-1"); }
    std::optional<QString> username() const override { return _username; }
    QString emailAddress() const override { return _email; }
    ORVOrvellaAccountType orvellaAccountType() const override { return _type; }
    QString displayName() const override { return _name; }
    void setDisplayName(const QString &name) override { _name = name; }
    void setUsername(const std::optional<QString> &username) override { _username = username; }
    void setEmailAddress(const QString &email) override { _email = email; }
    void setOrvellaAccountType(ORVOrvellaAccountType type) override { _type = type; }
    std::shared_ptr<ORVOrvellaAccount> copy() const override { return std::make_shared<ServerAccount>(*this); }
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
    std::optional<QString> _username = QStringLiteral("ada");
    QString _email = QStringLiteral("ada@example.org");
    ORVOrvellaAccountType _type = ORVOrvellaAccountTypePassword;
    QString _name;
};

// Requests that run on the background session (downloads).
template <class Base>
class BackgroundRequestOf : public Base {
public:
    using Base::Base;
    static std::shared_ptr<BackgroundRequestOf> make(const ORVURLRequest &request)
    {
        return ORVOrvellaRequest::make<BackgroundRequestOf>(request);
    }
    bool useBackgroundSession() const override { return true; }
};
using BackgroundAccountRequest = BackgroundRequestOf<ORVOrvellaAccountRequest>;
using BackgroundSimpleRequest = BackgroundRequestOf<ORVOrvellaSimpleRequest>;

// The application's side of account storage: one current account, replaced
// by what the save block receives. Read from any thread.
class AccountStore {
public:
    std::shared_ptr<ORVOrvellaAccount> current() const
    {
        std::lock_guard lock(_mutex);
        return _current;
    }
    void setCurrent(std::shared_ptr<ORVOrvellaAccount> account)
    {
        std::lock_guard lock(_mutex);
        _current = std::move(account);
    }
    int saves() const
    {
        std::lock_guard lock(_mutex);
        return _saves;
    }
    // Registers the fetch and save blocks over this store.
    void registerBlocks(const std::shared_ptr<AccountStore> &self)
    {
        ORVRegisterOrvellaAccountFetchBlock([self] { return self->current(); });
        ORVRegisterOrvellaAccountSaveBlock(
            [self](std::shared_ptr<ORVOrvellaAccount> account, ORVOrvellaAccountSaveCompletion completion) {
                {
                    std::lock_guard lock(self->_mutex);
                    self->_current = std::move(account);
                    ++self->_saves;
                }
                if (completion)
                    completion(ORVError());
            });
    }

private:
    mutable std::mutex _mutex;
    std::shared_ptr<ORVOrvellaAccount> _current;
    int _saves = 0;
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
        accounts->setCurrent(std::make_shared<ServerAccount>(api));
        accounts->registerBlocks(accounts);
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
    std::shared_ptr<AccountStore> accounts = std::make_shared<AccountStore>();
    std::shared_ptr<MemoryTokenProvider> provider = std::make_shared<MemoryTokenProvider>();
    std::shared_ptr<ORVOrvellaNetworkManager> manager;
};

} // namespace orv::test
