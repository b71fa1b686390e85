// The core library's default console, seen through standard error, and the
// process-wide console slot.
#include "CoreInterfaces/VireoCore.h"
#include "Support/RecordingConsole.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Vireo::IConsole;
using Vireo::IMgrConsole;

class CoreConsoleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        _pPrevious = Vireo::SetMgrConsole(nullptr);
        _pConsole = Vireo::GetMgrConsole();
        _eSavedVerbosity = _pConsole->GetVerbosity();
    }

    void TearDown() override
    {
        EXPECT_EQ(0, _pConsole->GetBlockDepth()) << "a test left a block open";
        _pConsole->SetVerbosity(_eSavedVerbosity);
        Vireo::SetMgrConsole(_pPrevious);
    }

    std::string Capture(const std::function<void(IMgrConsole&)>& work)
    {
        ::testing::internal::CaptureStderr();
        work(*_pConsole);
        return ::testing::internal::GetCapturedStderr();
    }

    IMgrConsole* _pConsole = nullptr;

private:
    IMgrConsole* _pPrevious = nullptr;
    IConsole::VerbosityLevel _eSavedVerbosity = IConsole::kVL_Normal;
};

using Printer = void (IMgrConsole::*)(const char*, ...);
using VPrinter = void (IMgrConsole::*)(const char*, va_list);

void CallV(IMgrConsole& console, VPrinter printer, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    (console.*printer)(format, arguments);
    va_end(arguments);
}

struct Kind
{
    Printer print;
    VPrinter vprint;
    std::string sPrefix;
    IConsole::VerbosityLevel eShownFrom;
};

const Kind kKinds[] = {
    {&IMgrConsole::Print, &IMgrConsole::VPrint, "", IConsole::kVL_Normal},
    {&IMgrConsole::PrintDetail, &IMgrConsole::VPrintDetail, "detail: ", IConsole::kVL_Detail},
    {&IMgrConsole::PrintTrace, &IMgrConsole::VPrintTrace, "trace: ", IConsole::kVL_Trace},
    {&IMgrConsole::PrintWarning, &IMgrConsole::VPrintWarning, "warning: ", IConsole::kVL_Quiet},
    {&IMgrConsole::PrintError, &IMgrConsole::VPrintError, "error: ", IConsole::kVL_Quiet},
};

TEST_F(CoreConsoleTest, EachKindHasItsPrefixAndShowsFromItsVerbosity)
{
    for (IConsole::VerbosityLevel eLevel :
         {IConsole::kVL_Quiet, IConsole::kVL_Normal, IConsole::kVL_Detail, IConsole::kVL_Trace})
    {
        _pConsole->SetVerbosity(eLevel);
        for (const Kind& kind : kKinds)
        {
            const bool bShown = kind.eShownFrom <= eLevel;
            const std::string expected = bShown ? kind.sPrefix + "n=7 x\n" : "";
            EXPECT_EQ(expected,
                      Capture([&kind](IMgrConsole& c) { (c.*kind.print)("n=%d %s\n", 7, "x"); }))
                << "verbosity " << eLevel << ", prefix '" << kind.sPrefix << "'";
            EXPECT_EQ(expected, Capture([&kind](IMgrConsole& c)
                                        { CallV(c, kind.vprint, "n=%d %s\n", 7, "x"); }))
                << "va_list form, verbosity " << eLevel << ", prefix '" << kind.sPrefix << "'";
        }
    }
}

// One session at verbosity normal: a block opened mid-line starts a line of
// its own; hidden blocks count in the depth but do not indent, and one hidden
// at open stays hidden at close; a surplus close, as from a copied scoped
// block, does not indent backwards.
TEST_F(CoreConsoleTest, BlocksIndentWhatIsShownAndStayBalanced)
{
    _pConsole->SetVerbosity(IConsole::kVL_Normal);
    const std::string output = Capture(
        [](IMgrConsole& c)
        {
            c.Print("partial");
            c.BeginBlock(IConsole::kVL_Normal, "outer\n");
            c.Print("a\n");
            c.BeginBlock(IConsole::kVL_Detail, "hidden");
            c.Print("b\n");
            c.BeginBlock(IConsole::kVL_Normal, "inner");
            EXPECT_EQ(3, c.GetBlockDepth());
            c.PrintError("c\nd\n");
            c.EndBlock(IConsole::kVL_Normal, "inner end");
            c.SetVerbosity(IConsole::kVL_Detail);
            c.EndBlock(IConsole::kVL_Detail, "hidden end");
            c.SetVerbosity(IConsole::kVL_Normal);
            c.EndBlock(IConsole::kVL_Normal, "outer end");
            c.EndBlock(IConsole::kVL_Normal, "close again");
            c.BeginBlock(IConsole::kVL_Normal, "next");
            c.Print("%s", "in");
            c.Print("\n");
            c.EndBlock(IConsole::kVL_Normal, "");
        });
    EXPECT_EQ("partial\nouter\n  a\n  b\n  inner\n    error: c\n    error: d\n  inner end\n"
              "outer end\nclose again\nnext\n  in\n",
              output);
}

TEST_F(CoreConsoleTest, LinesOfConcurrentWritersDoNotInterleave)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const std::string output = Capture(
        [](IMgrConsole& c)
        {
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t)
                threads.emplace_back(
                    [&c, t]
                    {
                        for (int i = 0; i < kLines; ++i)
                            c.PrintWarning("thread %d line %d of a message long enough\n", t, i);
                    });
            for (std::thread& thread : threads)
                thread.join();
        });

    std::istringstream lines(output);
    int nLines = 0;
    for (std::string line; std::getline(lines, line); ++nLines)
    {
        int nParsed = 0;
        std::sscanf(line.c_str(), "warning: thread %*d line %*d of a message long enough%n",
                    &nParsed);
        ASSERT_EQ(static_cast<int>(line.size()), nParsed) << "mixed line: " << line;
    }
    EXPECT_EQ(kThreads * kLines, nLines);
}

// That an installed console gets the messages, the assertion handler's test
// shows.
TEST_F(CoreConsoleTest, InstallingAnswersTheConsoleItReplaces)
{
    Vireo::Testing::RecordingConsole host;
    EXPECT_EQ(_pConsole, Vireo::SetMgrConsole(&host));
    EXPECT_EQ(&host, Vireo::SetMgrConsole(nullptr));
    EXPECT_EQ(_pConsole, Vireo::GetMgrConsole());
}

} // namespace
