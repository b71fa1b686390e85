// The context's short path from source to Kestrel shader and program: calls,
// and what happens to handles on failure. Its failure texts, and that
// nothing made is left behind, are the fault sweep's.
#include "WrapperFixture.h"

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::AutoFaults;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::Describe;
using Kestrel::Testing::InjectFault;

namespace
{

const char* kShapeParts[] = {"uniform vec3 center;\nuniform float radius;\n",
                             "sphere(center, radius);\n"};
const std::string kShapeSource = std::string(kShapeParts[0]) + kShapeParts[1];
const char* kMaterialParts[] = {"uniform vec3 albedo;\ndiffuse(albedo);\n"};

class RawFixture : public WrapperFixture
{
protected:
    KestrelContextImp* Raw() { return dynamic_cast<KestrelContextImp*>(_pContext); }
    _KSshader* Shape() { return Raw()->CreateShader(KS_VERTEX_SHADER, kShapeParts, 2); }
    _KSshader* Material() { return Raw()->CreateShader(KS_SHADER_KIND_2, kMaterialParts, 1); }
};

} // namespace

// The sources are joined in order and compiled without a word; a program
// attaches its shaders in order, and a failed link deletes the program but
// leaves the shaders to the caller, still usable.
TEST_F(RawFixture, ShadersJoinTheirSourcesAndProgramsLeaveTheirShadersToTheCaller)
{
    _KSshader* shape = Shape();
    ASSERT_NE(shape, nullptr);
    EXPECT_EQ(_console.Calls(), std::vector<ConsoleCall>{}) << "a good compile prints nothing";
    const char* source = nullptr;
    ksGetShaderString(shape, KS_SHADER_SOURCE, &source);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source, kShapeSource);

    _KSshader* material = Material();
    CallLog log;
    _KSprogram* both = Raw()->CreateProgram(shape, material);
    ASSERT_NE(both, nullptr);
    const std::string prog = Describe(both);
    EXPECT_EQ(log.Calls(),
              (Calls{"ksCreateProgram()", "ksAttachShader(" + prog + ", " + Describe(shape) + ")",
                     "ksAttachShader(" + prog + ", " + Describe(material) + ")",
                     "ksLinkProgram(" + prog + ")",
                     "ksGetProgramiv(" + prog + ", KS_LINK_STATUS, ptr)"}));
    {
        AutoFaults faults;
        InjectFault("ksLinkProgram");
        log.Clear();
        EXPECT_EQ(Raw()->CreateProgram(shape, material), nullptr);
        EXPECT_EQ(log.CallsOf("ksDeleteProgram").size(), 1u);
        EXPECT_EQ(log.CallsOf("ksDeleteShader").size() + log.CallsOf("ksDetachShader").size(), 0u);
    }
    _KSprogram* single = Raw()->CreateProgram(shape);
    EXPECT_NE(single, nullptr) << "the shaders are still usable";
    EXPECT_TRUE(Raw()->DestroyProgram(single));
    EXPECT_TRUE(Raw()->DestroyProgram(both));
    EXPECT_TRUE(Raw()->DestroyShader(shape));
    EXPECT_TRUE(Raw()->DestroyShader(material));
    EXPECT_NO_KS_ERROR();
}
