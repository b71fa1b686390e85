#include "Renderer.h"

namespace Kestrel
{

void RenderTile(const FrameJob& /*job*/, int x0, int y0, int x1, int y1, TileStatistics* statistics)
{
    // No scene is shaded yet: every pixel of the tile sends one primary ray
    // that hits nothing, and the targets keep what they hold.
    statistics->_nPrimaryRays += static_cast<long long>(x1 - x0) * (y1 - y0);
}

} // namespace Kestrel
