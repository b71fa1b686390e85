#include "Foundation/AssertSite.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Vireo
{

bool IsDebuggerAttached()
{
#if defined(__linux__)
    std::FILE* pStatus = std::fopen("/proc/self/status", "r");
    if (pStatus == nullptr)
        return false;
    static const char kTracerKey[] = "TracerPid:";
    long nTracerPid = 0;
    char line[256];
    // Long lines arrive in pieces; only a piece that starts a line may hold
    // the key.
    bool bLineStart = true;
    while (std::fgets(line, sizeof(line), pStatus) != nullptr)
    {
        if (bLineStart && std::strncmp(line, kTracerKey, sizeof(kTracerKey) - 1) == 0)
        {
            nTracerPid = std::strtol(line + sizeof(kTracerKey) - 1, nullptr, 10);
            break;
        }
        bLineStart = std::strchr(line, '\n') != nullptr;
    }
    std::fclose(pStatus);
    return nTracerPid != 0;
#else
    return false;
#endif
}

void BreakIfDebuggerAttached()
{
#if defined(SIGTRAP)
    // Without a debugger, SIGTRAP would end the process.
    if (IsDebuggerAttached())
        std::raise(SIGTRAP);
#endif
}

} // namespace Vireo
