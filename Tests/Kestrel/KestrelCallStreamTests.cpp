// Call sequences the call-stream fuzzer found the runtime getting wrong, one
// row each: the calls, then the errors that ksGetError gave after them.
#include "KestrelFixture.h"

#include <functional>

namespace KestrelTest
{
namespace
{

struct Stream
{
    const char* name;
    std::function<void(std::vector<int>& errors)> calls;
    std::vector<int> errors;
};

void Read(std::vector<int>& errors)
{
    errors.push_back(ksGetError());
}

const Stream kStreams[] = {
    // Object queries check the parameter name before the handle.
    {"object queries name enums first",
     [](std::vector<int>& e)
     {
         int value = 0;
         const char* text = nullptr;
         ksGetShaderiv(ForgedHandle<_KSshader>(), KS_SHADER_LOG, &value);
         Read(e);
         ksGetShaderString(ForgedHandle<_KSshader>(), KS_COMPILE_STATUS, &text);
         Read(e);
         ksShaderString(ForgedHandle<_KSshader>(), KS_SHADER_LOG, "x");
         Read(e);
         ksGetProgramiv(ForgedHandle<_KSprogram>(), KS_PROGRAM_LOG, &value);
         Read(e);
         ksGetProgramString(ForgedHandle<_KSprogram>(), KS_LINK_STATUS, &text);
         Read(e);
         ksProgramString(ForgedHandle<_KSprogram>(), KS_PROGRAM_LOG, "x");
         Read(e);
         ksGetShaderString(ForgedHandle<_KSshader>(), KS_SHADER_LOG, &text);
         Read(e);
     },
     {KS_INVALID_ENUM, KS_INVALID_ENUM, KS_INVALID_ENUM, KS_INVALID_ENUM, KS_INVALID_ENUM,
      KS_INVALID_ENUM, KS_INVALID_VALUE}},
    // Detaching null from a live program is ignored, like deleting null.
    {"null detach is silent",
     [](std::vector<int>& e)
     {
         _KSprogram* program = ksCreateProgram();
         ksDetachShader(program, nullptr);
         Read(e);
         ksDetachShader(program, ForgedHandle<_KSshader>());
         Read(e);
     },
     {KS_NO_ERROR, KS_INVALID_VALUE}},
    // Location -1 ignores the value before its handle is looked up; at 0 a
    // handle never issued is a bad value.
    {"location -1 ignores the handle",
     [](std::vector<int>& e)
     {
         ksUniformt(-1, ForgedHandle<_KStexture>());
         ksUniformp(-1, KSprimitive(0x7e5d0000u));
         Read(e);
         ksUniformt(0, ForgedHandle<_KStexture>());
         Read(e);
     },
     {KS_NO_ERROR, KS_INVALID_VALUE}},
};

TEST(KestrelCallStreamTest, FoundStreamsRaiseTheDocumentedErrors)
{
    for (const Stream& stream : kStreams)
    {
        SCOPED_TRACE(stream.name);
        void* context = KestrelCreateContext(nullptr, nullptr, nullptr);
        ASSERT_EQ(KestrelSetCurrentContext(context), 1);
        std::vector<int> errors;
        stream.calls(errors);
        EXPECT_EQ(errors, stream.errors);
        KestrelDestroyContext(context);
    }
}

} // namespace
} // namespace KestrelTest
