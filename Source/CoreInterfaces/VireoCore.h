// The functions of the core library VireoCore: the process-wide console and
// the active assertion handler, each replaceable by the host.
#ifndef VIREO_CORE_INTERFACES_VIREOCORE_H
#define VIREO_CORE_INTERFACES_VIREOCORE_H

#include "IAssertHandler.h"
#include "IMgrConsole.h"
#include "Result.h"
#include "VireoCoreExport.h"

namespace Vireo
{

// The process-wide console: the host's, if it installed one, else the core
// library's own, which writes to standard error. Never null.
VIREO_CORE_EXPORT IMgrConsole* GetMgrConsole();
// Installs the host's console (not owned; null restores the default) and
// gives the one that was active before.
VIREO_CORE_EXPORT IMgrConsole* SetMgrConsole(IMgrConsole* console);

// The active assertion handler: the host's, if it installed one, else the
// core library's own, which prints the expression, file and line to the
// process-wide console and answers 0. Never null.
VIREO_CORE_EXPORT IAssertHandler* GetActiveAssertHandler();
// Installs the host's handler (not owned; null restores the default) and
// gives the one that was active before.
VIREO_CORE_EXPORT IAssertHandler* SetActiveAssertHandler(IAssertHandler* handler);

} // namespace Vireo

#endif // VIREO_CORE_INTERFACES_VIREOCORE_H
