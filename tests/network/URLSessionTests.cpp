#include "AccountServerFixture.h"

#include <OrvellaKit/ORVOrvellaURLSession.h>
#include <OrvellaKit/ORVStandardPaths.h>

#include <QDir>
#include <QTcpServer>
#include <QTcpSocket>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

class URLSessionTest : public AccountServerTest {
protected:
    std::shared_ptr<ORVOrvellaURLSession> session = ORVOrvellaURLSession::foregroundSession();

    // Fetches `path` on the foreground session; true when a reply came.
    bool fetch(const QString &path, ORVURLRequestCachePolicy policy, QByteArray *body = nullptr)
    {
        ORVURLRequest request(url(path));
        request.setCachePolicy(policy);
        std::atomic<bool> done = false;
        QByteArray received;
        auto task = session->dataTaskWithURLRequest(
            request, [&](const QByteArray &data, const std::optional<ORVHTTPURLResponse> &, const ORVError &) {
                received = data;
                done = true;
            });
        if (!task)
            return false;
        task->resume();
        const bool finished = waitUntil([&] { return done.load(); });
        if (body)
            *body = received;
        return finished;
    }
};

ScriptedResponse cacheable(std::string body)
{
    // A type the server does not compress: QNetworkAccessManager does not
    // store a reply whose received size differs from its Content-Length.
    return ScriptedResponse{200, std::move(body), "application/octet-stream", {{"Cache-Control", "max-age=600"}}, 0ms, "", -1};
}

} // namespace

// Small replies come back from memory, larger ones from the disk tier, and a
// reply above a twentieth of the disk capacity is not kept at all.
TEST_F(URLSessionTest, URLCacheKeepsRepliesByTheirSize)
{
    struct Case {
        const char *path;
        size_t size;
        size_t serverHits;
    };
    const std::vector<Case> cases = {
        {"/cache/small", 200, 1},
        {"/cache/medium", 200 * 1024, 1},      // above 1 MiB / 20, below 10 MiB / 20
        {"/cache/large", 1024 * 1024, 2},      // above 10 MiB / 20
    };
    for (const Case &c : cases) {
        const std::string body = "\"" + std::string(c.size, 'c') + "\"";
        server.script("GET", c.path, {cacheable(body)});
        QByteArray first, second;
        ASSERT_TRUE(fetch(QString::fromLatin1(c.path), ORVURLRequestReturnCacheDataElseLoad, &first)) << c.path;
        ASSERT_TRUE(fetch(QString::fromLatin1(c.path), ORVURLRequestReturnCacheDataElseLoad, &second)) << c.path;
        EXPECT_EQ(first.size(), static_cast<qsizetype>(body.size())) << c.path;
        EXPECT_EQ(second, first) << c.path;
        EXPECT_EQ(server.requestCount(c.path), c.serverHits) << c.path;
    }
    // A policy that ignores the cache goes to the server even when it holds the reply.
    ASSERT_TRUE(fetch("/cache/small", ORVURLRequestReloadIgnoringLocalCacheData));
    EXPECT_EQ(server.requestCount("/cache/small"), 2u);
}

// A server that accepts and drops the connection without a byte of reply.
TEST_F(URLSessionTest, ConnectionResetWithoutAReply)
{
    QTcpServer dropper;
    ASSERT_TRUE(dropper.listen(QHostAddress::LocalHost));
    QObject::connect(&dropper, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *socket = dropper.nextPendingConnection()) {
            socket->abort();
            socket->deleteLater();
        }
    });
    ORVURLRequest urlRequest(QUrl(QStringLiteral("http://127.0.0.1:%1/reset").arg(dropper.serverPort())));
    const auto delivery = deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest));
    EXPECT_EQ(delivery->calls.load(), 1);
    EXPECT_TRUE(delivery->onMainThread);
    EXPECT_FALSE(delivery->response);
    EXPECT_EQ(delivery->error.code(), ORVURLErrorNetworkConnectionLost) << qPrintable(delivery->error.description());
    EXPECT_TRUE(manager->activeTasks().empty());
}

// The transport streams a download into the private temporary folder and the
// session then moves it to a name of its own. When the streamed file has
// vanished by then, the move fails and its error reaches the handler.
TEST_F(URLSessionTest, DownloadMoveFailureIsDelivered)
{
    const QString tmp = ORVPrivateTemporaryDirectory();
    ASSERT_TRUE(tmp.startsWith(home.path()));
    server.script("GET", "/slow-download", {ScriptedResponse{200, "payload", "text/plain", {}, 400ms, "", -1}});

    std::atomic<int> calls = 0;
    QUrl location;
    ORVError error;
    auto task = session->downloadTaskWithURLRequest(
        ORVURLRequest(url("/slow-download")),
        [&](const QUrl &l, const std::optional<ORVHTTPURLResponse> &, const ORVError &e) {
            location = l;
            error = e;
            ++calls;
        });
    ASSERT_TRUE(task);
    task->resume();
    ASSERT_TRUE(waitUntil([&] { return server.requestCount("/slow-download") == 1; }));
    const QStringList streaming = QDir(tmp).entryList(QDir::Files);
    ASSERT_EQ(streaming.size(), 1);
    ASSERT_TRUE(QFile::remove(QDir(tmp).filePath(streaming.first())));
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    spinFor(50ms);
    EXPECT_EQ(calls.load(), 1);
    EXPECT_TRUE(location.isEmpty());
    EXPECT_EQ(error.domain(), ORVCocoaErrorDomain);
    EXPECT_EQ(error.code(), 512);
    EXPECT_TRUE(QDir(tmp).entryList(QDir::Files).isEmpty()) << "no half-moved file";

    // Left alone, the same download arrives under a new name.
    calls = 0;
    task = session->downloadTaskWithURLRequest(
        ORVURLRequest(url("/slow-download")),
        [&](const QUrl &l, const std::optional<ORVHTTPURLResponse> &, const ORVError &e) {
            location = l;
            error = e;
            ++calls;
        });
    task->resume();
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_FALSE(error) << qPrintable(error.description());
    QFile moved(location.toLocalFile());
    ASSERT_TRUE(moved.open(QIODevice::ReadOnly));
    EXPECT_EQ(moved.readAll(), "payload");
}
