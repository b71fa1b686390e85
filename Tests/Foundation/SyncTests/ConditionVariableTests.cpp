#include "Foundation/ConditionVariable.h"
#include "Foundation/Mutex.h"
#include "SyncTestSupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace SyncTest;

TEST(ConditionVariableTest, WakeReachesOneSleeperWakeAllReachesEvery)
{
    constexpr int kSleepers = 3;
    for (bool bAll : {false, true})
    {
        SCOPED_TRACE(bAll ? "wake all" : "wake");
        Vireo::Mutex lock;
        Vireo::ConditionVariable condition;
        condition.SetLock(&lock);
        int nAsleep = 0;
        int nWoken = 0;
        const auto read = [&](const int& counter)
        {
            lock.Acquire();
            const int value = counter;
            lock.Release();
            return value;
        };

        std::vector<std::thread> sleepers;
        for (int i = 0; i < kSleepers; ++i)
        {
            sleepers.emplace_back(
                [&]
                {
                    lock.Acquire();
                    nAsleep += 1;
                    condition.Sleep(kPatienceMs);
                    nWoken += 1;
                    lock.Release();
                });
        }
        // Sleepers count themselves under the lock and Sleep gives it up
        // atomically: once we get the lock and see them all, all are asleep.
        ASSERT_TRUE(Eventually([&] { return read(nAsleep) == kSleepers; }));

        bAll ? condition.WakeAll() : condition.Wake();
        const int nExpected = bAll ? kSleepers : 1;
        EXPECT_TRUE(Eventually([&] { return read(nWoken) >= nExpected; }));
        GraceForBlocking();
        EXPECT_EQ(read(nWoken), nExpected);

        condition.WakeAll();
        for (std::thread& sleeper : sleepers)
            sleeper.join();
    }
}

TEST(ConditionVariableTest, SleepTimesOutHoldingTheLockAgain)
{
    Vireo::Mutex lock;
    Vireo::ConditionVariable condition;
    condition.SetLock(&lock);
    lock.Acquire();
    const Clock::time_point start = Clock::now();
    condition.Sleep(30);
    EXPECT_GE(MillisecondsSince(start), 30);
    EXPECT_LE(MillisecondsSince(start), 2000);
    EXPECT_FALSE(FreeForOthers(lock));
    lock.Release();
}

TEST(ConditionVariableTest, SleepWithoutLockReturnsAtOnce)
{
    Vireo::ConditionVariable condition;
    const Clock::time_point start = Clock::now();
    condition.Sleep(Vireo::kInfinite);
    EXPECT_LE(MillisecondsSince(start), 500);
}
