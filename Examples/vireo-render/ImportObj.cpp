// OBJ and MTL through tinyobjloader: one mesh per group and material, the
// material library's colours, maps and glass.
#include "ImportDetail.h"

#include <tiny_obj_loader.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <map>
#include <tuple>
#include <unordered_map>

namespace VireoRender
{

using namespace Vireo;

namespace
{

struct Corner
{
    int v, n, t;
    bool operator==(const Corner& o) const { return v == o.v && n == o.n && t == o.t; }
};
struct CornerHash
{
    std::size_t operator()(const Corner& c) const
    {
        return (static_cast<std::size_t>(c.v) * 73856093u) ^
               (static_cast<std::size_t>(c.n) * 19349663u) ^
               (static_cast<std::size_t>(c.t) * 83492791u);
    }
};

class ObjConverter
{
public:
    ObjConverter(const tinyobj::ObjReader& reader, std::string directory, SceneDescription* scene)
        : _reader(reader), _sDirectory(std::move(directory)), _pScene(scene)
    {
    }

    bool Convert(std::string* error);

private:
    bool _Material(int index, int* material, std::string* error);
    bool _Image(const std::string& name, int* image, std::string* error);

    const tinyobj::ObjReader& _reader;
    std::string _sDirectory; // empty: no files are read
    SceneDescription* _pScene;
    std::map<int, int> _materials;
    std::map<std::string, int> _images;
};

bool ObjConverter::_Image(const std::string& name, int* image, std::string* error)
{
    *image = -1;
    if (name.empty())
        return true;
    const auto known = _images.find(name);
    if (known != _images.end())
    {
        *image = known->second;
        return true;
    }
    const std::string path = name.front() == '/' ? name : _sDirectory + name;
    std::ifstream file;
    if (!_sDirectory.empty())
        file.open(path, std::ios::binary);
    if (!file)
    {
        *error = "texture " + name + " cannot be read";
        return false;
    }
    const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)),
                                           std::istreambuf_iterator<char>());
    ImportedImage decoded;
    if (!Detail::DecodeImage(bytes.data(), bytes.size(), &decoded, error))
    {
        *error = "texture " + name + " could not be decoded";
        return false;
    }
    *image = static_cast<int>(_pScene->images.size());
    _pScene->images.push_back(std::move(decoded));
    _images.emplace(name, *image);
    return true;
}

bool ObjConverter::_Material(int index, int* material, std::string* error)
{
    const auto known = _materials.find(index);
    if (known != _materials.end())
    {
        *material = known->second;
        return true;
    }
    const std::vector<tinyobj::material_t>& materials = _reader.GetMaterials();
    ImportedMaterial out;
    out.baseColour = {0.8f, 0.8f, 0.8f}; // without usemtl: grey and matte
    out.metallic = 0.0f;
    if (index >= 0 && static_cast<std::size_t>(index) < materials.size())
    {
        const tinyobj::material_t& from = materials[static_cast<std::size_t>(index)];
        const auto finite = [](float value, float otherwise)
        { return std::isfinite(value) ? value : otherwise; };
        out.baseColour = {finite(from.diffuse[0], 0.8f), finite(from.diffuse[1], 0.8f),
                          finite(from.diffuse[2], 0.8f)};
        out.emission = {finite(from.emission[0], 0), finite(from.emission[1], 0),
                        finite(from.emission[2], 0)};
        out.metallic = finite(from.metallic, 0);
        // Pr when given; otherwise the Phong exponent's equivalent roughness.
        const float shininess = std::max(finite(from.shininess, 0), 0.0f);
        out.roughness =
            from.roughness > 0 ? finite(from.roughness, 1) : std::sqrt(2.0f / (shininess + 2.0f));
        if (!_Image(from.diffuse_texname, &out.baseColourMap, error) ||
            !_Image(from.emissive_texname, &out.emissionMap, error))
        {
            *error = "material " + from.name + ": " + *error;
            return false;
        }
        const bool emits = out.emission.x > 0 || out.emission.y > 0 || out.emission.z > 0;
        if (from.dissolve < 1.0f || from.illum == 4 || from.illum == 6 || from.illum == 7)
        {
            out.kind = ImportedMaterial::kMK_Glass;
            out.ior = from.ior > 1.0f && std::isfinite(from.ior) ? from.ior : 1.5f;
        }
        else if (emits && out.emissionMap < 0)
            out.kind = ImportedMaterial::kMK_Emissive;
    }
    *material = static_cast<int>(_pScene->materials.size());
    _pScene->materials.push_back(out);
    _materials.emplace(index, *material);
    return true;
}

bool ObjConverter::Convert(std::string* error)
{
    const tinyobj::attrib_t& attrib = _reader.GetAttrib();
    const int positions = static_cast<int>(attrib.vertices.size() / 3);
    const int normals = static_cast<int>(attrib.normals.size() / 3);
    const int coordinates = static_cast<int>(attrib.texcoords.size() / 2);
    for (const tinyobj::shape_t& shape : _reader.GetShapes())
    {
        const tinyobj::mesh_t& faces = shape.mesh;
        const std::size_t triangles = faces.num_face_vertices.size();
        if (faces.indices.size() != triangles * 3)
        {
            *error = "group '" + shape.name + "' has a face that is not a polygon";
            return false;
        }
        // One mesh per material of the group, in order of first use.
        std::map<int, std::size_t> meshOf;
        std::vector<std::unordered_map<Corner, std::uint32_t, CornerHash>> corners;
        const std::size_t first = _pScene->meshes.size();
        for (std::size_t f = 0; f < triangles; ++f)
        {
            if (faces.num_face_vertices[f] != 3)
            {
                *error = "group '" + shape.name + "' has a face that is not a polygon";
                return false;
            }
            const int materialIndex = f < faces.material_ids.size() ? faces.material_ids[f] : -1;
            auto slot = meshOf.find(materialIndex);
            if (slot == meshOf.end())
            {
                ImportedInstance instance;
                instance.mesh = static_cast<int>(_pScene->meshes.size());
                instance.placement = Detail::Identity();
                if (!_Material(materialIndex, &instance.material, error))
                    return false;
                slot = meshOf.emplace(materialIndex, _pScene->meshes.size()).first;
                _pScene->meshes.emplace_back();
                _pScene->instances.push_back(instance);
                corners.emplace_back();
            }
            ImportedMesh& mesh = _pScene->meshes[slot->second];
            auto& seen = corners[slot->second - first];
            for (int k = 0; k < 3; ++k)
            {
                const tinyobj::index_t& at = faces.indices[f * 3 + static_cast<std::size_t>(k)];
                if (at.vertex_index < 0 || at.vertex_index >= positions ||
                    at.normal_index >= normals || at.texcoord_index >= coordinates)
                {
                    *error = "group '" + shape.name + "' has a face index out of range";
                    return false;
                }
                const Corner corner{at.vertex_index, std::max(at.normal_index, -1),
                                    std::max(at.texcoord_index, -1)};
                const auto found = seen.find(corner);
                if (found != seen.end())
                {
                    mesh.indices.push_back(found->second);
                    continue;
                }
                const auto index = static_cast<std::uint32_t>(mesh.VertexCount());
                seen.emplace(corner, index);
                mesh.indices.push_back(index);
                float vertex[8] = {};
                for (int c = 0; c < 3; ++c)
                    vertex[c] = attrib.vertices[static_cast<std::size_t>(corner.v * 3 + c)];
                if (corner.n >= 0)
                    for (int c = 0; c < 3; ++c)
                    {
                        const float n = attrib.normals[static_cast<std::size_t>(corner.n * 3 + c)];
                        vertex[3 + c] = std::isfinite(n) ? n : 0.0f;
                    }
                if (corner.t >= 0)
                {
                    vertex[6] = attrib.texcoords[static_cast<std::size_t>(corner.t * 2)];
                    // OBJ counts v up from the image's bottom row; the runtime
                    // reads its first row, the file's top, at v = 0.
                    vertex[7] = 1.0f - attrib.texcoords[static_cast<std::size_t>(corner.t * 2 + 1)];
                }
                mesh.vertices.insert(mesh.vertices.end(), vertex, vertex + 8);
            }
        }
        for (std::size_t m = first; m < _pScene->meshes.size(); ++m)
            if (!Detail::CheckMesh(_pScene->meshes[m], error))
            {
                *error = "group '" + shape.name + "': " + *error;
                return false;
            }
        if (!faces.indices.empty() &&
            (!shape.lines.indices.empty() || !shape.points.indices.empty()))
            _pScene->notes.push_back("group '" + shape.name + "': lines and points left out");
    }
    if (_pScene->instances.empty())
    {
        *error = "the file has no faces";
        return false;
    }
    Detail::FrameBounds(_pScene);
    return true;
}

} // namespace

bool Detail::LoadObjFile(const std::string& path, SceneDescription* scene, std::string* error)
{
    const std::size_t slash = path.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
    tinyobj::ObjReaderConfig config;
    config.triangulate = true;
    config.vertex_color = false;
    config.mtl_search_path = directory;
    tinyobj::ObjReader reader;
    if (!reader.ParseFromFile(path, config))
    {
        *error = Detail::FirstLine(reader.Error());
        return false;
    }
    if (!reader.Error().empty())
    {
        *error = Detail::FirstLine(reader.Error());
        return false;
    }
    ObjConverter converter(reader, directory, scene);
    return converter.Convert(error);
}

bool LoadObjFromMemory(const std::string& obj, const std::string& mtl, SceneDescription* scene,
                       std::string* error)
{
    tinyobj::ObjReaderConfig config;
    config.triangulate = true;
    config.vertex_color = false;
    tinyobj::ObjReader reader;
    if (!reader.ParseFromString(obj, mtl, config) || !reader.Error().empty())
    {
        *error = reader.Error().empty() ? "not an OBJ file" : Detail::FirstLine(reader.Error());
        return false;
    }
    ObjConverter converter(reader, "", scene);
    return converter.Convert(error);
}

} // namespace VireoRender
