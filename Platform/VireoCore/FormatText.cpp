#include "FormatText.h"

#include <cstdio>

namespace Vireo
{
namespace Core
{

void AppendFormatted(std::string& text, const char* format, va_list arguments)
{
    if (format == nullptr)
        return;

    // Most messages are short: one pass into a stack buffer, and a second,
    // exactly sized pass only for the long ones.
    char buffer[512];
    va_list firstPass;
    va_copy(firstPass, arguments);
    const int nLength = std::vsnprintf(buffer, sizeof(buffer), format, firstPass);
    va_end(firstPass);
    if (nLength < 0)
        return;

    const std::size_t nSize = static_cast<std::size_t>(nLength);
    if (nSize < sizeof(buffer))
    {
        text.append(buffer, nSize);
        return;
    }

    const std::size_t nOldSize = text.size();
    // vsnprintf writes a terminator, so give it one byte more and drop it.
    text.resize(nOldSize + nSize + 1);
    std::vsnprintf(&text[nOldSize], nSize + 1, format, arguments);
    text.resize(nOldSize + nSize);
}

} // namespace Core
} // namespace Vireo
