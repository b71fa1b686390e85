// Frames, clears, the viewport, the ray depth limit and Kestrel's answers
// about itself, as the context passes them on.
#include "WrapperFixture.h"

#include <atomic>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::AutoRenderHook;
using Kestrel::Testing::CallLog;
using Vireo::Testing::kCCK_PrintError;

namespace
{

// A frame buffer of one RGBA float attachment in client memory, bound.
class BoundFrameBuffer
{
public:
    BoundFrameBuffer() : _pixels(4 * 4 * 4, 0.5f)
    {
        ksGenTextures(1, &_texture);
        ksBindTexture(KS_TEXTURE_2D, _texture);
        ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 1);
        ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 4, 4, 0, KS_RGBA, KS_FLOAT, _pixels.data());
        ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 0);
        ksBindTexture(KS_TEXTURE_2D, nullptr);
        ksGenFramebuffers(1, &_framebuffer);
        ksBindFramebuffer(KS_FRAMEBUFFER, _framebuffer);
        ksFramebufferTexture2D(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, KS_TEXTURE_2D, _texture, 0);
    }
    ~BoundFrameBuffer()
    {
        ksDeleteFramebuffers(1, &_framebuffer);
        ksDeleteTextures(1, &_texture);
    }
    const std::vector<float>& Pixels() const { return _pixels; }

private:
    std::vector<float> _pixels;
    _KStexture* _texture = nullptr;
    _KSframebuffer* _framebuffer = nullptr;
};

} // namespace

TEST_F(WrapperFixture, RenderFrameWithNothingBoundFailsWithTheHexMessage)
{
    EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Failed);
    const std::vector<std::string> errors = _console.TextsOf(kCCK_PrintError);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), "Kestrel error 0x502 occurred.\n");
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, RenderFrameFinishesOnABoundFrameBuffer)
{
    BoundFrameBuffer frameBuffer;
    EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Finished);
    EXPECT_EQ(_console.CountOf(kCCK_PrintError), 0u);

    IKestrelContext::KSRenderFrameStatistics statistics{};
    statistics.floatStatistic = -1.0f;
    CallLog log;
    _pContext->GetKSStatistics(statistics);
    EXPECT_EQ(
        log.Calls(),
        (Calls{"ksGetDoublev(KS_FRAME_STATISTIC_1, ptr)", "ksGetDoublev(KS_FRAME_STATISTIC_2, ptr)",
               "ksGetDoublev(KS_FRAME_STATISTIC_3, ptr)", "ksGetLongv(KS_FRAME_STATISTIC_4, ptr)",
               "ksGetIntegerv(KS_FRAME_STATISTIC_5, ptr)", "ksGetLongv(KS_FRAME_STATISTIC_6, ptr)",
               "ksGetLongv(KS_FRAME_STATISTIC_7, ptr)", "ksGetFloatv(KS_FRAME_STATISTIC_8, ptr)"}));
    EXPECT_EQ(statistics.intStatistic, 1) << "frames rendered by the context";
    EXPECT_EQ(statistics.longStatistic1, 16) << "one primary ray per pixel";
    EXPECT_GE(statistics.floatStatistic, 0.0f);
}

TEST_F(WrapperFixture, StoppedFrameIsSilentUnderBothRenderCalls)
{
    BoundFrameBuffer frameBuffer;
    AutoRenderHook hook([this](void*) { _pContext->Stop(); });

    EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Stopped);
    const Rect2<Vector2i, int> region{{0, 0}, {4, 4}};
    EXPECT_FALSE(_pContext->RenderRegion(region, false, Color3f{}));
    EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{});
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, RenderRegionClearsOnlyWhenAsked)
{
    BoundFrameBuffer frameBuffer;
    const Rect2<Vector2i, int> region{{1, 1}, {3, 4}};
    {
        CallLog log;
        EXPECT_TRUE(_pContext->RenderRegion(region, false, Color3f{1, 0, 0}));
        EXPECT_EQ(log.Calls(),
                  (Calls{"ksViewport(1, 1, 2, 3)", "ksRenderFrame()", "ksGetError()"}));
    }
    CallLog log;
    EXPECT_TRUE(_pContext->RenderRegion(region, true, Color3f{0.25f, 0.5f, 0.75f}));
    EXPECT_EQ(log.Calls(),
              (Calls{"ksViewport(1, 1, 2, 3)", "ksClearColor(0.25, 0.5, 0.75, 1)",
                     "ksClear(KS_COLOR_BUFFER_BIT)", "ksRenderFrame()", "ksGetError()"}));
    EXPECT_EQ(frameBuffer.Pixels()[0], 0.25f) << "the clear reached client memory";
}

TEST_F(WrapperFixture, ViewportPassesANegativeWidthOn)
{
    CallLog log;
    EXPECT_TRUE(_pContext->SetViewport(Rect2<Vector2i, int>{{5, 6}, {2, 10}}));
    EXPECT_TRUE(_pContext->SetViewport(1, 2, 3, 4));
    EXPECT_EQ(log.CallsOf("ksViewport"),
              (Calls{"ksViewport(5, 6, -3, 4)", "ksViewport(1, 2, 3, 4)"}));
    ksGetError(); // the runtime refuses the negative width; not the wrapper's business
}

TEST_F(WrapperFixture, RayDepthLimitIsBoundedByTheMaximum)
{
    const int maximum = _pContext->GetMaxRayDepthLimit();
    ASSERT_GT(maximum, 0);
    EXPECT_TRUE(_pContext->SetRayDepthLimit(maximum));
    EXPECT_EQ(_pContext->GetRayDepthLimit(), maximum);
    EXPECT_TRUE(_pContext->SetRayDepthLimit(1));

    CallLog log;
    EXPECT_FALSE(_pContext->SetRayDepthLimit(maximum + 1));
    EXPECT_TRUE(log.CallsOf("ksFrameParameter1i").empty()) << "Kestrel must not be told";
    EXPECT_EQ(_pContext->GetRayDepthLimit(), 1);
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, CapabilityQueries)
{
    EXPECT_FALSE(_pContext->GetKSIsHardwareAccelerated());
    EXPECT_FALSE(_pContext->GetKSIsDifferentialsEnabled());
    EXPECT_TRUE(_pContext->GetKSIsFilteredAccumulatesEnabled());
    EXPECT_EQ(_pContext->GetKSHardwareAcceleratorCount(), 0);
    ASSERT_NE(_pContext->GetKSProfileString(), nullptr);
    ASSERT_NE(_pContext->GetKSVersionString(), nullptr);
    int major = 0;
    int minor = 0;
    EXPECT_TRUE(_pContext->GetKSVersionIsCompatible(major, minor));
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 4);
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, VersionCheckReadsTwoNumbers)
{
    struct Case
    {
        const char* version;
        bool compatible;
    };
    const Case cases[] = {
        {"1.4", true},  {"2.0", true}, {"1.4.2", true},       {"1.10", true},   {"1.3", false},
        {"0.9", false}, {"1", false},  {"no numbers", false}, {nullptr, false},
    };
    for (const Case& c : cases)
    {
        Kestrel::Testing::AutoStringOverride version(KS_VERSION, c.version);
        int major = -1;
        int minor = -1;
        EXPECT_EQ(_pContext->GetKSVersionIsCompatible(major, minor), c.compatible)
            << (c.version ? c.version : "null");
        EXPECT_EQ(major, 1);
        EXPECT_EQ(minor, 4);
    }
}

TEST(ContextFrameTest, PendingErrorWithoutConsoleFailsSilently)
{
    KestrelContextImp context(nullptr, false, false);
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    ASSERT_TRUE(context.MakeKestrelContextActive());
    EXPECT_EQ(context.RenderFrame(), IKestrelContext::kRFS_Failed);
}

TEST_F(WrapperFixture, ClearFrameBuffersPassesTheMaskOn)
{
    CallLog log;
    EXPECT_TRUE(
        _pContext->ClearFrameBuffers(Color3f{1, 2, 3}, 0.5f, KS_COLOR_ATTACHMENT0_BIT << 2));
    EXPECT_EQ(log.Calls(), (Calls{"ksClearColor(1, 2, 3, 0.5)", "ksClear(131072)"}));
    ksGetError(); // nothing is bound: the runtime's refusal is not under test here
}
