/// \file
/// The functions of the core library VireoCore: the process-wide console and
/// the active assertion handler, each replaceable by the host.
///
/// Installing the host's own, typically once at start-up, before the first
/// context is created:
///
///     class HostConsole : public Vireo::IMgrConsole { ... };
///     class HostAssertHandler : public Vireo::IAssertHandler { ... };
///
///     static HostConsole console;
///     static HostAssertHandler handler;
///     Vireo::IMgrConsole* previousConsole = Vireo::SetMgrConsole(&console);
///     Vireo::IAssertHandler* previousHandler = Vireo::SetActiveAssertHandler(&handler);
///     ...
///     // Before the host's objects die, put back what was there:
///     Vireo::SetActiveAssertHandler(previousHandler);
///     Vireo::SetMgrConsole(previousConsole);
///
/// The library does not own what is installed, so it must outlive every call
/// that may reach it. Installation is atomic; the objects themselves must
/// cope with calls from any thread.
#ifndef VIREO_CORE_INTERFACES_VIREOCORE_H
#define VIREO_CORE_INTERFACES_VIREOCORE_H

#include "IAssertHandler.h"
#include "IMgrConsole.h"
#include "Result.h"
#include "VireoCoreExport.h"

namespace Vireo
{

/// The process-wide console: the host's, if it installed one, else the core
/// library's own, which writes to standard error with a prefix for each kind
/// of message ("detail: ", "trace: ", "warning: ", "error: ", none for Print),
/// two spaces of indentation for each open block, and shows Detail and Trace
/// only at those verbosities (default kVL_Normal). Never null.
VIREO_CORE_EXPORT IMgrConsole* GetMgrConsole();
/// Installs the host's console (not owned; null restores the default) and
/// gives the one that was active before, never null, so that passing it back
/// restores the previous state.
VIREO_CORE_EXPORT IMgrConsole* SetMgrConsole(IMgrConsole* console);

/// The active assertion handler: the host's, if it installed one, else the
/// core library's own, which prints
/// "Assertion failed: <expression>, file <file>, line <line>" to PrintError of
/// the process-wide console and answers 0. Never null.
VIREO_CORE_EXPORT IAssertHandler* GetActiveAssertHandler();
/// Installs the host's handler (not owned; null restores the default) and
/// gives the one that was active before, never null.
VIREO_CORE_EXPORT IAssertHandler* SetActiveAssertHandler(IAssertHandler* handler);

} // namespace Vireo

#endif // VIREO_CORE_INTERFACES_VIREOCORE_H
