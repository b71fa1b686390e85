/// \file
/// Textures of Kestrel behind the library's object model: the interfaces and
/// the 2D texture.
#ifndef VIREO_KESTRELWRAPPER_KSTEXIMAGE_H
#define VIREO_KESTRELWRAPPER_KSTEXIMAGE_H

#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

namespace Vireo
{

class IKestrelContext;

/// Base of the library's textures: holds the pixel formats they take.
class VIREO_EXPORT IKSTexImage
{
public:
    /// A fixed signed type: any int a host casts in is a value, and a negative
    /// one compares below kTF_Count.
    enum TextureFormat : int
    {
        kTF_None = 0, ///< sends zeros for format, internal format and type
        kTF_Luminance8 = 1,
        kTF_RGB8 = 2,
        kTF_RGBA8 = 3,
        kTF_RGB32F = 4,
        kTF_RGBA32F = 5,
        kTF_Luminance32F = 6,
        kTF_Count = 7,
    };

    IKSTexImage() = default;
    /// Copies nothing: the interface holds no state.
    IKSTexImage(const IKSTexImage&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSTexImage& operator=(const IKSTexImage&) = default;

    /// Deletes the Kestrel texture; repeatable.
    virtual void Shutdown() = 0;
    /// Binds the texture directly, outside the context's texture lock, and
    /// leaves it bound: call it only while no other thread works with
    /// textures of the context.
    virtual bool GenerateMipMaps() = 0;

protected:
    /// Textures go back through IKestrelContext::DestroyIKSTexImage2D.
    virtual ~IKSTexImage() = default;
};

/// Wrap modes and filters are Kestrel's own numbers, passed on unread.
class VIREO_EXPORT IKSTexImage2D : public IKSTexImage
{
public:
    IKSTexImage2D() = default;
    /// Copies nothing: the interface holds no state.
    IKSTexImage2D(const IKSTexImage2D&) = default;
    /// Assigns nothing: the interface holds no state.
    IKSTexImage2D& operator=(const IKSTexImage2D&) = default;

    /// Specifies the image anew, inside the context's texture lock, with the
    /// binding found there put back. With `clientStorage` Kestrel keeps
    /// `pixels` as the texture's storage: the memory must stay alive and in
    /// place while the texture uses it. Kestrel's errors are left pending.
    virtual bool SetImage(int width, int height, TextureFormat eFormat, int wrapMode, int minFilter,
                          int magFilter, void* pixels, bool clientStorage) = 0;
    /// Sets how coordinates outside the image wrap (KS_REPEAT, …), per axis.
    virtual void SetWrapMode(int wrapS, int wrapT) = 0;
    /// Sets the filter for a texture seen smaller than its image.
    virtual void SetMinFilter(int filter) = 0;
    /// Sets the filter for a texture seen larger than its image.
    virtual void SetMagFilter(int filter) = 0;
    /// Those of the last SetImage, even one that Kestrel refused.
    virtual int GetWidth() const = 0;
    /// Height of the last SetImage.
    virtual int GetHeight() const = 0;
    /// Format of the last SetImage.
    virtual TextureFormat GetTextureFormat() const = 0;
    /// The Kestrel handle, e.g. for a sampler uniform.
    virtual _KStexture* GetKSTexture() const = 0;

protected:
    ~IKSTexImage2D() override = default;
};

/// The library's 2D texture; hosts use it through IKSTexImage2D.
class VIREO_EXPORT KSTexImage2D : public IKSTexImage2D
{
public:
    /// A texture of `context`, with its Kestrel handle made now.
    explicit KSTexImage2D(IKestrelContext* context);
    /// Member-wise: a copy shares the handle, and only one of the two may be
    /// shut down or destroyed.
    KSTexImage2D(const KSTexImage2D&) = default;
    /// Member-wise assignment.
    KSTexImage2D& operator=(const KSTexImage2D&) = default;
    ~KSTexImage2D() override;

    /// Makes the Kestrel texture; false when Kestrel gives none.
    bool Init();

    void Shutdown() override;
    bool GenerateMipMaps() override;
    bool SetImage(int width, int height, TextureFormat eFormat, int wrapMode, int minFilter,
                  int magFilter, void* pixels, bool clientStorage) override;
    void SetWrapMode(int wrapS, int wrapT) override;
    void SetMinFilter(int filter) override;
    void SetMagFilter(int filter) override;
    int GetWidth() const override;
    int GetHeight() const override;
    TextureFormat GetTextureFormat() const override;
    _KStexture* GetKSTexture() const override;

private:
    IKestrelContext* _pContext;
    int _nWidth = 0;
    int _nHeight = 0;
    TextureFormat _eFormat = kTF_None;
    _KStexture* _pTexture = nullptr;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSTEXIMAGE_H
