#include "ImportDetail.h"

#include <tiny_gltf.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstring>
#include <fstream>

namespace VireoRender
{

using namespace Vireo;

namespace
{

const char* const kMeshSource = R"(
uniformblock geometry;
uniform int vertex_count;
uniform int triangle_count;
uniform mat4 placement;
mesh(geometry, vertex_count, triangle_count);
transform(placement);
)";
const char* const kMetallicRoughnessSource = R"(
uniform vec3 base_colour = vec3(1.0, 1.0, 1.0);
uniform float metallic = 1.0;
uniform float roughness = 1.0;
uniform vec3 emission;
uniform texture base_colour_map;
uniform texture metallic_roughness_map;
uniform texture emission_map;
metallic_roughness(base_colour, metallic, roughness, emission, base_colour_map,
                   metallic_roughness_map, emission_map);
)";

// The sky of --environment uniform: a pale blue of about unit radiance.
const Vector3f kSky{0.85f, 0.9f, 1.0f};

std::string Extension(const std::string& path)
{
    const std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos)
        return "";
    std::string extension = path.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

} // namespace

Matrix44f Detail::Identity()
{
    Matrix44f m;
    for (int i = 0; i < 4; ++i)
        m.m[i][i] = 1.0f;
    return m;
}

std::string Detail::FirstLine(const std::string& text)
{
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())))
        line.pop_back();
    return line.empty() ? "unreadable" : line;
}

bool Detail::DecodeImage(const unsigned char* bytes, std::size_t size, ImportedImage* image,
                         std::string* error)
{
    tinygltf::Image decoded;
    std::string warning;
    if (size == 0 || size > 0x7fffffff ||
        !tinygltf::LoadImageData(&decoded, 0, error, &warning, 0, 0, bytes, static_cast<int>(size),
                                 nullptr))
        return false;
    // tinygltf's decoder gives RGBA, 8 or 16 bits a channel.
    const std::size_t pixels = static_cast<std::size_t>(decoded.width) * decoded.height;
    const std::size_t bytesPerChannel = decoded.bits == 16 ? 2 : 1;
    if (decoded.width <= 0 || decoded.height <= 0 || decoded.component != 4 ||
        decoded.image.size() != pixels * 4 * bytesPerChannel)
    {
        *error = "undecodable image";
        return false;
    }
    image->width = decoded.width;
    image->height = decoded.height;
    image->rgba.resize(pixels * 4);
    for (std::size_t i = 0; i < pixels * 4; ++i)
        image->rgba[i] = decoded.image[i * bytesPerChannel + bytesPerChannel - 1];
    return true;
}

bool Detail::CheckMesh(const ImportedMesh& mesh, std::string* error)
{
    if (mesh.indices.size() % 3 != 0)
    {
        *error = "its index count is not a multiple of three";
        return false;
    }
    const std::size_t vertices = mesh.VertexCount();
    for (std::size_t i = 0; i < mesh.indices.size(); ++i)
        if (mesh.indices[i] >= vertices)
        {
            *error = "index " + std::to_string(i) + " (" + std::to_string(mesh.indices[i]) +
                     ") is out of range of " + std::to_string(vertices) + " vertices";
            return false;
        }
    for (std::size_t v = 0; v < vertices; ++v)
        for (int c = 0; c < 3; ++c)
            if (!std::isfinite(mesh.vertices[v * 8 + static_cast<std::size_t>(c)]))
            {
                *error = "position " + std::to_string(v) + " is not a finite number";
                return false;
            }
    for (std::size_t v = 0; v < vertices; ++v)
        for (int c = 6; c < 8; ++c)
            if (!std::isfinite(mesh.vertices[v * 8 + static_cast<std::size_t>(c)]))
            {
                *error = "texture coordinate " + std::to_string(v) + " is not a finite number";
                return false;
            }
    return true;
}

void Detail::FrameBounds(SceneDescription* scene)
{
    // Per mesh its own bounds, then the eight corners of each placed copy.
    float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
    std::vector<std::array<float, 6>> bounds(scene->meshes.size());
    for (std::size_t m = 0; m < scene->meshes.size(); ++m)
    {
        std::array<float, 6>& b = bounds[m];
        b = {INFINITY, INFINITY, INFINITY, -INFINITY, -INFINITY, -INFINITY};
        const ImportedMesh& mesh = scene->meshes[m];
        for (std::uint32_t index : mesh.indices)
            for (int c = 0; c < 3; ++c)
            {
                const float x = mesh.vertices[index * 8 + static_cast<std::size_t>(c)];
                b[static_cast<std::size_t>(c)] = std::min(b[static_cast<std::size_t>(c)], x);
                b[static_cast<std::size_t>(c + 3)] =
                    std::max(b[static_cast<std::size_t>(c + 3)], x);
            }
    }
    for (const ImportedInstance& instance : scene->instances)
    {
        const std::array<float, 6>& b = bounds[static_cast<std::size_t>(instance.mesh)];
        if (!(b[0] <= b[3]))
            continue;
        for (int corner = 0; corner < 8; ++corner)
        {
            const float p[3] = {b[corner & 1 ? 3 : 0], b[corner & 2 ? 4 : 1],
                                b[corner & 4 ? 5 : 2]};
            for (int r = 0; r < 3; ++r)
            {
                const float* row = instance.placement.m[r];
                const float x = row[0] * p[0] + row[1] * p[1] + row[2] * p[2] + row[3];
                if (std::isfinite(x))
                {
                    lo[r] = std::min(lo[r], x);
                    hi[r] = std::max(hi[r], x);
                }
            }
        }
    }
    ImportedCamera& camera = scene->camera;
    camera = ImportedCamera();
    camera.present = true;
    if (!(lo[0] <= hi[0] && lo[1] <= hi[1] && lo[2] <= hi[2]))
    {
        camera.eye = {0, 0, 5};
        return;
    }
    const Vector3f centre{(lo[0] + hi[0]) / 2, (lo[1] + hi[1]) / 2, (lo[2] + hi[2]) / 2};
    const float radius = std::max(0.5f * std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) +
                                                   (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                                                   (hi[2] - lo[2]) * (hi[2] - lo[2])),
                                  1e-3f);
    // Back far enough that the bounding sphere fits the vertical field.
    const float distance = radius / std::sin(camera.fov * 0.5f * 3.14159265f / 180.0f);
    camera.target = centre;
    camera.eye = {centre.x, centre.y, centre.z + distance};
    scene->framed = true;
}

bool LoadScene(const ImportOptions& options, SceneDescription* scene, std::string* error)
{
    *scene = SceneDescription();
    const std::string extension = Extension(options.path);
    std::string why;
    bool loaded = false;
    if (!std::ifstream(options.path, std::ios::binary))
        why = "cannot be opened";
    else if (extension == "gltf" || extension == "glb")
        loaded =
            Detail::LoadGltfFile(options.path, extension == "glb", options.camera, scene, &why);
    else if (extension == "obj")
    {
        loaded = Detail::LoadObjFile(options.path, scene, &why);
        if (loaded && options.camera >= 0)
        {
            why = "an OBJ file has no cameras";
            loaded = false;
        }
    }
    else
        why = "is not a .gltf, .glb or .obj file";
    if (!loaded)
    {
        *scene = SceneDescription();
        *error = options.path + ": " + why;
    }
    return loaded;
}

IKSProgram* ImportedScene::_Program(IKSShader* shape, IKSShader* material, std::string* error)
{
    IKSProgram* program = _pContext->CreateIKSProgram();
    if (program == nullptr)
    {
        *error = "no program object";
        return nullptr;
    }
    _programs.push_back(program);
    program->AddShader(shape);
    if (material != nullptr)
        program->AddShader(material);
    if (!program->Link())
    {
        *error = "a program did not link";
        return nullptr;
    }
    return program;
}

bool ImportedScene::Build(const ImportOptions& options, std::string* error)
{
    if (!LoadScene(options, &_description, error))
        return false;
    if (!Build(_description, options.environment, error))
    {
        *error = options.path + ": " + *error;
        return false;
    }
    return true;
}

bool ImportedScene::Build(const SceneDescription& scene, const std::string& environment,
                          std::string* error)
{
    if (&scene != &_description)
        _description = scene;
    IKSShader* mesh = _Shader(IKSShader::kST_Vertex, kMeshSource, error);
    IKSShader* metal =
        mesh ? _Shader(IKSShader::kST_Kind2, kMetallicRoughnessSource, error) : nullptr;
    IKSShader* glass = metal ? _Shader(IKSShader::kST_Kind2, kGlassSource, error) : nullptr;
    IKSShader* light = glass ? _Shader(IKSShader::kST_Kind2, kEmissiveSource, error) : nullptr;
    IKSShader* frame = light ? _Shader(IKSShader::kST_Kind3, kFrameSource, error) : nullptr;
    IKSProgram* programs[3] = {};
    programs[ImportedMaterial::kMK_MetallicRoughness] =
        frame ? _Program(mesh, metal, error) : nullptr;
    programs[ImportedMaterial::kMK_Glass] = programs[0] ? _Program(mesh, glass, error) : nullptr;
    programs[ImportedMaterial::kMK_Emissive] = programs[1] ? _Program(mesh, light, error) : nullptr;
    IKSProgram* view = programs[2] ? _Program(frame, nullptr, error) : nullptr;
    if (view == nullptr)
        return false;

    // Each image once, shared by every material that maps it.
    for (const ImportedImage& image : _description.images)
    {
        IKSTexImage2D* texture = _pContext->CreateIKSTexImage2D();
        if (texture == nullptr)
        {
            *error = "no texture object";
            return false;
        }
        _textures.push_back(texture);
        if (!texture->SetImage(image.width, image.height, IKSTexImage::kTF_RGBA8, KS_REPEAT,
                               KS_LINEAR, KS_LINEAR, const_cast<unsigned char*>(image.rgba.data()),
                               false))
        {
            *error = "a texture was refused";
            return false;
        }
    }
    // Each mesh once, in one buffer that every instance of it reads.
    for (const ImportedMesh& data : _description.meshes)
    {
        IKSBuffer* buffer = _pContext->CreateIKSBuffer();
        if (buffer == nullptr)
        {
            *error = "no buffer object";
            return false;
        }
        _buffers.push_back(buffer);
        const std::size_t vertexBytes = data.vertices.size() * sizeof(float);
        const std::size_t indexBytes = data.indices.size() * sizeof(std::uint32_t);
        if (vertexBytes + indexBytes == 0)
            continue;
        if (!buffer->Init(IKSBuffer::kUsage_StaticDraw, vertexBytes + indexBytes))
        {
            *error = "a mesh buffer was refused";
            return false;
        }
        KSBufferMapping mapping(buffer, KSBufferMapping::kAccess_WriteOnly,
                                KSBufferMapping::kBindPoint_UniformBlock);
        auto* to = static_cast<unsigned char*>(mapping.GetMap());
        if (to == nullptr)
        {
            *error = "a mesh buffer could not be mapped";
            return false;
        }
        std::memcpy(to, data.vertices.data(), vertexBytes);
        std::memcpy(to + vertexBytes, data.indices.data(), indexBytes);
    }

    const auto texture = [this](int image)
    { return image >= 0 ? _textures[static_cast<std::size_t>(image)]->GetKSTexture() : nullptr; };
    for (std::size_t i = 0; i < _description.instances.size(); ++i)
    {
        const ImportedInstance& instance = _description.instances[i];
        const ImportedMaterial& material =
            _description.materials[static_cast<std::size_t>(instance.material)];
        const ImportedMesh& data = _description.meshes[static_cast<std::size_t>(instance.mesh)];
        IKSProgram* program = programs[material.kind];
        IKSPrimitive* primitive = _pContext->CreateIKSPrimitive();
        if (primitive == nullptr)
        {
            *error = "no primitive object";
            return false;
        }
        _primitives.push_back(primitive);
        primitive->SetName("instance " + std::to_string(i));
        // The program of a primitive is the host's to give: Kestrel's own
        // call, on the bound primitive.
        primitive->Bind();
        ksUseProgram(program->GetKSProgram());
        const auto at = [program](const char* name) { return program->GetLocationUniform(name); };
        primitive->SetUniformBlock("geometry", program->GetLocationUniformBlock("geometry"),
                                   _buffers[static_cast<std::size_t>(instance.mesh)]);
        primitive->SetUniform("vertex_count", at("vertex_count"),
                              static_cast<int>(data.VertexCount()));
        primitive->SetUniform("triangle_count", at("triangle_count"),
                              static_cast<int>(data.TriangleCount()));
        primitive->SetUniform("placement", at("placement"), std::uint64_t(1), &instance.placement);
        switch (material.kind)
        {
        case ImportedMaterial::kMK_Glass:
            primitive->SetUniform("ior", at("ior"), material.ior);
            break;
        case ImportedMaterial::kMK_Emissive:
            primitive->SetUniform("radiance", at("radiance"), material.emission);
            break;
        case ImportedMaterial::kMK_MetallicRoughness:
            primitive->SetUniform("base_colour", at("base_colour"), material.baseColour);
            primitive->SetUniform("metallic", at("metallic"), material.metallic);
            primitive->SetUniform("roughness", at("roughness"), material.roughness);
            primitive->SetUniform("emission", at("emission"), material.emission);
            if (material.baseColourMap >= 0)
                primitive->SetUniform("base_colour_map", at("base_colour_map"),
                                      texture(material.baseColourMap));
            if (material.metallicRoughnessMap >= 0)
                primitive->SetUniform("metallic_roughness_map", at("metallic_roughness_map"),
                                      texture(material.metallicRoughnessMap));
            if (material.emissionMap >= 0)
                primitive->SetUniform("emission_map", at("emission_map"),
                                      texture(material.emissionMap));
            break;
        }
    }

    IKSPrimitive* framePrimitive = _pContext->TheNullPrimitive();
    if (framePrimitive == nullptr)
    {
        *error = "the context has no frame primitive";
        return false;
    }
    framePrimitive->Bind();
    ksUseProgram(view->GetKSProgram());
    const ImportedCamera& camera = _description.camera;
    const auto at = [view](const char* name) { return view->GetLocationUniform(name); };
    framePrimitive->SetUniform("eye", at("eye"), camera.eye);
    framePrimitive->SetUniform("target", at("target"), camera.target);
    framePrimitive->SetUniform("up", at("up"), camera.up);
    framePrimitive->SetUniform("fov", at("fov"), camera.fov);
    framePrimitive->SetUniform("sky", at("sky"),
                               environment == "uniform" ? kSky : Vector3f{0, 0, 0});
    return true;
}

} // namespace VireoRender
