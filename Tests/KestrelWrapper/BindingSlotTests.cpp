// The context's locked bind pairs around Kestrel's texture and pixel pack
// slots.
#include "WrapperFixture.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

using namespace WrapperTest;
using namespace std::chrono_literals;

namespace
{

_KStexture* BoundTexture()
{
    _KStexture* texture = nullptr;
    ksGetTexture(KS_TEXTURE_BINDING_2D, &texture);
    return texture;
}

_KSbuffer* BoundPixelPackBuffer()
{
    _KSbuffer* buffer = nullptr;
    ksGetBuffer(KS_PIXEL_PACK_BUFFER_BINDING, &buffer);
    return buffer;
}

class SlotFixture : public WrapperFixture
{
protected:
    void SetUp() override
    {
        WrapperFixture::SetUp();
        ksGenTextures(2, _textures);
        ksGenBuffers(2, _buffers);
    }

    _KStexture* _textures[2] = {};
    _KSbuffer* _buffers[2] = {};
};

} // namespace

TEST_F(SlotFixture, PairsSaveBindAndRestoreWhatWasBound)
{
    ksBindTexture(KS_TEXTURE_2D, _textures[0]);
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, _buffers[0]);
    _pContext->BindTexture2D(_textures[1]);
    _pContext->BindPixelPackBuffer(_buffers[1]);
    EXPECT_EQ(BoundTexture(), _textures[1]);
    EXPECT_EQ(BoundPixelPackBuffer(), _buffers[1]);
    _pContext->UnbindPixelPackBuffer();
    _pContext->UnbindTexture2D();
    EXPECT_EQ(BoundTexture(), _textures[0]);
    EXPECT_EQ(BoundPixelPackBuffer(), _buffers[0]);
    EXPECT_NO_KS_ERROR();
}

// Each pair is a lock of its own: an open pair makes a second thread wait on
// the same pair, never on the other.
TEST_F(SlotFixture, OpenPairBlocksASecondThreadOnItsOwnSlotOnly)
{
    Vireo::IKestrelContext* context = _pContext;
    struct Pair
    {
        const char* what;
        std::function<void(int)> bind;
        std::function<void()> unbind;
        std::function<void*()> bound;
    };
    const Pair pairs[] = {
        {"texture", [&](int i) { context->BindTexture2D(_textures[i]); },
         [context] { context->UnbindTexture2D(); }, [] { return (void*)BoundTexture(); }},
        {"pixel pack", [&](int i) { context->BindPixelPackBuffer(_buffers[i]); },
         [context] { context->UnbindPixelPackBuffer(); },
         [] { return (void*)BoundPixelPackBuffer(); }},
    };
    for (int k : {0, 1})
    {
        const Pair& mine = pairs[k];
        const Pair& other = pairs[1 - k];
        SCOPED_TRACE(mine.what);
        mine.bind(0);
        std::async(std::launch::async,
                   [&other]
                   {
                       other.bind(1);
                       other.unbind();
                   })
            .wait();

        std::atomic<bool> entered{false};
        std::thread second(
            [&]
            {
                mine.bind(1);
                entered = true;
                mine.unbind();
            });
        std::this_thread::sleep_for(50ms);
        EXPECT_FALSE(entered) << "the second bind must wait for the unbind";
        EXPECT_EQ(mine.bound(), k == 0 ? (void*)_textures[0] : (void*)_buffers[0]);
        mine.unbind();
        second.join();
        EXPECT_TRUE(entered);
        EXPECT_EQ(mine.bound(), nullptr) << "nothing bound before, nothing after";
    }
    EXPECT_NO_KS_ERROR();
}
