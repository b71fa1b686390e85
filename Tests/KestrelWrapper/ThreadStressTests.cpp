// The library's promises across threads: the context's bind pairs used by
// two threads at once, and an attachment read under its lock while passes
// complete on another thread. Each must hold under the thread sanitizer too.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::AutoRenderHook;
using Att = IKSFrameBufferAttachment;

namespace
{

class ThreadStress : public WrapperFixture
{
protected:
    // One attachment on the test's frame buffer, bound and cleared for frames
    // to render into.
    IKSFrameBufferAttachment* Attach(int size, Att::eBlendMode mode,
                                     const Color4f& clearColor = Color4f{})
    {
        _pFrameBuffer = _pContext->CreateIKSFrameBuffer();
        _pFrameBuffer->Init(size, size);
        IKSFrameBufferAttachment* attachment = _pFrameBuffer->CreateAttachment(
            0, Att::kF_RGBA, Att::kDT_Float, false, mode, clearColor);
        _pFrameBuffer->Bind();
        _pFrameBuffer->Clear();
        return attachment;
    }

    void TearDown() override
    {
        ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
        _pContext->DestroyIKSFrameBuffer(_pFrameBuffer);
        WrapperFixture::TearDown();
    }

    IKSFrameBuffer* _pFrameBuffer = nullptr;
};

} // namespace

// Each of the context's bind pairs is a lock of its own: while one thread
// holds a pair open, another thread's use of the same pair waits for the
// unbind, and its use of the other pair does not. Client storage is one
// setting for all of Kestrel, so making an attachment, which specifies its
// texture under it, must wait for the texture pair like any image.
TEST_F(ThreadStress, AnOpenPairHoldsUpTheSamePairOnAnotherThreadAndNothingElse)
{
    ASSERT_NE(Attach(2, Att::kBM_Mode2), nullptr);
    _KSbuffer* buffers[2] = {};
    ksGenBuffers(2, buffers);
    _KStexture* texture = nullptr;
    ksGenTextures(1, &texture);
    auto usePixelPack = [&]
    {
        _pContext->BindPixelPackBuffer(buffers[1]);
        _pContext->UnbindPixelPackBuffer();
    };
    IKSFrameBufferAttachment* made = nullptr;
    const struct
    {
        const char* sName;
        bool bTexturePair; // the pair held open, else the pixel pack pair
        std::function<void()> use;
        bool bWaits;
    } rows[] = {
        {"pixel pack, then pixel pack", false, usePixelPack, true},
        {"texture, then a new attachment", true,
         [&]
         {
             made = _pFrameBuffer->CreateAttachment(1, Att::kF_RGBA, Att::kDT_Float, false,
                                                    Att::kBM_Mode0, Color4f{});
         },
         true},
        {"pixel pack, then texture", false,
         [&]
         {
             _pContext->BindTexture2D(texture);
             _pContext->UnbindTexture2D();
         },
         false},
        {"texture, then pixel pack", true, usePixelPack, false},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.sName);
        if (row.bTexturePair)
            _pContext->BindTexture2D(texture);
        else
            _pContext->BindPixelPackBuffer(buffers[0]);
        std::future<void> other = std::async(std::launch::async, row.use);
        // A short look for a wait, a long one for the way through, so that a
        // slow machine cannot fail either kind of row.
        const auto look = row.bWaits ? std::chrono::milliseconds(50) : std::chrono::seconds(5);
        EXPECT_EQ(other.wait_for(look) == std::future_status::timeout, row.bWaits);
        // The open pair's binding stays in place until its own unbind.
        if (row.bTexturePair)
        {
            EXPECT_EQ(BoundTexture(), texture);
            _pContext->UnbindTexture2D();
        }
        else
        {
            EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffers[0]);
            _pContext->UnbindPixelPackBuffer();
        }
        ASSERT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(BoundTexture(), nullptr);
        EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), nullptr);
    }
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(Image(made->GetKSTexture()).clientStorage);
    ksDeleteBuffers(2, buffers);
    ksDeleteTextures(1, &texture);
    EXPECT_NO_KS_ERROR();
}

// One thread completes passes: a frame leaves 0.25 everywhere, and the sum
// of the accumulated attachment grows by 1 - 0.25 under the attachment's
// lock. The other reads the sum under the same lock and must only ever see
// it whole: every component alike, a whole number of passes, never fewer
// than it saw before. Binding the frame buffer, which gives the lock up on
// the binding thread only, must not hand the reader's hold away.
TEST_F(ThreadStress, LockedReadsSeeOnlyWholePassesWhilePassesComplete)
{
    constexpr int kSize = 16;
    constexpr int kPasses = 40;
    constexpr float kLeft = 0.75f; // 1 - 0.25 per pass
    IKSFrameBufferAttachment* attachment = Attach(kSize, Att::kBM_Accumulated, Color4f{0, 0, 0, 1});
    ASSERT_NE(attachment, nullptr);
    AutoRenderHook hook(
        [](void* context)
        {
            ksClearColor(0.25f, 0.25f, 0.25f, 0.25f);
            ksClear(KS_COLOR_BUFFER_BIT);
            KestrelStopContext(context);
        });
    auto completePass = [&]
    {
        const bool rendered = _pContext->RenderFrame() == IKestrelContext::kRFS_Stopped;
        const bool locked = attachment->Lock(kInfinite);
        const bool summed = attachment->NotifyPassCompleted();
        if (locked)
            attachment->UnLock();
        return rendered && locked && summed;
    };
    // The sum is undefined until a first pass has made it.
    ASSERT_TRUE(completePass());

    std::atomic<bool> done{false};
    std::atomic<int> failedPasses{0};
    std::thread passes(
        [&]
        {
            for (int pass = 1; pass < kPasses; ++pass)
            {
                if (!completePass())
                    ++failedPasses;
                if (pass % 4 == 0)
                    _pFrameBuffer->Bind();
            }
            done = true;
        });

    constexpr int kFloats = kSize * kSize * 4;
    std::vector<float> sum(kFloats);
    int reads = 0;
    int lastSeen = 0;
    bool whole = true;
    bool monotonic = true;
    while (!done || reads == 0)
    {
        if (!attachment->Lock(1000))
            continue;
        std::memcpy(sum.data(), attachment->GetClientBuffer(), sizeof(float) * kFloats);
        attachment->UnLock();
        std::this_thread::yield();
        ++reads;
        const float passesSeen = sum[0] / kLeft;
        const int seen = static_cast<int>(passesSeen);
        for (float value : sum)
            whole = whole && value == sum[0];
        whole = whole && passesSeen == static_cast<float>(seen) && seen >= 1 && seen <= kPasses;
        monotonic = monotonic && seen >= lastSeen;
        lastSeen = seen;
    }
    passes.join();

    EXPECT_EQ(failedPasses.load(), 0);
    EXPECT_TRUE(whole) << "a read saw a pass half summed";
    EXPECT_TRUE(monotonic) << "a read saw the sum go back";
    ASSERT_TRUE(attachment->Lock(0)) << "nobody holds the lock any more";
    std::memcpy(sum.data(), attachment->GetClientBuffer(), sizeof(float) * kFloats);
    attachment->UnLock();
    EXPECT_EQ(sum[0], kPasses * kLeft);
    EXPECT_EQ(sum[kFloats - 1], kPasses * kLeft);
    EXPECT_NO_KS_ERROR();
}
