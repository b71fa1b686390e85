// Buffers.
#include "KestrelApi/Kestrel.h"

#include "Context.h"

using namespace Kestrel;

namespace
{

bool IsUsage(int usage)
{
    static const int kUsages[] = {KS_STREAM_DRAW,  KS_STREAM_READ,  KS_STREAM_COPY,
                                  KS_STATIC_DRAW,  KS_STATIC_READ,  KS_STATIC_COPY,
                                  KS_DYNAMIC_DRAW, KS_DYNAMIC_READ, KS_DYNAMIC_COPY};
    for (int known : kUsages)
        if (known == usage)
            return true;
    return false;
}

bool IsAccess(int access)
{
    return access == KS_READ_ONLY || access == KS_WRITE_ONLY || access == KS_READ_WRITE;
}

// The buffer bound at `target`: null after raising KS_INVALID_ENUM for a
// target that is none, or KS_INVALID_OPERATION when nothing is bound there.
BufferObject* BoundBuffer(ApiCall& call, int target)
{
    const int binding = BufferBindingOfTarget(target);
    if (binding < 0)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a buffer target", static_cast<unsigned>(target));
        return nullptr;
    }
    Context& context = call.Ctx();
    BufferObject* buffer = context._buffers.Find(context._boundBuffers[binding]);
    if (!buffer)
        call.Raise(KS_INVALID_OPERATION, "no buffer is bound at 0x%x",
                   static_cast<unsigned>(target));
    return buffer;
}

// The arguments of the two buffer string functions; false after raising.
bool CheckBufferString(ApiCall& call, int target, int name, const void* value)
{
    if (BufferBindingOfTarget(target) < 0)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a buffer target", static_cast<unsigned>(target));
    else if (name != KS_BUFFER_NAME)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a buffer string", static_cast<unsigned>(name));
    else if (!value)
        call.Raise(KS_INVALID_VALUE, "null string pointer");
    else
        return true;
    return false;
}

} // namespace

void ksGenBuffers(int count, _KSbuffer** buffers)
{
    ApiCall call("ksGenBuffers", {IntArg(count), PtrArg(buffers)});
    if (!call.Proceed())
    {
        ClearOutputs(count, buffers);
        return;
    }
    if (count < 0 || (count > 0 && !buffers))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null output");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        auto buffer = std::make_shared<BufferObject>();
        buffer->_nId = NewId();
        buffer->_nSerial = context.NextSerial(kOK_Buffer, buffer->_nId);
        buffers[i] = HandleOf<_KSbuffer>(buffer->_nId);
        context._buffers.Add(std::move(buffer));
    }
}

void ksDeleteBuffers(int count, _KSbuffer** buffers)
{
    ApiCall call("ksDeleteBuffers", {IntArg(count), PtrArg(buffers)});
    if (!call.Proceed())
        return;
    if (count < 0 || (count > 0 && !buffers))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null input");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        const Id id = IdOf(buffers[i]);
        if (!call.CheckDeletable(kOK_Buffer, id))
            continue;
        context._buffers.Remove(id);
        for (Id& bound : context._boundBuffers)
            if (bound == id)
                bound = 0;
        auto unblock = [id](PrimitiveObject& primitive)
        {
            for (auto it = primitive._blocks.begin(); it != primitive._blocks.end();)
            {
                if (it->second != id)
                {
                    ++it;
                    continue;
                }
                it = primitive._blocks.erase(it);
                ++primitive._nRevision;
            }
        };
        context._primitives.ForEach(unblock);
        unblock(context._framePrimitive);
    }
}

void ksBindBuffer(int target, _KSbuffer* buffer)
{
    ApiCall call("ksBindBuffer", {EnumArg(target, kCS_Target), HandleArg(buffer)});
    if (!call.Proceed())
        return;
    const int binding = BufferBindingOfTarget(target);
    if (binding < 0)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a buffer target", static_cast<unsigned>(target));
    else if (call.CheckBindable(kOK_Buffer, IdOf(buffer)))
        call.Ctx()._boundBuffers[binding] = IdOf(buffer);
}

void ksGetBuffer(int name, _KSbuffer** buffer)
{
    ApiCall call("ksGetBuffer", {EnumArg(name, kCS_Target), PtrArg(buffer)});
    _KSbuffer* result = nullptr;
    if (call.Proceed())
    {
        const int binding = BufferBindingOfName(name);
        if (binding < 0)
            call.Raise(KS_INVALID_ENUM, "0x%x is not a buffer binding name",
                       static_cast<unsigned>(name));
        else if (!buffer)
            call.Raise(KS_INVALID_VALUE, "null output");
        else
            result = HandleOf<_KSbuffer>(call.Ctx()._boundBuffers[binding]);
    }
    if (buffer)
        *buffer = result;
}

void ksBufferData(int target, unsigned long long size, const void* data, int usage)
{
    ApiCall call("ksBufferData", {EnumArg(target, kCS_Target), UnsignedArg(size), PtrArg(data),
                                  EnumArg(usage, kCS_Usage)});
    if (!call.Proceed())
        return;
    if (BufferBindingOfTarget(target) >= 0 && !IsUsage(usage))
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a buffer usage", static_cast<unsigned>(usage));
        return;
    }
    BufferObject* buffer = BoundBuffer(call, target);
    if (!buffer)
        return;
    if (buffer->_bMapped)
    {
        call.Raise(KS_INVALID_OPERATION, "the buffer is mapped");
        return;
    }
    Storage storage;
    if (size > kMaxStorageBytes || !storage.Allocate(static_cast<std::size_t>(size), data))
    {
        call.Raise(KS_OUT_OF_MEMORY, "no memory for %llu bytes", size);
        return;
    }
    buffer->_storage = std::move(storage);
    buffer->_eUsage = usage;
    ++buffer->_nRevision;
}

void* ksMapBuffer(int target, int access)
{
    ApiCall call("ksMapBuffer", {EnumArg(target, kCS_Target), EnumArg(access, kCS_Access)});
    if (!call.Proceed())
        return nullptr;
    const int binding = BufferBindingOfTarget(target);
    if (binding >= 0 && !IsAccess(access))
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a map access", static_cast<unsigned>(access));
        // Refused all the same: its unmap must leave a live map alone.
        Context& context = call.Ctx();
        if (BufferObject* bound = context._buffers.Find(context._boundBuffers[binding]))
            bound->_nRefusedMaps += bound->_bMapped ? 1 : 0;
        return nullptr;
    }
    BufferObject* buffer = BoundBuffer(call, target);
    if (!buffer)
        return nullptr;
    if (buffer->_bMapped)
    {
        call.Raise(KS_INVALID_OPERATION, "the buffer is already mapped");
        ++buffer->_nRefusedMaps;
        return nullptr;
    }
    if (buffer->_storage.Size() == 0)
    {
        call.Raise(KS_INVALID_OPERATION, "the buffer has no storage");
        return nullptr;
    }
    buffer->_bMapped = true;
    ++buffer->_nRevision;
    return buffer->_storage.Data();
}

void ksUnmapBuffer(int target)
{
    ApiCall call("ksUnmapBuffer", {EnumArg(target, kCS_Target)});
    if (!call.Proceed())
        return;
    // Unmapping what is not mapped is harmless: hosts close failed maps too,
    // and those of a mapped buffer are closed before the live map.
    if (BufferObject* buffer = BoundBuffer(call, target))
    {
        if (buffer->_nRefusedMaps > 0)
            --buffer->_nRefusedMaps;
        else if (buffer->_bMapped)
        {
            ++buffer->_nRevision;
            buffer->_bMapped = false;
        }
    }
}

void ksGetBufferParameterString(int target, int name, const char** value)
{
    ApiCall call("ksGetBufferParameterString",
                 {EnumArg(target, kCS_Target), EnumArg(name, kCS_ObjectParameter), PtrArg(value)});
    const char* result = nullptr;
    if (call.Proceed() && CheckBufferString(call, target, name, value))
    {
        if (BufferObject* buffer = BoundBuffer(call, target))
            result = buffer->_sName.c_str();
    }
    if (value)
        *value = result;
}

void ksBufferParameterString(int target, int name, const char* value)
{
    ApiCall call("ksBufferParameterString", {EnumArg(target, kCS_Target),
                                             EnumArg(name, kCS_ObjectParameter), StringArg(value)});
    if (!call.Proceed() || !CheckBufferString(call, target, name, value))
        return;
    if (BufferObject* buffer = BoundBuffer(call, target))
        buffer->_sName = value;
}
