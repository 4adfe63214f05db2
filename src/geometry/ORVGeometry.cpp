#include <OrvellaKit/ORVGeometry.h>

#include <OrvellaKit/ORVException.h>

#include <algorithm>
#include <cmath>

namespace {
constexpr const char kGeometryFile[] = "CoreGraphics+OrvellaKit";
constexpr const char kDecelerateFunction[] =
    "CGPoint ORVCGPointDecelerateWithInitialVelocity(CGPoint, CGPoint, CGFloat, CFTimeInterval * _Nullable)";
constexpr const char kDurationFunction[] = "CFTimeInterval _CGFloatDecelerateComputeDuration(CGFloat, CGFloat)";
constexpr const char kValueFunction[] = "CGFloat _CGFloatDecelerateComputeValue(CGFloat, CGFloat, CGFloat, CFTimeInterval)";

// Speed (points per millisecond) at which motion counts as over.
constexpr double kRestingSpeed = 0.005;
constexpr double kMillisecondsPerSecond = 1000.0;

double computeDuration(double velocity, double decelerationRate)
{
    if (!ORVFunctionParameterAssert(decelerationRate > 0.0, "decelerationRate > 0.0", kDurationFunction,
                                    kGeometryFile))
        return 0.0;
    if (velocity == 0.0)
        return 0.0;
    const double duration = std::log(std::fabs(kRestingSpeed / (velocity / kMillisecondsPerSecond))) /
                            (std::log(decelerationRate) * kMillisecondsPerSecond);
    return (std::isnan(duration) || duration < 0.0) ? 0.0 : duration;
}

double computeValue(double value, double velocity, double decelerationRate, double duration)
{
    if (!ORVFunctionParameterAssert(decelerationRate > 0.0, "decelerationRate > 0.0", kValueFunction, kGeometryFile) ||
        !ORVFunctionParameterAssert(duration >= 0.0, "duration >= 0.0", kValueFunction, kGeometryFile))
        return value;
    if (velocity == 0.0 || duration == 0.0)
        return value;
    const double r = decelerationRate;
    const double result = value + (velocity / kMillisecondsPerSecond) *
                                      (r * (1.0 - std::pow(r, duration * kMillisecondsPerSecond)) / (1.0 - r));
    return std::isnan(result) ? value : result;
}

double aligned(double value, double scale)
{
    return std::round(value * scale) / scale; // std::round: half away from zero
}

double lerp(double from, double to, double fraction)
{
    return from + (to - from) * fraction;
}
} // namespace

bool ORVCGRectIsNull(const QRectF &rect)
{
    return rect.x() == std::numeric_limits<qreal>::infinity() || rect.y() == std::numeric_limits<qreal>::infinity();
}

QPointF ORVCGPointDecelerateWithInitialVelocity(QPointF point, QPointF velocity, double decelerationRate,
                                                double *duration)
{
    if (!ORVFunctionParameterAssert(decelerationRate > 0.0, "decelerationRate > 0.0", kDecelerateFunction,
                                    kGeometryFile)) {
        if (duration)
            *duration = 0.0;
        return point;
    }
    const double durationX = computeDuration(velocity.x(), decelerationRate);
    const double durationY = computeDuration(velocity.y(), decelerationRate);
    if (duration)
        *duration = std::max(durationX, durationY);
    return {computeValue(point.x(), velocity.x(), decelerationRate, durationX),
            computeValue(point.y(), velocity.y(), decelerationRate, durationY)};
}

double ORVCGPointDistanceToRect(QPointF point, const QRectF &rect)
{
    if (ORVCGRectIsNull(rect))
        return std::numeric_limits<double>::max();
    const QRectF r = rect.normalized();
    const double dx = std::max({r.left() - point.x(), point.x() - r.right(), 0.0});
    const double dy = std::max({r.top() - point.y(), point.y() - r.bottom(), 0.0});
    if (dx * dy == 0.0)
        return std::max(dx, dy);
    return std::hypot(dx, dy);
}

QPointF ORVCGPointPixelAligned(QPointF point, double scale)
{
    if (!(scale > 0.0))
        return point;
    return {aligned(point.x(), scale), aligned(point.y(), scale)};
}

QSizeF ORVCGSizePixelAligned(QSizeF size, double scale)
{
    if (!(scale > 0.0))
        return size;
    return {aligned(size.width(), scale), aligned(size.height(), scale)};
}

QRectF ORVCGRectPixelAligned(const QRectF &rect, double scale)
{
    if (!(scale > 0.0))
        return rect;
    if (ORVCGRectIsNull(rect))
        return ORVCGRectNull;
    return {aligned(rect.x(), scale), aligned(rect.y(), scale), aligned(rect.width(), scale),
            aligned(rect.height(), scale)};
}

QPointF ORVCGPointInterpolateFromPointToPoint(QPointF from, QPointF to, double fraction)
{
    return {lerp(from.x(), to.x(), fraction), lerp(from.y(), to.y(), fraction)};
}

QSizeF ORVCGSizeInterpolateFromSizeToSize(QSizeF from, QSizeF to, double fraction)
{
    return {lerp(from.width(), to.width(), fraction), lerp(from.height(), to.height(), fraction)};
}

QRectF ORVCGRectInterpolateFromRectToRect(const QRectF &from, const QRectF &to, double fraction)
{
    if (ORVCGRectIsNull(from) || ORVCGRectIsNull(to))
        return ORVCGRectNull;
    return {lerp(from.x(), to.x(), fraction), lerp(from.y(), to.y(), fraction),
            lerp(from.width(), to.width(), fraction), lerp(from.height(), to.height(), fraction)};
}

QTransform ORVCGAffineTransformInterpolateFromTransformToTransform(const QTransform &from, const QTransform &to,
                                                                   double fraction)
{
    // QTransform's m11 m12 m21 m22 dx dy are a b c d tx ty.
    struct Parts {
        double scaleX, scaleY, rotation, tx, ty;
    };
    auto decompose = [](const QTransform &t) {
        return Parts{std::sqrt(t.m11() * t.m11() + t.m21() * t.m21()), std::sqrt(t.m12() * t.m12() + t.m22() * t.m22()),
                     std::atan2(t.m12(), t.m11()), t.dx(), t.dy()};
    };
    const Parts a = decompose(from);
    const Parts b = decompose(to);
    const double scaleX = lerp(a.scaleX, b.scaleX, fraction);
    const double scaleY = lerp(a.scaleY, b.scaleY, fraction);
    const double rotation = lerp(a.rotation, b.rotation, fraction);
    const double c = std::cos(rotation);
    const double s = std::sin(rotation);
    // scale * rotation * translation in the row-vector convention both
    // QTransform and the platform use: p' = p * S * R * T.
    const QTransform scale(scaleX, 0, 0, scaleY, 0, 0);
    const QTransform rotate(c, s, -s, c, 0, 0);
    const QTransform translate(1, 0, 0, 1, lerp(a.tx, b.tx, fraction), lerp(a.ty, b.ty, fraction));
    return scale * rotate * translate;
}
