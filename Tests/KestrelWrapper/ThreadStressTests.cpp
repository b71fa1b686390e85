// The library's promises across threads, driven hard: a frame stopped from
// another thread, the context's bind pairs used by two threads at once, and
// an attachment read under its lock while passes complete on another thread.
// Each must hold under the thread sanitizer too.
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
using Kestrel::Testing::TextureRecord;
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

// Half of the stops are held to land inside the frame: the frame waits in
// its hook until the other thread has stopped it. The other half race the
// frame freely and may come too late; neither kind may fail a frame or
// carry over to the next one.
TEST_F(ThreadStress, StopFromAnotherThreadEndsTheFrameOrFindsItDone)
{
    ASSERT_NE(Attach(32, Att::kBM_Mode0), nullptr);
    int stopped = 0;
    for (int i = 0; i < 50; ++i)
    {
        SCOPED_TRACE(i);
        const bool held = i % 2 == 0;
        // Every future is taken before a second thread can touch its promise.
        std::promise<void> begun;
        std::future<void> frameBegun = begun.get_future();
        std::promise<void> stopSent;
        std::shared_future<void> stopDone = stopSent.get_future().share();
        AutoRenderHook hook(
            [&begun, stopDone, held](void*)
            {
                begun.set_value();
                if (held)
                    stopDone.wait();
            });
        bool began = false;
        std::thread stopper(
            [this, &frameBegun, &stopSent, &began]
            {
                // Bounded, so that a frame that never begins fails the test
                // instead of hanging it.
                began = frameBegun.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
                _pContext->Stop();
                stopSent.set_value();
            });
        const IKestrelContext::KSRenderFrameStatus status = _pContext->RenderFrame();
        stopper.join();
        ASSERT_TRUE(began) << "the frame never began";
        if (held)
            EXPECT_EQ(status, IKestrelContext::kRFS_Stopped);
        else
            EXPECT_NE(status, IKestrelContext::kRFS_Failed);
        stopped += status == IKestrelContext::kRFS_Stopped ? 1 : 0;
        EXPECT_NO_KS_ERROR();
    }
    EXPECT_GE(stopped, 25);
    EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{}) << "a stop is not an error";
    EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Finished) << "no stop carries over";
}

// Client storage is one setting for all of Kestrel, and the texture binding
// one slot. Three threads specify images at once: a texture in client
// storage, a texture without, an attachment by resizing (client storage
// again); each then binds its own through the texture pair. Were any of them
// outside the pair, an image would come out with another's setting or size,
// or a thread would find another's texture bound inside its own pair.
TEST_F(ThreadStress, TexturePairKeepsThreeThreadsApart)
{
    constexpr int kRounds = 200;
    IKSTexImage2D* client = _pContext->CreateIKSTexImage2D();
    IKSTexImage2D* copied = _pContext->CreateIKSTexImage2D();
    IKSFrameBufferAttachment* attachment = Attach(2, Att::kBM_Mode2);
    ASSERT_NE(attachment, nullptr);
    float pixels[6 * 2 * 4] = {};
    auto image = [&](IKSTexImage2D* texture, int width, bool clientStorage)
    {
        texture->SetImage(width, 2, IKSTexImage::kTF_RGBA32F, KS_REPEAT, KS_NEAREST, KS_NEAREST,
                          pixels, clientStorage);
        return texture->GetKSTexture();
    };
    const struct
    {
        std::function<_KStexture*(int width)> specify;
        bool bClientStorage;
    } sides[] = {
        {[&](int width) { return image(client, width, true); }, true},
        {[&](int width) { return image(copied, width, false); }, false},
        {[&](int width)
         {
             _pFrameBuffer->Resize(width, 2);
             return attachment->GetKSTexture();
         },
         true},
    };

    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    auto rounds = [&](int side)
    {
        // All start together, so that their rounds overlap.
        ++ready;
        while (ready.load() < 3)
            std::this_thread::yield();
        for (int round = 0; round < kRounds; ++round)
        {
            // Sizes change every round and differ between the threads.
            const int width = 1 + round % 2 + 2 * side;
            _KStexture* texture = sides[side].specify(width);
            const TextureRecord made = Image(texture);
            if (made.width != width || made.clientStorage != sides[side].bClientStorage)
                ++wrong;
            _pContext->BindTexture2D(texture);
            // Room for another thread to come in, were the pair open to it.
            std::this_thread::sleep_for(std::chrono::microseconds(10));
            if (BoundTexture() != texture)
                ++wrong;
            _pContext->UnbindTexture2D();
        }
    };
    std::thread threads[] = {std::thread(rounds, 0), std::thread(rounds, 1),
                             std::thread(rounds, 2)};
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_NO_KS_ERROR();

    _pContext->DestroyIKSTexImage2D(client);
    _pContext->DestroyIKSTexImage2D(copied);
}

// Each pair is a lock of its own: an open pixel pack pair holds up another
// thread's pixel pack pair until its unbind, and not the texture pair.
TEST_F(ThreadStress, OpenPixelPackPairBlocksASecondThreadButNotTheTexturePair)
{
    _KSbuffer* buffers[2] = {};
    ksGenBuffers(2, buffers);
    _pContext->BindPixelPackBuffer(buffers[0]);
    std::async(std::launch::async,
               [this]
               {
                   _pContext->BindTexture2D(nullptr);
                   _pContext->UnbindTexture2D();
               })
        .wait();

    std::atomic<bool> entered{false};
    std::thread other(
        [&]
        {
            _pContext->BindPixelPackBuffer(buffers[1]);
            entered = true;
            _pContext->UnbindPixelPackBuffer();
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered) << "the second bind must wait for the unbind";
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffers[0]);
    _pContext->UnbindPixelPackBuffer();
    other.join();
    EXPECT_TRUE(entered);
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), nullptr);
    ksDeleteBuffers(2, buffers);
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
