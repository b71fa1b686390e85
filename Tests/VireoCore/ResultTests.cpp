// Result: printf-style collection of text.
#include "CoreInterfaces/Result.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

TEST(CoreResult, AddFormatsAndAppends)
{
    Vireo::Result result;
    EXPECT_TRUE(result.Add("%d-%s-%#x ", 3, "ab", 255));
    result.Add("two %d", 2);
    result.Add("%s", "");
    result.Add("\n");
    EXPECT_EQ("3-ab-0xff two 2\n", result.GetText());
}

// Lengths around every power of two up to a few kilobytes, so that whatever
// buffer the formatting starts with, its edges are crossed.
TEST(CoreResult, EveryLengthArrivesWhole)
{
    for (std::size_t nBase = 1; nBase <= 8192; nBase *= 2)
    {
        for (std::size_t nLength : {nBase - 1, nBase, nBase + 1})
        {
            Vireo::Result result;
            result.Add("ab");
            const std::string text(nLength, 'z');
            EXPECT_TRUE(result.Add("%s", text.c_str()));
            ASSERT_EQ("ab" + text, result.GetText()) << "length " << nLength;
        }
    }
}

} // namespace
