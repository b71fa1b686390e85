// Rendering through the API: images are checked by their properties
// (where a shape covers, what a furnace converges to, what direct light an
// emitter gives by the closed forms), never against stored pictures.
#include "KestrelFixture.h"

#include <array>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace KestrelTest
{
namespace
{

constexpr int kVertex = KS_VERTEX_SHADER;
constexpr int kRay = KS_SHADER_KIND_2;
constexpr int kFrame = KS_SHADER_KIND_3;
constexpr double kPi = 3.14159265358979323846;

const char* const kSphere = "uniform vec3 centre;\nuniform float radius = 1.0;\n"
                            "sphere(centre, radius);\n";
const char* const kPlacedSphere = "uniform vec3 centre;\nuniform float radius = 1.0;\n"
                                  "uniform mat4 placement;\n"
                                  "sphere(centre, radius);\ntransform(placement);\n";
const char* const kBox = "uniform vec3 lo;\nuniform vec3 hi;\nbox(lo, hi);\n";
const char* const kPlane = "uniform vec3 point;\nuniform vec3 normal;\nplane(point, normal);\n";
const char* const kMesh = "uniformblock mesh;\ntriangles(mesh);\n";
const char* const kPlacedMesh = "uniformblock mesh;\nuniform mat4 placement;\n"
                                "triangles(mesh);\ntransform(placement);\n";
const char* const kIndexedMesh =
    "uniformblock mesh;\nuniform int vertices;\nuniform int triangles;\n"
    "uniform mat4 placement = mat4(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, "
    "0, 0, 0, 0, 1);\n"
    "mesh(mesh, vertices, triangles);\ntransform(placement);\n";
const char* const kDiffuse = "uniform vec3 albedo = vec3(0.8, 0.8, 0.8);\ndiffuse(albedo);\n";
const char* const kEmissive = "uniform vec3 radiance;\nemissive(radiance);\n";
const char* const kMirror = "uniform vec3 tint;\nmirror(tint);\n";
const char* const kGlass = "uniform float ior = 1.5;\nglass(ior);\n";
const char* const kTextured = "uniform texture map;\ndiffuse_texture(map);\n";

// The frame shader: a camera and a sky from uniforms, then `outputs`.
std::string FrameSource(const std::string& outputs)
{
    return "uniform vec3 eye;\nuniform vec3 target = vec3(0, 0, -1);\n"
           "uniform vec3 up = vec3(0, 1, 0);\nuniform float fov = 60.0;\nuniform vec3 sky;\n"
           "camera(eye, target, up, fov);\nbackground(sky);\n" +
           outputs;
}

using Vec = std::array<double, 3>;

Vec Sub(const Vec& a, const Vec& b)
{
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
double Dot(const Vec& a, const Vec& b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Vec Cross(const Vec& a, const Vec& b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Vec Unit(const Vec& a)
{
    const double length = std::sqrt(Dot(a, a));
    return {a[0] / length, a[1] / length, a[2] / length};
}

// The projected solid angle of a polygon seen from point p with normal n
// (Lambert's closed form); an emitter of radiance L gives irradiance L times
// this.
double ProjectedSolidAngle(const Vec& p, const Vec& n, const std::vector<Vec>& polygon)
{
    double sum = 0.0;
    for (std::size_t i = 0; i < polygon.size(); ++i)
    {
        const Vec a = Unit(Sub(polygon[i], p));
        const Vec b = Unit(Sub(polygon[(i + 1) % polygon.size()], p));
        sum += std::acos(std::max(-1.0, std::min(1.0, Dot(a, b)))) * Dot(n, Unit(Cross(a, b)));
    }
    return std::fabs(sum) / 2.0;
}

// A column-major mat4 that scales by `s` and then moves by `t`.
std::array<float, 16> Placement(std::array<float, 3> s, std::array<float, 3> t)
{
    return {s[0], 0, 0, 0, 0, s[1], 0, 0, 0, 0, s[2], 0, t[0], t[1], t[2], 1};
}

// Helpers are public: scene builders outside the test bodies use them too.
class Renderer : public KestrelFixture
{
public:
    // A linked program of the given shaders.
    _KSprogram* Program(std::initializer_list<std::pair<int, std::string>> shaders)
    {
        _KSprogram* program = ksCreateProgram();
        for (const auto& shader : shaders)
        {
            _KSshader* object = ksCreateShader(shader.first);
            const char* text = shader.second.c_str();
            ksShaderSource(object, 1, &text, nullptr);
            ksCompileShader(object);
            int status = 0;
            ksGetShaderiv(object, KS_COMPILE_STATUS, &status);
            const char* log = nullptr;
            ksGetShaderString(object, KS_SHADER_LOG, &log);
            EXPECT_EQ(status, 1) << shader.second << (log ? log : "");
            ksAttachShader(program, object);
        }
        ksLinkProgram(program);
        int status = 0;
        ksGetProgramiv(program, KS_LINK_STATUS, &status);
        const char* log = nullptr;
        ksGetProgramString(program, KS_PROGRAM_LOG, &log);
        EXPECT_EQ(status, 1) << (log ? log : "");
        return program;
    }

    // A primitive drawn with `program`, left bound for Set.
    // A frame whose narrow camera looks straight down at the origin from 5
    // units above, so every pixel sees a floor at y = 0 head-on.
    void LookStraightDown(const std::string& outputs)
    {
        UseFrame(Program({{kFrame, FrameSource(outputs)}}));
        Set("eye", {0, 5, 0});
        Set("target", {0, 0, 0});
        Set("up", {0, 0, -1});
        Set("fov", {0.5f});
    }

    KSprimitive Primitive(_KSprogram* program)
    {
        const KSprimitive primitive = NewPrimitive();
        ksBindPrimitive(KS_PRIMITIVE, primitive);
        ksUseProgram(program);
        _pProgram = program;
        return primitive;
    }

    // The frame primitive takes `program`; Set then acts on it.
    void UseFrame(_KSprogram* program)
    {
        ksBindPrimitive(KS_PRIMITIVE, KSprimitive(0));
        ksUseProgram(program);
        _pProgram = program;
    }

    // A uniform of the bound primitive by name: 1, 3 or 16 floats.
    void Set(const char* name, std::initializer_list<float> values)
    {
        const int location = ksGetUniformLocation(_pProgram, name);
        ASSERT_GE(location, 0) << name;
        const std::vector<float> v(values);
        if (v.size() == 1)
            ksUniform1f(location, v[0]);
        else if (v.size() == 3)
            ksUniform3fv(location, 1, v.data());
        else
            ksUniformMatrix4fv(location, 1, 0, v.data());
    }
    void SetMatrix(const char* name, const std::array<float, 16>& m)
    {
        ksUniformMatrix4fv(ksGetUniformLocation(_pProgram, name), 1, 0, m.data());
    }

    // Triangles for the bound primitive's block "mesh", in a new buffer.
    _KSbuffer* Mesh(const std::vector<float>& floats)
    {
        _KSbuffer* buffer = NewBuffer();
        ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, buffer);
        ksBufferData(KS_UNIFORM_BLOCK_BUFFER, floats.size() * sizeof(float), floats.data(),
                     KS_STATIC_DRAW);
        ksUniformBlockBuffer(ksGetUniformBlockIndex(_pProgram, "mesh"), buffer);
        return buffer;
    }

    // A bound frame buffer with `count` RGBA float attachments of one size,
    // cleared to 0.
    void Targets(int count, int width, int height)
    {
        _nWidth = width;
        _nHeight = height;
        ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
        for (int i = 0; i < count; ++i)
        {
            _images.emplace_back(static_cast<std::size_t>(width * height * 4), 0.0f);
            Attach(i, NewClientTexture(width, height, KS_RGBA, KS_FLOAT, _images.back().data()));
        }
        ASSERT_NO_KS_ERROR();
    }

    static void SetAttachment(int index, int name, int value)
    {
        ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0 + index, name,
                                           value);
    }

    const float* At(int attachment, int x, int y) const
    {
        return &_images[static_cast<std::size_t>(attachment)]
                       [(static_cast<std::size_t>(y) * static_cast<std::size_t>(_nWidth) +
                         static_cast<std::size_t>(x)) *
                        4];
    }

    // Starts a case of a table over: a new context, nothing in it.
    void Fresh()
    {
        KestrelDestroyContext(_pContext);
        _images.clear();
        _pContext = KestrelCreateContext(nullptr, &NoticeRecorder::Callback, &_recorder);
        ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    }

    void Render()
    {
        ksRenderFrame();
        ASSERT_NO_KS_ERROR();
    }

    // Mean of one component of an attachment over a rectangle.
    double Mean(int attachment, int x0, int y0, int x1, int y1, int component = 0) const
    {
        double sum = 0.0;
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x)
                sum += At(attachment, x, y)[component];
        return sum / ((x1 - x0) * (y1 - y0));
    }

    static long long MeshBuilds()
    {
        long long builds = -1;
        EXPECT_TRUE(Kestrel::Testing::CountMeshBuilds(&builds));
        return builds;
    }
    static long long SceneBuilds()
    {
        long long builds = -1;
        EXPECT_TRUE(Kestrel::Testing::CountSceneBuilds(&builds));
        return builds;
    }

    _KSprogram* _pProgram = nullptr;
    std::deque<std::vector<float>> _images; // stable addresses: client storage
    int _nWidth = 0;
    int _nHeight = 0;
};

// ---------------------------------------------------------------------------
// Where shapes land

TEST_F(Renderer, SphereMakesADiscInEveryChannel)
{
    Targets(4, 32, 32);
    UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\noutput(1, albedo);\n"
                                           "output(2, depth);\noutput(3, normal);\n")}}));
    Set("sky", {0.2f, 0.3f, 0.4f});
    Primitive(Program({{kVertex, kSphere}, {kRay, kDiffuse}}));
    Set("centre", {0, 0, -5});
    Set("albedo", {0.5f, 0.25f, 0.125f});
    Render();

    // The sphere's angular radius is asin(1/5); half the image is 30 degrees.
    const double radius = 16.0 * std::tan(std::asin(0.2)) / std::tan(kPi / 6.0);
    int covered = 0;
    double cx = 0.0, cy = 0.0;
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x)
        {
            const double r = std::hypot(x + 0.5 - 16.0, y + 0.5 - 16.0);
            const float* radiance = At(0, x, y);
            const float* albedo = At(1, x, y);
            const float depth = At(2, x, y)[0];
            if (depth > 0.0f)
            {
                ++covered;
                cx += x + 0.5;
                cy += y + 0.5;
                EXPECT_LT(r, radius + 1.0) << x << "," << y;
                EXPECT_EQ(albedo[0], 0.5f);
                EXPECT_EQ(albedo[1], 0.25f);
                EXPECT_EQ(albedo[2], 0.125f);
                EXPECT_GE(depth, 4.0f - 1e-3f);
                // The sky lights the sphere, never brighter than itself.
                EXPECT_GT(radiance[2], 0.0f);
                EXPECT_LT(radiance[2], 0.4f);
            }
            else
            {
                EXPECT_GT(r, radius - 1.0) << x << "," << y;
                EXPECT_EQ(radiance[0], 0.2f);
                EXPECT_EQ(radiance[1], 0.3f);
                EXPECT_EQ(radiance[2], 0.4f);
                EXPECT_EQ(albedo[0] + albedo[1] + albedo[2], 0.0f);
            }
        }
    EXPECT_NEAR(covered, kPi * radius * radius, 12.0);
    ASSERT_GT(covered, 0);
    EXPECT_NEAR(cx / covered, 16.0, 0.3);
    EXPECT_NEAR(cy / covered, 16.0, 0.3);
    // The middle of the disc is the sphere's nearest point, facing us; the
    // pixel there spans 0.05 radians.
    EXPECT_NEAR(At(2, 16, 16)[0], 4.015f, 0.015f);
    EXPECT_GT(At(3, 16, 16)[2], 0.98f);

    long long primary = 0, secondary = 0;
    float hits = 0.0f;
    double rate = 0.0;
    ksGetLongv(KS_FRAME_STATISTIC_4, &primary);
    ksGetLongv(KS_FRAME_STATISTIC_6, &secondary);
    ksGetFloatv(KS_FRAME_STATISTIC_8, &hits);
    ksGetDoublev(KS_FRAME_STATISTIC_2, &rate);
    EXPECT_EQ(primary, 32 * 32);
    EXPECT_EQ(secondary, covered) << "one bounce per hit, which then escapes";
    EXPECT_FLOAT_EQ(hits, covered / 1024.0f);
    EXPECT_GT(rate, 0.0);
}

// Each shape, placed so that the ray through the image's middle meets it
// 4 units away, facing the camera.
TEST_F(Renderer, ShapesAndTransformsPlaceSurfaces)
{
    const std::vector<float> quad = {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, -1, 0, 1, 1, 0, -1, 1, 0};
    struct Case
    {
        const char* label;
        const char* source;
        std::function<void(Renderer&)> place;
        bool bounded; // a plane reaches the corners too
    };
    const Case cases[] = {
        {"sphere", kSphere,
         [](Renderer& r) {
             r.Set("centre", {0, 0, -5});
         },
         true},
        {"box", kBox,
         [](Renderer& r)
         {
             r.Set("lo", {1, 1, -6}); // the corners in either order
             r.Set("hi", {-1, -1, -4});
         },
         true},
        {"plane", kPlane,
         [](Renderer& r)
         {
             r.Set("point", {3, 2, -4});
             r.Set("normal", {0, 0, 2});
         },
         false},
        {"triangles", kMesh,
         [&quad](Renderer& r)
         {
             std::vector<float> moved = quad;
             for (std::size_t i = 2; i < moved.size(); i += 3)
                 moved[i] = -4;
             r.Mesh(moved);
         },
         true},
        {"moved sphere", kPlacedSphere,
         [](Renderer& r)
         {
             r.Set("centre", {0, 0, 0});
             r.SetMatrix("placement", Placement({1, 1, 1}, {0, 0, -5}));
         },
         true},
        {"scaled and moved triangles", kPlacedMesh,
         [&quad](Renderer& r)
         {
             r.Mesh(quad);
             r.SetMatrix("placement", Placement({0.5f, 0.5f, 1}, {0, 0, -4}));
         },
         true},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(2, 16, 16);
        UseFrame(Program({{kFrame, FrameSource("output(0, depth);\noutput(1, normal);\n")}}));
        Primitive(Program({{kVertex, c.source}, {kRay, kDiffuse}}));
        c.place(*this);
        ASSERT_NO_KS_ERROR();
        Render();
        // These pixels lie within 0.1 radians of the view's axis.
        for (int y = 7; y <= 8; ++y)
            for (int x = 7; x <= 8; ++x)
            {
                EXPECT_NEAR(At(0, x, y)[0], 4.05f, 0.05f);
                EXPECT_GT(At(1, x, y)[2], 0.95f);
            }
        EXPECT_EQ(At(0, 0, 0)[0] > 0.0f, !c.bounded);
        EXPECT_EQ(At(0, 15, 15)[0] > 0.0f, !c.bounded);
    }
}

// ---------------------------------------------------------------------------
// Materials

// Convex shapes in a uniform sky: every path that leaves them escapes, so
// what comes back is known.
TEST_F(Renderer, FurnaceGivesWhatEachMaterialPromises)
{
    struct Case
    {
        const char* label;
        const char* material;
        std::function<void(Renderer&)> set;
        std::array<float, 3> expected; // times the sky
        double tolerance;              // of the mean over the disc
        bool exact;                    // every sample, not only the mean
    };
    const Case cases[] = {
        {"diffuse",
         kDiffuse,
         [](Renderer& r) {
             r.Set("albedo", {0.5f, 0.25f, 1});
         },
         {0.5f, 0.25f, 1},
         0,
         true},
        {"mirror",
         kMirror,
         [](Renderer& r) {
             r.Set("tint", {0.5f, 1, 0.75f});
         },
         {0.5f, 1, 0.75f},
         0,
         true},
        {"emissive",
         kEmissive,
         [](Renderer& r) {
             r.Set("radiance", {3, 2, 1});
         },
         {3, 2, 1},
         0,
         true},
        // Glass returns all it takes in, some of it after many bounces.
        {"glass", kGlass, [](Renderer&) {}, {1, 1, 1}, 0.03, false},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(1, 32, 32);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\n")}}));
        Set("sky", {1, 1, 1});
        Primitive(Program({{kVertex, kSphere}, {kRay, c.material}}));
        Set("centre", {0, 0, -3});
        Set("radius", {1.2f});
        c.set(*this);
        constexpr int kFrames = 16;
        for (int frame = 0; frame < kFrames; ++frame)
            Render();
        // The middle of the disc only, away from the rim's mixed pixels.
        double sum[3] = {};
        int count = 0;
        for (int y = 10; y < 22; ++y)
            for (int x = 10; x < 22; ++x, ++count)
                for (int k = 0; k < 3; ++k)
                {
                    const float value = At(0, x, y)[k] / kFrames;
                    sum[k] += value;
                    if (c.exact)
                    {
                        EXPECT_FLOAT_EQ(value, c.expected[static_cast<std::size_t>(k)]);
                    }
                }
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(sum[k] / count, c.expected[static_cast<std::size_t>(k)],
                        c.tolerance + 1e-5);
    }
}

TEST_F(Renderer, RayDepthLimitCountsBounces)
{
    Targets(1, 8, 8);
    UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\n")}}));
    Set("sky", {1, 1, 1});
    Primitive(Program({{kVertex, kSphere}, {kRay, kDiffuse}}));
    Set("centre", {0, 0, -2});
    Set("albedo", {0.5f, 0.5f, 0.5f});
    ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 0);
    Render();
    EXPECT_EQ(At(0, 4, 4)[0], 0.0f) << "no bounce: the sky cannot reach the camera";
    EXPECT_EQ(At(0, 0, 0)[0], 1.0f) << "the sky itself is seen";
    ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 1);
    Render();
    EXPECT_EQ(At(0, 4, 4)[0], 0.5f);
}

// A diffuse floor lit by an emitter alone: the picture's middle shows the
// floor point below the camera, whose radiance has a closed form.
TEST_F(Renderer, DirectLightMatchesTheClosedForms)
{
    const Vec point = {0, 0, 0};
    const Vec up = {0, 1, 0};
    const float albedo = 0.5f;
    const float radiance = 2.0f;
    // A sphere of radius 1 at (2, 1.5, 0): sin^2 of its half angle is 1/6.25.
    const double sphere = albedo * radiance * (1.0 / 6.25) * (1.5 / 2.5);
    const std::vector<Vec> triangle = {{1, 1, -1}, {1, 1.5, 1}, {2, 2, 0}};
    std::vector<float> triangleFloats;
    for (const Vec& v : triangle)
        for (double f : v)
            triangleFloats.push_back(static_cast<float>(f));
    // The faces of the box [1, 2] x [1, 2] x [-0.5, 0.5] that face the point.
    const std::vector<std::vector<Vec>> boxFaces = {
        {{1, 1, -0.5}, {1, 2, -0.5}, {1, 2, 0.5}, {1, 1, 0.5}}, // x = 1
        {{1, 1, -0.5}, {2, 1, -0.5}, {2, 1, 0.5}, {1, 1, 0.5}}, // y = 1
    };
    double box = 0.0;
    for (const auto& face : boxFaces)
        box += ProjectedSolidAngle(point, up, face);
    box *= albedo / kPi * radiance;

    struct Case
    {
        const char* label;
        const char* shape;
        std::function<void(Renderer&)> place;
        double expected;
        double tolerance; // relative
    };
    const Case cases[] = {
        {"sphere, sampled by its cone", kSphere,
         [](Renderer& r) {
             r.Set("centre", {2, 1.5f, 0});
         },
         sphere, 0.02},
        // Not quite round: sampled by the cone of a sphere around it.
        {"stretched sphere, sampled and hit", kPlacedSphere,
         [](Renderer& r)
         {
             r.Set("centre", {0, 0, 0});
             r.SetMatrix("placement", Placement({1, 1.001f, 1}, {2, 1.5f, 0}));
         },
         sphere, 0.02},
        // Above the camera, filling the floor's sky: irradiance pi L.
        {"infinite plane, sampled and hit", kPlane,
         [](Renderer& r)
         {
             r.Set("point", {0, 6, 0});
             r.Set("normal", {0, 1, 0});
         },
         albedo * radiance, 0.02},
        {"triangle, sampled by area", kMesh, [&](Renderer& r) { r.Mesh(triangleFloats); },
         albedo / kPi * radiance * ProjectedSolidAngle(point, up, triangle), 0.03},
        {"indexed triangle, sampled by area", kIndexedMesh,
         [&](Renderer& r)
         {
             std::vector<float> floats;
             for (const Vec& v : triangle)
                 floats.insert(floats.end(),
                               {float(v[0]), float(v[1]), float(v[2]), 0, 0, 0, 0, 0});
             const std::uint32_t indices[3] = {0, 1, 2};
             floats.resize(27);
             std::memcpy(&floats[24], indices, sizeof indices);
             r.Mesh(floats);
             ksUniform1i(ksGetUniformLocation(r._pProgram, "vertices"), 3);
             ksUniform1i(ksGetUniformLocation(r._pProgram, "triangles"), 1);
         },
         albedo / kPi * radiance * ProjectedSolidAngle(point, up, triangle), 0.03},
        {"box, sampled by area", kBox,
         [](Renderer& r)
         {
             r.Set("lo", {1, 1, -0.5f});
             r.Set("hi", {2, 2, 0.5f});
         },
         box, 0.03},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(1, 32, 32);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 1);
        LookStraightDown("output(0, radiance);\n");
        Primitive(Program({{kVertex, kPlane}, {kRay, kDiffuse}}));
        Set("point", {0, 0, 0});
        Set("normal", {0, 1, 0});
        Set("albedo", {albedo, albedo, albedo});
        Primitive(Program({{kVertex, c.shape}, {kRay, kEmissive}}));
        Set("radiance", {radiance, radiance, radiance});
        c.place(*this);
        ASSERT_NO_KS_ERROR();
        constexpr int kFrames = 16;
        for (int frame = 0; frame < kFrames; ++frame)
            Render();
        EXPECT_NEAR(Mean(0, 0, 0, 32, 32) / kFrames, c.expected, c.expected * c.tolerance);
    }
}

// A diffuse floor lit by a small light over its left half: noisy everywhere.
void LitFloor(Renderer& test)
{
    test.Primitive(
        test.Program({{kVertex, "plane(vec3(0, -1, 0), vec3(0, 1, 0));\n"}, {kRay, kDiffuse}}));
    test.Primitive(test.Program({{kVertex, kSphere}, {kRay, kEmissive}}));
    test.Set("centre", {-1.5f, -0.5f, -4});
    test.Set("radius", {0.3f});
    test.Set("radiance", {20, 20, 20});
}

TEST_F(Renderer, FloorIsBrighterNearItsLight)
{
    Targets(1, 32, 32);
    SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
    LitFloor(*this);
    for (int frame = 0; frame < 4; ++frame)
        Render();
    // The floor fills the lower rows; the light sits over its left half.
    const double nearLight = Mean(0, 2, 2, 10, 8);
    const double far = Mean(0, 22, 2, 30, 8);
    EXPECT_GT(far, 0.0);
    EXPECT_GT(nearLight, 2.0 * far);
}

TEST_F(Renderer, FrameIndexChoosesTheSamples)
{
    Targets(1, 16, 16);
    SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_0);
    LitFloor(*this);
    int index = -1;
    ksGetFrameParameteriv(KS_FRAME_INDEX, &index);
    EXPECT_EQ(index, 0);
    Render(); // the default: the frames rendered before
    const std::vector<float> byDefault = _images[0];
    const auto frameAt = [this](int chosen)
    {
        ksFrameParameter1i(KS_FRAME_INDEX, chosen);
        Render();
        int next = -1;
        ksGetFrameParameteriv(KS_FRAME_INDEX, &next);
        EXPECT_EQ(next, chosen + 1) << "a frame moves the index on";
        return _images[0];
    };
    const std::vector<float> seven = frameAt(7);
    EXPECT_EQ(frameAt(0), byDefault);
    EXPECT_EQ(frameAt(7), seven) << "frames rendered in between changed the samples";
    EXPECT_NE(frameAt(8), seven);
    EXPECT_NE(seven, byDefault);
}

TEST_F(Renderer, TextureIsSampledWithItsFilterAndWrap)
{
    // Two texels, black and white; the plane's texture coordinates are its
    // world x and y less those of its point, so u = x + 0.5 here.
    const float texels[2] = {0.0f, 1.0f};
    struct Case
    {
        const char* label;
        int filter;
        int wrap;
        std::function<double(double u)> expected;
    };
    const auto clamp01 = [](double v) { return std::max(0.0, std::min(1.0, v)); };
    const Case cases[] = {
        {"linear, clamped", KS_LINEAR, KS_CLAMP_TO_EDGE,
         [&](double u) { return clamp01(2.0 * u - 0.5); }},
        {"nearest, clamped", KS_NEAREST, KS_CLAMP_TO_EDGE,
         [](double u) { return u < 0.5 ? 0.0 : 1.0; }},
        {"nearest, repeated", KS_NEAREST, KS_REPEAT,
         [](double u) { return u - std::floor(u) < 0.5 ? 0.0 : 1.0; }},
        {"nearest, mirrored", KS_NEAREST, KS_MIRRORED_REPEAT,
         [](double u)
         {
             const double m = u - 2.0 * std::floor(u / 2.0);
             return (m < 0.5 || m >= 1.5) ? 0.0 : 1.0;
         }},
    };
    constexpr int kSize = 64;
    // The plane z = -2 spans x in [-w, w] with w = 2 tan(30 degrees).
    const double w = 2.0 * std::tan(kPi / 6.0);
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(1, kSize, kSize);
        UseFrame(Program({{kFrame, FrameSource("output(0, albedo);\n")}}));
        _KStexture* texture = NewTexture();
        ksBindTexture(KS_TEXTURE_2D, texture);
        ksTexImage2D(KS_TEXTURE_2D, 0, KS_LUMINANCE, 2, 1, 0, KS_LUMINANCE, KS_FLOAT, texels);
        ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MAG_FILTER, c.filter);
        ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, c.wrap);
        Primitive(Program({{kVertex, kPlane}, {kRay, kTextured}}));
        Set("point", {-0.5f, 0, -2});
        Set("normal", {0, 0, 1});
        ksUniformt(ksGetUniformLocation(_pProgram, "map"), texture);
        ASSERT_NO_KS_ERROR();
        Render();
        for (int x = 0; x < kSize; ++x)
        {
            // Each pixel's value lies between the values at its two edges,
            // or is one of them where a step falls inside it.
            const double u0 = (2.0 * x / kSize - 1.0) * w + 0.5;
            const double u1 = (2.0 * (x + 1) / kSize - 1.0) * w + 0.5;
            const double a = c.expected(u0), b = c.expected(u1 - 1e-9);
            const float value = At(0, x, kSize / 2)[0];
            EXPECT_GE(value, std::min(a, b) - 1e-5) << x;
            EXPECT_LE(value, std::max(a, b) + 1e-5) << x;
        }
    }
}

// ---------------------------------------------------------------------------
// Metallic-roughness

const char* const kMetallicRoughness =
    "uniform vec3 base = vec3(1, 1, 1);\nuniform float metallic;\nuniform float roughness = 1;\n"
    "uniform vec3 emission;\nuniform texture base_map;\nuniform texture mr_map;\n"
    "uniform texture emission_map;\n"
    "metallic_roughness(base, metallic, roughness, emission, base_map, mr_map, emission_map);\n";

// What a white metallic-roughness surface seen head-on reflects of an even
// sky, by quadrature over the angle of incidence: GGX with height-correlated
// Smith shadowing (which, seen head-on, is G1 of the light alone), Schlick's
// Fresnel, and the Lambertian base under the dielectric's (1 - F).
double HeadOnAlbedo(double roughness, double metallic)
{
    const double a2 = std::pow(roughness, 4.0);
    constexpr int kSteps = 20000;
    double sum = 0.0;
    for (int i = 0; i < kSteps; ++i)
    {
        const double theta = (i + 0.5) / kSteps * kPi / 2, c = std::cos(theta);
        const double ch = std::cos(theta / 2); // the half vector's cosine
        const double d = ch * ch * (a2 - 1) + 1;
        const double lambda = 0.5 * (std::sqrt(1 + a2 * std::pow(std::tan(theta), 2)) - 1);
        const double schlick = std::pow(1 - ch, 5);
        const double f0 = 0.04 * (1 - metallic) + metallic;
        const double specular =
            (f0 + (1 - f0) * schlick) * a2 / (kPi * d * d) / (1 + lambda) / (4 * c);
        const double diffuse = (1 - metallic) * (1 - (0.04 + 0.96 * schlick)) / kPi;
        sum += (specular + diffuse) * c * std::sin(theta) * (kPi / 2 / kSteps);
    }
    return 2 * kPi * sum;
}

// A floor seen head-on under an even sky (a furnace) and under an emissive
// plane above the camera (sampled and hit, weighed by the power heuristic)
// must show the same: what the surface reflects. A single-scattering lobe
// loses what would bounce between microfacets: 0.307 for white metal of
// roughness 1 head-on, 0.9983 at roughness 0.2.
TEST_F(Renderer, MetallicRoughnessReflectsWhatItsModelSays)
{
    for (float roughness : {0.2f, 0.5f, 1.0f})
        for (float metallic : {0.0f, 1.0f})
            for (bool sky : {true, false})
            {
                const double expected = HeadOnAlbedo(roughness, metallic);
                SCOPED_TRACE(testing::Message()
                             << "roughness " << roughness << ", metallic " << metallic
                             << (sky ? ", sky" : ", light plane") << ", expected " << expected);
                Fresh();
                Targets(1, 32, 32);
                SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
                ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 1);
                LookStraightDown("output(0, radiance);\n");
                Set("sky", {sky ? 1.0f : 0.0f, 0, 0});
                Primitive(Program({{kVertex, kPlane}, {kRay, kMetallicRoughness}}));
                Set("normal", {0, 1, 0});
                Set("metallic", {metallic});
                Set("roughness", {roughness});
                if (!sky)
                {
                    Primitive(Program({{kVertex, kPlane}, {kRay, kEmissive}}));
                    Set("point", {0, 6, 0});
                    Set("normal", {0, -1, 0});
                    Set("radiance", {1, 0, 0});
                }
                constexpr int kFrames = 16;
                for (int frame = 0; frame < kFrames; ++frame)
                    Render();
                EXPECT_NEAR(Mean(0, 0, 0, 32, 32) / kFrames, expected, 0.01);
            }
}

// Each map scales its factor: base colour by RGB, roughness by green,
// metallic by blue, emission by RGB and only in front.
TEST_F(Renderer, MetallicRoughnessMapsScaleTheirFactors)
{
    struct Case
    {
        const char* label;
        const char* map;
        std::array<float, 3> texel;
        const char* output;
        bool front;
        std::array<double, 3> expected;
    };
    const double rough = HeadOnAlbedo(1, 0), smoother = HeadOnAlbedo(0.5, 1);
    const Case cases[] = {
        {"base colour", "base_map", {1, 0.5f, 0.25f}, "albedo", true, {0.5, 0.5, 0.25}},
        {"emission", "emission_map", {1, 0.5f, 0.25f}, "radiance", true, {2, 1, 0.5}},
        {"no emission behind", "emission_map", {1, 1, 1}, "radiance", false, {0, 0, 0}},
        {"metal in blue", "mr_map", {1, 1, 0}, "radiance", true, {rough, rough, rough}},
        {"roughness in green",
         "mr_map",
         {0, 0.5f, 1},
         "radiance",
         true,
         {smoother, smoother, smoother}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(1, 16, 16);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        const bool furnace = std::string(c.map) == "mr_map";
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, furnace ? 1 : 0);
        LookStraightDown(std::string("output(0, ") + c.output + ");\n");
        Set("sky", {furnace ? 1.0f : 0.0f, furnace ? 1.0f : 0.0f, furnace ? 1.0f : 0.0f});
        _KStexture* texture = NewTexture();
        ksBindTexture(KS_TEXTURE_2D, texture);
        ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 1, 1, 0, KS_RGB, KS_FLOAT, c.texel.data());
        Primitive(Program({{kVertex, kPlane}, {kRay, kMetallicRoughness}}));
        Set("normal", {0, c.front ? 1.0f : -1.0f, 0});
        // The furnace cases need a white base and no emission.
        Set("base", {furnace ? 1.0f : 0.5f, 1, 1});
        Set("emission", {furnace ? 0.0f : 2.0f, furnace ? 0.0f : 2.0f, furnace ? 0.0f : 2.0f});
        Set("metallic", {1});
        ksUniformt(ksGetUniformLocation(_pProgram, c.map), texture);
        constexpr int kFrames = 16;
        for (int frame = 0; frame < kFrames; ++frame)
            Render();
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(Mean(0, 0, 0, 16, 16, k) / kFrames, c.expected[static_cast<std::size_t>(k)],
                        furnace ? 0.015 : 1e-5);
    }
}

// Factors and texels out of range, NaN included, give neither NaN nor
// negative light, whichever way a path goes.
TEST_F(Renderer, MetallicRoughnessStaysFiniteAndPositive)
{
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    struct Case
    {
        float roughness, metallic;
        std::array<float, 3> texel; // of all three maps
    };
    const Case cases[] = {
        {0, 0, {1, 1, 1}},
        {0, 1, {1, 1, 1}},
        {-1, 2, {1, 1, 1}},
        {kNaN, kNaN, {1, 1, 1}},
        {1, 0.5f, {kNaN, -5, 1e30f}},
        {0.5f, 1, {-1, kNaN, 0}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.roughness << " " << c.metallic << " " << c.texel[0]);
        Fresh();
        Targets(2, 16, 16);
        UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\noutput(1, albedo);\n")}}));
        Set("sky", {0.5f, 0.5f, 0.5f});
        Set("eye", {0, 1, 3});
        _KStexture* texture = NewTexture();
        ksBindTexture(KS_TEXTURE_2D, texture);
        ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 1, 1, 0, KS_RGB, KS_FLOAT, c.texel.data());
        for (const char* shape : {kSphere, kPlane})
        {
            Primitive(Program({{kVertex, shape}, {kRay, kMetallicRoughness}}));
            Set(shape == kSphere ? "centre" : "normal", {0, 1, 0});
            Set("roughness", {c.roughness});
            Set("metallic", {c.metallic});
            Set("emission", {1, -1, 0.5f});
            for (const char* map : {"base_map", "mr_map", "emission_map"})
                ksUniformt(ksGetUniformLocation(_pProgram, map), texture);
        }
        Primitive(Program({{kVertex, kSphere}, {kRay, kEmissive}}));
        Set("centre", {2, 3, 0});
        Set("radiance", {5, 5, 5});
        for (int frame = 0; frame < 4; ++frame)
        {
            Render();
            for (int i = 0; i < 16 * 16 * 4; ++i)
                for (int target : {0, 1})
                {
                    const float value =
                        _images[static_cast<std::size_t>(target)][static_cast<std::size_t>(i)];
                    ASSERT_TRUE(value >= 0.0f && std::isfinite(value))
                        << target << " " << i << " " << value;
                }
        }
    }
}

// A rough metal ball lit by a small far lamp: its highlight lies where the
// ball's normal halves the directions to the eye and to the lamp.
TEST_F(Renderer, MetalHighlightSitsAtTheHalfVector)
{
    constexpr int kSize = 64;
    const Vec centre = {0, 0, -4}, lamp = {14, 0, 10};
    Targets(1, kSize, kSize);
    SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
    UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\n")}}));
    Set("fov", {30});
    Primitive(Program({{kVertex, kSphere}, {kRay, kMetallicRoughness}}));
    Set("centre", {0, 0, -4});
    Set("metallic", {1});
    Set("roughness", {0.2f});
    Primitive(Program({{kVertex, kSphere}, {kRay, kEmissive}}));
    Set("centre", {14, 0, 10});
    Set("radius", {0.5f});
    Set("radiance", {100, 100, 100});
    for (int frame = 0; frame < 8; ++frame)
        Render();
    // The point of the equator whose normal is the half vector.
    double best = -2.0, highlight = 0.0;
    for (int i = 0; i < 100000; ++i)
    {
        const double phi = i * kPi / 100000;
        const Vec normal = {std::sin(phi), 0, std::cos(phi)};
        const Vec p = {centre[0] + normal[0], 0, centre[2] + normal[2]};
        const Vec toEye = Unit(Sub({0, 0, 0}, p)), toLamp = Unit(Sub(lamp, p));
        const Vec half = Unit({toEye[0] + toLamp[0], 0, toEye[2] + toLamp[2]});
        if (Dot(normal, half) > best)
        {
            best = Dot(normal, half);
            highlight = (p[0] / -p[2] / std::tan(kPi / 12) + 1) / 2 * kSize;
        }
    }
    int brightest = 0;
    for (int x = 0; x < kSize; ++x)
        if (Mean(0, x, 31, x + 1, 33) > Mean(0, brightest, 31, brightest + 1, 33))
            brightest = x;
    EXPECT_NEAR(brightest + 0.5, highlight, 1.5);
}

// ---------------------------------------------------------------------------
// Indexed meshes

// The quad x, y in [-1, 1] at z = -3, facing +z, as vertices 0..3 from the
// bottom left counter-clockwise and triangles (0 1 2) (lower right) and
// (0 2 3) (upper left); u along x, v along y, each from 0 to 1.
struct Quad
{
    std::vector<float> vertices = {-1, -1, -3, 0, 0, 1, 0, 0, 1,  -1, -3, 0, 0, 1, 1, 0,
                                   1,  1,  -3, 0, 0, 1, 1, 1, -1, 1,  -3, 0, 0, 1, 0, 1};
    std::vector<std::uint32_t> indices = {0, 1, 2, 0, 2, 3};
    int vertexCount = 4;
    int triangleCount = 2;

    std::vector<float> Bytes() const
    {
        std::vector<float> floats = vertices;
        floats.resize(vertices.size() + indices.size());
        std::memcpy(floats.data() + vertices.size(), indices.data(), indices.size() * 4);
        return floats;
    }
};

// The quad fills the middle of a 16 x 16 picture seen from the origin.
_KSbuffer* DrawQuad(Renderer& r, const Quad& quad, const char* material, const char* outputs)
{
    r.Fresh();
    r.Targets(1, 16, 16);
    r.UseFrame(r.Program({{kFrame, FrameSource(outputs)}}));
    r.Set("fov", {40});
    r.Primitive(r.Program({{kVertex, kIndexedMesh}, {kRay, material}}));
    _KSbuffer* buffer = r.Mesh(quad.Bytes());
    ksUniform1i(ksGetUniformLocation(r._pProgram, "vertices"), quad.vertexCount);
    ksUniform1i(ksGetUniformLocation(r._pProgram, "triangles"), quad.triangleCount);
    return buffer;
}

TEST_F(Renderer, IndexedMeshShowsItsTextureUprightAndItsNormals)
{
    // Texel rows in memory: red, blue, then green, white. v = 0 reads the
    // first row, which must land at the bottom of the picture (row 0).
    const float texels[12] = {1, 0, 0, 0, 0, 1, 0, 1, 0, 1, 1, 1};
    Quad quad;
    DrawQuad(*this, quad, kTextured, "output(0, albedo);\n");
    _KStexture* texture = NewTexture();
    ksBindTexture(KS_TEXTURE_2D, texture);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 2, 2, 0, KS_RGB, KS_FLOAT, texels);
    ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MAG_FILTER, KS_NEAREST);
    ksUniformt(ksGetUniformLocation(_pProgram, "map"), texture);
    Render();
    const std::array<float, 3> expected[2][2] = {{{1, 0, 0}, {0, 0, 1}}, {{0, 1, 0}, {1, 1, 1}}};
    for (int y : {0, 1})
        for (int x : {0, 1})
            for (int k = 0; k < 3; ++k)
                EXPECT_EQ(At(0, 4 + 7 * x, 4 + 7 * y)[k], expected[y][x][k]) << x << y << k;

    // Normals leaning out to -x and +x at the left and right edges: the
    // normal channel follows their interpolation; one zero normal, which
    // both triangles share, leaves them flat.
    const float s = std::sqrt(0.5f);
    for (bool leaning : {true, false})
    {
        SCOPED_TRACE(leaning ? "leaning" : "zero");
        for (int v = 0; v < 4; ++v)
        {
            const float side = quad.vertices[8 * v] < 0 ? -1.0f : 1.0f;
            quad.vertices[8 * v + 3] = leaning || v != 2 ? side * s : 0;
            quad.vertices[8 * v + 5] = leaning || v != 2 ? s : 0;
        }
        DrawQuad(*this, quad, kDiffuse, "output(0, normal);\n");
        Render();
        // Pixel column 12 sees x near 3 tan(20) (12.5 / 8 - 1) = 0.614.
        const double x = 0.614;
        EXPECT_NEAR(At(0, 12, 8)[0], leaning ? x / std::sqrt(x * x + 1) : 0.0, 0.05);
        EXPECT_NEAR(At(0, 3, 8)[0], leaning ? -x / std::sqrt(x * x + 1) : 0.0, 0.05);
        EXPECT_NEAR(At(0, 12, 8)[2], leaning ? 1 / std::sqrt(x * x + 1) : 1.0, 0.05);
    }
}

TEST_F(Renderer, IndexedMeshLeavesOutWhatItCannotRead)
{
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    struct Case
    {
        const char* label;
        std::function<void(Quad&)> spoil;
        bool lowerRight, upperLeft; // which triangle is drawn
    };
    const Case cases[] = {
        {"whole", [](Quad&) {}, true, true},
        {"index out of range", [](Quad& q) { q.indices[5] = 4; }, true, false},
        {"huge index", [](Quad& q) { q.indices[0] = 0xffffffffu; }, false, true},
        {"NaN position", [&](Quad& q) { q.vertices[8 * 3 + 1] = kNaN; }, true, false},
        {"NaN normal is no position", [&](Quad& q) { q.vertices[8 * 3 + 4] = kNaN; }, true, true},
        {"fewer triangles than the buffer holds", [](Quad& q) { q.triangleCount = 1; }, true,
         false},
        {"buffer shorter than the counts", [](Quad& q) { q.indices.pop_back(); }, false, false},
        {"more triangles than the buffer", [](Quad& q) { q.triangleCount = 3; }, false, false},
        {"negative count", [](Quad& q) { q.vertexCount = -4; }, false, false},
        {"no triangle left", [](Quad& q) { q.indices = {9, 9, 9, 9, 9, 9}; }, false, false},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Quad quad;
        c.spoil(quad);
        DrawQuad(*this, quad, kDiffuse, "output(0, depth);\n");
        Render();
        EXPECT_EQ(At(0, 11, 4)[0] > 0.0f, c.lowerRight);
        EXPECT_EQ(At(0, 4, 11)[0] > 0.0f, c.upperLeft);
    }
}

TEST_F(Renderer, OneBufferPlacedByTwoPrimitives)
{
    _KSbuffer* buffer = DrawQuad(*this, Quad(), kDiffuse, "output(0, depth);\n");
    // The same buffer a quarter the size, at z = -0.75, in the lower left.
    Primitive(_pProgram);
    ksUniformBlockBuffer(ksGetUniformBlockIndex(_pProgram, "mesh"), buffer);
    ksUniform1i(ksGetUniformLocation(_pProgram, "vertices"), 4);
    ksUniform1i(ksGetUniformLocation(_pProgram, "triangles"), 2);
    SetMatrix("placement", Placement({0.25f, 0.25f, 0.25f}, {-0.3f, -0.3f, 0}));
    Render();
    EXPECT_NEAR(At(0, 14, 14)[0], 3.25, 0.05) << "the first";
    EXPECT_NEAR(At(0, 4, 4)[0], 0.77, 0.01) << "the second";
    EXPECT_EQ(MeshBuilds(), 1);
    // Another placement builds a new scene around the same mesh.
    SetMatrix("placement", Placement({0.25f, 0.25f, 0.25f}, {-0.3f, -0.4f, 0}));
    Render();
    EXPECT_EQ(SceneBuilds(), 2);
    EXPECT_EQ(MeshBuilds(), 1);
    // New storage too short for the counts: both go.
    ksBufferData(KS_UNIFORM_BLOCK_BUFFER, 4, nullptr, KS_STATIC_DRAW);
    Render();
    EXPECT_EQ(At(0, 14, 14)[0], 0.0f);
    EXPECT_EQ(At(0, 4, 4)[0], 0.0f);
}

// ---------------------------------------------------------------------------
// Visibility

TEST_F(Renderer, VisibilitySeesLightOrSky)
{
    // Looking straight down at a floor from 8 units up; raster x runs along
    // world x, 4 units per 16 pixels, and the middle row is z = 0.
    struct Case
    {
        const char* label;
        std::function<void(Renderer&)> scene;
        std::vector<std::array<int, 2>> dark;
        std::vector<std::array<int, 2>> lit;
    };
    const Case cases[] = {
        {"a sphere hides the light from the floor around (4, 0, 0)",
         [](Renderer& r)
         {
             r.Primitive(r.Program({{kVertex, kSphere}, {kRay, kEmissive}}));
             r.Set("centre", {6, 3, 0});
             r.Set("radius", {0.2f});
             r.Set("radiance", {5, 5, 5});
             r.Primitive(r.Program({{kVertex, kSphere}, {kRay, kDiffuse}}));
             r.Set("centre", {5, 1.5f, 0});
             r.Set("radius", {0.5f});
         },
         {{47, 31}, {47, 32}}, // x in [3.75, 4]
         {{16, 32}, {8, 40}, {60, 60}}},
        {"no emitter: the open sky", [](Renderer&) {}, {}, {{0, 0}, {32, 32}, {63, 10}}},
        {"no emitter: a ceiling over the floor",
         [](Renderer& r)
         {
             r.Primitive(r.Program(
                 {{kVertex, "plane(vec3(0, 9, 0), vec3(0, -1, 0));\n"}, {kRay, kDiffuse}}));
         },
         {{0, 0}, {32, 32}, {63, 10}},
         {}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(1, 64, 64);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_1);
        ksClearColor(1, 1, 1, 1);
        ksClear(KS_COLOR_BUFFER_BIT);
        UseFrame(Program({{kFrame, FrameSource("output(0, visibility);\n")}}));
        Set("eye", {0, 8, 0});
        Set("target", {0, 0, 0});
        Set("up", {0, 0, -1});
        Set("fov", {90});
        Primitive(Program({{kVertex, "plane(vec3(0, 0, 0), vec3(0, 1, 0));\n"}, {kRay, kDiffuse}}));
        c.scene(*this);
        ASSERT_NO_KS_ERROR();
        // Multiplied over frames: a pixel stays 1 only if every sample saw.
        for (int frame = 0; frame < 4; ++frame)
            Render();
        for (const auto& p : c.dark)
            EXPECT_EQ(At(0, p[0], p[1])[0], 0.0f) << p[0] << "," << p[1];
        for (const auto& p : c.lit)
            EXPECT_EQ(At(0, p[0], p[1])[0], 1.0f) << p[0] << "," << p[1];
    }
}

// ---------------------------------------------------------------------------
// Blending and formats

TEST_F(Renderer, BlendModesMeetTheTarget)
{
    // An empty scene: every sample is the sky, exactly.
    const float sky[3] = {0.25f, 2.0f, 0.5f};
    struct Case
    {
        int mode;
        std::array<float, 4> expected; // over a target of 0.5 everywhere
    };
    const Case cases[] = {
        {KS_BLEND_MODE_0, {0.25f, 2.0f, 0.5f, 1.0f}},
        {KS_BLEND_MODE_1, {0.125f, 1.0f, 0.25f, 0.5f}},
        {KS_BLEND_MODE_2, {0.75f, 2.5f, 1.0f, 1.5f}},
        {KS_BLEND_MODE_3, {0.5f, 2.0f, 0.5f, 1.0f}},
    };
    Targets(4, 20, 18); // tiles that do not fill the image evenly
    UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\noutput(1, radiance);\n"
                                           "output(2, radiance);\noutput(3, radiance);\n")}}));
    Set("sky", {sky[0], sky[1], sky[2]});
    for (int i = 0; i < 4; ++i)
        SetAttachment(i, KS_ATTACHMENT_BLEND_MODE, cases[i].mode);
    ksClearColor(0.5f, 0.5f, 0.5f, 0.5f);
    ksClear(KS_COLOR_BUFFER_BIT);
    Render();
    for (int i = 0; i < 4; ++i)
        for (int y = 0; y < 18; ++y)
            for (int x = 0; x < 20; ++x)
                ASSERT_EQ(std::memcmp(At(i, x, y), cases[i].expected.data(), sizeof(float) * 4), 0)
                    << "mode " << i << " at " << x << "," << y;
}

TEST_F(Renderer, SamplesAreConvertedToEachFormat)
{
    struct Case
    {
        const char* label;
        int format;
        int type;
        int mode;
        std::vector<unsigned char> cleared; // one pixel before the frame
        std::vector<unsigned char> expected;
    };
    auto bytes = [](auto... values)
    {
        std::vector<unsigned char> out;
        auto put = [&out](auto v)
        {
            const auto* p = reinterpret_cast<const unsigned char*>(&v);
            out.insert(out.end(), p, p + sizeof(v));
        };
        (put(values), ...);
        return out;
    };
    using u8 = unsigned char;
    using u16 = unsigned short;
    const Case cases[] = {
        {"RGBA bytes", KS_RGBA, KS_UNSIGNED_BYTE, KS_BLEND_MODE_0,
         bytes(u8(0), u8(0), u8(0), u8(0)), bytes(u8(64), u8(255), u8(128), u8(255))},
        {"RGBA bytes, added", KS_RGBA, KS_UNSIGNED_BYTE, KS_BLEND_MODE_2,
         bytes(u8(128), u8(0), u8(0), u8(0)), bytes(u8(192), u8(255), u8(128), u8(255))},
        {"RGB floats", KS_RGB, KS_FLOAT, KS_BLEND_MODE_0, bytes(0.0f, 0.0f, 0.0f),
         bytes(0.25f, 2.0f, 0.5f)},
        {"luminance shorts, maximum", KS_LUMINANCE, KS_UNSIGNED_SHORT, KS_BLEND_MODE_3,
         bytes(u16(30000)), bytes(u16(30000))},
        {"luminance shorts, replaced", KS_LUMINANCE, KS_UNSIGNED_SHORT, KS_BLEND_MODE_0,
         bytes(u16(30000)), bytes(u16(16384))},
        {"signed RGBA", KS_RGBA, KS_SHORT, KS_BLEND_MODE_1,
         bytes(short(-32767), short(32767), short(0), short(32767)),
         bytes(short(-8192), short(32767), short(0), short(32767))},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        constexpr int kPixels = 17 * 3;
        std::vector<unsigned char> image;
        for (int i = 0; i < kPixels; ++i)
            image.insert(image.end(), c.cleared.begin(), c.cleared.end());
        ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
        Attach(0, NewClientTexture(17, 3, c.format, c.type, image.data()));
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, c.mode);
        UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\n")}}));
        Set("sky", {0.25f, 2.0f, 0.5f});
        Render();
        for (int i = 0; i < kPixels; ++i)
            ASSERT_EQ(std::vector<unsigned char>(image.begin() + i * c.expected.size(),
                                                 image.begin() + (i + 1) * c.expected.size()),
                      c.expected)
                << "pixel " << i;
    }
}

// ---------------------------------------------------------------------------
// Pixel filters

TEST_F(Renderer, FilteredSamplesFollowAHotCell)
{
    // The floor y = -1 below the default camera: its depth changes with the
    // raster position, so it shows where each sample was taken.
    constexpr int kWidth = 32, kHeight = 16, kTable = 9;
    const double tanHalf = std::tan(kPi / 6.0);
    const auto depthAt = [&](double sx, double sy)
    {
        const double a = (2.0 * sx / kWidth - 1.0) * tanHalf * kWidth / kHeight;
        const double b = (2.0 * sy / kHeight - 1.0) * tanHalf;
        return std::sqrt(a * a + b * b + 1.0) / -b;
    };
    struct Case
    {
        const char* label;
        int row, column; // the one cell with weight
    };
    const Case cases[] = {{"middle", 4, 4}, {"right", 4, 8}, {"low left", 1, 2}, {"corner", 0, 0}};
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Fresh();
        Targets(2, kWidth, kHeight);
        SetAttachment(1, KS_ATTACHMENT_FILTER, 1);
        UseFrame(Program({{kFrame, "output(0, depth);\noutput(1, depth);\n"}}));
        Primitive(
            Program({{kVertex, "plane(vec3(0, -1, 0), vec3(0, 1, 0));\n"}, {kRay, kDiffuse}}));
        std::vector<float> table(kTable * kTable, 0.0f);
        table[static_cast<std::size_t>(c.row * kTable + c.column)] = 1.0f;
        ksFrameParameter1f(KS_FILTER_SIZE, 1.0f);
        ksFrameParameter1i(KS_FILTER_TABLE_SIZE, kTable);
        ksFrameParameterfv(KS_FILTER_TABLE, table.data());
        ASSERT_NO_KS_ERROR();
        // After a refused size no table is taken, at whatever size: the hot
        // one stays in force.
        ksFrameParameter1i(KS_FILTER_TABLE_SIZE, 0);
        const float stray = 5.0f;
        ksFrameParameterfv(KS_FILTER_TABLE, &stray);
        EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
        const std::vector<Notice> notices = _recorder.Take();
        ASSERT_EQ(notices.size(), 2u);
        EXPECT_EQ(notices[1].code, KS_INVALID_OPERATION);
        // The hot entry stands for the cell of one step centred on the point
        // (c, r) / 9 of the unit square, whose centre lies on the pixel's.
        const double step = 1.0 / kTable;
        const double dx = (c.column - 0.5) * step - 0.5, dy = (c.row - 0.5) * step - 0.5;
        int boxOutside = 0;
        for (int frame = 0; frame < 3; ++frame)
        {
            Render();
            for (int y = 0; y < 5; ++y)
                for (int x = 0; x < kWidth; ++x)
                {
                    double low = 1e30, high = 0.0;
                    for (int i = 0; i <= 4; ++i)
                        for (int j = 0; j <= 4; ++j)
                        {
                            const double d = depthAt(x + 0.5 + dx + i / 4.0 * step,
                                                     y + 0.5 + dy + j / 4.0 * step);
                            low = std::min(low, d);
                            high = std::max(high, d);
                        }
                    const float filtered = At(1, x, y)[0];
                    EXPECT_GE(filtered, low * (1 - 1e-4)) << x << "," << y;
                    EXPECT_LE(filtered, high * (1 + 1e-4)) << x << "," << y;
                    const float box = At(0, x, y)[0];
                    boxOutside += box < low * (1 - 1e-4) || box > high * (1 + 1e-4);
                }
        }
        EXPECT_GT(boxOutside, 100) << "unfiltered samples spread over the whole pixel";
    }
}

// A Gaussian sampled as the frame buffer samples a host's filter, entry
// (r, c) at (c, r) * step of the square [0, 2) centred on 1: its samples land
// as often on either side of the pixel's centre. An emitter covers x < 0 (or
// y < 0), so its edge runs through the centres of the middle column (row)
// of an odd image, where the share of samples that see it is 1/2.
TEST_F(Renderer, SymmetricFilterSamplesEvenlyAboutThePixelCentre)
{
    constexpr int kTable = 16, kSide = 33, kFrames = 40;
    const float step = 2.0f / kTable;
    std::vector<float> table;
    for (int r = 0; r < kTable; ++r)
        for (int c = 0; c < kTable; ++c)
        {
            const float x = c * step - 1.0f, y = r * step - 1.0f;
            table.push_back(std::exp(-(x * x + y * y) / (2.0f * 0.25f * 0.25f)));
        }
    for (bool columns : {true, false})
    {
        SCOPED_TRACE(columns ? "x" : "y");
        Fresh();
        Targets(1, kSide, kSide);
        SetAttachment(0, KS_ATTACHMENT_FILTER, 1);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\n")}}));
        Primitive(Program({{kVertex, kBox}, {kRay, kEmissive}}));
        Set("lo", {-100, -100, -10});
        Set("hi", {columns ? 0.0f : 100.0f, columns ? 100.0f : 0.0f, -9});
        Set("radiance", {1, 1, 1});
        ksFrameParameter1f(KS_FILTER_SIZE, 2.0f);
        ksFrameParameter1i(KS_FILTER_TABLE_SIZE, kTable);
        ksFrameParameterfv(KS_FILTER_TABLE, table.data());
        for (int frame = 0; frame < kFrames; ++frame)
            Render();
        const int middle = kSide / 2;
        const double seen =
            columns ? Mean(0, middle, 0, middle + 1, kSide) : Mean(0, 0, middle, kSide, middle + 1);
        // 1320 samples: a standard error of 0.014.
        EXPECT_NEAR(seen / kFrames, 0.5, 0.04);
    }
}

TEST_F(Renderer, NegativeLobesWeighOnlyWhatIsAdded)
{
    // Three quarters of the table's weight positive, one quarter negative:
    // samples then weigh +2 or -2, and average to 1.
    const float table[4] = {3.0f, -1.0f, 0.0f, 0.0f};
    Targets(2, 32, 32);
    SetAttachment(0, KS_ATTACHMENT_FILTER, 1);
    SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
    SetAttachment(1, KS_ATTACHMENT_FILTER, 1);
    UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\noutput(1, radiance);\n")}}));
    Set("sky", {1, 0.5f, 0.25f});
    ksFrameParameter1f(KS_FILTER_SIZE, 1.0f);
    ksFrameParameter1i(KS_FILTER_TABLE_SIZE, 2);
    ksFrameParameterfv(KS_FILTER_TABLE, table);
    Render();
    int negative = 0;
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x)
        {
            const float* added = At(0, x, y);
            const float sign = added[0] < 0.0f ? -1.0f : 1.0f;
            negative += sign < 0.0f;
            EXPECT_EQ(added[0], 2.0f * sign);
            EXPECT_EQ(added[2], 0.5f * sign);
            EXPECT_EQ(At(1, x, y)[1], 0.5f) << "a replaced sample is not weighed";
        }
    EXPECT_NEAR(negative, 256, 48);
}

// ---------------------------------------------------------------------------
// Threads, stops and the scene cache

// The same rich scene in the current context.
void BuildRichScene(Renderer& r)
{
    r.Primitive(
        r.Program({{kVertex, "plane(vec3(0, -1, 0), vec3(0, 1, 0));\n"}, {kRay, kDiffuse}}));
    r.Primitive(r.Program({{kVertex, kSphere}, {kRay, kGlass}}));
    r.Set("centre", {-0.8f, -0.3f, -3});
    r.Set("radius", {0.6f});
    r.Primitive(r.Program({{kVertex, kSphere}, {kRay, kMirror}}));
    r.Set("centre", {0.8f, -0.4f, -3.5f});
    r.Set("radius", {0.6f});
    r.Set("tint", {0.9f, 0.8f, 0.7f});
    r.Primitive(r.Program({{kVertex, kBox}, {kRay, kEmissive}}));
    r.Set("lo", {-0.5f, 1.5f, -4});
    r.Set("hi", {0.5f, 1.6f, -3});
    r.Set("radiance", {8, 7, 6});
    r.UseFrame(
        r.Program({{kFrame, FrameSource("output(0, radiance);\noutput(1, visibility);\n")}}));
    r.Set("sky", {0.1f, 0.1f, 0.2f});
}

TEST_F(Renderer, ImagesDoNotDependOnTheThreadCount)
{
    std::vector<std::vector<float>> images;
    for (long long threads : {1LL, 2LL, 0LL}) // 0: one per core
    {
        const long long attributes[] = {KS_CONTEXT_RENDER_THREADS, threads, 0};
        void* context = KestrelCreateContext(attributes, nullptr, nullptr);
        ASSERT_EQ(KestrelSetCurrentContext(context), 1);
        _images.clear();
        Targets(2, 70, 50);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        SetAttachment(1, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        BuildRichScene(*this);
        Render();
        Render();
        images.push_back(_images[0]);
        images.back().insert(images.back().end(), _images[1].begin(), _images[1].end());
        KestrelDestroyContext(context);
    }
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    ASSERT_EQ(images.size(), 3u);
    EXPECT_EQ(std::memcmp(images[0].data(), images[1].data(), images[0].size() * sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(images[0].data(), images[2].data(), images[0].size() * sizeof(float)), 0);
    // Not a blank picture that any thread count would agree on.
    const auto [low, high] = std::minmax_element(images[0].begin(), images[0].end());
    EXPECT_LT(*low, 0.5f);
    EXPECT_GT(*high, 1.0f);
}

TEST_F(Renderer, AStoppedFrameLeavesItsTargetsAlone)
{
    Targets(1, 64, 64);
    BuildRichScene(*this);
    ksClearColor(0.5f, 0.5f, 0.5f, 0.5f);
    ksClear(KS_COLOR_BUFFER_BIT);
    {
        Kestrel::Testing::AutoRenderHook hook([](void* context) { KestrelStopContext(context); });
        ksRenderFrame();
    }
    EXPECT_EQ(ksGetError(), KS_RENDER_STOPPED);
    _recorder.Take();
    long long primary = -1;
    ksGetLongv(KS_FRAME_STATISTIC_4, &primary);
    EXPECT_EQ(primary, 0);
    for (float value : _images[0])
        ASSERT_EQ(value, 0.5f);
    Render();
    ksGetLongv(KS_FRAME_STATISTIC_4, &primary);
    EXPECT_EQ(primary, 64 * 64);
    EXPECT_NE(At(0, 32, 2)[0], 0.5f);
}

// A stop, or a destroy, that comes from another thread while the scene is
// being built ends that frame: the build gives up and no tile is rendered.
TEST_F(Renderer, AStopDuringTheSceneBuildIsNotLost)
{
    for (bool destroy : {false, true})
    {
        SCOPED_TRACE(destroy ? "destroy" : "stop");
        Fresh();
        Targets(1, 16, 16);
        BuildRichScene(*this);
        // Thousands of small triangles, far off, for a build that takes a while.
        std::vector<float> floats;
        for (int i = 0; i < 20000; ++i)
        {
            const float x = static_cast<float>(i % 200) * 0.1f,
                        y = static_cast<float>(i / 200) * 0.1f;
            floats.insert(floats.end(), {x, y, -50, x + 0.05f, y, -50, x, y + 0.05f, -50});
        }
        Primitive(Program({{kVertex, kMesh}, {kRay, kDiffuse}}));
        Mesh(floats);
        ksClearColor(0.5f, 0.5f, 0.5f, 0.5f);
        ksClear(KS_COLOR_BUFFER_BIT);
        ASSERT_NO_KS_ERROR();
        const int live = Kestrel::Testing::CountContexts();
        std::thread destroyer;
        {
            Kestrel::Testing::AutoBuildHook hook(
                [&](void* context)
                {
                    if (!destroy)
                    {
                        std::thread([context] { KestrelStopContext(context); }).join();
                        return;
                    }
                    // The destroy waits for the context's lock, which the
                    // build holds; it has stopped the frame once the context
                    // has left the registry.
                    destroyer = std::thread([context] { KestrelDestroyContext(context); });
                    while (Kestrel::Testing::CountContexts() == live)
                        std::this_thread::yield();
                });
            ksRenderFrame();
        }
        if (destroyer.joinable())
            destroyer.join();
        for (float value : _images[0])
            ASSERT_EQ(value, 0.5f) << "a tile was rendered";
        if (destroy)
            continue;
        EXPECT_EQ(ksGetError(), KS_RENDER_STOPPED);
        const std::vector<Notice> notices = _recorder.Take();
        ASSERT_EQ(notices.size(), 1u);
        EXPECT_EQ(notices[0].message, "frame stopped");
        EXPECT_EQ(SceneBuilds(), 0) << "the build gave up";
        Render();
        EXPECT_EQ(SceneBuilds(), 1) << "the stop did not carry over";
    }
    Fresh();
}

TEST_F(Renderer, SceneIsRebuiltOnlyWhenItsInputsChange)
{
    Targets(1, 16, 16);
    UseFrame(Program({{kFrame, FrameSource("output(0, radiance);\n")}}));
    _KSprogram* frame = _pProgram;
    _KSprogram* sphereProgram = Program({{kVertex, kSphere}, {kRay, kDiffuse}});
    const KSprimitive sphere = Primitive(sphereProgram);
    Set("centre", {0, 0, -5});
    const KSprimitive mesh = Primitive(Program({{kVertex, kMesh}, {kRay, kDiffuse}}));
    const std::vector<float> triangle = {3, 3, -9, 4, 3, -9, 4, 4, -9};
    _KSbuffer* buffer = Mesh(triangle);
    _KStexture* texture = NewTexture();
    ksBindTexture(KS_TEXTURE_2D, texture);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 1, 1, 0, KS_RGB, KS_FLOAT, nullptr);
    const KSprimitive textured = Primitive(Program({{kVertex, kSphere}, {kRay, kTextured}}));
    Set("centre", {-3, -3, -9});
    ksUniformt(ksGetUniformLocation(_pProgram, "map"), texture);
    _KStexture* packed = NewTexture();
    ksBindTexture(KS_TEXTURE_2D, packed);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 1, 1, 0, KS_RGB, KS_FLOAT, nullptr);
    Primitive(Program({{kVertex, kSphere}, {kRay, kMetallicRoughness}}));
    Set("centre", {3, -3, -9});
    ksUniformt(ksGetUniformLocation(_pProgram, "mr_map"), packed);
    _KSbuffer* stranger = NewBuffer();
    Render();
    ASSERT_EQ(SceneBuilds(), 1);

    const auto hitFraction = []
    {
        float hits = -1.0f;
        ksGetFloatv(KS_FRAME_STATISTIC_8, &hits);
        return hits;
    };
    const float smallSphere = hitFraction();
    struct Case
    {
        const char* label;
        std::function<void()> change;
        bool rebuilds;
    };
    const Case cases[] = {
        {"nothing", [] {}, false},
        {"a frame uniform",
         [&]
         {
             UseFrame(frame);
             Set("sky", {1, 1, 1});
         },
         false},
        {"a uniform of a shape",
         [&]
         {
             ksBindPrimitive(KS_PRIMITIVE, sphere);
             _pProgram = sphereProgram;
             Set("radius", {2});
         },
         true},
        {"the mesh's storage",
         [&]
         {
             ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, buffer);
             ksBufferData(KS_UNIFORM_BLOCK_BUFFER, triangle.size() * sizeof(float), triangle.data(),
                          KS_STATIC_DRAW);
         },
         true},
        {"a mapping of the mesh",
         [&]
         {
             ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, buffer);
             static_cast<float*>(ksMapBuffer(KS_UNIFORM_BLOCK_BUFFER, KS_WRITE_ONLY))[0] = 2;
             ksUnmapBuffer(KS_UNIFORM_BLOCK_BUFFER);
         },
         true},
        {"a buffer no primitive reads",
         [&]
         {
             ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, stranger);
             ksBufferData(KS_UNIFORM_BLOCK_BUFFER, 36, nullptr, KS_STATIC_DRAW);
         },
         false},
        {"the material's texture",
         [&]
         {
             ksBindTexture(KS_TEXTURE_2D, texture);
             ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, KS_CLAMP_TO_EDGE);
         },
         true},
        {"a metallic-roughness map",
         [&]
         {
             ksBindTexture(KS_TEXTURE_2D, packed);
             ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, KS_CLAMP_TO_EDGE);
         },
         true},
        {"a new texture", [] { NewTexture(); }, false},
        {"a relink", [&] { ksLinkProgram(sphereProgram); }, true},
        {"a deleted primitive",
         [&]
         {
             KSprimitive doomed[2] = {mesh, textured};
             ksDeletePrimitives(2, doomed);
         },
         true},
        {"a deleted buffer that was no longer read", [&] { ksDeleteBuffers(1, &buffer); }, false},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        const long long before = SceneBuilds();
        c.change();
        ASSERT_NO_KS_ERROR();
        Render();
        EXPECT_EQ(SceneBuilds(), before + (c.rebuilds ? 1 : 0));
    }
    EXPECT_GT(hitFraction(), 2.0f * smallSphere) << "the new radius is in the picture";
}

} // namespace
} // namespace KestrelTest
