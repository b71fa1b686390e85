// Frame buffers: attachments, clears, frames, stopping a frame and the frame
// statistics.
#include "KestrelFixture.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::AutoRenderHook;

constexpr float kUntouched = -123.0f;

// A frame buffer, bound, with helpers for attachments whose storage is ours.
class KestrelFramebuffers : public KestrelFixture
{
protected:
    using Image = std::array<float, 2 * 2 * 4>; // 2x2 RGBA float

    void SetUp() override
    {
        KestrelFixture::SetUp();
        _pFramebuffer = NewFramebuffer();
        ksBindFramebuffer(KS_FRAMEBUFFER, _pFramebuffer);
        ASSERT_NO_KS_ERROR();
    }

    // Attaches a fresh 2x2 client-storage image at `index`, filled with kUntouched.
    _KStexture* AttachImage(int index, Image& image)
    {
        image.fill(kUntouched);
        _KStexture* texture =
            NewClientTexture(2, 2, KS_RGBA, KS_FLOAT, static_cast<void*>(image.data()));
        Attach(index, texture);
        return texture;
    }

    static bool Filled(const Image& image, float value)
    {
        for (float f : image)
        {
            if (f != value)
                return false;
        }
        return true;
    }

    static int FramesRendered()
    {
        int frames = -1;
        ksGetIntegerv(KS_FRAME_STATISTIC_5, &frames);
        return frames;
    }

    _KSframebuffer* _pFramebuffer = nullptr;
};

TEST_F(KestrelFramebuffers, ClearMaskSelectsAttachments)
{
    Image images[4];
    const int indices[4] = {0, 1, 2, 15};
    for (int i = 0; i < 4; ++i)
        AttachImage(indices[i], images[i]);
    ASSERT_NO_KS_ERROR();

    struct Step
    {
        const char* label;
        unsigned mask;
        float color;
        float expected[4]; // of the attachments at 0, 1, 2, 15 after the step
    };
    const Step steps[] = {
        {"attachment 2 alone",
         KS_COLOR_ATTACHMENT0_BIT << 2,
         0.5f,
         {kUntouched, kUntouched, 0.5f, kUntouched}},
        {"attachments 0 and 15",
         KS_COLOR_ATTACHMENT0_BIT | (KS_COLOR_ATTACHMENT0_BIT << 15),
         0.25f,
         {0.25f, kUntouched, 0.5f, 0.25f}},
        {"all", KS_COLOR_BUFFER_BIT, 1.0f, {1.0f, 1.0f, 1.0f, 1.0f}},
        {"attachment 1 alone", KS_COLOR_ATTACHMENT0_BIT << 1, 0.0f, {1.0f, 0.0f, 1.0f, 1.0f}},
        {"an index with nothing attached",
         KS_COLOR_ATTACHMENT0_BIT << 7,
         3.0f,
         {1.0f, 0.0f, 1.0f, 1.0f}},
    };
    for (const Step& s : steps)
    {
        SCOPED_TRACE(s.label);
        ksClearColor(s.color, s.color, s.color, s.color);
        ksClear(s.mask);
        EXPECT_NO_KS_ERROR();
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(Filled(images[i], s.expected[i])) << "attachment " << indices[i];
    }
}

TEST_F(KestrelFramebuffers, DetachedAndDeletedTexturesAreNoLongerWritten)
{
    Image images[3];
    AttachImage(0, images[0]);
    AttachImage(1, images[1]);
    _KStexture* third = AttachImage(2, images[2]);
    Attach(1, nullptr);
    ksDeleteTextures(1, &third);
    ASSERT_NO_KS_ERROR();
    ksClearColor(2, 2, 2, 2);
    ksClear(KS_COLOR_BUFFER_BIT);
    EXPECT_NO_KS_ERROR();
    EXPECT_TRUE(Filled(images[0], 2.0f));
    EXPECT_TRUE(Filled(images[1], kUntouched)) << "detached attachment was cleared";
    EXPECT_TRUE(Filled(images[2], kUntouched)) << "deleted texture stayed attached";

    // Detaching what is not attached, or was deleted, is silent.
    Attach(1, nullptr);
    Attach(5, nullptr);
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelFramebuffers, ClearAndRenderNeedABoundFrameBuffer)
{
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    ksClear(KS_COLOR_BUFFER_BIT);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksClear");
    ksRenderFrame();
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksRenderFrame");
    Attach(0, NewTexture());
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksFramebufferTexture2D");
    ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, KS_ATTACHMENT_FILTER,
                                       1);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksFramebufferAttachmentParameter1i");
    EXPECT_EQ(FramesRendered(), 0);
}

TEST_F(KestrelFramebuffers, ClearRejectsUnknownMaskBits)
{
    Image image;
    AttachImage(0, image);
    // Every bit from the first attachment's up names one; those below do not.
    for (unsigned mask : {0x1u, 0x2000u, KS_COLOR_BUFFER_BIT | 0x1u, 0x80000000u | 0x1000u})
    {
        ksClear(mask);
        EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, "ksClear") << Hex(static_cast<int>(mask));
    }
    EXPECT_TRUE(Filled(image, kUntouched)) << "a rejected clear wrote";
}

TEST_F(KestrelFramebuffers, AttachmentArgumentsAreChecked)
{
    _KStexture* texture = NewTexture();
    const struct
    {
        const char* label;
        int target, point, textureTarget, level;
        int error;
    } attaches[] = {
        {"target", KS_FRAMEBUFFER_BINDING, KS_COLOR_ATTACHMENT0, KS_TEXTURE_2D, 0, KS_INVALID_ENUM},
        {"point below", KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0 - 1, KS_TEXTURE_2D, 0,
         KS_INVALID_ENUM},
        {"point 17", KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0 + 17, KS_TEXTURE_2D, 0, KS_INVALID_ENUM},
        {"texture target", KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, KS_TEXTURE_BINDING_2D, 0,
         KS_INVALID_ENUM},
        {"level", KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, KS_TEXTURE_2D, 1, KS_INVALID_VALUE},
    };
    for (const auto& c : attaches)
    {
        ksFramebufferTexture2D(c.target, c.point, c.textureTarget, texture, c.level);
        EXPECT_KS_ERROR_IN(c.error, "ksFramebufferTexture2D") << c.label;
    }

    const int point = KS_COLOR_ATTACHMENT0 + 3;
    for (int value : {0, 1})
    {
        ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, point, KS_ATTACHMENT_FILTER, value);
        EXPECT_NO_KS_ERROR();
    }
    for (int mode : {KS_BLEND_MODE_0, KS_BLEND_MODE_1, KS_BLEND_MODE_2, KS_BLEND_MODE_3})
    {
        ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, point, KS_ATTACHMENT_BLEND_MODE, mode);
        EXPECT_NO_KS_ERROR();
    }
    const struct
    {
        const char* label;
        int target, point, name, value;
        int error;
    } parameters[] = {
        {"filter 2", KS_FRAMEBUFFER, point, KS_ATTACHMENT_FILTER, 2, KS_INVALID_VALUE},
        {"filter -1", KS_FRAMEBUFFER, point, KS_ATTACHMENT_FILTER, -1, KS_INVALID_VALUE},
        {"blend mode", KS_FRAMEBUFFER, point, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_3 + 1,
         KS_INVALID_ENUM},
        {"blend mode 1 as number", KS_FRAMEBUFFER, point, KS_ATTACHMENT_BLEND_MODE, 1,
         KS_INVALID_ENUM},
        {"name", KS_FRAMEBUFFER, point, 0x10322, 0, KS_INVALID_ENUM},
        {"point", KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0 + 17, KS_ATTACHMENT_FILTER, 1,
         KS_INVALID_ENUM},
        {"target", KS_TEXTURE_2D, point, KS_ATTACHMENT_FILTER, 1, KS_INVALID_ENUM},
    };
    for (const auto& c : parameters)
    {
        ksFramebufferAttachmentParameter1i(c.target, c.point, c.name, c.value);
        EXPECT_KS_ERROR_IN(c.error, "ksFramebufferAttachmentParameter1i") << c.label;
    }
}

TEST_F(KestrelFramebuffers, AttachmentsMustShareOneSize)
{
    Image small;
    AttachImage(0, small);
    std::array<float, 4 * 4 * 4> large{};
    _KStexture* bigger =
        NewClientTexture(4, 4, KS_RGBA, KS_FLOAT, static_cast<void*>(large.data()));
    Attach(1, bigger);
    ASSERT_NO_KS_ERROR();
    ksRenderFrame();
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksRenderFrame");
    EXPECT_EQ(FramesRendered(), 0);

    ksDeleteTextures(1, &bigger); // leaves only the 2x2 attachment
    ksRenderFrame();
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(FramesRendered(), 1);
}

TEST_F(KestrelFramebuffers, StatisticsCountFramesAndViewportPixels)
{
    std::array<float, 8 * 6 * 4> pixels{};
    Attach(0, NewClientTexture(8, 6, KS_RGBA, KS_FLOAT, static_cast<void*>(pixels.data())));
    const auto primaryRays = []
    {
        long long rays = -1;
        ksGetLongv(KS_FRAME_STATISTIC_4, &rays);
        return rays;
    };
    EXPECT_EQ(FramesRendered(), 0);
    ksRenderFrame();
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(FramesRendered(), 1);
    EXPECT_EQ(primaryRays(), 8 * 6) << "one sample per pixel of the whole attachment";

    ksViewport(1, 1, 3, 2);
    ksRenderFrame();
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(FramesRendered(), 2);
    EXPECT_EQ(primaryRays(), 3 * 2);

    double seconds = -1;
    ksGetDoublev(KS_FRAME_STATISTIC_1, &seconds);
    EXPECT_GE(seconds, 0.0);
    float hitFraction = -1;
    ksGetFloatv(KS_FRAME_STATISTIC_8, &hitFraction);
    EXPECT_GE(hitFraction, 0.0f);
    EXPECT_LE(hitFraction, 1.0f);

    ksViewport(0, 0, -1, 2);
    EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, "ksViewport");
    ksViewport(0, 0, 2, -1);
    EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, "ksViewport");
}

// ---------------------------------------------------------------------------
// The render hook and stopping a frame

class KestrelRender : public KestrelFramebuffers
{
protected:
    void SetUp() override
    {
        KestrelFramebuffers::SetUp();
        // Several tiles, so that a stop between tiles has somewhere to act.
        Attach(0, NewClientTexture(64, 48, KS_RGBA, KS_FLOAT, _pixels.data()));
        ASSERT_NO_KS_ERROR();
    }

    std::array<float, 64 * 48 * 4> _pixels{};
};

constexpr auto kPatience = std::chrono::seconds(10);

TEST_F(KestrelRender, StopFromAnotherThreadEndsTheFrameOnce)
{
    std::mutex mutex;
    std::condition_variable changed;
    bool inHook = false;
    bool stopSent = false;
    bool hookTimedOut = false;
    void* hookContext = nullptr;
    {
        AutoRenderHook hook(
            [&](void* context)
            {
                std::unique_lock<std::mutex> lock(mutex);
                hookContext = context;
                inHook = true;
                changed.notify_all();
                hookTimedOut = !changed.wait_for(lock, kPatience, [&] { return stopSent; });
            });
        std::thread stopper(
            [&]
            {
                std::unique_lock<std::mutex> lock(mutex);
                if (!changed.wait_for(lock, kPatience, [&] { return inHook; }))
                    return;
                lock.unlock();
                KestrelStopContext(_pContext);
                lock.lock();
                stopSent = true;
                changed.notify_all();
            });
        ksRenderFrame();
        stopper.join();
    }
    ASSERT_TRUE(inHook) << "the render hook never ran";
    EXPECT_FALSE(hookTimedOut);
    EXPECT_EQ(hookContext, _pContext);
    EXPECT_EQ(ksGetError(), KS_RENDER_STOPPED);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);
    const std::vector<Notice> notices = _recorder.Take();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].code, KS_RENDER_STOPPED);
    EXPECT_EQ(notices[0].message, "frame stopped");
    EXPECT_EQ(notices[0].userData, &_recorder);

    // The stop does not stick to the next frame.
    const int before = FramesRendered();
    ksRenderFrame();
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(FramesRendered(), before + 1);
}

TEST_F(KestrelRender, StopOutsideAFrameIsForgotten)
{
    KestrelStopContext(_pContext);
    KestrelStopContext(nullptr);
    KestrelStopContext(ForgedHandle<void>());
    ksRenderFrame();
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(FramesRendered(), 1);
}

TEST_F(KestrelRender, HookRunsOncePerFrameOnAWorker)
{
    std::atomic<int> calls{0};
    std::atomic<bool> onCaller{false};
    const std::thread::id caller = std::this_thread::get_id();
    AutoRenderHook hook(
        [&](void*)
        {
            ++calls;
            if (std::this_thread::get_id() == caller)
                onCaller = true;
        });
    for (int frame = 1; frame <= 3; ++frame)
    {
        ksRenderFrame();
        EXPECT_NO_KS_ERROR();
        EXPECT_EQ(calls.load(), frame);
    }
    EXPECT_FALSE(onCaller.load());

    // Frames that fail validation never reach the hook.
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    ksRenderFrame();
    EXPECT_KS_ERROR(KS_INVALID_OPERATION);
    EXPECT_EQ(calls.load(), 3);
}

TEST_F(KestrelRender, HookMayStopOrRaise)
{
    struct Case
    {
        const char* label;
        Kestrel::Testing::RenderHook hook;
        int expected;
    };
    const Case cases[] = {
        {"stop from the worker", [](void* context) { KestrelStopContext(context); },
         KS_RENDER_STOPPED},
        {"raise", [](void*) { Kestrel::Testing::RaiseError(KS_OUT_OF_MEMORY); }, KS_OUT_OF_MEMORY},
        {"read the error", [](void*) { ksGetError(); }, KS_NO_ERROR},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        AutoRenderHook hook(c.hook);
        ksRenderFrame();
        EXPECT_EQ(ksGetError(), c.expected);
        EXPECT_EQ(ksGetError(), KS_NO_ERROR);
        const std::vector<Notice> notices = _recorder.Take();
        EXPECT_EQ(notices.size(), c.expected == KS_NO_ERROR ? 0u : 1u);
    }
}

} // namespace
} // namespace KestrelTest
