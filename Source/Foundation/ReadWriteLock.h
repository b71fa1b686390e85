/// \file
/// ReadWriteLock: many readers or one writer, with readers preferred.
#ifndef VIREO_FOUNDATION_READWRITELOCK_H
#define VIREO_FOUNDATION_READWRITELOCK_H

#include "Foundation/Mutex.h"
#include "Foundation/Uncopyable.h"
#include "VireoExport.h"

#include <semaphore.h>

namespace Vireo
{

/// Readers hold the writer lock as a group: the first reader in takes it, the
/// last reader out gives it back, whichever thread that is. New readers get
/// in while any reader is inside, so a steady stream of readers keeps a writer
/// out. There is no upgrade: a reader that wants to write calls ReleaseRead
/// first. Neither side is re-entrant for a thread that writes: a second
/// AcquireWrite, or an AcquireRead while writing, waits for ever.
class VIREO_EXPORT ReadWriteLock : public Uncopyable
{
public:
    ReadWriteLock();
    ~ReadWriteLock();

    /// Enters as one of any number of readers; waits while a writer is inside.
    void AcquireRead();
    /// Without a matching AcquireRead this does nothing.
    void ReleaseRead();
    /// Enters alone; waits until every reader and writer is out.
    void AcquireWrite();
    /// Only after this thread's AcquireWrite; nothing checks it.
    void ReleaseWrite();

private:
    /// Readers inside; touched only under _readerGate.
    int _nReaders;
    Mutex _readerGate;
    /// A binary semaphore rather than a mutex, because the thread that gives
    /// it back need not be the one that took it.
    sem_t _writerLock;
};

} // namespace Vireo

#endif // VIREO_FOUNDATION_READWRITELOCK_H
