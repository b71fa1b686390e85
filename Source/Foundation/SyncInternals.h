// Plumbing shared by the lock and event classes: time-outs, native lock
// set-up, and the named memory through which processes share a lock or an
// event. Nothing here is exported; hosts never see these.
#ifndef VIREO_FOUNDATION_SYNCINTERNALS_H
#define VIREO_FOUNDATION_SYNCINTERNALS_H

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <string>

namespace Vireo
{
namespace SyncInternals
{

// The kernel's id of the calling thread: unique among all live threads of
// all processes, so it can mark an owner in memory that processes share.
pid_t CurrentThreadId();

bool IsInfinite(unsigned long timeoutMs);

// The moment `timeoutMs` from now on `clock`, as the timed waits want it.
timespec DeadlineAfter(clockid_t clock, unsigned long timeoutMs);

// A robust mutex: a holder that dies hands the next locker EOWNERDEAD instead
// of blocking everybody for good.
void InitRobustMutex(pthread_mutex_t* pMutex, bool bProcessShared, bool bRecursive);

// A condition variable that measures time-outs on the monotonic clock, so
// that a change of the wall clock neither stretches nor cuts a wait.
void InitMonotonicCondition(pthread_cond_t* pCondition, bool bProcessShared);

// Tries once (0), waits for ever (infinite) or up to the time-out. Answers
// what the platform answered: 0, EOWNERDEAD, EBUSY, ETIMEDOUT or another
// error.
int LockWithTimeout(pthread_mutex_t* pMutex, unsigned long timeoutMs);

// Locks a robust mutex that guards only short, self-contained updates: if a
// holder died, the state it guarded is taken as it is and the lock repaired.
void LockRepairing(pthread_mutex_t* pMutex);

// The name of the shared memory object behind a named lock or event. `kind`
// keeps the kinds apart; the caller's text is kept where it is safe in a
// file name, escaped elsewhere and cut short with a hash when too long.
std::string SegmentName(const char* kind, const wchar_t* name);

// Named objects that every process reaches through the same name. The
// process that creates one builds its payload before any other process may
// touch it. When the last user anywhere closes it the name goes, so that a
// later user starts over with a fresh object, as with a kernel object whose
// last handle is closed. Within one process every object of a name shares
// one view, so that a lock has a single address per process.
using ConstructShared = void (*)(void* pPayload, const void* pContext);
using LeaveShared = void (*)(void* pPayload);

// Answers the payload of `shmName`, of `payloadSize` bytes; the creator runs
// `construct(payload, pContext)` first. Null if the object cannot be had.
void* OpenShared(const std::string& shmName, std::size_t payloadSize, ConstructShared construct,
                 const void* pContext);

// Leaves an object that OpenShared gave. If this was the process's last user
// of the name, `lastInProcess(payload)`, unless null, runs just before the
// view goes.
void CloseShared(const std::string& shmName, LeaveShared lastInProcess);

} // namespace SyncInternals
} // namespace Vireo

#endif // VIREO_FOUNDATION_SYNCINTERNALS_H
