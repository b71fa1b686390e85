// One pass of the demo's sphere scene at 640 x 480 through the wrapper,
// against a bare Embree loop that shoots the same primary rays into the same
// spheres and ground. The library's primary case writes only depth, so its
// runtime stops every path at the first hit: one ray per pixel, as in the
// loop. The full pass traces radiance paths and has no reference.
#include "BenchSupport.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

namespace
{

constexpr int kWidth = 640;
constexpr int kHeight = 480;

const char* const kSphereSource = "uniform vec3 center;\nuniform float radius = 1.0;\n"
                                  "sphere(center, radius);\n";
const char* const kPlaneSource =
    "uniform vec3 point;\nuniform vec3 normal;\nplane(point, normal);\n";
const char* const kDiffuseSource = "uniform vec3 albedo = vec3(0.8, 0.8, 0.8);\ndiffuse(albedo);\n";
const char* const kEmissiveSource = "uniform vec3 radiance;\nemissive(radiance);\n";
const char* const kMirrorSource = "uniform vec3 tint = vec3(0.95, 0.95, 0.95);\nmirror(tint);\n";
const char* const kGlassSource = "uniform float ior = 1.5;\nglass(ior);\n";
const char* const kFrameHead = R"(
uniform vec3 eye;
uniform vec3 target;
uniform vec3 up = vec3(0.0, 1.0, 0.0);
uniform float fov = 40.0;
uniform vec3 sky = vec3(0.35, 0.45, 0.6);
camera(eye, target, up, fov);
background(sky);
)";

struct Sphere
{
    float x, y, z, r;
};

const Vireo::Vector3f kEye = {0, 1.6f, 4.2f};
const Vireo::Vector3f kTarget = {0, 0.4f, -1.0f};
constexpr float kFov = 45.0f;

// Nine balls in three rows and the light above them; the ground is y = 0.
std::vector<Sphere> Spheres()
{
    std::vector<Sphere> spheres;
    for (int i = 0; i < 9; ++i)
        spheres.push_back({(static_cast<float>(i % 3) - 1.0f) * 1.1f, 0.45f,
                           -static_cast<float>(i / 3) * 1.1f, 0.45f});
    spheres.push_back({-3, 6, 3, 1});
    return spheres;
}

// The scene made through the wrapper, given back in reverse order.
class WrapperScene
{
public:
    explicit WrapperScene(Vireo::IKestrelContext* context) : _pContext(context) {}
    ~WrapperScene()
    {
        for (auto it = _primitives.rbegin(); it != _primitives.rend(); ++it)
            _pContext->DestroyIKSPrimitive(*it);
        if (Vireo::IKSPrimitive* frame = _pContext->TheNullPrimitive())
        {
            frame->Bind();
            ksUseProgram(nullptr);
        }
        for (auto it = _programs.rbegin(); it != _programs.rend(); ++it)
            _pContext->DestroyIKSProgram(*it);
        for (auto it = _shaders.rbegin(); it != _shaders.rend(); ++it)
            _pContext->DestroyIKSShader(*it);
    }
    WrapperScene(const WrapperScene&) = delete;
    WrapperScene& operator=(const WrapperScene&) = delete;

    // `outputs`: the frame program's output statements.
    bool Build(const std::string& outputs)
    {
        using Vireo::IKSShader;
        using Vireo::Vector3f;
        IKSShader* sphere = _Shader(IKSShader::kST_Vertex, kSphereSource);
        IKSShader* plane = _Shader(IKSShader::kST_Vertex, kPlaneSource);
        IKSShader* diffuse = _Shader(IKSShader::kST_Kind2, kDiffuseSource);
        IKSShader* emissive = _Shader(IKSShader::kST_Kind2, kEmissiveSource);
        IKSShader* mirror = _Shader(IKSShader::kST_Kind2, kMirrorSource);
        IKSShader* glass = _Shader(IKSShader::kST_Kind2, kGlassSource);
        IKSShader* frame = _Shader(IKSShader::kST_Kind3, std::string(kFrameHead) + outputs);
        if (!sphere || !plane || !diffuse || !emissive || !mirror || !glass || !frame)
            return false;
        Vireo::IKSProgram* ground = _Program({plane, diffuse});
        Vireo::IKSProgram* matte = _Program({sphere, diffuse});
        Vireo::IKSProgram* chrome = _Program({sphere, mirror});
        Vireo::IKSProgram* crystal = _Program({sphere, glass});
        Vireo::IKSProgram* lamp = _Program({sphere, emissive});
        Vireo::IKSProgram* view = _Program({frame});
        if (!ground || !matte || !chrome || !crystal || !lamp || !view)
            return false;

        Vireo::IKSPrimitive* floor = _Primitive(ground);
        floor->SetUniform("point", ground->GetLocationUniform("point"), Vector3f{0, 0, 0});
        floor->SetUniform("normal", ground->GetLocationUniform("normal"), Vector3f{0, 1, 0});
        floor->SetUniform("albedo", ground->GetLocationUniform("albedo"),
                          Vector3f{0.5f, 0.5f, 0.5f});
        const std::vector<Sphere> spheres = Spheres();
        Vireo::IKSProgram* const kinds[3] = {matte, chrome, crystal};
        for (std::size_t i = 0; i < spheres.size(); ++i)
        {
            Vireo::IKSProgram* program = i + 1 == spheres.size() ? lamp : kinds[i % 3];
            Vireo::IKSPrimitive* ball = _Primitive(program);
            const Sphere& s = spheres[i];
            ball->SetUniform("center", program->GetLocationUniform("center"),
                             Vector3f{s.x, s.y, s.z});
            ball->SetUniform("radius", program->GetLocationUniform("radius"), s.r);
            if (program == lamp)
                ball->SetUniform("radiance", lamp->GetLocationUniform("radiance"),
                                 Vector3f{30, 27, 22});
        }
        Vireo::IKSPrimitive* framePrimitive = _pContext->TheNullPrimitive();
        if (framePrimitive == nullptr)
            return false;
        framePrimitive->Bind();
        ksUseProgram(view->GetKSProgram());
        framePrimitive->SetUniform("eye", view->GetLocationUniform("eye"), kEye);
        framePrimitive->SetUniform("target", view->GetLocationUniform("target"), kTarget);
        framePrimitive->SetUniform("fov", view->GetLocationUniform("fov"), kFov);
        return true;
    }

private:
    Vireo::IKSShader* _Shader(Vireo::IKSShader::Type type, std::string source)
    {
        Vireo::IKSShader* shader = _pContext->CreateIKSShader(type);
        if (shader == nullptr)
            return nullptr;
        _shaders.push_back(shader);
        Vireo::Result log;
        return shader->SetString(source, &log) ? shader : nullptr;
    }
    Vireo::IKSProgram* _Program(std::initializer_list<Vireo::IKSShader*> shaders)
    {
        Vireo::IKSProgram* program = _pContext->CreateIKSProgram();
        if (program == nullptr)
            return nullptr;
        _programs.push_back(program);
        for (Vireo::IKSShader* shader : shaders)
            program->AddShader(shader);
        return program->Link() ? program : nullptr;
    }
    Vireo::IKSPrimitive* _Primitive(Vireo::IKSProgram* program)
    {
        Vireo::IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
        _primitives.push_back(primitive);
        primitive->Bind();
        ksUseProgram(program->GetKSProgram());
        return primitive;
    }

    Vireo::IKestrelContext* _pContext;
    std::vector<Vireo::IKSShader*> _shaders;
    std::vector<Vireo::IKSProgram*> _programs;
    std::vector<Vireo::IKSPrimitive*> _primitives;
};

struct FrameCase
{
    int threads;
    bool primaryOnly;
};

void Library(benchmark::State& state, FrameCase frameCase)
{
    using Attachment = Vireo::IKSFrameBufferAttachment;
    const long long attributes[] = {KS_CONTEXT_RENDER_THREADS, frameCase.threads, 0};
    Bench::BenchContext context(attributes);
    bool ok = true;
    {
        WrapperScene scene(context.Get());
        Vireo::IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
        ok =
            scene.Build(frameCase.primaryOnly ? "output(0, depth);\n" : "output(0, radiance);\n") &&
            frameBuffer->Init(kWidth, kHeight) &&
            frameBuffer->CreateAttachment(0, Attachment::kF_RGBA, Attachment::kDT_Float, false,
                                          frameCase.primaryOnly ? Attachment::kBM_Mode0
                                                                : Attachment::kBM_Mode2,
                                          Vireo::Color4f{0, 0, 0, 0}) != nullptr &&
            frameBuffer->Bind();
        if (ok && frameCase.primaryOnly)
            ok = context->SetRayDepthLimit(1);
        if (ok)
            frameBuffer->Clear();
        double rays = 0, primary = 0, hitFraction = 0, runtimeRate = 0;
        const auto start = std::chrono::steady_clock::now();
        for (auto _ : state)
        {
            if (!ok)
                break;
            ok = context->RenderFrame() == Vireo::IKestrelContext::kRFS_Finished;
            Vireo::IKestrelContext::KSRenderFrameStatistics statistics = {};
            context->GetKSStatistics(statistics);
            rays += static_cast<double>(statistics.longStatistic1 + statistics.longStatistic2 +
                                        statistics.longStatistic3);
            primary += static_cast<double>(statistics.longStatistic1);
            hitFraction += statistics.floatStatistic;
            runtimeRate += statistics.doubleStatistic2;
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!ok)
        {
            state.SkipWithError("the frame was not rendered");
        }
        else
        {
            const double frames = static_cast<double>(state.iterations());
            // Over wall-clock time: the frame runs on the runtime's workers.
            state.counters["Mrays/s"] = rays / 1e6 / seconds;
            state.counters["rays/frame"] = rays / frames;
            state.counters["primary/frame"] = primary / frames;
            state.counters["hit fraction"] = hitFraction / frames;
            // The runtime's own figure, timed inside the frame.
            state.counters["runtime Mrays/s"] = runtimeRate / frames;
        }
        context->DestroyIKSFrameBuffer(frameBuffer);
    }
}

// The camera of the runtime: forward to the target, right and up square to
// it, image coordinates from -1 to 1 scaled by the half angle.
struct Camera
{
    float eye[3], forward[3], right[3], up[3], tanHalf, aspect;
};

void Normalize(float* v)
{
    const float length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    for (int i = 0; i < 3; ++i)
        v[i] /= length;
}

Camera MakeCamera()
{
    Camera camera = {};
    camera.eye[0] = kEye.x;
    camera.eye[1] = kEye.y;
    camera.eye[2] = kEye.z;
    camera.forward[0] = kTarget.x - kEye.x;
    camera.forward[1] = kTarget.y - kEye.y;
    camera.forward[2] = kTarget.z - kEye.z;
    Normalize(camera.forward);
    const float* f = camera.forward;
    // right = forward x (0, 1, 0); up = right x forward
    camera.right[0] = -f[2];
    camera.right[1] = 0;
    camera.right[2] = f[0];
    Normalize(camera.right);
    const float* r = camera.right;
    camera.up[0] = r[1] * f[2] - r[2] * f[1];
    camera.up[1] = r[2] * f[0] - r[0] * f[2];
    camera.up[2] = r[0] * f[1] - r[1] * f[0];
    camera.tanHalf = std::tan(kFov * 3.14159265f / 360.0f);
    camera.aspect = static_cast<float>(kWidth) / static_cast<float>(kHeight);
    return camera;
}

// Rows [y0, y1) of primary rays through pixel centres; returns the hits.
long long TraceRows(RTCScene scene, const Camera& camera, int y0, int y1)
{
    long long hits = 0;
    RTCIntersectContext intersectContext;
    for (int y = y0; y < y1; ++y)
        for (int x = 0; x < kWidth; ++x)
        {
            const float sx = (2.0f * (static_cast<float>(x) + 0.5f) / kWidth - 1.0f) *
                             camera.tanHalf * camera.aspect;
            const float sy =
                (2.0f * (static_cast<float>(y) + 0.5f) / kHeight - 1.0f) * camera.tanHalf;
            float d[3];
            for (int i = 0; i < 3; ++i)
                d[i] = camera.forward[i] + camera.right[i] * sx + camera.up[i] * sy;
            Normalize(d);
            rtcInitIntersectContext(&intersectContext);
            RTCRayHit rayHit = {};
            rayHit.ray.org_x = camera.eye[0];
            rayHit.ray.org_y = camera.eye[1];
            rayHit.ray.org_z = camera.eye[2];
            rayHit.ray.dir_x = d[0];
            rayHit.ray.dir_y = d[1];
            rayHit.ray.dir_z = d[2];
            rayHit.ray.tnear = 0.0f;
            rayHit.ray.tfar = 1e30f;
            rayHit.ray.mask = ~0u;
            rayHit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(scene, &intersectContext, &rayHit);
            hits += rayHit.hit.geomID != RTC_INVALID_GEOMETRY_ID ? 1 : 0;
        }
    return hits;
}

// The same spheres as Embree's own point spheres and the ground as one
// large quad.
RTCScene BuildEmbreeScene(RTCDevice device)
{
    RTCScene scene = rtcNewScene(device);
    const std::vector<Sphere> spheres = Spheres();
    RTCGeometry balls = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_SPHERE_POINT);
    auto* points = static_cast<float*>(rtcSetNewGeometryBuffer(
        balls, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT4, 4 * sizeof(float), spheres.size()));
    for (std::size_t i = 0; i < spheres.size(); ++i)
    {
        points[i * 4 + 0] = spheres[i].x;
        points[i * 4 + 1] = spheres[i].y;
        points[i * 4 + 2] = spheres[i].z;
        points[i * 4 + 3] = spheres[i].r;
    }
    rtcCommitGeometry(balls);
    rtcAttachGeometry(scene, balls);
    rtcReleaseGeometry(balls);

    constexpr float kExtent = 1e4f;
    RTCGeometry ground = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_QUAD);
    auto* corners = static_cast<float*>(rtcSetNewGeometryBuffer(
        ground, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), 4));
    const float quad[12] = {-kExtent, 0, -kExtent, -kExtent, 0, kExtent,
                            kExtent,  0, kExtent,  kExtent,  0, -kExtent};
    std::copy(quad, quad + 12, corners);
    auto* index = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        ground, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT4, 4 * sizeof(unsigned), 1));
    for (unsigned i = 0; i < 4; ++i)
        index[i] = i;
    rtcCommitGeometry(ground);
    rtcAttachGeometry(scene, ground);
    rtcReleaseGeometry(ground);
    rtcCommitScene(scene);
    return scene;
}

void Reference(benchmark::State& state, FrameCase frameCase)
{
    RTCDevice device = rtcNewDevice(nullptr);
    RTCScene scene = BuildEmbreeScene(device);
    const Camera camera = MakeCamera();
    long long hits = 0;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state)
    {
        // The calling thread takes the first band, as the runtime's calling
        // thread takes part in its frame; the others get a thread each.
        const int threads = frameCase.threads;
        std::vector<long long> counts(static_cast<std::size_t>(threads), 0);
        std::vector<std::thread> workers;
        for (int t = 1; t < threads; ++t)
            workers.emplace_back(
                [&, t]()
                {
                    counts[static_cast<std::size_t>(t)] = TraceRows(
                        scene, camera, kHeight * t / threads, kHeight * (t + 1) / threads);
                });
        counts[0] = TraceRows(scene, camera, 0, kHeight / threads);
        for (std::thread& worker : workers)
            worker.join();
        for (long long count : counts)
            hits += count;
        benchmark::DoNotOptimize(hits);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double frames = static_cast<double>(state.iterations());
    const double rays = static_cast<double>(kWidth) * kHeight * frames;
    state.counters["Mrays/s"] = rays / 1e6 / seconds;
    state.counters["rays/frame"] = static_cast<double>(kWidth) * kHeight;
    state.counters["primary/frame"] = static_cast<double>(kWidth) * kHeight;
    state.counters["hit fraction"] = static_cast<double>(hits) / rays;
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);
}

int RegisterAll()
{
    for (int threads : {1, 2})
    {
        const std::string base =
            "Frame/primary " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        benchmark::RegisterBenchmark((base + ":library").c_str(), Library, FrameCase{threads, true})
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((base + ":reference").c_str(), Reference,
                                     FrameCase{threads, true})
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("Frame/path traced 2 threads", Library, FrameCase{2, false})
        ->Unit(benchmark::kMillisecond);
    return 0;
}

const int g_registered = RegisterAll();

} // namespace
