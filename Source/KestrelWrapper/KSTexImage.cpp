#include "KestrelWrapper/KSTexImage.h"

#include "Foundation/AssertSite.h"
#include "KestrelWrapper/AutoContextTexture2D.h"
#include "KestrelWrapper/KestrelContextImp.h"
#include "KestrelWrapper/ObjectFactory.h"

#include <memory>

namespace Vireo
{

namespace
{

// What ksTexImage2D takes for each TextureFormat. Format and internal format
// agree row by row, yet each has a table and a lookup of its own.
const int kFormats[IKSTexImage::kTF_Count] = {
    0, KS_LUMINANCE, KS_RGB, KS_RGBA, KS_RGB, KS_RGBA, KS_LUMINANCE,
};
const int kInternalFormats[IKSTexImage::kTF_Count] = {
    0, KS_LUMINANCE, KS_RGB, KS_RGBA, KS_RGB, KS_RGBA, KS_LUMINANCE,
};
const int kTypes[IKSTexImage::kTF_Count] = {
    0, KS_UNSIGNED_BYTE, KS_UNSIGNED_BYTE, KS_UNSIGNED_BYTE, KS_FLOAT, KS_FLOAT, KS_FLOAT,
};

// One assertion site per table; each line number instantiates a site, and so
// a latch, of its own. The comparison is signed, so a negative value passes
// the site, but no value outside the table is read: whatever the handler
// answered, the lookup then fails.
template <int nLine>
bool LookUp(const int (&table)[IKSTexImage::kTF_Count], IKSTexImage::TextureFormat eFormat,
            int& nValue)
{
    VIREO_ASSERT_SITE(eFormat < IKSTexImage::kTF_Count, "eFormat < IKSTexImage::kTF_Count", nLine,
                      "Source/KestrelWrapper/KSTexImage");
    if (eFormat < 0 || eFormat >= IKSTexImage::kTF_Count)
        return false;
    nValue = table[eFormat];
    return true;
}

bool FormatToKSEnum(IKSTexImage::TextureFormat eFormat, int& nFormat)
{
    return LookUp<51>(kFormats, eFormat, nFormat);
}

bool InternalFormatToKSEnum(IKSTexImage::TextureFormat eFormat, int& nInternalFormat)
{
    return LookUp<60>(kInternalFormats, eFormat, nInternalFormat);
}

bool TypeToKSEnum(IKSTexImage::TextureFormat eFormat, int& nType)
{
    return LookUp<69>(kTypes, eFormat, nType);
}

} // namespace

// --- The context's pair ------------------------------------------------------

IKSTexImage2D* KestrelContextImp::CreateIKSTexImage2D()
{
    return Factory::MakeCounted(
        std::make_unique<KSTexImage2D>(this), [](KSTexImage2D& texture) { return texture.Init(); },
        _nTexImages2D);
}

bool KestrelContextImp::DestroyIKSTexImage2D(IKSTexImage2D* texture)
{
    return Factory::DestroyCounted<KSTexImage2D>(texture, _nTexImages2D);
}

// --- KSTexImage2D ----------------------------------------------------------------

KSTexImage2D::KSTexImage2D(IKestrelContext* context) : _pContext(context) {}

KSTexImage2D::~KSTexImage2D()
{
    KSTexImage2D::Shutdown();
    _pContext = nullptr;
}

bool KSTexImage2D::Init()
{
    ksGenTextures(1, &_pTexture);
    return _pTexture != nullptr;
}

void KSTexImage2D::Shutdown()
{
    if (_pTexture != nullptr)
    {
        ksDeleteTextures(1, &_pTexture);
        _pTexture = nullptr;
    }
    _nWidth = 0;
    _nHeight = 0;
    _eFormat = kTF_None;
}

bool KSTexImage2D::GenerateMipMaps()
{
    ksBindTexture(KS_TEXTURE_2D, _pTexture);
    ksGenerateMipmap(KS_TEXTURE_2D);
    return ksGetError() == 0;
}

bool KSTexImage2D::SetImage(int width, int height, TextureFormat eFormat, int wrapMode,
                            int minFilter, int magFilter, void* pixels, bool clientStorage)
{
    if (_pContext == nullptr || _pTexture == nullptr)
        return false;
    _nWidth = width;
    _nHeight = height;
    _eFormat = eFormat;

    // Each lookup asks the handler on its own, so all three run before the
    // outcome is looked at.
    int nFormat = 0;
    int nInternalFormat = 0;
    int nType = 0;
    const bool bFormat = FormatToKSEnum(eFormat, nFormat);
    const bool bInternalFormat = InternalFormatToKSEnum(eFormat, nInternalFormat);
    const bool bType = TypeToKSEnum(eFormat, nType);
    if (!bFormat || !bInternalFormat || !bType)
        return false;

    // Client storage is global to Kestrel: the lock keeps it on for exactly
    // this one image.
    AutoContextTexture2D binding(_pContext, _pTexture);
    if (clientStorage)
        ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 1);
    ksTexImage2D(KS_TEXTURE_2D, 0, nInternalFormat, _nWidth, _nHeight, 0, nFormat, nType, pixels);
    if (clientStorage)
        ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 0);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MIN_FILTER, minFilter);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MAG_FILTER, magFilter);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, wrapMode);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_T, wrapMode);
    return true;
}

void KSTexImage2D::SetWrapMode(int wrapS, int wrapT)
{
    AutoContextTexture2D binding(_pContext, _pTexture);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, wrapS);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_T, wrapT);
}

void KSTexImage2D::SetMinFilter(int filter)
{
    AutoContextTexture2D binding(_pContext, _pTexture);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MIN_FILTER, filter);
}

void KSTexImage2D::SetMagFilter(int filter)
{
    AutoContextTexture2D binding(_pContext, _pTexture);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MAG_FILTER, filter);
}

int KSTexImage2D::GetWidth() const
{
    return _nWidth;
}

int KSTexImage2D::GetHeight() const
{
    return _nHeight;
}

IKSTexImage::TextureFormat KSTexImage2D::GetTextureFormat() const
{
    return _eFormat;
}

_KStexture* KSTexImage2D::GetKSTexture() const
{
    return _pTexture;
}

} // namespace Vireo
