// Test doubles for the core library's interfaces: a console that records
// every call, an assertion handler with a configurable answer, and scoped
// installers for both. Thread-safe, since the code under test may print from
// any thread.
#ifndef VIREO_TESTS_SUPPORT_RECORDINGCONSOLE_H
#define VIREO_TESTS_SUPPORT_RECORDINGCONSOLE_H

#include "CoreInterfaces/VireoCore.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace Vireo
{
namespace Testing
{

enum ConsoleCallKind
{
    kCCK_Print,
    kCCK_PrintDetail,
    kCCK_PrintTrace,
    kCCK_PrintWarning,
    kCCK_PrintError,
    kCCK_BeginBlock,
    kCCK_EndBlock,
};

inline const char* ConsoleCallKindName(ConsoleCallKind eKind)
{
    static const char* const kNames[] = {"Print",      "PrintDetail", "PrintTrace", "PrintWarning",
                                         "PrintError", "BeginBlock",  "EndBlock"};
    return eKind >= kCCK_Print && eKind <= kCCK_EndBlock ? kNames[eKind] : "?";
}

// One recorded call. Prints record the formatted text; blocks record their
// text and level. Prints carry no level of their own and record kVL_Normal,
// which is also the default here, so expectations may leave it out:
// `ConsoleCall{kCCK_PrintError, "Kestrel error 0x500 occurred.\n"}`.
struct ConsoleCall
{
    ConsoleCallKind eKind = kCCK_Print;
    std::string sText;
    IConsole::VerbosityLevel eLevel = IConsole::kVL_Normal;

    bool operator==(const ConsoleCall& other) const
    {
        return eKind == other.eKind && sText == other.sText && eLevel == other.eLevel;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const ConsoleCall& call)
{
    stream << ConsoleCallKindName(call.eKind) << "(";
    if (call.eKind == kCCK_BeginBlock || call.eKind == kCCK_EndBlock)
        stream << "level " << static_cast<int>(call.eLevel) << ", ";
    stream << "\"";
    for (char c : call.sText)
    {
        if (c == '\n')
            stream << "\\n";
        else if (c == '"' || c == '\\')
            stream << '\\' << c;
        else
            stream << c;
    }
    return stream << "\")";
}

// Both forms of one kind of message record the same way.
#define VIREO_RECORDING_CONSOLE_KIND(Name, eKind)                                                  \
    void Name(const char* format, ...) override                                                    \
    {                                                                                              \
        va_list arguments;                                                                         \
        va_start(arguments, format);                                                               \
        _Record(eKind, format, arguments);                                                         \
        va_end(arguments);                                                                         \
    }                                                                                              \
    void V##Name(const char* format, va_list arguments) override                                   \
    {                                                                                              \
        _Record(eKind, format, arguments);                                                         \
    }

class RecordingConsole : public IMgrConsole
{
public:
    // Every call is recorded whatever its level, and nothing under test asks
    // for the level or the depth: the recorded calls show both.
    void SetVerbosity(IConsole::VerbosityLevel) override {}
    IConsole::VerbosityLevel GetVerbosity() const override { return IConsole::kVL_Trace; }
    int GetBlockDepth() const override { return 0; }

    VIREO_RECORDING_CONSOLE_KIND(Print, kCCK_Print)
    VIREO_RECORDING_CONSOLE_KIND(PrintDetail, kCCK_PrintDetail)
    VIREO_RECORDING_CONSOLE_KIND(PrintTrace, kCCK_PrintTrace)
    VIREO_RECORDING_CONSOLE_KIND(PrintWarning, kCCK_PrintWarning)
    VIREO_RECORDING_CONSOLE_KIND(PrintError, kCCK_PrintError)
#undef VIREO_RECORDING_CONSOLE_KIND

    void BeginBlock(IConsole::VerbosityLevel level, const char* text) override
    {
        _Block(kCCK_BeginBlock, level, text);
    }
    void EndBlock(IConsole::VerbosityLevel level, const char* text) override
    {
        _Block(kCCK_EndBlock, level, text);
    }

    // A snapshot: the console may still be written to.
    std::vector<ConsoleCall> Calls() const
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _calls;
    }
    // The texts of the calls of one kind, in order.
    std::vector<std::string> TextsOf(ConsoleCallKind eKind) const
    {
        std::lock_guard<std::mutex> lock(_mutex);
        std::vector<std::string> texts;
        for (const ConsoleCall& call : _calls)
            if (call.eKind == eKind)
                texts.push_back(call.sText);
        return texts;
    }
    std::size_t CountOf(ConsoleCallKind eKind) const
    {
        return TextsOf(eKind).size();
    }
    void Clear()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _calls.clear();
    }

private:
    void _Block(ConsoleCallKind eKind, IConsole::VerbosityLevel level, const char* text)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _calls.push_back({eKind, text != nullptr ? text : "", level});
    }

    void _Record(ConsoleCallKind eKind, const char* format, va_list arguments)
    {
        std::string text;
        va_list measure;
        va_copy(measure, arguments);
        const int nLength = format != nullptr ? std::vsnprintf(nullptr, 0, format, measure) : 0;
        va_end(measure);
        if (nLength > 0)
        {
            text.resize(static_cast<std::size_t>(nLength) + 1);
            std::vsnprintf(&text[0], text.size(), format, arguments);
            text.resize(static_cast<std::size_t>(nLength));
        }
        std::lock_guard<std::mutex> lock(_mutex);
        _calls.push_back({eKind, std::move(text), IConsole::kVL_Normal});
    }

    mutable std::mutex _mutex;
    std::vector<ConsoleCall> _calls;
};

struct AssertCall
{
    std::string sExpression;
    int nLine = 0;
    std::string sFile;
    std::uintptr_t nContext = 0;

    bool operator==(const AssertCall& other) const
    {
        return sExpression == other.sExpression && nLine == other.nLine && sFile == other.sFile &&
               nContext == other.nContext;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const AssertCall& call)
{
    return stream << "HandleAssert(\"" << call.sExpression << "\", " << call.nLine << ", \""
                  << call.sFile << "\", " << call.nContext << ")";
}

// Records each failed assertion and always gives the same answer.
class RecordingAssertHandler : public IAssertHandler
{
public:
    explicit RecordingAssertHandler(int nAnswer = kAnswer_Continue) : _nAnswer(nAnswer) {}

    int HandleAssert(const char* expression, int line, const char* file,
                     std::uintptr_t context) override
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _calls.push_back(
            {expression != nullptr ? expression : "", line, file != nullptr ? file : "", context});
        return _nAnswer;
    }

    std::vector<AssertCall> Calls() const
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _calls;
    }

private:
    mutable std::mutex _mutex;
    std::vector<AssertCall> _calls;
    const int _nAnswer;
};

// Makes a console or an assertion handler the process-wide one for a scope,
// then puts back the previous one.
template <class T, T* (*Install)(T*)>
class AutoInstall
{
public:
    explicit AutoInstall(T* pNew) : _pPrevious(Install(pNew)) {}
    ~AutoInstall() { Install(_pPrevious); }
    AutoInstall(const AutoInstall&) = delete;
    AutoInstall& operator=(const AutoInstall&) = delete;

private:
    T* _pPrevious;
};
using AutoInstallConsole = AutoInstall<IMgrConsole, &SetMgrConsole>;
using AutoInstallAssertHandler = AutoInstall<IAssertHandler, &SetActiveAssertHandler>;

} // namespace Testing
} // namespace Vireo

#endif // VIREO_TESTS_SUPPORT_RECORDINGCONSOLE_H
