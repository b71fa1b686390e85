// What the benchmarks share: a counting allocator, a context to work in, and
// the naming that pairs each measurement with its reference.
//
// A benchmark named "<Group>/<case>:library" is compared with the one named
// "<Group>/<case>:reference" in the summary table; both must measure the same
// work per iteration.
#ifndef VIREO_BENCHMARKS_BENCHSUPPORT_H
#define VIREO_BENCHMARKS_BENCHSUPPORT_H

#include "KestrelWrapper/VireoKestrelWrapper.h"

#include <benchmark/benchmark.h>

#include <cstdint>

namespace Bench
{

// Heap allocations made by this process through operator new so far.
std::uint64_t AllocationCount();

// Reports allocations per iteration as the counter "allocs/op", counting
// from construction to Report.
class AllocationProbe
{
public:
    AllocationProbe() : _nStart(AllocationCount()) {}
    void Report(benchmark::State& state) const;

private:
    std::uint64_t _nStart;
};

// A manager-made context on a silent console, current while it lives.
class BenchContext
{
public:
    explicit BenchContext(const long long* attributes = nullptr);
    ~BenchContext();
    BenchContext(const BenchContext&) = delete;
    BenchContext& operator=(const BenchContext&) = delete;

    Vireo::IKestrelContext* operator->() const { return _pContext; }
    Vireo::IKestrelContext* Get() const { return _pContext; }

private:
    Vireo::IKestrelContext* _pContext = nullptr;
};

} // namespace Bench

#endif // VIREO_BENCHMARKS_BENCHSUPPORT_H
