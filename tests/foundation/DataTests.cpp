#include "OrvTestSupport.h"

#include <OrvellaKit/ORVData.h>

#include <QRandomGenerator>

using namespace orv::test;

namespace {
QByteArray bytes(std::initializer_list<unsigned char> list)
{
    QByteArray data;
    for (unsigned char c : list)
        data.append(static_cast<char>(c));
    return data;
}

const QByteArray kKey = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
} // namespace

TEST(HexString, EncodesEveryByteUpperCase)
{
    const QByteArray sample = bytes({0x00, 0xAB, 0xFF});
    EXPECT_EQ(ORVBytesToHexString(sample.constData(), 3), "00ABFF");
    EXPECT_EQ(ORVBytesToHexString(sample.constData(), 0), "");
    EXPECT_FALSE(ORVBytesToHexString(sample.constData(), 0).isNull()) << "an empty string, not nothing";

    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all.append(static_cast<char>(i));
    EXPECT_EQ(ORVBytesToHexString(all.constData(), 256), QString::fromLatin1(all.toHex().toUpper()));
}

TEST(HexString, CounterIsSixteenBitsWide)
{
    QByteArray large(65536 + 3, '\x11');
    large[0] = '\xAB';
    large[1] = '\xCD';
    large[2] = '\xEF';
    // 65,539 mod 65,536 = 3: only the first three bytes are converted.
    EXPECT_TRUE(ORVBytesToHexString(large.constData(), large.size()).startsWith("ABCDEF"));
    EXPECT_EQ(ORVBytesToHexString(large.constData(), 65536), "");
    const QByteArray justBelow(65535, '\x7f');
    EXPECT_EQ(ORVBytesToHexString(justBelow.constData(), 65535).size(), 131070);
}

TEST(HexParsing, PairsThroughStrtoul)
{
    EXPECT_EQ(orv_dataFromHexString("0aFF"), bytes({0x0A, 0xFF}));
    EXPECT_EQ(orv_dataFromHexString("ABC"), bytes({0xAB, 0x0C})) << "the odd character pairs with the NUL";
    EXPECT_EQ(orv_dataFromHexString("G1"), bytes({0x00})) << "no valid prefix";
    EXPECT_EQ(orv_dataFromHexString("1G"), bytes({0x01})) << "the valid prefix counts";
    EXPECT_EQ(orv_dataFromHexString("-1"), bytes({0xFF})) << "strtoul wraps a negative value; its low byte stays";
    EXPECT_EQ(orv_dataFromHexString(" f"), bytes({0x0F})) << "strtoul skips leading white space";
    const QByteArray empty = orv_dataFromHexString("");
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_FALSE(empty.isNull());
    // Non-ASCII text walks the UTF-8 bytes for the UTF-16 length and never
    // reads past the end.
    EXPECT_EQ(orv_dataFromHexString(QString::fromUtf8("\xC3\xA9\xC3\xA9")), bytes({0x00}));

    QByteArray random(300, '\0');
    QRandomGenerator generator(7);
    for (auto &c : random)
        c = static_cast<char>(generator.bounded(256));
    EXPECT_EQ(orv_dataFromHexString(ORVBytesToHexString(random.constData(), random.size())), random);
}

TEST(SHA256, KnownDigests)
{
    EXPECT_EQ(orv_SHA256String(QByteArray()), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
    EXPECT_EQ(orv_SHA256String("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
}

TEST(AES, MatchesIndependentCiphertext)
{
    // Produced by `openssl enc -aes-128-cbc -K 000102...0f -iv 0...0`.
    EXPECT_EQ(orv_encryptedDataWithKey("OrvellaKit", kKey), QByteArray::fromHex("2801d5e57dca5e791cc6481931a31af5"));
    EXPECT_EQ(orv_encryptedDataWithKey(QByteArray(), kKey), QByteArray::fromHex("954f64f2e4e86e9eee82d20216684899"));
}

TEST(AES, RoundTripsAndPadsToTheNextBlock)
{
    for (int length : {0, 1, 15, 16, 17, 31, 32, 1000}) {
        const QByteArray plain(length, 'x');
        const auto cipher = orv_encryptedDataWithKey(plain, kKey);
        ASSERT_TRUE(cipher) << length;
        EXPECT_EQ(cipher->size(), (length / 16 + 1) * 16) << length;
        const auto back = orv_decryptedDataWithKey(*cipher, kKey);
        ASSERT_TRUE(back) << length;
        EXPECT_EQ(*back, plain) << length;
    }
}

TEST(AES, KeyLengthIsAlwaysSixteenBytes)
{
    const QByteArray longKey = kKey + "extra bytes";
    EXPECT_EQ(orv_encryptedDataWithKey("data", longKey), orv_encryptedDataWithKey("data", kKey));
    const auto shortKey = orv_encryptedDataWithKey("data", "short");
    EXPECT_TRUE(shortKey) << "a short key is a caller error, but reads nothing past its end";
}

TEST(AES, FailuresGiveNothing)
{
    EXPECT_FALSE(orv_decryptedDataWithKey(QByteArray(15, 'a'), kKey)) << "not a multiple of the block size";
    const auto cipher = orv_encryptedDataWithKey("OrvellaKit", kKey);
    QByteArray otherKey = kKey;
    otherKey[0] = '\x7f';
    const auto wrong = orv_decryptedDataWithKey(*cipher, otherKey);
    EXPECT_TRUE(!wrong || *wrong != "OrvellaKit");

    RecordAssertions record;
    EXPECT_FALSE(orv_encryptedDataWithKey("data", QByteArray()));
    EXPECT_FALSE(orv_dataByApplyingAESOperation("data", 7, kKey));
    EXPECT_EQ(record.descriptions(),
              QStringList({"Invalid parameter not satisfying: key != nil",
                           "Invalid parameter not satisfying: operation == kCCEncrypt || operation == kCCDecrypt"}));
}
