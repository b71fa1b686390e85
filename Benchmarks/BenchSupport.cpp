#include "BenchSupport.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace
{

std::atomic<std::uint64_t> g_nAllocations{0};

} // namespace

// Every allocation of the process passes here, the libraries' included: the
// shared libraries bind to the executable's operator new.
void* operator new(std::size_t size)
{
    g_nAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept
{
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

namespace Bench
{

std::uint64_t AllocationCount()
{
    return g_nAllocations.load(std::memory_order_relaxed);
}

void AllocationProbe::Report(benchmark::State& state) const
{
    const double made = static_cast<double>(AllocationCount() - _nStart);
    state.counters["allocs/op"] =
        benchmark::Counter(made / static_cast<double>(state.iterations()));
}

BenchContext::BenchContext(const long long* attributes)
{
    Vireo::IMgrKestrel* manager = Vireo::GetMgrKestrel();
    // The process-wide console: nothing on the measured paths prints.
    _pContext = manager->CreateKestrelContext(Vireo::GetMgrConsole(), true, false, attributes);
    if (_pContext == nullptr || !manager->SetCurrentKestrelContext(_pContext))
        throw std::runtime_error("no Kestrel context for the benchmark");
}

BenchContext::~BenchContext()
{
    Vireo::GetMgrKestrel()->DestroyKestrelContext(_pContext);
}

} // namespace Bench
