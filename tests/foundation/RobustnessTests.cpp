// Random input for the parsers: nothing may crash or read out of bounds
// (this suite also runs under AddressSanitizer), and the results keep the
// invariants their callers rely on.

#include "OrvTestSupport.h"

#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVISO8601DateFormatter.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QRandomGenerator>

namespace {
QString randomText(QRandomGenerator &random, const QString &alphabet, int maxLength)
{
    QString text;
    const int length = static_cast<int>(random.bounded(maxLength + 1));
    for (int i = 0; i < length; ++i)
        text += alphabet[static_cast<qsizetype>(random.bounded(static_cast<quint32>(alphabet.size())))];
    return text;
}
} // namespace

TEST(Robustness, RandomFormatStrings)
{
    QRandomGenerator random(2024);
    const QString alphabet = QStringLiteral("%%%@dixXuocsfegp*.$0123456789-+ #lhqzjL'k\u00e9");
    for (int i = 0; i < 5000; ++i) {
        const QString format = randomText(random, alphabet, 24);
        const QString text = ORVStringWithFormat(format, 7, "text", 2.5, nullptr, QUuid());
        // Directives are replaced, never duplicated without bound.
        EXPECT_LE(text.size(), format.size() * 4 + (1 << 21) + 200) << qPrintable(format);
    }
}

TEST(Robustness, RandomHexAndJSON)
{
    QRandomGenerator random(99);
    const QString hexAlphabet = QStringLiteral("0123456789abcdefABCDEFxX -+gG\u00fc\U0001F600");
    for (int i = 0; i < 3000; ++i) {
        const QString text = randomText(random, hexAlphabet, 40);
        EXPECT_EQ(orv_dataFromHexString(text).size(), (text.size() + 1) / 2) << qPrintable(text);
    }
    const QString jsonAlphabet = QStringLiteral("{}[]\":,0123456789.eE-+truefalsnl \\u\n\t");
    for (int i = 0; i < 3000; ++i) {
        const QByteArray data = randomText(random, jsonAlphabet, 40).toUtf8();
        ORVError error;
        const auto value = orv_JSONObjectWithData(data, ORVJSONReadingFragmentsAllowed, &error);
        EXPECT_NE(value.has_value(), static_cast<bool>(error)) << data.constData();
        const auto object = orv_JSONDictionaryWithData(data, &error);
        if (object) {
            for (const QString &key : object->keys()) {
                orv_numberForKey(*object, key);
                orv_dateSince1970ForKey(*object, key);
                orv_nonEmptyStringForKey(*object, key);
            }
        }
    }
}

TEST(Robustness, RandomDateText)
{
    QRandomGenerator random(5);
    const QString alphabet = QStringLiteral("0123456789-:TZ+. W");
    const auto &formatter = orv_utcInternetWithFractionalSecondsDateFormatter();
    for (int i = 0; i < 5000; ++i) {
        const QString text = randomText(random, alphabet, 30);
        const auto date = formatter.dateFromString(text);
        if (date) { // whatever parses prints back as a valid date
            EXPECT_FALSE(formatter.stringFromDate(*date).isEmpty()) << qPrintable(text);
        }
    }
}
