// The runtime's side of the testing interface: what every API call asks of
// the call log, the fault table and the render hook.
#ifndef KESTREL_INSTRUMENTATION_H
#define KESTREL_INSTRUMENTATION_H

#include "KestrelTesting.h"

#include <atomic>
#include <string>

namespace Kestrel
{

extern std::atomic<int> g_nLiveCallLogs;
extern std::atomic<int> g_nFaultEntries;

// Checked before anything is formatted, so that calls cost nothing extra
// while no log is alive.
inline bool CallLogActive()
{
    return g_nLiveCallLogs.load(std::memory_order_relaxed) != 0;
}
void RecordCall(const std::string& text);

struct FaultAction
{
    enum Mode
    {
        kFM_None,
        kFM_Fail,       // skip the work, then raise _nError
        kFM_ErrorAfter, // do the work, then raise _nError
    };
    Mode _eMode = kFM_None;
    int _nError = 0; // resolved: 0 raises nothing
};

// Takes one use of the oldest fault injected for `function`.
FaultAction TakeFault(const char* function);
inline FaultAction TakeFaultFast(const char* function)
{
    if (g_nFaultEntries.load(std::memory_order_acquire) == 0)
        return FaultAction();
    return TakeFault(function);
}

// The text a test put in place of ksGetString(name): false when there is
// no override; otherwise true with `text` null or pointing at the override.
bool StringOverride(int name, const char** text);

// A copy of the installed hook; empty when none is.
Testing::RenderHook CurrentRenderHook();
Testing::RenderHook CurrentBuildHook();

} // namespace Kestrel

#endif // KESTREL_INSTRUMENTATION_H
