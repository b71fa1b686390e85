// One path from the camera through the scene, and what a frame can ask of
// it: radiance, and the primary hit's albedo, normal, depth and visibility.
#ifndef KESTREL_PATH_TRACER_H
#define KESTREL_PATH_TRACER_H

#include "RenderMath.h"
#include "Sampling.h"

namespace Kestrel
{

class Scene;

// Rays traced, summed over the paths of a tile and then of a frame.
struct TileStatistics
{
    long long _nPrimaryRays = 0;
    long long _nSecondaryRays = 0;
    long long _nShadowRays = 0;
    long long _nHits = 0;

    TileStatistics& operator+=(const TileStatistics& other)
    {
        _nPrimaryRays += other._nPrimaryRays;
        _nSecondaryRays += other._nSecondaryRays;
        _nShadowRays += other._nShadowRays;
        _nHits += other._nHits;
        return *this;
    }
};

struct PathRequest
{
    Vec3 _background;
    int _nDepthLimit = 0;   // bounces after the camera ray
    bool _bRadiance = true; // false: stop at the primary hit
    bool _bVisibility = false;
};

struct PathResult
{
    Vec3 _radiance;
    Vec3 _albedo;      // 0 where the camera ray meets nothing
    Vec3 _normal;      // unit, towards the camera; 0 where nothing is hit
    float _fDepth = 0; // distance to the primary hit; 0 where nothing is hit
    float _fVisibility = 1.0f;
    bool _bHit = false;
};

void TracePath(const Scene& scene, const Vec3& origin, const Vec3& direction,
               const PathRequest& request, PathRandom& random, PathResult* result,
               TileStatistics* statistics);

} // namespace Kestrel

#endif // KESTREL_PATH_TRACER_H
