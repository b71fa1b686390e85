// A program of Kestrel behind the library's object model: shaders attached,
// linked, and asked for the locations of their declarations.
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

class VIREO_EXPORT IKSProgram
{
public:
    IKSProgram() = default;
    IKSProgram(const IKSProgram&) = default;
    IKSProgram& operator=(const IKSProgram&) = default;

    // Told when the program is going away, before its handle is deleted.
    virtual bool AddListenerDelete(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    virtual bool
    RemoveListenerDelete(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    virtual bool SetName(const std::string& name) = 0;
    // Attaching does not link, and neither does a shader's new source: the
    // host relinks when it wants to.
    virtual bool AddShader(IKSShader* shader) = 0;
    virtual bool RemoveShader(IKSShader* shader) = 0;
    // Told after each successful link.
    virtual bool AddListenerLink(fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    virtual bool
    RemoveListenerLink(const fastdelegate::FastDelegate1<IKSProgram*, bool>& listener) = 0;
    // False when the link failed (its log goes to the console) or a link
    // listener said false.
    virtual bool Link() = 0;
    // Kestrel's answers as they come: -1 for a name the program lacks.
    virtual int GetLocationUniform(const char* name) = 0;
    virtual int GetLocationUniformBlock(const char* name) = 0;
    virtual int GetLocationAttribute(const char* name) = 0;
    virtual _KSprogram* GetKSProgram() = 0;

protected:
    // Programs go back through IKestrelContext::DestroyIKSProgram.
    virtual ~IKSProgram() = default;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKSPROGRAM_H
