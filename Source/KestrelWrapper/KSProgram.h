/// \file
/// The wrapper of one Kestrel program: the shaders attached to it, its link,
/// and the listeners told of each link and of its end.
#ifndef VIREO_KESTRELWRAPPER_KSPROGRAM_H
#define VIREO_KESTRELWRAPPER_KSPROGRAM_H

#include "KestrelWrapper/FastDelegate.h"
#include "KestrelWrapper/IKSProgram.h"

#include <string>
#include <vector>

namespace Vireo
{

class IMgrConsole;

/// Holds its shaders without owning them and sits on each one's delete list,
/// so that a shader and a program may die in either order.
class VIREO_EXPORT KSProgram : public IKSProgram
{
public:
    /// No Kestrel call.
    explicit KSProgram(IMgrConsole* console);
    /// Member-wise: a copy holds the same Kestrel program, and only one of the
    /// two may give it back. The shaders do not learn of the copy.
    KSProgram(const KSProgram&) = default;
    /// Member-wise assignment.
    KSProgram& operator=(const KSProgram&) = default;
    ~KSProgram() override;

    /// Makes the Kestrel program; false when Kestrel gives none.
    bool Init();
    /// Tells the delete listeners, deletes the program and leaves every
    /// shader's delete list; repeatable. Always true.
    bool Shutdown();

    bool AddListenerDelete(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) override;
    bool
    RemoveListenerDelete(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) override;
    bool SetName(const std::string& name) override;
    bool AddShader(IKSShader* shader) override;
    bool RemoveShader(IKSShader* shader) override;
    bool AddListenerLink(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) override;
    bool
    RemoveListenerLink(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) override;
    bool Link() override;
    int GetLocationUniform(const char* name) override;
    int GetLocationUniformBlock(const char* name) override;
    int GetLocationAttribute(const char* name) override;
    _KSprogram* GetKSProgram() override;

protected:
    /// Links the attached shaders and tells the link listeners.
    bool _Link();
    /// On each attached shader's delete list: forgets and detaches the shader
    /// while its handle is still valid. Always true.
    bool _OnDeleteShader(IKSShader* shader);
    /// The link log, with the program's name, on the console.
    bool _PrintErrors();

private:
    /// Built afresh at each use; every build compares the same.
    fastdelegate::FastDelegate1<IKSShader*, bool> _ShaderDeleteListener();
    /// Takes `shader` out of the array; false when it was not there.
    bool _Forget(IKSShader* shader);

    IMgrConsole* _pConsole;
    std::vector<IKSShader*> _vecShaders;
    _KSprogram* _pProgram = nullptr;
    ListenerList<fastdelegate::FastDelegate1<IKSProgram*, bool>> _setListenerDelete;
    ListenerList<fastdelegate::FastDelegate1<IKSProgram*, bool>> _setListenerLink;
    std::string _sName;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSPROGRAM_H
