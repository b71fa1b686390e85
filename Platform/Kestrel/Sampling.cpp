#include "Sampling.h"

namespace Kestrel
{

void FilterDistribution::Build(float extent, int size, const std::vector<float>& table)
{
    _fExtent = extent;
    _nSize = size;
    _fStep = size > 0 ? extent / static_cast<float>(size) : extent;
    _cumulative.clear();
    _weights.clear();
    const std::size_t cells = static_cast<std::size_t>(size) * static_cast<std::size_t>(size);
    if (size <= 0 || table.size() < cells)
    {
        _nSize = 0;
        return;
    }
    double magnitude = 0.0;
    double integral = 0.0;
    for (std::size_t i = 0; i < cells; ++i)
    {
        const float value = std::isfinite(table[i]) ? table[i] : 0.0f;
        magnitude += std::fabs(value);
        integral += value;
    }
    if (!(magnitude > 0.0))
    {
        _nSize = 0;
        return;
    }
    // A filter whose lobes cancel or outweigh its body has no meaningful
    // normalisation; its samples keep their bare signs.
    const float scale =
        integral > 1e-12 * magnitude ? static_cast<float>(magnitude / integral) : 1.0f;
    _cumulative.resize(cells);
    _weights.resize(cells);
    double running = 0.0;
    for (std::size_t i = 0; i < cells; ++i)
    {
        const float value = std::isfinite(table[i]) ? table[i] : 0.0f;
        running += std::fabs(value);
        _cumulative[i] = static_cast<float>(running / magnitude);
        _weights[i] = value < 0.0f ? -scale : scale;
    }
    // Rounding must not leave the last draws without a cell.
    _cumulative.back() = 1.0f;
}

void FilterDistribution::Sample(float u1, float u2, float u3, float* dx, float* dy,
                                float* weight) const
{
    if (_nSize == 0)
    {
        // No usable table: the whole square, evenly.
        *dx = (u2 - 0.5f) * _fExtent;
        *dy = (u3 - 0.5f) * _fExtent;
        *weight = 1.0f;
        return;
    }
    const std::size_t cell = SearchCumulative(_cumulative, u1);
    const int row = static_cast<int>(cell / static_cast<std::size_t>(_nSize));
    const int column = static_cast<int>(cell % static_cast<std::size_t>(_nSize));
    // Entry (r, c) is the filter's value at the point (c, r) * step of its
    // square, whose centre lies on the pixel's centre; the entry stands for
    // the cell of one step centred on that point, so that a filter symmetric
    // about its centre samples symmetrically about the pixel's.
    *dx = (static_cast<float>(column) + u2 - 0.5f) * _fStep - 0.5f * _fExtent;
    *dy = (static_cast<float>(row) + u3 - 0.5f) * _fStep - 0.5f * _fExtent;
    *weight = _weights[cell];
}

} // namespace Kestrel
