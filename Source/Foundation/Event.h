/// \file
/// Event: a signal that threads, and with a name processes, wait for.
#ifndef VIREO_FOUNDATION_EVENT_H
#define VIREO_FOUNDATION_EVENT_H

#include "Foundation/Mutex.h" // kInfinite
#include "Foundation/Uncopyable.h"
#include "VireoExport.h"

namespace Vireo
{

/// A manual-reset event stays signalled until Reset and lets every waiter
/// through meanwhile. An auto-reset event lets exactly one waiter through per
/// Set and is unsignalled again as soon as it has. With a name, every Event of
/// that name, in any process, is the same event; whoever creates it decides
/// its kind and initial state, later openers get it as it is.
///
/// If the platform object cannot be made, the object stays empty: Wait
/// answers false at once and Set, Reset and Pulse do nothing.
class VIREO_EXPORT Event : public Uncopyable
{
public:
    /// Makes or, with a `name` already in use, opens an event.
    Event(bool bManualReset, bool bInitialState, const wchar_t* name = nullptr);
    ~Event();

    /// True when the event was signalled, or released this waiter, within the
    /// time-out. 0 only looks; kInfinite waits for as long as it takes.
    bool Wait(unsigned long timeoutMs);

    /// Signals the event: waiters get through, as the kind of the event says.
    void Set();
    /// Makes the event unsignalled.
    void Reset();

    /// Lets through the threads waiting at this moment (all of them for a
    /// manual-reset event, one for an auto-reset event) and leaves the event
    /// unsignalled, whether anybody was waiting or not.
    void Pulse();

private:
    struct Handle;
    Handle* _pHandle;
};

} // namespace Vireo

#endif // VIREO_FOUNDATION_EVENT_H
