#include "Foundation/ConditionVariable.h"
#include "Foundation/Event.h"
#include "Foundation/Mutex.h"
#include "Foundation/ReadWriteLock.h"
#include "SyncTestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>

using namespace SyncTest;
using Vireo::kInfinite;

namespace
{

// A copy would be a second lock that only looks like the first.
template <typename T>
constexpr bool kIsUncopyable =
    !std::is_copy_constructible<T>::value && !std::is_copy_assignable<T>::value &&
    !std::is_move_constructible<T>::value;
static_assert(kIsUncopyable<Vireo::Mutex> && kIsUncopyable<Vireo::MutexWaitable> &&
                  kIsUncopyable<Vireo::Event> && kIsUncopyable<Vireo::ConditionVariable> &&
                  kIsUncopyable<Vireo::ReadWriteLock>,
              "locks must not be copied");
static_assert(!std::is_default_constructible<Vireo::Event>::value, "Event needs its kind");

// Unnamed and named locks must behave alike inside one process.
class MutexWaitableTest : public ::testing::TestWithParam<bool>
{
protected:
    MutexWaitableTest()
        : _sName(UniqueName(L"mutex")), _mutex(GetParam() ? _sName.c_str() : nullptr)
    {
    }

    std::wstring _sName;
    Vireo::MutexWaitable _mutex;
};

INSTANTIATE_TEST_SUITE_P(Kinds, MutexWaitableTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info)
                         { return info.param ? "Named" : "Unnamed"; });

} // namespace

TEST(MutexTest, IsItsLockAndNeedsOneReleasePerAcquire)
{
    Vireo::Mutex mutex;
    EXPECT_EQ(static_cast<void*>(mutex.GetLockPtr()), static_cast<void*>(&mutex));
    mutex.Acquire();
    mutex.Acquire();
    EXPECT_FALSE(FreeForOthers(mutex));
    mutex.Release();
    EXPECT_FALSE(FreeForOthers(mutex));
    mutex.Release();
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST_P(MutexWaitableTest, LockHeldElsewhereTimesOutOrIsHandedOver)
{
    Actor holder;
    holder.Do([&] { ASSERT_TRUE(_mutex.Acquire(0)); });
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(_mutex.Acquire(40));
    EXPECT_GE(MillisecondsSince(start), 40);
    EXPECT_LE(MillisecondsSince(start), 2000);
    // A timed wait that is still running when the holder lets go gets it.
    holder.Post(
        [&]
        {
            std::this_thread::sleep_for(milliseconds(20));
            _mutex.Release();
        });
    EXPECT_TRUE(_mutex.Acquire(kPatienceMs));
    _mutex.Release();
}

TEST_P(MutexWaitableTest, ReleaseByOtherThreadChangesNothing)
{
    _mutex.Release(); // Of a free lock, by nobody: also nothing.
    ASSERT_TRUE(_mutex.Acquire(0));
    ASSERT_TRUE(_mutex.Acquire(0));
    OnOtherThread(
        [&]
        {
            _mutex.Release();
            _mutex.Release();
        });
    // Still two holds: a thread that takes it twice needs two releases.
    EXPECT_FALSE(FreeForOthers(_mutex));
    _mutex.Release();
    EXPECT_FALSE(FreeForOthers(_mutex));
    _mutex.Release();
    _mutex.Release(); // a stray one by the last holder must not mark the lock
    EXPECT_TRUE(FreeForOthers(_mutex));
    EXPECT_TRUE(FreeForOthers(_mutex)) << "the next holder could not let go";
}

TEST_P(MutexWaitableTest, AbandonedLockIsReportedOnceThenFree)
{
    std::thread([&] { ASSERT_TRUE(_mutex.Acquire(0)); }).join();
    EXPECT_FALSE(_mutex.Acquire(0));
    EXPECT_TRUE(FreeForOthers(_mutex));
    EXPECT_TRUE(_mutex.Acquire(0));
    _mutex.Release();
}
