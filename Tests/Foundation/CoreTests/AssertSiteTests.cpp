// Assertion sites: latches, answers and the debugger break.
#include "Foundation/AssertSite.h"
#include "Support/RecordingConsole.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using Vireo::Testing::AssertCall;
using Vireo::Testing::AutoInstallAssertHandler;
using Vireo::Testing::RecordingAssertHandler;

int g_nEvaluations = 0;

bool Counted(bool bValue)
{
    ++g_nEvaluations;
    return bValue;
}

// Each instantiation is a site of its own, with its own latch, and all share
// one text, as sister sites do.
template <int N>
void SharedTextSite(bool bCondition)
{
    VIREO_ASSERT_SITE(Counted(bCondition), "eFormat < IKSTexImage::kTF_Count", 51,
                      "Source/KestrelWrapper/KSTexImage");
}

// Each row is a site of its own, in order, so a latch shared between sites
// would silence the rows after the one that answers 1.
TEST(AssertSite, HandlerAnswerDecidesWhetherTheSiteAsksAgain)
{
    const struct
    {
        int nAnswer;
        void (*pSite)(bool);
        std::size_t nExpectedCalls; // after three failures
    } rows[] = {
        {Vireo::IAssertHandler::kAnswer_Continue, &SharedTextSite<0>, 3},
        {Vireo::IAssertHandler::kAnswer_Ignore, &SharedTextSite<1>, 1},
        {Vireo::IAssertHandler::kAnswer_Break, &SharedTextSite<2>, 3}, // no debugger: go on
        {3, &SharedTextSite<3>, 3},
        {-1, &SharedTextSite<4>, 3},
    };
    if (Vireo::IsDebuggerAttached())
        GTEST_SKIP() << "answer 2 would stop in the debugger";

    const AssertCall expected{"eFormat < IKSTexImage::kTF_Count", 51,
                              "Source/KestrelWrapper/KSTexImage", 0};
    for (const auto& row : rows)
    {
        RecordingAssertHandler handler(row.nAnswer);
        AutoInstallAssertHandler install(&handler);
        g_nEvaluations = 0;
        // A holding condition first: it must neither ask nor set the latch.
        row.pSite(true);
        for (int i = 0; i < 3; ++i)
            row.pSite(false);
        EXPECT_EQ(std::vector<AssertCall>(row.nExpectedCalls, expected), handler.Calls())
            << "answer " << row.nAnswer;
        // The condition is evaluated once per pass, latched or not.
        EXPECT_EQ(4, g_nEvaluations) << "answer " << row.nAnswer;
    }
}

// Under a tracer, answer 2 stops with SIGTRAP; once resumed the program goes
// on past the site, and the latch is left alone. The child is traced by this
// process, which plays the debugger.
TEST(AssertSiteDebugger, BreakStopsUnderATracerAndResumes)
{
    enum ChildExit
    {
        kCE_Ok = 0,
        kCE_WrongCalls = 1,
        kCE_NoTracerSeen = 2,
        kCE_CannotTrace = 3,
    };

    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0)
    {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(kCE_CannotTrace);
        if (!Vireo::IsDebuggerAttached())
            _exit(kCE_NoTracerSeen);
        RecordingAssertHandler handler(Vireo::IAssertHandler::kAnswer_Break);
        AutoInstallAssertHandler install(&handler);
        int nAfter = 0;
        for (int i = 0; i < 2; ++i)
        {
            SharedTextSite<40>(false);
            ++nAfter;
        }
        _exit(handler.Calls().size() == 2 && nAfter == 2 ? kCE_Ok : kCE_WrongCalls);
    }

    int nTraps = 0;
    int status = 0;
    for (;;)
    {
        ASSERT_EQ(child, waitpid(child, &status, 0));
        if (!WIFSTOPPED(status))
            break;
        const int nSignal = WSTOPSIG(status);
        if (nSignal == SIGTRAP)
            ++nTraps;
        // Swallow the trap, as a debugger that continues would.
        ASSERT_EQ(0, ptrace(PTRACE_CONT, child, nullptr, nSignal == SIGTRAP ? 0 : nSignal));
    }
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == kCE_CannotTrace)
        GTEST_SKIP() << "ptrace is not permitted here";
    EXPECT_EQ(kCE_Ok, WEXITSTATUS(status));
    EXPECT_EQ(2, nTraps);
}

} // namespace
