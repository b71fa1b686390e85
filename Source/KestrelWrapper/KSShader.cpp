// Placeholder: the context's pair for this family gives null/false until the
// family's classes land.
#include "KestrelWrapper/KestrelContextImp.h"

namespace Vireo
{

IKSShader* KestrelContextImp::CreateIKSShader(IKSShader::Type)
{
    return nullptr;
}

bool KestrelContextImp::DestroyIKSShader(IKSShader*)
{
    return false;
}

} // namespace Vireo
