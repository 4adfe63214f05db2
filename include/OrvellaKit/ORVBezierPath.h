#pragma once

// A vector path as an inspectable list of elements (move, line, cubic curve,
// close), its conversion to QPainterPath, and the smooth cubic curve through
// a list of points.

#include <QList>
#include <QPainterPath>
#include <QPointF>

#include <array>
#include <optional>
#include <vector>

enum class ORVBezierPathElementType { MoveTo, LineTo, CurveTo, ClosePath };

struct ORVBezierPathElement {
    ORVBezierPathElementType type = ORVBezierPathElementType::MoveTo;
    // MoveTo, LineTo: points[0] is the point. CurveTo: points[0] and
    // points[1] are the control points, points[2] the end point. ClosePath:
    // none.
    std::array<QPointF, 3> points{};
    friend bool operator==(const ORVBezierPathElement &, const ORVBezierPathElement &) = default;
};

class ORVBezierPath {
public:
    void moveToPoint(QPointF point);
    void lineToPoint(QPointF point);
    void curveToPoint(QPointF endPoint, QPointF controlPoint1, QPointF controlPoint2);
    void closePath();
    void reserve(qsizetype elementCount) { _elements.reserve(static_cast<size_t>(elementCount)); }

    bool isEmpty() const { return _elements.empty(); }
    qsizetype elementCount() const { return static_cast<qsizetype>(_elements.size()); }
    const ORVBezierPathElement &elementAtIndex(qsizetype index) const { return _elements[static_cast<size_t>(index)]; }
    const std::vector<ORVBezierPathElement> &elements() const { return _elements; }

private:
    std::vector<ORVBezierPathElement> _elements;
};

// The path as a QPainterPath; nothing for an empty path. With `forceClosed`
// the last subpath is closed unless the path already ends closed or its last
// drawing element was followed by nothing but moves (a path that ends after
// a move only is not closed).
std::optional<QPainterPath> orv_CGPathForceClosedPath(const ORVBezierPath &path, bool forceClosed);
// The same with forcing.
std::optional<QPainterPath> orv_CGPath(const ORVBezierPath &path);

class ORVCubicCurveAlgorithm {
public:
    // A path of one move and N - 1 cubic curves through every point, with
    // continuous first and second derivatives at the inner points (control
    // points from one tridiagonal system per coordinate, Thomas algorithm).
    // Fewer than two points give an empty path. Linear time.
    static ORVBezierPath smoothPathThroughPoints(const QList<QPointF> &points);
};
