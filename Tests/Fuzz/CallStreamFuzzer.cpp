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
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrel::Testing;

namespace
{

constexpr int kAny = -1; // the model does not predict this call's error

enum Kind
{
    kShader,
    kProgram,
    kBuffer,
    kTexture,
    kFramebuffer,
    kKinds
};
enum Class
{
    kNull,
    kLive,
    kDeleted,
    kBad
};

const char* const kKindText[kKinds] = {"shader#", "prog#", "buf#", "tex#", "fb#"};
const int kBufferBindings[5] = {KS_ARRAY_BUFFER_BINDING, KS_ELEMENT_ARRAY_BUFFER_BINDING,
                                KS_PIXEL_PACK_BUFFER_BINDING, KS_PIXEL_UNPACK_BUFFER_BINDING,
                                KS_UNIFORM_BLOCK_BUFFER_BINDING};
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

std::uintptr_t IdOf(const void* handle)
{
    return reinterpret_cast<std::uintptr_t>(handle);
}
template <class T>
T* As(std::uintptr_t id)
{
    return reinterpret_cast<T*>(id);
}

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
    std::map<unsigned, bool> primitives;
    std::vector<unsigned> primitiveOrder;
    std::map<std::uintptr_t, Buffer> buffers;
    std::map<unsigned, Primitive> records{{0u, {}}};
    std::uintptr_t boundBuffers[5] = {};
    std::uintptr_t texture = 0, framebuffer = 0;
    unsigned primitive = 0;
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
    Class OfPrimitive(unsigned number) const
    {
        if (number == 0)
            return kNull;
        auto it = primitives.find(number);
        return it == primitives.end() ? kBad : (it->second ? kLive : kDeleted);
    }
    void Add(Kind kind, std::uintptr_t id)
    {
        objects[id] = {kind, true};
        order.push_back(id);
        if (kind == kBuffer)
            buffers[id] = {};
    }
    void Delete(Kind kind, std::uintptr_t id)
    {
        objects[id].live = false;
        if (kind == kBuffer)
        {
            buffers.erase(id);
            for (std::uintptr_t& bound : boundBuffers)
                if (bound == id)
                    bound = 0;
            for (auto& record : records)
                for (auto it = record.second.blocks.begin(); it != record.second.blocks.end();)
                    it = it->second == id ? record.second.blocks.erase(it) : std::next(it);
        }
        if (kind == kTexture && texture == id)
            texture = 0;
        if (kind == kFramebuffer && framebuffer == id)
            framebuffer = 0;
        if (kind == kProgram)
            for (auto& record : records)
                if (record.second.program == id)
                    record.second.program = 0;
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

struct Foreign
{
    void* context = nullptr;
    std::uintptr_t ids[kKinds] = {};
    unsigned primitive = 0;
};
Foreign g_foreign;
constexpr std::uintptr_t kNeverIssued = 0x7ffffff0u;
constexpr unsigned kNeverIssuedPrimitive = 0x7ffffff0u;

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
// then this input's objects of other kinds.
std::uintptr_t PickHandle(Kind kind)
{
    const Model& m = g_state->model;
    std::vector<std::uintptr_t> pool{0};
    for (std::uintptr_t id : m.order)
        if (m.objects.at(id).kind == kind)
            pool.push_back(id);
    pool.push_back(g_foreign.ids[kind]);
    pool.push_back(kNeverIssued);
    for (std::uintptr_t id : m.order)
        if (m.objects.at(id).kind != kind)
            pool.push_back(id);
    return pool[Byte() % pool.size()];
}

unsigned PickPrimitive()
{
    const Model& m = g_state->model;
    std::vector<unsigned> pool{0};
    pool.insert(pool.end(), m.primitiveOrder.begin(), m.primitiveOrder.end());
    pool.push_back(g_foreign.primitive);
    pool.push_back(kNeverIssuedPrimitive);
    return pool[Byte() % pool.size()];
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

// ---------------------------------------------------------------------------
// Checks

// Runs one call of the stream: logs it into the history, then checks the
// error it raised against `expect` (kAny: any) and folds it into the register.
// Only the call itself is logged: formatting the checks' own queries would
// cost a third of the fuzzer's time.
template <class F>
std::vector<int> Call(const char* function, int expect, F&& call)
{
    State& s = *g_state;
    s.function = function;
    TakeNotices();
    {
        CallLog log;
        call();
        for (std::string& line : log.Calls())
            s.history.push_back(std::move(line));
    }
    std::vector<int> notices = TakeNotices();
    if (g_badMessage)
        Disagree("a notification of %s does not name it", function);
    const int first = notices.empty() ? 0 : notices[0];
    if (expect != kAny && first != expect)
        Disagree("%s raised 0x%x, documented: 0x%x", function, first, expect);
    if (s.model.pending == 0)
        s.model.pending = first;
    return notices;
}

void CheckQuiet(const char* what)
{
    if (!TakeNotices().empty())
        Disagree("the check's own %s raised an error", what);
}

// After every call: counts, liveness, bindings, primitive records, mappings.
void Verify()
{
    State& s = *g_state;
    Model& m = s.model;
    s.function = "check";
    const ObjectCounts counts = CountObjects(s.context);
    int primitives = 0;
    for (const auto& p : m.primitives)
        primitives += p.second;
    const ObjectCounts expected{m.Live(kShader), m.Live(kProgram), primitives,
                                m.Live(kBuffer), m.Live(kTexture), m.Live(kFramebuffer)};
    if (!(counts == expected))
        Disagree("object counts %d %d %d %d %d %d, expected %d %d %d %d %d %d", counts.shaders,
                 counts.programs, counts.primitives, counts.buffers, counts.textures,
                 counts.framebuffers, expected.shaders, expected.programs, expected.primitives,
                 expected.buffers, expected.textures, expected.framebuffers);
    for (const auto& [id, object] : m.objects)
    {
        std::string text;
        switch (object.kind)
        {
        case kShader:
            text = Describe(As<_KSshader>(id));
            break;
        case kProgram:
            text = Describe(As<_KSprogram>(id));
            break;
        case kBuffer:
            text = Describe(As<_KSbuffer>(id));
            break;
        case kTexture:
            text = Describe(As<_KStexture>(id));
            break;
        default:
            text = Describe(As<_KSframebuffer>(id));
            break;
        }
        if ((text.rfind(kKindText[object.kind], 0) == 0) != object.live)
            Disagree("%s is %s in the model", text.c_str(), object.live ? "live" : "deleted");
    }
    for (auto& [number, record] : m.records)
    {
        PrimitiveRecord read;
        if (!ReadPrimitive(static_cast<KSprimitive>(number), &read))
            Disagree("primitive %u is live in the model", number);
        if (IdOf(read.program) != record.program)
            Disagree("primitive %u has program 0x%zx, expected 0x%zx", number,
                     static_cast<std::size_t>(IdOf(read.program)),
                     static_cast<std::size_t>(record.program));
        std::map<int, std::uintptr_t> blocks;
        for (const auto& block : read.blocks)
            blocks[block.first] = IdOf(block.second);
        if (blocks != record.blocks)
            Disagree("primitive %u has other block buffers than were bound", number);
    }
    for (const auto& p : m.primitives)
    {
        PrimitiveRecord read;
        if (!p.second && ReadPrimitive(static_cast<KSprimitive>(p.first), &read))
            Disagree("deleted primitive %u is live again", p.first);
    }
    for (int i = 0; i < 5; ++i)
    {
        _KSbuffer* bound = nullptr;
        ksGetBuffer(kBufferBindings[i], &bound);
        if (IdOf(bound) != m.boundBuffers[i])
            Disagree("buffer binding %d reads %s", i, Describe(bound).c_str());
    }
    _KStexture* texture = nullptr;
    ksGetTexture(KS_TEXTURE_BINDING_2D, &texture);
    _KSframebuffer* framebuffer = nullptr;
    ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, &framebuffer);
    KSprimitive primitive{};
    ksGetPrimitive(KS_PRIMITIVE_BINDING, &primitive);
    if (IdOf(texture) != m.texture || IdOf(framebuffer) != m.framebuffer ||
        primitive != m.primitive)
        Disagree("bindings read tex %s fb %s prim %u", Describe(texture).c_str(),
                 Describe(framebuffer).c_str(), static_cast<unsigned>(primitive));
    CheckQuiet("binding queries");
    // A live mapping must stay writable (AddressSanitizer watches).
    for (const auto& buffer : m.buffers)
        if (buffer.second.mapping)
            std::memset(buffer.second.mapping, 0x5a, buffer.second.size);
}

// ---------------------------------------------------------------------------
// Families of calls

// Gen and delete of the pointer-handle kinds; bind and get of the bindable.
template <class T>
void Gen(const char* function, Kind kind, void (*gen)(int, T**))
{
    const int count = Pick(kCounts);
    T** out = MaybeArray<T*>(count);
    const int expect = (count < 0 || (count > 0 && !out)) ? KS_INVALID_VALUE : 0;
    Call(function, expect, [&] { gen(count, out); });
    for (int i = 0; expect == 0 && i < count; ++i)
    {
        if (!out[i] || g_state->model.objects.count(IdOf(out[i])))
            Disagree("%s gave null or a used handle", function);
        g_state->model.Add(kind, IdOf(out[i]));
    }
}

template <class T>
void Delete(const char* function, Kind kind, void (*del)(int, T**))
{
    const int count = Pick(kCounts);
    T** in = MaybeArray<T*>(count);
    for (int i = 0; in && i < count; ++i)
        in[i] = As<T>(PickHandle(kind));
    int expect = (count < 0 || (count > 0 && !in)) ? KS_INVALID_VALUE : 0;
    for (int i = 0; expect == 0 && i < count; ++i)
        if (g_state->model.Of(kind, IdOf(in[i])) == kBad)
            expect = KS_INVALID_VALUE;
    std::string handles;
    for (int i = 0; in && i < count; ++i)
        handles += (i ? ", " : " // ") + Describe(in[i]);
    Call(function, expect, [&] { del(count, in); });
    g_state->history.back() += handles;
    for (int i = 0; in && count > 0 && i < count; ++i)
        if (g_state->model.Of(kind, IdOf(in[i])) == kLive)
            g_state->model.Delete(kind, IdOf(in[i]));
}

// Binding: null unbinds, live binds, anything else is a bad value.
int BindExpect(Class c)
{
    return (c == kNull || c == kLive) ? 0 : KS_INVALID_VALUE;
}
int UseExpect(Class c)
{
    return c == kLive ? 0 : KS_INVALID_VALUE;
}

void Buffers(int op)
{
    Model& m = g_state->model;
    const int targets[] = {KS_ARRAY_BUFFER,
                           KS_ELEMENT_ARRAY_BUFFER,
                           KS_PIXEL_PACK_BUFFER,
                           KS_PIXEL_UNPACK_BUFFER,
                           KS_UNIFORM_BLOCK_BUFFER,
                           KS_TEXTURE_2D,
                           0};
    const int t = Byte() % 7;
    const int target = targets[t];
    const bool goodTarget = t < 5;
    Model::Buffer* bound =
        goodTarget && m.boundBuffers[t] ? &m.buffers[m.boundBuffers[t]] : nullptr;
    // Target first, then the binding.
    auto bindingExpect = [&](int otherwise) {
        return !goodTarget ? KS_INVALID_ENUM : !bound ? KS_INVALID_OPERATION : otherwise;
    };
    switch (op)
    {
    case 0:
    {
        const std::uintptr_t id = PickHandle(kBuffer);
        const int expect = goodTarget ? BindExpect(m.Of(kBuffer, id)) : KS_INVALID_ENUM;
        Call("ksBindBuffer", expect, [&] { ksBindBuffer(target, As<_KSbuffer>(id)); });
        if (expect == 0)
            m.boundBuffers[t] = id;
        break;
    }
    case 1:
    {
        const int names[] = {KS_ARRAY_BUFFER_BINDING, KS_UNIFORM_BLOCK_BUFFER_BINDING,
                             KS_ARRAY_BUFFER, 0};
        const int name = Pick(names);
        _KSbuffer** out = MaybeArray<_KSbuffer*>(1);
        const int expect = name == KS_ARRAY_BUFFER || name == 0 ? KS_INVALID_ENUM
                           : !out                               ? KS_INVALID_VALUE
                                                                : 0;
        Call("ksGetBuffer", expect, [&] { ksGetBuffer(name, out); });
        break;
    }
    case 2:
    {
        const unsigned long long sizes[] = {16, 0, 1, 4096, (1ULL << 34) + 1, ~0ULL};
        const unsigned long long size = Pick(sizes);
        const int usages[] = {KS_STATIC_DRAW, KS_DYNAMIC_DRAW, KS_STREAM_COPY, KS_RGBA, 0};
        const int usage = Pick(usages);
        const void* data =
            size <= 4096 ? MaybeArray<unsigned char>(static_cast<long long>(size)) : nullptr;
        int expect = !goodTarget                      ? KS_INVALID_ENUM
                     : usage == KS_RGBA || usage == 0 ? KS_INVALID_ENUM
                                                      : bindingExpect(0);
        if (expect == 0 && bound->mapping)
            expect = KS_INVALID_OPERATION;
        if (expect == 0 && size > (1ULL << 34))
            expect = KS_OUT_OF_MEMORY;
        Call("ksBufferData", expect, [&] { ksBufferData(target, size, data, usage); });
        if (expect == 0)
            bound->size = size;
        break;
    }
    case 3:
    {
        const int accesses[] = {KS_READ_WRITE, KS_READ_ONLY, KS_WRITE_ONLY, KS_STATIC_DRAW};
        const int access = Pick(accesses);
        int expect = goodTarget && access == KS_STATIC_DRAW ? KS_INVALID_ENUM : bindingExpect(0);
        if (expect == 0 && (bound->mapping || bound->size == 0))
            expect = KS_INVALID_OPERATION;
        void* mapping = nullptr;
        Call("ksMapBuffer", expect, [&] { mapping = ksMapBuffer(target, access); });
        if ((mapping != nullptr) != (expect == 0))
            Disagree("ksMapBuffer gave %s", mapping ? "a mapping" : "null");
        if (expect == 0)
            bound->mapping = static_cast<unsigned char*>(mapping);
        else if (bound && bound->mapping)
            ++bound->refusedMaps;
        break;
    }
    case 4:
        Call("ksUnmapBuffer", bindingExpect(0), [&] { ksUnmapBuffer(target); });
        if (bound && bound->refusedMaps > 0)
            --bound->refusedMaps;
        else if (bound)
            bound->mapping = nullptr;
        break;
    case 5:
    case 6:
    {
        const int names[] = {KS_BUFFER_NAME, KS_PROGRAM_NAME};
        const int name = Pick(names);
        if (op == 5)
        {
            const char* texts[] = {"mesh", "", nullptr};
            const char* text = Pick(texts);
            Call("ksBufferParameterString", kAny,
                 [&] { ksBufferParameterString(target, name, text); });
        }
        else
        {
            const char** out = MaybeArray<const char*>(1);
            Call("ksGetBufferParameterString", kAny,
                 [&] { ksGetBufferParameterString(target, name, out); });
        }
        break;
    }
    }
}

void Textures(int op)
{
    Model& m = g_state->model;
    const int targets[] = {KS_TEXTURE_2D, KS_ARRAY_BUFFER};
    const int target = Pick(targets);
    switch (op)
    {
    case 0:
    {
        const std::uintptr_t id = PickHandle(kTexture);
        const int expect =
            target == KS_TEXTURE_2D ? BindExpect(m.Of(kTexture, id)) : KS_INVALID_ENUM;
        Call("ksBindTexture", expect, [&] { ksBindTexture(target, As<_KStexture>(id)); });
        if (expect == 0)
            m.texture = id;
        break;
    }
    case 1:
    {
        const int names[] = {KS_TEXTURE_BINDING_2D, KS_TEXTURE_2D};
        const int name = Pick(names);
        _KStexture** out = MaybeArray<_KStexture*>(1);
        const int expect = name != KS_TEXTURE_BINDING_2D ? KS_INVALID_ENUM
                           : !out                        ? KS_INVALID_VALUE
                                                         : 0;
        Call("ksGetTexture", expect, [&] { ksGetTexture(name, out); });
        break;
    }
    case 2:
    {
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
        Call("ksTexImage2D", kAny,
             [&] {
                 ksTexImage2D(target, level, internal, width, height, border, format, type, pixels);
             });
        break;
    }
    case 3:
    {
        const int names[] = {KS_TEXTURE_MIN_FILTER, KS_TEXTURE_MAG_FILTER, KS_TEXTURE_WRAP_S,
                             KS_TEXTURE_WRAP_T, KS_TEXTURE_2D};
        const int values[] = {KS_NEAREST, KS_LINEAR,        KS_LINEAR_MIPMAP_LINEAR,
                              KS_REPEAT,  KS_CLAMP_TO_EDGE, KS_MIRRORED_REPEAT,
                              0};
        const int n = Byte() % 5, v = Byte() % 7;
        // Every parameter takes each of the six filter and wrap values.
        const int expect = target != KS_TEXTURE_2D || n == 4 || v == 6 ? KS_INVALID_ENUM
                           : m.texture == 0                            ? KS_INVALID_OPERATION
                                                                       : 0;
        Call("ksTexParameteri", expect, [&] { ksTexParameteri(target, names[n], values[v]); });
        break;
    }
    case 4:
        Call("ksGenerateMipmap",
             target != KS_TEXTURE_2D ? KS_INVALID_ENUM
             : m.texture == 0        ? KS_INVALID_OPERATION
                                     : kAny,
             [&] { ksGenerateMipmap(target); });
        break;
    case 5:
    {
        const int names[] = {KS_UNPACK_CLIENT_STORAGE, KS_TEXTURE_2D};
        const int values[] = {0, 1, 2, -1};
        const int name = Pick(names), value = Pick(values);
        const int expect = name != KS_UNPACK_CLIENT_STORAGE ? KS_INVALID_ENUM
                           : value == 0 || value == 1       ? 0
                                                            : KS_INVALID_VALUE;
        Call("ksPixelStorei", expect, [&] { ksPixelStorei(name, value); });
        break;
    }
    }
}

void Framebuffers(int op)
{
    Model& m = g_state->model;
    const int targets[] = {KS_FRAMEBUFFER, KS_TEXTURE_2D};
    const int target = Pick(targets);
    // Points 0..16: one per attachment bit of the clear mask.
    const int indices[] = {0, 1, 15, 16, -1, 17};
    const int index = Pick(indices);
    const int attachment = KS_COLOR_ATTACHMENT0 + index;
    switch (op)
    {
    case 0:
    {
        const std::uintptr_t id = PickHandle(kFramebuffer);
        const int expect =
            target == KS_FRAMEBUFFER ? BindExpect(m.Of(kFramebuffer, id)) : KS_INVALID_ENUM;
        Call("ksBindFramebuffer", expect,
             [&] { ksBindFramebuffer(target, As<_KSframebuffer>(id)); });
        if (expect == 0)
            m.framebuffer = id;
        break;
    }
    case 1:
    {
        const int names[] = {KS_FRAMEBUFFER_BINDING, KS_FRAMEBUFFER};
        const int name = Pick(names);
        _KSframebuffer** out = MaybeArray<_KSframebuffer*>(1);
        const int expect = name != KS_FRAMEBUFFER_BINDING ? KS_INVALID_ENUM
                           : !out                         ? KS_INVALID_VALUE
                                                          : 0;
        Call("ksGetFramebuffer", expect, [&] { ksGetFramebuffer(name, out); });
        break;
    }
    case 2:
    {
        const std::uintptr_t texture = PickHandle(kTexture);
        const int textureTargets[] = {KS_TEXTURE_2D, KS_FRAMEBUFFER};
        const int textureTarget = Pick(textureTargets);
        const int levels[] = {0, 1};
        const int level = Pick(levels);
        // Null detaches; a live texture attaches, image or not.
        const Class c = m.Of(kTexture, texture);
        const int expect =
            target != KS_FRAMEBUFFER || index < 0 || index > 16 || textureTarget != KS_TEXTURE_2D
                ? KS_INVALID_ENUM
            : level != 0 || BindExpect(c) != 0 ? KS_INVALID_VALUE
            : m.framebuffer == 0               ? KS_INVALID_OPERATION
                                               : 0;
        Call("ksFramebufferTexture2D", expect,
             [&] {
                 ksFramebufferTexture2D(target, attachment, textureTarget, As<_KStexture>(texture),
                                        level);
             });
        break;
    }
    case 3:
    {
        const int names[] = {KS_ATTACHMENT_FILTER, KS_ATTACHMENT_BLEND_MODE, KS_FILTER_SIZE};
        const int values[] = {0, 1, KS_BLEND_MODE_0, KS_BLEND_MODE_2, KS_BLEND_MODE_3, 2};
        const int n = Byte() % 3, v = Byte() % 6;
        const bool fits = n == 0 ? v < 2 : n == 1 ? (v >= 2 && v <= 4) : false;
        const bool goodEnums = target == KS_FRAMEBUFFER && index >= 0 && index <= 16 && n < 2;
        const int expect = !goodEnums           ? KS_INVALID_ENUM
                           : !fits              ? kAny
                           : m.framebuffer == 0 ? KS_INVALID_OPERATION
                                                : 0;
        Call("ksFramebufferAttachmentParameter1i", expect,
             [&] { ksFramebufferAttachmentParameter1i(target, attachment, names[n], values[v]); });
        break;
    }
    case 4:
    {
        const unsigned masks[] = {KS_COLOR_BUFFER_BIT,
                                  KS_COLOR_ATTACHMENT0_BIT,
                                  KS_COLOR_ATTACHMENT0_BIT << 15,
                                  0x8000u << 16,
                                  0,
                                  1,
                                  KS_COLOR_BUFFER_BIT | (KS_COLOR_ATTACHMENT0_BIT << 1)};
        const int i = Byte() % 7;
        const int expect = i == 5               ? KS_INVALID_VALUE
                           : m.framebuffer == 0 ? KS_INVALID_OPERATION
                                                : 0;
        Call("ksClear", expect, [&] { ksClear(masks[i]); });
        break;
    }
    }
}

// ksRenderFrame with a stop from a second thread: none, before the frame
// (must not carry over), while the render hook holds the frame (must stop
// it), an input-chosen spin after the hook (either outcome), or while the
// scene's build is held at its start (must stop it).
void RenderFrame()
{
    Model& m = g_state->model;
    const int mode = Byte() % 5;
    const int spin = Byte() * 64;
    void* context = g_state->context;
    g_hookEntered = false;
    g_buildEntered = false;
    g_stopDone = false;
    g_frameDone = false;
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
    const int expect = m.framebuffer == 0 ? KS_INVALID_OPERATION : kAny;
    std::vector<int> notices = Call("ksRenderFrame", expect,
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

void Hook(void*)
{
    g_hookEntered = true;
    if (g_stopMode == 2)
        while (!g_stopDone)
            std::this_thread::yield();
}

void BuildHook(void*)
{
    g_buildEntered = true;
    if (g_stopMode == 4)
        while (!g_stopDone)
            std::this_thread::yield();
}

// ---------------------------------------------------------------------------
// The stream

void Queries(int op)
{
    Model& m = g_state->model;
    const int names[] = {KS_HARDWARE_ACCELERATED, KS_MAX_RAY_DEPTH,     KS_FILTER_TABLE_SIZE,
                         KS_FRAME_STATISTIC_4,    KS_FRAME_STATISTIC_8, KS_FRAME_STATISTIC_1,
                         KS_RAY_DEPTH_LIMIT,      KS_VERSION,           0};
    // Which of the five ksGet functions reads each name (-1: none).
    const int reader[] = {0, 1, 1, 2, 3, 4, 1, -1, -1};
    const int n = Byte() % 9;
    const int name = names[n];
    const bool null = Byte() % 5 == 0;
    const int expect = reader[n] != op ? KS_INVALID_ENUM : null ? KS_INVALID_VALUE : 0;
    union
    {
        int i;
        long long l;
        float f;
        double d;
    } out{};
    switch (op)
    {
    case 0:
        Call("ksGetBooleanv", expect, [&] { ksGetBooleanv(name, null ? nullptr : &out.i); });
        break;
    case 1:
        Call("ksGetIntegerv", expect, [&] { ksGetIntegerv(name, null ? nullptr : &out.i); });
        break;
    case 2:
        Call("ksGetLongv", expect, [&] { ksGetLongv(name, null ? nullptr : &out.l); });
        break;
    case 3:
        Call("ksGetFloatv", expect, [&] { ksGetFloatv(name, null ? nullptr : &out.f); });
        break;
    case 4:
        Call("ksGetDoublev", expect, [&] { ksGetDoublev(name, null ? nullptr : &out.d); });
        break;
    }
    if (op == 1 && expect == 0 && name == KS_FILTER_TABLE_SIZE && out.i != m.filterTableSize)
        Disagree("KS_FILTER_TABLE_SIZE reads %d, set %d", out.i, m.filterTableSize);
}

void FrameParameters(int op)
{
    Model& m = g_state->model;
    switch (op)
    {
    case 0:
    {
        const int names[] = {KS_FILTER_TABLE_SIZE, KS_RAY_DEPTH_LIMIT, KS_FILTER_SIZE};
        const int values[] = {1, 2, 8, 0, 9, -1, 3, INT32_MAX};
        const int name = Pick(names), value = Pick(values);
        const int max = name == KS_FILTER_TABLE_SIZE ? 8 : 4;
        const int min = name == KS_FILTER_TABLE_SIZE ? 1 : 0;
        const int expect = name == KS_FILTER_SIZE       ? KS_INVALID_ENUM
                           : value < min || value > max ? KS_INVALID_VALUE
                                                        : 0;
        Call("ksFrameParameter1i", expect, [&] { ksFrameParameter1i(name, value); });
        if (name == KS_FILTER_TABLE_SIZE)
        {
            m.requestedTableSize = value;
            m.tableSizeRefused = expect != 0;
            m.filterTableSize = expect == 0 ? value : m.filterTableSize;
        }
        break;
    }
    case 1:
    {
        const int names[] = {KS_FILTER_SIZE, KS_FILTER_TABLE_SIZE};
        const float values[] = {1.5f, 0.0f, -1.0f, 1e30f};
        const int name = Pick(names);
        const float value = Pick(values);
        const int expect = name != KS_FILTER_SIZE ? KS_INVALID_ENUM
                           : value > 0.0f         ? 0
                                                  : KS_INVALID_VALUE;
        Call("ksFrameParameter1f", expect, [&] { ksFrameParameter1f(name, value); });
        break;
    }
    case 2:
    {
        const int names[] = {KS_FILTER_TABLE, KS_FILTER_SIZE};
        const int name = Pick(names);
        // Exactly as many floats as the host made for the size it asked for
        // last: a read past them is a finding of AddressSanitizer. After a
        // refused size the table is refused too.
        const long long side =
            m.requestedTableSize > 0 && m.requestedTableSize <= 64 ? m.requestedTableSize : 0;
        float* table = MaybeArray<float>(side * side);
        const int expect = name != KS_FILTER_TABLE ? KS_INVALID_ENUM
                           : !table                ? KS_INVALID_VALUE
                           : m.tableSizeRefused    ? KS_INVALID_OPERATION
                                                   : 0;
        Call("ksFrameParameterfv", expect, [&] { ksFrameParameterfv(name, table); });
        break;
    }
    case 3:
    {
        const int names[] = {KS_FILTER_TABLE_SIZE, KS_RAY_DEPTH_LIMIT, KS_FILTER_SIZE};
        const int name = Pick(names);
        int* out = MaybeArray<int>(1);
        const int expect = name == KS_FILTER_SIZE ? KS_INVALID_ENUM : !out ? KS_INVALID_VALUE : 0;
        Call("ksGetFrameParameteriv", expect, [&] { ksGetFrameParameteriv(name, out); });
        if (expect == 0 && name == KS_FILTER_TABLE_SIZE && *out != m.filterTableSize)
            Disagree("ksGetFrameParameteriv(KS_FILTER_TABLE_SIZE) reads %d, set %d", *out,
                     m.filterTableSize);
        break;
    }
    case 4:
    {
        const int edges[] = {0, 1, 2, -1, INT32_MAX};
        const int x = Pick(edges), y = Pick(edges), w = Pick(edges), h = Pick(edges);
        Call("ksViewport", w < 0 || h < 0 ? KS_INVALID_VALUE : 0, [&] { ksViewport(x, y, w, h); });
        break;
    }
    case 5:
    {
        const float values[] = {0.5f, 0.0f, 1.0f, -2.0f};
        const float r = Pick(values), a = Pick(values);
        Call("ksClearColor", 0, [&] { ksClearColor(r, 0.25f, a, a); });
        break;
    }
    }
}

void Shaders(int op)
{
    Model& m = g_state->model;
    const std::uintptr_t shader = PickHandle(kShader);
    const Class sc = m.Of(kShader, shader);
    _KSshader* const sh = As<_KSshader>(shader);
    switch (op)
    {
    case 0:
    {
        const int kinds[] = {
            KS_VERTEX_SHADER,    KS_SHADER_KIND_2, KS_SHADER_KIND_3, KS_LINK_ONCE_SHADER, 0,
            KS_VERTEX_SHADER + 1};
        const int kind = Pick(kinds);
        const int expect = kind == 0 || kind == KS_VERTEX_SHADER + 1 ? KS_INVALID_ENUM : 0;
        _KSshader* made = nullptr;
        Call("ksCreateShader", expect, [&] { made = ksCreateShader(kind); });
        if ((made != nullptr) != (expect == 0) || (made && m.objects.count(IdOf(made))))
            Disagree("ksCreateShader gave a wrong handle");
        if (made)
            m.Add(kShader, IdOf(made));
        break;
    }
    case 1:
        Call("ksDeleteShader", sc == kBad ? KS_INVALID_VALUE : 0, [&] { ksDeleteShader(sh); });
        if (sc == kLive)
            m.Delete(kShader, shader);
        break;
    case 2:
    {
        const long long count = Pick(kLongCounts);
        const char** strings = MaybeArray<const char*>(count);
        bool nullString = false;
        for (long long i = 0; strings && i < count; ++i)
        {
            const std::size_t s = Byte() % (sizeof(kSources) / sizeof(kSources[0]) + 1);
            strings[i] = s < sizeof(kSources) / sizeof(kSources[0]) ? kSources[s] : nullptr;
            nullString |= strings[i] == nullptr;
        }
        int* lengths = Byte() % 2 ? MaybeArray<int>(count) : nullptr;
        for (long long i = 0; lengths && strings && i < count; ++i)
            lengths[i] =
                strings[i] ? static_cast<int>(std::strlen(strings[i])) - (Byte() % 3 == 0) : -1;
        const bool bad = sc != kLive || count < 0 || (count > 0 && !strings) || nullString;
        Call("ksShaderSource", bad ? KS_INVALID_VALUE : 0,
             [&] { ksShaderSource(sh, count, strings, lengths); });
        break;
    }
    case 3:
        Call("ksCompileShader", UseExpect(sc), [&] { ksCompileShader(sh); });
        break;
    case 4:
    case 5:
    case 6:
    {
        const int names[] = {KS_COMPILE_STATUS, KS_SHADER_LOG, KS_SHADER_SOURCE, KS_SHADER_NAME,
                             KS_LINK_STATUS};
        const int n = Byte() % 5;
        if (op == 4)
        {
            int* out = MaybeArray<int>(1);
            const int expect = n != 0                ? KS_INVALID_ENUM
                               : sc != kLive || !out ? KS_INVALID_VALUE
                                                     : 0;
            Call("ksGetShaderiv", expect, [&] { ksGetShaderiv(sh, names[n], out); });
        }
        else if (op == 5)
        {
            const char** out = MaybeArray<const char*>(1);
            const int expect = n == 0 || n == 4      ? KS_INVALID_ENUM
                               : sc != kLive || !out ? KS_INVALID_VALUE
                                                     : 0;
            Call("ksGetShaderString", expect, [&] { ksGetShaderString(sh, names[n], out); });
            if (expect == 0 && *out)
                (void)std::strlen(*out);
        }
        else
        {
            const char* texts[] = {"a shader", "", nullptr};
            const char* text = Pick(texts);
            Call("ksShaderString", kAny, [&] { ksShaderString(sh, names[n], text); });
        }
        break;
    }
    }
}

void Programs(int op)
{
    Model& m = g_state->model;
    const std::uintptr_t program = PickHandle(kProgram);
    const Class pc = m.Of(kProgram, program);
    _KSprogram* const pr = As<_KSprogram>(program);
    switch (op)
    {
    case 0:
    {
        _KSprogram* made = nullptr;
        Call("ksCreateProgram", 0, [&] { made = ksCreateProgram(); });
        if (!made || m.objects.count(IdOf(made)))
            Disagree("ksCreateProgram gave a wrong handle");
        m.Add(kProgram, IdOf(made));
        break;
    }
    case 1:
        Call("ksDeleteProgram", pc == kBad ? KS_INVALID_VALUE : 0, [&] { ksDeleteProgram(pr); });
        if (pc == kLive)
            m.Delete(kProgram, program);
        break;
    case 2:
    case 3:
    {
        const std::uintptr_t shader = PickHandle(kShader);
        const Class sc = m.Of(kShader, shader);
        if (op == 2)
            Call("ksAttachShader", pc != kLive || sc != kLive ? KS_INVALID_VALUE : kAny,
                 [&] { ksAttachShader(pr, As<_KSshader>(shader)); });
        else
        {
            // Detaching null or a deleted shader is ignored.
            const int expect = pc != kLive || sc == kBad ? KS_INVALID_VALUE
                               : sc == kLive             ? kAny
                                                         : 0;
            Call("ksDetachShader", expect, [&] { ksDetachShader(pr, As<_KSshader>(shader)); });
        }
        break;
    }
    case 4:
        Call("ksLinkProgram", UseExpect(pc), [&] { ksLinkProgram(pr); });
        break;
    case 5:
    case 6:
    case 7:
    {
        const int names[] = {KS_LINK_STATUS, KS_PROGRAM_LOG, KS_PROGRAM_NAME, KS_SHADER_LOG};
        const int n = Byte() % 4;
        if (op == 5)
        {
            int* out = MaybeArray<int>(1);
            const int expect = n != 0                ? KS_INVALID_ENUM
                               : pc != kLive || !out ? KS_INVALID_VALUE
                                                     : 0;
            Call("ksGetProgramiv", expect, [&] { ksGetProgramiv(pr, names[n], out); });
        }
        else if (op == 6)
        {
            const char** out = MaybeArray<const char*>(1);
            const int expect = n == 0 || n == 3      ? KS_INVALID_ENUM
                               : pc != kLive || !out ? KS_INVALID_VALUE
                                                     : 0;
            Call("ksGetProgramString", expect, [&] { ksGetProgramString(pr, names[n], out); });
            if (expect == 0 && *out)
                (void)std::strlen(*out);
        }
        else
        {
            const char* texts[] = {"a program", nullptr};
            const char* text = Pick(texts);
            Call("ksProgramString", kAny, [&] { ksProgramString(pr, names[n], text); });
        }
        break;
    }
    case 8:
    case 9:
    case 10:
    {
        const char* names[] = {"center", "mesh", "albedo", "", nullptr};
        const char* name = Pick(names);
        const int expect = pc != kLive || !name ? KS_INVALID_VALUE : 0;
        int result = 0;
        const char* function = op == 8   ? "ksGetUniformLocation"
                               : op == 9 ? "ksGetUniformBlockIndex"
                                         : "ksGetAttribLocation";
        Call(function, expect,
             [&]
             {
                 result = op == 8   ? ksGetUniformLocation(pr, name)
                          : op == 9 ? ksGetUniformBlockIndex(pr, name)
                                    : ksGetAttribLocation(pr, name);
             });
        if (expect != 0 && result != -1)
            Disagree("%s gave %d for a bad call", function, result);
        break;
    }
    case 11:
        Call("ksUseProgram", BindExpect(pc), [&] { ksUseProgram(pr); });
        if (BindExpect(pc) == 0)
            m.records[m.primitive].program = program;
        break;
    }
}

void Primitives(int op)
{
    Model& m = g_state->model;
    switch (op)
    {
    case 0:
    {
        const int count = Pick(kCounts);
        KSprimitive* out = MaybeArray<KSprimitive>(count);
        const int expect = count < 0 || (count > 0 && !out) ? KS_INVALID_VALUE : 0;
        Call("ksGenPrimitives", expect, [&] { ksGenPrimitives(count, out); });
        for (int i = 0; expect == 0 && i < count; ++i)
        {
            const unsigned number = out[i];
            if (number == 0 || m.primitives.count(number))
                Disagree("ksGenPrimitives gave 0 or a used number");
            m.primitives[number] = true;
            m.primitiveOrder.push_back(number);
            m.records[number] = {};
        }
        break;
    }
    case 1:
    {
        const int count = Pick(kCounts);
        KSprimitive* in = MaybeArray<KSprimitive>(count);
        for (int i = 0; in && i < count; ++i)
            in[i] = static_cast<KSprimitive>(PickPrimitive());
        int expect = count < 0 || (count > 0 && !in) ? KS_INVALID_VALUE : 0;
        for (int i = 0; expect == 0 && i < count; ++i)
            if (m.OfPrimitive(in[i]) == kBad)
                expect = KS_INVALID_VALUE;
        std::string numbers;
        for (int i = 0; in && i < count; ++i)
            numbers += (i ? ", " : " // ") + std::to_string(in[i]);
        Call("ksDeletePrimitives", expect, [&] { ksDeletePrimitives(count, in); });
        g_state->history.back() += numbers;
        for (int i = 0; in && i < count; ++i)
            if (m.OfPrimitive(in[i]) == kLive)
            {
                m.primitives[in[i]] = false;
                m.records.erase(in[i]);
                if (m.primitive == in[i])
                    m.primitive = 0;
            }
        break;
    }
    case 2:
    {
        const int targets[] = {KS_PRIMITIVE, KS_PRIMITIVE_BINDING};
        const int target = Pick(targets);
        const unsigned number = PickPrimitive();
        const int expect =
            target != KS_PRIMITIVE ? KS_INVALID_ENUM : BindExpect(m.OfPrimitive(number));
        Call("ksBindPrimitive", expect,
             [&] { ksBindPrimitive(target, static_cast<KSprimitive>(number)); });
        if (expect == 0)
            m.primitive = number;
        break;
    }
    case 3:
    {
        const int names[] = {KS_PRIMITIVE_BINDING, KS_PRIMITIVE};
        const int name = Pick(names);
        KSprimitive* out = MaybeArray<KSprimitive>(1);
        const int expect = name != KS_PRIMITIVE_BINDING ? KS_INVALID_ENUM
                           : !out                       ? KS_INVALID_VALUE
                                                        : 0;
        Call("ksGetPrimitive", expect, [&] { ksGetPrimitive(name, out); });
        break;
    }
    case 4:
    {
        const int targets[] = {KS_PRIMITIVE, KS_TEXTURE_2D};
        const int names[] = {KS_PRIMITIVE_NAME, KS_BUFFER_NAME};
        const char* texts[] = {"ball", nullptr};
        const int target = Pick(targets), name = Pick(names);
        const char* text = Pick(texts);
        Call("ksPrimitiveParameterString", kAny,
             [&] { ksPrimitiveParameterString(target, name, text); });
        break;
    }
    case 5:
    {
        const int indices[] = {0, 1, -1};
        const int index = Pick(indices);
        const std::uintptr_t buffer = PickHandle(kBuffer);
        const int expect = index < 0 ? KS_INVALID_VALUE : BindExpect(m.Of(kBuffer, buffer));
        Call("ksUniformBlockBuffer", expect,
             [&] { ksUniformBlockBuffer(index, As<_KSbuffer>(buffer)); });
        if (expect == 0 && buffer)
            m.records[m.primitive].blocks[index] = buffer;
        else if (expect == 0)
            m.records[m.primitive].blocks.erase(index);
        break;
    }
    }
}

void Uniforms(int op)
{
    const int locations[] = {0, 1, -1, 2, -2, 3};
    const int location = Pick(locations);
    const long long count = Pick(kLongCounts);
    // Components per element of each vector call.
    const int widths[] = {1, 2, 3, 4, 1, 2, 3, 4, 9, 16};
    switch (op)
    {
    case 0:
    {
        const float values[] = {1.0f, -1.0f, 0.0f};
        const float value = Pick(values);
        Call("ksUniform1f", kAny, [&] { ksUniform1f(location, value); });
        break;
    }
    case 1:
        Call("ksUniform1i", kAny, [&] { ksUniform1i(location, 2); });
        break;
    case 2:
    {
        const std::uintptr_t texture = PickHandle(kTexture);
        // A texture must be live or null when set; location -1 ignores it.
        const bool bad = location < -1 ||
                         (location >= 0 && BindExpect(g_state->model.Of(kTexture, texture)) != 0);
        Call("ksUniformt",
             bad              ? KS_INVALID_VALUE
             : location == -1 ? 0
                              : kAny,
             [&] { ksUniformt(location, As<_KStexture>(texture)); });
        break;
    }
    case 3:
    {
        const unsigned number = PickPrimitive();
        const bool bad =
            location < -1 || (location >= 0 && BindExpect(g_state->model.OfPrimitive(number)) != 0);
        Call("ksUniformp",
             bad              ? KS_INVALID_VALUE
             : location == -1 ? 0
                              : kAny,
             [&] { ksUniformp(location, static_cast<KSprimitive>(number)); });
        break;
    }
    case 4:
    {
        _KStexture** values = MaybeArray<_KStexture*>(count);
        for (long long i = 0; values && i < count; ++i)
            values[i] = As<_KStexture>(PickHandle(kTexture));
        Call("ksUniformtv", kAny, [&] { ksUniformtv(location, count, values); });
        break;
    }
    case 5:
    {
        KSprimitive* values = MaybeArray<KSprimitive>(count);
        for (long long i = 0; values && i < count; ++i)
            values[i] = static_cast<KSprimitive>(PickPrimitive());
        Call("ksUniformpv", kAny, [&] { ksUniformpv(location, count, values); });
        break;
    }
    default:
    {
        const int w = Byte() % 10;
        const long long elements = count < 0 ? -1 : count * widths[w];
        const int transpose = Byte() % 3;
        if (w >= 4 && w < 8)
        {
            const int* values = MaybeArray<int>(elements);
            void (*const calls[])(int, long long, const int*) = {ksUniform1iv, ksUniform2iv,
                                                                 ksUniform3iv, ksUniform4iv};
            const char* names[] = {"ksUniform1iv", "ksUniform2iv", "ksUniform3iv", "ksUniform4iv"};
            Call(names[w - 4], kAny, [&] { calls[w - 4](location, count, values); });
        }
        else
        {
            const float* values = MaybeArray<float>(elements);
            if (w < 4)
            {
                void (*const calls[])(int, long long, const float*) = {ksUniform1fv, ksUniform2fv,
                                                                       ksUniform3fv, ksUniform4fv};
                const char* names[] = {"ksUniform1fv", "ksUniform2fv", "ksUniform3fv",
                                       "ksUniform4fv"};
                Call(names[w], kAny, [&] { calls[w](location, count, values); });
            }
            else if (w == 8)
                Call("ksUniformMatrix3fv", kAny,
                     [&] { ksUniformMatrix3fv(location, count, transpose, values); });
            else
                Call("ksUniformMatrix4fv", kAny,
                     [&] { ksUniformMatrix4fv(location, count, transpose, values); });
        }
        break;
    }
    }
}

void Contexts(int op)
{
    Model& m = g_state->model;
    void* const bad = As<void>(kNeverIssued);
    switch (op)
    {
    case 0:
    {
        // Attribute lists: good, an unknown key, a value out of range.
        static const long long lists[3][5] = {{KS_CONTEXT_RENDER_THREADS, 1, 0, 0, 0},
                                              {0x1234, 1, 0, 0, 0},
                                              {KS_CONTEXT_MAX_RAY_DEPTH, 0, 0, 0, 0}};
        const int l = Byte() % 3;
        const int before = CountContexts();
        void* made = nullptr;
        Call("KestrelCreateContext", 0,
             [&] { made = KestrelCreateContext(lists[l], Notify, nullptr); });
        if ((made != nullptr) != (l == 0) || CountContexts() != before + (l == 0))
            Disagree("KestrelCreateContext made %s", made ? "a context" : "none");
        Call("KestrelDestroyContext", 0, [&] { KestrelDestroyContext(made); });
        if (CountContexts() != before)
            Disagree("a destroyed context still counts");
        break;
    }
    case 1:
    {
        void* const handles[] = {nullptr, bad};
        void* const handle = Pick(handles);
        Call("KestrelDestroyContext", 0, [&] { KestrelDestroyContext(handle); });
        break;
    }
    case 2:
    {
        void* const handles[] = {g_state->context, nullptr, bad};
        const int h = Byte() % 3;
        int result = 0;
        Call("KestrelSetCurrentContext", 0, [&] { result = KestrelSetCurrentContext(handles[h]); });
        if (result != (h == 0))
            Disagree("KestrelSetCurrentContext gave %d", result);
        break;
    }
    case 3:
    {
        void* const handles[] = {g_state->context, nullptr, bad};
        void* const handle = Pick(handles);
        Call("KestrelStopContext", 0, [&] { KestrelStopContext(handle); });
        break;
    }
    case 4:
    {
        int count = -1;
        Call("KestrelGetHardwareAcceleratorCount", 0,
             [&] { count = KestrelGetHardwareAcceleratorCount(); });
        if (count != 0)
            Disagree("%d hardware accelerators", count);
        break;
    }
    case 5:
    {
        int error = -1;
        Call("ksGetError", 0, [&] { error = ksGetError(); });
        if (error != m.pending)
            Disagree("ksGetError gave 0x%x, the first error since the last read was 0x%x", error,
                     m.pending);
        m.pending = 0;
        break;
    }
    case 6:
    {
        const int names[] = {KS_VERSION, KS_PROFILE, KS_RENDER_STOPPED};
        const int n = Byte() % 3;
        const char* text = nullptr;
        Call("ksGetString", n == 2 ? KS_INVALID_ENUM : 0, [&] { text = ksGetString(names[n]); });
        if ((text != nullptr) != (n != 2))
            Disagree("ksGetString gave %s", text ? text : "null");
        break;
    }
    }
}

void GensAndDeletes(int k)
{
    switch (k)
    {
    case 0:
        Gen("ksGenBuffers", kBuffer, ksGenBuffers);
        break;
    case 1:
        Delete("ksDeleteBuffers", kBuffer, ksDeleteBuffers);
        break;
    case 2:
        Gen("ksGenTextures", kTexture, ksGenTextures);
        break;
    case 3:
        Delete("ksDeleteTextures", kTexture, ksDeleteTextures);
        break;
    case 4:
        Gen("ksGenFramebuffers", kFramebuffer, ksGenFramebuffers);
        break;
    case 5:
        Delete("ksDeleteFramebuffers", kFramebuffer, ksDeleteFramebuffers);
        break;
    }
}

void Render(int)
{
    RenderFrame();
}

// The opcodes: each entry runs one function (the ten vector uniform entries
// pick their function from the next byte).
struct Operation
{
    const char* name;
    void (*run)(int);
    int sub;
};
const Operation kOperations[] = {
    {"ksGenBuffers", GensAndDeletes, 0},
    {"ksDeleteBuffers", GensAndDeletes, 1},
    {"ksGenTextures", GensAndDeletes, 2},
    {"ksDeleteTextures", GensAndDeletes, 3},
    {"ksGenFramebuffers", GensAndDeletes, 4},
    {"ksDeleteFramebuffers", GensAndDeletes, 5},
    {"ksBindBuffer", Buffers, 0},
    {"ksGetBuffer", Buffers, 1},
    {"ksBufferData", Buffers, 2},
    {"ksMapBuffer", Buffers, 3},
    {"ksUnmapBuffer", Buffers, 4},
    {"ksBufferParameterString", Buffers, 5},
    {"ksGetBufferParameterString", Buffers, 6},
    {"ksBindTexture", Textures, 0},
    {"ksGetTexture", Textures, 1},
    {"ksTexImage2D", Textures, 2},
    {"ksTexParameteri", Textures, 3},
    {"ksGenerateMipmap", Textures, 4},
    {"ksPixelStorei", Textures, 5},
    {"ksBindFramebuffer", Framebuffers, 0},
    {"ksGetFramebuffer", Framebuffers, 1},
    {"ksFramebufferTexture2D", Framebuffers, 2},
    {"ksFramebufferAttachmentParameter1i", Framebuffers, 3},
    {"ksClear", Framebuffers, 4},
    {"ksRenderFrame", Render, 0},
    {"ksGetBooleanv", Queries, 0},
    {"ksGetIntegerv", Queries, 1},
    {"ksGetLongv", Queries, 2},
    {"ksGetFloatv", Queries, 3},
    {"ksGetDoublev", Queries, 4},
    {"ksFrameParameter1i", FrameParameters, 0},
    {"ksFrameParameter1f", FrameParameters, 1},
    {"ksFrameParameterfv", FrameParameters, 2},
    {"ksGetFrameParameteriv", FrameParameters, 3},
    {"ksViewport", FrameParameters, 4},
    {"ksClearColor", FrameParameters, 5},
    {"ksCreateShader", Shaders, 0},
    {"ksDeleteShader", Shaders, 1},
    {"ksShaderSource", Shaders, 2},
    {"ksCompileShader", Shaders, 3},
    {"ksGetShaderiv", Shaders, 4},
    {"ksGetShaderString", Shaders, 5},
    {"ksShaderString", Shaders, 6},
    {"ksCreateProgram", Programs, 0},
    {"ksDeleteProgram", Programs, 1},
    {"ksAttachShader", Programs, 2},
    {"ksDetachShader", Programs, 3},
    {"ksLinkProgram", Programs, 4},
    {"ksGetProgramiv", Programs, 5},
    {"ksGetProgramString", Programs, 6},
    {"ksProgramString", Programs, 7},
    {"ksGetUniformLocation", Programs, 8},
    {"ksGetUniformBlockIndex", Programs, 9},
    {"ksGetAttribLocation", Programs, 10},
    {"ksUseProgram", Programs, 11},
    {"ksGenPrimitives", Primitives, 0},
    {"ksDeletePrimitives", Primitives, 1},
    {"ksBindPrimitive", Primitives, 2},
    {"ksGetPrimitive", Primitives, 3},
    {"ksPrimitiveParameterString", Primitives, 4},
    {"ksUniformBlockBuffer", Primitives, 5},
    {"ksUniform1f", Uniforms, 0},
    {"ksUniform1i", Uniforms, 1},
    {"ksUniformt", Uniforms, 2},
    {"ksUniformp", Uniforms, 3},
    {"ksUniformtv", Uniforms, 4},
    {"ksUniformpv", Uniforms, 5},
    {"ksUniform*v", Uniforms, 6},
    {"ksUniform*v", Uniforms, 7},
    {"ksUniform*v", Uniforms, 8},
    {"ksUniform*v", Uniforms, 9},
    {"ksUniform*v", Uniforms, 10},
    {"ksUniform*v", Uniforms, 11},
    {"ksUniform*v", Uniforms, 12},
    {"ksUniform*v", Uniforms, 13},
    {"ksUniform*v", Uniforms, 14},
    {"ksUniform*v", Uniforms, 15},
    {"KestrelCreateContext", Contexts, 0},
    {"KestrelDestroyContext", Contexts, 1},
    {"KestrelSetCurrentContext", Contexts, 2},
    {"KestrelStopContext", Contexts, 3},
    {"KestrelGetHardwareAcceleratorCount", Contexts, 4},
    {"ksGetError", Contexts, 5},
    {"ksGetString", Contexts, 6},
};
constexpr int kOperationCount = sizeof(kOperations) / sizeof(kOperations[0]);

void Step(int opcode)
{
    const Operation& operation = kOperations[opcode % kOperationCount];
    operation.run(operation.sub);
}

void MakeForeign()
{
    g_foreign.context = KestrelCreateContext(nullptr, Notify, nullptr);
    KestrelSetCurrentContext(g_foreign.context);
    g_foreign.ids[kShader] = IdOf(ksCreateShader(KS_VERTEX_SHADER));
    g_foreign.ids[kProgram] = IdOf(ksCreateProgram());
    _KSbuffer* buffer = nullptr;
    ksGenBuffers(1, &buffer);
    _KStexture* texture = nullptr;
    ksGenTextures(1, &texture);
    _KSframebuffer* framebuffer = nullptr;
    ksGenFramebuffers(1, &framebuffer);
    KSprimitive primitive{};
    ksGenPrimitives(1, &primitive);
    g_foreign.ids[kBuffer] = IdOf(buffer);
    g_foreign.ids[kTexture] = IdOf(texture);
    g_foreign.ids[kFramebuffer] = IdOf(framebuffer);
    g_foreign.primitive = primitive;
    SetRenderHook(Hook);
    SetBuildHook(BuildHook);
}

// Seeds: call sequences of the runtime's tests, written as operation names
// and argument bytes (indices into the pools above; handle 1 is the first
// object of its kind made in the stream, 0 null).
const char* const kSeeds[][2] = {
    {"nested-map", "ksGenBuffers 0 1; ksBindBuffer 0 1; ksBufferData 0 0 0 1; ksMapBuffer 0 0; "
                   "ksMapBuffer 0 0; ksUnmapBuffer 0; ksBufferData 0 0 0 1; ksUnmapBuffer 0; "
                   "ksUnmapBuffer 0; ksGetError"},
    {"delete-bound",
     "ksGenBuffers 2 1; ksBindBuffer 0 1; ksBindBuffer 4 2; ksGenPrimitives 0 1; "
     "ksBindPrimitive 0 1; ksUniformBlockBuffer 0 1; ksDeleteBuffers 2 1 1 2; "
     "ksDeleteBuffers 0 1 1; ksBindBuffer 0 1; ksGetError; ksDeletePrimitives 0 1 1"},
    {"stopped-frame", "ksGenTextures 0 1; ksBindTexture 0 1; ksTexImage2D 0 0 0 0 0 1 0 0 1; "
                      "ksGenFramebuffers 0 1; ksBindFramebuffer 0 0 1; "
                      "ksFramebufferTexture2D 0 0 1 0 0; ksClear 0 0 0; ksRenderFrame 2 0; "
                      "ksGetError; ksRenderFrame 1 0; ksGetError; ksRenderFrame 3 9; ksGetError"},
    {"scene", "ksCreateShader 0 0; ksShaderSource 1 0 1 0 0; ksCompileShader 1; "
              "ksCreateShader 0 1; ksShaderSource 2 0 1 1 0; ksCompileShader 2; "
              "ksCreateShader 0 2; ksShaderSource 3 0 1 2 0; ksCompileShader 3; "
              "ksCreateProgram 0; ksAttachShader 1 1; ksAttachShader 1 2; ksLinkProgram 1; "
              "ksGenPrimitives 0 1; ksBindPrimitive 0 1; ksUseProgram 1; ksCreateProgram 0; "
              "ksAttachShader 2 3; ksLinkProgram 2; ksBindPrimitive 0 0; ksUseProgram 2; "
              "ksGenTextures 0 1; ksBindTexture 0 1; ksTexImage2D 0 0 0 0 0 1 0 0 1; "
              "ksGenFramebuffers 0 1; ksBindFramebuffer 0 0 1; ksFramebufferTexture2D 0 0 1 0 0; "
              "ksRenderFrame 4 0; ksGetError; ksRenderFrame 3 40; ksGetError; ksDeleteProgram 1; "
              "ksRenderFrame 2 0; ksGetError"},
    {"filter-table",
     "ksFrameParameter1i 0 2; ksFrameParameterfv 0 1; ksFrameParameter1i 0 3; "
     "ksFrameParameterfv 0 1; ksGetIntegerv 2 1; ksGetError; ksFrameParameterfv 0 1"},
    {"detach", "ksCreateProgram 0; ksCreateShader 0 0; ksAttachShader 1 1; ksDeleteShader 1; "
               "ksDetachShader 1 1; ksDetachShader 1 0; ksDeleteProgram 1; ksDeleteProgram 1; "
               "ksGetError"},
    {"attachment-16", "ksGenFramebuffers 0 1; ksBindFramebuffer 0 0 1; "
                      "ksFramebufferAttachmentParameter1i 0 3 1 2; ksClear 0 0 3; ksGetError"},
    {"errors-kept", "ksBindBuffer 5 0; ksGenBuffers 4 1; ksGetError; ksGetError"},
    {"tex-parameters",
     "ksGenTextures 0 1; ksBindTexture 0 1; ksTexParameteri 0 1 2; "
     "ksTexParameteri 0 2 0; ksGetError; ksDeleteTextures 0 1 1; ksTexParameteri 0 0 0"},
};

// CALL_STREAM_SEEDS=<dir> writes the seeds there and exits.
void WriteSeeds(const char* directory)
{
    for (const auto& seed : kSeeds)
    {
        std::string bytes;
        std::string text = std::string(seed[1]) + ";";
        for (std::size_t start = 0, end; (end = text.find(';', start)) != std::string::npos;
             start = end + 1)
        {
            char name[64] = {};
            int used = 0;
            const std::string call = text.substr(start, end - start);
            if (std::sscanf(call.c_str(), " %63s%n", name, &used) != 1)
                continue;
            int opcode = 0;
            while (opcode < kOperationCount && std::strcmp(kOperations[opcode].name, name) != 0)
                ++opcode;
            if (opcode == kOperationCount)
            {
                std::fprintf(stderr, "seed %s: unknown operation %s\n", seed[0], name);
                std::exit(1);
            }
            bytes += static_cast<char>(opcode);
            for (const char* p = call.c_str() + used; *p;)
            {
                char* next = nullptr;
                const long value = std::strtol(p, &next, 10);
                if (next == p)
                    break;
                bytes += static_cast<char>(value);
                p = next;
            }
        }
        const std::string path = std::string(directory) + "/seed-" + seed[0];
        if (FILE* file = std::fopen(path.c_str(), "wb"))
        {
            std::fwrite(bytes.data(), 1, bytes.size(), file);
            std::fclose(file);
        }
    }
    std::exit(0);
}

} // namespace

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
            Step(Byte());
            Verify();
        }
        // The register still holds the first error of the stream's tail.
        Contexts(5);
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
