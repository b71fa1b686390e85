#include "KestrelWrapper/KSProgram.h"

#include "CoreInterfaces/IMgrConsole.h"
#include "KestrelWrapper/KestrelContextImp.h"
#include "KestrelWrapper/ObjectFactory.h"

#include <algorithm>
#include <memory>

namespace Vireo
{

// --- The context's pair -------------------------------------------------------

IKSProgram* KestrelContextImp::CreateIKSProgram()
{
    return Factory::MakeCounted(
        std::make_unique<KSProgram>(_pConsole), [](KSProgram& program) { return program.Init(); },
        _nPrograms);
}

bool KestrelContextImp::DestroyIKSProgram(IKSProgram* program)
{
    return Factory::DestroyCounted<KSProgram>(program, _nPrograms);
}

// --- Lifecycle ----------------------------------------------------------------

KSProgram::KSProgram(IMgrConsole* console) : _pConsole(console) {}

KSProgram::~KSProgram()
{
    Shutdown();
}

bool KSProgram::Init()
{
    _pProgram = ksCreateProgram();
    return _pProgram != nullptr;
}

bool KSProgram::Shutdown()
{
    _setListenerDelete.Walk(static_cast<IKSProgram*>(this));
    // The link listeners stay: they go with the object.
    _setListenerDelete.Clear();
    if (_pProgram != nullptr)
        ksDeleteProgram(_pProgram);
    _pProgram = nullptr;
    // No detach: the Kestrel program is gone already.
    fastdelegate::FastDelegate1<IKSShader*, bool> listener = _ShaderDeleteListener();
    for (IKSShader* shader : _vecShaders)
        shader->RemoveListenerDelete(listener);
    _vecShaders.clear();
    return true;
}

fastdelegate::FastDelegate1<IKSShader*, bool> KSProgram::_ShaderDeleteListener()
{
    return fastdelegate::MakeDelegate(this, &KSProgram::_OnDeleteShader);
}

// --- Listeners ----------------------------------------------------------------

bool KSProgram::AddListenerDelete(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener)
{
    _setListenerDelete.Add(listener);
    return true;
}

bool KSProgram::RemoveListenerDelete(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener)
{
    _setListenerDelete.Remove(listener);
    return true;
}

bool KSProgram::AddListenerLink(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener)
{
    _setListenerLink.Add(listener);
    return true;
}

bool KSProgram::RemoveListenerLink(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener)
{
    _setListenerLink.Remove(listener);
    return true;
}

// --- Name and shaders ---------------------------------------------------------

bool KSProgram::SetName(const std::string& name)
{
    if (_pProgram == nullptr)
        return false;
    ksProgramString(_pProgram, KS_PROGRAM_NAME, name.c_str());
    if (&name != &_sName)
        _sName = name;
    return true;
}

bool KSProgram::_Forget(IKSShader* shader)
{
    auto found = std::find(_vecShaders.begin(), _vecShaders.end(), shader);
    if (found == _vecShaders.end())
        return false;
    _vecShaders.erase(found); // keeps the order of attachment
    return true;
}

// A null shader is ignored, as there is nothing to attach or detach.
bool KSProgram::AddShader(IKSShader* shader)
{
    if (shader == nullptr ||
        std::find(_vecShaders.begin(), _vecShaders.end(), shader) != _vecShaders.end())
        return true;
    _vecShaders.push_back(shader);
    fastdelegate::FastDelegate1<IKSShader*, bool> listener = _ShaderDeleteListener();
    shader->AddListenerDelete(listener);
    ksAttachShader(_pProgram, shader->GetKSShader());
    return true;
}

bool KSProgram::RemoveShader(IKSShader* shader)
{
    if (!_Forget(shader))
        return true;
    fastdelegate::FastDelegate1<IKSShader*, bool> listener = _ShaderDeleteListener();
    shader->RemoveListenerDelete(listener);
    ksDetachShader(_pProgram, shader->GetKSShader());
    return true;
}

bool KSProgram::_OnDeleteShader(IKSShader* shader)
{
    // The shader empties its delete list after this walk, so the listener
    // stays on it.
    if (_pProgram == nullptr || !_Forget(shader))
        return true;
    ksDetachShader(_pProgram, shader->GetKSShader());
    return true;
}

// --- Link and queries ---------------------------------------------------------

bool KSProgram::Link()
{
    return _Link();
}

bool KSProgram::_Link()
{
    ksLinkProgram(_pProgram);
    int status = 0;
    ksGetProgramiv(_pProgram, KS_LINK_STATUS, &status);
    if (status == 0)
    {
        _PrintErrors();
        return false;
    }
    // A link-once shader's code now lives in the program, so its handle goes.
    // The shader keeps the stale handle and stays attached: each later link,
    // and the shader's own end, delete it again, which Kestrel ignores.
    for (IKSShader* shader : _vecShaders)
    {
        if (shader->GetType() == IKSShader::kST_LinkOnce)
            ksDeleteShader(shader->GetKSShader());
    }
    return _setListenerLink.Walk(static_cast<IKSProgram*>(this));
}

bool KSProgram::_PrintErrors()
{
    const char* log = nullptr;
    ksGetProgramString(_pProgram, KS_PROGRAM_LOG, &log);
    if (_pConsole != nullptr)
    {
        _pConsole->PrintError("KS: program '%s' link failed:\n", _sName.c_str());
        _pConsole->PrintError("KS: %s\n", log != nullptr ? log : "");
    }
    return true;
}

int KSProgram::GetLocationUniform(const char* name)
{
    return ksGetUniformLocation(_pProgram, name);
}

int KSProgram::GetLocationUniformBlock(const char* name)
{
    return ksGetUniformBlockIndex(_pProgram, name);
}

int KSProgram::GetLocationAttribute(const char* name)
{
    return ksGetAttribLocation(_pProgram, name);
}

_KSprogram* KSProgram::GetKSProgram()
{
    return _pProgram;
}

} // namespace Vireo
