// The road of one frame, as a host walks it: source text becomes shaders
// and programs, primitives get their uniforms, a frame buffer gets two
// render targets and a pixel filter, a few passes are rendered and summed,
// and the host reads the pixels straight from the attachments' memory.
// Everything goes back to the context at the end, so its leak report stays
// empty. Only the umbrella header is used, as a host would.
#include "KestrelWrapper/VireoKestrelWrapper.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace Vireo;

namespace
{

constexpr int kWidth = 48;
constexpr int kHeight = 32;
constexpr int kPasses = 8;

// A ball resting on the ground, under a pale sky.
const char* const kBallSource = "uniform vec3 center;\n"
                                "uniform float radius = 1.0;\n"
                                "sphere(center, radius);\n";
const char* const kGroundSource = "uniform vec3 point;\n"
                                  "uniform vec3 normal;\n"
                                  "plane(point, normal);\n";
const char* const kMatteSource = "uniform vec3 albedo = vec3(0.8, 0.8, 0.8);\n"
                                 "diffuse(albedo);\n";
// Attachment 0 gets radiance, attachment 1 visibility: 1 where a point sees
// the sky, 0 where something is in the way.
const char* const kFrameSource = "uniform vec3 eye;\n"
                                 "uniform vec3 target;\n"
                                 "uniform vec3 up = vec3(0.0, 1.0, 0.0);\n"
                                 "uniform float fov = 45.0;\n"
                                 "uniform vec3 sky = vec3(0.5, 0.6, 0.8);\n"
                                 "camera(eye, target, up, fov);\n"
                                 "background(sky);\n"
                                 "output(0, radiance);\n"
                                 "output(1, visibility);\n";

// The host's own pixel filter. The library samples it once, over the square
// from 0 up to its size, so the bell is centred in that square.
class GaussianFilter : public IKSFrameBufferFilter
{
public:
    GaussianFilter(float size, float sigma) : _fSize(size), _fSigma(sigma) {}
    float GetFilterSize() override { return _fSize; }
    float Sample(float x, float y) override
    {
        const float dx = x - 0.5f * _fSize;
        const float dy = y - 0.5f * _fSize;
        return std::exp(-(dx * dx + dy * dy) / (2.0f * _fSigma * _fSigma));
    }

private:
    float _fSize;
    float _fSigma;
};

// What the host made, so that all of it goes back at the end.
struct Made
{
    std::vector<IKSShader*> shaders;
    std::vector<IKSProgram*> programs;
    std::vector<IKSPrimitive*> primitives;
    IKSFrameBuffer* frameBuffer = nullptr;

    void GiveBack(IKestrelContext* context)
    {
        // The frame buffer takes its attachments along.
        context->DestroyIKSFrameBuffer(frameBuffer);
        for (IKSPrimitive* primitive : primitives)
            context->DestroyIKSPrimitive(primitive);
        for (IKSProgram* program : programs)
            context->DestroyIKSProgram(program);
        for (IKSShader* shader : shaders)
            context->DestroyIKSShader(shader);
    }
};

bool Fail(const char* what)
{
    std::fprintf(stderr, "road of one frame: %s\n", what);
    return false;
}

// Step 1: source is compiled as it is set; problems land in a Result.
IKSShader* Compile(IKestrelContext* context, Made& made, IKSShader::Type type, const char* text)
{
    IKSShader* shader = context->CreateIKSShader(type);
    if (shader == nullptr)
        return nullptr;
    made.shaders.push_back(shader);
    std::string source = text;
    Result log;
    if (!shader->SetString(source, &log))
    {
        std::fprintf(stderr, "%s", log.GetText().c_str());
        return nullptr;
    }
    return shader;
}

// ... and shaders are linked into programs; a link log goes to the console.
IKSProgram* Link(IKestrelContext* context, Made& made, IKSShader* first, IKSShader* second)
{
    IKSProgram* program = context->CreateIKSProgram();
    if (program == nullptr)
        return nullptr;
    made.programs.push_back(program);
    program->AddShader(first);
    if (second != nullptr)
        program->AddShader(second);
    return program->Link() ? program : nullptr;
}

// Step 2: a primitive runs a program; giving it one is Kestrel's own call
// on the bound primitive. Uniforms go by the program's locations.
IKSPrimitive* Place(IKestrelContext* context, Made& made, IKSProgram* program, const char* name)
{
    IKSPrimitive* primitive = context->CreateIKSPrimitive();
    made.primitives.push_back(primitive);
    primitive->SetName(name);
    primitive->Bind();
    ksUseProgram(program->GetKSProgram());
    return primitive;
}

bool BuildScene(IKestrelContext* context, Made& made)
{
    IKSShader* ball = Compile(context, made, IKSShader::kST_Vertex, kBallSource);
    IKSShader* ground = Compile(context, made, IKSShader::kST_Vertex, kGroundSource);
    IKSShader* matte = Compile(context, made, IKSShader::kST_Kind2, kMatteSource);
    IKSShader* frame = Compile(context, made, IKSShader::kST_Kind3, kFrameSource);
    if (ball == nullptr || ground == nullptr || matte == nullptr || frame == nullptr)
        return Fail("a shader did not compile");
    IKSProgram* ballProgram = Link(context, made, ball, matte);
    IKSProgram* groundProgram = Link(context, made, ground, matte);
    IKSProgram* frameProgram = Link(context, made, frame, nullptr);
    if (ballProgram == nullptr || groundProgram == nullptr || frameProgram == nullptr)
        return Fail("a program did not link");

    IKSPrimitive* ballPrimitive = Place(context, made, ballProgram, "ball");
    ballPrimitive->SetUniform("center", ballProgram->GetLocationUniform("center"),
                              Vector3f{0.0f, 1.0f, 0.0f});
    ballPrimitive->SetUniform("radius", ballProgram->GetLocationUniform("radius"), 1.0f);
    ballPrimitive->SetUniform("albedo", ballProgram->GetLocationUniform("albedo"),
                              Vector3f{0.8f, 0.3f, 0.2f});
    IKSPrimitive* groundPrimitive = Place(context, made, groundProgram, "ground");
    groundPrimitive->SetUniform("point", groundProgram->GetLocationUniform("point"),
                                Vector3f{0.0f, 0.0f, 0.0f});
    groundPrimitive->SetUniform("normal", groundProgram->GetLocationUniform("normal"),
                                Vector3f{0.0f, 1.0f, 0.0f});

    // The camera and the outputs belong to the frame: the context's null
    // primitive carries the frame program and its uniforms.
    IKSPrimitive* framePrimitive = context->TheNullPrimitive();
    framePrimitive->Bind();
    ksUseProgram(frameProgram->GetKSProgram());
    framePrimitive->SetUniform("eye", frameProgram->GetLocationUniform("eye"),
                               Vector3f{0.0f, 1.6f, 5.0f});
    framePrimitive->SetUniform("target", frameProgram->GetLocationUniform("target"),
                               Vector3f{0.0f, 0.7f, 0.0f});
    return !context->ErrorCheck() || Fail("Kestrel refused a uniform");
}

// Step 6: the host reads under each attachment's lock; the pointer is the
// memory Kestrel rendered into, or the running sum. There is no read-back.
bool ReadPixels(IKSFrameBufferAttachment* radiance, IKSFrameBufferAttachment* visibility)
{
    if (!radiance->Lock(kInfinite) || !visibility->Lock(kInfinite))
        return Fail("could not lock the attachments");
    const auto* light = reinterpret_cast<const float*>(radiance->GetClientBuffer());
    const auto* occlusion = reinterpret_cast<const float*>(visibility->GetClientBuffer());

    // Radiance was added up over the passes (blend mode 2): divide by them.
    // The visibility attachment holds, per pixel, the passes in which the
    // point did not see the sky: 0 for the sky itself, more under the ball.
    float brightest = 0.0f;
    float leastOccluded = 1e30f;
    float mostOccluded = 0.0f;
    bool finite = true;
    std::printf("radiance, one character per 2 x 4 pixels, top row first:\n");
    for (int y = kHeight - 1; y >= 0; --y)
    {
        std::string row;
        for (int x = 0; x < kWidth; ++x)
        {
            const int pixel = (y * kWidth + x) * 4;
            const float mean =
                (light[pixel] + light[pixel + 1] + light[pixel + 2]) / 3.0f / kPasses;
            finite = finite && std::isfinite(mean) && std::isfinite(occlusion[pixel]);
            brightest = std::fmax(brightest, mean);
            leastOccluded = std::fmin(leastOccluded, occlusion[pixel]);
            mostOccluded = std::fmax(mostOccluded, occlusion[pixel]);
            if (x % 2 == 0 && y % 4 == 0)
                row += " .:-=+*#%@"[std::min(9, static_cast<int>(mean * 9.0f))];
        }
        if (!row.empty())
            std::printf("  %s\n", row.c_str());
    }
    std::printf("brightest %.3f, occlusion from %.0f to %.0f of %d passes\n", brightest,
                leastOccluded, mostOccluded, kPasses);
    visibility->UnLock();
    radiance->UnLock();

    if (!finite || brightest <= 0.0f)
        return Fail("no light reached the picture");
    if (leastOccluded != 0.0f || mostOccluded <= 0.0f || mostOccluded > kPasses)
        return Fail("the visibility sum is not a count of occluded passes");
    return true;
}

bool RenderFrame(IKestrelContext* context, Made& made)
{
    if (!BuildScene(context, made))
        return false;

    // Step 3: a frame buffer of one size, with a filtered radiance target
    // that sums its samples and a visibility target whose passes the
    // library sums itself (blend mode 1, cleared to 1 before each pass).
    made.frameBuffer = context->CreateIKSFrameBuffer();
    if (made.frameBuffer == nullptr || !made.frameBuffer->Init(kWidth, kHeight))
        return Fail("no frame buffer");
    IKSFrameBufferAttachment* radiance = made.frameBuffer->CreateAttachment(
        0, IKSFrameBufferAttachment::kF_RGBA, IKSFrameBufferAttachment::kDT_Float, true,
        IKSFrameBufferAttachment::kBM_Mode2, Color4f{0.0f, 0.0f, 0.0f, 0.0f});
    IKSFrameBufferAttachment* visibility = made.frameBuffer->CreateAttachment(
        1, IKSFrameBufferAttachment::kF_RGBA, IKSFrameBufferAttachment::kDT_Float, false,
        IKSFrameBufferAttachment::kBM_Accumulated, Color4f{1.0f, 1.0f, 1.0f, 1.0f});
    if (radiance == nullptr || visibility == nullptr)
        return Fail("an attachment could not be made");
    // The filter object need only live for this call: it is sampled now.
    GaussianFilter gaussian(2.0f, 0.5f);
    if (!made.frameBuffer->SetFilter(&gaussian))
        return Fail("the filter was refused");
    made.frameBuffer->Bind();
    made.frameBuffer->Clear();

    // Steps 4 and 5: render the passes, telling each attachment when one
    // is done; the visibility target folds it into its sum and is cleared.
    context->SetViewport(0, 0, kWidth, kHeight);
    for (int pass = 0; pass < kPasses; ++pass)
    {
        if (context->RenderFrame() != IKestrelContext::kRFS_Finished)
            return Fail("a pass did not finish");
        radiance->NotifyPassCompleted();
        visibility->NotifyPassCompleted();
    }
    return ReadPixels(radiance, visibility);
}

} // namespace

int main()
{
    IMgrKestrel* manager = GetMgrKestrel();
    // The process-wide console shows Kestrel's errors and, at teardown, the
    // leak report, which must stay empty.
    IKestrelContext* context = manager->CreateKestrelContext(GetMgrConsole(), false,
                                                             /*printLeakReport=*/true, nullptr);
    if (context == nullptr || !manager->SetCurrentKestrelContext(context))
    {
        std::fprintf(stderr, "road of one frame: no current Kestrel context\n");
        return 1;
    }

    Made made;
    const bool rendered = RenderFrame(context, made);
    made.GiveBack(context);
    manager->DestroyKestrelContext(context);
    std::printf("%s\n", rendered ? "the frame reached the host" : "the frame was lost");
    return rendered ? 0 : 1;
}
