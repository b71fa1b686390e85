// glTF 2.0 through tinygltf: nodes, triangle meshes, metallic-roughness
// materials with their textures, the first (or chosen) camera.
#include "ImportDetail.h"

#include <tiny_gltf.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

namespace VireoRender
{

using namespace Vireo;

namespace
{

const char* const kEmissiveStrength = "KHR_materials_emissive_strength";
const char* const kTransmission = "KHR_materials_transmission";
const char* const kIor = "KHR_materials_ior";
const char* const kDraco = "KHR_draco_mesh_compression";
const char* const kLights = "KHR_lights_punctual";

// An accessor checked against its buffer once, then read element by element.
struct AccessorView
{
    const unsigned char* data = nullptr;
    std::size_t stride = 0;
    std::size_t count = 0;
    int componentType = 0;
    int components = 0;
    bool normalized = false;

    float Float(std::size_t i, int c) const
    {
        const unsigned char* at = data + i * stride;
        switch (componentType)
        {
        case TINYGLTF_COMPONENT_TYPE_FLOAT:
        {
            float f;
            std::memcpy(&f, at + 4 * c, 4);
            return f;
        }
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE:
            return at[c] / 255.0f;
        default: // unsigned short, the only other kind View lets through
        {
            std::uint16_t s;
            std::memcpy(&s, at + 2 * c, 2);
            return s / 65535.0f;
        }
        }
    }

    std::uint32_t Index(std::size_t i) const
    {
        const unsigned char* at = data + i * stride;
        if (componentType == TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE)
            return at[0];
        if (componentType == TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT)
        {
            std::uint16_t s;
            std::memcpy(&s, at, 2);
            return s;
        }
        std::uint32_t u;
        std::memcpy(&u, at, 4);
        return u;
    }
};

int ComponentSize(int type)
{
    switch (type)
    {
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE:
        return 1;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT:
        return 2;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT:
    case TINYGLTF_COMPONENT_TYPE_FLOAT:
        return 4;
    default:
        return 0;
    }
}

class GltfReader
{
public:
    GltfReader(const tinygltf::Model& model, SceneDescription* scene)
        : _model(model), _pScene(scene)
    {
    }

    bool Read(int camera, std::string* error);

private:
    bool _View(int index, int components, std::initializer_list<int> types, AccessorView* view,
               std::string* error) const;
    bool _Mesh(const tinygltf::Primitive& primitive, const std::string& where, int* mesh,
               std::string* error);
    bool _Material(int index, int* material, std::string* error);
    bool _Texture(const tinygltf::TextureInfo& info, int* image, std::string* error);
    int _TextureIndex(int texture, std::string* error);
    bool _Node(int index, const Matrix44f& parent, int depth, std::string* error);

    const tinygltf::Model& _model;
    SceneDescription* _pScene;
    std::map<std::tuple<int, int, int, int>, int> _meshes; // accessors -> mesh
    std::map<int, int> _materials;                         // glTF material -> ours
    std::map<int, int> _images;                            // glTF image -> ours
    std::set<int> _visited;
    struct CameraNode
    {
        int camera;
        Matrix44f world;
    };
    std::vector<CameraNode> _cameras;
};

Matrix44f Multiply(const Matrix44f& a, const Matrix44f& b)
{
    Matrix44f m;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            for (int k = 0; k < 4; ++k)
                m.m[r][c] += a.m[r][k] * b.m[k][c];
    return m;
}

// A node's own transform: its matrix (column-major in the file) or T·R·S.
Matrix44f Local(const tinygltf::Node& node)
{
    Matrix44f m = Detail::Identity();
    if (node.matrix.size() == 16)
    {
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                m.m[r][c] = static_cast<float>(node.matrix[static_cast<std::size_t>(c * 4 + r)]);
        return m;
    }
    double q[4] = {0, 0, 0, 1};
    if (node.rotation.size() == 4)
        std::copy(node.rotation.begin(), node.rotation.end(), q);
    const double x = q[0], y = q[1], z = q[2], w = q[3];
    const double rotation[3][3] = {
        {1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
        {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
        {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
        {
            const double s = node.scale.size() == 3 ? node.scale[static_cast<std::size_t>(c)] : 1.0;
            m.m[r][c] = static_cast<float>(rotation[r][c] * s);
        }
    if (node.translation.size() == 3)
        for (int r = 0; r < 3; ++r)
            m.m[r][3] = static_cast<float>(node.translation[static_cast<std::size_t>(r)]);
    return m;
}

Vector3f Apply(const Matrix44f& m, float x, float y, float z, float w)
{
    return {m.m[0][0] * x + m.m[0][1] * y + m.m[0][2] * z + m.m[0][3] * w,
            m.m[1][0] * x + m.m[1][1] * y + m.m[1][2] * z + m.m[1][3] * w,
            m.m[2][0] * x + m.m[2][1] * y + m.m[2][2] * z + m.m[2][3] * w};
}

double Number(const tinygltf::ExtensionMap& extensions, const char* extension, const char* key,
              double otherwise)
{
    const auto it = extensions.find(extension);
    if (it == extensions.end() || !it->second.Has(key) || !it->second.Get(key).IsNumber())
        return otherwise;
    return it->second.Get(key).GetNumberAsDouble();
}

float Finite(double value, float otherwise)
{
    return std::isfinite(value) ? static_cast<float>(value) : otherwise;
}

bool GltfReader::_View(int index, int components, std::initializer_list<int> types,
                       AccessorView* view, std::string* error) const
{
    const std::string name = "accessor " + std::to_string(index);
    if (index < 0 || static_cast<std::size_t>(index) >= _model.accessors.size())
    {
        *error = name + " does not exist";
        return false;
    }
    const tinygltf::Accessor& accessor = _model.accessors[static_cast<std::size_t>(index)];
    if (accessor.sparse.isSparse)
    {
        *error = name + " is sparse, which is not supported";
        return false;
    }
    const int wanted = components == 1   ? TINYGLTF_TYPE_SCALAR
                       : components == 2 ? TINYGLTF_TYPE_VEC2
                                         : TINYGLTF_TYPE_VEC3;
    bool typeKnown = false;
    for (int type : types)
        typeKnown = typeKnown || type == accessor.componentType;
    if (accessor.type != wanted || !typeKnown)
    {
        *error = name + " has a type or component type that this attribute cannot have";
        return false;
    }
    if (accessor.bufferView < 0 ||
        static_cast<std::size_t>(accessor.bufferView) >= _model.bufferViews.size())
    {
        *error = name + " has no buffer view";
        return false;
    }
    const tinygltf::BufferView& bufferView =
        _model.bufferViews[static_cast<std::size_t>(accessor.bufferView)];
    if (bufferView.buffer < 0 ||
        static_cast<std::size_t>(bufferView.buffer) >= _model.buffers.size())
    {
        *error = name + " names a buffer that does not exist";
        return false;
    }
    const std::vector<unsigned char>& buffer =
        _model.buffers[static_cast<std::size_t>(bufferView.buffer)].data;
    const std::size_t element =
        static_cast<std::size_t>(ComponentSize(accessor.componentType)) * components;
    const std::size_t stride = bufferView.byteStride != 0 ? bufferView.byteStride : element;
    // Every size below is bounded before it is multiplied, so nothing wraps.
    const bool fits =
        bufferView.byteOffset <= buffer.size() &&
        bufferView.byteLength <= buffer.size() - bufferView.byteOffset && stride >= element &&
        stride <= 256 && accessor.byteOffset <= bufferView.byteLength &&
        accessor.count <= bufferView.byteLength &&
        (accessor.count == 0 ||
         accessor.byteOffset + stride * (accessor.count - 1) + element <= bufferView.byteLength);
    if (!fits)
    {
        *error = name + " reads outside its buffer";
        return false;
    }
    view->data = buffer.data() + bufferView.byteOffset + accessor.byteOffset;
    view->stride = stride;
    view->count = accessor.count;
    view->componentType = accessor.componentType;
    view->components = components;
    view->normalized = accessor.normalized;
    return true;
}

bool GltfReader::_Mesh(const tinygltf::Primitive& primitive, const std::string& where, int* mesh,
                       std::string* error)
{
    const auto attribute = [&](const char* name)
    {
        const auto it = primitive.attributes.find(name);
        return it == primitive.attributes.end() ? -1 : it->second;
    };
    const int positions = attribute("POSITION"), normals = attribute("NORMAL"),
              coordinates = attribute("TEXCOORD_0");
    const auto key = std::make_tuple(primitive.indices, positions, normals, coordinates);
    const auto known = _meshes.find(key);
    if (known != _meshes.end())
    {
        *mesh = known->second;
        return true;
    }
    if (positions < 0)
    {
        *error = where + " has no positions";
        return false;
    }
    AccessorView position, normal, coordinate, index;
    const bool viewed =
        _View(positions, 3, {TINYGLTF_COMPONENT_TYPE_FLOAT}, &position, error) &&
        (normals < 0 || _View(normals, 3, {TINYGLTF_COMPONENT_TYPE_FLOAT}, &normal, error)) &&
        (coordinates < 0 ||
         _View(coordinates, 2,
               {TINYGLTF_COMPONENT_TYPE_FLOAT, TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE,
                TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT},
               &coordinate, error)) &&
        (primitive.indices < 0 ||
         _View(primitive.indices, 1,
               {TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE, TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT,
                TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT},
               &index, error));
    if (!viewed)
    {
        *error = where + ": " + *error;
        return false;
    }
    const std::size_t vertices = position.count;
    if ((normals >= 0 && normal.count != vertices) ||
        (coordinates >= 0 && coordinate.count != vertices))
    {
        *error = where + ": its attributes have different counts";
        return false;
    }
    if (vertices > 0xffffffffu)
    {
        *error = where + " has too many vertices";
        return false;
    }
    ImportedMesh out;
    out.vertices.resize(vertices * 8, 0.0f);
    for (std::size_t v = 0; v < vertices; ++v)
    {
        float* to = &out.vertices[v * 8];
        for (int c = 0; c < 3; ++c)
            to[c] = position.Float(v, c);
        if (normals >= 0)
            for (int c = 0; c < 3; ++c)
            {
                const float n = normal.Float(v, c);
                to[3 + c] = std::isfinite(n) ? n : 0.0f; // zero: the runtime's geometric normal
            }
        if (coordinates >= 0)
        {
            to[6] = coordinate.Float(v, 0);
            to[7] = coordinate.Float(v, 1);
        }
    }
    if (primitive.indices >= 0)
    {
        out.indices.resize(index.count);
        for (std::size_t i = 0; i < index.count; ++i)
            out.indices[i] = index.Index(i);
    }
    else
    {
        out.indices.resize(vertices);
        for (std::size_t i = 0; i < vertices; ++i)
            out.indices[i] = static_cast<std::uint32_t>(i);
    }
    if (!Detail::CheckMesh(out, error))
    {
        *error = where + ": " + *error;
        return false;
    }
    *mesh = static_cast<int>(_pScene->meshes.size());
    _pScene->meshes.push_back(std::move(out));
    _meshes.emplace(key, *mesh);
    return true;
}

int GltfReader::_TextureIndex(int texture, std::string* error)
{
    if (texture < 0 || static_cast<std::size_t>(texture) >= _model.textures.size())
    {
        *error = "texture " + std::to_string(texture) + " does not exist";
        return -2;
    }
    return _model.textures[static_cast<std::size_t>(texture)].source;
}

bool GltfReader::_Texture(const tinygltf::TextureInfo& info, int* image, std::string* error)
{
    *image = -1;
    if (info.index < 0)
        return true;
    const int source = _TextureIndex(info.index, error);
    if (source == -2)
        return false;
    const std::string name = "image " + std::to_string(source);
    if (source < 0 || static_cast<std::size_t>(source) >= _model.images.size())
    {
        *error = "texture " + std::to_string(info.index) + " has no image";
        return false;
    }
    const auto known = _images.find(source);
    if (known != _images.end())
    {
        *image = known->second;
        return true;
    }
    const tinygltf::Image& from = _model.images[static_cast<std::size_t>(source)];
    const int channels = from.component;
    const int bytes = from.bits == 16 ? 2 : 1;
    const std::size_t pixels =
        from.width > 0 && from.height > 0 ? static_cast<std::size_t>(from.width) * from.height : 0;
    if (pixels == 0 || channels < 1 || channels > 4 || (from.bits != 8 && from.bits != 16) ||
        from.image.size() != pixels * channels * bytes)
    {
        *error = name + " could not be decoded";
        return false;
    }
    ImportedImage out;
    out.width = from.width;
    out.height = from.height;
    out.rgba.resize(pixels * 4);
    for (std::size_t p = 0; p < pixels; ++p)
    {
        // The high byte of a 16-bit channel (little-endian), grey spread to RGB.
        const auto channel = [&](int c)
        { return from.image[(p * channels + c) * bytes + (bytes - 1)]; };
        const unsigned char grey = channel(0);
        out.rgba[p * 4] = grey;
        out.rgba[p * 4 + 1] = channels >= 3 ? channel(1) : grey;
        out.rgba[p * 4 + 2] = channels >= 3 ? channel(2) : grey;
        out.rgba[p * 4 + 3] = channels == 4 ? channel(3) : channels == 2 ? channel(1) : 255;
    }
    *image = static_cast<int>(_pScene->images.size());
    _pScene->images.push_back(std::move(out));
    _images.emplace(source, *image);
    return true;
}

bool GltfReader::_Material(int index, int* material, std::string* error)
{
    const auto known = _materials.find(index);
    if (known != _materials.end())
    {
        *material = known->second;
        return true;
    }
    ImportedMaterial out; // without a material: glTF's default, white and rough metal
    if (index >= 0)
    {
        if (static_cast<std::size_t>(index) >= _model.materials.size())
        {
            *error = "material " + std::to_string(index) + " does not exist";
            return false;
        }
        const tinygltf::Material& from = _model.materials[static_cast<std::size_t>(index)];
        const tinygltf::PbrMetallicRoughness& pbr = from.pbrMetallicRoughness;
        if (pbr.baseColorFactor.size() >= 3)
            out.baseColour = {Finite(pbr.baseColorFactor[0], 1), Finite(pbr.baseColorFactor[1], 1),
                              Finite(pbr.baseColorFactor[2], 1)};
        out.metallic = Finite(pbr.metallicFactor, 1);
        out.roughness = Finite(pbr.roughnessFactor, 1);
        const float strength =
            Finite(Number(from.extensions, kEmissiveStrength, "emissiveStrength", 1.0), 1);
        if (from.emissiveFactor.size() >= 3)
            out.emission = {Finite(from.emissiveFactor[0], 0) * strength,
                            Finite(from.emissiveFactor[1], 0) * strength,
                            Finite(from.emissiveFactor[2], 0) * strength};
        tinygltf::TextureInfo emissive;
        emissive.index = from.emissiveTexture.index;
        if (!_Texture(pbr.baseColorTexture, &out.baseColourMap, error) ||
            !_Texture(pbr.metallicRoughnessTexture, &out.metallicRoughnessMap, error) ||
            !_Texture(emissive, &out.emissionMap, error))
        {
            *error = "material " + std::to_string(index) + ": " + *error;
            return false;
        }
        const double transmission =
            Number(from.extensions, kTransmission, "transmissionFactor", 0.0);
        const bool emits = out.emission.x > 0 || out.emission.y > 0 || out.emission.z > 0;
        if (transmission > 0)
        {
            out.kind = ImportedMaterial::kMK_Glass;
            out.ior = Finite(Number(from.extensions, kIor, "ior", 1.5), 1.5f);
        }
        else if (emits && out.emissionMap < 0)
        {
            // An evenly glowing surface is a light: the runtime samples it.
            out.kind = ImportedMaterial::kMK_Emissive;
        }
    }
    *material = static_cast<int>(_pScene->materials.size());
    _pScene->materials.push_back(out);
    _materials.emplace(index, *material);
    return true;
}

bool GltfReader::_Node(int index, const Matrix44f& parent, int depth, std::string* error)
{
    if (index < 0 || static_cast<std::size_t>(index) >= _model.nodes.size())
    {
        *error = "node " + std::to_string(index) + " does not exist";
        return false;
    }
    if (!_visited.insert(index).second || depth > 256)
    {
        *error = "node " + std::to_string(index) + " appears twice in the node hierarchy";
        return false;
    }
    const tinygltf::Node& node = _model.nodes[static_cast<std::size_t>(index)];
    const Matrix44f world = Multiply(parent, Local(node));
    if (node.camera >= 0)
        _cameras.push_back({node.camera, world});
    if (node.mesh >= 0)
    {
        if (static_cast<std::size_t>(node.mesh) >= _model.meshes.size())
        {
            *error = "node " + std::to_string(index) + " names a mesh that does not exist";
            return false;
        }
        const tinygltf::Mesh& mesh = _model.meshes[static_cast<std::size_t>(node.mesh)];
        for (std::size_t p = 0; p < mesh.primitives.size(); ++p)
        {
            const tinygltf::Primitive& primitive = mesh.primitives[p];
            const std::string where =
                "mesh " + std::to_string(node.mesh) + " primitive " + std::to_string(p);
            if (primitive.extensions.count(kDraco) != 0)
            {
                *error = where + " is draco-compressed, which is not supported";
                return false;
            }
            if (primitive.mode != TINYGLTF_MODE_TRIANGLES)
            {
                *error = where + " is not made of triangles (mode " +
                         std::to_string(primitive.mode) + "), which is not supported";
                return false;
            }
            ImportedInstance instance;
            instance.placement = world;
            if (!_Mesh(primitive, where, &instance.mesh, error) ||
                !_Material(primitive.material, &instance.material, error))
                return false;
            if (_pScene->meshes[static_cast<std::size_t>(instance.mesh)].indices.empty())
                continue;
            _pScene->instances.push_back(instance);
        }
    }
    for (int child : node.children)
        if (!_Node(child, world, depth + 1, error))
            return false;
    return true;
}

bool GltfReader::Read(int camera, std::string* error)
{
    for (const std::string& extension : _model.extensionsRequired)
        if (extension != kEmissiveStrength && extension != kTransmission && extension != kIor)
        {
            *error = extension == kDraco ? "draco-compressed meshes are not supported"
                                         : "it requires " + extension + ", which is not supported";
            return false;
        }
    std::vector<int> roots;
    if (!_model.scenes.empty())
    {
        const std::size_t chosen =
            _model.defaultScene >= 0 ? static_cast<std::size_t>(_model.defaultScene) : 0;
        if (chosen >= _model.scenes.size())
        {
            *error = "the default scene does not exist";
            return false;
        }
        roots = _model.scenes[chosen].nodes;
    }
    else
    {
        // No scene: every node that is nobody's child is a root.
        std::vector<bool> child(_model.nodes.size(), false);
        for (const tinygltf::Node& node : _model.nodes)
            for (int c : node.children)
                if (c >= 0 && static_cast<std::size_t>(c) < child.size())
                    child[static_cast<std::size_t>(c)] = true;
        for (std::size_t n = 0; n < child.size(); ++n)
            if (!child[n])
                roots.push_back(static_cast<int>(n));
    }
    for (int root : roots)
        if (!_Node(root, Detail::Identity(), 0, error))
            return false;
    if (_pScene->instances.empty())
    {
        *error = "the scene has no triangles";
        return false;
    }

    if (!_model.lights.empty() ||
        std::count(_model.extensionsUsed.begin(), _model.extensionsUsed.end(), kLights) != 0)
        _pScene->notes.push_back(std::to_string(_model.lights.size()) +
                                 " punctual light(s) left out: punctual lights are not supported");
    const CameraNode* chosen = nullptr;
    for (const CameraNode& node : _cameras)
        if (chosen == nullptr && (camera < 0 || node.camera == camera))
            chosen = &node;
    if (camera >= 0 && chosen == nullptr)
    {
        *error = "camera " + std::to_string(camera) + " is not placed in the scene";
        return false;
    }
    if (chosen != nullptr)
    {
        if (chosen->camera < 0 || static_cast<std::size_t>(chosen->camera) >= _model.cameras.size())
        {
            *error = "camera " + std::to_string(chosen->camera) + " does not exist";
            return false;
        }
        const tinygltf::Camera& from = _model.cameras[static_cast<std::size_t>(chosen->camera)];
        if (from.type != "perspective")
            _pScene->notes.push_back("camera " + std::to_string(chosen->camera) +
                                     " is not a perspective one: framing the scene instead");
        else
        {
            ImportedCamera& to = _pScene->camera;
            const Matrix44f& m = chosen->world;
            to.present = true;
            to.eye = Apply(m, 0, 0, 0, 1);
            const Vector3f ahead = Apply(m, 0, 0, -1, 0);
            to.target = {to.eye.x + ahead.x, to.eye.y + ahead.y, to.eye.z + ahead.z};
            to.up = Apply(m, 0, 1, 0, 0);
            const double degrees = from.perspective.yfov * 180.0 / 3.14159265358979;
            to.fov = degrees > 0 && degrees < 180 ? static_cast<float>(degrees) : 40.0f;
        }
    }
    if (!_pScene->camera.present)
        Detail::FrameBounds(_pScene);
    return true;
}

// tinygltf reads what a file names (buffers, images) through these; for data
// from memory nothing is read.
bool NoFileExists(const std::string&, void*)
{
    return false;
}
std::string NoExpand(const std::string& path, void*)
{
    return path;
}
bool NoRead(std::vector<unsigned char>*, std::string* error, const std::string& path, void*)
{
    *error = "cannot read " + path;
    return false;
}
bool NoWrite(std::string*, const std::string&, const std::vector<unsigned char>&, void*)
{
    return false;
}

bool Decode(tinygltf::Image* image, const int index, std::string* error, std::string*, int, int,
            const unsigned char* bytes, int size, void*)
{
    // Decoded here, and kept as the file has it; the reader converts.
    ImportedImage decoded;
    std::string why;
    if (size <= 0 || !Detail::DecodeImage(bytes, static_cast<std::size_t>(size), &decoded, &why))
    {
        *error = "image " + std::to_string(index) + " could not be decoded";
        return false;
    }
    image->width = decoded.width;
    image->height = decoded.height;
    image->component = 4;
    image->bits = 8;
    image->pixel_type = TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE;
    image->image = std::move(decoded.rgba);
    return true;
}

bool ReadModel(const tinygltf::Model& model, int camera, SceneDescription* scene,
               std::string* error)
{
    GltfReader reader(model, scene);
    return reader.Read(camera, error);
}

} // namespace

bool Detail::LoadGltfFile(const std::string& path, bool binary, int camera, SceneDescription* scene,
                          std::string* error)
{
    tinygltf::TinyGLTF loader;
    loader.SetImageLoader(Decode, nullptr);
    tinygltf::Model model;
    std::string failure, warning;
    const bool loaded = binary ? loader.LoadBinaryFromFile(&model, &failure, &warning, path)
                               : loader.LoadASCIIFromFile(&model, &failure, &warning, path);
    if (!loaded)
    {
        *error = failure.empty() ? "not a glTF file" : Detail::FirstLine(failure);
        return false;
    }
    return ReadModel(model, camera, scene, error);
}

bool LoadGltfFromMemory(const unsigned char* data, std::size_t size, bool binary, int camera,
                        SceneDescription* scene, std::string* error)
{
    if (size > 0x7fffffff)
    {
        *error = "too large";
        return false;
    }
    tinygltf::TinyGLTF loader;
    loader.SetImageLoader(Decode, nullptr);
    loader.SetFsCallbacks({NoFileExists, NoExpand, NoRead, NoWrite, nullptr});
    tinygltf::Model model;
    std::string failure, warning;
    const auto length = static_cast<unsigned int>(size);
    const bool loaded =
        binary ? loader.LoadBinaryFromMemory(&model, &failure, &warning, data, length, "")
               : loader.LoadASCIIFromString(&model, &failure, &warning,
                                            reinterpret_cast<const char*>(data), length, "");
    if (!loaded)
    {
        *error = failure.empty() ? "not a glTF file" : Detail::FirstLine(failure);
        return false;
    }
    return ReadModel(model, camera, scene, error);
}

} // namespace VireoRender
