#include "PathTracer.h"

#include "Scene.h"

#include <limits>

namespace Kestrel
{

namespace
{

constexpr float kFar = std::numeric_limits<float>::infinity();
// Paths this long have shown what they carry; from here on they end at
// random, in proportion to how little they still carry.
constexpr int kRouletteAfter = 3;
// A shadow ray stops this much short of the point on the emitter, so that
// it cannot hit the emitter itself.
constexpr float kShadowShortfall = 1e-4f;

// How far a new ray starts off its surface: enough to clear the rounding
// of the hit point, which grows with the point's distance from the origin.
Vec3 Lifted(const Vec3& point, const Vec3& side)
{
    return point + side * (1e-4f * (1.0f + MaxAbsComponent(point)));
}

Vec3 OffsetOrigin(const Vec3& point, const Vec3& normal, const Vec3& direction)
{
    return Lifted(point, Dot(normal, direction) >= 0.0f ? normal : -normal);
}

// An emitter sample and the answer of its shadow ray, both from the point
// lifted off its surface: a shadow ray that started elsewhere than its
// sample would meet the emitter short of the sampled point wherever it
// grazes it.
bool SampleUnblockedLight(const Scene& scene, const SurfaceHit& hit, const Vec3& facing,
                          PathRandom& random, TileStatistics* statistics, LightSample* light)
{
    const float u0 = random.Next(), u1 = random.Next(), u2 = random.Next(), u3 = random.Next();
    const Vec3 origin = Lifted(hit._position, facing);
    if (!scene.SampleLight(origin, u0, u1, u2, u3, light) ||
        !(Dot(facing, light->_direction) > 0.0f) || !(light->_fPdf > 0.0f))
        return false;
    ++statistics->_nShadowRays;
    return !scene.Occluded(origin, light->_direction,
                           light->_fDistance * (1.0f - kShadowShortfall));
}

Vec3 AroundNormal(const Vec3& normal, const Vec3& local)
{
    Vec3 t, b;
    OrthonormalBasis(normal, &t, &b);
    return Normalize(t * local.x + b * local.y + normal * local.z);
}

// Light from the sampled emitters that reaches a diffuse point unblocked:
// one emitter sample, divided by its probability.
Vec3 DirectLight(const Scene& scene, const SurfaceHit& hit, const Vec3& facing, const Vec3& albedo,
                 PathRandom& random, TileStatistics* statistics)
{
    LightSample light;
    if (!SampleUnblockedLight(scene, hit, facing, random, statistics, &light))
        return {};
    return albedo * light._radiance * (Dot(facing, light._direction) / (kPi * light._fPdf));
}

// 1 when the point sees what lights it: a point drawn on an emitter when
// the scene has emitters to draw from, otherwise the background in a
// cosine-distributed direction.
float Visibility(const Scene& scene, const SurfaceHit& hit, const Vec3& facing, PathRandom& random,
                 TileStatistics* statistics)
{
    if (scene.HasLights())
    {
        LightSample light;
        return SampleUnblockedLight(scene, hit, facing, random, statistics, &light) ? 1.0f : 0.0f;
    }
    const float u1 = random.Next(), u2 = random.Next();
    const Vec3 direction = AroundNormal(facing, CosineHemisphere(u1, u2));
    ++statistics->_nShadowRays;
    return scene.Occluded(OffsetOrigin(hit._position, facing, direction), direction, kFar) ? 0.0f
                                                                                           : 1.0f;
}

// Reflects or refracts at a dielectric, chosen by the Fresnel reflectance.
Vec3 Dielectric(const Vec3& direction, const Vec3& normal, float ior, float u)
{
    float cosine = -Dot(direction, normal);
    const bool entering = cosine > 0.0f;
    const float etaI = entering ? 1.0f : ior;
    const float etaT = entering ? ior : 1.0f;
    const Vec3 towards = entering ? normal : -normal; // the side the ray comes from
    cosine = std::fabs(cosine);
    const float eta = etaI / etaT;
    const float sin2 = eta * eta * std::max(0.0f, 1.0f - cosine * cosine);
    float reflectance = 1.0f; // total internal reflection
    float cosineT = 0.0f;
    if (sin2 < 1.0f)
    {
        cosineT = std::sqrt(1.0f - sin2);
        const float s = (etaI * cosine - etaT * cosineT) / (etaI * cosine + etaT * cosineT);
        const float p = (etaT * cosine - etaI * cosineT) / (etaT * cosine + etaI * cosineT);
        reflectance = 0.5f * (s * s + p * p);
    }
    if (u < reflectance)
        return Normalize(direction + towards * (2.0f * cosine));
    return Normalize(direction * eta + towards * (eta * cosine - cosineT));
}

} // namespace

void TracePath(const Scene& scene, const Vec3& origin, const Vec3& direction,
               const PathRequest& request, PathRandom& random, PathResult* result,
               TileStatistics* statistics)
{
    *result = PathResult();
    Vec3 rayOrigin = origin;
    Vec3 rayDirection = direction;
    Vec3 throughput(1.0f);
    // Emission seen by the camera or through a mirror counts in full; after
    // a diffuse bounce, emitters that direct light samples were counted
    // there already.
    bool countEmission = true;
    ++statistics->_nPrimaryRays;
    for (int bounce = 0;; ++bounce)
    {
        SurfaceHit hit;
        if (!scene.Intersect(rayOrigin, rayDirection, kFar, &hit))
        {
            result->_radiance += throughput * request._background;
            break;
        }
        const Material& material = scene.MaterialOf(hit);
        const Vec3 facing = Dot(rayDirection, hit._normal) < 0.0f ? hit._normal : -hit._normal;
        if (bounce == 0)
        {
            ++statistics->_nHits;
            result->_bHit = true;
            result->_fDepth = hit._fDistance;
            result->_normal = facing;
            switch (material._eKind)
            {
            case kMK_Diffuse:
                result->_albedo = scene.AlbedoAt(material, hit);
                break;
            case kMK_Glass:
                result->_albedo = Vec3(1.0f);
                break;
            default:
                result->_albedo = material._color;
                break;
            }
            if (request._bVisibility)
                result->_fVisibility = material._eKind == kMK_Emissive
                                           ? 1.0f
                                           : Visibility(scene, hit, facing, random, statistics);
            if (!request._bRadiance)
                break;
        }
        if (material._eKind == kMK_Emissive)
        {
            if (countEmission || !scene.IsSampledEmitter(hit._nShape))
                result->_radiance += throughput * material._color;
            break; // emitters absorb what reaches them
        }
        if (bounce >= request._nDepthLimit)
            break;
        switch (material._eKind)
        {
        case kMK_Diffuse:
        {
            const Vec3 albedo = scene.AlbedoAt(material, hit);
            if (scene.HasLights())
                result->_radiance +=
                    throughput * DirectLight(scene, hit, facing, albedo, random, statistics);
            const float u1 = random.Next(), u2 = random.Next();
            rayDirection = AroundNormal(facing, CosineHemisphere(u1, u2));
            // Cosine sampling cancels the cosine and the 1/pi of the
            // diffuse reflectance: what is left is the albedo.
            throughput *= albedo;
            countEmission = false;
            break;
        }
        case kMK_Mirror:
            rayDirection =
                Normalize(rayDirection - hit._normal * (2.0f * Dot(rayDirection, hit._normal)));
            throughput *= material._color;
            countEmission = true;
            break;
        default: // glass
            rayDirection = Dielectric(rayDirection, hit._normal, material._fIor, random.Next());
            countEmission = true;
            break;
        }
        rayOrigin = OffsetOrigin(hit._position, hit._normal, rayDirection);
        if (bounce + 1 >= kRouletteAfter)
        {
            const float survival = std::min(0.95f, MaxComponent(throughput));
            if (!(survival > 0.0f) || random.Next() >= survival)
                break;
            throughput *= 1.0f / survival;
        }
        else if (!(MaxComponent(throughput) > 0.0f))
            break;
        ++statistics->_nSecondaryRays;
    }
}

} // namespace Kestrel
