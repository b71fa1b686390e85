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
           builtIn == kBI_Triangles;
}

bool IsMaterial(BuiltIn builtIn)
{
    return builtIn == kBI_Diffuse || builtIn == kBI_DiffuseTexture || builtIn == kBI_Emissive ||
           builtIn == kBI_Mirror || builtIn == kBI_Glass;
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
            if (statement._eBuiltIn == kBI_Triangles)
            {
                const Id id = reader.Block(statement, 0);
                const BufferObject* buffer = context._buffers.Find(id);
                key.insert(key.end(), {id, buffer ? buffer->_nRevision : kMissing});
            }
            else if (statement._eBuiltIn == kBI_DiffuseTexture)
            {
                const Id id = reader.Handle(statement, 0);
                const TextureObject* texture = context._textures.Find(id);
                key.insert(key.end(), {id, texture ? texture->_nRevision : kMissing});
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
        shape = static_cast<int>(query.hit.geomID);
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
    }
    if (Dot(hit->_normal, hit->_normal) == 0.0f)
        hit->_normal = -direction;
    return true;
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
    return material._bTextured ? material._texture.Sample(hit._fU, hit._fV) : material._color;
}

bool Scene::IsSampledEmitter(int shape) const
{
    return _shapes[static_cast<std::size_t>(shape)]._bSampledEmitter;
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
    if (light._bSphere)
    {
        const Vec3 toCentre = light._centre - point;
        const float d2 = Dot(toCentre, toCentre);
        const float r2 = light._fRadius * light._fRadius;
        Sphere sphere;
        sphere._centre = light._centre;
        sphere._fRadius = light._fRadius;
        float near = 0.0f, far = 0.0f;
        if (d2 <= r2)
        {
            // From inside, every direction meets the sphere.
            sample->_direction = UniformSphere(u1, u2);
            sample->_fPdf = choice / (4.0f * kPi);
            if (!SphereRoots(sphere, point, sample->_direction, &near, &far))
                return false;
            sample->_fDistance = far;
            return far > 0.0f;
        }
        const float distance = std::sqrt(d2);
        const Vec3 axis = toCentre / distance;
        const float sin2 = r2 / d2;
        const float oneMinusCos = sin2 / (1.0f + std::sqrt(std::max(0.0f, 1.0f - sin2)));
        if (!(oneMinusCos > 0.0f))
            return false;
        Vec3 t, b;
        OrthonormalBasis(axis, &t, &b);
        const Vec3 local = UniformCone(u1, u2, oneMinusCos);
        sample->_direction = Normalize(t * local.x + b * local.y + axis * local.z);
        sample->_fPdf = choice / (2.0f * kPi * oneMinusCos);
        // Directions at the cone's rim may just miss in float; they graze
        // the sphere at the point of closest approach.
        sample->_fDistance =
            SphereRoots(sphere, point, sample->_direction, &near, &far) && near > 0.0f
                ? near
                : Dot(toCentre, sample->_direction);
        return sample->_fDistance > 0.0f;
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
    // Emitters shine from both sides.
    const float cosine = std::fabs(Dot(triangle._normal, sample->_direction));
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
    explicit SceneBuilder(const Context& context) : _context(context) {}

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
    void _AddLights();
    bool _Commit(std::string* error);
    // A stop of the frame ends the build between two of its steps, so that
    // a large scene does not hold the frame up.
    bool _Stopped() const { return _context._bStopRequested.load(std::memory_order_acquire); }

    const Context& _context;
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
    {
        material._bTextured = true;
        const TextureObject* texture = _context._textures.Find(reader.Handle(*statement, 0));
        if (texture && texture->_pImage && texture->_pImage->Bytes() != 0)
        {
            material._texture._pImage = texture->_pImage;
            material._texture._eWrapS = texture->_eWrapS;
            material._texture._eWrapT = texture->_eWrapT;
            material._texture._bNearest = texture->_eMagFilter == KS_NEAREST;
        }
        break;
    }
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
    Scene::Shape shape;
    shape._eKind = Scene::kSK_Sphere;
    shape._nIndex = static_cast<int>(_pScene->_spheres.size());
    shape._nMaterial = material;
    _pScene->_spheres.push_back(sphere);
    _pScene->_shapes.push_back(shape);
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
    Scene::Shape shape;
    shape._eKind = Scene::kSK_Plane;
    shape._nIndex = static_cast<int>(_pScene->_planes.size());
    shape._nMaterial = material;
    _pScene->_planeShapes.push_back(static_cast<int>(_pScene->_shapes.size()));
    _pScene->_planes.push_back(plane);
    _pScene->_shapes.push_back(shape);
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
    Scene::Shape shape;
    shape._eKind = Scene::kSK_Mesh;
    shape._nIndex = static_cast<int>(_pScene->_meshes.size());
    shape._nMaterial = material;
    _pScene->_meshes.push_back(std::move(mesh));
    _pScene->_shapes.push_back(shape);
}

void SceneBuilder::_AddLights()
{
    Scene& scene = *_pScene;
    for (std::size_t s = 0; s < scene._shapes.size(); ++s)
    {
        Scene::Shape& shape = scene._shapes[s];
        const Material& material = scene._materials[static_cast<std::size_t>(shape._nMaterial)];
        if (material._eKind != kMK_Emissive || !(MaxComponent(material._color) > 0.0f))
            continue;
        Scene::Light light;
        light._nShape = static_cast<int>(s);
        light._radiance = material._color;
        if (shape._eKind == Scene::kSK_Sphere)
        {
            // Sampled by its cone of directions, which needs a round sphere:
            // one that the placement only turns, moves and scales evenly.
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
            if (!round)
                continue;
            light._bSphere = true;
            light._centre = sphere._toWorld.Point(sphere._centre);
            light._fRadius = sphere._fRadius * scale;
        }
        else if (shape._eKind == Scene::kSK_Mesh)
        {
            // Sampled by area over its triangles.
            const Scene::Mesh& mesh = scene._meshes[static_cast<std::size_t>(shape._nIndex)];
            light._bSphere = false;
            light._nFirstTriangle = scene._lightTriangles.size();
            double area = 0.0;
            for (std::size_t i = 0; i + 2 < mesh._positions.size(); i += 3)
            {
                Scene::LightTriangle triangle;
                triangle._p0 = mesh._positions[i];
                triangle._p1 = mesh._positions[i + 1];
                triangle._p2 = mesh._positions[i + 2];
                const Vec3 normal = Cross(triangle._p1 - triangle._p0, triangle._p2 - triangle._p0);
                triangle._normal = Normalize(normal);
                area += 0.5 * Length(normal);
                scene._lightTriangles.push_back(triangle);
                light._cumulativeArea.push_back(static_cast<float>(area));
            }
            if (!(area > 0.0) || !std::isfinite(area))
            {
                scene._lightTriangles.resize(light._nFirstTriangle);
                continue;
            }
            for (float& cumulative : light._cumulativeArea)
                cumulative = static_cast<float>(cumulative / area);
            light._cumulativeArea.back() = 1.0f;
            light._fArea = static_cast<float>(area);
        }
        else
            continue; // planes have no area to sample: paths find them by hitting
        shape._bSampledEmitter = true;
        scene._lights.push_back(std::move(light));
    }
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
    rtcSetSceneProgressMonitorFunction(
        scene._pScene,
        [](void* builder, double)
        { return !static_cast<const SceneBuilder*>(builder)->_Stopped(); },
        this);
    bool complete = true;
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
    context._pScene.reset();
    if (Testing::RenderHook hook = CurrentBuildHook())
        hook(HandleOf<void>(context._nId));
    std::shared_ptr<Scene> scene = SceneBuilder(context).Build(error);
    if (!scene)
        return nullptr;
    context._pScene = scene;
    context._sceneKey = std::move(key);
    ++context._nSceneBuilds;
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
