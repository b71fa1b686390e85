// A buffer of Kestrel behind the library's object model.
#ifndef VIREO_KESTRELWRAPPER_IKSBUFFER_H
#define VIREO_KESTRELWRAPPER_IKSBUFFER_H

#include "KestrelApi/Kestrel.h"
#include "VireoExport.h"

#include <cstdint>

namespace Vireo
{

class VIREO_EXPORT IKSBuffer
{
public:
    // Access first, frequency second; the frequency order is static, dynamic,
    // stream.
    enum Usage
    {
        kUsage_StaticDraw = 0,
        kUsage_DynamicDraw = 1,
        kUsage_StreamDraw = 2,
        kUsage_StaticRead = 3,
        kUsage_DynamicRead = 4,
        kUsage_StreamRead = 5,
        kUsage_StaticCopy = 6,
        kUsage_DynamicCopy = 7,
        kUsage_StreamCopy = 8,
    };

    IKSBuffer() = default;
    IKSBuffer(const IKSBuffer&) = default;
    IKSBuffer& operator=(const IKSBuffer&) = default;

    virtual bool Init(Usage usage, std::uint64_t size) = 0;
    virtual void Shutdown() = 0;
    virtual bool Resize(Usage usage, std::uint64_t size, bool keepContents) = 0;
    virtual std::uint64_t GetSize() = 0;
    virtual _KSbuffer* const& GetKSBuffer() const = 0;
    virtual _KSbuffer*& GetKSBuffer() = 0;
    virtual bool Bind(int target) = 0;

protected:
    // Not virtual: buffers go back through IKestrelContext::DestroyIKSBuffer,
    // which knows the concrete class.
    ~IKSBuffer() = default;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_IKSBUFFER_H
