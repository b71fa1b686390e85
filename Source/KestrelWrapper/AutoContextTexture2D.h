// Holds the context's texture pair for a scope: the lock, with the texture
// bound and the earlier binding put back at the end. Private to the library.
#ifndef VIREO_KESTRELWRAPPER_AUTOCONTEXTTEXTURE2D_H
#define VIREO_KESTRELWRAPPER_AUTOCONTEXTTEXTURE2D_H

#include "KestrelWrapper/IKestrelContext.h"

namespace Vireo
{

class AutoContextTexture2D
{
public:
    AutoContextTexture2D(IKestrelContext* context, _KStexture* texture) : _pContext(context)
    {
        _pContext->BindTexture2D(texture);
    }
    ~AutoContextTexture2D() { _pContext->UnbindTexture2D(); }
    AutoContextTexture2D(const AutoContextTexture2D&) = delete;
    AutoContextTexture2D& operator=(const AutoContextTexture2D&) = delete;

private:
    IKestrelContext* _pContext;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_AUTOCONTEXTTEXTURE2D_H
