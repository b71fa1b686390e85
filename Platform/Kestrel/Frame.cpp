// Clearing and rendering frames.
#include "KestrelApi/Kestrel.h"

#include "Context.h"
#include "Instrumentation.h"
#include "Pixels.h"
#include "Renderer.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>

using namespace Kestrel;

namespace
{

// Every bit that names one attachment: KS_COLOR_ATTACHMENT0_BIT << 0..15.
constexpr unsigned kAttachmentBits = 0xFFFFu * KS_COLOR_ATTACHMENT0_BIT;

int WorkerCount(const ContextSettings& settings, long long tiles)
{
    long long workers = settings._nRenderThreads;
    if (workers == 0)
        workers = std::max(1u, std::thread::hardware_concurrency());
    return static_cast<int>(std::max(1LL, std::min(workers, tiles)));
}

// Renders the job's tiles on the workers. False when a stop came while
// tiles were left.
bool RenderTiles(const FrameJob& job, const ContextSettings& settings,
                 const std::atomic<bool>& stopRequested, TileStatistics* total)
{
    const long long columns = (job._nX1 - job._nX0 + kTileSize - 1) / kTileSize;
    const long long rows = (job._nY1 - job._nY0 + kTileSize - 1) / kTileSize;
    const long long tiles = columns * rows;
    if (tiles == 0)
        return true;

    std::atomic<long long> nextTile{0};
    std::atomic<bool> stopped{false};
    std::mutex totalMutex;
    auto work = [&]()
    {
        TileStatistics mine;
        for (;;)
        {
            const long long tile = nextTile.fetch_add(1);
            if (tile >= tiles)
                break;
            if (stopRequested.load(std::memory_order_acquire))
            {
                stopped.store(true);
                break;
            }
            // Image edges are at most kMaxTextureSize, so these sums fit.
            const int x0 = job._nX0 + static_cast<int>(tile % columns) * kTileSize;
            const int y0 = job._nY0 + static_cast<int>(tile / columns) * kTileSize;
            RenderTile(job, x0, y0, std::min(x0 + kTileSize, job._nX1),
                       std::min(y0 + kTileSize, job._nY1), &mine);
        }
        std::lock_guard<std::mutex> lock(totalMutex);
        *total += mine;
    };

    std::vector<std::thread> workers;
    const int count = WorkerCount(settings, tiles);
    for (int i = 1; i < count; ++i)
    {
        // Short of threads, the frame goes on with the workers it has.
        try
        {
            workers.emplace_back(work);
        }
        catch (const std::system_error&)
        {
            break;
        }
    }
    work();
    for (std::thread& worker : workers)
        worker.join();
    return !stopped.load();
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
        if (image)
            job->_targets.push_back({i, texture->_pImage, point._nFilter, point._eBlendMode});
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
        const std::size_t pixelBytes =
            static_cast<std::size_t>(ChannelCount(image._eFormat) * ChannelBytes(image._eType));
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
    FrameJob job;
    if (!BuildJob(call, &job))
        return;

    // A stop asked for before this frame began is not for this frame; one
    // that comes from here on, the hook included, is.
    context._bStopRequested.store(false);
    const ContextSettings settings = context._settings;
    const auto start = std::chrono::steady_clock::now();
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
    bool finished = !context._bStopRequested.load(std::memory_order_acquire);
    if (finished)
        finished = RenderTiles(job, settings, context._bStopRequested, &total);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

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
