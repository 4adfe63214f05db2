// What a hostile or failing server can make the client do: follow a
// redirect out of HTTP, carry a bearer token to another origin, answer from
// another user's cache entry, hide a server failure behind a cached reply,
// leave readable downloads behind, or pass on half a body as a success.

#include "AccountServerFixture.h"

#include <OrvellaKit/ORVOrvellaURLSession.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

class HostileServerTest : public AccountServerTest {};

QJsonObject echoed(const Delivery &delivery)
{
    return QJsonDocument::fromJson(delivery.body()).object();
}

ScriptedResponse redirectTo(int status, const std::string &location)
{
    return ScriptedResponse{status, "", "text/plain", {}, 0ms, location};
}

ScriptedResponse cacheable(std::string body, std::vector<std::pair<std::string, std::string>> extra = {})
{
    extra.emplace_back("Cache-Control", "max-age=600");
    return ScriptedResponse{200, std::move(body), "application/octet-stream", std::move(extra)};
}

// Every regular file under `folder`, with its permission bits.
std::map<QString, QFile::Permissions> filesUnder(const QString &folder)
{
    std::map<QString, QFile::Permissions> files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files[path] = QFile::permissions(path);
    }
    return files;
}

mode_t modeOf(const QString &path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return info.st_mode & 07777;
}

} // namespace

// A server's redirect to a local file, a data: or a qrc: URL is refused on
// both sessions: the file is never read and never reaches the handler.
TEST_F(HostileServerTest, RedirectsOnlyEverLeadToHTTP)
{
    const QString secretPath = home.filePath("secret.txt");
    QFile secret(secretPath);
    ASSERT_TRUE(secret.open(QIODevice::WriteOnly));
    secret.write("the user's private notes");
    secret.close();
    const std::vector<std::string> locations = {
        QUrl::fromLocalFile(secretPath).toString().toStdString(),
        "data:text/plain,the%20server%27s%20own%20body",
        "qrc:/qt-project.org/qmime/freedesktop.org.xml",
        "ftp://127.0.0.1/secret.txt",
    };
    for (const std::string &location : locations) {
        for (const bool background : {false, true}) {
            const std::string path = "/away/" + std::to_string(background);
            server.script("GET", path, {redirectTo(302, location)});
            std::shared_ptr<ORVOrvellaRequest> request;
            if (background)
                request = BackgroundAccountRequest::make(ORVURLRequest(url(QString::fromStdString(path))));
            else
                request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url(QString::fromStdString(path))));
            const auto delivery = deliver(request);
            const std::string what = location + (background ? " (background)" : " (foreground)");
            EXPECT_EQ(delivery->calls.load(), 1) << what;
            EXPECT_EQ(delivery->error.domain(), ORVURLErrorDomain) << what;
            EXPECT_EQ(delivery->error.code(), ORVURLErrorUnsupportedURL) << what;
            EXPECT_FALSE(delivery->body().contains("private notes")) << what;
            EXPECT_FALSE(delivery->body().contains("own body")) << what;
            EXPECT_FALSE(delivery->data) << what;
        }
    }
    EXPECT_TRUE(manager->activeTasks().empty());
}

// The bearer token goes to the origin it was made for and nowhere else:
// not to another port of the same host, never in clear text after a
// downgrade from https, and within its own origin it stays with a POST.
TEST_F(HostileServerTest, TheBearerTokenStaysWithItsOrigin)
{
    orv::server::AccountServer other;
    ASSERT_TRUE(other.start());
    const std::string otherBase = other.baseURL();

    // Same host, another port: another origin.
    server.script("POST", "/moved", {redirectTo(307, otherBase + "/target")});
    ORVURLRequest post(url("/moved"));
    post.setHTTPMethod("POST");
    post.setHTTPBody("payload");
    auto toOtherPort = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(post));
    ASSERT_EQ(other.requestCount("/target"), 1u);
    EXPECT_EQ(other.requests().back().headerCount("authorization"), 0u);
    EXPECT_EQ(echoed(*toOtherPort).value("authorizationCount").toInt(), 0);

    // Within the origin a POST keeps its headers, the token among them.
    server.script("POST", "/here", {redirectTo(307, "/landed")});
    ORVURLRequest within(url("/here"));
    within.setHTTPMethod("POST");
    within.setHTTPBody("payload");
    within.setValue("text/plain", "Content-Type");
    auto kept = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(within));
    EXPECT_EQ(echoed(*kept).value("authorization").toString(), "Bearer test-token");
    EXPECT_EQ(echoed(*kept).value("body").toString(), "payload");

    // A GET that leaves the origin leaves its token behind.
    other.script("GET", "/bounce", {redirectTo(302, server.baseURL() + "/home")});
    server.script("GET", "/out", {redirectTo(302, otherBase + "/bounce")});
    auto bounced = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/out"))));
    ASSERT_EQ(other.requestCount("/bounce"), 1u);
    EXPECT_EQ(other.requests().back().headerCount("authorization"), 0u);
    EXPECT_EQ(echoed(*bounced).value("path").toString(), "/home");
    other.stop();
}

TEST(HostileHTTPSServer, ADowngradeToHTTPIsRefused)
{
    TemporaryXdgHome home;
    const auto certificate = orv::server::TestCertificate::generate();
    ASSERT_FALSE(certificate.certificatePem.empty());
    orv::server::AccountServer secure(&certificate, home.path().toStdString());
    ASSERT_TRUE(secure.start());
    orv::server::AccountServer plain;
    ASSERT_TRUE(plain.start());
    // The same host on the plain server's port: only the scheme differs in
    // what the client is told to do.
    const QUrl api(QString::fromStdString(secure.baseURL()) + "/");
    ORVRegisterOrvellaAccountFetchBlock([api] { return std::make_shared<ServerAccount>(api); });
    ORVURLSessionConfiguration::setDefaultCACertificates(
        QSslCertificate::fromData(QByteArray::fromStdString(certificate.certificatePem)));
    auto manager = std::make_shared<ORVOrvellaNetworkManager>();
    auto provider = std::make_shared<MemoryTokenProvider>();
    manager->setTokenProvider(provider);

    for (const char *method : {"POST", "GET"}) {
        const std::string path = std::string("/down/") + method;
        secure.script(method, path, {redirectTo(307, plain.baseURL() + "/cleartext")});
        ORVURLRequest request(api.resolved(QUrl(QString::fromStdString(path.substr(1)))));
        request.setHTTPMethod(method);
        if (std::string(method) == "POST")
            request.setHTTPBody("{\"password\":\"hunter2\"}");
        Delivery delivery;
        auto accountRequest = ORVOrvellaAccountRequest::requestWithURLRequest(request);
        accountRequest->setCompletionHandler(delivery.handler());
        manager->startRequest(accountRequest);
        ASSERT_TRUE(delivery.waitForCall()) << method;
        EXPECT_EQ(delivery.calls.load(), 1) << method;
        EXPECT_TRUE(delivery.error) << method;
        EXPECT_FALSE(delivery.response) << method;
    }
    EXPECT_EQ(plain.requestCount("/cleartext"), 0u) << "nothing, neither token nor body, went out in clear text";
    ORVURLSessionConfiguration::setDefaultCACertificates({});
    manager.reset();
    spinFor(20ms);
    secure.stop();
    plain.stop();
}

// A reply fetched with one user's token is never served to another's, and
// a request that asks to ignore local data gets what the server says.
TEST_F(HostileServerTest, TheCacheKeepsUsersApartAndNeverHidesTheServer)
{
    server.script("GET", "/v1/profile", {cacheable("{\"user\":\"ada\"}"), cacheable("{\"user\":\"grace\"}")});
    provider->token = "token-of-ada";
    auto first = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/profile"))));
    EXPECT_EQ(echoed(*first).value("user").toString(), "ada");
    // Signed out and in again as someone else, in the same process.
    provider->token = "token-of-grace";
    auto second = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/profile"))));
    EXPECT_EQ(echoed(*second).value("user").toString(), "grace");
    EXPECT_EQ(server.requestCount("/v1/profile"), 2u);

    // A server failure reaches the caller as it came, whatever was cached.
    for (const int failure : {500, 503}) {
        for (const bool authorised : {true, false}) {
            const std::string path = "/v1/record/" + std::to_string(failure) + (authorised ? "/a" : "/s");
            server.script("GET", path, {cacheable("{\"record\":\"old\"}", {{"ETag", "\"v1\""}}),
                                        ScriptedResponse{failure, "{\"code\":\"down\"}"}});
            const auto make = [&](ORVURLRequestCachePolicy policy) -> std::shared_ptr<ORVOrvellaRequest> {
                ORVURLRequest request(url(QString::fromStdString(path)));
                request.setCachePolicy(policy);
                if (authorised)
                    return ORVOrvellaAccountRequest::requestWithURLRequest(request);
                return ORVOrvellaSimpleRequest::requestWithURLRequest(request);
            };
            const std::string what = path;
            auto first = deliver(make(ORVURLRequestUseProtocolCachePolicy));
            EXPECT_EQ(first->status(), 200) << what;
            auto failed = deliver(make(ORVURLRequestReloadIgnoringLocalAndRemoteCacheData));
            EXPECT_EQ(failed->calls.load(), 1) << what;
            EXPECT_EQ(server.requestCount(path), 2u) << what;
            EXPECT_EQ(failed->status(), failure) << what;
            EXPECT_EQ(echoed(*failed).value("code").toString(), "down") << what;
        }
    }

    // A stored reply that must be revalidated first: the server's failure
    // comes through, not the stored copy.
    server.script("GET", "/v1/stale",
                  {ScriptedResponse{200, "{\"record\":\"old\"}", "application/json",
                                    {{"Cache-Control", "no-cache"}, {"ETag", "\"v1\""}}},
                   ScriptedResponse{503, "{\"code\":\"down\"}"}});
    auto fresh = deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/v1/stale"))));
    EXPECT_EQ(fresh->status(), 200);
    auto revalidated = deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/v1/stale"))));
    EXPECT_EQ(revalidated->calls.load(), 1);
    EXPECT_EQ(server.requestCount("/v1/stale"), 2u);
    EXPECT_EQ(revalidated->status(), 503);
    EXPECT_EQ(echoed(*revalidated).value("code").toString(), "down");

    // A request that ignores local data does not even revalidate: a 304 it
    // did not ask for is delivered as it came, not replaced by the cache.
    server.script("GET", "/v1/plain", {cacheable("cached body", {{"ETag", "\"e\""}}), ScriptedResponse{304, ""}});
    auto cached = deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/v1/plain"))));
    EXPECT_EQ(cached->body(), "cached body");
    ORVURLRequest reload(url("/v1/plain"));
    reload.setCachePolicy(ORVURLRequestReloadIgnoringLocalCacheData);
    auto reloaded = deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(reload));
    EXPECT_EQ(server.requestCount("/v1/plain"), 2u);
    EXPECT_EQ(reloaded->status(), 304);
    EXPECT_NE(reloaded->body(), "cached body");
    const auto sent = server.requests().back();
    EXPECT_EQ(sent.headerCount("if-none-match"), 0u);
}

// A body cut short is a transport error: no partial bytes and no response
// come with it. An empty body of a success is empty data, not nothing.
TEST_F(HostileServerTest, TransportErrorsCarryNoPartialBodyAndEmptyBodiesAreData)
{
    server.script("GET", "/cut", {ScriptedResponse{200, std::string(100000, 'x'), "text/plain", {}, 0ms, "", 1000}});
    server.script("GET", "/empty", {ScriptedResponse{204, "", "text/plain"}});
    server.script("GET", "/empty200", {ScriptedResponse{200, "", "text/plain"}});
    for (const bool background : {false, true}) {
        for (const bool account : {true, false}) {
            const auto make = [&](const QString &path) -> std::shared_ptr<ORVOrvellaRequest> {
                ORVURLRequest request(url(path));
                if (background)
                    return BackgroundAccountRequest::make(request);
                if (account)
                    return ORVOrvellaAccountRequest::requestWithURLRequest(request);
                return ORVOrvellaSimpleRequest::requestWithURLRequest(request);
            };
            if (background && !account)
                continue;
            const std::string what = std::string(background ? "background" : "foreground") + (account ? " account" : " simple");
            auto cut = deliver(make("/cut"));
            EXPECT_EQ(cut->calls.load(), 1) << what;
            EXPECT_EQ(cut->error.code(), ORVURLErrorNetworkConnectionLost) << what;
            EXPECT_FALSE(cut->data) << what;
            EXPECT_FALSE(cut->response) << what;

            for (const QString &path : {QStringLiteral("/empty"), QStringLiteral("/empty200")}) {
                auto empty = deliver(make(path));
                EXPECT_FALSE(empty->error) << what << qPrintable(empty->error.description());
                ASSERT_TRUE(empty->data) << what << " " << qPrintable(path);
                EXPECT_TRUE(empty->data->data().isEmpty()) << what;
                EXPECT_FALSE(empty->data->data().isNull()) << what;
                if (empty->data->url().isLocalFile())
                    QFile::remove(empty->data->url().toLocalFile());
            }
        }
    }
}

// Downloads are streamed and kept in a folder of the user's own with mode
// 0600, never in the shared temporary folder; what the caller never sees is
// removed.
TEST_F(HostileServerTest, DownloadsArePrivateAndNothingIsLeftBehind)
{
    const QString sharedTmp = home.filePath("shared-tmp");
    ASSERT_TRUE(QDir().mkpath(sharedTmp));
    qputenv("TMPDIR", sharedTmp.toUtf8());

    server.script("GET", "/download", {ScriptedResponse{200, "private bytes", "text/plain", {}, 400ms}});
    auto request = BackgroundAccountRequest::make(ORVURLRequest(url("/download")));
    Delivery delivery;
    request->setCompletionHandler(delivery.handler());
    manager->startRequest(request);
    ASSERT_TRUE(waitUntil([&] { return server.requestCount("/download") == 1; }));
    // While the body is on its way, the file it streams into is the user's alone.
    const auto streaming = filesUnder(home.path());
    ASSERT_FALSE(streaming.empty());
    for (const auto &[path, permissions] : streaming) {
        EXPECT_FALSE(path.startsWith(sharedTmp)) << qPrintable(path);
        EXPECT_EQ(modeOf(path), 0600u) << qPrintable(path);
        EXPECT_EQ(modeOf(QFileInfo(path).path()) & 0077, 0u) << qPrintable(QFileInfo(path).path());
    }
    ASSERT_TRUE(delivery.waitForCall());
    ASSERT_TRUE(delivery.data);
    const QString kept = delivery.data->url().toLocalFile();
    EXPECT_FALSE(kept.startsWith(sharedTmp));
    EXPECT_EQ(modeOf(kept), 0600u);
    EXPECT_EQ(delivery.data->data(), "private bytes");
    EXPECT_TRUE(QFile::remove(kept));

    // A simple request receives bytes, so its file has no reader left.
    // Neither has the file of a request cancelled on its way.
    server.script("GET", "/simple-download", {ScriptedResponse{200, "simple bytes", "text/plain"}});
    auto simple = BackgroundSimpleRequest::make(ORVURLRequest(url("/simple-download")));
    auto simpleDelivery = deliver(simple);
    EXPECT_EQ(simpleDelivery->body(), "simple bytes");
    auto cancelled = BackgroundAccountRequest::make(ORVURLRequest(url("/download")));
    manager->startRequest(cancelled);
    ASSERT_TRUE(waitUntil([&] { return server.requestCount("/download") == 2; }));
    manager->cancelTasksWithIdentifiers({cancelled->identifier()});
    spinFor(700ms);
    EXPECT_TRUE(filesUnder(home.path()).empty()) << filesUnder(home.path()).size();
    EXPECT_TRUE(filesUnder(sharedTmp).empty());
}

// A write that fails part-way (here the file size limit; a full disk fails
// the same way) ends the download with an error instead of a short file.
TEST_F(HostileServerTest, AFailedWriteIsAnErrorNotATruncatedSuccess)
{
    std::string big(4 * 1024 * 1024, 'b');
    server.script("GET", "/big", {ScriptedResponse{200, big, "application/octet-stream"}});
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limited = saved;
    limited.rlim_cur = 256 * 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    auto request = BackgroundAccountRequest::make(ORVURLRequest(url("/big")));
    auto delivery = deliver(request);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(delivery->calls.load(), 1);
    EXPECT_TRUE(delivery->error);
    EXPECT_EQ(delivery->error.code(), ORVURLErrorCannotWriteToFile) << qPrintable(delivery->error.description());
    EXPECT_FALSE(delivery->data);
    EXPECT_TRUE(filesUnder(home.path()).empty());
}

// A server's cookie is not kept between requests: it would go with every
// later request of the session, whoever is signed in by then.
TEST_F(HostileServerTest, CookiesAreNotCarriedFromOneRequestToTheNext)
{
    server.script("GET", "/v1/session",
                  {ScriptedResponse{200, "{}", "application/json", {{"Set-Cookie", "session=ada-secret; Path=/"}}}});
    deliver(ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/session"))));
    deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(ORVURLRequest(url("/v1/session"))));
    auto next = deliver(ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url("/v1/next"))));
    EXPECT_EQ(next->status(), 200);
    for (const auto &request : server.requests())
        EXPECT_EQ(request.headerCount("cookie"), 0u) << request.path;
}
