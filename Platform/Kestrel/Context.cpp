#include "Context.h"

#include "Instrumentation.h"
#include "Scene.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace Kestrel
{

namespace
{

// Ids start well away from 0 so that a handle never looks like a count or
// an index when it turns up in a message.
std::atomic<Id> g_nLastId{0x1000};
std::atomic<std::uint32_t> g_nLastPrimitive{0};

// Bounds of the context attributes; beyond them a context is refused
// rather than built around a value that cannot be meant.
constexpr long long kMaxRenderThreads = 1024;
constexpr long long kMaxRayDepthCap = 1024;
constexpr long long kMaxFilterTableSizeCap = 1024;

struct BufferTarget
{
    int _eTarget;
    int _eBindingName;
};

constexpr BufferTarget kBufferTargets[kBB_Count] = {
    {KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
    {KS_ELEMENT_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER_BINDING},
    {KS_PIXEL_PACK_BUFFER, KS_PIXEL_PACK_BUFFER_BINDING},
    {KS_PIXEL_UNPACK_BUFFER, KS_PIXEL_UNPACK_BUFFER_BINDING},
    {KS_UNIFORM_BLOCK_BUFFER, KS_UNIFORM_BLOCK_BUFFER_BINDING},
};

const char* KindWord(ObjectKind kind)
{
    static const char* const kWords[kOK_Count] = {"shader",  "program",      "primitive", "buffer",
                                                  "texture", "frame buffer", "context"};
    return kWords[kind];
}

std::string FormatV(const char* format, va_list args)
{
    char small[256];
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (length < 0)
        return std::string();
    if (static_cast<std::size_t>(length) < sizeof(small))
        return std::string(small, static_cast<std::size_t>(length));
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// Sets the pending error under the context's lock: the first one stays.
void KeepError(Context& context, int code)
{
    if (context._nPendingError == KS_NO_ERROR)
        context._nPendingError = code;
}

} // namespace

Id NewId()
{
    return g_nLastId.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool NewPrimitiveNumber(Id* number)
{
    std::uint32_t last = g_nLastPrimitive.load(std::memory_order_relaxed);
    do
    {
        if (last == UINT32_MAX)
            return false;
    } while (!g_nLastPrimitive.compare_exchange_weak(last, last + 1, std::memory_order_relaxed));
    *number = last + 1;
    return true;
}

bool ParseAttributes(const long long* attributes, ContextSettings* settings)
{
    *settings = ContextSettings();
    for (const long long* pair = attributes; pair && pair[0] != 0; pair += 2)
    {
        const long long value = pair[1];
        switch (pair[0])
        {
        case KS_CONTEXT_RENDER_THREADS:
            if (value < 0 || value > kMaxRenderThreads)
                return false;
            settings->_nRenderThreads = static_cast<int>(value);
            break;
        case KS_CONTEXT_MAX_RAY_DEPTH:
            if (value < 1 || value > kMaxRayDepthCap)
                return false;
            settings->_nMaxRayDepth = static_cast<int>(value);
            break;
        case KS_CONTEXT_MAX_FILTER_TABLE_SIZE:
            if (value < 1 || value > kMaxFilterTableSizeCap)
                return false;
            settings->_nMaxFilterTableSize = static_cast<int>(value);
            break;
        default:
            return false;
        }
    }
    return true;
}

int BufferBindingOfTarget(int target)
{
    for (int i = 0; i < kBB_Count; ++i)
        if (kBufferTargets[i]._eTarget == target)
            return i;
    return -1;
}

int BufferBindingOfName(int name)
{
    for (int i = 0; i < kBB_Count; ++i)
        if (kBufferTargets[i]._eBindingName == name)
            return i;
    return -1;
}

// ---------------------------------------------------------------------------
// Context

Context::Context(Id id, int serial, const ContextSettings& settings,
                 KestrelNotificationFunction notify, void* userData)
    : _nId(id), _nSerial(serial), _settings(settings), _pNotify(notify), _pUserData(userData)
{
    _nRayDepthLimit = settings._nMaxRayDepth < 8 ? settings._nMaxRayDepth : 8;
}

void Context::IssuedIds::Add(Id id)
{
    if (!_runs.empty() && _runs.back().second + 1 == id)
        _runs.back().second = id;
    else
        _runs.emplace_back(id, id);
}

bool Context::IssuedIds::Contains(Id id) const
{
    // The runs are in issue order, so sorted and apart.
    auto after =
        std::upper_bound(_runs.begin(), _runs.end(), id,
                         [](Id value, const std::pair<Id, Id>& run) { return value < run.first; });
    return after != _runs.begin() && id <= std::prev(after)->second;
}

int Context::NextSerial(ObjectKind kind, Id id)
{
    (kind == kOK_Primitive ? _issuedPrimitives : _issuedIds).Add(id);
    return ++_nextSerial[kind];
}

HandleState Context::StateOf(ObjectKind kind, Id id) const
{
    if (id == 0)
        return kHS_Null;
    if (SerialOf(kind, id) != 0)
        return kHS_Live;
    if (kind == kOK_Primitive)
        return _issuedPrimitives.Contains(id) ? kHS_Deleted : kHS_Foreign;
    if (!_issuedIds.Contains(id))
        return kHS_Foreign;
    // Issued here: stale, unless it is a live object of another kind.
    for (ObjectKind other : {kOK_Shader, kOK_Program, kOK_Buffer, kOK_Texture, kOK_Framebuffer})
    {
        if (other != kind && SerialOf(other, id) != 0)
            return kHS_Foreign;
    }
    return kHS_Deleted;
}

int Context::SerialOf(ObjectKind kind, Id id) const
{
    const void* found = nullptr;
    int serial = 0;
    auto look = [&](const auto& table)
    {
        if (auto* object = table.Find(id))
        {
            found = object;
            serial = object->_nSerial;
        }
    };
    switch (kind)
    {
    case kOK_Shader:
        look(_shaders);
        break;
    case kOK_Program:
        look(_programs);
        break;
    case kOK_Primitive:
        look(_primitives);
        break;
    case kOK_Buffer:
        look(_buffers);
        break;
    case kOK_Texture:
        look(_textures);
        break;
    case kOK_Framebuffer:
        look(_framebuffers);
        break;
    default:
        break;
    }
    return found ? serial : 0;
}

PrimitiveObject* Context::FindPrimitive(Id number)
{
    return number == 0 ? &_framePrimitive : _primitives.Find(number);
}

PrimitiveObject& Context::BoundPrimitive()
{
    // Deleting a primitive rebinds 0, so the binding is always live.
    PrimitiveObject* bound = FindPrimitive(_nBoundPrimitive);
    return bound ? *bound : _framePrimitive;
}

void Context::ReleaseObjects()
{
    _shaders.Clear();
    _programs.Clear();
    _primitives.Clear();
    _buffers.Clear();
    _textures.Clear();
    _framebuffers.Clear();
    _framePrimitive = PrimitiveObject();
    _issuedIds.Clear();
    _issuedPrimitives.Clear();
    // A frame still in flight holds its own reference to the scene.
    _pScene.reset();
    _sceneKey.clear();
    _boundBuffers.fill(0);
    _nBoundTexture = 0;
    _nBoundPrimitive = 0;
    _nBoundFramebuffer = 0;
}

// ---------------------------------------------------------------------------
// Registry

Registry& Registry::Instance()
{
    static Registry registry;
    return registry;
}

void Registry::Add(const std::shared_ptr<Context>& context)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _contexts.emplace(context->_nId, context);
}

std::shared_ptr<Context> Registry::Remove(Id id)
{
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _contexts.find(id);
    if (it == _contexts.end())
        return nullptr;
    std::shared_ptr<Context> context = std::move(it->second);
    _contexts.erase(it);
    if (_pCurrent == context)
        _pCurrent.reset();
    return context;
}

std::shared_ptr<Context> Registry::Find(Id id)
{
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _contexts.find(id);
    return it == _contexts.end() ? nullptr : it->second;
}

std::shared_ptr<Context> Registry::Current()
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _pCurrent;
}

bool Registry::MakeCurrent(Id id)
{
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _contexts.find(id);
    if (it == _contexts.end())
        return false;
    _pCurrent = it->second;
    return true;
}

int Registry::Count()
{
    std::lock_guard<std::mutex> lock(_mutex);
    return static_cast<int>(_contexts.size());
}

int Registry::SerialOf(Id id)
{
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _contexts.find(id);
    return it == _contexts.end() ? 0 : it->second->_nSerial;
}

int Registry::NextSerial()
{
    std::lock_guard<std::mutex> lock(_mutex);
    return ++_nLastSerial;
}

// ---------------------------------------------------------------------------
// ApiCall

ApiCall::ApiCall(const char* function, std::initializer_list<Arg> args, Mode mode)
    : _pFunction(function), _eMode(mode)
{
    if (mode == kAM_LockCurrent)
    {
        _pContext = Registry::Instance().Current();
        if (_pContext)
            _lock = std::unique_lock<std::mutex>(_pContext->_mutex);
    }
    if (CallLogActive())
        RecordCall(FormatCall(function, args, _pContext.get()));

    const FaultAction fault = TakeFaultFast(function);
    if (fault._eMode == FaultAction::kFM_Fail)
    {
        _bFaulted = true;
        if (fault._nError != KS_NO_ERROR)
            Raise(fault._nError, "injected fault");
    }
    else if (fault._eMode == FaultAction::kFM_ErrorAfter)
        _nErrorAfter = fault._nError;
}

ApiCall::~ApiCall()
{
    if (_nErrorAfter != KS_NO_ERROR)
        Raise(_nErrorAfter, "injected error");
    if (_lock.owns_lock())
        _lock.unlock();
    // The callback may call back into the API, so no lock of ours is held.
    for (const Note& note : _notes)
        note._pNotify(note._nCode, nullptr, 0, note._sMessage.c_str(), note._pUserData);
}

void ApiCall::Raise(int code, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string message = std::string(_pFunction) + ": " + FormatV(format, args);
    va_end(args);
    _Raise(code, std::move(message));
}

void ApiCall::_Raise(int code, std::string message)
{
    // Context functions name no context of their own: their errors go to
    // whichever context is current now. A `ks` call without a context has
    // nowhere to keep an error.
    std::shared_ptr<Context> target =
        _eMode == kAM_LockCurrent ? _pContext : Registry::Instance().Current();
    if (!target)
        return;
    std::unique_lock<std::mutex> lock;
    if (!_lock.owns_lock())
        lock = std::unique_lock<std::mutex>(target->_mutex);
    if (target->_bDestroyed)
        return;
    KeepError(*target, code);
    if (target->_pNotify)
        _notes.push_back({target->_pNotify, target->_pUserData, code, std::move(message)});
}

void ApiCall::RaiseBadHandle(ObjectKind kind, Id id, HandleState state)
{
    const char* word = KindWord(kind);
    const std::string text = kind == kOK_Primitive ? std::to_string(id) : HexId(id);
    switch (state)
    {
    case kHS_Null:
        Raise(KS_INVALID_VALUE, "null is not a %s", word);
        break;
    case kHS_Deleted:
        Raise(KS_INVALID_VALUE, "%s %s was deleted", word, text.c_str());
        break;
    default:
        Raise(KS_INVALID_VALUE, "%s is not a %s of this context", text.c_str(), word);
        break;
    }
}

bool ApiCall::CheckBindable(ObjectKind kind, Id id)
{
    const HandleState state = _pContext->StateOf(kind, id);
    if (state == kHS_Null || state == kHS_Live)
        return true;
    RaiseBadHandle(kind, id, state);
    return false;
}

bool ApiCall::CheckDeletable(ObjectKind kind, Id id)
{
    const HandleState state = _pContext->StateOf(kind, id);
    if (state == kHS_Live)
        return true;
    if (state == kHS_Foreign)
        RaiseBadHandle(kind, id, state);
    return false;
}

void ApiCall::Unlock()
{
    if (_lock.owns_lock())
        _lock.unlock();
}

void ApiCall::Relock()
{
    if (_pContext && !_lock.owns_lock())
        _lock.lock();
}

void RaiseInCurrentContext(int code, const std::string& message)
{
    std::shared_ptr<Context> current = Registry::Instance().Current();
    if (!current || code == KS_NO_ERROR)
        return;
    {
        std::lock_guard<std::mutex> lock(current->_mutex);
        KeepError(*current, code);
    }
    if (current->_pNotify)
        current->_pNotify(code, nullptr, 0, message.c_str(), current->_pUserData);
}

} // namespace Kestrel
