// Shaders and programs: sources, attachments and name look-up.
#include "KestrelFixture.h"

#include <string>
#include <vector>

namespace KestrelTest
{
namespace
{

const char* const kSphereSource = "uniform vec3 center;\n"
                                  "uniform float radius = 1.0;\n"
                                  "sphere(center, radius);\n";
const char* const kMaterialSource = "uniform vec3 albedo;\n"
                                    "diffuse(albedo);\n";

class KestrelShaders : public KestrelFixture
{
protected:
    _KSshader* Compiled(int kind, const char* source)
    {
        _KSshader* shader = ksCreateShader(kind);
        ksShaderSource(shader, 1, &source, nullptr);
        ksCompileShader(shader);
        return shader;
    }

    // A program of the given compiled shaders, linked.
    _KSprogram* Linked(std::initializer_list<_KSshader*> shaders)
    {
        _KSprogram* program = ksCreateProgram();
        for (_KSshader* shader : shaders)
            ksAttachShader(program, shader);
        ksLinkProgram(program);
        return program;
    }

    static int CompileStatus(_KSshader* shader)
    {
        int status = 0x7f7f7f7f;
        ksGetShaderiv(shader, KS_COMPILE_STATUS, &status);
        return status;
    }

    static int LinkStatus(_KSprogram* program)
    {
        int status = 0x7f7f7f7f;
        ksGetProgramiv(program, KS_LINK_STATUS, &status);
        return status;
    }

    static std::string ShaderText(_KSshader* shader, int name)
    {
        const char* text = reinterpret_cast<const char*>(1);
        ksGetShaderString(shader, name, &text);
        return text ? text : "<null>";
    }
};

TEST_F(KestrelShaders, SourceIsCopiedConcatenatedAndReadBack)
{
    _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
    EXPECT_EQ(ShaderText(shader, KS_SHADER_SOURCE), "<null>") << "no source was ever set";

    struct Case
    {
        const char* label;
        std::vector<std::string> strings;
        std::vector<int> lengths; // empty: pass null
        std::string expected;
    };
    const Case cases[] = {
        {"concatenated", {"uniform ", "float r;", "\n"}, {}, "uniform float r;\n"},
        {"with lengths", {"uniformXXX", " float r;"}, {7, -1}, "uniform float r;"},
        {"zero length", {"abc", "uniform int i;"}, {0, 14}, "uniform int i;"},
        {"empty", {}, {}, ""},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        std::vector<std::string> owned = c.strings;
        std::vector<const char*> pointers;
        for (const std::string& s : owned)
            pointers.push_back(s.c_str());
        ksShaderSource(shader, static_cast<long long>(pointers.size()), pointers.data(),
                       c.lengths.empty() ? nullptr : c.lengths.data());
        for (std::string& s : owned)
            s.assign(s.size(), '#'); // the runtime must hold its own copy
        EXPECT_EQ(ShaderText(shader, KS_SHADER_SOURCE), c.expected);
        EXPECT_NO_KS_ERROR();
    }
}

TEST_F(KestrelShaders, AttachmentsAreASet)
{
    _KSprogram* program = ksCreateProgram();
    _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
    EXPECT_EQ(CompileStatus(shader), 0) << "not compiled yet";
    EXPECT_EQ(LinkStatus(program), 0) << "not linked yet";
    const char* source = kSphereSource;
    ksShaderSource(shader, 1, &source, nullptr);
    ksCompileShader(shader);
    ksAttachShader(program, shader);
    ASSERT_NO_KS_ERROR();
    ksAttachShader(program, shader);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksAttachShader");
    ksDetachShader(program, Compiled(KS_SHADER_KIND_2, kMaterialSource));
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksDetachShader");

    ksDetachShader(program, shader);
    EXPECT_NO_KS_ERROR();
    ksLinkProgram(program);
    EXPECT_EQ(LinkStatus(program), 0) << "the detached shader is still linked";
    ksDetachShader(program, shader);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksDetachShader");
}

TEST_F(KestrelShaders, NamesMatchOnlyWhole)
{
    _KSprogram* program = Linked({Compiled(KS_VERTEX_SHADER, kSphereSource)});
    ASSERT_EQ(ksGetUniformLocation(program, "center"), 0);
    for (const char* name : {"nosuch", "", "center.x", "Center", "cent"})
    {
        EXPECT_EQ(ksGetUniformLocation(program, name), -1) << name;
        EXPECT_EQ(ksGetUniformBlockIndex(program, name), -1) << name;
        EXPECT_EQ(ksGetAttribLocation(program, name), -1) << name;
    }
    EXPECT_NO_KS_ERROR();
}

} // namespace
} // namespace KestrelTest
