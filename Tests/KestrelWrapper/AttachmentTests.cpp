// Frame buffer attachments: client memory as the storage Kestrel renders
// into, and the running sum of kBM_Accumulated. Storage given up at a bad
// size is the bad-input sweep's; the lock is the frame buffer tests'.
#include "WrapperFixture.h"

#include <cstdint>
#include <cstring>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Att = IKSFrameBufferAttachment;

namespace
{

constexpr int kWidth = 5;
constexpr int kHeight = 3;

::testing::AssertionResult AllPixelsAre(IKSFrameBufferAttachment* attachment, int pixels,
                                        const Color4f& expected)
{
    const unsigned char* buffer = attachment->GetClientBuffer();
    if (buffer == nullptr)
        return ::testing::AssertionFailure() << "no client buffer";
    for (int i = 0; i < pixels; ++i)
    {
        Color4f pixel;
        std::memcpy(&pixel, buffer + 16 * i, sizeof(pixel));
        if (!(pixel == expected))
            return ::testing::AssertionFailure()
                   << "pixel " << i << " is (" << pixel.r << ", " << pixel.g << ", " << pixel.b
                   << ", " << pixel.a << ")";
    }
    return ::testing::AssertionSuccess();
}

class AttachmentTest : public WrapperFixture
{
protected:
    void SetUp() override
    {
        WrapperFixture::SetUp();
        _pFrameBuffer = _pContext->CreateIKSFrameBuffer();
        ASSERT_NE(_pFrameBuffer, nullptr);
        ASSERT_TRUE(_pFrameBuffer->Init(kWidth, kHeight));
    }
    void TearDown() override
    {
        _pContext->DestroyIKSFrameBuffer(_pFrameBuffer);
        WrapperFixture::TearDown();
    }

    IKSFrameBufferAttachment* Create(int index, Att::eBlendMode mode, const Color4f& clearColor)
    {
        return _pFrameBuffer->CreateAttachment(index, Att::kF_RGBA, Att::kDT_Float, false, mode,
                                               clearColor);
    }

    // A pass that leaves `value` in every target. The hook writes it and
    // stops the frame before the first tile, so the pass is the same
    // whatever the renderer would draw.
    void RenderPass(const Color4f& value)
    {
        Kestrel::Testing::AutoRenderHook hook(
            [value](void* context)
            {
                ksClearColor(value.r, value.g, value.b, value.a);
                ksClear(KS_COLOR_BUFFER_BIT);
                KestrelStopContext(context);
            });
        EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Stopped);
    }

    IKSFrameBuffer* _pFrameBuffer = nullptr;
};

} // namespace

TEST_F(AttachmentTest, AccumulationSumsOneMinusEachPass)
{
    const Color4f clearColour{0.125f, 0.25f, 0.375f, 0.5f};
    IKSFrameBufferAttachment* attachment = Create(2, Att::kBM_Accumulated, clearColour);
    ASSERT_NE(attachment, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(attachment->GetClientBuffer()) % 16, 0u);
    _pFrameBuffer->Bind();

    // Init starts the sum: no Clear is needed before the first pass. The
    // lanes differ, so a component that lands in the wrong lane shows.
    RenderPass(Color4f{0.25f, 0.5f, 0.0f, 1.0f});
    {
        CallLog log;
        EXPECT_TRUE(attachment->NotifyPassCompleted());
        EXPECT_EQ(log.Calls(), (Calls{"ksClearColor(0.125, 0.25, 0.375, 0.5)", "ksClear(131072)"}));
    }
    // The target now holds the clear colour; the host still sees the sum.
    EXPECT_TRUE(AllPixelsAre(attachment, kWidth * kHeight, Color4f{0.75f, 0.5f, 1.0f, 0.0f}));
    RenderPass(Color4f{0.5f, 0.25f, 1.0f, 0.0f});
    attachment->NotifyPassCompleted();
    EXPECT_TRUE(AllPixelsAre(attachment, kWidth * kHeight, Color4f{1.25f, 1.25f, 1.0f, 1.0f}));

    // What restarts the sum and what keeps it, each followed by a pass.
    struct Step
    {
        const char* what;
        int width, height;
        bool clear;
        float after;
    };
    const Step steps[] = {
        {"Clear restarts", kWidth, kHeight, true, 0.75f},
        {"the same size keeps", kWidth, kHeight, false, 1.5f},
        {"another size restarts", kWidth + 2, kHeight + 1, false, 0.75f},
    };
    for (const Step& step : steps)
    {
        SCOPED_TRACE(step.what);
        const unsigned char* before = attachment->GetClientBuffer();
        if (step.clear)
            _pFrameBuffer->Clear();
        CallLog log;
        EXPECT_TRUE(_pFrameBuffer->Resize(step.width, step.height));
        if (step.width == kWidth)
        {
            EXPECT_EQ(log.Calls(), Calls{});
            EXPECT_EQ(attachment->GetClientBuffer(), before);
        }
        RenderPass(Color4f{0.25f, 0.25f, 0.25f, 0.25f});
        attachment->NotifyPassCompleted();
        EXPECT_TRUE(AllPixelsAre(attachment, step.width * step.height,
                                 Color4f{step.after, step.after, step.after, step.after}));
    }
    EXPECT_NO_KS_ERROR();
}

// Index 16 owns the clear mask's top bit, so Kestrel has a point for it: it
// is attached and cleared by its own bit. Index 17 is Kestrel's to refuse.
TEST_F(AttachmentTest, TopIndexIsClearedByItsOwnBitAndTheNextIsRefused)
{
    IKSFrameBufferAttachment* top = Create(16, Att::kBM_Accumulated, Color4f{1, 1, 1, 1});
    ASSERT_NE(top, nullptr);
    EXPECT_NO_KS_ERROR();
    _pFrameBuffer->Bind();
    ksClearColor(0, 0, 0, 0);
    ksClear(KS_COLOR_BUFFER_BIT);
    _pFrameBuffer->ClearAttachment(16);
    Kestrel::Testing::TextureRecord target;
    ASSERT_TRUE(Kestrel::Testing::ReadTexture(top->GetKSTexture(), 0, &target));
    const std::vector<float> ones(4 * kWidth * kHeight, 1.0f);
    ASSERT_EQ(target.bytes.size(), sizeof(float) * ones.size());
    EXPECT_EQ(std::memcmp(target.bytes.data(), ones.data(), target.bytes.size()), 0)
        << "cleared by its own bit";

    EXPECT_NE(Create(17, Att::kBM_Mode0, Color4f{}), nullptr);
    EXPECT_EQ(ksGetError(), KS_INVALID_ENUM) << "no point 17";
}
