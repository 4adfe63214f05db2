#pragma once

// The benchmarks' account: the user "bench", whose endpoints live on the
// reference server at `api` (plain HTTP on loopback).

#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>

namespace orv::bench {

class BenchAccount : public ORVOrvellaAccount {
public:
    explicit BenchAccount(QUrl api) : _api(std::move(api)) {}
    QString identifier() const override { return QStringLiteral("bench-account"); }
    std::optional<QString> username() const override { return QStringLiteral("bench"); }
    QString emailAddress() const override { return QStringLiteral("bench@example.org"); }
    ORVOrvellaAccountType orvellaAccountType() const override { return ORVOrvellaAccountTypePassword; }
    QString displayName() const override { return {}; }
    void setDisplayName(const QString &) override {}
    void setUsername(const std::optional<QString> &) override {}
    void setEmailAddress(const QString &) override {}
    void setOrvellaAccountType(ORVOrvellaAccountType) override {}
    std::shared_ptr<ORVOrvellaAccount> copy() const override { return std::make_shared<BenchAccount>(_api); }
    QUrl URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const override
    {
        QUrl url = ORVOrvellaAccountURLForServerEndpoint(endpoint, _api.authority());
        url.setScheme(_api.scheme());
        return url;
    }
    QUrl serverURLForAPIAccess() const override { return _api; }

private:
    QUrl _api;
};

} // namespace orv::bench
