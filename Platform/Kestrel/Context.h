// Contexts, the process registry of them, and the frame of every API call.
//
// Locking: one registry mutex guards the set of live contexts and the
// current context; it is only ever held for a lookup. Each context has a
// mutex of its own that an ApiCall holds for the length of the call. Nothing
// else is locked while the context's notification function, or the render
// hook, runs: both may call back into the API.
#ifndef KESTREL_CONTEXT_H
#define KESTREL_CONTEXT_H

#include "KestrelApi/Kestrel.h"

#include "CallText.h"
#include "Objects.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Kestrel
{

class Scene;

// A new id for any handle; never the same twice in a process.
Id NewId();
// A new primitive number: 32 bits, from 1 up, never the same twice in a
// process. False once the numbers are used up.
bool NewPrimitiveNumber(Id* number);

struct ContextSettings
{
    int _nRenderThreads = 0; // 0: one per core
    int _nMaxRayDepth = 16;
    int _nMaxFilterTableSize = 64;
};

// Reads a KestrelCreateContext attribute list; false for an unknown key or a
// value out of range.
bool ParseAttributes(const long long* attributes, ContextSettings* settings);

struct FrameStatistics
{
    double _fSeconds = 0.0;
    double _fMillionRaysPerSecond = 0.0;
    double _fMeanPathLength = 0.0;
    long long _nPrimaryRays = 0;
    int _nFrames = 0;
    long long _nSecondaryRays = 0;
    long long _nShadowRays = 0;
    float _fHitFraction = 0.0f;
};

// The buffer targets, in one order shared by bindings and lookups.
enum BufferBinding
{
    kBB_Array,
    kBB_ElementArray,
    kBB_PixelPack,
    kBB_PixelUnpack,
    kBB_UniformBlock,
    kBB_Count
};
// -1 when `target` is not a buffer target.
int BufferBindingOfTarget(int target);
// -1 when `name` is not the binding name of a buffer target.
int BufferBindingOfName(int name);

template <class T>
class HandleTable
{
public:
    T* Find(Id id) const
    {
        auto it = _items.find(id);
        return it == _items.end() ? nullptr : it->second.get();
    }
    std::shared_ptr<T> FindShared(Id id) const
    {
        auto it = _items.find(id);
        return it == _items.end() ? nullptr : it->second;
    }
    void Add(std::shared_ptr<T> item) { _items.emplace(item->_nId, std::move(item)); }
    void Remove(Id id) { _items.erase(id); }
    bool Contains(Id id) const { return _items.count(id) != 0; }
    int Count() const { return static_cast<int>(_items.size()); }
    void Clear() { _items.clear(); }
    template <class F>
    void ForEach(F f)
    {
        for (auto& item : _items)
            f(*item.second);
    }
    template <class F>
    void ForEach(F f) const
    {
        for (const auto& item : _items)
            f(static_cast<const T&>(*item.second));
    }

private:
    std::unordered_map<Id, std::shared_ptr<T>> _items;
};

enum HandleState
{
    kHS_Null,
    kHS_Live,
    kHS_Deleted, // issued by this context as this kind, then deleted
    kHS_Foreign, // never issued, issued by another context, or of another kind
};

// One Kestrel context. Every field but the stop flag is guarded by _mutex.
class Context
{
public:
    Context(Id id, int serial, const ContextSettings& settings, KestrelNotificationFunction notify,
            void* userData);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    std::mutex _mutex;
    const Id _nId;
    const int _nSerial; // ctx#serial in the call log
    const ContextSettings _settings;
    const KestrelNotificationFunction _pNotify;
    void* const _pUserData;

    // Read between tiles without the mutex: a stop must never wait for a
    // frame that holds nothing.
    std::atomic<bool> _bStopRequested{false};

    int _nPendingError = KS_NO_ERROR;
    // Set by KestrelDestroyContext: no more notifications, since the host
    // may free its user data right after.
    bool _bDestroyed = false;

    HandleTable<ShaderObject> _shaders;
    HandleTable<ProgramObject> _programs;
    HandleTable<PrimitiveObject> _primitives;
    HandleTable<BufferObject> _buffers;
    HandleTable<TextureObject> _textures;
    HandleTable<FramebufferObject> _framebuffers;
    PrimitiveObject _framePrimitive; // primitive 0, always there

    // Bindings; 0 is none.
    std::array<Id, kBB_Count> _boundBuffers{};
    Id _nBoundTexture = 0;
    Id _nBoundPrimitive = 0;
    Id _nBoundFramebuffer = 0;
    bool _bClientStorage = false;

    // Frame parameters, in force for every following frame.
    int _nRayDepthLimit = 8;
    float _fFilterSize = 1.0f;
    int _nFilterTableSize = 1;
    std::vector<float> _filterTable{1.0f};
    // The last KS_FILTER_TABLE_SIZE was refused: a table sent now was made
    // for a size this context does not hold, so none is taken until a size
    // is accepted.
    bool _bFilterTableSizeRefused = false;
    bool _bViewportSet = false; // unset: the whole attachment
    std::array<int, 4> _viewport{};
    std::array<float, 4> _clearColor{};
    FrameStatistics _statistics;

    // The scene of the last frame and what it was built from, so that a
    // frame whose primitives have not changed does not build it again.
    std::shared_ptr<const Scene> _pScene;
    std::vector<std::uint64_t> _sceneKey;
    long long _nSceneBuilds = 0;

    HandleState StateOf(ObjectKind kind, Id id) const;
    // Records `id` as issued by this context for a new object of `kind` and
    // gives the object's serial.
    int NextSerial(ObjectKind kind, Id id);
    // What the records behind StateOf hold: runs of issued ids.
    std::size_t IssuedRuns() const { return _issuedIds.Runs() + _issuedPrimitives.Runs(); }
    // The serial of a live object, 0 when `id` is not live as `kind`.
    int SerialOf(ObjectKind kind, Id id) const;
    // 0 is the frame primitive; null when the number is not live.
    PrimitiveObject* FindPrimitive(Id number);
    PrimitiveObject& BoundPrimitive();
    // Frees every object; the context is empty afterwards.
    void ReleaseObjects();

private:
    // Ids issued here, as runs of consecutive ids: ids only grow, so a run
    // breaks only where another context took ids in between. A handle that
    // is not live is stale if it lies in a run and foreign if not, and no
    // record of each deletion is kept, which would grow for as long as the
    // context lives.
    class IssuedIds
    {
    public:
        void Add(Id id);
        bool Contains(Id id) const;
        void Clear() { _runs.clear(); }
        std::size_t Runs() const { return _runs.size(); }

    private:
        std::vector<std::pair<Id, Id>> _runs; // first, last
    };

    IssuedIds _issuedIds;        // the one sequence of all handles
    IssuedIds _issuedPrimitives; // primitive numbers have their own
    std::array<int, kOK_Count> _nextSerial{};
};

class Registry
{
public:
    static Registry& Instance();

    void Add(const std::shared_ptr<Context>& context);
    // Takes the context out of the registry; it stops being current.
    std::shared_ptr<Context> Remove(Id id);
    std::shared_ptr<Context> Find(Id id);
    std::shared_ptr<Context> Current();
    bool MakeCurrent(Id id);
    int Count();
    // ctx#serial of a live context, 0 otherwise.
    int SerialOf(Id id);
    int NextSerial();

private:
    std::mutex _mutex;
    std::unordered_map<Id, std::shared_ptr<Context>> _contexts;
    std::shared_ptr<Context> _pCurrent;
    int _nLastSerial = 0;
};

// The frame of one API call: logs it, takes an injected fault, finds the
// current context and holds its lock, collects errors, and delivers their
// notifications after the lock is gone.
class ApiCall
{
public:
    enum Mode
    {
        kAM_LockCurrent, // `ks` functions: act on the current context
        kAM_NoLock,      // `Kestrel` functions: name their context themselves
    };

    ApiCall(const char* function, std::initializer_list<Arg> args, Mode mode = kAM_LockCurrent);
    ~ApiCall();
    ApiCall(const ApiCall&) = delete;
    ApiCall& operator=(const ApiCall&) = delete;

    // True when the call should do its work: a context is current and no
    // injected fault has taken the call. Otherwise the call writes its
    // outputs as 0 or null and returns.
    bool Proceed() const { return (_eMode == kAM_NoLock || _pContext) && !_bFaulted; }
    bool Faulted() const { return _bFaulted; }
    bool HasContext() const { return _pContext != nullptr; }
    Context& Ctx() const { return *_pContext; }
    const char* Function() const { return _pFunction; }

    // Keeps `code` if no error is pending and queues its notification; the
    // message is prefixed with the function's name.
    void Raise(int code, const char* format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 3, 4)))
#endif
        ;
    // As Raise, with the message exactly as given.
    void RaiseVerbatim(int code, std::string message)
    {
        _Raise(code, std::move(message));
    }
    // KS_INVALID_VALUE for a handle that cannot be used, worded by its state.
    void RaiseBadHandle(ObjectKind kind, Id id, HandleState state);

    // A handle that the call acts on: null after raising KS_INVALID_VALUE
    // when it is null, deleted or not of this context.
    template <class T>
    T* Use(const HandleTable<T>& table, ObjectKind kind, Id id)
    {
        if (T* object = table.Find(id))
            return object;
        RaiseBadHandle(kind, id, _pContext->StateOf(kind, id));
        return nullptr;
    }
    // A handle to bind: null is fine, so is a live one.
    bool CheckBindable(ObjectKind kind, Id id);
    // A handle to delete or detach: true when it is live. Null and
    // already-deleted ones are silently skipped; others raise.
    bool CheckDeletable(ObjectKind kind, Id id);

    // Lets other threads use the context while a frame renders without it.
    void Unlock();
    void Relock();

private:
    struct Note
    {
        KestrelNotificationFunction _pNotify;
        void* _pUserData;
        int _nCode;
        std::string _sMessage;
    };

    void _Raise(int code, std::string message);

    const char* _pFunction;
    std::shared_ptr<Context> _pContext;
    std::unique_lock<std::mutex> _lock;
    Mode _eMode;
    bool _bFaulted = false;
    int _nErrorAfter = 0;
    std::vector<Note> _notes;
};

// What a call writes through an array output when it does no work: null
// handles, primitive 0.
template <class T>
void ClearOutputs(long long count, T* outputs)
{
    if (outputs)
        for (long long i = 0; i < count; ++i)
            outputs[i] = T{};
}

// Raises `code` in the current context from outside any call (the testing
// interface): kept if none is pending, and notified.
void RaiseInCurrentContext(int code, const std::string& message);

} // namespace Kestrel

#endif // KESTREL_CONTEXT_H
