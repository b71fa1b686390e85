// Rendering through the API: images are checked by their properties
// (where a shape covers, what a furnace converges to, what direct light an
// emitter gives by the closed forms), never against stored pictures.
#include "KestrelFixture.h"

#include <array>
#include <climits>
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
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

const char* const kSphere = "uniform vec3 centre;\nuniform float radius = 1.0;\n"
                            "sphere(centre, radius);\n";
const char* const kPlacedSphere = "uniform vec3 centre;\nuniform float radius = 1.0;\n"
                                  "uniform mat4 placement;\n"
                                  "sphere(centre, radius);\ntransform(placement);\n";
const char* const kBox = "uniform vec3 lo;\nuniform vec3 hi;\nbox(lo, hi);\n";
const char* const kPlane = "uniform vec3 point;\nuniform vec3 normal;\nplane(point, normal);\n";
const char* const kFloor = "plane(vec3(0, -1, 0), vec3(0, 1, 0));\n";
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
const char* const kMetallicRoughness =
    "uniform vec3 base = vec3(1, 1, 1);\nuniform float metallic;\nuniform float roughness = 1;\n"
    "uniform vec3 emission;\nuniform texture base_map;\nuniform texture mr_map;\n"
    "uniform texture emission_map;\n"
    "metallic_roughness(base, metallic, roughness, emission, base_map, mr_map, emission_map);\n";

// The frame shader: a camera and a sky from uniforms, then `outputs`.
std::string FrameSource(const std::string& outputs)
{
    return "uniform vec3 eye;\nuniform vec3 target = vec3(0, 0, -1);\n"
           "uniform vec3 up = vec3(0, 1, 0);\nuniform float fov = 60.0;\nuniform vec3 sky;\n"
           "camera(eye, target, up, fov);\nbackground(sky);\n" +
           outputs;
}

// A uniform by name: 1, 3 or 16 floats.
struct Uniform
{
    const char* name;
    std::vector<float> values;
};
using Uniforms = std::vector<Uniform>;

// A column-major mat4 that scales by `s` and then moves by `t`.
std::vector<float> Placement(std::array<float, 3> s, std::array<float, 3> t)
{
    return {s[0], 0, 0, 0, 0, s[1], 0, 0, 0, 0, s[2], 0, t[0], t[1], t[2], 1};
}

// Vertex floats followed by the bits of the indices, as an indexed mesh's
// block holds them.
std::vector<float> IndexedBlock(std::vector<float> floats,
                                const std::vector<std::uint32_t>& indices)
{
    const std::size_t vertices = floats.size();
    floats.resize(vertices + indices.size());
    std::memcpy(&floats[vertices], indices.data(), indices.size() * sizeof(std::uint32_t));
    return floats;
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
            ksAttachShader(program, object);
        }
        ksLinkProgram(program);
        const char* log = nullptr;
        ksGetProgramString(program, KS_PROGRAM_LOG, &log);
        EXPECT_STREQ(log, "") << "a shader did not compile, or the program did not link";
        return program;
    }

    // A new primitive drawn with `program`, left bound for Set.
    KSprimitive Primitive(_KSprogram* program, const Uniforms& uniforms = {})
    {
        const KSprimitive primitive = NewPrimitive();
        ksBindPrimitive(KS_PRIMITIVE, primitive);
        Use(program, uniforms);
        return primitive;
    }
    KSprimitive Shape(const char* shape, const char* material, const Uniforms& uniforms = {})
    {
        return Primitive(Program({{kVertex, shape}, {kRay, material}}), uniforms);
    }

    // The frame primitive takes `program`; Set then acts on it.
    void UseFrame(_KSprogram* program, const Uniforms& uniforms = {})
    {
        ksBindPrimitive(KS_PRIMITIVE, KSprimitive(0));
        Use(program, uniforms);
    }
    void Frame(const std::string& outputs, const Uniforms& uniforms = {})
    {
        UseFrame(Program({{kFrame, FrameSource(outputs)}}), uniforms);
    }

    // A narrow camera 5 units above the origin, looking straight down: every
    // pixel sees a floor at y = 0 head-on.
    void LookStraightDown(const std::string& outputs, const Uniforms& uniforms = {})
    {
        Frame(outputs, {{"eye", {0, 5, 0}}, {"target", {0, 0, 0}}, {"up", {0, 0, -1}}});
        Set({{"fov", {0.5f}}});
        Set(uniforms);
    }

    void Use(_KSprogram* program, const Uniforms& uniforms)
    {
        ksUseProgram(program);
        _pProgram = program;
        Set(uniforms);
    }

    void Set(const Uniforms& uniforms)
    {
        for (const Uniform& u : uniforms)
        {
            const int location = ksGetUniformLocation(_pProgram, u.name);
            ASSERT_GE(location, 0) << u.name;
            if (u.values.size() == 1)
                ksUniform1f(location, u.values[0]);
            else if (u.values.size() == 3)
                ksUniform3fv(location, 1, u.values.data());
            else
                ksUniformMatrix4fv(location, 1, 0, u.values.data());
        }
    }
    void SetTexture(const char* name, _KStexture* texture)
    {
        ksUniformt(ksGetUniformLocation(_pProgram, name), texture);
    }
    void SetInt(const char* name, int value)
    {
        ksUniform1i(ksGetUniformLocation(_pProgram, name), value);
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

    // A bound float texture of `texels`, filtered by `filter` when given.
    static _KStexture* Texture(int width, int height, int format, const float* texels,
                               int filter = 0)
    {
        _KStexture* texture = NewTexture();
        ksBindTexture(KS_TEXTURE_2D, texture);
        ksTexImage2D(KS_TEXTURE_2D, 0, format, width, height, 0, format, KS_FLOAT, texels);
        if (filter)
            ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_MAG_FILTER, filter);
        return texture;
    }

    // A new context (with that many render threads when given) and a bound
    // frame buffer of `count` RGBA float attachments of one size, cleared to
    // 0, each blended by `mode` when one is given.
    void Start(int count, int width, int height, int mode = 0, long long threads = -1)
    {
        KestrelDestroyContext(_pContext);
        _images.clear();
        const long long attributes[] = {KS_CONTEXT_RENDER_THREADS, threads, 0};
        _pContext = KestrelCreateContext(threads < 0 ? nullptr : attributes,
                                         &NoticeRecorder::Callback, &_recorder);
        ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
        _nWidth = width;
        ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
        for (int i = 0; i < count; ++i)
        {
            _images.emplace_back(static_cast<std::size_t>(width * height * 4), 0.0f);
            Attach(i, NewClientTexture(width, height, KS_RGBA, KS_FLOAT, _images.back().data()));
            if (mode)
                SetAttachment(i, KS_ATTACHMENT_BLEND_MODE, mode);
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
        return &_images[attachment][(y * _nWidth + x) * 4];
    }

    void Render(int frames = 1)
    {
        for (int frame = 0; frame < frames; ++frame)
        {
            ksRenderFrame();
            ASSERT_NO_KS_ERROR();
        }
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

    static long long SceneBuilds()
    {
        long long builds = -1;
        EXPECT_TRUE(Kestrel::Testing::CountSceneBuilds(&builds));
        return builds;
    }
    static long long MeshBuilds()
    {
        long long builds = -1;
        EXPECT_TRUE(Kestrel::Testing::CountMeshBuilds(&builds));
        return builds;
    }
    static long long Statistic(int name)
    {
        long long value = -1;
        ksGetLongv(name, &value);
        return value;
    }
    static float HitFraction()
    {
        float hits = -1.0f;
        ksGetFloatv(KS_FRAME_STATISTIC_8, &hits);
        return hits;
    }

    _KSprogram* _pProgram = nullptr;
    std::deque<std::vector<float>> _images; // stable addresses: client storage
    int _nWidth = 0;
};

// ---------------------------------------------------------------------------
// Where shapes land

// Each shape, placed so that the ray through the image's middle meets it
// 4 units away, facing the camera but for the last plane. Only the front
// emits; the one texel of the emission and base maps scales both by RGB.
TEST_F(Renderer, ShapesAndTransformsPlaceSurfaces)
{
    const std::array<float, 3> texel = {1, 0.5f, 0.25f};
    const std::vector<float> quad = {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, -1, 0, 1, 1, 0, -1, 1, 0};
    const std::vector<float> far = {-1, -1, -4, 1, -1, -4, 1,  1, -4,
                                    -1, -1, -4, 1, 1,  -4, -1, 1, -4};
    struct Case
    {
        const char* source;
        Uniforms uniforms;
        std::vector<float> mesh;
        bool bounded; // a plane reaches the corners too
        bool front = true;
    };
    const Case cases[] = {
        {kSphere, {{"centre", {0, 0, -5}}}, {}, true},
        // The box's corners in either order.
        {kBox, {{"lo", {1, 1, -6}}, {"hi", {-1, -1, -4}}}, {}, true},
        {kPlane, {{"point", {3, 2, -4}}, {"normal", {0, 0, 2}}}, {}, false},
        {kPlane, {{"point", {0, 0, -4}}, {"normal", {0, 0, -1}}}, {}, false, false},
        {kMesh, {}, far, true},
        {kPlacedSphere,
         {{"centre", {0, 0, 0}}, {"placement", Placement({1, 1, 1}, {0, 0, -5})}},
         {},
         true},
        {kPlacedMesh, {{"placement", Placement({0.5f, 0.5f, 1}, {0, 0, -4})}}, quad, true},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.source);
        Start(4, 16, 16);
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 0);
        Frame("output(0, depth);\noutput(1, normal);\noutput(2, radiance);\noutput(3, albedo);\n");
        _KStexture* map = Texture(1, 1, KS_RGB, texel.data());
        Shape(c.source, kMetallicRoughness, c.uniforms);
        Set({{"emission", {2, 2, 2}}, {"base", {0.5f, 1, 1}}});
        SetTexture("emission_map", map);
        SetTexture("base_map", map);
        if (!c.mesh.empty())
            Mesh(c.mesh);
        Render();
        // These pixels lie within 0.1 radians of the view's axis. The
        // normal channel faces the camera either way.
        const float f = c.front ? 1.0f : 0.0f;
        for (int y = 7; y <= 8; ++y)
            for (int x = 7; x <= 8; ++x)
            {
                EXPECT_NEAR(At(0, x, y)[0], 4.05f, 0.05f);
                EXPECT_GT(At(1, x, y)[2], 0.95f);
                EXPECT_EQ(std::vector<float>(At(2, x, y), At(2, x, y) + 3),
                          (std::vector<float>{2 * f, f, 0.5f * f}));
                EXPECT_EQ(std::vector<float>(At(3, x, y), At(3, x, y) + 3),
                          (std::vector<float>{0.5f, 0.5f, 0.25f}));
            }
        EXPECT_EQ(At(0, 0, 0)[0] > 0.0f, !c.bounded);
        EXPECT_EQ(At(0, 15, 15)[0] > 0.0f, !c.bounded);
    }
}

// ---------------------------------------------------------------------------
// Materials

// Convex shapes in a uniform sky: every path that leaves them escapes, so
// what comes back is known; with no bounce allowed, nothing does. The
// sphere covers a disc of the picture, where albedo and depth show it and
// the sky shows around it.
TEST_F(Renderer, FurnaceGivesWhatEachMaterialPromises)
{
    struct Case
    {
        const char* material;
        Uniforms uniforms;
        int depthLimit;                // -1: the default
        std::array<float, 3> expected; // times the sky
        double tolerance;              // of the mean over the disc; 0: every sample
        std::array<float, 3> albedo;
        int bounces; // secondary rays a hit, in one frame; -1: not counted
    };
    const std::array<float, 3> colour = {0.5f, 0.25f, 1};
    const Uniforms albedo = {{"albedo", {colour[0], colour[1], colour[2]}}};
    const Case cases[] = {
        {kDiffuse, albedo, -1, colour, 0, colour, 1},
        {kDiffuse, albedo, 0, {0, 0, 0}, 0, colour, 0},
        {kMirror, {{"tint", {0.5f, 1, 0.75f}}}, -1, {0.5f, 1, 0.75f}, 0, {0.5f, 1, 0.75f}, 1},
        {kEmissive, {{"radiance", {3, 2, 1}}}, -1, {3, 2, 1}, 0, {3, 2, 1}, 0},
        // Glass returns all it takes in, some of it after many bounces.
        {kGlass, {}, -1, {1, 1, 1}, 0.03, {1, 1, 1}, -1},
    };
    constexpr int kFrames = 16;
    // The sphere's angular radius is asin(1.2 / 3); half the image is 30 degrees.
    const double radius = 16.0 * std::tan(std::asin(0.4)) / std::tan(kPi / 6.0);
    for (const Case& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.material << c.depthLimit);
        Start(3, 32, 32);
        SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        if (c.depthLimit >= 0)
            ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, c.depthLimit);
        Frame("output(0, radiance);\noutput(1, albedo);\noutput(2, depth);\n",
              {{"sky", {1, 1, 1}}});
        Shape(kSphere, c.material, {{"centre", {0, 0, -3}}, {"radius", {1.2f}}});
        Set(c.uniforms);
        Render(kFrames);
        // The middle of the disc only, away from the rim's mixed pixels.
        for (int k = 0; k < 3; ++k)
        {
            const double expected = c.expected[k];
            EXPECT_NEAR(Mean(0, 10, 10, 22, 22, k) / kFrames, expected, c.tolerance + 1e-5);
            for (int y = 10; c.tolerance == 0 && y < 22; ++y)
                for (int x = 10; x < 22; ++x)
                    EXPECT_FLOAT_EQ(At(0, x, y)[k] / kFrames, expected);
        }
        EXPECT_EQ(At(0, 0, 0)[0], kFrames) << "the sky itself is seen";
        int covered = 0;
        for (int y = 0; y < 32; ++y)
            for (int x = 0; x < 32; ++x)
            {
                // The sphere shows its albedo where it has depth, and
                // nothing shows elsewhere.
                const bool hit = At(2, x, y)[0] > 0.0f;
                covered += hit;
                EXPECT_EQ(std::vector<float>(At(1, x, y), At(1, x, y) + 3),
                          hit ? std::vector<float>(c.albedo.begin(), c.albedo.end())
                              : std::vector<float>(3, 0.0f))
                    << x << "," << y;
            }
        EXPECT_NEAR(covered, kPi * radius * radius, 20.0);
        EXPECT_EQ(Statistic(KS_FRAME_STATISTIC_4), 32 * 32) << "primary rays";
        EXPECT_TRUE(c.bounces < 0 || Statistic(KS_FRAME_STATISTIC_6) == c.bounces * covered)
            << "secondary rays";
        EXPECT_FLOAT_EQ(HitFraction(), covered / 1024.0f);
        double rate = 0.0;
        ksGetDoublev(KS_FRAME_STATISTIC_2, &rate);
        EXPECT_GT(rate, 0.0);
    }
}

// Between two facing diffuse planes of albedo 1/2 every path bounces until
// the depth limit or the roulette ends it: the first two bounces always go
// on, each later one with the chance of its throughput (1/8, then 1/2 once
// rescaled). A limit of 4 thus gives 2 + (1 + 1/2) / 8 secondary rays a path.
TEST_F(Renderer, RouletteStartsAtTheThirdBounce)
{
    Start(1, 32, 32);
    ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 4);
    Frame("output(0, radiance);\n");
    for (const char* plane : {kFloor, "plane(vec3(0, 1, 0), vec3(0, -1, 0));\n"})
        Shape(plane, kDiffuse, {{"albedo", {0.5f, 0.5f, 0.5f}}});
    Render();
    EXPECT_NEAR(Statistic(KS_FRAME_STATISTIC_6) / 1024.0, 2.0 + 1.5 / 8, 0.05);
}

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

// A floor seen head-on, lit over one bounce by an emitter alone: the
// picture's middle shows the floor point below the camera, whose radiance
// has a closed form. A metallic-roughness floor must show the same under an
// even sky (a furnace) and under an emissive plane above the camera (sampled
// and hit, weighed by the power heuristic): what it reflects. A
// single-scattering lobe loses what would bounce between microfacets: 0.307
// for white metal of roughness 1 head-on. Roughness 0 is as smooth as a
// finite lobe gets (0.03), not black.
TEST_F(Renderer, LitFloorsMatchTheClosedForms)
{
    const Vec point = {0, 0, 0};
    const Vec up = {0, 1, 0};
    constexpr float albedo = 0.5f;
    constexpr float radiance = 2.0f;
    // A sphere of radius 1 at (2, 1.5, 0): sin^2 of its half angle is 1/6.25.
    const double sphere = albedo * radiance * (1.0 / 6.25) * (1.5 / 2.5);
    const std::vector<Vec> triangle = {{1, 1, -1}, {1, 1.5, 1}, {2, 2, 0}};
    const double triangleLight = albedo / kPi * radiance * ProjectedSolidAngle(point, up, triangle);
    // The faces of the box [1, 2] x [1, 2] x [-0.5, 0.5] that face the point.
    const double box =
        albedo / kPi * radiance *
        (ProjectedSolidAngle(point, up, {{1, 1, -0.5}, {1, 2, -0.5}, {1, 2, 0.5}, {1, 1, 0.5}}) +
         ProjectedSolidAngle(point, up, {{1, 1, -0.5}, {2, 1, -0.5}, {2, 1, 0.5}, {1, 1, 0.5}}));
    struct Case
    {
        const char* shape; // of the light; null: a sky of its radiance, in red
        Uniforms uniforms;
        std::vector<float> mesh;
        double expected;
        double tolerance; // relative
        const char* light = kEmissive;
        Uniforms floor = {{"albedo", {albedo, albedo, albedo}}}; // metallic first: layered
    };
    std::vector<Case> cases = {
        // Sampled by its cone.
        {kSphere, {{"centre", {2, 1.5f, 0}}}, {}, sphere, 0.02},
        // Not quite round: sampled by the cone of a sphere around it, and hit.
        {kPlacedSphere,
         {{"centre", {0, 0, 0}}, {"placement", Placement({1, 1.001f, 1}, {2, 1.5f, 0})}},
         {},
         sphere,
         0.02},
        // Above the camera, filling the floor's sky: irradiance pi L.
        {kPlane, {{"point", {0, 6, 0}}, {"normal", {0, 1, 0}}}, {}, albedo * radiance, 0.02},
        // Sampled by area.
        {kMesh, {}, {1, 1, -1, 1, 1.5f, 1, 2, 2, 0}, triangleLight, 0.03},
        {"uniformblock mesh;\nmesh(mesh, 3, 1);\n",
         {},
         IndexedBlock({1, 1, -1, 0, 0, 0, 0, 0, 1, 1.5f, 1, 0, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 0, 0},
                      {0, 1, 2}),
         triangleLight,
         0.03},
        {kBox, {{"lo", {1, 1, -0.5f}}, {"hi", {2, 2, 0.5f}}}, {}, box, 0.03},
        // A surface's emission lights only what lies in front of it: not
        // the floor below this plane's back.
        {kPlane, {{"point", {0, 6, 0}}, {"normal", {0, 1, 0}}}, {}, 0, 0, kMetallicRoughness},
    };
    for (float roughness : {0.0f, 0.5f, 1.0f})
        for (float metallic : {0.0f, 1.0f})
            for (const char* shape : {static_cast<const char*>(nullptr), kPlane})
            {
                const double expected = HeadOnAlbedo(std::max(roughness, 0.03f), metallic);
                cases.push_back({shape,
                                 {{"point", {0, 6, 0}}, {"normal", {0, -1, 0}}},
                                 {},
                                 radiance * expected,
                                 0.01 / expected,
                                 kEmissive,
                                 {{"metallic", {metallic}}, {"roughness", {roughness}}}});
            }
    constexpr int kFrames = 16;
    for (const Case& c : cases)
    {
        SCOPED_TRACE(testing::Message()
                     << (c.shape ? c.shape : "sky") << ", expected " << c.expected);
        Start(1, 32, 32, KS_BLEND_MODE_2);
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 1);
        LookStraightDown("output(0, radiance);\n", {{"sky", {c.shape ? 0 : radiance, 0, 0}}});
        const bool layered = c.floor[0].name == std::string("metallic");
        Shape(kPlane, layered ? kMetallicRoughness : kDiffuse, {{"normal", {0, 1, 0}}});
        Set(c.floor);
        if (layered && c.shape)
        {
            // Under the light a packed map sets roughness (green) and metal
            // (blue), over factors of 1.
            const std::array<float, 3> packed = {0, c.floor[1].values[0], c.floor[0].values[0]};
            SetTexture("mr_map", Texture(1, 1, KS_RGB, packed.data()));
            Set({{"metallic", {1}}, {"roughness", {1}}});
        }
        if (c.shape)
        {
            Shape(
                c.shape, c.light,
                {{c.light == kEmissive ? "radiance" : "emission", {radiance, radiance, radiance}}});
            Set(c.uniforms);
        }
        if (!c.mesh.empty())
            Mesh(c.mesh);
        ASSERT_NO_KS_ERROR();
        Render(kFrames);
        EXPECT_NEAR(Mean(0, 0, 0, 32, 32) / kFrames, c.expected, c.expected * c.tolerance);
    }
}

// Two texels, black and white, on a plane whose texture coordinates are its
// world x and y less those of its point, so u = x + 0.5 here.
TEST_F(Renderer, TextureIsSampledWithItsFilterAndWrap)
{
    const float texels[2] = {0.0f, 1.0f};
    const std::pair<int, int> cases[] = {{KS_LINEAR, KS_CLAMP_TO_EDGE},
                                         {KS_NEAREST, KS_CLAMP_TO_EDGE},
                                         {KS_NEAREST, KS_REPEAT},
                                         {KS_NEAREST, KS_MIRRORED_REPEAT}};
    constexpr int kSize = 64;
    // The plane z = -2 spans x in [-w, w] with w = 2 tan(30 degrees).
    const double w = 2.0 * std::tan(kPi / 6.0);
    for (const auto& [filter, wrap] : cases)
    {
        SCOPED_TRACE(Hex(filter) + " " + Hex(wrap));
        const auto expected = [filter = filter, wrap = wrap](double u)
        {
            if (filter == KS_LINEAR)
                return std::max(0.0, std::min(1.0, 2 * u - 0.5));
            const double m = u - 2.0 * std::floor(u / 2.0); // in [0, 2)
            if (wrap == KS_REPEAT)
                u = u - std::floor(u);
            else if (wrap == KS_MIRRORED_REPEAT)
                u = m < 1.0 ? m : 2.0 - m;
            return u < 0.5 ? 0.0 : 1.0;
        };
        Start(1, kSize, kSize);
        Frame("output(0, albedo);\n");
        _KStexture* texture = Texture(2, 1, KS_LUMINANCE, texels, filter);
        ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, wrap);
        Shape(kPlane, kTextured, {{"point", {-0.5f, 0, -2}}, {"normal", {0, 0, 1}}});
        SetTexture("map", texture);
        Render();
        for (int x = 0; x < kSize; ++x)
        {
            // Each pixel's value lies between the values at its two edges,
            // or is one of them where a step falls inside it.
            const double u0 = (2.0 * x / kSize - 1.0) * w + 0.5;
            const double u1 = (2.0 * (x + 1) / kSize - 1.0) * w + 0.5;
            const double a = expected(u0), b = expected(u1 - 1e-9);
            const float value = At(0, x, kSize / 2)[0];
            EXPECT_GE(value, std::min(a, b) - 1e-5) << x;
            EXPECT_LE(value, std::max(a, b) + 1e-5) << x;
        }
    }
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
};

// The quad fills the middle of a 16 x 16 picture seen from the origin.
_KSbuffer* DrawQuad(Renderer& r, const Quad& quad, const char* material, const char* outputs)
{
    r.Start(1, 16, 16);
    r.Frame(outputs, {{"fov", {40}}});
    r.Shape(kIndexedMesh, material);
    _KSbuffer* buffer = r.Mesh(IndexedBlock(quad.vertices, quad.indices));
    r.SetInt("vertices", quad.vertexCount);
    r.SetInt("triangles", quad.triangleCount);
    return buffer;
}

TEST_F(Renderer, IndexedMeshShowsItsTextureUprightAndItsNormals)
{
    // Texel rows in memory: red, blue, then green, white. v = 0 reads the
    // first row, which must land at the bottom of the picture (row 0).
    const float texels[12] = {1, 0, 0, 0, 0, 1, 0, 1, 0, 1, 1, 1};
    Quad quad;
    DrawQuad(*this, quad, kTextured, "output(0, albedo);\n");
    SetTexture("map", Texture(2, 2, KS_RGB, texels, KS_NEAREST));
    Render();
    for (int y : {0, 1})
        for (int x : {0, 1})
            EXPECT_EQ(
                std::vector<float>(At(0, 4 + 7 * x, 4 + 7 * y), At(0, 4 + 7 * x, 4 + 7 * y) + 3),
                std::vector<float>(texels + 6 * y + 3 * x, texels + 6 * y + 3 * x + 3))
                << x << y;

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

    // Shading normals all tilted 60 degrees in a sky of 1: a quarter of the
    // cosine samples about them dip below the surface and are lost.
    for (int v = 0; v < 4; ++v)
    {
        quad.vertices[8 * v + 3] = std::sqrt(0.75f);
        quad.vertices[8 * v + 5] = 0.5f;
    }
    DrawQuad(*this, quad, kDiffuse, "output(0, radiance);\n");
    Frame("output(0, radiance);\n", {{"sky", {1, 1, 1}}, {"fov", {40}}});
    SetAttachment(0, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
    ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, 1);
    Render(16);
    EXPECT_NEAR(Mean(0, 5, 5, 11, 11) / 16, 0.75 * 0.8, 0.05);
}

TEST_F(Renderer, IndexedMeshLeavesOutWhatItCannotRead)
{
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
        std::vector<std::array<int, 2>> dark, lit;
    };
    const Case cases[] = {
        {"a sphere hides the light from the floor around (4, 0, 0)",
         [](Renderer& r)
         {
             r.Shape(kSphere, kEmissive,
                     {{"centre", {6, 3, 0}}, {"radius", {0.2f}}, {"radiance", {5, 5, 5}}});
             r.Shape(kSphere, kDiffuse, {{"centre", {5, 1.5f, 0}}, {"radius", {0.5f}}});
         },
         {{47, 31}, {47, 32}}, // x in [3.75, 4]
         {{16, 32}, {8, 40}, {60, 60}}},
        {"no emitter: the open sky", [](Renderer&) {}, {}, {{0, 0}, {32, 32}, {63, 10}}},
        {"no emitter: a ceiling over the floor",
         [](Renderer& r) { r.Shape("plane(vec3(0, 9, 0), vec3(0, -1, 0));\n", kDiffuse); },
         {{0, 0}, {32, 32}, {63, 10}},
         {}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.label);
        Start(1, 64, 64, KS_BLEND_MODE_1);
        ksClearColor(1, 1, 1, 1);
        ksClear(KS_COLOR_BUFFER_BIT);
        Frame("output(0, visibility);\n",
              {{"eye", {0, 8, 0}}, {"target", {0, 0, 0}}, {"up", {0, 0, -1}}, {"fov", {90}}});
        Shape("plane(vec3(0, 0, 0), vec3(0, 1, 0));\n", kDiffuse);
        c.scene(*this);
        // Multiplied over frames: a pixel stays 1 only if every sample saw.
        Render(4);
        for (const auto& p : c.dark)
            EXPECT_EQ(At(0, p[0], p[1])[0], 0.0f) << p[0] << "," << p[1];
        for (const auto& p : c.lit)
            EXPECT_EQ(At(0, p[0], p[1])[0], 1.0f) << p[0] << "," << p[1];
    }
}

// ---------------------------------------------------------------------------
// Blending and formats

// The bytes of `values`, one after the other.
template <typename... T>
std::vector<unsigned char> Bytes(T... values)
{
    std::vector<unsigned char> out;
    (out.insert(out.end(), reinterpret_cast<const unsigned char*>(&values),
                reinterpret_cast<const unsigned char*>(&values) + sizeof(values)),
     ...);
    return out;
}

// An empty scene: every sample is the sky, exactly. Each attachment of the
// one frame blends it by its own mode and converts it to its own format.
TEST_F(Renderer, SamplesAreBlendedAndConvertedPerAttachment)
{
    using u8 = unsigned char;
    using u16 = unsigned short;
    struct Case
    {
        int format, type, mode;
        std::vector<unsigned char> cleared; // one pixel before the frame
        std::vector<unsigned char> expected;
    };
    const std::vector<unsigned char> half = Bytes(0.5f, 0.5f, 0.5f, 0.5f);
    const Case cases[] = {
        {KS_RGBA, KS_FLOAT, KS_BLEND_MODE_0, half, Bytes(0.25f, 2.0f, 0.5f, 1.0f)},
        {KS_RGBA, KS_FLOAT, KS_BLEND_MODE_1, half, Bytes(0.125f, 1.0f, 0.25f, 0.5f)},
        {KS_RGBA, KS_FLOAT, KS_BLEND_MODE_2, half, Bytes(0.75f, 2.5f, 1.0f, 1.5f)},
        {KS_RGBA, KS_FLOAT, KS_BLEND_MODE_3, half, Bytes(0.5f, 2.0f, 0.5f, 1.0f)},
        {KS_RGBA, KS_UNSIGNED_BYTE, KS_BLEND_MODE_2, Bytes(u8(128), u8(0), u8(0), u8(0)),
         Bytes(u8(192), u8(255), u8(128), u8(255))},
        {KS_RGB, KS_FLOAT, KS_BLEND_MODE_0, Bytes(0.0f, 0.0f, 0.0f), Bytes(0.25f, 2.0f, 0.5f)},
        {KS_LUMINANCE, KS_UNSIGNED_SHORT, KS_BLEND_MODE_3, Bytes(u16(30000)), Bytes(u16(30000))},
        {KS_RGBA, KS_SHORT, KS_BLEND_MODE_1,
         Bytes(short(-32767), short(32767), short(0), short(32767)),
         Bytes(short(-8192), short(32767), short(0), short(32767))},
    };
    constexpr int kPixels = 20 * 18; // tiles that do not fill the image evenly
    std::deque<std::vector<unsigned char>> images;
    std::string outputs;
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    for (std::size_t i = 0; i < std::size(cases); ++i)
    {
        images.emplace_back();
        for (int p = 0; p < kPixels; ++p)
            images.back().insert(images.back().end(), cases[i].cleared.begin(),
                                 cases[i].cleared.end());
        Attach(int(i),
               NewClientTexture(20, 18, cases[i].format, cases[i].type, images.back().data()));
        SetAttachment(int(i), KS_ATTACHMENT_BLEND_MODE, cases[i].mode);
        outputs += "output(" + std::to_string(i) + ", radiance);\n";
    }
    Frame(outputs, {{"sky", {0.25f, 2.0f, 0.5f}}});
    Render();
    for (std::size_t i = 0; i < std::size(cases); ++i)
    {
        const std::size_t size = cases[i].expected.size();
        for (int p = 0; p < kPixels; ++p)
            ASSERT_EQ(std::vector<unsigned char>(images[i].begin() + p * size,
                                                 images[i].begin() + (p + 1) * size),
                      cases[i].expected)
                << "attachment " << i << ", pixel " << p;
    }
}

// ---------------------------------------------------------------------------
// Pixel filters

void SetFilter(float size, int tableSize, const float* table)
{
    ksFrameParameter1f(KS_FILTER_SIZE, size);
    ksFrameParameter1i(KS_FILTER_TABLE_SIZE, tableSize);
    ksFrameParameterfv(KS_FILTER_TABLE, table);
}

// The floor y = -1 below the default camera fills the lower half: its depth
// changes with the raster position, so it shows where each sample was
// taken. The sky above shows each sample's weight: the table's magnitude
// over its integral, with the sign of its cell ({3, -1} weighs +2 or -2, a
// quarter of the samples negative). Lobes that cancel keep their bare
// signs; a table of no weight is no table. Only what is added is weighed.
TEST_F(Renderer, FilterTablePlacesAndWeighsTheSamples)
{
    constexpr int kSize = 32;
    const double tanHalf = std::tan(kPi / 6.0);
    const auto depthAt = [&](double sx, double sy)
    {
        const double a = (2.0 * sx / kSize - 1.0) * tanHalf;
        const double b = (2.0 * sy / kSize - 1.0) * tanHalf;
        return std::sqrt(a * a + b * b + 1.0) / -b;
    };
    const struct
    {
        float size;
        int tableSize;
        std::vector<std::array<float, 3>> cells; // row, column, value; the rest is 0
        float weight;
        double negative; // the share of samples
    } cases[] = {
        {1, 9, {{4, 4, 1}}, 1, 0},
        {1, 9, {{4, 8, 1}}, 1, 0},
        {1, 9, {{1, 2, 1}}, 1, 0},
        {1, 9, {{0, 0, 1}}, 1, 0},
        {2, 9, {{8, 8, 1}}, 1, 0},
        {2, 9, {{4, 1, 1}}, 1, 0},
        {1, 2, {{0, 0, 3}, {0, 1, -1}}, 2, 0.25},
        {1, 2, {{0, 0, 1}, {0, 1, -1}}, 1, 0.5},
        {1, 2, {{0, 1, kNaN}}, 1, 0},
    };
    int boxOutside = 0;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.tableSize << " x " << c.tableSize << ", first "
                                        << c.cells[0][0] << "," << c.cells[0][1]);
        Start(3, kSize, kSize);
        for (int i : {1, 2})
            SetAttachment(i, KS_ATTACHMENT_FILTER, 1);
        SetAttachment(2, KS_ATTACHMENT_BLEND_MODE, KS_BLEND_MODE_2);
        Frame("output(0, depth);\noutput(1, depth);\noutput(2, radiance);\n",
              {{"sky", {1, 0.5f, 0.25f}}});
        Shape(kFloor, kDiffuse);
        std::vector<float> table(std::size_t(c.tableSize * c.tableSize), 0.0f);
        for (const auto& [row, column, value] : c.cells)
            table[std::size_t(row * c.tableSize + column)] = value;
        // Samples land in the cells from the first given to the last, or
        // anywhere in the square when the table has no weight.
        const auto [r0, c0, first] = c.cells.front();
        const auto [r1, c1, last] = c.cells.back();
        const bool none = std::isnan(first);
        const double step = double(c.size) / c.tableSize;
        const double x0 = none ? 0 : (c0 - 0.5) * step, x1 = none ? c.size : (c1 + 0.5) * step;
        const double y0 = none ? 0 : (r0 - 0.5) * step, y1 = none ? c.size : (r1 + 0.5) * step;
        SetFilter(c.size, c.tableSize, table.data());
        ASSERT_NO_KS_ERROR();
        // After a refused size no table is taken, at whatever size: the
        // last good one stays in force.
        const float stray = 5.0f;
        SetFilter(c.size, 0, &stray);
        EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
        const std::vector<Notice> notices = _recorder.Take();
        ASSERT_EQ(notices.size(), 2u);
        EXPECT_EQ(notices[1].code, KS_INVALID_OPERATION);
        Render();
        int negative = 0;
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x)
            {
                if (y >= kSize / 2 + 2) // sky, whatever the offset
                {
                    const float* added = At(2, x, y);
                    const float sign = added[0] < 0.0f ? -1.0f : 1.0f;
                    negative += sign < 0.0f;
                    EXPECT_EQ(added[0], c.weight * sign);
                    EXPECT_EQ(added[2], 0.25f * c.weight * sign);
                    continue;
                }
                if (y >= 5)
                    continue;
                double low = 1e30, high = 0.0;
                for (int i = 0; i <= 4; ++i)
                    for (int j = 0; j <= 4; ++j)
                    {
                        const double d = depthAt(x + 0.5 - 0.5 * c.size + x0 + i / 4.0 * (x1 - x0),
                                                 y + 0.5 - 0.5 * c.size + y0 + j / 4.0 * (y1 - y0));
                        low = std::min(low, d);
                        high = std::max(high, d);
                    }
                // Replaced, not added: the depth is the sample's, unweighed.
                const float filtered = At(1, x, y)[0];
                EXPECT_GE(filtered, low * (1 - 1e-4)) << x << "," << y;
                EXPECT_LE(filtered, high * (1 + 1e-4)) << x << "," << y;
                const float box = At(0, x, y)[0];
                boxOutside += box < low * (1 - 1e-4) || box > high * (1 + 1e-4);
            }
        EXPECT_NEAR(negative, c.negative * kSize * (kSize / 2 - 2), 40);
    }
    EXPECT_GT(boxOutside, 100) << "unfiltered samples spread over the whole pixel";
}

// ---------------------------------------------------------------------------
// Threads, stops and the scene cache

// The same rich scene in the current context. Its metallic-roughness balls
// have factors and texels out of range, NaN included, and a light so small
// that the square of its density overflows lights them: none of it may
// give NaN or negative light.
void BuildRichScene(Renderer& r)
{
    const struct
    {
        float roughness, metallic;
        std::array<float, 3> texel; // of all three maps
    } balls[] = {{-1, 2, {1, 1, 1}}, {1, 0.5f, {kNaN, -5, 1e30f}}, {0.5f, 1, {-1, kNaN, 0}}};
    for (int i = 0; i < 3; ++i)
    {
        _KStexture* texture = Renderer::Texture(1, 1, KS_RGB, balls[i].texel.data());
        r.Shape(kSphere, kMetallicRoughness,
                {{"centre", {1.5f * float(i - 1), 0.6f, -4}},
                 {"radius", {0.4f}},
                 {"roughness", {balls[i].roughness}},
                 {"metallic", {balls[i].metallic}},
                 {"emission", {1, -1, 0.5f}}});
        for (const char* map : {"base_map", "mr_map", "emission_map"})
            r.SetTexture(map, texture);
    }
    r.Shape(kSphere, kEmissive,
            {{"centre", {0, 0.8f, -2.5f}}, {"radius", {1e-11f}}, {"radiance", {5, 5, 5}}});
    r.Shape(kFloor, kDiffuse);
    r.Shape(kSphere, kGlass, {{"centre", {-0.8f, -0.3f, -3}}, {"radius", {0.6f}}});
    r.Shape(kSphere, kMirror,
            {{"centre", {0.8f, -0.4f, -3.5f}}, {"radius", {0.6f}}, {"tint", {0.9f, 0.8f, 0.7f}}});
    r.Shape(kBox, kEmissive,
            {{"lo", {-0.5f, 1.5f, -4}}, {"hi", {0.5f, 1.6f, -3}}, {"radiance", {8, 7, 6}}});
    r.Frame("output(0, radiance);\noutput(1, visibility);\n", {{"sky", {0.1f, 0.1f, 0.2f}}});
}

// The rich scene comes out the same for any number of render threads, and
// after a stopped frame. A stop from the render hook ends the frame before
// any tile; a stop, or a destroy, from another thread while the scene is
// being built ends it too: the build gives up. Neither carries over to the
// next frame.
TEST_F(Renderer, ThreadCountsAndStopsLeaveTheImageAlone)
{
    std::vector<std::vector<float>> images;
    for (const auto& [how, threads] : std::vector<std::pair<std::string, long long>>{
             {"no stop", 1}, {"render", 2}, {"build", 0}, {"destroy", -1}}) // 0: one per core
    {
        SCOPED_TRACE(how);
        Start(2, 70, 50, KS_BLEND_MODE_2, threads);
        BuildRichScene(*this);
        ksClearColor(0.5f, 0.5f, 0.5f, 0.5f);
        ksClear(KS_COLOR_BUFFER_BIT);
        // The index seeds a frame's samples and moves on by one, back to 0
        // after the largest: after a stopped frame at the largest, the next
        // two frames have the samples of a run that starts from 0.
        ksFrameParameter1i(KS_FRAME_INDEX, how == "no stop" ? 0 : INT_MAX);
        ASSERT_NO_KS_ERROR();
        const int live = Kestrel::Testing::CountContexts();
        const std::string mode = how;
        std::thread destroyer;
        if (mode != "no stop")
        {
            Kestrel::Testing::AutoRenderHook renderHook(
                [&](void* context)
                {
                    if (mode == "render")
                        KestrelStopContext(context);
                });
            Kestrel::Testing::AutoBuildHook buildHook(
                [&](void* context)
                {
                    if (mode == "build")
                        std::thread([context] { KestrelStopContext(context); }).join();
                    if (mode != "destroy")
                        return;
                    // The destroy waits for the context's lock, which the
                    // build holds; it has stopped the frame once the context
                    // has left the registry.
                    destroyer = std::thread([context] { KestrelDestroyContext(context); });
                    while (Kestrel::Testing::CountContexts() == live)
                        std::this_thread::yield();
                });
            ksRenderFrame();
            if (destroyer.joinable())
                destroyer.join();
            for (const std::vector<float>& image : _images)
                for (float value : image)
                    ASSERT_EQ(value, 0.5f) << "a tile was rendered";
            if (mode == "destroy")
            {
                _recorder.Take(); // whatever the dying context had to say
                continue;
            }
            EXPECT_EQ(ksGetError(), KS_RENDER_STOPPED);
            const std::vector<Notice> notices = _recorder.Take();
            ASSERT_EQ(notices.size(), 1u);
            EXPECT_EQ(notices[0].message, "frame stopped");
            EXPECT_EQ(Statistic(KS_FRAME_STATISTIC_4), 0);
            EXPECT_EQ(SceneBuilds(), mode == "build" ? 0 : 1) << "the build gave up";
        }
        Render(2);
        int index = -1;
        ksGetFrameParameteriv(KS_FRAME_INDEX, &index);
        EXPECT_EQ(index, 2);
        EXPECT_EQ(SceneBuilds(), 1) << "the stop did not carry over";
        EXPECT_EQ(Statistic(KS_FRAME_STATISTIC_4), 70 * 50);
        images.push_back(_images[0]);
        images.back().insert(images.back().end(), _images[1].begin(), _images[1].end());
    }
    EXPECT_EQ(images[0], images[1]);
    EXPECT_EQ(images[0], images[2]);
    // Not a blank picture that any thread count would agree on; a NaN would
    // not have been equal to itself, and no sample is below 0.
    const auto [low, high] = std::minmax_element(images[0].begin(), images[0].end());
    EXPECT_EQ(*low, 0.5f);
    EXPECT_GT(*high, 1.5f);
    EXPECT_TRUE(std::isfinite(*high));
    Start(0, 0, 0);
}

TEST_F(Renderer, SceneIsRebuiltOnlyWhenItsInputsChange)
{
    Start(2, 16, 16);
    Frame("output(0, radiance);\noutput(1, depth);\n");
    _KSprogram* frame = _pProgram;
    const KSprimitive sphere = Shape(kSphere, kDiffuse, {{"centre", {0, 0, -5}}});
    _KSprogram* sphereProgram = _pProgram;
    // One indexed quad placed twice, small and near, in the upper corners.
    const Quad quad;
    const std::vector<float> block = IndexedBlock(quad.vertices, quad.indices);
    const KSprimitive right = Shape(kIndexedMesh, kDiffuse);
    _KSbuffer* buffer = Mesh(block);
    const KSprimitive left = Primitive(_pProgram);
    ksUniformBlockBuffer(ksGetUniformBlockIndex(_pProgram, "mesh"), buffer);
    for (const auto& [primitive, x] : {std::pair{right, 0.35f}, std::pair{left, -0.35f}})
    {
        ksBindPrimitive(KS_PRIMITIVE, primitive);
        Set({{"placement", Placement({0.06f, 0.06f, 0.25f}, {x, 0.35f, 0})}});
        SetInt("vertices", quad.vertexCount);
        SetInt("triangles", quad.triangleCount);
    }
    _KStexture* texture = Texture(1, 1, KS_RGB, nullptr);
    const KSprimitive textured = Shape(kSphere, kTextured, {{"centre", {-3, -3, -9}}});
    SetTexture("map", texture);
    _KStexture* packed = Texture(1, 1, KS_RGB, nullptr);
    Shape(kSphere, kMetallicRoughness, {{"centre", {3, -3, -9}}});
    SetTexture("base_map", packed);
    _KSbuffer* stranger = NewBuffer();
    Render();
    ASSERT_EQ(SceneBuilds(), 1);
    EXPECT_EQ(MeshBuilds(), 1) << "one for both quads";
    for (int x : {1, 14})
        EXPECT_NEAR(At(1, x, 14)[0], 0.9f, 0.03f) << "the quad at column " << x;

    const float smallSphere = HitFraction();
    long long builds = 1;
    // Renders after the change just made.
    const auto expectBuild = [&](const char* change, bool rebuilds)
    {
        ASSERT_NO_KS_ERROR() << change;
        Render();
        builds += rebuilds ? 1 : 0;
        EXPECT_EQ(SceneBuilds(), builds) << change;
    };
    expectBuild("nothing", false);
    UseFrame(frame, {{"sky", {1, 1, 1}}});
    expectBuild("a frame uniform", false);
    ksBindPrimitive(KS_PRIMITIVE, sphere);
    Use(sphereProgram, {{"radius", {2}}});
    expectBuild("a uniform of a shape", true);
    EXPECT_EQ(MeshBuilds(), 1) << "lent by the last scene";
    ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, buffer);
    ksBufferData(KS_UNIFORM_BLOCK_BUFFER, block.size() * sizeof(float), block.data(),
                 KS_STATIC_DRAW);
    expectBuild("the mesh's storage", true);
    static_cast<float*>(ksMapBuffer(KS_UNIFORM_BLOCK_BUFFER, KS_WRITE_ONLY))[0] = 2;
    ksUnmapBuffer(KS_UNIFORM_BLOCK_BUFFER);
    expectBuild("a mapping of the mesh", true);
    ksBufferData(KS_UNIFORM_BLOCK_BUFFER, 4, nullptr, KS_STATIC_DRAW);
    expectBuild("storage too short for the counts", true);
    EXPECT_EQ(At(1, 1, 14)[0] + At(1, 14, 14)[0], 0.0f) << "both quads go";
    ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, stranger);
    ksBufferData(KS_UNIFORM_BLOCK_BUFFER, 36, nullptr, KS_STATIC_DRAW);
    expectBuild("a buffer no primitive reads", false);
    for (_KStexture* map : {texture, packed})
    {
        ksBindTexture(KS_TEXTURE_2D, map);
        ksTexParameteri(KS_TEXTURE_2D, KS_TEXTURE_WRAP_S, KS_CLAMP_TO_EDGE);
        expectBuild(map == texture ? "the material's texture" : "a metallic-roughness map", true);
    }
    NewTexture();
    expectBuild("a new texture", false);
    ksLinkProgram(sphereProgram);
    expectBuild("a relink", true);
    KSprimitive doomed[3] = {right, left, textured};
    ksDeletePrimitives(3, doomed);
    expectBuild("a deleted primitive", true);
    ksDeleteBuffers(1, &buffer);
    expectBuild("a deleted buffer that was no longer read", false);
    EXPECT_GT(HitFraction(), 2.0f * smallSphere) << "the new radius is in the picture";
}

} // namespace
} // namespace KestrelTest
