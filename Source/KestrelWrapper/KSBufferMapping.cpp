#include "KestrelWrapper/KSBufferMapping.h"

#include <cstddef>
#include <cstring>
#include <memory>

namespace Vireo
{

namespace
{

const int kAccesses[] = {KS_READ_ONLY, KS_WRITE_ONLY, KS_READ_WRITE};

struct BindPointRow
{
    int nTarget;
    int nBindingQuery;
};

const BindPointRow kBindPoints[] = {
    {KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
    {KS_ELEMENT_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER_BINDING},
    {KS_PIXEL_PACK_BUFFER, KS_PIXEL_PACK_BUFFER_BINDING},
    {KS_PIXEL_UNPACK_BUFFER, KS_PIXEL_UNPACK_BUFFER_BINDING},
    {KS_UNIFORM_BLOCK_BUFFER, KS_UNIFORM_BLOCK_BUFFER_BINDING},
};

static_assert(sizeof(kAccesses) / sizeof(kAccesses[0]) == KSBufferMapping::kAccess_ReadWrite + 1,
              "one row per access");
static_assert(sizeof(kBindPoints) / sizeof(kBindPoints[0]) ==
                  KSBufferMapping::kBindPoint_UniformBlock + 1,
              "one row per bind point");

// A value outside the table reads its first row.
template <class Row, std::size_t N>
const Row& RowOf(const Row (&table)[N], int index)
{
    return index >= 0 && static_cast<std::size_t>(index) < N ? table[index] : table[0];
}

// A buffer of another context is refused by the bind, and the map then shows
// whatever this context has at pixel pack, of another size: copy only when
// the map is of the buffer itself.
bool MapsBuffer(const KSBufferMapping& mapping, IKSBuffer* buffer)
{
    if (mapping.GetMap() == nullptr)
        return false;
    _KSbuffer* bound = nullptr;
    ksGetBuffer(KS_PIXEL_PACK_BUFFER_BINDING, &bound);
    return bound == buffer->GetKSBuffer();
}

} // namespace

// --- KSBufferMapping -------------------------------------------------------------

KSBufferMapping::KSBufferMapping(IKSBuffer* buffer, Access access)
    : KSBufferMapping(buffer, access, kBindPoint_PixelPack)
{
}

KSBufferMapping::KSBufferMapping(IKSBuffer* buffer, Access access, BindPoint bindPoint)
    : _binding(BufferToKSEnum(bindPoint), BufferToMappingKSEnum(bindPoint), buffer->GetKSBuffer()),
      _pMap(ksMapBuffer(BufferToKSEnum(bindPoint), AccessToKSEnum(access))), _eBindPoint(bindPoint)
{
}

// The binding comes back after this body, when _binding ends: unmap first.
KSBufferMapping::~KSBufferMapping()
{
    ksUnmapBuffer(BufferToKSEnum(_eBindPoint));
}

KSBufferMapping& KSBufferMapping::operator=(const KSBufferMapping& other) = default;

void* KSBufferMapping::GetMap()
{
    return _pMap;
}

const void* KSBufferMapping::GetMap() const
{
    return _pMap;
}

int KSBufferMapping::AccessToKSEnum(Access access)
{
    return RowOf(kAccesses, access);
}

int KSBufferMapping::BufferToKSEnum(BindPoint bindPoint)
{
    return RowOf(kBindPoints, bindPoint).nTarget;
}

int KSBufferMapping::BufferToMappingKSEnum(BindPoint bindPoint)
{
    return RowOf(kBindPoints, bindPoint).nBindingQuery;
}

// --- KSBufferSafeMapping ---------------------------------------------------------
// Both copies go through pixel pack, read-only in and write-only out; the
// stored access changes none of it.

template <class T>
KSBufferSafeMapping<T>::KSBufferSafeMapping(IKSBuffer* buffer, KSBufferMapping::Access access)
    : _pBuffer(buffer), _pData(nullptr), _eAccess(access)
{
    KSBufferMapping mapping(buffer, KSBufferMapping::kAccess_ReadOnly,
                            KSBufferMapping::kBindPoint_PixelPack);
    if (!MapsBuffer(mapping, buffer))
        return;
    const std::size_t nCount = static_cast<std::size_t>(buffer->GetSize()) / sizeof(T);
    _pData = new T[nCount];
    std::memcpy(_pData, mapping.GetMap(), nCount * sizeof(T));
}

template <class T>
KSBufferSafeMapping<T>::~KSBufferSafeMapping()
{
    if (_pData == nullptr)
        return;
    std::unique_ptr<T[]> data(_pData);
    KSBufferMapping mapping(_pBuffer, KSBufferMapping::kAccess_WriteOnly,
                            KSBufferMapping::kBindPoint_PixelPack);
    if (MapsBuffer(mapping, _pBuffer))
        std::memcpy(mapping.GetMap(), data.get(),
                    static_cast<std::size_t>(_pBuffer->GetSize()) / sizeof(T) * sizeof(T));
}

template <class T>
KSBufferSafeMapping<T>&
KSBufferSafeMapping<T>::operator=(const KSBufferSafeMapping& other) = default;

template <class T>
T* KSBufferSafeMapping<T>::GetMap()
{
    return _pData;
}

template class KSBufferSafeMapping<char>;

// --- KSBufferMappingMultiple -----------------------------------------------------

KSBufferMappingMultiple::KSBufferMappingMultiple(const std::vector<IKSBuffer*>& buffers,
                                                 KSBufferMapping::Access access)
{
    init(buffers, access);
}

KSBufferMappingMultiple::~KSBufferMappingMultiple()
{
    for (KSBufferSafeMapping<char>* mapping : _mappings)
        delete mapping;
}

KSBufferMappingMultiple::KSBufferMappingMultiple(const KSBufferMappingMultiple& other) = default;

KSBufferMappingMultiple&
KSBufferMappingMultiple::operator=(const KSBufferMappingMultiple& other) = default;

void* KSBufferMappingMultiple::GetMap(int index)
{
    KSBufferSafeMapping<char>* mapping = _mappings[static_cast<std::size_t>(index)];
    return mapping != nullptr ? mapping->GetMap() : nullptr;
}

const void* KSBufferMappingMultiple::GetMap(int index) const
{
    return const_cast<KSBufferMappingMultiple*>(this)->GetMap(index);
}

// A copy that cannot be made ends the ones made before it, which writes them
// back, so that a throwing constructor leaves nothing behind.
void KSBufferMappingMultiple::init(const std::vector<IKSBuffer*>& buffers,
                                   KSBufferMapping::Access access)
{
    _mappings.reserve(buffers.size());
    try
    {
        for (IKSBuffer* buffer : buffers)
            _mappings.push_back(new KSBufferSafeMapping<char>(buffer, access));
    }
    catch (...)
    {
        for (KSBufferSafeMapping<char>* mapping : _mappings)
            delete mapping;
        _mappings.clear();
        throw;
    }
}

} // namespace Vireo
