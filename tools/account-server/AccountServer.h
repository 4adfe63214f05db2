#pragma once

// The reference account server: a real HTTP or HTTPS server on 127.0.0.1
// (cpp-httplib). Tests script it per route: a status, headers, a body, a
// delay, a redirect, a truncated body or a dropped connection, and a route
// can answer differently on each call (401, then 200). Every request it
// receives is recorded. Unscripted routes echo the request as JSON.

#include "AccountService.h"

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace orv::server {

struct ScriptedResponse {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    std::chrono::milliseconds delay{0};
    // Answers a redirect with this Location (status stays as given, 302 by default).
    std::string redirectTo;
    // Announces the body's full length but sends only this many bytes.
    long long truncateAfter = -1;
};

struct RecordedRequest {
    std::string method;
    std::string path;
    std::string body;
    std::multimap<std::string, std::string> headers; // names lower-case
    std::string header(const std::string &name) const;
    size_t headerCount(const std::string &name) const;
};

// A self-signed certificate for 127.0.0.1 and localhost, made at run time.
struct TestCertificate {
    std::string certificatePem;
    std::string privateKeyPem;
    static TestCertificate generate();
    // Writes "cert.pem" and "key.pem" into the folder; false on failure.
    bool writeTo(const std::string &folder, std::string &certificatePath, std::string &keyPath) const;
};

class AccountServer {
public:
    // With a certificate the server speaks HTTPS.
    explicit AccountServer(const TestCertificate *certificate = nullptr, const std::string &scratchFolder = "");
    ~AccountServer();
    AccountServer(const AccountServer &) = delete;
    AccountServer &operator=(const AccountServer &) = delete;

    // Listens on 127.0.0.1 (port 0: any free port); false on failure.
    bool start(int port = 0);
    void stop();
    int port() const { return _port; }
    std::string baseURL() const;

    // Queues answers for "METHOD path"; the last one repeats.
    void script(const std::string &method, const std::string &path, std::deque<ScriptedResponse> responses);
    void clearScripts();
    std::vector<RecordedRequest> requests() const;
    size_t requestCount(const std::string &path) const;
    void clearRequests();
    // Whether requests are recorded (for requests() and requestCount();
    // on at first). A long-running server turns it off: the record keeps
    // every request, headers included, and would only grow.
    void setRecordsRequests(bool records);

    // Accounts, devices and tokens; scripted answers take precedence.
    AccountService &service() { return _service; }

private:
    void handle(const void *request, void *response);

    bool _https;
    std::unique_ptr<httplib::Server> _server;
    std::thread _thread;
    int _port = 0;
    mutable std::mutex _lock;
    std::map<std::string, std::deque<ScriptedResponse>> _scripts;
    std::vector<RecordedRequest> _requests;
    bool _recordsRequests = true;
    AccountService _service;
};

} // namespace orv::server
