// Helpers for the lock and event tests. They lean on the standard library
// only, so they stay trustworthy while the locks under test are not.
#ifndef VIREO_TESTS_FOUNDATION_SYNCTESTSUPPORT_H
#define VIREO_TESTS_FOUNDATION_SYNCTESTSUPPORT_H

#include "Foundation/Mutex.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>

namespace SyncTest
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Long enough for any healthy wake-up on a loaded machine, short enough that
// a broken lock fails the test instead of hanging it.
constexpr unsigned long kPatienceMs = 5000;

// A thread that said it is about to block needs a moment to get there, and
// nothing tells us when it has.
inline void GraceForBlocking()
{
    std::this_thread::sleep_for(milliseconds(30));
}

template <typename Condition>
bool Eventually(Condition condition)
{
    const Clock::time_point end = Clock::now() + milliseconds(kPatienceMs);
    while (!condition() && Clock::now() < end)
        std::this_thread::sleep_for(milliseconds(1));
    return condition();
}

inline long long MillisecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

// What another thread gets from `work` now.
template <typename Work>
auto OnOtherThread(Work work) -> decltype(work())
{
    return std::async(std::launch::async, work).get();
}

// Whether a thread other than the caller could take the lock now.
inline bool FreeForOthers(Vireo::MutexWaitable& mutex)
{
    return OnOtherThread(
        [&]
        {
            const bool bTaken = mutex.Acquire(0);
            if (bTaken)
                mutex.Release();
            return bTaken;
        });
}

inline bool FreeForOthers(Vireo::Mutex& mutex)
{
    return OnOtherThread(
        [&]
        {
            const bool bTaken = pthread_mutex_trylock(mutex.GetLockPtr()) == 0;
            if (bTaken)
                pthread_mutex_unlock(mutex.GetLockPtr());
            return bTaken;
        });
}

// A thread that runs steps in order, so that a test decides which thread
// takes or gives back a lock. Do waits for its step; Post does not.
class Actor
{
public:
    Actor() : _thread([this] { _Run(); }) {}
    ~Actor()
    {
        Post({});
        _thread.join();
    }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    void Post(std::function<void()> step)
    {
        std::lock_guard<std::mutex> guard(_mutex);
        _steps.push_back(std::move(step));
        _ready.notify_one();
    }

    void Do(const std::function<void()>& step)
    {
        std::promise<void> done;
        std::future<void> finished = done.get_future();
        Post(
            [&]
            {
                step();
                done.set_value();
            });
        finished.wait();
    }

    // Steps finished so far, for watching a step that blocks.
    int Finished() const { return _nFinished.load(); }

private:
    void _Run()
    {
        for (;;)
        {
            std::unique_lock<std::mutex> guard(_mutex);
            _ready.wait(guard, [this] { return !_steps.empty(); });
            std::function<void()> step = std::move(_steps.front());
            _steps.pop_front();
            guard.unlock();
            if (!step)
                return;
            step();
            _nFinished.fetch_add(1);
        }
    }

    std::mutex _mutex;
    std::condition_variable _ready;
    std::deque<std::function<void()>> _steps;
    std::atomic<int> _nFinished{0};
    std::thread _thread;
};

// A name that no other test and no other run of the tests uses.
inline std::wstring UniqueName(const wchar_t* stem)
{
    static std::atomic<int> s_nNext{0};
    return L"VireoSyncTest" + std::to_wstring(getpid()) + L"x" + std::to_wstring(s_nNext++) + stem;
}

} // namespace SyncTest

#endif // VIREO_TESTS_FOUNDATION_SYNCTESTSUPPORT_H
