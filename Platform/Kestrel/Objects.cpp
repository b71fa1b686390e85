#include "Objects.h"

#include "Pixels.h"

#include <cstring>
#include <new>

namespace Kestrel
{

bool Storage::Allocate(std::size_t size, const void* copy)
{
    _pData.reset();
    _nSize = 0;
    if (size > kMaxStorageBytes)
        return false;
    // One byte at least, so that empty storage still has an address.
    const std::size_t bytes = size == 0 ? 1 : size;
    // calloc rather than new: large zeroed storage stays untouched until used.
    unsigned char* data =
        static_cast<unsigned char*>(copy ? std::malloc(bytes) : std::calloc(bytes, 1));
    if (!data)
        return false;
    if (copy && size != 0)
        std::memcpy(data, copy, size);
    try
    {
        _pData.reset(data, Free());
    }
    catch (const std::bad_alloc&)
    {
        return false; // the deleter has freed the bytes
    }
    _nSize = size;
    return true;
}

std::size_t TextureImage::Bytes() const
{
    std::size_t bytes = 0;
    ImageBytes(_nWidth, _nHeight, _eFormat, _eType, &bytes);
    return bytes;
}

const char* UniformTypeName(UniformType type)
{
    static const char* const kNames[kUT_Count] = {"float", "vec2",  "vec3",    "vec4",
                                                  "int",   "ivec2", "ivec3",   "ivec4",
                                                  "mat3",  "mat4",  "texture", "primitive"};
    return type >= 0 && type < kUT_Count ? kNames[type] : "?";
}

} // namespace Kestrel
