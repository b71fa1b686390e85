// Renders one emissive sphere into a 64 x 64 attachment and checks that the
// centre shows the lamp and a corner the blue background. Exits non-zero
// otherwise.
#include <KestrelWrapper/VireoKestrelWrapper.h>
#include <VireoVersion.h>

#include <cstdio>
#include <string>

using namespace Vireo;

namespace
{

constexpr int kSize = 64;

const char* const kSphereSource = "sphere(vec3(0.0, 0.0, 0.0), 1.0);\n";
const char* const kLampSource = "emissive(vec3(4.0, 4.0, 4.0));\n";
const char* const kFrameSource = "camera(vec3(0.0, 0.0, 4.0), vec3(0.0, 0.0, 0.0),"
                                 " vec3(0.0, 1.0, 0.0), 40.0);\n"
                                 "background(vec3(0.0, 0.0, 0.5));\n"
                                 "output(0, radiance);\n";

IKSProgram* Program(IKestrelContext* context, IKSShader::Type firstType, const char* first,
                    const char* second)
{
    IKSShader* shaders[2] = {context->CreateIKSShader(firstType),
                             second ? context->CreateIKSShader(IKSShader::kST_Kind2) : nullptr};
    IKSProgram* program = context->CreateIKSProgram();
    std::string sources[2] = {first, second ? second : ""};
    for (int i = 0; i < 2; ++i)
    {
        if (shaders[i] == nullptr)
            continue;
        Result log;
        if (!shaders[i]->SetString(sources[i], &log))
            std::fprintf(stderr, "%s", log.GetText().c_str());
        program->AddShader(shaders[i]);
    }
    return program->Link() ? program : nullptr;
}

bool Render(IKestrelContext* context)
{
    IKSProgram* sphere = Program(context, IKSShader::kST_Vertex, kSphereSource, kLampSource);
    IKSProgram* frame = Program(context, IKSShader::kST_Kind3, kFrameSource, nullptr);
    if (sphere == nullptr || frame == nullptr)
        return false;
    context->CreateIKSPrimitive()->Bind();
    ksUseProgram(sphere->GetKSProgram());
    context->TheNullPrimitive()->Bind();
    ksUseProgram(frame->GetKSProgram());

    IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
    if (frameBuffer == nullptr || !frameBuffer->Init(kSize, kSize))
        return false;
    IKSFrameBufferAttachment* radiance = frameBuffer->CreateAttachment(
        0, IKSFrameBufferAttachment::kF_RGBA, IKSFrameBufferAttachment::kDT_Float, false,
        IKSFrameBufferAttachment::kBM_Mode2, Color4f{0.0f, 0.0f, 0.0f, 0.0f});
    if (radiance == nullptr)
        return false;
    frameBuffer->Bind();
    frameBuffer->Clear();
    context->SetViewport(0, 0, kSize, kSize);
    if (context->RenderFrame() != IKestrelContext::kRFS_Finished || !radiance->Lock(kInfinite))
        return false;
    const auto* pixels = reinterpret_cast<const float*>(radiance->GetClientBuffer());
    const float* centre = pixels + ((kSize / 2) * kSize + kSize / 2) * 4;
    const float* corner = pixels;
    const bool lit = centre[0] > 1.0f && centre[2] > 1.0f;
    const bool background = corner[0] == 0.0f && corner[2] == 0.5f;
    std::printf("Vireo %s: centre %.3f %.3f %.3f, corner %.3f %.3f %.3f\n", VIREO_VERSION_STRING,
                centre[0], centre[1], centre[2], corner[0], corner[1], corner[2]);
    radiance->UnLock();
    return lit && background;
}

} // namespace

int main()
{
    IMgrKestrel* manager = GetMgrKestrel();
    // No leak report: the process ends with its objects still in the context.
    IKestrelContext* context =
        manager->CreateKestrelContext(GetMgrConsole(), false, false, nullptr);
    if (context == nullptr || !manager->SetCurrentKestrelContext(context))
        return 1;
    const bool ok = Render(context);
    manager->DestroyKestrelContext(context);
    return ok ? 0 : 1;
}
