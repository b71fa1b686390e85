// Pixel formats and types of textures: which ones exist, how large a pixel
// is, and how a colour becomes the bytes of one.
#ifndef KESTREL_PIXELS_H
#define KESTREL_PIXELS_H

#include <cstddef>

namespace Kestrel
{

// 1, 3 or 4 for KS_LUMINANCE, KS_RGB, KS_RGBA; 0 otherwise.
int ChannelCount(int format);
// Bytes of one channel of a pixel type; 0 for an unknown type.
int ChannelBytes(int type);
// Bytes of one pixel, ChannelCount * ChannelBytes; 0 when either is unknown.
std::size_t PixelBytes(int format, int type);

// ksTexImage2D takes a format equal to its internal format, with one of
// the six pixel types, or 0 for all three: an image without pixels.
bool IsAcceptedImageFormat(int internalFormat, int format, int type);

// Bytes of a width x height image; false when that is more than the
// runtime hands out. 0 for the format 0.
bool ImageBytes(int width, int height, int format, int type, std::size_t* bytes);

// One pixel of `format`/`type` for an RGBA colour: luminance takes red, RGB
// drops alpha; floats are stored as they are, unsigned types are clamped to
// [0, 1] and signed ones to [-1, 1], then scaled to the type's largest value
// and rounded. `pixel` must hold ChannelCount * ChannelBytes bytes.
void EncodePixel(int format, int type, const float rgba[4], unsigned char* pixel);

// The RGBA colour of one pixel of `format`/`type`, the inverse of
// EncodePixel up to rounding: normalized types map back to [0, 1] or
// [-1, 1]; luminance fills red, green and blue; a missing alpha is 1.
void DecodePixel(int format, int type, const unsigned char* pixel, float rgba[4]);

// Repeats one pixel of `pixelBytes` over `pixelCount` pixels.
void FillPixels(unsigned char* data, std::size_t pixelCount, const unsigned char* pixel,
                std::size_t pixelBytes);

// The next mipmap level: each pixel the mean of a 2 x 2 block of the source
// (clamped at odd edges), the result max(1, w/2) x max(1, h/2).
void Downsample(int format, int type, const unsigned char* source, int width, int height,
                unsigned char* target);

} // namespace Kestrel

#endif // KESTREL_PIXELS_H
