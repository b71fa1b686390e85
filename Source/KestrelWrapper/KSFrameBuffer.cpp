#include "KestrelWrapper/KSFrameBuffer.h"

#include "CoreInterfaces/VireoCore.h"
#include "KestrelWrapper/KestrelContextImp.h"
#include "KestrelWrapper/ObjectFactory.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>

namespace Vireo
{

namespace
{

constexpr int kBlendModeToKSEnum[] = {KS_BLEND_MODE_0, KS_BLEND_MODE_1, KS_BLEND_MODE_2,
                                      KS_BLEND_MODE_3};
static_assert(sizeof(kBlendModeToKSEnum) / sizeof(int) == IKSFrameBufferAttachment::kBM_Mode3 + 1,
              "one entry per blend mode");

// About eight samples per unit of filter size.
constexpr float kSamplesPerUnit = 8.0f;
constexpr float kMinFilterSize = 0.5f;

int AttachmentPoint(int index)
{
    return KS_COLOR_ATTACHMENT0 + index;
}

// size * 8 truncated toward zero; sizes beyond 64 bits saturate, to be cut
// down to Kestrel's limit anyway.
std::uint64_t EntriesPerEdge(float size)
{
    const float entries = size * kSamplesPerUnit;
    constexpr float kBeyond = 18446744073709551616.0f; // 2^64
    if (!(entries < kBeyond))
        return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(entries);
}

} // namespace

// --- The context's pair -----------------------------------------------------

IKSFrameBuffer* KestrelContextImp::CreateIKSFrameBuffer()
{
    return Factory::MakeCounted(std::make_unique<KSFrameBuffer>(this), _nFrameBuffers);
}

bool KestrelContextImp::DestroyIKSFrameBuffer(IKSFrameBuffer* frameBuffer)
{
    return Factory::DestroyCounted<KSFrameBuffer>(frameBuffer, _nFrameBuffers);
}

// --- Scoped binding ---------------------------------------------------------

AutoBindKSFrameBuffer::AutoBindKSFrameBuffer(_KSframebuffer* frameBuffer)
{
    ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, &_pSaved);
    ksBindFramebuffer(KS_FRAMEBUFFER, frameBuffer);
}

AutoBindKSFrameBuffer::~AutoBindKSFrameBuffer()
{
    ksBindFramebuffer(KS_FRAMEBUFFER, _pSaved);
}

// --- Lifecycle --------------------------------------------------------------

KSFrameBuffer::KSFrameBuffer(IKestrelContext* context) : _pContext(context) {}

KSFrameBuffer::~KSFrameBuffer()
{
    KSFrameBuffer::Shutdown();
}

bool KSFrameBuffer::Init(int width, int height)
{
    // A second Init would lose the frame buffer that the attachments hang on.
    if (_handle != nullptr)
        return false;
    _nWidth = width;
    _nHeight = height;
    _ReleaseFilterTable();
    _fFilterSize = 1.0f;
    ksGenFramebuffers(1, &_handle);
    return _handle != nullptr;
}

void KSFrameBuffer::Shutdown()
{
    // Attachments go even without a handle: a failed Init does not stop a
    // host from creating them.
    for (KSFrameBufferAttachment* attachment : _listAttachments)
        delete attachment;
    _listAttachments.clear();
    if (_handle != nullptr)
    {
        ksDeleteFramebuffers(1, &_handle);
        _handle = nullptr;
    }
    _ReleaseFilterTable();
    _pContext = nullptr;
}

bool KSFrameBuffer::Resize(int width, int height)
{
    _nWidth = width;
    _nHeight = height;
    bool allResized = true;
    for (KSFrameBufferAttachment* attachment : _listAttachments)
        allResized = attachment->Resize(width, height) && allResized;
    return allResized;
}

// --- Attachments ------------------------------------------------------------

IKSFrameBufferAttachment*
KSFrameBuffer::CreateAttachment(int index, IKSFrameBufferAttachment::eFormat format,
                                IKSFrameBufferAttachment::eDataType dataType, bool filterEnabled,
                                IKSFrameBufferAttachment::eBlendMode blendMode,
                                const Color4f& clearColor)
{
    std::unique_ptr<KSFrameBufferAttachment> attachment(new (std::nothrow)
                                                            KSFrameBufferAttachment(_pContext));
    if (attachment == nullptr)
        return nullptr;
    if (!attachment->Init(_nWidth, _nHeight, index, format, dataType, filterEnabled, blendMode,
                          clearColor))
    {
        attachment.reset();
        GetMgrConsole()->Print("KSFramebuffer attachment failed to initialize");
        return nullptr;
    }
    if (!_SetAttachment(index, attachment.get()))
    {
        attachment.reset();
        GetMgrConsole()->Print("Failed to set attachment in KSFramebuffer");
        return nullptr;
    }
    _listAttachments.push_back(attachment.get());
    return attachment.release();
}

bool KSFrameBuffer::DestroyAttachment(IKSFrameBufferAttachment* attachment)
{
    auto* concrete = dynamic_cast<KSFrameBufferAttachment*>(attachment);
    if (concrete == nullptr)
        return false;
    _UnsetAttachment(concrete->GetIndex());
    _listAttachments.erase(std::remove(_listAttachments.begin(), _listAttachments.end(), concrete),
                           _listAttachments.end());
    delete concrete;
    return true;
}

bool KSFrameBuffer::_SetAttachment(int index, KSFrameBufferAttachment* attachment)
{
    const int point = AttachmentPoint(index);
    AutoBindKSFrameBuffer bound(_handle);
    ksFramebufferTexture2D(KS_FRAMEBUFFER, point, KS_TEXTURE_2D, attachment->GetKSTexture(), 0);
    const bool filtered = attachment->FilterEnabled() && _pFilterTable != nullptr;
    ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, point, KS_ATTACHMENT_FILTER,
                                       filtered ? 1 : 0);
    const int blendMode = attachment->BlendMode();
    if (blendMode < 0 || blendMode > IKSFrameBufferAttachment::kBM_Mode3)
        return false;
    ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, point, KS_ATTACHMENT_BLEND_MODE,
                                       kBlendModeToKSEnum[blendMode]);
    return true;
}

bool KSFrameBuffer::_UnsetAttachment(int index)
{
    AutoBindKSFrameBuffer bound(_handle);
    ksFramebufferTexture2D(KS_FRAMEBUFFER, AttachmentPoint(index), KS_TEXTURE_2D, nullptr, 0);
    return true;
}

// --- Clearing and binding ---------------------------------------------------

template <class Select>
void KSFrameBuffer::_ClearSelected(Select&& select)
{
    AutoBindKSFrameBuffer bound(_handle);
    // One ksClear per attachment, so that each gets its own colour.
    for (KSFrameBufferAttachment* attachment : _listAttachments)
    {
        if (select(*attachment))
            attachment->Clear();
    }
}

void KSFrameBuffer::Clear()
{
    _ClearSelected([](KSFrameBufferAttachment&) { return true; });
}

void KSFrameBuffer::ClearAttachment(int index)
{
    _ClearSelected([index](KSFrameBufferAttachment& attachment)
                   { return attachment.GetIndex() == index; });
}

bool KSFrameBuffer::Bind()
{
    ksBindFramebuffer(KS_FRAMEBUFFER, _handle);
    return _UpdateFilter();
}

// --- The pixel filter -------------------------------------------------------

bool KSFrameBuffer::SetFilter(IKSFrameBufferFilter* filter)
{
    if (!_UpdateFilterTable(filter))
        return false;
    return _UpdateFilter();
}

void KSFrameBuffer::_ReleaseFilterTable()
{
    delete[] _pFilterTable;
    _pFilterTable = nullptr;
}

bool KSFrameBuffer::_UpdateFilterTable(IKSFrameBufferFilter* filter)
{
    _ReleaseFilterTable();
    _nFilterTableSize = 0;
    if (filter == nullptr)
        return true;

    _fFilterSize = filter->GetFilterSize();
    // Written so that a NaN size is refused as well.
    if (!(_fFilterSize >= kMinFilterSize))
        return false;

    std::uint64_t n = EntriesPerEdge(_fFilterSize);
    int limit = 0;
    ksGetIntegerv(KS_MAX_FILTER_TABLE_SIZE, &limit);
    // A negative limit, widened with its sign, caps nothing.
    const auto cap = static_cast<std::uint64_t>(static_cast<std::int64_t>(limit));
    if (!(n < cap))
        n = cap;
    _nFilterTableSize = n;
    // A table of no entries (Kestrel's limit read as 0 or below) is no
    // filter: nothing to send, and no attachment is filtered by it.
    if (n == 0)
        return true;

    if (n > std::numeric_limits<std::size_t>::max() / sizeof(float) / n)
        return false;
    _pFilterTable = new (std::nothrow) float[static_cast<std::size_t>(n * n)];
    if (_pFilterTable == nullptr)
        return false;

    // x runs along a row; both coordinates stop one step short of the size.
    const float step = _fFilterSize / static_cast<float>(n);
    for (std::uint64_t r = 0; r < n; ++r)
    {
        for (std::uint64_t c = 0; c < n; ++c)
            _pFilterTable[r * n + c] =
                filter->Sample(static_cast<float>(c) * step, static_cast<float>(r) * step);
    }
    return true;
}

bool KSFrameBuffer::_UpdateFilter()
{
    // Without a table, the neutral filter: one entry of 1 on a size of 1.
    // Should Kestrel refuse the size, it refuses the table after it too and
    // keeps the earlier one, so this table is never read past its end.
    const float neutral = 1.0f;
    const bool bTable = _pFilterTable != nullptr;
    ksFrameParameter1f(KS_FILTER_SIZE, bTable ? _fFilterSize : 1.0f);
    ksFrameParameter1i(KS_FILTER_TABLE_SIZE, bTable ? static_cast<int>(_nFilterTableSize) : 1);
    ksFrameParameterfv(KS_FILTER_TABLE, bTable ? _pFilterTable : &neutral);
    for (KSFrameBufferAttachment* attachment : _listAttachments)
    {
        // Cannot fail: Init lets no blend mode through that Kestrel lacks.
        _SetAttachment(attachment->GetIndex(), attachment);
        // Unconditional and unmatched: this ends each Bind and SetFilter. A
        // lock that the calling thread does not hold stays as it is.
        attachment->UnLock();
    }
    return true;
}

} // namespace Vireo
