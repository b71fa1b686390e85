/// \file
/// A shader of Kestrel behind the library's object model.
#ifndef VIREO_KESTRELWRAPPER_IKSSHADER_H
#define VIREO_KESTRELWRAPPER_IKSSHADER_H

#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

#include <string>

namespace fastdelegate
{
template <class RetType>
class FastDelegate0;
template <class Param1, class RetType>
class FastDelegate1;
} // namespace fastdelegate

namespace Vireo
{

class Result;

/// A shader: source text compiled by Kestrel, with a name and listeners.
/// Made by IKestrelContext::CreateIKSShader.
class VIREO_EXPORT IKSShader
{
public:
    /// Index into the table of Kestrel shader kinds; the order is fixed.
    /// A fixed underlying type: values outside the list are defined, and refused.
    enum Type : int
    {
        kST_LinkOnce = 0,
        kST_Vertex = 1,
        kST_Kind2 = 2,
        kST_Kind3 = 3,
    };

    IKSShader() = default;
    /// Copies nothing: the interface holds no state.
    IKSShader(const IKSShader&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSShader& operator=(const IKSShader&) = default;

    /// Told when the shader is going away, before its handle is deleted.
    virtual bool AddListenerDelete(fastdelegate::FastDelegate1<IKSShader*, bool>& listener) = 0;
    /// Stops telling `listener` about the deletion.
    virtual bool RemoveListenerDelete(fastdelegate::FastDelegate1<IKSShader*, bool>& listener) = 0;
    /// Told when new source has compiled.
    virtual bool AddListenerChange(fastdelegate::FastDelegate0<bool>& listener) = 0;
    /// Stops telling `listener` about new source.
    virtual bool RemoveListenerChange(fastdelegate::FastDelegate0<bool>& listener) = 0;
    /// Names the shader, also inside Kestrel (KS_SHADER_NAME).
    virtual bool SetName(const std::string& name) = 0;
    /// The shader's name.
    virtual std::string GetName() = 0;
    /// Replaces the source and compiles it; problems go into `result` if given.
    virtual bool SetString(std::string& source, Result* result) = 0;
    /// The Kestrel handle, for the host's own Kestrel calls.
    virtual _KSshader* GetKSShader() = 0;
    /// The kind the shader was made as.
    virtual Type GetType() = 0;

protected:
    /// Shaders go back through IKestrelContext::DestroyIKSShader.
    virtual ~IKSShader() = default;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKSSHADER_H
