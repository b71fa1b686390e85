// Result: printf-style collection of text.
#include "CoreInterfaces/Result.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace
{

TEST(CoreResult, AddFormatsAndAppends)
{
    const struct
    {
        const char* sName;
        std::function<void(Vireo::Result&)> add;
        std::string sExpected;
    } rows[] = {
        {"formats", [](Vireo::Result& r) { r.Add("%d-%s-%#x", 3, "ab", 255); }, "3-ab-0xff"},
        {"appends to what is there",
         [](Vireo::Result& r)
         {
             r.Add("one ");
             r.Add("two %d", 2);
             r.Add("%s", "");
             r.Add("\n");
         },
         "one two 2\n"},
        {"a percent sign passed as an argument stays literal",
         [](Vireo::Result& r) { r.Add("%s", "100% done %d %s %n"); }, "100% done %d %s %n"},
        {"a literal percent in the format", [](Vireo::Result& r) { r.Add("%d%%", 50); }, "50%"},
    };
    for (const auto& row : rows)
    {
        Vireo::Result result;
        row.add(result);
        EXPECT_EQ(row.sExpected, result.GetText()) << row.sName;
    }
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
