// A host's first steps: get the manager, create a context, make it current,
// ask Kestrel about itself, try a frame with no frame buffer bound (Kestrel
// refuses, and the failure shows on the console), and take everything down
// with a leak report.
#include "KestrelWrapper/VireoKestrelWrapper.h"

#include <cstdio>

int main()
{
    using namespace Vireo;

    IMgrConsole* console = GetMgrConsole();
    console->SetVerbosity(IConsole::kVL_Trace); // show the uniform trace too
    IMgrKestrel* manager = GetMgrKestrel();

    IKestrelContext* context =
        manager->CreateKestrelContext(console, /*releaseMode=*/false,
                                      /*printLeakReport=*/true, /*attributes=*/nullptr);
    if (context == nullptr || !manager->SetCurrentKestrelContext(context))
    {
        std::fprintf(stderr, "could not create a current Kestrel context\n");
        std::fflush(stderr);
        return 1;
    }

    int major = 0;
    int minor = 0;
    const bool compatible = context->GetKSVersionIsCompatible(major, minor);
    std::printf("Kestrel version: %s\n", context->GetKSVersionString());
    std::printf("Kestrel profile: %s\n", context->GetKSProfileString());
    std::printf("needs %d.%d: %s\n", major, minor, compatible ? "yes" : "no");
    std::printf("ray depth limit %d of at most %d\n", context->GetRayDepthLimit(),
                context->GetMaxRayDepthLimit());

    // One primitive with a name and a traced uniform.
    IKSPrimitive* ball = context->CreateIKSPrimitive();
    ball->SetName("ball");
    ball->SetTrace(true);
    ball->SetUniform("radius", -1, 0.5f);

    // No frame buffer is bound, so Kestrel refuses the frame.
    const IKestrelContext::KSRenderFrameStatus status = context->RenderFrame();
    std::printf("frame with nothing bound: %s\n",
                status == IKestrelContext::kRFS_Failed ? "failed, as it must" : "unexpected");

    // The primitive is left over on purpose: the leak report names it. The
    // context frees nothing it was not given back, so the host still owns
    // the object and deletes it through its concrete class.
    manager->DestroyKestrelContext(context);
    delete dynamic_cast<KSPrimitive*>(ball);
    return status == IKestrelContext::kRFS_Failed && compatible ? 0 : 1;
}
