/// \file
/// Scoped block on a console.
#ifndef VIREO_FOUNDATION_AUTOCONSOLEBLOCK_H
#define VIREO_FOUNDATION_AUTOCONSOLEBLOCK_H

#include "CoreInterfaces/IMgrConsole.h"
#include "VireoExport.h"

#include <string>

namespace Vireo
{

/// Opens a block on a console for the lifetime of the object: BeginBlock with
/// the opening text at construction, EndBlock with the closing text and the
/// same level at destruction. The console must not be null and must outlive
/// the object.
///
/// Copies are member-wise and open nothing, yet each closes at its own
/// destruction: with one copy made, the console sees one BeginBlock and two
/// EndBlock calls. Callers that pass blocks around rely on that.
class VIREO_EXPORT AutoConsoleBlock
{
public:
    /// Opens the block: BeginBlock(`eLevel`, `openText`) on `pConsole`.
    AutoConsoleBlock(IMgrConsole* pConsole, IConsole::VerbosityLevel eLevel,
                     const std::string& openText, const std::string& closeText);
    /// Copies the console, level and closing text; opens nothing.
    AutoConsoleBlock(const AutoConsoleBlock& other);
    /// Takes over the console, level and closing text of `other`; closes nothing.
    AutoConsoleBlock& operator=(const AutoConsoleBlock& other);
    /// Closes the block: EndBlock with the level and the closing text.
    ~AutoConsoleBlock();

private:
    IMgrConsole* _pConsole;
    IConsole::VerbosityLevel _eLevel;
    std::string _sCloseText;
};

} // namespace Vireo

#endif // VIREO_FOUNDATION_AUTOCONSOLEBLOCK_H
