// Placeholder: the context's pair for this family gives null/false until the
// family's classes land.
#include "KestrelWrapper/KestrelContextImp.h"

namespace Vireo
{

IKSTexImage2D* KestrelContextImp::CreateIKSTexImage2D()
{
    return nullptr;
}

bool KestrelContextImp::DestroyIKSTexImage2D(IKSTexImage2D*)
{
    return false;
}

} // namespace Vireo
