#include "KestrelWrapper/KSPrimitive.h"

#include "CoreInterfaces/IMgrConsole.h"
#include "KestrelWrapper/IKSBuffer.h"
#include "KestrelWrapper/IKestrelContext.h"

#include <cstring>
#include <sstream>
#include <type_traits>

namespace Vireo
{

bool KSPrimitive::s_bTrace = false;

// --- The trace ---------------------------------------------------------------
// One line per setter call: "<primitive>.<uniform> (<location>) # <count> "
// followed by each element and a blank. The stream keeps its default settings
// so that floats print with six significant digits.

namespace
{

// Reads a value type as the run of scalars that it is.
template <class Scalar, int N, class Value>
void WriteComponents(std::ostream& out, const Value& value)
{
    static_assert(sizeof(Value) == N * sizeof(Scalar), "value types are tightly packed");
    Scalar components[N];
    std::memcpy(components, &value, sizeof(components));
    out << '(';
    for (int i = 0; i < N; ++i)
        out << (i > 0 ? "," : "") << components[i];
    out << ')';
}

template <int N, class Matrix>
void WriteMatrix(std::ostream& out, const Matrix& matrix)
{
    static_assert(sizeof(Matrix) == N * N * sizeof(float), "matrices are tightly packed");
    float elements[N * N];
    std::memcpy(elements, &matrix, sizeof(elements));
    out << '(';
    for (int row = 0; row < N; ++row)
    {
        out << '(';
        for (int column = 0; column < N; ++column)
            out << (column > 0 ? "," : "") << elements[row * N + column];
        out << "), ";
    }
    out << ')';
}

void WriteValue(std::ostream& out, float value)
{
    out << value;
}
void WriteValue(std::ostream& out, int value)
{
    out << value;
}
void WriteValue(std::ostream& out, KSprimitive value)
{
    out << static_cast<unsigned>(value);
}
void WriteValue(std::ostream& out, _KStexture* value)
{
    out << static_cast<const void*>(value);
}
void WriteValue(std::ostream& out, const Vector2f& value)
{
    WriteComponents<float, 2>(out, value);
}
void WriteValue(std::ostream& out, const Vector3f& value)
{
    WriteComponents<float, 3>(out, value);
}
void WriteValue(std::ostream& out, const Vector4f& value)
{
    WriteComponents<float, 4>(out, value);
}
void WriteValue(std::ostream& out, const Vector2i& value)
{
    WriteComponents<int, 2>(out, value);
}
void WriteValue(std::ostream& out, const Vector3i& value)
{
    WriteComponents<int, 3>(out, value);
}
void WriteValue(std::ostream& out, const Vector4i& value)
{
    WriteComponents<int, 4>(out, value);
}
void WriteValue(std::ostream& out, const Matrix33f& value)
{
    WriteMatrix<3>(out, value);
}
void WriteValue(std::ostream& out, const Matrix44f& value)
{
    WriteMatrix<4>(out, value);
}

template <class Value>
void TraceUniform(IMgrConsole* console, const std::string& primitiveName,
                  const std::string& uniformName, int location, int tupleSize, int count,
                  const Value* values)
{
    if (console == nullptr)
        return;
    std::ostringstream line;
    // Names stop at their first NUL, as C strings do.
    line << primitiveName.c_str() << '.' << uniformName.c_str() << " (" << location << ") # "
         << count << ' ';
    for (int element = 0; element < count; ++element)
    {
        if (tupleSize > 1)
            line << '{';
        for (int i = 0; i < tupleSize; ++i)
        {
            if (i > 0)
                line << ", ";
            WriteValue(line, *values++);
        }
        if (tupleSize > 1)
            line << '}';
        line << ' ';
    }
    console->PrintTrace("%s\n", line.str().c_str());
}

// The trace shows an unsigned 64-bit count as its low 32 bits, signed.
int TraceCount(std::uint64_t count)
{
    return static_cast<int>(static_cast<std::uint32_t>(count));
}

// Kestrel's count is 64 bits: an int count arrives sign-extended, an unsigned
// 64-bit count whole.
long long KestrelCount(int count)
{
    return count;
}
long long KestrelCount(std::uint64_t count)
{
    return static_cast<long long>(count);
}

const float* Floats(const void* values)
{
    return static_cast<const float*>(values);
}
const int* Ints(const void* values)
{
    return static_cast<const int*>(values);
}

} // namespace

// --- Lifecycle -----------------------------------------------------------------

KSPrimitive::~KSPrimitive()
{
    Shutdown();
}

bool KSPrimitive::Init(IKestrelContext* context)
{
    _pContext = context;
    _pConsole = context != nullptr ? context->GetConsole() : nullptr;
    ksGenPrimitives(1, &_handle);
    return true;
}

bool KSPrimitive::InitNull(IKestrelContext* context)
{
    _pContext = context;
    _pConsole = context != nullptr ? context->GetConsole() : nullptr;
    _handle = KSprimitive(0);
    return true;
}

void KSPrimitive::Shutdown()
{
    if (_handle != 0)
    {
        ksDeletePrimitives(1, &_handle);
        _handle = KSprimitive(0);
    }
    _pContext = nullptr;
    _pConsole = nullptr;
}

void KSPrimitive::SetName(const std::string& name)
{
    if (&name != &_sName)
        _sName = name;
    if (_handle == 0)
        return; // stored; the null primitive has no Kestrel name
    Bind();
    ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, _sName.c_str());
}

std::string KSPrimitive::GetName() const
{
    return _sName;
}

bool KSPrimitive::Bind()
{
    ksBindPrimitive(KS_PRIMITIVE, _handle);
    if (ksGetError() == 0)
        return true;
    if (_pConsole != nullptr)
        _pConsole->PrintError("KSPrimitive::Bind prim %08x\n", static_cast<unsigned>(_handle));
    return false;
}

KSprimitive KSPrimitive::GetHandle() const
{
    return _handle;
}

IKestrelContext* KSPrimitive::GetKSContext() const
{
    return _pContext;
}

void KSPrimitive::SetTrace(bool trace)
{
    _bTrace = trace;
}

// --- Setters ---------------------------------------------------------------------
// Every setter: trace first (so a failing call still leaves its line), bind
// unconditionally, one Kestrel call, one ksGetError for both. No allocation
// and no copy unless the trace is on.

template <class Value, class KestrelCall>
bool KSPrimitive::_Set(bool trace, const std::string& name, int location, int tupleSize,
                       int traceCount, const Value* values, const char* failureText,
                       KestrelCall&& call)
{
    if (trace)
        TraceUniform(_pConsole, _sName, name, location, tupleSize, traceCount, values);
    ksBindPrimitive(KS_PRIMITIVE, _handle);
    call();
    if (ksGetError() == 0)
        return true;
    if (_pConsole != nullptr)
        _pConsole->PrintError(failureText, name.c_str(), static_cast<unsigned>(_handle));
    return false;
}

bool KSPrimitive::SetUniform(const std::string& name, int location, std::uint64_t count,
                             const KSprimitive* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, TraceCount(count), values,
                "SetUniform prim[] '%s' prim %08x\n",
                [&] { ksUniformpv(location, KestrelCount(count), values); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, KSprimitive value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform prim '%s' prim %08x\n", [&] { ksUniformp(location, value); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, std::uint64_t count,
                             _KStexture* const* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, TraceCount(count), values,
                "SetUniform texture[] '%s' prim %08x\n",
                [&] { ksUniformtv(location, KestrelCount(count), values); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, _KStexture* value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform texture '%s' prim %08x\n", [&] { ksUniformt(location, value); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int tupleSize,
                             std::uint64_t count, const int* values)
{
    using TupleCall = void (*)(int, long long, const int*);
    static const TupleCall calls[] = {ksUniform1iv, ksUniform2iv, ksUniform3iv, ksUniform4iv};
    if (s_bTrace || _bTrace)
        TraceUniform(_pConsole, _sName, name, location, tupleSize, TraceCount(count), values);
    if (tupleSize < 1 || tupleSize > 4)
    {
        // Bound like every setter, but there is no call to make for this size.
        ksBindPrimitive(KS_PRIMITIVE, _handle);
        return false;
    }
    return _Set(false, name, location, tupleSize, 0, values, "SetUniform int[][] '%s' prim %08x\n",
                [&] { calls[tupleSize - 1](location, KestrelCount(count), values); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count,
                             const Vector4i* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform ivec4[] '%s' prim %08x\n",
                [&] { ksUniform4iv(location, KestrelCount(count), Ints(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count,
                             const Vector3i* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform ivec3[] '%s' prim %08x\n",
                [&] { ksUniform3iv(location, KestrelCount(count), Ints(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count,
                             const Vector2i* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform ivec2[] '%s' prim %08x\n",
                [&] { ksUniform2iv(location, KestrelCount(count), Ints(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, std::uint64_t count,
                             const int* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, TraceCount(count), values,
                "SetUniform int[] '%s' prim %08x\n",
                [&] { ksUniform1iv(location, KestrelCount(count), values); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, const Vector4i& value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform vec4 '%s' prim %08x\n",
                [&] { ksUniform4iv(location, 1, Ints(&value)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, const Vector3i& value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform vec3 '%s' prim %08x\n",
                [&] { ksUniform3iv(location, 1, Ints(&value)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, const Vector2i& value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform vec2 '%s' prim %08x\n",
                [&] { ksUniform2iv(location, 1, Ints(&value)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int value)
{
    // The one setter that the class-wide flag does not trace.
    return _Set(_bTrace, name, location, 1, 1, &value, "SetUniform int '%s' prim %08x\n",
                [&] { ksUniform1i(location, value); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, std::uint64_t count,
                             const Matrix44f* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, TraceCount(count), values,
                "SetUniform mat4[] '%s' prim %08x\n",
                [&] { ksUniformMatrix4fv(location, KestrelCount(count), 1, Floats(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, std::uint64_t count,
                             const Matrix33f* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, TraceCount(count), values,
                "SetUniform mat3[] '%s' prim %08x\n",
                [&] { ksUniformMatrix3fv(location, KestrelCount(count), 1, Floats(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count,
                             const Vector4f* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform vec4[] '%s' prim %08x\n",
                [&] { ksUniform4fv(location, KestrelCount(count), Floats(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count,
                             const Vector3f* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform vec3[] '%s' prim %08x\n",
                [&] { ksUniform3fv(location, KestrelCount(count), Floats(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count,
                             const Vector2f* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform vec2[] '%s' prim %08x\n",
                [&] { ksUniform2fv(location, KestrelCount(count), Floats(values)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, int count, const float* values)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, count, values,
                "SetUniform float[] '%s' prim %08x\n",
                [&] { ksUniform1fv(location, KestrelCount(count), values); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, const Vector4f& value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform vec4 '%s' prim %08x\n",
                [&] { ksUniform4fv(location, 1, Floats(&value)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, const Vector3f& value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform vec3 '%s' prim %08x\n",
                [&] { ksUniform3fv(location, 1, Floats(&value)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, const Vector2f& value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform vec2 '%s' prim %08x\n",
                [&] { ksUniform2fv(location, 1, Floats(&value)); });
}

bool KSPrimitive::SetUniform(const std::string& name, int location, float value)
{
    return _Set(s_bTrace || _bTrace, name, location, 1, 1, &value,
                "SetUniform float '%s' prim %08x\n", [&] { ksUniform1f(location, value); });
}

bool KSPrimitive::SetUniformBlock(const std::string& name, int blockIndex, const IKSBuffer* buffer)
{
    ksBindPrimitive(KS_PRIMITIVE, _handle);
    ksUniformBlockBuffer(blockIndex, buffer->GetKSBuffer());
    if (ksGetError() == 0)
        return true;
    if (_pConsole != nullptr)
        _pConsole->PrintError("SetUniformBlock %s\n", name.c_str());
    return false;
}

// --- Scoped binding ------------------------------------------------------------------

AutoBindKSPrimitive::AutoBindKSPrimitive(IKSPrimitive* primitive)
{
    ksGetPrimitive(KS_PRIMITIVE_BINDING, &_saved);
    primitive->Bind();
}

AutoBindKSPrimitive::~AutoBindKSPrimitive()
{
    ksBindPrimitive(KS_PRIMITIVE, _saved);
}

AutoBindKSPrimitive& AutoBindKSPrimitive::operator=(const AutoBindKSPrimitive& other)
{
    _saved = other._saved;
    return *this;
}

} // namespace Vireo
