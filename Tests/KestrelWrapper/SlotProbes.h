// Reading Kestrel's binding slots, buffer bytes and texture images behind the
// wrapper's back, for the buffer, texture, bad-input and fault tests, and
// the buffer tests' fixture.
#ifndef VIREO_TESTS_KESTRELWRAPPER_SLOTPROBES_H
#define VIREO_TESTS_KESTRELWRAPPER_SLOTPROBES_H

#include "KestrelTesting.h"
#include "WrapperFixture.h"

#include <algorithm>
#include <ostream>
#include <vector>

namespace Kestrel
{
namespace Testing
{

// So that a failed comparison of counts shows them.
inline void PrintTo(const ObjectCounts& counts, std::ostream* stream)
{
    *stream << counts.shaders << " shaders, " << counts.programs << " programs, "
            << counts.primitives << " primitives, " << counts.buffers << " buffers, "
            << counts.textures << " textures, " << counts.framebuffers << " frame buffers";
}

} // namespace Testing
} // namespace Kestrel

namespace WrapperTest
{

using Bytes = std::vector<unsigned char>;

inline _KSbuffer* BoundBuffer(int bindingQuery)
{
    _KSbuffer* buffer = nullptr;
    ksGetBuffer(bindingQuery, &buffer);
    return buffer;
}

inline _KStexture* BoundTexture()
{
    _KStexture* texture = nullptr;
    ksGetTexture(KS_TEXTURE_BINDING_2D, &texture);
    return texture;
}

inline Kestrel::Testing::TextureRecord Image(_KStexture* texture, int level = 0)
{
    Kestrel::Testing::TextureRecord record;
    Kestrel::Testing::ReadTexture(texture, level, &record);
    return record;
}

// Raw access through the unpack target, which none of the code under test
// binds; its binding is put back.
inline Bytes ReadBytes(_KSbuffer* buffer, std::size_t size)
{
    _KSbuffer* saved = BoundBuffer(KS_PIXEL_UNPACK_BUFFER_BINDING);
    ksBindBuffer(KS_PIXEL_UNPACK_BUFFER, buffer);
    Bytes bytes;
    if (const auto* map =
            static_cast<const unsigned char*>(ksMapBuffer(KS_PIXEL_UNPACK_BUFFER, KS_READ_ONLY)))
        bytes.assign(map, map + size);
    ksUnmapBuffer(KS_PIXEL_UNPACK_BUFFER);
    ksBindBuffer(KS_PIXEL_UNPACK_BUFFER, saved);
    return bytes;
}

// Buffers made through the context, given back after the test.
class BufferFixture : public WrapperFixture
{
protected:
    void TearDown() override
    {
        for (Vireo::IKSBuffer* buffer : _buffers)
            _pContext->DestroyIKSBuffer(buffer);
        WrapperFixture::TearDown();
    }

    Vireo::IKSBuffer* Create()
    {
        _buffers.push_back(_pContext->CreateIKSBuffer());
        return _buffers.back();
    }

    Vireo::IKSBuffer* Filled(const Bytes& contents)
    {
        Vireo::IKSBuffer* buffer = Create();
        EXPECT_TRUE(buffer->Init(Vireo::IKSBuffer::kUsage_DynamicDraw, contents.size()));
        _KSbuffer* saved = BoundBuffer(KS_PIXEL_UNPACK_BUFFER_BINDING);
        ksBindBuffer(KS_PIXEL_UNPACK_BUFFER, buffer->GetKSBuffer());
        if (void* map = ksMapBuffer(KS_PIXEL_UNPACK_BUFFER, KS_WRITE_ONLY))
            std::copy(contents.begin(), contents.end(), static_cast<unsigned char*>(map));
        ksUnmapBuffer(KS_PIXEL_UNPACK_BUFFER);
        ksBindBuffer(KS_PIXEL_UNPACK_BUFFER, saved);
        return buffer;
    }

    Bytes Contents(Vireo::IKSBuffer* buffer)
    {
        return ReadBytes(buffer->GetKSBuffer(), static_cast<std::size_t>(buffer->GetSize()));
    }

    std::vector<Vireo::IKSBuffer*> _buffers;
};

} // namespace WrapperTest

#endif // VIREO_TESTS_KESTRELWRAPPER_SLOTPROBES_H
