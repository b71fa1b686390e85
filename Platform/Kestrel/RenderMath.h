// Small vector and matrix types of the renderer. Single precision: rays and
// hits are floats in the ray tracing kernels as well.
#ifndef KESTREL_RENDER_MATH_H
#define KESTREL_RENDER_MATH_H

#include <algorithm>
#include <cmath>

namespace Kestrel
{

constexpr float kPi = 3.14159265358979323846f;

struct Vec3
{
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    constexpr Vec3() = default;
    constexpr Vec3(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
    explicit constexpr Vec3(float s) : x(s), y(s), z(s) {}

    float operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }
    Vec3 operator-() const { return {-x, -y, -z}; }
    Vec3& operator+=(const Vec3& o)
    {
        x += o.x;
        y += o.y;
        z += o.z;
        return *this;
    }
    Vec3& operator*=(const Vec3& o)
    {
        x *= o.x;
        y *= o.y;
        z *= o.z;
        return *this;
    }
    Vec3& operator*=(float s)
    {
        x *= s;
        y *= s;
        z *= s;
        return *this;
    }
};

inline Vec3 operator+(const Vec3& a, const Vec3& b)
{
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(const Vec3& a, const Vec3& b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
// Component by component: colours and throughputs.
inline Vec3 operator*(const Vec3& a, const Vec3& b)
{
    return {a.x * b.x, a.y * b.y, a.z * b.z};
}
inline Vec3 operator*(const Vec3& a, float s)
{
    return {a.x * s, a.y * s, a.z * s};
}
inline Vec3 operator*(float s, const Vec3& a)
{
    return a * s;
}
inline Vec3 operator/(const Vec3& a, float s)
{
    return a * (1.0f / s);
}
inline float Dot(const Vec3& a, const Vec3& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vec3 Cross(const Vec3& a, const Vec3& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float Length(const Vec3& a)
{
    return std::sqrt(Dot(a, a));
}
// The zero vector stays zero rather than becoming NaN.
inline Vec3 Normalize(const Vec3& a)
{
    const float length = Length(a);
    return length > 0.0f ? a / length : Vec3();
}
inline float MaxComponent(const Vec3& a)
{
    return std::max(a.x, std::max(a.y, a.z));
}
inline float MaxAbsComponent(const Vec3& a)
{
    return std::max(std::fabs(a.x), std::max(std::fabs(a.y), std::fabs(a.z)));
}
inline bool IsFinite(const Vec3& a)
{
    return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z);
}
inline Vec3 Min(const Vec3& a, const Vec3& b)
{
    return {std::min(a.x, b.x), std::min(a.y, b.y), std::min(a.z, b.z)};
}
inline Vec3 Max(const Vec3& a, const Vec3& b)
{
    return {std::max(a.x, b.x), std::max(a.y, b.y), std::max(a.z, b.z)};
}

// Two unit vectors that make a right-handed frame with the unit vector n.
inline void OrthonormalBasis(const Vec3& n, Vec3* t, Vec3* b)
{
    // Branch-free frame; exact for every unit n, including the poles.
    const float sign = std::copysign(1.0f, n.z);
    const float a = -1.0f / (sign + n.z);
    const float c = n.x * n.y * a;
    *t = Vec3(1.0f + sign * n.x * n.x * a, sign * c, -sign * n.x);
    *b = Vec3(c, sign + n.y * n.y * a, -n.y);
}

// The top three rows of a 4 x 4 matrix that moves points: the projective
// row of the shading language's mat4 is ignored.
struct Affine
{
    float m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};

    // From a column-major mat4 as uniforms store it.
    static Affine FromColumnMajor(const float* values)
    {
        Affine a;
        for (int row = 0; row < 3; ++row)
            for (int column = 0; column < 4; ++column)
                a.m[row][column] = values[column * 4 + row];
        return a;
    }

    Vec3 Point(const Vec3& p) const
    {
        return {m[0][0] * p.x + m[0][1] * p.y + m[0][2] * p.z + m[0][3],
                m[1][0] * p.x + m[1][1] * p.y + m[1][2] * p.z + m[1][3],
                m[2][0] * p.x + m[2][1] * p.y + m[2][2] * p.z + m[2][3]};
    }
    Vec3 Vector(const Vec3& v) const
    {
        return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
                m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }
    // The linear part transposed times v: applied to an inverse, it carries
    // normals the way the forward matrix carries points.
    Vec3 TransposedVector(const Vec3& v) const
    {
        return {m[0][0] * v.x + m[1][0] * v.y + m[2][0] * v.z,
                m[0][1] * v.x + m[1][1] * v.y + m[2][1] * v.z,
                m[0][2] * v.x + m[1][2] * v.y + m[2][2] * v.z};
    }
    float Determinant() const
    {
        return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
               m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    }
    bool IsFinite() const
    {
        for (const auto& row : m)
            for (float value : row)
                if (!std::isfinite(value))
                    return false;
        return true;
    }
    // False for a singular matrix, which has no inverse to trace rays in.
    bool Invert(Affine* inverse) const
    {
        const float a = m[0][0], b = m[0][1], c = m[0][2];
        const float d = m[1][0], e = m[1][1], f = m[1][2];
        const float g = m[2][0], h = m[2][1], i = m[2][2];
        const float c00 = e * i - f * h, c01 = c * h - b * i, c02 = b * f - c * e;
        const float c10 = f * g - d * i, c11 = a * i - c * g, c12 = c * d - a * f;
        const float c20 = d * h - e * g, c21 = b * g - a * h, c22 = a * e - b * d;
        const float determinant = a * c00 + b * c10 + c * c20;
        if (!std::isfinite(determinant) || std::fabs(determinant) < 1e-20f)
            return false;
        const float s = 1.0f / determinant;
        const float linear[3][3] = {
            {c00 * s, c01 * s, c02 * s}, {c10 * s, c11 * s, c12 * s}, {c20 * s, c21 * s, c22 * s}};
        for (int row = 0; row < 3; ++row)
        {
            for (int column = 0; column < 3; ++column)
                inverse->m[row][column] = linear[row][column];
            inverse->m[row][3] =
                -(linear[row][0] * m[0][3] + linear[row][1] * m[1][3] + linear[row][2] * m[2][3]);
        }
        return inverse->IsFinite();
    }
};

} // namespace Kestrel

#endif // KESTREL_RENDER_MATH_H
