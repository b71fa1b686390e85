/// \file
/// A primitive of Kestrel behind the library's object model: a handle, a name
/// and the setters of its uniforms.
#ifndef VIREO_KESTRELWRAPPER_IKSPRIMITIVE_H
#define VIREO_KESTRELWRAPPER_IKSPRIMITIVE_H

#include "Foundation/ValueTypes.h"
#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

#include <cstdint>
#include <string>

namespace Vireo
{

class IKestrelContext;
class IKSBuffer;

/// Every setter binds this primitive, makes one Kestrel call and reads the
/// error; the primitive stays bound afterwards. `name` is for the trace and
/// the failure text only.
class VIREO_EXPORT IKSPrimitive
{
public:
    IKSPrimitive() = default;
    /// Copies nothing: the interface holds no state.
    IKSPrimitive(const IKSPrimitive&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSPrimitive& operator=(const IKSPrimitive&) = default;

    /// Names the primitive for traces and failure messages, also inside
    /// Kestrel (KS_PRIMITIVE_NAME).
    virtual void SetName(const std::string& name) = 0;
    /// The primitive's name.
    virtual std::string GetName() const = 0;
    /// Binds the primitive, so that the host's own ks calls act on it.
    virtual bool Bind() = 0;
    /// The Kestrel number of the primitive.
    virtual KSprimitive GetHandle() const = 0;
    /// The context that made the primitive.
    virtual IKestrelContext* GetKSContext() const = 0;

    /// ame Uniform setters
    /// @{

    /// Sets the uniform at `location` of the primitive's program to the value,
    /// or the `count` values, given; `name` is for traces and messages. False,
    /// with the failure printed, when Kestrel refuses it.
    virtual bool SetUniform(const std::string& name, int location, std::uint64_t count,
                            const KSprimitive* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, KSprimitive value) = 0;
    virtual bool SetUniform(const std::string& name, int location, std::uint64_t count,
                            _KStexture* const* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, _KStexture* value) = 0;
    /// `count` tuples of `tupleSize` (1 to 4) ints each.
    virtual bool SetUniform(const std::string& name, int location, int tupleSize,
                            std::uint64_t count, const int* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const Vector4i* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const Vector3i* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const Vector2i* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, std::uint64_t count,
                            const int* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, const Vector4i& value) = 0;
    virtual bool SetUniform(const std::string& name, int location, const Vector3i& value) = 0;
    virtual bool SetUniform(const std::string& name, int location, const Vector2i& value) = 0;
    virtual bool SetUniform(const std::string& name, int location, int value) = 0;
    virtual bool SetUniform(const std::string& name, int location, std::uint64_t count,
                            const Matrix44f* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, std::uint64_t count,
                            const Matrix33f* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const Vector4f* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const Vector3f* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const Vector2f* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, int count,
                            const float* values) = 0;
    virtual bool SetUniform(const std::string& name, int location, const Vector4f& value) = 0;
    virtual bool SetUniform(const std::string& name, int location, const Vector3f& value) = 0;
    virtual bool SetUniform(const std::string& name, int location, const Vector2f& value) = 0;
    virtual bool SetUniform(const std::string& name, int location, float value) = 0;
    /// @}

    /// Makes `buffer` the contents of the uniform block `blockIndex`.
    virtual bool SetUniformBlock(const std::string& name, int blockIndex,
                                 const IKSBuffer* buffer) = 0;
    /// Prints every later setter call of this primitive to the console.
    virtual void SetTrace(bool trace) = 0;

protected:
    /// Primitives go back through IKestrelContext::DestroyIKSPrimitive.
    virtual ~IKSPrimitive() = default;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKSPRIMITIVE_H
