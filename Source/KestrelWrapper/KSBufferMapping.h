/// \file
/// Scoped access to the bytes of buffers: a live map, a private copy that is
/// written back, and private copies of several buffers at once.
#ifndef VIREO_KESTRELWRAPPER_KSBUFFERMAPPING_H
#define VIREO_KESTRELWRAPPER_KSBUFFERMAPPING_H

#include "KestrelWrapper/IKSBuffer.h"
#include "VireoExport.h"

#include <vector>

namespace Vireo
{

/// Keeps the buffer bound and mapped at its bind point for its whole life, so
/// nothing else may be bound there meanwhile and two of them cannot share a
/// bind point.
class VIREO_EXPORT KSBufferMapping
{
public:
    /// Fixed types, so that any int a host casts in is a value (and falls back
    /// to the first row).
    enum Access : int
    {
        kAccess_ReadOnly = 0,
        kAccess_WriteOnly = 1,
        kAccess_ReadWrite = 2,
    };

    /// The target a buffer is bound at while it is mapped.
    enum BindPoint : int
    {
        kBindPoint_Array = 0,
        kBindPoint_ElementArray = 1,
        kBindPoint_PixelPack = 2,
        kBindPoint_PixelUnpack = 3,
        kBindPoint_UniformBlock = 4,
    };

    /// Maps at the pixel pack bind point.
    KSBufferMapping(IKSBuffer* buffer, Access access);
    /// Maps at `bindPoint`.
    KSBufferMapping(IKSBuffer* buffer, Access access, BindPoint bindPoint);
    /// Unmaps, also after a failed map, and rebinds what was bound before.
    ~KSBufferMapping();
    KSBufferMapping(const KSBufferMapping&) = delete;
    /// Member-wise: both then close the same map, so only one may be destroyed.
    KSBufferMapping& operator=(const KSBufferMapping& other);

    /// Kestrel's own memory, or null when the map failed.
    void* GetMap();
    /// Kestrel's own memory, or null when the map failed.
    const void* GetMap() const;

    /// Values outside a table give its first row.
    static int AccessToKSEnum(Access access);
    /// The Kestrel target of a bind point.
    static int BufferToKSEnum(BindPoint bindPoint);
    /// The Kestrel binding query of a bind point.
    static int BufferToMappingKSEnum(BindPoint bindPoint);

private:
    Detail::AutoRestoreBufferBinding _binding;
    void* _pMap;
    BindPoint _eBindPoint;
};

/// A private copy of a buffer's bytes, taken at construction and written back
/// whole at destruction, whatever the access says: a host's writes reach the
/// buffer only then, over anything written meanwhile. Nothing stays bound or
/// mapped in between, so any number may exist at once. The buffer must live,
/// and keep its size, until this ends. Exported for `char` only.
template <class T>
class VIREO_EXPORT KSBufferSafeMapping
{
public:
    /// Maps `buffer` with `access` for the lifetime of the object.
    KSBufferSafeMapping(IKSBuffer* buffer, KSBufferMapping::Access access);
    ~KSBufferSafeMapping();
    KSBufferSafeMapping(const KSBufferSafeMapping&) = delete;
    /// Member-wise: both then own the same copy, so only one may be destroyed.
    KSBufferSafeMapping& operator=(const KSBufferSafeMapping& other);

    /// Null when the buffer could not be mapped: then nothing is written back.
    T* GetMap();

private:
    IKSBuffer* _pBuffer;
    T* _pData;
    KSBufferMapping::Access _eAccess;
};

extern template class KSBufferSafeMapping<char>;

/// Private copies of several buffers, taken first to last and written back
/// first to last, so of a buffer listed twice the later copy wins.
class VIREO_EXPORT KSBufferMappingMultiple
{
public:
    /// Maps every buffer of `buffers` with `access`.
    KSBufferMappingMultiple(const std::vector<IKSBuffer*>& buffers, KSBufferMapping::Access access);
    ~KSBufferMappingMultiple();
    /// Member-wise: both then own the same copies, so only one may be
    /// destroyed.
    KSBufferMappingMultiple(const KSBufferMappingMultiple& other);
    /// Member-wise: both then own the same copies.
    KSBufferMappingMultiple& operator=(const KSBufferMappingMultiple& other);

    /// The copy of the buffer at `index` in the list given; no range test.
    void* GetMap(int index);
    /// The copy of the buffer at `index` in the list given; no range test.
    const void* GetMap(int index) const;

private:
    void init(const std::vector<IKSBuffer*>& buffers, KSBufferMapping::Access access);

    std::vector<KSBufferSafeMapping<char>*> _mappings;
};

} // namespace Vireo

#endif // VIREO_KESTRELWRAPPER_KSBUFFERMAPPING_H
