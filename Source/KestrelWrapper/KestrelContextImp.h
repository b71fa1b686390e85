// The one implementation of IKestrelContext.
#ifndef VIREO_KESTRELWRAPPER_KESTRELCONTEXTIMP_H
#define VIREO_KESTRELWRAPPER_KESTRELCONTEXTIMP_H

#include "Foundation/Mutex.h"
#include "KestrelWrapper/IKestrelContext.h"

namespace Vireo
{

class VIREO_EXPORT KestrelContextImp : public IKestrelContext
{
public:
    // Note the flag order: the reverse of the manager's operations.
    KestrelContextImp(IMgrConsole* console, bool printLeakReport, bool releaseMode);
    // Adopts `existingContext`, which this object never destroys.
    KestrelContextImp(void* existingContext, IMgrConsole* console, bool printLeakReport,
                      bool releaseMode);
    ~KestrelContextImp() override;
    KestrelContextImp(const KestrelContextImp&) = delete;
    KestrelContextImp& operator=(const KestrelContextImp&) = delete;

    void DeleteThis() override;
    IMgrConsole* GetConsole() override;
    bool ErrorCheck() override;
    bool IsReleaseMode() override;

    bool SetViewport(const Rect2<Vector2i, int>& rect) override;
    bool SetViewport(int x, int y, int width, int height) override;
    bool ClearFrameBuffers(const Color3f& color, float alpha, unsigned int mask) override;
    KSRenderFrameStatus RenderFrame() override;
    bool RenderRegion(const Rect2<Vector2i, int>& region, bool clear,
                      const Color3f& clearColor) override;
    void Stop() override;

    IKSPrimitive* CreateIKSPrimitive() override;
    bool DestroyIKSPrimitive(IKSPrimitive* primitive) override;
    IKSPrimitive* TheNullPrimitive() override;
    _KSshader* CreateShader(int type, const char** sources, int count) override;
    bool DestroyShader(_KSshader* shader) override;
    IKSShader* CreateIKSShader(IKSShader::Type type) override;
    bool DestroyIKSShader(IKSShader* shader) override;
    IKSProgram* CreateIKSProgram() override;
    bool DestroyIKSProgram(IKSProgram* program) override;
    IKSTexImage2D* CreateIKSTexImage2D() override;
    bool DestroyIKSTexImage2D(IKSTexImage2D* texture) override;
    IKSFrameBuffer* CreateIKSFrameBuffer() override;
    bool DestroyIKSFrameBuffer(IKSFrameBuffer* frameBuffer) override;
    IKSBuffer* CreateIKSBuffer() override;
    bool DestroyIKSBuffer(IKSBuffer* buffer) override;

    void BindTexture2D(_KStexture* texture) override;
    void UnbindTexture2D() override;
    void BindPixelPackBuffer(_KSbuffer* buffer) override;
    void UnbindPixelPackBuffer() override;

    int GetMaxRayDepthLimit() const override;
    int GetRayDepthLimit() const override;
    bool SetRayDepthLimit(int limit) override;
    const char* GetKSVersionString() override;
    const char* GetKSProfileString() override;
    void GetKSStatistics(KSRenderFrameStatistics& statistics) override;
    int GetKSHardwareAcceleratorCount() override;
    bool GetKSIsHardwareAccelerated() override;
    bool GetKSIsDifferentialsEnabled() override;
    bool GetKSIsFilteredAccumulatesEnabled() override;
    bool GetKSVersionIsCompatible(int& major, int& minor) override;

    // Second phase: true when a Kestrel context exists afterwards. With
    // `recreate` it tears down first.
    virtual bool CreateKestrelContext(bool recreate, const long long* attributes);
    // Teardown; the object stays usable for a further CreateKestrelContext.
    virtual void DestroyKestrelContext();
    virtual bool MakeKestrelContextActive();
    // Entry for Kestrel's notifications; `message` may be null.
    virtual void KestrelNotification(int code, const char* message);
    virtual _KSprogram* CreateProgram(_KSshader* shader);
    virtual _KSprogram* CreateProgram(_KSshader* first, _KSshader* second);
    virtual bool DestroyProgram(_KSprogram* program);

protected:
    bool _CompileShaderObject(_KSshader* shader);
    bool _LinkShaderProgram(_KSprogram* program);
    void _PrintLeakReport();

private:
    void _PrintShaderSource(_KSshader* shader);
    _KSprogram* _CreateLinkedProgram(_KSshader* const* shaders, int count);

    bool _bOwnsContext;
    void* _pKestrelContext;
    IMgrConsole* _pConsole;
    int _eShaderTrace = 1;
    bool _bPrintLeakReport;
    bool _bReleaseMode;
    _KStexture* _pSavedTexture = nullptr;
    _KSbuffer* _pSavedPixelPackBuffer = nullptr;
    Mutex _textureMutex;
    Mutex _pixelPackMutex;
    int _nPrimitives = 0;
    int _nShaders = 0;
    int _nPrograms = 0;
    int _nBuffers = 0;
    int _nFrameBuffers = 0;
    int _nTexImages2D = 0;
    IKSPrimitive* _pNullPrimitive = nullptr;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KESTRELCONTEXTIMP_H
