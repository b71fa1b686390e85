// Scene import for the demo: glTF 2.0 (text and binary) and OBJ/MTL files
// read by Debian's loaders into a plain description, checked once, then
// built through the wrapper like any host would build its scene.
#ifndef VIREO_EXAMPLES_RENDER_IMPORT_H
#define VIREO_EXAMPLES_RENDER_IMPORT_H

#include "SceneObjects.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace VireoRender
{

struct ImportOptions
{
    std::string path;
    int camera = -1;                     // a glTF camera's index; -1 for the first one
    std::string environment = "uniform"; // "uniform" or "none"
};

// One mesh as the runtime's `mesh` shape reads it: 8 floats per vertex
// (position, normal, texture coordinate), then three indices per triangle.
struct ImportedMesh
{
    std::vector<float> vertices;
    std::vector<std::uint32_t> indices;
    std::size_t VertexCount() const { return vertices.size() / 8; }
    std::size_t TriangleCount() const { return indices.size() / 3; }
};

// An image decoded to RGBA, 8 bits a channel, rows as the file stores them.
struct ImportedImage
{
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgba;
};

struct ImportedMaterial
{
    enum Kind
    {
        kMK_MetallicRoughness,
        kMK_Glass,
        kMK_Emissive,
    };
    Kind kind = kMK_MetallicRoughness;
    Vireo::Vector3f baseColour{1, 1, 1};
    float metallic = 1.0f;
    float roughness = 1.0f;
    Vireo::Vector3f emission{0, 0, 0};
    int baseColourMap = -1; // indices into the images; -1 for none
    int metallicRoughnessMap = -1;
    int emissionMap = -1;
    float ior = 1.5f;
};

// One placed mesh: the primitive the runtime will see.
struct ImportedInstance
{
    int mesh = 0;
    int material = 0;
    Vireo::Matrix44f placement; // row-major, as the setters take it
};

struct ImportedCamera
{
    bool present = false;
    Vireo::Vector3f eye, target, up{0, 1, 0};
    float fov = 40.0f; // vertical, degrees
};

struct SceneDescription
{
    std::vector<ImportedMesh> meshes;
    std::vector<ImportedImage> images;
    std::vector<ImportedMaterial> materials;
    std::vector<ImportedInstance> instances;
    ImportedCamera camera;          // from the file, or framing the bounds
    bool framed = false;            // the camera frames the bounds
    std::vector<std::string> notes; // what the file has and the import leaves out
};

// Reads `options.path` (by its extension: .gltf, .glb, .obj) into `scene`.
// False with a one-line `error` that names the file when the file cannot
// be read, is malformed, or asks for what the import does not do.
bool LoadScene(const ImportOptions& options, SceneDescription* scene, std::string* error);

// The same from memory, for the fuzzer: files that the data names
// (buffers, images, material libraries) are not read.
bool LoadGltfFromMemory(const unsigned char* data, std::size_t size, bool binary, int camera,
                        SceneDescription* scene, std::string* error);
bool LoadObjFromMemory(const std::string& obj, const std::string& mtl, SceneDescription* scene,
                       std::string* error);

// A loaded description built through one context; every object goes back
// to the context on destruction.
class ImportedScene : private SceneObjects
{
public:
    explicit ImportedScene(Vireo::IKestrelContext* context) : SceneObjects(context) {}

    // Loads and builds; false with `error` set when either fails.
    bool Build(const ImportOptions& options, std::string* error);
    bool Build(const SceneDescription& scene, const std::string& environment, std::string* error);

    const std::vector<Vireo::IKSPrimitive*>& Primitives() const { return _primitives; }
    std::size_t BufferCount() const { return _buffers.size(); }
    std::size_t TextureCount() const { return _textures.size(); }
    const SceneDescription& Description() const { return _description; }

private:
    Vireo::IKSProgram* _Program(Vireo::IKSShader* shape, Vireo::IKSShader* material,
                                std::string* error);

    SceneDescription _description;
};

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_IMPORT_H
