#include "ImageOutput.h"

#include <png.h>
#include <tinyexr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace VireoRender
{

namespace
{

// A fitted filmic curve: gentle toe, soft shoulder, white reached near 10.
float Filmic(float x)
{
    const float a = 2.51f, b = 0.03f, c = 2.43f, d = 0.59f, e = 0.14f;
    return std::clamp((x * (a * x + b)) / (x * (c * x + d) + e), 0.0f, 1.0f);
}

float LinearToSrgb(float x)
{
    return x <= 0.0031308f ? 12.92f * x : 1.055f * std::pow(x, 1.0f / 2.4f) - 0.055f;
}

struct FileCloser
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

unsigned char ToneMapToSrgb8(float linear, float exposure)
{
    if (!(linear > 0.0f)) // also NaN
        return 0;
    const float encoded = LinearToSrgb(Filmic(linear * exposure));
    return static_cast<unsigned char>(std::lround(encoded * 255.0f));
}

std::string WritePng(const RadianceImage& image, float exposure, const std::string& path)
{
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file)
        return "cannot open " + path + " for writing";

    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (info == nullptr)
    {
        png_destroy_write_struct(&png, nullptr);
        return "libpng could not start";
    }

    std::vector<unsigned char> rows(static_cast<std::size_t>(image.width) * image.height * 3);
    for (std::size_t i = 0, n = rows.size() / 3; i < n; ++i)
        for (int c = 0; c < 3; ++c)
            rows[i * 3 + c] = ToneMapToSrgb8(image.rgba[i * 4 + c], exposure);
    std::vector<png_bytep> rowPointers(static_cast<std::size_t>(image.height));
    for (int y = 0; y < image.height; ++y)
        rowPointers[static_cast<std::size_t>(y)] =
            rows.data() + static_cast<std::size_t>(y) * image.width * 3;

    // libpng reports errors by longjmp; nothing with a destructor is made
    // between here and the end of the writing.
    if (setjmp(png_jmpbuf(png)))
    {
        png_destroy_write_struct(&png, &info);
        return "libpng failed while writing " + path;
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width),
                 static_cast<png_uint_32>(image.height), 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png, info);
    png_write_image(png, rowPointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return std::string();
}

std::string WriteExr(const RadianceImage& image, const std::string& path)
{
    const char* error = nullptr;
    // 32-bit floats: halves would hide differences well above a float's.
    const int status =
        SaveEXR(image.rgba.data(), image.width, image.height, 4, 0, path.c_str(), &error);
    if (status >= 0)
        return std::string();
    std::string text = "cannot write " + path + ": " + (error ? error : "unknown error");
    if (error != nullptr)
        FreeEXRErrorMessage(error);
    return text;
}

} // namespace VireoRender
