#include "Foundation/Mutex.h"

#include "Foundation/SyncInternals.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>
#include <string>

namespace Vireo
{

Mutex::Mutex()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&_lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex()
{
    pthread_mutex_destroy(&_lock);
}

void Mutex::Acquire()
{
    pthread_mutex_lock(&_lock);
}

void Mutex::Release()
{
    pthread_mutex_unlock(&_lock);
}

pthread_mutex_t* Mutex::GetLockPtr()
{
    return &_lock;
}

namespace
{

// The lock itself, in private memory or in memory that processes share.
struct WaitableMutexBlock
{
    // Robust and recursive: it keeps the authoritative owner and count.
    pthread_mutex_t lock;
    // Who holds it, or 0. Release reads it to leave a lock that the caller
    // does not hold untouched instead of asking the platform to unlock it;
    // it is atomic because threads that do not hold the lock read it.
    std::atomic<pid_t> nOwner;
    // Holds of the owner, so that the last Release can clear nOwner first.
    // Only the holder touches it.
    std::uint32_t nHolds;
};

static_assert(std::atomic<pid_t>::is_always_lock_free, "owner mark is shared between processes");

void ConstructBlock(void* pMemory, const void* pProcessShared)
{
    auto* pBlock = new (pMemory) WaitableMutexBlock;
    SyncInternals::InitRobustMutex(&pBlock->lock, *static_cast<const bool*>(pProcessShared), true);
    pBlock->nOwner.store(0, std::memory_order_relaxed);
    pBlock->nHolds = 0;
}

// Destroying a held lock is the caller's fault, but the platform keeps a
// per-thread list of held robust locks threaded through their memory, and
// writes to it when the thread ends. Before the memory goes, the calling
// thread at least gives back its own holds; a lock held by another thread
// stays the caller's fault.
void GiveBackCallersHolds(void* pMemory)
{
    auto* pBlock = static_cast<WaitableMutexBlock*>(pMemory);
    if (pBlock->nOwner.load(std::memory_order_relaxed) != SyncInternals::CurrentThreadId())
        return;
    pBlock->nOwner.store(0, std::memory_order_relaxed);
    for (; pBlock->nHolds > 0; --pBlock->nHolds)
        pthread_mutex_unlock(&pBlock->lock);
}

} // namespace

struct MutexWaitable::Handle
{
    WaitableMutexBlock* pBlock = nullptr;
    // The shared object's name; empty for a lock of this process alone.
    std::string sSharedName;
};

MutexWaitable::MutexWaitable(const wchar_t* name) : _pHandle(nullptr)
{
    auto pHandle = std::make_unique<Handle>();
    if (name != nullptr && name[0] != L'\0')
    {
        static const bool kProcessShared = true;
        pHandle->sSharedName = SyncInternals::SegmentName("mutex", name);
        pHandle->pBlock = static_cast<WaitableMutexBlock*>(SyncInternals::OpenShared(
            pHandle->sSharedName, sizeof(WaitableMutexBlock), &ConstructBlock, &kProcessShared));
        if (pHandle->pBlock == nullptr)
            return;
    }
    else
    {
        static const bool kProcessPrivate = false;
        pHandle->pBlock =
            static_cast<WaitableMutexBlock*>(::operator new(sizeof(WaitableMutexBlock)));
        ConstructBlock(pHandle->pBlock, &kProcessPrivate);
    }
    _pHandle = pHandle.release();
}

MutexWaitable::~MutexWaitable()
{
    if (_pHandle == nullptr)
        return;
    if (!_pHandle->sSharedName.empty())
    {
        // Other objects of this process, and other processes, may still use
        // the lock; the last user removes it.
        SyncInternals::CloseShared(_pHandle->sSharedName, &GiveBackCallersHolds);
    }
    else
    {
        WaitableMutexBlock* pBlock = _pHandle->pBlock;
        GiveBackCallersHolds(pBlock);
        pthread_mutex_destroy(&pBlock->lock);
        pBlock->~WaitableMutexBlock();
        ::operator delete(pBlock);
    }
    delete _pHandle;
}

bool MutexWaitable::Acquire(unsigned long timeoutMs)
{
    if (_pHandle == nullptr)
        return false;
    WaitableMutexBlock* pBlock = _pHandle->pBlock;
    const int result = SyncInternals::LockWithTimeout(&pBlock->lock, timeoutMs);
    if (result == EOWNERDEAD)
    {
        // The previous holder ended while holding it. We report the lock as
        // not obtained, but repair and free it, so that it does not stay
        // blocked for good and the next Acquire can take it.
        pthread_mutex_consistent(&pBlock->lock);
        pBlock->nHolds = 0;
        pBlock->nOwner.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&pBlock->lock);
        return false;
    }
    if (result != 0)
        return false;
    if (pBlock->nHolds++ == 0)
        pBlock->nOwner.store(SyncInternals::CurrentThreadId(), std::memory_order_relaxed);
    return true;
}

void MutexWaitable::Release()
{
    if (_pHandle == nullptr)
        return;
    WaitableMutexBlock* pBlock = _pHandle->pBlock;
    // Only the holder ever stores its own id, so reading it means we hold it.
    if (pBlock->nOwner.load(std::memory_order_relaxed) != SyncInternals::CurrentThreadId())
        return;
    if (--pBlock->nHolds == 0)
        pBlock->nOwner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&pBlock->lock);
}

} // namespace Vireo
