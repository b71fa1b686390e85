/// \file
/// The console interface of the core library: where every message of the
/// wrapper goes. The wrapper only holds pointers to consoles; hosts own them.
#ifndef VIREO_CORE_INTERFACES_IMGRCONSOLE_H
#define VIREO_CORE_INTERFACES_IMGRCONSOLE_H

#include <cstdarg>

#if defined(__GNUC__) || defined(__clang__)
/// Lets the compiler check a printf-style format (argument `fmt`) against
/// the arguments from `first` on.
#define VIREO_PRINTF_FORMAT(fmt, first) __attribute__((format(printf, fmt, first)))
#else
/// Checks nothing where the compiler has no format attribute.
#define VIREO_PRINTF_FORMAT(fmt, first)
#endif

namespace Vireo
{

/// Holds the verbosity levels shared by consoles and console blocks.
class IConsole
{
public:
    /// How much a block or a console shows; the wrapper only carries these.
    enum VerbosityLevel
    {
        kVL_Quiet = 0,
        kVL_Normal = 1,
        kVL_Detail = 2,
        kVL_Trace = 3,
    };

protected:
    ~IConsole() = default;
};

/// Blocks and consumers store the level in a 32-bit field.
static_assert(sizeof(IConsole::VerbosityLevel) == 4, "VerbosityLevel must stay 32 bits");

/// Five kinds of message, each a printf-style operation with a va_list
/// sister, and blocks that open and close at a level. Implementations must
/// cope with calls from any thread: the wrapper takes no lock around them.
/// The `this` pointer is argument 1, so the format is argument 2.
///
/// A console decides for itself what each kind looks like and which it
/// shows; the wrapper only picks the kind. A host that wants the wrapper's
/// messages elsewhere implements this interface and installs it with
/// SetMgrConsole (see VireoCore.h).
class IMgrConsole
{
public:
    virtual ~IMgrConsole() = default;

    /// Sets how much the console shows.
    virtual void SetVerbosity(IConsole::VerbosityLevel level) = 0;
    /// How much the console shows.
    virtual IConsole::VerbosityLevel GetVerbosity() const = 0;

    /// Prints a normal message.
    virtual void Print(const char* format, ...) VIREO_PRINTF_FORMAT(2, 3) = 0;
    /// Prints a normal message, with the arguments in a va_list.
    virtual void VPrint(const char* format, va_list arguments) VIREO_PRINTF_FORMAT(2, 0) = 0;
    /// Prints a message shown at kVL_Detail and above.
    virtual void PrintDetail(const char* format, ...) VIREO_PRINTF_FORMAT(2, 3) = 0;
    /// Prints a detail message, with the arguments in a va_list.
    virtual void VPrintDetail(const char* format, va_list arguments) VIREO_PRINTF_FORMAT(2, 0) = 0;
    /// Prints a message shown at kVL_Trace.
    virtual void PrintTrace(const char* format, ...) VIREO_PRINTF_FORMAT(2, 3) = 0;
    /// Prints a trace message, with the arguments in a va_list.
    virtual void VPrintTrace(const char* format, va_list arguments) VIREO_PRINTF_FORMAT(2, 0) = 0;
    /// Prints a warning.
    virtual void PrintWarning(const char* format, ...) VIREO_PRINTF_FORMAT(2, 3) = 0;
    /// Prints a warning, with the arguments in a va_list.
    virtual void VPrintWarning(const char* format, va_list arguments) VIREO_PRINTF_FORMAT(2, 0) = 0;
    /// Prints an error.
    virtual void PrintError(const char* format, ...) VIREO_PRINTF_FORMAT(2, 3) = 0;
    /// Prints an error, with the arguments in a va_list.
    virtual void VPrintError(const char* format, va_list arguments) VIREO_PRINTF_FORMAT(2, 0) = 0;

    /// Opens a block at `level`: what follows belongs to it, e.g. indented.
    virtual void BeginBlock(IConsole::VerbosityLevel level, const char* text) = 0;
    /// Blocks opened and not yet closed.
    virtual int GetBlockDepth() const = 0;
    /// Closes the innermost block at `level`, with a closing text.
    virtual void EndBlock(IConsole::VerbosityLevel level, const char* text) = 0;
};

} // namespace Vireo

#endif // VIREO_CORE_INTERFACES_IMGRCONSOLE_H
