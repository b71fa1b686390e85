// The two class-wide trace flags, which no operation of the library writes
// (a host flips them from a debugger), set by the tests through the peer that
// both classes befriend.
#ifndef TESTS_SUPPORT_TRACE_FLAGS_H
#define TESTS_SUPPORT_TRACE_FLAGS_H

#include "KestrelWrapper/KSPrimitive.h"
#include "KestrelWrapper/KSShader.h"

namespace Vireo
{

struct TraceFlagsTestPeer
{
    // Levels other than those of KSShader::Trace print nothing.
    static void SetShaderTrace(int level)
    {
        KSShader::_eTrace = static_cast<KSShader::Trace>(level);
    }
    static void SetPrimitiveTrace(bool trace) { KSPrimitive::s_bTrace = trace; }
};

} // namespace Vireo

#endif // TESTS_SUPPORT_TRACE_FLAGS_H
