// The scene a frame renders: every primitive of a context whose program has
// a shape, with its material, as one acceleration structure of the ray
// tracing kernels; plus what the frame primitive says about the camera, the
// background and the outputs.
//
// A scene is built under the context's lock and never changes afterwards,
// so frames share it without locks, and a frame in flight keeps its scene
// alive after the context has moved on to a newer one.
#ifndef KESTREL_SCENE_H
#define KESTREL_SCENE_H

#include "Objects.h"
#include "RenderMath.h"

#include <embree3/rtcore.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Kestrel
{

class Context;

// Texels of a material, bilinear (or nearest, when the texture's
// magnification filter says so) with the texture's wrap modes. Reads the
// image at render time, so a host that writes into client storage is seen.
struct TextureSampler
{
    std::shared_ptr<const TextureImage> _pImage; // null: reads black
    int _eWrapS = KS_REPEAT;
    int _eWrapT = KS_REPEAT;
    bool _bNearest = false;

    Vec3 Sample(float u, float v) const;
};

enum MaterialKind
{
    kMK_Diffuse,
    kMK_Emissive,
    kMK_Mirror,
    kMK_Glass,
};

struct Material
{
    MaterialKind _eKind = kMK_Diffuse;
    Vec3 _color{0.8f}; // albedo, radiance or tint
    float _fIor = 1.5f;
    bool _bTextured = false; // diffuse, albedo from _texture
    TextureSampler _texture;
};

struct SurfaceHit
{
    float _fDistance = 0.0f;
    Vec3 _position;
    Vec3 _normal; // unit, the shape's outward side (for meshes: by winding)
    float _fU = 0.0f;
    float _fV = 0.0f;
    int _nShape = -1;
};

// A direction towards a point on an emitter, as seen from a shading point.
struct LightSample
{
    Vec3 _direction;
    float _fDistance = 0.0f;
    Vec3 _radiance;
    float _fPdf = 0.0f; // per solid angle, the choice of the emitter included
};

class Scene
{
public:
    Scene();
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    // The nearest surface along the ray, closer than `maxDistance`.
    // `direction` must be a unit vector.
    bool Intersect(const Vec3& origin, const Vec3& direction, float maxDistance,
                   SurfaceHit* hit) const;
    // Whether any surface lies on the ray closer than `maxDistance`.
    bool Occluded(const Vec3& origin, const Vec3& direction, float maxDistance) const;

    const Material& MaterialOf(const SurfaceHit& hit) const;
    Vec3 AlbedoAt(const Material& material, const SurfaceHit& hit) const;

    bool HasLights() const { return !_lights.empty(); }
    // True when direct lighting samples this shape's emission, so that a
    // path which hits it after a diffuse bounce must not count it again.
    bool IsSampledEmitter(int shape) const;
    // Four draws: the emitter, then a point on it.
    bool SampleLight(const Vec3& point, float u0, float u1, float u2, float u3,
                     LightSample* sample) const;

    int ShapeCount() const { return static_cast<int>(_shapes.size()); }

private:
    friend class SceneBuilder;

    enum ShapeKind
    {
        kSK_Sphere,
        kSK_Mesh,
        kSK_Plane,
    };
    struct Shape
    {
        ShapeKind _eKind = kSK_Sphere;
        int _nIndex = 0; // into the list of its kind
        int _nMaterial = 0;
        bool _bSampledEmitter = false;
    };

public:
    // Public for the intersection callbacks of the kernels.
    struct Sphere
    {
        Vec3 _centre; // in the sphere's own space
        float _fRadius = 1.0f;
        Affine _toWorld;
        Affine _toObject;
        bool _bPlaced = false; // false: both are the identity
    };

private:
    struct Mesh
    {
        std::vector<Vec3> _positions; // world space, three per triangle
        std::vector<float> _uvs;      // two per vertex, or empty: barycentric
    };
    struct Plane
    {
        Vec3 _point;
        Vec3 _normal; // unit
        Vec3 _tangent;
        Vec3 _bitangent;
    };
    struct Light
    {
        int _nShape = 0;
        Vec3 _radiance;
        bool _bSphere = true;
        Vec3 _centre; // spheres, world space
        float _fRadius = 0.0f;
        std::size_t _nFirstTriangle = 0; // meshes: into _lightTriangles
        std::vector<float> _cumulativeArea;
        float _fArea = 0.0f;
    };
    struct LightTriangle
    {
        Vec3 _p0, _p1, _p2;
        Vec3 _normal;
    };

    void _Finish(const Vec3& origin, const Vec3& direction, SurfaceHit* hit) const;

    RTCScene _pScene = nullptr;
    std::vector<Shape> _shapes; // a shape's index is its geometry id
    std::vector<Material> _materials;
    std::vector<Sphere> _spheres;
    std::vector<Mesh> _meshes;
    std::vector<Plane> _planes;
    std::vector<int> _planeShapes;
    std::vector<Light> _lights;
    std::vector<LightTriangle> _lightTriangles;
};

// The scene of the context's primitives as they are now: the cached one
// when nothing it was built from has changed, otherwise a new one. Null
// with `error` set when the kernels cannot build it, and with `error` left
// empty when a stop of the frame ended the build.
std::shared_ptr<const Scene> AcquireScene(Context& context, std::string* error);

struct Camera
{
    Vec3 _eye;
    Vec3 _forward{0.0f, 0.0f, -1.0f};
    Vec3 _right{1.0f, 0.0f, 0.0f};
    Vec3 _up{0.0f, 1.0f, 0.0f};
    float _fTanHalfFov = 0.57735027f; // 60 degrees, vertically

    // The unit direction through a point of the image plane, given in
    // [-1, 1] on both axes (y up).
    Vec3 Direction(float x, float y, float aspect) const
    {
        return Normalize(_forward + _right * (x * _fTanHalfFov * aspect) +
                         _up * (y * _fTanHalfFov));
    }
};

struct FrameOutput
{
    int _nAttachment = 0;
    Channel _eChannel = kCH_Radiance;
};

// What the frame primitive's program says, each part with its default when
// the program does not say it: the camera at the origin looking down -z,
// a black background, radiance to attachment 0.
struct FrameView
{
    Camera _camera;
    Vec3 _background;
    std::vector<FrameOutput> _outputs;
};

FrameView ResolveFrameView(const Context& context);

} // namespace Kestrel

#endif // KESTREL_SCENE_H
