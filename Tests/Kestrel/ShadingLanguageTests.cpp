// The shading language through the API: compile logs, link rules, and the
// locations a link hands out.
#include "KestrelFixture.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace KestrelTest
{
namespace
{

constexpr int kVertex = KS_VERTEX_SHADER;
constexpr int kRay = KS_SHADER_KIND_2;
constexpr int kFrame = KS_SHADER_KIND_3;
constexpr int kOnce = KS_LINK_ONCE_SHADER;

class ShadingLanguage : public KestrelFixture
{
protected:
    // A shader of `kind` with `source` (none at all when null), compiled.
    static _KSshader* Shader(int kind, const char* source)
    {
        _KSshader* shader = ksCreateShader(kind);
        if (source)
            ksShaderSource(shader, 1, &source, nullptr);
        ksCompileShader(shader);
        return shader;
    }

    static int CompileStatus(_KSshader* shader)
    {
        int status = -1;
        ksGetShaderiv(shader, KS_COMPILE_STATUS, &status);
        return status;
    }

    static std::string CompileLog(_KSshader* shader)
    {
        const char* log = nullptr;
        ksGetShaderString(shader, KS_SHADER_LOG, &log);
        return log ? log : "<null>";
    }

    static _KSprogram* Linked(const std::vector<_KSshader*>& shaders)
    {
        _KSprogram* program = ksCreateProgram();
        for (_KSshader* shader : shaders)
            ksAttachShader(program, shader);
        ksLinkProgram(program);
        return program;
    }

    static int LinkStatus(_KSprogram* program)
    {
        int status = -1;
        ksGetProgramiv(program, KS_LINK_STATUS, &status);
        return status;
    }

    static std::string LinkLog(_KSprogram* program)
    {
        const char* log = nullptr;
        ksGetProgramString(program, KS_PROGRAM_LOG, &log);
        return log ? log : "<null>";
    }

    static std::vector<int> Locations(_KSprogram* program, int (*query)(_KSprogram*, const char*),
                                      const std::vector<const char*>& names)
    {
        std::vector<int> locations;
        for (const char* name : names)
            locations.push_back(query(program, name));
        return locations;
    }
};

// ---------------------------------------------------------------------------
// Compile

struct CompileCase
{
    const char* label;
    int kind;
    const char* source;
    const char* log; // empty: compiles
};

const CompileCase kCompileCases[] = {
    // Good sources.
    {"use before declaration", kVertex, "sphere(c, r);\nuniform vec3 c;\nuniform float r;", ""},
    {"ints promote to float", kVertex, "sphere(vec3(1, 2, 3), 2);", ""},
    {"signs and exponents", kVertex,
     "uniform vec3 c = vec3(-1.5e2, .5, 3.);\nuniform float r = -2E-1;\nsphere(c, r);", ""},
    {"smallest int", kFrame, "uniform int a = -2147483648;\noutput(a, depth);", ""},
    {"comments anywhere", kVertex,
     "/* a */ uniform /* b\n */ vec3 c; // c\n// only a comment\nsphere(c, /* r */ 1.0);", ""},
    {"channel and built-in names are free names", kFrame,
     "uniform vec3 depth;\nuniform vec3 output;\nbackground(depth);\noutput(0, depth);", ""},
    {"outputs through uniforms may repeat", kFrame,
     "uniform int a;\noutput(a, radiance);\noutput(a, depth);", ""},
    {"empty link-once", kOnce, "", ""},
    {"attributes of value types", kOnce, "attribute mat4 m;\nattribute ivec2 i;", ""},
    {"scalar constructors", kRay, "uniform float g = float(2);\nglass(g);", ""},
    // Names and built-ins.
    {"undeclared", kVertex, "sphere(c, 1.0);", "1:8: error: 'c' is not declared\n"},
    {"another kind's built-in", kRay, "sphere(vec3(0, 0, 0), 1.0);",
     "1:1: error: 'sphere' is not a built-in of ray shaders\n"},
    {"link-once has no statements", kOnce, "uniform vec3 c;\nsphere(c, 1.0);",
     "2:1: error: 'sphere' is not a built-in of link-once shaders\n"},
    {"unknown built-in", kVertex, "spheer(vec3(0, 0, 0), 1);",
     "1:1: error: unknown built-in 'spheer'\n"},
    {"too few arguments", kVertex, "sphere(vec3(0, 0, 0));",
     "1:1: error: 'sphere' takes 2 arguments, not 1\n"},
    {"too many arguments", kRay, "glass(1.5, 2);", "1:1: error: 'glass' takes 1 argument, not 2\n"},
    {"declared twice", kVertex, "uniform vec3 c;\nuniform float c;",
     "2:15: error: 'c' is already declared at 1:14\n"},
    {"one name across kinds", kOnce, "uniformblock c;\nattribute vec3 c;",
     "2:16: error: 'c' is already declared at 1:14\n"},
    // Types.
    {"uniform of another type", kVertex, "uniform float c;\nsphere(c, 1.0);",
     "2:8: error: argument 1 of 'sphere' must be vec3, but 'c' is float\n"},
    {"literal of another type", kVertex, "sphere(1.0, 1.0);",
     "1:8: error: argument 1 of 'sphere' must be vec3, not float\n"},
    {"float for int", kFrame, "output(1.5, radiance);",
     "1:8: error: argument 1 of 'output' must be int, not float\n"},
    {"uniform for a block", kVertex, "uniform vec3 v;\ntriangles(v);",
     "2:11: error: argument 1 of 'triangles' must be a uniform block, but 'v' is vec3\n"},
    {"literal for a block", kVertex, "triangles(1);",
     "1:11: error: argument 1 of 'triangles' must be a uniform block, not int\n"},
    {"block for a value", kVertex, "uniformblock b;\nsphere(b, 1);",
     "2:8: error: argument 1 of 'sphere' must be vec3, but 'b' is a uniform block\n"},
    {"attribute as an argument", kVertex, "attribute vec3 p;\nsphere(p, 1);",
     "2:8: error: argument 1 of 'sphere' must be vec3, but 'p' is an attribute\n"},
    {"unknown channel", kFrame, "output(0, colour);",
     "1:11: error: 'colour' is not a channel; channels are radiance, albedo, normal, depth and "
     "visibility\n"},
    {"literal channel", kFrame, "output(0, 1);",
     "1:11: error: argument 2 of 'output' must be a channel, not int\n"},
    {"default of another type", kOnce, "uniform int n = 1.5;",
     "1:17: error: default of 'n' must be int, not float\n"},
    {"texture default", kOnce, "uniform texture t = 1;",
     "1:21: error: 't' is a texture and takes no default\n"},
    {"texture literal", kOnce, "uniform vec3 c = texture(1);",
     "1:18: error: there are no texture literals\n"},
    {"component count", kOnce, "uniform vec3 c = vec3(1, 2);",
     "1:18: error: vec3 takes 3 numbers, not 2\n"},
    {"float in an ivec", kOnce, "uniform ivec2 t = ivec2(1, 2.5);",
     "1:28: error: ivec2 takes integers, not '2.5'\n"},
    {"attribute texture", kOnce, "attribute texture t;",
     "1:11: error: an attribute cannot be a texture\n"},
    {"unknown type declares its name", kVertex, "uniform vec5 c;\nsphere(c, 1);",
     "1:9: error: 'vec5' is not a type\n"},
    // Numbers and characters.
    {"int out of range", kOnce, "uniform int n = 2147483648;",
     "1:17: error: integer '2147483648' is out of range\n"},
    {"float out of range", kOnce, "uniform float f = -1e39;",
     "1:19: error: number '-1e39' is out of range\n"},
    {"malformed number", kOnce, "uniform float f = 1.2.3;",
     "1:19: error: malformed number '1.2.3'\n"},
    {"minus without a number", kOnce, "uniform float f = -x;",
     "1:20: error: expected a number, found 'x'\n"},
    {"unexpected character", kOnce, "uniform vec3 c@;", "1:15: error: unexpected character '@'\n"},
    {"control byte", kOnce, "uniform vec3 c;\x01", "1:16: error: unexpected character byte 0x01\n"},
    {"unterminated comment", kOnce, "uniform vec3 c;\n/* open",
     "2:1: error: unterminated comment\n"},
    // Syntax and recovery.
    {"missing type", kOnce, "uniform radius;", "1:9: error: expected a type, found 'radius'\n"},
    {"a keyword is no name", kOnce, "attribute v\nuniform vec3 c;",
     "1:11: error: expected a type, found 'v'\n"},
    {"reserved name", kOnce, "uniform float vec3;", "1:15: error: 'vec3' is a reserved word\n"},
    {"missing comma", kVertex, "sphere(vec3(0, 0, 0) 1);",
     "1:22: error: expected ',' or ')', found '1'\n"},
    {"missing ';' at line ends", kVertex, "uniform vec3 c\nuniform float r;\nsphere(c, r)",
     "2:1: error: expected ';', found 'uniform'\n"
     "3:13: error: expected ';', found end of source\n"},
    {"resync at ';' and go on", kVertex,
     "uniform vec3 = 1;\nuniform float r;\nsphere(q, r);\nglass(1.5);",
     "1:14: error: expected a name, found '='\n"
     "3:8: error: 'q' is not declared\n"
     "4:1: error: 'glass' is not a built-in of vertex shaders\n"},
    {"one shape per shader", kVertex,
     "sphere(vec3(0, 0, 0), 1);\nbox(vec3(0, 0, 0), vec3(1, 1, 1));",
     "2:1: error: second shape 'box'; the first is 'sphere' at 1:1\n"},
    {"one material per shader", kRay, "glass(1.5);\n  mirror(vec3(1, 1, 1));",
     "2:3: error: second material 'mirror'; the first is 'glass' at 1:1\n"},
    {"attachment range", kFrame, "output(17, radiance);\noutput(-1, depth);",
     "1:8: error: attachment 17 is outside 0..16\n2:8: error: attachment -1 is outside 0..16\n"},
    {"one output per attachment", kFrame, "output(0, radiance);\noutput(0, depth);",
     "2:1: error: attachment 0 already has an output at 1:1\n"},
};

TEST_F(ShadingLanguage, CompileStatusAndExactLog)
{
    for (const CompileCase& c : kCompileCases)
    {
        SCOPED_TRACE(c.label);
        _KSshader* shader = Shader(c.kind, c.source);
        EXPECT_EQ(CompileStatus(shader), c.log[0] == '\0' ? 1 : 0);
        EXPECT_EQ(CompileLog(shader), c.log);
        EXPECT_NO_KS_ERROR() << "a failed compile is not an API error";
        ksDeleteShader(shader);
    }
}

TEST_F(ShadingLanguage, SourceIsTheConcatenationAndMustExist)
{
    _KSshader* shader = Shader(kVertex, nullptr);
    EXPECT_EQ(CompileStatus(shader), 0);
    EXPECT_EQ(CompileLog(shader), "1:1: error: no source\n");

    // Positions count through string boundaries.
    const char* parts[] = {"uniform vec3 ", "c;\nsph", "ere(c, d);"};
    ksShaderSource(shader, 3, parts, nullptr);
    ksCompileShader(shader);
    EXPECT_EQ(CompileLog(shader), "2:11: error: 'd' is not declared\n");
    EXPECT_NO_KS_ERROR();
}

TEST_F(ShadingLanguage, LongLogsEndWithACount)
{
    std::string source;
    for (int i = 0; i < 60; ++i)
        source += "x;\n";
    const std::string log = CompileLog(Shader(kOnce, source.c_str()));
    std::vector<std::string> lines;
    std::istringstream stream(log);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 51u) << log;
    EXPECT_EQ(lines[0], "1:1: error: expected a declaration or a statement, found 'x'");
    EXPECT_EQ(lines[49], "50:1: error: expected a declaration or a statement, found 'x'");
    EXPECT_EQ(lines[50], "51:1: error: 10 more errors not shown");
}

// The kind of a corpus file is the second to last part of its name.
int KindOfCorpusFile(const std::string& fileName)
{
    const std::string stem = std::filesystem::path(fileName).stem().string(); // drops ".ks"
    const std::string kind = std::filesystem::path(stem).extension().string();
    if (kind == ".vert")
        return kVertex;
    if (kind == ".ray")
        return kRay;
    if (kind == ".frame")
        return kFrame;
    if (kind == ".once")
        return kOnce;
    return 0;
}

TEST_F(ShadingLanguage, EveryCorpusFileCompiles)
{
    const std::filesystem::path corpus =
        std::filesystem::path(__FILE__).parent_path() / "ShaderCorpus";
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpus))
    {
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        const int kind = KindOfCorpusFile(name);
        ASSERT_NE(kind, 0) << "name a corpus file <what>.<vert|ray|frame|once>.ks";
        std::ifstream file(entry.path(), std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        const std::string source = text.str();
        _KSshader* shader = Shader(kind, source.c_str());
        EXPECT_EQ(CompileStatus(shader), 1);
        EXPECT_EQ(CompileLog(shader), "");
        // Alone in a program, each one links too.
        _KSprogram* program = Linked({shader});
        EXPECT_EQ(LinkStatus(program), 1) << LinkLog(program);
        ++files;
    }
    EXPECT_GE(files, 10);
    EXPECT_NO_KS_ERROR();
}

// ---------------------------------------------------------------------------
// Link

struct LinkCase
{
    const char* label;
    std::vector<std::pair<int, const char*>> shaders; // kind, source (null: never compiled)
    const char* log;                                  // empty: links
};

const LinkCase kLinkCases[] = {
    {"no shaders", {}, "error: no shaders attached\n"},
    {"never compiled", {{kVertex, nullptr}}, "error: shader 1 (vertex) is not compiled\n"},
    {"failed compile",
     {{kVertex, "sphere(vec3(0, 0, 0), 1);"}, {kRay, "glass();"}},
     "error: shader 2 (ray) is not compiled\n"},
    {"two shapes",
     {{kVertex, "sphere(vec3(0, 0, 0), 1);"}, {kVertex, "uniform vec3 lo;\nbox(lo, lo);"}},
     "error: two shapes: 'sphere' at 1:1 in shader 1 (vertex) and 'box' at 2:1 in shader 2 "
     "(vertex)\n"},
    {"two materials",
     {{kRay, "glass(1.5);"}, {kRay, "mirror(vec3(1, 1, 1));"}},
     "error: two materials: 'glass' at 1:1 in shader 1 (ray) and 'mirror' at 1:1 in shader 2 "
     "(ray)\n"},
    {"two cameras",
     {{kFrame, "camera(vec3(0, 0, 0), vec3(0, 0, -1), vec3(0, 1, 0), 60);"},
      {kFrame, "camera(vec3(0, 0, 0), vec3(0, 0, -1), vec3(0, 1, 0), 60);"}},
     "error: two cameras: 'camera' at 1:1 in shader 1 (frame) and 'camera' at 1:1 in shader 2 "
     "(frame)\n"},
    {"two outputs to one attachment",
     {{kFrame, "output(0, radiance);"}, {kFrame, "\noutput(0, depth);"}},
     "error: two outputs to attachment 0: at 1:1 in shader 1 (frame) and at 2:1 in shader 2 "
     "(frame)\n"},
    {"one name, two types",
     {{kOnce, "uniform float r;"}, {kVertex, "uniform vec3 r;\nsphere(r, 1);"}},
     "error: 'r' is uniform float in shader 1 (link-once) and uniform vec3 in shader 2 (vertex)\n"},
    {"one name, two kinds",
     {{kOnce, "uniformblock mesh;"}, {kOnce, "attribute vec3 mesh;"}},
     "error: 'mesh' is uniformblock in shader 1 (link-once) and attribute vec3 in shader 2 "
     "(link-once)\n"},
    {"two defaults",
     {{kOnce, "uniform vec3 c = vec3(1, 0.5, 0);"},
      {kVertex, "uniform vec3 c = vec3(1, 0.5, 1);\nsphere(c, 1);"}},
     "error: 'c' defaults to vec3(1, 0.5, 0) in shader 1 (link-once) and to vec3(1, 0.5, 1) in "
     "shader 2 (vertex)\n"},
    {"every problem is reported",
     {{kVertex, "uniform float r;\nsphere(vec3(0, 0, 0), r);"},
      {kVertex, "plane(vec3(0, 0, 0), vec3(0, 1, 0));"},
      {kOnce, "uniform int r;"}},
     "error: two shapes: 'sphere' at 2:1 in shader 1 (vertex) and 'plane' at 1:1 in shader 2 "
     "(vertex)\n"
     "error: 'r' is uniform float in shader 1 (vertex) and uniform int in shader 3 (link-once)\n"},
    // What a link accepts.
    {"one declaration in several shaders",
     {{kOnce, "uniform vec3 c;\nuniformblock b;\nattribute vec3 p;"},
      {kVertex, "uniform vec3 c;\nuniformblock b;\nattribute vec3 p;\ntriangles(b);"}},
     ""},
    {"one default, written two ways",
     {{kOnce, "uniform float r = 2;\nuniform vec3 c;"},
      {kVertex, "uniform float r = 2.0;\nuniform vec3 c = vec3(1, 1, 1);\nsphere(c, r);"}},
     ""},
    {"a shape, a material and a frame",
     {{kVertex, "sphere(vec3(0, 0, 0), 1);\ntransform(mat4(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, "
                "0, 0, 0, 1));"},
      {kRay, "glass(1.5);"},
      {kFrame, "output(0, radiance);"},
      {kFrame, "output(1, depth);\nbackground(vec3(0, 0, 0));"}},
     ""},
};

TEST_F(ShadingLanguage, LinkStatusAndExactLog)
{
    for (const LinkCase& c : kLinkCases)
    {
        SCOPED_TRACE(c.label);
        std::vector<_KSshader*> shaders;
        for (const auto& [kind, source] : c.shaders)
        {
            _KSshader* shader = ksCreateShader(kind);
            const char* text = source;
            if (text)
            {
                ksShaderSource(shader, 1, &text, nullptr);
                ksCompileShader(shader);
            }
            shaders.push_back(shader);
        }
        _KSprogram* program = Linked(shaders);
        EXPECT_EQ(LinkStatus(program), c.log[0] == '\0' ? 1 : 0);
        EXPECT_EQ(LinkLog(program), c.log);
        EXPECT_NO_KS_ERROR() << "a failed link is not an API error";
    }
}

const char* const kSharedSource = "uniform float exposure;\n"
                                  "uniformblock mesh;\n"
                                  "uniform vec3 albedo;\n"
                                  "attribute vec3 position;\n";
const char* const kShapeSource = "uniform vec3 center;\n"
                                 "uniform float radius;\n"
                                 "attribute vec3 normal;\n"
                                 "uniformblock extra;\n"
                                 "attribute vec3 position;\n"
                                 "sphere(center, radius);\n";
const char* const kMaterialSource = "uniform vec3 albedo;\n"
                                    "diffuse(albedo);\n"
                                    "uniform float gloss;\n";

const std::vector<const char*> kUniformNames = {"exposure", "albedo", "center", "radius", "gloss"};

TEST_F(ShadingLanguage, LocationsFollowFirstDeclarationAndStay)
{
    _KSshader* shared = Shader(kOnce, kSharedSource);
    _KSshader* shape = Shader(kVertex, kShapeSource);
    _KSshader* material = Shader(kRay, kMaterialSource);
    _KSprogram* program = Linked({shared, shape, material});
    ASSERT_EQ(LinkStatus(program), 1) << LinkLog(program);

    const auto check = [&](_KSprogram* p, std::vector<int> uniforms, std::vector<int> blocks,
                           std::vector<int> attributes)
    {
        EXPECT_EQ(Locations(p, ksGetUniformLocation, kUniformNames), uniforms);
        EXPECT_EQ(Locations(p, ksGetUniformBlockIndex, {"mesh", "extra"}), blocks);
        EXPECT_EQ(Locations(p, ksGetAttribLocation, {"position", "normal"}), attributes);
    };
    // Attachment order, then source order; a repeated declaration keeps its
    // first place.
    check(program, {0, 1, 2, 3, 4}, {0, 1}, {0, 1});
    for (int i = 0; i < 3; ++i)
    {
        ksLinkProgram(program);
        check(program, {0, 1, 2, 3, 4}, {0, 1}, {0, 1});
    }

    // Another program that starts with the shared shader agrees on its names.
    _KSprogram* other = Linked({shared, material});
    ASSERT_EQ(LinkStatus(other), 1) << LinkLog(other);
    check(other, {0, 1, -1, -1, 2}, {0, -1}, {0, -1});

    // Without it, the order of the rest decides.
    _KSprogram* reversed = Linked({material, shape});
    ASSERT_EQ(LinkStatus(reversed), 1) << LinkLog(reversed);
    check(reversed, {-1, 0, 2, 3, 1}, {-1, 0}, {1, 0});
    ksDetachShader(program, shared);
    ksLinkProgram(program);
    check(program, {-1, 2, 0, 1, 3}, {-1, 0}, {1, 0});
    EXPECT_NO_KS_ERROR();
}

TEST_F(ShadingLanguage, UnknownNamesAndUnlinkedProgramsGiveMinusOne)
{
    _KSprogram* program = ksCreateProgram();
    ksAttachShader(program, Shader(kVertex, kShapeSource));
    EXPECT_EQ(ksGetUniformLocation(program, "center"), -1) << "not linked yet";
    ksLinkProgram(program);
    ASSERT_EQ(ksGetUniformLocation(program, "center"), 0);

    // Each kind of name is found only by its own query.
    EXPECT_EQ(ksGetUniformLocation(program, "extra"), -1);
    EXPECT_EQ(ksGetUniformLocation(program, "normal"), -1);
    EXPECT_EQ(ksGetUniformBlockIndex(program, "center"), -1);
    EXPECT_EQ(ksGetAttribLocation(program, "extra"), -1);
    for (const char* name : {"sphere", "vec3", "radiance", "centre", " center"})
        EXPECT_EQ(ksGetUniformLocation(program, name), -1) << name;

    // A failed link leaves nothing declared.
    ksAttachShader(program, Shader(kVertex, "box(vec3(0, 0, 0), vec3(1, 1, 1));"));
    ksLinkProgram(program);
    ASSERT_EQ(LinkStatus(program), 0);
    EXPECT_EQ(ksGetUniformLocation(program, "center"), -1);
    EXPECT_EQ(ksGetUniformBlockIndex(program, "extra"), -1);
    EXPECT_NO_KS_ERROR();
}

TEST_F(ShadingLanguage, LinkOnceDeclarationsOutliveTheShader)
{
    _KSshader* shared = Shader(kOnce, kSharedSource);
    _KSprogram* program = Linked({shared, Shader(kVertex, kShapeSource)});
    ASSERT_EQ(LinkStatus(program), 1) << LinkLog(program);

    // What a host's wrapper does: delete after each link, then link again.
    ksDeleteShader(shared);
    ksLinkProgram(program);
    ksDeleteShader(shared);
    ASSERT_EQ(LinkStatus(program), 1) << LinkLog(program);
    EXPECT_EQ(ksGetUniformLocation(program, "exposure"), 0);
    EXPECT_EQ(ksGetUniformLocation(program, "center"), 2);
    EXPECT_EQ(ksGetUniformBlockIndex(program, "mesh"), 0);
    EXPECT_NO_KS_ERROR();

    // The types it declared still guard the uniforms.
    ksBindPrimitive(KS_PRIMITIVE, NewPrimitive());
    ksUseProgram(program);
    ksUniform1f(0, 2.0f);
    EXPECT_NO_KS_ERROR();
    ksUniform1i(0, 2);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksUniform1i");

    // Detaching it at last takes its declarations out of the next link.
    ksDetachShader(program, shared);
    ksDetachShader(program, shared);
    ksLinkProgram(program);
    EXPECT_EQ(LinkStatus(program), 1);
    EXPECT_EQ(ksGetUniformLocation(program, "exposure"), -1);
    EXPECT_EQ(ksGetUniformLocation(program, "center"), 0);
    EXPECT_NO_KS_ERROR();
}

TEST_F(ShadingLanguage, LinksUseTheLastGoodCompile)
{
    _KSshader* shader = Shader(kVertex, kShapeSource);
    _KSprogram* program = Linked({shader});
    ASSERT_EQ(LinkStatus(program), 1);

    // New source counts from its compile on, not before.
    const char* moved = "uniform vec3 middle;\nsphere(middle, 1);";
    ksShaderSource(shader, 1, &moved, nullptr);
    ksLinkProgram(program);
    EXPECT_EQ(ksGetUniformLocation(program, "center"), 0);
    EXPECT_EQ(ksGetUniformLocation(program, "middle"), -1);
    ksCompileShader(shader);
    ksLinkProgram(program);
    EXPECT_EQ(ksGetUniformLocation(program, "center"), -1);
    EXPECT_EQ(ksGetUniformLocation(program, "middle"), 0);

    // A failed compile, real or injected, leaves nothing to link.
    const char* broken = "sphere(";
    ksShaderSource(shader, 1, &broken, nullptr);
    ksCompileShader(shader);
    ksLinkProgram(program);
    EXPECT_EQ(LinkLog(program), "error: shader 1 (vertex) is not compiled\n");
    ksShaderSource(shader, 1, &moved, nullptr);
    ksCompileShader(shader);
    ksLinkProgram(program);
    ASSERT_EQ(LinkStatus(program), 1);
    Kestrel::Testing::AutoFaults faults;
    Kestrel::Testing::InjectFault("ksCompileShader");
    ksCompileShader(shader);
    ksLinkProgram(program);
    EXPECT_EQ(LinkStatus(program), 0);
    EXPECT_EQ(LinkLog(program), "error: shader 1 (vertex) is not compiled\n");
    EXPECT_NO_KS_ERROR();
}

// Each uniform type with the one call that sets it.
struct TypedSetter
{
    const char* type;
    std::function<void(int)> set;
};

TEST_F(ShadingLanguage, UniformCallsMustMatchTheDeclaredType)
{
    static const float floats[16] = {};
    static const int ints[4] = {};
    const std::vector<TypedSetter> setters = {
        {"float", [](int l) { ksUniform1f(l, 1.0f); }},
        {"int", [](int l) { ksUniform1i(l, 1); }},
        {"vec2", [](int l) { ksUniform2fv(l, 1, floats); }},
        {"vec3", [](int l) { ksUniform3fv(l, 1, floats); }},
        {"vec4", [](int l) { ksUniform4fv(l, 1, floats); }},
        {"ivec2", [](int l) { ksUniform2iv(l, 1, ints); }},
        {"ivec3", [](int l) { ksUniform3iv(l, 1, ints); }},
        {"ivec4", [](int l) { ksUniform4iv(l, 1, ints); }},
        {"mat3", [](int l) { ksUniformMatrix3fv(l, 1, 0, floats); }},
        {"mat4", [](int l) { ksUniformMatrix4fv(l, 1, 0, floats); }},
        {"texture", [](int l) { ksUniformt(l, nullptr); }},
        {"primitive", [](int l) { ksUniformp(l, KSprimitive(0)); }},
    };
    std::string source;
    for (const TypedSetter& s : setters)
        source += std::string("uniform ") + s.type + " u_" + s.type + ";\n";
    _KSprogram* program = Linked({Shader(kOnce, source.c_str())});
    ASSERT_EQ(LinkStatus(program), 1) << LinkLog(program);
    const KSprimitive primitive = NewPrimitive();
    ksBindPrimitive(KS_PRIMITIVE, primitive);
    ksUseProgram(program);
    ASSERT_NO_KS_ERROR();

    for (std::size_t declared = 0; declared < setters.size(); ++declared)
    {
        const int location =
            ksGetUniformLocation(program, (std::string("u_") + setters[declared].type).c_str());
        ASSERT_EQ(location, static_cast<int>(declared));
        for (std::size_t used = 0; used < setters.size(); ++used)
        {
            SCOPED_TRACE(std::string(setters[declared].type) + " set as " + setters[used].type);
            setters[used].set(location);
            if (used == declared)
            {
                EXPECT_NO_KS_ERROR();
                Kestrel::Testing::UniformRecord stored;
                ASSERT_TRUE(Kestrel::Testing::ReadUniform(primitive, location, &stored));
                EXPECT_EQ(stored.type, setters[declared].type);
            }
            else
            {
                EXPECT_KS_ERROR(KS_INVALID_OPERATION);
            }
        }
    }
}

} // namespace
} // namespace KestrelTest
