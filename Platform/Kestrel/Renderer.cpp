#include "Renderer.h"

#include "Pixels.h"

#include <cstring>

namespace Kestrel
{

namespace
{

void ChannelValue(const PathResult& path, Channel channel, float value[4])
{
    Vec3 colour;
    switch (channel)
    {
    case kCH_Radiance:
        colour = path._radiance;
        break;
    case kCH_Albedo:
        colour = path._albedo;
        break;
    case kCH_Normal:
        colour = path._normal;
        break;
    case kCH_Depth:
        colour = Vec3(path._fDepth);
        break;
    default:
        colour = Vec3(path._fVisibility);
        break;
    }
    value[0] = colour.x;
    value[1] = colour.y;
    value[2] = colour.z;
    value[3] = 1.0f;
}

void WriteSample(const FrameTarget& target, int width, int x, int y, const float sample[4])
{
    const TextureImage& image = *target._pImage;
    const int channels = ChannelCount(image._eFormat);
    const std::size_t pixelBytes = PixelBytes(image._eFormat, image._eType);
    unsigned char* pixel =
        image.Data() + (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                        static_cast<std::size_t>(x)) *
                           pixelBytes;
    float value[4];
    if (image._eType == KS_FLOAT)
    {
        // The common case, without the round trip through the encoders.
        std::memcpy(value, pixel, static_cast<std::size_t>(channels) * sizeof(float));
        for (int c = 0; c < channels; ++c)
            value[c] = Blend(target._eBlendMode, value[c], sample[c]);
        std::memcpy(pixel, value, static_cast<std::size_t>(channels) * sizeof(float));
        return;
    }
    DecodePixel(image._eFormat, image._eType, pixel, value);
    for (int c = 0; c < 4; ++c)
        value[c] = Blend(target._eBlendMode, value[c], sample[c]);
    EncodePixel(image._eFormat, image._eType, value, pixel);
}

} // namespace

float Blend(int blendMode, float target, float sample)
{
    switch (blendMode)
    {
    case KS_BLEND_MODE_1:
        return target * sample;
    case KS_BLEND_MODE_2:
        return target + sample;
    case KS_BLEND_MODE_3:
        return std::max(target, sample);
    default:
        return sample;
    }
}

void FrameJob::Prepare()
{
    for (int stream = 0; stream < kPS_Count; ++stream)
    {
        _streamUsed[stream] = false;
        _requests[stream] = PathRequest();
        _requests[stream]._background = _background;
        _requests[stream]._nDepthLimit = _nRayDepthLimit;
        _requests[stream]._bRadiance = false;
    }
    for (const FrameTarget& target : _targets)
    {
        const int stream = target._nFilter != 0 ? kPS_Filter : kPS_Box;
        _streamUsed[stream] = true;
        _requests[stream]._bRadiance |= target._eChannel == kCH_Radiance;
        _requests[stream]._bVisibility |= target._eChannel == kCH_Visibility;
    }
    if (_streamUsed[kPS_Filter])
        _filter.Build(_fFilterSize, _nFilterTableSize, _filterTable);
}

void RenderTile(const FrameJob& job, int x0, int y0, int x1, int y1, TileStatistics* statistics)
{
    if (!job._pScene)
        return;
    const Scene& scene = *job._pScene;
    const float width = static_cast<float>(job._nWidth);
    const float height = static_cast<float>(job._nHeight);
    const float aspect = width / height;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            for (int stream = 0; stream < kPS_Count; ++stream)
            {
                if (!job._streamUsed[stream])
                    continue;
                PathRandom random(PathKey(x, y, job._nFrameIndex, stream));
                float sx = 0.0f, sy = 0.0f, weight = 1.0f;
                if (stream == kPS_Box)
                {
                    sx = static_cast<float>(x) + random.Next();
                    sy = static_cast<float>(y) + random.Next();
                }
                else
                {
                    const float u1 = random.Next(), u2 = random.Next(), u3 = random.Next();
                    float dx = 0.0f, dy = 0.0f;
                    job._filter.Sample(u1, u2, u3, &dx, &dy, &weight);
                    sx = static_cast<float>(x) + 0.5f + dx;
                    sy = static_cast<float>(y) + 0.5f + dy;
                }
                // Row 0 is the bottom of the picture.
                const Vec3 direction = job._camera.Direction(2.0f * sx / width - 1.0f,
                                                             2.0f * sy / height - 1.0f, aspect);
                PathResult path;
                TracePath(scene, job._camera._eye, direction, job._requests[stream], random, &path,
                          statistics);
                for (const FrameTarget& target : job._targets)
                {
                    if ((target._nFilter != 0 ? kPS_Filter : kPS_Box) != stream)
                        continue;
                    float sample[4];
                    ChannelValue(path, target._eChannel, sample);
                    // The filter's weight belongs to a sum of samples; the
                    // other modes take each sample as it is.
                    if (target._eBlendMode == KS_BLEND_MODE_2)
                        for (float& component : sample)
                            component *= weight;
                    WriteSample(target, job._nWidth, x, y, sample);
                }
            }
}

} // namespace Kestrel
