// Textures.
#include "KestrelApi/Kestrel.h"

#include "Context.h"
#include "Pixels.h"

#include <algorithm>
#include <new>

using namespace Kestrel;

namespace
{

// The texture bound at `target`: null after raising KS_INVALID_ENUM for a
// target other than KS_TEXTURE_2D, or KS_INVALID_OPERATION when none is bound.
TextureObject* BoundTexture(ApiCall& call, int target)
{
    if (target != KS_TEXTURE_2D)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture target", static_cast<unsigned>(target));
        return nullptr;
    }
    TextureObject* texture = call.Ctx()._textures.Find(call.Ctx()._nBoundTexture);
    if (!texture)
        call.Raise(KS_INVALID_OPERATION, "no texture is bound");
    return texture;
}

struct TextureParameter
{
    int _eName;
    int TextureObject::*_pField;
};

const TextureParameter kTextureParameters[] = {
    {KS_TEXTURE_MIN_FILTER, &TextureObject::_eMinFilter},
    {KS_TEXTURE_MAG_FILTER, &TextureObject::_eMagFilter},
    {KS_TEXTURE_WRAP_S, &TextureObject::_eWrapS},
    {KS_TEXTURE_WRAP_T, &TextureObject::_eWrapT},
};

// Every parameter takes the six filter and wrap values alike; one of the
// other kind is kept, and the renderer reads it as the parameter's default.
bool IsTextureValue(int value)
{
    return value == KS_NEAREST || value == KS_LINEAR || value == KS_LINEAR_MIPMAP_LINEAR ||
           value == KS_REPEAT || value == KS_CLAMP_TO_EDGE || value == KS_MIRRORED_REPEAT;
}

} // namespace

void ksGenTextures(int count, _KStexture** textures)
{
    ApiCall call("ksGenTextures", {IntArg(count), PtrArg(textures)});
    if (!call.Proceed())
    {
        ClearOutputs(count, textures);
        return;
    }
    if (count < 0 || (count > 0 && !textures))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null output");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        auto texture = std::make_shared<TextureObject>();
        texture->_nId = NewId();
        texture->_nSerial = context.NextSerial(kOK_Texture, texture->_nId);
        textures[i] = HandleOf<_KStexture>(texture->_nId);
        context._textures.Add(std::move(texture));
    }
}

void ksDeleteTextures(int count, _KStexture** textures)
{
    ApiCall call("ksDeleteTextures", {IntArg(count), PtrArg(textures)});
    if (!call.Proceed())
        return;
    if (count < 0 || (count > 0 && !textures))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null input");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        const Id id = IdOf(textures[i]);
        if (!call.CheckDeletable(kOK_Texture, id))
            continue;
        context._textures.Remove(id);
        if (context._nBoundTexture == id)
            context._nBoundTexture = 0;
        // Uniforms keep the stale id; readers look textures up by id.
        context._framebuffers.ForEach(
            [id](FramebufferObject& framebuffer)
            {
                for (AttachmentPoint& point : framebuffer._points)
                    if (point._nTexture == id)
                        point._nTexture = 0;
            });
    }
}

void ksBindTexture(int target, _KStexture* texture)
{
    ApiCall call("ksBindTexture", {EnumArg(target, kCS_Target), HandleArg(texture)});
    if (!call.Proceed())
        return;
    if (target != KS_TEXTURE_2D)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture target", static_cast<unsigned>(target));
    else if (call.CheckBindable(kOK_Texture, IdOf(texture)))
        call.Ctx()._nBoundTexture = IdOf(texture);
}

void ksGetTexture(int name, _KStexture** texture)
{
    ApiCall call("ksGetTexture", {EnumArg(name, kCS_Target), PtrArg(texture)});
    _KStexture* result = nullptr;
    if (call.Proceed())
    {
        if (name != KS_TEXTURE_BINDING_2D)
            call.Raise(KS_INVALID_ENUM, "0x%x is not the texture binding",
                       static_cast<unsigned>(name));
        else if (!texture)
            call.Raise(KS_INVALID_VALUE, "null output");
        else
            result = HandleOf<_KStexture>(call.Ctx()._nBoundTexture);
    }
    if (texture)
        *texture = result;
}

void ksTexImage2D(int target, int level, int internalFormat, int width, int height, int border,
                  int format, int type, const void* pixels)
{
    ApiCall call("ksTexImage2D",
                 {EnumArg(target, kCS_Target), IntArg(level), EnumArg(internalFormat, kCS_Format),
                  IntArg(width), IntArg(height), IntArg(border), EnumArg(format, kCS_Format),
                  EnumArg(type, kCS_PixelType), PtrArg(pixels)});
    if (!call.Proceed())
        return;
    if (target != KS_TEXTURE_2D)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture target", static_cast<unsigned>(target));
        return;
    }
    if (!IsAcceptedImageFormat(internalFormat, format, type))
    {
        call.Raise(KS_INVALID_ENUM, "format 0x%x / 0x%x with type 0x%x is not supported",
                   static_cast<unsigned>(internalFormat), static_cast<unsigned>(format),
                   static_cast<unsigned>(type));
        return;
    }
    if (level != 0 || border != 0)
    {
        call.Raise(KS_INVALID_VALUE, "level %d and border %d must both be 0", level, border);
        return;
    }
    if (width < 0 || height < 0 || width > kMaxTextureSize || height > kMaxTextureSize)
    {
        call.Raise(KS_INVALID_VALUE, "size %d x %d is outside 0..%d", width, height,
                   kMaxTextureSize);
        return;
    }
    TextureObject* texture = BoundTexture(call, target);
    if (!texture)
        return;
    std::size_t bytes = 0;
    if (!ImageBytes(width, height, format, type, &bytes))
    {
        call.Raise(KS_OUT_OF_MEMORY, "a %d x %d image is too large", width, height);
        return;
    }
    std::shared_ptr<TextureImage> image;
    try
    {
        image = std::make_shared<TextureImage>();
    }
    catch (const std::bad_alloc&)
    {
        call.Raise(KS_OUT_OF_MEMORY, "no memory for the image");
        return;
    }
    image->_nWidth = width;
    image->_nHeight = height;
    image->_eFormat = format;
    image->_eType = type;
    if (call.Ctx()._bClientStorage && pixels)
    {
        // The host's memory becomes the texture: renders and clears land there.
        image->_pClient = static_cast<unsigned char*>(const_cast<void*>(pixels));
    }
    else if (!image->_storage.Allocate(bytes, pixels))
    {
        call.Raise(KS_OUT_OF_MEMORY, "no memory for %zu bytes", bytes);
        return;
    }
    texture->_pImage = std::move(image);
    texture->_mipLevels.clear();
    ++texture->_nRevision;
}

void ksTexParameteri(int target, int name, int value)
{
    ApiCall call("ksTexParameteri",
                 {EnumArg(target, kCS_Target), EnumArg(name, kCS_TextureParameter),
                  EnumArg(value, kCS_TextureValue)});
    if (!call.Proceed())
        return;
    if (target != KS_TEXTURE_2D)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture target", static_cast<unsigned>(target));
        return;
    }
    const TextureParameter* parameter = nullptr;
    for (const TextureParameter& entry : kTextureParameters)
        if (entry._eName == name)
            parameter = &entry;
    if (!parameter)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture parameter", static_cast<unsigned>(name));
        return;
    }
    if (!IsTextureValue(value))
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture filter or wrap value",
                   static_cast<unsigned>(value));
        return;
    }
    if (TextureObject* texture = BoundTexture(call, target))
    {
        texture->*(parameter->_pField) = value;
        ++texture->_nRevision;
    }
}

void ksGenerateMipmap(int target)
{
    ApiCall call("ksGenerateMipmap", {EnumArg(target, kCS_Target)});
    if (!call.Proceed())
        return;
    TextureObject* texture = BoundTexture(call, target);
    if (!texture)
        return;
    const TextureImage* image = texture->_pImage.get();
    if (!image || image->Bytes() == 0)
    {
        call.Raise(KS_INVALID_OPERATION, "the texture has no image");
        return;
    }
    if (image->_pClient)
    {
        call.Raise(KS_INVALID_OPERATION, "the texture lives in client storage");
        return;
    }
    std::vector<MipLevel> levels;
    int width = image->_nWidth;
    int height = image->_nHeight;
    const unsigned char* source = image->Data();
    while (width > 1 || height > 1)
    {
        MipLevel level;
        level._nWidth = std::max(1, width / 2);
        level._nHeight = std::max(1, height / 2);
        std::size_t bytes = 0;
        ImageBytes(level._nWidth, level._nHeight, image->_eFormat, image->_eType, &bytes);
        if (!level._storage.Allocate(bytes, nullptr))
        {
            call.Raise(KS_OUT_OF_MEMORY, "no memory for mipmaps");
            return;
        }
        Downsample(image->_eFormat, image->_eType, source, width, height, level._storage.Data());
        width = level._nWidth;
        height = level._nHeight;
        levels.push_back(std::move(level));
        source = levels.back()._storage.Data();
    }
    texture->_mipLevels = std::move(levels);
}

void ksPixelStorei(int name, int value)
{
    ApiCall call("ksPixelStorei", {EnumArg(name, kCS_PixelStore), IntArg(value)});
    if (!call.Proceed())
        return;
    if (name != KS_UNPACK_CLIENT_STORAGE)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a pixel store parameter",
                   static_cast<unsigned>(name));
    else if (value != 0 && value != 1)
        call.Raise(KS_INVALID_VALUE, "client storage is 0 or 1, not %d", value);
    else
        call.Ctx()._bClientStorage = value == 1;
}
