#include "KestrelWrapper/KSShader.h"

#include "CoreInterfaces/IMgrConsole.h"
#include "CoreInterfaces/Result.h"
#include "KestrelWrapper/KestrelContextImp.h"
#include "KestrelWrapper/ObjectFactory.h"

#include <memory>

namespace Vireo
{

namespace
{

const char* const kNoSourceText =
    "KS: ksGetShaderString(KS_SHADER_SOURCE) failure. Returned empty string";

// Kestrel's kinds in the order of IKSShader::Type; the numbers are not sorted.
const int kShaderKinds[] = {KS_LINK_ONCE_SHADER, KS_VERTEX_SHADER, KS_SHADER_KIND_2,
                            KS_SHADER_KIND_3};

// A log that Kestrel could not give reads as empty rather than reaching %s.
const char* LogText(const char* log)
{
    return log != nullptr ? log : "";
}

} // namespace

KSShader::Trace KSShader::_eTrace = KSShader::kTrace_None;

// --- The context's pair -------------------------------------------------------

IKSShader* KestrelContextImp::CreateIKSShader(IKSShader::Type type)
{
    return Factory::MakeCounted(
        std::make_unique<KSShader>(_pConsole, _bReleaseMode),
        [type](KSShader& shader) { return shader.Init(type); }, _nShaders);
}

bool KestrelContextImp::DestroyIKSShader(IKSShader* shader)
{
    return Factory::DestroyCounted<KSShader>(shader, _nShaders);
}

// --- Lifecycle ----------------------------------------------------------------

KSShader::KSShader(IMgrConsole* console, bool releaseMode)
    : _pConsole(console), _bReleaseMode(releaseMode)
{
}

KSShader::~KSShader()
{
    Shutdown();
}

int KSShader::TypeToKSEnum(IKSShader::Type type)
{
    // A type outside the table gives 0, which Kestrel refuses as a kind: the
    // host sees a failed creation rather than a read past the table.
    if (type < kST_LinkOnce || type > kST_Kind3)
        return 0;
    return kShaderKinds[type];
}

bool KSShader::Init(IKSShader::Type type)
{
    _eType = type;
    _pShader = ksCreateShader(TypeToKSEnum(type));
    return _pShader != nullptr;
}

void KSShader::Shutdown()
{
    // Listeners run while the handle is still valid: a program detaches it.
    _setListenerDelete.Walk(static_cast<IKSShader*>(this));
    _setListenerDelete.Clear();
    _setListenerChange.Clear();
    if (_pShader != nullptr)
        ksDeleteShader(_pShader);
    _pShader = nullptr;
    _sName = "-Shutdown-";
}

// --- Listeners ----------------------------------------------------------------

bool KSShader::AddListenerDelete(fastdelegate::FastDelegate1<IKSShader*, bool>& listener)
{
    _setListenerDelete.Add(listener);
    return true;
}

bool KSShader::RemoveListenerDelete(fastdelegate::FastDelegate1<IKSShader*, bool>& listener)
{
    _setListenerDelete.Remove(listener);
    return true;
}

bool KSShader::AddListenerChange(fastdelegate::FastDelegate0<bool>& listener)
{
    _setListenerChange.Add(listener);
    return true;
}

bool KSShader::RemoveListenerChange(fastdelegate::FastDelegate0<bool>& listener)
{
    _setListenerChange.Remove(listener);
    return true;
}

// --- Name, source and compile ---------------------------------------------------

bool KSShader::SetName(const std::string& name)
{
    if (&name != &_sName)
        _sName = name;
    ksShaderString(_pShader, KS_SHADER_NAME, _sName.c_str());
    return true;
}

std::string KSShader::GetName()
{
    return _sName;
}

_KSshader* KSShader::GetKSShader()
{
    return _pShader;
}

IKSShader::Type KSShader::GetType()
{
    return _eType;
}

bool KSShader::SetString(std::string& source, Result* result)
{
    const char* text = source.c_str();
    ksShaderSource(_pShader, 1, &text, nullptr);
    if (!_Compile(result))
        return false;
    return _setListenerChange.Walk();
}

bool KSShader::_Compile(Result* result)
{
    ksCompileShader(_pShader);
    int status = 0;
    ksGetShaderiv(_pShader, KS_COMPILE_STATUS, &status);
    if (status != 0)
    {
        if (_eTrace == kTrace_Always)
            _PrintSource(result);
        return true;
    }
    if (_eTrace == kTrace_OnFailure || _eTrace == kTrace_Always)
        _PrintSource(result);
    // The log goes only to a caller who asked for it, never to the console.
    _PrintErrors(result);
    return false;
}

bool KSShader::_PrintErrors(Result* result)
{
    if (result == nullptr)
        return true;
    const char* log = nullptr;
    ksGetShaderString(_pShader, KS_SHADER_LOG, &log);
    result->Add("%s", LogText(log));
    return true;
}

bool KSShader::_PrintSource(Result* result)
{
    if (_bReleaseMode)
        return true;
    const char* text = nullptr;
    ksGetShaderString(_pShader, KS_SHADER_SOURCE, &text);
    if (text != nullptr)
    {
        if (result != nullptr)
            result->Add("%s", text);
        if (_pConsole != nullptr)
        {
            _pConsole->Print("%s", text);
            _pConsole->Print("\n");
        }
        return true;
    }
    if (result != nullptr)
        result->Add("%s", kNoSourceText);
    if (_pConsole != nullptr)
        _pConsole->Print("%s\n", kNoSourceText);
    return true;
}

} // namespace Vireo
