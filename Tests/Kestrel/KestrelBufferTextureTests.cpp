// Texture images: their largest size, and clears landing in client storage.
#include "KestrelFixture.h"

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace KestrelTest
{
namespace
{

using KestrelTextures = BoundTextureFixture;

// An edge may be as long as the largest size, not one pixel longer.
TEST_F(KestrelTextures, EdgesReachTheLargestSizeAndNoFurther)
{
    for (const auto& [width, height] : {std::pair{65536, 1}, std::pair{1, 65536}})
    {
        ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, width, height, 0, KS_RGB, KS_UNSIGNED_BYTE, nullptr);
        EXPECT_NO_KS_ERROR() << width << "x" << height;
        ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, width + (width > 1), height + (height > 1), 0,
                     KS_RGB, KS_UNSIGNED_BYTE, nullptr);
        EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, "ksTexImage2D") << width << "x" << height;
    }
}

// A pixel type: its enum, how to read its i-th channel, and its size.
struct PixelType
{
    int type;
    double (*channel)(const void* data, size_t i);
    size_t bytes;
};

template <typename T>
PixelType TypeOf(int type)
{
    return {type, [](const void* data, size_t i) { return double(static_cast<const T*>(data)[i]); },
            sizeof(T)};
}

TEST_F(KestrelTextures, ClientStorageReceivesClearsInItsFormat)
{
    const PixelType f = TypeOf<float>(KS_FLOAT);
    const PixelType ub = TypeOf<std::uint8_t>(KS_UNSIGNED_BYTE);
    constexpr double kUint = 4294967295.0;
    constexpr double kInt = 2147483647.0;
    // Float targets take the colour as it is, in as many channels as the
    // format has; integer ones round and clamp to [0, 1] or [-1, 1].
    const struct
    {
        int format;
        PixelType type;
        float color[4];
        std::vector<double> expected; // one pixel's channels
    } cases[] = {
        {KS_RGBA, f, {0.25f, -3.5f, 1e6f, 0.0f}, {0.25, -3.5, 1e6, 0.0}},
        {KS_RGB, f, {0.5f, 0.75f, 2.0f, 9.0f}, {0.5, 0.75, 2.0}},
        {KS_LUMINANCE, f, {0.3f, 0.9f, 0.1f, 1.0f}, {0.3f}},
        {KS_RGBA, ub, {0.999f, 1.5f, -0.5f, 0.2f}, {255, 255, 0, 51}},
        {KS_RGB, ub, {1.0f, 0.0f, 0.6f, 0.0f}, {255, 0, 153}},
        {KS_LUMINANCE, ub, {0.6f, 1.0f, 1.0f, 1.0f}, {153}},
        {KS_RGBA,
         TypeOf<std::uint16_t>(KS_UNSIGNED_SHORT),
         {1, 0, 0.25f, 7},
         {65535, 0, 16384, 65535}},
        {KS_RGBA, TypeOf<std::int16_t>(KS_SHORT), {1, -2, 0.25f, 0}, {32767, -32767, 8192, 0}},
        {KS_RGBA, TypeOf<std::uint32_t>(KS_UNSIGNED_INT), {1, 0, 2, -1}, {kUint, 0, kUint, 0}},
        {KS_RGBA, TypeOf<std::int32_t>(KS_INT), {1, 0, 5, -5}, {kInt, 0, kInt, -kInt}},
    };
    // 1480 pixels: past the 4 KiB block the fill copies along, with whole
    // runs and a ragged end for every pixel size.
    constexpr int kWidth = 37;
    constexpr int kHeight = 40;
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Hex(c.format) + " " + Hex(c.type.type));
        const size_t channels = c.expected.size();
        // Room for the widest type; a sentinel after the image catches overruns.
        std::vector<std::uint64_t> storage(kWidth * kHeight * channels + 1, 0x5a5a5a5a5a5a5a5aull);
        _KStexture* texture =
            NewClientTexture(kWidth, kHeight, c.format, c.type.type, storage.data());
        Attach(0, texture);
        ksClearColor(c.color[0], c.color[1], c.color[2], c.color[3]);
        ksClear(KS_COLOR_BUFFER_BIT);
        ASSERT_NO_KS_ERROR();
        for (size_t i = 0; i < kWidth * kHeight * channels; ++i)
        {
            // Float targets take the colour bit for bit; integer ones may
            // differ by at most the rounding of the widest types.
            const double expected = c.expected[i % channels];
            ASSERT_NEAR(c.type.channel(storage.data(), i), expected,
                        std::fabs(expected) > 1e9 ? 2.0 : 0.0)
                << "pixel " << i / channels << " channel " << i % channels;
        }
        const size_t imageBytes = kWidth * kHeight * channels * c.type.bytes;
        const auto* bytes = reinterpret_cast<const unsigned char*>(storage.data());
        for (size_t b = imageBytes; b < imageBytes + 8; ++b)
            EXPECT_EQ(bytes[b], 0x5a) << "the clear wrote past the image at byte " << b;
        Attach(0, nullptr);
        ksDeleteTextures(1, &texture);
    }
}

} // namespace
} // namespace KestrelTest
