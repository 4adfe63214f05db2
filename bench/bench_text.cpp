// Text helpers: SHA-256 of short strings against OpenSSL on the UTF-8 bytes,
// the longest common substring of two 250-character strings, and how the
// full-text suffix string scales with the size of the text.

#include "BenchRatios.h"

#include <OrvellaKit/ORVString.h>

#include <QRandomGenerator>
#include <QStringList>

#include <benchmark/benchmark.h>

#include <map>
#include <openssl/evp.h>

namespace {

const QStringList &shortStrings()
{
    static const QStringList strings = [] {
        QStringList list;
        QRandomGenerator generator(7);
        for (int i = 0; i < 64; ++i) {
            QString s;
            const int length = 8 + generator.bounded(56);
            for (int k = 0; k < length; ++k)
                s += QChar(k % 11 == 10 ? 0x00E9 : u'a' + generator.bounded(26));
            list << s;
        }
        return list;
    }();
    return strings;
}

void BM_SHA256StringOurs(benchmark::State &state)
{
    const QStringList &strings = shortStrings();
    qsizetype i = 0;
    for (auto _ : state) {
        QString digest = orv_SHA256String(strings[i++ & 63]);
        benchmark::DoNotOptimize(digest.data());
    }
}

// The direct way: UTF-8 bytes, one EVP digest with a fetched algorithm,
// upper-case hex text.
void BM_SHA256StringOpenSSL(benchmark::State &state)
{
    const QStringList &strings = shortStrings();
    EVP_MD *md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    qsizetype i = 0;
    for (auto _ : state) {
        const QByteArray bytes = strings[i++ & 63].toUtf8();
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(bytes.constData(), static_cast<size_t>(bytes.size()), digest, &length, md, nullptr);
        QString text = QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(digest), 32).toHex().toUpper());
        benchmark::DoNotOptimize(text.data());
    }
    EVP_MD_free(md);
}

QString randomText(int length, quint32 seed, int alphabet)
{
    QRandomGenerator generator(seed);
    QString s;
    for (int i = 0; i < length; ++i)
        s += QChar(u'a' + generator.bounded(alphabet));
    return s;
}

void BM_LongestCommonSubstring250(benchmark::State &state)
{
    const QString a = randomText(250, 1, 4);
    const QString b = randomText(250, 2, 4);
    for (auto _ : state) {
        QString common = orv_longestCommonSubstring(a, b, ORVCaseInsensitiveSearch);
        benchmark::DoNotOptimize(common.data());
    }
}

// Words of one fixed length, as many as fill the size: 1 MiB makes about
// 2,500 words and 4 MiB about 10,000, so both stay within the 10,000 words
// that contribute and four times the text is four times the words, the
// suffix insertions and the output. One word in ten is new, the rest repeat
// earlier ones (the duplicate path of the set is measured too).
QString longWordText(qsizetype size)
{
    constexpr int wordLength = 420;
    const qsizetype wordCount = size / (wordLength + 1);
    QStringList vocabulary;
    for (qsizetype w = 0; w < (wordCount + 9) / 10; ++w)
        vocabulary << randomText(wordLength, 100 + static_cast<quint32>(w), 26);
    QStringList words;
    for (qsizetype i = 0; i < wordCount; ++i)
        words << vocabulary[i % vocabulary.size()];
    return words.join(' ');
}

void runSuffixString(benchmark::State &state, const QString &text)
{
    for (auto _ : state) {
        QString suffixes = orv_suffixStringForFTSIndex(text);
        benchmark::DoNotOptimize(suffixes.data());
    }
    state.SetBytesProcessed(state.iterations() * text.size());
}

// The same kind of text at 256 KiB, 1, 4 and 16 MiB (the argument, in KiB).
// Up to 4 MiB every word contributes, so the work is proportional to the
// size; at 16 MiB the words past the 10,000th only pass through the
// lower-casing, so the time may grow less than fourfold but never more.
// The texts are made once each and kept, as a caller would hold its text.
void BM_FTSSuffixLongWords(benchmark::State &state)
{
    static std::map<qsizetype, QString> texts;
    const qsizetype size = state.range(0) * 1024;
    auto found = texts.find(size);
    if (found == texts.end())
        found = texts.emplace(size, longWordText(size)).first;
    runSuffixString(state, found->second);
}

// Ordinary short words: past 10,000 words only the lower-casing grows.
QString shortWordText(qsizetype size)
{
    QString text;
    text.reserve(size);
    QRandomGenerator generator(3);
    while (text.size() < size) {
        text += randomText(3 + generator.bounded(8), generator.generate(), 26);
        text += u' ';
    }
    return text;
}

void BM_FTSSuffixShortWords1MiB(benchmark::State &state)
{
    static const QString text = shortWordText(1 << 20);
    runSuffixString(state, text);
}

void BM_FTSSuffixShortWords4MiB(benchmark::State &state)
{
    static const QString text = shortWordText(4 << 20);
    runSuffixString(state, text);
}

} // namespace

BENCHMARK(BM_SHA256StringOurs);
BENCHMARK(BM_SHA256StringOpenSSL);
BENCHMARK(BM_LongestCommonSubstring250)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FTSSuffixLongWords)->Arg(256)->Arg(1024)->Arg(4096)->Arg(16384)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FTSSuffixShortWords1MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FTSSuffixShortWords4MiB)->Unit(benchmark::kMillisecond);

static orv::bench::RegisterComparison sha256String("sha256string_vs_openssl", "BM_SHA256StringOurs",
                                                   "BM_SHA256StringOpenSSL");
static orv::bench::RegisterReport lcs("longest_common_substring_250", "BM_LongestCommonSubstring250");
// These two "ratios" are time(4 MiB) / time(1 MiB): 4.0 is linear growth.
// Size over size: 4.0 is linear growth, more than 4 would be worse than
// linear.
static orv::bench::RegisterComparison ftsLong1("fts_suffix_long_words_1mib_over_256kib", "BM_FTSSuffixLongWords/256",
                                               "BM_FTSSuffixLongWords/1024");
static orv::bench::RegisterComparison ftsLong("fts_suffix_long_words_4mib_over_1mib", "BM_FTSSuffixLongWords/1024",
                                              "BM_FTSSuffixLongWords/4096");
static orv::bench::RegisterComparison ftsLong16("fts_suffix_long_words_16mib_over_4mib", "BM_FTSSuffixLongWords/4096",
                                                "BM_FTSSuffixLongWords/16384");
static orv::bench::RegisterComparison ftsShort("fts_suffix_short_words_4mib_over_1mib", "BM_FTSSuffixShortWords1MiB",
                                               "BM_FTSSuffixShortWords4MiB");
