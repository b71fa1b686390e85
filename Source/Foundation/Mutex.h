/// \file
/// Mutex and MutexWaitable: the two locks of the library. Mutex is the cheap
/// one for threads of one process; MutexWaitable can be waited on with a
/// time-out and, when named, is shared by every process that names it.
#ifndef VIREO_FOUNDATION_MUTEX_H
#define VIREO_FOUNDATION_MUTEX_H

#include "Foundation/Uncopyable.h"
#include "VireoExport.h"

#include <pthread.h>
#include <type_traits>

namespace Vireo
{

/// Time-outs are milliseconds; this one never runs out. Larger values count
/// as infinite as well, so that `(unsigned long)-1` means the same wherever
/// unsigned long is wider than 32 bits.
constexpr unsigned long kInfinite = 0xFFFFFFFFUL;

/// A recursive lock between the threads of one process that blocks without a
/// time-out. The holder may take it again and releases it once per Acquire.
class VIREO_EXPORT Mutex : public Uncopyable
{
public:
    Mutex();
    ~Mutex();

    /// Takes the lock, waiting as long as another thread holds it.
    void Acquire();
    /// Gives back one hold of the calling thread.
    void Release();

    /// The native lock, at the address of the object itself. It stands where
    /// a platform critical section would; ConditionVariable sleeps on it.
    pthread_mutex_t* GetLockPtr();

private:
    pthread_mutex_t _lock;
};

/// Callers may treat a Mutex and its native lock as one address.
static_assert(sizeof(Mutex) == sizeof(pthread_mutex_t), "Mutex is its native lock, nothing more");
static_assert(std::is_standard_layout<Mutex>::value, "Mutex shares its address with its lock");

/// A lock owned by a thread that can be waited on with a time-out. The owner
/// may take it again and releases it once per successful Acquire. With a
/// name, every MutexWaitable of that name, in any process, is the same lock.
///
/// A holder that ends without releasing leaves the lock abandoned. The next
/// Acquire then answers false, because whatever the lock guarded may be half
/// changed; it also frees the lock again, so the Acquire after that can take
/// it. Whoever sees the false decides whether to repair the guarded state.
///
/// If the platform object cannot be made, the object stays empty: Acquire
/// answers false at once and Release does nothing.
///
/// Destroy it only when it is free. The destroying thread's own holds are
/// given back first, as the memory of the lock may go with the object.
class VIREO_EXPORT MutexWaitable : public Uncopyable
{
public:
    /// Makes or, with a `name` already in use, opens the lock.
    explicit MutexWaitable(const wchar_t* name = nullptr);
    ~MutexWaitable();

    /// True when the calling thread now holds the lock. 0 tries once without
    /// waiting; kInfinite waits for as long as it takes.
    bool Acquire(unsigned long timeoutMs);

    /// Gives up one hold. From a thread that does not hold the lock this
    /// changes nothing and is no error.
    void Release();

private:
    struct Handle;
    Handle* _pHandle;
};

} // namespace Vireo

#endif // VIREO_FOUNDATION_MUTEX_H
