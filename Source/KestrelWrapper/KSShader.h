/// \file
/// The wrapper of one Kestrel shader: its name, its source and compile, and
/// the listeners told of its changes and of its end.
#ifndef VIREO_KESTRELWRAPPER_KSSHADER_H
#define VIREO_KESTRELWRAPPER_KSSHADER_H

#include "KestrelWrapper/FastDelegate.h"
#include "KestrelWrapper/IKSShader.h"

#include <string>

namespace Vireo
{

class IMgrConsole;

/// The library's shader; hosts use it through IKSShader.
class VIREO_EXPORT KSShader : public IKSShader
{
public:
    /// When a compile prints the shader's source.
    enum Trace : int
    {
        kTrace_None = 0,
        kTrace_OnFailure = 1,
        kTrace_Always = 2,
    };

    /// In release mode the source is never printed. No Kestrel call.
    KSShader(IMgrConsole* console, bool releaseMode);
    /// Member-wise: a copy holds the same Kestrel shader, and only one of the
    /// two may give it back.
    KSShader(const KSShader&) = default;
    /// Member-wise assignment.
    KSShader& operator=(const KSShader&) = default;
    ~KSShader() override;

    /// Makes the Kestrel shader of the kind; false when Kestrel gives none.
    bool Init(IKSShader::Type type);
    /// Tells the delete listeners, then gives the handle back; repeatable.
    void Shutdown();

    bool AddListenerDelete(fastdelegate::FastDelegate1<IKSShader*, bool>& listener) override;
    bool RemoveListenerDelete(fastdelegate::FastDelegate1<IKSShader*, bool>& listener) override;
    bool AddListenerChange(fastdelegate::FastDelegate0<bool>& listener) override;
    bool RemoveListenerChange(fastdelegate::FastDelegate0<bool>& listener) override;
    bool SetName(const std::string& name) override;
    std::string GetName() override;
    bool SetString(std::string& source, Result* result) override;
    _KSshader* GetKSShader() override;
    Type GetType() override;

protected:
    /// Compiles the current source; the log goes to `result`, if given.
    bool _Compile(Result* result);
    /// Adds the compile log to `result`, if given.
    bool _PrintErrors(Result* result);
    /// Adds the source with line numbers to `result`, if given.
    bool _PrintSource(Result* result);

private:
    static int TypeToKSEnum(IKSShader::Type type);

    IMgrConsole* _pConsole;
    _KSshader* _pShader = nullptr;
    IKSShader::Type _eType = kST_LinkOnce;
    std::string _sName = "-Unnamed-";
    ListenerList<fastdelegate::FastDelegate1<IKSShader*, bool>> _setListenerDelete;
    ListenerList<fastdelegate::FastDelegate0<bool>> _setListenerChange;
    bool _bReleaseMode;

    /// Read by every compile and exported as data: no operation of the
    /// library writes it; a host flips it from a debugger. Levels other than
    /// those of Trace print nothing.
    static Trace _eTrace;
    // Defined by the tests alone, which set the flag through it.
    friend struct TraceFlagsTestPeer;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSSHADER_H
