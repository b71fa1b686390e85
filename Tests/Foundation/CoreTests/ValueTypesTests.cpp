// Value types: runs of components as Kestrel reads them, and Vector2f's
// exported setters.
#include "Foundation/ValueTypes.h"

#include <gtest/gtest.h>

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
    EXPECT_NE((Vireo::Matrix33f{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}), Vireo::Matrix33f{});
    // Corners are not reordered: a reversed rectangle measures negative.
    for (const int nSign : {1, -1})
    {
        const Vireo::Rect2i rect =
            nSign > 0 ? Vireo::Rect2i{{2, 3}, {10, 7}} : Vireo::Rect2i{{10, 7}, {2, 3}};
        EXPECT_EQ(8 * nSign, rect.Width());
        EXPECT_EQ(4 * nSign, rect.Height());
    }
}

// Every setter, from a start that none of them leaves alone, with x and y
// different so that a swap shows. Each component is narrowed by itself, to
// the nearest float.
TEST(Vector2f, SettersWriteEachComponentToTheNearestFloat)
{
    const float fNaN = std::numeric_limits<float>::quiet_NaN();
    const float fInf = std::numeric_limits<float>::infinity();
    const Vector2f source{-0.0f, fNaN};
    const struct
    {
        const char* sName;
        void (*set)(Vector2f&, const Vector2f&);
        float fX, fY;
    } rows[] = {
        {"ints", [](Vector2f& v, const Vector2f&) { v.Set(16777217, -2147483647 - 1); },
         16777216.0f, -2147483648.0f},
        {"doubles", [](Vector2f& v, const Vector2f&) { v.Set(0.1, 1e40); }, 0.1f, fInf},
        {"tiny doubles", [](Vector2f& v, const Vector2f&) { v.Set(-1e-50, 16777217.0); }, -0.0f,
         16777216.0f},
        {"floats", [](Vector2f& v, const Vector2f& s) { v.Set(s.x, s.y); }, -0.0f, fNaN},
        {"vector", [](Vector2f& v, const Vector2f& s) { v.Set(s); }, -0.0f, fNaN},
        {"origin", [](Vector2f& v, const Vector2f&) { v.Origin(); }, 0.0f, 0.0f},
    };
    for (const auto& row : rows)
    {
        Vector2f v{7.0f, 3.5f};
        row.set(v, source);
        EXPECT_EQ(Bits(row.fX), Bits(v.x)) << row.sName;
        EXPECT_EQ(Bits(row.fY), Bits(v.y)) << row.sName;
    }
}

} // namespace
