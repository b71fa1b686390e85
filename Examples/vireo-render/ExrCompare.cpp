// vireo-exr-compare A.exr B.exr [tolerance]: exit 0 when the two float
// images have one size and every component of every pixel agrees within
// `tolerance` (default 1e-5) of the larger magnitude. Sums of the same
// passes added in another order differ by far less; other samples, a lost
// pass or a wrong scale by far more.
#include <tinyexr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace
{

float* Load(const char* path, int* width, int* height)
{
    float* rgba = nullptr;
    const char* error = nullptr;
    if (LoadEXR(&rgba, width, height, path, &error) < 0)
    {
        std::fprintf(stderr, "vireo-exr-compare: cannot read %s: %s\n", path,
                     error ? error : "unknown error");
        FreeEXRErrorMessage(error);
        return nullptr;
    }
    return rgba;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4)
    {
        std::fprintf(stderr, "usage: vireo-exr-compare A.exr B.exr [tolerance]\n");
        return 2;
    }
    const double tolerance = argc == 4 ? std::atof(argv[3]) : 1e-5;
    int width[2] = {}, height[2] = {};
    float* a = Load(argv[1], &width[0], &height[0]);
    float* b = Load(argv[2], &width[1], &height[1]);
    int status = a && b ? 0 : 2;
    if (status == 0 && (width[0] != width[1] || height[0] != height[1]))
    {
        std::fprintf(stderr, "vireo-exr-compare: %dx%d against %dx%d\n", width[0], height[0],
                     width[1], height[1]);
        status = 1;
    }
    if (status == 0)
    {
        const long count = static_cast<long>(width[0]) * height[0] * 4;
        long differing = 0;
        double worst = 0.0;
        for (long i = 0; i < count; ++i)
        {
            const double x = a[i], y = b[i];
            const double scale = std::max(std::fabs(x), std::fabs(y));
            const double relative = scale > 0.0 ? std::fabs(x - y) / scale : 0.0;
            worst = std::max(worst, std::isnan(relative) ? INFINITY : relative);
            differing += !(relative <= tolerance) ? 1 : 0;
        }
        std::printf("%ld of %ld components differ by more than %g; the largest relative "
                    "difference is %.3g\n",
                    differing, count, tolerance, worst);
        status = differing == 0 ? 0 : 1;
    }
    std::free(a);
    std::free(b);
    return status;
}
