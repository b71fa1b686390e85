// Contexts, the current context and the error model.
#include "KestrelFixture.h"

#include <functional>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::CountContexts;
using Kestrel::Testing::CountObjects;

// ---------------------------------------------------------------------------
// Creation and attributes

// Good attributes make an empty context whose maxima show in the queries and
// bound the frame's limits, which start within them and keep their value
// when a set is refused. Bad ones make none, and leak nothing.
TEST(KestrelContexts, AttributesAreCheckedAndSetTheEnforcedMaxima)
{
    struct Case
    {
        const char* label;
        std::vector<long long> attributes; // without the terminating 0 key
        int maxRayDepth;                   // 0: refused
        int maxFilterTableSize;
    };
    const Case cases[] = {
        {"empty list", {}, 16, 64},
        {"one thread", {KS_CONTEXT_RENDER_THREADS, 1}, 16, 64},
        {"threads per core", {KS_CONTEXT_RENDER_THREADS, 0}, 16, 64},
        {"ray depth 1", {KS_CONTEXT_MAX_RAY_DEPTH, 1}, 1, 64},
        {"filter table 5", {KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 5}, 16, 5},
        {"all keys",
         {KS_CONTEXT_RENDER_THREADS, 2, KS_CONTEXT_MAX_RAY_DEPTH, 32,
          KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 8},
         32,
         8},
        {"unknown key after a good one", {KS_CONTEXT_RENDER_THREADS, 1, 0x12345, 1}, 0, 0},
        {"negative thread count", {KS_CONTEXT_RENDER_THREADS, -1}, 0, 0},
        {"ray depth 0", {KS_CONTEXT_MAX_RAY_DEPTH, 0}, 0, 0},
        {"absurd ray depth", {KS_CONTEXT_MAX_RAY_DEPTH, 1LL << 40}, 0, 0},
        {"filter table 0", {KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 0}, 0, 0},
        {"absurd filter table", {KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 1LL << 40}, 0, 0},
    };
    const int before = CountContexts();
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        std::vector<long long> list = c.attributes;
        list.push_back(0);
        void* context = KestrelCreateContext(list.data(), nullptr, nullptr);
        EXPECT_EQ(context != nullptr, c.maxRayDepth != 0);
        EXPECT_EQ(CountContexts(), before + (context ? 1 : 0));
        if (context)
        {
            EXPECT_EQ(CountObjects(context), Kestrel::Testing::ObjectCounts{});
            ASSERT_EQ(KestrelSetCurrentContext(context), 1);
            int maxDepth = -1;
            int maxTable = -1;
            int limit = -1;
            ksGetIntegerv(KS_MAX_RAY_DEPTH, &maxDepth);
            ksGetIntegerv(KS_MAX_FILTER_TABLE_SIZE, &maxTable);
            ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &limit);
            EXPECT_EQ(maxDepth, c.maxRayDepth);
            EXPECT_EQ(maxTable, c.maxFilterTableSize);
            EXPECT_GE(limit, 0);
            EXPECT_LE(limit, maxDepth);
            // Each limit takes 0 (a ray depth) or its maximum, and refuses
            // one more, keeping its value.
            ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 0);
            ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &limit);
            EXPECT_EQ(limit, 0);
            EXPECT_EQ(ksGetError(), KS_NO_ERROR);
            for (const auto& [name, maximum] : {std::pair{KS_RAY_DEPTH_LIMIT, maxDepth},
                                                std::pair{KS_FILTER_TABLE_SIZE, maxTable}})
            {
                ksFrameParameter1i(name, maximum);
                EXPECT_EQ(ksGetError(), KS_NO_ERROR);
                ksFrameParameter1i(name, maximum + 1);
                EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
                ksGetFrameParameteriv(name, &limit);
                EXPECT_EQ(limit, maximum) << Hex(name);
            }
        }
        KestrelDestroyContext(context);
        EXPECT_EQ(CountContexts(), before);
    }
}

// ---------------------------------------------------------------------------
// The current context

using KestrelCurrent = KestrelFixture;

TEST_F(KestrelCurrent, WithoutCurrentContextCallsWriteZeroAndRaiseNothing)
{
    _KSbuffer* ourBuffer = NewBuffer();
    ksBindBuffer(KS_ARRAY_BUFFER, ourBuffer);
    // Destroying the current context leaves none current, and its objects go.
    void* gone = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(gone), 1);
    NewBuffer();
    NewTexture();
    KestrelDestroyContext(gone);
    EXPECT_EQ(CountObjects(gone).buffers, -1);
    EXPECT_EQ(CountObjects(gone).textures, -1);

    _KSshader* shader = ForgedHandle<_KSshader>();
    _KSprogram* program = ForgedHandle<_KSprogram>();
    const std::pair<const char*, std::function<bool()>> cases[] = {
        {"ksGenBuffers", [] { return WroteZero(ksGenBuffers, 1); }},
        {"ksGenTextures", [] { return WroteZero(ksGenTextures, 1); }},
        {"ksGenFramebuffers", [] { return WroteZero(ksGenFramebuffers, 1); }},
        {"ksGenPrimitives", [] { return WroteZero(ksGenPrimitives, 1); }},
        {"ksGetBuffer", [] { return WroteZero(ksGetBuffer, KS_ARRAY_BUFFER_BINDING); }},
        {"ksGetTexture", [] { return WroteZero(ksGetTexture, KS_TEXTURE_BINDING_2D); }},
        {"ksGetFramebuffer", [] { return WroteZero(ksGetFramebuffer, KS_FRAMEBUFFER_BINDING); }},
        {"ksGetPrimitive", [] { return WroteZero(ksGetPrimitive, KS_PRIMITIVE_BINDING); }},
        {"ksGetIntegerv", [] { return WroteZero(ksGetIntegerv, KS_MAX_RAY_DEPTH); }},
        {"ksGetBooleanv", [] { return WroteZero(ksGetBooleanv, KS_FILTERED_ACCUMULATES_ENABLED); }},
        {"ksGetLongv", [] { return WroteZero(ksGetLongv, KS_FRAME_STATISTIC_4); }},
        {"ksGetFloatv", [] { return WroteZero(ksGetFloatv, KS_FRAME_STATISTIC_8); }},
        {"ksGetDoublev", [] { return WroteZero(ksGetDoublev, KS_FRAME_STATISTIC_1); }},
        {"ksGetFrameParameteriv",
         [] { return WroteZero(ksGetFrameParameteriv, KS_RAY_DEPTH_LIMIT); }},
        {"ksGetShaderiv", [=] { return WroteZero(ksGetShaderiv, shader, KS_COMPILE_STATUS); }},
        {"ksGetProgramiv", [=] { return WroteZero(ksGetProgramiv, program, KS_LINK_STATUS); }},
        {"ksGetShaderString", [=] { return WroteZero(ksGetShaderString, shader, KS_SHADER_LOG); }},
        {"ksGetProgramString",
         [=] { return WroteZero(ksGetProgramString, program, KS_PROGRAM_LOG); }},
        {"ksGetBufferParameterString",
         [] {
             return WroteZero(ksGetBufferParameterString, KS_UNIFORM_BLOCK_BUFFER, KS_BUFFER_NAME);
         }},
        {"ksCreateShader", [] { return ksCreateShader(KS_VERTEX_SHADER) == nullptr; }},
        {"ksCreateProgram", [] { return ksCreateProgram() == nullptr; }},
        {"ksMapBuffer", [] { return ksMapBuffer(KS_ARRAY_BUFFER, KS_READ_ONLY) == nullptr; }},
        {"ksGetString", [] { return ksGetString(KS_VERSION) == nullptr; }},
        {"ksGetError", [] { return ksGetError() == 0; }},
        // Calls without outputs must simply do nothing.
        {"ksBindBuffer", Done([] { ksBindBuffer(0x1234, ForgedHandle<_KSbuffer>()); })},
        {"ksClear", Done([] { ksClear(KS_COLOR_BUFFER_BIT); })},
        {"ksRenderFrame", Done([] { ksRenderFrame(); })},
        {"ksUniform3fv", Done([] { ksUniform3fv(0, -1, nullptr); })},
        {"ksDeleteBuffers", Done([=] { ksDeleteBuffers(1, std::vector{ourBuffer}.data()); })},
    };
    for (const auto& [function, call] : cases)
        EXPECT_TRUE(call()) << function << " left an output unwritten";
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);

    // None of it reached our context.
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    EXPECT_NO_KS_ERROR();
    _KSbuffer* bound = nullptr;
    ksGetBuffer(KS_ARRAY_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, ourBuffer);
    EXPECT_EQ(CountObjects(_pContext).buffers, 1);
}

// ---------------------------------------------------------------------------
// Errors and notifications

using KestrelErrors = KestrelFixture;

// The callback may read the error itself; without a callback errors are kept.
TEST_F(KestrelErrors, CallbackMayCallKestrelAndIsOptional)
{
    struct Reentrant
    {
        int seen = -1;
        static void Callback(int, const void*, size_t, const char*, void* userData)
        {
            static_cast<Reentrant*>(userData)->seen = ksGetError();
        }
    } reentrant;
    for (bool withCallback : {true, false})
    {
        void* context = KestrelCreateContext(nullptr, withCallback ? &Reentrant::Callback : nullptr,
                                             &reentrant);
        ASSERT_EQ(KestrelSetCurrentContext(context), 1);
        ksBindFramebuffer(0x55, nullptr);
        EXPECT_EQ(ksGetError(), withCallback ? KS_NO_ERROR : KS_INVALID_ENUM);
        KestrelDestroyContext(context);
    }
    EXPECT_EQ(reentrant.seen, KS_INVALID_ENUM);
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    EXPECT_NO_KS_ERROR();
}

} // namespace
} // namespace KestrelTest
