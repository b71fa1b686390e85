// The context's locked bind pairs around Kestrel's texture and pixel pack
// slots.
#include "WrapperFixture.h"

#include <atomic>
#include <chrono>
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

} // namespace

TEST_F(WrapperFixture, PairsRestoreWhatWasBound)
{
    _KStexture* before = nullptr;
    _KStexture* mine = nullptr;
    ksGenTextures(1, &before);
    ksGenTextures(1, &mine);
    _KSbuffer* packBefore = nullptr;
    _KSbuffer* packMine = nullptr;
    ksGenBuffers(1, &packBefore);
    ksGenBuffers(1, &packMine);
    ksBindTexture(KS_TEXTURE_2D, before);
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, packBefore);

    _pContext->BindTexture2D(mine);
    _pContext->BindPixelPackBuffer(packMine);
    EXPECT_EQ(BoundTexture(), mine);
    EXPECT_EQ(BoundPixelPackBuffer(), packMine);
    _pContext->UnbindPixelPackBuffer();
    _pContext->UnbindTexture2D();
    EXPECT_EQ(BoundTexture(), before);
    EXPECT_EQ(BoundPixelPackBuffer(), packBefore);

    // Nothing bound before: nothing bound after.
    ksBindTexture(KS_TEXTURE_2D, nullptr);
    _pContext->BindTexture2D(mine);
    _pContext->UnbindTexture2D();
    EXPECT_EQ(BoundTexture(), nullptr);
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, OpenTexturePairBlocksASecondThreadButNotThePixelPackPair)
{
    _KStexture* first = nullptr;
    _KStexture* second = nullptr;
    ksGenTextures(1, &first);
    ksGenTextures(1, &second);

    _pContext->BindTexture2D(first);

    // The pixel pack pair is a lock of its own.
    std::async(std::launch::async,
               [this]
               {
                   _pContext->BindPixelPackBuffer(nullptr);
                   _pContext->UnbindPixelPackBuffer();
               })
        .wait();

    std::atomic<bool> entered{false};
    std::thread other(
        [&]
        {
            _pContext->BindTexture2D(second);
            entered = true;
            _pContext->UnbindTexture2D();
        });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(entered) << "the second bind must wait for the unbind";
    EXPECT_EQ(BoundTexture(), first);
    _pContext->UnbindTexture2D();
    other.join();
    EXPECT_TRUE(entered);
    EXPECT_EQ(BoundTexture(), nullptr);
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, TexturePairMakesExactlyTheSaveBindRestoreCalls)
{
    _KStexture* texture = nullptr;
    ksGenTextures(1, &texture);
    Kestrel::Testing::CallLog log;
    _pContext->BindTexture2D(texture);
    _pContext->UnbindTexture2D();
    const std::string name = Kestrel::Testing::Describe(texture);
    EXPECT_EQ(log.Calls(), (Calls{"ksGetTexture(KS_TEXTURE_BINDING_2D, ptr)",
                                  "ksBindTexture(KS_TEXTURE_2D, " + name + ")",
                                  "ksBindTexture(KS_TEXTURE_2D, null)"}));
}
