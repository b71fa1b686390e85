// The runtime's testing interface: fault injection, raised errors and the
// call log that other suites lean on.
#include "KestrelFixture.h"

#include <functional>
#include <regex>
#include <thread>
#include <tuple>

namespace KestrelTest
{
namespace
{

using namespace Kestrel::Testing;

// ---------------------------------------------------------------------------
// Faults

using KestrelFaults = KestrelFixture;

// A fault fails one call with the error asked for: the function's own by
// default, none, or another. What each failure does to the wrapper's calls is
// the wrapper's fault sweep's to check; these are one function of each kind.
TEST_F(KestrelFaults, AFaultFailsOneCallWithTheErrorAskedFor)
{
    _KSbuffer* buffer = NewBuffer();
    ksBindBuffer(KS_ARRAY_BUFFER, buffer);
    _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
    const char* source = "uniform vec3 c;\nsphere(c, 1.0);\n";
    ksShaderSource(shader, 1, &source, nullptr);
    ksCompileShader(shader);
    _KSprogram* program = ksCreateProgram();
    ksAttachShader(program, shader);
    ksLinkProgram(program);
    ASSERT_EQ(ksGetUniformLocation(program, "c"), 0);
    ASSERT_NO_KS_ERROR();

    // A failed link is no API error: its status and log say it, and it
    // leaves nothing of the last good one.
    const auto linkFailed = [&]
    {
        ksLinkProgram(program);
        int status = 1;
        const char* log = nullptr;
        ksGetProgramiv(program, KS_LINK_STATUS, &status);
        ksGetProgramString(program, KS_PROGRAM_LOG, &log);
        return status == 0 && log && std::string(log) == "0:0: error: injected fault" &&
               ksGetUniformLocation(program, "c") == -1;
    };
    const auto bindFailed = [&]
    {
        ksBindBuffer(KS_ARRAY_BUFFER, nullptr);
        return ReadBindingState(_pContext).buffers[0] == buffer;
    };
    const std::tuple<const char*, std::function<bool()>, int> cases[] = {
        {"ksGenTextures", [] { return !NewTexture(); }, KS_OUT_OF_MEMORY},
        {"ksLinkProgram", linkFailed, KS_NO_ERROR},
        {"ksBindBuffer", bindFailed, KS_INVALID_OPERATION},
    };
    for (const auto& [function, failed, naturalError] : cases)
    {
        SCOPED_TRACE(function);
        for (int error : {kNaturalError, 0, KS_INVALID_VALUE})
        {
            AutoFaults faults;
            InjectFault(function, 1, error);
            EXPECT_EQ(PendingFaults(), 1);
            EXPECT_TRUE(failed()) << "with error " << error;
            EXPECT_EQ(PendingFaults(), 0);
            const int raised = error == kNaturalError ? naturalError : error;
            if (raised == KS_NO_ERROR)
                EXPECT_NO_KS_ERROR();
            else
                EXPECT_KS_ERROR(raised);
        }
        // Used up: the call works again.
        EXPECT_FALSE(failed());
        EXPECT_NO_KS_ERROR();
    }
}

// Faults count per function, are used up in order, queue behind LetPass and
// go with ClearFaults or at the end of an AutoFaults scope.
TEST_F(KestrelFaults, CountsArePerFunctionAndUsedUpInOrder)
{
    {
        AutoFaults faults;
        InjectFault("ksCreateProgram", 3, 0);
        InjectFault("ksGenTextures", 2, 0);
        InjectErrorAfter("ksGenFramebuffers", KS_INVALID_VALUE, 2);
        EXPECT_EQ(PendingFaults(), 7);
        EXPECT_NE(NewBuffer(), nullptr) << "a fault leaked onto another function";
        for (int left = 2; left >= 0; --left)
        {
            EXPECT_EQ(ksCreateProgram(), nullptr);
            EXPECT_EQ(PendingFaults(), left + 4);
        }
        EXPECT_NE(ksCreateProgram(), nullptr);
        EXPECT_EQ(NewTexture(), nullptr);
        EXPECT_EQ(PendingFaults(), 3);
        ClearFaults();
        EXPECT_EQ(PendingFaults(), 0);
        EXPECT_NE(NewTexture(), nullptr);

        LetPass("ksGenTextures", 2);
        InjectFault("ksGenTextures", 1, 0);
        InjectFault("ksGenBuffers", 4);
        EXPECT_EQ(PendingFaults(), 7);
        EXPECT_NE(NewTexture(), nullptr);
        EXPECT_NE(NewTexture(), nullptr);
        EXPECT_EQ(NewTexture(), nullptr) << "the third call fails";
        EXPECT_NE(NewTexture(), nullptr);
        EXPECT_EQ(PendingFaults(), 4);
    }
    EXPECT_EQ(PendingFaults(), 0);
    EXPECT_NE(NewBuffer(), nullptr);
    EXPECT_NO_KS_ERROR();
}

// An error after the work, or raised alone, follows the error model: the
// first is kept, each is notified.
TEST_F(KestrelFaults, ErrorAfterDoesTheWorkThenRaises)
{
    AutoFaults faults;
    _KSbuffer* buffer = NewBuffer();
    InjectErrorAfter("ksBindBuffer", KS_INVALID_OPERATION, 2);
    EXPECT_EQ(PendingFaults(), 2);
    for (_KSbuffer* bind : {buffer, static_cast<_KSbuffer*>(nullptr)})
    {
        ksBindBuffer(KS_PIXEL_PACK_BUFFER, bind);
        EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksBindBuffer");
        EXPECT_EQ(ReadBindingState(_pContext).buffers[2], bind) << "the work was not done";
    }
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, buffer);
    EXPECT_NO_KS_ERROR();

    // A creation that succeeds yet reports an error.
    InjectErrorAfter("ksCreateShader", KS_OUT_OF_MEMORY);
    EXPECT_NE(ksCreateShader(KS_SHADER_KIND_3), nullptr);
    EXPECT_KS_ERROR(KS_OUT_OF_MEMORY);
    EXPECT_EQ(CountObjects(_pContext).shaders, 1);

    RaiseError(KS_INVALID_VALUE);
    EXPECT_KS_ERROR(KS_INVALID_VALUE);
    RaiseError(KS_OUT_OF_MEMORY);
    RaiseError(KS_INVALID_ENUM);
    EXPECT_EQ(ksGetError(), KS_OUT_OF_MEMORY);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);
    EXPECT_EQ(_recorder.Take().size(), 2u);
}

TEST(KestrelFaultsDeathTest, UnknownFunctionAbortsTheTest)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(InjectFault("ksNoSuchFunction"), "ksNoSuchFunction");
    EXPECT_DEATH(InjectErrorAfter("ksBindBufferTwice", KS_INVALID_VALUE), "ksBindBufferTwice");
}

// ---------------------------------------------------------------------------
// The call log

using KestrelCallLog = KestrelFixture;

TEST_F(KestrelCallLog, ArgumentsHaveTheirTextForm)
{
    _KSbuffer* stale = NewBuffer();
    ksDeleteBuffers(1, std::vector{stale}.data());
    const std::string staleText = Describe(stale);
    EXPECT_EQ(staleText.rfind("buf?0x", 0), 0u) << staleText;

    _KSshader* shader = ksCreateShader(KS_SHADER_KIND_2);
    _KSprogram* program = ksCreateProgram();
    _KStexture* texture = NewTexture();
    _KSframebuffer* framebuffer = NewFramebuffer();
    const KSprimitive primitive = NewPrimitive();
    _KSbuffer* buffer = NewBuffer();
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { ksAttachShader(program, shader); }, "ksAttachShader(prog#1, shader#1)"},
        {[&] { ksShaderString(shader, KS_SHADER_NAME, "rock one"); },
         "ksShaderString(shader#1, KS_SHADER_NAME, \"rock one\")"},
        {[&] { ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, buffer); },
         "ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, buf#2)"},
        {[] { ksBindBuffer(KS_ARRAY_BUFFER, nullptr); }, "ksBindBuffer(KS_ARRAY_BUFFER, null)"},
        {[&] { ksBindBuffer(KS_ARRAY_BUFFER, stale); },
         "ksBindBuffer(KS_ARRAY_BUFFER, " + staleText + ")"},
        {[] { ksMapBuffer(KS_UNIFORM_BLOCK_BUFFER, KS_READ_WRITE); },
         "ksMapBuffer(KS_UNIFORM_BLOCK_BUFFER, KS_READ_WRITE)"},
        {[] { ksUnmapBuffer(KS_UNIFORM_BLOCK_BUFFER); }, "ksUnmapBuffer(KS_UNIFORM_BLOCK_BUFFER)"},
        {[&] { ksBindTexture(KS_TEXTURE_2D, texture); }, "ksBindTexture(KS_TEXTURE_2D, tex#1)"},
        {[&] { ksBindFramebuffer(KS_FRAMEBUFFER, framebuffer); },
         "ksBindFramebuffer(KS_FRAMEBUFFER, fb#1)"},
        {[&] { Attach(0, texture); },
         "ksFramebufferTexture2D(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0, KS_TEXTURE_2D, tex#1, 0)"},
        {[&] { ksBindPrimitive(KS_PRIMITIVE, primitive); },
         "ksBindPrimitive(KS_PRIMITIVE, " + std::to_string(primitive) + ")"},
    };
    for (const auto& [call, expected] : cases)
    {
        CallLog log;
        call();
        EXPECT_EQ(log.Calls(), Calls{expected});
    }
    ksGetError();
    _recorder.Take();
    // Serials count per context; another context's buffer shows by its id.
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    EXPECT_EQ(Describe(NewBuffer()), "buf#1");
    EXPECT_EQ(Describe(buffer).rfind("buf?0x", 0), 0u) << Describe(buffer);
    EXPECT_NE(Describe(buffer), staleText);
    KestrelDestroyContext(other);
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    EXPECT_EQ(Describe(buffer), "buf#2");
}

TEST_F(KestrelCallLog, ContextFunctionsAreRecorded)
{
    CallLog log;
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    KestrelSetCurrentContext(other);
    KestrelGetHardwareAcceleratorCount();
    KestrelSetCurrentContext(_pContext);
    KestrelStopContext(other);
    KestrelDestroyContext(other);
    const Calls calls = log.Calls();
    const char* const patterns[] = {
        R"(KestrelCreateContext\(null, null, null\))", R"(KestrelSetCurrentContext\(ctx#[0-9]+\))",
        R"(KestrelGetHardwareAcceleratorCount\(\))",   R"(KestrelSetCurrentContext\(ctx#[0-9]+\))",
        R"(KestrelStopContext\(ctx#[0-9]+\))",         R"(KestrelDestroyContext\(ctx#[0-9]+\))",
    };
    ASSERT_EQ(calls.size(), std::size(patterns));
    for (size_t i = 0; i < calls.size(); ++i)
        EXPECT_TRUE(std::regex_match(calls[i], std::regex(patterns[i]))) << calls[i];
    // The same context reads the same each time; two contexts read differently.
    EXPECT_EQ(calls[1].substr(calls[1].find('(')), calls[4].substr(calls[4].find('(')));
    EXPECT_NE(calls[1], calls[3]);
}

// Logs nest, record only while they live, hear every thread, filter by whole
// name and clear.
TEST_F(KestrelCallLog, RecordsOnlyWhileALogLives)
{
    NewBuffer(); // before any log
    Calls outerCalls;
    {
        CallLog outer;
        ksGetError();
        {
            CallLog inner;
            std::thread([] { ksGenPrimitives(1, nullptr); }).join();
            EXPECT_EQ(inner.Calls(), (Calls{"ksGenPrimitives(1, null)"}));
        }
        ksGetError();
        ksClearColor(1, 1, 1, 1);
        EXPECT_EQ(outer.CallsOf("ksGetError"), (Calls{"ksGetError()", "ksGetError()"}));
        EXPECT_TRUE(outer.CallsOf("ksGetErr").empty()) << "matched a prefix of a name";
        outerCalls = outer.Calls();
        outer.Clear();
        EXPECT_TRUE(outer.Calls().empty());
        ksGetError();
        EXPECT_EQ(outer.Calls(), (Calls{"ksGetError()"}));
    }
    EXPECT_EQ(outerCalls, (Calls{"ksGetError()", "ksGenPrimitives(1, null)", "ksGetError()",
                                 "ksClearColor(1, 1, 1, 1)"}));
    NewFramebuffer(); // between logs
    CallLog later;
    EXPECT_TRUE(later.Calls().empty());
    // Testing helpers are not Kestrel calls.
    Describe(static_cast<_KStexture*>(nullptr));
    CountObjects(_pContext);
    CountContexts();
    EXPECT_FALSE(CountSceneBuilds(nullptr));
    EXPECT_TRUE(later.Calls().empty());
    _recorder.Take();
}

} // namespace
} // namespace KestrelTest
