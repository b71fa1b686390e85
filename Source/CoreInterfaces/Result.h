/// \file
/// Result: collects text for a caller, such as a shader's compile log.
#ifndef VIREO_CORE_INTERFACES_RESULT_H
#define VIREO_CORE_INTERFACES_RESULT_H

#include "IMgrConsole.h" // VIREO_PRINTF_FORMAT
#include "VireoCoreExport.h"

#include <string>

namespace Vireo
{

/// Text that an operation gives back to its caller, e.g. a compile log.
class VIREO_CORE_EXPORT Result
{
public:
    Result() = default;

    /// Appends the printf-style formatted text, however long. Text that must
    /// stay literal goes through "%s". The answer is always true; it exists
    /// for callers that chain checks.
    bool Add(const char* format, ...) VIREO_PRINTF_FORMAT(2, 3);

    /// The text collected so far.
    const std::string& GetText() const { return _sText; }
    /// True when nothing has been added since construction or Clear.
    bool IsEmpty() const { return _sText.empty(); }
    /// Forgets the text.
    void Clear() { _sText.clear(); }

private:
    std::string _sText;
};

} // namespace Vireo

#endif // VIREO_CORE_INTERFACES_RESULT_H
