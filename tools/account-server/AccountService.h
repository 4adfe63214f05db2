#pragma once

// The account logic of the reference server: accounts (password, Apple,
// Google or magic-link sign-in), registered devices, access tokens and a
// small per-user key-value store.
//
// An access token is a JSON Web Token signed with HS256 under a key made at
// start, carrying "sub" (the user), "exp" and the generation it was issued
// in. A device token is exchanged for an access token and replaced by a new
// device token with each grant, so only the newest one works.
//
// Apple and Google identity tokens cannot be verified offline, so the server
// accepts only identity tokens it issued itself: those of issueIdentityToken()
// (or POST /v1/test/identity-token/), and the ID tokens of its own OpenID
// provider under /oidc/google/ and /oidc/apple/ (see AccountServiceOpenID.cpp).
// Magic sign-in tokens are issued the same way and work once.
//
// Key requests (AccountServiceKeyRequests.cpp) let a device that lacks the
// account's encryption key receive it from another of the user's devices.
// The server only relays: it keeps public keys, a commitment and the
// ciphertext, never anything that decrypts it.
//
// With a state file, everything but the issued access tokens' signatures is
// kept across restarts (the signing key is kept too, so tokens stay valid).

#include <QJsonArray>
#include <QJsonObject>
#include <QtGlobal>

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orv::server {

struct ServiceReply {
    ServiceReply(int status = 200, std::string body = {}, std::string contentType = "application/json",
                 std::vector<std::pair<std::string, std::string>> headers = {})
        : status(status), body(std::move(body)), contentType(std::move(contentType)), headers(std::move(headers))
    {
    }
    int status;
    std::string body; // JSON unless contentType says otherwise
    std::string contentType;
    std::vector<std::pair<std::string, std::string>> headers;
};

// What the provider's authorization endpoint answers without asking anyone.
struct AuthorizationAnswer {
    std::string email;      // approve as this person...
    std::string givenName;  // ...with these names (optional)
    std::string familyName;
    std::string error;      // or, when set, refuse with this OAuth error ("access_denied")
};

class AccountService {
public:
    AccountService();

    // Answers the routes it knows; nothing for other paths. `query` holds
    // the decoded query parameters.
    std::optional<ServiceReply> handle(const std::string &method, const std::string &path, const std::string &body,
                                       const std::string &authorization,
                                       const std::multimap<std::string, std::string> &query = {});

    // The server's own URL ("http://127.0.0.1:PORT"): the OpenID provider's
    // issuers are below it.
    void setBaseURL(const std::string &url);
    // The issuer of the provider "google" or "apple".
    std::string issuer(const std::string &provider) const;
    // From now on the authorization endpoint answers every request at once
    // (a redirect with a code or with the error) instead of showing its page;
    // nothing brings the page back.
    void setAuthorizationAnswer(std::optional<AuthorizationAnswer> answer);
    // The provider serves only the clients it knows ("kalendro-sample" from
    // the start), and the sign-ins accept only ID tokens issued to them.
    void addOpenIDClient(const std::string &clientId);
    // Lifetime of the provider's ID tokens (default ten minutes).
    void setIdentityTokenLifetime(std::chrono::seconds lifetime);

    // Loads the state from `path` when the file exists and saves every change
    // there from now on. False when the file exists but cannot be read.
    bool setStateFile(const std::string &path);

    void addAccount(const std::string &user, const std::string &email, const std::string &password,
                    const std::string &name = "");
    // Registers a device for the user and returns its device token.
    std::string registerDevice(const std::string &user);
    // An identity token as the provider ("apple" or "google") would give
    // for this e-mail address and name.
    std::string issueIdentityToken(const std::string &provider, const std::string &email, const std::string &name = "");
    // A one-use magic sign-in token for the e-mail address.
    std::string issueMagicToken(const std::string &email);
    // POST /v1/auth/magic/instant/ {"email": ...} "mails" a sign-in link:
    // a file in `folder` (mode 0600), holding `linkBase` + "?token=" and a
    // magic token. Without a folder the route answers 503.
    void setMailDrop(const std::string &folder, const std::string &linkBase);
    // Lifetime of new access tokens (default one hour).
    void setTokenLifetime(std::chrono::seconds lifetime);
    // Every access token issued so far is refused from now on.
    void revokeAccessTokens();
    std::string issueAccessToken(const std::string &user);
    // The user of a valid token.
    std::optional<std::string> userForAccessToken(const std::string &token) const;
    // Number of access tokens granted (by sign-in or device exchange).
    int grants() const;
    // The user name of the account with this e-mail address.
    std::optional<std::string> userForEmail(const std::string &email) const;
    // The usage-report collection endpoint (POST /v1/usage/collect/, a JSON
    // array of reports): the status it answers with (200 at first; any other
    // value refuses and keeps nothing) and the batches it accepted, each the
    // number of reports in it.
    void setCollectionStatus(int status);
    std::vector<int> collectedBatches() const;
    // Every accepted report, in order of arrival.
    std::vector<std::string> collectedReports() const;
    // A value of the user's key-value store.
    std::optional<std::string> keyValue(const std::string &user, const std::string &key) const;
    void setKeyValue(const std::string &user, const std::string &key, const std::string &value);
    // Lifetime of new key requests (default ten minutes).
    void setKeyRequestLifetime(std::chrono::seconds lifetime);
    // How many key requests an account may make per hour (default 10).
    void setKeyRequestHourlyLimit(int limit);
    // The open key requests of the user (for tests and the state file).
    int keyRequestCount(const std::string &user) const;

private:
    struct Account {
        std::string email;
        std::string password; // empty for accounts without one
        std::string name;
        std::string kind;     // "password", "apple", "google" or "magic"
    };
    struct Identity {
        std::string provider;
        std::string email;
        std::string name;
    };
    ServiceReply login(const std::string &body);
    ServiceReply identityLogin(const std::string &provider, const std::string &body);
    ServiceReply magicLogin(const std::string &body);
    ServiceReply deviceToken(const std::string &body);
    ServiceReply details(const std::string &authorization);
    ServiceReply registerAccount(const std::string &body);
    ServiceReply registerOtherDevice(const std::string &body, const std::string &authorization);
    ServiceReply keyValueRequest(const std::string &method, const std::string &key, const std::string &body,
                                 const std::string &authorization);
    ServiceReply collect(const std::string &body);
    // Key requests: /v1/account/key-requests/[<id>[/<step>]].
    struct KeyRequest {
        std::string user;
        std::string deviceName;
        std::string commitment;   // base64 of SHA-256 of the requester's public key
        std::string approverKey;  // base64 X25519 public keys, once given
        std::string requesterKey;
        std::string answer;       // base64 ciphertext, once given
        bool refused = false;
        qint64 created = 0;       // seconds since the epoch
        qint64 expires = 0;
    };
    ServiceReply keyRequests(const std::string &method, const std::string &rest, const std::string &body,
                             const std::string &authorization);
    ServiceReply createKeyRequestLocked(const std::string &user, const std::string &body);
    ServiceReply stepKeyRequestLocked(KeyRequest &request, const std::string &step, const std::string &body);
    void purgeKeyRequestsLocked();
    void loadKeyRequestsLocked(const QJsonArray &requests, const QJsonObject &times);
    QJsonArray keyRequestsJsonLocked() const;
    QJsonObject keyRequestTimesJsonLocked() const;
    ServiceReply testToken(const std::string &path, const std::string &body);
    ServiceReply mailMagicLink(const std::string &body);
    // The OpenID provider.
    struct AuthorizationCode {
        std::string provider;
        std::string clientId;
        std::string redirectURI;
        std::string challenge;
        std::string nonce;
        AuthorizationAnswer person;
        std::chrono::steady_clock::time_point expiry;
    };
    std::optional<ServiceReply> openID(const std::string &method, const std::string &provider,
                                       const std::string &route, const std::string &body,
                                       const std::multimap<std::string, std::string> &query);
    ServiceReply discovery(const std::string &provider) const;
    ServiceReply authorize(const std::string &provider, const std::multimap<std::string, std::string> &parameters,
                           bool decided);
    ServiceReply tokenGrant(const std::string &provider, const std::string &body);
    std::optional<Identity> identityFromIDToken(const std::string &provider, const std::string &token) const;
    // The reply of a successful sign-in: a new device and a first token.
    ServiceReply signedInLocked(const std::string &user);
    std::optional<std::string> userForEmailLocked(const std::string &email) const;
    std::string newUserNameLocked(const std::string &email);
    std::string newDeviceTokenLocked(const std::string &user);
    std::string issueLocked(const std::string &user);
    void saveLocked() const;

    mutable std::mutex _lock;
    std::string _key;
    std::map<std::string, Account> _accounts;                           // by user name
    std::map<std::string, std::string> _devices;                        // device token to user name
    std::map<std::string, Identity> _identityTokens;                    // identity token to identity
    std::map<std::string, std::pair<std::string, qint64>> _magicTokens; // magic token to e-mail address and expiry
    std::map<std::string, std::map<std::string, std::string>> _values;  // user to key to bytes
    int _collectionStatus = 200;
    std::vector<int> _collectedBatches;
    std::vector<std::string> _collectedReports; // compact JSON
    std::chrono::seconds _lifetime{3600};
    int _generation = 1;
    int _grants = 0;
    std::string _stateFile;
    std::string _baseURL;
    std::string _mailFolder;
    std::string _linkBase;
    int _mailsSent = 0;
    std::optional<AuthorizationAnswer> _authorizationAnswer;
    std::map<std::string, AuthorizationCode> _authorizationCodes;
    std::chrono::seconds _identityTokenLifetime{600};
    std::set<std::string> _openIDClients{"kalendro-sample"};
    std::map<std::string, KeyRequest> _keyRequests;                       // by identifier
    std::map<std::string, std::vector<qint64>> _keyRequestTimes;         // user to creation times (last hour)
    std::chrono::seconds _keyRequestLifetime{600};
    int _keyRequestHourlyLimit = 10;
};

} // namespace orv::server
