// Contexts, errors, state queries and frame parameters.
#include "KestrelApi/Kestrel.h"

#include "Context.h"
#include "Instrumentation.h"

#include <cmath>
#include <new>

#ifndef KESTREL_RUNTIME_VERSION
#error "the build passes the project version as KESTREL_RUNTIME_VERSION"
#endif

using namespace Kestrel;

namespace
{

const char* const kVersionText = "1.4 Kestrel runtime " KESTREL_RUNTIME_VERSION;
const char* const kProfileText = "Kestrel runtime CPU";

enum QueryType
{
    kQT_Boolean,
    kQT_Integer,
    kQT_Long,
    kQT_Float,
    kQT_Double,
};

const char* const kQueryTypeWords[] = {"boolean", "integer", "long", "float", "double"};

// Integers and reals travel apart so that no 64-bit count passes through a
// double on its way out.
struct QueryValue
{
    long long _nInteger = 0;
    double _fReal = 0.0;
};

struct QueryEntry
{
    int _eName;
    QueryType _eType;
    QueryValue (*_pRead)(const Context&);
};

QueryValue Integer(long long value)
{
    QueryValue result;
    result._nInteger = value;
    return result;
}

QueryValue Real(double value)
{
    QueryValue result;
    result._fReal = value;
    return result;
}

// Every name that a ksGet function reads, each with the one function that
// reads it.
const QueryEntry kQueries[] = {
    {KS_HARDWARE_ACCELERATED, kQT_Boolean, [](const Context&) { return Integer(0); }},
    {KS_DIFFERENTIALS_ENABLED, kQT_Boolean, [](const Context&) { return Integer(0); }},
    {KS_FILTERED_ACCUMULATES_ENABLED, kQT_Boolean, [](const Context&) { return Integer(1); }},
    {KS_MAX_RAY_DEPTH, kQT_Integer,
     [](const Context& c) { return Integer(c._settings._nMaxRayDepth); }},
    {KS_MAX_FILTER_TABLE_SIZE, kQT_Integer,
     [](const Context& c) { return Integer(c._settings._nMaxFilterTableSize); }},
    {KS_RAY_DEPTH_LIMIT, kQT_Integer, [](const Context& c) { return Integer(c._nRayDepthLimit); }},
    {KS_FILTER_TABLE_SIZE, kQT_Integer,
     [](const Context& c) { return Integer(c._nFilterTableSize); }},
    {KS_FRAME_STATISTIC_5, kQT_Integer,
     [](const Context& c) { return Integer(c._statistics._nFrames); }},
    {KS_FRAME_STATISTIC_4, kQT_Long,
     [](const Context& c) { return Integer(c._statistics._nPrimaryRays); }},
    {KS_FRAME_STATISTIC_6, kQT_Long,
     [](const Context& c) { return Integer(c._statistics._nSecondaryRays); }},
    {KS_FRAME_STATISTIC_7, kQT_Long,
     [](const Context& c) { return Integer(c._statistics._nShadowRays); }},
    {KS_FRAME_STATISTIC_8, kQT_Float,
     [](const Context& c) { return Real(c._statistics._fHitFraction); }},
    {KS_FILTER_SIZE, kQT_Float, [](const Context& c) { return Real(c._fFilterSize); }},
    {KS_FRAME_STATISTIC_1, kQT_Double,
     [](const Context& c) { return Real(c._statistics._fSeconds); }},
    {KS_FRAME_STATISTIC_2, kQT_Double,
     [](const Context& c) { return Real(c._statistics._fMillionRaysPerSecond); }},
    {KS_FRAME_STATISTIC_3, kQT_Double,
     [](const Context& c) { return Real(c._statistics._fMeanPathLength); }},
};

const QueryEntry* FindQuery(int name, QueryType type)
{
    for (const QueryEntry& entry : kQueries)
        if (entry._eName == name && entry._eType == type)
            return &entry;
    return nullptr;
}

// The one body of the five ksGet functions and of ksGetFrameParameteriv.
template <class T>
void GetQuery(const char* function, int name, T* value, QueryType type, bool frameOnly = false)
{
    ApiCall call(function, {EnumArg(name, kCS_Query), PtrArg(value)});
    T result = 0;
    if (call.Proceed())
    {
        const QueryEntry* entry = FindQuery(name, type);
        if (frameOnly && name != KS_RAY_DEPTH_LIMIT && name != KS_FILTER_TABLE_SIZE)
            entry = nullptr;
        if (!entry)
            call.Raise(KS_INVALID_ENUM, "0x%x is not a%s %s state", static_cast<unsigned>(name),
                       type == kQT_Integer ? "n" : "", kQueryTypeWords[type]);
        else if (!value)
            call.Raise(KS_INVALID_VALUE, "null output");
        else
        {
            const QueryValue read = entry->_pRead(call.Ctx());
            result = type == kQT_Float || type == kQT_Double ? static_cast<T>(read._fReal)
                                                             : static_cast<T>(read._nInteger);
        }
    }
    if (value)
        *value = result;
}

} // namespace

// ---------------------------------------------------------------------------
// Contexts

void* KestrelCreateContext(const long long* attributes, KestrelNotificationFunction notify,
                           void* userData)
{
    // Only whether the function is null shows in the log.
    ApiCall call("KestrelCreateContext",
                 {PtrArg(attributes), PtrArg(notify ? static_cast<const void*>(&notify) : nullptr),
                  PtrArg(userData)},
                 ApiCall::kAM_NoLock);
    if (!call.Proceed())
        return nullptr;
    ContextSettings settings;
    if (!ParseAttributes(attributes, &settings))
        return nullptr;
    try
    {
        const Id id = NewId();
        auto context = std::make_shared<Context>(id, Registry::Instance().NextSerial(), settings,
                                                 notify, userData);
        Registry::Instance().Add(context);
        return HandleOf<void>(id);
    }
    catch (const std::bad_alloc&)
    {
        return nullptr;
    }
}

void KestrelDestroyContext(void* context)
{
    ApiCall call("KestrelDestroyContext", {ContextArg(context)}, ApiCall::kAM_NoLock);
    if (!call.Proceed())
        return;
    // A frame still building or rendering on another thread ends at its next
    // step; stopped before the context leaves the registry, so that a frame
    // which finds it gone knows it is stopped.
    if (std::shared_ptr<Context> live = Registry::Instance().Find(IdOf(context)))
        live->_bStopRequested.store(true);
    std::shared_ptr<Context> removed = Registry::Instance().Remove(IdOf(context));
    if (!removed)
        return;
    std::lock_guard<std::mutex> lock(removed->_mutex);
    removed->_bDestroyed = true;
    removed->ReleaseObjects();
}

int KestrelSetCurrentContext(void* context)
{
    ApiCall call("KestrelSetCurrentContext", {ContextArg(context)}, ApiCall::kAM_NoLock);
    if (!call.Proceed())
        return 0;
    return Registry::Instance().MakeCurrent(IdOf(context)) ? 1 : 0;
}

void KestrelStopContext(void* context)
{
    // Takes no context lock: a frame may be running, and the stop must
    // reach it between two tiles.
    ApiCall call("KestrelStopContext", {ContextArg(context)}, ApiCall::kAM_NoLock);
    if (!call.Proceed())
        return;
    if (std::shared_ptr<Context> live = Registry::Instance().Find(IdOf(context)))
        live->_bStopRequested.store(true);
}

int KestrelGetHardwareAcceleratorCount(void)
{
    ApiCall call("KestrelGetHardwareAcceleratorCount", {}, ApiCall::kAM_NoLock);
    return 0;
}

// ---------------------------------------------------------------------------
// Errors and queries

int ksGetError(void)
{
    ApiCall call("ksGetError", {});
    if (!call.Proceed())
        return KS_NO_ERROR;
    const int error = call.Ctx()._nPendingError;
    call.Ctx()._nPendingError = KS_NO_ERROR;
    return error;
}

const char* ksGetString(int name)
{
    ApiCall call("ksGetString", {EnumArg(name, kCS_Query)});
    if (!call.Proceed())
        return nullptr;
    const char* overridden = nullptr;
    if (StringOverride(name, &overridden))
        return overridden;
    switch (name)
    {
    case KS_VERSION:
        return kVersionText;
    case KS_PROFILE:
        return kProfileText;
    default:
        call.Raise(KS_INVALID_ENUM, "0x%x is not a string state", static_cast<unsigned>(name));
        return nullptr;
    }
}

void ksGetBooleanv(int name, int* value)
{
    GetQuery("ksGetBooleanv", name, value, kQT_Boolean);
}

void ksGetIntegerv(int name, int* value)
{
    GetQuery("ksGetIntegerv", name, value, kQT_Integer);
}

void ksGetLongv(int name, long long* value)
{
    GetQuery("ksGetLongv", name, value, kQT_Long);
}

void ksGetFloatv(int name, float* value)
{
    GetQuery("ksGetFloatv", name, value, kQT_Float);
}

void ksGetDoublev(int name, double* value)
{
    GetQuery("ksGetDoublev", name, value, kQT_Double);
}

void ksGetFrameParameteriv(int name, int* value)
{
    GetQuery("ksGetFrameParameteriv", name, value, kQT_Integer, true);
}

// ---------------------------------------------------------------------------
// Frame parameters

void ksFrameParameter1i(int name, int value)
{
    ApiCall call("ksFrameParameter1i", {EnumArg(name, kCS_Query), IntArg(value)});
    // A size that fails, injected or not, is a size refused.
    if (call.Faulted() && call.HasContext() && name == KS_FILTER_TABLE_SIZE)
        call.Ctx()._bFilterTableSizeRefused = true;
    if (!call.Proceed())
        return;
    Context& context = call.Ctx();
    switch (name)
    {
    case KS_RAY_DEPTH_LIMIT:
        if (value < 0 || value > context._settings._nMaxRayDepth)
            call.Raise(KS_INVALID_VALUE, "ray depth limit %d is outside 0..%d", value,
                       context._settings._nMaxRayDepth);
        else
            context._nRayDepthLimit = value;
        break;
    case KS_FILTER_TABLE_SIZE:
        context._bFilterTableSizeRefused =
            value < 1 || value > context._settings._nMaxFilterTableSize;
        if (context._bFilterTableSizeRefused)
            call.Raise(KS_INVALID_VALUE, "filter table size %d is outside 1..%d", value,
                       context._settings._nMaxFilterTableSize);
        else
        {
            // A new size starts from a flat table until ksFrameParameterfv.
            context._nFilterTableSize = value;
            context._filterTable.assign(static_cast<std::size_t>(value) * value, 1.0f);
        }
        break;
    default:
        call.Raise(KS_INVALID_ENUM, "0x%x is not an integer frame parameter",
                   static_cast<unsigned>(name));
        break;
    }
}

void ksFrameParameter1f(int name, float value)
{
    ApiCall call("ksFrameParameter1f", {EnumArg(name, kCS_Query), FloatArg(value)});
    if (!call.Proceed())
        return;
    if (name != KS_FILTER_SIZE)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a float frame parameter",
                   static_cast<unsigned>(name));
    else if (!(value > 0.0f) || !std::isfinite(value))
        call.Raise(KS_INVALID_VALUE, "filter size %g is not above 0", static_cast<double>(value));
    else
        call.Ctx()._fFilterSize = value;
}

void ksFrameParameterfv(int name, const float* values)
{
    ApiCall call("ksFrameParameterfv", {EnumArg(name, kCS_Query), PtrArg(values)});
    if (!call.Proceed())
        return;
    Context& context = call.Ctx();
    if (name != KS_FILTER_TABLE)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a float array frame parameter",
                   static_cast<unsigned>(name));
    else if (!values)
        call.Raise(KS_INVALID_VALUE, "null filter table");
    else if (context._bFilterTableSizeRefused)
        call.Raise(KS_INVALID_OPERATION,
                   "the last filter table size was refused; the table of size %d stays",
                   context._nFilterTableSize);
    else
    {
        const std::size_t size = static_cast<std::size_t>(context._nFilterTableSize);
        context._filterTable.assign(values, values + size * size);
    }
}

void ksViewport(int x, int y, int width, int height)
{
    ApiCall call("ksViewport", {IntArg(x), IntArg(y), IntArg(width), IntArg(height)});
    if (!call.Proceed())
        return;
    if (width < 0 || height < 0)
    {
        call.Raise(KS_INVALID_VALUE, "negative size %d x %d", width, height);
        return;
    }
    call.Ctx()._bViewportSet = true;
    call.Ctx()._viewport = {x, y, width, height};
}

void ksClearColor(float red, float green, float blue, float alpha)
{
    ApiCall call("ksClearColor", {FloatArg(red), FloatArg(green), FloatArg(blue), FloatArg(alpha)});
    if (!call.Proceed())
        return;
    call.Ctx()._clearColor = {red, green, blue, alpha};
}
