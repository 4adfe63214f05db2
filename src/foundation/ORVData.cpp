#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVException.h>

#include <openssl/evp.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr const char *kDataFile = "NSData+OrvellaKit";

// 256 pairs of UTF-16 code units, "00" ... "FF", so that each byte costs one
// table read and one 32-bit store.
struct HexTable {
    std::array<std::array<char16_t, 2>, 256> pairs{};
    constexpr HexTable()
    {
        constexpr char digits[] = "0123456789ABCDEF";
        for (int i = 0; i < 256; ++i)
            pairs[i] = {static_cast<char16_t>(digits[i >> 4]), static_cast<char16_t>(digits[i & 0xF])};
    }
};
constexpr HexTable kHexTable;

// The digest and cipher are fetched once: an implicit fetch per call costs a
// provider lookup each time.
const EVP_MD *sha256()
{
    static EVP_MD *md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return md ? md : EVP_sha256();
}

const EVP_CIPHER *aes128cbc()
{
    static EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    return cipher ? cipher : EVP_aes_128_cbc();
}

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX *context) const { EVP_CIPHER_CTX_free(context); }
};

} // namespace

QString ORVBytesToHexString(const void *bytes, std::size_t length)
{
    if (!ORVFunctionParameterAssert(bytes != nullptr, "bytes != NULL",
                                    "NSString * _Nonnull ORVBytesToHexString(const void * _Nonnull, NSUInteger)",
                                    kDataFile))
        return QStringLiteral("");
    // The counter is deliberately 16 bits wide.
    const quint16 count = static_cast<quint16>(length);
    if (count == 0)
        return QStringLiteral("");
    QString text(qsizetype(count) * 2, Qt::Uninitialized);
    auto *out = reinterpret_cast<char16_t *>(text.data());
    const auto *in = static_cast<const unsigned char *>(bytes);
    for (quint16 i = 0; i < count; ++i) {
        std::memcpy(out, kHexTable.pairs[in[i]].data(), sizeof(char16_t) * 2);
        out += 2;
    }
    return text;
}

QByteArray orv_dataFromHexString(const QString &string)
{
    const qsizetype length = string.size();
    // Positions follow the UTF-16 length while bytes come from the UTF-8 text,
    // which is never shorter; the byte array's terminating NUL is what an odd
    // last step reads.
    const QByteArray utf8 = string.toUtf8();
    QByteArray data;
    data.reserve(length / 2);
    const char *text = utf8.constData();
    for (qsizetype i = 0; i < length; i += 2) {
        const char pair[3] = {text[i], text[i + 1], '\0'};
        const unsigned long value = std::strtoul(pair, nullptr, 16);
        data.append(static_cast<char>(value & 0xFF));
    }
    if (data.isNull())
        data = QByteArray("", 0);
    return data;
}

QString orv_SHA256String(const QByteArray &data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_Digest(data.constData(), static_cast<size_t>(data.size()), digest, &digestLength, sha256(), nullptr) != 1)
        return QStringLiteral("");
    return ORVBytesToHexString(digest, 32);
}

std::optional<QByteArray> orv_encryptedDataWithKey(const QByteArray &data, const QByteArray &key)
{
    if (!ORVMethodParameterAssert(!key.isNull(), "key != nil", "orv_encryptedDataWithKey:", "NSData", kDataFile))
        return std::nullopt;
    return orv_dataByApplyingAESOperation(data, kCCEncrypt, key);
}

std::optional<QByteArray> orv_decryptedDataWithKey(const QByteArray &data, const QByteArray &key)
{
    if (!ORVMethodParameterAssert(!key.isNull(), "key != nil", "orv_decryptedDataWithKey:", "NSData", kDataFile))
        return std::nullopt;
    return orv_dataByApplyingAESOperation(data, kCCDecrypt, key);
}

std::optional<QByteArray> orv_dataByApplyingAESOperation(const QByteArray &data, quint32 operation,
                                                         const QByteArray &key)
{
    constexpr const char *method = "orv_dataByApplyingAESOperation:withKey:";
    if (!ORVMethodParameterAssert(!key.isNull(), "key != nil", method, "NSData", kDataFile))
        return std::nullopt;
    if (!ORVMethodParameterAssert(operation == kCCEncrypt || operation == kCCDecrypt,
                                  "operation == kCCEncrypt || operation == kCCDecrypt", method, "NSData", kDataFile))
        return std::nullopt;

    // Always exactly 16 key bytes. A shorter key is a caller error; it is
    // padded with zeros here rather than read past its end.
    unsigned char keyBytes[16] = {};
    std::memcpy(keyBytes, key.constData(), std::min<size_t>(16, static_cast<size_t>(key.size())));
    const unsigned char iv[16] = {};

    thread_local std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter> context(EVP_CIPHER_CTX_new());
    if (!context)
        return std::nullopt;
    EVP_CIPHER_CTX *ctx = context.get();
    EVP_CIPHER_CTX_reset(ctx);
    if (EVP_CipherInit_ex2(ctx, aes128cbc(), keyBytes, iv, operation == kCCEncrypt ? 1 : 0, nullptr) != 1)
        return std::nullopt;
    EVP_CIPHER_CTX_set_padding(ctx, 1);

    // Room for one block of padding, as the output buffer of the one-shot call.
    const qsizetype inputLength = data.size();
    if (inputLength > std::numeric_limits<int>::max() - 16)
        return std::nullopt;
    QByteArray output(inputLength + 16, Qt::Uninitialized);
    auto *out = reinterpret_cast<unsigned char *>(output.data());
    int moved = 0;
    int finalMoved = 0;
    if (EVP_CipherUpdate(ctx, out, &moved, reinterpret_cast<const unsigned char *>(data.constData()),
                         static_cast<int>(inputLength)) != 1 ||
        EVP_CipherFinal_ex(ctx, out + moved, &finalMoved) != 1) {
        EVP_CIPHER_CTX_reset(ctx);
        return std::nullopt;
    }
    output.truncate(moved + finalMoved);
    return output;
}
