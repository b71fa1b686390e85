// printf-style formatting into a std::string, shared by the console and
// Result. Internal to VireoCore.
#ifndef VIREO_CORE_FORMATTEXT_H
#define VIREO_CORE_FORMATTEXT_H

#include "CoreInterfaces/IMgrConsole.h" // VIREO_PRINTF_FORMAT

#include <cstdarg>
#include <string>

namespace Vireo
{
namespace Core
{

// Appends the formatted text to `text`, whatever its length. `arguments` is
// consumed. A format that the C library rejects appends nothing.
void AppendFormatted(std::string& text, const char* format, va_list arguments)
    VIREO_PRINTF_FORMAT(2, 0);

} // namespace Core
} // namespace Vireo

#endif // VIREO_CORE_FORMATTEXT_H
