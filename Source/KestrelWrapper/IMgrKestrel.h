/// \file
/// The manager: the host's front door to the library.
#ifndef VIREO_KESTRELWRAPPER_IMGRKESTREL_H
#define VIREO_KESTRELWRAPPER_IMGRKESTREL_H

#include "VireoExport.h"

namespace Vireo
{

class IKestrelContext;
class IMgrConsole;

/// The host's front door: makes, destroys and switches Kestrel contexts.
/// Get it with GetMgrKestrel.
class VIREO_EXPORT IMgrKestrel
{
public:
    IMgrKestrel() = default;
    /// Copies nothing: the interface holds no state.
    IMgrKestrel(const IMgrKestrel&) = default;
    /// Assigns nothing: the interface holds no state.
    IMgrKestrel& operator=(const IMgrKestrel&) = default;
    virtual ~IMgrKestrel() = default;

    /// Wraps a Kestrel context that the host made; the new context does not own
    /// it. With a null `existingContext` a new Kestrel context is made, which is
    /// still not owned. `attributes` goes to Kestrel unread, and only when a
    /// Kestrel context is made. Gives null on failure.
    virtual IKestrelContext* CreateKestrelContext(void* existingContext, IMgrConsole* console,
                                                  bool releaseMode, bool printLeakReport,
                                                  const long long* attributes) = 0;
    /// Makes a context that creates and owns its Kestrel context.
    virtual IKestrelContext* CreateKestrelContext(IMgrConsole* console, bool releaseMode,
                                                  bool printLeakReport,
                                                  const long long* attributes) = 0;
    /// False for null; otherwise deletes the context and gives true.
    virtual bool DestroyKestrelContext(IKestrelContext* context) = 0;
    /// Makes the context Kestrel's current one and records it. A new context is
    /// not current until this succeeds.
    virtual bool SetCurrentKestrelContext(IKestrelContext* context) = 0;
    /// The context last made current through the manager; may be null.
    virtual IKestrelContext* GetCurrentKestrelContext() = 0;
};

/// The one manager of the process; never null.
VIREO_EXPORT IMgrKestrel* GetMgrKestrel();

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IMGRKESTREL_H
