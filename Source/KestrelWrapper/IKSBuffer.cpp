// Placeholder: the context's pair for this family gives null/false until the
// family's classes land.
#include "KestrelWrapper/KestrelContextImp.h"

namespace Vireo
{

IKSBuffer* KestrelContextImp::CreateIKSBuffer()
{
    return nullptr;
}

bool KestrelContextImp::DestroyIKSBuffer(IKSBuffer*)
{
    return false;
}

} // namespace Vireo
