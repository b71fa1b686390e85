// Bad input at the wrapper's surface: enums outside their tables, null and
// foreign objects, sizes of 0, negative or beyond 32 bits, and filters too
// small to sample. Each gets the answer its interface promises, and once the
// test's objects are given back Kestrel holds nothing more than before and
// the leak report is silent.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::CountObjects;
using Kestrel::Testing::ObjectCounts;
using Kestrel::Testing::TextureRecord;
using Vireo::Testing::AutoInstallAssertHandler;
using Vireo::Testing::AutoInstallConsole;
using Vireo::Testing::kCCK_PrintWarning;
using Vireo::Testing::RecordingAssertHandler;
using Att = IKSFrameBufferAttachment;

namespace
{

// Whatever the test gives, the assertion handler answers "go on", so that no
// site latches for the tests after it.
class BadInput : public WrapperFixture
{
protected:
    void SetUp() override
    {
        WrapperFixture::SetUp();
        _pKestrel = KestrelHandleOf(_pContext);
        ASSERT_NE(_pKestrel, nullptr);
        _baseline = CountObjects(_pKestrel);
        _console.Clear();
    }

    // Nothing left in Kestrel, nothing pending, nothing in the leak report.
    void TearDown() override
    {
        if (_pContext != nullptr)
        {
            ksGetError();
            const ObjectCounts now = CountObjects(_pKestrel);
            EXPECT_EQ(now, _baseline) << "left in Kestrel";
            _console.Clear();
            _pManager->DestroyKestrelContext(_pContext);
            _pContext = nullptr;
            EXPECT_EQ(_console.CountOf(kCCK_PrintWarning), 0u) << "the leak report spoke";
        }
        WrapperFixture::TearDown();
    }

    void* _pKestrel = nullptr;
    ObjectCounts _baseline;
    RecordingAssertHandler _handler{IAssertHandler::kAnswer_Continue};
    AutoInstallAssertHandler _installedHandler{&_handler};
    RecordingConsole _process;
    AutoInstallConsole _installedConsole{&_process};
};

// --- Implementations that the library did not make ----------------------------
// Destroy must refuse one without calling into it.

int g_nForeignCalls = 0;

#define FOREIGN(result, ...)                                                                       \
    __VA_ARGS__ override                                                                           \
    {                                                                                              \
        ++g_nForeignCalls;                                                                         \
        return result;                                                                             \
    }

class ForeignBuffer : public IKSBuffer
{
public:
    FOREIGN(false, bool Init(Usage, std::uint64_t))
    FOREIGN(, void Shutdown())
    FOREIGN(false, bool Resize(Usage, std::uint64_t, bool))
    FOREIGN(0, std::uint64_t GetSize())
    FOREIGN(_handle, _KSbuffer* const& GetKSBuffer() const)
    FOREIGN(_handle, _KSbuffer*& GetKSBuffer())
    FOREIGN(false, bool Bind(int))

private:
    _KSbuffer* _handle = nullptr;
};

#undef FOREIGN

// Records where it is sampled, at the size it is given.
class SizedFilter : public IKSFrameBufferFilter
{
public:
    explicit SizedFilter(float size) : _fSize(size) {}
    ~SizedFilter() override = default;
    float GetFilterSize() override { return _fSize; }
    float Sample(float x, float y) override
    {
        ++nSamples;
        bAllFinite = bAllFinite && std::isfinite(x) && std::isfinite(y);
        return 1.0f;
    }

    int nSamples = 0;
    bool bAllFinite = true;

private:
    float _fSize;
};

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// 0, negative, and more bytes than 32 signed bits hold (16 per pixel):
// 16384 x 8192 is the first pixel count past the limit, 46341 squared
// overflows an int.
const std::pair<int, int> kBadSizes[] = {
    {0, 4}, {4, 0}, {-1, 4}, {INT_MIN, INT_MIN}, {16384, 8192}, {46341, 46341}, {INT_MAX, 2}};

} // namespace

// --- Enums outside their tables, and bad sizes --------------------------------

// The wrapper has no test of its own for a buffer usage or a shader type: a
// value outside its table reaches Kestrel as 0, which Kestrel refuses for
// the host to hear of, and a shader of no kind is not made.
TEST_F(BadInput, UsagesAndShaderTypesOutsideTheirTablesReachKestrelAsZero)
{
    const std::pair<int, int> rows[] = {{9, 4}, {-1, -1}}; // usage, shader type
    for (const auto& row : rows)
    {
        SCOPED_TRACE(::testing::Message() << "usage " << row.first << ", type " << row.second);
        const auto usage = static_cast<IKSBuffer::Usage>(row.first);
        IKSBuffer* buffer = _pContext->CreateIKSBuffer();
        CallLog log;
        EXPECT_TRUE(buffer->Init(usage, 64));
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_TRUE(buffer->Resize(usage, 32, false));
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_EQ(_pContext->CreateIKSShader(static_cast<IKSShader::Type>(row.second)), nullptr);
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_EQ(log.CallsOf("ksBufferData"),
                  (Calls{"ksBufferData(KS_ARRAY_BUFFER, 64, null, 0)",
                         "ksBufferData(KS_ARRAY_BUFFER, 32, null, 0)"}));
        EXPECT_EQ(log.CallsOf("ksCreateShader"), Calls{"ksCreateShader(0)"});
        EXPECT_TRUE(_pContext->DestroyIKSBuffer(buffer));
    }
}

// Only RGBA float pixels at a good size can be stored. A frame buffer takes
// any size.
TEST_F(BadInput, AttachmentsOfUnknownKindsOrBadSizesAreRefusedBeforeKestrel)
{
    struct Case
    {
        const char* why;
        int width, height, format, dataType, blendMode;
    };
    std::vector<Case> cases = {
        {"format 4", 4, 4, 4, Att::kDT_Float, 0},
        {"luminance", 4, 4, Att::kF_Luminance, Att::kDT_Float, 1},
        {"data type -1", 4, 4, Att::kF_RGBA, -1, 1},
        {"int pixels", 4, 4, Att::kF_RGBA, Att::kDT_Int, 2},
        {"blend mode 4", 4, 4, Att::kF_RGBA, Att::kDT_Float, 4},
        {"blend mode -1", 4, 4, Att::kF_RGBA, Att::kDT_Float, -1},
    };
    for (const auto& size : kBadSizes)
        cases.push_back({"bad size", size.first, size.second, Att::kF_RGBA, Att::kDT_Float, 1});
    for (const Case& c : cases)
    {
        SCOPED_TRACE(::testing::Message() << c.why << ", " << c.width << " x " << c.height);
        IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
        EXPECT_TRUE(frameBuffer->Init(c.width, c.height));
        CallLog log;
        EXPECT_EQ(frameBuffer->CreateAttachment(2, static_cast<Att::eFormat>(c.format),
                                                static_cast<Att::eDataType>(c.dataType), true,
                                                static_cast<Att::eBlendMode>(c.blendMode),
                                                Color4f{1, 1, 1, 1}),
                  nullptr);
        EXPECT_EQ(log.Calls(), Calls{});
        EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(frameBuffer));
    }
}

// --- Objects that are not the context's -------------------------------------------

TEST_F(BadInput, NullAndForeignObjectsAreRefusedUntouched)
{
    ForeignBuffer buffer;
    IKSFrameBuffer* real = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(real->Init(2, 2));
    IKestrelContext* context = _pContext;

    // Every kind is taken back by one template: a null primitive and a
    // foreign buffer stand for them all.
    const struct
    {
        const char* sName;
        std::function<bool()> destroy;
    } rows[] = {
        {"DestroyIKSPrimitive(null)", [&] { return context->DestroyIKSPrimitive(nullptr); }},
        {"DestroyIKSBuffer(foreign)", [&] { return context->DestroyIKSBuffer(&buffer); }},
        {"DestroyAttachment(null)", [&] { return real->DestroyAttachment(nullptr); }},
        {"DestroyKestrelContext(null)", [&] { return _pManager->DestroyKestrelContext(nullptr); }},
        {"SetCurrentKestrelContext(null)",
         [&] { return _pManager->SetCurrentKestrelContext(nullptr); }},
    };
    g_nForeignCalls = 0;
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.sName);
        CallLog log;
        EXPECT_FALSE(row.destroy());
        EXPECT_EQ(log.Calls(), Calls{});
        EXPECT_EQ(g_nForeignCalls, 0) << "the object was called into";
        EXPECT_EQ(_pManager->GetCurrentKestrelContext(), _pContext);
    }
    EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{});
    EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(real));
}

// An attachment resized to a bad size lets go of its storage, and Kestrel's
// texture keeps none of it: frames and clears afterwards touch nothing of
// ours, and another size brings storage back.
TEST_F(BadInput, SizesOfZeroNegativeOrBeyond32BitsLeaveNoAttachmentStorage)
{
    IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(frameBuffer->Init(4, 4));
    IKSFrameBufferAttachment* attachment = frameBuffer->CreateAttachment(
        0, Att::kF_RGBA, Att::kDT_Float, false, Att::kBM_Accumulated, Color4f{0.5f, 0, 0, 1});
    ASSERT_NE(attachment, nullptr);
    frameBuffer->Bind();
    int good = 5;
    for (const auto& size : kBadSizes)
    {
        SCOPED_TRACE(::testing::Message() << size.first << " x " << size.second);
        EXPECT_FALSE(frameBuffer->Resize(size.first, size.second));
        EXPECT_EQ(attachment->GetClientBuffer(), nullptr);
        const TextureRecord image = Image(attachment->GetKSTexture());
        EXPECT_FALSE(image.clientStorage);
        EXPECT_EQ(image.width + image.height, 0);
        frameBuffer->Clear();
        EXPECT_TRUE(attachment->NotifyPassCompleted()) << "no sum without storage";
        EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Finished) << "nothing to draw";

        // The size recorded is the last good one: another brings storage back.
        EXPECT_TRUE(frameBuffer->Resize(good, good));
        ASSERT_NE(attachment->GetClientBuffer(), nullptr);
        EXPECT_EQ(Image(attachment->GetKSTexture()).width, good);
        EXPECT_TRUE(attachment->NotifyPassCompleted());
        good = good == 5 ? 6 : 5;
        EXPECT_NO_KS_ERROR();
    }
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(frameBuffer));
}

// --- Filters ------------------------------------------------------------------------

TEST_F(BadInput, FiltersBelowHalfOrNotANumberAreRefusedAndHugeOnesCapped)
{
    IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(frameBuffer->Init(2, 2));
    ASSERT_NE(frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, true, Att::kBM_Mode2,
                                            Color4f{}),
              nullptr);
    auto* concrete = dynamic_cast<KSFrameBuffer*>(frameBuffer);
    ASSERT_NE(concrete, nullptr);
    int limit = 0;
    ksGetIntegerv(KS_MAX_FILTER_TABLE_SIZE, &limit);
    ASSERT_GT(limit, 0);
    const auto cap = static_cast<std::uint64_t>(limit);

    struct Case
    {
        float size;
        bool taken;
        std::uint64_t n;
    };
    const Case cases[] = {
        {0.49f, false, 0}, {-kInfinity, false, 0}, {kNaN, false, 0},
        {0.5f, true, 4},   {1e30f, true, cap},     {kInfinity, true, cap},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(::testing::Message() << "size " << c.size);
        SizedFilter wide(1.0f);
        ASSERT_TRUE(frameBuffer->SetFilter(&wide));
        SizedFilter filter(c.size);
        EXPECT_EQ(frameBuffer->SetFilter(&filter), c.taken);
        EXPECT_EQ(concrete->GetFilterTableSize(), c.n);
        EXPECT_EQ(filter.nSamples, static_cast<int>(c.n * c.n));
        EXPECT_EQ(concrete->GetFilterTable() != nullptr, c.taken) << "a refused size removes";
        if (std::isfinite(c.size))
        {
            EXPECT_TRUE(filter.bAllFinite);
        }

        // The next Bind sends what the frame buffer holds now.
        EXPECT_TRUE(frameBuffer->Bind());
        int sent = 0;
        ksGetIntegerv(KS_FILTER_TABLE_SIZE, &sent);
        EXPECT_EQ(sent, c.taken ? static_cast<int>(c.n) : 1);
        ksGetError(); // Kestrel's own view of an infinite size is its affair
    }
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    EXPECT_NO_KS_ERROR();
    EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(frameBuffer));
}
