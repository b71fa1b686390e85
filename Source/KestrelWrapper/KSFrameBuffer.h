// A Kestrel frame buffer with the attachments it owns and the pixel filter
// of the host, sampled into a table; and the scoped binding of a frame
// buffer.
#ifndef VIREO_KESTRELWRAPPER_KSFRAMEBUFFER_H
#define VIREO_KESTRELWRAPPER_KSFRAMEBUFFER_H

#include "Foundation/ValueTypes.h"
#include "KestrelApi/Kestrel.h"
#include "KestrelWrapper/KSFrameBufferAttachment.h"
#include "VireoExport.h"

#include <cstdint>
#include <vector>

namespace Vireo
{

class IKestrelContext;

// The host's pixel filter. The library calls it only inside
// KSFrameBuffer::SetFilter, on the calling thread, and keeps no pointer to
// it afterwards.
class VIREO_EXPORT IKSFrameBufferFilter
{
public:
    IKSFrameBufferFilter() = default;
    IKSFrameBufferFilter(const IKSFrameBufferFilter&) = default;
    IKSFrameBufferFilter& operator=(const IKSFrameBufferFilter&) = default;

    // The extent of the filter; below 0.5 it is refused.
    virtual float GetFilterSize() = 0;
    // The filter's value at (x, y), both from 0 up to, not including, the
    // size.
    virtual float Sample(float x, float y) = 0;

protected:
    virtual ~IKSFrameBufferFilter() = default;
};

class VIREO_EXPORT IKSFrameBuffer
{
public:
    IKSFrameBuffer() = default;
    IKSFrameBuffer(const IKSFrameBuffer&) = default;
    IKSFrameBuffer& operator=(const IKSFrameBuffer&) = default;

    virtual bool Init(int width, int height) = 0;
    virtual void Shutdown() = 0;
    // Every attachment follows; the walk goes on past a failure.
    virtual bool Resize(int width, int height) = 0;
    // Null removes the filter. Sends the filter and every attachment's
    // parameters to Kestrel, like Bind, but binds nothing.
    virtual bool SetFilter(IKSFrameBufferFilter* filter) = 0;
    virtual void Clear() = 0;
    // Clears every attachment of that index.
    virtual void ClearAttachment(int index) = 0;
    // Leaves this frame buffer bound and sends its filter and attachments
    // again, for the filter is Kestrel state, not the frame buffer's. Gives
    // up one hold of each attachment's lock by the calling thread.
    virtual bool Bind() = 0;
    // Null, with a message on the process-wide console, when the attachment
    // cannot be set up. A second attachment at an index takes over its
    // attachment point; both stay.
    virtual IKSFrameBufferAttachment*
    CreateAttachment(int index, IKSFrameBufferAttachment::eFormat format,
                     IKSFrameBufferAttachment::eDataType dataType, bool filterEnabled,
                     IKSFrameBufferAttachment::eBlendMode blendMode, const Color4f& clearColor) = 0;
    // Only for an attachment of this frame buffer.
    virtual bool DestroyAttachment(IKSFrameBufferAttachment* attachment) = 0;

protected:
    // Frame buffers go back through IKestrelContext::DestroyIKSFrameBuffer.
    virtual ~IKSFrameBuffer() = default;
};

class VIREO_EXPORT KSFrameBuffer : public IKSFrameBuffer
{
public:
    explicit KSFrameBuffer(IKestrelContext* context);
    // Member-wise: a copy names the same Kestrel frame buffer, attachments
    // and filter table, and only one of the two may be shut down.
    KSFrameBuffer(const KSFrameBuffer&) = default;
    KSFrameBuffer& operator=(const KSFrameBuffer&) = default;
    ~KSFrameBuffer() override;

    // A frame buffer already made refuses a second Init.
    bool Init(int width, int height) override;
    void Shutdown() override;
    bool Resize(int width, int height) override;
    bool SetFilter(IKSFrameBufferFilter* filter) override;
    void Clear() override;
    void ClearAttachment(int index) override;
    bool Bind() override;
    IKSFrameBufferAttachment* CreateAttachment(int index, IKSFrameBufferAttachment::eFormat format,
                                               IKSFrameBufferAttachment::eDataType dataType,
                                               bool filterEnabled,
                                               IKSFrameBufferAttachment::eBlendMode blendMode,
                                               const Color4f& clearColor) override;
    bool DestroyAttachment(IKSFrameBufferAttachment* attachment) override;

    _KSframebuffer* GetKSFrameBuffer() const { return _handle; }
    // The sampled filter: n x n floats row after row, the entry of row r and
    // column c sampled at (c, r) times size / n. Null without a filter, and
    // when Kestrel's limit leaves no entries: such a filter is no filter.
    const float* GetFilterTable() const { return _pFilterTable; }
    std::uint64_t GetFilterTableSize() const { return _nFilterTableSize; }
    float GetFilterSize() const { return _fFilterSize; }

private:
    bool _SetAttachment(int index, KSFrameBufferAttachment* attachment);
    bool _UnsetAttachment(int index);
    bool _UpdateFilter();
    bool _UpdateFilterTable(IKSFrameBufferFilter* filter);
    template <class Select>
    void _ClearSelected(Select&& select);
    void _ReleaseFilterTable();

    IKestrelContext* _pContext;
    _KSframebuffer* _handle = nullptr;
    int _nWidth = 0;
    int _nHeight = 0;
    std::vector<KSFrameBufferAttachment*> _listAttachments; // owned, in order of creation
    float _fFilterSize = 1.0f;
    std::uint64_t _nFilterTableSize = 0;
    float* _pFilterTable = nullptr;
};

// Binds a frame buffer for a scope and binds back what was bound before,
// also when the scope is left by an exception. Scopes nest.
class VIREO_EXPORT AutoBindKSFrameBuffer
{
public:
    explicit AutoBindKSFrameBuffer(_KSframebuffer* frameBuffer);
    ~AutoBindKSFrameBuffer();
    AutoBindKSFrameBuffer(const AutoBindKSFrameBuffer&) = delete;
    AutoBindKSFrameBuffer& operator=(const AutoBindKSFrameBuffer&) = delete;

private:
    _KSframebuffer* _pSaved = nullptr;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSFRAMEBUFFER_H
