// Assertion sites: a failed condition goes to the active assertion handler of
// the core library, and each site stops asking once the handler says so.
#ifndef VIREO_FOUNDATION_ASSERTSITE_H
#define VIREO_FOUNDATION_ASSERTSITE_H

#include "CoreInterfaces/VireoCore.h"
#include "VireoExport.h"

namespace Vireo
{

// True when a debugger traces this process. On platforms where that cannot
// be told, false.
VIREO_EXPORT bool IsDebuggerAttached();

// Stops at a breakpoint when a debugger is attached; without one, returns at
// once, so that an assertion never ends the program by itself.
VIREO_EXPORT void BreakIfDebuggerAttached();

namespace Detail
{

// The handler's answer for one failed site: 1 silences the site for good,
// 2 breaks into a debugger if one is there, anything else just goes on.
inline void HandleFailedAssertSite(bool& bLatch, const char* expression, int line, const char* file)
{
    const int nAnswer = GetActiveAssertHandler()->HandleAssert(expression, line, file, 0);
    if (nAnswer == IAssertHandler::kAnswer_Break)
        BreakIfDebuggerAttached();
    else if (nAnswer == IAssertHandler::kAnswer_Ignore)
        bLatch = true;
}

} // namespace Detail
} // namespace Vireo

// One assertion site. The expression text, line and file are given rather
// than taken from the preprocessor, so that a site reports the same place
// whatever the layout of the source. Each expansion owns its latch; the
// latch is a plain bool, so two threads failing at once may both ask.
#define VIREO_ASSERT_SITE(condition, expressionText, line, file)                                   \
    do                                                                                             \
    {                                                                                              \
        static bool s_bAssertSiteLatch = false;                                                    \
        if (!(condition) && !s_bAssertSiteLatch)                                                   \
            ::Vireo::Detail::HandleFailedAssertSite(s_bAssertSiteLatch, (expressionText), (line),  \
                                                    (file));                                       \
    } while (false)

#endif // VIREO_FOUNDATION_ASSERTSITE_H
