#include "Foundation/Event.h"
#include "Foundation/Mutex.h"
#include "SyncTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

using namespace SyncTest;
using Vireo::kInfinite;

namespace
{

// A one-way byte channel between a parent and a forked child. A read gives
// up after the patience, so every child ends by itself even if a test fails.
struct Channel
{
    Channel() { EXPECT_EQ(pipe(fds), 0); }
    ~Channel()
    {
        close(fds[0]);
        close(fds[1]);
    }

    bool Send() const
    {
        const char byte = 1;
        return write(fds[1], &byte, 1) == 1;
    }

    bool Receive() const
    {
        pollfd readable{fds[0], POLLIN, 0};
        char byte = 0;
        return poll(&readable, 1, static_cast<int>(kPatienceMs)) == 1 &&
               read(fds[0], &byte, 1) == 1;
    }

    int fds[2] = {-1, -1};
};

// Runs `body` in a forked child, which ends with its answer as exit code
// (0 when all went well) without running any destructor or test machinery of
// the parent.
pid_t RunInChild(const std::function<int()>& body)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

int ExitCodeOf(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

// A holder in another process that ends holding the lock: we are told once
// that it was abandoned, then find it free.
TEST(NamedObjectTest, MutexAbandonedByDeadProcess)
{
    const std::wstring name = UniqueName(L"abandoned");
    Vireo::MutexWaitable mutex(name.c_str());
    const pid_t child = RunInChild(
        [&]
        {
            Vireo::MutexWaitable own(name.c_str());
            return own.Acquire(0) ? 0 : 1;
        });
    ASSERT_GT(child, 0);
    EXPECT_EQ(ExitCodeOf(child), 0);
    EXPECT_FALSE(mutex.Acquire(0)) << "the abandonment was not reported";
    EXPECT_TRUE(mutex.Acquire(0));
    mutex.Release();
}

// Each name is one object until its last user closes it; after that the
// name starts over.
TEST(NamedObjectTest, DifferentNamesStayApartAndEndWithTheirLastUser)
{
    const std::wstring stem = UniqueName(L"");
    const std::wstring longText(300, L'n');
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"a/b", L"a%2Fb"},
        {L"x", L"X"},
        {L".", L" "},
        {L"\u00e9\u6f22", L"%C3%A9%E6%BC%A2"},
        {L"\U0010FFFF", L"\uFFFD"}, // the last code point is not the replacement
        {longText + L"1", longText + L"2"},
        {longText, longText.substr(0, 200)},
    };
    for (const auto& c : cases)
    {
        const std::wstring first = stem + c.first;
        const std::wstring second = stem + c.second;
        SCOPED_TRACE(std::string(first.begin(), first.end()));
        Vireo::Event signalled(true, true, first.c_str());
        Vireo::Event apart(true, false, second.c_str());
        Vireo::Event same(true, false, first.c_str());
        EXPECT_TRUE(same.Wait(0));
        EXPECT_FALSE(apart.Wait(0));
    }
    Vireo::Event fresh(true, false, (stem + cases[0].first).c_str());
    EXPECT_FALSE(fresh.Wait(0)) << "the name outlived its last user";
}

// A stranger's object under our name: while somebody uses it, ours stays
// empty and leaves it alone; when nobody does, it is a leftover and replaced.
TEST(NamedObjectTest, ObjectOfAnotherLayoutUnderTheName)
{
    for (bool bInUse : {true, false})
    {
        for (const char* kind : {"mutex", "event"})
        {
            SCOPED_TRACE(std::string(kind) + (bInUse ? " in use" : " leftover"));
            const std::wstring name = UniqueName(L"stranger");
            const std::string shmName =
                std::string("/vireo.") + kind + "." + std::string(name.begin(), name.end());
            const int fd = shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
            ASSERT_GE(fd, 0);
            ASSERT_EQ(ftruncate(fd, 1), 0);
            ASSERT_EQ(bInUse ? flock(fd, LOCK_SH) : 0, 0);

            // An empty object answers false at once even when told to wait.
            if (std::string(kind) == "mutex")
            {
                Vireo::MutexWaitable mutex(name.c_str());
                EXPECT_EQ(mutex.Acquire(kInfinite), !bInUse);
                mutex.Release();
            }
            else
            {
                Vireo::Event event(true, false, name.c_str());
                event.Set();
                event.Pulse();
                event.Set();
                EXPECT_EQ(event.Wait(kInfinite), !bInUse);
            }

            struct stat status = {};
            ASSERT_EQ(fstat(fd, &status), 0);
            EXPECT_EQ(status.st_nlink, bInUse ? 1u : 0u);
            EXPECT_EQ(status.st_size, 1) << "the stranger's object was changed";
            if (bInUse)
                shm_unlink(shmName.c_str());
            close(fd);
        }
    }
}

// The child makes a manual-reset event; this process opens it while the
// object is held up as if its creator had not finished, then waits for the
// child's Set.
TEST(NamedObjectTest, EventMadeAndSetInOtherProcess)
{
    const std::wstring name = UniqueName(L"event");
    Channel created;
    Channel go;
    const pid_t child = RunInChild(
        [&]
        {
            Vireo::Event own(true, false, name.c_str());
            created.Send();
            if (!go.Receive())
                return 1;
            own.Set();
            return 0;
        });
    ASSERT_GT(child, 0);
    ASSERT_TRUE(created.Receive());
    const std::string shmName = "/vireo.event." + std::string(name.begin(), name.end());
    const int fd = shm_open(shmName.c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    auto* pState = static_cast<std::atomic<std::uint32_t>*>(
        mmap(nullptr, sizeof(std::uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    ASSERT_NE(pState, MAP_FAILED);
    const std::uint32_t ready = pState->exchange(0);
    std::thread creatorFinishes(
        [&]
        {
            std::this_thread::sleep_for(milliseconds(50));
            pState->store(ready);
        });

    // Opened as the child made it, whatever these arguments say.
    Vireo::Event event(false, true, name.c_str());
    creatorFinishes.join();
    munmap(pState, sizeof(std::uint32_t));
    EXPECT_FALSE(event.Wait(0));
    go.Send();
    // A wake-up that stays in the child's process would only be found at
    // the time-out.
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(event.Wait(kPatienceMs)) << "the opener gave up, or the Set did not arrive";
    EXPECT_LE(MillisecondsSince(start), 2000);
    EXPECT_TRUE(event.Wait(0)) << "not the manual-reset event the child made";
    EXPECT_EQ(ExitCodeOf(child), 0);
}
