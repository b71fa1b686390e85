// The core library's own assertion handler and the process-wide slot that a
// host may fill with its own.
#include "CoreInterfaces/VireoCore.h"

#include <atomic>

namespace Vireo
{
namespace
{

class ConsoleAssertHandler final : public IAssertHandler
{
public:
    // Reports and lets the program go on; the site asks again next time.
    int HandleAssert(const char* expression, int line, const char* file,
                     std::uintptr_t /*context*/) override
    {
        GetMgrConsole()->PrintError("Assertion failed: %s, file %s, line %d\n",
                                    expression != nullptr ? expression : "(null)",
                                    file != nullptr ? file : "(null)", line);
        return kAnswer_Continue;
    }
};

// Never destroyed, for assertions that fail while statics are torn down.
IAssertHandler& DefaultAssertHandler()
{
    static IAssertHandler* const s_pHandler = new ConsoleAssertHandler();
    return *s_pHandler;
}

std::atomic<IAssertHandler*> g_pInstalledHandler{nullptr};

} // namespace

IAssertHandler* GetActiveAssertHandler()
{
    IAssertHandler* const pHandler = g_pInstalledHandler.load(std::memory_order_acquire);
    return pHandler != nullptr ? pHandler : &DefaultAssertHandler();
}

IAssertHandler* SetActiveAssertHandler(IAssertHandler* handler)
{
    IAssertHandler* const pPrevious =
        g_pInstalledHandler.exchange(handler, std::memory_order_acq_rel);
    return pPrevious != nullptr ? pPrevious : &DefaultAssertHandler();
}

} // namespace Vireo
