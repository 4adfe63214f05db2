#pragma once

/// \file
/// A vector path as an inspectable list of elements (move, line, cubic curve,
/// close), its conversion to QPainterPath, and the smooth cubic curve through
/// a list of points.
///
/// Threads: any thread. Paths are values and are not locked: one path must
/// not be changed while another thread uses it.

#include <OrvellaKit/ORVExport.h>

#include <QList>
#include <QPainterPath>
#include <QPointF>

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

/// The kind of a path element.
enum class ORVBezierPathElementType {
    MoveTo,   ///< Starts a subpath at a point.
    LineTo,   ///< A straight line to a point.
    CurveTo,  ///< A cubic Bézier curve to a point.
    ClosePath ///< A line back to the subpath's start.
};

/// One element of an ORVBezierPath.
struct ORVBezierPathElement {
    /// The element's kind.
    ORVBezierPathElementType type = ORVBezierPathElementType::MoveTo;
    /// MoveTo, LineTo: points[0] is the point. CurveTo: points[0] and
    /// points[1] are the control points, points[2] the end point. ClosePath:
    /// none.
    std::array<QPointF, 3> points{};
    /// Equal kinds and all three points equal (unused points included).
    friend bool operator==(const ORVBezierPathElement &, const ORVBezierPathElement &) = default;
};

namespace orv::detail {
/// Large element buffers (a curve through a million points is tens of
/// megabytes) are placed on transparent huge pages where the kernel offers
/// them: filling fresh memory 4 KiB page by page would otherwise cost more
/// than the curve's arithmetic. Small buffers use the ordinary allocator.
ORVELLAKIT_EXPORT void *allocateLargeBuffer(std::size_t bytes);
ORVELLAKIT_EXPORT void freeLargeBuffer(void *buffer, std::size_t bytes);

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

/// A vector path: a list of elements appended in drawing order.
///
/// Threads: any thread; not locked (a value).
/// Ownership: a value; owns its elements.
class ORVELLAKIT_EXPORT ORVBezierPath {
public:
    /// Appends a MoveTo element: starts a subpath at `point`.
    void moveToPoint(QPointF point);
    /// Appends a LineTo element to `point`.
    void lineToPoint(QPointF point);
    /// Appends a CurveTo element to `endPoint` with the two control points.
    void curveToPoint(QPointF endPoint, QPointF controlPoint1, QPointF controlPoint2);
    /// Appends a ClosePath element.
    void closePath();
    /// Makes room for `elementCount` elements in all.
    void reserve(qsizetype elementCount) { _elements.reserve(static_cast<size_t>(elementCount)); }

    /// Whether the path has no elements.
    bool isEmpty() const { return _elements.empty(); }
    /// The number of elements.
    qsizetype elementCount() const { return static_cast<qsizetype>(_elements.size()); }
    /// The element at `index` (0 ... elementCount() - 1; not checked).
    const ORVBezierPathElement &elementAtIndex(qsizetype index) const { return _elements[static_cast<size_t>(index)]; }
    /// The element storage (large ones on huge pages where the kernel offers
    /// them).
    using Elements = std::vector<ORVBezierPathElement, orv::detail::LargeBufferAllocator<ORVBezierPathElement>>;
    /// All elements in order.
    const Elements &elements() const { return _elements; }

private:
    Elements _elements;
};

/// The path as a QPainterPath; nothing for an empty path. With `forceClosed`
/// the last subpath is closed unless the path already ends closed or its last
/// drawing element was followed by nothing but moves (a path that ends after
/// a move only is not closed).
ORVELLAKIT_EXPORT std::optional<QPainterPath> orv_CGPathForceClosedPath(const ORVBezierPath &path, bool forceClosed);
/// The same with forcing.
ORVELLAKIT_EXPORT std::optional<QPainterPath> orv_CGPath(const ORVBezierPath &path);

/// The smooth curve through points (a namespace of one function).
///
/// Threads: any thread.
/// Ownership: the path is returned by value.
class ORVELLAKIT_EXPORT ORVCubicCurveAlgorithm {
public:
    /// A path of one move and N - 1 cubic curves through every point, with
    /// continuous first and second derivatives at the inner points (control
    /// points from one tridiagonal system per coordinate, Thomas algorithm).
    /// Fewer than two points give an empty path. Linear time.
    static ORVBezierPath smoothPathThroughPoints(const QList<QPointF> &points);
};
