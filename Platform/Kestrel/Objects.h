// The records behind Kestrel's handles. A context owns them in its handle
// tables; nothing outside the runtime ever sees their addresses.
#ifndef KESTREL_OBJECTS_H
#define KESTREL_OBJECTS_H

#include "KestrelApi/Kestrel.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kestrel
{

// Handles are process-wide ids, cast to the API's pointer types.
using Id = std::uint64_t;

template <class Handle>
Id IdOf(Handle* handle)
{
    return static_cast<Id>(reinterpret_cast<std::uintptr_t>(handle));
}

template <class Handle>
Handle* HandleOf(Id id)
{
    return reinterpret_cast<Handle*>(static_cast<std::uintptr_t>(id));
}

enum ObjectKind
{
    kOK_Shader,
    kOK_Program,
    kOK_Primitive,
    kOK_Buffer,
    kOK_Texture,
    kOK_Framebuffer,
    kOK_Context,
    kOK_Count
};

// Nothing the runtime allocates for a client may exceed this; larger requests
// are KS_OUT_OF_MEMORY rather than an attempt that could take the machine down.
constexpr std::size_t kMaxStorageBytes = std::size_t(1) << 34;
// The longest edge of a texture image, so that a frame over an image of the
// empty format still has a bounded number of tiles.
constexpr int kMaxTextureSize = 1 << 16;

// Bytes owned by the runtime: zeroed or copied at creation, never resized.
class Storage
{
public:
    Storage() = default;
    // False when the memory cannot be had; `copy` may be null for zeroes.
    bool Allocate(std::size_t size, const void* copy);
    unsigned char* Data() const { return _pData.get(); }
    std::size_t Size() const { return _nSize; }

private:
    struct Free
    {
        void operator()(unsigned char* p) const { std::free(p); }
    };
    std::unique_ptr<unsigned char, Free> _pData;
    std::size_t _nSize = 0;
};

// The type of a uniform value, as the call that set it says.
enum UniformType
{
    kUT_Float,
    kUT_Vec2,
    kUT_Vec3,
    kUT_Vec4,
    kUT_Int,
    kUT_IVec2,
    kUT_IVec3,
    kUT_IVec4,
    kUT_Mat3,
    kUT_Mat4,
    kUT_Texture,
    kUT_Primitive,
    kUT_Count
};

// The shading language's name of a type: "vec3", "texture", ...
const char* UniformTypeName(UniformType type);

struct UniformValue
{
    UniformType _eType = kUT_Float;
    long long _nCount = 0;
    std::vector<float> _floats; // float, vector and matrix types; matrices column-major
    std::vector<int> _ints;     // int and ivec types
    std::vector<Id> _handles;   // textures (ids) and primitives (numbers)
};

// The built-ins of the shading language that a statement can call.
enum BuiltIn
{
    // Shapes and their placement (vertex shaders).
    kBI_Sphere,    // (vec3 centre, float radius)
    kBI_Box,       // (vec3 lo, vec3 hi)
    kBI_Plane,     // (vec3 point, vec3 normal)
    kBI_Triangles, // (uniformblock vertices)
    kBI_Transform, // (mat4 m)

    // Materials (ray shaders).
    kBI_Diffuse,        // (vec3 albedo)
    kBI_DiffuseTexture, // (texture t)
    kBI_Emissive,       // (vec3 radiance)
    kBI_Mirror,         // (vec3 tint)
    kBI_Glass,          // (float ior)

    // The frame (frame shaders).
    kBI_Camera,     // (vec3 eye, vec3 target, vec3 up, float fov_degrees)
    kBI_Background, // (vec3 radiance)
    kBI_Output,     // (int attachment, channel)

    kBI_Count
};

// What an output statement writes.
enum Channel
{
    kCH_Radiance,
    kCH_Albedo,
    kCH_Normal,
    kCH_Depth,
    kCH_Visibility,
    kCH_Count
};

// One argument of a statement, resolved by the link.
struct Argument
{
    enum Kind
    {
        kAK_Uniform, // _nIndex is the uniform's location in the program
        kAK_Block,   // _nIndex is the uniform block's index in the program
        kAK_Literal, // _literal holds the value, typed
        kAK_Channel, // _nIndex is a Channel
    };
    Kind _eKind = kAK_Literal;
    int _nIndex = -1;
    UniformValue _literal; // count 1
};

struct Statement
{
    BuiltIn _eBuiltIn = kBI_Count;
    std::vector<Argument> _arguments; // in the built-in's parameter order
};

// What a successful link tells the rest of the runtime. Locations and
// indices are positions in these lists.
struct LinkedProgram
{
    struct Uniform
    {
        std::string _sName;
        UniformType _eType = kUT_Float;
        // The declaration's "= value", count 1; a primitive that never set
        // the uniform reads this, or zeroes without one.
        bool _bHasDefault = false;
        UniformValue _default;
    };
    std::vector<Uniform> _uniforms;
    std::vector<std::string> _blocks;
    std::vector<std::string> _attributes;
    // The statements of every linked shader, link-once shaders included, in
    // the order of attachment. A program has at most one shape and at most
    // one material.
    std::vector<Statement> _statements;
};

// The shading language's parse of a shader (ShadingLanguage.h).
struct CompiledShader;

struct ShaderObject
{
    Id _nId = 0;
    int _nSerial = 0;
    int _eKind = 0;
    bool _bHasSource = false;
    std::string _sSource;
    std::string _sName;
    std::string _sLog;
    bool _bCompiled = false;
    // The last good compile, which links use; null while _bCompiled is false.
    // Shared, so that programs keep it after the shader is deleted.
    std::shared_ptr<const CompiledShader> _pCompiled;
};

struct ProgramObject
{
    Id _nId = 0;
    int _nSerial = 0;
    // Attached shaders stay here after they are deleted: a program keeps
    // what it links from.
    std::vector<std::shared_ptr<ShaderObject>> _attached;
    std::string _sName;
    std::string _sLog;
    bool _bLinked = false;
    LinkedProgram _linked;
    // Raised by every successful link, so that a cached scene can tell.
    std::uint64_t _nRevision = 0;
};

struct PrimitiveObject
{
    Id _nId = 0; // the primitive's number; 0 is the frame primitive
    int _nSerial = 0;
    std::string _sName;
    Id _nProgram = 0;
    std::map<int, UniformValue> _uniforms;
    std::map<int, Id> _blocks; // uniform block index -> buffer
    // Raised by whatever changes what the renderer reads of the primitive:
    // uniforms, its program, its block bindings.
    std::uint64_t _nRevision = 0;
};

struct BufferObject
{
    Id _nId = 0;
    int _nSerial = 0;
    Storage _storage;
    int _eUsage = 0;
    bool _bMapped = false;
    // Maps refused while the buffer was mapped. Each is closed by an unmap
    // of its own, which must not end the live map: such unmaps are taken
    // first. Above 0 only while mapped.
    int _nRefusedMaps = 0;
    std::string _sName;
    // Raised by new storage and by every map and unmap, since a mapping
    // lets the host write the storage.
    std::uint64_t _nRevision = 0;
};

// One image of a texture. Shared with frames in flight, so a texture that is
// respecified or deleted during a frame never pulls memory from under it.
struct TextureImage
{
    int _nWidth = 0;
    int _nHeight = 0;
    int _eFormat = 0; // 0: the empty "no format" image
    int _eType = 0;
    Storage _storage;                  // the runtime's own pixels
    unsigned char* _pClient = nullptr; // client storage: the host's pixels
    unsigned char* Data() const { return _pClient ? _pClient : _storage.Data(); }
    std::size_t Bytes() const;
};

struct MipLevel
{
    int _nWidth = 0;
    int _nHeight = 0;
    Storage _storage;
};

struct TextureObject
{
    Id _nId = 0;
    int _nSerial = 0;
    std::shared_ptr<TextureImage> _pImage; // null until ksTexImage2D
    std::vector<MipLevel> _mipLevels;      // levels 1 and up
    int _eMinFilter = KS_LINEAR;
    int _eMagFilter = KS_LINEAR;
    int _eWrapS = KS_REPEAT;
    int _eWrapT = KS_REPEAT;
    // Raised by a new image and by parameter changes.
    std::uint64_t _nRevision = 0;
};

// One for each bit that the 32-bit clear mask has for an attachment, from
// KS_COLOR_ATTACHMENT0_BIT (bit 15) up to bit 31.
constexpr int kMaxAttachments = 17;

struct AttachmentPoint
{
    Id _nTexture = 0;
    int _nFilter = 0;
    int _eBlendMode = KS_BLEND_MODE_0;
};

struct FramebufferObject
{
    Id _nId = 0;
    int _nSerial = 0;
    std::array<AttachmentPoint, kMaxAttachments> _points;
};

} // namespace Kestrel

#endif // KESTREL_OBJECTS_H
