// Value types: rectangles measured between corners, and Vector2f's exported
// setters. Their layout is pinned by static_asserts beside the types.
#include "Foundation/ValueTypes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>

namespace
{

using Vireo::Vector2f;

std::uint32_t Bits(float f)
{
    std::uint32_t n;
    std::memcpy(&n, &f, sizeof(n));
    return n;
}

// Corners are not reordered: a reversed rectangle measures negative.
TEST(Rect2i, MeasuresFromItsFirstCornerToTheOther)
{
    const Vireo::Rect2i rect{{2, 3}, {10, 7}};
    EXPECT_EQ(8, rect.Width());
    EXPECT_EQ(4, rect.Height());
    const Vireo::Rect2i reversed{{10, 7}, {2, 3}};
    EXPECT_EQ(-8, reversed.Width());
    EXPECT_EQ(-4, reversed.Height());
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
