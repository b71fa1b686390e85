/// \file
/// Value types of the wrapper's interface: vectors, matrices, colours and a
/// rectangle. Each holds nothing but its components, tightly packed, so that
/// an array of them can go to Kestrel as one run of float or int.
///
/// All are aggregates: `Vector3f v{1.0f, 2.0f, 3.0f}`; default construction
/// gives zeros.
#ifndef VIREO_FOUNDATION_VALUETYPES_H
#define VIREO_FOUNDATION_VALUETYPES_H

#include "VireoExport.h"

#include <cstddef>
#include <type_traits>

namespace Vireo
{

/// A point or direction in the plane, in floats.
struct Vector2f
{
    float x = 0.0f; ///< Horizontal component.
    float y = 0.0f; ///< Vertical component.

    /// Both components to positive zero.
    VIREO_EXPORT void Origin();
    /// Copies both components of `other`.
    VIREO_EXPORT void Set(const Vector2f& other);
    /// Each to the nearest float: beyond 2^24 the low bits are lost.
    VIREO_EXPORT void Set(int nX, int nY);
    /// Sets both components.
    VIREO_EXPORT void Set(float fX, float fY);
    /// Narrows each component by itself.
    VIREO_EXPORT void Set(double dX, double dY);
};

/// A point, direction or colour triple in floats, as shader uniforms take it.
struct Vector3f
{
    float x = 0.0f; ///< First component.
    float y = 0.0f; ///< Second component.
    float z = 0.0f; ///< Third component.
};

/// Four floats, as vec4 uniforms take them.
struct Vector4f
{
    float x = 0.0f; ///< First component.
    float y = 0.0f; ///< Second component.
    float z = 0.0f; ///< Third component.
    float w = 0.0f; ///< Fourth component.
};

/// Two ints: a pixel position or a size.
struct Vector2i
{
    int x = 0; ///< Horizontal component.
    int y = 0; ///< Vertical component.
};

/// Three ints, as ivec3 uniforms take them.
struct Vector3i
{
    int x = 0; ///< First component.
    int y = 0; ///< Second component.
    int z = 0; ///< Third component.
};

/// Four ints, as ivec4 uniforms take them.
struct Vector4i
{
    int x = 0; ///< First component.
    int y = 0; ///< Second component.
    int z = 0; ///< Third component.
    int w = 0; ///< Fourth component.
};

/// m[row][column]; rows are contiguous, row after row.
struct Matrix33f
{
    float m[3][3] = {}; ///< The elements, m[row][column].
};

/// A 4 x 4 matrix of floats, m[row][column]; rows are contiguous.
struct Matrix44f
{
    float m[4][4] = {}; ///< The elements, m[row][column].
};

/// A colour without alpha.
struct Color3f
{
    float r = 0.0f; ///< Red.
    float g = 0.0f; ///< Green.
    float b = 0.0f; ///< Blue.
};

/// A colour with alpha, e.g. the clear value of an attachment.
struct Color4f
{
    float r = 0.0f; ///< Red.
    float g = 0.0f; ///< Green.
    float b = 0.0f; ///< Blue.
    float a = 0.0f; ///< Alpha.
};

/// Stored by two opposite corners, not by corner and size.
template <class V, class T>
struct Rect2
{
    V min{}; ///< The corner with the smaller coordinates.
    V max{}; ///< The opposite corner.

    /// Extent along x: max.x - min.x.
    T Width() const { return max.x - min.x; }
    /// Extent along y: max.y - min.y.
    T Height() const { return max.y - min.y; }
};

/// A rectangle of pixels, e.g. a viewport or a render region.
using Rect2i = Rect2<Vector2i, int>;

/// ame Comparison
/// @{

/// Exact, component by component: -0 equals +0 and NaN equals nothing.
inline bool operator==(const Vector2f& a, const Vector2f& b)
{
    return a.x == b.x && a.y == b.y;
}
inline bool operator==(const Vector3f& a, const Vector3f& b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z;
}
inline bool operator==(const Vector4f& a, const Vector4f& b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w;
}
inline bool operator==(const Vector2i& a, const Vector2i& b)
{
    return a.x == b.x && a.y == b.y;
}
inline bool operator==(const Vector3i& a, const Vector3i& b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z;
}
inline bool operator==(const Vector4i& a, const Vector4i& b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w;
}
inline bool operator==(const Color3f& a, const Color3f& b)
{
    return a.r == b.r && a.g == b.g && a.b == b.b;
}
inline bool operator==(const Color4f& a, const Color4f& b)
{
    return a.r == b.r && a.g == b.g && a.b == b.b && a.a == b.a;
}
namespace Detail
{
template <std::size_t N>
inline bool MatrixEquals(const float (&a)[N][N], const float (&b)[N][N])
{
    for (std::size_t row = 0; row < N; ++row)
        for (std::size_t column = 0; column < N; ++column)
            if (!(a[row][column] == b[row][column]))
                return false;
    return true;
}
} // namespace Detail
inline bool operator==(const Matrix33f& a, const Matrix33f& b)
{
    return Detail::MatrixEquals(a.m, b.m);
}
inline bool operator==(const Matrix44f& a, const Matrix44f& b)
{
    return Detail::MatrixEquals(a.m, b.m);
}
template <class V, class T>
inline bool operator==(const Rect2<V, T>& a, const Rect2<V, T>& b)
{
    return a.min == b.min && a.max == b.max;
}

/// Defines operator!= of a value type as the negation of its operator==.
#define VIREO_VALUE_TYPE_NOT_EQUAL(Type)                                                           \
    inline bool operator!=(const Type& a, const Type& b)                                           \
    {                                                                                              \
        return !(a == b);                                                                          \
    }
VIREO_VALUE_TYPE_NOT_EQUAL(Vector2f)
VIREO_VALUE_TYPE_NOT_EQUAL(Vector3f)
VIREO_VALUE_TYPE_NOT_EQUAL(Vector4f)
VIREO_VALUE_TYPE_NOT_EQUAL(Vector2i)
VIREO_VALUE_TYPE_NOT_EQUAL(Vector3i)
VIREO_VALUE_TYPE_NOT_EQUAL(Vector4i)
VIREO_VALUE_TYPE_NOT_EQUAL(Matrix33f)
VIREO_VALUE_TYPE_NOT_EQUAL(Matrix44f)
VIREO_VALUE_TYPE_NOT_EQUAL(Color3f)
VIREO_VALUE_TYPE_NOT_EQUAL(Color4f)
#undef VIREO_VALUE_TYPE_NOT_EQUAL
template <class V, class T>
inline bool operator!=(const Rect2<V, T>& a, const Rect2<V, T>& b)
{
    return !(a == b);
}
/// @}

/// The layout promise: components only, in order, with no padding, and safe
/// to copy as bytes.
#define VIREO_VALUE_TYPE_LAYOUT(Type, Component, Count)                                            \
    static_assert(sizeof(Type) == (Count) * sizeof(Component), #Type " must be tightly packed");   \
    static_assert(alignof(Type) == alignof(Component), #Type " must align like its components");   \
    static_assert(std::is_standard_layout<Type>::value, #Type " must be standard-layout");         \
    static_assert(std::is_trivially_copyable<Type>::value, #Type " must be trivially copyable")

VIREO_VALUE_TYPE_LAYOUT(Vector2f, float, 2);
VIREO_VALUE_TYPE_LAYOUT(Vector3f, float, 3);
VIREO_VALUE_TYPE_LAYOUT(Vector4f, float, 4);
VIREO_VALUE_TYPE_LAYOUT(Vector2i, int, 2);
VIREO_VALUE_TYPE_LAYOUT(Vector3i, int, 3);
VIREO_VALUE_TYPE_LAYOUT(Vector4i, int, 4);
VIREO_VALUE_TYPE_LAYOUT(Matrix33f, float, 9);
VIREO_VALUE_TYPE_LAYOUT(Matrix44f, float, 16);
VIREO_VALUE_TYPE_LAYOUT(Color3f, float, 3);
VIREO_VALUE_TYPE_LAYOUT(Color4f, float, 4);
VIREO_VALUE_TYPE_LAYOUT(Rect2i, int, 4);
#undef VIREO_VALUE_TYPE_LAYOUT

static_assert(sizeof(int) == 4, "Kestrel takes 32-bit int components");

static_assert(offsetof(Vector4f, x) == 0 && offsetof(Vector4f, y) == 4 &&
                  offsetof(Vector4f, z) == 8 && offsetof(Vector4f, w) == 12,
              "Vector4f components in order x, y, z, w");
static_assert(offsetof(Vector3f, x) == 0 && offsetof(Vector3f, y) == 4 &&
                  offsetof(Vector3f, z) == 8,
              "Vector3f components in order x, y, z");
static_assert(offsetof(Vector2f, x) == 0 && offsetof(Vector2f, y) == 4,
              "Vector2f components in order x, y");
static_assert(offsetof(Vector4i, x) == 0 && offsetof(Vector4i, y) == 4 &&
                  offsetof(Vector4i, z) == 8 && offsetof(Vector4i, w) == 12,
              "Vector4i components in order x, y, z, w");
static_assert(offsetof(Vector3i, x) == 0 && offsetof(Vector3i, y) == 4 &&
                  offsetof(Vector3i, z) == 8,
              "Vector3i components in order x, y, z");
static_assert(offsetof(Vector2i, x) == 0 && offsetof(Vector2i, y) == 4,
              "Vector2i components in order x, y");
static_assert(offsetof(Color4f, r) == 0 && offsetof(Color4f, g) == 4 && offsetof(Color4f, b) == 8 &&
                  offsetof(Color4f, a) == 12,
              "Color4f components in order r, g, b, a");
static_assert(offsetof(Color3f, r) == 0 && offsetof(Color3f, g) == 4 && offsetof(Color3f, b) == 8,
              "Color3f components in order r, g, b");
static_assert(offsetof(Rect2i, min) == 0 && offsetof(Rect2i, max) == 8,
              "Rect2 holds its first corner, then the opposite one");

} // namespace Vireo

#endif // VIREO_FOUNDATION_VALUETYPES_H
