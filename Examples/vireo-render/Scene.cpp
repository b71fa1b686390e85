#include "Scene.h"

#include <cmath>
#include <cstring>

namespace VireoRender
{

using namespace Vireo;

namespace
{

// Shapes: each draws with uniforms that every primitive sets for itself.
const char* const kSphereSource = R"(
uniform vec3 center;
uniform float radius = 1.0;
sphere(center, radius);
)";
const char* const kPlaneSource = R"(
uniform vec3 point;
uniform vec3 normal;
plane(point, normal);
)";
const char* const kMeshSource = R"(
uniformblock mesh;            // three floats per vertex, three vertices per triangle
uniform mat4 placement;
triangles(mesh);
transform(placement);
)";

// Materials.
const char* const kDiffuseSource = "uniform vec3 albedo = vec3(0.8, 0.8, 0.8);\ndiffuse(albedo);\n";
const char* const kTexturedSource = "uniform texture albedoMap;\ndiffuse_texture(albedoMap);\n";
const char* const kMirrorSource = "uniform vec3 tint = vec3(0.95, 0.95, 0.95);\nmirror(tint);\n";

// A regular octahedron of unit radius: eight triangles, wound outwards.
std::vector<float> Octahedron()
{
    const float v[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    const int faces[8][3] = {{0, 2, 4}, {4, 2, 1}, {1, 2, 5}, {5, 2, 0},
                             {4, 3, 0}, {1, 3, 4}, {5, 3, 1}, {0, 3, 5}};
    std::vector<float> floats;
    for (const auto& face : faces)
        for (int corner : face)
            floats.insert(floats.end(), v[corner], v[corner] + 3);
    return floats;
}

// Scale, a turn about y, then a move: row-major, as the setters take it.
Matrix44f Placement(float scale, float turnDegrees, const Vector3f& at)
{
    const float a = turnDegrees * 3.14159265f / 180.0f;
    const float c = std::cos(a) * scale, s = std::sin(a) * scale;
    Matrix44f m;
    m.m[0][0] = c;
    m.m[0][2] = s;
    m.m[1][1] = scale;
    m.m[2][0] = -s;
    m.m[2][2] = c;
    m.m[0][3] = at.x;
    m.m[1][3] = at.y;
    m.m[2][3] = at.z;
    m.m[3][3] = 1;
    return m;
}

// A two-tone checkerboard, 8 squares a side, RGB8.
std::vector<unsigned char> Checker(int size)
{
    std::vector<unsigned char> texels(static_cast<std::size_t>(size) * size * 3);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
        {
            const bool light = ((x * 8 / size) + (y * 8 / size)) % 2 == 0;
            unsigned char* texel = &texels[(static_cast<std::size_t>(y) * size + x) * 3];
            texel[0] = light ? 200 : 60;
            texel[1] = light ? 190 : 60;
            texel[2] = light ? 170 : 70;
        }
    return texels;
}

} // namespace

std::vector<std::string> Scene::Names()
{
    return {"room", "spheres"};
}

bool Scene::Build(const std::string& name, std::string* error)
{
    if (name == "room")
        return _BuildRoom(error);
    if (name == "spheres")
        return _BuildSpheres(error);
    *error = "unknown scene '" + name + "'";
    return false;
}

IKSProgram* Scene::_Program(std::initializer_list<IKSShader*> shaders, std::string* error)
{
    IKSProgram* program = _pContext->CreateIKSProgram();
    if (program == nullptr)
    {
        *error = "no program object";
        return nullptr;
    }
    _programs.push_back(program);
    for (IKSShader* shader : shaders)
        program->AddShader(shader);
    if (!program->Link())
    {
        *error = "program did not link (the console has its log)";
        return nullptr;
    }
    return program;
}

IKSPrimitive* Scene::_Primitive(IKSProgram* program, const std::string& name)
{
    IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
    _primitives.push_back(primitive);
    primitive->SetName(name);
    // The program of a primitive is the host's to give: Kestrel's own call,
    // on the bound primitive.
    primitive->Bind();
    ksUseProgram(program->GetKSProgram());
    return primitive;
}

bool Scene::_Frame(IKSProgram* program, const Vector3f& eye, const Vector3f& target, float fov,
                   std::string* error)
{
    IKSPrimitive* frame = _pContext->TheNullPrimitive();
    if (frame == nullptr)
    {
        *error = "the context has no frame primitive";
        return false;
    }
    frame->Bind();
    ksUseProgram(program->GetKSProgram());
    frame->SetUniform("eye", program->GetLocationUniform("eye"), eye);
    frame->SetUniform("target", program->GetLocationUniform("target"), target);
    frame->SetUniform("fov", program->GetLocationUniform("fov"), fov);
    return true;
}

bool Scene::_BuildRoom(std::string* error)
{
    IKSShader* sphere = _Shader(IKSShader::kST_Vertex, kSphereSource, error);
    IKSShader* plane = sphere ? _Shader(IKSShader::kST_Vertex, kPlaneSource, error) : nullptr;
    IKSShader* mesh = plane ? _Shader(IKSShader::kST_Vertex, kMeshSource, error) : nullptr;
    IKSShader* diffuse = mesh ? _Shader(IKSShader::kST_Kind2, kDiffuseSource, error) : nullptr;
    IKSShader* textured = diffuse ? _Shader(IKSShader::kST_Kind2, kTexturedSource, error) : nullptr;
    IKSShader* emissive =
        textured ? _Shader(IKSShader::kST_Kind2, kEmissiveSource, error) : nullptr;
    IKSShader* mirror = emissive ? _Shader(IKSShader::kST_Kind2, kMirrorSource, error) : nullptr;
    IKSShader* glass = mirror ? _Shader(IKSShader::kST_Kind2, kGlassSource, error) : nullptr;
    IKSShader* frame = glass ? _Shader(IKSShader::kST_Kind3, kFrameSource, error) : nullptr;
    if (frame == nullptr)
        return false;

    IKSProgram* wall = _Program({plane, diffuse}, error);
    IKSProgram* floor = wall ? _Program({plane, textured}, error) : nullptr;
    IKSProgram* lamp = floor ? _Program({sphere, emissive}, error) : nullptr;
    IKSProgram* chrome = lamp ? _Program({sphere, mirror}, error) : nullptr;
    IKSProgram* crystal = chrome ? _Program({sphere, glass}, error) : nullptr;
    IKSProgram* solid = crystal ? _Program({mesh, diffuse}, error) : nullptr;
    IKSProgram* view = solid ? _Program({frame}, error) : nullptr;
    if (view == nullptr)
        return false;

    // Five walls and a sixth behind the camera close the room.
    struct Wall
    {
        const char* name;
        Vector3f point, normal, albedo;
    };
    const Wall walls[] = {
        {"ceiling", {0, 2, 0}, {0, -1, 0}, {0.8f, 0.8f, 0.8f}},
        {"back", {0, 0, -1}, {0, 0, 1}, {0.8f, 0.8f, 0.8f}},
        {"left", {-1, 0, 0}, {1, 0, 0}, {0.75f, 0.15f, 0.12f}},
        {"right", {1, 0, 0}, {-1, 0, 0}, {0.15f, 0.6f, 0.2f}},
        {"front", {0, 0, 4}, {0, 0, -1}, {0.8f, 0.8f, 0.8f}},
    };
    const int point = wall->GetLocationUniform("point");
    const int normal = wall->GetLocationUniform("normal");
    const int albedo = wall->GetLocationUniform("albedo");
    for (const Wall& w : walls)
    {
        IKSPrimitive* p = _Primitive(wall, w.name);
        p->SetUniform("point", point, w.point);
        p->SetUniform("normal", normal, w.normal);
        p->SetUniform("albedo", albedo, w.albedo);
    }

    // The floor: a checkerboard from the host's memory, mipmapped.
    IKSTexImage2D* checker = _pContext->CreateIKSTexImage2D();
    if (checker == nullptr)
    {
        *error = "no texture object";
        return false;
    }
    _textures.push_back(checker);
    _textureTexels = Checker(256);
    if (!checker->SetImage(256, 256, IKSTexImage::kTF_RGB8, KS_REPEAT, KS_LINEAR_MIPMAP_LINEAR,
                           KS_LINEAR, _textureTexels.data(), false) ||
        !checker->GenerateMipMaps())
    {
        *error = "the floor texture was refused";
        return false;
    }
    IKSPrimitive* ground = _Primitive(floor, "floor");
    ground->SetUniform("point", floor->GetLocationUniform("point"), Vector3f{0, 0, 0});
    ground->SetUniform("normal", floor->GetLocationUniform("normal"), Vector3f{0, 1, 0});
    ground->SetUniform("albedoMap", floor->GetLocationUniform("albedoMap"),
                       checker->GetKSTexture());

    IKSPrimitive* light = _Primitive(lamp, "lamp");
    light->SetUniform("center", lamp->GetLocationUniform("center"), Vector3f{0, 1.85f, -0.1f});
    light->SetUniform("radius", lamp->GetLocationUniform("radius"), 0.2f);
    light->SetUniform("radiance", lamp->GetLocationUniform("radiance"), Vector3f{14, 13, 11});

    IKSPrimitive* ball = _Primitive(chrome, "mirror ball");
    ball->SetUniform("center", chrome->GetLocationUniform("center"),
                     Vector3f{-0.45f, 0.35f, -0.35f});
    ball->SetUniform("radius", chrome->GetLocationUniform("radius"), 0.35f);

    IKSPrimitive* lens = _Primitive(crystal, "glass ball");
    lens->SetUniform("center", crystal->GetLocationUniform("center"), Vector3f{0.4f, 0.3f, 0.35f});
    lens->SetUniform("radius", crystal->GetLocationUniform("radius"), 0.3f);

    // The octahedron lives in a buffer that the primitive reads as a
    // uniform block; the host fills it through a mapping.
    const std::vector<float> vertices = Octahedron();
    IKSBuffer* buffer = _pContext->CreateIKSBuffer();
    _buffers.push_back(buffer);
    if (!buffer->Init(IKSBuffer::kUsage_StaticDraw, vertices.size() * sizeof(float)))
    {
        *error = "the mesh buffer was refused";
        return false;
    }
    {
        KSBufferMapping mapping(buffer, KSBufferMapping::kAccess_WriteOnly,
                                KSBufferMapping::kBindPoint_UniformBlock);
        if (mapping.GetMap() == nullptr)
        {
            *error = "the mesh buffer could not be mapped";
            return false;
        }
        std::memcpy(mapping.GetMap(), vertices.data(), vertices.size() * sizeof(float));
    }
    IKSPrimitive* gem = _Primitive(solid, "octahedron");
    gem->SetUniformBlock("mesh", solid->GetLocationUniformBlock("mesh"), buffer);
    const Matrix44f placement = Placement(0.28f, 30.0f, {0.55f, 0.28f, -0.6f});
    gem->SetUniform("placement", solid->GetLocationUniform("placement"), std::uint64_t(1),
                    &placement);
    gem->SetUniform("albedo", solid->GetLocationUniform("albedo"), Vector3f{0.85f, 0.65f, 0.2f});

    return _Frame(view, {0, 1, 3.4f}, {0, 0.9f, 0}, 40.0f, error);
}

bool Scene::_BuildSpheres(std::string* error)
{
    IKSShader* sphere = _Shader(IKSShader::kST_Vertex, kSphereSource, error);
    IKSShader* plane = sphere ? _Shader(IKSShader::kST_Vertex, kPlaneSource, error) : nullptr;
    IKSShader* diffuse = plane ? _Shader(IKSShader::kST_Kind2, kDiffuseSource, error) : nullptr;
    IKSShader* emissive = diffuse ? _Shader(IKSShader::kST_Kind2, kEmissiveSource, error) : nullptr;
    IKSShader* mirror = emissive ? _Shader(IKSShader::kST_Kind2, kMirrorSource, error) : nullptr;
    IKSShader* glass = mirror ? _Shader(IKSShader::kST_Kind2, kGlassSource, error) : nullptr;
    IKSShader* frame = glass ? _Shader(IKSShader::kST_Kind3, kFrameSource, error) : nullptr;
    if (frame == nullptr)
        return false;
    IKSProgram* ground = _Program({plane, diffuse}, error);
    IKSProgram* matte = ground ? _Program({sphere, diffuse}, error) : nullptr;
    IKSProgram* chrome = matte ? _Program({sphere, mirror}, error) : nullptr;
    IKSProgram* crystal = chrome ? _Program({sphere, glass}, error) : nullptr;
    IKSProgram* lamp = crystal ? _Program({sphere, emissive}, error) : nullptr;
    IKSProgram* view = lamp ? _Program({frame}, error) : nullptr;
    if (view == nullptr)
        return false;

    IKSPrimitive* floor = _Primitive(ground, "ground");
    floor->SetUniform("point", ground->GetLocationUniform("point"), Vector3f{0, 0, 0});
    floor->SetUniform("normal", ground->GetLocationUniform("normal"), Vector3f{0, 1, 0});
    floor->SetUniform("albedo", ground->GetLocationUniform("albedo"), Vector3f{0.5f, 0.5f, 0.5f});

    // A row of three kinds of sphere in front of a warm light.
    IKSProgram* const kinds[3] = {matte, chrome, crystal};
    for (int i = 0; i < 9; ++i)
    {
        IKSProgram* program = kinds[i % 3];
        IKSPrimitive* ball = _Primitive(program, "ball " + std::to_string(i));
        const float x = static_cast<float>(i % 3) - 1.0f;
        const float z = -static_cast<float>(i / 3) * 1.1f;
        ball->SetUniform("center", program->GetLocationUniform("center"),
                         Vector3f{x * 1.1f, 0.45f, z});
        ball->SetUniform("radius", program->GetLocationUniform("radius"), 0.45f);
        if (program == matte)
            ball->SetUniform("albedo", program->GetLocationUniform("albedo"),
                             Vector3f{0.2f + 0.25f * static_cast<float>(i / 3), 0.3f, 0.7f});
    }
    IKSPrimitive* light = _Primitive(lamp, "sun");
    light->SetUniform("center", lamp->GetLocationUniform("center"), Vector3f{-3, 6, 3});
    light->SetUniform("radius", lamp->GetLocationUniform("radius"), 1.0f);
    light->SetUniform("radiance", lamp->GetLocationUniform("radiance"), Vector3f{30, 27, 22});

    if (!_Frame(view, {0, 1.6f, 4.2f}, {0, 0.4f, -1.0f}, 45.0f, error))
        return false;
    IKSPrimitive* frameprim = _pContext->TheNullPrimitive();
    frameprim->SetUniform("sky", view->GetLocationUniform("sky"), Vector3f{0.35f, 0.45f, 0.6f});
    return true;
}

} // namespace VireoRender
