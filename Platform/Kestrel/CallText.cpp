#include "CallText.h"

#include "Context.h"

#include <cinttypes>
#include <cstdio>

namespace Kestrel
{

namespace
{

struct NamedConstant
{
    long long _nValue;
    const char* _pName;
    unsigned _nSlots;
};

#define KS_CONSTANT(name, slots)                                                                   \
    {                                                                                              \
        name, #name, slots                                                                         \
    }

// Every constant that an argument of the API can name, with the slots in
// which it means something.
const NamedConstant kConstants[] = {
    // Queries and frame parameters.
    KS_CONSTANT(KS_VERSION, kCS_Query),
    KS_CONSTANT(KS_PROFILE, kCS_Query),
    KS_CONSTANT(KS_HARDWARE_ACCELERATED, kCS_Query),
    KS_CONSTANT(KS_MAX_RAY_DEPTH, kCS_Query),
    KS_CONSTANT(KS_RAY_DEPTH_LIMIT, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_1, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_2, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_3, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_4, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_5, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_6, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_7, kCS_Query),
    KS_CONSTANT(KS_FRAME_STATISTIC_8, kCS_Query),
    KS_CONSTANT(KS_DIFFERENTIALS_ENABLED, kCS_Query),
    KS_CONSTANT(KS_FILTERED_ACCUMULATES_ENABLED, kCS_Query),
    KS_CONSTANT(KS_FILTER_SIZE, kCS_Query),
    KS_CONSTANT(KS_FILTER_TABLE_SIZE, kCS_Query),
    KS_CONSTANT(KS_FILTER_TABLE, kCS_Query),
    KS_CONSTANT(KS_MAX_FILTER_TABLE_SIZE, kCS_Query),
    KS_CONSTANT(KS_FRAME_INDEX, kCS_Query),
    // Clear masks.
    KS_CONSTANT(KS_COLOR_BUFFER_BIT, kCS_ClearMask),
    KS_CONSTANT(KS_COLOR_ATTACHMENT0_BIT, kCS_ClearMask),
    // Shader kinds.
    KS_CONSTANT(KS_VERTEX_SHADER, kCS_ShaderKind),
    KS_CONSTANT(KS_LINK_ONCE_SHADER, kCS_ShaderKind),
    KS_CONSTANT(KS_SHADER_KIND_2, kCS_ShaderKind),
    KS_CONSTANT(KS_SHADER_KIND_3, kCS_ShaderKind),
    // Parameters of shaders, programs, primitives and buffers.
    KS_CONSTANT(KS_COMPILE_STATUS, kCS_ObjectParameter),
    KS_CONSTANT(KS_LINK_STATUS, kCS_ObjectParameter),
    KS_CONSTANT(KS_SHADER_NAME, kCS_ObjectParameter),
    KS_CONSTANT(KS_PROGRAM_NAME, kCS_ObjectParameter),
    KS_CONSTANT(KS_SHADER_LOG, kCS_ObjectParameter),
    KS_CONSTANT(KS_PROGRAM_LOG, kCS_ObjectParameter),
    KS_CONSTANT(KS_SHADER_SOURCE, kCS_ObjectParameter),
    KS_CONSTANT(KS_PRIMITIVE_NAME, kCS_ObjectParameter),
    KS_CONSTANT(KS_BUFFER_NAME, kCS_ObjectParameter),
    // Targets and their binding names.
    KS_CONSTANT(KS_PRIMITIVE, kCS_Target),
    KS_CONSTANT(KS_PRIMITIVE_BINDING, kCS_Target),
    KS_CONSTANT(KS_TEXTURE_2D, kCS_Target),
    KS_CONSTANT(KS_TEXTURE_BINDING_2D, kCS_Target),
    KS_CONSTANT(KS_ARRAY_BUFFER, kCS_Target),
    KS_CONSTANT(KS_ELEMENT_ARRAY_BUFFER, kCS_Target),
    KS_CONSTANT(KS_ARRAY_BUFFER_BINDING, kCS_Target),
    KS_CONSTANT(KS_ELEMENT_ARRAY_BUFFER_BINDING, kCS_Target),
    KS_CONSTANT(KS_PIXEL_PACK_BUFFER, kCS_Target),
    KS_CONSTANT(KS_PIXEL_UNPACK_BUFFER, kCS_Target),
    KS_CONSTANT(KS_PIXEL_PACK_BUFFER_BINDING, kCS_Target),
    KS_CONSTANT(KS_PIXEL_UNPACK_BUFFER_BINDING, kCS_Target),
    KS_CONSTANT(KS_UNIFORM_BLOCK_BUFFER, kCS_Target),
    KS_CONSTANT(KS_UNIFORM_BLOCK_BUFFER_BINDING, kCS_Target),
    KS_CONSTANT(KS_FRAMEBUFFER, kCS_Target),
    KS_CONSTANT(KS_FRAMEBUFFER_BINDING, kCS_Target),
    // Buffer usages and map access.
    KS_CONSTANT(KS_STREAM_DRAW, kCS_Usage),
    KS_CONSTANT(KS_STREAM_READ, kCS_Usage),
    KS_CONSTANT(KS_STREAM_COPY, kCS_Usage),
    KS_CONSTANT(KS_STATIC_DRAW, kCS_Usage),
    KS_CONSTANT(KS_STATIC_READ, kCS_Usage),
    KS_CONSTANT(KS_STATIC_COPY, kCS_Usage),
    KS_CONSTANT(KS_DYNAMIC_DRAW, kCS_Usage),
    KS_CONSTANT(KS_DYNAMIC_READ, kCS_Usage),
    KS_CONSTANT(KS_DYNAMIC_COPY, kCS_Usage),
    KS_CONSTANT(KS_READ_ONLY, kCS_Access),
    KS_CONSTANT(KS_WRITE_ONLY, kCS_Access),
    KS_CONSTANT(KS_READ_WRITE, kCS_Access),
    // Texture images and parameters.
    KS_CONSTANT(KS_LUMINANCE, kCS_Format),
    KS_CONSTANT(KS_RGB, kCS_Format),
    KS_CONSTANT(KS_RGBA, kCS_Format),
    KS_CONSTANT(KS_UNSIGNED_BYTE, kCS_PixelType),
    KS_CONSTANT(KS_SHORT, kCS_PixelType),
    KS_CONSTANT(KS_UNSIGNED_SHORT, kCS_PixelType),
    KS_CONSTANT(KS_INT, kCS_PixelType),
    KS_CONSTANT(KS_UNSIGNED_INT, kCS_PixelType),
    KS_CONSTANT(KS_FLOAT, kCS_PixelType),
    KS_CONSTANT(KS_TEXTURE_MAG_FILTER, kCS_TextureParameter),
    KS_CONSTANT(KS_TEXTURE_MIN_FILTER, kCS_TextureParameter),
    KS_CONSTANT(KS_TEXTURE_WRAP_S, kCS_TextureParameter),
    KS_CONSTANT(KS_TEXTURE_WRAP_T, kCS_TextureParameter),
    KS_CONSTANT(KS_NEAREST, kCS_TextureValue),
    KS_CONSTANT(KS_LINEAR, kCS_TextureValue),
    KS_CONSTANT(KS_LINEAR_MIPMAP_LINEAR, kCS_TextureValue),
    KS_CONSTANT(KS_REPEAT, kCS_TextureValue),
    KS_CONSTANT(KS_CLAMP_TO_EDGE, kCS_TextureValue),
    KS_CONSTANT(KS_MIRRORED_REPEAT, kCS_TextureValue),
    KS_CONSTANT(KS_UNPACK_CLIENT_STORAGE, kCS_PixelStore),
    // Frame buffer attachments.
    KS_CONSTANT(KS_COLOR_ATTACHMENT0, kCS_Attachment),
    KS_CONSTANT(KS_ATTACHMENT_FILTER, kCS_AttachmentParameter),
    KS_CONSTANT(KS_ATTACHMENT_BLEND_MODE, kCS_AttachmentParameter),
    KS_CONSTANT(KS_BLEND_MODE_0, kCS_AttachmentValue),
    KS_CONSTANT(KS_BLEND_MODE_1, kCS_AttachmentValue),
    KS_CONSTANT(KS_BLEND_MODE_2, kCS_AttachmentValue),
    KS_CONSTANT(KS_BLEND_MODE_3, kCS_AttachmentValue),
};

#undef KS_CONSTANT

// Log prefixes of handles, by ObjectKind.
const char* const kHandlePrefixes[kOK_Count] = {"shader", "prog", "prim", "buf",
                                                "tex",    "fb",   "ctx"};

std::string Decimal(long long value)
{
    return std::to_string(value);
}

std::string FormatArg(const Arg& arg, const Context* context)
{
    switch (arg._eKind)
    {
    case Arg::kAK_Int:
        return Decimal(arg._nValue);
    case Arg::kAK_Unsigned:
        return std::to_string(static_cast<unsigned long long>(arg._nValue));
    case Arg::kAK_Float:
    {
        char text[64];
        std::snprintf(text, sizeof(text), "%g", arg._fValue);
        return text;
    }
    case Arg::kAK_Enum:
    {
        const char* name = ConstantName(arg._nValue, arg._eSlot);
        return name ? name : Decimal(arg._nValue);
    }
    case Arg::kAK_String:
        return arg._pValue ? "\"" + std::string(static_cast<const char*>(arg._pValue)) + "\""
                           : "null";
    case Arg::kAK_Pointer:
        return arg._pValue ? "ptr" : "null";
    case Arg::kAK_Handle:
        return DescribeHandle(arg._eObject, IdOf(arg._pValue), context);
    case Arg::kAK_Primitive:
        return Decimal(arg._nValue);
    case Arg::kAK_Context:
    {
        const Id id = IdOf(arg._pValue);
        if (id == 0)
            return "null";
        const int serial = Registry::Instance().SerialOf(id);
        return serial ? "ctx#" + std::to_string(serial) : "ctx?" + HexId(id);
    }
    }
    return "?";
}

Arg MakeHandleArg(ObjectKind kind, const void* handle)
{
    Arg arg;
    arg._eKind = Arg::kAK_Handle;
    arg._eObject = kind;
    arg._pValue = handle;
    return arg;
}

} // namespace

const char* ConstantName(long long value, ConstantSlot slot)
{
    for (const NamedConstant& constant : kConstants)
        if (constant._nValue == value && (constant._nSlots & slot) != 0)
            return constant._pName;
    return nullptr;
}

Arg IntArg(long long value)
{
    Arg arg;
    arg._eKind = Arg::kAK_Int;
    arg._nValue = value;
    return arg;
}

Arg UnsignedArg(unsigned long long value)
{
    Arg arg;
    arg._eKind = Arg::kAK_Unsigned;
    arg._nValue = static_cast<long long>(value);
    return arg;
}

Arg FloatArg(double value)
{
    Arg arg;
    arg._eKind = Arg::kAK_Float;
    arg._fValue = value;
    return arg;
}

Arg EnumArg(long long value, ConstantSlot slot)
{
    Arg arg;
    arg._eKind = Arg::kAK_Enum;
    arg._nValue = value;
    arg._eSlot = slot;
    return arg;
}

Arg StringArg(const char* value)
{
    Arg arg;
    arg._eKind = Arg::kAK_String;
    arg._pValue = value;
    return arg;
}

Arg PtrArg(const void* value)
{
    Arg arg;
    arg._eKind = Arg::kAK_Pointer;
    arg._pValue = value;
    return arg;
}

Arg HandleArg(_KSshader* handle)
{
    return MakeHandleArg(kOK_Shader, handle);
}

Arg HandleArg(_KSprogram* handle)
{
    return MakeHandleArg(kOK_Program, handle);
}

Arg HandleArg(_KSbuffer* handle)
{
    return MakeHandleArg(kOK_Buffer, handle);
}

Arg HandleArg(_KStexture* handle)
{
    return MakeHandleArg(kOK_Texture, handle);
}

Arg HandleArg(_KSframebuffer* handle)
{
    return MakeHandleArg(kOK_Framebuffer, handle);
}

Arg PrimitiveArg(KSprimitive primitive)
{
    Arg arg;
    arg._eKind = Arg::kAK_Primitive;
    arg._nValue = static_cast<long long>(primitive);
    return arg;
}

Arg ContextArg(const void* context)
{
    Arg arg;
    arg._eKind = Arg::kAK_Context;
    arg._pValue = context;
    return arg;
}

std::string FormatCall(const char* function, std::initializer_list<Arg> args,
                       const Context* context)
{
    std::string text = function;
    text += '(';
    bool first = true;
    for (const Arg& arg : args)
    {
        if (!first)
            text += ", ";
        first = false;
        text += FormatArg(arg, context);
    }
    text += ')';
    return text;
}

std::string DescribeHandle(ObjectKind kind, Id id, const Context* context)
{
    if (id == 0)
        return "null";
    const int serial = context ? context->SerialOf(kind, id) : 0;
    if (serial != 0)
        return std::string(kHandlePrefixes[kind]) + "#" + std::to_string(serial);
    return std::string(kHandlePrefixes[kind]) + "?" + HexId(id);
}

std::string HexId(Id id)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%" PRIx64, static_cast<std::uint64_t>(id));
    return text;
}

} // namespace Kestrel
