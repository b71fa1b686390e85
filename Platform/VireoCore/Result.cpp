#include "CoreInterfaces/Result.h"

#include "FormatText.h"

namespace Vireo
{

bool Result::Add(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Core::AppendFormatted(_sText, format, arguments);
    va_end(arguments);
    return true;
}

} // namespace Vireo
