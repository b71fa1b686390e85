#include "Scene.h"

#include "Context.h"
#include "Instrumentation.h"
#include "Pixels.h"
#include "Sampling.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace Kestrel
{

namespace
{

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// One device for the process: making one is costly and it holds nothing
// of a context. It lives as long as the process.
RTCDevice SharedDevice()
{
    static const RTCDevice device = rtcNewDevice(nullptr);
    return device;
}

bool IsShape(BuiltIn builtIn)
{
    return builtIn == kBI_Sphere || builtIn == kBI_Box || builtIn == kBI_Plane ||
           builtIn == kBI_Triangles || builtIn == kBI_Mesh;
}

bool IsMaterial(BuiltIn builtIn)
{
    return builtIn == kBI_Diffuse || builtIn == kBI_DiffuseTexture || builtIn == kBI_Emissive ||
           builtIn == kBI_Mirror || builtIn == kBI_Glass || builtIn == kBI_MetallicRoughness;
}

// The first statement that `pick` accepts, or null.
template <class Pick>
const Statement* FindStatement(const LinkedProgram& program, Pick pick)
{
    for (const Statement& statement : program._statements)
        if (pick(statement._eBuiltIn))
            return &statement;
    return nullptr;
}

const ProgramObject* LinkedProgramOf(const Context& context, const PrimitiveObject& primitive)
{
    const ProgramObject* program = context._programs.Find(primitive._nProgram);
    return program && program->_bLinked ? program : nullptr;
}

// Reads the arguments of a primitive's statements: the primitive's own
// value when it set one of the declared type, else the declaration's
// default, else zeroes.
class ArgumentReader
{
public:
    ArgumentReader(const PrimitiveObject& primitive, const LinkedProgram& program)
        : _primitive(primitive), _program(program)
    {
    }

    const UniformValue* Value(const Argument& argument) const
    {
        if (argument._eKind == Argument::kAK_Literal)
            return &argument._literal;
        if (argument._eKind != Argument::kAK_Uniform || argument._nIndex < 0 ||
            static_cast<std::size_t>(argument._nIndex) >= _program._uniforms.size())
            return nullptr;
        const LinkedProgram::Uniform& declared =
            _program._uniforms[static_cast<std::size_t>(argument._nIndex)];
        auto it = _primitive._uniforms.find(argument._nIndex);
        // A value set before the program was linked may have another type;
        // it is not this declaration's value.
        if (it != _primitive._uniforms.end() && it->second._eType == declared._eType &&
            it->second._nCount >= 1)
            return &it->second;
        return declared._bHasDefault ? &declared._default : nullptr;
    }

    float Component(const Argument& argument, std::size_t i) const
    {
        const UniformValue* value = Value(argument);
        if (!value)
            return 0.0f;
        if (i < value->_floats.size())
            return value->_floats[i];
        if (i < value->_ints.size())
            return static_cast<float>(value->_ints[i]);
        return 0.0f;
    }

    float Float(const Statement& statement, std::size_t index) const
    {
        return index < statement._arguments.size() ? Component(statement._arguments[index], 0)
                                                   : 0.0f;
    }

    Vec3 Vector(const Statement& statement, std::size_t index) const
    {
        if (index >= statement._arguments.size())
            return {};
        const Argument& argument = statement._arguments[index];
        return {Component(argument, 0), Component(argument, 1), Component(argument, 2)};
    }

    int Int(const Statement& statement, std::size_t index) const
    {
        if (index >= statement._arguments.size())
            return 0;
        const UniformValue* value = Value(statement._arguments[index]);
        if (!value)
            return 0;
        if (!value->_ints.empty())
            return value->_ints[0];
        if (!value->_floats.empty() && std::isfinite(value->_floats[0]))
            return static_cast<int>(std::clamp(value->_floats[0], -1e9f, 1e9f));
        return 0;
    }

    // A mat4 with no value is all zeroes, which places nothing anywhere.
    Affine Matrix(const Statement& statement, std::size_t index) const
    {
        float values[16] = {};
        if (index < statement._arguments.size())
            if (const UniformValue* value = Value(statement._arguments[index]))
                for (std::size_t i = 0; i < 16 && i < value->_floats.size(); ++i)
                    values[i] = value->_floats[i];
        return Affine::FromColumnMajor(values);
    }

    Id Handle(const Statement& statement, std::size_t index) const
    {
        if (index >= statement._arguments.size())
            return 0;
        const UniformValue* value = Value(statement._arguments[index]);
        return value && !value->_handles.empty() ? value->_handles[0] : 0;
    }

    // The buffer bound to the block that the argument names; 0 for none.
    Id Block(const Statement& statement, std::size_t index) const
    {
        if (index >= statement._arguments.size() ||
            statement._arguments[index]._eKind != Argument::kAK_Block)
            return 0;
        auto it = _primitive._blocks.find(statement._arguments[index]._nIndex);
        return it == _primitive._blocks.end() ? 0 : it->second;
    }

private:
    const PrimitiveObject& _primitive;
    const LinkedProgram& _program;
};

// The primitives that make the scene, in the order of their numbers so
// that a scene's layout never depends on a hash table.
std::vector<const PrimitiveObject*> ScenePrimitives(const Context& context)
{
    std::vector<const PrimitiveObject*> primitives;
    context._primitives.ForEach(
        [&](const PrimitiveObject& primitive)
        {
            if (const ProgramObject* program = LinkedProgramOf(context, primitive))
                if (FindStatement(program->_linked, IsShape))
                    primitives.push_back(&primitive);
        });
    std::sort(primitives.begin(), primitives.end(),
              [](const PrimitiveObject* a, const PrimitiveObject* b) { return a->_nId < b->_nId; });
    return primitives;
}

// Everything a scene is built from, by identity and revision: two equal
// keys mean the same scene.
std::vector<std::uint64_t> SceneKey(const Context& context)
{
    constexpr std::uint64_t kMissing = ~std::uint64_t(0);
    std::vector<std::uint64_t> key;
    for (const PrimitiveObject* primitive : ScenePrimitives(context))
    {
        const ProgramObject* program = LinkedProgramOf(context, *primitive);
        key.insert(key.end(),
                   {primitive->_nId, primitive->_nRevision, program->_nId, program->_nRevision});
        const ArgumentReader reader(*primitive, program->_linked);
        for (const Statement& statement : program->_linked._statements)
        {
            if (statement._eBuiltIn == kBI_Triangles || statement._eBuiltIn == kBI_Mesh)
            {
                const Id id = reader.Block(statement, 0);
                const BufferObject* buffer = context._buffers.Find(id);
                key.insert(key.end(), {id, buffer ? buffer->_nRevision : kMissing});
            }
            else if (statement._eBuiltIn == kBI_DiffuseTexture ||
                     statement._eBuiltIn == kBI_MetallicRoughness)
            {
                const std::size_t first = statement._eBuiltIn == kBI_DiffuseTexture ? 0 : 4;
                for (std::size_t i = first; i < statement._arguments.size(); ++i)
                {
                    const Id id = reader.Handle(statement, i);
                    const TextureObject* texture = context._textures.Find(id);
                    key.insert(key.end(), {id, texture ? texture->_nRevision : kMissing});
                }
            }
        }
    }
    return key;
}

Vec3 Finite(const Vec3& v)
{
    return IsFinite(v) ? v : Vec3();
}

// Roots of the ray against a sphere, in the sphere's own space; the ray
// parameter is the same in both spaces. Written after the closest approach,
// which keeps its precision for spheres far from the ray's origin.
bool SphereRoots(const Scene::Sphere& sphere, const Vec3& origin, const Vec3& direction,
                 float* near, float* far)
{
    const Vec3 o = sphere._bPlaced ? sphere._toObject.Point(origin) : origin;
    const Vec3 d = sphere._bPlaced ? sphere._toObject.Vector(direction) : direction;
    const Vec3 f = o - sphere._centre;
    const float a = Dot(d, d);
    if (!(a > 0.0f))
        return false;
    const float b = -Dot(f, d);
    const Vec3 closest = f + d * (b / a);
    const float r2 = sphere._fRadius * sphere._fRadius;
    const float discriminant = r2 - Dot(closest, closest);
    if (discriminant < 0.0f)
        return false;
    const float q = b + std::copysign(std::sqrt(a * discriminant), b);
    if (q == 0.0f)
        return false;
    const float t0 = (Dot(f, f) - r2) / q;
    const float t1 = q / a;
    *near = std::min(t0, t1);
    *far = std::max(t0, t1);
    return true;
}

void SphereBounds(const RTCBoundsFunctionArguments* args)
{
    const auto* sphere = static_cast<const Scene::Sphere*>(args->geometryUserPtr);
    Vec3 lower(kInfinity);
    Vec3 upper(-kInfinity);
    for (int corner = 0; corner < 8; ++corner)
    {
        const float r = sphere->_fRadius;
        const Vec3 offset((corner & 1) ? r : -r, (corner & 2) ? r : -r, (corner & 4) ? r : -r);
        const Vec3 p = sphere->_toWorld.Point(sphere->_centre + offset);
        lower = Min(lower, p);
        upper = Max(upper, p);
    }
    args->bounds_o->lower_x = lower.x;
    args->bounds_o->lower_y = lower.y;
    args->bounds_o->lower_z = lower.z;
    args->bounds_o->upper_x = upper.x;
    args->bounds_o->upper_y = upper.y;
    args->bounds_o->upper_z = upper.z;
}

// The sphere's nearest root inside the ray's interval, if any.
bool SphereHit(const Scene::Sphere& sphere, RTCRayN* ray, unsigned n, unsigned i, float* t)
{
    const Vec3 origin(RTCRayN_org_x(ray, n, i), RTCRayN_org_y(ray, n, i), RTCRayN_org_z(ray, n, i));
    const Vec3 direction(RTCRayN_dir_x(ray, n, i), RTCRayN_dir_y(ray, n, i),
                         RTCRayN_dir_z(ray, n, i));
    const float tnear = RTCRayN_tnear(ray, n, i);
    const float tfar = RTCRayN_tfar(ray, n, i);
    float near = 0.0f, far = 0.0f;
    if (!SphereRoots(sphere, origin, direction, &near, &far))
        return false;
    *t = near > tnear ? near : far;
    return *t > tnear && *t < tfar;
}

void SphereIntersect(const RTCIntersectFunctionNArguments* args)
{
    const auto* sphere = static_cast<const Scene::Sphere*>(args->geometryUserPtr);
    RTCRayN* ray = RTCRayHitN_RayN(args->rayhit, args->N);
    RTCHitN* hit = RTCRayHitN_HitN(args->rayhit, args->N);
    for (unsigned i = 0; i < args->N; ++i)
    {
        float t = 0.0f;
        if (args->valid[i] == 0 || !SphereHit(*sphere, ray, args->N, i, &t))
            continue;
        RTCRayN_tfar(ray, args->N, i) = t;
        // The normal is worked out again when the hit is finished; this one
        // only has to be a valid vector.
        RTCHitN_Ng_x(hit, args->N, i) = 0.0f;
        RTCHitN_Ng_y(hit, args->N, i) = 0.0f;
        RTCHitN_Ng_z(hit, args->N, i) = 1.0f;
        RTCHitN_u(hit, args->N, i) = 0.0f;
        RTCHitN_v(hit, args->N, i) = 0.0f;
        RTCHitN_primID(hit, args->N, i) = args->primID;
        RTCHitN_geomID(hit, args->N, i) = args->geomID;
        RTCHitN_instID(hit, args->N, i, 0) = args->context->instID[0];
    }
}

void SphereOccluded(const RTCOccludedFunctionNArguments* args)
{
    const auto* sphere = static_cast<const Scene::Sphere*>(args->geometryUserPtr);
    for (unsigned i = 0; i < args->N; ++i)
    {
        float t = 0.0f;
        if (args->valid[i] != 0 && SphereHit(*sphere, args->ray, args->N, i, &t))
            RTCRayN_tfar(args->ray, args->N, i) = -kInfinity;
    }
}

// The wrap of a texture coordinate, before it is scaled to texels: the
// texel arithmetic then never leaves int, however far the coordinate is.
float WrapCoordinate(float u, int mode)
{
    switch (mode)
    {
    case KS_CLAMP_TO_EDGE:
        return std::clamp(u, 0.0f, 1.0f);
    case KS_MIRRORED_REPEAT:
        return u - 2.0f * std::floor(0.5f * u);
    default:
        return u - std::floor(u);
    }
}

int WrapTexel(int i, int size, int mode)
{
    switch (mode)
    {
    case KS_CLAMP_TO_EDGE:
        return std::clamp(i, 0, size - 1);
    case KS_MIRRORED_REPEAT:
    {
        const int period = 2 * size;
        const int m = ((i % period) + period) % period;
        return m < size ? m : period - 1 - m;
    }
    default:
        return ((i % size) + size) % size;
    }
}

// The sampler of a material's texture: no image unless the id names a live
// texture with pixels.
TextureSampler SamplerOf(const Context& context, Id id)
{
    TextureSampler sampler;
    const TextureObject* texture = context._textures.Find(id);
    if (texture && texture->_pImage && texture->_pImage->Bytes() != 0)
    {
        sampler._pImage = texture->_pImage;
        sampler._eWrapS = texture->_eWrapS;
        sampler._eWrapT = texture->_eWrapT;
        sampler._bNearest = texture->_eMagFilter == KS_NEAREST;
    }
    return sampler;
}

// Negative and NaN components as 0: a surface neither takes light away
// nor spoils a picture.
Vec3 NonNegative(const Vec3& v)
{
    auto clean = [](float x)
    { return x > 0.0f ? std::min(x, std::numeric_limits<float>::max()) : 0.0f; };
    return {clean(v.x), clean(v.y), clean(v.z)};
}

// A map's texel, or 1 where there is no map.
Vec3 MapOr1(const TextureSampler& map, float u, float v)
{
    return map._pImage ? map.Sample(u, v) : Vec3(1.0f);
}

} // namespace

// ---------------------------------------------------------------------------
// TextureSampler

Vec3 TextureSampler::Sample(float u, float v) const
{
    if (!_pImage || !std::isfinite(u) || !std::isfinite(v))
        return {};
    const TextureImage& image = *_pImage;
    const int width = image._nWidth;
    const int height = image._nHeight;
    const unsigned char* data = image.Data();
    const std::size_t pixelBytes = PixelBytes(image._eFormat, image._eType);
    if (!data || width <= 0 || height <= 0 || pixelBytes == 0)
        return {};
    auto texel = [&](int x, int y)
    {
        x = WrapTexel(x, width, _eWrapS);
        y = WrapTexel(y, height, _eWrapT);
        float rgba[4];
        DecodePixel(image._eFormat, image._eType,
                    data + (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                            static_cast<std::size_t>(x)) *
                               pixelBytes,
                    rgba);
        return Vec3(rgba[0], rgba[1], rgba[2]);
    };
    const float x = WrapCoordinate(u, _eWrapS) * static_cast<float>(width);
    const float y = WrapCoordinate(v, _eWrapT) * static_cast<float>(height);
    if (_bNearest)
        return texel(static_cast<int>(std::floor(x)), static_cast<int>(std::floor(y)));
    const float fx = x - 0.5f;
    const float fy = y - 0.5f;
    const float x0 = std::floor(fx);
    const float y0 = std::floor(fy);
    const float ax = fx - x0;
    const float ay = fy - y0;
    const int ix = static_cast<int>(x0);
    const int iy = static_cast<int>(y0);
    return (texel(ix, iy) * (1.0f - ax) + texel(ix + 1, iy) * ax) * (1.0f - ay) +
           (texel(ix, iy + 1) * (1.0f - ax) + texel(ix + 1, iy + 1) * ax) * ay;
}

// ---------------------------------------------------------------------------
// Scene

Scene::Scene() = default;

Scene::~Scene()
{
    if (_pScene)
        rtcReleaseScene(_pScene);
}

bool Scene::Intersect(const Vec3& origin, const Vec3& direction, float maxDistance,
                      SurfaceHit* hit) const
{
    RTCRayHit query;
    query.ray.org_x = origin.x;
    query.ray.org_y = origin.y;
    query.ray.org_z = origin.z;
    query.ray.tnear = 0.0f;
    query.ray.dir_x = direction.x;
    query.ray.dir_y = direction.y;
    query.ray.dir_z = direction.z;
    query.ray.time = 0.0f;
    query.ray.tfar = maxDistance;
    query.ray.mask = ~0u;
    query.ray.id = 0;
    query.ray.flags = 0;
    query.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    query.hit.primID = RTC_INVALID_GEOMETRY_ID;
    query.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcIntersect1(_pScene, &context, &query);

    int shape = -1;
    float nearest = maxDistance;
    if (query.hit.geomID != RTC_INVALID_GEOMETRY_ID)
    {
        // A hit inside an instance names the instance's geometry id.
        shape =
            static_cast<int>(query.hit.instID[0] != RTC_INVALID_GEOMETRY_ID ? query.hit.instID[0]
                                                                            : query.hit.geomID);
        nearest = query.ray.tfar;
    }
    // Planes are unbounded, which a hierarchy of boxes cannot hold; there
    // are few of them, so each ray tries them all.
    for (std::size_t i = 0; i < _planes.size(); ++i)
    {
        const Plane& plane = _planes[i];
        const float denominator = Dot(direction, plane._normal);
        if (denominator == 0.0f)
            continue;
        const float t = Dot(plane._point - origin, plane._normal) / denominator;
        if (t > 0.0f && t < nearest)
        {
            nearest = t;
            shape = _planeShapes[i];
        }
    }
    if (shape < 0)
        return false;
    hit->_nShape = shape;
    hit->_fDistance = nearest;
    hit->_fU = query.hit.u;
    hit->_fV = query.hit.v;
    const unsigned primitive = query.hit.primID;
    const Shape& found = _shapes[static_cast<std::size_t>(shape)];
    const Vec3 p = origin + direction * nearest;
    hit->_position = p;
    switch (found._eKind)
    {
    case kSK_Sphere:
    {
        const Sphere& sphere = _spheres[static_cast<std::size_t>(found._nIndex)];
        const Vec3 local = (sphere._toObject.Point(p) - sphere._centre) / sphere._fRadius;
        hit->_normal = Normalize(sphere._toObject.TransposedVector(local));
        hit->_fU = 0.5f + std::atan2(-local.z, local.x) / (2.0f * kPi);
        hit->_fV = 0.5f + std::asin(std::clamp(local.y, -1.0f, 1.0f)) / kPi;
        break;
    }
    case kSK_Mesh:
    {
        const Mesh& mesh = _meshes[static_cast<std::size_t>(found._nIndex)];
        const std::size_t first = static_cast<std::size_t>(primitive) * 3;
        const Vec3& p0 = mesh._positions[first];
        hit->_normal =
            Normalize(Cross(mesh._positions[first + 1] - p0, mesh._positions[first + 2] - p0));
        if (!mesh._uvs.empty())
        {
            const float b1 = query.hit.u, b2 = query.hit.v, b0 = 1.0f - b1 - b2;
            const float* uv = &mesh._uvs[first * 2];
            hit->_fU = b0 * uv[0] + b1 * uv[2] + b2 * uv[4];
            hit->_fV = b0 * uv[1] + b1 * uv[3] + b2 * uv[5];
        }
        break;
    }
    case kSK_Plane:
    {
        const Plane& plane = _planes[static_cast<std::size_t>(found._nIndex)];
        const Vec3 relative = p - plane._point;
        hit->_normal = plane._normal;
        hit->_fU = Dot(relative, plane._tangent);
        hit->_fV = Dot(relative, plane._bitangent);
        break;
    }
    case kSK_Instance:
        _HitInstance(found, primitive, query.hit.u, query.hit.v, hit);
        break;
    }
    if (!(Dot(hit->_normal, hit->_normal) > 0.0f) || !IsFinite(hit->_normal))
        hit->_normal = -direction;
    if (found._eKind != kSK_Instance || !(Dot(hit->_shading, hit->_shading) > 0.0f) ||
        !IsFinite(hit->_shading))
        hit->_shading = hit->_normal;
    return true;
}

void Scene::_HitInstance(const Shape& shape, unsigned primitive, float u, float v,
                         SurfaceHit* hit) const
{
    const Instance& instance = _instances[static_cast<std::size_t>(shape._nIndex)];
    const IndexedMesh& mesh = *_indexedMeshes[static_cast<std::size_t>(instance._nMesh)];
    std::uint32_t corners[3];
    mesh.Corners(mesh.Triangle(primitive), corners);
    float vertices[3][8];
    // The indices were checked at the build, but a host may write into a
    // mapped buffer while a frame still reads it: never read past it.
    for (int k = 0; k < 3; ++k)
        mesh.Vertex(std::min(corners[k], mesh._nVertices - 1), vertices[k]);
    auto position = [&](int k) { return Vec3(vertices[k][0], vertices[k][1], vertices[k][2]); };
    auto normal = [&](int k) { return Vec3(vertices[k][3], vertices[k][4], vertices[k][5]); };
    const Vec3 p0 = position(0);
    // Normals go to the world by the inverse transposed, which keeps the
    // winding's side outward under a mirroring placement too.
    hit->_normal =
        Normalize(instance._toObject.TransposedVector(Cross(position(1) - p0, position(2) - p0)));
    const float b1 = u, b2 = v, b0 = 1.0f - b1 - b2;
    const Vec3 n0 = normal(0), n1 = normal(1), n2 = normal(2);
    // A corner without a normal leaves the triangle flat.
    if (Dot(n0, n0) > 0.0f && Dot(n1, n1) > 0.0f && Dot(n2, n2) > 0.0f)
        hit->_shading = Normalize(instance._toObject.TransposedVector(n0 * b0 + n1 * b1 + n2 * b2));
    hit->_fU = b0 * vertices[0][6] + b1 * vertices[1][6] + b2 * vertices[2][6];
    hit->_fV = b0 * vertices[0][7] + b1 * vertices[1][7] + b2 * vertices[2][7];
}

Scene::IndexedMesh::~IndexedMesh()
{
    if (_pScene)
        rtcReleaseScene(_pScene);
}

void Scene::IndexedMesh::Corners(std::uint32_t triangle, std::uint32_t indices[3]) const
{
    std::memcpy(indices,
                _pStorage.get() + std::size_t(_nVertices) * 8 * sizeof(float) +
                    std::size_t(triangle) * 3 * sizeof(std::uint32_t),
                3 * sizeof(std::uint32_t));
}

void Scene::IndexedMesh::Vertex(std::uint32_t index, float values[8]) const
{
    std::memcpy(values, _pStorage.get() + std::size_t(index) * 8 * sizeof(float),
                8 * sizeof(float));
}

bool Scene::Occluded(const Vec3& origin, const Vec3& direction, float maxDistance) const
{
    for (const Plane& plane : _planes)
    {
        const float denominator = Dot(direction, plane._normal);
        if (denominator == 0.0f)
            continue;
        const float t = Dot(plane._point - origin, plane._normal) / denominator;
        if (t > 0.0f && t < maxDistance)
            return true;
    }
    RTCRay query;
    query.org_x = origin.x;
    query.org_y = origin.y;
    query.org_z = origin.z;
    query.tnear = 0.0f;
    query.dir_x = direction.x;
    query.dir_y = direction.y;
    query.dir_z = direction.z;
    query.time = 0.0f;
    query.tfar = maxDistance;
    query.mask = ~0u;
    query.id = 0;
    query.flags = 0;
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcOccluded1(_pScene, &context, &query);
    return query.tfar < 0.0f;
}

const Material& Scene::MaterialOf(const SurfaceHit& hit) const
{
    return _materials[static_cast<std::size_t>(
        _shapes[static_cast<std::size_t>(hit._nShape)]._nMaterial)];
}

Vec3 Scene::AlbedoAt(const Material& material, const SurfaceHit& hit) const
{
    if (material._eKind == kMK_MetallicRoughness)
        return LayersAt(material, hit)._base;
    return material._bTextured ? material._texture.Sample(hit._fU, hit._fV) : material._color;
}

SurfaceLayers Scene::LayersAt(const Material& material, const SurfaceHit& hit) const
{
    SurfaceLayers layers;
    // A base colour above 1 would make light.
    layers._base =
        Min(NonNegative(material._color * MapOr1(material._texture, hit._fU, hit._fV)), Vec3(1.0f));
    // Roughness in green, metal in blue, as the usual packed maps have them.
    const Vec3 packed = MapOr1(material._metallicRoughnessMap, hit._fU, hit._fV);
    layers._fMetallic = std::clamp(material._fMetallic * packed.z, 0.0f, 1.0f);
    layers._fRoughness = std::clamp(material._fRoughness * packed.y, 0.0f, 1.0f);
    if (!std::isfinite(layers._fMetallic))
        layers._fMetallic = 0.0f;
    if (!std::isfinite(layers._fRoughness))
        layers._fRoughness = 1.0f;
    return layers;
}

Vec3 Scene::EmissionAt(const Material& material, const SurfaceHit& hit, const Vec3& direction) const
{
    if (material._eKind == kMK_Emissive)
        return material._color;
    if (material._eKind != kMK_MetallicRoughness || !(Dot(direction, hit._normal) < 0.0f) ||
        !(MaxComponent(material._emission) > 0.0f))
        return {};
    return NonNegative(material._emission * MapOr1(material._emissionMap, hit._fU, hit._fV));
}

bool Scene::IsSampledEmitter(int shape) const
{
    return _shapes[static_cast<std::size_t>(shape)]._bSampledEmitter;
}

const Scene::Light* Scene::_LightOf(int shape) const
{
    if (shape < 0 || static_cast<std::size_t>(shape) >= _lightOfShape.size())
        return nullptr;
    const int light = _lightOfShape[static_cast<std::size_t>(shape)];
    return light < 0 ? nullptr : &_lights[static_cast<std::size_t>(light)];
}

float Scene::_ConePdf(const Vec3& point, const Vec3& centre, float radius)
{
    const Vec3 toCentre = centre - point;
    const float d2 = Dot(toCentre, toCentre);
    const float r2 = radius * radius;
    if (d2 <= r2)
        return 1.0f / (4.0f * kPi);
    const float sin2 = r2 / d2;
    const float oneMinusCos = sin2 / (1.0f + std::sqrt(std::max(0.0f, 1.0f - sin2)));
    return oneMinusCos > 0.0f ? 1.0f / (2.0f * kPi * oneMinusCos) : 0.0f;
}

float Scene::LightPdf(const Vec3& point, const Vec3& direction, const SurfaceHit& hit) const
{
    const Light* light = _LightOf(hit._nShape);
    if (!light)
        return 0.0f;
    const float choice = 1.0f / static_cast<float>(_lights.size());
    switch (light->_eKind)
    {
    case kLK_Sphere:
    case kLK_Stretched:
        return choice * _ConePdf(point, light->_centre, light->_fRadius);
    case kLK_Triangles:
    {
        const float cosine = std::fabs(Dot(hit._normal, direction));
        if (cosine < 1e-6f)
            return 0.0f;
        return choice * hit._fDistance * hit._fDistance / (cosine * light->_fArea);
    }
    default: // planes
        return choice * std::fabs(Dot(hit._normal, direction)) / kPi;
    }
}

bool Scene::SampleLight(const Vec3& point, float u0, float u1, float u2, float u3,
                        LightSample* sample) const
{
    if (_lights.empty())
        return false;
    const std::size_t count = _lights.size();
    const std::size_t chosen =
        std::min(static_cast<std::size_t>(u0 * static_cast<float>(count)), count - 1);
    const Light& light = _lights[chosen];
    const float choice = 1.0f / static_cast<float>(count);
    sample->_radiance = light._radiance;
    switch (light._eKind)
    {
    case kLK_Sphere:
    case kLK_Stretched:
    {
        const Vec3 toCentre = light._centre - point;
        const float d2 = Dot(toCentre, toCentre);
        const float r2 = light._fRadius * light._fRadius;
        const bool inside = d2 <= r2;
        if (inside)
            // From inside, every direction meets the sphere.
            sample->_direction = UniformSphere(u1, u2);
        else
        {
            const float sin2 = r2 / d2;
            const float oneMinusCos = sin2 / (1.0f + std::sqrt(std::max(0.0f, 1.0f - sin2)));
            if (!(oneMinusCos > 0.0f))
                return false;
            Vec3 t, b;
            const Vec3 axis = toCentre / std::sqrt(d2);
            OrthonormalBasis(axis, &t, &b);
            const Vec3 local = UniformCone(u1, u2, oneMinusCos);
            sample->_direction = Normalize(t * local.x + b * local.y + axis * local.z);
        }
        sample->_fPdf = choice * _ConePdf(point, light._centre, light._fRadius);
        float near = 0.0f, far = 0.0f;
        if (light._eKind == kLK_Stretched)
        {
            // Directions towards the bounding sphere that miss the shape
            // within it bring nothing.
            const Sphere& shape = _spheres[static_cast<std::size_t>(light._nIndex)];
            if (!SphereRoots(shape, point, sample->_direction, &near, &far) || !(far > 0.0f))
                return false;
            sample->_fDistance = near > 0.0f ? near : far;
            if (light._bOneSided && near <= 0.0f)
                return false; // the inside of a surface that emits outwards
            return true;
        }
        Sphere sphere;
        sphere._centre = light._centre;
        sphere._fRadius = light._fRadius;
        if (inside)
        {
            if (light._bOneSided || !SphereRoots(sphere, point, sample->_direction, &near, &far))
                return false;
            sample->_fDistance = far;
            return far > 0.0f;
        }
        // Directions at the cone's rim may just miss in float; they graze
        // the sphere at the point of closest approach.
        sample->_fDistance =
            SphereRoots(sphere, point, sample->_direction, &near, &far) && near > 0.0f
                ? near
                : Dot(toCentre, sample->_direction);
        return sample->_fDistance > 0.0f;
    }
    case kLK_Plane:
    {
        const Plane& plane = _planes[static_cast<std::size_t>(light._nIndex)];
        const float height = Dot(point - plane._point, plane._normal);
        if (height == 0.0f || (light._bOneSided && height < 0.0f))
            return false;
        // Seen from off it, the plane fills the half of all directions on
        // its side: drawn by their cosine towards it.
        const Vec3 towards = height > 0.0f ? -plane._normal : plane._normal;
        Vec3 t, b;
        OrthonormalBasis(towards, &t, &b);
        const Vec3 local = CosineHemisphere(u1, u2);
        if (local.z < 1e-6f)
            return false;
        sample->_direction = Normalize(t * local.x + b * local.y + towards * local.z);
        sample->_fDistance = std::fabs(height) / local.z;
        sample->_fPdf = choice * local.z / kPi;
        return std::isfinite(sample->_fDistance);
    }
    default:
        break;
    }
    const std::size_t index = SearchCumulative(light._cumulativeArea, u1);
    const LightTriangle& triangle = _lightTriangles[light._nFirstTriangle + index];
    const float s = std::sqrt(u2);
    const float b0 = 1.0f - s;
    const float b1 = u3 * s;
    const Vec3 target = triangle._p0 * b0 + triangle._p1 * b1 + triangle._p2 * (1.0f - b0 - b1);
    const Vec3 offset = target - point;
    const float distance = Length(offset);
    if (!(distance > 0.0f))
        return false;
    sample->_direction = offset / distance;
    sample->_fDistance = distance;
    const float facing = Dot(triangle._normal, sample->_direction);
    // Emitters shine from both sides, metallic-roughness ones from the front.
    if (light._bOneSided && facing >= 0.0f)
        return false;
    const float cosine = std::fabs(facing);
    if (cosine < 1e-6f)
        return false;
    sample->_fPdf = choice * distance * distance / (cosine * light._fArea);
    return true;
}

// ---------------------------------------------------------------------------
// Building

class SceneBuilder
{
public:
    // `previous` lends the indexed meshes that did not change.
    SceneBuilder(const Context& context, const Scene* previous)
        : _context(context), _pPrevious(previous)
    {
    }

    std::shared_ptr<Scene> Build(std::string* error);

private:
    void _AddPrimitive(const PrimitiveObject& primitive, const LinkedProgram& program);
    Material _Material(const ArgumentReader& reader, const Statement* statement) const;
    void _AddSphere(const ArgumentReader& reader, const Statement& statement,
                    const Affine& placement, bool transformed, int material);
    void _AddBox(const ArgumentReader& reader, const Statement& statement, const Affine& placement,
                 int material);
    void _AddPlane(const ArgumentReader& reader, const Statement& statement,
                   const Affine& placement, int material);
    void _AddTriangles(const ArgumentReader& reader, const Statement& statement,
                       const Affine& placement, int material);
    void _AddMesh(Scene::Mesh mesh, const Affine& placement, int material);
    void _AddIndexedMesh(const ArgumentReader& reader, const Statement& statement,
                         const Affine& placement, int material);
    int _IndexedMesh(const BufferObject& buffer, std::uint32_t vertices, std::uint32_t triangles);
    // Appends `item` to its kind's list and a shape that names it.
    template <typename T>
    void _Place(Scene::ShapeKind kind, std::vector<T>* items, T item, int material)
    {
        Scene::Shape shape;
        shape._eKind = kind;
        shape._nIndex = static_cast<int>(items->size());
        shape._nMaterial = material;
        items->push_back(std::move(item));
        _pScene->_shapes.push_back(shape);
    }
    void _AddLights();
    void _AddLightTriangles(const Scene::Shape& shape, Scene::Light* light);
    bool _CommitIndexedMesh(RTCDevice device, Scene::IndexedMesh& mesh);
    bool _Commit(std::string* error);
    // A stop of the frame ends the build between two of its steps, so that
    // a large scene does not hold the frame up.
    bool _Stopped() const { return _context._bStopRequested.load(std::memory_order_acquire); }
    // The kernels' progress monitor: they build on while it gives true.
    static bool _GoOn(void* builder, double)
    {
        return !static_cast<const SceneBuilder*>(builder)->_Stopped();
    }

    const Context& _context;
    const Scene* _pPrevious;
    std::shared_ptr<Scene> _pScene;
};

std::shared_ptr<Scene> SceneBuilder::Build(std::string* error)
{
    try
    {
        _pScene = std::make_shared<Scene>();
        for (const PrimitiveObject* primitive : ScenePrimitives(_context))
        {
            if (_Stopped())
                return nullptr;
            _AddPrimitive(*primitive, LinkedProgramOf(_context, *primitive)->_linked);
        }
        _AddLights();
    }
    catch (const std::bad_alloc&)
    {
        *error = "no memory for the scene";
        return nullptr;
    }
    if (!_Commit(error))
        return nullptr;
    return std::move(_pScene);
}

Material SceneBuilder::_Material(const ArgumentReader& reader, const Statement* statement) const
{
    Material material;
    if (!statement)
        return material; // a shape without a material: grey diffuse
    switch (statement->_eBuiltIn)
    {
    case kBI_Diffuse:
        material._color = Finite(reader.Vector(*statement, 0));
        break;
    case kBI_DiffuseTexture:
        material._bTextured = true;
        material._texture = SamplerOf(_context, reader.Handle(*statement, 0));
        break;
    case kBI_MetallicRoughness:
        material._eKind = kMK_MetallicRoughness;
        material._color = Finite(reader.Vector(*statement, 0));
        material._fMetallic = reader.Float(*statement, 1);
        material._fRoughness = reader.Float(*statement, 2);
        material._emission = Finite(reader.Vector(*statement, 3));
        material._texture = SamplerOf(_context, reader.Handle(*statement, 4));
        material._metallicRoughnessMap = SamplerOf(_context, reader.Handle(*statement, 5));
        material._emissionMap = SamplerOf(_context, reader.Handle(*statement, 6));
        break;
    case kBI_Emissive:
        material._eKind = kMK_Emissive;
        material._color = Finite(reader.Vector(*statement, 0));
        break;
    case kBI_Mirror:
        material._eKind = kMK_Mirror;
        material._color = Finite(reader.Vector(*statement, 0));
        break;
    case kBI_Glass:
    {
        material._eKind = kMK_Glass;
        const float ior = reader.Float(*statement, 0);
        // No index of refraction at all lets light through unbent.
        material._fIor = std::isfinite(ior) && ior > 0.0f ? ior : 1.0f;
        break;
    }
    default:
        break;
    }
    return material;
}

void SceneBuilder::_AddPrimitive(const PrimitiveObject& primitive, const LinkedProgram& program)
{
    const ArgumentReader reader(primitive, program);
    const Statement* shape = FindStatement(program, IsShape);
    const Statement* transform =
        FindStatement(program, [](BuiltIn b) { return b == kBI_Transform; });
    const Affine placement = transform ? reader.Matrix(*transform, 0) : Affine();
    if (!placement.IsFinite())
        return;
    const int material = static_cast<int>(_pScene->_materials.size());
    _pScene->_materials.push_back(_Material(reader, FindStatement(program, IsMaterial)));
    switch (shape->_eBuiltIn)
    {
    case kBI_Sphere:
        _AddSphere(reader, *shape, placement, transform != nullptr, material);
        break;
    case kBI_Box:
        _AddBox(reader, *shape, placement, material);
        break;
    case kBI_Plane:
        _AddPlane(reader, *shape, placement, material);
        break;
    case kBI_Mesh:
        _AddIndexedMesh(reader, *shape, placement, material);
        break;
    default:
        _AddTriangles(reader, *shape, placement, material);
        break;
    }
}

void SceneBuilder::_AddSphere(const ArgumentReader& reader, const Statement& statement,
                              const Affine& placement, bool transformed, int material)
{
    Scene::Sphere sphere;
    sphere._centre = reader.Vector(statement, 0);
    sphere._fRadius = reader.Float(statement, 1);
    sphere._toWorld = placement;
    sphere._bPlaced = transformed;
    if (!IsFinite(sphere._centre) || !(sphere._fRadius > 0.0f) || !std::isfinite(sphere._fRadius) ||
        !placement.Invert(&sphere._toObject))
        return;
    _Place(Scene::kSK_Sphere, &_pScene->_spheres, sphere, material);
}

void SceneBuilder::_AddBox(const ArgumentReader& reader, const Statement& statement,
                           const Affine& placement, int material)
{
    const Vec3 a = reader.Vector(statement, 0);
    const Vec3 b = reader.Vector(statement, 1);
    if (!IsFinite(a) || !IsFinite(b))
        return;
    const Vec3 lo = Min(a, b);
    const Vec3 hi = Max(a, b);
    Scene::Mesh mesh;
    // Each face a quad of two triangles, wound counter-clockwise seen from
    // outside, with the whole texture across it.
    const float corners[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side < 2; ++side)
        {
            const int u = (axis + 1) % 3;
            const int v = (axis + 2) % 3;
            Vec3 quad[4];
            float uvs[4][2];
            for (int k = 0; k < 4; ++k)
            {
                // The far side runs the other way round, so both face out.
                const float* c = corners[side == 1 ? k : (4 - k) % 4];
                float p[3];
                p[axis] = side == 1 ? hi[axis] : lo[axis];
                p[u] = c[0] != 0.0f ? hi[u] : lo[u];
                p[v] = c[1] != 0.0f ? hi[v] : lo[v];
                quad[k] = placement.Point(Vec3(p[0], p[1], p[2]));
                uvs[k][0] = c[0];
                uvs[k][1] = c[1];
            }
            for (int k : {0, 1, 2, 0, 2, 3})
            {
                mesh._positions.push_back(quad[k]);
                mesh._uvs.insert(mesh._uvs.end(), {uvs[k][0], uvs[k][1]});
            }
        }
    _AddMesh(std::move(mesh), placement, material);
}

void SceneBuilder::_AddPlane(const ArgumentReader& reader, const Statement& statement,
                             const Affine& placement, int material)
{
    Affine inverse;
    if (!placement.Invert(&inverse))
        return;
    Scene::Plane plane;
    plane._point = placement.Point(reader.Vector(statement, 0));
    plane._normal = Normalize(inverse.TransposedVector(reader.Vector(statement, 1)));
    if (!IsFinite(plane._point) || !IsFinite(plane._normal) ||
        Dot(plane._normal, plane._normal) == 0.0f)
        return;
    OrthonormalBasis(plane._normal, &plane._tangent, &plane._bitangent);
    _pScene->_planeShapes.push_back(static_cast<int>(_pScene->_shapes.size()));
    _Place(Scene::kSK_Plane, &_pScene->_planes, plane, material);
}

void SceneBuilder::_AddTriangles(const ArgumentReader& reader, const Statement& statement,
                                 const Affine& placement, int material)
{
    const BufferObject* buffer = _context._buffers.Find(reader.Block(statement, 0));
    if (!buffer || !buffer->_storage.Data())
        return;
    constexpr std::size_t kTriangleBytes = 9 * sizeof(float);
    const std::size_t triangles = buffer->_storage.Size() / kTriangleBytes;
    const unsigned char* bytes = buffer->_storage.Data();
    Scene::Mesh mesh;
    mesh._positions.reserve(triangles * 3);
    for (std::size_t i = 0; i < triangles; ++i)
    {
        float values[9];
        std::memcpy(values, bytes + i * kTriangleBytes, kTriangleBytes);
        Vec3 corners[3];
        bool finite = true;
        for (int k = 0; k < 3; ++k)
        {
            corners[k] = placement.Point(Vec3(values[3 * k], values[3 * k + 1], values[3 * k + 2]));
            finite = finite && IsFinite(corners[k]);
        }
        // The kernels require finite vertices; a triangle that has none is
        // left out rather than spoiling the whole mesh.
        if (finite)
            mesh._positions.insert(mesh._positions.end(), corners, corners + 3);
    }
    _AddMesh(std::move(mesh), placement, material);
}

void SceneBuilder::_AddIndexedMesh(const ArgumentReader& reader, const Statement& statement,
                                   const Affine& placement, int material)
{
    const BufferObject* buffer = _context._buffers.Find(reader.Block(statement, 0));
    const int vertices = reader.Int(statement, 1);
    const int triangles = reader.Int(statement, 2);
    if (!buffer || !buffer->_storage.Data() || vertices <= 0 || triangles <= 0)
        return;
    // Counts that the buffer cannot hold give nothing, rather than a read
    // past its end.
    const std::size_t bytes = std::size_t(vertices) * 8 * sizeof(float) +
                              std::size_t(triangles) * 3 * sizeof(std::uint32_t);
    if (buffer->_storage.Size() < bytes)
        return;
    Scene::Instance instance;
    instance._toWorld = placement;
    // Normals need the inverse; a flattening placement has none.
    if (!placement.Invert(&instance._toObject))
        return;
    instance._nMesh = _IndexedMesh(*buffer, static_cast<std::uint32_t>(vertices),
                                   static_cast<std::uint32_t>(triangles));
    if (instance._nMesh < 0)
        return;
    _Place(Scene::kSK_Instance, &_pScene->_instances, instance, material);
}

// The scene's mesh of these counts in this buffer: one already made for
// another primitive, or by the previous scene from the same storage, or a
// new one. -1 when no triangle is left.
int SceneBuilder::_IndexedMesh(const BufferObject& buffer, std::uint32_t vertices,
                               std::uint32_t triangles)
{
    auto same = [&](const Scene::IndexedMesh& mesh)
    {
        return mesh._nBuffer == buffer._nId && mesh._nRevision == buffer._nRevision &&
               mesh._pStorage.get() == buffer._storage.Data() && mesh._nVertices == vertices &&
               mesh._nTriangles == triangles;
    };
    std::vector<std::shared_ptr<Scene::IndexedMesh>>& meshes = _pScene->_indexedMeshes;
    for (std::size_t i = 0; i < meshes.size(); ++i)
        if (same(*meshes[i]))
            return static_cast<int>(i);
    if (_pPrevious)
        for (const std::shared_ptr<Scene::IndexedMesh>& mesh : _pPrevious->_indexedMeshes)
            if (same(*mesh))
            {
                meshes.push_back(mesh);
                return static_cast<int>(meshes.size() - 1);
            }
    auto mesh = std::make_shared<Scene::IndexedMesh>();
    mesh->_pStorage = buffer._storage.Share();
    mesh->_nBuffer = buffer._nId;
    mesh->_nRevision = buffer._nRevision;
    mesh->_nVertices = vertices;
    mesh->_nTriangles = triangles;
    // The kernels need indices in range and finite corners; the triangles
    // without them are left out, and only then are the kept ones listed.
    std::vector<char> finite(vertices);
    for (std::uint32_t i = 0; i < vertices; ++i)
    {
        float values[8];
        mesh->Vertex(i, values);
        finite[i] =
            std::isfinite(values[0]) && std::isfinite(values[1]) && std::isfinite(values[2]);
    }
    bool all = true;
    for (std::uint32_t t = 0; t < triangles; ++t)
    {
        std::uint32_t corners[3];
        mesh->Corners(t, corners);
        const bool good = corners[0] < vertices && corners[1] < vertices && corners[2] < vertices &&
                          finite[corners[0]] && finite[corners[1]] && finite[corners[2]];
        if (good && !all)
            mesh->_kept.push_back(t);
        else if (!good && all)
        {
            all = false;
            for (std::uint32_t k = 0; k < t; ++k)
                mesh->_kept.push_back(k);
        }
    }
    if (!all && mesh->_kept.empty())
        return -1;
    meshes.push_back(std::move(mesh));
    return static_cast<int>(meshes.size() - 1);
}

void SceneBuilder::_AddMesh(Scene::Mesh mesh, const Affine& placement, int material)
{
    if (mesh._positions.empty())
        return;
    // A placement that mirrors turns windings round; turning them back
    // keeps the outward side outward.
    if (placement.Determinant() < 0.0f)
        for (std::size_t i = 0; i + 2 < mesh._positions.size(); i += 3)
        {
            std::swap(mesh._positions[i + 1], mesh._positions[i + 2]);
            if (!mesh._uvs.empty())
            {
                std::swap(mesh._uvs[2 * (i + 1)], mesh._uvs[2 * (i + 2)]);
                std::swap(mesh._uvs[2 * (i + 1) + 1], mesh._uvs[2 * (i + 2) + 1]);
            }
        }
    _Place(Scene::kSK_Mesh, &_pScene->_meshes, std::move(mesh), material);
}

void SceneBuilder::_AddLights()
{
    Scene& scene = *_pScene;
    scene._lightOfShape.assign(scene._shapes.size(), -1);
    for (std::size_t s = 0; s < scene._shapes.size(); ++s)
    {
        Scene::Shape& shape = scene._shapes[s];
        const Material& material = scene._materials[static_cast<std::size_t>(shape._nMaterial)];
        Scene::Light light;
        light._nShape = static_cast<int>(s);
        if (material._eKind == kMK_Emissive)
            light._radiance = material._color;
        else if (material._eKind == kMK_MetallicRoughness && !material._emissionMap._pImage)
        {
            // An emission map varies over the surface, which the samples
            // do not follow: such surfaces are found by hitting.
            light._radiance = material._emission;
            light._bOneSided = true;
        }
        if (!(MaxComponent(light._radiance) > 0.0f))
            continue;
        if (shape._eKind == Scene::kSK_Sphere)
        {
            const Scene::Sphere& sphere = scene._spheres[static_cast<std::size_t>(shape._nIndex)];
            const Vec3 x = sphere._toWorld.Vector(Vec3(1, 0, 0));
            const Vec3 y = sphere._toWorld.Vector(Vec3(0, 1, 0));
            const Vec3 z = sphere._toWorld.Vector(Vec3(0, 0, 1));
            const float scale = Length(x);
            const float tolerance = 1e-4f * scale * scale;
            const bool round = std::fabs(Dot(y, y) - scale * scale) <= tolerance &&
                               std::fabs(Dot(z, z) - scale * scale) <= tolerance &&
                               std::fabs(Dot(x, y)) <= tolerance &&
                               std::fabs(Dot(y, z)) <= tolerance &&
                               std::fabs(Dot(z, x)) <= tolerance;
            light._centre = sphere._toWorld.Point(sphere._centre);
            if (round)
            {
                // Sampled by its cone of directions.
                light._eKind = Scene::kLK_Sphere;
                light._fRadius = sphere._fRadius * scale;
            }
            else
            {
                // By the cone of a sphere around it: the matrix's Frobenius
                // norm bounds how far it stretches.
                light._eKind = Scene::kLK_Stretched;
                light._nIndex = shape._nIndex;
                light._fRadius =
                    sphere._fRadius * std::sqrt(Dot(x, x) + Dot(y, y) + Dot(z, z)) * 1.0001f;
            }
            if (!(light._fRadius > 0.0f) || !std::isfinite(light._fRadius))
                continue;
        }
        else if (shape._eKind == Scene::kSK_Plane)
        {
            light._eKind = Scene::kLK_Plane;
            light._nIndex = shape._nIndex;
        }
        else
        {
            _AddLightTriangles(shape, &light);
            if (!(light._fArea > 0.0f))
                continue;
        }
        shape._bSampledEmitter = true;
        scene._lightOfShape[s] = static_cast<int>(scene._lights.size());
        scene._lights.push_back(std::move(light));
    }
}

// A mesh emitter, sampled by area over its triangles in world space.
void SceneBuilder::_AddLightTriangles(const Scene::Shape& shape, Scene::Light* light)
{
    Scene& scene = *_pScene;
    light->_eKind = Scene::kLK_Triangles;
    light->_nFirstTriangle = scene._lightTriangles.size();
    double area = 0.0;
    auto add = [&](const Vec3& p0, const Vec3& p1, const Vec3& p2, const Vec3& normal)
    {
        Scene::LightTriangle triangle;
        triangle._p0 = p0;
        triangle._p1 = p1;
        triangle._p2 = p2;
        triangle._normal = Normalize(normal);
        area += 0.5 * Length(Cross(p1 - p0, p2 - p0));
        scene._lightTriangles.push_back(triangle);
        light->_cumulativeArea.push_back(static_cast<float>(area));
    };
    if (shape._eKind == Scene::kSK_Mesh)
    {
        const Scene::Mesh& mesh = scene._meshes[static_cast<std::size_t>(shape._nIndex)];
        for (std::size_t i = 0; i + 2 < mesh._positions.size(); i += 3)
        {
            const Vec3& p0 = mesh._positions[i];
            const Vec3& p1 = mesh._positions[i + 1];
            const Vec3& p2 = mesh._positions[i + 2];
            add(p0, p1, p2, Cross(p1 - p0, p2 - p0));
        }
    }
    else
    {
        const Scene::Instance& instance = scene._instances[static_cast<std::size_t>(shape._nIndex)];
        const Scene::IndexedMesh& mesh =
            *scene._indexedMeshes[static_cast<std::size_t>(instance._nMesh)];
        for (std::uint32_t k = 0; k < mesh.KeptCount(); ++k)
        {
            std::uint32_t corners[3];
            mesh.Corners(mesh.Triangle(k), corners);
            Vec3 p[3];
            for (int c = 0; c < 3; ++c)
            {
                float values[8];
                mesh.Vertex(corners[c], values);
                p[c] = Vec3(values[0], values[1], values[2]);
            }
            add(instance._toWorld.Point(p[0]), instance._toWorld.Point(p[1]),
                instance._toWorld.Point(p[2]),
                instance._toObject.TransposedVector(Cross(p[1] - p[0], p[2] - p[0])));
        }
    }
    if (!(area > 0.0) || !std::isfinite(area))
    {
        scene._lightTriangles.resize(light->_nFirstTriangle);
        return;
    }
    for (float& cumulative : light->_cumulativeArea)
        cumulative = static_cast<float>(cumulative / area);
    light->_cumulativeArea.back() = 1.0f;
    light->_fArea = static_cast<float>(area);
}

// One scene of the kernels for an indexed mesh, reading the buffer's
// vertices in place (8 floats apart) and its indices too when all are kept.
bool SceneBuilder::_CommitIndexedMesh(RTCDevice device, Scene::IndexedMesh& mesh)
{
    mesh._pScene = rtcNewScene(device);
    if (!mesh._pScene)
        return false;
    rtcSetSceneFlags(mesh._pScene, RTC_SCENE_FLAG_ROBUST);
    // A large mesh's hierarchy is most of a build: a stop must reach it too.
    rtcSetSceneProgressMonitorFunction(mesh._pScene, &SceneBuilder::_GoOn, this);
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    if (!geometry)
        return false;
    unsigned char* bytes = const_cast<unsigned char*>(mesh._pStorage.get());
    constexpr std::size_t kVertexBytes = 8 * sizeof(float);
    constexpr std::size_t kTriangleBytes = 3 * sizeof(std::uint32_t);
    // The kernels read 16 bytes per vertex: the normal after the position
    // pads even the last one.
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, bytes, 0,
                               kVertexBytes, mesh._nVertices);
    bool good = true;
    if (mesh._kept.empty())
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, bytes,
                                   kVertexBytes * mesh._nVertices, kTriangleBytes,
                                   mesh._nTriangles);
    else if (auto* indices = static_cast<std::uint32_t*>(
                 rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                         kTriangleBytes, mesh._kept.size())))
        for (std::size_t k = 0; k < mesh._kept.size(); ++k)
            mesh.Corners(mesh._kept[k], indices + 3 * k);
    else
        good = false;
    if (good)
    {
        rtcCommitGeometry(geometry);
        rtcAttachGeometryByID(mesh._pScene, geometry, 0);
    }
    rtcReleaseGeometry(geometry);
    if (good)
        rtcCommitScene(mesh._pScene);
    return good;
}

bool SceneBuilder::_Commit(std::string* error)
{
    RTCDevice device = SharedDevice();
    if (!device)
    {
        *error = "the ray tracing device cannot be created";
        return false;
    }
    Scene& scene = *_pScene;
    scene._pScene = rtcNewScene(device);
    if (!scene._pScene)
    {
        *error = "no memory for the scene";
        return false;
    }
    // Robust traversal: a ray through a shared edge of a closed mesh must
    // not slip between its triangles.
    rtcSetSceneFlags(scene._pScene, RTC_SCENE_FLAG_ROBUST);
    // The kernels ask for leave to go on while they build the hierarchy.
    rtcSetSceneProgressMonitorFunction(scene._pScene, &SceneBuilder::_GoOn, this);
    bool complete = true;
    for (const std::shared_ptr<Scene::IndexedMesh>& mesh : scene._indexedMeshes)
    {
        if (mesh->_pScene)
            continue; // lent by the previous scene
        ++scene._nMeshesBuilt;
        complete = _CommitIndexedMesh(device, *mesh);
        if (_Stopped())
        {
            rtcGetDeviceError(device); // a cancelled build's error is ours, not the next one's
            return false;
        }
        if (!complete)
            break;
    }
    for (std::size_t s = 0; s < scene._shapes.size() && complete; ++s)
    {
        if (_Stopped())
            return false;
        const Scene::Shape& shape = scene._shapes[s];
        RTCGeometry geometry = nullptr;
        if (shape._eKind == Scene::kSK_Sphere)
        {
            geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_USER);
            complete = geometry != nullptr;
            if (!complete)
                break;
            rtcSetGeometryUserPrimitiveCount(geometry, 1);
            rtcSetGeometryUserData(geometry,
                                   &scene._spheres[static_cast<std::size_t>(shape._nIndex)]);
            rtcSetGeometryBoundsFunction(geometry, SphereBounds, nullptr);
            rtcSetGeometryIntersectFunction(geometry, SphereIntersect);
            rtcSetGeometryOccludedFunction(geometry, SphereOccluded);
        }
        else if (shape._eKind == Scene::kSK_Mesh)
        {
            const Scene::Mesh& mesh = scene._meshes[static_cast<std::size_t>(shape._nIndex)];
            const std::size_t vertices = mesh._positions.size();
            geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
            complete = geometry != nullptr;
            if (!complete)
                break;
            auto* positions = static_cast<float*>(
                rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                        3 * sizeof(float), vertices));
            auto* indices = static_cast<unsigned*>(
                rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                        3 * sizeof(unsigned), vertices / 3));
            if (!positions || !indices)
            {
                rtcReleaseGeometry(geometry);
                complete = false;
                break;
            }
            for (std::size_t i = 0; i < vertices; ++i)
            {
                positions[3 * i] = mesh._positions[i].x;
                positions[3 * i + 1] = mesh._positions[i].y;
                positions[3 * i + 2] = mesh._positions[i].z;
                indices[i] = static_cast<unsigned>(i);
            }
        }
        else if (shape._eKind == Scene::kSK_Instance)
        {
            const Scene::Instance& instance =
                scene._instances[static_cast<std::size_t>(shape._nIndex)];
            geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_INSTANCE);
            complete = geometry != nullptr;
            if (!complete)
                break;
            rtcSetGeometryInstancedScene(
                geometry, scene._indexedMeshes[static_cast<std::size_t>(instance._nMesh)]->_pScene);
            rtcSetGeometryTransform(geometry, 0, RTC_FORMAT_FLOAT3X4_ROW_MAJOR,
                                    &instance._toWorld.m[0][0]);
        }
        else
            continue;
        rtcCommitGeometry(geometry);
        rtcAttachGeometryByID(scene._pScene, geometry, static_cast<unsigned>(s));
        rtcReleaseGeometry(geometry);
    }
    if (complete)
        rtcCommitScene(scene._pScene);
    if (_Stopped())
    {
        rtcGetDeviceError(device); // the cancelled build's error is ours, not the next one's
        return false;
    }
    if (!complete || rtcGetDeviceError(device) != RTC_ERROR_NONE)
    {
        *error = "the ray tracing kernels cannot build the scene";
        return false;
    }
    return true;
}

std::shared_ptr<const Scene> AcquireScene(Context& context, std::string* error)
{
    std::vector<std::uint64_t> key = SceneKey(context);
    if (context._pScene && key == context._sceneKey)
        return context._pScene;
    if (Testing::RenderHook hook = CurrentBuildHook())
        hook(HandleOf<void>(context._nId));
    // The old scene lends its unchanged meshes, then goes.
    std::shared_ptr<const Scene> previous = std::move(context._pScene);
    std::shared_ptr<Scene> scene = SceneBuilder(context, previous.get()).Build(error);
    previous.reset();
    if (!scene)
        return nullptr;
    context._pScene = scene;
    context._sceneKey = std::move(key);
    ++context._nSceneBuilds;
    context._nMeshBuilds += scene->MeshesBuilt();
    return scene;
}

// ---------------------------------------------------------------------------
// The frame

FrameView ResolveFrameView(const Context& context)
{
    FrameView view;
    bool said = false; // whether the program has output statements at all
    const PrimitiveObject& frame = context._framePrimitive;
    if (const ProgramObject* program = LinkedProgramOf(context, frame))
    {
        const ArgumentReader reader(frame, program->_linked);
        for (const Statement& statement : program->_linked._statements)
        {
            switch (statement._eBuiltIn)
            {
            case kBI_Camera:
            {
                Camera& camera = view._camera;
                const Vec3 eye = reader.Vector(statement, 0);
                const Vec3 target = reader.Vector(statement, 1);
                const Vec3 up = reader.Vector(statement, 2);
                const float fov = reader.Float(statement, 3);
                if (IsFinite(eye))
                    camera._eye = eye;
                const Vec3 forward = Normalize(Finite(target) - camera._eye);
                if (Dot(forward, forward) > 0.0f && IsFinite(forward))
                    camera._forward = forward;
                Vec3 right = Normalize(Cross(camera._forward, Finite(up)));
                if (!(Dot(right, right) > 0.0f) || !IsFinite(right))
                {
                    // An up along the view, or none: any upright frame will do.
                    Vec3 other;
                    OrthonormalBasis(camera._forward, &right, &other);
                }
                camera._right = right;
                camera._up = Cross(right, camera._forward);
                if (std::isfinite(fov) && fov > 0.0f && fov < 180.0f)
                    camera._fTanHalfFov = std::tan(fov * kPi / 360.0f);
                break;
            }
            case kBI_Background:
                view._background = Finite(reader.Vector(statement, 0));
                break;
            case kBI_Output:
            {
                said = true;
                FrameOutput output;
                output._nAttachment = reader.Int(statement, 0);
                if (statement._arguments.size() > 1 &&
                    statement._arguments[1]._eKind == Argument::kAK_Channel &&
                    statement._arguments[1]._nIndex >= 0 &&
                    statement._arguments[1]._nIndex < kCH_Count)
                    output._eChannel = static_cast<Channel>(statement._arguments[1]._nIndex);
                if (output._nAttachment >= 0 && output._nAttachment < kMaxAttachments)
                    view._outputs.push_back(output);
                break;
            }
            default:
                break;
            }
        }
    }
    if (!said)
        view._outputs.push_back(FrameOutput());
    return view;
}

} // namespace Kestrel
