#include <OrvellaKit/ORVString.h>

#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVException.h>

#include <QStringBuilder>
#include <QTextBoundaryFinder>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>
#include <mutex>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {
constexpr const char kStringFile[] = "NSString+OrvellaKit";

// Every line below is a part of a union: members are the code points in one
// of the ranges or of one of the categories, inverted when asked.
struct SetTerm {
    std::vector<std::pair<char32_t, char32_t>> ranges; // inclusive, sorted
    quint64 categories = 0;                            // bit per QChar::Category
    bool inverted = false;

    bool contains(char32_t c) const
    {
        bool member = c <= 0x10FFFF && (categories >> QChar::category(c) & 1U) != 0;
        if (!member) {
            auto it = std::upper_bound(ranges.begin(), ranges.end(), c,
                                       [](char32_t value, const auto &range) { return value < range.first; });
            member = it != ranges.begin() && c <= std::prev(it)->second;
        }
        return member != inverted;
    }
};

quint64 categoryBits(std::initializer_list<QChar::Category> categories)
{
    quint64 bits = 0;
    for (QChar::Category category : categories)
        bits |= quint64(1) << category;
    return bits;
}
} // namespace

// A set is a union of terms and of other sets, inverted as a whole when
// asked; unions and inversions share their operands instead of copying them.
struct ORVCharacterSet::Part {
    std::vector<SetTerm> terms;
    std::vector<std::shared_ptr<const Part>> children;
    bool inverted = false;
    std::bitset<128> ascii;

    bool slowContains(char32_t c) const
    {
        bool member = std::any_of(terms.begin(), terms.end(), [c](const SetTerm &t) { return t.contains(c); });
        if (!member)
            member = std::any_of(children.begin(), children.end(),
                                 [c](const auto &child) { return child->contains(c); });
        return member != inverted;
    }
    bool contains(char32_t c) const { return c < 128 ? ascii[c] : slowContains(c); }
    static std::shared_ptr<const Part> make(std::vector<SetTerm> terms, std::vector<std::shared_ptr<const Part>> children,
                                            bool inverted)
    {
        auto part = std::make_shared<Part>();
        part->terms = std::move(terms);
        part->children = std::move(children);
        part->inverted = inverted;
        for (char32_t c = 0; c < 128; ++c)
            part->ascii[c] = part->slowContains(c);
        return part;
    }
};

ORVCharacterSet::ORVCharacterSet() : _part(Part::make({}, {}, false)) {}

bool ORVCharacterSet::longCharacterIsMember(char32_t codePoint) const
{
    return _part->contains(codePoint);
}

ORVCharacterSet ORVCharacterSet::characterSetWithCharactersInString(QStringView characters)
{
    SetTerm term;
    for (char32_t c : characters.toUcs4())
        term.ranges.emplace_back(c, c);
    std::sort(term.ranges.begin(), term.ranges.end());
    ORVCharacterSet set;
    set._part = Part::make({std::move(term)}, {}, false);
    return set;
}

ORVCharacterSet ORVCharacterSet::characterSetWithRange(char32_t first, char32_t count)
{
    SetTerm term;
    if (count > 0)
        term.ranges.emplace_back(first, first + (count - 1));
    ORVCharacterSet set;
    set._part = Part::make({std::move(term)}, {}, false);
    return set;
}

ORVCharacterSet ORVCharacterSet::characterSetWithCategories(std::initializer_list<QChar::Category> categories)
{
    SetTerm term;
    term.categories = categoryBits(categories);
    ORVCharacterSet set;
    set._part = Part::make({std::move(term)}, {}, false);
    return set;
}

const ORVCharacterSet &ORVCharacterSet::whitespaceCharacterSet()
{
    static const ORVCharacterSet set = characterSetWithCategories({QChar::Separator_Space})
                                           .unionWithCharacterSet(characterSetWithCharactersInString(u"\t"));
    return set;
}

const ORVCharacterSet &ORVCharacterSet::newlineCharacterSet()
{
    static const ORVCharacterSet set = characterSetWithCharactersInString(u"\n\u000B\u000C\r\u0085\u2028\u2029");
    return set;
}

const ORVCharacterSet &ORVCharacterSet::whitespaceAndNewlineCharacterSet()
{
    static const ORVCharacterSet set = whitespaceCharacterSet().unionWithCharacterSet(newlineCharacterSet());
    return set;
}

const ORVCharacterSet &ORVCharacterSet::decimalDigitCharacterSet()
{
    static const ORVCharacterSet set = characterSetWithCategories({QChar::Number_DecimalDigit});
    return set;
}

const ORVCharacterSet &ORVCharacterSet::letterCharacterSet()
{
    static const ORVCharacterSet set = characterSetWithCategories(
        {QChar::Letter_Uppercase, QChar::Letter_Lowercase, QChar::Letter_Titlecase, QChar::Letter_Modifier,
         QChar::Letter_Other, QChar::Mark_NonSpacing, QChar::Mark_SpacingCombining, QChar::Mark_Enclosing});
    return set;
}

const ORVCharacterSet &ORVCharacterSet::alphanumericCharacterSet()
{
    static const ORVCharacterSet set = letterCharacterSet().unionWithCharacterSet(characterSetWithCategories(
        {QChar::Number_DecimalDigit, QChar::Number_Letter, QChar::Number_Other}));
    return set;
}

const ORVCharacterSet &ORVCharacterSet::punctuationCharacterSet()
{
    static const ORVCharacterSet set = characterSetWithCategories(
        {QChar::Punctuation_Connector, QChar::Punctuation_Dash, QChar::Punctuation_Open, QChar::Punctuation_Close,
         QChar::Punctuation_InitialQuote, QChar::Punctuation_FinalQuote, QChar::Punctuation_Other});
    return set;
}

ORVCharacterSet ORVCharacterSet::invertedSet() const
{
    ORVCharacterSet set;
    set._part = Part::make({}, {_part}, true);
    return set;
}

ORVCharacterSet ORVCharacterSet::unionWithCharacterSet(const ORVCharacterSet &other) const
{
    ORVCharacterSet set;
    set._part = Part::make({}, {_part, other._part}, false);
    return set;
}

// ---------------------------------------------------------------------------

namespace {
// Start positions of the composed characters of `text`, plus its length.
// Text below U+0300 has no combining sequences except CR LF, so every unit
// starts one there.
std::vector<qsizetype> composedBoundaries(QStringView text)
{
    std::vector<qsizetype> boundaries;
    boundaries.reserve(static_cast<size_t>(text.size()) + 1);
    const bool simple = std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x300; }) &&
                        !text.contains(u"\r\n");
    if (simple) {
        for (qsizetype i = 0; i <= text.size(); ++i)
            boundaries.push_back(i);
        return boundaries;
    }
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text.data(), static_cast<int>(text.size()));
    boundaries.push_back(0);
    for (qsizetype next = finder.toNextBoundary(); next > 0; next = finder.toNextBoundary())
        boundaries.push_back(next);
    if (boundaries.back() != text.size())
        boundaries.push_back(text.size());
    return boundaries;
}

bool isWordSeparator(QChar c)
{
    return ORVCharacterSet::whitespaceAndNewlineCharacterSet().characterIsMember(c);
}

// Hands every word (maximal run of non-separators) of `text` to `visit`,
// which answers whether to go on.
template<class Visit>
void forEachWord(QStringView text, const ORVCharacterSet &separators, Visit visit)
{
    // Texts are mostly ASCII: answer those from a local table, without a
    // call per character.
    std::array<bool, 128> ascii{};
    for (char32_t c = 0; c < 128; ++c)
        ascii[c] = separators.longCharacterIsMember(c);
    const auto isSeparator = [&](QChar c) {
        return c.unicode() < 128 ? ascii[c.unicode()] : separators.characterIsMember(c);
    };
    qsizetype i = 0;
    const qsizetype n = text.size();
    while (i < n) {
        while (i < n && isSeparator(text[i]))
            ++i;
        const qsizetype start = i;
        while (i < n && !isSeparator(text[i]))
            ++i;
        if (i > start && !visit(text.mid(start, i - start)))
            return;
    }
}

// The first ORVSuffixLengthLimit UTF-16 units of a suffix, never cutting a
// surrogate pair in two.
QStringView boundedSuffix(QStringView suffix)
{
    if (suffix.size() <= ORVSuffixLengthLimit)
        return suffix;
    qsizetype cut = ORVSuffixLengthLimit;
    if (suffix[cut - 1].isHighSurrogate())
        --cut;
    return suffix.first(cut);
}

// Hands the suffixes of `word` longest first to `visit` (answers whether to
// go on).
template<class Visit>
void forEachSuffix(QStringView word, Visit visit)
{
    // The boundaries are taken as the walk goes instead of listed first: a
    // caller that stops after a hundred suffixes of a huge word needs no
    // list of all of them (the finder still reads the whole word once).
    const qsizetype size = word.size();
    const bool simple = std::all_of(word.begin(), word.end(), [](QChar c) { return c.unicode() < 0x300; }) &&
                        !word.contains(u"\r\n");
    if (simple) {
        for (qsizetype start = 0; start < size; ++start)
            if (!visit(word.mid(start)))
                return;
        return;
    }
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, word.data(), size);
    for (qsizetype start = 0; start < size;) {
        if (!visit(word.mid(start)))
            return;
        const qsizetype next = finder.toNextBoundary();
        if (next <= start)
            return;
        start = next;
    }
}
} // namespace

QString orv_reversedString(const QString &string)
{
    if (string.size() <= 1)
        return string;
    const std::vector<qsizetype> boundaries = composedBoundaries(string);
    QString reversed;
    reversed.reserve(string.size());
    for (size_t k = boundaries.size() - 1; k > 0; --k)
        reversed.append(QStringView(string).mid(boundaries[k - 1], boundaries[k] - boundaries[k - 1]));
    return reversed;
}

QString orv_stringByNormalizingFilename(const QString &string)
{
    if (string.isEmpty())
        return string;
    QString name = string;
    for (QChar &c : name)
        if (c == u':' || c == u'/' || c == u'\\')
            c = u'-';
    for (qsizetype i = 0; i < name.size() && name[i] == u'.'; ++i)
        name[i] = u'-';
    for (qsizetype i = name.size() - 1; i >= 0 && name[i] == u'.'; --i)
        name[i] = u'-';
    return name;
}

QString orv_stringByRemovingCharactersInSet(const QString &string, const ORVCharacterSet &characterSet)
{
    // Backwards, so the positions still to visit stay valid; the copy is
    // made at the first removal only.
    QString result;
    bool copied = false;
    for (qsizetype i = string.size() - 1; i >= 0; --i) {
        const QChar c = string[i];
        qsizetype start = i;
        char32_t codePoint = c.unicode();
        if (c.isLowSurrogate() && i > 0 && string[i - 1].isHighSurrogate()) {
            codePoint = QChar::surrogateToUcs4(string[i - 1], c);
            start = i - 1;
        }
        if (characterSet.longCharacterIsMember(codePoint)) {
            if (!copied) {
                result = string;
                copied = true;
            }
            result.remove(start, i - start + 1);
        }
        i = start;
    }
    return copied ? result : string;
}

namespace {
// UTF-16 to UTF-8 with "?" for an unpaired surrogate. Writes at most
// `capacity` bytes and answers the number written, or -1 when it did not fit.
qsizetype encodeUtf8(QStringView text, char *out, qsizetype capacity)
{
    qsizetype written = 0;
    const qsizetype n = text.size();
    for (qsizetype i = 0; i < n; ++i) {
        char32_t c = text[i].unicode();
        if (QChar::isHighSurrogate(c) && i + 1 < n && QChar::isLowSurrogate(text[i + 1].unicode())) {
            c = QChar::surrogateToUcs4(static_cast<char16_t>(c), text[i + 1].unicode());
            ++i;
        } else if (QChar::isSurrogate(c)) {
            c = u'?';
        }
        const int bytes = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
        if (written + bytes > capacity)
            return -1;
        if (out) {
            char *p = out + written;
            switch (bytes) {
            case 1:
                p[0] = static_cast<char>(c);
                break;
            case 2:
                p[0] = static_cast<char>(0xC0 | (c >> 6));
                p[1] = static_cast<char>(0x80 | (c & 0x3F));
                break;
            case 3:
                p[0] = static_cast<char>(0xE0 | (c >> 12));
                p[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
                p[2] = static_cast<char>(0x80 | (c & 0x3F));
                break;
            default:
                p[0] = static_cast<char>(0xF0 | (c >> 18));
                p[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
                p[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
                p[3] = static_cast<char>(0x80 | (c & 0x3F));
                break;
            }
        }
        written += bytes;
    }
    return written;
}

constexpr qsizetype kScratchSize = 512;
std::mutex g_scratchLock;
char g_scratch[kScratchSize];

const EVP_MD *sha256Digest()
{
    static EVP_MD *md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return md ? md : EVP_sha256();
}

QString hashBytes(const char *bytes, qsizetype length)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_Digest(bytes, static_cast<size_t>(length), digest, &digestLength, sha256Digest(), nullptr) != 1)
        return QStringLiteral("");
    return ORVBytesToHexString(digest, 32);
}
} // namespace

QString orv_SHA256String(const QString &string)
{
    if (string.size() < kScratchSize) {
        std::unique_lock lock(g_scratchLock, std::try_to_lock);
        if (lock.owns_lock()) {
            const qsizetype length = encodeUtf8(string, g_scratch, kScratchSize);
            if (length >= 0)
                return hashBytes(g_scratch, length);
        }
    }
    const qsizetype length = encodeUtf8(string, nullptr, std::numeric_limits<qsizetype>::max());
    std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(std::max<qsizetype>(length, 1))]);
    encodeUtf8(string, buffer.get(), length);
    return hashBytes(buffer.get(), length);
}

QString orv_stringWithSimpleHTMLFiltering(const QString &string)
{
    QString text = string;
    text.replace(QStringLiteral("<br>"), QStringLiteral("\n"))
        .replace(QStringLiteral("<br/>"), QStringLiteral("\n"))
        .replace(QStringLiteral("<br />"), QStringLiteral("\n"))
        .replace(QStringLiteral("&nbsp;"), QString(QChar(0x00A0)));

    QString output;
    output.reserve(text.size());
    const QStringView view(text);
    qsizetype position = 0;
    while (position < view.size()) {
        qsizetype open = view.indexOf(u'<', position);
        if (open < 0)
            open = view.size();
        output.append(view.mid(position, open - position));
        position = open;
        if (position >= view.size())
            break;
        qsizetype close = view.indexOf(u'>', position);
        if (close < 0)
            close = view.size();
        const QStringView tag = view.mid(position, close - position);
        position = close < view.size() ? close + 1 : close;
        if (tag == u"<div") {
            if (!output.isEmpty() && !output.endsWith(u'\n'))
                output.append(u'\n');
        } else if (tag == u"</div") {
            output.append(u'\n');
        }
    }
    // Trim white space and newlines as the platform's sets define them.
    qsizetype first = 0;
    qsizetype last = output.size();
    while (first < last && isWordSeparator(output[first]))
        ++first;
    while (last > first && isWordSeparator(output[last - 1]))
        --last;
    return output.mid(first, last - first);
}

QString orv_stringByFoldingWithOptions(const QString &string, ORVStringCompareOptions options)
{
    QString folded = string;
    if (options & ORVWidthInsensitiveSearch) {
        QString widened;
        widened.reserve(folded.size());
        for (char32_t c : folded.toUcs4()) {
            const QChar::Decomposition tag = QChar::decompositionTag(c);
            if (tag == QChar::Wide || tag == QChar::Narrow)
                widened.append(QChar::decomposition(c));
            else
                widened.append(QStringView(QChar::fromUcs4(c)));
        }
        folded = widened;
    }
    if (options & ORVDiacriticInsensitiveSearch) {
        QString decomposed = folded.normalized(QString::NormalizationForm_D);
        decomposed.removeIf([](QChar c) { return c.category() == QChar::Mark_NonSpacing; });
        folded = decomposed.normalized(QString::NormalizationForm_C);
    }
    if (options & ORVCaseInsensitiveSearch)
        folded = folded.toCaseFolded();
    return folded;
}

void orv_enumerateComponentsSeparatedByCharacterSet(const QString &string, const ORVCharacterSet &separators,
                                                    ORVRange range,
                                                    const std::function<void(const QString &, bool *)> &block)
{
    if (!ORVMethodParameterAssert(static_cast<bool>(block), "block != NULL",
                                  "orv_enumerateComponentsSeparatedByCharacterSet:range:usingBlock:", "QString",
                                  kStringFile))
        return;
    const qsizetype start = std::clamp<qsizetype>(range.location, 0, string.size());
    const qsizetype length = std::clamp<qsizetype>(range.length, 0, string.size() - start);
    forEachWord(QStringView(string).mid(start, length), separators, [&](QStringView word) {
        bool stop = false;
        block(word.toString(), &stop);
        return !stop;
    });
}

void orv_enumerateSuffixesInSubstring(const QString &substring,
                                      const std::function<void(const QString &, bool *)> &block)
{
    if (!ORVMethodParameterAssert(!substring.isNull(), "substring != nil", "_orv_enumerateSuffixesInSubstring:usingBlock:",
                                  "QString", kStringFile) ||
        !ORVMethodParameterAssert(static_cast<bool>(block), "block != NULL",
                                  "_orv_enumerateSuffixesInSubstring:usingBlock:", "QString", kStringFile))
        return;
    forEachSuffix(substring, [&](QStringView suffix) {
        bool stop = false;
        block(suffix.toString(), &stop);
        return !stop;
    });
}

QSet<QString> orv_suffixes(const QString &string)
{
    QSet<QString> suffixes;
    // Five entries per character is the expected fill; the hint is capped so
    // that a huge text does not reserve memory it may never use.
    suffixes.reserve(std::min<qsizetype>(string.size() * 5, qsizetype(1) << 20));
    forEachWord(string, ORVCharacterSet::whitespaceAndNewlineCharacterSet(), [&](QStringView word) {
        forEachSuffix(word, [&](QStringView suffix) {
            suffixes.insert(boundedSuffix(suffix).toString());
            return true;
        });
        return true;
    });
    return suffixes;
}

namespace {
// A result of tens of megabytes is past the allocator's mmap threshold, so
// every call gets fresh pages from the kernel; written one by one they
// fault one by one, and that (not the copying) made a 16 MiB text cost
// about ten times a 4 MiB one. One request faults the whole buffer in at
// once. Only an optimisation: a kernel without it (before 5.14) answers
// EINVAL and the pages fault as before.
void prefault([[maybe_unused]] QString &buffer)
{
#ifdef MADV_POPULATE_WRITE
    constexpr qsizetype kWorthIt = qsizetype(8) << 20; // bytes
    const qsizetype bytes = buffer.capacity() * qsizetype(sizeof(QChar));
    if (bytes < kWorthIt)
        return;
    // Whole pages inside the buffer only.
    static const auto pageSize = static_cast<quintptr>(::sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<quintptr>(buffer.data());
    const quintptr first = (begin + pageSize - 1) & ~(pageSize - 1);
    const quintptr last = (begin + static_cast<quintptr>(bytes)) & ~(pageSize - 1);
    if (last > first)
        ::madvise(reinterpret_cast<void *>(first), last - first, MADV_POPULATE_WRITE);
#endif
}
} // namespace

QString orv_suffixStringForFTSIndex(const QString &string)
{
    // Only the first 10,000 words are visited, so only they are lower-cased:
    // a long text past them costs a scan for white space, not a second copy
    // of itself (which, for tens of megabytes, is fresh memory from the
    // system on every call). Lower-casing neither makes nor takes white
    // space, so the words are the same before and after it.
    const auto &separators = ORVCharacterSet::whitespaceAndNewlineCharacterSet();
    qsizetype visitedEnd = string.size();
    int counted = 0;
    forEachWord(string, separators, [&](QStringView word) {
        if (++counted <= 9999)
            return true;
        visitedEnd = word.data() + word.size() - string.constData();
        return false;
    });
    const QString lowered = visitedEnd == string.size() ? string.toLower() : string.left(visitedEnd).toLower();
    // Views into `lowered`: no suffix is copied until the final join.
    QSet<QStringView> suffixes;
    std::vector<QStringView> inOrder;
    qsizetype length = 0;
    // A word met before as a word added exactly the suffixes it would add
    // now, so a repeat (most words of real text) costs one lookup instead
    // of up to a hundred. It still counts as a word visited.
    QSet<QStringView> words;
    int wordCount = 0;
    forEachWord(lowered, separators, [&](QStringView word) {
        const qsizetype knownWords = words.size();
        words.insert(word);
        if (words.size() == knownWords)
            return ++wordCount <= 9999;
        int suffixCount = 0;
        forEachSuffix(word, [&](QStringView suffix) {
            const QStringView bounded = boundedSuffix(suffix);
            const qsizetype known = suffixes.size();
            suffixes.insert(bounded);
            if (suffixes.size() != known) {
                inOrder.push_back(bounded);
                length += bounded.size() + 1;
            }
            return ++suffixCount <= 99;
        });
        return ++wordCount <= 9999;
    });
    QString joined;
    joined.reserve(length);
    prefault(joined);
    // In the order first met: the copies then read the lower-cased text
    // front to back instead of in the set's hash order, which for a few
    // megabytes of words was a cache miss per suffix.
    for (QStringView suffix : inOrder) {
        if (!joined.isEmpty())
            joined.append(u' ');
        joined.append(suffix);
    }
    return joined;
}

bool orv_hasIntermittentPrefix(const QString &string, const QString &prefix)
{
    if (!ORVMethodParameterAssert(!prefix.isNull(), "prefix != nil", "orv_hasIntermittentPrefix:", "QString",
                                  kStringFile))
        return false;
    if (string.isEmpty())
        return false;
    if (prefix.isEmpty() || string.startsWith(prefix))
        return true;
    qsizetype position = 0;
    for (QChar wanted : prefix) {
        while (position < string.size() && string[position] != wanted)
            ++position;
        if (position >= string.size())
            return false;
        ++position;
    }
    return true;
}

ORVRange orv_rangeOfString(const QString &string, const QString &searched, const ORVCharacterSet &skipping)
{
    const ORVRange notFound{ORVNotFound, 0};
    if (!ORVMethodParameterAssert(!searched.isNull(), "string != nil", "orv_rangeOfString:skippingCharactersInSet:",
                                  "QString", kStringFile))
        return notFound;
    const qsizetype n = string.size();
    const qsizetype m = searched.size();
    if (m == 0 || m > n)
        return notFound;
    qsizetype bestLength = ORVNotFound;
    qsizetype bestLocation = ORVNotFound;
    qsizetype s = 0;
    while (s <= n - m) {
        qsizetype i = 0;
        qsizetype j = 0;
        bool mismatch = false;
        bool matched = false;
        while (s + i < n) {
            const QChar c = string[s + i];
            if (j > 0 && skipping.characterIsMember(c)) {
                ++i;
                continue;
            }
            if (j >= m || c != searched[j]) {
                mismatch = true;
                break;
            }
            ++j;
            if (j == m) {
                const qsizetype span = i + 1;
                if (span < bestLength) {
                    bestLength = span;
                    bestLocation = s;
                }
                if (span == m)
                    return {s, m};
                matched = true;
                break;
            }
            ++i;
        }
        // After a mismatch the starts inside the run of skipped characters
        // cannot do better, so they are not tried.
        s = (mismatch && !matched) ? s + (i - j) + 1 : s + 1;
    }
    if (bestLocation == ORVNotFound)
        return notFound;
    return {bestLocation, bestLength};
}

QString orv_longestCommonSubstring(const QString &string, const QString &other, ORVStringCompareOptions options)
{
    if (string.isEmpty() || other.isEmpty())
        return QStringLiteral("");
    // Canonically equivalent texts are the same text to the user (an é
    // typed precomposed or as e plus a combining accent): both are compared
    // in the composed form.
    const QString composedString = string.normalized(QString::NormalizationForm_C);
    const QString composedOther = other.normalized(QString::NormalizationForm_C);
    if (orv_stringByFoldingWithOptions(composedString, options) ==
        orv_stringByFoldingWithOptions(composedOther, options))
        return string;

    // 250 characters keep every length and count within the table's 8-bit
    // cells. Folding can lengthen text (a decomposed syllable, a wide form),
    // so the folded text is held to the same limit.
    constexpr qsizetype kLimit = 250;
    const QString a = orv_stringByFoldingWithOptions(composedString.left(kLimit), options).left(kLimit);
    const QString b = orv_stringByFoldingWithOptions(composedOther.left(kLimit), options).left(kLimit);

    // Two rows of the (|a| + 1) x (|b| + 1) table are enough: each cell only
    // reads its upper-left neighbour.
    std::array<quint8, kLimit + 1> rows[2]{};
    quint8 *previous = rows[0].data();
    quint8 *current = rows[1].data();
    quint8 bestLength = 0;
    qsizetype bestRow = 0;
    const QChar *ac = a.constData();
    const QChar *bc = b.constData();
    for (qsizetype i = 1; i <= a.size(); ++i) {
        current[0] = 0;
        const QChar ai = ac[i - 1];
        for (qsizetype j = 1; j <= b.size(); ++j) {
            const quint8 cell = ai == bc[j - 1] ? static_cast<quint8>(previous[j - 1] + 1) : quint8(0);
            current[j] = cell;
            if (cell > bestLength) {
                bestLength = cell;
                bestRow = i;
            }
        }
        std::swap(previous, current);
    }
    if (bestLength == 0)
        return QStringLiteral("");
    return a.mid(bestRow - bestLength, bestLength);
}
