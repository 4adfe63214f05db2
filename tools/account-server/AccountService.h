#pragma once

// The account logic of the reference server: accounts with passwords,
// registered devices, and access tokens. An access token is a JSON Web
// Token signed with HS256 under a key made at start, carrying "sub" (the
// user), "exp" and the generation it was issued in. A device token is
// exchanged for an access token and replaced by a new device token with each
// grant, so only the newest one works.

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace orv::server {

struct ServiceReply {
    int status = 200;
    std::string body; // JSON
};

class AccountService {
public:
    AccountService();

    // Answers the routes it knows; nothing for other paths.
    std::optional<ServiceReply> handle(const std::string &method, const std::string &path, const std::string &body,
                                       const std::string &authorization);

    void addAccount(const std::string &user, const std::string &email, const std::string &password,
                    const std::string &name = "");
    // Registers a device for the user and returns its device token.
    std::string registerDevice(const std::string &user);
    // Lifetime of new access tokens (default one hour).
    void setTokenLifetime(std::chrono::seconds lifetime);
    // Every access token issued so far is refused from now on.
    void revokeAccessTokens();
    std::string issueAccessToken(const std::string &user);
    // The user of a valid token.
    std::optional<std::string> userForAccessToken(const std::string &token) const;
    // Number of access tokens granted (by login or device exchange).
    int grants() const;

private:
    struct Account {
        std::string email;
        std::string password;
        std::string name;
    };
    ServiceReply login(const std::string &body);
    ServiceReply deviceToken(const std::string &body);
    ServiceReply details(const std::string &authorization);
    std::string newDeviceTokenLocked(const std::string &user);
    std::string issueLocked(const std::string &user);

    mutable std::mutex _lock;
    std::string _key;
    std::map<std::string, Account> _accounts;      // by user name
    std::map<std::string, std::string> _devices;   // device token to user name
    std::chrono::seconds _lifetime{3600};
    int _generation = 1;
    int _grants = 0;
};

} // namespace orv::server
