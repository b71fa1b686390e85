// Frames, clears, the viewport, the ray depth limit and Kestrel's answers
// about itself, as the context passes them on.
#include "WrapperFixture.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::AutoRenderHook;
using Kestrel::Testing::CallLog;

// A frame finishes, or stops in silence under both render calls; the
// statistics are read back. A region clears only when asked, with alpha 1 and
// the colour bit alone; a direct clear and the viewport pass their numbers on
// unchecked.
TEST_F(WrapperFixture, RenderFrameRegionClearAndViewportPassTheirNumbersOn)
{
    using Att = IKSFrameBufferAttachment;
    KSFrameBuffer frameBuffer(_pContext);
    ASSERT_TRUE(frameBuffer.Init(4, 4));
    IKSFrameBufferAttachment* attachment = frameBuffer.CreateAttachment(
        0, Att::kF_RGBA, Att::kDT_Float, false, Att::kBM_Mode0, Color4f{});
    ASSERT_NE(attachment, nullptr);
    frameBuffer.Bind();
    EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Finished);

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
    {
        AutoRenderHook hook([this](void*) { _pContext->Stop(); });
        EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Stopped);
        EXPECT_FALSE(
            _pContext->RenderRegion(Rect2<Vector2i, int>{{0, 0}, {4, 4}}, false, Color3f{}));
        EXPECT_NO_KS_ERROR();
    }

    const Rect2<Vector2i, int> region{{1, 1}, {3, 4}};
    log.Clear();
    EXPECT_TRUE(_pContext->RenderRegion(region, false, Color3f{1, 0, 0}));
    EXPECT_TRUE(_pContext->RenderRegion(region, true, Color3f{0.25f, 0.5f, 0.75f}));
    EXPECT_EQ(*reinterpret_cast<const float*>(attachment->GetClientBuffer()), 0.25f)
        << "the clear reached client memory";
    EXPECT_TRUE(
        _pContext->ClearFrameBuffers(Color3f{1, 2, 3}, 0.5f, KS_COLOR_ATTACHMENT0_BIT << 2));
    EXPECT_TRUE(_pContext->SetViewport(Rect2<Vector2i, int>{{5, 6}, {2, 10}}));
    EXPECT_TRUE(_pContext->SetViewport(1, 2, 3, 4));
    EXPECT_EQ(log.Calls(), (Calls{"ksViewport(1, 1, 2, 3)", "ksRenderFrame()", "ksGetError()",
                                  "ksViewport(1, 1, 2, 3)", "ksClearColor(0.25, 0.5, 0.75, 1)",
                                  "ksClear(KS_COLOR_BUFFER_BIT)", "ksRenderFrame()", "ksGetError()",
                                  "ksClearColor(1, 2, 3, 0.5)", "ksClear(131072)",
                                  "ksViewport(5, 6, -3, 4)", "ksViewport(1, 2, 3, 4)"}));
    ksGetError(); // no point 2, no negative width: Kestrel's refusals, not the context's
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
}

// Each query asks Kestrel for its own constant and hands the answer on.
TEST_F(WrapperFixture, CapabilityQueriesAskForTheirOwnConstant)
{
    Kestrel::Testing::AutoStringOverride version(KS_VERSION, "version");
    Kestrel::Testing::AutoStringOverride profile(KS_PROFILE, "profile");
    IKestrelContext* c = _pContext;
    const struct
    {
        std::function<std::string()> query;
        const char* answer;
        const char* call;
    } rows[] = {
        {[c] { return std::to_string(c->GetKSIsHardwareAccelerated()); }, "0",
         "ksGetBooleanv(KS_HARDWARE_ACCELERATED, ptr)"},
        {[c] { return std::to_string(c->GetKSIsDifferentialsEnabled()); }, "0",
         "ksGetBooleanv(KS_DIFFERENTIALS_ENABLED, ptr)"},
        {[c] { return std::to_string(c->GetKSIsFilteredAccumulatesEnabled()); }, "1",
         "ksGetBooleanv(KS_FILTERED_ACCUMULATES_ENABLED, ptr)"},
        {[c] { return std::to_string(c->GetKSHardwareAcceleratorCount()); }, "0",
         "KestrelGetHardwareAcceleratorCount()"},
        {[c] { return std::string(c->GetKSVersionString()); }, "version",
         "ksGetString(KS_VERSION)"},
        {[c] { return std::string(c->GetKSProfileString()); }, "profile",
         "ksGetString(KS_PROFILE)"},
    };
    for (const auto& row : rows)
    {
        CallLog log;
        EXPECT_EQ(row.query(), row.answer);
        EXPECT_EQ(log.Calls(), Calls{row.call});
    }
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, VersionCheckReadsTwoNumbers)
{
    const std::pair<const char*, bool> cases[] = {
        {"1.4", true},  {"2.0", true}, {"1.4.2", true},       {"1.10", true},   {"1.3", false},
        {"0.9", false}, {"1", false},  {"no numbers", false}, {nullptr, false},
    };
    for (const auto& [text, compatible] : cases)
    {
        Kestrel::Testing::AutoStringOverride version(KS_VERSION, text);
        int major = -1;
        int minor = -1;
        EXPECT_EQ(_pContext->GetKSVersionIsCompatible(major, minor), compatible)
            << (text ? text : "null");
        EXPECT_EQ(major, 1);
        EXPECT_EQ(minor, 4);
    }
}
