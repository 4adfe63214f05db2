#include <OrvellaKit/ORVPhoneNumber.h>

#include <OrvellaKit/ORVStringWithFormat.h>

#include <QLocale>

#include <phonenumbers/asyoutypeformatter.h>
#include <phonenumbers/phonenumber.pb.h>
#include <phonenumbers/phonenumberutil.h>

#include <array>
#include <memory>
#include <string>
#include <unordered_map>

using i18n::phonenumbers::AsYouTypeFormatter;
using i18n::phonenumbers::PhoneNumber;
using i18n::phonenumbers::PhoneNumberUtil;

namespace {

struct Suffix {
    QString text;     // trimmed, with its leading space put back when the marker had one
    qsizetype cut = -1; // where the number part ends; -1: no suffix
};

bool isWhitespaceOrNewline(QChar c)
{
    // Z* separators, tab, U+000A ... U+000D and U+0085.
    return c.isSpace();
}

Suffix splitSuffix(const QString &s)
{
    static const std::array<QString, 7> markers = {
        QStringLiteral(";"),     QStringLiteral(" extension"), QStringLiteral(" ext."), QStringLiteral(" ext"),
        QStringLiteral(" x"),    QStringLiteral(" passcode"),  QStringLiteral(" code"),
    };
    for (const QString &marker : markers) {
        const qsizetype position = s.indexOf(marker, 0, Qt::CaseInsensitive);
        if (position < 8)
            continue;
        Suffix suffix;
        // Only the one character directly before the marker is left out.
        suffix.cut = position > 0 && isWhitespaceOrNewline(s[position - 1]) ? position - 1 : position;
        suffix.text = s.mid(position).trimmed();
        if (marker.startsWith(u' '))
            suffix.text.prepend(u' ');
        return suffix;
    }
    return {};
}

// The library knows regions in upper case only ("us" would be no region);
// without one the default locale's territory, none for the C locale (whose
// national numbers then come back as typed: no region is guessed).
QString currentRegion(const QString &region)
{
    if (!region.isEmpty()) {
        // ASCII letters only: toUpper() would also turn a dotless "ı" into "I".
        QString upper = region;
        for (QChar &c : upper)
            if (c >= u'a' && c <= u'z')
                c = QChar(c.unicode() - (u'a' - u'A'));
        return upper;
    }
    const QLocale::Territory territory = QLocale().territory();
    return territory == QLocale::AnyTerritory ? QString() : QLocale::territoryToCode(territory);
}

// A formatter per region and thread, cleared before each use: making one
// compiles its patterns, which costs far more than the typing itself.
AsYouTypeFormatter *asYouTypeFormatter(const PhoneNumberUtil &util, const std::string &region)
{
    thread_local std::unordered_map<std::string, std::unique_ptr<AsYouTypeFormatter>> formatters;
    if (formatters.size() >= 64 && !formatters.count(region))
        formatters.clear(); // region texts come from callers: keep the cache bounded
    std::unique_ptr<AsYouTypeFormatter> &formatter = formatters[region];
    if (!formatter)
        formatter.reset(util.GetAsYouTypeFormatter(region));
    formatter->Clear();
    return formatter.get();
}

std::string utf8(const QString &text)
{
    return text.toStdString();
}

} // namespace

QString orv_formattedPhoneNumber(const QString &string, bool forceInternational, const QString &region)
{
    const QString &s = string;
    if (s.size() < 6)
        return s;
    if ((s.startsWith(u'*') || s.startsWith(u'#') || s.contains(u'-')) && s.size() < 7)
        return s;
    if (s.startsWith(u','))
        return s;

    const Suffix suffix = splitSuffix(s);
    const QString numberPart = suffix.cut >= 0 ? s.left(suffix.cut) : s;

    const QString regionCode = currentRegion(region);
    const bool isUS = regionCode.compare(QLatin1String("US"), Qt::CaseInsensitive) == 0;

    // A US vertical service code in front (*67 ...) is kept aside; the rest
    // of the input itself, suffix included, is what gets parsed.
    QString prefix;
    QString text = numberPart;
    if (s.startsWith(u'*') && s.size() >= 3 && isUS) {
        prefix = s.left(3);
        text = s.mid(3);
    }

    const PhoneNumberUtil &util = *PhoneNumberUtil::GetInstance();
    const std::string textUtf8 = utf8(text);
    const std::string regionUtf8 = utf8(regionCode);
    PhoneNumber number;
    const bool parsed = util.Parse(textUtf8, regionUtf8, &number) == PhoneNumberUtil::NO_PARSING_ERROR;

    QString formatted;
    QString extension;
    PhoneNumberUtil::PhoneNumberFormat format = PhoneNumberUtil::NATIONAL;
    if (parsed) {
        if (forceInternational)
            format = PhoneNumberUtil::INTERNATIONAL;
        else if (number.has_country_code() && number.country_code() != 0 &&
                 text.startsWith(QString::number(number.country_code())))
            format = PhoneNumberUtil::INTERNATIONAL;
        else if (text.startsWith(u'+') || text.startsWith(QLatin1String("011")) || text.startsWith(QLatin1String("010")))
            format = PhoneNumberUtil::INTERNATIONAL;

        if (number.has_extension()) {
            extension = QString::fromStdString(number.extension());
            number.clear_extension();
        }

        if (!isUS && s.startsWith(u'*'))
            format = PhoneNumberUtil::NATIONAL;
        else if (s.startsWith(QLatin1String("00")))
            format = PhoneNumberUtil::NATIONAL; // deliberately, in every region

        std::string out;
        util.Format(number, format, &out);
        formatted = QString::fromStdString(out);

        // Trunk-zero repair: the library drops a written national zero it
        // does not expect; the as-you-type formatter keeps what was typed.
        const bool keepAsIs = !formatted.startsWith(u'0') && !text.startsWith(u'0');
        const int leadingZeros = number.italian_leading_zero() ? number.number_of_leading_zeros() : 0;
        if (leadingZeros >= 1 && !keepAsIs && format == PhoneNumberUtil::NATIONAL) {
            AsYouTypeFormatter *typing = asYouTypeFormatter(util, regionUtf8);
            std::string typed;
            for (char32_t c : text.toUcs4())
                typing->InputDigit(static_cast<i18n::phonenumbers::char32>(c), &typed);
            formatted = QString::fromStdString(typed);
            if (suffix.cut < 0)
                extension.clear();
        }
    }

    if (!extension.isEmpty() && !formatted.isEmpty()) {
        const qsizetype at = text.lastIndexOf(extension);
        if (at > 0 && text[at - 1] == u',')
            formatted += ORVStringWithFormat(",%@", extension);
        else
            formatted += ORVStringWithFormat(";%@", extension);
    } else if (suffix.cut >= 0 && !formatted.isEmpty()) {
        formatted += suffix.text;
    }

    // A star code with nothing the library could read after it is no
    // number: the user's text comes back as typed, not the code alone.
    if (!prefix.isEmpty() && !formatted.isEmpty())
        formatted = prefix + ORVStringWithFormat(" %@", formatted);

    return formatted.isEmpty() ? s : formatted;
}
