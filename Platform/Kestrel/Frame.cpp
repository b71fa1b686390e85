// Clearing and rendering frames.
#include "KestrelApi/Kestrel.h"

#include "Context.h"
#include "Instrumentation.h"
#include "Pixels.h"
#include "Renderer.h"
#include "Scene.h"

#include <tbb/blocked_range.h>
#include <tbb/combinable.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using namespace Kestrel;

namespace
{

// Every bit that names one attachment: KS_COLOR_ATTACHMENT0_BIT << 0..16,
// the top bit of the mask included.
constexpr unsigned kAttachmentBits =
    ((1u << kMaxAttachments) - 1u) * static_cast<unsigned>(KS_COLOR_ATTACHMENT0_BIT);
static_assert(kAttachmentBits == 0xFFFF8000u, "the attachment bits end at the mask's top");

#if defined(__SANITIZE_THREAD__)
#define KESTREL_RACE_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTREL_RACE_CHECKED 1
#endif
#endif

// Threads of a frame: the context's setting, or one per core; never more
// than one per core, which would only make the threads take turns.
int ThreadCount(const ContextSettings& settings)
{
    const int cores = std::max(1, tbb::info::default_concurrency());
    return settings._nRenderThreads > 0 ? std::min(settings._nRenderThreads, cores) : cores;
}

// Threads of the arena, which builds the scene and, outside the race
// checker, renders the tiles. TBB and the ray tracing kernels are not built
// for the race checker, which cannot see how they hand work and memory from
// thread to thread and would report each hand-over as a race: under it the
// arena keeps to the calling thread.
int ArenaThreadCount(const ContextSettings& settings)
{
#if defined(KESTREL_RACE_CHECKED)
    (void)settings;
    return 1;
#else
    return ThreadCount(settings);
#endif
}

// The tile at `tile` of a job `columns` tiles wide.
void RenderTileAt(const FrameJob& job, long long tile, long long columns, TileStatistics* mine)
{
    // Image edges are at most kMaxTextureSize, so these sums fit.
    const int x0 = job._nX0 + static_cast<int>(tile % columns) * kTileSize;
    const int y0 = job._nY0 + static_cast<int>(tile / columns) * kTileSize;
    RenderTile(job, x0, y0, std::min(x0 + kTileSize, job._nX1), std::min(y0 + kTileSize, job._nY1),
               mine);
}

#if defined(KESTREL_RACE_CHECKED)
// Under the race checker the tiles go to threads it sees start and end,
// each taking the next tile number from a shared counter, so that what the
// tiles write is checked against each other as in a normal build.
bool RenderTilesOnPlainThreads(int threads, const FrameJob& job, long long tiles, long long columns,
                               const std::atomic<bool>& stopRequested, TileStatistics* total)
{
    std::atomic<long long> next{0};
    std::atomic<bool> skipped{false};
    std::vector<TileStatistics> parts(static_cast<std::size_t>(threads));
    auto work = [&](std::size_t worker)
    {
        for (long long tile = next.fetch_add(1); tile < tiles; tile = next.fetch_add(1))
        {
            if (stopRequested.load(std::memory_order_acquire))
            {
                skipped.store(true, std::memory_order_relaxed);
                return;
            }
            RenderTileAt(job, tile, columns, &parts[worker]);
        }
    };
    std::vector<std::thread> workers;
    for (std::size_t worker = 1; worker < parts.size(); ++worker)
    {
        try
        {
            workers.emplace_back(work, worker);
        }
        catch (const std::system_error&)
        {
            break; // fewer threads, same tiles
        }
    }
    work(0);
    for (std::thread& worker : workers)
        worker.join();
    for (const TileStatistics& part : parts)
        *total += part;
    return !skipped.load();
}
#endif

// Renders the job's tiles in `arena`, or under the race checker on `threads`
// plain threads. False when a stop came while tiles were left.
bool RenderTiles(tbb::task_arena& arena, int threads, const FrameJob& job,
                 const std::atomic<bool>& stopRequested, TileStatistics* total)
{
    const long long columns = (job._nX1 - job._nX0 + kTileSize - 1) / kTileSize;
    const long long rows = (job._nY1 - job._nY0 + kTileSize - 1) / kTileSize;
    const long long tiles = columns * rows;
    if (tiles == 0 || job._targets.empty())
        return true;

#if defined(KESTREL_RACE_CHECKED)
    (void)arena;
    return RenderTilesOnPlainThreads(threads, job, tiles, columns, stopRequested, total);
#else
    (void)threads; // the arena's own
    std::atomic<bool> skipped{false};
    tbb::combinable<TileStatistics> statistics;
    arena.execute(
        [&]
        {
            tbb::parallel_for(
                tbb::blocked_range<long long>(0, tiles, 1),
                [&](const tbb::blocked_range<long long>& range)
                {
                    TileStatistics& mine = statistics.local();
                    for (long long tile = range.begin(); tile != range.end(); ++tile)
                    {
                        if (stopRequested.load(std::memory_order_acquire))
                        {
                            skipped.store(true, std::memory_order_relaxed);
                            break;
                        }
                        RenderTileAt(job, tile, columns, &mine);
                    }
                },
                tbb::simple_partitioner());
        });
    statistics.combine_each([total](const TileStatistics& part) { *total += part; });
    return !skipped.load();
#endif
}

// The frame as the bound frame buffer and the frame parameters describe it;
// false after raising an error when it cannot be rendered.
bool BuildJob(ApiCall& call, FrameJob* job)
{
    Context& context = call.Ctx();
    const FramebufferObject* framebuffer = context._framebuffers.Find(context._nBoundFramebuffer);
    if (!framebuffer)
    {
        call.Raise(KS_INVALID_OPERATION, "no frame buffer is bound");
        return false;
    }
    bool sized = false;
    for (int i = 0; i < kMaxAttachments; ++i)
    {
        const AttachmentPoint& point = framebuffer->_points[static_cast<std::size_t>(i)];
        const TextureObject* texture = context._textures.Find(point._nTexture);
        if (!texture)
            continue;
        const TextureImage* image = texture->_pImage.get();
        const int width = image ? image->_nWidth : 0;
        const int height = image ? image->_nHeight : 0;
        if (sized && (width != job->_nWidth || height != job->_nHeight))
        {
            call.Raise(KS_INVALID_OPERATION,
                       "attachment %d is %d x %d, the ones before are %d x %d", i, width, height,
                       job->_nWidth, job->_nHeight);
            return false;
        }
        sized = true;
        job->_nWidth = width;
        job->_nHeight = height;
    }
    long long x = 0, y = 0, width = job->_nWidth, height = job->_nHeight;
    if (context._bViewportSet)
    {
        x = context._viewport[0];
        y = context._viewport[1];
        width = context._viewport[2];
        height = context._viewport[3];
    }
    job->_nX0 = static_cast<int>(std::clamp(x, 0LL, static_cast<long long>(job->_nWidth)));
    job->_nY0 = static_cast<int>(std::clamp(y, 0LL, static_cast<long long>(job->_nHeight)));
    job->_nX1 = static_cast<int>(std::clamp(x + width, static_cast<long long>(job->_nX0),
                                            static_cast<long long>(job->_nWidth)));
    job->_nY1 = static_cast<int>(std::clamp(y + height, static_cast<long long>(job->_nY0),
                                            static_cast<long long>(job->_nHeight)));
    job->_nRayDepthLimit = context._nRayDepthLimit;
    job->_fFilterSize = context._fFilterSize;
    job->_nFilterTableSize = context._nFilterTableSize;
    job->_filterTable = context._filterTable;
    job->_nFrameIndex = context._statistics._nFrames;

    const FrameView view = ResolveFrameView(context);
    job->_camera = view._camera;
    job->_background = view._background;
    for (const FrameOutput& output : view._outputs)
    {
        const AttachmentPoint& point =
            framebuffer->_points[static_cast<std::size_t>(output._nAttachment)];
        const TextureObject* texture = context._textures.Find(point._nTexture);
        // Images without pixels have nothing to write into.
        if (texture && texture->_pImage && texture->_pImage->Bytes() != 0)
            job->_targets.push_back({output._nAttachment, texture->_pImage, point._nFilter,
                                     point._eBlendMode, output._eChannel});
    }
    if (!job->_targets.empty() && job->_nX0 < job->_nX1 && job->_nY0 < job->_nY1)
    {
        std::string error;
        job->_pScene = AcquireScene(context, &error);
        if (!job->_pScene && !error.empty())
        {
            call.Raise(KS_OUT_OF_MEMORY, "%s", error.c_str());
            return false;
        }
    }
    // A build given up for a stop leaves nothing to render either.
    if (!job->_pScene)
        job->_targets.clear();
    job->Prepare();
    return true;
}

} // namespace

void ksClear(unsigned int mask)
{
    ApiCall call("ksClear", {EnumArg(mask, kCS_ClearMask)});
    if (!call.Proceed())
        return;
    if ((mask & ~(KS_COLOR_BUFFER_BIT | kAttachmentBits)) != 0)
    {
        call.Raise(KS_INVALID_VALUE, "mask 0x%x has bits that name no attachment", mask);
        return;
    }
    Context& context = call.Ctx();
    const FramebufferObject* framebuffer = context._framebuffers.Find(context._nBoundFramebuffer);
    if (!framebuffer)
    {
        call.Raise(KS_INVALID_OPERATION, "no frame buffer is bound");
        return;
    }
    for (int i = 0; i < kMaxAttachments; ++i)
    {
        const bool selected = (mask & KS_COLOR_BUFFER_BIT) != 0 ||
                              (mask & (static_cast<unsigned>(KS_COLOR_ATTACHMENT0_BIT) << i)) != 0;
        const TextureObject* texture =
            context._textures.Find(framebuffer->_points[static_cast<std::size_t>(i)]._nTexture);
        if (!selected || !texture || !texture->_pImage)
            continue;
        TextureImage& image = *texture->_pImage;
        const std::size_t pixelBytes = PixelBytes(image._eFormat, image._eType);
        if (pixelBytes == 0)
            continue;
        unsigned char pixel[16];
        EncodePixel(image._eFormat, image._eType, context._clearColor.data(), pixel);
        FillPixels(image.Data(), image.Bytes() / pixelBytes, pixel, pixelBytes);
    }
}

void ksRenderFrame(void)
{
    ApiCall call("ksRenderFrame", {});
    if (!call.Proceed())
        return;
    Context& context = call.Ctx();
    // A stop counts from here on, the scene's build included; one asked for
    // before is not for this frame. A destroy takes the context out of the
    // registry after its stop, which may have come just before this.
    context._bStopRequested.store(false);
    if (!Registry::Instance().Find(context._nId))
        context._bStopRequested.store(true);
    const ContextSettings settings = context._settings;
    const auto start = std::chrono::steady_clock::now();
    FrameJob job;
    bool built = false;
    // The arena bounds the threads of the frame, its scene's build included.
    std::optional<tbb::task_arena> arena;
    try
    {
        arena.emplace(ArenaThreadCount(settings));
        arena->execute([&] { built = BuildJob(call, &job); });
    }
    catch (const std::bad_alloc&)
    {
        call.Raise(KS_OUT_OF_MEMORY, "no memory for the frame");
        return;
    }
    if (!built)
        return;
    const double buildSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    call.Unlock();

    if (Testing::RenderHook hook = CurrentRenderHook())
    {
        auto runHook = [&hook, &context]()
        {
            // A throwing hook must not take the process down from a worker.
            try
            {
                hook(HandleOf<void>(context._nId));
            }
            catch (...)
            {
            }
        };
        try
        {
            std::thread worker(runHook);
            worker.join();
        }
        catch (const std::system_error&)
        {
            runHook();
        }
    }
    TileStatistics total;
    // The hook's time is the test's, not the frame's.
    const auto tilesStart = std::chrono::steady_clock::now();
    bool finished = !context._bStopRequested.load(std::memory_order_acquire);
    if (finished)
        finished = RenderTiles(*arena, ThreadCount(settings), job, context._bStopRequested, &total);
    const double seconds =
        buildSeconds +
        std::chrono::duration<double>(std::chrono::steady_clock::now() - tilesStart).count();

    call.Relock();
    FrameStatistics& statistics = context._statistics;
    const long long rays = total._nPrimaryRays + total._nSecondaryRays + total._nShadowRays;
    statistics._fSeconds = seconds;
    statistics._fMillionRaysPerSecond = seconds > 0.0 ? rays / seconds / 1e6 : 0.0;
    statistics._fMeanPathLength =
        total._nPrimaryRays > 0 ? static_cast<double>(total._nPrimaryRays + total._nSecondaryRays) /
                                      static_cast<double>(total._nPrimaryRays)
                                : 0.0;
    statistics._nPrimaryRays = total._nPrimaryRays;
    statistics._nSecondaryRays = total._nSecondaryRays;
    statistics._nShadowRays = total._nShadowRays;
    statistics._fHitFraction = total._nPrimaryRays > 0
                                   ? static_cast<float>(static_cast<double>(total._nHits) /
                                                        static_cast<double>(total._nPrimaryRays))
                                   : 0.0f;
    ++statistics._nFrames;
    if (!finished)
        call.RaiseVerbatim(KS_RENDER_STOPPED, "frame stopped");
}
