#include "KestrelWrapper/IKSBuffer.h"

#include "CoreInterfaces/IMgrConsole.h"
#include "Foundation/AssertSite.h"
#include "KestrelWrapper/KSBufferMapping.h"
#include "KestrelWrapper/KestrelContextImp.h"
#include "KestrelWrapper/MgrKestrel.h"
#include "KestrelWrapper/ObjectFactory.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace Vireo
{

namespace
{

// The binding query of a buffer target, read from the mapping's table of
// bind points so that the pairs stand in one place.
int BindingQueryOf(int target)
{
    for (int n = KSBufferMapping::kBindPoint_Array; n <= KSBufferMapping::kBindPoint_UniformBlock;
         ++n)
    {
        const auto eBindPoint = static_cast<KSBufferMapping::BindPoint>(n);
        if (KSBufferMapping::BufferToKSEnum(eBindPoint) == target)
            return KSBufferMapping::BufferToMappingKSEnum(eBindPoint);
    }
    VIREO_ASSERT_SITE(false, "0 && \"Unsupported bind point\"", 28,
                      "Source/KestrelWrapper/IKSBuffer");
    return KS_ARRAY_BUFFER_BINDING;
}

} // namespace

// --- The context's pair ------------------------------------------------------

// A buffer has no second step: it counts even before the host's Init.
IKSBuffer* KestrelContextImp::CreateIKSBuffer()
{
    return Factory::MakeCounted(std::make_unique<KSBuffer>(this), _nBuffers);
}

bool KestrelContextImp::DestroyIKSBuffer(IKSBuffer* buffer)
{
    return Factory::DestroyCounted<KSBuffer>(buffer, _nBuffers);
}

// --- KSBuffer ------------------------------------------------------------------

KSBuffer::KSBuffer(IKestrelContext* context) : _pContext(context) {}

KSBuffer::~KSBuffer()
{
    _Release();
}

int KSBuffer::UsageToKSEnum(Usage usage)
{
    static const int kUsages[] = {
        KS_STATIC_DRAW, KS_DYNAMIC_DRAW, KS_STREAM_DRAW, //
        KS_STATIC_READ, KS_DYNAMIC_READ, KS_STREAM_READ, //
        KS_STATIC_COPY, KS_DYNAMIC_COPY, KS_STREAM_COPY,
    };
    static_assert(sizeof(kUsages) / sizeof(kUsages[0]) == kUsage_StreamCopy + 1,
                  "one entry per usage");
    // Outside the table there is nothing to read: 0 names no usage, and
    // Kestrel refuses it with an error that the host can see.
    if (usage < kUsage_StaticDraw || usage > kUsage_StreamCopy)
        return 0;
    return kUsages[usage];
}

bool KSBuffer::Init(Usage usage, std::uint64_t size)
{
    if (_pContext == nullptr || size == 0)
        return false;
    ksGenBuffers(1, &_handle);
    if (_handle == nullptr)
        return false;
    _Specify(usage, size, nullptr);
    _nSize = size;
    return true;
}

void KSBuffer::Shutdown()
{
    _Release();
}

bool KSBuffer::Resize(Usage usage, std::uint64_t size, bool keepContents)
{
    if (_pContext == nullptr || size == 0 || _handle == nullptr)
        return false;
    if (!keepContents || _nSize == 0)
    {
        _Specify(usage, size, nullptr);
        _nSize = size;
        return true;
    }

    // Old and new contents are held at once: the map is closed before the
    // new storage replaces it.
    std::unique_ptr<char[]> block(new (std::nothrow) char[size]);
    if (block == nullptr)
        return false;
    {
        KSBufferMapping mapping(this, KSBufferMapping::kAccess_ReadWrite,
                                KSBufferMapping::kBindPoint_Array);
        if (mapping.GetMap() == nullptr)
            return false;
        std::memcpy(block.get(), mapping.GetMap(), std::min(_nSize, size));
    }
    _Specify(usage, size, block.get());
    _nSize = size;
    return true;
}

std::uint64_t KSBuffer::GetSize()
{
    return _nSize;
}

_KSbuffer* const& KSBuffer::GetKSBuffer() const
{
    return _handle;
}

_KSbuffer*& KSBuffer::GetKSBuffer()
{
    return _handle;
}

bool KSBuffer::Bind(int target)
{
    ksBindBuffer(target, _handle);
    if (ksGetError() == 0)
        return true;
    // The name asked for is always the uniform block buffer's, whatever the
    // target was: that is the buffer a failed block binding is about.
    const char* name = nullptr;
    ksGetBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, KS_BUFFER_NAME, &name);
    IMgrConsole* console = _pContext != nullptr ? _pContext->GetConsole() : nullptr;
    if (console != nullptr)
        console->PrintError("KSBuffer::Bind \"%s\" %08x\n", name != nullptr ? name : "",
                            static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(_handle)));
    return false;
}

void KSBuffer::_Specify(Usage usage, std::uint64_t size, const void* data)
{
    Detail::AutoRestoreBufferBinding binding(KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING, _handle);
    ksBufferData(KS_ARRAY_BUFFER, size, data, UsageToKSEnum(usage));
}

// Kestrel deletes in its current context, which need not be this buffer's.
void KSBuffer::_Release()
{
    if (_handle != nullptr)
    {
        MgrKestrel::Instance()->SetCurrentKestrelContext(_pContext);
        ksDeleteBuffers(1, &_handle);
        _handle = nullptr;
    }
    _pContext = nullptr;
}

// --- Scoped bindings -------------------------------------------------------------

namespace Detail
{

AutoRestoreBufferBinding::AutoRestoreBufferBinding(int target, int bindingQuery) : _nTarget(target)
{
    ksGetBuffer(bindingQuery, &_saved);
}

AutoRestoreBufferBinding::AutoRestoreBufferBinding(int target, int bindingQuery, _KSbuffer* buffer)
    : AutoRestoreBufferBinding(target, bindingQuery)
{
    ksBindBuffer(target, buffer);
}

AutoRestoreBufferBinding::~AutoRestoreBufferBinding()
{
    ksBindBuffer(_nTarget, _saved);
}

} // namespace Detail

AutoBindKSBuffer::AutoBindKSBuffer(IKSBuffer* buffer, int target)
    : _binding(target, BindingQueryOf(target))
{
    buffer->Bind(target);
}

AutoBindKSBuffer::~AutoBindKSBuffer() = default;

AutoBindKSBuffer& AutoBindKSBuffer::operator=(const AutoBindKSBuffer& other) = default;

} // namespace Vireo
