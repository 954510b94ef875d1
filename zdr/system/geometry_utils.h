// GeometryUtils: the aspect-preserving rules for placing a captured picture in
// a canvas or a view (fit, centre, scale) and the distance at which a camera
// with a given field of view sees a whole height.
//
// Sizes are used as given: a zero source size means "nothing to scale" where
// noted; not-a-number and negative extents flow through the arithmetic,
// except in fit(), which treats a rectangle with a not-a-number or an empty
// extent as not sensible.
//
// Threads: any; class-level operations without state. fit() may log a warning
// on the "geometry" category logger.
#pragma once

#include "zdr/system/geometry_types.h"

namespace zdr {

class GeometryUtils {
 public:
    GeometryUtils() = delete;

    /// 1.0 when the source is 0 by 0; else the smaller of destW / srcW and
    /// destH / srcH.
    static double scaleNeededToFitSource(Size sourceSize, Size intoDestSize);

    /// The offset that centres the unscaled source in the destination along
    /// the axis that does not limit the fit: ((destW - srcW) / 2, 0) when the
    /// height ratio is the smaller one, else (0, (destH - srcH) / 2).
    static Point offsetToCenter(Size sourceSize, Size intoDestSize);

    /// thisSize multiplied by the smaller of viewW / canvasW and viewH /
    /// canvasH; unchanged when the canvas size is 0 by 0.
    static Size scale(Size thisSize, Rect canvasRect, Size toViewSize);

    /// height * -0.5 / tan(fov / 2), fov in degrees: the (negative) distance
    /// at which a camera with that vertical field of view sees the whole
    /// height.
    static double distanceFromZeroToFitSize(Size size, double fov);

    /// thisRect scaled to fit destRect, keeping its aspect, centred along the
    /// free axis. The origin is relative to the destination (its own origin is
    /// not added). A rectangle is sensible when it is not empty and has no
    /// not-a-number: when only one of the two is sensible it is returned
    /// unchanged; when neither is, a warning is logged and the zero rectangle
    /// returned.
    static Rect fit(Rect thisRect, Rect destRect);
};

}  // namespace zdr
