// Placeholder: the context's pair for this family gives null/false until the
// family's classes land.
#include "KestrelWrapper/KestrelContextImp.h"

namespace Vireo
{

IKSProgram* KestrelContextImp::CreateIKSProgram()
{
    return nullptr;
}

bool KestrelContextImp::DestroyIKSProgram(IKSProgram*)
{
    return false;
}

} // namespace Vireo
