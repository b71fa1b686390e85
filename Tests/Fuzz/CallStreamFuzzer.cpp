// libFuzzer target over Kestrel call streams: the input decodes into calls of
// every API function, with arguments drawn from small pools of live, deleted,
// foreign and null handles, good and bad enums, edge sizes and buffers this
// target owns with their true sizes. After every call a small model of the
// documented behaviour is checked: the first error is kept until read,
// bindings read back what was bound (null after a delete), deleted handles stay
// dead, mappings stay writable until their own unmap, a stopped frame reads
// KS_RENDER_STOPPED, and the object counts agree. A disagreement prints the
// stream in the call log's text form and aborts.
//
// Input format: one opcode byte per call (modulo the number of operations),
// then one byte per argument choice, each an index into that argument's pool.
#include "KestrelTesting.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace Kestrel::Testing;

namespace
{

constexpr int kAny = -1; // the model does not predict this call's error

// Primitives are numbers, the other kinds pointers; the model keys both by id.
enum Kind
{
    kShader,
    kProgram,
    kBuffer,
    kTexture,
    kFramebuffer,
    kPrimitive,
    kKinds
};
enum Class
{
    kNull,
    kLive,
    kDeleted,
    kBad
};

template <class T>
std::uintptr_t IdOf(T handle)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<std::uintptr_t>(handle);
    else
        return handle;
}
template <class T>
T As(std::uintptr_t id)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<T>(id);
    else
        return static_cast<T>(id);
}
// What a binding point holds, read through the runtime's own query.
template <class T, void (*get)(int, T*)>
std::uintptr_t ReadBinding(int name)
{
    T value{};
    get(name, &value);
    return IdOf(value);
}

// Binding points: the target that binds them, the name that reads them back,
// the kind they hold. The points of one kind are adjacent.
struct Point
{
    int target;
    int name;
    Kind kind;
    std::uintptr_t (*read)(int);
};
constexpr auto kReadBuffer = ReadBinding<_KSbuffer*, ksGetBuffer>;
const Point kPoints[] = {
    {KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING, kBuffer, kReadBuffer},
    {KS_ELEMENT_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER_BINDING, kBuffer, kReadBuffer},
    {KS_PIXEL_PACK_BUFFER, KS_PIXEL_PACK_BUFFER_BINDING, kBuffer, kReadBuffer},
    {KS_PIXEL_UNPACK_BUFFER, KS_PIXEL_UNPACK_BUFFER_BINDING, kBuffer, kReadBuffer},
    {KS_UNIFORM_BLOCK_BUFFER, KS_UNIFORM_BLOCK_BUFFER_BINDING, kBuffer, kReadBuffer},
    {KS_TEXTURE_2D, KS_TEXTURE_BINDING_2D, kTexture, ReadBinding<_KStexture*, ksGetTexture>},
    {KS_FRAMEBUFFER, KS_FRAMEBUFFER_BINDING, kFramebuffer,
     ReadBinding<_KSframebuffer*, ksGetFramebuffer>},
    {KS_PRIMITIVE, KS_PRIMITIVE_BINDING, kPrimitive, ReadBinding<KSprimitive, ksGetPrimitive>},
};
constexpr int kPointCount = sizeof(kPoints) / sizeof(kPoints[0]);
constexpr int kFramebufferPoint = 6, kPrimitivePoint = 7;

// The first binding point of a kind and how many it has.
int PointsOf(Kind kind, int* count)
{
    int first = 0;
    while (kPoints[first].kind != kind)
        ++first;
    for (*count = 0; first + *count < kPointCount && kPoints[first + *count].kind == kind;)
        ++*count;
    return first;
}

// A handle as the call log writes it: a live one as its kind's prefix and
// serial, which tells liveness (primitives are asked through ReadPrimitive).
const char* const kKindText[kKinds] = {"shader#", "prog#", "buf#", "tex#", "fb#", "prim "};
template <class T>
std::string Text(std::uintptr_t id)
{
    if constexpr (std::is_pointer_v<T>)
        return Describe(As<T>(id));
    return std::to_string(id);
}
std::string (*const kText[kKinds])(std::uintptr_t) = {Text<_KSshader*>,      Text<_KSprogram*>,
                                                      Text<_KSbuffer*>,      Text<_KStexture*>,
                                                      Text<_KSframebuffer*>, Text<KSprimitive>};

const char* const kSources[] = {
    "uniform vec3 center = vec3(0, 0, -3);\nuniform float radius = 1.0;\nsphere(center, radius);\n",
    "uniform vec3 albedo = vec3(1, 0.5, 0);\ndiffuse(albedo);\n",
    "output(0, radiance);\nbackground(vec3(1, 1, 1));\n",
    "uniform vec3 albedo;\nuniform texture t;\n",
    "uniformblock mesh;\ntriangles(mesh);\n",
    "emissive(vec3(4, 4, 4));\n",
    "sphere(",
    "",
};

// What this target believes the context holds.
struct Model
{
    struct Object
    {
        Kind kind;
        bool live;
    };
    struct Buffer
    {
        unsigned long long size = 0;
        unsigned char* mapping = nullptr;
        int refusedMaps = 0; // maps refused while mapped, each closed by an unmap of its own
    };
    struct Primitive
    {
        std::uintptr_t program = 0;
        std::map<int, std::uintptr_t> blocks;
    };
    std::map<std::uintptr_t, Object> objects;
    std::vector<std::uintptr_t> order; // ids in creation order, for the pools
    std::map<std::uintptr_t, Buffer> buffers;
    std::map<std::uintptr_t, Primitive> records{{0u, {}}}; // live primitives and the frame's
    std::uintptr_t bound[kPointCount] = {};
    int pending = 0;
    int filterTableSize = 1;
    int requestedTableSize = 1; // the host's view: the size it asked for last
    bool tableSizeRefused = false;

    Class Of(Kind kind, std::uintptr_t id) const
    {
        if (id == 0)
            return kNull;
        auto it = objects.find(id);
        if (it == objects.end())
            return kBad;
        if (!it->second.live)
            return kDeleted;
        return it->second.kind == kind ? kLive : kBad;
    }
    void Add(Kind kind, std::uintptr_t id)
    {
        objects[id] = {kind, true};
        order.push_back(id);
        if (kind == kBuffer)
            buffers[id] = {};
        if (kind == kPrimitive)
            records[id] = {};
    }
    void Delete(Kind kind, std::uintptr_t id)
    {
        objects[id].live = false;
        for (int i = 0; i < kPointCount; ++i)
            if (kPoints[i].kind == kind && bound[i] == id)
                bound[i] = 0;
        if (kind == kPrimitive)
            records.erase(id);
        for (auto& record : records)
        {
            if (kind == kProgram && record.second.program == id)
                record.second.program = 0;
            for (auto it = record.second.blocks.begin(); it != record.second.blocks.end();)
                it = kind == kBuffer && it->second == id ? record.second.blocks.erase(it)
                                                         : std::next(it);
        }
        if (kind == kBuffer)
            buffers.erase(id);
    }
    int Live(Kind kind) const
    {
        int n = 0;
        for (const auto& object : objects)
            n += object.second.live && object.second.kind == kind;
        return n;
    }
};

// Everything one input works with; reset per input.
struct State
{
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    Model model;
    void* context = nullptr;
    std::vector<std::string> history; // the stream so far, as the call log wrote it
    std::string function;             // the function under test, for messages
    std::vector<std::unique_ptr<std::vector<unsigned char>>> owned; // outlive the context
};

State* g_state = nullptr;
std::mutex g_noticeMutex;
std::vector<int> g_notices;
bool g_badMessage = false;

// Stop modes of a frame and the hand-over with the stopping thread.
std::atomic<int> g_stopMode{0};
std::atomic<bool> g_hookEntered{false}, g_buildEntered{false}, g_stopDone{false},
    g_frameDone{false};

// One object of each kind from another context, and an id never issued.
std::uintptr_t g_foreign[kKinds] = {};
constexpr std::uintptr_t kNeverIssued = 0x7ffffff0u;

void Notify(int code, const void*, size_t, const char* message, void*)
{
    std::lock_guard<std::mutex> lock(g_noticeMutex);
    g_notices.push_back(code);
    const std::string text = message ? message : "";
    if (g_state && text != "frame stopped" && text.rfind(g_state->function + ":", 0) != 0)
        g_badMessage = true;
}

std::vector<int> TakeNotices()
{
    std::lock_guard<std::mutex> lock(g_noticeMutex);
    std::vector<int> taken;
    taken.swap(g_notices);
    return taken;
}

[[noreturn]] void Disagree(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Disagree(const char* format, ...)
{
    std::fprintf(stderr, "\n==== Kestrel call stream disagrees with the model ====\n");
    if (g_state)
        for (const std::string& line : g_state->history)
            std::fprintf(stderr, "  %s\n", line.c_str());
    std::fprintf(stderr, "model: ");
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fprintf(stderr, "\n");
    std::abort();
}

// ---------------------------------------------------------------------------
// Argument pools

std::uint8_t Byte()
{
    State& s = *g_state;
    if (s.size == 0)
        return 0;
    --s.size;
    return *s.data++;
}
template <class T, std::size_t N>
T Pick(const T (&pool)[N])
{
    return pool[Byte() % N];
}

// Null, this input's objects of the kind, a foreign one, one never issued,
// then this input's objects of other pointer kinds.
std::uintptr_t PickHandle(Kind kind)
{
    const Model& m = g_state->model;
    std::vector<std::uintptr_t> pool{0};
    for (std::uintptr_t id : m.order)
        if (m.objects.at(id).kind == kind)
            pool.push_back(id);
    pool.push_back(g_foreign[kind]);
    pool.push_back(kNeverIssued);
    for (std::uintptr_t id : m.order)
        if (kind != kPrimitive && m.objects.at(id).kind != kind &&
            m.objects.at(id).kind != kPrimitive)
            pool.push_back(id);
    return pool[Byte() % pool.size()];
}

// A target of the kind's binding points, the next kind's target, or 0.
struct Target
{
    int target;
    int point;    // -1 for a bad target
    bool unbound; // a good target whose point holds nothing
};
Target PickTarget(Kind kind)
{
    int count = 0;
    const int first = PointsOf(kind, &count);
    const int t = Byte() % (count + 2);
    if (t < count)
        return {kPoints[first + t].target, first + t, !g_state->model.bound[first + t]};
    return {t == count ? kPoints[(first + count) % kPointCount].target : 0, -1, false};
}

// A buffer owned by this target, alive until the input ends (client storage
// keeps texture pixels in it).
template <class T>
T* Owned(std::size_t count)
{
    auto bytes = std::make_unique<std::vector<unsigned char>>(count * sizeof(T) + (count == 0));
    T* data = reinterpret_cast<T*>(bytes->data());
    for (std::size_t i = 0; i < bytes->size(); ++i)
        (*bytes)[i] = static_cast<unsigned char>(i * 37);
    g_state->owned.push_back(std::move(bytes));
    return data;
}

// Null or an owned array of exactly `count` elements (count < 0: null).
template <class T>
T* MaybeArray(long long count)
{
    if (count < 0 || Byte() % 5 == 0)
        return nullptr;
    return Owned<T>(static_cast<std::size_t>(count));
}

const int kCounts[] = {1, 0, 2, 3, -1, INT32_MIN};
const long long kLongCounts[] = {1, 0, 2, 3, -1, INT64_MIN};
const int kLocations[] = {0, 1, -1, 2, -2, 3};
const char* const kTexts[] = {"a name", "", nullptr};

// ---------------------------------------------------------------------------
// Checks

// Runs one call of the stream: logs it into the history, then checks the
// error it raised against `expect` (kAny: any) and folds it into the register.
// Only the call itself is logged: formatting the checks' own queries would
// cost a third of the fuzzer's time.
template <class F>
std::vector<int> Call(int expect, F&& call)
{
    State& s = *g_state;
    TakeNotices();
    {
        CallLog log;
        call();
        for (std::string& line : log.Calls())
            s.history.push_back(std::move(line));
    }
    std::vector<int> notices = TakeNotices();
    if (g_badMessage)
        Disagree("a notification of %s does not name it", s.function.c_str());
    const int first = notices.empty() ? 0 : notices[0];
    if (expect != kAny && first != expect)
        Disagree("%s raised 0x%x, documented: 0x%x", s.function.c_str(), first, expect);
    if (s.model.pending == 0)
        s.model.pending = first;
    return notices;
}

// After every call: counts, liveness, bindings, primitive records, mappings.
void Verify()
{
    State& s = *g_state;
    Model& m = s.model;
    s.function = "check";
    const ObjectCounts counts = CountObjects(s.context);
    const ObjectCounts expected{m.Live(kShader), m.Live(kProgram), m.Live(kPrimitive),
                                m.Live(kBuffer), m.Live(kTexture), m.Live(kFramebuffer)};
    if (!(counts == expected))
        Disagree("object counts %d %d %d %d %d %d, expected %d %d %d %d %d %d", counts.shaders,
                 counts.programs, counts.primitives, counts.buffers, counts.textures,
                 counts.framebuffers, expected.shaders, expected.programs, expected.primitives,
                 expected.buffers, expected.textures, expected.framebuffers);
    for (const auto& [id, object] : m.objects)
    {
        PrimitiveRecord read;
        const bool live = object.kind == kPrimitive
                              ? ReadPrimitive(static_cast<KSprimitive>(id), &read)
                              : kText[object.kind](id).rfind(kKindText[object.kind], 0) == 0;
        if (live != object.live)
            Disagree("%s0x%zx is %s in the model", kKindText[object.kind],
                     static_cast<std::size_t>(id), object.live ? "live" : "deleted");
    }
    for (auto& [number, record] : m.records)
    {
        PrimitiveRecord read;
        if (!ReadPrimitive(static_cast<KSprimitive>(number), &read))
            Disagree("primitive %zu is live in the model", static_cast<std::size_t>(number));
        std::map<int, std::uintptr_t> blocks;
        for (const auto& block : read.blocks)
            blocks[block.first] = IdOf(block.second);
        if (IdOf(read.program) != record.program || blocks != record.blocks)
            Disagree("primitive %zu has program %s and other blocks than were bound",
                     static_cast<std::size_t>(number), Describe(read.program).c_str());
    }
    for (int i = 0; i < kPointCount; ++i)
        if (kPoints[i].read(kPoints[i].name) != m.bound[i])
            Disagree("binding point %d reads another object than was bound", i);
    if (!TakeNotices().empty())
        Disagree("the check's own binding queries raised an error");
    // A live mapping must stay writable (AddressSanitizer watches).
    for (const auto& buffer : m.buffers)
        if (buffer.second.mapping)
            std::memset(buffer.second.mapping, 0x5a, buffer.second.size);
}

// ---------------------------------------------------------------------------
// Shapes shared by many functions

// Binding: null unbinds, live binds, anything else is a bad value.
int BindExpect(Class c)
{
    return (c == kNull || c == kLive) ? 0 : KS_INVALID_VALUE;
}
Class ClassOf(Kind kind, std::uintptr_t id)
{
    return g_state->model.Of(kind, id);
}
// The order most calls check in: their enums (a target among them), then
// their values (`valueError`: what a bad one raises, 0 for good ones), then
// that something is bound where they act.
int Expect(bool badEnum, int valueError, bool unbound, int otherwise = 0)
{
    return badEnum      ? KS_INVALID_ENUM
           : valueError ? valueError
           : unbound    ? KS_INVALID_OPERATION
                        : otherwise;
}
bool FramebufferUnbound()
{
    return g_state->model.bound[kFramebufferPoint] == 0;
}

// A handle a call made: new to this input, then in the model.
void Made(Kind kind, std::uintptr_t id)
{
    if (!id || g_state->model.objects.count(id))
        Disagree("%s gave null or a used handle", g_state->function.c_str());
    g_state->model.Add(kind, id);
}

template <class T>
void Gen(void (*gen)(int, T*), Kind kind)
{
    const int count = Pick(kCounts);
    T* out = MaybeArray<T>(count);
    const int expect = (count < 0 || (count > 0 && !out)) ? KS_INVALID_VALUE : 0;
    Call(expect, [&] { gen(count, out); });
    for (int i = 0; expect == 0 && i < count; ++i)
        Made(kind, IdOf(out[i]));
}

// A list of handles: any that is not of the kind (null and deleted ones are
// ignored) makes it a bad value, and the live ones go all the same.
template <class T>
void Delete(void (*del)(int, T*), Kind kind)
{
    Model& m = g_state->model;
    const int count = Pick(kCounts);
    T* in = MaybeArray<T>(count);
    int expect = (count < 0 || (count > 0 && !in)) ? KS_INVALID_VALUE : 0;
    std::string handles;
    for (int i = 0; in && i < count; ++i)
    {
        in[i] = As<T>(PickHandle(kind));
        handles += (i ? ", " : " // ") + kText[kind](IdOf(in[i]));
        if (m.Of(kind, IdOf(in[i])) == kBad)
            expect = KS_INVALID_VALUE;
    }
    Call(expect, [&] { del(count, in); });
    g_state->history.back() += handles;
    for (int i = 0; in && i < count; ++i)
        if (m.Of(kind, IdOf(in[i])) == kLive)
            m.Delete(kind, IdOf(in[i]));
}

template <class T>
void DeleteOne(void (*del)(T), Kind kind)
{
    const std::uintptr_t id = PickHandle(kind);
    const Class c = ClassOf(kind, id);
    Call(c == kBad ? KS_INVALID_VALUE : 0, [&] { del(As<T>(id)); });
    if (c == kLive)
        g_state->model.Delete(kind, id);
}

// A call on one object that must be live.
template <class T>
void Use(void (*use)(T), Kind kind)
{
    const std::uintptr_t id = PickHandle(kind);
    Call(ClassOf(kind, id) == kLive ? 0 : KS_INVALID_VALUE, [&] { use(As<T>(id)); });
}

// The target is checked before the handle.
template <class T>
void Bind(void (*bind)(int, T), Kind kind)
{
    const Target t = PickTarget(kind);
    const std::uintptr_t id = PickHandle(kind);
    const int expect = Expect(t.point < 0, BindExpect(ClassOf(kind, id)), false);
    Call(expect, [&] { bind(t.target, As<T>(id)); });
    if (expect == 0)
        g_state->model.bound[t.point] = id;
}

// The kind's binding names are good; its first bind target and 0 are not.
template <class T>
void GetBinding(void (*get)(int, T*), Kind kind)
{
    int count = 0;
    const int first = PointsOf(kind, &count);
    const int n = Byte() % (count + 2);
    const int name = n < count ? kPoints[first + n].name : n == count ? kPoints[first].target : 0;
    T* out = MaybeArray<T>(1);
    Call(Expect(n >= count, !out ? KS_INVALID_VALUE : 0, false), [&] { get(name, out); });
}

// Object parameters: the first name of a pool is the integer one, the last
// belongs to another kind, the ones between are strings and the one before the
// last is the settable one. The name is checked first, then that the handle is
// live and the value or out pointer there.
const int kShaderNames[] = {KS_COMPILE_STATUS, KS_SHADER_LOG, KS_SHADER_SOURCE, KS_SHADER_NAME,
                            KS_LINK_STATUS};
const int kProgramNames[] = {KS_LINK_STATUS, KS_PROGRAM_LOG, KS_PROGRAM_NAME, KS_SHADER_LOG};

template <class T, class V, std::size_t N>
void ObjectParameter(void (*call)(T, int, V), Kind kind, const int (&names)[N])
{
    const std::uintptr_t id = PickHandle(kind);
    const std::size_t n = Byte() % N;
    V value{};
    bool goodName = n + 2 == N;
    if constexpr (std::is_same_v<V, const char*>)
        value = Pick(kTexts);
    else
    {
        value = MaybeArray<std::remove_pointer_t<V>>(1);
        goodName = std::is_same_v<V, int*> ? n == 0 : n > 0 && n + 1 < N;
    }
    const bool bad = ClassOf(kind, id) != kLive || !value;
    const int expect = Expect(!goodName, bad ? KS_INVALID_VALUE : 0, false);
    Call(expect, [&] { call(As<T>(id), names[n], value); });
    if constexpr (std::is_same_v<V, const char**>)
        if (expect == 0 && *value)
            (void)std::strlen(*value);
}

// Location -1 ignores the value; elsewhere a handle must be live or null.
template <class T>
void UniformHandle(void (*set)(int, T), Kind kind)
{
    const int location = Pick(kLocations);
    const std::uintptr_t id = PickHandle(kind);
    const bool bad = location < -1 || (location >= 0 && BindExpect(ClassOf(kind, id)) != 0);
    Call(bad ? KS_INVALID_VALUE : location == -1 ? 0 : kAny, [&] { set(location, As<T>(id)); });
}

// Vector uniforms get exactly `width` values per element, or null.
template <class V>
void UniformVector(void (*set)(int, long long, const V*), int width, Kind kind = kKinds)
{
    const int location = Pick(kLocations);
    const long long count = Pick(kLongCounts);
    V* values = MaybeArray<V>(count < 0 ? -1 : count * width);
    if constexpr (std::is_same_v<V, _KStexture*> || std::is_same_v<V, KSprimitive>)
        for (long long i = 0; values && i < count; ++i)
            values[i] = As<V>(PickHandle(kind));
    Call(kAny, [&] { set(location, count, values); });
}

void UniformMatrix(void (*set)(int, long long, int, const float*), int width)
{
    const int location = Pick(kLocations);
    const long long count = Pick(kLongCounts);
    const float* values = MaybeArray<float>(count < 0 ? -1 : count * width);
    const int transpose = Byte() % 3;
    Call(kAny, [&] { set(location, count, transpose, values); });
}

// ---------------------------------------------------------------------------
// Functions with shapes of their own

Model::Buffer* BoundBuffer(const Target& t)
{
    Model& m = g_state->model;
    return t.point >= 0 && !t.unbound ? &m.buffers[m.bound[t.point]] : nullptr;
}

void BufferData()
{
    const Target t = PickTarget(kBuffer);
    Model::Buffer* bound = BoundBuffer(t);
    const unsigned long long sizes[] = {16, 0, 1, 4096, (1ULL << 34) + 1, ~0ULL};
    const unsigned long long size = Pick(sizes);
    const int usages[] = {KS_STATIC_DRAW, KS_DYNAMIC_DRAW, KS_STREAM_COPY, KS_RGBA, 0};
    const int usage = Pick(usages);
    const void* data =
        size <= 4096 ? MaybeArray<unsigned char>(static_cast<long long>(size)) : nullptr;
    int expect = Expect(t.point < 0 || usage == KS_RGBA || usage == 0, 0, t.unbound);
    if (expect == 0 && bound->mapping)
        expect = KS_INVALID_OPERATION;
    if (expect == 0 && size > (1ULL << 34))
        expect = KS_OUT_OF_MEMORY;
    Call(expect, [&] { ksBufferData(t.target, size, data, usage); });
    if (expect == 0)
        bound->size = size;
}

void MapBuffer()
{
    const Target t = PickTarget(kBuffer);
    Model::Buffer* bound = BoundBuffer(t);
    const int accesses[] = {KS_READ_WRITE, KS_READ_ONLY, KS_WRITE_ONLY, KS_STATIC_DRAW};
    const int access = Pick(accesses);
    int expect = Expect(t.point < 0 || access == KS_STATIC_DRAW, 0, t.unbound);
    if (expect == 0 && (bound->mapping || bound->size == 0))
        expect = KS_INVALID_OPERATION;
    void* mapping = nullptr;
    Call(expect, [&] { mapping = ksMapBuffer(t.target, access); });
    if ((mapping != nullptr) != (expect == 0))
        Disagree("ksMapBuffer gave %s", mapping ? "a mapping" : "null");
    if (expect == 0)
        bound->mapping = static_cast<unsigned char*>(mapping);
    else if (bound && bound->mapping)
        ++bound->refusedMaps;
}

void UnmapBuffer()
{
    const Target t = PickTarget(kBuffer);
    Model::Buffer* bound = BoundBuffer(t);
    Call(Expect(t.point < 0, 0, t.unbound), [&] { ksUnmapBuffer(t.target); });
    if (bound && bound->refusedMaps > 0)
        --bound->refusedMaps;
    else if (bound)
        bound->mapping = nullptr;
}

// Target-named string parameters: the kind's own name or another kind's;
// a getter's out pointer may be null.
template <class V>
void TargetString(void (*call)(int, int, V), Kind kind)
{
    const Target t = PickTarget(kind);
    const int names[] = {kind == kBuffer ? KS_BUFFER_NAME : KS_PRIMITIVE_NAME,
                         kind == kBuffer ? KS_PROGRAM_NAME : KS_BUFFER_NAME};
    const int name = Pick(names);
    V value{};
    if constexpr (std::is_same_v<V, const char**>)
        value = MaybeArray<const char*>(1);
    else
        value = Pick(kTexts);
    Call(kAny, [&] { call(t.target, name, value); });
}

void TexImage2D()
{
    const Target t = PickTarget(kTexture);
    const int edges[] = {2, 1, 0, 3, 17, -1, 65537};
    const int width = Pick(edges), height = Pick(edges);
    const int formats[] = {KS_RGBA, KS_RGB, KS_LUMINANCE, 0, KS_FLOAT};
    const int types[] = {KS_FLOAT, KS_UNSIGNED_BYTE, KS_SHORT, KS_UNSIGNED_SHORT,
                         KS_INT,   KS_UNSIGNED_INT,  0};
    const int format = Pick(formats), type = Pick(types);
    const int internal = Byte() % 4 ? format : KS_RGB;
    const int levels[] = {0, 1, -1};
    const int level = Pick(levels), border = Pick(levels);
    const int channels = format == KS_RGBA ? 4 : format == KS_RGB ? 3 : 1;
    const int typeBytes = type == KS_UNSIGNED_BYTE                        ? 1
                          : type == KS_SHORT || type == KS_UNSIGNED_SHORT ? 2
                                                                          : 4;
    const long long bytes = width < 0 || height < 0 || width > 65536 || height > 65536
                                ? -1
                                : 1LL * width * height * channels * typeBytes;
    void* pixels = MaybeArray<unsigned char>(bytes);
    Call(kAny, [&]
         { ksTexImage2D(t.target, level, internal, width, height, border, format, type, pixels); });
}

void TexParameteri()
{
    const Target t = PickTarget(kTexture);
    const int names[] = {KS_TEXTURE_MIN_FILTER, KS_TEXTURE_MAG_FILTER, KS_TEXTURE_WRAP_S,
                         KS_TEXTURE_WRAP_T, KS_TEXTURE_2D};
    const int values[] = {KS_NEAREST, KS_LINEAR,        KS_LINEAR_MIPMAP_LINEAR,
                          KS_REPEAT,  KS_CLAMP_TO_EDGE, KS_MIRRORED_REPEAT,
                          0};
    const int n = Byte() % 5, v = Byte() % 7;
    // Every parameter takes each of the six filter and wrap values.
    Call(Expect(t.point < 0 || n == 4 || v == 6, 0, t.unbound),
         [&] { ksTexParameteri(t.target, names[n], values[v]); });
}

void GenerateMipmap()
{
    const Target t = PickTarget(kTexture);
    Call(Expect(t.point < 0, 0, t.unbound, kAny), [&] { ksGenerateMipmap(t.target); });
}

void PixelStorei()
{
    const int names[] = {KS_UNPACK_CLIENT_STORAGE, KS_TEXTURE_2D};
    const int values[] = {0, 1, 2, -1};
    const int name = Pick(names), value = Pick(values);
    const bool bad = value != 0 && value != 1;
    Call(Expect(name != KS_UNPACK_CLIENT_STORAGE, bad ? KS_INVALID_VALUE : 0, false),
         [&] { ksPixelStorei(name, value); });
}

// Attachment points 0..16: one per attachment bit of the clear mask.
int PickAttachment()
{
    const int indices[] = {0, 1, 15, 16, -1, 17};
    return Pick(indices);
}

void FramebufferTexture2D()
{
    const Target t = PickTarget(kFramebuffer);
    const int index = PickAttachment();
    const std::uintptr_t texture = PickHandle(kTexture);
    const int textureTargets[] = {KS_TEXTURE_2D, KS_FRAMEBUFFER};
    const int textureTarget = Pick(textureTargets);
    const int levels[] = {0, 1};
    const int level = Pick(levels);
    // Null detaches; a live texture attaches, image or not.
    const bool badEnum = t.point < 0 || index < 0 || index > 16 || textureTarget != KS_TEXTURE_2D;
    const bool bad = level != 0 || BindExpect(ClassOf(kTexture, texture)) != 0;
    Call(Expect(badEnum, bad ? KS_INVALID_VALUE : 0, t.unbound),
         [&]
         {
             ksFramebufferTexture2D(t.target, KS_COLOR_ATTACHMENT0 + index, textureTarget,
                                    As<_KStexture*>(texture), level);
         });
}

void FramebufferAttachmentParameter1i()
{
    const Target t = PickTarget(kFramebuffer);
    const int index = PickAttachment();
    const int names[] = {KS_ATTACHMENT_FILTER, KS_ATTACHMENT_BLEND_MODE, KS_FILTER_SIZE};
    const int values[] = {0, 1, KS_BLEND_MODE_0, KS_BLEND_MODE_2, KS_BLEND_MODE_3, 2};
    const int n = Byte() % 3, v = Byte() % 6;
    const bool fits = n == 0 ? v < 2 : n == 1 ? (v >= 2 && v <= 4) : false;
    const bool badEnum = t.point < 0 || index < 0 || index > 16 || n == 2;
    Call(Expect(badEnum, fits ? 0 : kAny, t.unbound),
         [&]
         {
             ksFramebufferAttachmentParameter1i(t.target, KS_COLOR_ATTACHMENT0 + index, names[n],
                                                values[v]);
         });
}

void Clear()
{
    const unsigned first = KS_COLOR_ATTACHMENT0_BIT, all = KS_COLOR_BUFFER_BIT;
    const unsigned masks[] = {all, first, first << 15, 0x8000u << 16, 0, 1, all | first << 1};
    const int i = Byte() % 7;
    Call(Expect(false, i == 5 ? KS_INVALID_VALUE : 0, FramebufferUnbound()),
         [&] { ksClear(masks[i]); });
}

// ksRenderFrame with a stop from a second thread: none, before the frame
// (must not carry over), while the render hook holds the frame (must stop
// it), an input-chosen spin after the hook (either outcome), or while the
// scene's build is held at its start (must stop it).
void RenderFrame()
{
    const int mode = Byte() % 5;
    const int spin = Byte() * 64;
    void* context = g_state->context;
    g_hookEntered = g_buildEntered = g_stopDone = g_frameDone = false;
    g_stopMode = mode;
    std::thread stopper;
    if (mode == 1)
        std::thread([context] { KestrelStopContext(context); }).join();
    else if (mode >= 2)
        stopper = std::thread(
            [context, mode, spin]
            {
                std::atomic<bool>& point = mode == 4 ? g_buildEntered : g_hookEntered;
                while (!point && !g_frameDone)
                    std::this_thread::yield();
                if (!point)
                    return;
                for (volatile int i = 0; mode == 3 && i < spin; ++i)
                {
                }
                KestrelStopContext(context);
                g_stopDone = true;
            });
    std::vector<int> notices = Call(Expect(false, 0, FramebufferUnbound(), kAny),
                                    [&]
                                    {
                                        ksRenderFrame();
                                        g_frameDone = true;
                                        if (stopper.joinable())
                                            stopper.join();
                                    });
    g_stopMode = 0;
    const bool stopped =
        std::find(notices.begin(), notices.end(), KS_RENDER_STOPPED) != notices.end();
    if (g_hookEntered && mode == 2 && !stopped)
        Disagree("a stop while the render hook held the frame did not stop it");
    if (g_buildEntered && mode == 4 && !stopped)
        Disagree("a stop during the scene's build did not stop the frame");
    if ((mode == 0 || mode == 1) && stopped)
        Disagree("a frame stopped with no stop during it");
    if (!g_hookEntered && !g_buildEntered && stopped)
        Disagree("a frame that never began was stopped");
}

// The render hook (stop mode 2) and the build hook (mode 4): each notes that
// the frame got there and holds it there until the stop in its own mode.
template <std::atomic<bool>& entered, int holdMode>
void Hold(void*)
{
    entered = true;
    if (g_stopMode == holdMode)
        while (!g_stopDone)
            std::this_thread::yield();
}

// Reads of the filter table's size give the last size that was accepted.
void CheckTableSize(long long read)
{
    if (read != g_state->model.filterTableSize)
        Disagree("KS_FILTER_TABLE_SIZE reads %lld, set %d", read, g_state->model.filterTableSize);
}

// The five ksGet functions, each with the names it reads.
template <class V>
void Query(void (*get)(int, V*), int reader)
{
    const int names[] = {KS_HARDWARE_ACCELERATED, KS_MAX_RAY_DEPTH,     KS_FILTER_TABLE_SIZE,
                         KS_FRAME_STATISTIC_4,    KS_FRAME_STATISTIC_8, KS_FRAME_STATISTIC_1,
                         KS_RAY_DEPTH_LIMIT,      KS_VERSION,           0};
    // Which of the five reads each name (-1: none).
    const int readers[] = {0, 1, 1, 2, 3, 4, 1, -1, -1};
    const int n = Byte() % 9;
    const bool null = Byte() % 5 == 0;
    V out{};
    const int expect = Expect(readers[n] != reader, null ? KS_INVALID_VALUE : 0, false);
    Call(expect, [&] { get(names[n], null ? nullptr : &out); });
    if (expect == 0 && names[n] == KS_FILTER_TABLE_SIZE)
        CheckTableSize(static_cast<long long>(out));
}

void FrameParameter1i()
{
    Model& m = g_state->model;
    const int names[] = {KS_FILTER_TABLE_SIZE, KS_RAY_DEPTH_LIMIT, KS_FILTER_SIZE};
    const int values[] = {1, 2, 8, 0, 9, -1, 3, INT32_MAX};
    const int name = Pick(names), value = Pick(values);
    const int max = name == KS_FILTER_TABLE_SIZE ? 8 : 4;
    const int min = name == KS_FILTER_TABLE_SIZE ? 1 : 0;
    const bool bad = value < min || value > max;
    const int expect = Expect(name == KS_FILTER_SIZE, bad ? KS_INVALID_VALUE : 0, false);
    Call(expect, [&] { ksFrameParameter1i(name, value); });
    if (name == KS_FILTER_TABLE_SIZE)
    {
        m.requestedTableSize = value;
        m.tableSizeRefused = expect != 0;
        m.filterTableSize = expect == 0 ? value : m.filterTableSize;
    }
}

void FrameParameter1f()
{
    const int names[] = {KS_FILTER_SIZE, KS_FILTER_TABLE_SIZE};
    const float values[] = {1.5f, 0.0f, -1.0f, 1e30f};
    const int name = Pick(names);
    const float value = Pick(values);
    Call(Expect(name != KS_FILTER_SIZE, value > 0.0f ? 0 : KS_INVALID_VALUE, false),
         [&] { ksFrameParameter1f(name, value); });
}

void FrameParameterfv()
{
    const Model& m = g_state->model;
    const int names[] = {KS_FILTER_TABLE, KS_FILTER_SIZE};
    const int name = Pick(names);
    // Exactly as many floats as the host made for the size it asked for
    // last: a read past them is a finding of AddressSanitizer. After a
    // refused size the table is refused too.
    const long long side =
        m.requestedTableSize > 0 && m.requestedTableSize <= 64 ? m.requestedTableSize : 0;
    float* table = MaybeArray<float>(side * side);
    Call(Expect(name != KS_FILTER_TABLE, !table ? KS_INVALID_VALUE : 0, m.tableSizeRefused),
         [&] { ksFrameParameterfv(name, table); });
}

void GetFrameParameteriv()
{
    const int names[] = {KS_FILTER_TABLE_SIZE, KS_RAY_DEPTH_LIMIT, KS_FILTER_SIZE};
    const int name = Pick(names);
    int* out = MaybeArray<int>(1);
    const int expect = Expect(name == KS_FILTER_SIZE, !out ? KS_INVALID_VALUE : 0, false);
    Call(expect, [&] { ksGetFrameParameteriv(name, out); });
    if (expect == 0 && name == KS_FILTER_TABLE_SIZE)
        CheckTableSize(*out);
}

void CreateShader()
{
    const int kinds[] = {
        KS_VERTEX_SHADER,    KS_SHADER_KIND_2, KS_SHADER_KIND_3, KS_LINK_ONCE_SHADER, 0,
        KS_VERTEX_SHADER + 1};
    const int kind = Pick(kinds);
    const int expect = kind == 0 || kind == KS_VERTEX_SHADER + 1 ? KS_INVALID_ENUM : 0;
    _KSshader* made = nullptr;
    Call(expect, [&] { made = ksCreateShader(kind); });
    if (expect != 0 && made)
        Disagree("ksCreateShader made a shader of a bad kind");
    if (expect == 0)
        Made(kShader, IdOf(made));
}

void CreateProgram()
{
    _KSprogram* made = nullptr;
    Call(0, [&] { made = ksCreateProgram(); });
    Made(kProgram, IdOf(made));
}

void ShaderSource()
{
    const std::uintptr_t shader = PickHandle(kShader);
    const long long count = Pick(kLongCounts);
    const char** strings = MaybeArray<const char*>(count);
    constexpr std::size_t kSourceCount = sizeof(kSources) / sizeof(kSources[0]);
    bool nullString = false;
    for (long long i = 0; strings && i < count; ++i)
    {
        const std::size_t s = Byte() % (kSourceCount + 1);
        strings[i] = s < kSourceCount ? kSources[s] : nullptr;
        nullString |= strings[i] == nullptr;
    }
    int* lengths = Byte() % 2 ? MaybeArray<int>(count) : nullptr;
    for (long long i = 0; lengths && strings && i < count; ++i)
        lengths[i] =
            strings[i] ? static_cast<int>(std::strlen(strings[i])) - (Byte() % 3 == 0) : -1;
    const bool bad =
        ClassOf(kShader, shader) != kLive || count < 0 || (count > 0 && !strings) || nullString;
    Call(bad ? KS_INVALID_VALUE : 0,
         [&] { ksShaderSource(As<_KSshader*>(shader), count, strings, lengths); });
}

// Attaching needs both live; detaching null or a deleted shader is ignored.
template <bool attach>
void AttachOrDetach()
{
    const std::uintptr_t program = PickHandle(kProgram), shader = PickHandle(kShader);
    const Class sc = ClassOf(kShader, shader);
    const bool bad = ClassOf(kProgram, program) != kLive || sc == kBad || (attach && sc != kLive);
    auto* const call = attach ? ksAttachShader : ksDetachShader;
    Call(bad           ? KS_INVALID_VALUE
         : sc == kLive ? kAny
                       : 0,
         [&] { call(As<_KSprogram*>(program), As<_KSshader*>(shader)); });
}

// A bad call gives -1 whatever the name.
void Locate(int (*locate)(_KSprogram*, const char*))
{
    const std::uintptr_t program = PickHandle(kProgram);
    const char* names[] = {"center", "mesh", "albedo", "", nullptr};
    const char* name = Pick(names);
    const int expect = ClassOf(kProgram, program) != kLive || !name ? KS_INVALID_VALUE : 0;
    int result = 0;
    Call(expect, [&] { result = locate(As<_KSprogram*>(program), name); });
    if (expect != 0 && result != -1)
        Disagree("%s gave %d for a bad call", g_state->function.c_str(), result);
}

void UseProgram()
{
    Model& m = g_state->model;
    const std::uintptr_t program = PickHandle(kProgram);
    const int expect = BindExpect(m.Of(kProgram, program));
    Call(expect, [&] { ksUseProgram(As<_KSprogram*>(program)); });
    if (expect == 0)
        m.records[m.bound[kPrimitivePoint]].program = program;
}

void UniformBlockBuffer()
{
    Model& m = g_state->model;
    const int indices[] = {0, 1, -1};
    const int index = Pick(indices);
    const std::uintptr_t buffer = PickHandle(kBuffer);
    const int expect = index < 0 ? KS_INVALID_VALUE : BindExpect(m.Of(kBuffer, buffer));
    Call(expect, [&] { ksUniformBlockBuffer(index, As<_KSbuffer*>(buffer)); });
    auto& blocks = m.records[m.bound[kPrimitivePoint]].blocks;
    if (expect == 0 && buffer)
        blocks[index] = buffer;
    else if (expect == 0)
        blocks.erase(index);
}

void CreateAndDestroyContext()
{
    // Attribute lists: good, an unknown key, a value out of range.
    static const long long lists[3][5] = {{KS_CONTEXT_RENDER_THREADS, 1, 0, 0, 0},
                                          {0x1234, 1, 0, 0, 0},
                                          {KS_CONTEXT_MAX_RAY_DEPTH, 0, 0, 0, 0}};
    const int l = Byte() % 3;
    const int before = CountContexts();
    void* made = nullptr;
    Call(0, [&] { made = KestrelCreateContext(lists[l], Notify, nullptr); });
    if ((made != nullptr) != (l == 0) || CountContexts() != before + (l == 0))
        Disagree("KestrelCreateContext made %s", made ? "a context" : "none");
    g_state->function = "KestrelDestroyContext";
    Call(0, [&] { KestrelDestroyContext(made); });
    if (CountContexts() != before)
        Disagree("a destroyed context still counts");
}

// Contexts that are not this input's, and the one that is.
void* PickContext(bool withOwn)
{
    void* const handles[] = {nullptr, As<void*>(kNeverIssued), g_state->context};
    return handles[Byte() % (withOwn ? 3 : 2)];
}

template <void (*call)(void*), bool withOwn>
void OnContext()
{
    void* const context = PickContext(withOwn);
    Call(0, [&] { call(context); });
}

void SetCurrentContext()
{
    void* const context = PickContext(true);
    int result = 0;
    Call(0, [&] { result = KestrelSetCurrentContext(context); });
    if (result != (context == g_state->context))
        Disagree("KestrelSetCurrentContext gave %d", result);
}

void GetError()
{
    int error = -1;
    Call(0, [&] { error = ksGetError(); });
    if (error != g_state->model.pending)
        Disagree("ksGetError gave 0x%x, the first error since the last read was 0x%x", error,
                 g_state->model.pending);
    g_state->model.pending = 0;
}

void GetString()
{
    const int names[] = {KS_VERSION, KS_PROFILE, KS_RENDER_STOPPED};
    const int n = Byte() % 3;
    const char* text = nullptr;
    Call(n == 2 ? KS_INVALID_ENUM : 0, [&] { text = ksGetString(names[n]); });
    if ((text != nullptr) != (n != 2))
        Disagree("ksGetString gave %s", text ? text : "null");
}

template <class V>
void UniformScalar(void (*set)(int, V))
{
    const int location = Pick(kLocations);
    const V values[] = {1, -1, 2};
    const V value = Pick(values);
    Call(kAny, [&] { set(location, value); });
}

// ---------------------------------------------------------------------------
// The stream: one operation per opcode, named by the function it calls.

struct Operation
{
    const char* name;
    void (*run)();
};
const Operation kOperations[] = {
    {"ksGenBuffers", [] { Gen(ksGenBuffers, kBuffer); }},
    {"ksDeleteBuffers", [] { Delete(ksDeleteBuffers, kBuffer); }},
    {"ksGenTextures", [] { Gen(ksGenTextures, kTexture); }},
    {"ksDeleteTextures", [] { Delete(ksDeleteTextures, kTexture); }},
    {"ksGenFramebuffers", [] { Gen(ksGenFramebuffers, kFramebuffer); }},
    {"ksDeleteFramebuffers", [] { Delete(ksDeleteFramebuffers, kFramebuffer); }},
    {"ksGenPrimitives", [] { Gen(ksGenPrimitives, kPrimitive); }},
    {"ksDeletePrimitives", [] { Delete(ksDeletePrimitives, kPrimitive); }},
    {"ksBindBuffer", [] { Bind(ksBindBuffer, kBuffer); }},
    {"ksBindTexture", [] { Bind(ksBindTexture, kTexture); }},
    {"ksBindFramebuffer", [] { Bind(ksBindFramebuffer, kFramebuffer); }},
    {"ksBindPrimitive", [] { Bind(ksBindPrimitive, kPrimitive); }},
    {"ksGetBuffer", [] { GetBinding(ksGetBuffer, kBuffer); }},
    {"ksGetTexture", [] { GetBinding(ksGetTexture, kTexture); }},
    {"ksGetFramebuffer", [] { GetBinding(ksGetFramebuffer, kFramebuffer); }},
    {"ksGetPrimitive", [] { GetBinding(ksGetPrimitive, kPrimitive); }},
    {"ksBufferData", BufferData},
    {"ksMapBuffer", MapBuffer},
    {"ksUnmapBuffer", UnmapBuffer},
    {"ksBufferParameterString", [] { TargetString(ksBufferParameterString, kBuffer); }},
    {"ksGetBufferParameterString", [] { TargetString(ksGetBufferParameterString, kBuffer); }},
    {"ksPrimitiveParameterString", [] { TargetString(ksPrimitiveParameterString, kPrimitive); }},
    {"ksTexImage2D", TexImage2D},
    {"ksTexParameteri", TexParameteri},
    {"ksGenerateMipmap", GenerateMipmap},
    {"ksPixelStorei", PixelStorei},
    {"ksFramebufferTexture2D", FramebufferTexture2D},
    {"ksFramebufferAttachmentParameter1i", FramebufferAttachmentParameter1i},
    {"ksClear", Clear},
    {"ksRenderFrame", RenderFrame},
    {"ksGetBooleanv", [] { Query(ksGetBooleanv, 0); }},
    {"ksGetIntegerv", [] { Query(ksGetIntegerv, 1); }},
    {"ksGetLongv", [] { Query(ksGetLongv, 2); }},
    {"ksGetFloatv", [] { Query(ksGetFloatv, 3); }},
    {"ksGetDoublev", [] { Query(ksGetDoublev, 4); }},
    {"ksFrameParameter1i", FrameParameter1i},
    {"ksFrameParameter1f", FrameParameter1f},
    {"ksFrameParameterfv", FrameParameterfv},
    {"ksGetFrameParameteriv", GetFrameParameteriv},
    {"ksViewport",
     []
     {
         const int edges[] = {0, 1, 2, -1, INT32_MAX};
         const int x = Pick(edges), y = Pick(edges), w = Pick(edges), h = Pick(edges);
         Call(w < 0 || h < 0 ? KS_INVALID_VALUE : 0, [&] { ksViewport(x, y, w, h); });
     }},
    {"ksClearColor",
     []
     {
         const float values[] = {0.5f, 0.0f, 1.0f, -2.0f};
         const float r = Pick(values), a = Pick(values);
         Call(0, [&] { ksClearColor(r, 0.25f, a, a); });
     }},
    {"ksCreateShader", CreateShader},
    {"ksDeleteShader", [] { DeleteOne(ksDeleteShader, kShader); }},
    {"ksShaderSource", ShaderSource},
    {"ksCompileShader", [] { Use(ksCompileShader, kShader); }},
    {"ksGetShaderiv", [] { ObjectParameter(ksGetShaderiv, kShader, kShaderNames); }},
    {"ksGetShaderString", [] { ObjectParameter(ksGetShaderString, kShader, kShaderNames); }},
    {"ksShaderString", [] { ObjectParameter(ksShaderString, kShader, kShaderNames); }},
    {"ksCreateProgram", CreateProgram},
    {"ksDeleteProgram", [] { DeleteOne(ksDeleteProgram, kProgram); }},
    {"ksAttachShader", AttachOrDetach<true>},
    {"ksDetachShader", AttachOrDetach<false>},
    {"ksLinkProgram", [] { Use(ksLinkProgram, kProgram); }},
    {"ksGetProgramiv", [] { ObjectParameter(ksGetProgramiv, kProgram, kProgramNames); }},
    {"ksGetProgramString", [] { ObjectParameter(ksGetProgramString, kProgram, kProgramNames); }},
    {"ksProgramString", [] { ObjectParameter(ksProgramString, kProgram, kProgramNames); }},
    {"ksGetUniformLocation", [] { Locate(ksGetUniformLocation); }},
    {"ksGetUniformBlockIndex", [] { Locate(ksGetUniformBlockIndex); }},
    {"ksGetAttribLocation", [] { Locate(ksGetAttribLocation); }},
    {"ksUseProgram", UseProgram},
    {"ksUniformBlockBuffer", UniformBlockBuffer},
    {"ksUniform1f", [] { UniformScalar(ksUniform1f); }},
    {"ksUniform1i", [] { UniformScalar(ksUniform1i); }},
    {"ksUniformt", [] { UniformHandle(ksUniformt, kTexture); }},
    {"ksUniformp", [] { UniformHandle(ksUniformp, kPrimitive); }},
    {"ksUniformtv", [] { UniformVector(ksUniformtv, 1, kTexture); }},
    {"ksUniformpv", [] { UniformVector(ksUniformpv, 1, kPrimitive); }},
    {"ksUniform1fv", [] { UniformVector(ksUniform1fv, 1); }},
    {"ksUniform2fv", [] { UniformVector(ksUniform2fv, 2); }},
    {"ksUniform3fv", [] { UniformVector(ksUniform3fv, 3); }},
    {"ksUniform4fv", [] { UniformVector(ksUniform4fv, 4); }},
    {"ksUniform1iv", [] { UniformVector(ksUniform1iv, 1); }},
    {"ksUniform2iv", [] { UniformVector(ksUniform2iv, 2); }},
    {"ksUniform3iv", [] { UniformVector(ksUniform3iv, 3); }},
    {"ksUniform4iv", [] { UniformVector(ksUniform4iv, 4); }},
    {"ksUniformMatrix3fv", [] { UniformMatrix(ksUniformMatrix3fv, 9); }},
    {"ksUniformMatrix4fv", [] { UniformMatrix(ksUniformMatrix4fv, 16); }},
    {"KestrelCreateContext", CreateAndDestroyContext},
    {"KestrelDestroyContext", OnContext<KestrelDestroyContext, false>},
    {"KestrelSetCurrentContext", SetCurrentContext},
    {"KestrelStopContext", OnContext<KestrelStopContext, true>},
    {"KestrelGetHardwareAcceleratorCount",
     []
     {
         int count = -1;
         Call(0, [&] { count = KestrelGetHardwareAcceleratorCount(); });
         if (count != 0)
             Disagree("%d hardware accelerators", count);
     }},
    {"ksGetError", GetError},
    {"ksGetString", GetString},
};
constexpr int kOperationCount = sizeof(kOperations) / sizeof(kOperations[0]);

void Run(const Operation& operation)
{
    g_state->function = operation.name;
    operation.run();
}

template <class T>
std::uintptr_t MakeOne(void (*gen)(int, T*))
{
    T made{};
    gen(1, &made);
    return IdOf(made);
}

void MakeForeign()
{
    KestrelSetCurrentContext(KestrelCreateContext(nullptr, Notify, nullptr));
    g_foreign[kShader] = IdOf(ksCreateShader(KS_VERTEX_SHADER));
    g_foreign[kProgram] = IdOf(ksCreateProgram());
    g_foreign[kBuffer] = MakeOne(ksGenBuffers);
    g_foreign[kTexture] = MakeOne(ksGenTextures);
    g_foreign[kFramebuffer] = MakeOne(ksGenFramebuffers);
    g_foreign[kPrimitive] = MakeOne(ksGenPrimitives);
    SetRenderHook(Hold<g_hookEntered, 2>);
    SetBuildHook(Hold<g_buildEntered, 4>);
}

// Seeds: call sequences of the runtime's tests and streams this target once
// found the runtime getting wrong, written as operation names and argument
// bytes (indices into the pools above; handle 1 is the first object of its
// kind made in the stream, 0 null, the one after the foreign one never issued).
const char* const kSeeds[][2] = {
    {"nested-map", "ksGenBuffers 0 1; ksBindBuffer 0 1; ksBufferData 0 0 0 1; ksMapBuffer 0 0; "
                   "ksMapBuffer 0 0; ksUnmapBuffer 0; ksBufferData 0 0 0 1; ksUnmapBuffer 0; "
                   "ksUnmapBuffer 0; ksGetError"},
    {"delete-bound",
     "ksGenBuffers 2 1; ksBindBuffer 0 1; ksBindBuffer 4 2; ksGenPrimitives 0 1; "
     "ksBindPrimitive 0 1; ksUniformBlockBuffer 0 1; ksDeleteBuffers 2 1 1 2; "
     "ksDeleteBuffers 0 1 1; ksBindBuffer 0 1; ksGetError; ksDeletePrimitives 0 1 1"},
    {"stopped-frame", "ksGenTextures 0 1; ksBindTexture 0 1; ksTexImage2D 0 0 0 0 0 1 0 0 1; "
                      "ksGenFramebuffers 0 1; ksBindFramebuffer 0 1; "
                      "ksFramebufferTexture2D 0 0 1 0 0; ksClear 0; ksRenderFrame 2 0; "
                      "ksGetError; ksRenderFrame 1 0; ksGetError; ksRenderFrame 3 9; ksGetError"},
    {"scene", "ksCreateShader 0; ksShaderSource 1 0 1 0 0; ksCompileShader 1; "
              "ksCreateShader 1; ksShaderSource 2 0 1 1 0; ksCompileShader 2; "
              "ksCreateShader 2; ksShaderSource 3 0 1 2 0; ksCompileShader 3; "
              "ksCreateProgram; ksAttachShader 1 1; ksAttachShader 1 2; ksLinkProgram 1; "
              "ksGenPrimitives 0 1; ksBindPrimitive 0 1; ksUseProgram 1; ksCreateProgram; "
              "ksAttachShader 2 3; ksLinkProgram 2; ksBindPrimitive 0 0; ksUseProgram 2; "
              "ksGenTextures 0 1; ksBindTexture 0 1; ksTexImage2D 0 0 0 0 0 1 0 0 1; "
              "ksGenFramebuffers 0 1; ksBindFramebuffer 0 1; ksFramebufferTexture2D 0 0 1 0 0; "
              "ksRenderFrame 4 0; ksGetError; ksRenderFrame 3 40; ksGetError; ksDeleteProgram 1; "
              "ksRenderFrame 2 0; ksGetError"},
    {"filter-table",
     "ksFrameParameter1i 0 2; ksFrameParameterfv 0 1; ksFrameParameter1i 0 3; "
     "ksFrameParameterfv 0 1; ksGetIntegerv 2 1; ksGetError; ksFrameParameterfv 0 1"},
    {"detach", "ksCreateProgram; ksCreateShader 0; ksAttachShader 1 1; ksDeleteShader 1; "
               "ksDetachShader 1 1; ksDetachShader 1 0; ksDeleteProgram 1; ksDeleteProgram 1; "
               "ksGetError"},
    {"attachment-16", "ksGenFramebuffers 0 1; ksBindFramebuffer 0 1; "
                      "ksFramebufferAttachmentParameter1i 0 3 1 2; ksClear 3; ksGetError"},
    {"errors-kept", "ksBindBuffer 5 0; ksGenBuffers 4 1; ksGetError; ksGetError"},
    {"tex-parameters",
     "ksGenTextures 0 1; ksBindTexture 0 1; ksTexParameteri 0 1 2; "
     "ksTexParameteri 0 2 0; ksGetError; ksDeleteTextures 0 1 1; ksTexParameteri 0 0 0"},
    // Object queries and name setters check the name before the handle.
    {"names-before-handles",
     "ksGetShaderiv 2 1 1; ksGetShaderString 2 0 1; ksShaderString 2 1 0; ksGetProgramiv 2 1 1; "
     "ksGetProgramString 2 0 1; ksProgramString 2 1 0; ksGetShaderString 2 1 1; ksGetError"},
    // Detaching null is ignored like deleting null; a forged shader is not.
    {"null-detach", "ksCreateProgram; ksDetachShader 1 0; ksDetachShader 1 2; ksGetError"},
    // Location -1 ignores the value before its handle is looked up.
    {"location-minus-one", "ksUniformt 2 2; ksUniformp 2 2; ksGetError; ksUniformt 0 2"},
};

// A seed's text as input bytes.
std::string Encode(const char* name, const char* text)
{
    std::string bytes, word;
    std::istringstream words(text);
    while (words >> word)
    {
        if (word.back() == ';')
            word.pop_back();
        int opcode = 0;
        while (opcode < kOperationCount && word != kOperations[opcode].name)
            ++opcode;
        if (std::isdigit(static_cast<unsigned char>(word[0])))
            bytes += static_cast<char>(std::stoi(word));
        else if (opcode < kOperationCount)
            bytes += static_cast<char>(opcode);
        else
        {
            std::fprintf(stderr, "seed %s: unknown operation %s\n", name, word.c_str());
            std::exit(1);
        }
    }
    return bytes;
}

// CALL_STREAM_SEEDS=<dir> writes the seeds there and exits.
void WriteSeeds(const char* directory)
{
    for (const auto& seed : kSeeds)
        if (FILE* file = std::fopen((std::string(directory) + "/seed-" + seed[0]).c_str(), "wb"))
        {
            const std::string bytes = Encode(seed[0], seed[1]);
            std::fwrite(bytes.data(), 1, bytes.size(), file);
            std::fclose(file);
        }
    std::exit(0);
}

} // namespace

// The seeds as inputs, for the tests that replay them.
std::vector<std::string> CallStreamSeeds()
{
    std::vector<std::string> seeds;
    for (const auto& seed : kSeeds)
        seeds.push_back(Encode(seed[0], seed[1]));
    return seeds;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (const char* directory = std::getenv("CALL_STREAM_SEEDS"))
        WriteSeeds(directory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool ready = (MakeForeign(), true);
    (void)ready;
    // One render thread and small limits keep a frame and a filter table tiny.
    const long long attributes[] = {KS_CONTEXT_RENDER_THREADS,
                                    1,
                                    KS_CONTEXT_MAX_RAY_DEPTH,
                                    4,
                                    KS_CONTEXT_MAX_FILTER_TABLE_SIZE,
                                    8,
                                    0};
    State state;
    state.data = data;
    state.size = size;
    state.context = KestrelCreateContext(attributes, Notify, nullptr);
    KestrelSetCurrentContext(state.context);
    TakeNotices();
    g_badMessage = false;
    {
        g_state = &state;
        while (state.size > 0)
        {
            Run(kOperations[Byte() % kOperationCount]);
            Verify();
        }
        // The register still holds the first error of the stream's tail.
        Run({"ksGetError", GetError});
        // CALL_STREAM_PRINT=1 shows a stream that passed, e.g. a seed.
        static const bool print = std::getenv("CALL_STREAM_PRINT") != nullptr;
        for (const std::string& line : state.history)
            if (print)
                std::fprintf(stderr, "  %s\n", line.c_str());
        g_state = nullptr;
    }
    KestrelDestroyContext(state.context);
    TakeNotices();
    return 0;
}
