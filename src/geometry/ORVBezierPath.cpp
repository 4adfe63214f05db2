#include <OrvellaKit/ORVBezierPath.h>

#include <cstdlib>
#include <memory>
#include <new>

#include <sys/mman.h>

namespace orv::detail {
namespace {
constexpr std::size_t kHugePage = std::size_t(2) << 20;
constexpr std::size_t kLargeBuffer = 2 * kHugePage;
} // namespace

void *allocateLargeBuffer(std::size_t bytes)
{
    if (bytes < kLargeBuffer)
        return ::operator new(bytes);
    const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    void *buffer = std::aligned_alloc(kHugePage, rounded);
    if (!buffer)
        throw std::bad_alloc();
    ::madvise(buffer, rounded, MADV_HUGEPAGE); // a hint: ignored where unsupported
    return buffer;
}

void freeLargeBuffer(void *buffer, std::size_t bytes)
{
    if (bytes < kLargeBuffer)
        ::operator delete(buffer);
    else
        std::free(buffer);
}
} // namespace orv::detail

void ORVBezierPath::moveToPoint(QPointF point)
{
    _elements.push_back({ORVBezierPathElementType::MoveTo, {point, {}, {}}});
}

void ORVBezierPath::lineToPoint(QPointF point)
{
    _elements.push_back({ORVBezierPathElementType::LineTo, {point, {}, {}}});
}

void ORVBezierPath::curveToPoint(QPointF endPoint, QPointF controlPoint1, QPointF controlPoint2)
{
    _elements.push_back({ORVBezierPathElementType::CurveTo, {controlPoint1, controlPoint2, endPoint}});
}

void ORVBezierPath::closePath()
{
    _elements.push_back({ORVBezierPathElementType::ClosePath, {}});
}

std::optional<QPainterPath> orv_CGPathForceClosedPath(const ORVBezierPath &path, bool forceClosed)
{
    if (path.isEmpty())
        return std::nullopt;
    QPainterPath result;
    bool closed = true;
    for (const ORVBezierPathElement &element : path.elements()) {
        switch (element.type) {
        case ORVBezierPathElementType::MoveTo:
            result.moveTo(element.points[0]);
            break;
        case ORVBezierPathElementType::LineTo:
            result.lineTo(element.points[0]);
            closed = false;
            break;
        case ORVBezierPathElementType::CurveTo:
            result.cubicTo(element.points[0], element.points[1], element.points[2]);
            closed = false;
            break;
        case ORVBezierPathElementType::ClosePath:
            result.closeSubpath();
            closed = true;
            break;
        }
    }
    if (forceClosed && !closed)
        result.closeSubpath();
    return result;
}

std::optional<QPainterPath> orv_CGPath(const ORVBezierPath &path)
{
    return orv_CGPathForceClosedPath(path, true);
}

ORVBezierPath ORVCubicCurveAlgorithm::smoothPathThroughPoints(const QList<QPointF> &points)
{
    ORVBezierPath path;
    const qsizetype n = points.size();
    if (n < 2)
        return path;
    const auto s = static_cast<size_t>(n - 1); // segments
    const QPointF *p = points.constData();
    path.reserve(n);
    path.moveToPoint(p[0]);

    if (s == 1) {
        const QPointF c1 = (2 * p[0] + p[1]) / 3;
        path.curveToPoint(p[1], c1, 2 * c1 - p[0]);
        return path;
    }

    // The tridiagonal system for the first control points, per coordinate:
    //   row 0:            A = 0, B = 2, Cd = 1, R = P0 + 2 P1
    //   rows 1 .. S-2:    A = 1, B = 4, Cd = 1, R = 4 Pi + 2 P(i+1)
    //   row S-1:          A = 2, B = 7, Cd = 0, R = 8 P(S-1) + PS
    // A and Cd are these constants, so only the main diagonal and the
    // right-hand sides are stored; building a row and its forward
    // elimination happen in the same pass, and back substitution leaves the
    // first control points in place of the right-hand sides. Three doubles
    // per segment keep the memory traffic low for large inputs.
    std::unique_ptr<double[]> storage(new double[3 * s]);
    double *b = storage.get();
    double *rx = b + s;
    double *ry = rx + s;
    const size_t last = s - 1;
    auto subDiagonal = [last](size_t i) { return i == 0 ? 0.0 : (i == last ? 2.0 : 1.0); };
    auto superDiagonal = [last](size_t i) { return i == last ? 0.0 : 1.0; };

    b[0] = 2;
    rx[0] = p[0].x() + 2 * p[1].x();
    ry[0] = p[0].y() + 2 * p[1].y();
    for (size_t i = 1; i < s; ++i) {
        double bi, rxi, ryi;
        if (i < last) {
            bi = 4;
            rxi = 4 * p[i].x() + 2 * p[i + 1].x();
            ryi = 4 * p[i].y() + 2 * p[i + 1].y();
        } else {
            bi = 7;
            rxi = 8 * p[i].x() + p[s].x();
            ryi = 8 * p[i].y() + p[s].y();
        }
        const double m = subDiagonal(i) / b[i - 1];
        b[i] = bi - m * superDiagonal(i - 1);
        rx[i] = rxi - m * rx[i - 1];
        ry[i] = ryi - m * ry[i - 1];
    }
    rx[last] /= b[last];
    ry[last] /= b[last];
    for (size_t i = last; i-- > 0;) {
        rx[i] = (rx[i] - superDiagonal(i) * rx[i + 1]) / b[i];
        ry[i] = (ry[i] - superDiagonal(i) * ry[i + 1]) / b[i];
    }
    const double *c1x = rx;
    const double *c1y = ry;

    // Second control points: 2 P(i+1) - C1(i+1), and (PS + C1(S-1)) / 2 last.
    for (size_t i = 0; i < last; ++i)
        path.curveToPoint(p[i + 1], {c1x[i], c1y[i]},
                          {2 * p[i + 1].x() - c1x[i + 1], 2 * p[i + 1].y() - c1y[i + 1]});
    path.curveToPoint(p[s], {c1x[last], c1y[last]}, {(p[s].x() + c1x[last]) / 2, (p[s].y() + c1y[last]) / 2});
    return path;
}
