#include "AccountServer.h"

#include <httplib.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <optional>

namespace orv::server {

namespace {

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string jsonEscape(const std::string &text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
                out += buffer;
            } else {
                out += c;
            }
        }
    }
    return out;
}

bool addExtension(X509 *certificate, int nid, const char *value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (!extension)
        return false;
    const bool added = X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

std::string toPem(const std::function<int(BIO *)> &write)
{
    BIO *bio = BIO_new(BIO_s_mem());
    std::string pem;
    if (write(bio) == 1) {
        char *data = nullptr;
        const long length = BIO_get_mem_data(bio, &data);
        pem.assign(data, static_cast<size_t>(length));
    }
    BIO_free(bio);
    return pem;
}

} // namespace

std::string RecordedRequest::header(const std::string &name) const
{
    const auto it = headers.find(lower(name));
    return it == headers.end() ? std::string() : it->second;
}

size_t RecordedRequest::headerCount(const std::string &name) const
{
    return headers.count(lower(name));
}

TestCertificate TestCertificate::generate()
{
    TestCertificate result;
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    X509 *certificate = X509_new();
    if (!key || !certificate) {
        EVP_PKEY_free(key);
        X509_free(certificate);
        return result;
    }
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), static_cast<long>(std::time(nullptr)));
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 7 * 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME *name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("OrvellaKit test"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    const bool extended = addExtension(certificate, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost") &&
                          addExtension(certificate, NID_basic_constraints, "critical,CA:TRUE") &&
                          addExtension(certificate, NID_key_usage, "critical,digitalSignature,keyCertSign") &&
                          addExtension(certificate, NID_subject_key_identifier, "hash");
    if (extended && X509_sign(certificate, key, EVP_sha256()) > 0) {
        result.certificatePem = toPem([&](BIO *bio) { return PEM_write_bio_X509(bio, certificate); });
        result.privateKeyPem = toPem(
            [&](BIO *bio) { return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr); });
    }
    X509_free(certificate);
    EVP_PKEY_free(key);
    return result;
}

bool TestCertificate::writeTo(const std::string &folder, std::string &certificatePath, std::string &keyPath) const
{
    certificatePath = folder + "/cert.pem";
    keyPath = folder + "/key.pem";
    std::ofstream certificate(certificatePath), key(keyPath);
    certificate << certificatePem;
    key << privateKeyPem;
    return certificate.good() && key.good() && !certificatePem.empty();
}

AccountServer::AccountServer(const TestCertificate *certificate, const std::string &scratchFolder)
    : _https(certificate != nullptr)
{
    if (certificate) {
        std::string certificatePath, keyPath;
        const std::string folder = scratchFolder.empty() ? std::string("/tmp") : scratchFolder;
        if (certificate->writeTo(folder, certificatePath, keyPath))
            _server = std::make_unique<httplib::SSLServer>(certificatePath.c_str(), keyPath.c_str());
    } else {
        _server = std::make_unique<httplib::Server>();
    }
    if (!_server)
        return;
    // Without it a keep-alive exchange on loopback stalls on delayed ACKs.
    _server->set_tcp_nodelay(true);
    // stop() waits for idle keep-alive connections; keep that wait short.
    _server->set_keep_alive_timeout(1);
    _server->set_payload_max_length(256 * 1024 * 1024);
    // The library compresses brotli at its highest quality, which costs a
    // few milliseconds per small reply and swamps every measurement made
    // against this server; gzip stays, so clients still see encoded bodies.
    _server->set_pre_routing_handler([](const httplib::Request &request, httplib::Response &) {
        auto &headers = const_cast<httplib::Headers &>(request.headers);
        for (auto &[name, value] : headers) {
            if (lower(name) == "accept-encoding")
                value = value.find("gzip") != std::string::npos ? "gzip" : "";
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    auto handler = [this](const httplib::Request &request, httplib::Response &response) {
        handle(&request, &response);
    };
    _server->Get(".*", handler);
    _server->Post(".*", handler);
    _server->Put(".*", handler);
    _server->Patch(".*", handler);
    _server->Delete(".*", handler);
    _server->Options(".*", handler);
}

AccountServer::~AccountServer()
{
    stop();
}

bool AccountServer::start(int port)
{
    if (!_server || !_server->is_valid())
        return false;
    if (port == 0)
        _port = _server->bind_to_any_port("127.0.0.1");
    else
        _port = _server->bind_to_port("127.0.0.1", port) ? port : -1;
    if (_port <= 0)
        return false;
    _service.setBaseURL(baseURL());
    _thread = std::thread([this] { _server->listen_after_bind(); });
    return true;
}

void AccountServer::stop()
{
    if (_server)
        _server->stop();
    if (_thread.joinable())
        _thread.join();
}

std::string AccountServer::baseURL() const
{
    return std::string(_https ? "https" : "http") + "://127.0.0.1:" + std::to_string(_port);
}

void AccountServer::script(const std::string &method, const std::string &path, std::deque<ScriptedResponse> responses)
{
    std::lock_guard lock(_lock);
    _scripts[method + ' ' + path] = std::move(responses);
}

void AccountServer::clearScripts()
{
    std::lock_guard lock(_lock);
    _scripts.clear();
}

std::vector<RecordedRequest> AccountServer::requests() const
{
    std::lock_guard lock(_lock);
    return _requests;
}

size_t AccountServer::requestCount(const std::string &path) const
{
    std::lock_guard lock(_lock);
    return static_cast<size_t>(
        std::count_if(_requests.begin(), _requests.end(), [&](const auto &r) { return r.path == path; }));
}

void AccountServer::clearRequests()
{
    std::lock_guard lock(_lock);
    _requests.clear();
}

void AccountServer::setRecordsRequests(bool records)
{
    std::lock_guard lock(_lock);
    _recordsRequests = records;
    if (!records)
        _requests.clear();
}

void AccountServer::handle(const void *rawRequest, void *rawResponse)
{
    const auto &request = *static_cast<const httplib::Request *>(rawRequest);
    auto &response = *static_cast<httplib::Response *>(rawResponse);

    RecordedRequest recorded{request.method, request.path, request.body, {}};
    for (const auto &[name, value] : request.headers)
        recorded.headers.emplace(lower(name), value);

    std::optional<ScriptedResponse> scripted;
    {
        std::lock_guard lock(_lock);
        if (_recordsRequests)
            _requests.push_back(recorded);
        auto it = _scripts.find(request.method + ' ' + request.path);
        if (it != _scripts.end() && !it->second.empty()) {
            scripted = it->second.front();
            if (it->second.size() > 1)
                it->second.pop_front();
        }
    }

    if (!scripted) {
        if (auto reply = _service.handle(request.method, request.path, request.body,
                                         recorded.header("authorization"), request.params)) {
            response.status = reply->status;
            for (const auto &[name, value] : reply->headers)
                response.set_header(name, value);
            response.set_content(reply->body, reply->contentType);
            return;
        }
        // Echo: what the server saw, for tests that check headers.
        std::string json = "{\"method\":\"" + jsonEscape(request.method) + "\",\"path\":\"" + jsonEscape(request.path) +
                           "\",\"authorization\":\"" + jsonEscape(recorded.header("authorization")) +
                           "\",\"authorizationCount\":" + std::to_string(recorded.headerCount("authorization")) +
                           ",\"body\":\"" + jsonEscape(request.body) + "\"}";
        response.status = 200;
        response.set_content(json, "application/json");
        return;
    }
    if (scripted->delay.count() > 0)
        std::this_thread::sleep_for(scripted->delay);
    response.status = scripted->status;
    for (const auto &[name, value] : scripted->headers)
        response.set_header(name, value);
    if (!scripted->redirectTo.empty()) {
        if (response.status < 300 || response.status > 399)
            response.status = 302;
        response.set_header("Location", scripted->redirectTo);
    }
    if (scripted->truncateAfter >= 0) {
        auto body = std::make_shared<std::string>(scripted->body);
        const size_t sendOnly = std::min<size_t>(static_cast<size_t>(scripted->truncateAfter), body->size());
        response.set_content_provider(
            body->size(), scripted->contentType,
            [body, sendOnly](size_t offset, size_t, httplib::DataSink &sink) {
                if (offset < sendOnly) {
                    sink.write(body->data() + offset, sendOnly - offset);
                    return true;
                }
                return false; // drop the connection before the announced length
            });
        return;
    }
    response.set_content(scripted->body, scripted->contentType);
}

} // namespace orv::server
