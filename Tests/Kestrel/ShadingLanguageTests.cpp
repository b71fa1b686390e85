// The shading language through the API: compile logs, link rules, and the
// locations a link hands out.
#include "KestrelFixture.h"

#include <filesystem>
#include <fstream>
#include <map>
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
    // A shader of `kind` with `source` (none at all when null), compiled
    // unless told otherwise.
    static _KSshader* Shader(int kind, const char* source, bool compile = true)
    {
        _KSshader* shader = ksCreateShader(kind);
        if (source)
            ksShaderSource(shader, 1, &source, nullptr);
        if (compile)
            ksCompileShader(shader);
        return shader;
    }

    static int Status(_KSshader* shader)
    {
        int status = -1;
        ksGetShaderiv(shader, KS_COMPILE_STATUS, &status);
        return status;
    }
    static int Status(_KSprogram* program)
    {
        int status = -1;
        ksGetProgramiv(program, KS_LINK_STATUS, &status);
        return status;
    }

    static std::string Log(_KSshader* shader)
    {
        const char* log = nullptr;
        ksGetShaderString(shader, KS_SHADER_LOG, &log);
        return log ? log : "<null>";
    }
    static std::string Log(_KSprogram* program)
    {
        const char* log = nullptr;
        ksGetProgramString(program, KS_PROGRAM_LOG, &log);
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
};

// ---------------------------------------------------------------------------
// Compile

struct CompileCase
{
    int kind;
    const char* source;
    const char* log; // empty: compiles
};

const CompileCase kCompileCases[] = {
    {kVertex, nullptr, "1:1: error: no source\n"},
    // Good sources.
    {kVertex, "sphere(c, r);\nuniform vec3 c;\nuniform float r;", ""},
    {kVertex, "uniform vec3 c = vec3(-1.5e2, .5, 3.);\nuniform float r = -2E-1;\nsphere(c, r);",
     ""},
    {kFrame, "uniform int a = -2147483648;\noutput(a, depth);", ""},
    {kVertex, "/* a */ uniform /* b\n */ vec3 c; // c\n// only a comment\nsphere(c, /* r */ 1.0);",
     ""},
    {kFrame, "uniform vec3 depth;\nuniform vec3 output;\nbackground(depth);\noutput(0, depth);",
     ""},
    {kFrame, "uniform int a;\noutput(a, radiance);\noutput(a, depth);", ""},
    {kOnce, "", ""},
    {kOnce, "attribute mat4 m;\nattribute ivec2 i;", ""},
    {kRay, "uniform float g = float(2);\nglass(g);", ""},
    // Names and built-ins.
    {kVertex, "sphere(c, 1.0);", "1:8: error: 'c' is not declared\n"},
    {kRay, "sphere(vec3(0, 0, 0), 1.0);",
     "1:1: error: 'sphere' is not a built-in of ray shaders\n"},
    {kOnce, "uniform vec3 c;\nsphere(c, 1.0);",
     "2:1: error: 'sphere' is not a built-in of link-once shaders\n"},
    {kVertex, "spheer(vec3(0, 0, 0), 1);", "1:1: error: unknown built-in 'spheer'\n"},
    {kVertex, "sphere(vec3(0, 0, 0));", "1:1: error: 'sphere' takes 2 arguments, not 1\n"},
    {kRay, "glass(1.5, 2);", "1:1: error: 'glass' takes 1 argument, not 2\n"},
    {kVertex, "uniform vec3 c;\nuniform float c;",
     "2:15: error: 'c' is already declared at 1:14\n"},
    {kOnce, "uniformblock c;\nattribute vec3 c;", "2:16: error: 'c' is already declared at 1:14\n"},
    // Types.
    {kVertex, "uniform float c;\nsphere(c, 1.0);",
     "2:8: error: argument 1 of 'sphere' must be vec3, but 'c' is float\n"},
    {kVertex, "sphere(1.0, 1.0);", "1:8: error: argument 1 of 'sphere' must be vec3, not float\n"},
    {kFrame, "output(1.5, radiance);",
     "1:8: error: argument 1 of 'output' must be int, not float\n"},
    {kVertex, "uniform vec3 v;\ntriangles(v);",
     "2:11: error: argument 1 of 'triangles' must be a uniform block, but 'v' is vec3\n"},
    {kVertex, "uniformblock b;\nuniform float n;\nmesh(b, n, 1.5);",
     "3:9: error: argument 2 of 'mesh' must be int, but 'n' is float\n"
     "3:12: error: argument 3 of 'mesh' must be int, not float\n"},
    {kRay, "uniform vec3 c;\nuniform texture t;\nmetallic_roughness(c, 0, 1, c, t, c, t);",
     "3:35: error: argument 6 of 'metallic_roughness' must be texture, but 'c' is vec3\n"},
    {kVertex, "triangles(1);",
     "1:11: error: argument 1 of 'triangles' must be a uniform block, not int\n"},
    {kVertex, "uniformblock b;\nsphere(b, 1);",
     "2:8: error: argument 1 of 'sphere' must be vec3, but 'b' is a uniform block\n"},
    {kVertex, "attribute vec3 p;\nsphere(p, 1);",
     "2:8: error: argument 1 of 'sphere' must be vec3, but 'p' is an attribute\n"},
    {kFrame, "output(0, colour);",
     "1:11: error: 'colour' is not a channel; channels are radiance, albedo, normal, depth and "
     "visibility\n"},
    {kFrame, "output(0, 1);", "1:11: error: argument 2 of 'output' must be a channel, not int\n"},
    {kOnce, "uniform int n = 1.5;", "1:17: error: default of 'n' must be int, not float\n"},
    {kOnce, "uniform texture t = 1;", "1:21: error: 't' is a texture and takes no default\n"},
    {kOnce, "uniform vec3 c = texture(1);", "1:18: error: there are no texture literals\n"},
    {kOnce, "uniform vec3 c = vec3(1, 2);", "1:18: error: vec3 takes 3 numbers, not 2\n"},
    {kOnce, "uniform ivec2 t = ivec2(1, 2.5);", "1:28: error: ivec2 takes integers, not '2.5'\n"},
    {kOnce, "attribute texture t;", "1:11: error: an attribute cannot be a texture\n"},
    {kVertex, "uniform vec5 c;\nsphere(c, 1);", "1:9: error: 'vec5' is not a type\n"},
    // Numbers and characters.
    {kOnce, "uniform int n = 2147483648;", "1:17: error: integer '2147483648' is out of range\n"},
    {kOnce, "uniform float f = -1e39;", "1:19: error: number '-1e39' is out of range\n"},
    {kOnce, "uniform float f = -3.4028234663852886e38;", ""}, // the largest float itself
    {kOnce, "uniform float f = 1.2.3;", "1:19: error: malformed number '1.2.3'\n"},
    {kOnce, "uniform float f = -x;", "1:20: error: expected a number, found 'x'\n"},
    {kOnce, "uniform vec3 c@;", "1:15: error: unexpected character '@'\n"},
    {kOnce, "uniform vec3 c;\x01", "1:16: error: unexpected character byte 0x01\n"},
    {kOnce, "uniform vec3 c;\n/* open", "2:1: error: unterminated comment\n"},
    // Syntax and recovery.
    {kOnce, "uniform radius;", "1:9: error: expected a type, found 'radius'\n"},
    {kOnce, "uniform 5 x;", "1:9: error: expected a type, found '5'\n"},
    {kOnce, "attribute uniform c;", "1:11: error: expected a type, found 'uniform'\n"},
    {kOnce, "attribute v\nuniform vec3 c;", "1:11: error: expected a type, found 'v'\n"},
    {kOnce, "uniform float vec3;", "1:15: error: 'vec3' is a reserved word\n"},
    {kVertex, "sphere(vec3(0, 0, 0) 1);", "1:22: error: expected ',' or ')', found '1'\n"},
    {kVertex, "uniform vec3 c\nuniform float r;\nsphere(c, r)",
     "2:1: error: expected ';', found 'uniform'\n"
     "3:13: error: expected ';', found end of source\n"},
    {kVertex, "uniform vec3 = 1;\nuniform float r;\nsphere(q, r);\nglass(1.5);",
     "1:14: error: expected a name, found '='\n"
     "3:8: error: 'q' is not declared\n"
     "4:1: error: 'glass' is not a built-in of vertex shaders\n"},
    {kVertex, "sphere(vec3(0, 0, 0), 1);\nbox(vec3(0, 0, 0), vec3(1, 1, 1));",
     "2:1: error: second shape 'box'; the first is 'sphere' at 1:1\n"},
    {kRay, "glass(1.5);\n  mirror(vec3(1, 1, 1));",
     "2:3: error: second material 'mirror'; the first is 'glass' at 1:1\n"},
    {kFrame, "output(17, radiance);\noutput(-1, depth);",
     "1:8: error: attachment 17 is outside 0..16\n2:8: error: attachment -1 is outside 0..16\n"},
    {kFrame, "output(0, radiance);\noutput(0, depth);",
     "2:1: error: attachment 0 already has an output at 1:1\n"},
};

// Each source is passed in pieces of five characters: positions count
// through the boundaries.
TEST_F(ShadingLanguage, CompileStatusAndExactLog)
{
    for (const CompileCase& c : kCompileCases)
    {
        SCOPED_TRACE(c.source ? c.source : "no source");
        _KSshader* shader = Shader(c.kind, nullptr, false);
        const std::string source = c.source ? c.source : "";
        std::vector<std::string> pieces;
        for (std::size_t at = 0; at < source.size(); at += 5)
            pieces.push_back(source.substr(at, 5));
        std::vector<const char*> parts;
        for (const std::string& piece : pieces)
            parts.push_back(piece.c_str());
        if (c.source)
            ksShaderSource(shader, static_cast<long long>(parts.size()), parts.data(), nullptr);
        ksCompileShader(shader);
        EXPECT_EQ(Status(shader), c.log[0] == '\0' ? 1 : 0);
        EXPECT_EQ(Log(shader), c.log);
        EXPECT_NO_KS_ERROR() << "a failed compile is not an API error";
        ksDeleteShader(shader);
    }
}

TEST_F(ShadingLanguage, LongLogsEndWithACount)
{
    std::string source;
    for (int i = 0; i < 60; ++i)
        source += "x;\n";
    std::istringstream log(Log(Shader(kOnce, source.c_str())));
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 51u);
    EXPECT_EQ(lines[0], "1:1: error: expected a declaration or a statement, found 'x'");
    EXPECT_EQ(lines[49], "50:1: error: expected a declaration or a statement, found 'x'");
    EXPECT_EQ(lines[50], "51:1: error: 10 more errors not shown");
}

// A corpus file is named <what>.<vert|ray|frame|once>.ks; each one compiles
// and, alone in a program, links.
TEST_F(ShadingLanguage, EveryCorpusFileCompiles)
{
    const std::map<std::string, int> kinds = {
        {".vert", kVertex}, {".ray", kRay}, {".frame", kFrame}, {".once", kOnce}};
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(VIREO_SHADER_CORPUS_DIR))
    {
        SCOPED_TRACE(entry.path().filename().string());
        const auto kind = kinds.find(entry.path().stem().extension().string());
        ASSERT_NE(kind, kinds.end());
        std::ifstream file(entry.path(), std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        _KSshader* shader = Shader(kind->second, text.str().c_str());
        EXPECT_EQ(Status(shader), 1);
        EXPECT_EQ(Log(shader), "");
        _KSprogram* program = Linked({shader});
        EXPECT_EQ(Status(program), 1) << Log(program);
        ++files;
    }
    EXPECT_GE(files, 10);
    EXPECT_NO_KS_ERROR();
}

// ---------------------------------------------------------------------------
// Link

struct LinkCase
{
    std::vector<std::pair<int, const char*>> shaders; // kind, source (null: never compiled)
    const char* log;                                  // empty: links
};

const LinkCase kLinkCases[] = {
    {{}, "error: no shaders attached\n"},
    {{{kVertex, nullptr}}, "error: shader 1 (vertex) is not compiled\n"},
    {{{kVertex, "sphere(vec3(0, 0, 0), 1);"}, {kRay, "glass();"}},
     "error: shader 2 (ray) is not compiled\n"},
    {{{kRay, "glass(1.5);"}, {kRay, "mirror(vec3(1, 1, 1));"}},
     "error: two materials: 'glass' at 1:1 in shader 1 (ray) and 'mirror' at 1:1 in shader 2 "
     "(ray)\n"},
    {{{kFrame, "camera(vec3(0, 0, 0), vec3(0, 0, -1), vec3(0, 1, 0), 60);"},
      {kFrame, "camera(vec3(0, 0, 0), vec3(0, 0, -1), vec3(0, 1, 0), 60);"}},
     "error: two cameras: 'camera' at 1:1 in shader 1 (frame) and 'camera' at 1:1 in shader 2 "
     "(frame)\n"},
    {{{kFrame, "output(0, radiance);"}, {kFrame, "\noutput(0, depth);"}},
     "error: two outputs to attachment 0: at 1:1 in shader 1 (frame) and at 2:1 in shader 2 "
     "(frame)\n"},
    {{{kOnce, "uniform float r;"}, {kVertex, "uniform vec3 r;\nsphere(r, 1);"}},
     "error: 'r' is uniform float in shader 1 (link-once) and uniform vec3 in shader 2 (vertex)\n"},
    {{{kOnce, "uniformblock mesh;"}, {kOnce, "attribute vec3 mesh;"}},
     "error: 'mesh' is uniformblock in shader 1 (link-once) and attribute vec3 in shader 2 "
     "(link-once)\n"},
    {{{kOnce, "uniform vec3 c = vec3(1, 0.5, 0);"},
      {kVertex, "uniform vec3 c = vec3(1, 0.5, 1);\nsphere(c, 1);"}},
     "error: 'c' defaults to vec3(1, 0.5, 0) in shader 1 (link-once) and to vec3(1, 0.5, 1) in "
     "shader 2 (vertex)\n"},
    {{{kVertex, "uniform float r;\nsphere(vec3(0, 0, 0), r);"},
      {kVertex, "plane(vec3(0, 0, 0), vec3(0, 1, 0));"},
      {kOnce, "uniform int r;"}},
     "error: two shapes: 'sphere' at 2:1 in shader 1 (vertex) and 'plane' at 1:1 in shader 2 "
     "(vertex)\n"
     "error: 'r' is uniform float in shader 1 (vertex) and uniform int in shader 3 (link-once)\n"},
    // What a link accepts.
    {{{kOnce, "uniform vec3 c;\nuniformblock b;\nattribute vec3 p;"},
      {kVertex, "uniform vec3 c;\nuniformblock b;\nattribute vec3 p;\ntriangles(b);"}},
     ""},
    {{{kOnce, "uniform float r = 2;\nuniform vec3 c;"},
      {kVertex, "uniform float r = 2.0;\nuniform vec3 c = vec3(1, 1, 1);\nsphere(c, r);"}},
     ""},
    {{{kVertex, "sphere(vec3(0, 0, 0), 1);\ntransform(mat4(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, "
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
        SCOPED_TRACE(c.log);
        std::vector<_KSshader*> shaders;
        for (const auto& [kind, source] : c.shaders)
            shaders.push_back(Shader(kind, source, source != nullptr));
        _KSprogram* program = Linked(shaders);
        EXPECT_EQ(Status(program), c.log[0] == '\0' ? 1 : 0);
        EXPECT_EQ(Log(program), c.log);
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

// Attachment order, then source order; a repeated declaration keeps its
// first place. Another program that starts with the shared shader agrees on
// its names; without it, the order of the rest decides. A host's wrapper
// deletes the link-once shader after each link: its declarations, types
// included, count until it is detached.
TEST_F(ShadingLanguage, LocationsFollowFirstDeclarationAndStay)
{
    _KSshader* shared = Shader(kOnce, kSharedSource);
    _KSshader* shape = Shader(kVertex, kShapeSource);
    _KSshader* material = Shader(kRay, kMaterialSource);
    const auto locations = [](_KSprogram* p)
    {
        std::vector<int> found;
        for (const char* name : {"exposure", "albedo", "center", "radius", "gloss"})
            found.push_back(ksGetUniformLocation(p, name));
        for (const char* name : {"mesh", "extra"})
            found.push_back(ksGetUniformBlockIndex(p, name));
        for (const char* name : {"position", "normal"})
            found.push_back(ksGetAttribLocation(p, name));
        return found;
    };
    EXPECT_EQ(locations(Linked({shared, material})),
              std::vector<int>({0, 1, -1, -1, 2, 0, -1, 0, -1}));
    EXPECT_EQ(locations(Linked({material, shape})),
              std::vector<int>({-1, 0, 2, 3, 1, -1, 0, 1, 0}));
    _KSprogram* program = Linked({shared, shape, material});
    for (int i = 0; i < 3; ++i, ksDeleteShader(shared), ksLinkProgram(program))
    {
        ASSERT_EQ(Status(program), 1) << Log(program);
        EXPECT_EQ(locations(program), std::vector<int>({0, 1, 2, 3, 4, 0, 1, 0, 1}));
    }
    ksBindPrimitive(KS_PRIMITIVE, NewPrimitive());
    ksUseProgram(program);
    ksUniform1i(0, 2);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksUniform1i");

    // New source counts from its compile on, not before.
    const char* moved = "uniform vec3 middle;\nsphere(middle, 1);";
    ksShaderSource(shape, 1, &moved, nullptr);
    ksDetachShader(program, shared);
    ksLinkProgram(program);
    EXPECT_EQ(locations(program), std::vector<int>({-1, 2, 0, 1, 3, -1, 0, 1, 0}));
    // A failed link leaves nothing declared.
    ksAttachShader(program, Shader(kVertex, "box(vec3(0, 0, 0), vec3(1, 1, 1));"));
    ksLinkProgram(program);
    ASSERT_EQ(Status(program), 0);
    EXPECT_EQ(locations(program), std::vector<int>(9, -1));
    EXPECT_NO_KS_ERROR();
}

} // namespace
} // namespace KestrelTest
