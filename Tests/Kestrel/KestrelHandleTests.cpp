// What the runtime does with handles that are stale, foreign or were never
// issued, and how it issues them.
#include "KestrelFixture.h"

#include <cstdint>
#include <functional>
#include <set>
#include <tuple>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::CountIssuedRuns;
using Kestrel::Testing::CountObjects;
using Kestrel::Testing::ObjectCounts;

// ---------------------------------------------------------------------------
// Handles

using KestrelHandles = KestrelFixture;

// One set of unusable handles of every kind.
struct BadHandles
{
    const char* label;
    _KSshader* shader;
    _KSprogram* program;
    _KSbuffer* buffer;
    _KStexture* texture;
    _KSframebuffer* framebuffer;
    KSprimitive primitive;
};

BadHandles MakeHandles(const char* label)
{
    return {label,
            ksCreateShader(KS_VERTEX_SHADER),
            ksCreateProgram(),
            NewBuffer(),
            NewTexture(),
            NewFramebuffer(),
            NewPrimitive()};
}

void DeleteHandles(BadHandles h)
{
    ksDeleteShader(h.shader);
    ksDeleteProgram(h.program);
    ksDeleteBuffers(1, &h.buffer);
    ksDeleteTextures(1, &h.texture);
    ksDeleteFramebuffers(1, &h.framebuffer);
    ksDeletePrimitives(1, &h.primitive);
}

TEST_F(KestrelHandles, StaleForeignAndForgedHandlesAreRejectedWithoutEffect)
{
    // Live objects for the calls that need one beside the bad handle.
    _KSprogram* program = ksCreateProgram();
    _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    ksBindPrimitive(KS_PRIMITIVE, NewPrimitive());
    ksBindBuffer(KS_ARRAY_BUFFER, NewBuffer());

    const BadHandles stale = MakeHandles("stale");
    DeleteHandles(stale);
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    const BadHandles foreign = MakeHandles("foreign");
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    const BadHandles forged = {"never issued",
                               ForgedHandle<_KSshader>(1),
                               ForgedHandle<_KSprogram>(2),
                               ForgedHandle<_KSbuffer>(3),
                               ForgedHandle<_KStexture>(4),
                               ForgedHandle<_KSframebuffer>(5),
                               KSprimitive(0x7e5d0006u)};
    ASSERT_NO_KS_ERROR();

    const char* source = "uniform float r;";
    using Call = std::function<void(BadHandles)>;
    // Deleting (or detaching) what was deleted is silent; all else is not.
    const std::tuple<const char*, Call, bool> cases[] = {
        {"ksBindBuffer", [](BadHandles h) { ksBindBuffer(KS_ARRAY_BUFFER, h.buffer); }, false},
        {"ksDeleteBuffers", [](BadHandles h) { ksDeleteBuffers(1, &h.buffer); }, true},
        {"ksBindTexture", [](BadHandles h) { ksBindTexture(KS_TEXTURE_2D, h.texture); }, false},
        {"ksDeleteTextures", [](BadHandles h) { ksDeleteTextures(1, &h.texture); }, true},
        {"ksBindFramebuffer",
         [](BadHandles h) { ksBindFramebuffer(KS_FRAMEBUFFER, h.framebuffer); }, false},
        {"ksDeleteFramebuffers", [](BadHandles h) { ksDeleteFramebuffers(1, &h.framebuffer); },
         true},
        {"ksBindPrimitive", [](BadHandles h) { ksBindPrimitive(KS_PRIMITIVE, h.primitive); },
         false},
        {"ksDeletePrimitives", [](BadHandles h) { ksDeletePrimitives(1, &h.primitive); }, true},
        {"ksDeleteShader", [](BadHandles h) { ksDeleteShader(h.shader); }, true},
        {"ksDeleteProgram", [](BadHandles h) { ksDeleteProgram(h.program); }, true},
        {"ksShaderSource", [&](BadHandles h) { ksShaderSource(h.shader, 1, &source, nullptr); },
         false},
        {"ksCompileShader", [](BadHandles h) { ksCompileShader(h.shader); }, false},
        {"ksGetShaderiv",
         [](BadHandles h) { EXPECT_TRUE(WroteZero(ksGetShaderiv, h.shader, KS_COMPILE_STATUS)); },
         false},
        {"ksGetShaderString",
         [](BadHandles h) { EXPECT_TRUE(WroteZero(ksGetShaderString, h.shader, KS_SHADER_LOG)); },
         false},
        {"ksShaderString", [](BadHandles h) { ksShaderString(h.shader, KS_SHADER_NAME, "n"); },
         false},
        {"ksAttachShader", [&](BadHandles h) { ksAttachShader(program, h.shader); }, false},
        {"ksAttachShader", [&](BadHandles h) { ksAttachShader(h.program, shader); }, false},
        {"ksDetachShader", [&](BadHandles h) { ksDetachShader(program, h.shader); }, true},
        {"ksDetachShader", [&](BadHandles h) { ksDetachShader(h.program, shader); }, false},
        {"ksLinkProgram", [](BadHandles h) { ksLinkProgram(h.program); }, false},
        {"ksGetProgramiv",
         [](BadHandles h) { EXPECT_TRUE(WroteZero(ksGetProgramiv, h.program, KS_LINK_STATUS)); },
         false},
        {"ksGetProgramString",
         [](BadHandles h)
         { EXPECT_TRUE(WroteZero(ksGetProgramString, h.program, KS_PROGRAM_LOG)); },
         false},
        {"ksProgramString", [](BadHandles h) { ksProgramString(h.program, KS_PROGRAM_NAME, "n"); },
         false},
        {"ksGetUniformLocation",
         [](BadHandles h) { EXPECT_EQ(ksGetUniformLocation(h.program, "r"), -1); }, false},
        {"ksGetUniformBlockIndex",
         [](BadHandles h) { EXPECT_EQ(ksGetUniformBlockIndex(h.program, "r"), -1); }, false},
        {"ksGetAttribLocation",
         [](BadHandles h) { EXPECT_EQ(ksGetAttribLocation(h.program, "r"), -1); }, false},
        {"ksUseProgram", [](BadHandles h) { ksUseProgram(h.program); }, false},
        {"ksUniformt", [](BadHandles h) { ksUniformt(0, h.texture); }, false},
        {"ksUniformtv", [](BadHandles h) { ksUniformtv(0, 1, &h.texture); }, false},
        {"ksUniformp", [](BadHandles h) { ksUniformp(0, h.primitive); }, false},
        {"ksUniformpv", [](BadHandles h) { ksUniformpv(0, 1, &h.primitive); }, false},
        {"ksUniformBlockBuffer", [](BadHandles h) { ksUniformBlockBuffer(0, h.buffer); }, false},
        {"ksFramebufferTexture2D", [](BadHandles h) { Attach(0, h.texture); }, false},
    };

    const BindingState before = ReadBindingState(_pContext);
    const ObjectCounts otherBefore = CountObjects(other);
    for (const auto& [function, call, staleIsSilent] : cases)
    {
        for (const BadHandles& h : {stale, foreign, forged})
        {
            SCOPED_TRACE(std::string(function) + " with " + h.label + " handles");
            call(h);
            if (staleIsSilent && h.buffer == stale.buffer)
                EXPECT_NO_KS_ERROR();
            else
                EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, function);
            EXPECT_TRUE(ReadBindingState(_pContext) == before) << "state changed";
        }
    }
    EXPECT_EQ(CountObjects(other), otherBefore) << "a call reached the other context";

    // None of the rejected attaches took: the program still has no shader.
    int linked = -1;
    ksLinkProgram(program);
    ksGetProgramiv(program, KS_LINK_STATUS, &linked);
    EXPECT_EQ(linked, 0);
    EXPECT_NO_KS_ERROR();
    KestrelDestroyContext(other);
}

TEST_F(KestrelHandles, CountsFollowCreationAndDeletionWhichUnbindsAndSkipsNull)
{
    _KSbuffer* buffers[3] = {};
    ksGenBuffers(3, buffers);
    EXPECT_NE(buffers[0], buffers[1]);
    EXPECT_NE(buffers[1], buffers[2]);
    KSprimitive primitives[2] = {};
    ksGenPrimitives(2, primitives);
    BadHandles one = MakeHandles("one of each");
    // A count of 0 needs no array and makes or deletes nothing.
    ksGenBuffers(0, nullptr);
    ksGenTextures(0, nullptr);
    ksGenFramebuffers(0, nullptr);
    ksGenPrimitives(0, nullptr);
    ksDeleteBuffers(0, nullptr);
    ksDeleteTextures(0, nullptr);
    ksDeleteFramebuffers(0, nullptr);
    ksDeletePrimitives(0, nullptr);
    ASSERT_NO_KS_ERROR();
    EXPECT_EQ(CountObjects(_pContext), (ObjectCounts{1, 1, 3, 4, 1, 1}));

    for (const BufferTarget& t : kBufferTargets)
        ksBindBuffer(t.target, buffers[1]);
    ksBindTexture(KS_TEXTURE_2D, one.texture);
    ksBindFramebuffer(KS_FRAMEBUFFER, one.framebuffer);
    ksBindPrimitive(KS_PRIMITIVE, primitives[0]);
    ksDeleteBuffers(2, buffers);
    ksDeletePrimitives(1, primitives);
    // Deleting or detaching null is silent; deleting 0 spares the frame primitive.
    ksDetachShader(one.program, nullptr);
    DeleteHandles({"null", nullptr, nullptr, nullptr, nullptr, nullptr, KSprimitive(0)});
    one.buffer = nullptr;
    one.primitive = KSprimitive(0);
    DeleteHandles(one);
    EXPECT_NO_KS_ERROR();
    BindingState expected;
    expected.counts = ObjectCounts{0, 0, 2, 2, 0, 0};
    EXPECT_TRUE(ReadBindingState(_pContext) == expected)
        << "a deleted object is still bound somewhere";
    EXPECT_EQ(CountObjects(ForgedHandle<void>()).buffers, -1);
    ksBindPrimitive(KS_PRIMITIVE, KSprimitive(0));
    ksUniform1f(-1, 1.0f);
    EXPECT_NO_KS_ERROR();
}

// Handles are never issued twice, not even by a new context after one died.
// A context that makes and deletes objects for as long as it lives keeps no
// record per deletion, and still tells its own stale handles (deleting one
// is silent) from those of another context (an error).
TEST_F(KestrelHandles, NeverReusedAndChurnKeepsTheBookkeepingSmall)
{
    _KSbuffer* first = NewBuffer();
    KSprimitive firstPrimitive = NewPrimitive();
    const int runs = CountIssuedRuns(_pContext);
    ASSERT_GT(runs, 0);
    std::set<std::uintptr_t> ids[6];
    const auto churn = [&](int rounds)
    {
        for (int i = 0; i < rounds; ++i)
        {
            const BadHandles h = MakeHandles("");
            ids[0].insert(reinterpret_cast<std::uintptr_t>(h.buffer));
            ids[1].insert(reinterpret_cast<std::uintptr_t>(h.texture));
            ids[2].insert(reinterpret_cast<std::uintptr_t>(h.framebuffer));
            ids[3].insert(static_cast<std::uintptr_t>(h.primitive));
            ids[4].insert(reinterpret_cast<std::uintptr_t>(h.shader));
            ids[5].insert(reinterpret_cast<std::uintptr_t>(h.program));
            DeleteHandles(h);
        }
    };
    churn(10000);
    ASSERT_NO_KS_ERROR();
    EXPECT_EQ(CountIssuedRuns(_pContext), runs) << "a record for each object";

    // Other contexts, one of them gone, take ids and numbers in between: one
    // more run of each.
    void* gone = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(gone), 1);
    churn(200);
    KestrelDestroyContext(gone);
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    _KSbuffer* foreign = NewBuffer();
    KSprimitive foreignPrimitive = NewPrimitive();
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    churn(200);
    for (const std::set<std::uintptr_t>& kind : ids)
    {
        EXPECT_EQ(kind.size(), 10400u) << "a handle was issued twice";
        EXPECT_EQ(kind.count(0), 0u) << "a creation failed";
    }
    _KSbuffer* late = NewBuffer();
    KSprimitive latePrimitive = NewPrimitive();
    EXPECT_EQ(CountIssuedRuns(_pContext), runs + 2);

    for (int round = 0; round < 2; ++round)
    {
        SCOPED_TRACE(round == 0 ? "live" : "stale: silent");
        for (_KSbuffer* buffer : {first, late})
            ksDeleteBuffers(1, &buffer);
        for (KSprimitive primitive : {firstPrimitive, latePrimitive})
            ksDeletePrimitives(1, &primitive);
        EXPECT_NO_KS_ERROR();
    }
    ksBindBuffer(KS_ARRAY_BUFFER, late);
    EXPECT_KS_ERROR(KS_INVALID_VALUE) << "binding a stale handle";
    ksDeleteBuffers(1, &foreign);
    EXPECT_KS_ERROR(KS_INVALID_VALUE) << "another context's buffer";
    ksDeletePrimitives(1, &foreignPrimitive);
    EXPECT_KS_ERROR(KS_INVALID_VALUE) << "another context's primitive";
    EXPECT_EQ(CountIssuedRuns(ForgedHandle<void>()), -1);
    KestrelDestroyContext(other);
}

} // namespace
} // namespace KestrelTest
