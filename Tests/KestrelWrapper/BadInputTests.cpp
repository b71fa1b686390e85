// Bad input at the wrapper's surface: values outside every enum's table,
// null and foreign objects, sizes of 0, negative or beyond 32 bits, and
// filters too small to sample. Each gives the result its interface promises
// without a crash, and once the test's objects are given back Kestrel holds
// nothing more than before and the leak report has nothing to say.
#include "WrapperFixture.h"

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::CountObjects;
using Kestrel::Testing::Describe;
using Kestrel::Testing::ObjectCounts;
using Kestrel::Testing::ReadTexture;
using Kestrel::Testing::TextureRecord;
using Vireo::Testing::AutoInstallAssertHandler;
using Vireo::Testing::AutoInstallConsole;
using Vireo::Testing::kCCK_Print;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::kCCK_PrintWarning;
using Vireo::Testing::RecordingAssertHandler;
using Att = IKSFrameBufferAttachment;
using fastdelegate::FastDelegate0;
using fastdelegate::FastDelegate1;

namespace
{

std::string CountsText(const ObjectCounts& counts)
{
    char text[160];
    std::snprintf(text, sizeof(text),
                  "%d shaders, %d programs, %d primitives, %d buffers, %d textures, "
                  "%d frame buffers",
                  counts.shaders, counts.programs, counts.primitives, counts.buffers,
                  counts.textures, counts.framebuffers);
    return text;
}

_KStexture* BoundTexture()
{
    _KStexture* texture = nullptr;
    ksGetTexture(KS_TEXTURE_BINDING_2D, &texture);
    return texture;
}

_KSbuffer* BoundBuffer(int query)
{
    _KSbuffer* buffer = nullptr;
    ksGetBuffer(query, &buffer);
    return buffer;
}

TextureRecord Image(_KStexture* texture)
{
    TextureRecord record;
    EXPECT_TRUE(ReadTexture(texture, 0, &record));
    return record;
}

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
            EXPECT_TRUE(now == _baseline)
                << CountsText(now) << " left, " << CountsText(_baseline) << " before";
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

class ForeignPrimitive : public IKSPrimitive
{
public:
    FOREIGN(, void SetName(const std::string&))
    FOREIGN("", std::string GetName() const)
    FOREIGN(false, bool Bind())
    FOREIGN(KSprimitive(0), KSprimitive GetHandle() const)
    FOREIGN(nullptr, IKestrelContext* GetKSContext() const)
    FOREIGN(false, bool SetUniform(const std::string&, int, std::uint64_t, const KSprimitive*))
    FOREIGN(false, bool SetUniform(const std::string&, int, KSprimitive))
    FOREIGN(false, bool SetUniform(const std::string&, int, std::uint64_t, _KStexture* const*))
    FOREIGN(false, bool SetUniform(const std::string&, int, _KStexture*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, std::uint64_t, const int*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const Vector4i*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const Vector3i*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const Vector2i*))
    FOREIGN(false, bool SetUniform(const std::string&, int, std::uint64_t, const int*))
    FOREIGN(false, bool SetUniform(const std::string&, int, const Vector4i&))
    FOREIGN(false, bool SetUniform(const std::string&, int, const Vector3i&))
    FOREIGN(false, bool SetUniform(const std::string&, int, const Vector2i&))
    FOREIGN(false, bool SetUniform(const std::string&, int, int))
    FOREIGN(false, bool SetUniform(const std::string&, int, std::uint64_t, const Matrix44f*))
    FOREIGN(false, bool SetUniform(const std::string&, int, std::uint64_t, const Matrix33f*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const Vector4f*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const Vector3f*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const Vector2f*))
    FOREIGN(false, bool SetUniform(const std::string&, int, int, const float*))
    FOREIGN(false, bool SetUniform(const std::string&, int, const Vector4f&))
    FOREIGN(false, bool SetUniform(const std::string&, int, const Vector3f&))
    FOREIGN(false, bool SetUniform(const std::string&, int, const Vector2f&))
    FOREIGN(false, bool SetUniform(const std::string&, int, float))
    FOREIGN(false, bool SetUniformBlock(const std::string&, int, const IKSBuffer*))
    FOREIGN(, void SetTrace(bool))
    ~ForeignPrimitive() override = default;
};

class ForeignShader : public IKSShader
{
public:
    FOREIGN(false, bool AddListenerDelete(FastDelegate1<IKSShader*, bool>&))
    FOREIGN(false, bool RemoveListenerDelete(FastDelegate1<IKSShader*, bool>&))
    FOREIGN(false, bool AddListenerChange(FastDelegate0<bool>&))
    FOREIGN(false, bool RemoveListenerChange(FastDelegate0<bool>&))
    FOREIGN(false, bool SetName(const std::string&))
    FOREIGN("", std::string GetName())
    FOREIGN(false, bool SetString(std::string&, Result*))
    FOREIGN(nullptr, _KSshader* GetKSShader())
    FOREIGN(kST_Vertex, Type GetType())
    ~ForeignShader() override = default;
};

class ForeignProgram : public IKSProgram
{
public:
    FOREIGN(false, bool AddListenerDelete(FastDelegate1<IKSProgram*, bool>&))
    FOREIGN(false, bool RemoveListenerDelete(const FastDelegate1<IKSProgram*, bool>&))
    FOREIGN(false, bool SetName(const std::string&))
    FOREIGN(false, bool AddShader(IKSShader*))
    FOREIGN(false, bool RemoveShader(IKSShader*))
    FOREIGN(false, bool AddListenerLink(FastDelegate1<IKSProgram*, bool>&))
    FOREIGN(false, bool RemoveListenerLink(const FastDelegate1<IKSProgram*, bool>&))
    FOREIGN(false, bool Link())
    FOREIGN(-1, int GetLocationUniform(const char*))
    FOREIGN(-1, int GetLocationUniformBlock(const char*))
    FOREIGN(-1, int GetLocationAttribute(const char*))
    FOREIGN(nullptr, _KSprogram* GetKSProgram())
    ~ForeignProgram() override = default;
};

class ForeignTexture : public IKSTexImage2D
{
public:
    FOREIGN(, void Shutdown())
    FOREIGN(false, bool GenerateMipMaps())
    FOREIGN(false, bool SetImage(int, int, TextureFormat, int, int, int, void*, bool))
    FOREIGN(, void SetWrapMode(int, int))
    FOREIGN(, void SetMinFilter(int))
    FOREIGN(, void SetMagFilter(int))
    FOREIGN(0, int GetWidth() const)
    FOREIGN(0, int GetHeight() const)
    FOREIGN(kTF_None, TextureFormat GetTextureFormat() const)
    FOREIGN(nullptr, _KStexture* GetKSTexture() const)
    ~ForeignTexture() override = default;
};

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

class ForeignFrameBuffer : public IKSFrameBuffer
{
public:
    FOREIGN(false, bool Init(int, int))
    FOREIGN(, void Shutdown())
    FOREIGN(false, bool Resize(int, int))
    FOREIGN(false, bool SetFilter(IKSFrameBufferFilter*))
    FOREIGN(, void Clear())
    FOREIGN(, void ClearAttachment(int))
    FOREIGN(false, bool Bind())
    FOREIGN(nullptr,
            IKSFrameBufferAttachment* CreateAttachment(int, Att::eFormat, Att::eDataType, bool,
                                                       Att::eBlendMode, const Color4f&))
    FOREIGN(false, bool DestroyAttachment(IKSFrameBufferAttachment*))
    ~ForeignFrameBuffer() override = default;
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

TEST_F(BadInput, TextureFormatsOutsideTheTableLeaveTheImageAsItWas)
{
    IKSTexImage2D* texture = _pContext->CreateIKSTexImage2D();
    unsigned char pixels[2 * 2 * 4] = {};
    ASSERT_TRUE(texture->SetImage(2, 2, IKSTexImage::kTF_RGBA8, KS_REPEAT, KS_LINEAR, KS_LINEAR,
                                  pixels, false));
    for (const int format : {int(IKSTexImage::kTF_Count), 8, 1000, -1, INT_MIN, INT_MAX})
    {
        for (const bool clientStorage : {false, true})
        {
            SCOPED_TRACE(::testing::Message()
                         << "format " << format << ", client storage " << clientStorage);
            const auto eFormat = static_cast<IKSTexImage::TextureFormat>(format);
            CallLog log;
            EXPECT_FALSE(texture->SetImage(3, 5, eFormat, KS_REPEAT, KS_LINEAR, KS_LINEAR, pixels,
                                           clientStorage));
            EXPECT_EQ(log.Calls(), Calls{}) << "refused before Kestrel";
            EXPECT_EQ(texture->GetTextureFormat(), eFormat) << "stored before it is looked at";
            const TextureRecord image = Image(texture->GetKSTexture());
            EXPECT_EQ(image.width, 2);
            EXPECT_EQ(image.format, KS_RGBA);
            EXPECT_FALSE(image.clientStorage);
        }
    }
    EXPECT_TRUE(texture->SetImage(2, 2, IKSTexImage::kTF_Luminance8, KS_REPEAT, KS_LINEAR,
                                  KS_LINEAR, pixels, false))
        << "the texture is still usable";
    EXPECT_EQ(Image(texture->GetKSTexture()).format, KS_LUMINANCE);
    EXPECT_NO_KS_ERROR();
    EXPECT_TRUE(_pContext->DestroyIKSTexImage2D(texture));
}

// There is no usage test in the wrapper: a value outside the nine reaches
// Kestrel as no usage at all, which Kestrel refuses for the host to hear of.
TEST_F(BadInput, BufferUsagesOutsideTheTableReachKestrelAsNone)
{
    for (const int usage : {9, 100, -1, INT_MIN, INT_MAX})
    {
        SCOPED_TRACE(::testing::Message() << "usage " << usage);
        const auto eUsage = static_cast<IKSBuffer::Usage>(usage);
        IKSBuffer* buffer = _pContext->CreateIKSBuffer();
        {
            CallLog log;
            EXPECT_TRUE(buffer->Init(eUsage, 64));
            EXPECT_EQ(log.CallsOf("ksBufferData"),
                      Calls{"ksBufferData(KS_ARRAY_BUFFER, 64, null, 0)"});
        }
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_TRUE(buffer->Resize(eUsage, 32, false));
        EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
        EXPECT_FALSE(buffer->Resize(eUsage, 32, true)) << "there is no storage to keep";
        EXPECT_EQ(ksGetError(), KS_INVALID_OPERATION);
        {
            KSBufferSafeMapping<char> mapping(buffer, KSBufferMapping::kAccess_ReadWrite);
            EXPECT_EQ(mapping.GetMap(), nullptr) << "nothing to copy from";
        }
        EXPECT_EQ(ksGetError(), KS_INVALID_OPERATION);

        EXPECT_TRUE(buffer->Resize(IKSBuffer::kUsage_StreamDraw, 16, false));
        {
            KSBufferSafeMapping<char> mapping(buffer, KSBufferMapping::kAccess_ReadWrite);
            EXPECT_NE(mapping.GetMap(), nullptr) << "a good usage gives the buffer storage";
        }
        EXPECT_NO_KS_ERROR();
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

TEST_F(BadInput, BindPointsAndAccessesOutsideTheirTablesUseTheFirstRow)
{
    IKSBuffer* buffer = _pContext->CreateIKSBuffer();
    ASSERT_TRUE(buffer->Init(IKSBuffer::kUsage_StaticDraw, 4));
    IKSBuffer* other = _pContext->CreateIKSBuffer();
    ASSERT_TRUE(other->Init(IKSBuffer::kUsage_StaticDraw, 4));
    ksBindBuffer(KS_ARRAY_BUFFER, other->GetKSBuffer());
    const std::string mapped = Describe(buffer->GetKSBuffer());
    const std::string saved = Describe(other->GetKSBuffer());

    for (const int value : {5, 1000, -1, INT_MIN})
    {
        SCOPED_TRACE(::testing::Message() << "value " << value);
        {
            CallLog log;
            {
                KSBufferMapping mapping(buffer, static_cast<KSBufferMapping::Access>(value),
                                        static_cast<KSBufferMapping::BindPoint>(value));
                EXPECT_NE(mapping.GetMap(), nullptr);
            }
            // What the constructor opens, the destructor closes.
            EXPECT_EQ(log.Calls(), (Calls{"ksGetBuffer(KS_ARRAY_BUFFER_BINDING, ptr)",
                                          "ksBindBuffer(KS_ARRAY_BUFFER, " + mapped + ")",
                                          "ksMapBuffer(KS_ARRAY_BUFFER, KS_READ_ONLY)",
                                          "ksUnmapBuffer(KS_ARRAY_BUFFER)",
                                          "ksBindBuffer(KS_ARRAY_BUFFER, " + saved + ")"}));
        }
        EXPECT_EQ(BoundBuffer(KS_ARRAY_BUFFER_BINDING), other->GetKSBuffer());
        {
            KSBufferSafeMapping<char> mapping(buffer, static_cast<KSBufferMapping::Access>(value));
            ASSERT_NE(mapping.GetMap(), nullptr) << "not left mapped";
            mapping.GetMap()[0] = static_cast<char>(value & 0x7f);
        }
        {
            KSBufferMapping mapping(buffer, KSBufferMapping::kAccess_ReadOnly);
            ASSERT_NE(mapping.GetMap(), nullptr);
            EXPECT_EQ(static_cast<const char*>(mapping.GetMap())[0],
                      static_cast<char>(value & 0x7f))
                << "the copy went back whatever its access said";
        }
        EXPECT_NO_KS_ERROR();
    }

    // A target Kestrel does not know: the bind fails, is printed, and
    // changes no binding.
    _console.Clear();
    EXPECT_FALSE(buffer->Bind(0x1234));
    const std::vector<std::string> errors = _console.TextsOf(kCCK_PrintError);
    char message[64];
    std::snprintf(message, sizeof(message), "KSBuffer::Bind \"\" %08x\n",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(buffer->GetKSBuffer())));
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), message);
    EXPECT_EQ(BoundBuffer(KS_ARRAY_BUFFER_BINDING), other->GetKSBuffer());
    for (int query : {KS_ELEMENT_ARRAY_BUFFER_BINDING, KS_PIXEL_PACK_BUFFER_BINDING,
                      KS_PIXEL_UNPACK_BUFFER_BINDING, KS_UNIFORM_BLOCK_BUFFER_BINDING})
        EXPECT_EQ(BoundBuffer(query), nullptr);
    ksGetError();
    ksBindBuffer(KS_ARRAY_BUFFER, nullptr);
    EXPECT_TRUE(_pContext->DestroyIKSBuffer(buffer));
    EXPECT_TRUE(_pContext->DestroyIKSBuffer(other));
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
    ForeignPrimitive primitive;
    ForeignShader shader;
    ForeignProgram program;
    ForeignTexture texture;
    ForeignFrameBuffer frameBuffer;
    ForeignBuffer buffer;
    ForeignAttachment attachment;
    IKSFrameBuffer* real = _pContext->CreateIKSFrameBuffer();
    ASSERT_TRUE(real->Init(2, 2));
    IKestrelContext* context = _pContext;

    const struct
    {
        const char* sName;
        std::function<bool()> destroy;
    } rows[] = {
        {"DestroyIKSPrimitive(null)", [&] { return context->DestroyIKSPrimitive(nullptr); }},
        {"DestroyIKSPrimitive(foreign)", [&] { return context->DestroyIKSPrimitive(&primitive); }},
        {"DestroyIKSShader(null)", [&] { return context->DestroyIKSShader(nullptr); }},
        {"DestroyIKSShader(foreign)", [&] { return context->DestroyIKSShader(&shader); }},
        {"DestroyIKSProgram(null)", [&] { return context->DestroyIKSProgram(nullptr); }},
        {"DestroyIKSProgram(foreign)", [&] { return context->DestroyIKSProgram(&program); }},
        {"DestroyIKSTexImage2D(null)", [&] { return context->DestroyIKSTexImage2D(nullptr); }},
        {"DestroyIKSTexImage2D(foreign)", [&] { return context->DestroyIKSTexImage2D(&texture); }},
        {"DestroyIKSFrameBuffer(null)", [&] { return context->DestroyIKSFrameBuffer(nullptr); }},
        {"DestroyIKSFrameBuffer(foreign)",
         [&] { return context->DestroyIKSFrameBuffer(&frameBuffer); }},
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

    EXPECT_TRUE(CountObjects(otherKestrel) == otherBaseline)
        << CountsText(CountObjects(otherKestrel));
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

TEST_F(BadInput, FrameBufferSizesOfZeroNegativeOrBeyond32BitsMakeNoAttachment)
{
    for (const Size& size : kBadSizes)
    {
        SCOPED_TRACE(::testing::Message() << size);
        IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
        EXPECT_TRUE(frameBuffer->Init(size.width, size.height)) << "the size is not tested";
        _process.Clear();
        {
            CallLog log;
            EXPECT_EQ(frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false,
                                                    Att::kBM_Accumulated, Color4f{}),
                      nullptr);
            EXPECT_EQ(log.Calls(), Calls{});
        }
        EXPECT_EQ(_process.TextsOf(kCCK_Print),
                  std::vector<std::string>{"KSFramebuffer attachment failed to initialize"});
        EXPECT_TRUE(frameBuffer->Resize(size.width, size.height)) << "no attachment to fail";
        EXPECT_TRUE(frameBuffer->Resize(3, 2));
        EXPECT_NE(frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false,
                                                Att::kBM_Accumulated, Color4f{}),
                  nullptr)
            << "usable at a good size";
        EXPECT_TRUE(_pContext->DestroyIKSFrameBuffer(frameBuffer));
        EXPECT_NO_KS_ERROR();
    }
}

// On a refused size the attachment lets go of its storage, and Kestrel's
// texture keeps none of it: frames and clears afterwards touch nothing of
// ours, and another size brings storage back.
TEST_F(BadInput, AttachmentResizedToABadSizeKeepsNoStorageOfOurs)
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

// The wrapper passes a texture's size on untested and leaves Kestrel's
// refusal pending for the host; the image Kestrel had stays.
TEST_F(BadInput, TextureSizesKestrelRefusesLeaveTheImageAsItWas)
{
    struct Case
    {
        Size size;
        int error;
    };
    const Case cases[] = {
        {{0, 0}, KS_NO_ERROR},
        {{-1, 4}, KS_INVALID_VALUE},
        {{4, -1}, KS_INVALID_VALUE},
        {{INT_MIN, INT_MIN}, KS_INVALID_VALUE},
        {{65537, 1}, KS_INVALID_VALUE},
        {{1, INT_MAX}, KS_INVALID_VALUE},
        {{65536, 65536}, KS_OUT_OF_MEMORY}, // 64 GiB of RGBA floats
    };
    IKSTexImage2D* texture = _pContext->CreateIKSTexImage2D();
    _KStexture* bound = nullptr;
    ksGenTextures(1, &bound);
    ksBindTexture(KS_TEXTURE_2D, bound);
    for (const Case& c : cases)
    {
        for (const bool clientStorage : {false, true})
        {
            SCOPED_TRACE(::testing::Message() << c.size << ", client storage " << clientStorage);
            ASSERT_TRUE(texture->SetImage(2, 2, IKSTexImage::kTF_RGBA32F, KS_REPEAT, KS_LINEAR,
                                          KS_LINEAR, nullptr, false));
            EXPECT_TRUE(texture->SetImage(c.size.width, c.size.height, IKSTexImage::kTF_RGBA32F,
                                          KS_REPEAT, KS_LINEAR, KS_LINEAR, nullptr, clientStorage));
            EXPECT_EQ(ksGetError(), c.error);
            EXPECT_EQ(texture->GetWidth(), c.size.width);
            EXPECT_EQ(texture->GetHeight(), c.size.height);
            const TextureRecord image = Image(texture->GetKSTexture());
            EXPECT_EQ(image.width, c.error == KS_NO_ERROR ? c.size.width : 2);
            EXPECT_EQ(image.height, c.error == KS_NO_ERROR ? c.size.height : 2);
            EXPECT_EQ(BoundTexture(), bound);
            // Client storage ended with the call, refused or not.
            ASSERT_TRUE(texture->SetImage(1, 1, IKSTexImage::kTF_RGBA32F, KS_REPEAT, KS_LINEAR,
                                          KS_LINEAR, nullptr, false));
            EXPECT_FALSE(Image(texture->GetKSTexture()).clientStorage);
            EXPECT_NO_KS_ERROR();
        }
    }
    ksDeleteTextures(1, &bound);
    EXPECT_TRUE(_pContext->DestroyIKSTexImage2D(texture));
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
