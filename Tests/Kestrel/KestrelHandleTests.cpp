// How the runtime issues handles. What it does with stale, foreign and
// never-issued ones, call by call, is the call-stream replay's to check.
#include "KestrelFixture.h"

#include <cstdint>
#include <set>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::CountIssuedRuns;

// ---------------------------------------------------------------------------
// Handles

using KestrelHandles = KestrelFixture;

// Handles are never issued twice, not even by a new context after one died,
// and a context that makes and deletes objects for as long as it lives keeps
// no record per deletion, yet still tells its own stale handles (deleting one
// is silent) from another context's (an error). The pointer kinds share one
// sequence and primitives have their own, so a buffer and a primitive stand
// for every kind.
TEST_F(KestrelHandles, NeverReusedAndChurnKeepsTheBookkeepingSmall)
{
    _KSbuffer* first = NewBuffer();
    NewPrimitive();
    const int runs = CountIssuedRuns(_pContext);
    ASSERT_GT(runs, 0);
    std::set<std::uintptr_t> ids[2];
    const auto churn = [&](int rounds)
    {
        for (int i = 0; i < rounds; ++i)
        {
            _KSbuffer* buffer = NewBuffer();
            KSprimitive primitive = NewPrimitive();
            ids[0].insert(reinterpret_cast<std::uintptr_t>(buffer));
            ids[1].insert(static_cast<std::uintptr_t>(primitive));
            ksDeleteBuffers(1, &buffer);
            ksDeletePrimitives(1, &primitive);
        }
    };
    churn(10000);
    ASSERT_NO_KS_ERROR();
    EXPECT_EQ(CountIssuedRuns(_pContext), runs) << "a record for each object";

    // Other contexts, one of them gone, take ids and numbers in between: one
    // more run of each.
    void* gone = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(gone), 1);
    churn(200);
    KestrelDestroyContext(gone);
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    _KSbuffer* foreign = NewBuffer();
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    churn(200);
    for (const std::set<std::uintptr_t>& kind : ids)
    {
        EXPECT_EQ(kind.size(), 10400u) << "a handle was issued twice";
        EXPECT_EQ(kind.count(0), 0u) << "a creation failed";
    }
    EXPECT_EQ(CountIssuedRuns(_pContext), runs + 2);
    ksDeleteBuffers(1, &first);
    ksDeleteBuffers(1, &first);
    EXPECT_NO_KS_ERROR();
    ksDeleteBuffers(1, &foreign);
    EXPECT_KS_ERROR(KS_INVALID_VALUE) << "another context's buffer";
    EXPECT_EQ(CountIssuedRuns(ForgedHandle<void>()), -1);
    KestrelDestroyContext(other);
}

} // namespace
} // namespace KestrelTest
