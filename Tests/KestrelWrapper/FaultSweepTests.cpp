// One sweep over the failures of Kestrel. Each row is a wrapper operation;
// the call log of a clean run names the Kestrel functions it reaches, and
// each of those is then made to fail in turn. Every case checks the
// operation's result and its own messages, and that giving its objects back
// leaves no Kestrel object behind.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::CountObjects;
using Kestrel::Testing::ObjectCounts;
using Vireo::Testing::AutoInstallConsole;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::kCCK_PrintWarning;
using Att = IKSFrameBufferAttachment;
using Lines = std::vector<std::string>;

namespace
{

std::string Format(const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

// --- How Kestrel fails --------------------------------------------------------

// The error that a faulted function raises of its own accord: failures that
// show in a status raise none, creation and mapping run out of memory.
int NaturalError(const std::string& function)
{
    static const std::set<std::string> kSilent = {"ksCompileShader", "ksLinkProgram"};
    static const std::set<std::string> kOutOfMemory = {
        "ksCreateShader", "ksCreateProgram", "ksGenPrimitives",  "ksGenBuffers",
        "ksMapBuffer",    "ksGenTextures",   "ksGenFramebuffers"};
    if (kSilent.count(function) != 0)
        return KS_NO_ERROR;
    return kOutOfMemory.count(function) != 0 ? KS_OUT_OF_MEMORY : KS_INVALID_OPERATION;
}

std::string FunctionOf(const std::string& call)
{
    return call.substr(0, call.find('('));
}

// --- What the test holds bound -------------------------------------------------

const int kBufferTargets[] = {KS_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER, KS_PIXEL_PACK_BUFFER,
                              KS_PIXEL_UNPACK_BUFFER, KS_UNIFORM_BLOCK_BUFFER};

constexpr std::uint64_t kSentinelBytes = 1024;
const char* const kUniformBlockSentinel = "uniform block sentinel";

// Something of the test's own bound in every slot, as a host would have: an
// operation whose own bind failed works on what is bound instead. The
// buffers are larger than any of the sweep's, so that a mapping of the wrong
// one must still stay inside its storage. Made afresh for every case, so
// that what one failure did to them cannot reach the next.
class Sentinels
{
public:
    Sentinels()
    {
        ksGenBuffers(5, _buffers);
        for (int i = 0; i < 5; ++i)
        {
            ksBindBuffer(kBufferTargets[i], _buffers[i]);
            ksBufferData(kBufferTargets[i], kSentinelBytes, nullptr, KS_STATIC_DRAW);
        }
        ksBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, KS_BUFFER_NAME, kUniformBlockSentinel);
        ksGenTextures(1, &_texture);
        ksBindTexture(KS_TEXTURE_2D, _texture);
        ksGenFramebuffers(1, &_frameBuffer);
        ksBindFramebuffer(KS_FRAMEBUFFER, _frameBuffer);
        ksGenPrimitives(1, &_primitive);
        ksBindPrimitive(KS_PRIMITIVE, _primitive);
    }
    ~Sentinels()
    {
        ksDeleteBuffers(5, _buffers);
        ksDeleteTextures(1, &_texture);
        ksDeleteFramebuffers(1, &_frameBuffer);
        ksDeletePrimitives(1, &_primitive);
    }
    Sentinels(const Sentinels&) = delete;
    Sentinels& operator=(const Sentinels&) = delete;

private:
    _KSbuffer* _buffers[5] = {};
    _KStexture* _texture = nullptr;
    _KSframebuffer* _frameBuffer = nullptr;
    KSprimitive _primitive = KSprimitive(0);
};

// --- What an operation works on -------------------------------------------------

const char* const kShapeSource = "uniform vec3 center;\nuniform float radius;\n"
                                 "sphere(center, radius);\n";
const char* const kOtherShapeSource = "uniform vec3 low;\nuniform vec3 high;\nbox(low, high);\n";
const char* const kMaterialSource = "uniform vec3 albedo;\ndiffuse(albedo);\n";
const char* const kInjectedLog = "0:0: error: injected fault";
constexpr int kSize = 4;
constexpr std::uint64_t kBufferBytes = 64;
const int kInts[6] = {1, 2, 3, 4, 5, 6};

std::string Flag(bool value)
{
    return value ? "true" : "false";
}

std::string Made(const void* object)
{
    return object != nullptr ? "object" : "null";
}

std::string Status(IKestrelContext::KSRenderFrameStatus status)
{
    if (status == IKestrelContext::kRFS_Stopped)
        return "stopped";
    return status == IKestrelContext::kRFS_Finished ? "finished" : "failed";
}

template <class T>
T* Take(std::vector<T*>& objects)
{
    T* object = objects.back();
    objects.pop_back();
    return object;
}

// The objects of one case, made through the context and given back through
// it, so that whatever Kestrel holds afterwards is what the case left behind.
struct Bench
{
    explicit Bench(IKestrelContext* context) : pContext(context) {}
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    template <class T>
    std::string Keep(std::vector<T*>& objects, T* object)
    {
        if (object != nullptr)
            objects.push_back(object);
        return Made(object);
    }

    IKSPrimitive* Primitive()
    {
        primitives.push_back(pContext->CreateIKSPrimitive());
        return primitives.back();
    }
    IKSShader* Shader(IKSShader::Type type, const char* source)
    {
        IKSShader* shader = pContext->CreateIKSShader(type);
        shaders.push_back(shader);
        std::string text = source;
        shader->SetString(text, nullptr);
        return shader;
    }
    // Named, with a shape and a material attached.
    IKSProgram* Program()
    {
        IKSProgram* program = pContext->CreateIKSProgram();
        programs.push_back(program);
        program->SetName("sweep");
        program->AddShader(Shader(IKSShader::kST_Vertex, kShapeSource));
        program->AddShader(Shader(IKSShader::kST_Kind2, kMaterialSource));
        return program;
    }
    IKSBuffer* Buffer()
    {
        IKSBuffer* buffer = pContext->CreateIKSBuffer();
        buffers.push_back(buffer);
        buffer->Init(IKSBuffer::kUsage_StaticDraw, kBufferBytes);
        return buffer;
    }
    IKSTexImage2D* Texture()
    {
        IKSTexImage2D* texture = pContext->CreateIKSTexImage2D();
        textures.push_back(texture);
        texture->SetImage(kSize, kSize, IKSTexImage::kTF_RGBA8, KS_REPEAT, KS_LINEAR, KS_LINEAR,
                          nullptr, false);
        return texture;
    }
    IKSFrameBuffer* BoundFrameBuffer()
    {
        IKSFrameBuffer* frameBuffer = pContext->CreateIKSFrameBuffer();
        frameBuffers.push_back(frameBuffer);
        frameBuffer->Init(kSize, kSize);
        frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, true, Att::kBM_Accumulated,
                                      Color4f{0, 0, 0, 1});
        frameBuffer->Bind();
        return frameBuffer;
    }
    // The raw program helpers live on the implementation alone.
    KestrelContextImp* Imp() const { return dynamic_cast<KestrelContextImp*>(pContext); }
    KSprimitive PrimitiveHandle() const { return primitives.back()->GetHandle(); }

    void GiveBack()
    {
        while (!programs.empty())
            pContext->DestroyIKSProgram(Take(programs));
        while (!shaders.empty())
            pContext->DestroyIKSShader(Take(shaders));
        while (!primitives.empty())
            pContext->DestroyIKSPrimitive(Take(primitives));
        while (!buffers.empty())
            pContext->DestroyIKSBuffer(Take(buffers));
        while (!textures.empty())
            pContext->DestroyIKSTexImage2D(Take(textures));
        while (!frameBuffers.empty())
            pContext->DestroyIKSFrameBuffer(Take(frameBuffers));
        Imp()->DestroyProgram(pRawProgram);
        pContext->DestroyShader(pRawShader);
        pRawProgram = nullptr;
        pRawShader = nullptr;
    }

    IKestrelContext* pContext;
    std::vector<IKSPrimitive*> primitives;
    std::vector<IKSShader*> shaders;
    std::vector<IKSProgram*> programs;
    std::vector<IKSBuffer*> buffers;
    std::vector<IKSTexImage2D*> textures;
    std::vector<IKSFrameBuffer*> frameBuffers;
    _KSshader* pRawShader = nullptr;
    _KSprogram* pRawProgram = nullptr;
    Result result;
};

// --- Messages -------------------------------------------------------------------
// Kestrel's notifications reach the context's console as "Kestrel Error …";
// everything else there, on the process-wide console and in a Result is what
// the operation itself said. An expected line ending in '*' matches by prefix.

std::string Error(const std::string& text)
{
    return "PrintError: " + text;
}
std::string Detail(const std::string& text)
{
    return "PrintDetail: " + text;
}
std::string OnProcessConsole(const std::string& text)
{
    return "process Print: " + text;
}
std::string InResult(const std::string& text)
{
    return "Result: " + text;
}

struct Heard
{
    Lines notifications;
    Lines said;
};

Heard Listen(const RecordingConsole& console, const RecordingConsole& process, const Result& result)
{
    Heard heard;
    for (const ConsoleCall& call : console.Calls())
    {
        if (call.eKind == kCCK_PrintError && call.sText.rfind("Kestrel Error ", 0) == 0)
            heard.notifications.push_back(call.sText);
        else
            heard.said.push_back(std::string(ConsoleCallKindName(call.eKind)) + ": " + call.sText);
    }
    for (const ConsoleCall& call : process.Calls())
        heard.said.push_back(std::string("process ") + ConsoleCallKindName(call.eKind) + ": " +
                             call.sText);
    if (!result.IsEmpty())
        heard.said.push_back(InResult(result.GetText()));
    return heard;
}

::testing::AssertionResult LinesMatch(const Lines& said, const Lines& expected)
{
    bool match = said.size() == expected.size();
    for (std::size_t i = 0; match && i < said.size(); ++i)
    {
        const std::string& line = expected[i];
        const bool prefix = !line.empty() && line.back() == '*';
        match = prefix ? said[i].compare(0, line.size() - 1, line, 0, line.size() - 1) == 0
                       : said[i] == line;
    }
    if (match)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "got " << ::testing::PrintToString(said)
                                         << ", expected " << ::testing::PrintToString(expected);
}

// --- The rows ---------------------------------------------------------------------

using SaidWhen = std::function<Lines(Bench&, const std::string& function)>;

struct Row
{
    using Setup = std::function<void(Bench&)>;
    using Run = std::function<std::string(Bench&)>;

    const char* sName;
    Setup setup; // may be empty
    Run run;
    const char* sDone;   // the result when the operation sees no failure
    const char* sFailed; // the result when it does
    // Functions whose failure the operation sees in what they give back (no
    // handle, a status of 0) or that make it fail further on. A failure
    // raised before a ksGetError of the operation is seen as well.
    const char* sFailsOn = "";
    SaidWhen said = nullptr;      // the operation's own messages when it sees the failure
    bool bBindsPrimitive = false; // leaves its primitive bound on purpose
};

// The words of a list such as "ksMapBuffer ksBindBuffer".
std::set<std::string> Words(const char* list)
{
    std::set<std::string> words;
    std::istringstream stream(list);
    for (std::string word; stream >> word;)
        words.insert(word);
    return words;
}

// For operations without a result.
Row::Run Does(std::function<void(Bench&)> operation)
{
    return [operation](Bench& bench)
    {
        operation(bench);
        return std::string("void");
    };
}

// Where a failure goes on to make a later call fail, Kestrel reports that
// one too, after it. Nothing else may fail.
const std::map<std::pair<std::string, std::string>, std::string> kFollowOns = {
    // The buffer stays mapped: the new storage is refused, or the copy back
    // cannot map it again.
    {{"buffer Resize keeping contents", "ksUnmapBuffer"}, "Kestrel Error 1282: ksBufferData: *"},
    {{"KSBufferMappingMultiple scope", "ksUnmapBuffer"}, "Kestrel Error 1282: ksMapBuffer: *"},
    // Mipmaps are asked of the texture that stayed bound, which has no image.
    {{"texture GenerateMipMaps", "ksBindTexture"}, "Kestrel Error 1282: ksGenerateMipmap: *"},
};

bool Sees(const Row& row, const Calls& clean, const std::string& function)
{
    if (Words(row.sFailsOn).count(function) != 0)
        return true;
    if (NaturalError(function) == KS_NO_ERROR)
        return false;
    const auto first =
        std::find_if(clean.begin(), clean.end(),
                     [&](const std::string& call) { return FunctionOf(call) == function; });
    return std::find_if(first, clean.end(),
                        [](const std::string& call)
                        { return FunctionOf(call) == "ksGetError"; }) != clean.end();
}

SaidWhen Says(Lines lines)
{
    return [lines](Bench&, const std::string&) { return lines; };
}

Lines PrimitiveBindFailed(Bench& bench, const std::string&)
{
    return {Error(Format("KSPrimitive::Bind prim %08x\n", unsigned(bench.PrimitiveHandle())))};
}

SaidWhen SetterFailed(const char* word)
{
    return [word](Bench& bench, const std::string&)
    {
        return Lines{Error(
            Format("SetUniform %s 'u' prim %08x\n", word, unsigned(bench.PrimitiveHandle())))};
    };
}

// The name is the uniform block target's, whatever target the bind had.
Lines BufferBindFailed(Bench& bench, const std::string&)
{
    const auto handle = static_cast<unsigned>(
        reinterpret_cast<std::uintptr_t>(bench.buffers.back()->GetKSBuffer()));
    return {Error(Format("KSBuffer::Bind \"%s\" %08x\n", kUniformBlockSentinel, handle))};
}

// A good compile leaves no log behind; a faulted one leaves the runtime's.
std::string LogAfter(const std::string& function, const char* faultedIn)
{
    return function == faultedIn ? kInjectedLog : "";
}

std::vector<Row> ContextRows()
{
    const SaidWhen renderFailed = Says({Error("Kestrel error 0x502 occurred.\n")});
    const Rect2<Vector2i, int> whole{{0, 0}, {kSize, kSize}};
    return {
        {"CreateIKSShader", nullptr,
         [](Bench& b)
         { return b.Keep(b.shaders, b.pContext->CreateIKSShader(IKSShader::kST_Vertex)); },
         "object", "null", "ksCreateShader"},
        {"CreateIKSProgram", nullptr,
         [](Bench& b) { return b.Keep(b.programs, b.pContext->CreateIKSProgram()); }, "object",
         "null", "ksCreateProgram"},
        {"CreateIKSTexImage2D", nullptr,
         [](Bench& b) { return b.Keep(b.textures, b.pContext->CreateIKSTexImage2D()); }, "object",
         "null", "ksGenTextures"},
        {"RenderFrame", &Bench::BoundFrameBuffer,
         [](Bench& b) { return Status(b.pContext->RenderFrame()); }, "finished", "failed", "",
         renderFailed},
        {"RenderRegion with a clear", &Bench::BoundFrameBuffer,
         [whole](Bench& b) {
             return Flag(b.pContext->RenderRegion(whole, true, Color3f{0.5f, 0.5f, 0.5f}));
         },
         "true", "false", "", renderFailed},
        // Without its maximum the limit has nothing to stay below.
        {"SetRayDepthLimit", nullptr,
         [](Bench& b) { return Flag(b.pContext->SetRayDepthLimit(4)); }, "true", "false",
         "ksGetIntegerv"},
        {"GetKSVersionIsCompatible", nullptr,
         [](Bench& b)
         {
             int major = 0;
             int minor = 0;
             return Flag(b.pContext->GetKSVersionIsCompatible(major, minor));
         },
         "true", "false", "ksGetString"},
        {"CreateShader", nullptr,
         [](Bench& b)
         {
             const char* sources[] = {kShapeSource};
             b.pRawShader = b.pContext->CreateShader(KS_VERTEX_SHADER, sources, 1);
             return Made(b.pRawShader);
         },
         "object", "null", "ksCreateShader ksShaderSource ksCompileShader ksGetShaderiv",
         [](Bench&, const std::string& function)
         {
             if (function == "ksCreateShader")
                 return Lines{};
             // A shader that never got its source has none to show, and
             // Kestrel's log says why it did not compile.
             if (function == "ksShaderSource")
                 return Lines{Error("KS: shader compilation failed...\n"),
                              Error("KS: error log: *"),
                              "PrintWarning: KS: ksGetShaderString(KS_SHADER_SOURCE) failure. "
                              "Returned empty string\n"};
             return Lines{Error("KS: shader compilation failed...\n"),
                          Error("KS: error log: " + LogAfter(function, "ksCompileShader") + "\n"),
                          Detail(std::string("shader source:\n") + kShapeSource + " \n")};
         }},
        // A program that lost its shader does not link either.
        {"CreateProgram",
         [](Bench& b)
         {
             const char* sources[] = {kShapeSource};
             b.pRawShader = b.pContext->CreateShader(KS_VERTEX_SHADER, sources, 1);
         },
         [](Bench& b)
         {
             b.pRawProgram = b.Imp()->CreateProgram(b.pRawShader);
             return Made(b.pRawProgram);
         },
         "object", "null", "ksCreateProgram ksAttachShader ksLinkProgram ksGetProgramiv",
         [](Bench&, const std::string& function)
         {
             if (function == "ksCreateProgram")
                 return Lines{};
             const std::string log = function == "ksAttachShader"
                                         ? std::string("*")
                                         : LogAfter(function, "ksLinkProgram") + "\n";
             return Lines{Error("KS: shader linking failed:\n"), Error("KS: " + log)};
         }},
    };
}

std::vector<Row> ShaderProgramPrimitiveRows()
{
    return {
        // The log goes to the caller's Result alone, never to the console.
        {"shader SetString", [](Bench& b) { b.Shader(IKSShader::kST_Vertex, kShapeSource); },
         [](Bench& b)
         {
             std::string text = kOtherShapeSource;
             return Flag(b.shaders.back()->SetString(text, &b.result));
         },
         "true", "false", "ksCompileShader ksGetShaderiv",
         [](Bench&, const std::string& function)
         {
             const std::string log = LogAfter(function, "ksCompileShader");
             return log.empty() ? Lines{} : Lines{InResult(log)};
         }},
        {"program Link", &Bench::Program, [](Bench& b) { return Flag(b.programs.back()->Link()); },
         "true", "false", "ksLinkProgram ksGetProgramiv",
         [](Bench&, const std::string& function)
         {
             return Lines{Error("KS: program 'sweep' link failed:\n"),
                          Error("KS: " + LogAfter(function, "ksLinkProgram") + "\n")};
         }},
        {"primitive Bind", &Bench::Primitive,
         [](Bench& b) { return Flag(b.primitives.back()->Bind()); }, "true", "false", "",
         PrimitiveBindFailed, true},
        {"primitive SetUniform int tuples", &Bench::Primitive,
         [](Bench& b)
         { return Flag(b.primitives.back()->SetUniform("u", 2, 3, std::uint64_t(2), kInts)); },
         "true", "false", "", SetterFailed("int[][]"), true},
        {"primitive SetUniformBlock",
         [](Bench& b)
         {
             b.Buffer();
             b.Primitive();
         },
         [](Bench& b)
         { return Flag(b.primitives.back()->SetUniformBlock("u", 0, b.buffers.back())); },
         "true", "false", "", Says({Error("SetUniformBlock u\n")}), true},
        {"AutoBindKSPrimitive scope", &Bench::Primitive,
         Does([](Bench& b) { AutoBindKSPrimitive bound(b.primitives.back()); }), "void", "void", "",
         PrimitiveBindFailed},
    };
}

std::vector<Row> BufferTextureRows()
{
    return {
        {"buffer Init", [](Bench& b) { b.buffers.push_back(b.pContext->CreateIKSBuffer()); },
         [](Bench& b)
         { return Flag(b.buffers.back()->Init(IKSBuffer::kUsage_DynamicDraw, kBufferBytes)); },
         "true", "false", "ksGenBuffers"},
        {"buffer Resize keeping contents", &Bench::Buffer,
         [](Bench& b)
         { return Flag(b.buffers.back()->Resize(IKSBuffer::kUsage_StreamRead, 96, true)); },
         "true", "false", "ksMapBuffer"},
        {"AutoBindKSBuffer scope", &Bench::Buffer,
         Does([](Bench& b) { AutoBindKSBuffer bound(b.buffers.back(), KS_ARRAY_BUFFER); }), "void",
         "void", "", BufferBindFailed},
        // A failed bind leaves the sentinel to be mapped instead.
        {"KSBufferMapping scope", &Bench::Buffer,
         [](Bench& b)
         {
             KSBufferMapping mapping(b.buffers.back(), KSBufferMapping::kAccess_ReadWrite);
             return std::string(mapping.GetMap() != nullptr ? "map" : "null");
         },
         "map", "null", "ksMapBuffer"},
        {"KSBufferMappingMultiple scope",
         [](Bench& b)
         {
             b.Buffer();
             b.Buffer();
         },
         [](Bench& b)
         {
             KSBufferMappingMultiple mapping(b.buffers, KSBufferMapping::kAccess_ReadOnly);
             return Made(mapping.GetMap(0)) + " " + Made(mapping.GetMap(1));
         },
         "object object", "null object", "ksMapBuffer ksBindBuffer"},
        {"texture GenerateMipMaps", &Bench::Texture,
         [](Bench& b) { return Flag(b.textures.back()->GenerateMipMaps()); }, "true", "false"},
    };
}

std::vector<Row> FrameBufferRows()
{
    return {
        {"frame buffer Init",
         [](Bench& b) { b.frameBuffers.push_back(b.pContext->CreateIKSFrameBuffer()); },
         [](Bench& b) { return Flag(b.frameBuffers.back()->Init(kSize, kSize)); }, "true", "false",
         "ksGenFramebuffers"},
        // Kestrel's errors count while the texture is specified; the
        // attachment point is set up after that and is not checked.
        {"frame buffer CreateAttachment",
         [](Bench& b)
         {
             b.frameBuffers.push_back(b.pContext->CreateIKSFrameBuffer());
             b.frameBuffers.back()->Init(kSize, kSize);
         },
         [](Bench& b)
         {
             return Made(b.frameBuffers.back()->CreateAttachment(
                 1, Att::kF_RGBA, Att::kDT_Float, true, Att::kBM_Accumulated, Color4f{}));
         },
         "object", "null", "ksGenTextures",
         Says({OnProcessConsole("KSFramebuffer attachment failed to initialize")})},
    };
}

std::vector<Row> AllRows()
{
    std::vector<Row> rows;
    for (std::vector<Row> part :
         {ContextRows(), ShaderProgramPrimitiveRows(), BufferTextureRows(), FrameBufferRows()})
        rows.insert(rows.end(), part.begin(), part.end());
    return rows;
}

class FaultSweep : public WrapperFixture
{
protected:
    void SetUp() override
    {
        WrapperFixture::SetUp();
        _pKestrel = KestrelHandleOf(_pContext);
        ASSERT_NE(_pKestrel, nullptr);
        _console.Clear();
    }

    // One run of the row's operation, with call `nth` (from 0) of `function`
    // failing unless `function` is empty; `clean` is the log of a run without
    // a failure. The answer, messages and bindings are checked for a first
    // call only. Gives this run's log.
    Calls RunCase(const Row& row, const Calls& clean, const std::string& function, int nth = 0)
    {
        const bool faulted = !function.empty();
        Sentinels sentinels;
        const ObjectCounts baseline = CountObjects(_pKestrel);
        Bench bench(_pContext);
        if (row.setup)
            row.setup(bench);
        EXPECT_NO_KS_ERROR() << "in the setup";
        const KSprimitive primitive = BoundPrimitive();
        _console.Clear();
        _process.Clear();
        bench.result.Clear();

        if (faulted)
        {
            Kestrel::Testing::LetPass(function, nth);
            Kestrel::Testing::InjectFault(function);
        }
        std::string result;
        Calls calls;
        {
            CallLog log;
            result = row.run(bench);
            calls = log.Calls();
        }
        EXPECT_EQ(Kestrel::Testing::PendingFaults(), 0) << "the operation did not reach it";
        Kestrel::Testing::ClearFaults();

        if (nth == 0)
            CheckAnswer(row, clean, function, bench, result);
        // The other slots are watched by the tests of their objects; a scoped
        // primitive binding is not, and must give its slot back.
        if (!faulted && !row.bBindsPrimitive)
        {
            EXPECT_EQ(BoundPrimitive(), primitive) << "the primitive slot";
        }
        ksGetError(); // what the failure left pending is the host's to read

        bench.GiveBack();
        const ObjectCounts now = CountObjects(_pKestrel);
        EXPECT_EQ(now, baseline) << "Kestrel objects after the case";
        EXPECT_NO_KS_ERROR() << "giving the objects back";
        return calls;
    }

    // What the operation answered and said, against the row.
    void CheckAnswer(const Row& row, const Calls& clean, const std::string& function, Bench& bench,
                     const std::string& result)
    {
        const bool faulted = !function.empty();
        const bool seen = faulted && Sees(row, clean, function);
        EXPECT_EQ(result, seen ? row.sFailed : row.sDone);

        const Heard heard = Listen(_console, _process, bench.result);
        const int error = faulted ? NaturalError(function) : KS_NO_ERROR;
        Lines notified;
        if (error != KS_NO_ERROR)
            notified.push_back(
                Format("Kestrel Error %d: %s: injected fault\n", error, function.c_str()));
        const auto followOn = kFollowOns.find({row.sName, function});
        if (followOn != kFollowOns.end())
            notified.push_back(followOn->second);
        EXPECT_TRUE(LinesMatch(heard.notifications, notified)) << "notified";
        EXPECT_TRUE(LinesMatch(heard.said, seen && row.said ? row.said(bench, function) : Lines{}));
    }

    void* _pKestrel = nullptr;
    RecordingConsole _process;
};

} // namespace

// Each call an operation makes fails in turn. The first call of each
// function is checked in full: result, messages, objects. A later
// call (a restoring bind, the copy back) leaves
// an answer that depends on which call it was, so there only what must hold
// after any failure is checked: no crash, nothing leaked (under the address
// sanitizer), Kestrel's objects back to what they were.
TEST_F(FaultSweep, EveryCallAnOperationMakesFailsInTurn)
{
    AutoInstallConsole installed(&_process);
    Kestrel::Testing::AutoFaults faults;
    for (const Row& row : AllRows())
    {
        SCOPED_TRACE(row.sName);
        // The clean run first: it must succeed quietly, and its log names the
        // calls to fail.
        const Calls clean = RunCase(row, Calls{}, "");
        std::map<std::string, int> seen;
        for (const std::string& call : clean)
        {
            const std::string function = FunctionOf(call);
            // ksGetError is how failures are seen, not one of them.
            if (function == "ksGetError")
                continue;
            const int nth = seen[function]++;
            SCOPED_TRACE("failing call " + std::to_string(nth + 1) + " of " + function);
            RunCase(row, clean, function, nth);
        }
        ASSERT_FALSE(seen.empty()) << "the operation reaches no Kestrel function";
    }

    // Everything was given back all along: the report has nothing to say.
    _console.Clear();
    _pManager->DestroyKestrelContext(_pContext);
    _pContext = nullptr;
    EXPECT_EQ(_console.CountOf(kCCK_PrintWarning), 0u);
}
