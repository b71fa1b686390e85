// One sweep over the API with unknown enums, negative counts and null
// pointers: never a crash, always the documented error, nothing else changed.
// Creating, deleting and binding with bad arguments is the call-stream
// replay's to check.
#include "KestrelFixture.h"

#include <cstring>
#include <functional>
#include <tuple>

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

TEST_F(KestrelBadInput, SweepRaisesTheDocumentedErrorAndChangesNothing)
{
    _KSshader* shader = _pShader;
    _KSprogram* program = _pProgram;
    _KSbuffer* buffer = _pBuffer;
    const float table[9] = {1, 1, 1, 1};
    const char* text = "x";
    constexpr int kEnum = KS_INVALID_ENUM;
    constexpr int kValue = KS_INVALID_VALUE;

    // The function, its error, and the call: false if it wrote an output that
    // should read as zero.
    const std::tuple<const char*, int, std::function<bool()>> cases[] = {
        // Unknown enums.
        {"ksBindBuffer", kEnum, Done([] { ksBindBuffer(KS_ARRAY_BUFFER_BINDING, nullptr); })},
        {"ksBufferData", kEnum, Done([] { ksBufferData(kBogus, 4, nullptr, KS_STATIC_DRAW); })},
        {"ksMapBuffer", kEnum, [] { return ksMapBuffer(kBogus, KS_READ_ONLY) == nullptr; }},
        {"ksUnmapBuffer", kEnum, Done([] { ksUnmapBuffer(kBogus); })},
        {"ksGetBufferParameterString", kEnum,
         [] { return WroteZero(ksGetBufferParameterString, kBogus, KS_BUFFER_NAME); }},
        {"ksBufferParameterString", kEnum,
         Done([] { ksBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, kBogus, "x"); })},
        {"ksPixelStorei", kEnum, Done([] { ksPixelStorei(kBogus, 1); })},
        {"ksTexImage2D", kEnum,
         Done([] { ksTexImage2D(kBogus, 0, KS_RGBA, 1, 1, 0, KS_RGBA, KS_FLOAT, nullptr); })},
        {"ksGetIntegerv", kEnum, [] { return WroteZero(ksGetIntegerv, kBogus); }},
        {"ksGetBooleanv", kEnum, [] { return WroteZero(ksGetBooleanv, kBogus); }},
        {"ksGetLongv", kEnum, [] { return WroteZero(ksGetLongv, kBogus); }},
        {"ksGetFloatv", kEnum, [] { return WroteZero(ksGetFloatv, kBogus); }},
        {"ksGetDoublev", kEnum, [] { return WroteZero(ksGetDoublev, kBogus); }},
        {"ksGetFrameParameteriv", kEnum, [] { return WroteZero(ksGetFrameParameteriv, kBogus); }},
        // A target where its binding's name belongs, another kind's name, or a
        // context state asked as a frame parameter.
        {"ksGetFrameParameteriv", kEnum,
         [] { return WroteZero(ksGetFrameParameteriv, KS_MAX_RAY_DEPTH); }},
        {"ksGetBuffer", kEnum, [] { return WroteZero(ksGetBuffer, KS_ARRAY_BUFFER); }},
        {"ksGetBuffer", kEnum, [] { return WroteZero(ksGetBuffer, KS_TEXTURE_BINDING_2D); }},
        {"ksGetTexture", kEnum, [] { return WroteZero(ksGetTexture, KS_TEXTURE_2D); }},
        {"ksGetFramebuffer", kEnum, [] { return WroteZero(ksGetFramebuffer, KS_FRAMEBUFFER); }},
        {"ksGetPrimitive", kEnum, [] { return WroteZero(ksGetPrimitive, KS_PRIMITIVE); }},
        {"ksGetString", kEnum, [] { return ksGetString(kBogus) == nullptr; }},
        {"ksFrameParameter1i", kEnum, Done([] { ksFrameParameter1i(kBogus, 1); })},
        {"ksFrameParameter1f", kEnum, Done([] { ksFrameParameter1f(kBogus, 1); })},
        {"ksFrameParameterfv", kEnum, Done([&] { ksFrameParameterfv(kBogus, table); })},
        {"ksGetShaderiv", kEnum, [=] { return WroteZero(ksGetShaderiv, shader, kBogus); }},
        {"ksGetShaderString", kEnum, [=] { return WroteZero(ksGetShaderString, shader, kBogus); }},
        {"ksShaderString", kEnum, Done([=] { ksShaderString(shader, KS_SHADER_LOG, "x"); })},
        {"ksGetProgramiv", kEnum,
         [=] { return WroteZero(ksGetProgramiv, program, KS_COMPILE_STATUS); }},
        {"ksGetProgramString", kEnum,
         [=] { return WroteZero(ksGetProgramString, program, KS_SHADER_LOG); }},
        {"ksProgramString", kEnum, Done([=] { ksProgramString(program, KS_SHADER_NAME, "x"); })},
        {"ksPrimitiveParameterString", kEnum,
         Done([] { ksPrimitiveParameterString(KS_PRIMITIVE, kBogus, "x"); })},
        {"ksPrimitiveParameterString", kEnum,
         Done([] { ksPrimitiveParameterString(KS_PRIMITIVE, KS_BUFFER_NAME, "x"); })},
        {"ksPrimitiveParameterString", kEnum,
         Done([] { ksPrimitiveParameterString(KS_PRIMITIVE_BINDING, KS_PRIMITIVE_NAME, "x"); })},
        {"ksFramebufferTexture2D", kEnum,
         Done([] { ksFramebufferTexture2D(KS_FRAMEBUFFER, kBogus, KS_TEXTURE_2D, nullptr, 0); })},
        {"ksFramebufferAttachmentParameter1i", kEnum,
         Done(
             [] {
                 ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, kBogus,
                                                    0);
             })},

        // Negative counts and out-of-range values.
        {"ksShaderSource", kValue, Done([&] { ksShaderSource(shader, -1, &text, nullptr); })},
        {"ksUniform4fv", kValue, Done([&] { ksUniform4fv(0, -1, table); })},
        {"ksUniformMatrix3fv", kValue, Done([&] { ksUniformMatrix3fv(0, 1, 2, table); })},
        {"ksUniformBlockBuffer", kValue, Done([=] { ksUniformBlockBuffer(-1, buffer); })},
        {"ksViewport", kValue, Done([] { ksViewport(0, 0, -4, 4); })},
        {"ksPixelStorei", kValue, Done([] { ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 2); })},
        {"ksFrameParameter1i", kValue, Done([] { ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, -1); })},
        {"ksFrameParameter1i", kValue, Done([] { ksFrameParameter1i(KS_FILTER_TABLE_SIZE, 0); })},
        {"ksFrameParameter1i", kValue, Done([] { ksFrameParameter1i(KS_FRAME_INDEX, -1); })},
        {"ksFrameParameter1f", kValue, Done([] { ksFrameParameter1f(KS_FILTER_SIZE, 0.0f); })},
        {"ksFrameParameter1f", kValue, Done([] { ksFrameParameter1f(KS_FILTER_SIZE, -2.0f); })},
        {"ksTexImage2D", kValue,
         Done([]
              { ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, -1, 1, 0, KS_RGBA, KS_FLOAT, nullptr); })},

        // Null pointers where data is required.
        {"ksShaderSource", kValue, Done([=] { ksShaderSource(shader, 1, nullptr, nullptr); })},
        {"ksShaderSource", kValue, Done([=] { ksShaderSource(shader, 2, nullptr, nullptr); })},
        {"ksFrameParameterfv", kValue, Done([] { ksFrameParameterfv(KS_FILTER_TABLE, nullptr); })},
        {"ksUniform1iv", kValue, Done([] { ksUniform1iv(0, 3, nullptr); })},
        {"ksUniformpv", kValue, Done([] { ksUniformpv(0, 1, nullptr); })},
        {"ksPrimitiveParameterString", kValue,
         Done([] { ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, nullptr); })},
        {"ksBufferParameterString", kValue,
         Done([] { ksBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, KS_BUFFER_NAME, nullptr); })},
        {"ksShaderString", kValue, Done([=] { ksShaderString(shader, KS_SHADER_NAME, nullptr); })},
        {"ksProgramString", kValue,
         Done([=] { ksProgramString(program, KS_PROGRAM_NAME, nullptr); })},

        // Sizes beyond any storage.
        {"ksUniform4fv", KS_OUT_OF_MEMORY, Done([&] { ksUniform4fv(0, 1LL << 60, table); })},
        {"ksUniformMatrix4fv", KS_OUT_OF_MEMORY,
         Done([&] { ksUniformMatrix4fv(0, 1LL << 60, 0, table); })},
        {"ksGetUniformLocation", kValue,
         [=] { return ksGetUniformLocation(program, nullptr) == -1; }},
    };

    const BindingState before = ReadBindingState(_pContext);
    for (const auto& [function, error, call] : cases)
    {
        SCOPED_TRACE(function);
        EXPECT_TRUE(call()) << "an output was not written as zero";
        EXPECT_KS_ERROR_IN(error, function);
        EXPECT_TRUE(ReadBindingState(_pContext) == before) << "bindings or objects changed";
    }

    // The objects themselves are as they were, and no uniform was stored.
    Kestrel::Testing::UniformRecord stored;
    EXPECT_FALSE(Kestrel::Testing::ReadUniform(before.primitive, 0, &stored)) << stored.type;
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
