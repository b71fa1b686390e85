/// \file
/// The singleton manager behind IMgrKestrel.
#ifndef VIREO_KESTRELWRAPPER_MGRKESTREL_H
#define VIREO_KESTRELWRAPPER_MGRKESTREL_H

#include "KestrelWrapper/IMgrKestrel.h"

namespace Vireo
{

/// The library's manager; hosts use it through IMgrKestrel.
class VIREO_EXPORT MgrKestrel : public IMgrKestrel
{
public:
    /// The singleton; never null. Its first call must not race with another.
    static MgrKestrel* Instance();

    IKestrelContext* CreateKestrelContext(void* existingContext, IMgrConsole* console,
                                          bool releaseMode, bool printLeakReport,
                                          const long long* attributes) override;
    IKestrelContext* CreateKestrelContext(IMgrConsole* console, bool releaseMode,
                                          bool printLeakReport,
                                          const long long* attributes) override;
    bool DestroyKestrelContext(IKestrelContext* context) override;
    bool SetCurrentKestrelContext(IKestrelContext* context) override;
    IKestrelContext* GetCurrentKestrelContext() override;

private:
    MgrKestrel() = default;
    static MgrKestrel* _Create();

    /// Not owning: the pointer that the caller gave.
    IKestrelContext* _pCurrentContext = nullptr;

    static MgrKestrel* _pInstance;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_MGRKESTREL_H
