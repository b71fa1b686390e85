// A uniform setter against the three Kestrel calls it stands for: bind the
// primitive, set the value, take the error. Trace is off, as in a host's
// render loop; the setter must add no allocation to what Kestrel makes.
#include "BenchSupport.h"

#include <functional>
#include <string>

namespace
{

const float kFloats[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const int kInts[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
const Vireo::Matrix44f kMatrices[1] = {};
const Vireo::Vector3f kVector3f = {1, 2, 3};
const Vireo::Vector3i kVector3i = {1, 2, 3};
const std::string kName = "u";
constexpr int kLocation = 0;

struct Family
{
    const char* name;
    std::function<bool(Vireo::IKSPrimitive&, KSprimitive value)> setter;
    std::function<void(KSprimitive value)> raw; // the uniform call alone
};

const Family kFamilies[] = {
    {"float",
     [](Vireo::IKSPrimitive& p, KSprimitive) { return p.SetUniform(kName, kLocation, 0.5f); },
     [](KSprimitive) { ksUniform1f(kLocation, 0.5f); }},
    {"vec3",
     [](Vireo::IKSPrimitive& p, KSprimitive) { return p.SetUniform(kName, kLocation, kVector3f); },
     [](KSprimitive) { ksUniform3fv(kLocation, 1, &kVector3f.x); }},
    {"float[4]",
     [](Vireo::IKSPrimitive& p, KSprimitive) { return p.SetUniform(kName, kLocation, 4, kFloats); },
     [](KSprimitive) { ksUniform1fv(kLocation, 4, kFloats); }},
    {"mat4[1]",
     [](Vireo::IKSPrimitive& p, KSprimitive)
     { return p.SetUniform(kName, kLocation, std::uint64_t(1), kMatrices); },
     [](KSprimitive) { ksUniformMatrix4fv(kLocation, 1, 1, &kMatrices[0].m[0][0]); }},
    {"int", [](Vireo::IKSPrimitive& p, KSprimitive) { return p.SetUniform(kName, kLocation, 7); },
     [](KSprimitive) { ksUniform1i(kLocation, 7); }},
    {"ivec3",
     [](Vireo::IKSPrimitive& p, KSprimitive) { return p.SetUniform(kName, kLocation, kVector3i); },
     [](KSprimitive) { ksUniform3iv(kLocation, 1, &kVector3i.x); }},
    {"int[3][4]",
     [](Vireo::IKSPrimitive& p, KSprimitive)
     { return p.SetUniform(kName, kLocation, 3, std::uint64_t(4), kInts); },
     [](KSprimitive) { ksUniform3iv(kLocation, 4, kInts); }},
    {"texture",
     [](Vireo::IKSPrimitive& p, KSprimitive)
     { return p.SetUniform(kName, kLocation, static_cast<_KStexture*>(nullptr)); },
     [](KSprimitive) { ksUniformt(kLocation, nullptr); }},
    {"prim",
     [](Vireo::IKSPrimitive& p, KSprimitive value)
     { return p.SetUniform(kName, kLocation, value); },
     [](KSprimitive value) { ksUniformp(kLocation, value); }},
};

void Library(benchmark::State& state, const Family* family)
{
    Bench::BenchContext context;
    Vireo::IKSPrimitive* primitive = context->CreateIKSPrimitive();
    Vireo::IKSPrimitive* value = context->CreateIKSPrimitive();
    const KSprimitive valueHandle = value->GetHandle();
    bool ok = family->setter(*primitive, valueHandle); // first value stored outside the count
    Bench::AllocationProbe probe;
    for (auto _ : state)
    {
        ok &= family->setter(*primitive, valueHandle);
        benchmark::DoNotOptimize(ok);
    }
    probe.Report(state);
    if (!ok)
        state.SkipWithError("the setter failed");
    context->DestroyIKSPrimitive(value);
    context->DestroyIKSPrimitive(primitive);
}

void Reference(benchmark::State& state, const Family* family)
{
    Bench::BenchContext context;
    Vireo::IKSPrimitive* primitive = context->CreateIKSPrimitive();
    Vireo::IKSPrimitive* value = context->CreateIKSPrimitive();
    const KSprimitive handle = primitive->GetHandle();
    const KSprimitive valueHandle = value->GetHandle();
    family->raw(valueHandle);
    int errors = 0;
    Bench::AllocationProbe probe;
    for (auto _ : state)
    {
        ksBindPrimitive(KS_PRIMITIVE, handle);
        family->raw(valueHandle);
        errors |= ksGetError();
        benchmark::DoNotOptimize(errors);
    }
    probe.Report(state);
    if (errors != 0)
        state.SkipWithError("a raw call failed");
    context->DestroyIKSPrimitive(value);
    context->DestroyIKSPrimitive(primitive);
}

int RegisterAll()
{
    for (const Family& family : kFamilies)
    {
        const std::string base = std::string("Setter/") + family.name;
        benchmark::RegisterBenchmark((base + ":library").c_str(), Library, &family);
        benchmark::RegisterBenchmark((base + ":reference").c_str(), Reference, &family);
    }
    return 0;
}

const int g_registered = RegisterAll();

} // namespace
