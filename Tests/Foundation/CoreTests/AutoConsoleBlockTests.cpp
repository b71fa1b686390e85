// AutoConsoleBlock: what a scoped block, and copies of it, tell the console.
#include "Foundation/AutoConsoleBlock.h"
#include "Support/RecordingConsole.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace
{

using Vireo::AutoConsoleBlock;
using Vireo::IConsole;
using Vireo::Testing::ConsoleCall;
using Vireo::Testing::kCCK_BeginBlock;
using Vireo::Testing::kCCK_EndBlock;
using Vireo::Testing::kCCK_Print;
using Vireo::Testing::RecordingConsole;

using Calls = std::vector<ConsoleCall>;

static_assert(std::is_copy_constructible<AutoConsoleBlock>::value &&
                  std::is_copy_assignable<AutoConsoleBlock>::value,
              "callers pass blocks by value");

TEST(AutoConsoleBlock, NestedBlocksOpenAndCloseWithTheirTextsAndLevel)
{
    RecordingConsole console;
    {
        std::string closeText = "outer close";
        AutoConsoleBlock outer(&console, IConsole::kVL_Detail, "outer open", closeText);
        closeText = "changed after construction";
        {
            AutoConsoleBlock inner(&console, IConsole::kVL_Trace, "inner open", "inner close");
            console.Print("work");
            EXPECT_EQ(2, console.GetBlockDepth());
        }
    }
    EXPECT_EQ((Calls{{kCCK_BeginBlock, "outer open", IConsole::kVL_Detail},
                     {kCCK_BeginBlock, "inner open", IConsole::kVL_Trace},
                     {kCCK_Print, "work"},
                     {kCCK_EndBlock, "inner close", IConsole::kVL_Trace},
                     {kCCK_EndBlock, "outer close", IConsole::kVL_Detail}}),
              console.Calls());
}

TEST(AutoConsoleBlock, CopyOpensNothingAndClosesAgain)
{
    RecordingConsole console;
    {
        AutoConsoleBlock original(&console, IConsole::kVL_Normal, "open", "close");
        {
            AutoConsoleBlock copy(original);
            EXPECT_EQ(1u, console.Calls().size()) << "copying must not call the console";
        }
        EXPECT_EQ((Calls{{kCCK_BeginBlock, "open"}, {kCCK_EndBlock, "close"}}), console.Calls());
    }
    EXPECT_EQ(
        (Calls{{kCCK_BeginBlock, "open"}, {kCCK_EndBlock, "close"}, {kCCK_EndBlock, "close"}}),
        console.Calls());
}

TEST(AutoConsoleBlock, AssignmentTakesConsoleLevelAndCloseTextSilently)
{
    RecordingConsole first;
    RecordingConsole second;
    {
        AutoConsoleBlock target(&second, IConsole::kVL_Trace, "second open", "second close");
        {
            AutoConsoleBlock source(&first, IConsole::kVL_Detail, "first open", "first close");
            target = source;
            EXPECT_EQ(1u, first.Calls().size());
            EXPECT_EQ(1u, second.Calls().size());
        }
    }
    // Both now close on the first console; the second never sees its block
    // closed.
    EXPECT_EQ((Calls{{kCCK_BeginBlock, "first open", IConsole::kVL_Detail},
                     {kCCK_EndBlock, "first close", IConsole::kVL_Detail},
                     {kCCK_EndBlock, "first close", IConsole::kVL_Detail}}),
              first.Calls());
    EXPECT_EQ((Calls{{kCCK_BeginBlock, "second open", IConsole::kVL_Trace}}), second.Calls());
}

} // namespace
