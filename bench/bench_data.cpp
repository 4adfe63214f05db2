// Hex text, SHA-256 and AES against their OpenSSL peers.

#include "BenchRatios.h"

#include <OrvellaKit/ORVData.h>

#include <QByteArray>
#include <QRandomGenerator>

#include <benchmark/benchmark.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

QByteArray randomBytes(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator generator(42);
    for (auto &c : data)
        c = static_cast<char>(generator.bounded(256));
    return data;
}

// Each side produces a new hex string per iteration: ours a QString, the
// peers a std::string of the same number of characters.
void BM_HexOurs(benchmark::State &state)
{
    const QByteArray data = randomBytes(state.range(0));
    for (auto _ : state) {
        QString text = ORVBytesToHexString(data.constData(), static_cast<size_t>(data.size()));
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

void BM_HexOpenSSL(benchmark::State &state)
{
    const QByteArray data = randomBytes(state.range(0));
    for (auto _ : state) {
        std::string text(static_cast<size_t>(data.size()) * 2 + 1, '\0');
        size_t length = 0;
        OPENSSL_buf2hexstr_ex(text.data(), text.size(), &length,
                              reinterpret_cast<const unsigned char *>(data.constData()),
                              static_cast<size_t>(data.size()), '\0');
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

void BM_HexSnprintf(benchmark::State &state)
{
    const QByteArray data = randomBytes(state.range(0));
    for (auto _ : state) {
        std::string text(static_cast<size_t>(data.size()) * 2 + 1, '\0');
        char *out = text.data();
        for (const char c : data) {
            std::snprintf(out, 3, "%02X", static_cast<unsigned char>(c));
            out += 2;
        }
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

constexpr int kCryptoSize = 64 * 1024;

void BM_SHA256Ours(benchmark::State &state)
{
    const QByteArray data = randomBytes(kCryptoSize);
    for (auto _ : state) {
        QString digest = orv_SHA256String(data);
        benchmark::DoNotOptimize(digest.data());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

void BM_SHA256EVP(benchmark::State &state)
{
    const QByteArray data = randomBytes(kCryptoSize);
    for (auto _ : state) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(data.constData(), static_cast<size_t>(data.size()), digest, &length, EVP_sha256(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

const QByteArray kKey = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");

void BM_AESOurs(benchmark::State &state)
{
    const QByteArray data = randomBytes(kCryptoSize);
    for (auto _ : state) {
        auto cipher = orv_encryptedDataWithKey(data, kKey);
        benchmark::DoNotOptimize(cipher->data());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

void BM_AESEVP(benchmark::State &state)
{
    const QByteArray data = randomBytes(kCryptoSize);
    const unsigned char iv[16] = {};
    for (auto _ : state) {
        std::vector<unsigned char> out(static_cast<size_t>(data.size()) + 16);
        EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
        int moved = 0, finalMoved = 0;
        EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, reinterpret_cast<const unsigned char *>(kKey.constData()), iv);
        EVP_EncryptUpdate(ctx, out.data(), &moved, reinterpret_cast<const unsigned char *>(data.constData()),
                          static_cast<int>(data.size()));
        EVP_EncryptFinal_ex(ctx, out.data() + moved, &finalMoved);
        EVP_CIPHER_CTX_free(ctx);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

} // namespace

BENCHMARK(BM_HexOurs)->Arg(4096)->Arg(65535);
BENCHMARK(BM_HexOpenSSL)->Arg(4096)->Arg(65535);
BENCHMARK(BM_HexSnprintf)->Arg(4096)->Arg(65535);
BENCHMARK(BM_SHA256Ours);
BENCHMARK(BM_SHA256EVP);
BENCHMARK(BM_AESOurs);
BENCHMARK(BM_AESEVP);

static orv::bench::RegisterComparison hexOpenSSL("hex_vs_openssl", "BM_HexOurs", "BM_HexOpenSSL");
static orv::bench::RegisterComparison hexSnprintf("hex_vs_snprintf", "BM_HexOurs", "BM_HexSnprintf");
static orv::bench::RegisterComparison sha256("sha256_vs_evp", "BM_SHA256Ours", "BM_SHA256EVP");
static orv::bench::RegisterComparison aes("aes_vs_evp", "BM_AESOurs", "BM_AESEVP");
