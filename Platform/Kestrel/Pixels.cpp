#include "Pixels.h"

#include "KestrelApi/Kestrel.h"
#include "Objects.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace Kestrel
{

namespace
{

enum ChannelEncoding
{
    kCE_Float,
    kCE_Unsigned, // unsigned normalized
    kCE_Signed,   // signed normalized
};

struct PixelType
{
    int _eType;
    int _nBytes;
    ChannelEncoding _eEncoding;
    double _fMax; // largest value of a normalized type
};

constexpr PixelType kPixelTypes[] = {
    {KS_UNSIGNED_BYTE, 1, kCE_Unsigned, 255.0},
    {KS_UNSIGNED_SHORT, 2, kCE_Unsigned, 65535.0},
    {KS_UNSIGNED_INT, 4, kCE_Unsigned, 4294967295.0},
    {KS_SHORT, 2, kCE_Signed, 32767.0},
    {KS_INT, 4, kCE_Signed, 2147483647.0},
    {KS_FLOAT, 4, kCE_Float, 1.0},
};

const PixelType* FindType(int type)
{
    for (const PixelType& entry : kPixelTypes)
        if (entry._eType == type)
            return &entry;
    return nullptr;
}

double DecodeChannel(const PixelType& type, const unsigned char* data)
{
    switch (type._eEncoding)
    {
    case kCE_Float:
    {
        float value;
        std::memcpy(&value, data, sizeof(value));
        return value;
    }
    case kCE_Unsigned:
    {
        std::uint32_t value = 0;
        if (type._nBytes == 1)
            value = data[0];
        else if (type._nBytes == 2)
        {
            std::uint16_t v16;
            std::memcpy(&v16, data, sizeof(v16));
            value = v16;
        }
        else
            std::memcpy(&value, data, sizeof(value));
        return value / type._fMax;
    }
    case kCE_Signed:
    {
        std::int32_t value = 0;
        if (type._nBytes == 2)
        {
            std::int16_t v16;
            std::memcpy(&v16, data, sizeof(v16));
            value = v16;
        }
        else
            std::memcpy(&value, data, sizeof(value));
        return std::max(value / type._fMax, -1.0);
    }
    }
    return 0.0;
}

void EncodeChannel(const PixelType& type, double value, unsigned char* data)
{
    if (type._eEncoding == kCE_Float)
    {
        const float f = static_cast<float>(value);
        std::memcpy(data, &f, sizeof(f));
        return;
    }
    // NaN has no place in a normalized type; it becomes 0.
    if (std::isnan(value))
        value = 0.0;
    const double low = type._eEncoding == kCE_Unsigned ? 0.0 : -1.0;
    const long long scaled = std::llround(std::clamp(value, low, 1.0) * type._fMax);
    switch (type._nBytes)
    {
    case 1:
        data[0] = static_cast<unsigned char>(scaled);
        break;
    case 2:
    {
        const std::uint16_t v16 = static_cast<std::uint16_t>(scaled);
        std::memcpy(data, &v16, sizeof(v16));
        break;
    }
    default:
    {
        const std::uint32_t v32 = static_cast<std::uint32_t>(scaled);
        std::memcpy(data, &v32, sizeof(v32));
        break;
    }
    }
}

} // namespace

int ChannelCount(int format)
{
    switch (format)
    {
    case KS_LUMINANCE:
        return 1;
    case KS_RGB:
        return 3;
    case KS_RGBA:
        return 4;
    default:
        return 0;
    }
}

int ChannelBytes(int type)
{
    const PixelType* entry = FindType(type);
    return entry ? entry->_nBytes : 0;
}

std::size_t PixelBytes(int format, int type)
{
    return static_cast<std::size_t>(ChannelCount(format)) *
           static_cast<std::size_t>(ChannelBytes(type));
}

bool IsAcceptedImageFormat(int internalFormat, int format, int type)
{
    if (internalFormat == 0 && format == 0 && type == 0)
        return true;
    return internalFormat == format && ChannelCount(format) != 0 && FindType(type) != nullptr;
}

bool ImageBytes(int width, int height, int format, int type, std::size_t* bytes)
{
    const std::size_t pixel = PixelBytes(format, type);
    const std::size_t w = static_cast<std::size_t>(std::max(width, 0));
    const std::size_t h = static_cast<std::size_t>(std::max(height, 0));
    // Divisions instead of products, so that nothing can wrap.
    if (pixel != 0 && w != 0 && h != 0 && (w > kMaxStorageBytes / pixel / h))
        return false;
    *bytes = w * h * pixel;
    return true;
}

void EncodePixel(int format, int type, const float rgba[4], unsigned char* pixel)
{
    const PixelType* entry = FindType(type);
    const int channels = ChannelCount(format);
    if (!entry)
        return;
    for (int c = 0; c < channels; ++c)
        EncodeChannel(*entry, rgba[c], pixel + c * entry->_nBytes);
}

void DecodePixel(int format, int type, const unsigned char* pixel, float rgba[4])
{
    rgba[0] = rgba[1] = rgba[2] = 0.0f;
    rgba[3] = 1.0f;
    const PixelType* entry = FindType(type);
    const int channels = ChannelCount(format);
    if (!entry || channels == 0)
        return;
    for (int c = 0; c < channels; ++c)
        rgba[c] = static_cast<float>(DecodeChannel(*entry, pixel + c * entry->_nBytes));
    if (channels == 1)
        rgba[1] = rgba[2] = rgba[0];
}

void FillPixels(unsigned char* data, std::size_t pixelCount, const unsigned char* pixel,
                std::size_t pixelBytes)
{
    if (pixelCount == 0 || pixelBytes == 0)
        return;
    const std::size_t total = pixelCount * pixelBytes;
    constexpr std::size_t kRun = 64;
    if (kRun % pixelBytes == 0)
    {
        // One cache line of pixels stored over and over: fixed-size copies
        // become plain vector stores, which read nothing back from memory.
        unsigned char line[kRun];
        for (std::size_t k = 0; k < kRun; k += pixelBytes)
            std::memcpy(line + k, pixel, pixelBytes);
        std::size_t done = 0;
        for (; done + kRun <= total; done += kRun)
            std::memcpy(data + done, line, kRun);
        // The rest is whole pixels, and the line starts on a pixel.
        std::memcpy(data + done, line, total - done);
        return;
    }
    std::memcpy(data, pixel, pixelBytes);
    // Double the filled run up to a block that stays in cache, then copy that
    // block along: long copies whose source is never read back from memory.
    const std::size_t block =
        std::min(total, std::max<std::size_t>(1, 4096 / pixelBytes) * pixelBytes);
    std::size_t filled = pixelBytes;
    while (filled < block)
    {
        const std::size_t chunk = std::min(filled, block - filled);
        std::memcpy(data + filled, data, chunk);
        filled += chunk;
    }
    while (filled < total)
    {
        const std::size_t chunk = std::min(block, total - filled);
        std::memcpy(data + filled, data, chunk);
        filled += chunk;
    }
}

void Downsample(int format, int type, const unsigned char* source, int width, int height,
                unsigned char* target)
{
    const PixelType* entry = FindType(type);
    const int channels = ChannelCount(format);
    if (!entry || channels == 0 || width <= 0 || height <= 0)
        return;
    const int pixelBytes = channels * entry->_nBytes;
    const int targetWidth = std::max(1, width / 2);
    const int targetHeight = std::max(1, height / 2);
    auto at = [&](int x, int y, int c)
    {
        x = std::min(x, width - 1);
        y = std::min(y, height - 1);
        const std::size_t offset =
            (static_cast<std::size_t>(y) * width + x) * pixelBytes + c * entry->_nBytes;
        return DecodeChannel(*entry, source + offset);
    };
    for (int y = 0; y < targetHeight; ++y)
        for (int x = 0; x < targetWidth; ++x)
            for (int c = 0; c < channels; ++c)
            {
                const double mean = (at(2 * x, 2 * y, c) + at(2 * x + 1, 2 * y, c) +
                                     at(2 * x, 2 * y + 1, c) + at(2 * x + 1, 2 * y + 1, c)) /
                                    4.0;
                const std::size_t offset =
                    (static_cast<std::size_t>(y) * targetWidth + x) * pixelBytes +
                    c * entry->_nBytes;
                EncodeChannel(*entry, mean, target + offset);
            }
}

} // namespace Kestrel
