// The primitive object: handle, name, binding, scoped binding, and the
// setters with their trace.
#include "Support/TraceFlags.h"
#include "WrapperFixture.h"

#include <cstdint>
#include <functional>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::kCCK_PrintTrace;

TEST_F(WrapperFixture, SetNameBindsAndSendsTheNameButTheNullPrimitiveKeepsIt)
{
    IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
    const Calls named = {"ksBindPrimitive(KS_PRIMITIVE, " + Text(primitive->GetHandle()) + ")",
                         "ksGetError()",
                         "ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, \"ball\")"};
    CallLog log;
    primitive->SetName("ball");
    primitive->SetName(primitive->GetName()); // the same name is sent again
    Calls twice = named;
    twice.insert(twice.end(), named.begin(), named.end());
    EXPECT_EQ(log.Calls(), twice);
    EXPECT_EQ(BoundPrimitive(), primitive->GetHandle()) << "stays bound";

    // The null primitive stores the name only, and binds none without error.
    log.Clear();
    IKSPrimitive* none = _pContext->TheNullPrimitive();
    none->SetName("frame");
    EXPECT_EQ(none->GetName(), "frame");
    EXPECT_EQ(log.Calls(), Calls{});
    EXPECT_TRUE(none->Bind());
    EXPECT_EQ(BoundPrimitive(), 0u);

    // Shut down twice: one delete, and the name stays.
    auto* concrete = dynamic_cast<KSPrimitive*>(primitive);
    concrete->Shutdown();
    concrete->Shutdown();
    EXPECT_EQ(log.CallsOf("ksDeletePrimitives").size(), 1u);
    EXPECT_EQ(primitive->GetHandle(), 0u);
    EXPECT_EQ(concrete->GetKSContext(), nullptr);
    EXPECT_EQ(primitive->GetName(), "ball");
    _pContext->DestroyIKSPrimitive(primitive);
    EXPECT_NO_KS_ERROR();
}

// --- Setters ----------------------------------------------------------------

namespace
{

const float kFloats[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const float* const kFloatsFirst = kFloats;
const int kInts[8] = {1, 2, 3, 4, 5, 6, 7, 8};

// Row-major rows 1 2 3 / 4 5 6 / ...; Kestrel keeps matrices column-major, so
// a stored matrix is the transpose of what the host wrote.
template <class Matrix, int N>
Matrix RowMajor()
{
    Matrix matrix;
    for (int r = 0; r < N; ++r)
        for (int c = 0; c < N; ++c)
            matrix.m[r][c] = kFloats[r * N + c];
    return matrix;
}

template <int N>
std::vector<float> ColumnMajor()
{
    std::vector<float> stored;
    for (int c = 0; c < N; ++c)
        for (int r = 0; r < N; ++r)
            stored.push_back(kFloats[r * N + c]);
    return stored;
}

struct SetterCase
{
    const char* label;
    // Calls the setter under test on `primitive` with location 2.
    std::function<bool(IKSPrimitive&)> set;
    std::string kestrelCall;                // the one call it must make, as logged
    const char* failureWord;                // the word after "SetUniform " in the failure text
    Kestrel::Testing::UniformRecord stored; // what Kestrel keeps at location 2
};

Kestrel::Testing::UniformRecord Stored(const char* type, long long count, std::vector<float> floats,
                                       std::vector<int> ints = {},
                                       std::vector<unsigned long long> handles = {})
{
    Kestrel::Testing::UniformRecord record;
    record.type = type;
    record.count = count;
    record.floats = std::move(floats);
    record.ints = std::move(ints);
    record.handles = std::move(handles);
    return record;
}

std::vector<float> Floats(int n)
{
    return std::vector<float>(kFloatsFirst, kFloatsFirst + n);
}

// `prims` holds two live primitives, used as values.
std::vector<SetterCase> AllSetters(const KSprimitive* prims)
{
    static _KStexture* const textures[2] = {nullptr, nullptr};
    static const Vector2i v2i[2] = {{1, 2}, {3, 4}};
    static const Vector3i v3i[1] = {{1, 2, 3}};
    static const Vector4i v4i[1] = {{1, 2, 3, 4}};
    static const Vector2f v2f[1] = {{1, 2}};
    static const Vector3f v3f[1] = {{1, 2, 3}};
    static const Vector4f v4f[1] = {{1, 2, 3, 4}};
    static const Matrix33f m3[1] = {RowMajor<Matrix33f, 3>()};
    static const Matrix44f m4[1] = {RowMajor<Matrix44f, 4>()};
    const std::string n = "u";
    const unsigned long long p0 = prims[0], p1 = prims[1];
    return {
        {"prim[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, std::uint64_t(2), prims); },
         "ksUniformpv(2, 2, ptr)", "prim[]", Stored("primitive", 2, {}, {}, {p0, p1})},
        {"prim", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, prims[0]); },
         "ksUniformp(2, " + Text(prims[0]) + ")", "prim", Stored("primitive", 1, {}, {}, {p0})},
        {"texture[]",
         [=](IKSPrimitive& p) { return p.SetUniform(n, 2, std::uint64_t(2), textures); },
         "ksUniformtv(2, 2, ptr)", "texture[]", Stored("texture", 2, {}, {}, {0, 0})},
        {"texture", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, (_KStexture*)nullptr); },
         "ksUniformt(2, null)", "texture", Stored("texture", 1, {}, {}, {0})},
        {"int[][] of 1",
         [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 1, std::uint64_t(3), kInts); },
         "ksUniform1iv(2, 3, ptr)", "int[][]", Stored("int", 3, {}, {1, 2, 3})},
        {"int[][] of 2",
         [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 2, std::uint64_t(3), kInts); },
         "ksUniform2iv(2, 3, ptr)", "int[][]", Stored("ivec2", 3, {}, {1, 2, 3, 4, 5, 6})},
        {"int[][] of 3",
         [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 3, std::uint64_t(2), kInts); },
         "ksUniform3iv(2, 2, ptr)", "int[][]", Stored("ivec3", 2, {}, {1, 2, 3, 4, 5, 6})},
        {"int[][] of 4",
         [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 4, std::uint64_t(2), kInts); },
         "ksUniform4iv(2, 2, ptr)", "int[][]", Stored("ivec4", 2, {}, {1, 2, 3, 4, 5, 6, 7, 8})},
        {"ivec4[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 1, v4i); },
         "ksUniform4iv(2, 1, ptr)", "ivec4[]", Stored("ivec4", 1, {}, {1, 2, 3, 4})},
        {"ivec3[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 1, v3i); },
         "ksUniform3iv(2, 1, ptr)", "ivec3[]", Stored("ivec3", 1, {}, {1, 2, 3})},
        {"ivec2[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 2, v2i); },
         "ksUniform2iv(2, 2, ptr)", "ivec2[]", Stored("ivec2", 2, {}, {1, 2, 3, 4})},
        {"int[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, std::uint64_t(3), kInts); },
         "ksUniform1iv(2, 3, ptr)", "int[]", Stored("int", 3, {}, {1, 2, 3})},
        {"Vector4i", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, v4i[0]); },
         "ksUniform4iv(2, 1, ptr)", "vec4", Stored("ivec4", 1, {}, {1, 2, 3, 4})},
        {"Vector3i", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, v3i[0]); },
         "ksUniform3iv(2, 1, ptr)", "vec3", Stored("ivec3", 1, {}, {1, 2, 3})},
        {"Vector2i", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, v2i[0]); },
         "ksUniform2iv(2, 1, ptr)", "vec2", Stored("ivec2", 1, {}, {1, 2})},
        {"int", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 5); }, "ksUniform1i(2, 5)", "int",
         Stored("int", 1, {}, {5})},
        {"mat4[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, std::uint64_t(1), m4); },
         "ksUniformMatrix4fv(2, 1, 1, ptr)", "mat4[]", Stored("mat4", 1, ColumnMajor<4>())},
        {"mat3[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, std::uint64_t(1), m3); },
         "ksUniformMatrix3fv(2, 1, 1, ptr)", "mat3[]", Stored("mat3", 1, ColumnMajor<3>())},
        {"vec4[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 1, v4f); },
         "ksUniform4fv(2, 1, ptr)", "vec4[]", Stored("vec4", 1, Floats(4))},
        {"vec3[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 1, v3f); },
         "ksUniform3fv(2, 1, ptr)", "vec3[]", Stored("vec3", 1, Floats(3))},
        {"vec2[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 1, v2f); },
         "ksUniform2fv(2, 1, ptr)", "vec2[]", Stored("vec2", 1, Floats(2))},
        {"float[]", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 4, kFloats); },
         "ksUniform1fv(2, 4, ptr)", "float[]", Stored("float", 4, Floats(4))},
        {"Vector4f", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, v4f[0]); },
         "ksUniform4fv(2, 1, ptr)", "vec4", Stored("vec4", 1, Floats(4))},
        {"Vector3f", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, v3f[0]); },
         "ksUniform3fv(2, 1, ptr)", "vec3", Stored("vec3", 1, Floats(3))},
        {"Vector2f", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, v2f[0]); },
         "ksUniform2fv(2, 1, ptr)", "vec2", Stored("vec2", 1, Floats(2))},
        {"float", [=](IKSPrimitive& p) { return p.SetUniform(n, 2, 0.5f); }, "ksUniform1f(2, 0.5)",
         "float", Stored("float", 1, {0.5f})},
    };
}

std::string FailureText(const char* word, const char* name, KSprimitive handle)
{
    char text[96];
    std::snprintf(text, sizeof(text), "SetUniform %s '%s' prim %08x\n", word, name,
                  static_cast<unsigned>(handle));
    return text;
}

} // namespace

TEST_F(WrapperFixture, EverySetterBindsCallsOnceAndReportsFailure)
{
    IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
    IKSPrimitive* other = _pContext->CreateIKSPrimitive();
    const std::string handle = Text(primitive->GetHandle());
    const KSprimitive values[2] = {other->GetHandle(), primitive->GetHandle()};
    const std::vector<SetterCase> cases = AllSetters(values);
    ASSERT_EQ(cases.size(), 26u);
    for (const SetterCase& c : cases)
    {
        SCOPED_TRACE(c.label);
        other->Bind();
        {
            CallLog log;
            EXPECT_TRUE(c.set(*primitive));
            EXPECT_EQ(log.Calls(), (Calls{"ksBindPrimitive(KS_PRIMITIVE, " + handle + ")",
                                          c.kestrelCall, "ksGetError()"}));
        }
        EXPECT_EQ(BoundPrimitive(), primitive->GetHandle());
        Kestrel::Testing::UniformRecord stored;
        ASSERT_TRUE(Kestrel::Testing::ReadUniform(primitive->GetHandle(), 2, &stored));
        EXPECT_EQ(stored.type, c.stored.type);
        EXPECT_EQ(stored.count, c.stored.count);
        EXPECT_EQ(stored.floats, c.stored.floats);
        EXPECT_EQ(stored.ints, c.stored.ints);
        EXPECT_EQ(stored.handles, c.stored.handles);

        other->Bind();
        const std::string function = c.kestrelCall.substr(0, c.kestrelCall.find('('));
        Kestrel::Testing::AutoFaults faults;
        Kestrel::Testing::InjectErrorAfter(function, KS_INVALID_OPERATION);
        _console.Clear();
        EXPECT_FALSE(c.set(*primitive));
        const std::vector<std::string> errors = _console.TextsOf(kCCK_PrintError);
        ASSERT_FALSE(errors.empty());
        EXPECT_EQ(errors.back(), FailureText(c.failureWord, "u", primitive->GetHandle()));
        EXPECT_EQ(BoundPrimitive(), primitive->GetHandle()) << "bound also after a failure";
        EXPECT_EQ(_console.CountOf(kCCK_PrintTrace), 0u) << "no trace unless asked";

        // One line for either flag, but the single int heeds the object's alone.
        for (bool classWide : {false, true})
        {
            TraceFlagsTestPeer::SetPrimitiveTrace(classWide);
            primitive->SetTrace(!classWide);
            _console.Clear();
            c.set(*primitive);
            EXPECT_EQ(_console.CountOf(kCCK_PrintTrace),
                      classWide && std::string(c.label) == "int" ? 0u : 1u);
        }
        TraceFlagsTestPeer::SetPrimitiveTrace(false);
        primitive->SetTrace(false);
    }
    _pContext->DestroyIKSPrimitive(primitive);
    _pContext->DestroyIKSPrimitive(other);
    EXPECT_NO_KS_ERROR();
}

// Counts go to Kestrel as given, unchecked: an int sign-extended, an unsigned
// 64-bit one whole, and 0 still makes the bind and the call. A tuple size
// outside 1 to 4 binds but calls nothing, and says nothing.
TEST_F(WrapperFixture, CountsReachKestrelUncheckedEvenZero)
{
    IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
    const KSprimitive values[1] = {primitive->GetHandle()};
    IKSBuffer* buffer = _pContext->CreateIKSBuffer();
    ASSERT_TRUE(buffer->Init(IKSBuffer::kUsage_StaticDraw, 64));
    const std::string block =
        "ksUniformBlockBuffer(2, " + Kestrel::Testing::Describe(buffer->GetKSBuffer()) + ")";
    const struct
    {
        std::function<bool()> set;
        std::string call; // empty: none after the bind
        bool result;
    } rows[] = {
        {[=] { return primitive->SetUniform("f", 2, -1, kFloats); }, "ksUniform1fv(2, -1, ptr)",
         false},
        {[=] { return primitive->SetUniform("i", 2, std::uint64_t(0x100000002ull), kInts); },
         "ksUniform1iv(2, 4294967298, ptr)", false},
        {[=] { return primitive->SetUniform("f", 2, 0, kFloats); }, "ksUniform1fv(2, 0, ptr)",
         true},
        {[=] { return primitive->SetUniform("i", 2, std::uint64_t(0), kInts); },
         "ksUniform1iv(2, 0, ptr)", true},
        {[=] { return primitive->SetUniform("t", 2, 2, std::uint64_t(0), kInts); },
         "ksUniform2iv(2, 0, ptr)", true},
        {[=] { return primitive->SetUniform("p", 2, std::uint64_t(0), values); },
         "ksUniformpv(2, 0, ptr)", true},
        {[=] { return primitive->SetUniformBlock("block", 2, buffer); }, block, true},
        {[=] { return primitive->SetUniform("t", 1, 0, std::uint64_t(1), kInts); }, "", false},
        {[=] { return primitive->SetUniform("t", 1, 5, std::uint64_t(1), kInts); }, "", false},
        {[=] { return primitive->SetUniform("t", 1, -1, std::uint64_t(1), kInts); }, "", false},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.call);
        _console.Clear();
        CallLog log;
        EXPECT_EQ(row.set(), row.result);
        Calls expected{"ksBindPrimitive(KS_PRIMITIVE, " + Text(values[0]) + ")"};
        if (!row.call.empty())
            expected.insert(expected.end(), {row.call, "ksGetError()"});
        else
            EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{});
        EXPECT_EQ(log.Calls(), expected);
    }
    _pContext->DestroyIKSBuffer(buffer);
    _pContext->DestroyIKSPrimitive(primitive);
}

TEST_F(WrapperFixture, TraceLinesMatchTheirFormat)
{
    IKSPrimitive* ball = _pContext->CreateIKSPrimitive();
    ball->SetName("ball");
    ball->SetTrace(true);
    const Vector2i offsets[2] = {{1, 2}, {3, 4}};
    const int ids[4] = {1, 2, 3, 4};
    ball->SetUniform("radius", 3, 0.5f);
    ball->SetUniform("tint", 4, Vector3f{1, 0.5f, 0});
    ball->SetUniform("offsets", 5, 2, offsets);
    ball->SetUniform("ids", 6, 2, std::uint64_t(2), ids);
    ball->SetUniform("none", 7, 0, kFloats);
    ball->SetUniform("negative", 8, -2, kFloats);
    ball->SetUniform("p", 9, KSprimitive(4000000000u));
    ball->SetUniform("wide", 10, 0, std::uint64_t(1), ids);
    ball->SetUniform("five", 11, 5, std::uint64_t(1), kInts);
    ball->SetUniform("huge", 12, std::uint64_t(0x100000002ull), ids);

    KSPrimitive unnamed;
    unnamed.InitNull(_pContext);
    unnamed.SetTrace(true);
    const Matrix33f matrix = RowMajor<Matrix33f, 3>();
    unnamed.SetUniform("m", 0, std::uint64_t(1), &matrix);

    EXPECT_EQ(_console.TextsOf(kCCK_PrintTrace), (std::vector<std::string>{
                                                     "ball.radius (3) # 1 0.5 \n",
                                                     "ball.tint (4) # 1 (1,0.5,0) \n",
                                                     "ball.offsets (5) # 2 (1,2) (3,4) \n",
                                                     "ball.ids (6) # 2 {1, 2} {3, 4} \n",
                                                     "ball.none (7) # 0 \n",
                                                     "ball.negative (8) # -2 \n",
                                                     "ball.p (9) # 1 4000000000 \n",
                                                     "ball.wide (10) # 1  \n",
                                                     "ball.five (11) # 1 {1, 2, 3, 4, 5} \n",
                                                     "ball.huge (12) # 2 1 2 \n",
                                                     ".m (0) # 1 ((1,2,3), (4,5,6), (7,8,9), ) \n",
                                                 }));
    ksGetError();

    // Names are text, never a format: not in the trace, nor in the failure.
    _console.Clear();
    ball->SetName("%s%d");
    Kestrel::Testing::AutoFaults faults;
    Kestrel::Testing::InjectErrorAfter("ksUniform1f", KS_INVALID_OPERATION);
    EXPECT_FALSE(ball->SetUniform("a%n%s", 1, 0.5f));
    EXPECT_EQ(_console.TextsOf(kCCK_PrintTrace),
              std::vector<std::string>{"%s%d.a%n%s (1) # 1 0.5 \n"});
    EXPECT_EQ(_console.TextsOf(kCCK_PrintError).back(),
              FailureText("float", "a%n%s", ball->GetHandle()));
    _pContext->DestroyIKSPrimitive(ball);
}
