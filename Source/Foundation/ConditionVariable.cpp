#include "Foundation/ConditionVariable.h"

#include "Foundation/SyncInternals.h"

#include <cerrno>

namespace Vireo
{

ConditionVariable::ConditionVariable() : _pLock(nullptr)
{
    SyncInternals::InitMonotonicCondition(&_condition, false);
}

ConditionVariable::~ConditionVariable()
{
    pthread_cond_destroy(&_condition);
}

void ConditionVariable::SetLock(Mutex* pLock)
{
    _pLock = pLock;
}

void ConditionVariable::Sleep(unsigned long timeoutMs)
{
    if (_pLock == nullptr)
        return;
    if (SyncInternals::IsInfinite(timeoutMs))
    {
        pthread_cond_wait(&_condition, _pLock->GetLockPtr());
        return;
    }
    const timespec deadline = SyncInternals::DeadlineAfter(CLOCK_MONOTONIC, timeoutMs);
    pthread_cond_timedwait(&_condition, _pLock->GetLockPtr(), &deadline);
}

void ConditionVariable::Wake()
{
    pthread_cond_signal(&_condition);
}

void ConditionVariable::WakeAll()
{
    pthread_cond_broadcast(&_condition);
}

} // namespace Vireo
