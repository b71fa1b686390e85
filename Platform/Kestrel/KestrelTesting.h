/// \file
/// Testing interface of our Kestrel runtime: a call log, fault injection and a
/// render hook. Installed as the CMake component KestrelTesting (target
/// Vireo::KestrelTesting), so that hosts can test their own Kestrel call
/// sequences; nothing of it runs unless a test asks for it.
///
/// A typical test:
///
///   using namespace Kestrel::Testing;
///   CallLog log;                                  // records from here on
///   wrapperBuffer->Bind(KSBuffer::kArray);
///   EXPECT_EQ(log.Calls(), (Calls{"ksBindBuffer(KS_ARRAY_BUFFER, buf#1)", "ksGetError()"}));
///
///   AutoFaults faults;                            // clears every fault at scope end
///   InjectFault("ksMapBuffer");                   // next ksMapBuffer gives null
///   EXPECT_EQ(mapping.GetPtr(), nullptr);
///
/// Text form of a logged call: the function name, then its arguments in
/// parentheses, separated by ", ":
///   - enum-like arguments (targets, binding names, parameter names, formats,
///     types, usages, access, shader kinds, masks equal to a named constant)
///     by their constant's name, e.g. KS_ARRAY_BUFFER; a number that names no
///     constant of that slot in decimal;
///   - handles as kind#serial, where serial counts that kind of object within
///     its context from 1 in creation order: ctx#1 (per process), shader#2,
///     prog#1, buf#3, tex#1, fb#1; a null handle as "null"; a handle that is
///     not live in the current context as kind?0x<hex id>;
///   - primitives as their number in decimal (0 is the frame primitive);
///   - other integers in decimal, floats by "%g";
///   - strings in double quotes; a null string as null;
///   - other pointers (data, output arguments) as "ptr", or "null".
/// Values of ksUniform calls are logged by pointer, not expanded, so that a
/// test reads the stored values through the runtime instead.
#ifndef KESTREL_TESTING_H
#define KESTREL_TESTING_H

#include "KestrelApi/Kestrel.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Kestrel::Testing
{

/// Calls in the text form of the log, oldest first.
using Calls = std::vector<std::string>;

/// Records every Kestrel call (both `Kestrel…` and `ks…`) made from any thread
/// between construction and destruction. Logs nest: each live log records.
class KESTREL_EXPORT CallLog
{
public:
    CallLog();
    ~CallLog();
    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    /// The calls recorded so far, oldest first.
    std::vector<std::string> Calls() const;
    /// Only the calls of one function, e.g. CallsOf("ksGetError").
    std::vector<std::string> CallsOf(const std::string& function) const;
    /// Forget what was recorded; recording goes on.
    void Clear();

private:
    struct Impl;
    Impl* _pImpl;
};

/// Sentinel for InjectFault: raise the function's own error (see below).
constexpr int kNaturalError = -1;

/// Makes the next `count` calls of `function` fail the way that function
/// fails, without doing their work:
///   - KestrelCreateContext gives null;
///   - ksCreateShader, ksCreateProgram give null; ksGen… leave the output null
///     (ksGenPrimitives leaves it 0);
///   - ksMapBuffer gives null;
///   - ksCompileShader / ksLinkProgram leave status 0 with the log
///     "0:0: error: injected fault";
///   - KestrelSetCurrentContext gives 0;
///   - every other function does nothing.
/// Then the error `error` is raised in the current context, with its
/// notification: kNaturalError raises KS_OUT_OF_MEMORY for creation and
/// mapping functions, nothing for compile/link/KestrelSetCurrentContext and
/// KS_INVALID_OPERATION for all others; 0 raises nothing; any other value
/// raises that value. An unknown function name is a programming error of the
/// test and aborts it with a message.
KESTREL_EXPORT void InjectFault(const std::string& function, int count = 1,
                                int error = kNaturalError);
/// Makes the next `count` calls of `function` do their work normally and then
/// raise `error` (e.g. a ksUniform3fv that stores its value but reports
/// KS_INVALID_OPERATION).
KESTREL_EXPORT void InjectErrorAfter(const std::string& function, int error, int count = 1);
/// Lets the next `count` calls of `function` through untouched. Faults of a
/// function queue up in the order given, so LetPass("ksBindBuffer", 1) and
/// then InjectFault("ksBindBuffer") fail the second call. Counts as pending
/// until used up.
KESTREL_EXPORT void LetPass(const std::string& function, int count);
/// Faults injected and not yet used up, summed over functions.
KESTREL_EXPORT int PendingFaults();
/// Forgets every fault not yet used up.
KESTREL_EXPORT void ClearFaults();

/// Raises `error` in the current context now, as the runtime would: kept if
/// none is pending, and notified. Safe from the render hook.
KESTREL_EXPORT void RaiseError(int error);

/// Clears all faults when it leaves scope, so one test cannot poison the next.
class AutoFaults
{
public:
    AutoFaults() = default;
    ~AutoFaults() { ClearFaults(); }
    AutoFaults(const AutoFaults&) = delete;
    AutoFaults& operator=(const AutoFaults&) = delete;
};

/// Called once per ksRenderFrame, on a worker thread, after validation and
/// before the first tile, with the context being rendered. From it a test may
/// call KestrelStopContext (from this or any thread), RaiseError, or block
/// until another thread has acted; the frame continues when it returns.
using RenderHook = std::function<void(void* context)>;
/// Installs the hook for every context; an empty function removes it.
KESTREL_EXPORT void SetRenderHook(RenderHook hook);

/// Installs a render hook for its lifetime and removes it at the end.
class AutoRenderHook
{
public:
    /// Installs `hook`.
    explicit AutoRenderHook(RenderHook hook) { SetRenderHook(std::move(hook)); }
    ~AutoRenderHook() { SetRenderHook(nullptr); }
    AutoRenderHook(const AutoRenderHook&) = delete;
    AutoRenderHook& operator=(const AutoRenderHook&) = delete;
};

/// Called at the start of each build of a context's scene (not when a frame
/// reuses the last one), on the thread that builds, with the context's lock
/// held: from it a test may call KestrelStopContext, or start a thread that
/// calls KestrelDestroyContext, but makes no `ks` call, which would wait for
/// that lock. The build goes on when it returns.
KESTREL_EXPORT void SetBuildHook(RenderHook hook);

/// Sets a build hook for its scope and takes it away after.
class AutoBuildHook
{
public:
    /// Installs `hook`.
    explicit AutoBuildHook(RenderHook hook) { SetBuildHook(std::move(hook)); }
    ~AutoBuildHook() { SetBuildHook(nullptr); }
    AutoBuildHook(const AutoBuildHook&) = delete;
    AutoBuildHook& operator=(const AutoBuildHook&) = delete;
};

/// \name Handle texts
/// @{

/// The text a handle has in the call log, for building expected lines.
KESTREL_EXPORT std::string Describe(_KSshader* handle);
KESTREL_EXPORT std::string Describe(_KSprogram* handle);
KESTREL_EXPORT std::string Describe(_KSbuffer* handle);
KESTREL_EXPORT std::string Describe(_KStexture* handle);
KESTREL_EXPORT std::string Describe(_KSframebuffer* handle);
/// @}

/// Live objects of each kind in `context` (shaders, programs, primitives
/// without the frame primitive, buffers, textures, frame buffers), for leak
/// checks. -1 for a context that is not live.
struct ObjectCounts
{
    int shaders = 0;      ///< Shaders.
    int programs = 0;     ///< Programs.
    int primitives = 0;   ///< Primitives, without the frame primitive.
    int buffers = 0;      ///< Buffers.
    int textures = 0;     ///< Textures.
    int framebuffers = 0; ///< Frame buffers.
    /// True when every count is equal.
    bool operator==(const ObjectCounts& other) const
    {
        return shaders == other.shaders && programs == other.programs &&
               primitives == other.primitives && buffers == other.buffers &&
               textures == other.textures && framebuffers == other.framebuffers;
    }
};
/// The live objects of `context`; every count -1 for a context that is not
/// live.
KESTREL_EXPORT ObjectCounts CountObjects(void* context);
/// Live contexts of the process.
KESTREL_EXPORT int CountContexts();
/// How many runs of consecutive ids a context keeps to tell a stale handle
/// from a foreign one: its bookkeeping of handles, which must not grow with
/// every object made and deleted. -1 for a context that is not live.
KESTREL_EXPORT int CountIssuedRuns(void* context);

// Additions: read back what the runtime stored, for checks that the call log
// cannot make. Each acts on the current context and gives false when there
// is none or when the object is not live in it.

/// A uniform value as a ksUniform call stored it on a primitive.
struct UniformRecord
{
    std::string type;          ///< "float", "vec3", "ivec2", "mat4", "texture", "primitive", ...
    long long count = 0;       ///< elements of that type
    std::vector<float> floats; ///< float, vector and matrix types
    std::vector<int> ints;     ///< int and ivec types
    std::vector<unsigned long long> handles; ///< textures as ids, primitives as numbers
};
/// The value at `location` of `primitive` (0: the frame primitive); false
/// also when nothing was stored there. Matrices are column-major, whatever
/// the transpose flag of the call was.
KESTREL_EXPORT bool ReadUniform(KSprimitive primitive, int location, UniformRecord* value);

/// What a primitive holds besides its uniforms.
struct PrimitiveRecord
{
    std::string name;                               ///< Its KS_PRIMITIVE_NAME.
    _KSprogram* program = nullptr;                  ///< The program of ksUseProgram, or null.
    std::vector<std::pair<int, _KSbuffer*>> blocks; ///< uniform block index, buffer
};
/// What `primitive` holds (0: the frame primitive).
KESTREL_EXPORT bool ReadPrimitive(KSprimitive primitive, PrimitiveRecord* record);

/// One level of a texture: level 0 is the image of ksTexImage2D (the host's
/// memory under client storage), levels from 1 those of ksGenerateMipmap.
struct TextureRecord
{
    int width = 0;                    ///< Width of the level in pixels.
    int height = 0;                   ///< Height of the level in pixels.
    int format = 0;                   ///< Pixel format, e.g. KS_RGBA.
    int type = 0;                     ///< Channel type, e.g. KS_UNSIGNED_BYTE.
    bool clientStorage = false;       ///< True when level 0 is the host's memory.
    int levels = 0;                   ///< Levels the texture has, level 0 included.
    int minFilter = 0;                ///< KS_TEXTURE_MIN_FILTER of the texture.
    int magFilter = 0;                ///< KS_TEXTURE_MAG_FILTER of the texture.
    int wrapS = 0;                    ///< KS_TEXTURE_WRAP_S of the texture.
    int wrapT = 0;                    ///< KS_TEXTURE_WRAP_T of the texture.
    std::vector<unsigned char> bytes; ///< The pixels of the level, row after row.
};
/// Level `level` of `texture`.
KESTREL_EXPORT bool ReadTexture(_KStexture* texture, int level, TextureRecord* record);

/// How many times the current context has built its scene for a frame;
/// false when no context is current. A frame whose primitives, programs,
/// uniforms, block buffers and textures are as the last frame saw them
/// reuses the last scene and builds nothing.
KESTREL_EXPORT bool CountSceneBuilds(long long* builds);
/// The indexed meshes that those builds made into structures of the ray
/// tracing kernels: a buffer that several primitives share counts once, and
/// one that a later scene finds unchanged counts no more.
KESTREL_EXPORT bool CountMeshBuilds(long long* builds);

/// Makes ksGetString(name) answer `text` (copied; null makes it answer null)
/// until the override is removed, so that tests can present other versions.
KESTREL_EXPORT void OverrideString(int name, const char* text);
/// Makes ksGetString(name) answer as the runtime does again.
KESTREL_EXPORT void RemoveStringOverride(int name);

/// Overrides a string for its lifetime and removes the override at the end.
class AutoStringOverride
{
public:
    /// Makes ksGetString(name) answer `text`.
    AutoStringOverride(int name, const char* text) : _nName(name) { OverrideString(name, text); }
    ~AutoStringOverride() { RemoveStringOverride(_nName); }
    AutoStringOverride(const AutoStringOverride&) = delete;
    AutoStringOverride& operator=(const AutoStringOverride&) = delete;

private:
    int _nName;
};

} // namespace Kestrel::Testing

#endif // KESTREL_TESTING_H
