#include "KestrelWrapper/KSFrameBufferAttachment.h"

#include "KestrelWrapper/AutoContextTexture2D.h"
#include "KestrelWrapper/IKestrelContext.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>

// The pass sum runs over every pixel of every pass, so it is written as one
// four-lane operation per pixel. Defining VIREO_PORTABLE_PASS_SUM forces the
// plain loop, e.g. to check it on x86-64.
#if (defined(__SSE__) || defined(__x86_64__) || defined(_M_X64)) &&                                \
    !defined(VIREO_PORTABLE_PASS_SUM)
#define VIREO_PASS_SUM_SSE 1
#include <xmmintrin.h>
#else
#define VIREO_PASS_SUM_SSE 0
#endif

namespace Vireo
{

namespace
{

// One pixel is four 32-bit floats; both buffers are aligned to one pixel so
// that the sum can use aligned loads and stores.
constexpr std::size_t kPixelBytes = 16;
constexpr std::size_t kPixelAlignment = 16;
constexpr int kFloatsPerPixel = 4;
static_assert(kPixelBytes == kFloatsPerPixel * sizeof(float), "a pixel is four floats");
static_assert(sizeof(Color4f) == kPixelBytes, "a clear colour is copied as one pixel");

// Kestrel's numbers for the enums, indexed by value. A format entry serves
// as both internal format and format.
constexpr int kFormatToKSEnum[] = {KS_LUMINANCE, 0, KS_RGB, KS_RGBA};
constexpr int kDataTypeToKSEnum[] = {
    KS_UNSIGNED_BYTE, KS_UNSIGNED_SHORT, KS_UNSIGNED_INT, KS_SHORT, KS_INT, 0, KS_FLOAT};
static_assert(sizeof(kFormatToKSEnum) / sizeof(int) == IKSFrameBufferAttachment::kF_RGBA + 1,
              "one entry per format");
static_assert(sizeof(kDataTypeToKSEnum) / sizeof(int) == IKSFrameBufferAttachment::kDT_Float + 1,
              "one entry per data type");

// The mask of ksClear for one attachment. Index 16 reaches the top bit;
// higher indices shift out and select nothing, as do negative ones.
unsigned ClearMask(int index)
{
    if (index < 0 || index >= 32)
        return 0;
    return static_cast<unsigned>(KS_COLOR_ATTACHMENT0_BIT) << index;
}

bool InRange(int value, int last)
{
    return value >= 0 && value <= last;
}

// Byte counts stay within 32 signed bits: a product that does not
// fit is refused instead of wrapping into a short buffer.
constexpr long long kMaxPixels = std::numeric_limits<std::int32_t>::max() / kPixelBytes;

// Storage for one buffer, or null: only RGBA float pixels can be allocated,
// and only for a positive size that fits.
float* AllocatePixels(IKSFrameBufferAttachment::eFormat format,
                      IKSFrameBufferAttachment::eDataType dataType, int width, int height)
{
    if (format != IKSFrameBufferAttachment::kF_RGBA ||
        dataType != IKSFrameBufferAttachment::kDT_Float)
        return nullptr;
    if (width < 1 || height < 1)
        return nullptr;
    const long long pixels = static_cast<long long>(width) * height;
    if (pixels > kMaxPixels)
        return nullptr;
    return static_cast<float*>(
        std::aligned_alloc(kPixelAlignment, static_cast<std::size_t>(pixels) * kPixelBytes));
}

// accum = 1 - client on the first pass after a clear, accum += 1 - client
// after that; the difference is formed first, then added.
template <bool kFirstPass>
void SumPass(float* accum, const float* client, std::size_t pixels)
{
#if VIREO_PASS_SUM_SSE
    const __m128 one = _mm_set1_ps(1.0f);
    for (std::size_t i = 0; i < pixels; ++i)
    {
        float* target = accum + i * kFloatsPerPixel;
        const __m128 left = _mm_sub_ps(one, _mm_load_ps(client + i * kFloatsPerPixel));
        if (kFirstPass)
            _mm_store_ps(target, left);
        else
            _mm_store_ps(target, _mm_add_ps(_mm_load_ps(target), left));
    }
#else
    for (std::size_t i = 0; i < pixels * kFloatsPerPixel; ++i)
    {
        const float left = 1.0f - client[i];
        accum[i] = kFirstPass ? left : accum[i] + left;
    }
#endif
}

} // namespace

KSFrameBufferAttachment::KSFrameBufferAttachment(IKestrelContext* context)
    : _pContext(context), _pClearColor(std::make_unique<Color4f>())
{
}

KSFrameBufferAttachment::~KSFrameBufferAttachment()
{
    KSFrameBufferAttachment::Shutdown();
}

bool KSFrameBufferAttachment::Init(int width, int height, int index, eFormat format,
                                   eDataType dataType, bool filterEnabled, eBlendMode blendMode,
                                   const Color4f& clearColor)
{
    if (width < 1 || height < 1 || !InRange(format, kF_RGBA) || !InRange(dataType, kDT_Float) ||
        !InRange(blendMode, kBM_Mode3))
        return false;

    _pClientBuffer = AllocatePixels(format, dataType, width, height);
    if (_pClientBuffer == nullptr)
        return false;
    if (blendMode == kBM_Accumulated)
    {
        _pAccumBuffer = AllocatePixels(format, dataType, width, height);
        if (_pAccumBuffer == nullptr)
        {
            _FreeBuffers();
            return false;
        }
        _bFirstPass = true;
    }

    ksGenTextures(1, &_pTexture);
    if (_pTexture == nullptr)
    {
        _FreeBuffers();
        return false;
    }
    _SpecifyTexture(width, height, format, dataType);
    if (ksGetError() != 0)
    {
        // The texture may hold our memory even though an error is pending.
        _DetachStorageFromTexture();
        _FreeBuffers();
        return false;
    }

    _eFormat = format;
    _bFilterEnabled = filterEnabled;
    _eDataType = dataType;
    _nIndex = index;
    _nWidth = width;
    _nHeight = height;
    _eBlendMode = blendMode;
    *_pClearColor = clearColor;
    return true;
}

bool KSFrameBufferAttachment::Resize(int width, int height)
{
    if (width == _nWidth && height == _nHeight)
        return true;

    // Kestrel lets go of the old memory before it is freed, so that neither
    // a failed allocation nor a failed ksTexImage2D below leaves it with a
    // pointer into freed memory.
    if (_pClientBuffer != nullptr)
        _DetachStorageFromTexture();
    _FreeBuffers();

    _pClientBuffer = AllocatePixels(_eFormat, _eDataType, width, height);
    if (_pClientBuffer == nullptr)
        return false;
    if (_eBlendMode == kBM_Accumulated)
    {
        _pAccumBuffer = AllocatePixels(_eFormat, _eDataType, width, height);
        if (_pAccumBuffer == nullptr)
        {
            _FreeBuffers();
            return false;
        }
        _bFirstPass = true;
    }
    _nWidth = width;
    _nHeight = height;
    // Errors stay pending for the context's error check.
    _SpecifyTexture(width, height, _eFormat, _eDataType);
    return true;
}

void KSFrameBufferAttachment::Clear()
{
    _ClearTarget();
    _bFirstPass = true;
}

void KSFrameBufferAttachment::Shutdown()
{
    if (_pTexture != nullptr)
    {
        ksDeleteTextures(1, &_pTexture);
        _pTexture = nullptr;
    }
    if (_pClientBuffer != nullptr)
    {
        _FreeBuffers();
        _nWidth = 0;
        _nHeight = 0;
    }
}

bool KSFrameBufferAttachment::NotifyPassCompleted()
{
    if (_pAccumBuffer == nullptr)
        return true;
    if (_eDataType != kDT_Float || _eFormat != kF_RGBA)
        return false;

    // Non-negative and within kMaxPixels: AllocatePixels made both buffers
    // for exactly this size.
    const auto pixels = static_cast<std::size_t>(_nWidth) * static_cast<std::size_t>(_nHeight);
    if (_bFirstPass)
    {
        SumPass<true>(_pAccumBuffer, _pClientBuffer, pixels);
        _bFirstPass = false;
    }
    else
    {
        SumPass<false>(_pAccumBuffer, _pClientBuffer, pixels);
    }
    _ClearTarget();
    return true;
}

IKestrelContext* KSFrameBufferAttachment::GetKestrelContext()
{
    return _pContext;
}

int KSFrameBufferAttachment::GetIndex()
{
    return _nIndex;
}

bool KSFrameBufferAttachment::Lock(unsigned long timeoutMs)
{
    return _mutex.Acquire(timeoutMs);
}

void KSFrameBufferAttachment::UnLock()
{
    _mutex.Release();
}

_KStexture*& KSFrameBufferAttachment::GetKSTexture()
{
    return _pTexture;
}

unsigned char* KSFrameBufferAttachment::GetClientBuffer()
{
    float* buffer = _pAccumBuffer != nullptr ? _pAccumBuffer : _pClientBuffer;
    return reinterpret_cast<unsigned char*>(buffer);
}

IKSFrameBufferAttachment::eFormat KSFrameBufferAttachment::Format() const
{
    return _eFormat;
}

IKSFrameBufferAttachment::eDataType KSFrameBufferAttachment::DataType() const
{
    return _eDataType;
}

bool KSFrameBufferAttachment::FilterEnabled() const
{
    return _bFilterEnabled;
}

IKSFrameBufferAttachment::eBlendMode KSFrameBufferAttachment::BlendMode() const
{
    return _eBlendMode;
}

const Color4f& KSFrameBufferAttachment::ClearColor() const
{
    return *_pClearColor;
}

// Client storage is one setting for all of Kestrel, so it is switched on
// only inside the context's texture lock, around this one ksTexImage2D.
void KSFrameBufferAttachment::_SpecifyTexture(int width, int height, eFormat format,
                                              eDataType dataType)
{
    const int ksFormat = kFormatToKSEnum[format];
    AutoContextTexture2D binding(_pContext, _pTexture);
    ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 1);
    ksTexImage2D(KS_TEXTURE_2D, 0, ksFormat, width, height, 0, ksFormat,
                 kDataTypeToKSEnum[dataType], _pClientBuffer);
    ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 0);
}

// An empty image of Kestrel's own: 0 x 0, no pixels, no client storage.
// Renders and clears then have nothing of ours to write to, and a frame
// with other attachments at a real size is refused for the mismatch.
void KSFrameBufferAttachment::_DetachStorageFromTexture()
{
    if (_pTexture == nullptr)
        return;
    AutoContextTexture2D binding(_pContext, _pTexture);
    ksTexImage2D(KS_TEXTURE_2D, 0, 0, 0, 0, 0, 0, 0, nullptr);
}

void KSFrameBufferAttachment::_FreeBuffers()
{
    std::free(_pClientBuffer);
    _pClientBuffer = nullptr;
    std::free(_pAccumBuffer);
    _pAccumBuffer = nullptr;
}

void KSFrameBufferAttachment::_ClearTarget()
{
    ksClearColor(_pClearColor->r, _pClearColor->g, _pClearColor->b, _pClearColor->a);
    ksClear(ClearMask(_nIndex));
}

} // namespace Vireo
