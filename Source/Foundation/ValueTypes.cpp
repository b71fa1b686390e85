#include "Foundation/ValueTypes.h"

namespace Vireo
{

void Vector2f::Origin()
{
    x = 0.0f;
    y = 0.0f;
}

void Vector2f::Set(const Vector2f& other)
{
    x = other.x;
    y = other.y;
}

void Vector2f::Set(int nX, int nY)
{
    x = static_cast<float>(nX);
    y = static_cast<float>(nY);
}

void Vector2f::Set(float fX, float fY)
{
    x = fX;
    y = fY;
}

void Vector2f::Set(double dX, double dY)
{
    x = static_cast<float>(dX);
    y = static_cast<float>(dY);
}

} // namespace Vireo
