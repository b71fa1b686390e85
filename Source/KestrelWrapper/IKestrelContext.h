/// \file
/// A Kestrel context behind the library's object model: the maker of every
/// object, the driver of frames, and the keeper of the shared binding slots.
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

/// Every operation acts on Kestrel's current context, not necessarily this
/// one: make the context current through the manager first.
class VIREO_EXPORT IKestrelContext
{
public:
    /// Outcome of RenderFrame.
    enum KSRenderFrameStatus
    {
        kRFS_Failed = 0,
        kRFS_Finished = 1,
        kRFS_Stopped = 2,
    };

    /// The eight figures of the last frame, each with its own width.
    struct KSRenderFrameStatistics
    {
        double doubleStatistic1;  ///< Seconds the frame took.
        double doubleStatistic2;  ///< Million rays per second.
        double doubleStatistic3;  ///< Mean path length.
        long long longStatistic1; ///< Primary rays.
        int intStatistic;         ///< Frames the context has rendered.
        long long longStatistic2; ///< Secondary rays.
        long long longStatistic3; ///< Shadow rays.
        float floatStatistic;     ///< Fraction of primary rays that hit something.
    };

    IKestrelContext() = default;
    /// Copies nothing: the interface holds no state.
    IKestrelContext(const IKestrelContext&) = default;
    /// Assigns nothing: the interface holds no state.
    IKestrelContext& operator=(const IKestrelContext&) = default;
    virtual ~IKestrelContext() = default;

    /// Deletes the context; hosts use IMgrKestrel::DestroyKestrelContext.
    virtual void DeleteThis() = 0;
    /// The console that the context's messages go to.
    virtual IMgrConsole* GetConsole() = 0;
    /// Takes Kestrel's pending error: true when there was one.
    virtual bool ErrorCheck() = 0;
    /// True when the context was made in release mode, with fewer checks.
    virtual bool IsReleaseMode() = 0;

    /// Sets the rectangle of the frame buffer that frames render.
    virtual bool SetViewport(const Rect2<Vector2i, int>& rect) = 0;
    /// Sets the rectangle of the frame buffer that frames render.
    virtual bool SetViewport(int x, int y, int width, int height) = 0;
    /// Clears the attachments of the bound frame buffer that `mask` names to
    /// `color` and `alpha`.
    virtual bool ClearFrameBuffers(const Color3f& color, float alpha, unsigned int mask) = 0;
    /// Renders one pass into the bound frame buffer; returns when it finished,
    /// failed or was stopped.
    virtual KSRenderFrameStatus RenderFrame() = 0;
    /// True when the frame ended without a pending error; a stop gives false.
    virtual bool RenderRegion(const Rect2<Vector2i, int>& region, bool clear,
                              const Color3f& clearColor) = 0;
    /// Safe from another thread while a frame renders.
    virtual void Stop() = 0;

    /// Makes a primitive; null on failure.
    virtual IKSPrimitive* CreateIKSPrimitive() = 0;
    /// Gives a primitive back; false for null or a foreign one.
    virtual bool DestroyIKSPrimitive(IKSPrimitive* primitive) = 0;
    /// The context's own primitive of handle 0: binding it binds none.
    virtual IKSPrimitive* TheNullPrimitive() = 0;
    /// Raw path: a compiled Kestrel shader of Kestrel kind `type`, or null.
    virtual _KSshader* CreateShader(int type, const char** sources, int count) = 0;
    /// Deletes a shader of the raw path.
    virtual bool DestroyShader(_KSshader* shader) = 0;
    /// Makes a shader of `type`; null on failure.
    virtual IKSShader* CreateIKSShader(IKSShader::Type type) = 0;
    /// Gives a shader back, telling its listeners first.
    virtual bool DestroyIKSShader(IKSShader* shader) = 0;
    /// Makes a program; null on failure.
    virtual IKSProgram* CreateIKSProgram() = 0;
    /// Gives a program back, telling its listeners first.
    virtual bool DestroyIKSProgram(IKSProgram* program) = 0;
    /// Makes a 2D texture; null on failure.
    virtual IKSTexImage2D* CreateIKSTexImage2D() = 0;
    /// Gives a texture back.
    virtual bool DestroyIKSTexImage2D(IKSTexImage2D* texture) = 0;
    /// Makes a frame buffer; null on failure.
    virtual IKSFrameBuffer* CreateIKSFrameBuffer() = 0;
    /// Gives a frame buffer back, with its attachments.
    virtual bool DestroyIKSFrameBuffer(IKSFrameBuffer* frameBuffer) = 0;
    /// Makes a buffer; null on failure.
    virtual IKSBuffer* CreateIKSBuffer() = 0;
    /// Gives a buffer back.
    virtual bool DestroyIKSBuffer(IKSBuffer* buffer) = 0;

    /// Locked pairs around Kestrel's one texture slot and one pixel pack slot:
    /// the bind takes the lock and saves what was bound, the unbind restores
    /// it and gives the lock back. Not nestable: the saved slot is single.
    virtual void BindTexture2D(_KStexture* texture) = 0;
    /// Puts back the texture saved by BindTexture2D and gives the lock back.
    virtual void UnbindTexture2D() = 0;
    /// Takes the pixel pack slot's lock and binds `buffer` there.
    virtual void BindPixelPackBuffer(_KSbuffer* buffer) = 0;
    /// Puts back the saved pixel pack buffer and gives the lock back.
    virtual void UnbindPixelPackBuffer() = 0;

    /// The highest ray depth limit Kestrel allows.
    virtual int GetMaxRayDepthLimit() const = 0;
    /// The ray depth limit frames render with.
    virtual int GetRayDepthLimit() const = 0;
    /// False, and Kestrel untold, when `limit` is above the maximum.
    virtual bool SetRayDepthLimit(int limit) = 0;
    /// Kestrel's version text (KS_VERSION). Strings belong to Kestrel.
    virtual const char* GetKSVersionString() = 0;
    /// Kestrel's profile text (KS_PROFILE).
    virtual const char* GetKSProfileString() = 0;
    /// Fills `statistics` with the figures of the last frame.
    virtual void GetKSStatistics(KSRenderFrameStatistics& statistics) = 0;
    /// How many hardware accelerators Kestrel can render on.
    virtual int GetKSHardwareAcceleratorCount() = 0;
    /// True when frames render on a hardware accelerator.
    virtual bool GetKSIsHardwareAccelerated() = 0;
    /// True when Kestrel computes ray differentials.
    virtual bool GetKSIsDifferentialsEnabled() = 0;
    /// True when Kestrel applies pixel filters to summed attachments.
    virtual bool GetKSIsFilteredAccumulatesEnabled() = 0;
    /// `major` and `minor` receive the version the library needs (1.4); the
    /// result says whether Kestrel's version reaches it.
    virtual bool GetKSVersionIsCompatible(int& major, int& minor) = 0;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKESTRELCONTEXT_H
