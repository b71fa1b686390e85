/// \file
/// A buffer of Kestrel behind the library's object model, and the scoped
/// binding of one.
#ifndef VIREO_KESTRELWRAPPER_IKSBUFFER_H
#define VIREO_KESTRELWRAPPER_IKSBUFFER_H

#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

#include <cstdint>

namespace Vireo
{

class IKestrelContext;

/// A buffer of Kestrel memory, e.g. mesh data or a uniform block. Made by
/// IKestrelContext::CreateIKSBuffer.
class VIREO_EXPORT IKSBuffer
{
public:
    /// Access first, frequency second; the frequency order is static, dynamic,
    /// stream. A fixed type, so that any int a host casts in is a value.
    enum Usage : int
    {
        kUsage_StaticDraw = 0,
        kUsage_DynamicDraw = 1,
        kUsage_StreamDraw = 2,
        kUsage_StaticRead = 3,
        kUsage_DynamicRead = 4,
        kUsage_StreamRead = 5,
        kUsage_StaticCopy = 6,
        kUsage_DynamicCopy = 7,
        kUsage_StreamCopy = 8,
    };

    IKSBuffer() = default;
    /// Copies nothing: the interface holds no state.
    IKSBuffer(const IKSBuffer&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSBuffer& operator=(const IKSBuffer&) = default;

    /// Gives the buffer `size` bytes of undefined contents.
    virtual bool Init(Usage usage, std::uint64_t size) = 0;
    /// Gives the storage and the handle back to Kestrel.
    virtual void Shutdown() = 0;
    /// Same handle, new storage; with `keepContents` the first
    /// min(old, new) bytes survive. A failure leaves the buffer as it was.
    virtual bool Resize(Usage usage, std::uint64_t size, bool keepContents) = 0;
    /// Size of the storage in bytes; 0 before Init.
    virtual std::uint64_t GetSize() = 0;
    /// The Kestrel handle, for the host's own Kestrel calls.
    virtual _KSbuffer* const& GetKSBuffer() const = 0;
    /// The Kestrel handle, for the host's own Kestrel calls.
    virtual _KSbuffer*& GetKSBuffer() = 0;
    /// Leaves the buffer bound at `target`; a failure is printed, not undone.
    virtual bool Bind(int target) = 0;

protected:
    /// Not virtual: buffers go back through IKestrelContext::DestroyIKSBuffer,
    /// which knows the concrete class.
    ~IKSBuffer() = default;
};

/// Final because nothing may derive from a class whose destructor is not
/// virtual and that the context deletes as this type.
class VIREO_EXPORT KSBuffer final : public IKSBuffer
{
public:
    /// A buffer of `context`, without storage until Init.
    explicit KSBuffer(IKestrelContext* context);
    /// Member-wise: a copy shares the handle, and only one of the two may be
    /// shut down or destroyed.
    KSBuffer(const KSBuffer&) = default;
    /// Member-wise assignment.
    KSBuffer& operator=(const KSBuffer&) = default;
    ~KSBuffer();

    /// A value outside the nine gives 0, which Kestrel refuses as a usage.
    static int UsageToKSEnum(Usage usage);

    bool Init(Usage usage, std::uint64_t size) override;
    /// Makes the buffer's context current before it deletes, and leaves it
    /// current. Repeatable.
    void Shutdown() override;
    bool Resize(Usage usage, std::uint64_t size, bool keepContents) override;
    std::uint64_t GetSize() override;
    _KSbuffer* const& GetKSBuffer() const override;
    _KSbuffer*& GetKSBuffer() override;
    bool Bind(int target) override;

private:
    /// New storage of `size` bytes from `data` (null: undefined), specified at
    /// the array target with that target's binding put back afterwards.
    void _Specify(Usage usage, std::uint64_t size, const void* data);
    void _Release();

    IKestrelContext* _pContext;
    _KSbuffer* _handle = nullptr;
    /// Nothing defines the size before Init; 0 keeps GetSize harmless.
    std::uint64_t _nSize = 0;
};

namespace Detail
{

/// The library's one way to borrow a buffer target: what was bound there is
/// saved at construction and bound again at destruction. Not for hosts; its
/// operations are not exported.
class AutoRestoreBufferBinding
{
public:
    /// Saves the binding that `bindingQuery` reports for `target`; binding
    /// something there is left to the caller.
    AutoRestoreBufferBinding(int target, int bindingQuery);
    /// Saves as above and binds `buffer` at `target`.
    AutoRestoreBufferBinding(int target, int bindingQuery, _KSbuffer* buffer);
    ~AutoRestoreBufferBinding();
    AutoRestoreBufferBinding(const AutoRestoreBufferBinding&) = delete;
    /// The scoped classes that hold one copy bindings member-wise.
    AutoRestoreBufferBinding& operator=(const AutoRestoreBufferBinding&) = default;

private:
    _KSbuffer* _saved = nullptr;
    int _nTarget;
};

} // namespace Detail

/// Binds a buffer at a target for a scope through its Bind, so that a failure
/// is printed, and puts back what was bound there before, also when Bind
/// failed. The end of the scope does not need the buffer to be alive.
class VIREO_EXPORT AutoBindKSBuffer
{
public:
    /// `target` is one of the five buffer targets; any other asks the
    /// assertion handler and saves the array target's binding instead.
    AutoBindKSBuffer(IKSBuffer* buffer, int target);
    ~AutoBindKSBuffer();
    AutoBindKSBuffer(const AutoBindKSBuffer&) = delete;
    /// Takes over what `other` will put back.
    AutoBindKSBuffer& operator=(const AutoBindKSBuffer& other);

private:
    Detail::AutoRestoreBufferBinding _binding;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKSBUFFER_H
