#include "PathTracer.h"

#include "Scene.h"

#include <algorithm>
#include <cmath>
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

// The power heuristic's weight of a strategy of density `pdf` beside
// another of density `other`.
float PowerWeight(float pdf, float other)
{
    const float a = pdf * pdf, b = other * other;
    return a + b > 0.0f && std::isfinite(a + b) ? a / (a + b) : (pdf > other ? 1.0f : 0.0f);
}

// A surface that scatters into the hemisphere around its shading normal:
// Lambertian, or metallic-roughness (a Lambertian base under a GGX
// specular layer).
struct Scatterer
{
    bool _bLayered = false;
    Vec3 _base;           // the albedo, or the base colour
    float _fMetallic = 0; // layered only
    float _fAlpha2 = 1;   // layered: the GGX alpha (roughness squared), squared
    float _fAlpha = 1;    //
    float _fSpecular = 1; // layered: the chance of drawing from the specular lobe
    Vec3 _normal;         // unit, shading normal on the side of the outgoing ray
    Vec3 _tangent, _bitangent;

    Vec3 Local(const Vec3& v) const
    {
        return {Dot(v, _tangent), Dot(v, _bitangent), Dot(v, _normal)};
    }
    Vec3 World(const Vec3& v) const
    {
        return Normalize(_tangent * v.x + _bitangent * v.y + _normal * v.z);
    }
};

// Roughness is kept off 0, where the lobe becomes a spike of infinite
// density.
constexpr float kMinRoughness = 0.03f;
constexpr float kDielectricF0 = 0.04f;

float SmithLambda(float cosine, float alpha2)
{
    const float c2 = cosine * cosine;
    return 0.5f * (std::sqrt(1.0f + alpha2 * std::max(0.0f, 1.0f - c2) / c2) - 1.0f);
}

float Schlick(float cosine)
{
    const float m = std::clamp(1.0f - cosine, 0.0f, 1.0f);
    const float m2 = m * m;
    return m2 * m2 * m;
}

Scatterer MakeScatterer(const Scene& scene, const Material& material, const SurfaceHit& hit,
                        const Vec3& normal, const Vec3& out)
{
    Scatterer s;
    s._normal = normal;
    OrthonormalBasis(normal, &s._tangent, &s._bitangent);
    if (material._eKind != kMK_MetallicRoughness)
    {
        s._base = scene.AlbedoAt(material, hit);
        return s;
    }
    const SurfaceLayers layers = scene.LayersAt(material, hit);
    s._bLayered = true;
    s._base = Vec3(std::max(0.0f, layers._base.x), std::max(0.0f, layers._base.y),
                   std::max(0.0f, layers._base.z));
    s._fMetallic = layers._fMetallic;
    const float roughness = std::max(kMinRoughness, layers._fRoughness);
    s._fAlpha = roughness * roughness;
    s._fAlpha2 = s._fAlpha * s._fAlpha;
    // Each lobe drawn in proportion to roughly what it reflects.
    const float fresnel = Schlick(std::max(0.0f, Dot(normal, out)));
    const float f0 = kDielectricF0 * (1.0f - s._fMetallic) +
                     s._fMetallic * (s._base.x + s._base.y + s._base.z) / 3.0f;
    const float specular = f0 + (1.0f - f0) * fresnel;
    const float diffuse =
        (1.0f - s._fMetallic) * (1.0f - kDielectricF0) * (s._base.x + s._base.y + s._base.z) / 3.0f;
    s._fSpecular =
        specular + diffuse > 0.0f ? std::max(0.05f, specular / (specular + diffuse)) : 1.0f;
    if (diffuse <= 0.0f)
        s._fSpecular = 1.0f;
    return s;
}

// The reflectance from `in` to `out` (both unit, away from the surface)
// and the density with which Scatter draws `in`.
Vec3 Evaluate(const Scatterer& s, const Vec3& out, const Vec3& in, float* pdf)
{
    *pdf = 0.0f;
    const float cosOut = Dot(s._normal, out);
    const float cosIn = Dot(s._normal, in);
    if (!(cosOut > 0.0f) || !(cosIn > 0.0f))
        return {};
    if (!s._bLayered)
    {
        *pdf = cosIn / kPi;
        return s._base * (1.0f / kPi);
    }
    const Vec3 half = Normalize(out + in);
    const float cosHalf = Dot(s._normal, half);
    const float outHalf = std::max(0.0f, Dot(out, half));
    const float d = cosHalf * cosHalf * (s._fAlpha2 - 1.0f) + 1.0f;
    const float distribution = s._fAlpha2 / (kPi * d * d);
    const float lambdaOut = SmithLambda(cosOut, s._fAlpha2);
    const float lambdaIn = SmithLambda(cosIn, s._fAlpha2);
    // Height-correlated shadowing and masking.
    const float shadowing = 1.0f / (1.0f + lambdaOut + lambdaIn);
    const float fresnel = Schlick(outHalf);
    const Vec3 f0 = Vec3(kDielectricF0 * (1.0f - s._fMetallic)) + s._base * s._fMetallic;
    const Vec3 specular =
        (f0 + (Vec3(1.0f) - f0) * fresnel) * (distribution * shadowing / (4.0f * cosOut * cosIn));
    const float diffuseWeight =
        (1.0f - s._fMetallic) * (1.0f - (kDielectricF0 + (1.0f - kDielectricF0) * fresnel));
    // Visible normals: D G1(out) / (4 cos(out)).
    const float specularPdf = distribution / (4.0f * cosOut * (1.0f + lambdaOut));
    *pdf = s._fSpecular * specularPdf + (1.0f - s._fSpecular) * cosIn / kPi;
    const Vec3 f = specular + s._base * (diffuseWeight / kPi);
    return IsFinite(f) && std::isfinite(*pdf) ? f : (*pdf = 0.0f, Vec3());
}

// A direction drawn for the outgoing `out`: by the cosine, or by the
// visible normals of the GGX distribution.
bool Scatter(const Scatterer& s, const Vec3& out, PathRandom& random, Vec3* in)
{
    if (!s._bLayered || random.Next() >= s._fSpecular)
    {
        const float u1 = random.Next(), u2 = random.Next();
        *in = s.World(CosineHemisphere(u1, u2));
        return true;
    }
    const float u1 = random.Next(), u2 = random.Next();
    const Vec3 o = s.Local(out);
    if (!(o.z > 0.0f))
        return false;
    // Stretch to the hemisphere of alpha 1, draw a visible normal there
    // from a disc of which part is squeezed, then unstretch.
    const Vec3 v = Normalize(Vec3(s._fAlpha * o.x, s._fAlpha * o.y, o.z));
    const float length2 = v.x * v.x + v.y * v.y;
    const Vec3 t1 =
        length2 > 0.0f ? Vec3(-v.y, v.x, 0.0f) * (1.0f / std::sqrt(length2)) : Vec3(1, 0, 0);
    const Vec3 t2 = Cross(v, t1);
    const float r = std::sqrt(u1);
    const float phi = 2.0f * kPi * u2;
    const float p1 = r * std::cos(phi);
    const float blend = 0.5f * (1.0f + v.z);
    const float p2 =
        (1.0f - blend) * std::sqrt(std::max(0.0f, 1.0f - p1 * p1)) + blend * r * std::sin(phi);
    const Vec3 nh = t1 * p1 + t2 * p2 + v * std::sqrt(std::max(0.0f, 1.0f - p1 * p1 - p2 * p2));
    const Vec3 m = Normalize(Vec3(s._fAlpha * nh.x, s._fAlpha * nh.y, std::max(0.0f, nh.z)));
    const Vec3 i = m * (2.0f * Dot(o, m)) - o;
    if (!(i.z > 0.0f))
        return false;
    *in = s.World(i);
    return true;
}

// Light from the sampled emitters that reaches a scattering point
// unblocked: one emitter sample, weighed against the chance that the
// scattered ray finds the same light.
Vec3 DirectLight(const Scene& scene, const SurfaceHit& hit, const Vec3& facing,
                 const Scatterer& scatterer, const Vec3& out, PathRandom& random,
                 TileStatistics* statistics)
{
    LightSample light;
    if (!SampleUnblockedLight(scene, hit, facing, random, statistics, &light))
        return {};
    float pdf = 0.0f;
    const Vec3 f = Evaluate(scatterer, out, light._direction, &pdf);
    if (!(pdf > 0.0f))
        return {};
    return f * light._radiance *
           (Dot(scatterer._normal, light._direction) * PowerWeight(light._fPdf, pdf) / light._fPdf);
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
    // a scattering bounce, an emitter that direct light samples counts by
    // its weight against that strategy.
    bool countEmission = true;
    float scatterPdf = 0.0f; // of the last scattering bounce's direction
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
            result->_normal = Dot(hit._shading, facing) < 0.0f ? -hit._shading : hit._shading;
            switch (material._eKind)
            {
            case kMK_Diffuse:
            case kMK_MetallicRoughness:
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
        const Vec3 emitted = scene.EmissionAt(material, hit, rayDirection);
        if (MaxComponent(emitted) > 0.0f)
        {
            if (countEmission || !scene.IsSampledEmitter(hit._nShape))
                result->_radiance += throughput * emitted;
            else
                result->_radiance +=
                    throughput * emitted *
                    PowerWeight(scatterPdf, scene.LightPdf(rayOrigin, rayDirection, hit));
        }
        if (material._eKind == kMK_Emissive)
            break; // emitters absorb what reaches them
        if (bounce >= request._nDepthLimit)
            break;
        switch (material._eKind)
        {
        case kMK_Diffuse:
        case kMK_MetallicRoughness:
        {
            const Vec3 out = -rayDirection;
            // The shading normal on the side the ray comes from; where it
            // turns away from the ray, the surface's own.
            Vec3 normal = Dot(hit._shading, facing) < 0.0f ? -hit._shading : hit._shading;
            if (!(Dot(normal, out) > 0.0f))
                normal = facing;
            const Scatterer scatterer = MakeScatterer(scene, material, hit, normal, out);
            if (scene.HasLights())
                result->_radiance += throughput * DirectLight(scene, hit, facing, scatterer, out,
                                                              random, statistics);
            Vec3 in;
            float pdf = 0.0f;
            if (!Scatter(scatterer, out, random, &in) || !(Dot(facing, in) > 0.0f))
                return;
            const Vec3 f = Evaluate(scatterer, out, in, &pdf);
            if (!(pdf > 0.0f))
                return;
            // For the diffuse, cosine sampling cancels the cosine and the
            // 1/pi of the reflectance: what is left is the albedo.
            throughput *= scatterer._bLayered ? f * (Dot(normal, in) / pdf) : scatterer._base;
            rayDirection = in;
            scatterPdf = pdf;
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
