// Arguments of a Kestrel call as text, for the call log and for messages.
#ifndef KESTREL_CALL_TEXT_H
#define KESTREL_CALL_TEXT_H

#include "KestrelApi/Kestrel.h"

#include "Objects.h"

#include <cstdint>
#include <initializer_list>
#include <string>

namespace Kestrel
{

class Context;

// The families of constants that an enum-like argument may name. A value is
// shown by name only when a constant of its own slot has that value, because
// some numbers are shared (0x8000 is both a query name and a clear bit).
enum ConstantSlot : unsigned
{
    kCS_Query = 1u << 0,
    kCS_ClearMask = 1u << 1,
    kCS_ShaderKind = 1u << 2,
    kCS_ObjectParameter = 1u << 3,
    kCS_Target = 1u << 4,
    kCS_Usage = 1u << 5,
    kCS_Access = 1u << 6,
    kCS_Format = 1u << 7,
    kCS_PixelType = 1u << 8,
    kCS_TextureParameter = 1u << 9,
    kCS_TextureValue = 1u << 10,
    kCS_PixelStore = 1u << 11,
    kCS_Attachment = 1u << 12,
    kCS_AttachmentParameter = 1u << 13,
    kCS_AttachmentValue = 1u << 14,
};

// The name of `value` among the constants of `slot`, or null.
const char* ConstantName(long long value, ConstantSlot slot);

// One argument of a logged call. Cheap to build: nothing is formatted until
// a call log is alive.
struct Arg
{
    enum Kind
    {
        kAK_Int,
        kAK_Unsigned,
        kAK_Float,
        kAK_Enum,
        kAK_String,
        kAK_Pointer,
        kAK_Handle,
        kAK_Primitive,
        kAK_Context,
    };
    Kind _eKind = kAK_Int;
    long long _nValue = 0; // ints, enums, unsigned (bit pattern), primitives
    double _fValue = 0.0;
    const void* _pValue = nullptr; // strings, pointers, handles, contexts
    ConstantSlot _eSlot = kCS_Query;
    ObjectKind _eObject = kOK_Shader;
};

Arg IntArg(long long value);
Arg UnsignedArg(unsigned long long value);
Arg FloatArg(double value);
Arg EnumArg(long long value, ConstantSlot slot);
Arg StringArg(const char* value);
Arg PtrArg(const void* value);
Arg HandleArg(_KSshader* handle);
Arg HandleArg(_KSprogram* handle);
Arg HandleArg(_KSbuffer* handle);
Arg HandleArg(_KStexture* handle);
Arg HandleArg(_KSframebuffer* handle);
Arg PrimitiveArg(KSprimitive primitive);
Arg ContextArg(const void* context);

// "function(arg, arg, ...)". Handles are described against `context`, whose
// lock the caller holds; null means no context is current.
std::string FormatCall(const char* function, std::initializer_list<Arg> args,
                       const Context* context);

// A handle as the log shows it: kind#serial, null, or kind?0x<id>.
std::string DescribeHandle(ObjectKind kind, Id id, const Context* context);

// "0x2a": ids in messages.
std::string HexId(Id id);

} // namespace Kestrel

#endif // KESTREL_CALL_TEXT_H
