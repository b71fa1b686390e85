// The core library's own console, which writes to standard error, and the
// process-wide slot that a host may fill with its own.
#include "CoreInterfaces/VireoCore.h"

#include "FormatText.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Vireo
{
namespace
{

struct MessageStyle
{
    const char* sPrefix;
    // Shown when the console's verbosity is at least this.
    IConsole::VerbosityLevel eLevel;
};

// Warnings and errors carry kVL_Quiet, so no verbosity hides them.
constexpr MessageStyle kPlainStyle = {"", IConsole::kVL_Normal};
constexpr MessageStyle kDetailStyle = {"detail: ", IConsole::kVL_Detail};
constexpr MessageStyle kTraceStyle = {"trace: ", IConsole::kVL_Trace};
constexpr MessageStyle kWarningStyle = {"warning: ", IConsole::kVL_Quiet};
constexpr MessageStyle kErrorStyle = {"error: ", IConsole::kVL_Quiet};

constexpr const char* kIndentUnit = "  ";

// Each kind of message is a pair of operations, printf-style and va_list,
// that differ only in their style.
#define VIREO_CONSOLE_KIND(Name, style)                                                            \
    void Name(const char* format, ...) override                                                    \
    {                                                                                              \
        va_list arguments;                                                                         \
        va_start(arguments, format);                                                               \
        _Write(style, format, arguments);                                                          \
        va_end(arguments);                                                                         \
    }                                                                                              \
    void V##Name(const char* format, va_list arguments) override                                   \
    {                                                                                              \
        _Write(style, format, arguments);                                                          \
    }

class StandardErrorConsole final : public IMgrConsole
{
public:
    StandardErrorConsole() = default;
    StandardErrorConsole(const StandardErrorConsole&) = delete;
    StandardErrorConsole& operator=(const StandardErrorConsole&) = delete;

    void SetVerbosity(IConsole::VerbosityLevel level) override
    {
        _eVerbosity.store(level, std::memory_order_relaxed);
    }
    IConsole::VerbosityLevel GetVerbosity() const override
    {
        return _eVerbosity.load(std::memory_order_relaxed);
    }

    VIREO_CONSOLE_KIND(Print, kPlainStyle)
    VIREO_CONSOLE_KIND(PrintDetail, kDetailStyle)
    VIREO_CONSOLE_KIND(PrintTrace, kTraceStyle)
    VIREO_CONSOLE_KIND(PrintWarning, kWarningStyle)
    VIREO_CONSOLE_KIND(PrintError, kErrorStyle)

    // A block that is hidden at open stays hidden at close, and only shown
    // blocks indent, so output stays balanced when the verbosity changes
    // while a block is open.
    void BeginBlock(IConsole::VerbosityLevel level, const char* text) override
    {
        std::lock_guard<std::mutex> lock(_mutex);
        const bool bShown = _IsShown(level);
        if (bShown)
        {
            _EmitBlockText(text);
            ++_nShownDepth;
        }
        _openBlocks.push_back(bShown);
    }

    int GetBlockDepth() const override
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return static_cast<int>(_openBlocks.size());
    }

    // More closes than opens are expected: a copied scoped block closes once
    // per copy. The surplus ones print at the outermost indentation.
    void EndBlock(IConsole::VerbosityLevel level, const char* text) override
    {
        std::lock_guard<std::mutex> lock(_mutex);
        bool bShown = _IsShown(level);
        if (!_openBlocks.empty())
        {
            bShown = _openBlocks.back();
            _openBlocks.pop_back();
            if (bShown)
                --_nShownDepth;
        }
        if (bShown)
            _EmitBlockText(text);
    }

private:
    bool _IsShown(IConsole::VerbosityLevel level) const { return level <= GetVerbosity(); }

    void _Write(const MessageStyle& style, const char* format, va_list arguments)
    {
        if (!_IsShown(style.eLevel))
            return;
        // Formatting needs no lock; only the placement on the stream does.
        std::string text;
        Core::AppendFormatted(text, format, arguments);
        std::lock_guard<std::mutex> lock(_mutex);
        _Emit(style.sPrefix, text);
    }

    // Block texts stand on lines of their own. Caller holds _mutex.
    void _EmitBlockText(const char* text)
    {
        if (text == nullptr || *text == '\0')
            return;
        std::string out;
        if (!_bAtLineStart)
            _Compose(out, "", "\n");
        _Compose(out, "", text);
        if (!_bAtLineStart)
            _Compose(out, "", "\n");
        _WriteOut(out);
    }

    // Caller holds _mutex.
    void _Emit(const char* sPrefix, const std::string& text)
    {
        std::string out;
        _Compose(out, sPrefix, text);
        _WriteOut(out);
    }

    // Every line that this text begins gets the indentation and the prefix;
    // a text that continues a line left open by an earlier one gets neither,
    // so a message may be assembled from several calls.
    void _Compose(std::string& out, const char* sPrefix, std::string_view text)
    {
        std::size_t nPos = 0;
        while (nPos < text.size())
        {
            if (_bAtLineStart)
            {
                for (int i = 0; i < _nShownDepth; ++i)
                    out += kIndentUnit;
                out += sPrefix;
            }
            const std::size_t nNewLine = text.find('\n', nPos);
            const std::size_t nEnd =
                nNewLine == std::string_view::npos ? text.size() : nNewLine + 1;
            out.append(text.substr(nPos, nEnd - nPos));
            _bAtLineStart = nNewLine != std::string_view::npos;
            nPos = nEnd;
        }
    }

    // One write per message, so that lines of different threads do not mix.
    static void _WriteOut(const std::string& out)
    {
        std::fwrite(out.data(), 1, out.size(), stderr);
        std::fflush(stderr);
    }

    std::atomic<IConsole::VerbosityLevel> _eVerbosity{IConsole::kVL_Normal};
    mutable std::mutex _mutex;
    std::vector<bool> _openBlocks; // per open block: was it shown
    int _nShownDepth = 0;
    bool _bAtLineStart = true;
};

// Never destroyed, so that messages printed while other statics are torn
// down still find a live console.
IMgrConsole& DefaultConsole()
{
    static IMgrConsole* const s_pConsole = new StandardErrorConsole();
    return *s_pConsole;
}

std::atomic<IMgrConsole*> g_pInstalledConsole{nullptr};

#undef VIREO_CONSOLE_KIND

} // namespace

IMgrConsole* GetMgrConsole()
{
    IMgrConsole* const pConsole = g_pInstalledConsole.load(std::memory_order_acquire);
    return pConsole != nullptr ? pConsole : &DefaultConsole();
}

IMgrConsole* SetMgrConsole(IMgrConsole* console)
{
    IMgrConsole* const pPrevious = g_pInstalledConsole.exchange(console, std::memory_order_acq_rel);
    return pPrevious != nullptr ? pPrevious : &DefaultConsole();
}

} // namespace Vireo
