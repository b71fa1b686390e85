// Shaders and programs.
#include "KestrelApi/Kestrel.h"

#include "Context.h"
#include "ShadingLanguage.h"

#include <algorithm>
#include <cstring>
#include <utility>

using namespace Kestrel;

namespace
{

const char* const kInjectedFaultLog = "0:0: error: injected fault";

bool IsShaderKind(int kind)
{
    return kind == KS_VERTEX_SHADER || kind == KS_LINK_ONCE_SHADER || kind == KS_SHADER_KIND_2 ||
           kind == KS_SHADER_KIND_3;
}

// The body of ksGetShaderString and ksGetProgramString: strings handed out
// stay valid until the object changes them or dies.
// The name is checked before the handle, as enums come first everywhere.
template <class Object>
void GetObjectString(ApiCall& call, HandleTable<Object> Context::*table, ObjectKind kind, Id id,
                     int name, const char** value, const char* (*read)(const Object*, int, bool*))
{
    const char* result = nullptr;
    bool known = false;
    read(nullptr, name, &known);
    if (!call.Proceed())
    {
    }
    else if (!known)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a string parameter", static_cast<unsigned>(name));
    else if (Object* object = call.Use(call.Ctx().*table, kind, id))
    {
        if (!value)
            call.Raise(KS_INVALID_VALUE, "null output");
        else
            result = read(object, name, &known);
    }
    if (value)
        *value = result;
}

// With a null shader only tells whether the name is a shader string.
const char* ReadShaderString(const ShaderObject* shader, int name, bool* known)
{
    *known = true;
    switch (name)
    {
    case KS_SHADER_LOG:
        return shader ? shader->_sLog.c_str() : nullptr;
    case KS_SHADER_SOURCE:
        return shader && shader->_bHasSource ? shader->_sSource.c_str() : nullptr;
    case KS_SHADER_NAME:
        return shader ? shader->_sName.c_str() : nullptr;
    default:
        *known = false;
        return nullptr;
    }
}

const char* ReadProgramString(const ProgramObject* program, int name, bool* known)
{
    *known = true;
    switch (name)
    {
    case KS_PROGRAM_LOG:
        return program ? program->_sLog.c_str() : nullptr;
    case KS_PROGRAM_NAME:
        return program ? program->_sName.c_str() : nullptr;
    default:
        *known = false;
        return nullptr;
    }
}

// The body of the three location queries.
int FindInProgram(const char* function, _KSprogram* program, const char* name,
                  int (*find)(const LinkedProgram&, const std::string&))
{
    ApiCall call(function, {HandleArg(program), StringArg(name)});
    if (!call.Proceed())
        return -1;
    ProgramObject* object = call.Use(call.Ctx()._programs, kOK_Program, IdOf(program));
    if (!object)
        return -1;
    if (!name)
    {
        call.Raise(KS_INVALID_VALUE, "null name");
        return -1;
    }
    // An unlinked program declares nothing: -1, as for any unknown name.
    return find(object->_linked, name);
}

} // namespace

// ---------------------------------------------------------------------------
// Shaders

_KSshader* ksCreateShader(int kind)
{
    ApiCall call("ksCreateShader", {EnumArg(kind, kCS_ShaderKind)});
    if (!call.Proceed())
        return nullptr;
    if (!IsShaderKind(kind))
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a shader kind", static_cast<unsigned>(kind));
        return nullptr;
    }
    Context& context = call.Ctx();
    auto shader = std::make_shared<ShaderObject>();
    shader->_nId = NewId();
    shader->_nSerial = context.NextSerial(kOK_Shader, shader->_nId);
    shader->_eKind = kind;
    const Id id = shader->_nId;
    context._shaders.Add(std::move(shader));
    return HandleOf<_KSshader>(id);
}

void ksDeleteShader(_KSshader* shader)
{
    ApiCall call("ksDeleteShader", {HandleArg(shader)});
    if (!call.Proceed() || !call.CheckDeletable(kOK_Shader, IdOf(shader)))
        return;
    // Programs that hold the shader keep their reference to it.
    call.Ctx()._shaders.Remove(IdOf(shader));
}

void ksShaderSource(_KSshader* shader, long long count, const char** strings, const int* lengths)
{
    ApiCall call("ksShaderSource",
                 {HandleArg(shader), IntArg(count), PtrArg(strings), PtrArg(lengths)});
    if (!call.Proceed())
        return;
    ShaderObject* object = call.Use(call.Ctx()._shaders, kOK_Shader, IdOf(shader));
    if (!object)
        return;
    if (count < 0)
    {
        call.Raise(KS_INVALID_VALUE, "negative count %lld", count);
        return;
    }
    if (count > 0 && !strings)
    {
        call.Raise(KS_INVALID_VALUE, "null strings");
        return;
    }
    std::string source;
    for (long long i = 0; i < count; ++i)
    {
        if (!strings[i])
        {
            call.Raise(KS_INVALID_VALUE, "string %lld is null", i);
            return;
        }
        // A negative length, like a null length array, means zero-terminated.
        const bool terminated = !lengths || lengths[i] < 0;
        source.append(strings[i],
                      terminated ? std::strlen(strings[i]) : static_cast<std::size_t>(lengths[i]));
    }
    object->_sSource = std::move(source);
    object->_bHasSource = true;
}

void ksCompileShader(_KSshader* shader)
{
    ApiCall call("ksCompileShader", {HandleArg(shader)});
    if (call.Faulted() && call.HasContext())
    {
        if (ShaderObject* object = call.Ctx()._shaders.Find(IdOf(shader)))
        {
            object->_bCompiled = false;
            object->_sLog = kInjectedFaultLog;
            object->_pCompiled.reset();
        }
        return;
    }
    if (!call.Proceed())
        return;
    ShaderObject* object = call.Use(call.Ctx()._shaders, kOK_Shader, IdOf(shader));
    if (!object)
        return;
    CompileResult result =
        CompileShaderSource(object->_eKind, object->_bHasSource ? &object->_sSource : nullptr);
    object->_bCompiled = result._bSuccess;
    object->_sLog = std::move(result._sLog);
    // Programs that link this shader from now on take the new parse; a
    // program keeps the one it last linked from in its own LinkedProgram.
    object->_pCompiled = std::move(result._pShader);
}

void ksGetShaderiv(_KSshader* shader, int name, int* value)
{
    ApiCall call("ksGetShaderiv",
                 {HandleArg(shader), EnumArg(name, kCS_ObjectParameter), PtrArg(value)});
    int result = 0;
    if (call.Proceed())
    {
        if (name != KS_COMPILE_STATUS)
            call.Raise(KS_INVALID_ENUM, "0x%x is not an integer shader parameter",
                       static_cast<unsigned>(name));
        else if (ShaderObject* object = call.Use(call.Ctx()._shaders, kOK_Shader, IdOf(shader)))
        {
            if (!value)
                call.Raise(KS_INVALID_VALUE, "null output");
            else
                result = object->_bCompiled ? 1 : 0;
        }
    }
    if (value)
        *value = result;
}

void ksGetShaderString(_KSshader* shader, int name, const char** value)
{
    ApiCall call("ksGetShaderString",
                 {HandleArg(shader), EnumArg(name, kCS_ObjectParameter), PtrArg(value)});
    GetObjectString(call, &Context::_shaders, kOK_Shader, IdOf(shader), name, value,
                    ReadShaderString);
}

void ksShaderString(_KSshader* shader, int name, const char* value)
{
    ApiCall call("ksShaderString",
                 {HandleArg(shader), EnumArg(name, kCS_ObjectParameter), StringArg(value)});
    if (!call.Proceed())
        return;
    if (name != KS_SHADER_NAME)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a settable shader string",
                   static_cast<unsigned>(name));
        return;
    }
    ShaderObject* object = call.Use(call.Ctx()._shaders, kOK_Shader, IdOf(shader));
    if (!object)
        return;
    if (!value)
        call.Raise(KS_INVALID_VALUE, "null name");
    else
        object->_sName = value;
}

// ---------------------------------------------------------------------------
// Programs

_KSprogram* ksCreateProgram(void)
{
    ApiCall call("ksCreateProgram", {});
    if (!call.Proceed())
        return nullptr;
    Context& context = call.Ctx();
    auto program = std::make_shared<ProgramObject>();
    program->_nId = NewId();
    program->_nSerial = context.NextSerial(kOK_Program, program->_nId);
    const Id id = program->_nId;
    context._programs.Add(std::move(program));
    return HandleOf<_KSprogram>(id);
}

void ksDeleteProgram(_KSprogram* program)
{
    ApiCall call("ksDeleteProgram", {HandleArg(program)});
    if (!call.Proceed() || !call.CheckDeletable(kOK_Program, IdOf(program)))
        return;
    Context& context = call.Ctx();
    const Id id = IdOf(program);
    context._programs.Remove(id);
    auto drop = [id](PrimitiveObject& primitive)
    {
        if (primitive._nProgram == id)
            primitive._nProgram = 0;
    };
    context._primitives.ForEach(drop);
    drop(context._framePrimitive);
}

void ksAttachShader(_KSprogram* program, _KSshader* shader)
{
    ApiCall call("ksAttachShader", {HandleArg(program), HandleArg(shader)});
    if (!call.Proceed())
        return;
    Context& context = call.Ctx();
    ProgramObject* target = call.Use(context._programs, kOK_Program, IdOf(program));
    if (!target || !call.Use(context._shaders, kOK_Shader, IdOf(shader)))
        return;
    for (const auto& attached : target->_attached)
        if (attached->_nId == IdOf(shader))
        {
            call.Raise(KS_INVALID_OPERATION, "%s is already attached", HexId(IdOf(shader)).c_str());
            return;
        }
    target->_attached.push_back(context._shaders.FindShared(IdOf(shader)));
}

void ksDetachShader(_KSprogram* program, _KSshader* shader)
{
    ApiCall call("ksDetachShader", {HandleArg(program), HandleArg(shader)});
    if (!call.Proceed())
        return;
    Context& context = call.Ctx();
    ProgramObject* target = call.Use(context._programs, kOK_Program, IdOf(program));
    if (!target)
        return;
    const Id id = IdOf(shader);
    const HandleState state = context.StateOf(kOK_Shader, id);
    if (state == kHS_Null)
        return; // detaching nothing, like deleting nothing, is silent
    if (state == kHS_Foreign)
    {
        call.RaiseBadHandle(kOK_Shader, id, state);
        return;
    }
    auto& attached = target->_attached;
    auto it = std::find_if(attached.begin(), attached.end(),
                           [id](const auto& entry) { return entry->_nId == id; });
    if (it != attached.end())
        attached.erase(it);
    else if (state == kHS_Live)
        call.Raise(KS_INVALID_OPERATION, "%s is not attached", HexId(id).c_str());
    // A deleted shader that is no longer attached: nothing to do, and no
    // error, since a link may have deleted it before.
}

void ksLinkProgram(_KSprogram* program)
{
    ApiCall call("ksLinkProgram", {HandleArg(program)});
    if (call.Faulted() && call.HasContext())
    {
        if (ProgramObject* object = call.Ctx()._programs.Find(IdOf(program)))
        {
            object->_bLinked = false;
            object->_sLog = kInjectedFaultLog;
            object->_linked = LinkedProgram();
            ++object->_nRevision;
        }
        return;
    }
    if (!call.Proceed())
        return;
    ProgramObject* object = call.Use(call.Ctx()._programs, kOK_Program, IdOf(program));
    if (!object)
        return;
    std::vector<const ShaderObject*> shaders;
    for (const auto& attached : object->_attached)
        shaders.push_back(attached.get());
    LinkResult result = LinkShaders(shaders);
    object->_bLinked = result._bSuccess;
    object->_sLog = std::move(result._sLog);
    object->_linked = std::move(result._program);
    // Every link replaces what the program declares and runs, a failed one
    // with nothing, so a scene cached from the last revision is stale either
    // way.
    ++object->_nRevision;
}

void ksGetProgramiv(_KSprogram* program, int name, int* value)
{
    ApiCall call("ksGetProgramiv",
                 {HandleArg(program), EnumArg(name, kCS_ObjectParameter), PtrArg(value)});
    int result = 0;
    if (call.Proceed())
    {
        if (name != KS_LINK_STATUS)
            call.Raise(KS_INVALID_ENUM, "0x%x is not an integer program parameter",
                       static_cast<unsigned>(name));
        else if (ProgramObject* object = call.Use(call.Ctx()._programs, kOK_Program, IdOf(program)))
        {
            if (!value)
                call.Raise(KS_INVALID_VALUE, "null output");
            else
                result = object->_bLinked ? 1 : 0;
        }
    }
    if (value)
        *value = result;
}

void ksGetProgramString(_KSprogram* program, int name, const char** value)
{
    ApiCall call("ksGetProgramString",
                 {HandleArg(program), EnumArg(name, kCS_ObjectParameter), PtrArg(value)});
    GetObjectString(call, &Context::_programs, kOK_Program, IdOf(program), name, value,
                    ReadProgramString);
}

void ksProgramString(_KSprogram* program, int name, const char* value)
{
    ApiCall call("ksProgramString",
                 {HandleArg(program), EnumArg(name, kCS_ObjectParameter), StringArg(value)});
    if (!call.Proceed())
        return;
    if (name != KS_PROGRAM_NAME)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a settable program string",
                   static_cast<unsigned>(name));
        return;
    }
    ProgramObject* object = call.Use(call.Ctx()._programs, kOK_Program, IdOf(program));
    if (!object)
        return;
    if (!value)
        call.Raise(KS_INVALID_VALUE, "null name");
    else
        object->_sName = value;
}

int ksGetUniformLocation(_KSprogram* program, const char* name)
{
    return FindInProgram("ksGetUniformLocation", program, name, FindUniformLocation);
}

int ksGetUniformBlockIndex(_KSprogram* program, const char* name)
{
    return FindInProgram("ksGetUniformBlockIndex", program, name,
                         [](const LinkedProgram& linked, const std::string& text)
                         { return FindName(linked._blocks, text); });
}

int ksGetAttribLocation(_KSprogram* program, const char* name)
{
    return FindInProgram("ksGetAttribLocation", program, name,
                         [](const LinkedProgram& linked, const std::string& text)
                         { return FindName(linked._attributes, text); });
}
