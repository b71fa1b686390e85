// The manager and the life of a context: creation, current context, teardown,
// notifications, error checks and the leak report.
#include "WrapperFixture.h"

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::kCCK_PrintWarning;

namespace
{

const char* const kLeakHeading =
    "IKestrelContext detected possible memory leak or double destruction attempt:\n";

} // namespace

TEST(ManagerTest, GivesOneInstance)
{
    EXPECT_EQ(GetMgrKestrel(), MgrKestrel::Instance());
    EXPECT_NE(GetMgrKestrel(), nullptr);
}

TEST(ManagerTest, ManagerAndConstructorTakeTheFlagsInOppositeOrder)
{
    RecordingConsole console;
    IMgrKestrel* manager = GetMgrKestrel();

    // Manager: release mode first, then the report.
    IKestrelContext* released = manager->CreateKestrelContext(&console, true, false, nullptr);
    ASSERT_NE(released, nullptr);
    EXPECT_TRUE(released->IsReleaseMode());
    ASSERT_TRUE(manager->SetCurrentKestrelContext(released));
    IKSPrimitive* leftover = released->CreateIKSPrimitive();
    manager->DestroyKestrelContext(released);
    EXPECT_EQ(console.CountOf(kCCK_PrintWarning), 0u) << "report must be off";
    delete dynamic_cast<KSPrimitive*>(leftover);

    // Constructor: the report first, then release mode.
    auto* constructed = new KestrelContextImp(&console, true, false);
    ASSERT_TRUE(constructed->CreateKestrelContext(false, nullptr));
    EXPECT_FALSE(constructed->IsReleaseMode());
    ASSERT_TRUE(manager->SetCurrentKestrelContext(constructed));
    leftover = constructed->CreateIKSPrimitive();
    manager->DestroyKestrelContext(constructed);
    EXPECT_EQ(console.TextsOf(kCCK_PrintWarning),
              (std::vector<std::string>{kLeakHeading, "  IKSPrimitive count: 1\n"}));
    delete dynamic_cast<KSPrimitive*>(leftover);
}

TEST(ManagerTest, CurrentContextFollowsSetAndDestroy)
{
    IMgrKestrel* manager = GetMgrKestrel();
    IKestrelContext* first = manager->CreateKestrelContext(nullptr, false, false, nullptr);
    ASSERT_TRUE(manager->SetCurrentKestrelContext(first));
    IKestrelContext* second = manager->CreateKestrelContext(nullptr, false, false, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(manager->GetCurrentKestrelContext(), first) << "creation must not make current";

    EXPECT_TRUE(manager->SetCurrentKestrelContext(second));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), second);
    EXPECT_FALSE(manager->SetCurrentKestrelContext(nullptr));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), second);

    EXPECT_TRUE(manager->DestroyKestrelContext(first));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), second);
    EXPECT_TRUE(manager->DestroyKestrelContext(second));
    EXPECT_EQ(manager->GetCurrentKestrelContext(), nullptr);
    EXPECT_FALSE(manager->DestroyKestrelContext(nullptr));
}

TEST(ManagerTest, ContextWithoutKestrelContextCannotBecomeCurrent)
{
    KestrelContextImp context(nullptr, false, false); // second phase never run
    CallLog log;
    EXPECT_FALSE(GetMgrKestrel()->SetCurrentKestrelContext(&context));
    EXPECT_EQ(log.Calls(), Calls{}) << "Kestrel must not be asked";
}

TEST(ManagerTest, FailedKestrelCreationGivesNull)
{
    Kestrel::Testing::AutoFaults faults;
    Kestrel::Testing::InjectFault("KestrelCreateContext");
    const int before = Kestrel::Testing::CountContexts();
    EXPECT_EQ(GetMgrKestrel()->CreateKestrelContext(nullptr, false, true, nullptr), nullptr);
    EXPECT_EQ(Kestrel::Testing::CountContexts(), before);
}

TEST(ManagerTest, BadAttributesGiveNull)
{
    const long long attributes[] = {0x7fff, 1, 0};
    EXPECT_EQ(GetMgrKestrel()->CreateKestrelContext(nullptr, false, false, attributes), nullptr);
}

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
}

TEST(ContextTest, AdoptingWithNullCreatesButDoesNotOwn)
{
    const int before = Kestrel::Testing::CountContexts();
    CallLog log;
    auto* context = new KestrelContextImp(nullptr, nullptr, false, false);
    ASSERT_TRUE(context->CreateKestrelContext(false, nullptr));
    EXPECT_EQ(log.CallsOf("KestrelCreateContext").size(), 1u);
    context->DeleteThis();
    EXPECT_TRUE(log.CallsOf("KestrelDestroyContext").empty());
    EXPECT_EQ(Kestrel::Testing::CountContexts(), before + 1);
}

TEST(ContextTest, TeardownTwiceRunsOnceAndRecreateStartsAgain)
{
    RecordingConsole console;
    KestrelContextImp context(&console, true, false);
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    ASSERT_TRUE(context.MakeKestrelContextActive());
    IKSPrimitive* nullPrimitive = context.TheNullPrimitive();
    ASSERT_NE(nullPrimitive, nullptr);
    EXPECT_EQ(nullPrimitive->GetHandle(), 0u);
    IKSPrimitive* other = KestrelContextImp(&console, false, false).TheNullPrimitive();
    EXPECT_EQ(other, nullptr) << "no null primitive before the second phase";

    IKSPrimitive* leftover = context.CreateIKSPrimitive();
    {
        CallLog log;
        ASSERT_TRUE(context.CreateKestrelContext(true, nullptr));
        EXPECT_EQ(log.CallsOf("KestrelDestroyContext").size(), 1u);
        EXPECT_EQ(log.CallsOf("KestrelCreateContext").size(), 1u);
    }
    EXPECT_NE(context.TheNullPrimitive(), nullptr);
    ASSERT_TRUE(context.MakeKestrelContextActive());

    CallLog log;
    context.DestroyKestrelContext();
    context.DestroyKestrelContext();
    EXPECT_EQ(log.CallsOf("KestrelDestroyContext").size(), 1u);
    EXPECT_EQ(context.TheNullPrimitive(), nullptr);
    // One report for the recreate, one for the first teardown: counts go on.
    EXPECT_EQ(console.TextsOf(kCCK_PrintWarning),
              (std::vector<std::string>{kLeakHeading, "  IKSPrimitive count: 1\n", kLeakHeading,
                                        "  IKSPrimitive count: 1\n"}));
    delete dynamic_cast<KSPrimitive*>(leftover);
}

TEST(ContextTest, RefusedSwitchReassertsTheRayDepthOnTheCurrentContext)
{
    KestrelContextImp context(nullptr, false, false);
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    Kestrel::Testing::AutoFaults faults;
    Kestrel::Testing::InjectFault("KestrelSetCurrentContext");
    CallLog log;
    EXPECT_FALSE(context.MakeKestrelContextActive());
    // Once to read the maximum, once more inside SetRayDepthLimit.
    EXPECT_EQ(log.CallsOf("ksGetIntegerv"), (Calls{"ksGetIntegerv(KS_MAX_RAY_DEPTH, ptr)",
                                                   "ksGetIntegerv(KS_MAX_RAY_DEPTH, ptr)"}));
    // The value is whatever the current context's maximum is: none may be.
    EXPECT_EQ(log.CallsOf("ksFrameParameter1i").size(), 1u);
}

TEST_F(WrapperFixture, NotificationTexts)
{
    auto* imp = dynamic_cast<KestrelContextImp*>(_pContext);
    ASSERT_NE(imp, nullptr);
    imp->KestrelNotification(KS_RENDER_STOPPED, "frame stopped");
    imp->KestrelNotification(KS_RENDER_STOPPED, nullptr);
    imp->KestrelNotification(1282, nullptr);
    imp->KestrelNotification(1281, "ksBindBuffer: bad");
    EXPECT_EQ(_console.TextsOf(kCCK_PrintError),
              (std::vector<std::string>{"Kestrel Error 1282\n",
                                        "Kestrel Error 1281: ksBindBuffer: bad\n"}));
}

TEST_F(WrapperFixture, KestrelErrorsReachTheConsoleThroughTheCallback)
{
    Kestrel::Testing::RaiseError(KS_INVALID_OPERATION);
    EXPECT_TRUE(_pContext->ErrorCheck());
    const std::vector<std::string> errors = _console.TextsOf(kCCK_PrintError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].rfind("Kestrel Error 1282", 0), 0u) << errors[0]; // decimal
    EXPECT_EQ(errors[1], "Kestrel error 0x502 occurred.\n");              // hexadecimal
}

TEST_F(WrapperFixture, ErrorCheckTreatsAStopAsPendingButSilent)
{
    EXPECT_FALSE(_pContext->ErrorCheck());
    Kestrel::Testing::RaiseError(KS_RENDER_STOPPED);
    EXPECT_TRUE(_pContext->ErrorCheck());
    EXPECT_FALSE(_pContext->ErrorCheck());
    EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{});
}

TEST(ContextTest, ErrorCheckWithoutConsoleGivesTheSameAnswer)
{
    KestrelContextImp context(nullptr, false, false);
    ASSERT_TRUE(context.CreateKestrelContext(false, nullptr));
    ASSERT_TRUE(context.MakeKestrelContextActive());
    Kestrel::Testing::RaiseError(KS_INVALID_VALUE);
    EXPECT_TRUE(context.ErrorCheck());
    EXPECT_FALSE(context.ErrorCheck());
}

TEST_F(WrapperFixture, FactoryMakesAndTakesBackPrimitives)
{
    EXPECT_FALSE(_pContext->DestroyIKSPrimitive(nullptr));
    IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
    ASSERT_NE(primitive, nullptr);
    EXPECT_NE(primitive->GetHandle(), 0u);
    EXPECT_TRUE(_pContext->DestroyIKSPrimitive(primitive));
    EXPECT_NO_KS_ERROR();
}

TEST(LeakReportTest, CrossContextDestroyMovesBothCounts)
{
    RecordingConsole consoleA;
    RecordingConsole consoleB;
    IMgrKestrel* manager = GetMgrKestrel();
    IKestrelContext* a = manager->CreateKestrelContext(&consoleA, false, true, nullptr);
    IKestrelContext* b = manager->CreateKestrelContext(&consoleB, false, true, nullptr);
    ASSERT_TRUE(manager->SetCurrentKestrelContext(a));

    IKSPrimitive* primitive = a->CreateIKSPrimitive();
    EXPECT_TRUE(b->DestroyIKSPrimitive(primitive));
    manager->DestroyKestrelContext(a);
    manager->DestroyKestrelContext(b);

    EXPECT_EQ(consoleA.TextsOf(kCCK_PrintWarning),
              (std::vector<std::string>{kLeakHeading, "  IKSPrimitive count: 1\n"}));
    EXPECT_EQ(consoleB.TextsOf(kCCK_PrintWarning),
              (std::vector<std::string>{kLeakHeading, "  IKSPrimitive count: -1\n"}));
    EXPECT_EQ(consoleA.CountOf(kCCK_PrintError), 0u);
}

TEST(LeakReportTest, CleanContextPrintsNothing)
{
    RecordingConsole console;
    IMgrKestrel* manager = GetMgrKestrel();
    IKestrelContext* context = manager->CreateKestrelContext(&console, false, true, nullptr);
    ASSERT_TRUE(manager->SetCurrentKestrelContext(context));
    context->DestroyIKSPrimitive(context->CreateIKSPrimitive());
    manager->DestroyKestrelContext(context);
    EXPECT_EQ(console.Calls(), std::vector<ConsoleCall>{});
}
