// A Kestrel context behind the library's object model: the maker of every
// object, the driver of frames, and the keeper of the shared binding slots.
#ifndef VIREO_KESTRELWRAPPER_IKESTRELCONTEXT_H
#define VIREO_KESTRELWRAPPER_IKESTRELCONTEXT_H

#include "Foundation/ValueTypes.h"
#include "KestrelApi/Kestrel.h"
#include "KestrelWrapper/IKSShader.h"
#include "VireoExport.h"

namespace Vireo
{

class IMgrConsole;
class IKSPrimitive;
class IKSProgram;
class IKSTexImage2D;
class IKSFrameBuffer;
class IKSBuffer;

// Every operation acts on Kestrel's current context, not necessarily this
// one: make the context current through the manager first.
class VIREO_EXPORT IKestrelContext
{
public:
    // Outcome of RenderFrame.
    enum KSRenderFrameStatus
    {
        kRFS_Failed = 0,
        kRFS_Finished = 1,
        kRFS_Stopped = 2,
    };

    // The eight figures of the last frame, each with its own width.
    struct KSRenderFrameStatistics
    {
        double doubleStatistic1;
        double doubleStatistic2;
        double doubleStatistic3;
        long long longStatistic1;
        int intStatistic;
        long long longStatistic2;
        long long longStatistic3;
        float floatStatistic;
    };

    IKestrelContext() = default;
    IKestrelContext(const IKestrelContext&) = default;
    IKestrelContext& operator=(const IKestrelContext&) = default;
    virtual ~IKestrelContext() = default;

    virtual void DeleteThis() = 0;
    virtual IMgrConsole* GetConsole() = 0;
    // Takes Kestrel's pending error: true when there was one.
    virtual bool ErrorCheck() = 0;
    virtual bool IsReleaseMode() = 0;

    virtual bool SetViewport(const Rect2<Vector2i, int>& rect) = 0;
    virtual bool SetViewport(int x, int y, int width, int height) = 0;
    virtual bool ClearFrameBuffers(const Color3f& color, float alpha, unsigned int mask) = 0;
    virtual KSRenderFrameStatus RenderFrame() = 0;
    // True when the frame ended without a pending error; a stop gives false.
    virtual bool RenderRegion(const Rect2<Vector2i, int>& region, bool clear,
                              const Color3f& clearColor) = 0;
    // Safe from another thread while a frame renders.
    virtual void Stop() = 0;

    virtual IKSPrimitive* CreateIKSPrimitive() = 0;
    virtual bool DestroyIKSPrimitive(IKSPrimitive* primitive) = 0;
    // The context's own primitive of handle 0: binding it binds none.
    virtual IKSPrimitive* TheNullPrimitive() = 0;
    // Raw path: a compiled Kestrel shader of Kestrel kind `type`, or null.
    virtual _KSshader* CreateShader(int type, const char** sources, int count) = 0;
    virtual bool DestroyShader(_KSshader* shader) = 0;
    virtual IKSShader* CreateIKSShader(IKSShader::Type type) = 0;
    virtual bool DestroyIKSShader(IKSShader* shader) = 0;
    virtual IKSProgram* CreateIKSProgram() = 0;
    virtual bool DestroyIKSProgram(IKSProgram* program) = 0;
    virtual IKSTexImage2D* CreateIKSTexImage2D() = 0;
    virtual bool DestroyIKSTexImage2D(IKSTexImage2D* texture) = 0;
    virtual IKSFrameBuffer* CreateIKSFrameBuffer() = 0;
    virtual bool DestroyIKSFrameBuffer(IKSFrameBuffer* frameBuffer) = 0;
    virtual IKSBuffer* CreateIKSBuffer() = 0;
    virtual bool DestroyIKSBuffer(IKSBuffer* buffer) = 0;

    // Locked pairs around Kestrel's one texture slot and one pixel pack slot:
    // the bind takes the lock and saves what was bound, the unbind restores
    // it and gives the lock back. Not nestable: the saved slot is single.
    virtual void BindTexture2D(_KStexture* texture) = 0;
    virtual void UnbindTexture2D() = 0;
    virtual void BindPixelPackBuffer(_KSbuffer* buffer) = 0;
    virtual void UnbindPixelPackBuffer() = 0;

    virtual int GetMaxRayDepthLimit() const = 0;
    virtual int GetRayDepthLimit() const = 0;
    // False, and Kestrel untold, when `limit` is above the maximum.
    virtual bool SetRayDepthLimit(int limit) = 0;
    // Strings belong to Kestrel.
    virtual const char* GetKSVersionString() = 0;
    virtual const char* GetKSProfileString() = 0;
    virtual void GetKSStatistics(KSRenderFrameStatistics& statistics) = 0;
    virtual int GetKSHardwareAcceleratorCount() = 0;
    virtual bool GetKSIsHardwareAccelerated() = 0;
    virtual bool GetKSIsDifferentialsEnabled() = 0;
    virtual bool GetKSIsFilteredAccumulatesEnabled() = 0;
    // `major` and `minor` receive the version the library needs (1.4); the
    // result says whether Kestrel's version reaches it.
    virtual bool GetKSVersionIsCompatible(int& major, int& minor) = 0;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKESTRELCONTEXT_H
