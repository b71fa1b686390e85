/// \file
/// The wrapper of one Kestrel primitive, and the scoped binding of one.
#ifndef VIREO_KESTRELWRAPPER_KSPRIMITIVE_H
#define VIREO_KESTRELWRAPPER_KSPRIMITIVE_H

#include "KestrelWrapper/IKSPrimitive.h"

namespace Vireo
{

class IMgrConsole;

/// The library's primitive; hosts use it through IKSPrimitive.
class VIREO_EXPORT KSPrimitive : public IKSPrimitive
{
public:
    KSPrimitive() = default;
    /// Member-wise: a copy names the same Kestrel primitive, and only one of
    /// the two may give it back.
    KSPrimitive(const KSPrimitive&) = default;
    /// Member-wise assignment.
    KSPrimitive& operator=(const KSPrimitive&) = default;
    ~KSPrimitive() override;

    /// Makes the Kestrel primitive. Always true: the call is not examined.
    bool Init(IKestrelContext* context);
    /// The same without a Kestrel primitive: the context's null primitive.
    bool InitNull(IKestrelContext* context);
    /// Gives the Kestrel primitive back and forgets the context; repeatable.
    void Shutdown();

    void SetName(const std::string& name) override;
    std::string GetName() const override;
    bool Bind() override;
    KSprimitive GetHandle() const override;
    IKestrelContext* GetKSContext() const override;

    bool SetUniform(const std::string& name, int location, std::uint64_t count,
                    const KSprimitive* values) override;
    bool SetUniform(const std::string& name, int location, KSprimitive value) override;
    bool SetUniform(const std::string& name, int location, std::uint64_t count,
                    _KStexture* const* values) override;
    bool SetUniform(const std::string& name, int location, _KStexture* value) override;
    bool SetUniform(const std::string& name, int location, int tupleSize, std::uint64_t count,
                    const int* values) override;
    bool SetUniform(const std::string& name, int location, int count,
                    const Vector4i* values) override;
    bool SetUniform(const std::string& name, int location, int count,
                    const Vector3i* values) override;
    bool SetUniform(const std::string& name, int location, int count,
                    const Vector2i* values) override;
    bool SetUniform(const std::string& name, int location, std::uint64_t count,
                    const int* values) override;
    bool SetUniform(const std::string& name, int location, const Vector4i& value) override;
    bool SetUniform(const std::string& name, int location, const Vector3i& value) override;
    bool SetUniform(const std::string& name, int location, const Vector2i& value) override;
    bool SetUniform(const std::string& name, int location, int value) override;
    bool SetUniform(const std::string& name, int location, std::uint64_t count,
                    const Matrix44f* values) override;
    bool SetUniform(const std::string& name, int location, std::uint64_t count,
                    const Matrix33f* values) override;
    bool SetUniform(const std::string& name, int location, int count,
                    const Vector4f* values) override;
    bool SetUniform(const std::string& name, int location, int count,
                    const Vector3f* values) override;
    bool SetUniform(const std::string& name, int location, int count,
                    const Vector2f* values) override;
    bool SetUniform(const std::string& name, int location, int count, const float* values) override;
    bool SetUniform(const std::string& name, int location, const Vector4f& value) override;
    bool SetUniform(const std::string& name, int location, const Vector3f& value) override;
    bool SetUniform(const std::string& name, int location, const Vector2f& value) override;
    bool SetUniform(const std::string& name, int location, float value) override;
    bool SetUniformBlock(const std::string& name, int blockIndex, const IKSBuffer* buffer) override;
    void SetTrace(bool trace) override;

private:
    template <class Value, class KestrelCall>
    bool _Set(bool trace, const std::string& name, int location, int tupleSize, int traceCount,
              const Value* values, const char* failureText, KestrelCall&& call);

    IKestrelContext* _pContext = nullptr;
    IMgrConsole* _pConsole = nullptr;
    KSprimitive _handle = KSprimitive(0);
    std::string _sName;
    bool _bTrace = false;

    /// Traces every setter but the single-int one when set. Exported as
    /// data: no operation of the library writes it; a host flips it from a
    /// debugger.
    static bool s_bTrace;
    // Defined by the tests alone, which set the flag through it.
    friend struct TraceFlagsTestPeer;
};

/// Binds a primitive for a scope and puts back what was bound before.
class VIREO_EXPORT AutoBindKSPrimitive
{
public:
    /// Saves the bound primitive and binds `primitive`.
    explicit AutoBindKSPrimitive(IKSPrimitive* primitive);
    ~AutoBindKSPrimitive();
    AutoBindKSPrimitive(const AutoBindKSPrimitive&) = delete;
    /// Takes over what `other` will put back.
    AutoBindKSPrimitive& operator=(const AutoBindKSPrimitive& other);

private:
    KSprimitive _saved = KSprimitive(0);
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSPRIMITIVE_H
