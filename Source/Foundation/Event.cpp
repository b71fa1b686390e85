#include "Foundation/Event.h"

#include "Foundation/SyncInternals.h"

#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>
#include <string>

namespace Vireo
{

namespace
{

// The event's state, in private memory or in memory that processes share.
//
// A waiter notes the release generation when it starts waiting. Every
// release bumps the generation and adds grants; only a waiter that was
// already waiting (whose noted generation differs) may take a grant. So a
// Set of an auto-reset event or a Pulse lets through threads that were
// waiting at that moment and never one that arrives afterwards.
//
// A process killed while waiting stays counted among the waiters; at worst
// one release later goes to it and is lost.
struct EventBlock
{
    pthread_mutex_t lock;
    pthread_cond_t released;
    std::uint32_t bManualReset;
    std::uint32_t bSignalled;
    // Threads inside Wait, granted or not.
    std::uint32_t nWaiting;
    // Grants not yet taken; never more than the waiters that may take them.
    std::uint32_t nGrants;
    std::uint32_t nGeneration;
};

struct EventSetup
{
    bool bProcessShared;
    bool bManualReset;
    bool bInitialState;
};

void ConstructBlock(void* pMemory, const void* pSetup)
{
    const auto& setup = *static_cast<const EventSetup*>(pSetup);
    auto* pBlock = new (pMemory) EventBlock;
    SyncInternals::InitRobustMutex(&pBlock->lock, setup.bProcessShared, false);
    SyncInternals::InitMonotonicCondition(&pBlock->released, setup.bProcessShared);
    pBlock->bManualReset = setup.bManualReset ? 1 : 0;
    pBlock->bSignalled = setup.bInitialState ? 1 : 0;
    pBlock->nWaiting = 0;
    pBlock->nGrants = 0;
    pBlock->nGeneration = 0;
}

// Lets through every waiter (bAll) or one more, of those waiting now.
// Answers false when nobody was waiting without a grant. Runs under the lock.
bool ReleaseWaiters(EventBlock* pBlock, bool bAll)
{
    if (pBlock->nWaiting == pBlock->nGrants)
        return false;
    pBlock->nGeneration += 1;
    pBlock->nGrants = bAll ? pBlock->nWaiting : pBlock->nGrants + 1;
    // All, since a signal might wake only a newcomer that may take no grant.
    pthread_cond_broadcast(&pBlock->released);
    return true;
}

} // namespace

struct Event::Handle
{
    EventBlock* pBlock = nullptr;
    // The shared object's name; empty for an event of this process alone.
    std::string sSharedName;
};

Event::Event(bool bManualReset, bool bInitialState, const wchar_t* name) : _pHandle(nullptr)
{
    auto pHandle = std::make_unique<Handle>();
    if (name != nullptr && name[0] != L'\0')
    {
        const EventSetup setup{true, bManualReset, bInitialState};
        pHandle->sSharedName = SyncInternals::SegmentName("event", name);
        pHandle->pBlock = static_cast<EventBlock*>(SyncInternals::OpenShared(
            pHandle->sSharedName, sizeof(EventBlock), &ConstructBlock, &setup));
        if (pHandle->pBlock == nullptr)
            return;
    }
    else
    {
        const EventSetup setup{false, bManualReset, bInitialState};
        pHandle->pBlock = static_cast<EventBlock*>(::operator new(sizeof(EventBlock)));
        ConstructBlock(pHandle->pBlock, &setup);
    }
    _pHandle = pHandle.release();
}

Event::~Event()
{
    if (_pHandle == nullptr)
        return;
    if (!_pHandle->sSharedName.empty())
    {
        // Other objects of this process, and other processes, may still use
        // the event; the last user removes it.
        SyncInternals::CloseShared(_pHandle->sSharedName, nullptr);
    }
    else
    {
        EventBlock* pBlock = _pHandle->pBlock;
        pthread_cond_destroy(&pBlock->released);
        pthread_mutex_destroy(&pBlock->lock);
        pBlock->~EventBlock();
        ::operator delete(pBlock);
    }
    delete _pHandle;
}

bool Event::Wait(unsigned long timeoutMs)
{
    if (_pHandle == nullptr)
        return false;
    EventBlock* pBlock = _pHandle->pBlock;
    SyncInternals::LockRepairing(&pBlock->lock);

    if (pBlock->bSignalled != 0)
    {
        if (pBlock->bManualReset == 0)
            pBlock->bSignalled = 0;
        pthread_mutex_unlock(&pBlock->lock);
        return true;
    }
    if (timeoutMs == 0)
    {
        pthread_mutex_unlock(&pBlock->lock);
        return false;
    }

    const bool bInfinite = SyncInternals::IsInfinite(timeoutMs);
    timespec deadline{};
    if (!bInfinite)
        deadline = SyncInternals::DeadlineAfter(CLOCK_MONOTONIC, timeoutMs);
    const std::uint32_t nGeneration = pBlock->nGeneration;
    pBlock->nWaiting += 1;
    bool bReleased = false;
    bool bTimedOut = false;
    for (;;)
    {
        // A grant that arrived together with the time-out still counts: the
        // releaser has already counted this thread as let through.
        if (pBlock->nGeneration != nGeneration && pBlock->nGrants > 0)
        {
            pBlock->nGrants -= 1;
            bReleased = true;
            break;
        }
        if (bTimedOut)
            break;
        const int result =
            bInfinite ? pthread_cond_wait(&pBlock->released, &pBlock->lock)
                      : pthread_cond_timedwait(&pBlock->released, &pBlock->lock, &deadline);
        if (result == EOWNERDEAD)
            pthread_mutex_consistent(&pBlock->lock);
        else if (result == ETIMEDOUT)
            bTimedOut = true;
    }
    pBlock->nWaiting -= 1;
    pthread_mutex_unlock(&pBlock->lock);
    return bReleased;
}

void Event::Set()
{
    if (_pHandle == nullptr)
        return;
    EventBlock* pBlock = _pHandle->pBlock;
    SyncInternals::LockRepairing(&pBlock->lock);
    if (pBlock->bManualReset != 0)
    {
        pBlock->bSignalled = 1;
        ReleaseWaiters(pBlock, true);
    }
    else if (!ReleaseWaiters(pBlock, false))
    {
        // Nobody to hand it to: it stays signalled for the next waiter.
        pBlock->bSignalled = 1;
    }
    pthread_mutex_unlock(&pBlock->lock);
}

void Event::Reset()
{
    if (_pHandle == nullptr)
        return;
    EventBlock* pBlock = _pHandle->pBlock;
    SyncInternals::LockRepairing(&pBlock->lock);
    pBlock->bSignalled = 0;
    pthread_mutex_unlock(&pBlock->lock);
}

void Event::Pulse()
{
    if (_pHandle == nullptr)
        return;
    EventBlock* pBlock = _pHandle->pBlock;
    SyncInternals::LockRepairing(&pBlock->lock);
    ReleaseWaiters(pBlock, pBlock->bManualReset != 0);
    pBlock->bSignalled = 0;
    pthread_mutex_unlock(&pBlock->lock);
}

} // namespace Vireo
