#include "OrvTestSupport.h"

#include <OrvellaKit/ORVBezierPath.h>
#include <OrvellaKit/ORVGeometry.h>

#include <cmath>
#include <numbers>

using namespace orv::test;

namespace {
using Type = ORVBezierPathElementType;

void expectNear(QPointF actual, QPointF expected, double tolerance = 1e-9)
{
    EXPECT_NEAR(actual.x(), expected.x(), tolerance);
    EXPECT_NEAR(actual.y(), expected.y(), tolerance);
}

// The cubic's value at t.
QPointF bezierAt(QPointF p0, const ORVBezierPathElement &curve, double t)
{
    const double u = 1 - t;
    return u * u * u * p0 + 3 * u * u * t * curve.points[0] + 3 * u * t * t * curve.points[1] +
           t * t * t * curve.points[2];
}
} // namespace

TEST(CubicCurve, EndCasesAndStraightLines)
{
    EXPECT_TRUE(ORVCubicCurveAlgorithm::smoothPathThroughPoints({}).isEmpty());
    EXPECT_TRUE(ORVCubicCurveAlgorithm::smoothPathThroughPoints({QPointF(1, 1)}).isEmpty());

    const ORVBezierPath two = ORVCubicCurveAlgorithm::smoothPathThroughPoints({QPointF(0, 0), QPointF(3, 3)});
    ASSERT_EQ(two.elementCount(), 2);
    EXPECT_EQ(two.elementAtIndex(0).type, Type::MoveTo);
    EXPECT_EQ(two.elementAtIndex(1).type, Type::CurveTo);
    expectNear(two.elementAtIndex(1).points[0], QPointF(1, 1));
    expectNear(two.elementAtIndex(1).points[1], QPointF(2, 2));

    const ORVBezierPath line =
        ORVCubicCurveAlgorithm::smoothPathThroughPoints({QPointF(0, 0), QPointF(1, 0), QPointF(2, 0)});
    ASSERT_EQ(line.elementCount(), 3);
    for (qsizetype i = 1; i < 3; ++i)
        for (const QPointF &p : line.elementAtIndex(i).points)
            EXPECT_EQ(p.y(), 0.0);
}

TEST(CubicCurve, PassesThroughEveryPointWithSmoothJoins)
{
    QList<QPointF> points;
    for (int i = 0; i < 40; ++i)
        points << QPointF(i * 10.0, std::sin(i * 0.7) * 50.0 + (i % 3) * 7.0);
    const ORVBezierPath path = ORVCubicCurveAlgorithm::smoothPathThroughPoints(points);
    ASSERT_EQ(path.elementCount(), points.size());
    EXPECT_EQ(path.elementAtIndex(0).points[0], points[0]);
    for (qsizetype k = 1; k < points.size(); ++k) {
        const ORVBezierPathElement &curve = path.elementAtIndex(k);
        ASSERT_EQ(curve.type, Type::CurveTo);
        EXPECT_EQ(curve.points[2], points[k]) << "every point ends a curve, in order";
        if (k + 1 < points.size()) {
            // C1 continuity: the joint is the midpoint of the neighbouring
            // control points. C2: P(k-1)'s second derivative rule.
            const ORVBezierPathElement &next = path.elementAtIndex(k + 1);
            expectNear((curve.points[1] + next.points[0]) / 2, points[k], 1e-9);
            const QPointF secondLeft = curve.points[0] - 2 * curve.points[1] + points[k];
            const QPointF secondRight = points[k] - 2 * next.points[0] + next.points[1];
            expectNear(secondLeft, secondRight, 1e-8);
        }
    }
    // Duplicate points stay solvable and finite.
    const ORVBezierPath repeated =
        ORVCubicCurveAlgorithm::smoothPathThroughPoints({QPointF(1, 1), QPointF(1, 1), QPointF(1, 1), QPointF(2, 2)});
    for (const auto &element : repeated.elements())
        for (const QPointF &p : element.points)
            EXPECT_TRUE(std::isfinite(p.x()) && std::isfinite(p.y()));
    expectNear(bezierAt(points[0], path.elementAtIndex(1), 1.0), points[1]);
}

TEST(BezierPath, ForceClosingRule)
{
    EXPECT_FALSE(orv_CGPath(ORVBezierPath()).has_value());

    ORVBezierPath open;
    open.moveToPoint({0, 0});
    open.lineToPoint({10, 0});
    open.lineToPoint({10, 10});
    auto countCloses = [](const QPainterPath &p) {
        // A close adds a line back to the subpath's start.
        return p.elementCount() - 3;
    };
    EXPECT_EQ(countCloses(*orv_CGPath(open)), 1);
    EXPECT_EQ(countCloses(*orv_CGPathForceClosedPath(open, false)), 0);

    ORVBezierPath closed = open;
    closed.closePath();
    EXPECT_EQ(countCloses(*orv_CGPath(closed)), 1) << "not closed twice";

    ORVBezierPath moveOnly;
    moveOnly.moveToPoint({5, 5});
    EXPECT_EQ(orv_CGPath(moveOnly)->elementCount(), 1);

    ORVBezierPath curve;
    curve.moveToPoint({0, 0});
    curve.curveToPoint({3, 0}, {1, 1}, {2, 1});
    const QPainterPath painted = *orv_CGPathForceClosedPath(curve, false);
    EXPECT_EQ(painted.elementAt(1).type, QPainterPath::CurveToElement);
    EXPECT_EQ(QPointF(painted.elementAt(3)), QPointF(3, 0));
}

TEST(Deceleration, FiguresRatesAndAssertions)
{
    double duration = -1;
    const QPointF rest = ORVCGPointDecelerateWithInitialVelocity({0, 0}, {1000, 0}, 0.998, &duration);
    EXPECT_NEAR(duration, std::log(0.005) / (std::log(0.998) * 1000), 1e-12);
    EXPECT_NEAR(duration, 2.6466, 1e-4);
    EXPECT_NEAR(rest.x(), 0.998 * (1 - 0.005) / 0.002, 1e-6);
    EXPECT_NEAR(rest.x(), 496.5, 0.05);
    EXPECT_EQ(rest.y(), 0.0);

    // Negative velocities mirror; the duration is the longer axis.
    const QPointF back = ORVCGPointDecelerateWithInitialVelocity({10, 10}, {-1000, 2000}, 0.998, &duration);
    EXPECT_NEAR(back.x(), 10 - 496.5, 0.05);
    EXPECT_NEAR(duration, std::log(0.005 / 2) / (std::log(0.998) * 1000), 1e-12);

    EXPECT_EQ(ORVCGPointDecelerateWithInitialVelocity({4, 5}, {0, 0}, 0.998, &duration), QPointF(4, 5));
    EXPECT_EQ(duration, 0.0);
    EXPECT_EQ(ORVCGPointDecelerateWithInitialVelocity({4, 5}, {300, -300}, 1.0, &duration), QPointF(4, 5));
    // Slower than the resting speed from the start: no motion.
    EXPECT_EQ(ORVCGPointDecelerateWithInitialVelocity({4, 5}, {3, 0}, 0.998, &duration), QPointF(4, 5));
    EXPECT_EQ(duration, 0.0);

    RecordAssertions record;
    EXPECT_EQ(ORVCGPointDecelerateWithInitialVelocity({1, 2}, {100, 0}, 0.0, &duration), QPointF(1, 2));
    const auto failures = record.failures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].description, "Invalid parameter not satisfying: decelerationRate > 0.0");
    EXPECT_EQ(failures[0].functionOrMethod,
              "CGPoint ORVCGPointDecelerateWithInitialVelocity(CGPoint, CGPoint, CGFloat, CFTimeInterval * _Nullable)");
    EXPECT_EQ(failures[0].file, "CoreGraphics+OrvellaKit");
}

TEST(Geometry, DistanceAndPixelAlignment)
{
    const QRectF box(0, 0, 10, 10);
    EXPECT_EQ(ORVCGPointDistanceToRect({5, 5}, box), 0.0);
    EXPECT_EQ(ORVCGPointDistanceToRect({10, 10}, box), 0.0);
    EXPECT_EQ(ORVCGPointDistanceToRect({-3, -4}, box), 5.0);
    EXPECT_EQ(ORVCGPointDistanceToRect({-7, 5}, box), 7.0);
    EXPECT_EQ(ORVCGPointDistanceToRect({5, 13}, box), 3.0);
    EXPECT_EQ(ORVCGPointDistanceToRect({0, 0}, ORVCGRectNull), 1.7976931348623157e308);

    EXPECT_EQ(ORVCGPointPixelAligned({0.3, 0.74}, 2), QPointF(0.5, 0.5));
    EXPECT_EQ(ORVCGPointPixelAligned({0.3, 0.74}, 0), QPointF(0.3, 0.74));
    EXPECT_EQ(ORVCGPointPixelAligned({-0.25, 0.25}, 2), QPointF(-0.5, 0.5)) << "half away from zero";
    EXPECT_EQ(ORVCGSizePixelAligned({1.26, 3.74}, 2), QSizeF(1.5, 3.5));
    // Origin and size rounded on their own: 0.3 + 0.3 would round to 0.5 as
    // an edge, but is 0.5 + 0.5 = 1.0 here.
    const QRectF aligned = ORVCGRectPixelAligned({0.3, 0.3, 0.3, 0.3}, 2);
    EXPECT_EQ(aligned, QRectF(0.5, 0.5, 0.5, 0.5));
    EXPECT_EQ(aligned.right(), 1.0);
    EXPECT_TRUE(ORVCGRectIsNull(ORVCGRectPixelAligned(ORVCGRectNull, 2)));
    EXPECT_FALSE(ORVCGRectIsNull(QRectF()));
}

TEST(Geometry, Interpolation)
{
    EXPECT_EQ(ORVCGPointInterpolateFromPointToPoint({0, 0}, {10, 20}, 0.25), QPointF(2.5, 5));
    EXPECT_EQ(ORVCGSizeInterpolateFromSizeToSize({0, 0}, {10, 20}, 1.5), QSizeF(15, 30)) << "extrapolates";
    EXPECT_EQ(ORVCGRectInterpolateFromRectToRect({0, 0, 10, 10}, {10, 10, 20, 30}, 0.5), QRectF(5, 5, 15, 20));
    EXPECT_TRUE(ORVCGRectIsNull(ORVCGRectInterpolateFromRectToRect(ORVCGRectNull, {0, 0, 1, 1}, 0.5)));
    EXPECT_TRUE(ORVCGRectIsNull(ORVCGRectInterpolateFromRectToRect({0, 0, 1, 1}, ORVCGRectNull, 0.0)));

    QTransform quarter;
    quarter.rotate(90);
    const QTransform half = ORVCGAffineTransformInterpolateFromTransformToTransform(QTransform(), quarter, 0.5);
    const double c = std::cos(std::numbers::pi / 4);
    EXPECT_NEAR(half.m11(), c, 1e-12);
    EXPECT_NEAR(half.m12(), c, 1e-12);
    EXPECT_NEAR(half.m21(), -c, 1e-12);
    EXPECT_NEAR(half.m22(), c, 1e-12);

    // Scale is applied before rotation and translation: (1, 0) scaled by 2,
    // turned a quarter, then moved by (5, 0) lands on (5, 2).
    QTransform to;
    to.translate(5, 0);
    to.rotate(90);
    to.scale(2, 2);
    const QTransform full = ORVCGAffineTransformInterpolateFromTransformToTransform(QTransform(), to, 1.0);
    expectNear(full.map(QPointF(1, 0)), QPointF(5, 2), 1e-12);
}
