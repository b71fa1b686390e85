// Placeholder: the context's pair for this family gives null/false until the
// family's classes land.
#include "KestrelWrapper/KestrelContextImp.h"

namespace Vireo
{

IKSFrameBuffer* KestrelContextImp::CreateIKSFrameBuffer()
{
    return nullptr;
}

bool KestrelContextImp::DestroyIKSFrameBuffer(IKSFrameBuffer*)
{
    return false;
}

} // namespace Vireo
