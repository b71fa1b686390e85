#include "Foundation/Event.h"
#include "SyncTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace SyncTest;

namespace
{

// Threads that each wait once on an event and count how their wait ended.
class Waiters
{
public:
    Waiters(Vireo::Event& event, int count, unsigned long timeoutMs = kPatienceMs)
    {
        for (int i = 0; i < count; ++i)
        {
            _threads.emplace_back(
                [this, &event, timeoutMs]
                {
                    _nAboutToWait.fetch_add(1);
                    (event.Wait(timeoutMs) ? _nReleased : _nTimedOut).fetch_add(1);
                });
        }
    }
    ~Waiters() { Join(); }

    // True once every thread is inside its Wait, as far as we can tell.
    bool AllWaiting()
    {
        const int count = static_cast<int>(_threads.size());
        const bool bAll = Eventually([&] { return _nAboutToWait.load() == count; });
        GraceForBlocking();
        return bAll;
    }

    void Join()
    {
        for (std::thread& thread : _threads)
            if (thread.joinable())
                thread.join();
    }

    std::atomic<int> _nAboutToWait{0};
    std::atomic<int> _nReleased{0};
    std::atomic<int> _nTimedOut{0};

private:
    std::vector<std::thread> _threads;
};

// Unnamed and named events must behave alike inside one process.
class EventTest : public ::testing::TestWithParam<bool>
{
protected:
    std::unique_ptr<Vireo::Event> Make(bool bManualReset, bool bInitialState)
    {
        const std::wstring name = UniqueName(L"event");
        return std::make_unique<Vireo::Event>(bManualReset, bInitialState,
                                              GetParam() ? name.c_str() : nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, EventTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info)
                         { return info.param ? "Named" : "Unnamed"; });

} // namespace

// Operations (S)et, (R)eset and (P)ulse with nobody waiting, then what each
// Wait(0) answers.
TEST_P(EventTest, ZeroTimeoutWaitsFollowTheState)
{
    struct Case
    {
        bool bManualReset;
        bool bInitialState;
        const char* sSteps;
        std::vector<bool> waits;
    };
    // clang-format off
    const Case cases[] = {
        {false, true, "", {true, false}}, // the first wait resets it
        {true, true, "", {true, true, true}},
        {true, false, "S", {true, true}},
        {true, true, "R", {false}},
        {false, false, "S", {true, false}},
        {false, false, "SS", {true, false}}, // sets do not add up
        {false, false, "SR", {false}},
        {true, true, "P", {false}},
        {false, true, "P", {false}},
        {true, false, "PS", {true, true}},
    };
    // clang-format on
    for (const Case& c : cases)
    {
        SCOPED_TRACE(std::string(c.bManualReset ? "manual" : "auto") +
                     (c.bInitialState ? " signalled " : " unsignalled ") + c.sSteps);
        auto event = Make(c.bManualReset, c.bInitialState);
        for (const char* step = c.sSteps; *step != '\0'; ++step)
        {
            if (*step == 'S')
                event->Set();
            else if (*step == 'R')
                event->Reset();
            else
                event->Pulse();
        }
        for (std::size_t i = 0; i < c.waits.size(); ++i)
            EXPECT_EQ(event->Wait(0), c.waits[i]) << "wait " << i;
    }
}

// How many of three waiters that are already waiting a release lets through,
// and what state it leaves behind.
TEST_P(EventTest, ReleaseOfPresentWaiters)
{
    constexpr int kWaiters = 3;
    struct Case
    {
        bool bManualReset;
        bool bPulse;
        int nReleased;
        bool bSignalledAfter;
    };
    for (const Case& c : {Case{true, false, kWaiters, true}, Case{true, true, kWaiters, false},
                          Case{false, false, 1, false}, Case{false, true, 1, false}})
    {
        SCOPED_TRACE(std::string(c.bManualReset ? "manual " : "auto ") +
                     (c.bPulse ? "pulse" : "set"));
        auto event = Make(c.bManualReset, false);
        Waiters waiters(*event, kWaiters);
        ASSERT_TRUE(waiters.AllWaiting());
        c.bPulse ? event->Pulse() : event->Set();
        EXPECT_TRUE(Eventually([&] { return waiters._nReleased.load() >= c.nReleased; }));
        // A wrong extra release would show within the grace.
        GraceForBlocking();
        EXPECT_EQ(waiters._nReleased.load(), c.nReleased);
        EXPECT_EQ(event->Wait(0), c.bSignalledAfter);

        // Each further Set of an auto-reset event goes to exactly one waiter.
        for (int i = waiters._nReleased.load(); i < kWaiters; ++i)
        {
            event->Set();
            EXPECT_TRUE(Eventually([&] { return waiters._nReleased.load() == i + 1; }));
        }
        waiters.Join();
        EXPECT_EQ(waiters._nTimedOut.load(), 0);
        EXPECT_EQ(event->Wait(0), c.bSignalledAfter) << "a Set was left over";
    }
}

TEST_P(EventTest, WaiterThatGaveUpKeepsNoRelease)
{
    // A waiter that timed out must neither leave a release behind for
    // nobody nor take one meant for a waiter still present.
    auto event = Make(false, false);
    const Clock::time_point start = Clock::now();
    Waiters(*event, 1, 40).Join();
    EXPECT_GE(MillisecondsSince(start), 40);
    EXPECT_LE(MillisecondsSince(start), 2000);
    Waiters present(*event, 1);
    ASSERT_TRUE(present.AllWaiting());
    event->Set();
    present.Join();
    EXPECT_EQ(present._nReleased.load(), 1);
    EXPECT_FALSE(event->Wait(0));

    // With every waiter gone, a Set is kept for the next one.
    event->Set();
    EXPECT_TRUE(event->Wait(0)) << "the Set went to a waiter that had left";
}
