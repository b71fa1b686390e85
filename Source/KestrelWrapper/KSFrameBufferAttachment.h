/// \file
/// One render target of a frame buffer: a Kestrel texture whose storage is
/// memory the attachment owns, so that rendered pixels land where the host
/// reads them and nothing is ever copied back.
#ifndef VIREO_KESTRELWRAPPER_KSFRAMEBUFFERATTACHMENT_H
#define VIREO_KESTRELWRAPPER_KSFRAMEBUFFERATTACHMENT_H

#include "Foundation/Mutex.h"
#include "Foundation/ValueTypes.h"
#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

#include <memory>

namespace Vireo
{

class IKestrelContext;

/// A render target of a frame buffer: client memory that Kestrel renders
/// into, which the host reads under a lock. Made by
/// IKSFrameBuffer::CreateAttachment.
class VIREO_EXPORT IKSFrameBufferAttachment
{
public:
    /// Fixed to int so that the -1 of an attachment without a successful Init
    /// is a value of the type.
    enum eFormat : int
    {
        kF_Luminance = 0,
        kF_Reserved = 1,
        kF_RGB = 2,
        kF_RGBA = 3,
    };
    /// Type of each channel of a pixel.
    enum eDataType : int
    {
        kDT_UnsignedByte = 0,
        kDT_UnsignedShort = 1,
        kDT_UnsignedInt = 2,
        kDT_Short = 3,
        kDT_Int = 4,
        kDT_Reserved = 5,
        kDT_Float = 6,
    };
    /// Only kBM_Accumulated differs on the library's side: it keeps a running
    /// sum of the passes in a second buffer. What each mode does to Kestrel's
    /// writes is Kestrel's affair.
    enum eBlendMode : int
    {
        kBM_Mode0 = 0,
        kBM_Accumulated = 1,
        kBM_Mode2 = 2,
        kBM_Mode3 = 3,
    };

    IKSFrameBufferAttachment() = default;
    /// Copies nothing: the interface holds no state.
    IKSFrameBufferAttachment(const IKSFrameBufferAttachment&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSFrameBufferAttachment& operator=(const IKSFrameBufferAttachment&) = default;

    /// The context of the frame buffer.
    virtual IKestrelContext* GetKestrelContext() = 0;
    /// The attachment's index in its frame buffer.
    virtual int GetIndex() = 0;
    /// Guards the host's view of the client memory, by agreement only: the
    /// library never takes it. True when the calling thread now holds it.
    virtual bool Lock(unsigned long timeoutMs) = 0;
    /// From a thread that does not hold the lock this changes nothing.
    virtual void UnLock() = 0;
    /// The Kestrel texture behind the attachment.
    virtual _KStexture*& GetKSTexture() = 0;
    /// The pixels as the host should see them: the running sum in
    /// kBM_Accumulated, the render target itself otherwise. Four floats per
    /// pixel, rows without gaps; good until a Resize to another size or the
    /// attachment's end. Null while the attachment has no storage.
    virtual unsigned char* GetClientBuffer() = 0;
    /// The pixel format it was made with.
    virtual eFormat Format() const = 0;
    /// The channel type it was made with.
    virtual eDataType DataType() const = 0;
    /// True when samples go through the frame buffer's pixel filter.
    virtual bool FilterEnabled() const = 0;
    /// How each sample is combined with the pixel.
    virtual eBlendMode BlendMode() const = 0;
    /// The value the attachment is cleared to.
    virtual const Color4f& ClearColor() const = 0;
    /// Call after each pass, with the attachment's frame buffer bound. In
    /// kBM_Accumulated it adds 1 - pass to the sum, in every component, and
    /// clears the target for the next pass; in other modes it does nothing.
    virtual bool NotifyPassCompleted() = 0;

protected:
    /// Attachments end through KSFrameBuffer::DestroyAttachment or with their
    /// frame buffer.
    virtual ~IKSFrameBufferAttachment() = default;
};

/// The library's attachment; hosts use it through IKSFrameBufferAttachment.
class VIREO_EXPORT KSFrameBufferAttachment : public IKSFrameBufferAttachment
{
public:
    /// An attachment of a frame buffer of `context`, without memory until Init.
    explicit KSFrameBufferAttachment(IKestrelContext* context);
    ~KSFrameBufferAttachment() override;
    KSFrameBufferAttachment(const KSFrameBufferAttachment&) = delete;
    KSFrameBufferAttachment& operator=(const KSFrameBufferAttachment&) = delete;

    /// Only RGBA with float pixels can be allocated; every other pair, a size
    /// below 1 or one whose byte count does not fit 32 bits gives false. A
    /// failed Init leaves the fields as constructed; a texture it made stays
    /// until Shutdown.
    bool Init(int width, int height, int index, eFormat format, eDataType dataType,
              bool filterEnabled, eBlendMode blendMode, const Color4f& clearColor);
    /// New storage at the new size, pixels not kept; the present size keeps
    /// everything. On failure the attachment has no storage and Kestrel's
    /// texture none of ours: it is never left naming freed memory.
    bool Resize(int width, int height);
    /// Clears the target in the bound frame buffer and restarts the sum.
    void Clear();
    /// Repeatable. The texture goes before the memory behind it.
    void Shutdown();

    IKestrelContext* GetKestrelContext() override;
    int GetIndex() override;
    bool Lock(unsigned long timeoutMs) override;
    void UnLock() override;
    _KStexture*& GetKSTexture() override;
    unsigned char* GetClientBuffer() override;
    eFormat Format() const override;
    eDataType DataType() const override;
    bool FilterEnabled() const override;
    eBlendMode BlendMode() const override;
    const Color4f& ClearColor() const override;
    bool NotifyPassCompleted() override;

private:
    void _SpecifyTexture(int width, int height, eFormat format, eDataType dataType);
    void _DetachStorageFromTexture();
    void _FreeBuffers();
    void _ClearTarget();

    IKestrelContext* _pContext;
    MutexWaitable _mutex;
    _KStexture* _pTexture = nullptr;
    float* _pClientBuffer = nullptr;
    float* _pAccumBuffer = nullptr; // exactly in kBM_Accumulated
    bool _bFirstPass = false;
    int _nWidth = 0;
    int _nHeight = 0;
    int _nIndex = 0;
    eFormat _eFormat = static_cast<eFormat>(-1);
    eDataType _eDataType = static_cast<eDataType>(-1);
    bool _bFilterEnabled = false;
    eBlendMode _eBlendMode = static_cast<eBlendMode>(-1);
    std::unique_ptr<Color4f> _pClearColor;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSFRAMEBUFFERATTACHMENT_H
