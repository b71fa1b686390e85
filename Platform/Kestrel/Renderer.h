// What a frame renders, taken from the context when the frame starts, and
// the work of one tile. The frame runs without the context's lock, so a job
// holds everything it reads: its own copies of the parameters and shared
// references to the images it writes.
#ifndef KESTREL_RENDERER_H
#define KESTREL_RENDERER_H

#include "Objects.h"

#include <memory>
#include <vector>

namespace Kestrel
{

constexpr int kTileSize = 16;

struct FrameTarget
{
    int _nIndex = 0; // attachment point
    std::shared_ptr<TextureImage> _pImage;
    int _nFilter = 0;
    int _eBlendMode = KS_BLEND_MODE_0;
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
    int _nFrameIndex = 0; // frames this context rendered before
};

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

// Renders the pixels [x0, x1) x [y0, y1) of `job`. Called on several worker
// threads at once, each with tiles of its own: it writes only its tile's
// pixels and its own statistics.
void RenderTile(const FrameJob& job, int x0, int y0, int x1, int y1, TileStatistics* statistics);

} // namespace Kestrel

#endif // KESTREL_RENDERER_H
