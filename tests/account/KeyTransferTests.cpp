// Device approval and recovery codes against the reference server. Both
// sides run in this process on the one account, each with its own objects;
// the two-home runs with real sample processes are in SampleSecurityTests.

#include "TokenManagerFixture.h"

#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVOrvellaKeyTransfer.h>

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

using namespace orv::test;

namespace {

class KeyTransferTest : public TokenManagerTest {
protected:
    void SetUp() override
    {
        TokenManagerTest::SetUp();
        accountKey = QByteArray::fromHex("00112233445566778899aabbccddeeff");
        KeyResult made;
        tokens->resetEncryptionKey(accountKey, made.handler());
        ASSERT_TRUE(made.wait());
        ASSERT_TRUE(made.success);
        tokens->acceptedKeys.clear();
    }

    // A request from "the new device", waiting.
    std::shared_ptr<ORVOrvellaKeyRequest> ask(KeyResult &outcome, QString *code)
    {
        auto request = ORVOrvellaKeyRequest::create(tokens);
        request->setPollInterval(40);
        request->start(QStringLiteral("Laptop"), [code](const QString &shown) { *code = shown; }, outcome.handler());
        EXPECT_TRUE(waitUntil([&] { return !request->identifier().isEmpty() || outcome.calls > 0; }));
        return request;
    }

    // "The old device" takes the newest open request up; its code.
    std::shared_ptr<ORVOrvellaKeyApproval> takeUp(QString *code)
    {
        QList<ORVOrvellaKeyRequestInfo> pending;
        bool listed = false;
        ORVOrvellaKeyApproval::pendingRequests(tokens, [&](const auto &requests, const ORVError &error) {
            EXPECT_FALSE(error);
            pending = requests;
            listed = true;
        });
        EXPECT_TRUE(waitUntil([&] { return listed; }));
        if (pending.isEmpty())
            return nullptr;
        auto approval = ORVOrvellaKeyApproval::create(tokens, pending.last());
        approval->setPollInterval(40);
        bool shown = false;
        approval->begin([&](const QString &c, const ORVError &error) {
            EXPECT_FALSE(error) << error.code();
            *code = c;
            shown = true;
        });
        EXPECT_TRUE(waitUntil([&] { return shown; }));
        return approval;
    }

    QByteArray accountKey;
};

} // namespace

TEST(RecoveryCodeTest, RoundTripsAndRefusesEveryMistypedCharacter)
{
    const QRegularExpression shape(QStringLiteral("^([2-9A-HJ-NP-Z]{4}-){6}[2-9A-HJ-NP-Z]{4}$"));
    for (int i = 0; i < 64; ++i) {
        QByteArray key(16, '\0');
        for (auto &byte : key)
            byte = static_cast<char>(std::rand());
        const QString code = ORVEncryptionKeyRecoveryCode(key);
        ASSERT_TRUE(shape.match(code).hasMatch()) << "key #" << i;
        EXPECT_EQ(ORVEncryptionKeyFromRecoveryCode(code), key);
        EXPECT_EQ(ORVEncryptionKeyFromRecoveryCode(code.toLower().replace('-', ' ')), key);
    }
    EXPECT_TRUE(ORVEncryptionKeyRecoveryCode(QByteArray(15, 'x')).isEmpty());

    // Any one character changed into any other is caught.
    const QByteArray key = QByteArray::fromHex("ffeeddccbbaa99887766554433221100");
    const QString code = ORVEncryptionKeyRecoveryCode(key).remove('-');
    const QString alphabet = QStringLiteral("23456789ABCDEFGHJKLMNPQRSTUVWXYZ");
    int refused = 0;
    for (int position = 0; position < code.size(); ++position) {
        for (const QChar c : alphabet) {
            if (c == code[position])
                continue;
            QString typo = code;
            typo[position] = c;
            ORVError error;
            EXPECT_FALSE(ORVEncryptionKeyFromRecoveryCode(typo, &error)) << "position " << position;
            refused += error.code() == ORVOrvellaRecoveryCodeInvalidErrorCode;
        }
    }
    EXPECT_EQ(refused, 28 * 31);

    // The reasons say what is wrong.
    ORVError error;
    EXPECT_FALSE(ORVEncryptionKeyFromRecoveryCode(code.left(27), &error));
    EXPECT_TRUE(error.localizedFailureReason().contains("this one has 27")) << error.localizedFailureReason().toStdString();
    EXPECT_FALSE(ORVEncryptionKeyFromRecoveryCode(code.left(27) + 'O', &error));
    EXPECT_TRUE(error.localizedFailureReason().contains("\"O\"")) << error.localizedFailureReason().toStdString();
}

TEST_F(KeyTransferTest, ApprovalCarriesTheKeyWhichTheServerNeverSees)
{
    QTemporaryDir folder;
    const QString statePath = folder.filePath("state.json");
    ASSERT_TRUE(server.service().setStateFile(statePath.toStdString()));
    QByteArray everything; // every state the server wrote, as it went
    const auto snapshot = [&] {
        QFile file(statePath);
        if (file.open(QIODevice::ReadOnly))
            everything += file.readAll();
    };

    KeyResult received;
    QString requesterCode;
    auto request = ask(received, &requesterCode);
    snapshot();
    QString approverCode;
    auto approval = takeUp(&approverCode);
    ASSERT_TRUE(approval);
    ASSERT_TRUE(waitUntil([&] { return !requesterCode.isEmpty(); }));
    snapshot();
    // Both devices show the same six digits.
    EXPECT_TRUE(QRegularExpression("^\\d{3} \\d{3}$").match(approverCode).hasMatch()) << approverCode.toStdString();
    EXPECT_EQ(requesterCode, approverCode);

    KeyResult sent;
    approval->approve(accountKey, approverCode.remove(' '), sent.handler());
    ASSERT_TRUE(sent.wait());
    EXPECT_TRUE(sent.success) << sent.error.code();
    snapshot();
    ASSERT_TRUE(received.wait());
    EXPECT_TRUE(received.success) << received.error.code();
    EXPECT_EQ(received.calls, 1);
    ASSERT_FALSE(tokens->acceptedKeys.empty());
    EXPECT_EQ(tokens->acceptedKeys.back().first, accountKey);
    // Answered and delivered: the server forgot the request.
    EXPECT_EQ(server.service().keyRequestCount("ada"), 0);
    snapshot();

    ASSERT_FALSE(everything.isEmpty());
    const QList<QByteArray> secrets{accountKey, accountKey.toHex(), accountKey.toBase64(),
                                    ORVEncryptionKeyRecoveryCode(accountKey).toLatin1()};
    for (int i = 0; i < secrets.size(); ++i)
        EXPECT_FALSE(everything.contains(secrets[i])) << "secret #" << i << " in the server's state";
}

TEST_F(KeyTransferTest, RefusedMismatchedTamperedWrongAndExpiredChangeNothing)
{
    // Refused on the old device.
    {
        KeyResult received;
        QString code;
        auto request = ask(received, &code);
        auto approval = takeUp(&code);
        ASSERT_TRUE(approval);
        // A code typed wrong sends nothing; the request still waits.
        KeyResult wrong;
        approval->approve(accountKey, QStringLiteral("000000") == code.remove(' ') ? "000001" : "000000", wrong.handler());
        ASSERT_TRUE(wrong.wait());
        EXPECT_EQ(wrong.error.code(), ORVOrvellaKeyApprovalCodeMismatchErrorCode);
        spinFor(150ms);
        EXPECT_EQ(received.calls, 0);
        KeyResult refused;
        approval->refuse(refused.handler());
        ASSERT_TRUE(refused.wait());
        EXPECT_TRUE(refused.success);
        ASSERT_TRUE(received.wait());
        EXPECT_EQ(received.error.code(), ORVOrvellaKeyRequestRefusedErrorCode);
    }
    // A ciphertext altered on the way: the tag does not match.
    {
        KeyResult received;
        QString code;
        auto request = ask(received, &code);
        ASSERT_TRUE(takeUp(&code));
        ORVURLRequest post(url("/v1/account/key-requests/" + request->identifier() + "/answer"));
        post.setHTTPMethod("POST");
        post.setHTTPBody(QJsonDocument(QJsonObject{{"ciphertext", QString(QByteArray(44, '\x5a').toBase64())}}).toJson());
        EXPECT_EQ(deliver(ORVOrvellaAccountRequest::requestWithURLRequest(post))->status(), 200);
        ASSERT_TRUE(received.wait());
        EXPECT_EQ(received.error.code(), ORVOrvellaKeyTransferUnverifiedErrorCode);
    }
    // Sound encryption of a key that is not the account's: the record refuses it.
    {
        KeyResult received;
        QString code;
        auto request = ask(received, &code);
        auto approval = takeUp(&code);
        ASSERT_TRUE(approval);
        KeyResult sent;
        approval->approve(QByteArray(16, '\x01'), code, sent.handler());
        ASSERT_TRUE(received.wait());
        EXPECT_EQ(received.error.code(), 14);
    }
    // Nobody answers in time.
    {
        server.service().setKeyRequestLifetime(std::chrono::seconds(1));
        KeyResult received;
        QString code;
        auto request = ask(received, &code);
        ASSERT_TRUE(waitUntil([&] { return received.calls > 0; }, 8s));
        EXPECT_EQ(received.error.code(), ORVOrvellaKeyRequestExpiredErrorCode);
        EXPECT_TRUE(code.isEmpty());
    }
    // Cancelled before the server even answered: withdrawn once it does.
    {
        server.clearRequests();
        KeyResult cancelled;
        auto request = ORVOrvellaKeyRequest::create(tokens);
        request->start(QStringLiteral("Laptop"), nullptr, cancelled.handler());
        request->cancel();
        EXPECT_EQ(cancelled.calls, 0); // never inside cancel()
        ASSERT_TRUE(cancelled.wait());
        EXPECT_TRUE(orv_isOrvellaKitCancelError(cancelled.error));
        const auto deleted = [&] {
            const auto requests = server.requests();
            return std::any_of(requests.begin(), requests.end(), [](const auto &r) { return r.method == "DELETE"; });
        };
        // (The server records a request before it acts on it: both are waited for.)
        EXPECT_TRUE(waitUntil([&] { return deleted() && server.service().keyRequestCount("ada") == 0; }));
        EXPECT_EQ(server.requestCount("/v1/account/key-requests/"), 1u);
    }
    // Signed out while waiting: the wait ends at once, nothing is kept.
    {
        server.service().setKeyRequestLifetime(std::chrono::seconds(600));
        KeyResult received;
        QString code;
        auto request = ask(received, &code);
        auto signedOut = accounts->current()->copy();
        const auto signedIn = accounts->current();
        signedOut->setUsername(std::nullopt);
        accounts->setCurrent(signedOut);
        ASSERT_TRUE(received.wait());
        EXPECT_EQ(received.error.code(), ORVOrvellaKeyTransferCannotStartErrorCode);
        accounts->setCurrent(signedIn);
    }
    // None of them kept a key or touched the record.
    EXPECT_TRUE(tokens->acceptedKeys.empty());
    const auto record = server.service().keyValue("ada", "key/keyVerification");
    ASSERT_TRUE(record);
    EXPECT_EQ(orv_decryptedDataWithKey(QByteArray::fromStdString(*record), accountKey), QByteArray("ada"));
}

TEST_F(KeyTransferTest, RecoveryCodeRestoresTheKeyAndATypoChangesNothing)
{
    KeyResult typo;
    QString code = ORVEncryptionKeyRecoveryCode(accountKey);
    code[3] = code[3] == 'A' ? 'B' : 'A';
    tokens->restoreEncryptionKeyWithRecoveryCode(code, typo.handler());
    ASSERT_TRUE(typo.wait());
    EXPECT_EQ(typo.error.code(), ORVOrvellaRecoveryCodeInvalidErrorCode);
    // Refused before the server was asked.
    EXPECT_EQ(server.requestCount("/keyvalue/v1/key/keyVerification"), 1u);

    KeyResult other;
    tokens->restoreEncryptionKeyWithRecoveryCode(ORVEncryptionKeyRecoveryCode(QByteArray(16, '\x07')), other.handler());
    ASSERT_TRUE(other.wait());
    EXPECT_EQ(other.error.code(), 14);
    EXPECT_TRUE(tokens->acceptedKeys.empty());

    KeyResult restored;
    tokens->restoreEncryptionKeyWithRecoveryCode(ORVEncryptionKeyRecoveryCode(accountKey).toLower(), restored.handler());
    ASSERT_TRUE(restored.wait());
    EXPECT_TRUE(restored.success);
    ASSERT_EQ(tokens->acceptedKeys.size(), 1u);
    EXPECT_EQ(tokens->acceptedKeys[0].first, accountKey);
}

TEST_F(KeyTransferTest, RequestsAreRateLimitedScopedOrderedAndCancellable)
{
    server.service().setKeyRequestHourlyLimit(3);
    // A cancel ends the wait once and deletes the request.
    KeyResult cancelled;
    QString code;
    auto request = ask(cancelled, &code);
    EXPECT_EQ(server.service().keyRequestCount("ada"), 1);
    request->cancel();
    request->cancel();
    ASSERT_TRUE(cancelled.wait());
    EXPECT_TRUE(orv_isOrvellaKitCancelError(cancelled.error));
    // Told of the end once the server has deleted the request.
    EXPECT_EQ(server.service().keyRequestCount("ada"), 0);
    spinFor(100ms);
    EXPECT_EQ(cancelled.calls, 1);

    // Another account sees nothing of ada's requests.
    KeyResult waiting;
    auto second = ask(waiting, &code);
    server.service().addAccount("eve", "eve@example.org", "pw", "Eve");
    const QString eve = QString::fromStdString(server.service().issueAccessToken("eve"));
    for (const auto &[method, path] : std::vector<std::pair<QString, QString>>{
             {"GET", ""}, {"GET", second->identifier()}, {"POST", second->identifier() + "/refuse"}}) {
        ORVURLRequest raw(url("/v1/account/key-requests/" + path));
        raw.setHTTPMethod(method);
        raw.setValue("Bearer " + eve, "Authorization");
        if (method == "POST")
            raw.setHTTPBody("{}");
        const auto reply = deliver(ORVOrvellaSimpleRequest::requestWithURLRequest(raw));
        EXPECT_EQ(reply->status(), path.isEmpty() ? 200 : 404) << path.toStdString();
        EXPECT_FALSE(reply->body().contains(second->identifier().toLatin1()));
    }
    // Steps out of order are refused; an answer before both keys is one.
    ORVURLRequest early(url("/v1/account/key-requests/" + second->identifier() + "/answer"));
    early.setHTTPMethod("POST");
    early.setHTTPBody(QJsonDocument(QJsonObject{{"ciphertext", QString(QByteArray(44, 'x').toBase64())}}).toJson());
    EXPECT_EQ(deliver(ORVOrvellaAccountRequest::requestWithURLRequest(early))->status(), 409);

    // Third request of the hour passes, the fourth is refused as too many.
    KeyResult third;
    auto thirdRequest = ask(third, &code);
    KeyResult fourth;
    auto fourthRequest = ask(fourth, &code);
    ASSERT_TRUE(fourth.wait());
    EXPECT_EQ(fourth.error.code(), ORVOrvellaKeyRequestRateLimitedErrorCode);
    EXPECT_EQ(third.calls, 0);
    second->cancel();
    thirdRequest->cancel();
    ASSERT_TRUE(waitUntil([&] { return waiting.calls + third.calls == 2; }));
    spinFor(100ms);
    EXPECT_EQ(waiting.calls, 1);
    EXPECT_EQ(third.calls, 1);
    EXPECT_EQ(server.service().keyRequestCount("ada"), 0);
}
