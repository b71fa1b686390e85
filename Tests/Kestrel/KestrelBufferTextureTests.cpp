// Buffer storage and maps; texture images and client storage.
#include "KestrelFixture.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace KestrelTest
{
namespace
{

// ---------------------------------------------------------------------------
// Buffers

class KestrelBuffers : public KestrelFixture
{
protected:
    void SetUp() override
    {
        KestrelFixture::SetUp();
        _pBuffer = NewBuffer();
        ksBindBuffer(KS_ARRAY_BUFFER, _pBuffer);
        ASSERT_NO_KS_ERROR();
    }

    // Copies `size` bytes out through a read-only map.
    std::vector<unsigned char> ReadBack(size_t size, int target = KS_ARRAY_BUFFER)
    {
        std::vector<unsigned char> bytes(size, 0xee);
        const void* mapped = ksMapBuffer(target, KS_READ_ONLY);
        if (mapped)
            std::memcpy(bytes.data(), mapped, size);
        ksUnmapBuffer(target);
        return bytes;
    }

    _KSbuffer* _pBuffer = nullptr;
};

TEST_F(KestrelBuffers, MapConflictsAreInvalidOperations)
{
    // No storage yet.
    EXPECT_EQ(ksMapBuffer(KS_ARRAY_BUFFER, KS_READ_WRITE), nullptr);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksMapBuffer");
    ksUnmapBuffer(KS_ARRAY_BUFFER); // after a failed map: harmless
    EXPECT_NO_KS_ERROR();

    const char text[] = "abcdefgh";
    ksBufferData(KS_ARRAY_BUFFER, 8, text, KS_STATIC_READ);
    void* mapped = ksMapBuffer(KS_ARRAY_BUFFER, KS_READ_WRITE);
    ASSERT_NE(mapped, nullptr);
    ASSERT_NO_KS_ERROR();

    // Mapped is a state of the buffer, not of the target. Each refused map is
    // closed by an unmap of its own, which must leave the live map alone.
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, _pBuffer);
    const std::pair<int, int> refused[] = {{KS_PIXEL_PACK_BUFFER, KS_READ_ONLY},
                                           {KS_ARRAY_BUFFER, KS_READ_ONLY},
                                           {KS_ARRAY_BUFFER, 0x1234}};
    for (const auto& [target, access] : refused)
    {
        SCOPED_TRACE(Hex(target) + " " + Hex(access));
        EXPECT_EQ(ksMapBuffer(target, access), nullptr);
        EXPECT_KS_ERROR_IN(access == 0x1234 ? KS_INVALID_ENUM : KS_INVALID_OPERATION,
                           "ksMapBuffer");
        ksUnmapBuffer(target);
        EXPECT_NO_KS_ERROR();
        ksBufferData(KS_ARRAY_BUFFER, 4, nullptr, KS_STATIC_DRAW);
        EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksBufferData") << "still mapped";
    }

    // The first map is still good and the rejected data call changed nothing.
    EXPECT_EQ(std::memcmp(mapped, text, 8), 0);
    ksUnmapBuffer(KS_ARRAY_BUFFER);
    ksUnmapBuffer(KS_ARRAY_BUFFER); // not mapped any more: ignored
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(ReadBack(8), std::vector<unsigned char>(text, text + 8));
}

TEST_F(KestrelBuffers, NothingBoundIsInvalidOperation)
{
    ksBindBuffer(KS_ARRAY_BUFFER, nullptr);
    ksBufferData(KS_ARRAY_BUFFER, 4, nullptr, KS_STATIC_DRAW);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksBufferData");
    EXPECT_EQ(ksMapBuffer(KS_ELEMENT_ARRAY_BUFFER, KS_READ_ONLY), nullptr);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksMapBuffer");
    ksUnmapBuffer(KS_ELEMENT_ARRAY_BUFFER);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksUnmapBuffer");
}

TEST_F(KestrelBuffers, UsageAndAccessMustBeKnown)
{
    const int usages[] = {KS_STREAM_DRAW,  KS_STREAM_READ,  KS_STREAM_COPY,
                          KS_STATIC_DRAW,  KS_STATIC_READ,  KS_STATIC_COPY,
                          KS_DYNAMIC_DRAW, KS_DYNAMIC_READ, KS_DYNAMIC_COPY};
    for (int usage : usages)
    {
        ksBufferData(KS_ARRAY_BUFFER, 4, nullptr, usage);
        EXPECT_NO_KS_ERROR() << Hex(usage);
    }
    for (int access : {KS_READ_ONLY, KS_WRITE_ONLY, KS_READ_WRITE})
    {
        EXPECT_NE(ksMapBuffer(KS_ARRAY_BUFFER, access), nullptr) << Hex(access);
        ksUnmapBuffer(KS_ARRAY_BUFFER);
        EXPECT_NO_KS_ERROR() << Hex(access);
    }

    const unsigned char marker[4] = {9, 8, 7, 6};
    ksBufferData(KS_ARRAY_BUFFER, 4, marker, KS_STATIC_DRAW);
    for (int usage : {0, KS_STREAM_DRAW + 3, KS_READ_ONLY, -1})
    {
        ksBufferData(KS_ARRAY_BUFFER, 16, nullptr, usage);
        EXPECT_KS_ERROR_IN(KS_INVALID_ENUM, "ksBufferData") << Hex(usage);
    }
    for (int access : {0, KS_STATIC_DRAW, KS_READ_WRITE + 1})
    {
        EXPECT_EQ(ksMapBuffer(KS_ARRAY_BUFFER, access), nullptr);
        EXPECT_KS_ERROR_IN(KS_INVALID_ENUM, "ksMapBuffer") << Hex(access);
    }
    ksBufferData(KS_ARRAY_BUFFER, ~0ull, nullptr, KS_STATIC_DRAW);
    EXPECT_KS_ERROR_IN(KS_OUT_OF_MEMORY, "ksBufferData");
    // Rejected calls neither replaced the storage nor left it mapped.
    EXPECT_EQ(ReadBack(4), std::vector<unsigned char>(marker, marker + 4));
    EXPECT_NO_KS_ERROR();
}

// ---------------------------------------------------------------------------
// Textures

class KestrelTextures : public BoundTextureFixture
{
protected:
    // Binds a frame buffer with `texture` at attachment 0 and clears it.
    void ClearThrough(_KStexture* texture, float r, float g, float b, float a)
    {
        if (!_pFramebuffer)
        {
            _pFramebuffer = NewFramebuffer();
            ksBindFramebuffer(KS_FRAMEBUFFER, _pFramebuffer);
        }
        Attach(0, texture);
        ksClearColor(r, g, b, a);
        ksClear(KS_COLOR_BUFFER_BIT);
    }

    _KSframebuffer* _pFramebuffer = nullptr;
};

TEST_F(KestrelTextures, ImageArgumentsAreChecked)
{
    std::vector<unsigned char> pixels(3 * 2 * 4 * sizeof(float), 0x11);
    for (int format : {KS_LUMINANCE, KS_RGB, KS_RGBA})
    {
        for (int type :
             {KS_UNSIGNED_BYTE, KS_UNSIGNED_SHORT, KS_UNSIGNED_INT, KS_SHORT, KS_INT, KS_FLOAT})
        {
            ksTexImage2D(KS_TEXTURE_2D, 0, format, 3, 2, 0, format, type, pixels.data());
            ksTexImage2D(KS_TEXTURE_2D, 0, format, 3, 2, 0, format, type, nullptr);
            EXPECT_NO_KS_ERROR() << Hex(format) << " " << Hex(type);
        }
    }
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 0, 0, 0, KS_RGBA, KS_FLOAT, nullptr);
    EXPECT_NO_KS_ERROR() << "an empty image is allowed";

    struct Case
    {
        const char* label;
        int internalFormat, format, type, level, width, height, border;
        int error;
    };
    const Case cases[] = {
        {"type is a target", KS_RGBA, KS_RGBA, KS_TEXTURE_2D, 0, 2, 2, 0, KS_INVALID_ENUM},
        {"signed byte", KS_RGBA, KS_RGBA, 0x1400, 0, 2, 2, 0, KS_INVALID_ENUM},
        {"unknown format", 0x1234, 0x1234, KS_FLOAT, 0, 2, 2, 0, KS_INVALID_ENUM},
        {"formats differ", KS_RGB, KS_RGBA, KS_FLOAT, 0, 2, 2, 0, KS_INVALID_ENUM},
        {"formats differ", KS_RGBA, KS_RGB, KS_UNSIGNED_BYTE, 0, 2, 2, 0, KS_INVALID_ENUM},
        {"level 1", KS_RGBA, KS_RGBA, KS_FLOAT, 1, 2, 2, 0, KS_INVALID_VALUE},
        {"border 1", KS_RGBA, KS_RGBA, KS_FLOAT, 0, 2, 2, 1, KS_INVALID_VALUE},
        {"negative height", KS_RGBA, KS_RGBA, KS_FLOAT, 0, 2, -4, 0, KS_INVALID_VALUE},
    };
    for (const Case& c : cases)
    {
        ksTexImage2D(KS_TEXTURE_2D, c.level, c.internalFormat, c.width, c.height, c.border,
                     c.format, c.type, pixels.data());
        EXPECT_KS_ERROR_IN(c.error, "ksTexImage2D") << c.label;
    }
    // Sizes whose byte count overflows must fail rather than allocate a sliver.
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 0x7fffffff, 0x7fffffff, 0, KS_RGBA, KS_FLOAT, nullptr);
    const int error = ksGetError();
    EXPECT_TRUE(error == KS_INVALID_VALUE || error == KS_OUT_OF_MEMORY) << Hex(error);
    _recorder.Take();

    ksBindTexture(KS_TEXTURE_2D, nullptr);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 2, 2, 0, KS_RGBA, KS_FLOAT, nullptr);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksTexImage2D");
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
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Hex(c.format) + " " + Hex(c.type.type));
        const size_t channels = c.expected.size();
        // Room for the widest type; a sentinel after the image catches overruns.
        std::vector<std::uint64_t> storage(kWidth * kHeight * channels + 1, 0x5a5a5a5a5a5a5a5aull);
        _KStexture* texture =
            NewClientTexture(kWidth, kHeight, c.format, c.type.type, storage.data());
        ClearThrough(texture, c.color[0], c.color[1], c.color[2], c.color[3]);
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
