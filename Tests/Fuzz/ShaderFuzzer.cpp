// libFuzzer target over the shading language: compile an arbitrary source as
// the kind its first byte picks, then link it alone and beside a good shader
// of each other kind, and ask for locations. Anything but a clean status and
// log is a finding: a crash, a hang, a leak or a sanitizer report.
#include "KestrelApi/Kestrel.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{

const int kKinds[4] = {KS_LINK_ONCE_SHADER, KS_VERTEX_SHADER, KS_SHADER_KIND_2, KS_SHADER_KIND_3};

// One good source per kind, to link the fuzzed one against.
const char* const kPartners[4] = {
    "uniform vec3 shared_colour;\n",
    "uniform vec3 center;\nuniform float radius = 1.0;\nsphere(center, radius);\n",
    "uniform vec3 albedo;\ndiffuse(albedo);\n",
    "output(0, radiance);\n",
};

// The source goes in as two strings with lengths, split in the middle, so
// that concatenation and bytes past a zero are exercised too.
_KSshader* Compile(int kind, const std::string& source)
{
    _KSshader* shader = ksCreateShader(kind);
    const std::size_t half = source.size() / 2;
    const char* strings[2] = {source.data(), source.data() + half};
    const int lengths[2] = {static_cast<int>(half), static_cast<int>(source.size() - half)};
    ksShaderSource(shader, 2, strings, lengths);
    ksCompileShader(shader);
    return shader;
}

void Link(_KSshader* a, _KSshader* b)
{
    _KSprogram* program = ksCreateProgram();
    ksAttachShader(program, a);
    if (b != nullptr)
        ksAttachShader(program, b);
    ksLinkProgram(program);
    int linked = 0;
    ksGetProgramiv(program, KS_LINK_STATUS, &linked);
    const char* log = nullptr;
    ksGetProgramString(program, KS_PROGRAM_LOG, &log);
    if (linked != 0 && log != nullptr && log[0] != '\0')
        std::abort(); // a good link has an empty log
    for (const char* name : {"center", "radius", "albedo", "mesh", "shared_colour", ""})
    {
        ksGetUniformLocation(program, name);
        ksGetUniformBlockIndex(program, name);
        ksGetAttribLocation(program, name);
    }
    ksDeleteProgram(program);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static void* const context = []
    {
        void* made = KestrelCreateContext(nullptr, nullptr, nullptr);
        KestrelSetCurrentContext(made);
        return made;
    }();
    if (context == nullptr || size == 0)
        return 0;
    const int kind = data[0] % 4;
    const std::string source(reinterpret_cast<const char*>(data + 1), size - 1);

    _KSshader* shader = Compile(kKinds[kind], source);
    int compiled = 0;
    ksGetShaderiv(shader, KS_COMPILE_STATUS, &compiled);
    const char* log = nullptr;
    ksGetShaderString(shader, KS_SHADER_LOG, &log);
    // A good compile has an empty log, a failed one says why.
    if ((compiled != 0) == (log != nullptr && log[0] != '\0'))
        std::abort();

    Link(shader, nullptr);
    for (int other = 0; other < 4; ++other)
    {
        _KSshader* partner = Compile(kKinds[other], kPartners[other]);
        Link(shader, partner);
        ksDeleteShader(partner);
    }
    ksDeleteShader(shader);
    ksGetError(); // errors are expected; they must not pile up as state
    return 0;
}
