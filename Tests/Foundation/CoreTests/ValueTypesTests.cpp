// Value types: runs of components as Kestrel reads them, and Vector2f's
// exported setters.
#include "Foundation/ValueTypes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace
{

using Vireo::Vector2f;

std::uint32_t Bits(float f)
{
    std::uint32_t n;
    std::memcpy(&n, &f, sizeof(n));
    return n;
}

// Reads a run of components 0, 1, 2, ... as an array of two T, the way
// Kestrel's arrays and ours must agree.
template <class T, class Component>
std::vector<T> FromRun()
{
    constexpr std::size_t kCount = 2 * sizeof(T) / sizeof(Component);
    Component run[kCount];
    for (std::size_t i = 0; i < kCount; ++i)
        run[i] = static_cast<Component>(i);
    std::vector<T> values(2);
    std::memcpy(values.data(), run, sizeof(run));
    return values;
}

TEST(ValueTypes, ArraysAreOneUnbrokenRunOfComponents)
{
    const auto v3 = FromRun<Vireo::Vector3f, float>();
    EXPECT_TRUE(v3[1].x == 3 && v3[1].y == 4 && v3[1].z == 5);
    const auto v4i = FromRun<Vireo::Vector4i, int>();
    EXPECT_TRUE(v4i[1].x == 4 && v4i[1].y == 5 && v4i[1].z == 6 && v4i[1].w == 7);
    const auto c3 = FromRun<Vireo::Color3f, float>();
    EXPECT_TRUE(c3[1].r == 3 && c3[1].g == 4 && c3[1].b == 5);
    // Rows are contiguous: m[row][column] is component row * N + column.
    const auto m3 = FromRun<Vireo::Matrix33f, float>();
    EXPECT_TRUE(m3[0].m[0][2] == 2 && m3[0].m[1][0] == 3 && m3[1].m[2][1] == 9 + 7);
    const auto m4 = FromRun<Vireo::Matrix44f, float>();
    EXPECT_TRUE(m4[0].m[1][0] == 4 && m4[1].m[3][2] == 16 + 14);
    const auto rect = FromRun<Vireo::Rect2i, int>();
    EXPECT_TRUE(rect[1].min.x == 4 && rect[1].min.y == 5 && rect[1].max.x == 6 &&
                rect[1].max.y == 7);
}

TEST(ValueTypes, DefaultsAreZeroAndRectMeasuresBetweenCorners)
{
    EXPECT_EQ((Vireo::Vector4f{0, 0, 0, 0}), Vireo::Vector4f{});
    EXPECT_EQ(Vireo::Matrix44f{}, Vireo::Matrix44f{});
    EXPECT_NE((Vireo::Matrix33f{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}), Vireo::Matrix33f{});

    const Vireo::Rect2i rect{{2, 3}, {10, 7}};
    EXPECT_EQ(8, rect.Width());
    EXPECT_EQ(4, rect.Height());
    // Corners are not reordered: a reversed rectangle measures negative.
    const Vireo::Rect2i reversed{{10, 7}, {2, 3}};
    EXPECT_EQ(-8, reversed.Width());
    EXPECT_EQ(-4, reversed.Height());
}

TEST(Vector2f, SetFromIntRoundsToNearestFloat)
{
    const struct
    {
        int nValue;
        float fExpected;
    } rows[] = {
        {123, 123.0f},
        {16777216, 16777216.0f}, // 2^24: the last exact run
        {16777217, 16777216.0f}, // tie, to even
        {16777219, 16777220.0f}, // tie, to even upwards
        {-16777217, -16777216.0f},
        {2147483647, 2147483648.0f}, // INT_MAX rounds up to 2^31
        {-2147483647 - 1, -2147483648.0f},
    };
    for (const auto& row : rows)
    {
        Vector2f v;
        v.Set(row.nValue, -row.nValue / 2);
        EXPECT_EQ(Bits(row.fExpected), Bits(v.x)) << row.nValue;
        EXPECT_EQ(Bits(static_cast<float>(-row.nValue / 2)), Bits(v.y)) << row.nValue;
    }
}

TEST(Vector2f, SetFromDoubleNarrowsEachComponentByItself)
{
    const struct
    {
        double dX, dY;
        float fX, fY;
    } rows[] = {
        {0.1, 1e40, 0.1f, std::numeric_limits<float>::infinity()},
        {1e-50, -1e-50, 0.0f, -0.0f},
        {16777217.0, -0.5, 16777216.0f, -0.5f},
        {-1e300, 3.4028234663852886e38, -std::numeric_limits<float>::infinity(),
         std::numeric_limits<float>::max()},
    };
    for (const auto& row : rows)
    {
        Vector2f v;
        v.Set(row.dX, row.dY);
        EXPECT_EQ(Bits(row.fX), Bits(v.x)) << row.dX;
        EXPECT_EQ(Bits(row.fY), Bits(v.y)) << row.dY;
    }
}

TEST(Vector2f, SetFromFloatsAndFromVectorKeepEveryBit)
{
    const float fNaN = std::numeric_limits<float>::quiet_NaN();
    Vector2f v;
    v.Set(-0.0f, fNaN);
    EXPECT_EQ(Bits(-0.0f), Bits(v.x));
    EXPECT_EQ(Bits(fNaN), Bits(v.y));

    Vector2f copy{1.0f, 2.0f};
    copy.Set(v);
    EXPECT_EQ(0, std::memcmp(&copy, &v, sizeof(v)));
}

TEST(Vector2f, OriginIsPositiveZero)
{
    for (Vector2f v : {Vector2f{-0.0f, -0.0f}, Vector2f{3.5f, std::nanf("")}, Vector2f{}})
    {
        v.Origin();
        EXPECT_FALSE(std::signbit(v.x));
        EXPECT_FALSE(std::signbit(v.y));
        EXPECT_EQ(Bits(0.0f), Bits(v.x));
        EXPECT_EQ(Bits(0.0f), Bits(v.y));
    }
}

} // namespace
