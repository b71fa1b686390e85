// Frame buffers: attachments, clears, frames, stopping a frame and the frame
// statistics.
#include "KestrelFixture.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::AutoRenderHook;

constexpr float kOld = -123.0f; // what an attachment holds until written

// A bound frame buffer, with attachments whose storage is ours.
class KestrelFramebuffers : public KestrelFixture
{
protected:
    using Image = std::array<float, 2 * 2 * 4>; // 2x2 RGBA float

    void SetUp() override
    {
        KestrelFixture::SetUp();
        ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
        ASSERT_NO_KS_ERROR();
    }

    // Attaches a fresh 2x2 client-storage image at `index`, filled with kOld.
    _KStexture* AttachImage(int index, Image& image)
    {
        image.fill(kOld);
        _KStexture* texture = NewClientTexture(2, 2, KS_RGBA, KS_FLOAT, image.data());
        Attach(index, texture);
        return texture;
    }

    static bool Filled(const Image& image, float value)
    {
        return std::all_of(image.begin(), image.end(), [=](float f) { return f == value; });
    }

    static int FramesRendered()
    {
        int frames = -1;
        ksGetIntegerv(KS_FRAME_STATISTIC_5, &frames);
        return frames;
    }
};

// Each step clears the attachments its mask names; a mask with a bit below
// the first attachment's is refused whole and writes nothing. Detached and
// deleted textures are written no more.
TEST_F(KestrelFramebuffers, ClearMaskSelectsAttachments)
{
    Image images[4];
    _KStexture* textures[4];
    const int indices[4] = {0, 1, 2, 15};
    for (int i = 0; i < 4; ++i)
        textures[i] = AttachImage(indices[i], images[i]);
    const unsigned bit = KS_COLOR_ATTACHMENT0_BIT;
    const struct
    {
        unsigned mask;
        float colour;
        float expected[4]; // of the attachments at 0, 1, 2, 15 after the step
        int error;
    } steps[] = {
        {bit << 2, 0.5f, {kOld, kOld, 0.5f, kOld}, KS_NO_ERROR},
        {bit | (bit << 15), 0.25f, {0.25f, kOld, 0.5f, 0.25f}, KS_NO_ERROR},
        {0x1u, 3, {0.25f, kOld, 0.5f, 0.25f}, KS_INVALID_VALUE},
        {0x2000u, 3, {0.25f, kOld, 0.5f, 0.25f}, KS_INVALID_VALUE},
        {KS_COLOR_BUFFER_BIT | 0x1u, 3, {0.25f, kOld, 0.5f, 0.25f}, KS_INVALID_VALUE},
        {(bit << 16) | 0x1000u, 3, {0.25f, kOld, 0.5f, 0.25f}, KS_INVALID_VALUE},
        {KS_COLOR_BUFFER_BIT, 1.0f, {1.0f, 1.0f, 1.0f, 1.0f}, KS_NO_ERROR},
        {bit << 1, 0.0f, {1.0f, 0.0f, 1.0f, 1.0f}, KS_NO_ERROR},
        {bit << 7, 3.0f, {1.0f, 0.0f, 1.0f, 1.0f}, KS_NO_ERROR}, // nothing attached there
    };
    for (const auto& s : steps)
    {
        SCOPED_TRACE(Hex(static_cast<int>(s.mask)));
        ksClearColor(s.colour, s.colour, s.colour, s.colour);
        ksClear(s.mask);
        if (s.error)
            EXPECT_KS_ERROR_IN(s.error, "ksClear");
        else
            EXPECT_NO_KS_ERROR();
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(Filled(images[i], s.expected[i])) << "attachment " << indices[i];
    }
    Attach(1, nullptr);
    ksDeleteTextures(1, &textures[2]);
    // Detaching what is not attached, or was deleted, is silent.
    Attach(1, nullptr);
    Attach(2, nullptr);
    ksClearColor(2, 2, 2, 2);
    ksClear(KS_COLOR_BUFFER_BIT);
    EXPECT_NO_KS_ERROR();
    const float expected[4] = {2.0f, 0.0f, 1.0f, 2.0f};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(Filled(images[i], expected[i])) << "attachment " << indices[i];
}

// Frames whose attachments differ in width alone, or in height alone, are
// refused and not counted.
TEST_F(KestrelFramebuffers, StatisticsCountFramesAndViewportPixels)
{
    std::array<float, 8 * 6 * 4> pixels{};
    Attach(0, NewClientTexture(8, 6, KS_RGBA, KS_FLOAT, pixels.data()));
    std::array<float, 8 * 7 * 4> other{};
    for (const auto& [width, height] : {std::pair{7, 6}, std::pair{8, 7}})
    {
        _KStexture* odd = NewClientTexture(width, height, KS_RGBA, KS_FLOAT, other.data());
        Attach(1, odd);
        ksRenderFrame();
        EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksRenderFrame") << width << "x" << height;
        ksDeleteTextures(1, &odd);
    }
    long long rays = -1;
    EXPECT_EQ(FramesRendered(), 0);
    ksRenderFrame();
    EXPECT_EQ(FramesRendered(), 1);
    ksGetLongv(KS_FRAME_STATISTIC_4, &rays);
    EXPECT_EQ(rays, 8 * 6) << "one sample per pixel of the whole attachment";
    ksViewport(1, 1, 3, 2);
    ksRenderFrame();
    EXPECT_EQ(FramesRendered(), 2);
    ksGetLongv(KS_FRAME_STATISTIC_4, &rays);
    EXPECT_EQ(rays, 3 * 2);
    double seconds = -1;
    ksGetDoublev(KS_FRAME_STATISTIC_1, &seconds);
    EXPECT_GE(seconds, 0.0);
    EXPECT_NO_KS_ERROR();
}

// ---------------------------------------------------------------------------
// The render hook and stopping a frame

// The hook runs once per frame that passes validation, on a worker. What it
// raises reaches the caller; a stop outside a frame is forgotten.
TEST_F(KestrelFramebuffers, HookRunsOncePerFrameOnAWorkerAndMayRaise)
{
    // Several tiles, so that a stop between tiles has somewhere to act.
    std::vector<float> pixels(64 * 48 * 4);
    Attach(0, NewClientTexture(64, 48, KS_RGBA, KS_FLOAT, pixels.data()));
    std::atomic<int> calls{0};
    std::atomic<bool> onCaller{false};
    std::atomic<void*> context{nullptr};
    const std::thread::id caller = std::this_thread::get_id();
    KestrelStopContext(_pContext);
    {
        AutoRenderHook hook(
            [&](void* current)
            {
                ++calls;
                onCaller = onCaller || std::this_thread::get_id() == caller;
                context = current;
                ksGetError(); // the worker reads no error
            });
        for (int frame = 1; frame <= 3; ++frame)
        {
            ksRenderFrame();
            EXPECT_NO_KS_ERROR();
            EXPECT_EQ(calls.load(), frame);
        }
    }
    EXPECT_FALSE(onCaller.load());
    EXPECT_EQ(context.load(), _pContext);
    {
        AutoRenderHook hook([](void*) { Kestrel::Testing::RaiseError(KS_OUT_OF_MEMORY); });
        ksRenderFrame();
        EXPECT_KS_ERROR(KS_OUT_OF_MEMORY);
    }
    // Frames that fail validation never reach the hook.
    AutoRenderHook hook([&](void*) { ++calls; });
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    ksRenderFrame();
    EXPECT_KS_ERROR(KS_INVALID_OPERATION);
    EXPECT_EQ(calls.load(), 3);
}

} // namespace
} // namespace KestrelTest
