// Calls from several threads at once: nothing lost, nothing shared twice, and
// stops that race with frames. Most useful in the ThreadSanitizer build.
#include "KestrelFixture.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <thread>
#include <vector>

namespace KestrelTest
{
namespace
{

using namespace Kestrel::Testing;

using KestrelThreads = KestrelFixture;

constexpr int kThreads = 4;
constexpr int kRounds = 150;

// Runs `work(thread)` on kThreads threads at once.
template <typename Work>
void OnThreads(Work work)
{
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.emplace_back(work, t);
    for (std::thread& worker : workers)
        worker.join();
}

TEST_F(KestrelThreads, ConcurrentCreationGivesDistinctHandlesAndIsLogged)
{
    std::vector<std::uintptr_t> made[kThreads];
    CallLog log;
    OnThreads(
        [&made](int t)
        {
            for (int i = 0; i < kRounds; ++i)
            {
                _KSbuffer* buffer = NewBuffer();
                made[t].push_back(reinterpret_cast<std::uintptr_t>(buffer));
                _KSshader* shader = ksCreateShader(KS_VERTEX_SHADER);
                made[t].push_back(reinterpret_cast<std::uintptr_t>(shader));
                ksDeleteShader(shader);
                if (i % 2)
                    ksDeleteBuffers(1, &buffer);
            }
        });
    std::set<std::uintptr_t> distinct;
    for (const auto& handles : made)
        distinct.insert(handles.begin(), handles.end());
    EXPECT_EQ(distinct.size(), static_cast<size_t>(2 * kThreads * kRounds));
    EXPECT_EQ(distinct.count(0), 0u);
    EXPECT_EQ(CountObjects(_pContext).buffers, kThreads * kRounds / 2);
    EXPECT_EQ(CountObjects(_pContext).shaders, 0);
    EXPECT_EQ(log.CallsOf("ksGenBuffers").size(), static_cast<size_t>(kThreads * kRounds));
    EXPECT_EQ(log.CallsOf("ksDeleteShader").size(), static_cast<size_t>(kThreads * kRounds));
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelThreads, ErrorsFromManyThreadsAreKeptOnceAndAllNotified)
{
    OnThreads(
        [](int)
        {
            for (int i = 0; i < kRounds; ++i)
                ksBindBuffer(0x1234, nullptr);
        });
    EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);
    EXPECT_EQ(_recorder.Take().size(), static_cast<size_t>(kThreads * kRounds));
}

TEST_F(KestrelThreads, StopsRacingWithFramesEndEachFrameCleanly)
{
    std::vector<float> pixels(64 * 64 * 4);
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    Attach(0, NewClientTexture(64, 64, KS_RGBA, KS_FLOAT, pixels.data()));
    ASSERT_NO_KS_ERROR();

    std::atomic<bool> rendering{true};
    std::thread stopper(
        [&]
        {
            while (rendering.load())
            {
                KestrelStopContext(_pContext);
                std::this_thread::yield();
            }
        });
    constexpr int kFrames = 20;
    int stopped = 0;
    for (int frame = 0; frame < kFrames; ++frame)
    {
        ksRenderFrame();
        const int outcome = ksGetError();
        EXPECT_TRUE(outcome == KS_NO_ERROR || outcome == KS_RENDER_STOPPED) << Hex(outcome);
        stopped += outcome == KS_RENDER_STOPPED;
        EXPECT_EQ(ksGetError(), KS_NO_ERROR);
    }
    rendering = false;
    stopper.join();

    size_t stopNotices = 0;
    for (const Notice& notice : _recorder.Take())
    {
        EXPECT_EQ(notice.code, KS_RENDER_STOPPED);
        stopNotices += notice.code == KS_RENDER_STOPPED;
    }
    EXPECT_EQ(stopNotices, static_cast<size_t>(stopped)) << "one notice per stopped frame";
    ksRenderFrame();
    EXPECT_NO_KS_ERROR();
}

} // namespace
} // namespace KestrelTest
