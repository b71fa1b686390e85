// Primitives and their uniforms.
#include "KestrelApi/Kestrel.h"

#include "Context.h"

#include <new>
#include <type_traits>

using namespace Kestrel;

namespace
{

// Numbers per element of each uniform type.
constexpr int kComponents[kUT_Count] = {1, 2, 3, 4, 1, 2, 3, 4, 9, 16, 1, 1};

// Checks shared by every ksUniform call; false when the call stops here.
// Bad arguments raise even for location -1; a good call to -1 is dropped
// without a word, since hosts set uniforms that a program may not use.
bool CheckUniformCall(ApiCall& call, int location, long long count, const void* values,
                      UniformType type, std::size_t* elements)
{
    if (count < 0)
    {
        call.Raise(KS_INVALID_VALUE, "negative count %lld", count);
        return false;
    }
    if (count > 0 && !values)
    {
        call.Raise(KS_INVALID_VALUE, "null values for count %lld", count);
        return false;
    }
    const std::size_t perElement = static_cast<std::size_t>(kComponents[type]) * sizeof(float);
    if (static_cast<unsigned long long>(count) > kMaxStorageBytes / perElement)
    {
        call.Raise(KS_OUT_OF_MEMORY, "count %lld is too large", count);
        return false;
    }
    if (location < -1)
    {
        call.Raise(KS_INVALID_VALUE, "location %d is below -1", location);
        return false;
    }
    if (location == -1)
        return false;
    *elements = static_cast<std::size_t>(count) * static_cast<std::size_t>(kComponents[type]);
    return true;
}

// Writes a checked value of `type` into its slot on the bound primitive,
// unless the primitive's program declares the location with another type.
// `fill(std::vector<T>&)` fills one of the slot's vectors; the slot's
// storage is reused when it is large enough, so a host that sets the same
// uniform every frame makes no allocation here. On failure the old value
// stays as it was.
template <class Fill>
void StoreUniform(ApiCall& call, int location, UniformType type, long long count, Fill fill)
{
    Context& context = call.Ctx();
    PrimitiveObject& primitive = context.BoundPrimitive();
    if (const ProgramObject* program = context._programs.Find(primitive._nProgram))
    {
        const auto& declared = program->_linked._uniforms;
        if (static_cast<std::size_t>(location) < declared.size() &&
            declared[static_cast<std::size_t>(location)]._eType != type)
        {
            call.Raise(KS_INVALID_OPERATION, "location %d is a %s, not a %s", location,
                       UniformTypeName(declared[static_cast<std::size_t>(location)]._eType),
                       UniformTypeName(type));
            return;
        }
    }
    const bool existed = primitive._uniforms.count(location) != 0;
    try
    {
        UniformValue& slot = primitive._uniforms[location];
        fill(slot);
        slot._eType = type;
        slot._nCount = count;
        ++primitive._nRevision;
    }
    catch (const std::bad_alloc&)
    {
        if (!existed)
            primitive._uniforms.erase(location);
        call.Raise(KS_OUT_OF_MEMORY, "no memory for the value");
    }
}

// Replaces `target` with `n` values from `first`, in place when it has room;
// otherwise through a fresh vector, so that a failed allocation leaves it whole.
template <class T, class U>
void Refill(std::vector<T>& target, const U* first, std::size_t n)
{
    if (target.capacity() >= n)
    {
        target.assign(first, first + n);
        return;
    }
    std::vector<T> fresh(first, first + n);
    target.swap(fresh);
}

void SetFloats(ApiCall& call, int location, long long count, const float* values, UniformType type,
               int transpose = 0)
{
    std::size_t elements = 0;
    if (!call.Proceed())
        return;
    if (transpose != 0 && transpose != 1)
    {
        call.Raise(KS_INVALID_VALUE, "transpose flag %d is neither 0 nor 1", transpose);
        return;
    }
    if (!CheckUniformCall(call, location, count, values, type, &elements))
        return;
    StoreUniform(call, location, type, count,
                 [&](UniformValue& slot)
                 {
                     Refill(slot._floats, values, elements);
                     slot._ints.clear();
                     slot._handles.clear();
                     if (transpose != 1)
                         return;
                     // Kept column-major, whichever way the host hands matrices over.
                     const int n = type == kUT_Mat3 ? 3 : 4;
                     for (long long m = 0; m < count; ++m)
                     {
                         float* matrix = slot._floats.data() + m * n * n;
                         const float* source = values + m * n * n;
                         for (int row = 0; row < n; ++row)
                             for (int column = 0; column < n; ++column)
                                 matrix[column * n + row] = source[row * n + column];
                     }
                 });
}

void SetInts(ApiCall& call, int location, long long count, const int* values, UniformType type)
{
    std::size_t elements = 0;
    if (!call.Proceed() || !CheckUniformCall(call, location, count, values, type, &elements))
        return;
    StoreUniform(call, location, type, count,
                 [&](UniformValue& slot)
                 {
                     Refill(slot._ints, values, elements);
                     slot._floats.clear();
                     slot._handles.clear();
                 });
}

// Textures and primitives are kept as ids; each must be live (or none)
// when set. Later deletion leaves the id stale, and readers look it up.
template <class Handle>
void SetHandles(ApiCall& call, int location, long long count, const Handle* values)
{
    constexpr bool kPrimitives = std::is_same_v<Handle, KSprimitive>;
    constexpr UniformType type = kPrimitives ? kUT_Primitive : kUT_Texture;
    constexpr ObjectKind kind = kPrimitives ? kOK_Primitive : kOK_Texture;
    std::size_t elements = 0;
    if (!call.Proceed() || !CheckUniformCall(call, location, count, values, type, &elements))
        return;
    Context& context = call.Ctx();
    auto idOf = [](Handle handle)
    {
        if constexpr (kPrimitives)
            return static_cast<Id>(handle);
        else
            return IdOf(handle);
    };
    // Every handle is checked before the slot is touched.
    for (std::size_t i = 0; i < elements; ++i)
    {
        const Id id = idOf(values[i]);
        bool live = false;
        if constexpr (kPrimitives)
            live = context.FindPrimitive(id) != nullptr;
        else
            live = id == 0 || context._textures.Contains(id);
        if (!live)
        {
            call.RaiseBadHandle(kind, id, context.StateOf(kind, id));
            return;
        }
    }
    StoreUniform(call, location, type, count,
                 [&](UniformValue& slot)
                 {
                     if (slot._handles.capacity() < elements)
                     {
                         std::vector<Id> fresh;
                         fresh.reserve(elements);
                         slot._handles.swap(fresh);
                     }
                     slot._handles.clear();
                     for (std::size_t i = 0; i < elements; ++i)
                         slot._handles.push_back(idOf(values[i]));
                     slot._floats.clear();
                     slot._ints.clear();
                 });
}

} // namespace

// ---------------------------------------------------------------------------
// Primitives

void ksGenPrimitives(int count, KSprimitive* primitives)
{
    ApiCall call("ksGenPrimitives", {IntArg(count), PtrArg(primitives)});
    if (!call.Proceed())
    {
        ClearOutputs(count, primitives);
        return;
    }
    if (count < 0 || (count > 0 && !primitives))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null output");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        Id number = 0;
        if (!NewPrimitiveNumber(&number))
        {
            ClearOutputs(count - i, primitives + i);
            call.Raise(KS_OUT_OF_MEMORY, "no primitive numbers left");
            return;
        }
        auto primitive = std::make_shared<PrimitiveObject>();
        primitive->_nId = number;
        primitive->_nSerial = context.NextSerial(kOK_Primitive, primitive->_nId);
        context._primitives.Add(std::move(primitive));
        primitives[i] = static_cast<KSprimitive>(number);
    }
}

void ksDeletePrimitives(int count, KSprimitive* primitives)
{
    ApiCall call("ksDeletePrimitives", {IntArg(count), PtrArg(primitives)});
    if (!call.Proceed())
        return;
    if (count < 0 || (count > 0 && !primitives))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null input");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        const Id number = static_cast<Id>(primitives[i]);
        if (!call.CheckDeletable(kOK_Primitive, number))
            continue;
        context._primitives.Remove(number);
        if (context._nBoundPrimitive == number)
            context._nBoundPrimitive = 0;
    }
}

void ksBindPrimitive(int target, KSprimitive primitive)
{
    ApiCall call("ksBindPrimitive", {EnumArg(target, kCS_Target), PrimitiveArg(primitive)});
    if (!call.Proceed())
        return;
    if (target != KS_PRIMITIVE)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a primitive target",
                   static_cast<unsigned>(target));
        return;
    }
    const Id number = static_cast<Id>(primitive);
    if (call.CheckBindable(kOK_Primitive, number))
        call.Ctx()._nBoundPrimitive = number;
}

void ksGetPrimitive(int name, KSprimitive* primitive)
{
    ApiCall call("ksGetPrimitive", {EnumArg(name, kCS_Target), PtrArg(primitive)});
    KSprimitive result{};
    if (call.Proceed())
    {
        if (name != KS_PRIMITIVE_BINDING)
            call.Raise(KS_INVALID_ENUM, "0x%x is not the primitive binding",
                       static_cast<unsigned>(name));
        else if (!primitive)
            call.Raise(KS_INVALID_VALUE, "null output");
        else
            result = static_cast<KSprimitive>(call.Ctx()._nBoundPrimitive);
    }
    if (primitive)
        *primitive = result;
}

void ksPrimitiveParameterString(int target, int name, const char* value)
{
    ApiCall call(
        "ksPrimitiveParameterString",
        {EnumArg(target, kCS_Target), EnumArg(name, kCS_ObjectParameter), StringArg(value)});
    if (!call.Proceed())
        return;
    if (target != KS_PRIMITIVE)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a primitive target",
                   static_cast<unsigned>(target));
    else if (name != KS_PRIMITIVE_NAME)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a primitive string", static_cast<unsigned>(name));
    else if (!value)
        call.Raise(KS_INVALID_VALUE, "null name");
    else
        call.Ctx().BoundPrimitive()._sName = value;
}

void ksUseProgram(_KSprogram* program)
{
    ApiCall call("ksUseProgram", {HandleArg(program)});
    if (!call.Proceed())
        return;
    const Id id = IdOf(program);
    if (id != 0 && !call.Use(call.Ctx()._programs, kOK_Program, id))
        return;
    PrimitiveObject& primitive = call.Ctx().BoundPrimitive();
    primitive._nProgram = id;
    ++primitive._nRevision;
}

// ---------------------------------------------------------------------------
// Uniforms

void ksUniform1f(int location, float value)
{
    ApiCall call("ksUniform1f", {IntArg(location), FloatArg(value)});
    SetFloats(call, location, 1, &value, kUT_Float);
}

void ksUniform1i(int location, int value)
{
    ApiCall call("ksUniform1i", {IntArg(location), IntArg(value)});
    SetInts(call, location, 1, &value, kUT_Int);
}

void ksUniformt(int location, _KStexture* value)
{
    ApiCall call("ksUniformt", {IntArg(location), HandleArg(value)});
    SetHandles(call, location, 1, &value);
}

void ksUniformp(int location, KSprimitive value)
{
    ApiCall call("ksUniformp", {IntArg(location), PrimitiveArg(value)});
    SetHandles(call, location, 1, &value);
}

#define KS_FLOAT_UNIFORM(function, type)                                                           \
    void function(int location, long long count, const float* values)                              \
    {                                                                                              \
        ApiCall call(#function, {IntArg(location), IntArg(count), PtrArg(values)});                \
        SetFloats(call, location, count, values, type);                                            \
    }

#define KS_INT_UNIFORM(function, type)                                                             \
    void function(int location, long long count, const int* values)                                \
    {                                                                                              \
        ApiCall call(#function, {IntArg(location), IntArg(count), PtrArg(values)});                \
        SetInts(call, location, count, values, type);                                              \
    }

KS_FLOAT_UNIFORM(ksUniform1fv, kUT_Float)
KS_FLOAT_UNIFORM(ksUniform2fv, kUT_Vec2)
KS_FLOAT_UNIFORM(ksUniform3fv, kUT_Vec3)
KS_FLOAT_UNIFORM(ksUniform4fv, kUT_Vec4)
KS_INT_UNIFORM(ksUniform1iv, kUT_Int)
KS_INT_UNIFORM(ksUniform2iv, kUT_IVec2)
KS_INT_UNIFORM(ksUniform3iv, kUT_IVec3)
KS_INT_UNIFORM(ksUniform4iv, kUT_IVec4)

#undef KS_FLOAT_UNIFORM
#undef KS_INT_UNIFORM

void ksUniformMatrix3fv(int location, long long count, int transpose, const float* values)
{
    ApiCall call("ksUniformMatrix3fv",
                 {IntArg(location), IntArg(count), IntArg(transpose), PtrArg(values)});
    SetFloats(call, location, count, values, kUT_Mat3, transpose);
}

void ksUniformMatrix4fv(int location, long long count, int transpose, const float* values)
{
    ApiCall call("ksUniformMatrix4fv",
                 {IntArg(location), IntArg(count), IntArg(transpose), PtrArg(values)});
    SetFloats(call, location, count, values, kUT_Mat4, transpose);
}

void ksUniformtv(int location, long long count, _KStexture* const* values)
{
    ApiCall call("ksUniformtv", {IntArg(location), IntArg(count), PtrArg(values)});
    SetHandles(call, location, count, values);
}

void ksUniformpv(int location, long long count, const KSprimitive* values)
{
    ApiCall call("ksUniformpv", {IntArg(location), IntArg(count), PtrArg(values)});
    SetHandles(call, location, count, values);
}

void ksUniformBlockBuffer(int index, _KSbuffer* buffer)
{
    ApiCall call("ksUniformBlockBuffer", {IntArg(index), HandleArg(buffer)});
    if (!call.Proceed())
        return;
    if (index < 0)
    {
        call.Raise(KS_INVALID_VALUE, "negative block index %d", index);
        return;
    }
    const Id id = IdOf(buffer);
    if (!call.CheckBindable(kOK_Buffer, id))
        return;
    PrimitiveObject& primitive = call.Ctx().BoundPrimitive();
    if (id == 0)
        primitive._blocks.erase(index);
    else
        primitive._blocks[index] = id;
    ++primitive._nRevision;
}
