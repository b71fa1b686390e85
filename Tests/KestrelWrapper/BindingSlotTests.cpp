// The context's locked bind pairs around Kestrel's texture and pixel pack
// slots. That an open pair holds up a second thread is the texture and
// thread tests' to show.
#include "SlotProbes.h"
#include "WrapperFixture.h"

using namespace WrapperTest;

TEST_F(WrapperFixture, BindPairsSaveBindAndRestoreWhatWasBound)
{
    _KStexture* textures[2] = {};
    _KSbuffer* buffers[2] = {};
    ksGenTextures(2, textures);
    ksGenBuffers(2, buffers);
    ksBindTexture(KS_TEXTURE_2D, textures[0]);
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, buffers[0]);
    _pContext->BindTexture2D(textures[1]);
    _pContext->BindPixelPackBuffer(buffers[1]);
    EXPECT_EQ(BoundTexture(), textures[1]);
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffers[1]);
    _pContext->UnbindPixelPackBuffer();
    _pContext->UnbindTexture2D();
    EXPECT_EQ(BoundTexture(), textures[0]);
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffers[0]);
    EXPECT_NO_KS_ERROR();
}
