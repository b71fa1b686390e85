// vireo-render: renders one of the built-in scenes through the wrapper and
// writes a PNG (and, on request, an OpenEXR file of the float radiance).
//
//   vireo-render --size 640x480 --passes 64 --output room.png
//
// Radiance goes to a filtered attachment in blend mode 2, so Kestrel adds up
// the passes and the image is that sum over the pass count. Visibility goes
// to an attachment in blend mode 1, whose sum the wrapper keeps. Ctrl-C
// stops the frame in flight; what has been accumulated is still written.
#include "ImageOutput.h"
#include "Import.h"
#include "PassGroup.h"
#include "Scene.h"
#if defined(VIREO_RENDER_MPI)
#include "Distributed.h"
#endif

#include "KestrelWrapper/VireoKestrelWrapper.h"

#include <CLI/CLI.hpp>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>

using namespace Vireo;

namespace
{

#if defined(VIREO_RENDER_MPI)
// mpirun hands Ctrl-C to its ranks as SIGTERM.
constexpr bool kStopOnTerminate = true;
#else
constexpr bool kStopOnTerminate = false;
#endif

struct Options
{
    int width = 640;
    int height = 480;
    int passes = 64;
    int threads = 0; // 0: one per core
    float exposure = 1.0f;
    std::string scene = "room";
    std::string output = "vireo-render.png";
    std::string exr;
    std::string visibility;
    VireoRender::ImportOptions import; // a model file instead of a built-in scene
};

// A Gaussian of standard deviation 0.5 pixel over a 2 × 2 pixel square; the
// square's corner is the filter's origin, so the peak sits at its centre.
class GaussianFilter : public IKSFrameBufferFilter
{
public:
    float GetFilterSize() override { return kSize; }
    float Sample(float x, float y) override
    {
        const float dx = x - kSize * 0.5f, dy = y - kSize * 0.5f;
        return std::exp(-(dx * dx + dy * dy) / (2.0f * kSigma * kSigma));
    }

private:
    static constexpr float kSize = 2.0f;
    static constexpr float kSigma = 0.5f;
};

// Ctrl-C arrives here, on a thread of its own, rather than in a signal
// handler: stopping a frame is not something a handler may do.
class InterruptWatcher
{
public:
    InterruptWatcher()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        if (kStopOnTerminate)
            sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr); // inherited by every later thread
        _thread = std::thread(
            [this, set]()
            {
                int signal = 0;
                while (sigwait(&set, &signal) == 0 && !_bDone.load())
                {
                    _bInterrupted.store(true);
                    if (IKestrelContext* context = _pContext.load())
                        context->Stop();
                }
            });
    }

    ~InterruptWatcher()
    {
        _bDone.store(true);
        pthread_kill(_thread.native_handle(), SIGINT);
        _thread.join();
    }

    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    void Watch(IKestrelContext* context) { _pContext.store(context); }
    bool Interrupted() const { return _bInterrupted.load(); }

private:
    std::atomic<IKestrelContext*> _pContext{nullptr};
    std::atomic<bool> _bInterrupted{false};
    std::atomic<bool> _bDone{false};
    std::thread _thread;
};

// Copies an attachment's pixels out under its lock, scaled by `scale`.
// `complement`: 1 − value instead, for the summed occlusion of visibility.
VireoRender::RadianceImage ReadAttachment(IKSFrameBufferAttachment* attachment, int width,
                                          int height, float scale, bool complement)
{
    VireoRender::RadianceImage image;
    image.width = width;
    image.height = height;
    image.rgba.resize(static_cast<std::size_t>(width) * height * 4);
    attachment->Lock(~0ul);
    const auto* pixels = reinterpret_cast<const float*>(attachment->GetClientBuffer());
    if (pixels != nullptr)
    {
        // Kestrel's rows run bottom to top; images run top to bottom.
        const std::size_t row = static_cast<std::size_t>(width) * 4;
        for (int y = 0; y < height; ++y)
        {
            const float* from = pixels + static_cast<std::size_t>(height - 1 - y) * row;
            float* to = image.rgba.data() + static_cast<std::size_t>(y) * row;
            for (std::size_t i = 0; i < row; ++i)
                to[i] = complement ? 1.0f - from[i] * scale : from[i] * scale;
        }
    }
    attachment->UnLock();
    return image;
}

bool ParseSize(const std::string& text, int* width, int* height)
{
    int w = 0, h = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%dx%d%c", &w, &h, &tail) != 2 || w <= 0 || h <= 0 || w > 16384 ||
        h > 16384)
        return false;
    *width = w;
    *height = h;
    return true;
}

// FNV-1a of a file's bytes; 0 for a file that cannot be read (the import
// then refuses it with its own message).
std::uint64_t HashOfFile(const std::string& path)
{
    std::uint64_t hash = 14695981039346656037ull;
    if (std::FILE* file = std::fopen(path.c_str(), "rb"))
    {
        unsigned char block[65536];
        for (std::size_t n; (n = std::fread(block, 1, sizeof(block), file)) > 0;)
            for (std::size_t i = 0; i < n; ++i)
                hash = (hash ^ block[i]) * 1099511628211ull;
        std::fclose(file);
    }
    return hash;
}

// What every process of a job must agree on: what shapes the picture. A
// model is named by its path and the hash of its bytes, so two machines with
// different files of one name disagree.
std::string SceneDescription(const Options& options)
{
    const std::string scene = options.import.path.empty()
                                  ? "scene " + options.scene
                                  : "model " + options.import.path + " #" +
                                        std::to_string(HashOfFile(options.import.path));
    return scene + ", " + std::to_string(options.width) + "x" + std::to_string(options.height) +
           ", " + std::to_string(options.passes) + " passes";
}

// Sums an attachment's client memory over the group, under its lock.
bool SumOverGroup(VireoRender::IPassGroup& group, IKSFrameBufferAttachment* attachment, int width,
                  int height, bool contribute)
{
    attachment->Lock(~0ul);
    const bool summed = group.Sum(reinterpret_cast<float*>(attachment->GetClientBuffer()),
                                  static_cast<std::size_t>(width) * height * 4, contribute);
    attachment->UnLock();
    return summed;
}

int Render(const Options& options, InterruptWatcher& watcher, VireoRender::IPassGroup& group)
{
    IMgrConsole* console = GetMgrConsole();
    IMgrKestrel* manager = GetMgrKestrel();
    const long long attributes[] = {KS_CONTEXT_RENDER_THREADS, options.threads, 0};
    IKestrelContext* context = manager->CreateKestrelContext(console, false, true, attributes);
    if (context == nullptr || !manager->SetCurrentKestrelContext(context))
    {
        if (context != nullptr)
            manager->DestroyKestrelContext(context);
        group.Agree(SceneDescription(options), "no Kestrel context");
        return 1;
    }
    if (group.IsRoot())
        std::printf("%s, %dx%d, %d passes, scene '%s'\n", context->GetKSVersionString(),
                    options.width, options.height, options.passes,
                    options.import.path.empty() ? options.scene.c_str()
                                                : options.import.path.c_str());

    int status = 0;
    {
        VireoRender::Scene scene(context);
        VireoRender::ImportedScene imported(context);
        std::string error;
        IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
        IKSFrameBufferAttachment* radiance = nullptr;
        IKSFrameBufferAttachment* visibility = nullptr;
        GaussianFilter filter;
        // Build sets `error` when it fails.
        const bool built = options.import.path.empty() ? scene.Build(options.scene, &error)
                                                       : imported.Build(options.import, &error);
        if (group.IsRoot())
            for (const std::string& note : imported.Description().notes)
                std::printf("%s: %s\n", options.import.path.c_str(), note.c_str());
        if (built &&
            (!frameBuffer->Init(options.width, options.height) ||
             (radiance = frameBuffer->CreateAttachment(
                  0, IKSFrameBufferAttachment::kF_RGBA, IKSFrameBufferAttachment::kDT_Float, true,
                  IKSFrameBufferAttachment::kBM_Mode2, Color4f{0, 0, 0, 0})) == nullptr ||
             (visibility = frameBuffer->CreateAttachment(
                  1, IKSFrameBufferAttachment::kF_RGBA, IKSFrameBufferAttachment::kDT_Float, false,
                  IKSFrameBufferAttachment::kBM_Accumulated, Color4f{1, 1, 1, 1})) == nullptr ||
             !frameBuffer->SetFilter(&filter) || !frameBuffer->Bind()))
            error = "the frame buffer was refused";
        if (!group.Agree(SceneDescription(options), error))
        {
            status = 1;
        }
        else
        {
            frameBuffer->Clear();
            watcher.Watch(context);
            group.Begin(options.passes);
            int rendered = 0;
            for (int pass = 0; pass < options.passes && !watcher.Interrupted(); ++pass)
            {
                if (!group.Renders(pass))
                    continue;
                // Each pass draws its own samples, whichever process renders it.
                ksFrameParameter1i(KS_FRAME_INDEX, pass);
                const IKestrelContext::KSRenderFrameStatus frame = context->RenderFrame();
                if (frame == IKestrelContext::kRFS_Failed)
                {
                    error = "a pass failed";
                    break;
                }
                ++rendered; // a stopped pass has still added its finished tiles
                radiance->NotifyPassCompleted();
                visibility->NotifyPassCompleted();
                IKestrelContext::KSRenderFrameStatistics statistics = {};
                context->GetKSStatistics(statistics);
                group.PassDone(rendered, statistics.doubleStatistic2 * 1e6);
                if (frame == IKestrelContext::kRFS_Stopped)
                    break;
            }
            group.End();
            watcher.Watch(nullptr);
            // Every process takes part in each step; a failed one still adds
            // the passes it finished.
            const int total = group.TotalPasses(rendered);
            const bool succeeded = group.Succeeded(error);
            bool summed =
                SumOverGroup(group, radiance, options.width, options.height, rendered > 0);
            summed = SumOverGroup(group, visibility, options.width, options.height, rendered > 0) &&
                     summed;
            if (!succeeded || !summed)
                status = 1;
            if (watcher.Interrupted() && group.IsRoot())
                std::printf("interrupted after %d passes: writing what there is\n", total);

            std::string failure;
            if (summed && total > 0 && group.IsRoot())
            {
                const float scale = 1.0f / static_cast<float>(total);
                const VireoRender::RadianceImage image =
                    ReadAttachment(radiance, options.width, options.height, scale, false);
                failure = VireoRender::WritePng(image, options.exposure, options.output);
                if (failure.empty() && !options.exr.empty())
                    failure = VireoRender::WriteExr(image, options.exr);
                if (failure.empty() && !options.visibility.empty())
                    failure = VireoRender::WritePng(
                        ReadAttachment(visibility, options.width, options.height, scale, true),
                        1.0f, options.visibility);
                if (failure.empty())
                    std::printf("wrote %s\n", options.output.c_str());
            }
            // The root's failure to write fails every process.
            if (!group.Succeeded(failure))
                status = 1;
        }
        context->DestroyIKSFrameBuffer(frameBuffer);
    }
    manager->DestroyKestrelContext(context);
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    // Before any other thread starts, so that every thread blocks Ctrl-C.
    InterruptWatcher watcher;
    Options options;
    std::string size = "640x480";
    CLI::App app{"Renders a built-in scene through VireoKestrelWrapper."};
    // The last of a repeated option wins: the demo scripts' own come first.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("-s,--size", size, "image size, WIDTHxHEIGHT")->capture_default_str();
    app.add_option("-p,--passes", options.passes, "samples per pixel")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("-t,--threads", options.threads, "render threads, 0 for one per core")
        ->check(CLI::Range(0, 1024))
        ->capture_default_str();
    app.add_option("--scene", options.scene, "scene to render")
        ->check(CLI::IsMember(VireoRender::Scene::Names()))
        ->capture_default_str();
    app.add_option("-o,--output", options.output, "PNG file of the tone-mapped image")
        ->capture_default_str();
    app.add_option("--exr", options.exr, "OpenEXR file of the float radiance");
    app.add_option("--visibility", options.visibility, "PNG file of the summed visibility");
    app.add_option("--exposure", options.exposure, "exposure before tone mapping")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("model", options.import.path, "a .gltf, .glb or .obj file to render");
    app.add_option("--camera", options.import.camera, "the glTF camera to look through")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--environment", options.import.environment,
                   "the sky of a model: uniform or none")
        ->check(CLI::IsMember({"uniform", "none"}))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    if (!ParseSize(size, &options.width, &options.height))
    {
        std::fprintf(stderr, "vireo-render: size '%s' is not WIDTHxHEIGHT\n", size.c_str());
        return 2;
    }
#if defined(VIREO_RENDER_MPI)
    VireoRender::Distributed group(&argc, &argv);
#else
    VireoRender::SoloGroup group;
#endif
    return Render(options, watcher, group);
}
