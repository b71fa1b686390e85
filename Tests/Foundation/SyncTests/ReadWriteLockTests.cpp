#include "Foundation/ReadWriteLock.h"
#include "SyncTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

using namespace SyncTest;

TEST(ReadWriteLockTest, WriterKeepsReadersOutAndTheLastReaderLetsTheNextIn)
{
    constexpr int kReaders = 3;
    Vireo::ReadWriteLock lock;
    lock.AcquireWrite();

    std::atomic<int> nInside{0};
    std::vector<std::unique_ptr<Actor>> readers;
    for (int i = 0; i < kReaders; ++i)
    {
        readers.push_back(std::make_unique<Actor>());
        readers.back()->Post(
            [&]
            {
                lock.AcquireRead();
                nInside.fetch_add(1);
            });
    }
    GraceForBlocking();
    EXPECT_EQ(nInside.load(), 0);

    // All of them get in together: none leaves before every one is in.
    lock.ReleaseWrite();
    EXPECT_TRUE(Eventually([&] { return nInside.load() == kReaders; }));

    // A writer waits for the last reader, which is not the thread that took
    // the writer lock for the readers.
    Actor writer;
    writer.Post([&] { lock.AcquireWrite(); });
    for (std::size_t i = 0; i + 1 < readers.size(); ++i)
        readers[i]->Do([&] { lock.ReleaseRead(); });
    GraceForBlocking();
    EXPECT_EQ(writer.Finished(), 0) << "writer got in with a reader inside";
    readers.back()->Do([&] { lock.ReleaseRead(); });
    EXPECT_TRUE(Eventually([&] { return writer.Finished() == 1; }));
    writer.Do([&] { lock.ReleaseWrite(); });
}

TEST(ReadWriteLockTest, UnmatchedReleaseReadChangesNothing)
{
    Vireo::ReadWriteLock lock;
    lock.ReleaseRead();
    lock.ReleaseRead();

    // The count did not go below zero, or one reader would not keep the
    // writer out...
    lock.AcquireRead();
    Actor writer;
    writer.Post([&] { lock.AcquireWrite(); });
    GraceForBlocking();
    EXPECT_EQ(writer.Finished(), 0) << "writer got in with a reader inside";
    lock.ReleaseRead();
    EXPECT_TRUE(Eventually([&] { return writer.Finished() == 1; }));

    // ...and the writer lock was not given back an extra time, or a second
    // writer would get in beside the first.
    Actor second;
    second.Post([&] { lock.AcquireWrite(); });
    GraceForBlocking();
    EXPECT_EQ(second.Finished(), 0) << "two writers inside";
    writer.Do([&] { lock.ReleaseWrite(); });
    EXPECT_TRUE(Eventually([&] { return second.Finished() == 1; }));
    second.Do([&] { lock.ReleaseWrite(); });
}
