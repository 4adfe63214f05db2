#include "TokenManagerFixture.h"

#include <OrvellaKit/ORVData.h>

using namespace orv::test;
using orv::server::ScriptedResponse;

namespace {

class EncryptionKeyTest : public TokenManagerTest {
protected:
    KeyResult *check(const QByteArray &key)
    {
        results.push_back(std::make_unique<KeyResult>());
        tokens->checkEncryptionKey(key, results.back()->handler());
        EXPECT_TRUE(results.back()->wait());
        return results.back().get();
    }
    std::optional<std::string> record() { return server.service().keyValue("ada", "key/keyVerification"); }
    std::vector<std::unique_ptr<KeyResult>> results;
};

} // namespace

TEST_F(EncryptionKeyTest, KeyIsMadeOnceAndKeptInTheUbiquitousStore)
{
    const auto key = tokens->encryptionKeyFromUbiquitousKeyValueStore();
    ASSERT_TRUE(key);
    EXPECT_EQ(key->size(), 16);
    EXPECT_EQ(tokens->encryptionKeyFromUbiquitousKeyValueStore(), key);
    EXPECT_EQ(ORVUbiquitousKeyValueStore::defaultStore()->dataForKey("OrvellaAccountKey-ada"), key);

    // Signed out: no key is made.
    auto signedOut = accounts->current()->copy();
    signedOut->setUsername(std::nullopt);
    accounts->setCurrent(signedOut);
    EXPECT_FALSE(tokens->encryptionKeyFromUbiquitousKeyValueStore());
}

TEST_F(EncryptionKeyTest, FirstCheckCreatesTheRecordLaterChecksVerifyIt)
{
    const QByteArray key = *tokens->encryptionKeyFromUbiquitousKeyValueStore();
    ORVUbiquitousKeyValueStore::defaultStore()->removeObjectForKey("OrvellaAccountKey-ada");

    // No record yet: the key becomes the account's key.
    const KeyResult *first = check(key);
    EXPECT_TRUE(first->success);
    EXPECT_FALSE(first->error);
    ASSERT_TRUE(record());
    EXPECT_EQ(orv_decryptedDataWithKey(QByteArray::fromStdString(*record()), key), QByteArray("ada"));
    EXPECT_EQ(server.requestCount("/keyvalue/v1/key/keyVerification"), 2u);
    ASSERT_EQ(tokens->acceptedKeys.size(), 1u);
    EXPECT_EQ(tokens->acceptedKeys[0], std::make_pair(key, QStringLiteral("ada")));

    // The record now answers: the same key is accepted and stored.
    const KeyResult *second = check(key);
    EXPECT_TRUE(second->success);
    EXPECT_EQ(tokens->acceptedKeys.size(), 2u);
    EXPECT_EQ(ORVUbiquitousKeyValueStore::defaultStore()->dataForKey("OrvellaAccountKey-ada"), key);
    EXPECT_EQ(server.requestCount("/keyvalue/v1/key/keyVerification"), 3u);

    // Right length, wrong bytes: code 14, the stored key stays.
    QByteArray wrong = key;
    wrong[0] = static_cast<char>(wrong[0] ^ 0x5a);
    const KeyResult *mismatch = check(wrong);
    EXPECT_FALSE(mismatch->success);
    EXPECT_EQ(mismatch->error.domain(), ORVOrvellaTokenManagerErrorDomain);
    EXPECT_EQ(mismatch->error.code(), 14);
    EXPECT_EQ(ORVUbiquitousKeyValueStore::defaultStore()->dataForKey("OrvellaAccountKey-ada"), key);
    EXPECT_EQ(tokens->acceptedKeys.size(), 2u);

    // Resetting makes the other key the account's key.
    KeyResult reset;
    tokens->resetEncryptionKey(wrong, reset.handler());
    ASSERT_TRUE(reset.wait());
    EXPECT_TRUE(reset.success);
    EXPECT_TRUE(check(wrong)->success);
    EXPECT_EQ(check(key)->error.code(), 14);
}

TEST_F(EncryptionKeyTest, ServerFailuresGiveCode13)
{
    const QByteArray key(16, 'k');
    server.script("GET", "/keyvalue/v1/key/keyVerification", {ScriptedResponse{500, "{}"}});
    EXPECT_EQ(check(key)->error.code(), 13);

    // A missing record whose creation fails.
    server.script("GET", "/keyvalue/v1/key/keyVerification", {ScriptedResponse{404, "{}"}});
    server.script("PUT", "/keyvalue/v1/key/keyVerification", {ScriptedResponse{503, "{}"}});
    const KeyResult *failedReset = check(key);
    EXPECT_FALSE(failedReset->success);
    EXPECT_EQ(failedReset->error.code(), 13);
    EXPECT_TRUE(tokens->acceptedKeys.empty());

    // A record that is not ciphertext at all.
    server.script("GET", "/keyvalue/v1/key/keyVerification", {ScriptedResponse{200, "plain", "text/plain"}});
    EXPECT_EQ(check(key)->error.code(), 14);

    // The server is gone: a transport error, reported as code 13 with the
    // transport error underneath.
    server.clearScripts();
    server.stop();
    const KeyResult *offline = check(key);
    EXPECT_EQ(offline->error.code(), 13);
    EXPECT_TRUE(offline->error.underlyingError());
}

TEST_F(EncryptionKeyTest, Assertions)
{
    RecordAssertions record;
    KeyResult nullKey;
    tokens->checkEncryptionKey(QByteArray(), nullKey.handler());
    auto signedOut = accounts->current()->copy();
    signedOut->setUsername(std::nullopt);
    accounts->setCurrent(signedOut);
    KeyResult noUser;
    tokens->checkEncryptionKey(QByteArray(16, 'k'), noUser.handler());
    KeyResult noUserReset;
    tokens->resetEncryptionKey(QByteArray(16, 'k'), noUserReset.handler());
    EXPECT_EQ(record.descriptions(), QStringList({"Invalid parameter not satisfying: key != nil",
                                                  "Missing Orvella account username",
                                                  "Missing Orvella account identifier"}));
    EXPECT_EQ(nullKey.calls + noUser.calls + noUserReset.calls, 3);
    EXPECT_EQ(server.requestCount("/keyvalue/v1/key/keyVerification"), 0u);
}
