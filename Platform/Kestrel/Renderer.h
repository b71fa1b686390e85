// What a frame renders, taken from the context when the frame starts, and
// the work of one tile. The frame runs without the context's lock, so a job
// holds everything it reads: its own copies of the parameters and shared
// references to the scene and to the images it writes.
#ifndef KESTREL_RENDERER_H
#define KESTREL_RENDERER_H

#include "Objects.h"
#include "PathTracer.h"
#include "Sampling.h"
#include "Scene.h"

#include <memory>
#include <vector>

namespace Kestrel
{

constexpr int kTileSize = 16;

// One output of the frame: a channel into an attachment's image.
struct FrameTarget
{
    int _nIndex = 0; // attachment point
    std::shared_ptr<TextureImage> _pImage;
    int _nFilter = 0;
    int _eBlendMode = KS_BLEND_MODE_0;
    Channel _eChannel = kCH_Radiance;
};

// Paths per pixel: one jittered over the pixel for unfiltered targets, one
// drawn from the filter for filtered ones; each traced only when some
// target takes it.
enum PathStream
{
    kPS_Box,
    kPS_Filter,
    kPS_Count
};

struct FrameJob
{
    int _nWidth = 0; // the attachments' common size
    int _nHeight = 0;
    // The pixels of this frame: the viewport within the attachments,
    // [x0, x1) x [y0, y1).
    int _nX0 = 0;
    int _nY0 = 0;
    int _nX1 = 0;
    int _nY1 = 0;
    int _nRayDepthLimit = 0;
    float _fFilterSize = 1.0f;
    int _nFilterTableSize = 1;
    std::vector<float> _filterTable;
    std::vector<FrameTarget> _targets;
    int _nFrameIndex = 0; // picks the frame's random numbers

    std::shared_ptr<const Scene> _pScene; // null when there are no targets
    Camera _camera;
    Vec3 _background;
    FilterDistribution _filter;

    // Works out the filter distribution and what each path stream must
    // compute, once the fields above are in place.
    void Prepare();
    bool _streamUsed[kPS_Count] = {};
    PathRequest _requests[kPS_Count];
};

// Renders the pixels [x0, x1) x [y0, y1) of `job`. Called on several worker
// threads at once, each with tiles of its own: it writes only its tile's
// pixels and its own statistics.
void RenderTile(const FrameJob& job, int x0, int y0, int x1, int y1, TileStatistics* statistics);

// Combines a sample with what a target pixel holds, by the blend mode:
// replace, multiply, add, or keep the maximum.
float Blend(int blendMode, float target, float sample);

} // namespace Kestrel

#endif // KESTREL_RENDERER_H
