// Turning accumulated radiance into files a person can open.
#ifndef VIREO_EXAMPLES_RENDER_IMAGEOUTPUT_H
#define VIREO_EXAMPLES_RENDER_IMAGEOUTPUT_H

#include <string>
#include <vector>

namespace VireoRender
{

// An RGBA float image, row 0 at the top.
struct RadianceImage
{
    int width = 0;
    int height = 0;
    std::vector<float> rgba; // width * height * 4
};

// Tone-maps (exposure, then a filmic curve) and encodes sRGB. Gives an
// empty string on success, otherwise what went wrong.
std::string WritePng(const RadianceImage& image, float exposure, const std::string& path);

// The float radiance as it is, half floats, RGBA.
std::string WriteExr(const RadianceImage& image, const std::string& path);

// One linear value to an 8-bit sRGB code after exposure and tone mapping.
unsigned char ToneMapToSrgb8(float linear, float exposure);

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_IMAGEOUTPUT_H
