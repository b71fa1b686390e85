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

// A copy opens nothing and closes again; an assigned block takes the
// source's console, level and close text, and the console it had never sees
// its block closed.
TEST(AutoConsoleBlock, EachBlockOpensOnceAndEachCopyClosesLikeItsSource)
{
    RecordingConsole console;
    RecordingConsole other;
    {
        std::string closeText = "outer close";
        AutoConsoleBlock outer(&console, IConsole::kVL_Detail, "outer open", closeText);
        closeText = "changed after construction";
        {
            AutoConsoleBlock inner(&console, IConsole::kVL_Trace, "inner open", "inner close");
            console.Print("work");
        }
        AutoConsoleBlock target(&other, IConsole::kVL_Trace, "other open", "other close");
        AutoConsoleBlock copy(outer);
        target = outer;
    }
    const ConsoleCall close{kCCK_EndBlock, "outer close", IConsole::kVL_Detail};
    EXPECT_EQ((Calls{{kCCK_BeginBlock, "outer open", IConsole::kVL_Detail},
                     {kCCK_BeginBlock, "inner open", IConsole::kVL_Trace},
                     {kCCK_Print, "work"},
                     {kCCK_EndBlock, "inner close", IConsole::kVL_Trace},
                     close,
                     close,
                     close}),
              console.Calls());
    EXPECT_EQ((Calls{{kCCK_BeginBlock, "other open", IConsole::kVL_Trace}}), other.Calls());
}

} // namespace
