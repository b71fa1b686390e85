// Buffer mappings: the live map, the private copy written back, private
// copies of several buffers, and the context's pixel pack bind pair.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <cstring>
#include <memory>

using namespace WrapperTest;
using Vireo::IKSBuffer;
using Vireo::KSBufferMapping;
using Vireo::KSBufferMappingMultiple;
using Vireo::KSBufferSafeMapping;

namespace
{

const int kQueries[] = {KS_ARRAY_BUFFER_BINDING, KS_ELEMENT_ARRAY_BUFFER_BINDING,
                        KS_PIXEL_PACK_BUFFER_BINDING, KS_PIXEL_UNPACK_BUFFER_BINDING,
                        KS_UNIFORM_BLOCK_BUFFER_BINDING};

std::vector<_KSbuffer*> AllBindings()
{
    std::vector<_KSbuffer*> bound;
    for (int query : kQueries)
        bound.push_back(BoundBuffer(query));
    return bound;
}

class MappingTest : public BufferFixture
{
protected:
    void SetUp() override
    {
        WrapperFixture::SetUp();
        // Something bound everywhere, so that a forgotten restore shows.
        ksGenBuffers(5, _others);
        for (int i = 0; i < 5; ++i)
            ksBindBuffer(KSBufferMapping::BufferToKSEnum(KSBufferMapping::BindPoint(i)),
                         _others[i]);
    }

    std::vector<_KSbuffer*> Others() const { return {_others, _others + 5}; }

    _KSbuffer* _others[5] = {};
};

} // namespace

TEST(MappingLookupTest, ValuesOutsideATableGiveItsFirstRow)
{
    const struct
    {
        int nValue;
        int nAccess;
        int nTarget;
        int nQuery;
    } rows[] = {
        {0, KS_READ_ONLY, KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
        {1, KS_WRITE_ONLY, KS_ELEMENT_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER_BINDING},
        {2, KS_READ_WRITE, KS_PIXEL_PACK_BUFFER, KS_PIXEL_PACK_BUFFER_BINDING},
        {3, KS_READ_ONLY, KS_PIXEL_UNPACK_BUFFER, KS_PIXEL_UNPACK_BUFFER_BINDING},
        {4, KS_READ_ONLY, KS_UNIFORM_BLOCK_BUFFER, KS_UNIFORM_BLOCK_BUFFER_BINDING},
        {5, KS_READ_ONLY, KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
        {-1, KS_READ_ONLY, KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.nValue);
        EXPECT_EQ(KSBufferMapping::AccessToKSEnum(static_cast<KSBufferMapping::Access>(row.nValue)),
                  row.nAccess);
        const auto eBindPoint = static_cast<KSBufferMapping::BindPoint>(row.nValue);
        EXPECT_EQ(KSBufferMapping::BufferToKSEnum(eBindPoint), row.nTarget);
        EXPECT_EQ(KSBufferMapping::BufferToMappingKSEnum(eBindPoint), row.nQuery);
    }
}

TEST_F(MappingTest, LiveMapAndPixelPackPairHoldTheirBindPointAndPutItBack)
{
    IKSBuffer* buffer = Filled({1, 2, 3, 4});
    for (int n = KSBufferMapping::kBindPoint_Array; n <= KSBufferMapping::kBindPoint_UniformBlock;
         ++n)
    {
        SCOPED_TRACE(n);
        const auto eBindPoint = static_cast<KSBufferMapping::BindPoint>(n);
        {
            KSBufferMapping mapping(buffer, KSBufferMapping::kAccess_ReadWrite, eBindPoint);
            ASSERT_NE(mapping.GetMap(), nullptr);
            std::vector<_KSbuffer*> expected = Others();
            expected[static_cast<std::size_t>(n)] = buffer->GetKSBuffer();
            EXPECT_EQ(AllBindings(), expected);
            static_cast<unsigned char*>(mapping.GetMap())[0] = static_cast<unsigned char>(10 + n);
        }
        EXPECT_EQ(AllBindings(), Others());
        EXPECT_EQ(Contents(buffer), (Bytes{static_cast<unsigned char>(10 + n), 2, 3, 4}));
        EXPECT_NO_KS_ERROR();
    }
    // The pair's hold on the slot is the thread tests'; here what it saves.
    _pContext->BindPixelPackBuffer(buffer->GetKSBuffer());
    _pContext->UnbindPixelPackBuffer();
    EXPECT_EQ(AllBindings(), Others());
    KSBufferMapping pixelPack(buffer, KSBufferMapping::kAccess_ReadOnly);
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffer->GetKSBuffer()) << "by default";
}

// Private copies, written back only at the end and whatever the access
// asked for: read-only here.
TEST_F(MappingTest, MultipleMappingCopiesEachListedBufferAndTheLaterCopyWins)
{
    IKSBuffer* twice = Filled({1, 1});
    IKSBuffer* once = Filled({2, 2, 2});
    {
        KSBufferMappingMultiple mappings({twice, once, twice}, KSBufferMapping::kAccess_ReadOnly);
        EXPECT_EQ(AllBindings(), Others());
        ASSERT_NE(mappings.GetMap(0), mappings.GetMap(2)) << "two private copies";
        static_cast<unsigned char*>(mappings.GetMap(0))[0] = 10;
        static_cast<unsigned char*>(mappings.GetMap(1))[2] = 20;
        static_cast<unsigned char*>(mappings.GetMap(2))[1] = 30;
        const KSBufferMappingMultiple& view = mappings;
        EXPECT_EQ(std::memcmp(view.GetMap(1), "\x02\x02\x14", 3), 0);
        EXPECT_EQ(Contents(twice), (Bytes{1, 1}));
    }
    EXPECT_EQ(Contents(twice), (Bytes{1, 30})) << "entries write back first to last";
    EXPECT_EQ(Contents(once), (Bytes{2, 2, 20}));
    EXPECT_EQ(AllBindings(), Others());
    EXPECT_NO_KS_ERROR();
}

// Kestrel refuses to bind a buffer of another context, and the map then shows
// whatever this context has at pixel pack: a copy opened in the buffer's own
// context and ended in this one may not run over it.
TEST_F(MappingTest, SafeMappingEndedInAnotherContextLeavesThatContextsBufferAlone)
{
    IKSBuffer* small = Filled({1, 2, 3, 4});
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, small->GetKSBuffer());
    RecordingConsole otherConsole;
    Vireo::IKestrelContext* other =
        _pManager->CreateKestrelContext(&otherConsole, false, true, nullptr);
    ASSERT_NE(other, nullptr);
    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(other));
    IKSBuffer* foreign = other->CreateIKSBuffer();
    ASSERT_TRUE(foreign->Init(IKSBuffer::kUsage_DynamicDraw, 256));
    auto late =
        std::make_unique<KSBufferSafeMapping<char>>(foreign, KSBufferMapping::kAccess_ReadWrite);
    ASSERT_NE(late->GetMap(), nullptr);
    std::memset(late->GetMap(), 9, 256);
    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(_pContext));
    late.reset();
    EXPECT_EQ(ksGetError(), KS_INVALID_VALUE) << "the refused bind";
    EXPECT_EQ(Contents(small), (Bytes{1, 2, 3, 4})) << "the copy back wrote into it";
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), small->GetKSBuffer());

    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(other));
    EXPECT_TRUE(other->DestroyIKSBuffer(foreign));
    EXPECT_TRUE(_pManager->DestroyKestrelContext(other));
    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(_pContext));
    EXPECT_NO_KS_ERROR();
}
