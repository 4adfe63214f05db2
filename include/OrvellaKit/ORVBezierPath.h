#pragma once

// A vector path as an inspectable list of elements (move, line, cubic curve,
// close), its conversion to QPainterPath, and the smooth cubic curve through
// a list of points.

#include <QList>
#include <QPainterPath>
#include <QPointF>

#include <array>
#include <cstddef>
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

namespace orv::detail {
// Large element buffers (a curve through a million points is tens of
// megabytes) are placed on transparent huge pages where the kernel offers
// them: filling fresh memory 4 KiB page by page would otherwise cost more
// than the curve's arithmetic. Small buffers use the ordinary allocator.
void *allocateLargeBuffer(std::size_t bytes);
void freeLargeBuffer(void *buffer, std::size_t bytes);

template<class T>
struct LargeBufferAllocator {
    using value_type = T;
    LargeBufferAllocator() = default;
    template<class U>
    LargeBufferAllocator(const LargeBufferAllocator<U> &)
    {
    }
    T *allocate(std::size_t count) { return static_cast<T *>(allocateLargeBuffer(count * sizeof(T))); }
    void deallocate(T *buffer, std::size_t count) { freeLargeBuffer(buffer, count * sizeof(T)); }
    friend bool operator==(const LargeBufferAllocator &, const LargeBufferAllocator &) { return true; }
};
} // namespace orv::detail

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
    using Elements = std::vector<ORVBezierPathElement, orv::detail::LargeBufferAllocator<ORVBezierPathElement>>;
    const Elements &elements() const { return _elements; }

private:
    Elements _elements;
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
