#include "Foundation/ReadWriteLock.h"

#include <cerrno>

namespace Vireo
{

namespace
{

void WaitRetrying(sem_t* pSemaphore)
{
    while (sem_wait(pSemaphore) != 0 && errno == EINTR)
    {
    }
}

} // namespace

ReadWriteLock::ReadWriteLock() : _nReaders(0)
{
    sem_init(&_writerLock, 0, 1);
}

ReadWriteLock::~ReadWriteLock()
{
    sem_destroy(&_writerLock);
}

void ReadWriteLock::AcquireRead()
{
    _readerGate.Acquire();
    // The first reader waits out a writer while holding the gate, so the
    // readers behind it queue at the gate meanwhile.
    if (_nReaders == 0)
        WaitRetrying(&_writerLock);
    _nReaders += 1;
    _readerGate.Release();
}

void ReadWriteLock::ReleaseRead()
{
    _readerGate.Acquire();
    _nReaders -= 1;
    if (_nReaders == 0)
        sem_post(&_writerLock);
    else if (_nReaders < 0)
        _nReaders = 0;
    _readerGate.Release();
}

void ReadWriteLock::AcquireWrite()
{
    WaitRetrying(&_writerLock);
}

void ReadWriteLock::ReleaseWrite()
{
    sem_post(&_writerLock);
}

} // namespace Vireo
