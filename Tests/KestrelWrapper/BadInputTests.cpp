// Bad input at the wrapper's surface: values outside the enums' tables (the
// texture formats and bind points with their own groups), null and foreign
// objects, sizes of 0, negative or beyond 32 bits, and filters too small to
// sample. Each gives the result its interface promises without a crash, and
// once the test's objects are given back Kestrel holds nothing more than
// before and the leak report has nothing to say.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::CountObjects;
using Kestrel::Testing::ObjectCounts;
using Kestrel::Testing::TextureRecord;
using Vireo::Testing::AutoInstallAssertHandler;
using Vireo::Testing::AutoInstallConsole;
using Vireo::Testing::kCCK_Print;
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
// A Destroy… must refuse them without calling into them.

int g_nForeignCalls = 0;

#define FOREIGN(result, ...)                                                                       \
    __VA_ARGS__ override                                                                           \
    {                                                                                              \
        ++g_nForeignCalls;                                                                         \
        return result;                                                                             \
    }

class ForeignAttachment : public IKSFrameBufferAttachment
{
public:
    FOREIGN(nullptr, IKestrelContext* GetKestrelContext())
    FOREIGN(0, int GetIndex())
    FOREIGN(false, bool Lock(unsigned long))
    FOREIGN(, void UnLock())
    FOREIGN(_pTexture, _KStexture*& GetKSTexture())
    FOREIGN(nullptr, unsigned char* GetClientBuffer())
    FOREIGN(kF_RGBA, eFormat Format() const)
    FOREIGN(kDT_Float, eDataType DataType() const)
    FOREIGN(false, bool FilterEnabled() const)
    FOREIGN(kBM_Mode0, eBlendMode BlendMode() const)
    FOREIGN(_color, const Color4f& ClearColor() const)
    FOREIGN(false, bool NotifyPassCompleted())
    ~ForeignAttachment() override = default;

private:
    _KStexture* _pTexture = nullptr;
    Color4f _color;
};

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

} // namespace

// --- Enums outside their tables ------------------------------------------------

// There is no usage test in the wrapper: a value outside the nine reaches
// Kestrel as no usage at all, which Kestrel refuses for the host to hear of.
TEST_F(BadInput, BufferUsagesOutsideTheTableReachKestrelAsNone)
{
    for (const int usage : {9, -1, INT_MIN, INT_MAX})
    {
        SCOPED_TRACE(::testing::Message() << "usage " << usage);
        const auto eUsage = static_cast<IKSBuffer::Usage>(usage);
        IKSBuffer* buffer = _pContext->CreateIKSBuffer();
        CallLog log;
        EXPECT_TRUE(buffer->Init(eUsage, 64));
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_TRUE(buffer->Resize(eUsage, 32, false));
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_EQ(log.CallsOf("ksBufferData"),
                  (Calls{"ksBufferData(KS_ARRAY_BUFFER, 64, null, 0)",
                         "ksBufferData(KS_ARRAY_BUFFER, 32, null, 0)"}));
        EXPECT_TRUE(_pContext->DestroyIKSBuffer(buffer));
    }
}

TEST_F(BadInput, ShaderTypesOutsideTheTableMakeNoShader)
{
    for (const int type : {4, 100, -1, INT_MIN, INT_MAX})
    {
        SCOPED_TRACE(::testing::Message() << "type " << type);
        CallLog log;
        EXPECT_EQ(_pContext->CreateIKSShader(static_cast<IKSShader::Type>(type)), nullptr);
        EXPECT_EQ(log.CallsOf("ksCreateShader"), Calls{"ksCreateShader(0)"});
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
    }
}

TEST_F(BadInput, AttachmentEnumsOutsideTheirTablesMakeNothing)
{
    struct Case
    {
        const char* why;
        int format, dataType, blendMode;
    };
    const Case cases[] = {
        {"format 4", 4, Att::kDT_Float, 0},
        {"format -1", -1, Att::kDT_Float, 0},
        {"format INT_MIN", INT_MIN, Att::kDT_Float, 1},
        {"reserved format", Att::kF_Reserved, Att::kDT_Float, 0},
        {"luminance", Att::kF_Luminance, Att::kDT_Float, 1},
        {"data type 7", Att::kF_RGBA, 7, 0},
        {"data type -1", Att::kF_RGBA, -1, 1},
        {"reserved data type", Att::kF_RGBA, Att::kDT_Reserved, 0},
        {"int pixels", Att::kF_RGBA, Att::kDT_Int, 2},
        {"blend mode 4", Att::kF_RGBA, Att::kDT_Float, 4},
        {"blend mode -1", Att::kF_RGBA, Att::kDT_Float, -1},
        {"blend mode INT_MAX", Att::kF_RGBA, Att::kDT_Float, INT_MAX},
    };
    IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(frameBuffer->Init(4, 4));
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.why);
        _process.Clear();
        CallLog log;
        EXPECT_EQ(frameBuffer->CreateAttachment(2, static_cast<Att::eFormat>(c.format),
                                                static_cast<Att::eDataType>(c.dataType), true,
                                                static_cast<Att::eBlendMode>(c.blendMode),
                                                Color4f{1, 1, 1, 1}),
                  nullptr);
        EXPECT_EQ(log.Calls(), Calls{}) << "refused before any Kestrel call";
        EXPECT_EQ(_process.TextsOf(kCCK_Print),
                  std::vector<std::string>{"KSFramebuffer attachment failed to initialize"});
    }
    CallLog log;
    EXPECT_TRUE(frameBuffer->Bind());
    EXPECT_EQ(log.CallsOf("ksFramebufferTexture2D"), Calls{}) << "no attachment was kept";
    EXPECT_NE(frameBuffer->CreateAttachment(2, Att::kF_RGBA, Att::kDT_Float, true, Att::kBM_Mode3,
                                            Color4f{}),
              nullptr)
        << "the frame buffer is still usable";
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    EXPECT_NO_KS_ERROR();
    EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(frameBuffer));
}

// --- Objects that are not the context's -------------------------------------------

TEST_F(BadInput, NullAndForeignObjectsAreRefusedUntouched)
{
    ForeignBuffer buffer;
    ForeignAttachment attachment;
    IKSFrameBuffer* real = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(real->Init(2, 2));
    IKestrelContext* context = _pContext;

    // Every kind is taken back by one template: a foreign buffer stands for
    // them all. Attachments are taken back by their frame buffer.
    const struct
    {
        const char* sName;
        std::function<bool()> destroy;
    } rows[] = {
        {"DestroyIKSPrimitive(null)", [&] { return context->DestroyIKSPrimitive(nullptr); }},
        {"DestroyIKSShader(null)", [&] { return context->DestroyIKSShader(nullptr); }},
        {"DestroyIKSProgram(null)", [&] { return context->DestroyIKSProgram(nullptr); }},
        {"DestroyIKSTexImage2D(null)", [&] { return context->DestroyIKSTexImage2D(nullptr); }},
        {"DestroyIKSFrameBuffer(null)", [&] { return context->DestroyIKSFrameBuffer(nullptr); }},
        {"DestroyIKSBuffer(null)", [&] { return context->DestroyIKSBuffer(nullptr); }},
        {"DestroyIKSBuffer(foreign)", [&] { return context->DestroyIKSBuffer(&buffer); }},
        {"DestroyAttachment(null)", [&] { return real->DestroyAttachment(nullptr); }},
        {"DestroyAttachment(foreign)", [&] { return real->DestroyAttachment(&attachment); }},
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

// A context counts what it hands out and what comes back through it, and
// Kestrel deletes in whichever context is current: objects given back
// through the other context, each while its own is current, leave nothing
// behind once both counts are even again.
TEST_F(BadInput, ObjectsGivenBackThroughTheOtherContextLeaveNothing)
{
    RecordingConsole otherConsole;
    IKestrelContext* other = _pManager->CreateKestrelContext(&otherConsole, false, true, nullptr);
    ASSERT_NE(other, nullptr);
    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(other));
    void* otherKestrel = KestrelHandleOf(other);
    ASSERT_NE(otherKestrel, nullptr);
    const ObjectCounts otherBaseline = CountObjects(otherKestrel);

    // Made by `maker` while it is current; given back through `taker`.
    auto makeAndGiveBack = [this](IKestrelContext* maker, IKestrelContext* taker)
    {
        ASSERT_TRUE(_pManager->SetCurrentKestrelContext(maker));
        IKSPrimitive* primitive = maker->CreateIKSPrimitive();
        IKSShader* shader = maker->CreateIKSShader(IKSShader::kST_Kind3);
        IKSProgram* program = maker->CreateIKSProgram();
        program->AddShader(shader);
        IKSTexImage2D* texture = maker->CreateIKSTexImage2D();
        IKSBuffer* buffer = maker->CreateIKSBuffer();
        ASSERT_TRUE(buffer->Init(IKSBuffer::kUsage_StaticRead, 8));
        IKSFrameBuffer* frameBuffer = maker->CreateIKSFrameBuffer();
        ASSERT_TRUE(frameBuffer->Init(2, 2));
        ASSERT_NE(frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false,
                                                Att::kBM_Accumulated, Color4f{}),
                  nullptr);
        EXPECT_TRUE(taker->DestroyIKSProgram(program));
        EXPECT_TRUE(taker->DestroyIKSShader(shader));
        EXPECT_TRUE(taker->DestroyIKSPrimitive(primitive));
        EXPECT_TRUE(taker->DestroyIKSTexImage2D(texture));
        EXPECT_TRUE(taker->DestroyIKSBuffer(buffer));
        EXPECT_TRUE(taker->DestroyIKSFrameBuffer(frameBuffer));
        EXPECT_EQ(_pManager->GetCurrentKestrelContext(), maker) << "a buffer ends in its own";
        EXPECT_NO_KS_ERROR();
    };
    makeAndGiveBack(_pContext, other);
    makeAndGiveBack(other, _pContext);

    EXPECT_EQ(CountObjects(otherKestrel), otherBaseline);
    otherConsole.Clear();
    EXPECT_TRUE(_pManager->DestroyKestrelContext(other));
    EXPECT_EQ(otherConsole.CountOf(kCCK_PrintWarning), 0u) << "its report spoke";
    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(_pContext));
}

// --- Sizes ----------------------------------------------------------------------------

namespace
{

struct Size
{
    int width, height;
};

std::ostream& operator<<(std::ostream& stream, const Size& size)
{
    return stream << size.width << " x " << size.height;
}

// 0, negative, and more bytes than 32 signed bits hold (16 per pixel).
const Size kBadSizes[] = {
    {0, 0},        {0, 4},         {4, 0},        {-1, 4},        {4, -7},      {INT_MIN, INT_MIN},
    {INT_MIN, -1}, {46341, 46341}, {16384, 8192}, {65536, 65536}, {INT_MAX, 2}, {INT_MAX, INT_MAX}};

} // namespace

// A frame buffer takes any size, but no attachment is made at a bad one. An
// attachment resized to one lets go of its storage, and Kestrel's texture
// keeps none of it: frames and clears afterwards touch nothing of ours, and
// another size brings storage back.
TEST_F(BadInput, SizesOfZeroNegativeOrBeyond32BitsLeaveNoAttachmentStorage)
{
    IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(frameBuffer->Init(4, 4));
    IKSFrameBufferAttachment* attachment = frameBuffer->CreateAttachment(
        0, Att::kF_RGBA, Att::kDT_Float, false, Att::kBM_Accumulated, Color4f{0.5f, 0, 0, 1});
    ASSERT_NE(attachment, nullptr);
    frameBuffer->Bind();
    int good = 5;
    for (const Size& size : kBadSizes)
    {
        SCOPED_TRACE(::testing::Message() << size);
        IKSFrameBuffer* unmade = _pContext->CreateIKSFrameBuffer();
        EXPECT_TRUE(unmade->Init(size.width, size.height)) << "the size is not tested";
        _process.Clear();
        {
            CallLog log;
            EXPECT_EQ(unmade->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false,
                                               Att::kBM_Accumulated, Color4f{}),
                      nullptr);
            EXPECT_EQ(log.Calls(), Calls{});
        }
        EXPECT_EQ(_process.TextsOf(kCCK_Print),
                  std::vector<std::string>{"KSFramebuffer attachment failed to initialize"});
        EXPECT_TRUE(unmade->Resize(size.width, size.height)) << "no attachment to fail";
        EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(unmade));

        EXPECT_FALSE(frameBuffer->Resize(size.width, size.height));
        EXPECT_EQ(attachment->GetClientBuffer(), nullptr);
        const TextureRecord image = Image(attachment->GetKSTexture());
        EXPECT_FALSE(image.clientStorage);
        EXPECT_EQ(image.width, 0);
        EXPECT_EQ(image.height, 0);
        frameBuffer->Clear();
        EXPECT_TRUE(attachment->NotifyPassCompleted()) << "no sum without storage";
        EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Finished) << "nothing to draw";

        // The size recorded is the last good one: another brings storage back.
        EXPECT_TRUE(frameBuffer->Resize(good, good));
        ASSERT_NE(attachment->GetClientBuffer(), nullptr);
        EXPECT_EQ(Image(attachment->GetKSTexture()).width, good);
        EXPECT_EQ(_pContext->RenderFrame(), IKestrelContext::kRFS_Finished);
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
        {0.49f, false, 0}, {0.0f, false, 0}, {-1.0f, false, 0},  {-kInfinity, false, 0},
        {kNaN, false, 0},  {0.5f, true, 4},  {1e30f, true, cap}, {kInfinity, true, cap},
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
        CallLog log;
        EXPECT_TRUE(frameBuffer->Bind());
        int sent = 0;
        ksGetIntegerv(KS_FILTER_TABLE_SIZE, &sent);
        EXPECT_EQ(sent, c.taken ? static_cast<int>(c.n) : 1);
        const Calls parameters = log.CallsOf("ksFramebufferAttachmentParameter1i");
        ASSERT_FALSE(parameters.empty());
        EXPECT_EQ(parameters.front(),
                  std::string("ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, "
                              "KS_COLOR_ATTACHMENT0, KS_ATTACHMENT_FILTER, ") +
                      (c.taken ? "1)" : "0)"));
        ksGetError(); // Kestrel's own view of an infinite size is its affair
    }
    CallLog log;
    EXPECT_TRUE(frameBuffer->SetFilter(nullptr));
    EXPECT_EQ(concrete->GetFilterTable(), nullptr);
    EXPECT_EQ(log.CallsOf("ksFrameParameter1i"),
              Calls{"ksFrameParameter1i(KS_FILTER_TABLE_SIZE, 1)"});
    ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    EXPECT_NO_KS_ERROR();
    EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(frameBuffer));
}
