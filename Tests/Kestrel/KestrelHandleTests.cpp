// Bindings of every target, and what the runtime does with handles that are
// stale, foreign or were never issued.
#include "KestrelFixture.h"

#include <cstdint>
#include <functional>
#include <set>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::CountIssuedRuns;
using Kestrel::Testing::CountObjects;
using Kestrel::Testing::ObjectCounts;

// ---------------------------------------------------------------------------
// Bindings

using KestrelBindings = KestrelFixture;

TEST_F(KestrelBindings, BufferTargetsAreIndependentAndReadBackExactly)
{
    _KSbuffer* buffers[kBufferTargetCount] = {};
    for (int i = 0; i < kBufferTargetCount; ++i)
    {
        _KSbuffer* bound = ForgedHandle<_KSbuffer>();
        ksGetBuffer(kBufferTargets[i].binding, &bound);
        EXPECT_EQ(bound, nullptr) << kBufferTargets[i].name << " starts bound";
        buffers[i] = NewBuffer();
        ASSERT_NE(buffers[i], nullptr);
        ksBindBuffer(kBufferTargets[i].target, buffers[i]);
    }
    ASSERT_NO_KS_ERROR();
    for (int i = 0; i < kBufferTargetCount; ++i)
    {
        _KSbuffer* bound = nullptr;
        ksGetBuffer(kBufferTargets[i].binding, &bound);
        EXPECT_EQ(bound, buffers[i]) << kBufferTargets[i].name;
    }

    // Save, rebind, restore, as the wrapper does around its work.
    for (const BufferTarget& t : kBufferTargets)
    {
        SCOPED_TRACE(t.name);
        _KSbuffer* saved = nullptr;
        ksGetBuffer(t.binding, &saved);
        ksBindBuffer(t.target, nullptr);
        _KSbuffer* bound = ForgedHandle<_KSbuffer>();
        ksGetBuffer(t.binding, &bound);
        EXPECT_EQ(bound, nullptr);
        ksBindBuffer(t.target, saved);
        ksGetBuffer(t.binding, &bound);
        EXPECT_EQ(bound, saved);
        EXPECT_NO_KS_ERROR();
    }
}

TEST_F(KestrelBindings, ObjectTargetsReadBackIncludingNone)
{
    _KStexture* texture = NewTexture();
    _KSframebuffer* framebuffer = NewFramebuffer();
    const KSprimitive primitive = NewPrimitive();
    ASSERT_NO_KS_ERROR();

    struct Case
    {
        const char* label;
        std::function<void(bool)> bind; // the object, or none
        std::function<std::uintptr_t()> read;
        std::uintptr_t object;
    };
    const Case cases[] = {
        {"texture", [&](bool on) { ksBindTexture(KS_TEXTURE_2D, on ? texture : nullptr); },
         []
         {
             _KStexture* bound = ForgedHandle<_KStexture>();
             ksGetTexture(KS_TEXTURE_BINDING_2D, &bound);
             return reinterpret_cast<std::uintptr_t>(bound);
         },
         reinterpret_cast<std::uintptr_t>(texture)},
        {"frame buffer",
         [&](bool on) { ksBindFramebuffer(KS_FRAMEBUFFER, on ? framebuffer : nullptr); },
         []
         {
             _KSframebuffer* bound = ForgedHandle<_KSframebuffer>();
             ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, &bound);
             return reinterpret_cast<std::uintptr_t>(bound);
         },
         reinterpret_cast<std::uintptr_t>(framebuffer)},
        {"primitive",
         [&](bool on) { ksBindPrimitive(KS_PRIMITIVE, on ? primitive : KSprimitive(0)); },
         []
         {
             KSprimitive bound = KSprimitive(77);
             ksGetPrimitive(KS_PRIMITIVE_BINDING, &bound);
             return static_cast<std::uintptr_t>(bound);
         },
         static_cast<std::uintptr_t>(primitive)},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(c.read(), 0u) << "never bound must read as none";
        c.bind(false); // binding what was read back is no error
        EXPECT_NO_KS_ERROR();
        c.bind(true);
        EXPECT_EQ(c.read(), c.object);
        c.bind(false);
        EXPECT_EQ(c.read(), 0u);
        c.bind(true);
        EXPECT_EQ(c.read(), c.object);
        EXPECT_NO_KS_ERROR();
    }
}

TEST_F(KestrelBindings, GetWithWrongNameIsInvalidEnumAndWritesNone)
{
    ksBindBuffer(KS_ARRAY_BUFFER, NewBuffer());
    ksBindTexture(KS_TEXTURE_2D, NewTexture());
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    ksBindPrimitive(KS_PRIMITIVE, NewPrimitive());
    ASSERT_NO_KS_ERROR();
    struct Case
    {
        const char* function;
        std::function<bool()> readsNone;
    };
    const Case cases[] = {
        {"ksGetBuffer",
         []
         {
             _KSbuffer* out = ForgedHandle<_KSbuffer>();
             ksGetBuffer(KS_ARRAY_BUFFER, &out); // the target, not its binding name
             return out == nullptr;
         }},
        {"ksGetBuffer",
         []
         {
             _KSbuffer* out = ForgedHandle<_KSbuffer>();
             ksGetBuffer(KS_TEXTURE_BINDING_2D, &out);
             return out == nullptr;
         }},
        {"ksGetTexture",
         []
         {
             _KStexture* out = ForgedHandle<_KStexture>();
             ksGetTexture(KS_TEXTURE_2D, &out);
             return out == nullptr;
         }},
        {"ksGetFramebuffer",
         []
         {
             _KSframebuffer* out = ForgedHandle<_KSframebuffer>();
             ksGetFramebuffer(KS_FRAMEBUFFER, &out);
             return out == nullptr;
         }},
        {"ksGetPrimitive",
         []
         {
             KSprimitive out = KSprimitive(77);
             ksGetPrimitive(KS_PRIMITIVE, &out);
             return out == 0;
         }},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.function);
        EXPECT_TRUE(c.readsNone());
        EXPECT_KS_ERROR_IN(KS_INVALID_ENUM, c.function);
    }
}

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

enum BadKind
{
    kBK_Stale,
    kBK_Foreign,
    kBK_Forged,
    kBK_Count
};

BadHandles MakeHandlesThenDelete(const char* label)
{
    BadHandles h{label,
                 ksCreateShader(KS_VERTEX_SHADER),
                 ksCreateProgram(),
                 NewBuffer(),
                 NewTexture(),
                 NewFramebuffer(),
                 NewPrimitive()};
    return h;
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
    const KSprimitive primitive = NewPrimitive();
    ksBindPrimitive(KS_PRIMITIVE, primitive);
    _KSbuffer* buffer = NewBuffer();
    ksBindBuffer(KS_ARRAY_BUFFER, buffer);
    ASSERT_NO_KS_ERROR();

    BadHandles bad[kBK_Count];
    bad[kBK_Stale] = MakeHandlesThenDelete("stale");
    DeleteHandles(bad[kBK_Stale]);
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    bad[kBK_Foreign] = MakeHandlesThenDelete("foreign");
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    bad[kBK_Forged] = {"never issued",
                       ForgedHandle<_KSshader>(1),
                       ForgedHandle<_KSprogram>(2),
                       ForgedHandle<_KSbuffer>(3),
                       ForgedHandle<_KStexture>(4),
                       ForgedHandle<_KSframebuffer>(5),
                       KSprimitive(0x7e5d0006u)};
    ASSERT_NO_KS_ERROR();

    const char* source = "uniform float r;";
    struct Case
    {
        const char* function;
        std::function<void(BadHandles)> call;
        // Deleting (or detaching) what was deleted is silent; all else is not.
        bool staleIsSilent;
    };
    const Case cases[] = {
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
         [](BadHandles h)
         {
             int status = 0;
             ksGetShaderiv(h.shader, KS_COMPILE_STATUS, &status);
         },
         false},
        {"ksGetShaderString",
         [](BadHandles h)
         {
             const char* text = nullptr;
             ksGetShaderString(h.shader, KS_SHADER_LOG, &text);
         },
         false},
        {"ksShaderString", [](BadHandles h) { ksShaderString(h.shader, KS_SHADER_NAME, "n"); },
         false},
        {"ksAttachShader", [&](BadHandles h) { ksAttachShader(program, h.shader); }, false},
        {"ksAttachShader", [&](BadHandles h) { ksAttachShader(h.program, shader); }, false},
        {"ksDetachShader", [&](BadHandles h) { ksDetachShader(program, h.shader); }, true},
        {"ksDetachShader", [&](BadHandles h) { ksDetachShader(h.program, shader); }, false},
        {"ksLinkProgram", [](BadHandles h) { ksLinkProgram(h.program); }, false},
        {"ksGetProgramiv",
         [](BadHandles h)
         {
             int status = 0;
             ksGetProgramiv(h.program, KS_LINK_STATUS, &status);
         },
         false},
        {"ksGetProgramString",
         [](BadHandles h)
         {
             const char* text = nullptr;
             ksGetProgramString(h.program, KS_PROGRAM_LOG, &text);
         },
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
        {"ksFramebufferTexture2D",
         [](BadHandles h) {
             ksFramebufferTexture2D(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, KS_TEXTURE_2D, h.texture,
                                    0);
         },
         false},
    };

    const BindingState before = ReadBindingState(_pContext);
    const ObjectCounts otherBefore = CountObjects(other);
    for (const Case& c : cases)
    {
        for (const BadHandles& h : bad)
        {
            SCOPED_TRACE(std::string(c.function) + " with " + h.label + " handles");
            c.call(h);
            if (c.staleIsSilent && &h == &bad[kBK_Stale])
                EXPECT_NO_KS_ERROR();
            else
                EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, c.function);
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

TEST_F(KestrelHandles, DeletingOrDetachingNullIsSilent)
{
    ksDetachShader(ksCreateProgram(), nullptr);
    _KSbuffer* buffer = nullptr;
    _KStexture* texture = nullptr;
    _KSframebuffer* framebuffer = nullptr;
    KSprimitive primitive = KSprimitive(0);
    ksDeleteBuffers(1, &buffer);
    ksDeleteTextures(1, &texture);
    ksDeleteFramebuffers(1, &framebuffer);
    ksDeletePrimitives(1, &primitive);
    ksDeleteShader(nullptr);
    ksDeleteProgram(nullptr);
    EXPECT_NO_KS_ERROR();
    // The frame primitive survives an attempt to delete 0.
    ksBindPrimitive(KS_PRIMITIVE, KSprimitive(0));
    ksUniform1f(-1, 1.0f);
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelHandles, DeletingABoundObjectUnbindsIt)
{
    _KSbuffer* buffer = NewBuffer();
    for (const BufferTarget& t : kBufferTargets)
        ksBindBuffer(t.target, buffer);
    _KStexture* texture = NewTexture();
    ksBindTexture(KS_TEXTURE_2D, texture);
    _KSframebuffer* framebuffer = NewFramebuffer();
    ksBindFramebuffer(KS_FRAMEBUFFER, framebuffer);
    KSprimitive primitive = NewPrimitive();
    ksBindPrimitive(KS_PRIMITIVE, primitive);
    ASSERT_NO_KS_ERROR();

    ksDeleteBuffers(1, &buffer);
    ksDeleteTextures(1, &texture);
    ksDeleteFramebuffers(1, &framebuffer);
    ksDeletePrimitives(1, &primitive);
    EXPECT_NO_KS_ERROR();
    EXPECT_TRUE(ReadBindingState(_pContext) == BindingState{})
        << "a deleted object is still bound somewhere";
    EXPECT_EQ(CountObjects(_pContext), ObjectCounts{});
}

TEST_F(KestrelHandles, CountsFollowCreationAndDeletion)
{
    _KSbuffer* buffers[3] = {};
    ksGenBuffers(3, buffers);
    EXPECT_NE(buffers[0], buffers[1]);
    EXPECT_NE(buffers[1], buffers[2]);
    KSprimitive primitives[2] = {};
    ksGenPrimitives(2, primitives);
    _KSshader* shader = ksCreateShader(KS_SHADER_KIND_2);
    _KSprogram* program = ksCreateProgram();
    NewTexture();
    NewFramebuffer();
    ASSERT_NO_KS_ERROR();
    EXPECT_EQ(CountObjects(_pContext), (ObjectCounts{1, 1, 2, 3, 1, 1}));

    ksDeleteBuffers(2, buffers);
    ksDeletePrimitives(1, primitives);
    ksDeleteShader(shader);
    ksDeleteProgram(program);
    EXPECT_NO_KS_ERROR();
    EXPECT_EQ(CountObjects(_pContext), (ObjectCounts{0, 0, 1, 1, 1, 1}));
    EXPECT_EQ(CountObjects(ForgedHandle<void>()).buffers, -1);
}

TEST_F(KestrelHandles, HandlesAreNeverReused)
{
    constexpr int kRounds = 200;
    std::set<std::uintptr_t> ids[6];
    const auto churn = [&]
    {
        for (int i = 0; i < kRounds; ++i)
        {
            _KSbuffer* buffer = NewBuffer();
            _KStexture* texture = NewTexture();
            _KSframebuffer* framebuffer = NewFramebuffer();
            KSprimitive primitive = NewPrimitive();
            _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
            _KSprogram* program = ksCreateProgram();
            ids[0].insert(reinterpret_cast<std::uintptr_t>(buffer));
            ids[1].insert(reinterpret_cast<std::uintptr_t>(texture));
            ids[2].insert(reinterpret_cast<std::uintptr_t>(framebuffer));
            ids[3].insert(static_cast<std::uintptr_t>(primitive));
            ids[4].insert(reinterpret_cast<std::uintptr_t>(shader));
            ids[5].insert(reinterpret_cast<std::uintptr_t>(program));
            ksDeleteBuffers(1, &buffer);
            ksDeleteTextures(1, &texture);
            ksDeleteFramebuffers(1, &framebuffer);
            ksDeletePrimitives(1, &primitive);
            ksDeleteShader(shader);
            ksDeleteProgram(program);
        }
    };
    churn();
    // A context that dies and a new one must not hand the old ids out again.
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    churn();
    KestrelDestroyContext(other);
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    churn();
    for (const std::set<std::uintptr_t>& kind : ids)
    {
        EXPECT_EQ(kind.size(), 3u * kRounds) << "a handle was issued twice";
        EXPECT_EQ(kind.count(0), 0u) << "a creation failed";
    }
    EXPECT_NO_KS_ERROR();
}

// A context that makes and deletes objects for as long as it lives keeps no
// record per deletion, and still tells its own stale handles (deleting one
// is silent) from those of another context (an error).
TEST_F(KestrelHandles, ChurnKeepsTheBookkeepingSmallAndStaleHandlesKnown)
{
    _KSbuffer* first = NewBuffer();
    KSprimitive firstPrimitive = NewPrimitive();
    const int runs = CountIssuedRuns(_pContext);
    ASSERT_GT(runs, 0);
    for (int i = 0; i < 10000; ++i)
    {
        _KSbuffer* buffer = NewBuffer();
        _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
        KSprimitive primitive = NewPrimitive();
        ksDeleteBuffers(1, &buffer);
        ksDeleteShader(shader);
        ksDeletePrimitives(1, &primitive);
    }
    ASSERT_NO_KS_ERROR();
    EXPECT_EQ(CountIssuedRuns(_pContext), runs) << "a record for each object";

    // Another context takes ids and numbers in between: one more run of each.
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    _KSbuffer* foreign = NewBuffer();
    KSprimitive foreignPrimitive = NewPrimitive();
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
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
