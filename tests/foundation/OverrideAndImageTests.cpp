#include "OrvTestSupport.h"

#include <OrvellaKit/ORVImage.h>
#include <OrvellaKit/ORVOverrides.h>
#include <OrvellaKitWidgets/ORVViewImage.h>

#include <QBuffer>
#include <QLabel>
#include <QPainter>

using namespace orv::test;

namespace {
using Describe = QString(const QString &);
using Make = QString();

// A base class and a subclass that defines one method and inherits another.
struct Classes {
    ORVRuntimeClass base{"Base"};
    ORVRuntimeClass derived{"Derived", &base};
    Classes()
    {
        base.addInstanceMethod<Describe>("describe", [](const QString &who) { return "base " + who; });
        base.addInstanceMethod<Describe>("shout", [](const QString &who) { return who.toUpper(); });
        derived.addInstanceMethod<Describe>("shout", [](const QString &who) { return who + "!"; });
        base.addClassMethod<Make>("make", [] { return QStringLiteral("made by base"); });
    }
};
} // namespace

TEST(MethodOverrides, InheritedMethodIsAddedAndSuperclassKeepsItsOwn)
{
    Classes classes;
    std::function<Describe> previous;
    previous = ORVClassOverrideInstanceMethodWithBlock<Describe>(
        &classes.derived, "describe", [&](const QString &who) { return "derived, then " + previous(who); });
    ASSERT_TRUE(previous);
    EXPECT_TRUE(classes.derived.definesInstanceMethod("describe"));
    EXPECT_EQ(classes.derived.invokeInstanceMethod<Describe>("describe", QString("x")), "derived, then base x");
    EXPECT_EQ(classes.base.invokeInstanceMethod<Describe>("describe", QString("x")), "base x");

    // Class methods the same way.
    std::function<Make> previousMake = ORVClassOverrideClassMethodWithBlock<Make>(
        &classes.derived, "make", [] { return QStringLiteral("made by derived"); });
    EXPECT_EQ(previousMake(), "made by base");
    EXPECT_EQ(classes.derived.invokeClassMethod<Make>("make"), "made by derived");
    EXPECT_EQ(classes.base.invokeClassMethod<Make>("make"), "made by base");
}

TEST(MethodOverrides, OwnMethodIsReplacedAndTheOldOneReturned)
{
    Classes classes;
    std::function<Describe> previous = ORVClassOverrideInstanceMethodWithBlock<Describe>(
        &classes.derived, "shout", [](const QString &who) { return "quiet " + who; });
    EXPECT_EQ(previous("hey"), "hey!");
    EXPECT_EQ(classes.derived.invokeInstanceMethod<Describe>("shout", QString("hey")), "quiet hey");
    EXPECT_EQ(classes.base.invokeInstanceMethod<Describe>("shout", QString("hey")), "HEY");
}

TEST(MethodOverrides, FailuresReportTheirTextsAndInstallNothing)
{
    Classes classes;
    RecordAssertions record;
    auto block = [](const QString &who) { return who; };
    EXPECT_FALSE(ORVClassOverrideInstanceMethodWithBlock<Describe>(&classes.derived, "missing", block));
    EXPECT_FALSE(ORVClassOverrideClassMethodWithBlock<Describe>(&classes.derived, "missing", block));
    EXPECT_FALSE(ORVClassOverrideInstanceMethodWithBlock<Describe>(nullptr, "describe", block));
    EXPECT_FALSE(ORVClassOverrideInstanceMethodWithBlock<Describe>(&classes.derived, "describe", nullptr));
    EXPECT_FALSE(ORVClassOverrideInstanceMethodWithBlock<QString(int)>(&classes.derived, "describe",
                                                                        [](int) { return QString(); }));
    EXPECT_FALSE(classes.derived.definesInstanceMethod("describe"));

    const auto failures = record.failures();
    ASSERT_EQ(failures.size(), 5u);
    EXPECT_EQ(failures[0].description, "Instance method with selector missing not found for class Derived");
    EXPECT_EQ(failures[0].functionOrMethod,
              "IMP  _Nonnull ORVClassOverrideInstanceMethodWithBlock(Class _Nonnull, SEL _Nonnull, id _Nonnull)");
    EXPECT_EQ(failures[0].file, "ORVOverrides");
    EXPECT_EQ(failures[1].description, "Class method with selector missing not found for class Derived");
    EXPECT_EQ(failures[1].functionOrMethod,
              "IMP  _Nonnull ORVClassOverrideClassMethodWithBlock(Class _Nonnull, SEL _Nonnull, id _Nonnull)");
    EXPECT_EQ(failures[2].description, "Invalid parameter not satisfying: theClass != Nil");
    EXPECT_EQ(failures[3].description, "Invalid parameter not satisfying: block != NULL");
    EXPECT_EQ(failures[4].functionOrMethod, "IMP  _Nonnull _ORVClassOverrideMethodWithBlock(Class _Nonnull, SEL "
                                            "_Nonnull, Method _Nonnull, id _Nonnull)");

    // Calling a method with the wrong signature raises instead of
    // misbehaving.
    EXPECT_THROW(classes.derived.invokeInstanceMethod<QString(int)>("describe", 1), ORVException);
}

TEST(Images, DecodeTintAndSnapshot)
{
    QImage source(8, 4, QImage::Format_ARGB32);
    source.fill(Qt::transparent);
    for (int x = 0; x < 8; ++x)
        source.setPixelColor(x, 0, QColor(200, 10, 10, 255)); // top row opaque
    for (int x = 0; x < 4; ++x)
        source.setPixelColor(x, 3, QColor(0, 200, 0, 128)); // half-transparent run at the bottom

    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    ASSERT_TRUE(source.save(&buffer, "PNG"));
    const QImage decoded = orv_imageWithData(png);
    ASSERT_FALSE(decoded.isNull());
    EXPECT_EQ(decoded.size(), source.size());
    EXPECT_TRUE(orv_imageWithData(QByteArray("not an image")).isNull());

    // The tint replaces colours and keeps alpha, at any device pixel ratio.
    for (qreal ratio : {1.0, 2.0}) {
        const QImage tinted = orv_imageByApplyingTintColor(decoded, QColor(0, 0, 255), false, ratio);
        ASSERT_EQ(tinted.size(), source.size() * ratio);
        const int r = int(ratio);
        EXPECT_EQ(tinted.pixelColor(3 * r, 0), QColor(0, 0, 255, 255));
        EXPECT_EQ(tinted.pixelColor(3 * r, 2 * r).alpha(), 0);
        const QColor half = tinted.pixelColor(2 * r - 1, 4 * r - 1); // inside the run, away from smoothing
        EXPECT_NEAR(half.alpha(), 128, 2);
        EXPECT_EQ(half.red(), 0);
        EXPECT_EQ(half.green(), 0);
    }
    const QImage flipped = orv_imageByApplyingTintColor(decoded, QColor(0, 0, 255), true, 1.0);
    EXPECT_EQ(flipped.pixelColor(6, 3).alpha(), 255) << "the opaque row is at the bottom";
    EXPECT_EQ(flipped.pixelColor(6, 0).alpha(), 0);

    QLabel label;
    label.setAutoFillBackground(true);
    label.setStyleSheet("background: rgb(10, 200, 30);");
    label.resize(40, 20);
    for (bool synchronous : {true, false}) {
        const QImage shot = ORVImageFromView(&label, QRect(5, 5, 10, 8), synchronous);
        ASSERT_EQ(shot.deviceIndependentSize().toSize(), QSize(10, 8));
        EXPECT_EQ(shot.pixelColor(2, 2).green(), 200) << synchronous;
    }
    EXPECT_TRUE(ORVImageFromView(nullptr, QRect(0, 0, 5, 5), true).isNull());

    int calls = 0;
    EXPECT_TRUE(ORVAnimationsEnabled());
    orv_performWithoutAnimation([&] {
        orv_performWithoutAnimation([&] { ++calls; });
        EXPECT_FALSE(ORVAnimationsEnabled()) << "still off after a nested call";
        ++calls;
    });
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(ORVAnimationsEnabled());
}
