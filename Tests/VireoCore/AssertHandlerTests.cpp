// The core library's default assertion handler and the handler slot.
#include "CoreInterfaces/VireoCore.h"
#include "Support/RecordingConsole.h"

#include <gtest/gtest.h>

namespace
{

using Vireo::Testing::ConsoleCall;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::RecordingConsole;

TEST(CoreAssertHandler, DefaultReportsOnTheProcessConsoleAndAnswersZeroUntilReplaced)
{
    const struct
    {
        const char* sExpression;
        int nLine;
        const char* sFile;
        const char* sExpected;
    } rows[] = {
        {"eFormat < IKSTexImage::kTF_Count", 51, "Source/KestrelWrapper/KSTexImage",
         "Assertion failed: eFormat < IKSTexImage::kTF_Count, file "
         "Source/KestrelWrapper/KSTexImage, line 51\n"},
        // The expression is text, never a format.
        {"n % 4 == 0 && \"%s\"", -3, "a%dfile",
         "Assertion failed: n % 4 == 0 && \"%s\", file "
         "a%dfile, line -3\n"},
        {nullptr, 0, nullptr, "Assertion failed: (null), file (null), line 0\n"},
    };

    Vireo::Testing::AutoInstallAssertHandler useDefault(nullptr);
    RecordingConsole console;
    Vireo::Testing::AutoInstallConsole install(&console);
    for (const auto& row : rows)
    {
        console.Clear();
        EXPECT_EQ(0, Vireo::GetActiveAssertHandler()->HandleAssert(row.sExpression, row.nLine,
                                                                   row.sFile, 0));
        EXPECT_EQ((std::vector<ConsoleCall>{{kCCK_PrintError, row.sExpected}}), console.Calls());
    }

    // A host's handler stands in for it until set back to none; that the
    // installed one is asked, the assertion-site tests show.
    Vireo::IAssertHandler* const pDefault = Vireo::GetActiveAssertHandler();
    Vireo::Testing::RecordingAssertHandler host;
    EXPECT_EQ(pDefault, Vireo::SetActiveAssertHandler(&host));
    EXPECT_EQ(&host, Vireo::SetActiveAssertHandler(nullptr));
    EXPECT_EQ(pDefault, Vireo::GetActiveAssertHandler());
}

} // namespace
