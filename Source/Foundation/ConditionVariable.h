/// \file
/// ConditionVariable: lets threads that hold a Mutex sleep until another
/// thread wakes them or a time-out passes.
#ifndef VIREO_FOUNDATION_CONDITIONVARIABLE_H
#define VIREO_FOUNDATION_CONDITIONVARIABLE_H

#include "Foundation/Mutex.h"
#include "Foundation/Uncopyable.h"
#include "VireoExport.h"

#include <pthread.h>

namespace Vireo
{

/// Lets threads sleep until another thread tells them that a condition,
/// guarded by a Mutex, may have changed.
class VIREO_EXPORT ConditionVariable : public Uncopyable
{
public:
    ConditionVariable();
    ~ConditionVariable();

    /// The lock that sleepers hold; not owned. Set it before the first Sleep
    /// and not while anybody sleeps.
    void SetLock(Mutex* pLock);

    /// Gives up the lock, sleeps until woken or until the time-out, and takes
    /// the lock again before it returns. A wake, a time-out and a spurious
    /// return look the same: the caller checks its condition afterwards.
    ///
    /// The caller must hold the lock exactly once. The lock is recursive, and
    /// a sleep gives up only one hold: with more, it would sleep still holding
    /// the lock and the waker could never get in. Without a lock set, Sleep
    /// returns at once.
    void Sleep(unsigned long timeoutMs);

    /// Wakes one sleeper, or every sleeper; without sleepers nothing is kept.
    void Wake();
    /// Wakes every sleeper.
    void WakeAll();

private:
    Mutex* _pLock;
    pthread_cond_t _condition;
};

} // namespace Vireo

#endif // VIREO_FOUNDATION_CONDITIONVARIABLE_H
