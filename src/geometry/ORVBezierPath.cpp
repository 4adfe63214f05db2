#include <OrvellaKit/ORVBezierPath.h>

#include <memory>

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
    const qsizetype segments = n - 1;
    const auto s = static_cast<size_t>(segments);

    // One block for the per-segment arrays: first and second control points,
    // and for three or more points the sub, main and super diagonals and the
    // right-hand sides of x and y.
    const size_t arrays = n == 2 ? 4 : 9;
    std::unique_ptr<double[]> storage(new double[arrays * s]);
    double *c1x = storage.get();
    double *c1y = c1x + s;
    double *c2x = c1y + s;
    double *c2y = c2x + s;
    const QPointF *p = points.constData();

    if (n == 2) {
        c1x[0] = (2 * p[0].x() + p[1].x()) / 3;
        c1y[0] = (2 * p[0].y() + p[1].y()) / 3;
        c2x[0] = 2 * c1x[0] - p[0].x();
        c2y[0] = 2 * c1y[0] - p[0].y();
    } else {
        double *a = c2y + s;
        double *b = a + s;
        double *cd = b + s;
        double *rx = cd + s;
        double *ry = rx + s;
        a[0] = 0;
        b[0] = 2;
        cd[0] = 1;
        rx[0] = p[0].x() + 2 * p[1].x();
        ry[0] = p[0].y() + 2 * p[1].y();
        for (size_t i = 1; i + 1 < s; ++i) {
            a[i] = 1;
            b[i] = 4;
            cd[i] = 1;
            rx[i] = 4 * p[i].x() + 2 * p[i + 1].x();
            ry[i] = 4 * p[i].y() + 2 * p[i + 1].y();
        }
        const size_t last = s - 1;
        a[last] = 2;
        b[last] = 7;
        cd[last] = 0;
        rx[last] = 8 * p[last].x() + p[s].x();
        ry[last] = 8 * p[last].y() + p[s].y();

        for (size_t i = 1; i < s; ++i) {
            const double m = a[i] / b[i - 1];
            b[i] -= m * cd[i - 1];
            rx[i] -= m * rx[i - 1];
            ry[i] -= m * ry[i - 1];
        }
        c1x[last] = rx[last] / b[last];
        c1y[last] = ry[last] / b[last];
        for (size_t i = last; i-- > 0;) {
            c1x[i] = (rx[i] - cd[i] * c1x[i + 1]) / b[i];
            c1y[i] = (ry[i] - cd[i] * c1y[i + 1]) / b[i];
        }
        for (size_t i = 0; i < last; ++i) {
            c2x[i] = 2 * p[i + 1].x() - c1x[i + 1];
            c2y[i] = 2 * p[i + 1].y() - c1y[i + 1];
        }
        c2x[last] = (p[s].x() + c1x[last]) / 2;
        c2y[last] = (p[s].y() + c1y[last]) / 2;
    }

    path.reserve(segments + 1);
    path.moveToPoint(p[0]);
    for (size_t k = 1; k <= s; ++k)
        path.curveToPoint(p[k], {c1x[k - 1], c1y[k - 1]}, {c2x[k - 1], c2y[k - 1]});
    return path;
}
