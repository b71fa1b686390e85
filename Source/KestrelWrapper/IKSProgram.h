/// \file
/// A program of Kestrel behind the library's object model: shaders attached,
/// linked, and asked for the locations of their declarations.
#ifndef VIREO_KESTRELWRAPPER_IKSPROGRAM_H
#define VIREO_KESTRELWRAPPER_IKSPROGRAM_H

#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

#include <string>

namespace fastdelegate
{
template <class Param1, class RetType>
class FastDelegate1;
} // namespace fastdelegate

namespace Vireo
{

class IKSShader;

/// A program: shaders linked together for primitives or the frame to run.
/// Made by IKestrelContext::CreateIKSProgram.
class VIREO_EXPORT IKSProgram
{
public:
    IKSProgram() = default;
    /// Copies nothing: the interface holds no state.
    IKSProgram(const IKSProgram&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSProgram& operator=(const IKSProgram&) = default;

    /// Told when the program is going away, before its handle is deleted.
    virtual bool AddListenerDelete(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    virtual bool
    /// Stops telling `listener` about the deletion.
    RemoveListenerDelete(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    /// Names the program, also inside Kestrel (KS_PROGRAM_NAME).
    virtual bool SetName(const std::string& name) = 0;
    /// Attaching does not link, and neither does a shader's new source: the
    /// host relinks when it wants to.
    virtual bool AddShader(IKSShader* shader) = 0;
    /// Detaches a shader; the next link goes without it.
    virtual bool RemoveShader(IKSShader* shader) = 0;
    /// Told after each successful link.
    virtual bool AddListenerLink(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    virtual bool
    /// Stops telling `listener` about links.
    RemoveListenerLink(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    /// False when the link failed (its log goes to the console) or a link
    /// listener said false.
    virtual bool Link() = 0;
    /// Kestrel's answers as they come: -1 for a name the program lacks.
    virtual int GetLocationUniform(const char* name) = 0;
    /// Index of the uniform block `name`, for IKSPrimitive::SetUniformBlock.
    virtual int GetLocationUniformBlock(const char* name) = 0;
    /// Location of the attribute `name`.
    virtual int GetLocationAttribute(const char* name) = 0;
    /// The Kestrel handle, e.g. for ksUseProgram on a bound primitive.
    virtual _KSprogram* GetKSProgram() = 0;

protected:
    /// Programs go back through IKestrelContext::DestroyIKSProgram.
    virtual ~IKSProgram() = default;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKSPROGRAM_H
