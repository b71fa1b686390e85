// One sweep over the API with unknown enums, negative counts and null
// pointers: never a crash, always the documented error, nothing else changed.
#include "KestrelFixture.h"

#include <cstring>
#include <functional>

namespace KestrelTest
{
namespace
{

constexpr int kBogus = 0x1234;

class KestrelBadInput : public KestrelFixture
{
protected:
    void SetUp() override
    {
        KestrelFixture::SetUp();
        // Something bound everywhere, so that a call that wrongly acts shows.
        _pBuffer = NewBuffer();
        for (const BufferTarget& t : kBufferTargets)
            ksBindBuffer(t.target, _pBuffer);
        ksBufferData(KS_ARRAY_BUFFER, sizeof(_bytes), _bytes, KS_STATIC_DRAW);
        _pTexture = NewClientTexture(2, 2, KS_RGBA, KS_FLOAT, _pixels);
        ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
        Attach(0, _pTexture);
        ksBindPrimitive(KS_PRIMITIVE, NewPrimitive());
        _pShader = ksCreateShader(KS_VERTEX_SHADER);
        _pProgram = ksCreateProgram();
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 3);
        ASSERT_NO_KS_ERROR();
    }

    _KSbuffer* _pBuffer = nullptr;
    _KStexture* _pTexture = nullptr;
    _KSshader* _pShader = nullptr;
    _KSprogram* _pProgram = nullptr;
    unsigned char _bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    float _pixels[16] = {};
};

struct BadCall
{
    const char* function;
    int error;
    // Makes the call; false if it wrote an output that should read as zero.
    std::function<bool()> call;
};

template <typename T>
bool WroteZero(void (*get)(int, T*), int name)
{
    T value;
    std::memset(&value, 0x5a, sizeof(value));
    get(name, &value);
    return value == T(0);
}

TEST_F(KestrelBadInput, SweepRaisesTheDocumentedErrorAndChangesNothing)
{
    const auto done = [](auto&& f)
    {
        return [f]
        {
            f();
            return true;
        };
    };
    _KSshader* shader = _pShader;
    _KSprogram* program = _pProgram;
    _KStexture* texture = _pTexture;
    _KSbuffer* buffer = _pBuffer;
    const float table[4] = {1, 1, 1, 1};

    const BadCall cases[] = {
        // Unknown enums.
        {"ksBindBuffer", KS_INVALID_ENUM, done([=] { ksBindBuffer(kBogus, nullptr); })},
        {"ksBindBuffer", KS_INVALID_ENUM,
         done([=] { ksBindBuffer(KS_ARRAY_BUFFER_BINDING, nullptr); })},
        {"ksBindTexture", KS_INVALID_ENUM,
         done([=] { ksBindTexture(KS_TEXTURE_BINDING_2D, nullptr); })},
        {"ksBindFramebuffer", KS_INVALID_ENUM,
         done([=] { ksBindFramebuffer(KS_FRAMEBUFFER_BINDING, nullptr); })},
        {"ksBindPrimitive", KS_INVALID_ENUM,
         done([=] { ksBindPrimitive(KS_PRIMITIVE_BINDING, KSprimitive(0)); })},
        {"ksBufferData", KS_INVALID_ENUM,
         done([=] { ksBufferData(kBogus, 4, nullptr, KS_STATIC_DRAW); })},
        {"ksMapBuffer", KS_INVALID_ENUM,
         [=] { return ksMapBuffer(kBogus, KS_READ_ONLY) == nullptr; }},
        {"ksUnmapBuffer", KS_INVALID_ENUM, done([=] { ksUnmapBuffer(kBogus); })},
        {"ksGetBufferParameterString", KS_INVALID_ENUM,
         [=]
         {
             const char* text = "junk";
             ksGetBufferParameterString(kBogus, KS_BUFFER_NAME, &text);
             return text == nullptr;
         }},
        {"ksBufferParameterString", KS_INVALID_ENUM,
         done([=] { ksBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, kBogus, "x"); })},
        {"ksPixelStorei", KS_INVALID_ENUM, done([=] { ksPixelStorei(kBogus, 1); })},
        {"ksTexImage2D", KS_INVALID_ENUM,
         done([=] { ksTexImage2D(kBogus, 0, KS_RGBA, 1, 1, 0, KS_RGBA, KS_FLOAT, nullptr); })},
        {"ksGetIntegerv", KS_INVALID_ENUM, [] { return WroteZero(ksGetIntegerv, kBogus); }},
        {"ksGetBooleanv", KS_INVALID_ENUM, [] { return WroteZero(ksGetBooleanv, kBogus); }},
        {"ksGetLongv", KS_INVALID_ENUM, [] { return WroteZero(ksGetLongv, kBogus); }},
        {"ksGetFloatv", KS_INVALID_ENUM, [] { return WroteZero(ksGetFloatv, kBogus); }},
        {"ksGetDoublev", KS_INVALID_ENUM, [] { return WroteZero(ksGetDoublev, kBogus); }},
        {"ksGetFrameParameteriv", KS_INVALID_ENUM,
         [] { return WroteZero(ksGetFrameParameteriv, kBogus); }},
        {"ksGetString", KS_INVALID_ENUM, [] { return ksGetString(kBogus) == nullptr; }},
        {"ksFrameParameter1i", KS_INVALID_ENUM, done([] { ksFrameParameter1i(kBogus, 1); })},
        {"ksFrameParameter1f", KS_INVALID_ENUM, done([] { ksFrameParameter1f(kBogus, 1); })},
        {"ksFrameParameterfv", KS_INVALID_ENUM, done([=] { ksFrameParameterfv(kBogus, table); })},
        {"ksGetShaderiv", KS_INVALID_ENUM,
         [=]
         {
             int value = 7;
             ksGetShaderiv(shader, kBogus, &value);
             return value == 0;
         }},
        {"ksGetShaderString", KS_INVALID_ENUM,
         [=]
         {
             const char* text = "junk";
             ksGetShaderString(shader, kBogus, &text);
             return text == nullptr;
         }},
        {"ksShaderString", KS_INVALID_ENUM,
         done([=] { ksShaderString(shader, KS_SHADER_LOG, "x"); })},
        {"ksGetProgramiv", KS_INVALID_ENUM,
         [=]
         {
             int value = 7;
             ksGetProgramiv(program, KS_COMPILE_STATUS, &value);
             return value == 0;
         }},
        {"ksGetProgramString", KS_INVALID_ENUM,
         [=]
         {
             const char* text = "junk";
             ksGetProgramString(program, KS_SHADER_LOG, &text);
             return text == nullptr;
         }},
        {"ksProgramString", KS_INVALID_ENUM,
         done([=] { ksProgramString(program, KS_SHADER_NAME, "x"); })},
        {"ksPrimitiveParameterString", KS_INVALID_ENUM,
         done([] { ksPrimitiveParameterString(KS_PRIMITIVE, kBogus, "x"); })},
        {"ksFramebufferTexture2D", KS_INVALID_ENUM,
         done([=] { ksFramebufferTexture2D(KS_FRAMEBUFFER, kBogus, KS_TEXTURE_2D, nullptr, 0); })},
        {"ksFramebufferAttachmentParameter1i", KS_INVALID_ENUM,
         done(
             [] {
                 ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, kBogus,
                                                    0);
             })},

        // Negative counts and out-of-range values.
        {"ksGenBuffers", KS_INVALID_VALUE,
         []
         {
             _KSbuffer* out = nullptr;
             ksGenBuffers(-1, &out);
             return out == nullptr;
         }},
        {"ksGenTextures", KS_INVALID_VALUE,
         []
         {
             _KStexture* out = nullptr;
             ksGenTextures(-1, &out);
             return out == nullptr;
         }},
        {"ksGenFramebuffers", KS_INVALID_VALUE,
         []
         {
             _KSframebuffer* out = nullptr;
             ksGenFramebuffers(-1, &out);
             return out == nullptr;
         }},
        {"ksGenPrimitives", KS_INVALID_VALUE,
         []
         {
             KSprimitive out = KSprimitive(0);
             ksGenPrimitives(-1, &out);
             return out == 0;
         }},
        {"ksDeleteBuffers", KS_INVALID_VALUE,
         done(
             [=]
             {
                 _KSbuffer* copy = buffer;
                 ksDeleteBuffers(-1, &copy);
             })},
        {"ksDeleteTextures", KS_INVALID_VALUE,
         done(
             [=]
             {
                 _KStexture* copy = texture;
                 ksDeleteTextures(-1, &copy);
             })},
        {"ksDeleteFramebuffers", KS_INVALID_VALUE,
         done(
             []
             {
                 _KSframebuffer* none = nullptr;
                 ksDeleteFramebuffers(-2, &none);
             })},
        {"ksDeletePrimitives", KS_INVALID_VALUE,
         done(
             []
             {
                 KSprimitive none = KSprimitive(0);
                 ksDeletePrimitives(-1, &none);
             })},
        {"ksShaderSource", KS_INVALID_VALUE,
         done(
             [=]
             {
                 const char* text = "x";
                 ksShaderSource(shader, -1, &text, nullptr);
             })},
        {"ksUniform4fv", KS_INVALID_VALUE, done([=] { ksUniform4fv(0, -1, table); })},
        {"ksViewport", KS_INVALID_VALUE, done([] { ksViewport(0, 0, -4, 4); })},
        {"ksFrameParameter1i", KS_INVALID_VALUE,
         done([] { ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, -1); })},
        {"ksFrameParameter1i", KS_INVALID_VALUE,
         done([] { ksFrameParameter1i(KS_FILTER_TABLE_SIZE, 0); })},
        {"ksFrameParameter1i", KS_INVALID_VALUE,
         done([] { ksFrameParameter1i(KS_FRAME_INDEX, -1); })},
        {"ksFrameParameter1f", KS_INVALID_VALUE,
         done([] { ksFrameParameter1f(KS_FILTER_SIZE, 0.0f); })},
        {"ksFrameParameter1f", KS_INVALID_VALUE,
         done([] { ksFrameParameter1f(KS_FILTER_SIZE, -2.0f); })},
        {"ksTexImage2D", KS_INVALID_VALUE,
         done([]
              { ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, -1, 1, 0, KS_RGBA, KS_FLOAT, nullptr); })},

        // Null pointers where data is required.
        {"ksGenBuffers", KS_INVALID_VALUE, done([] { ksGenBuffers(1, nullptr); })},
        {"ksGenTextures", KS_INVALID_VALUE, done([] { ksGenTextures(1, nullptr); })},
        {"ksGenFramebuffers", KS_INVALID_VALUE, done([] { ksGenFramebuffers(1, nullptr); })},
        {"ksGenPrimitives", KS_INVALID_VALUE, done([] { ksGenPrimitives(1, nullptr); })},
        {"ksDeleteBuffers", KS_INVALID_VALUE, done([] { ksDeleteBuffers(1, nullptr); })},
        {"ksDeleteTextures", KS_INVALID_VALUE, done([] { ksDeleteTextures(1, nullptr); })},
        {"ksDeleteFramebuffers", KS_INVALID_VALUE, done([] { ksDeleteFramebuffers(1, nullptr); })},
        {"ksDeletePrimitives", KS_INVALID_VALUE, done([] { ksDeletePrimitives(1, nullptr); })},
        {"ksShaderSource", KS_INVALID_VALUE,
         done([=] { ksShaderSource(shader, 1, nullptr, nullptr); })},
        {"ksFrameParameterfv", KS_INVALID_VALUE,
         done([] { ksFrameParameterfv(KS_FILTER_TABLE, nullptr); })},
        {"ksUniform1iv", KS_INVALID_VALUE, done([] { ksUniform1iv(0, 3, nullptr); })},
        {"ksUniformpv", KS_INVALID_VALUE, done([] { ksUniformpv(0, 1, nullptr); })},
        {"ksPrimitiveParameterString", KS_INVALID_VALUE,
         done([] { ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, nullptr); })},
        {"ksGetUniformLocation", KS_INVALID_VALUE,
         [=] { return ksGetUniformLocation(program, nullptr) == -1; }},
    };

    const BindingState before = ReadBindingState(_pContext);
    for (const BadCall& c : cases)
    {
        SCOPED_TRACE(c.function);
        EXPECT_TRUE(c.call()) << "an output was not written as zero";
        EXPECT_KS_ERROR_IN(c.error, c.function);
        EXPECT_TRUE(ReadBindingState(_pContext) == before) << "bindings or objects changed";
    }

    // The objects themselves are as they were.
    int depth = 0;
    ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &depth);
    EXPECT_EQ(depth, 3);
    const void* mapped = ksMapBuffer(KS_ARRAY_BUFFER, KS_READ_ONLY);
    ASSERT_NE(mapped, nullptr);
    EXPECT_EQ(std::memcmp(mapped, _bytes, sizeof(_bytes)), 0);
    ksUnmapBuffer(KS_ARRAY_BUFFER);
    const char* source = reinterpret_cast<const char*>(1);
    ksGetShaderString(_pShader, KS_SHADER_SOURCE, &source);
    EXPECT_EQ(source, nullptr) << "a rejected ksShaderSource set a source";
    for (float p : _pixels)
        EXPECT_EQ(p, 0.0f);
    ksClearColor(0.5f, 0.5f, 0.5f, 0.5f);
    ksClear(KS_COLOR_BUFFER_BIT);
    EXPECT_EQ(_pixels[15], 0.5f) << "the attachment was lost";
    EXPECT_NO_KS_ERROR();
}

} // namespace
} // namespace KestrelTest
