#include "KestrelWrapper/KestrelContextImp.h"

#include "CoreInterfaces/IMgrConsole.h"
#include "KestrelWrapper/KSPrimitive.h"
#include "KestrelWrapper/ObjectFactory.h"

#include <cstdio>

namespace Vireo
{

namespace
{

constexpr int kRequiredMajor = 1;
constexpr int kRequiredMinor = 4;

// Kestrel's notifications arrive here, on a thread of Kestrel's choosing.
void KestrelNotificationCallback(int code, const void* /*detail*/, size_t /*detailSize*/,
                                 const char* message, void* userData)
{
    if (userData == nullptr)
        return;
    static_cast<KestrelContextImp*>(userData)->KestrelNotification(code, message);
}

} // namespace

// --- Lifecycle --------------------------------------------------------------

KestrelContextImp::KestrelContextImp(IMgrConsole* console, bool printLeakReport, bool releaseMode)
    : _bOwnsContext(true), _pKestrelContext(nullptr), _pConsole(console),
      _bPrintLeakReport(printLeakReport), _bReleaseMode(releaseMode)
{
}

KestrelContextImp::KestrelContextImp(void* existingContext, IMgrConsole* console,
                                     bool printLeakReport, bool releaseMode)
    : _bOwnsContext(false), _pKestrelContext(existingContext), _pConsole(console),
      _bPrintLeakReport(printLeakReport), _bReleaseMode(releaseMode)
{
}

KestrelContextImp::~KestrelContextImp()
{
    // Not virtual dispatch: a derived part is gone by now.
    KestrelContextImp::DestroyKestrelContext();
}

void KestrelContextImp::DeleteThis()
{
    delete this;
}

bool KestrelContextImp::CreateKestrelContext(bool recreate, const long long* attributes)
{
    if (recreate)
        DestroyKestrelContext();

    // The null primitive needs no Kestrel context, so it comes first.
    auto* nullPrimitive = new KSPrimitive();
    nullPrimitive->InitNull(this);
    _pNullPrimitive = nullPrimitive;

    if (_pKestrelContext != nullptr)
        return true; // adopted: its notifications do not reach us

    _pKestrelContext = KestrelCreateContext(attributes, KestrelNotificationCallback, this);
    return _pKestrelContext != nullptr;
}

void KestrelContextImp::DestroyKestrelContext()
{
    if (_pNullPrimitive != nullptr)
    {
        delete dynamic_cast<KSPrimitive*>(_pNullPrimitive);
        _pNullPrimitive = nullptr;
    }
    if (_pKestrelContext == nullptr)
        return;
    if (_bPrintLeakReport)
        _PrintLeakReport();
    if (_bOwnsContext)
        KestrelDestroyContext(_pKestrelContext);
    _pKestrelContext = nullptr;
}

bool KestrelContextImp::MakeKestrelContextActive()
{
    if (_pKestrelContext == nullptr)
        return false;
    if (KestrelSetCurrentContext(_pKestrelContext) != 0)
        return true;
    // Reasserts the ray depth limit on whatever context is current, so that a
    // refused switch leaves that context's limit within its maximum.
    SetRayDepthLimit(GetMaxRayDepthLimit());
    return false;
}

void KestrelContextImp::KestrelNotification(int code, const char* message)
{
    if (code == KS_RENDER_STOPPED)
        return; // a stopped frame is not an error
    if (_pConsole == nullptr)
        return;
    if (message != nullptr)
        _pConsole->PrintError("Kestrel Error %d: %s\n", code, message);
    else
        _pConsole->PrintError("Kestrel Error %d\n", code);
}

bool KestrelContextImp::ErrorCheck()
{
    const int error = ksGetError();
    if (error == KS_RENDER_STOPPED)
        return true;
    if (error == 0)
        return false;
    if (_pConsole != nullptr)
        _pConsole->PrintError("Kestrel error %#x occurred.\n", static_cast<unsigned>(error));
    return true;
}

bool KestrelContextImp::IsReleaseMode()
{
    return _bReleaseMode;
}

IMgrConsole* KestrelContextImp::GetConsole()
{
    return _pConsole;
}

// --- Factory and leak accounting -------------------------------------------

IKSPrimitive* KestrelContextImp::CreateIKSPrimitive()
{
    return Factory::MakeCounted(
        std::make_unique<KSPrimitive>(),
        [this](KSPrimitive& primitive) { return primitive.Init(this); }, _nPrimitives);
}

bool KestrelContextImp::DestroyIKSPrimitive(IKSPrimitive* primitive)
{
    return Factory::DestroyCounted<KSPrimitive>(primitive, _nPrimitives);
}

IKSPrimitive* KestrelContextImp::TheNullPrimitive()
{
    return _pNullPrimitive;
}

void KestrelContextImp::_PrintLeakReport()
{
    if (_pConsole == nullptr)
        return;
    struct Line
    {
        int count;
        const char* format;
    };
    const Line lines[] = {
        {_nPrimitives, "  IKSPrimitive count: %d\n"},
        {_nShaders, "  IKSShader count: %d\n"},
        {_nPrograms, "  IKSProgram count: %d\n"},
        {_nBuffers, "  IKSBuffer count: %d\n"},
        {_nFrameBuffers, "  IKSFrameBuffer count: %d\n"},
        {_nTexImages2D, "  IKSTexImage2D count: %d\n"},
    };
    bool anyLeft = false;
    for (const Line& line : lines)
        anyLeft = anyLeft || line.count != 0;
    if (!anyLeft)
        return;
    _pConsole->PrintWarning(
        "IKestrelContext detected possible memory leak or double destruction attempt:\n");
    for (const Line& line : lines)
    {
        if (line.count != 0)
            _pConsole->PrintWarning(line.format, line.count);
    }
}

// --- Frames and queries -----------------------------------------------------

bool KestrelContextImp::SetViewport(const Rect2<Vector2i, int>& rect)
{
    ksViewport(rect.min.x, rect.min.y, rect.max.x - rect.min.x, rect.max.y - rect.min.y);
    return true;
}

bool KestrelContextImp::SetViewport(int x, int y, int width, int height)
{
    ksViewport(x, y, width, height);
    return true;
}

bool KestrelContextImp::ClearFrameBuffers(const Color3f& color, float alpha, unsigned int mask)
{
    ksClearColor(color.r, color.g, color.b, alpha);
    ksClear(mask);
    return true;
}

IKestrelContext::KSRenderFrameStatus KestrelContextImp::RenderFrame()
{
    ksRenderFrame();
    const int error = ksGetError();
    if (error == KS_RENDER_STOPPED)
        return kRFS_Stopped;
    if (error == 0)
        return kRFS_Finished;
    if (_pConsole != nullptr)
        _pConsole->PrintError("Kestrel error %#x occurred.\n", static_cast<unsigned>(error));
    return kRFS_Failed;
}

bool KestrelContextImp::RenderRegion(const Rect2<Vector2i, int>& region, bool clear,
                                     const Color3f& clearColor)
{
    if (!SetViewport(region))
        return false;
    if (clear && !ClearFrameBuffers(clearColor, 1.0f, KS_COLOR_BUFFER_BIT))
        return false;
    ksRenderFrame();
    return !ErrorCheck();
}

void KestrelContextImp::Stop()
{
    KestrelStopContext(_pKestrelContext);
}

int KestrelContextImp::GetMaxRayDepthLimit() const
{
    int value = 0;
    ksGetIntegerv(KS_MAX_RAY_DEPTH, &value);
    return value;
}

int KestrelContextImp::GetRayDepthLimit() const
{
    int value = 0;
    ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &value);
    return value;
}

bool KestrelContextImp::SetRayDepthLimit(int limit)
{
    if (limit > GetMaxRayDepthLimit())
        return false;
    ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, limit);
    return true;
}

const char* KestrelContextImp::GetKSVersionString()
{
    return ksGetString(KS_VERSION);
}

const char* KestrelContextImp::GetKSProfileString()
{
    return ksGetString(KS_PROFILE);
}

void KestrelContextImp::GetKSStatistics(KSRenderFrameStatistics& statistics)
{
    ksGetDoublev(KS_FRAME_STATISTIC_1, &statistics.doubleStatistic1);
    ksGetDoublev(KS_FRAME_STATISTIC_2, &statistics.doubleStatistic2);
    ksGetDoublev(KS_FRAME_STATISTIC_3, &statistics.doubleStatistic3);
    ksGetLongv(KS_FRAME_STATISTIC_4, &statistics.longStatistic1);
    ksGetIntegerv(KS_FRAME_STATISTIC_5, &statistics.intStatistic);
    ksGetLongv(KS_FRAME_STATISTIC_6, &statistics.longStatistic2);
    ksGetLongv(KS_FRAME_STATISTIC_7, &statistics.longStatistic3);
    ksGetFloatv(KS_FRAME_STATISTIC_8, &statistics.floatStatistic);
}

int KestrelContextImp::GetKSHardwareAcceleratorCount()
{
    return KestrelGetHardwareAcceleratorCount();
}

namespace
{
bool QueryBoolean(int name)
{
    int value = 0;
    ksGetBooleanv(name, &value);
    return value != 0;
}
} // namespace

bool KestrelContextImp::GetKSIsHardwareAccelerated()
{
    return QueryBoolean(KS_HARDWARE_ACCELERATED);
}

bool KestrelContextImp::GetKSIsDifferentialsEnabled()
{
    return QueryBoolean(KS_DIFFERENTIALS_ENABLED);
}

bool KestrelContextImp::GetKSIsFilteredAccumulatesEnabled()
{
    return QueryBoolean(KS_FILTERED_ACCUMULATES_ENABLED);
}

bool KestrelContextImp::GetKSVersionIsCompatible(int& major, int& minor)
{
    major = kRequiredMajor;
    minor = kRequiredMinor;
    const char* version = ksGetString(KS_VERSION);
    if (version == nullptr)
        return false;
    int foundMajor = 0;
    int foundMinor = 0;
    if (std::sscanf(version, "%d.%d", &foundMajor, &foundMinor) != 2)
        return false;
    return foundMajor > kRequiredMajor ||
           (foundMajor == kRequiredMajor && foundMinor >= kRequiredMinor);
}

// --- Binding slots ----------------------------------------------------------

void KestrelContextImp::BindTexture2D(_KStexture* texture)
{
    _textureMutex.Acquire();
    ksGetTexture(KS_TEXTURE_BINDING_2D, &_pSavedTexture);
    ksBindTexture(KS_TEXTURE_2D, texture);
}

void KestrelContextImp::UnbindTexture2D()
{
    ksBindTexture(KS_TEXTURE_2D, _pSavedTexture);
    _textureMutex.Release();
}

void KestrelContextImp::BindPixelPackBuffer(_KSbuffer* buffer)
{
    _pixelPackMutex.Acquire();
    ksGetBuffer(KS_PIXEL_PACK_BUFFER_BINDING, &_pSavedPixelPackBuffer);
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, buffer);
}

void KestrelContextImp::UnbindPixelPackBuffer()
{
    ksBindBuffer(KS_PIXEL_PACK_BUFFER, _pSavedPixelPackBuffer);
    _pixelPackMutex.Release();
}

// --- Raw shaders and programs -----------------------------------------------

_KSshader* KestrelContextImp::CreateShader(int type, const char** sources, int count)
{
    _KSshader* shader = ksCreateShader(type);
    if (shader == nullptr)
        return nullptr;
    ksShaderSource(shader, count, sources, nullptr);
    if (!_CompileShaderObject(shader))
    {
        ksDeleteShader(shader);
        return nullptr;
    }
    return shader;
}

bool KestrelContextImp::DestroyShader(_KSshader* shader)
{
    if (shader != nullptr)
        ksDeleteShader(shader);
    return true;
}

_KSprogram* KestrelContextImp::CreateProgram(_KSshader* shader)
{
    return _CreateLinkedProgram(&shader, 1);
}

_KSprogram* KestrelContextImp::CreateProgram(_KSshader* first, _KSshader* second)
{
    _KSshader* const shaders[] = {first, second};
    return _CreateLinkedProgram(shaders, 2);
}

_KSprogram* KestrelContextImp::_CreateLinkedProgram(_KSshader* const* shaders, int count)
{
    _KSprogram* program = ksCreateProgram();
    if (program == nullptr)
        return nullptr;
    for (int i = 0; i < count; ++i)
        ksAttachShader(program, shaders[i]);
    if (!_LinkShaderProgram(program))
    {
        // The shaders stay with the caller.
        ksDeleteProgram(program);
        return nullptr;
    }
    return program;
}

bool KestrelContextImp::DestroyProgram(_KSprogram* program)
{
    ksDeleteProgram(program);
    return true;
}

bool KestrelContextImp::_CompileShaderObject(_KSshader* shader)
{
    // The levels of the shader trace: 0 never, 1 on failure, 2 always.
    ksCompileShader(shader);
    int status = 0;
    ksGetShaderiv(shader, KS_COMPILE_STATUS, &status);
    if (status == 0)
    {
        const char* log = nullptr;
        if (_pConsole != nullptr)
            _pConsole->PrintError("KS: shader compilation failed...\n");
        ksGetShaderString(shader, KS_SHADER_LOG, &log);
        if (_pConsole != nullptr)
            _pConsole->PrintError("KS: error log: %s\n", log != nullptr ? log : "");
        if (_eShaderTrace == 1 || _eShaderTrace == 2)
            _PrintShaderSource(shader);
        return false;
    }
    if (_eShaderTrace == 2)
        _PrintShaderSource(shader);
    return true;
}

void KestrelContextImp::_PrintShaderSource(_KSshader* shader)
{
    const char* text = nullptr;
    ksGetShaderString(shader, KS_SHADER_SOURCE, &text);
    if (_pConsole == nullptr)
        return;
    if (text != nullptr)
        _pConsole->PrintDetail("shader source:\n%s \n", text);
    else
        _pConsole->PrintWarning(
            "KS: ksGetShaderString(KS_SHADER_SOURCE) failure. Returned empty string\n");
}

bool KestrelContextImp::_LinkShaderProgram(_KSprogram* program)
{
    ksLinkProgram(program);
    int status = 0;
    ksGetProgramiv(program, KS_LINK_STATUS, &status);
    if (status != 0)
        return true;
    const char* log = nullptr;
    ksGetProgramString(program, KS_PROGRAM_LOG, &log);
    if (_pConsole != nullptr)
    {
        _pConsole->PrintError("KS: shader linking failed:\n");
        _pConsole->PrintError("KS: %s\n", log != nullptr ? log : "");
    }
    return false;
}

} // namespace Vireo
