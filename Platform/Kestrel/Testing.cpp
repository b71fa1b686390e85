// The call log, fault injection, the render hook and the read-back helpers
// of KestrelTesting.h.
#include "KestrelTesting.h"

#include "Context.h"
#include "Instrumentation.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace Kestrel
{

std::atomic<int> g_nLiveCallLogs{0};
std::atomic<int> g_nFaultEntries{0};

namespace
{

// How a function fails when a fault takes it and the test asked for its
// natural error.
enum NaturalError
{
    kNE_OutOfMemory,      // creation and mapping
    kNE_None,             // failure shows in a status or a result
    kNE_InvalidOperation, // everything else
};

struct FunctionEntry
{
    const char* _pName;
    NaturalError _eNatural;
};

const FunctionEntry kFunctions[] = {
    {"KestrelCreateContext", kNE_OutOfMemory},
    {"KestrelDestroyContext", kNE_InvalidOperation},
    {"KestrelSetCurrentContext", kNE_None},
    {"KestrelStopContext", kNE_InvalidOperation},
    {"KestrelGetHardwareAcceleratorCount", kNE_InvalidOperation},
    {"ksGetError", kNE_InvalidOperation},
    {"ksGetString", kNE_InvalidOperation},
    {"ksGetBooleanv", kNE_InvalidOperation},
    {"ksGetIntegerv", kNE_InvalidOperation},
    {"ksGetLongv", kNE_InvalidOperation},
    {"ksGetFloatv", kNE_InvalidOperation},
    {"ksGetDoublev", kNE_InvalidOperation},
    {"ksFrameParameter1i", kNE_InvalidOperation},
    {"ksFrameParameter1f", kNE_InvalidOperation},
    {"ksFrameParameterfv", kNE_InvalidOperation},
    {"ksGetFrameParameteriv", kNE_InvalidOperation},
    {"ksViewport", kNE_InvalidOperation},
    {"ksClearColor", kNE_InvalidOperation},
    {"ksClear", kNE_InvalidOperation},
    {"ksRenderFrame", kNE_InvalidOperation},
    {"ksCreateShader", kNE_OutOfMemory},
    {"ksDeleteShader", kNE_InvalidOperation},
    {"ksShaderSource", kNE_InvalidOperation},
    {"ksCompileShader", kNE_None},
    {"ksGetShaderiv", kNE_InvalidOperation},
    {"ksGetShaderString", kNE_InvalidOperation},
    {"ksShaderString", kNE_InvalidOperation},
    {"ksCreateProgram", kNE_OutOfMemory},
    {"ksDeleteProgram", kNE_InvalidOperation},
    {"ksAttachShader", kNE_InvalidOperation},
    {"ksDetachShader", kNE_InvalidOperation},
    {"ksLinkProgram", kNE_None},
    {"ksGetProgramiv", kNE_InvalidOperation},
    {"ksGetProgramString", kNE_InvalidOperation},
    {"ksProgramString", kNE_InvalidOperation},
    {"ksGetUniformLocation", kNE_InvalidOperation},
    {"ksGetUniformBlockIndex", kNE_InvalidOperation},
    {"ksGetAttribLocation", kNE_InvalidOperation},
    {"ksGenPrimitives", kNE_OutOfMemory},
    {"ksDeletePrimitives", kNE_InvalidOperation},
    {"ksBindPrimitive", kNE_InvalidOperation},
    {"ksGetPrimitive", kNE_InvalidOperation},
    {"ksPrimitiveParameterString", kNE_InvalidOperation},
    {"ksUniform1f", kNE_InvalidOperation},
    {"ksUniform1i", kNE_InvalidOperation},
    {"ksUniformt", kNE_InvalidOperation},
    {"ksUniformp", kNE_InvalidOperation},
    {"ksUniform1fv", kNE_InvalidOperation},
    {"ksUniform2fv", kNE_InvalidOperation},
    {"ksUniform3fv", kNE_InvalidOperation},
    {"ksUniform4fv", kNE_InvalidOperation},
    {"ksUniform1iv", kNE_InvalidOperation},
    {"ksUniform2iv", kNE_InvalidOperation},
    {"ksUniform3iv", kNE_InvalidOperation},
    {"ksUniform4iv", kNE_InvalidOperation},
    {"ksUniformMatrix3fv", kNE_InvalidOperation},
    {"ksUniformMatrix4fv", kNE_InvalidOperation},
    {"ksUniformtv", kNE_InvalidOperation},
    {"ksUniformpv", kNE_InvalidOperation},
    {"ksUniformBlockBuffer", kNE_InvalidOperation},
    {"ksGenBuffers", kNE_OutOfMemory},
    {"ksDeleteBuffers", kNE_InvalidOperation},
    {"ksBindBuffer", kNE_InvalidOperation},
    {"ksGetBuffer", kNE_InvalidOperation},
    {"ksBufferData", kNE_InvalidOperation},
    {"ksMapBuffer", kNE_OutOfMemory},
    {"ksUnmapBuffer", kNE_InvalidOperation},
    {"ksGetBufferParameterString", kNE_InvalidOperation},
    {"ksGenTextures", kNE_OutOfMemory},
    {"ksDeleteTextures", kNE_InvalidOperation},
    {"ksBindTexture", kNE_InvalidOperation},
    {"ksGetTexture", kNE_InvalidOperation},
    {"ksTexImage2D", kNE_InvalidOperation},
    {"ksTexParameteri", kNE_InvalidOperation},
    {"ksGenerateMipmap", kNE_InvalidOperation},
    {"ksPixelStorei", kNE_InvalidOperation},
    {"ksGenFramebuffers", kNE_OutOfMemory},
    {"ksDeleteFramebuffers", kNE_InvalidOperation},
    {"ksBindFramebuffer", kNE_InvalidOperation},
    {"ksGetFramebuffer", kNE_InvalidOperation},
    {"ksFramebufferTexture2D", kNE_InvalidOperation},
    {"ksFramebufferAttachmentParameter1i", kNE_InvalidOperation},
    {"ksUseProgram", kNE_InvalidOperation},
    {"ksBufferParameterString", kNE_InvalidOperation},
};

const FunctionEntry* FindFunction(const std::string& name)
{
    for (const FunctionEntry& entry : kFunctions)
        if (name == entry._pName)
            return &entry;
    return nullptr;
}

// --- call log ---------------------------------------------------------------

std::mutex& LogMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::vector<std::vector<std::string>*>& LiveLogs()
{
    static std::vector<std::vector<std::string>*> logs;
    return logs;
}

// --- faults -----------------------------------------------------------------

struct FaultEntry
{
    FaultAction::Mode _eMode;
    int _nRemaining;
    int _nError; // resolved
};

std::mutex& FaultMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::unordered_map<std::string, std::deque<FaultEntry>>& FaultTable()
{
    static std::unordered_map<std::string, std::deque<FaultEntry>> table;
    return table;
}

const FunctionEntry& RequireFunction(const std::string& function)
{
    const FunctionEntry* entry = FindFunction(function);
    if (!entry)
    {
        // A misspelt name would make a test pass for the wrong reason.
        std::fprintf(stderr, "Kestrel testing: no Kestrel function is called \"%s\"\n",
                     function.c_str());
        std::abort();
    }
    return *entry;
}

void AddFault(const std::string& function, FaultAction::Mode mode, int count, int error)
{
    if (count <= 0)
        return;
    std::lock_guard<std::mutex> lock(FaultMutex());
    FaultTable()[function].push_back({mode, count, error});
    g_nFaultEntries.fetch_add(1, std::memory_order_release);
}

// --- render hook ------------------------------------------------------------

std::mutex& HookMutex()
{
    static std::mutex mutex;
    return mutex;
}

Testing::RenderHook& InstalledHook()
{
    static Testing::RenderHook hook;
    return hook;
}

Testing::RenderHook& InstalledBuildHook()
{
    static Testing::RenderHook hook;
    return hook;
}

// Runs `read` on the current context under its lock; false without one.
template <class F>
bool WithCurrentContext(F read)
{
    std::shared_ptr<Context> context = Registry::Instance().Current();
    if (!context)
        return false;
    std::lock_guard<std::mutex> lock(context->_mutex);
    return read(*context);
}

} // namespace

void RecordCall(const std::string& text)
{
    std::lock_guard<std::mutex> lock(LogMutex());
    for (std::vector<std::string>* log : LiveLogs())
        log->push_back(text);
}

FaultAction TakeFault(const char* function)
{
    std::lock_guard<std::mutex> lock(FaultMutex());
    auto& table = FaultTable();
    auto it = table.find(function);
    if (it == table.end() || it->second.empty())
        return FaultAction();
    FaultEntry& entry = it->second.front();
    FaultAction action;
    action._eMode = entry._eMode;
    action._nError = entry._nError;
    if (--entry._nRemaining == 0)
    {
        it->second.pop_front();
        g_nFaultEntries.fetch_sub(1, std::memory_order_release);
    }
    return action;
}

namespace
{

struct StringOverrides
{
    std::mutex mutex;
    // Node-based, so a text handed out stays put while other names change.
    std::map<int, std::unique_ptr<std::string>> texts; // null: answer null
};

StringOverrides& Overrides()
{
    static StringOverrides overrides;
    return overrides;
}

} // namespace

bool StringOverride(int name, const char** text)
{
    StringOverrides& overrides = Overrides();
    std::lock_guard<std::mutex> lock(overrides.mutex);
    const auto found = overrides.texts.find(name);
    if (found == overrides.texts.end())
        return false;
    *text = found->second ? found->second->c_str() : nullptr;
    return true;
}

void Testing::OverrideString(int name, const char* text)
{
    StringOverrides& overrides = Overrides();
    std::lock_guard<std::mutex> lock(overrides.mutex);
    overrides.texts[name] = text != nullptr ? std::make_unique<std::string>(text) : nullptr;
}

void Testing::RemoveStringOverride(int name)
{
    StringOverrides& overrides = Overrides();
    std::lock_guard<std::mutex> lock(overrides.mutex);
    overrides.texts.erase(name);
}

Testing::RenderHook CurrentRenderHook()
{
    std::lock_guard<std::mutex> lock(HookMutex());
    return InstalledHook();
}

Testing::RenderHook CurrentBuildHook()
{
    std::lock_guard<std::mutex> lock(HookMutex());
    return InstalledBuildHook();
}

namespace Testing
{

struct CallLog::Impl
{
    std::vector<std::string> _calls;
};

CallLog::CallLog() : _pImpl(new Impl)
{
    std::lock_guard<std::mutex> lock(LogMutex());
    LiveLogs().push_back(&_pImpl->_calls);
    g_nLiveCallLogs.fetch_add(1, std::memory_order_relaxed);
}

CallLog::~CallLog()
{
    {
        std::lock_guard<std::mutex> lock(LogMutex());
        auto& logs = LiveLogs();
        for (auto it = logs.begin(); it != logs.end(); ++it)
            if (*it == &_pImpl->_calls)
            {
                logs.erase(it);
                break;
            }
        g_nLiveCallLogs.fetch_sub(1, std::memory_order_relaxed);
    }
    delete _pImpl;
}

std::vector<std::string> CallLog::Calls() const
{
    std::lock_guard<std::mutex> lock(LogMutex());
    return _pImpl->_calls;
}

std::vector<std::string> CallLog::CallsOf(const std::string& function) const
{
    const std::string prefix = function + "(";
    std::vector<std::string> calls;
    std::lock_guard<std::mutex> lock(LogMutex());
    for (const std::string& call : _pImpl->_calls)
        if (call.compare(0, prefix.size(), prefix) == 0)
            calls.push_back(call);
    return calls;
}

void CallLog::Clear()
{
    std::lock_guard<std::mutex> lock(LogMutex());
    _pImpl->_calls.clear();
}

void InjectFault(const std::string& function, int count, int error)
{
    const FunctionEntry& entry = RequireFunction(function);
    if (error == kNaturalError)
    {
        static const int kNatural[] = {KS_OUT_OF_MEMORY, KS_NO_ERROR, KS_INVALID_OPERATION};
        error = kNatural[entry._eNatural];
    }
    AddFault(function, FaultAction::kFM_Fail, count, error);
}

void InjectErrorAfter(const std::string& function, int error, int count)
{
    RequireFunction(function);
    AddFault(function, FaultAction::kFM_ErrorAfter, count, error);
}

void LetPass(const std::string& function, int count)
{
    RequireFunction(function);
    AddFault(function, FaultAction::kFM_None, count, KS_NO_ERROR);
}

int PendingFaults()
{
    std::lock_guard<std::mutex> lock(FaultMutex());
    int pending = 0;
    for (const auto& function : FaultTable())
        for (const FaultEntry& entry : function.second)
            pending += entry._nRemaining;
    return pending;
}

void ClearFaults()
{
    std::lock_guard<std::mutex> lock(FaultMutex());
    FaultTable().clear();
    g_nFaultEntries.store(0, std::memory_order_release);
}

void RaiseError(int error)
{
    RaiseInCurrentContext(error, "raised by test");
}

void SetRenderHook(RenderHook hook)
{
    std::lock_guard<std::mutex> lock(HookMutex());
    InstalledHook() = std::move(hook);
}

void SetBuildHook(RenderHook hook)
{
    std::lock_guard<std::mutex> lock(HookMutex());
    InstalledBuildHook() = std::move(hook);
}

namespace
{

std::string DescribeInCurrent(ObjectKind kind, Id id)
{
    std::shared_ptr<Context> context = Registry::Instance().Current();
    if (!context)
        return DescribeHandle(kind, id, nullptr);
    std::lock_guard<std::mutex> lock(context->_mutex);
    return DescribeHandle(kind, id, context.get());
}

} // namespace

std::string Describe(_KSshader* handle)
{
    return DescribeInCurrent(kOK_Shader, IdOf(handle));
}

std::string Describe(_KSprogram* handle)
{
    return DescribeInCurrent(kOK_Program, IdOf(handle));
}

std::string Describe(_KSbuffer* handle)
{
    return DescribeInCurrent(kOK_Buffer, IdOf(handle));
}

std::string Describe(_KStexture* handle)
{
    return DescribeInCurrent(kOK_Texture, IdOf(handle));
}

std::string Describe(_KSframebuffer* handle)
{
    return DescribeInCurrent(kOK_Framebuffer, IdOf(handle));
}

int CountIssuedRuns(void* context)
{
    std::shared_ptr<Context> live = Registry::Instance().Find(IdOf(context));
    if (!live)
        return -1;
    std::lock_guard<std::mutex> lock(live->_mutex);
    return static_cast<int>(live->IssuedRuns());
}

ObjectCounts CountObjects(void* context)
{
    ObjectCounts counts;
    std::shared_ptr<Context> live = Registry::Instance().Find(IdOf(context));
    if (!live)
        return ObjectCounts{-1, -1, -1, -1, -1, -1};
    std::lock_guard<std::mutex> lock(live->_mutex);
    counts.shaders = live->_shaders.Count();
    counts.programs = live->_programs.Count();
    counts.primitives = live->_primitives.Count();
    counts.buffers = live->_buffers.Count();
    counts.textures = live->_textures.Count();
    counts.framebuffers = live->_framebuffers.Count();
    return counts;
}

int CountContexts()
{
    return Registry::Instance().Count();
}

bool ReadUniform(KSprimitive primitive, int location, UniformRecord* value)
{
    return WithCurrentContext(
        [&](Context& context)
        {
            const PrimitiveObject* object = context.FindPrimitive(primitive);
            if (!object || !value)
                return false;
            auto it = object->_uniforms.find(location);
            if (it == object->_uniforms.end())
                return false;
            value->type = UniformTypeName(it->second._eType);
            value->count = it->second._nCount;
            value->floats = it->second._floats;
            value->ints = it->second._ints;
            value->handles.assign(it->second._handles.begin(), it->second._handles.end());
            return true;
        });
}

bool ReadPrimitive(KSprimitive primitive, PrimitiveRecord* record)
{
    return WithCurrentContext(
        [&](Context& context)
        {
            const PrimitiveObject* object = context.FindPrimitive(primitive);
            if (!object || !record)
                return false;
            record->name = object->_sName;
            record->program = HandleOf<_KSprogram>(object->_nProgram);
            record->blocks.clear();
            for (const auto& block : object->_blocks)
                record->blocks.emplace_back(block.first, HandleOf<_KSbuffer>(block.second));
            return true;
        });
}

bool CountSceneBuilds(long long* builds)
{
    return WithCurrentContext(
        [&](Context& context)
        {
            if (!builds)
                return false;
            *builds = context._nSceneBuilds;
            return true;
        });
}

bool ReadTexture(_KStexture* texture, int level, TextureRecord* record)
{
    return WithCurrentContext(
        [&](Context& context)
        {
            const TextureObject* object = context._textures.Find(IdOf(texture));
            if (!object || !record || !object->_pImage || level < 0)
                return false;
            const TextureImage& image = *object->_pImage;
            const int levels = 1 + static_cast<int>(object->_mipLevels.size());
            if (level >= levels)
                return false;
            record->format = image._eFormat;
            record->type = image._eType;
            record->clientStorage = image._pClient != nullptr;
            record->levels = levels;
            record->minFilter = object->_eMinFilter;
            record->magFilter = object->_eMagFilter;
            record->wrapS = object->_eWrapS;
            record->wrapT = object->_eWrapT;
            const unsigned char* data = image.Data();
            std::size_t bytes = image.Bytes();
            record->width = image._nWidth;
            record->height = image._nHeight;
            if (level > 0)
            {
                const MipLevel& mip = object->_mipLevels[static_cast<std::size_t>(level - 1)];
                record->width = mip._nWidth;
                record->height = mip._nHeight;
                data = mip._storage.Data();
                bytes = mip._storage.Size();
            }
            record->bytes.assign(data, data + bytes);
            return true;
        });
}

} // namespace Testing

} // namespace Kestrel
