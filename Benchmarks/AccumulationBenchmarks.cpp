// The running sum of an accumulating attachment against a hand-written SSE
// loop. Both sides do what a pass after the first does: accum += 1 - pass
// over every pixel, then the target is filled with the clear colour for the
// next pass. 48 bytes move per pixel in the sum (two reads, one write).
#include "BenchSupport.h"

#include <xmmintrin.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace
{

constexpr double kBytesPerPixel = 48.0;
using Clock = std::chrono::steady_clock;

struct Size
{
    const char* name;
    int width;
    int height;
};

const Size kSizes[] = {{"1080p", 1920, 1080}, {"4K", 3840, 2160}};

// Rates over the wall-clock time of the timed loop, which the summary's
// times are as well.
void ReportRates(benchmark::State& state, const Size& size, Clock::time_point start)
{
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const double pixels =
        static_cast<double>(size.width) * size.height * static_cast<double>(state.iterations());
    state.counters["Mpixel/s"] = pixels / 1e6 / seconds;
    state.counters["GB/s"] = pixels * kBytesPerPixel / 1e9 / seconds;
}

void Library(benchmark::State& state, const Size* size)
{
    using Attachment = Vireo::IKSFrameBufferAttachment;
    Bench::BenchContext context;
    Vireo::IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
    Attachment* attachment = nullptr;
    if (frameBuffer->Init(size->width, size->height))
        attachment =
            frameBuffer->CreateAttachment(0, Attachment::kF_RGBA, Attachment::kDT_Float, false,
                                          Attachment::kBM_Accumulated, Vireo::Color4f{1, 1, 1, 1});
    if (attachment == nullptr || !frameBuffer->Bind())
    {
        state.SkipWithError("no accumulating attachment");
        context->DestroyIKSFrameBuffer(frameBuffer);
        return;
    }
    frameBuffer->Clear();
    // The first pass after a clear copies instead of adding; the loop
    // measures the passes after it.
    bool ok = attachment->NotifyPassCompleted();
    const Clock::time_point start = Clock::now();
    for (auto _ : state)
    {
        ok &= attachment->NotifyPassCompleted();
        benchmark::DoNotOptimize(ok);
    }
    ReportRates(state, *size, start);
    benchmark::DoNotOptimize(attachment->GetClientBuffer());
    if (!ok)
        state.SkipWithError("NotifyPassCompleted failed");
    context->DestroyIKSFrameBuffer(frameBuffer);
}

void Reference(benchmark::State& state, const Size* size)
{
    const std::size_t pixels = static_cast<std::size_t>(size->width) * size->height;
    auto* accum = static_cast<float*>(std::aligned_alloc(16, pixels * 16));
    auto* target = static_cast<float*>(std::aligned_alloc(16, pixels * 16));
    const __m128 clear = _mm_set1_ps(1.0f);
    const __m128 one = _mm_set1_ps(1.0f);
    for (std::size_t i = 0; i < pixels; ++i)
    {
        _mm_store_ps(target + i * 4, clear);
        _mm_store_ps(accum + i * 4, _mm_setzero_ps());
    }
    const Clock::time_point start = Clock::now();
    for (auto _ : state)
    {
        for (std::size_t i = 0; i < pixels; ++i)
        {
            const __m128 left = _mm_sub_ps(one, _mm_load_ps(target + i * 4));
            _mm_store_ps(accum + i * 4, _mm_add_ps(_mm_load_ps(accum + i * 4), left));
        }
        for (std::size_t i = 0; i < pixels; ++i)
            _mm_store_ps(target + i * 4, clear);
        benchmark::DoNotOptimize(accum);
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
    }
    ReportRates(state, *size, start);
    std::free(target);
    std::free(accum);
}

int RegisterAll()
{
    for (const Size& size : kSizes)
    {
        const std::string base = std::string("Accumulate/") + size.name;
        benchmark::RegisterBenchmark((base + ":library").c_str(), Library, &size)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((base + ":reference").c_str(), Reference, &size)
            ->Unit(benchmark::kMillisecond);
    }
    return 0;
}

const int g_registered = RegisterAll();

} // namespace
