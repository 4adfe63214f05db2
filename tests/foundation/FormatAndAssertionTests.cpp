#include "OrvTestSupport.h"

#include <OrvellaKit/ORVData.h>
#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QTimeZone>

#include <thread>

using namespace orv::test;

namespace {
struct Described {
    QString description() const { return QStringLiteral("<Described 7>"); }
};
} // namespace

TEST(StringWithFormat, ObjectConversionsAndNothing)
{
    EXPECT_EQ(ORVStringWithFormat("Changing log level: %d", 15), "Changing log level: 15");
    EXPECT_EQ(ORVStringWithFormat("%@ and %@", QStringLiteral("text"), 42), "text and 42");
    EXPECT_EQ(ORVStringWithFormat("%@|%@|%@", nullptr, std::optional<QString>(), std::shared_ptr<Described>()),
              "(null)|(null)|(null)");
    EXPECT_EQ(ORVStringWithFormat("%@", std::optional<QString>(QStringLiteral("x"))), "x");
    EXPECT_EQ(ORVStringWithFormat("%@", Described{}), "<Described 7>");
    EXPECT_EQ(ORVStringWithFormat("%@", std::make_shared<Described>()), "<Described 7>");
    EXPECT_EQ(ORVStringWithFormat("%@", 1.5), "1.5");
    EXPECT_EQ(ORVStringWithFormat("%@", QJsonObject{{"a", 1}}), "{\"a\":1}");
    EXPECT_EQ(ORVStringWithFormat("%@", QJsonValue(3.0)), "3");
    EXPECT_EQ(ORVStringWithFormat("%@", QDateTime::fromSecsSinceEpoch(0, QTimeZone::utc())),
              "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(ORVStringWithFormat("%@", ORVError()), "(null)");
}

TEST(StringWithFormat, UUIDsAreUpperCaseWithoutBraces)
{
    const QUuid uuid(QStringLiteral("{6ba7b810-9dad-11d1-80b4-00c04fd430c8}"));
    EXPECT_EQ(ORVStringWithFormat("id=%@", uuid), "id=6BA7B810-9DAD-11D1-80B4-00C04FD430C8");
    EXPECT_EQ(ORVUUIDString(uuid), "6BA7B810-9DAD-11D1-80B4-00C04FD430C8");
}

TEST(StringWithFormat, IntegerConversionsFollowC)
{
    EXPECT_EQ(ORVStringWithFormat("%ld %lu", qint64(-5000000000), quint64(18446744073709551615ULL)),
              "-5000000000 18446744073709551615");
    EXPECT_EQ(ORVStringWithFormat("%02x", 10), "0a");
    EXPECT_EQ(ORVStringWithFormat("%0.2X", 171), "AB");
    EXPECT_EQ(ORVStringWithFormat("%x", -1), "ffffffff") << "an int keeps its own width";
    EXPECT_EQ(ORVStringWithFormat("%hhx", 0x1ff), "ff") << "a length modifier narrows";
    EXPECT_EQ(ORVStringWithFormat("%5d|%-5d|%+d", 42, 42, 42), "   42|42   |+42");
    EXPECT_EQ(ORVStringWithFormat("%.3f %e", 3.14159, 1000.0), "3.142 1.000000e+03");
    EXPECT_EQ(ORVStringWithFormat("%d", true), "1");
    EXPECT_EQ(ORVStringWithFormat("%c", 'A'), "A");
    EXPECT_EQ(ORVStringWithFormat("100%%"), "100%");
}

TEST(StringWithFormat, PositionalAndStarArguments)
{
    EXPECT_EQ(ORVStringWithFormat("%2$@ before %1$@", "b", "a"), "a before b");
    EXPECT_EQ(ORVStringWithFormat("%1$d%1$d", 7), "77");
    EXPECT_EQ(ORVStringWithFormat("[%*d]", 4, 7), "[   7]");
    EXPECT_EQ(ORVStringWithFormat("[%.*@]", 2, "abcdef"), "[ab]");
}

TEST(StringWithFormat, MismatchesAndMissingArgumentsDoNotCrash)
{
    EXPECT_EQ(ORVStringWithFormat("%d", "text"), "text");
    EXPECT_EQ(ORVStringWithFormat("%@ %@", "one"), "one (null)");
    EXPECT_EQ(ORVStringWithFormat("%s", nullptr), "(null)");
    EXPECT_EQ(ORVStringWithFormat("trailing %"), "trailing %");
    EXPECT_EQ(ORVStringWithFormat("%k|%d", 1), "%k|1") << "an unknown conversion is copied and takes no argument";
    EXPECT_EQ(ORVStringWithFormat("%99999999999d", 1).size(), (1 << 20)) << "widths are capped";
    EXPECT_EQ(ORVStringWithFormat("%d", 1e300), QString::number(std::numeric_limits<long long>::max()));
}

TEST(Assertions, DefaultHandlerThrowsInternalInconsistency)
{
    try {
        ORVBytesToHexString(nullptr, 4);
        FAIL() << "expected an exception";
    } catch (const ORVException &exception) {
        EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(exception.reason(), "Invalid parameter not satisfying: bytes != NULL");
        EXPECT_STREQ(exception.what(), "NSInternalInconsistencyException: Invalid parameter not satisfying: bytes != NULL");
    }
}

TEST(Assertions, RecordedFailureCarriesFunctionFileAndLine)
{
    RecordAssertions record;
    EXPECT_EQ(ORVBytesToHexString(nullptr, 4), "") << "the fallback when the handler returns";
    const auto failures = record.failures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_FALSE(failures[0].inMethod);
    EXPECT_EQ(failures[0].functionOrMethod,
              "NSString * _Nonnull ORVBytesToHexString(const void * _Nonnull, NSUInteger)");
    EXPECT_EQ(failures[0].file, "NSData+OrvellaKit");
    EXPECT_GT(failures[0].line, 0);
}

TEST(Assertions, HandlersArePerThreadAndScoped)
{
    RecordAssertions record;
    bool threw = false;
    std::thread other([&] {
        try {
            ORVBytesToHexString(nullptr, 1);
        } catch (const ORVException &) {
            threw = true;
        }
    });
    other.join();
    EXPECT_TRUE(threw) << "another thread still has the throwing default handler";
    EXPECT_TRUE(record.failures().empty());
    {
        RecordAssertions inner;
        ORVBytesToHexString(nullptr, 1);
        EXPECT_EQ(inner.failures().size(), 1u);
    }
    ORVBytesToHexString(nullptr, 1);
    EXPECT_EQ(record.failures().size(), 1u) << "the outer handler is back after the inner scope";
}

TEST(Errors, CancelErrorsAndDescriptions)
{
    const ORVError cancel = orv_orvellaKitCancelError();
    EXPECT_EQ(cancel.domain(), "com.orvella.orvellakit");
    EXPECT_EQ(cancel.code(), 3072);
    EXPECT_TRUE(cancel.userInfo().isEmpty());
    EXPECT_TRUE(orv_isOrvellaKitCancelError(cancel));
    EXPECT_FALSE(orv_isCocoaCancelError(cancel));
    EXPECT_TRUE(orv_isCocoaCancelError(ORVError("NSCocoaErrorDomain", 3072)));
    EXPECT_FALSE(orv_isOrvellaKitCancelError(ORVError("com.orvella.orvellakit", 3073)));
    EXPECT_FALSE(orv_isOrvellaKitCancelError(ORVError()));
    EXPECT_FALSE(ORVError());
    EXPECT_TRUE(cancel);

    const ORVError described("d", 2, {{ORVLocalizedDescriptionKey, "Broken"}});
    EXPECT_EQ(described.localizedDescription(), "Broken");
    EXPECT_EQ(ORVStringWithFormat("%@", described), "Error Domain=d Code=2 \"Broken\" UserInfo={NSLocalizedDescription = Broken}");
    const ORVError wrapper("w", 1, {{ORVUnderlyingErrorKey, QVariant::fromValue(cancel)}});
    EXPECT_EQ(wrapper.underlyingError(), cancel);
}

TEST(Errors, AbstractMethodException)
{
    const ORVException exception = orv_abstractMethodException("helpAnchor");
    EXPECT_EQ(exception.name(), "AbstractMethodException");
    EXPECT_EQ(exception.reason(), "You must override helpAnchor in a subclass");
    EXPECT_TRUE(exception.userInfo().isEmpty());

    RecordAssertions record;
    const ORVException nameless = orv_abstractMethodException(nullptr);
    ASSERT_EQ(record.failures().size(), 1u);
    EXPECT_EQ(record.failures()[0].description, "Invalid parameter not satisfying: selector != NULL");
    EXPECT_EQ(record.failures()[0].file, "NSException+OrvellaKit");
    EXPECT_EQ(nameless.reason(), "You must override (null) in a subclass");
}
