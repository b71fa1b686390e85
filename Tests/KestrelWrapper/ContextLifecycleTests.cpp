// The manager and the life of a context: creation, current context, teardown,
// notifications, error checks and the leak report.
#include "WrapperFixture.h"

#include <functional>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::kCCK_PrintWarning;

const char* const kLeakHeading =
    "IKestrelContext detected possible memory leak or double destruction attempt:\n";

// The manager takes release mode first, then the report; the constructor the
// other way round (the teardown test below has the report on). An object
// made in one context and given back through another counts on both sides.
TEST(ManagerTest, ManagerTakesReleaseModeBeforeTheReport)
{
    RecordingConsole console;
    RecordingConsole reportingConsole;
    IMgrKestrel* manager = GetMgrKestrel();
    IKestrelContext* released = manager->CreateKestrelContext(&console, true, false, nullptr);
    IKestrelContext* reporting =
        manager->CreateKestrelContext(&reportingConsole, false, true, nullptr);
    ASSERT_NE(released, nullptr);
    ASSERT_NE(reporting, nullptr);
    EXPECT_TRUE(released->IsReleaseMode());
    ASSERT_TRUE(manager->SetCurrentKestrelContext(released));
    EXPECT_TRUE(reporting->DestroyIKSPrimitive(released->CreateIKSPrimitive()));
    manager->DestroyKestrelContext(released);
    manager->DestroyKestrelContext(reporting);
    EXPECT_EQ(console.CountOf(kCCK_PrintWarning), 0u) << "report must be off";
    EXPECT_EQ(reportingConsole.TextsOf(kCCK_PrintWarning),
              (std::vector<std::string>{kLeakHeading, "  IKSPrimitive count: -1\n"}));
    EXPECT_EQ(reportingConsole.CountOf(kCCK_PrintError), 0u);
}

// Neither creation nor a refused switch makes current. Without its second
// phase a context cannot become current, and Kestrel is not asked;
// attributes Kestrel does not know give no context at all. A switch Kestrel
// refuses reasserts the ray depth limit on the context still current.
TEST(ManagerTest, CurrentContextFollowsSetAndDestroy)
{
    IMgrKestrel* manager = GetMgrKestrel();
    IKestrelContext* first = manager->CreateKestrelContext(nullptr, false, false, nullptr);
    ASSERT_TRUE(manager->SetCurrentKestrelContext(first));
    IKestrelContext* second = manager->CreateKestrelContext(nullptr, false, false, nullptr);
    ASSERT_NE(second, nullptr);
    {
        KestrelContextImp halfMade(nullptr, false, false);
        CallLog log;
        EXPECT_FALSE(manager->SetCurrentKestrelContext(&halfMade));
        EXPECT_EQ(log.Calls(), Calls{});
        const long long attributes[] = {0x7fff, 1, 0};
        EXPECT_EQ(manager->CreateKestrelContext(nullptr, false, false, attributes), nullptr);

        Kestrel::Testing::AutoFaults faults;
        Kestrel::Testing::InjectFault("KestrelSetCurrentContext");
        log.Clear();
        EXPECT_FALSE(manager->SetCurrentKestrelContext(second));
        // Once to read the maximum, once more inside SetRayDepthLimit.
        EXPECT_EQ(log.CallsOf("ksGetIntegerv"), (Calls{"ksGetIntegerv(KS_MAX_RAY_DEPTH, ptr)",
                                                       "ksGetIntegerv(KS_MAX_RAY_DEPTH, ptr)"}));
        EXPECT_EQ(log.CallsOf("ksFrameParameter1i").size(), 1u);
    }
    EXPECT_EQ(manager->GetCurrentKestrelContext(), first);
    EXPECT_TRUE(manager->SetCurrentKestrelContext(second));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), second);

    EXPECT_TRUE(manager->DestroyKestrelContext(first));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), second);
    EXPECT_TRUE(manager->DestroyKestrelContext(second));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), nullptr);
}

// An adopted Kestrel context is never created nor destroyed; adopting none
// creates one, which is still not the wrapper's to destroy.
TEST(ManagerTest, AdoptedKestrelContextIsNeverCreatedNorDestroyed)
{
    void* raw = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_NE(raw, nullptr);
    IMgrKestrel* manager = GetMgrKestrel();
    {
        CallLog log;
        IKestrelContext* adopted =
            manager->CreateKestrelContext(raw, nullptr, false, true, nullptr);
        ASSERT_NE(adopted, nullptr);
        ASSERT_TRUE(manager->SetCurrentKestrelContext(adopted));
        manager->DestroyKestrelContext(adopted);
        EXPECT_TRUE(log.CallsOf("KestrelCreateContext").empty());
        EXPECT_TRUE(log.CallsOf("KestrelDestroyContext").empty());
    }
    EXPECT_EQ(KestrelSetCurrentContext(raw), 1) << "the adopted context must still live";
    KestrelDestroyContext(raw);

    const int before = Kestrel::Testing::CountContexts();
    CallLog log;
    auto* context = new KestrelContextImp(nullptr, nullptr, false, false);
    ASSERT_TRUE(context->CreateKestrelContext(false, nullptr));
    EXPECT_EQ(log.CallsOf("KestrelCreateContext").size(), 1u);
    context->DeleteThis();
    EXPECT_TRUE(log.CallsOf("KestrelDestroyContext").empty());
    EXPECT_EQ(Kestrel::Testing::CountContexts(), before + 1);
}

// Objects left over are reported at the recreate and again at the teardown:
// counts 1 to 6 of the six kinds, so that a count printed on another kind's
// line shows. Once all is given back, a teardown says nothing.
TEST(ContextTest, TeardownTwiceRunsOnceAndRecreateStartsAgain)
{
    RecordingConsole console;
    KestrelContextImp context(&console, true, false);
    EXPECT_FALSE(context.IsReleaseMode());
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    ASSERT_TRUE(context.MakeKestrelContextActive());
    IKSPrimitive* nullPrimitive = context.TheNullPrimitive();
    ASSERT_NE(nullPrimitive, nullptr);
    EXPECT_EQ(nullPrimitive->GetHandle(), 0u);
    IKSPrimitive* other = KestrelContextImp(&console, false, false).TheNullPrimitive();
    EXPECT_EQ(other, nullptr) << "no null primitive before the second phase";

    KestrelContextImp* c = &context;
    std::vector<std::function<bool()>> leftovers;
    auto leave = [&leftovers, c](int n, auto destroy, auto make)
    {
        for (int i = 0; i < n; ++i)
            leftovers.push_back([c, object = make(), destroy] { return (c->*destroy)(object); });
    };
    leave(1, &KestrelContextImp::DestroyIKSPrimitive, [c] { return c->CreateIKSPrimitive(); });
    leave(2, &KestrelContextImp::DestroyIKSShader,
          [c] { return c->CreateIKSShader(IKSShader::kST_Vertex); });
    leave(3, &KestrelContextImp::DestroyIKSProgram, [c] { return c->CreateIKSProgram(); });
    leave(4, &KestrelContextImp::DestroyIKSBuffer, [c] { return c->CreateIKSBuffer(); });
    leave(5, &KestrelContextImp::DestroyIKSFrameBuffer, [c] { return c->CreateIKSFrameBuffer(); });
    leave(6, &KestrelContextImp::DestroyIKSTexImage2D, [c] { return c->CreateIKSTexImage2D(); });
    {
        CallLog log;
        ASSERT_TRUE(context.CreateKestrelContext(true, nullptr));
        EXPECT_EQ(log.CallsOf("KestrelDestroyContext").size(), 1u);
        EXPECT_EQ(log.CallsOf("KestrelCreateContext").size(), 1u);
    }
    EXPECT_NE(context.TheNullPrimitive(), nullptr);
    ASSERT_TRUE(context.MakeKestrelContextActive());

    context.DestroyKestrelContext();
    context.DestroyKestrelContext();
    EXPECT_EQ(context.TheNullPrimitive(), nullptr);
    const std::vector<std::string> report = {kLeakHeading,
                                             "  IKSPrimitive count: 1\n",
                                             "  IKSShader count: 2\n",
                                             "  IKSProgram count: 3\n",
                                             "  IKSBuffer count: 4\n",
                                             "  IKSFrameBuffer count: 5\n",
                                             "  IKSTexImage2D count: 6\n"};
    std::vector<std::string> twice = report;
    twice.insert(twice.end(), report.begin(), report.end());
    EXPECT_EQ(console.TextsOf(kCCK_PrintWarning), twice);
    EXPECT_EQ(console.CountOf(kCCK_PrintError), 0u);

    for (const auto& giveBack : leftovers)
        EXPECT_TRUE(giveBack());
    console.Clear();
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    context.DestroyKestrelContext();
    EXPECT_EQ(console.Calls(), std::vector<ConsoleCall>{});
}

// A stop is pending but silent; a notice without a message prints its code
// alone. Kestrel's other notices and the context's own check print as every
// failure of the fault sweep shows.
TEST_F(WrapperFixture, KestrelErrorsReachTheConsoleButAStopDoesNot)
{
    Kestrel::Testing::RaiseError(KS_RENDER_STOPPED);
    EXPECT_TRUE(_pContext->ErrorCheck());
    EXPECT_FALSE(_pContext->ErrorCheck());
    auto* imp = dynamic_cast<KestrelContextImp*>(_pContext);
    imp->KestrelNotification(KS_RENDER_STOPPED, "frame stopped");
    imp->KestrelNotification(KS_RENDER_STOPPED, nullptr);
    EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{});
    imp->KestrelNotification(1282, nullptr);
    EXPECT_EQ(_console.TextsOf(kCCK_PrintError), std::vector<std::string>{"Kestrel Error 1282\n"});
}

TEST(ContextTest, NoConsoleGivesTheSameAnswers)
{
    KestrelContextImp context(nullptr, false, false);
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    ASSERT_TRUE(context.MakeKestrelContextActive());
    Kestrel::Testing::RaiseError(KS_INVALID_VALUE);
    EXPECT_TRUE(context.ErrorCheck());
    EXPECT_EQ(context.RenderFrame(), IKestrelContext::kRFS_Failed) << "nothing is bound";

    const char* source = "uniform float radius;\n";
    _KSshader* shader = context.CreateShader(KS_VERTEX_SHADER, &source, 1);
    EXPECT_NE(shader, nullptr);
    Kestrel::Testing::AutoFaults faults;
    Kestrel::Testing::InjectFault("ksCompileShader");
    Kestrel::Testing::InjectFault("ksLinkProgram");
    EXPECT_EQ(context.CreateShader(KS_VERTEX_SHADER, &source, 1), nullptr);
    EXPECT_EQ(context.CreateProgram(shader), nullptr);
    context.DestroyShader(shader);
}
