// The context's locked bind pair around Kestrel's pixel pack slot; the
// texture pair's save and restore show in every texture test. That an open
// pair holds up a second thread is the thread tests' to show.
#include "SlotProbes.h"
#include "WrapperFixture.h"

using namespace WrapperTest;

TEST_F(WrapperFixture, PixelPackPairSavesBindsAndRestoresWhatWasBound)
{
    _KSbuffer* buffers[2] = {};
    ksGenBuffers(2, buffers);
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, buffers[0]);
    _pContext->BindPixelPackBuffer(buffers[1]);
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffers[1]);
    _pContext->UnbindPixelPackBuffer();
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffers[0]);
    EXPECT_NO_KS_ERROR();
}
