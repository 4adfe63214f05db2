#pragma once

/// \file
/// Geometry and animation math on QPointF, QSizeF, QRectF and QTransform:
/// momentum deceleration, distance to a rectangle, pixel alignment and linear
/// interpolation. Pure functions, safe on any thread.
///
/// QRectF::isNull() means "zero size"; the absence of a rectangle is
/// ORVCGRectNull (origin at +infinity), tested with ORVCGRectIsNull().

#include <OrvellaKit/ORVExport.h>

#include <QPointF>
#include <QRectF>
#include <QSizeF>
#include <QTransform>

#include <limits>

/// The null rectangle: no rectangle at all (origin at +infinity, size 0).
inline const QRectF ORVCGRectNull(std::numeric_limits<qreal>::infinity(), std::numeric_limits<qreal>::infinity(), 0,
                                  0);

/// True when either origin coordinate is +infinity.
ORVELLAKIT_EXPORT bool ORVCGRectIsNull(const QRectF &rect);

/// Where a point moving at `velocity` (points per second) comes to rest when
/// its velocity is multiplied by `decelerationRate` every millisecond (0.998
/// is a usual rate), and after how long (seconds, the larger of the two axes)
/// through `duration` when given. Motion ends once the speed falls to 0.005
/// points per millisecond. A rate of 0 or less fails "decelerationRate > 0.0"
/// and returns the point (with a duration of 0); a rate of 1 returns the
/// point.
ORVELLAKIT_EXPORT QPointF ORVCGPointDecelerateWithInitialVelocity(QPointF point, QPointF velocity,
                                                                  double decelerationRate, double *duration = nullptr);

/// 0 inside or on the edge; the distance along one axis when level with the
/// rectangle on the other; else the Euclidean distance to the nearest corner.
/// The null rectangle gives the largest finite double.
ORVELLAKIT_EXPORT double ORVCGPointDistanceToRect(QPointF point, const QRectF &rect);

/// round(value * scale) / scale per coordinate, half away from zero; a scale
/// of 0 or less returns the input. A rectangle's origin and size are rounded
/// independently (its far edge is not rounded as an edge); the null rectangle
/// stays null.
ORVELLAKIT_EXPORT QPointF ORVCGPointPixelAligned(QPointF point, double scale);
/// The same for a size.
ORVELLAKIT_EXPORT QSizeF ORVCGSizePixelAligned(QSizeF size, double scale);
/// The same for a rectangle.
ORVELLAKIT_EXPORT QRectF ORVCGRectPixelAligned(const QRectF &rect, double scale);

/// from + (to - from) * fraction per component; the fraction is not clamped.
ORVELLAKIT_EXPORT QPointF ORVCGPointInterpolateFromPointToPoint(QPointF from, QPointF to, double fraction);
/// The same for sizes.
ORVELLAKIT_EXPORT QSizeF ORVCGSizeInterpolateFromSizeToSize(QSizeF from, QSizeF to, double fraction);
/// The same for rectangles (origin and size); the null rectangle when either
/// is null.
ORVELLAKIT_EXPORT QRectF ORVCGRectInterpolateFromRectToRect(const QRectF &from, const QRectF &to, double fraction);
/// Interpolates x scale sqrt(a^2 + c^2), y scale sqrt(b^2 + d^2), rotation
/// atan2(b, a) (as a plain number) and translation, then builds scale, then
/// rotation, then translation (scale applied first).
ORVELLAKIT_EXPORT QTransform ORVCGAffineTransformInterpolateFromTransformToTransform(const QTransform &from,
                                                                                     const QTransform &to,
                                                                                     double fraction);
