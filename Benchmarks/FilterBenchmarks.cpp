// Sampling the host's filter into a table: SetFilter against a plain loop
// that calls the same filter n x n times at the same points. SetFilter also
// allocates the table and hands it and the attachments' parameters to
// Kestrel; the ratio shows what that costs on top of the samples.
#include "BenchSupport.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace
{

// A Gaussian of standard deviation a quarter of its size, peaked at the
// centre of its square.
class GaussianFilter : public Vireo::IKSFrameBufferFilter
{
public:
    explicit GaussianFilter(float size) : _fSize(size), _fSigma(size * 0.25f) {}
    float GetFilterSize() override { return _fSize; }
    float Sample(float x, float y) override
    {
        const float dx = x - _fSize * 0.5f, dy = y - _fSize * 0.5f;
        return std::exp(-(dx * dx + dy * dy) / (2.0f * _fSigma * _fSigma));
    }

private:
    float _fSize;
    float _fSigma;
};

const float kFilterSizes[] = {0.5f, 1.0f, 2.0f, 4.0f, 8.0f};
constexpr float kSamplesPerUnit = 8.0f;

std::string Name(float size, const char* side)
{
    char text[64];
    std::snprintf(text, sizeof(text), "Filter/size %g:%s", static_cast<double>(size), side);
    return text;
}

void Library(benchmark::State& state, float size)
{
    Bench::BenchContext context;
    Vireo::IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
    GaussianFilter filter(size);
    bool ok = frameBuffer->Init(64, 64);
    for (auto _ : state)
    {
        ok &= frameBuffer->SetFilter(&filter);
        benchmark::DoNotOptimize(ok);
    }
    const auto* concrete = dynamic_cast<Vireo::KSFrameBuffer*>(frameBuffer);
    if (!ok || concrete == nullptr || concrete->GetFilterTable() == nullptr)
        state.SkipWithError("SetFilter failed");
    else
        state.counters["entries"] =
            static_cast<double>(concrete->GetFilterTableSize() * concrete->GetFilterTableSize());
    context->DestroyIKSFrameBuffer(frameBuffer);
}

void Reference(benchmark::State& state, float size)
{
    Bench::BenchContext context;
    int limit = 0;
    ksGetIntegerv(KS_MAX_FILTER_TABLE_SIZE, &limit);
    std::uint64_t n = static_cast<std::uint64_t>(size * kSamplesPerUnit);
    if (limit >= 0 && n > static_cast<std::uint64_t>(limit))
        n = static_cast<std::uint64_t>(limit);
    GaussianFilter gaussian(size);
    // Called through the interface, as the library calls it.
    Vireo::IKSFrameBufferFilter* filter = &gaussian;
    benchmark::DoNotOptimize(filter);
    std::vector<float> table(static_cast<std::size_t>(n * n));
    const float step = filter->GetFilterSize() / static_cast<float>(n);
    for (auto _ : state)
    {
        for (std::uint64_t r = 0; r < n; ++r)
            for (std::uint64_t c = 0; c < n; ++c)
                table[r * n + c] =
                    filter->Sample(static_cast<float>(c) * step, static_cast<float>(r) * step);
        benchmark::DoNotOptimize(table.data());
        benchmark::ClobberMemory();
    }
    state.counters["entries"] = static_cast<double>(n * n);
}

int RegisterAll()
{
    for (float size : kFilterSizes)
    {
        benchmark::RegisterBenchmark(Name(size, "library").c_str(), Library, size);
        benchmark::RegisterBenchmark(Name(size, "reference").c_str(), Reference, size);
    }
    return 0;
}

const int g_registered = RegisterAll();

} // namespace
