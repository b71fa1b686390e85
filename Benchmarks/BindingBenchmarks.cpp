// The context's locked texture pair against the raw binding it guards: the
// pair adds a lock, a save and a restore around the same ksBindTexture.
#include "BenchSupport.h"

namespace
{

_KStexture* MakeTexture()
{
    _KStexture* texture = nullptr;
    ksGenTextures(1, &texture);
    return texture;
}

void TexturePairLibrary(benchmark::State& state)
{
    Bench::BenchContext context;
    _KStexture* texture = MakeTexture();
    Bench::AllocationProbe probe;
    for (auto _ : state)
    {
        context->BindTexture2D(texture);
        context->UnbindTexture2D();
    }
    probe.Report(state);
    ksDeleteTextures(1, &texture);
}
BENCHMARK(TexturePairLibrary)->Name("Binding/texture pair:library");

// What the pair does without its lock: query, bind, bind back.
void TexturePairReference(benchmark::State& state)
{
    Bench::BenchContext context;
    _KStexture* texture = MakeTexture();
    Bench::AllocationProbe probe;
    for (auto _ : state)
    {
        _KStexture* saved = nullptr;
        ksGetTexture(KS_TEXTURE_BINDING_2D, &saved);
        ksBindTexture(KS_TEXTURE_2D, texture);
        ksBindTexture(KS_TEXTURE_2D, saved);
    }
    probe.Report(state);
    ksDeleteTextures(1, &texture);
}
BENCHMARK(TexturePairReference)->Name("Binding/texture pair:reference");

} // namespace
