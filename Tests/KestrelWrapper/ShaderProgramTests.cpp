// Shader and program objects against the runtime: compile texts, listeners,
// the link-once step and both orders of death.
#include "Support/TraceFlags.h"
#include "WrapperFixture.h"

#include <functional>

using namespace WrapperTest;
using namespace Vireo;
using fastdelegate::FastDelegate0;
using fastdelegate::FastDelegate1;
using fastdelegate::MakeDelegate;
using Kestrel::Testing::AutoFaults;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::Describe;
using Kestrel::Testing::InjectFault;
using Vireo::Testing::kCCK_Print;
using Vireo::Testing::kCCK_PrintError;

namespace
{

// Sources that every stage of the language accepts.
const char* const kShapeSource = "uniform vec3 center;\nuniform float radius;\n"
                                 "sphere(center, radius);\n";
const char* const kSharedSource = "uniform float exposure;\n";
const char* const kInjectedLog = "0:0: error: injected fault";

// Records each notification it gets, with what the call log held then.
struct Watcher
{
    std::vector<std::string> seen;
    bool bAnswer = true;
    std::function<std::string()> probe; // what to note at each call

    bool OnChange() { return _Note("change"); }
    bool OnShader(IKSShader*) { return _Note("shader"); }
    bool OnProgram(IKSProgram*) { return _Note("program"); }

private:
    bool _Note(const std::string& what)
    {
        seen.push_back(probe ? what + ":" + probe() : what);
        return bAnswer;
    }
};

class ShaderFixture : public WrapperFixture
{
protected:
    void TearDown() override
    {
        TraceFlagsTestPeer::SetShaderTrace(KSShader::kTrace_None);
        WrapperFixture::TearDown();
    }

    IKSShader* Compiled(IKSShader::Type type, const char* source)
    {
        IKSShader* shader = _pContext->CreateIKSShader(type);
        std::string text = source;
        EXPECT_TRUE(shader->SetString(text, nullptr));
        return shader;
    }
};

} // namespace

TEST_F(ShaderFixture, ShaderKindsNamesAndShutdown)
{
    // Kestrel's kind for each type shows wherever a shader compiles.
    for (IKSShader::Type type : {IKSShader::kST_LinkOnce, IKSShader::kST_Vertex,
                                 IKSShader::kST_Kind2, IKSShader::kST_Kind3})
    {
        IKSShader* shader = _pContext->CreateIKSShader(type);
        ASSERT_NE(shader, nullptr);
        EXPECT_EQ(shader->GetType(), type);
        EXPECT_EQ(shader->GetName(), "-Unnamed-");
        EXPECT_TRUE(_pContext->DestroyIKSShader(shader));
    }

    KSShader shader(&_console, false);
    ASSERT_TRUE(shader.Init(IKSShader::kST_Vertex));
    const std::string handle = Describe(shader.GetKSShader());
    CallLog log;
    EXPECT_TRUE(shader.SetName("ball"));
    EXPECT_EQ(shader.GetName(), "ball");
    shader.Shutdown();
    shader.Shutdown();
    EXPECT_EQ(shader.GetName(), "-Shutdown-");
    EXPECT_EQ(shader.GetKSShader(), nullptr);
    EXPECT_TRUE(shader.SetName("late")) << "stored and sent although the handle is gone";
    EXPECT_EQ(shader.GetName(), "late");
    EXPECT_EQ(log.Calls(), (Calls{"ksShaderString(" + handle + ", KS_SHADER_NAME, \"ball\")",
                                  "ksDeleteShader(" + handle + ")",
                                  "ksShaderString(null, KS_SHADER_NAME, \"late\")"}));
    ksGetError(); // the null handle's error
}

// Every trace level, release mode or not, compile failing or not; each row is
// run with and without a Result.
TEST_F(ShaderFixture, CompileTextsFollowTraceLevelAndReleaseMode)
{
    const struct
    {
        int level;
        bool release;
        bool fails;
        bool sourceShown;
    } rows[] = {
        {0, false, true, false},  {0, false, false, false}, {1, false, true, true},
        {1, false, false, false}, {2, false, true, true},   {2, false, false, true},
        {3, false, true, false},  {3, false, false, false}, {1, true, true, false},
        {2, true, true, false},   {2, true, false, false},
    };
    for (const auto& row : rows)
    {
        for (bool withResult : {false, true})
        {
            SCOPED_TRACE("level " + std::to_string(row.level) + (row.release ? " release" : "") +
                         (row.fails ? " failing" : " compiling") +
                         (withResult ? " with Result" : ""));
            TraceFlagsTestPeer::SetShaderTrace(row.level);
            KSShader shader(&_console, row.release);
            shader.Init(IKSShader::kST_Vertex);
            AutoFaults faults;
            if (row.fails)
                InjectFault("ksCompileShader");
            _console.Clear();
            Result result;
            std::string source = kShapeSource;
            CallLog log;

            EXPECT_EQ(shader.SetString(source, withResult ? &result : nullptr), !row.fails);
            std::string expectedResult;
            std::vector<ConsoleCall> expectedConsole;
            if (row.sourceShown)
            {
                expectedResult = kShapeSource;
                expectedConsole = {{kCCK_Print, kShapeSource}, {kCCK_Print, "\n"}};
            }
            if (row.fails && withResult)
                expectedResult += kInjectedLog;
            EXPECT_EQ(result.GetText(), withResult ? expectedResult : "");
            EXPECT_EQ(_console.Calls(), expectedConsole);
            EXPECT_EQ(log.CallsOf("ksGetShaderString").size(),
                      (row.sourceShown ? 1u : 0u) + (row.fails && withResult ? 1u : 0u))
                << "the log is fetched only for a Result";
        }
    }
    EXPECT_NO_KS_ERROR();
}

// Order, uniqueness and the stop at a false answer are the listener list's.
TEST_F(ShaderFixture, ChangeListenersHearOnlyGoodCompilesAfterTheReport)
{
    TraceFlagsTestPeer::SetShaderTrace(KSShader::kTrace_Always);
    IKSShader* shader = _pContext->CreateIKSShader(IKSShader::kST_Vertex);
    std::string source = kShapeSource;
    Result result;
    Watcher watcher;
    watcher.probe = [&result] { return result.GetText(); };
    FastDelegate0<bool> listener = MakeDelegate(&watcher, &Watcher::OnChange);
    EXPECT_TRUE(shader->AddListenerChange(listener));
    {
        // No source to show: the failure text, without a line end in the
        // Result, and still a good compile.
        AutoFaults faults;
        InjectFault("ksGetShaderString", 1, 0);
        EXPECT_TRUE(shader->SetString(source, &result));
    }
    const std::string noSource =
        "KS: ksGetShaderString(KS_SHADER_SOURCE) failure. Returned empty string";
    EXPECT_EQ(watcher.seen, std::vector<std::string>{"change:" + noSource});
    EXPECT_EQ(_console.Calls(), (std::vector<ConsoleCall>{{kCCK_Print, noSource + "\n"}}));
    {
        AutoFaults faults;
        InjectFault("ksCompileShader");
        EXPECT_FALSE(shader->SetString(source, nullptr));
    }
    watcher.bAnswer = false;
    EXPECT_FALSE(shader->SetString(source, nullptr)) << "a false listener fails the call";
    EXPECT_EQ(watcher.seen.size(), 2u);

    EXPECT_TRUE(shader->RemoveListenerChange(listener));
    EXPECT_TRUE(shader->RemoveListenerChange(listener));
    FastDelegate1<IKSShader*, bool> onDelete = MakeDelegate(&watcher, &Watcher::OnShader);
    EXPECT_TRUE(shader->AddListenerDelete(onDelete));
    EXPECT_TRUE(shader->RemoveListenerDelete(onDelete));
    EXPECT_TRUE(shader->SetString(source, nullptr)) << "no listeners: the compile decides";
    _pContext->DestroyIKSShader(shader);
    EXPECT_EQ(watcher.seen.size(), 2u) << "neither after removal nor at shutdown";
}

// Each query asks Kestrel by its own call, unexamined; once shut down the
// program takes no name and its null handle goes to Kestrel all the same.
TEST_F(ShaderFixture, ProgramQueriesReachKestrelEvenAfterShutdown)
{
    IKSProgram* program = _pContext->CreateIKSProgram();
    const std::string prog = Describe(program->GetKSProgram());
    CallLog log;
    program->GetLocationUniformBlock("block");
    program->GetLocationAttribute("attribute");
    EXPECT_EQ(log.Calls(), (Calls{"ksGetUniformBlockIndex(" + prog + ", \"block\")",
                                  "ksGetAttribLocation(" + prog + ", \"attribute\")"}));

    dynamic_cast<KSProgram*>(program)->Shutdown();
    log.Clear();
    EXPECT_FALSE(program->SetName("late"));
    EXPECT_EQ(program->GetLocationUniform("center"), -1);
    EXPECT_EQ(log.Calls(), Calls{"ksGetUniformLocation(null, \"center\")"});
    ksGetError();
    _pContext->DestroyIKSProgram(program);
}

// Removing the second of four keeps the order of the rest, and a shader
// added twice is one entry, attached once: each link deletes the link-once
// handles once each, in order of attachment, before any listener hears of it.
TEST_F(ShaderFixture, LinkDeletesLinkOnceShadersInOrderBeforeTellingListeners)
{
    IKSProgram* program = _pContext->CreateIKSProgram();
    IKSShader* shaders[] = {Compiled(IKSShader::kST_Vertex, kShapeSource),
                            Compiled(IKSShader::kST_LinkOnce, "uniform float gain;\n"),
                            Compiled(IKSShader::kST_LinkOnce, kSharedSource),
                            Compiled(IKSShader::kST_LinkOnce, "uniform float bias;\n")};
    CallLog log;
    for (IKSShader* shader : shaders)
        EXPECT_TRUE(program->AddShader(shader));
    EXPECT_TRUE(program->AddShader(shaders[2]));
    EXPECT_TRUE(program->RemoveShader(shaders[1]));
    EXPECT_TRUE(program->RemoveShader(shaders[1]));
    EXPECT_TRUE(program->RemoveShader(nullptr));
    EXPECT_EQ(log.CallsOf("ksAttachShader").size(), 4u);
    EXPECT_EQ(log.CallsOf("ksDetachShader"),
              Calls{"ksDetachShader(" + Describe(program->GetKSProgram()) + ", " +
                    Describe(shaders[1]->GetKSShader()) + ")"});
    // A deleted handle reads differently in the log, so describe at each use.
    auto linkOnceDeletes = [&shaders]
    {
        return Calls{"ksDeleteShader(" + Describe(shaders[2]->GetKSShader()) + ")",
                     "ksDeleteShader(" + Describe(shaders[3]->GetKSShader()) + ")"};
    };
    Calls expected = linkOnceDeletes();
    log.Clear();
    Watcher watchers[3]; // two on the link list, ascending, and one on the delete list
    watchers[0].probe = [&log] { return std::to_string(log.CallsOf("ksDeleteShader").size()); };
    for (Watcher* watcher : {&watchers[1], &watchers[0]})
    {
        FastDelegate1<IKSProgram*, bool> onLink = MakeDelegate(watcher, &Watcher::OnProgram);
        EXPECT_TRUE(program->AddListenerLink(onLink));
    }
    FastDelegate1<IKSProgram*, bool> onDelete = MakeDelegate(&watchers[2], &Watcher::OnProgram);
    FastDelegate1<IKSProgram*, bool> removed = MakeDelegate(&watchers[1], &Watcher::OnProgram);
    EXPECT_TRUE(program->AddListenerDelete(onDelete));
    EXPECT_TRUE(program->AddListenerDelete(removed));
    EXPECT_TRUE(program->RemoveListenerDelete(removed));

    // A failed link prints the name as text, nothing between the quotes for
    // an unnamed program.
    for (const char* name : {"", "%s%n"})
    {
        if (*name != '\0')
            program->SetName(name);
        _console.Clear();
        AutoFaults faults;
        InjectFault("ksLinkProgram");
        EXPECT_FALSE(program->Link());
        EXPECT_EQ(_console.Calls(),
                  (std::vector<ConsoleCall>{
                      {kCCK_PrintError, std::string("KS: program '") + name + "' link failed:\n"},
                      {kCCK_PrintError, "KS: 0:0: error: injected fault\n"}}));
    }
    EXPECT_EQ(log.CallsOf("ksDeleteShader"), Calls{}) << "a failed link deletes none";
    EXPECT_TRUE(program->Link());
    EXPECT_EQ(log.CallsOf("ksDeleteShader"), expected);
    const Calls again = linkOnceDeletes();
    expected.insert(expected.end(), again.begin(), again.end());
    EXPECT_TRUE(program->Link());
    EXPECT_EQ(log.CallsOf("ksDeleteShader"), expected) << "and again at the next link";
    EXPECT_EQ(watchers[0].seen, (std::vector<std::string>{"program:2", "program:4"}));
    EXPECT_EQ(watchers[2].seen, std::vector<std::string>{}) << "Link tells no delete listener";

    watchers[0].bAnswer = false;
    EXPECT_FALSE(program->Link()) << "linked, but a listener said false";
    EXPECT_EQ(watchers[1].seen.size(), 2u) << "the listener after it was not told";
    int status = 0;
    ksGetProgramiv(program->GetKSProgram(), KS_LINK_STATUS, &status);
    EXPECT_NE(status, 0);
    watchers[0].bAnswer = true;
    program->RemoveListenerLink(removed);
    EXPECT_TRUE(program->Link());

    EXPECT_TRUE(_pContext->DestroyIKSProgram(program));
    EXPECT_EQ(watchers[0].seen.size(), 4u) << "no link listener at shutdown";
    EXPECT_EQ(watchers[1].seen.size(), 2u) << "removed from both lists";
    EXPECT_EQ(watchers[2].seen.size(), 1u);
    for (IKSShader* shader : shaders)
        _pContext->DestroyIKSShader(shader);
    EXPECT_NO_KS_ERROR() << "deleting a link-once handle again is harmless";
}

// A shader in two programs dies first; then the programs; then a shader that
// outlived them. ASan watches for a listener left behind.
TEST_F(ShaderFixture, ShaderAndProgramDieInEitherOrder)
{
    IKSProgram* programs[] = {_pContext->CreateIKSProgram(), _pContext->CreateIKSProgram()};
    // The shared shader hears of its end in the order of the programs' addresses.
    if (std::less<void*>()(dynamic_cast<KSProgram*>(programs[1]),
                           dynamic_cast<KSProgram*>(programs[0])))
        std::swap(programs[0], programs[1]);
    IKSShader* shared = Compiled(IKSShader::kST_Vertex, kShapeSource);
    IKSShader* survivor =
        Compiled(IKSShader::kST_Kind2, "uniform vec3 albedo;\ndiffuse(albedo);\n");
    for (IKSProgram* program : {programs[1], programs[0]})
    {
        program->AddShader(shared);
        program->AddShader(survivor);
    }
    const std::string sharedText = Describe(shared->GetKSShader());
    const std::string survivorText = Describe(survivor->GetKSShader());
    const std::string progTexts[] = {Describe(programs[0]->GetKSProgram()),
                                     Describe(programs[1]->GetKSProgram())};

    CallLog log;
    _pContext->DestroyIKSShader(shared);
    EXPECT_EQ(log.Calls(), (Calls{"ksDetachShader(" + progTexts[0] + ", " + sharedText + ")",
                                  "ksDetachShader(" + progTexts[1] + ", " + sharedText + ")",
                                  "ksDeleteShader(" + sharedText + ")"}));
    log.Clear();
    EXPECT_TRUE(programs[0]->RemoveShader(shared)) << "the old pointer is forgotten";
    EXPECT_EQ(log.Calls(), Calls{});

    for (IKSProgram* program : programs)
        _pContext->DestroyIKSProgram(program);
    EXPECT_EQ(log.Calls(), (Calls{"ksDeleteProgram(" + progTexts[0] + ")",
                                  "ksDeleteProgram(" + progTexts[1] + ")"}))
        << "no detach once the program is gone";
    log.Clear();
    _pContext->DestroyIKSShader(survivor);
    EXPECT_EQ(log.Calls(), Calls{"ksDeleteShader(" + survivorText + ")"})
        << "no program is left to detach from";
    EXPECT_NO_KS_ERROR();
}
