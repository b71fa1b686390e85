// Random numbers and the warps that turn them into directions and pixel
// positions.
//
// Random numbers are a pure function of (pixel, frame, stream, draw): a
// hash, not a generator with state that threads could share or race on, so
// an image is the same bit for bit whichever thread renders which tile.
#ifndef KESTREL_SAMPLING_H
#define KESTREL_SAMPLING_H

#include "RenderMath.h"

#include <cstdint>
#include <vector>

namespace Kestrel
{

// A 64-bit finaliser with full avalanche: every input bit moves every
// output bit with probability one half.
inline std::uint64_t Mix64(std::uint64_t z)
{
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// The key of one path: the pixel, the frame's index in its context, and a
// stream number that keeps the paths of one pixel apart when a frame traces
// more than one there.
inline std::uint64_t PathKey(int x, int y, int frame, int stream)
{
    const std::uint64_t pixel = (static_cast<std::uint64_t>(static_cast<std::uint32_t>(y)) << 32) |
                                static_cast<std::uint32_t>(x);
    const std::uint64_t when =
        (static_cast<std::uint64_t>(static_cast<std::uint32_t>(frame)) << 8) |
        static_cast<std::uint8_t>(stream);
    return Mix64(Mix64(pixel) ^ (when * 0x9E3779B97F4A7C15ull));
}

// The draws of one path, numbered in the order they are made.
class PathRandom
{
public:
    explicit PathRandom(std::uint64_t key) : _nKey(key) {}

    // Uniform in [0, 1): 24 bits, so that every value is exact in a float
    // and 1 is never reached.
    float Next()
    {
        const std::uint64_t bits = Mix64(_nKey + (++_nDraw) * 0xD1B54A32D192ED03ull);
        return static_cast<float>(bits >> 40) * (1.0f / 16777216.0f);
    }

private:
    std::uint64_t _nKey;
    std::uint64_t _nDraw = 0;
};

// Directions about +z, for a frame built with OrthonormalBasis.
inline Vec3 CosineHemisphere(float u1, float u2)
{
    const float r = std::sqrt(u1);
    const float phi = 2.0f * kPi * u2;
    return {r * std::cos(phi), r * std::sin(phi), std::sqrt(std::max(0.0f, 1.0f - u1))};
}

inline Vec3 UniformSphere(float u1, float u2)
{
    const float z = 1.0f - 2.0f * u1;
    const float r = std::sqrt(std::max(0.0f, 1.0f - z * z));
    const float phi = 2.0f * kPi * u2;
    return {r * std::cos(phi), r * std::sin(phi), z};
}

// Uniform over the cone about +z whose half angle has 1 - cos = oneMinusCos.
// Written with 1 - cos rather than cos, so that the cones of small, distant
// lights keep their precision.
inline Vec3 UniformCone(float u1, float u2, float oneMinusCos)
{
    const float t = u1 * oneMinusCos; // 1 - cos(theta)
    const float sinTheta = std::sqrt(std::max(0.0f, t * (2.0f - t)));
    const float phi = 2.0f * kPi * u2;
    return {sinTheta * std::cos(phi), sinTheta * std::sin(phi), 1.0f - t};
}

// Index of the first entry of an increasing table that exceeds `value`,
// clamped to the last entry.
inline std::size_t SearchCumulative(const std::vector<float>& cumulative, float value)
{
    std::size_t low = 0;
    std::size_t high = cumulative.size() - 1;
    while (low < high)
    {
        const std::size_t middle = (low + high) / 2;
        if (cumulative[middle] > value)
            high = middle;
        else
            low = middle + 1;
    }
    return low;
}

// A pixel filter table as a distribution of sample positions. Cells are
// chosen in proportion to the magnitude of their entry; a sample then
// carries the entry's sign, scaled so that the weights of many samples sum
// to their count as the filter's integral would.
class FilterDistribution
{
public:
    // `table` holds size x size entries, row after row; entry (r, c) is the
    // filter at (c, r) * step on a square of side `extent`, and stands for
    // the cell of one step centred there. Entries that are
    // not finite count as 0. A table without a non-zero entry gives the
    // whole square, uniformly, with weight 1.
    void Build(float extent, int size, const std::vector<float>& table);

    // An offset from the pixel's centre, and the weight of a sample taken
    // there. Uses three draws.
    void Sample(float u1, float u2, float u3, float* dx, float* dy, float* weight) const;

    int Size() const { return _nSize; }

private:
    float _fExtent = 1.0f;
    float _fStep = 1.0f;
    int _nSize = 0;
    std::vector<float> _cumulative; // running sum of |entry|, normalised to end at 1
    std::vector<float> _weights;    // per cell: sign, scaled
};

} // namespace Kestrel

#endif // KESTREL_SAMPLING_H
