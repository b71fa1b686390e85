#include "KestrelWrapper/MgrKestrel.h"

#include "KestrelWrapper/KestrelContextImp.h"

namespace Vireo
{

MgrKestrel* MgrKestrel::_pInstance = nullptr;

IMgrKestrel* GetMgrKestrel()
{
    return MgrKestrel::Instance();
}

MgrKestrel* MgrKestrel::Instance()
{
    if (_pInstance == nullptr)
        _pInstance = _Create();
    return _pInstance;
}

MgrKestrel* MgrKestrel::_Create()
{
    // Destroyed at unload; that ends the object and touches no context.
    static MgrKestrel theSingleton;
    return &theSingleton;
}

namespace
{

// Second phase of a new context: the context, or null after deleting it.
IKestrelContext* FinishCreation(KestrelContextImp* context, const long long* attributes)
{
    if (!context->CreateKestrelContext(false, attributes))
    {
        delete context;
        return nullptr;
    }
    return context;
}

} // namespace

IKestrelContext* MgrKestrel::CreateKestrelContext(void* existingContext, IMgrConsole* console,
                                                  bool releaseMode, bool printLeakReport,
                                                  const long long* attributes)
{
    // The constructor takes the flags the other way round.
    return FinishCreation(
        new KestrelContextImp(existingContext, console, printLeakReport, releaseMode), attributes);
}

IKestrelContext* MgrKestrel::CreateKestrelContext(IMgrConsole* console, bool releaseMode,
                                                  bool printLeakReport, const long long* attributes)
{
    return FinishCreation(new KestrelContextImp(console, printLeakReport, releaseMode), attributes);
}

bool MgrKestrel::DestroyKestrelContext(IKestrelContext* context)
{
    if (context == _pCurrentContext)
        _pCurrentContext = nullptr;
    if (context == nullptr)
        return false;
    context->DeleteThis();
    return true;
}

bool MgrKestrel::SetCurrentKestrelContext(IKestrelContext* context)
{
    auto* imp = dynamic_cast<KestrelContextImp*>(context);
    if (imp == nullptr)
        return false;
    if (!imp->MakeKestrelContextActive())
        return false;
    _pCurrentContext = context;
    return true;
}

IKestrelContext* MgrKestrel::GetCurrentKestrelContext()
{
    return _pCurrentContext;
}

} // namespace Vireo
