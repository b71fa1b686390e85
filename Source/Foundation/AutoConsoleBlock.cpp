#include "Foundation/AutoConsoleBlock.h"

namespace Vireo
{

AutoConsoleBlock::AutoConsoleBlock(IMgrConsole* pConsole, IConsole::VerbosityLevel eLevel,
                                   const std::string& openText, const std::string& closeText)
    : _pConsole(pConsole), _eLevel(eLevel), _sCloseText(closeText)
{
    _pConsole->BeginBlock(_eLevel, openText.c_str());
}

// Out of line so that hosts link against the library's copy operations.
AutoConsoleBlock::AutoConsoleBlock(const AutoConsoleBlock& other) = default;
AutoConsoleBlock& AutoConsoleBlock::operator=(const AutoConsoleBlock& other) = default;

AutoConsoleBlock::~AutoConsoleBlock()
{
    _pConsole->EndBlock(_eLevel, _sCloseText.c_str());
}

} // namespace Vireo
