#include "OrvTestSupport.h"

#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVString.h>

#include <QCryptographicHash>

#include <atomic>
#include <thread>

using namespace orv::test;

namespace {
const QString kCombiningAcute = QString(QChar(0x0301));
const QString kGrinning = QString::fromUcs4(U"\U0001F600");
const QChar kLoneHigh(0xD83D);

QStringList sortedSuffixes(const QString &text)
{
    QStringList list = orv_suffixes(text).values();
    list.sort();
    return list;
}
} // namespace

TEST(CharacterSet, RangesCategoriesUnionsAndInversion)
{
    const auto &digits = ORVCharacterSet::decimalDigitCharacterSet();
    EXPECT_TRUE(digits.characterIsMember(u'7'));
    EXPECT_TRUE(digits.characterIsMember(QChar(0x0663))) << "Arabic-Indic three is a decimal digit";
    EXPECT_FALSE(digits.characterIsMember(u'x'));

    const ORVCharacterSet dashOrEmoji = ORVCharacterSet::characterSetWithCharactersInString(u"-")
                                            .unionWithCharacterSet(ORVCharacterSet::characterSetWithRange(0x1F600, 0x50));
    EXPECT_TRUE(dashOrEmoji.characterIsMember(u'-'));
    EXPECT_TRUE(dashOrEmoji.longCharacterIsMember(0x1F64F));
    EXPECT_FALSE(dashOrEmoji.longCharacterIsMember(0x1F650));
    const ORVCharacterSet notDigits = digits.invertedSet();
    EXPECT_FALSE(notDigits.characterIsMember(u'1'));
    EXPECT_TRUE(notDigits.characterIsMember(u'a'));
    EXPECT_TRUE(ORVCharacterSet::whitespaceAndNewlineCharacterSet().characterIsMember(QChar(0x2028)));
    EXPECT_FALSE(ORVCharacterSet::whitespaceCharacterSet().characterIsMember(u'\n'));
}

TEST(StringHelpers, ReversalKeepsComposedCharactersWhole)
{
    EXPECT_EQ(orv_reversedString("abc"), "cba");
    EXPECT_EQ(orv_reversedString("a"), "a");
    EXPECT_EQ(orv_reversedString(""), "");
    // The accent stays on its e, which comes first.
    EXPECT_EQ(orv_reversedString("abe" + kCombiningAcute), "e" + kCombiningAcute + "ba");
    EXPECT_EQ(orv_reversedString("x" + kGrinning + "y"), "y" + kGrinning + "x");
    // An unpaired surrogate is one sequence of its own, not lost.
    const QString lone = orv_reversedString(QString("a") + kLoneHigh + "b");
    EXPECT_EQ(lone.size(), 3);
    EXPECT_EQ(lone[1], kLoneHigh);
}

TEST(StringHelpers, FileNamesRemovalAndHash)
{
    EXPECT_EQ(orv_stringByNormalizingFilename("..a/b:c."), "--a-b-c-");
    EXPECT_EQ(orv_stringByNormalizingFilename("x\\y..z"), "x-y..z");
    EXPECT_EQ(orv_stringByNormalizingFilename("..."), "---");

    const auto &digits = ORVCharacterSet::decimalDigitCharacterSet();
    EXPECT_EQ(orv_stringByRemovingCharactersInSet("abc123", digits), "abc");
    EXPECT_EQ(orv_stringByRemovingCharactersInSet("1a2b3", digits), "ab");
    EXPECT_EQ(orv_stringByRemovingCharactersInSet("abc", digits), "abc");
    const auto emoji = ORVCharacterSet::characterSetWithRange(0x1F600, 1);
    EXPECT_EQ(orv_stringByRemovingCharactersInSet("a" + kGrinning + "b", emoji), "ab") << "pair removed whole";

    EXPECT_EQ(orv_SHA256String(QString("")), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
    // A plain literal, with both the text and the bytes form in sight.
    EXPECT_EQ(orv_SHA256String("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    // A non-ASCII literal too: its UTF-8 text, as the QString form hashes it.
    const QByteArray utf8("Gr\xc3\xbc\xc3\x9f" "e");
    EXPECT_EQ(orv_SHA256String("Gr\u00fc\u00dfe"),
              QString::fromLatin1(QCryptographicHash::hash(utf8, QCryptographicHash::Sha256).toHex().toUpper()));
    // Short, multi-byte and long text (the scratch buffer and the heap path)
    // all hash their UTF-8 bytes.
    for (const QString &text : {QString("abc"), QString::fromUtf8("Grüße ") + kGrinning, QString(300, QChar(0x20AC)),
                                QString(5000, u'q')}) {
        const QByteArray expected = QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex().toUpper();
        EXPECT_EQ(orv_SHA256String(text), QString::fromLatin1(expected)) << text.size();
    }
    const QByteArray withQuestionMark = QCryptographicHash::hash("a?b", QCryptographicHash::Sha256).toHex().toUpper();
    EXPECT_EQ(orv_SHA256String(QString("a") + kLoneHigh + "b"), QString::fromLatin1(withQuestionMark));
}

TEST(StringHelpers, SimpleHTMLFilteringDivRule)
{
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("a<br>b"), "a\nb");
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("a<br/>b<br />c&nbsp;d"), "a\nb\nc" + QString(QChar(0xA0)) + "d");
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("<div>x</div>y"), "x\ny");
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("a<div>b"), "a\nb");
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("a<div class=\"q\">b"), "ab") << "attributes: no newline";
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("<b><i></i></b>"), "");
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("x<unclosed"), "x");
    EXPECT_EQ(orv_stringWithSimpleHTMLFiltering("  <p>hi</p>\n"), "hi");
}

TEST(Suffixes, WordsComposedCharactersAndLimits)
{
    EXPECT_EQ(sortedSuffixes("ab cd"), (QStringList{"ab", "b", "cd", "d"}));
    EXPECT_EQ(sortedSuffixes("e" + kCombiningAcute + "x"), (QStringList{"e" + kCombiningAcute + "x", "x"}));
    EXPECT_EQ(sortedSuffixes(kGrinning + "a").size(), 2) << "no suffix starts inside the pair";
    EXPECT_TRUE(orv_suffixes("  \n ").isEmpty());

    QStringList ftsWords = orv_suffixStringForFTSIndex("Ab ab").split(' ');
    ftsWords.sort();
    EXPECT_EQ(ftsWords, (QStringList{"ab", "b"}));

    // 150 different characters (without case, so lower-casing keeps them).
    QString longWord;
    for (int i = 0; i < 150; ++i)
        longWord += QChar(0x4E00 + i);
    const QStringList suffixes = orv_suffixStringForFTSIndex(longWord).split(' ');
    EXPECT_EQ(suffixes.size(), 100);
    for (const QString &suffix : suffixes) {
        EXPECT_GE(suffix.size(), 51) << "only the 100 longest";
        EXPECT_LE(suffix.size(), ORVSuffixLengthLimit) << "each cut to its first 64 units";
    }

    // A word first met as the suffix of a longer word still adds its own
    // hundred suffixes; met again as a word, it adds nothing new.
    const QString tail = longWord.mid(30);
    QStringList both = orv_suffixStringForFTSIndex(longWord + " " + tail + " " + tail).split(' ');
    EXPECT_EQ(both.size(), 130);
    for (const QString &suffix : both)
        EXPECT_GE(suffix.size(), 21);

    // At most 10,000 words contribute.
    QStringList words;
    for (int i = 0; i < 10050; ++i)
        words << QStringLiteral("w%1").arg(i, 5, 10, QLatin1Char('0'));
    const QStringList ftsList = orv_suffixStringForFTSIndex(words.join(' ')).split(' ');
    const QSet<QString> fts(ftsList.begin(), ftsList.end());
    EXPECT_TRUE(fts.contains("w09999"));
    EXPECT_FALSE(fts.contains("w10000"));
    // Repeated words count as words visited.
    QStringList repeated(9999, QStringLiteral("same"));
    repeated << "last" << "over";
    const QString repeatedFTS = orv_suffixStringForFTSIndex(repeated.join(' '));
    EXPECT_TRUE(repeatedFTS.split(' ').contains("last"));
    EXPECT_FALSE(repeatedFTS.split(' ').contains("over"));

    // A result of megabytes (past the size whose pages are faulted in
    // ahead) holds exactly every word's cut suffixes, each once.
    QStringList many;
    QSet<QString> expected;
    quint32 letters = 7;
    for (int w = 0; w < 700; ++w) {
        QString word;
        for (int i = 0; i < 164; ++i) {
            letters = letters * 1103515245u + 12345u;
            word += QChar(u'a' + (letters >> 16) % 26);
        }
        many << word;
        for (int start = 0; start < 100; ++start)
            expected.insert(word.mid(start, ORVSuffixLengthLimit));
    }
    const QString bigString = orv_suffixStringForFTSIndex(many.join('\n'));
    EXPECT_GE(bigString.size() * qsizetype(sizeof(QChar)), qsizetype(8) << 20);
    const QStringList big = bigString.split(' ');
    EXPECT_EQ(big.size(), expected.size());
    EXPECT_EQ(QSet<QString>(big.begin(), big.end()), expected);

    // One huge word costs what its cut suffixes cost, not their full
    // lengths: a hundred of at most 64 units in the index string, and at
    // most 64 units per character in the set of all suffixes.
    QString huge;
    quint32 seed = 1;
    for (int i = 0; i < 1'000'000; ++i) {
        seed = seed * 1103515245u + 12345u;
        huge += QChar(u'a' + (seed >> 16) % 26);
    }
    EXPECT_LE(orv_suffixStringForFTSIndex(huge).size(), 100 * (ORVSuffixLengthLimit + 1));
    const QSet<QString> all = orv_suffixes(huge.left(100'000));
    qsizetype total = 0;
    for (const QString &suffix : all) {
        EXPECT_LE(suffix.size(), ORVSuffixLengthLimit);
        total += suffix.size();
    }
    EXPECT_GT(all.size(), 99'000);
    EXPECT_LE(total, 100'000 * ORVSuffixLengthLimit);
    // The cut never splits a surrogate pair.
    const QString paired = QString(63, u'a') + kGrinning + "b";
    for (const QString &suffix : orv_suffixes(paired))
        EXPECT_FALSE(suffix.back().isHighSurrogate()) << suffix.size();
    EXPECT_TRUE(orv_suffixes(paired).contains(QString(63, u'a')));

    QStringList seen;
    orv_enumerateSuffixesInSubstring("abc", [&](const QString &suffix, bool *stop) {
        seen << suffix;
        *stop = suffix == "bc";
    });
    EXPECT_EQ(seen, (QStringList{"abc", "bc"}));

    QStringList components;
    orv_enumerateComponentsSeparatedByCharacterSet("--a-bc--d", ORVCharacterSet::characterSetWithCharactersInString(u"-"),
                                                   ORVRange{1, 7}, [&](const QString &word, bool *) { components << word; });
    EXPECT_EQ(components, (QStringList{"a", "bc"}));
}

TEST(Searches, IntermittentPrefixAndSkippingRange)
{
    EXPECT_TRUE(orv_hasIntermittentPrefix("calendar", "cdr"));
    EXPECT_FALSE(orv_hasIntermittentPrefix("calendar", "rc"));
    EXPECT_FALSE(orv_hasIntermittentPrefix("", ""));
    EXPECT_TRUE(orv_hasIntermittentPrefix("x", ""));
    EXPECT_FALSE(orv_hasIntermittentPrefix("Calendar", "cal")) << "case-sensitive";

    const auto dash = ORVCharacterSet::characterSetWithCharactersInString(u"-");
    EXPECT_EQ(orv_rangeOfString("a-b-c", "abc", dash), (ORVRange{0, 5}));
    EXPECT_EQ(orv_rangeOfString("abc", "abc", dash), (ORVRange{0, 3}));
    EXPECT_EQ(orv_rangeOfString("xa-bc", "abc", dash), (ORVRange{1, 4}));
    // A shorter later span wins; an equal one does not.
    EXPECT_EQ(orv_rangeOfString("a--b a-b", "ab", dash), (ORVRange{5, 3}));
    EXPECT_EQ(orv_rangeOfString("a-b a-b", "ab", dash), (ORVRange{0, 3}));
    EXPECT_EQ(orv_rangeOfString("a-b ab", "ab", dash), (ORVRange{4, 2}));
    // A skip character at the start is not skipped.
    EXPECT_EQ(orv_rangeOfString("-ab", "ab", dash), (ORVRange{1, 2}));
    EXPECT_EQ(orv_rangeOfString("a-x", "ab", dash), (ORVRange{ORVNotFound, 0}));
    EXPECT_EQ(orv_rangeOfString("abc", "", dash), (ORVRange{ORVNotFound, 0}));
    EXPECT_EQ(orv_rangeOfString("ab", "abc", dash), (ORVRange{ORVNotFound, 0}));
}

TEST(Searches, LongestCommonSubstring)
{
    EXPECT_EQ(orv_longestCommonSubstring("xabcy", "zabcw"), "abc");
    EXPECT_EQ(orv_longestCommonSubstring("abc", "def"), "");
    EXPECT_EQ(orv_longestCommonSubstring("", "abc"), "");
    EXPECT_EQ(orv_longestCommonSubstring("Hello", "hello", ORVCaseInsensitiveSearch), "Hello");
    EXPECT_EQ(orv_longestCommonSubstring("xxHELLOyy", "hello", ORVCaseInsensitiveSearch), "hello") << "folded form";
    // Canonically equivalent text is equal text: a precomposed é and an e
    // with a combining acute accent.
    const QString composed = QString::fromUtf8("caf\u00e9");
    const QString decomposed = QString::fromUtf8("cafe\u0301");
    EXPECT_EQ(orv_longestCommonSubstring(composed, decomposed), composed);
    EXPECT_EQ(orv_longestCommonSubstring("x" + composed + "y", "z" + decomposed + "w"), composed);
    EXPECT_EQ(orv_longestCommonSubstring(QString::fromUtf8("crème brûlée"), "creme", ORVDiacriticInsensitiveSearch),
              "creme");
    EXPECT_EQ(orv_longestCommonSubstring(QString::fromUtf8("ＡＢＣd"), "abc",
                                         ORVWidthInsensitiveSearch | ORVCaseInsensitiveSearch),
              "abc");
    // Ties: the match that ends first in the receiver.
    EXPECT_EQ(orv_longestCommonSubstring("abXcd", "cdYab"), "ab");

    // The 250-character cut: a difference after it is not seen, and the
    // common run is the whole cut.
    const QString head(250, u'q');
    EXPECT_EQ(orv_longestCommonSubstring(head + QString(50, u'a'), head + QString(50, u'b')), head);
    const QString lateMatch = QString(260, u'x') + "needle";
    EXPECT_EQ(orv_longestCommonSubstring(lateMatch, "needle"), "") << "beyond the cut in the receiver";
}

TEST(StringRobustness, OddInputGivesDocumentedResults)
{
    const QString lone(kLoneHigh);
    const QString huge(1 << 20, u'z');
    for (const QString &text : {lone, QString(), QString(""), huge, lone + lone + "a", QString(QChar(0xDC00)) + "x"}) {
        EXPECT_EQ(orv_reversedString(orv_reversedString(text)).size(), text.size());
        EXPECT_EQ(orv_SHA256String(text).size(), 64);
        orv_suffixes(text.left(4096));
        orv_suffixStringForFTSIndex(text);
        orv_stringWithSimpleHTMLFiltering(text);
        orv_stringByFoldingWithOptions(text, ORVCaseInsensitiveSearch | ORVDiacriticInsensitiveSearch |
                                                 ORVWidthInsensitiveSearch);
        EXPECT_LE(orv_longestCommonSubstring(text, huge + "!").size(), 250);
        orv_rangeOfString(text, "zz", ORVCharacterSet::whitespaceCharacterSet());
    }
    EXPECT_EQ(orv_longestCommonSubstring(huge, huge + "a").size(), 250);

    RecordAssertions record;
    EXPECT_FALSE(orv_hasIntermittentPrefix("abc", QString()));
    EXPECT_EQ(orv_rangeOfString("abc", QString(), ORVCharacterSet()), (ORVRange{ORVNotFound, 0}));
    orv_enumerateSuffixesInSubstring(QString(), [](const QString &, bool *) {});
    EXPECT_EQ(record.descriptions(),
              (QStringList{"Invalid parameter not satisfying: prefix != nil",
                           "Invalid parameter not satisfying: string != nil",
                           "Invalid parameter not satisfying: substring != nil"}));
    EXPECT_EQ(record.failures().front().file, "NSString+OrvellaKit");
}

TEST(StringHelpers, ConcurrentHashingSharesTheScratchBufferSafely)
{
    // Threads that find the shared buffer taken go the heap path; every
    // digest must still be the right one.
    const QStringList texts{"alpha", "beta", QString(100, QChar(0x00E9)), QString(511, u'x')};
    QStringList expected;
    for (const QString &text : texts)
        expected << QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex().toUpper());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                const int k = (i + t) % texts.size();
                if (orv_SHA256String(texts[k]) != expected[k])
                    ++wrong;
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
}
