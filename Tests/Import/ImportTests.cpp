// The scene import of vireo-render: small glTF and OBJ files written here,
// one table of what each must give (or the error it must give), then a
// build through the runtime and a render of the bunny scene checked by
// property.
#include "Import.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <stdlib.h>

using namespace VireoRender;

namespace
{

std::string Replace(std::string text, const std::string& from, const std::string& to)
{
    return text.replace(text.find(from), from.size(), to);
}

// A triangle's three positions (36 bytes), then indices 0 1 2 as unsigned
// shorts, the last of which is `lastIndex`, as the binary file `name`.
void WriteTriangle(const std::string& name, float firstX, unsigned short lastIndex)
{
    const float positions[9] = {firstX, 0, 0, 1, 0, 0, 0, 1, 0};
    const unsigned short indices[4] = {0, 1, lastIndex, 0};
    std::ofstream file(name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(positions), sizeof(positions));
    file.write(reinterpret_cast<const char*>(indices), sizeof(indices));
}

// A glTF of such a triangle; `parts` holds the rest of the top-level members.
std::string Gltf(const std::string& parts, const std::string& bin = "tri.bin",
                 const std::string& primitive = R"("attributes": {"POSITION": 0}, "indices": 1)")
{
    return R"({"asset": {"version": "2.0"},
 "buffers": [{"byteLength": 44, "uri": ")" +
           bin + R"("}],
 "bufferViews": [{"buffer": 0, "byteOffset": 0, "byteLength": 36},
                 {"buffer": 0, "byteOffset": 36, "byteLength": 6}],
 "accessors": [{"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3"},
               {"bufferView": 1, "componentType": 5123, "count": 3, "type": "SCALAR"}],
 "meshes": [{"primitives": [{)" +
           primitive + R"(, "material": 0}]},
            {"primitives": [{"attributes": {"POSITION": 0}, "indices": 1, "material": 1}]}],
)" + parts +
           "}";
}

const std::string kMaterials = R"("materials": [
  {"pbrMetallicRoughness": {"baseColorFactor": [0.5, 0.25, 1, 1], "metallicFactor": 0.75,
                            "roughnessFactor": 0.5}},
  {"extensions": {"KHR_materials_transmission": {"transmissionFactor": 1},
                  "KHR_materials_ior": {"ior": 1.25}}}])";

const std::string kPng1x1 = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQ"
                            "GAhKmMIQAAAABJRU5ErkJggg==";

using K = ImportedMaterial::Kind;
const K kMR = ImportedMaterial::kMK_MetallicRoughness;
const K kGlass = ImportedMaterial::kMK_Glass;
const K kLight = ImportedMaterial::kMK_Emissive;

struct Case
{
    const char* name;
    const char* file; // written into the test's directory
    std::string text;
    const char* error; // a part of the one-line error, or null when it loads
    std::size_t meshes, images;
    std::vector<K> kinds; // per instance, so also how many
    float x1;             // instance 1's translation x (row 0, column 3)
};

// One row a file: the table reads best unformatted.
// clang-format off
std::vector<Case> Cases()
{
    const std::string one = R"("nodes": [{"mesh": 0}], )" + kMaterials;
    return {
        // A parent scaled by 2 with two children, one moved by a (column-major)
        // matrix: one mesh, shared.
        {"shared mesh, nested transforms", "nested.gltf",
         Gltf(R"("nodes": [{"scale": [2, 2, 2], "children": [1, 2]}, {"mesh": 0},
                           {"mesh": 0, "matrix": [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 3, 0, 0, 1]}],
                 "scenes": [{"nodes": [0]}], )" + kMaterials),
         nullptr, 1, 0, {kMR, kMR}, 6.0f},
        {"materials and the chosen camera", "camera.gltf",
         Gltf(R"("nodes": [{"mesh": 0}, {"mesh": 1, "translation": [-1, 0, 0]},
                           {"camera": 0, "translation": [0, 0, 9]},
                           {"camera": 1, "translation": [0, 2, 5]}],
                 "cameras": [{"type": "perspective", "perspective": {"yfov": 0.5, "znear": 0.1}},
                             {"type": "perspective", "perspective": {"yfov": 0.7, "znear": 0.1}}],
                 "scene": 0, "scenes": [{"nodes": [0, 1, 2, 3]}], )" + kMaterials),
         nullptr, 1, 0, {kMR, kGlass}, -1.0f},
        {"an emissive surface with strength, a texture twice", "light.gltf",
         Gltf(R"("nodes": [{"mesh": 0}, {"mesh": 1, "translation": [4, 0, 0]}],
                 "images": [{"uri": "data:image/png;base64,)" + kPng1x1 + R"("}],
                 "textures": [{"source": 0}, {"source": 0}],
                 "materials": [{"emissiveFactor": [1, 0.5, 0.25], "extensions":
                                {"KHR_materials_emissive_strength": {"emissiveStrength": 4}}},
                               {"pbrMetallicRoughness": {"baseColorTexture": {"index": 0},
                                "metallicRoughnessTexture": {"index": 1}}}])"),
         nullptr, 1, 1, {kLight, kMR}, 4.0f},
        {"lines", "lines.gltf",
         Gltf(one, "tri.bin", R"("attributes": {"POSITION": 0}, "indices": 1, "mode": 1)"),
         "not made of triangles", 0, 0, {}, 0},
        {"index just out of range", "range.gltf", Gltf(one, "range.bin"), "out of range", 0, 0, {}, 0},
        {"NaN position", "nan.gltf", Gltf(one, "nan.bin"), "not a finite number", 0, 0, {}, 0},
        {"missing accessor", "noaccessor.gltf",
         Gltf(one, "tri.bin",
              R"("attributes": {"POSITION": 0, "NORMAL": 0, "TEXCOORD_0": 2}, "indices": 1)"),
         "accessor 2 does not exist", 0, 0, {}, 0},
        {"accessor past its view", "past.gltf",
         Replace(Gltf(one), R"("count": 3, "type": "SCALAR")", R"("count": 4, "type": "SCALAR")"),
         "accessor 1 reads outside its buffer", 0, 0, {}, 0},
        {"sparse", "sparse.gltf",
         Replace(Gltf(one), R"("type": "VEC3"})",
                 R"("type": "VEC3", "sparse": {"count": 1, "values": {"bufferView": 0},
                    "indices": {"bufferView": 1, "componentType": 5123}}})"),
         "sparse", 0, 0, {}, 0},
        {"draco", "draco.gltf",
         Gltf(R"("extensionsRequired": ["KHR_draco_mesh_compression"], )" + one),
         "draco", 0, 0, {}, 0},
        {"undecodable image", "image.gltf",
         Gltf(R"("nodes": [{"mesh": 0}], "images": [{"uri": "data:image/png;base64,iVBORw0KGgo="}],
                 "textures": [{"source": 0}],
                 "materials": [{"pbrMetallicRoughness": {"baseColorTexture": {"index": 0}}}, {}])"),
         "image 0", 0, 0, {}, 0},
        {"node cycle", "cycle.gltf",
         Gltf(R"("nodes": [{"mesh": 0, "children": [1]}, {"children": [0]}],
                 "scenes": [{"nodes": [0]}], )" + kMaterials),
         "twice", 0, 0, {}, 0},
        {"truncated", "cut.gltf", Gltf(one).substr(0, 300), "", 0, 0, {}, 0},
        {"missing", "absent.gltf", "", "cannot be opened", 0, 0, {}, 0},
        // OBJ: two groups, three materials; the glass group's face is a quad.
        {"groups and materials", "groups.obj",
         "mtllib groups.mtl\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0.25 0.75\n"
         "g a\nusemtl red\nf 1/1 2/1 3/1\nusemtl lamp\nf 1 3 4\ng b\nusemtl clear\nf 1 2 3 4\n",
         nullptr, 3, 0, {kMR, kLight, kGlass}, 0.0f},
        {"face out of range", "range.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nf 1 2 9\n",
         "out of range", 0, 0, {}, 0},
        {"missing map", "nomap.obj", "mtllib nomap.mtl\nv 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl m\nf 1 2 3\n",
         "texture absent.png cannot be read", 0, 0, {}, 0},
        {"not a model", "model.stl", "solid", "not a .gltf, .glb or .obj", 0, 0, {}, 0},
    };
}
// clang-format on

class Import : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        const std::string directory = Directory();
        // A later suite on the same files makes them again.
        std::filesystem::create_directories(directory);
        std::ofstream(directory + "groups.mtl")
            << "newmtl red\nKd 0.8 0.1 0.1\nNs 98\nPm 0.5\n"
               "newmtl lamp\nKe 5 4 3\nnewmtl clear\nd 0.2\nNi 1.33\n";
        std::ofstream(directory + "nomap.mtl") << "newmtl m\nmap_Kd absent.png\n";
        WriteTriangle(directory + "tri.bin", 0, 2);
        WriteTriangle(directory + "range.bin", 0, 3);
        WriteTriangle(directory + "nan.bin", NAN, 2);
        for (const Case& c : Cases())
            if (std::string(c.file) != "absent.gltf")
                std::ofstream(directory + c.file) << c.text;
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(Directory()); }
    // One directory per process: ctest runs the tests side by side.
    static std::string Directory()
    {
        static const std::string directory = []
        {
            std::string pattern = ::testing::TempDir() + "vireo-import-XXXXXX";
            return std::string(mkdtemp(&pattern[0])) + "/";
        }();
        return directory;
    }
};

TEST_F(Import, EachFileGivesItsSceneOrOneLineNamingIt)
{
    for (const Case& c : Cases())
    {
        SCOPED_TRACE(c.name);
        ImportOptions options;
        options.path = Directory() + c.file;
        SceneDescription scene;
        std::string error;
        const bool loaded = LoadScene(options, &scene, &error);
        if (c.error != nullptr)
        {
            EXPECT_FALSE(loaded);
            EXPECT_EQ(error.rfind(options.path + ": ", 0), 0u) << error;
            EXPECT_NE(error.find(c.error), std::string::npos) << error;
            EXPECT_EQ(error.find('\n'), std::string::npos) << error;
            EXPECT_TRUE(scene.instances.empty());
            continue;
        }
        ASSERT_TRUE(loaded) << error;
        EXPECT_EQ(scene.meshes.size(), c.meshes);
        EXPECT_EQ(scene.images.size(), c.images);
        std::vector<K> kinds;
        for (const ImportedInstance& instance : scene.instances)
            kinds.push_back(scene.materials[static_cast<std::size_t>(instance.material)].kind);
        ASSERT_EQ(kinds, c.kinds);
        EXPECT_FLOAT_EQ(scene.instances[1].placement.m[0][3], c.x1);
    }
}

// The values that the table's kinds alone do not show.
TEST_F(Import, MaterialValuesCameraAndFraming)
{
    SceneDescription scene;
    std::string error;
    ImportOptions options;
    options.path = Directory() + "camera.gltf";
    options.camera = 1;
    ASSERT_TRUE(LoadScene(options, &scene, &error)) << error;
    const ImportedMaterial& metal = scene.materials[0];
    EXPECT_FLOAT_EQ(metal.baseColour.y, 0.25f);
    EXPECT_FLOAT_EQ(metal.metallic, 0.75f);
    EXPECT_FLOAT_EQ(metal.roughness, 0.5f);
    EXPECT_FLOAT_EQ(scene.materials[1].ior, 1.25f);
    EXPECT_NEAR(scene.camera.fov, 0.7f * 180.0f / 3.14159265f, 1e-3f);
    EXPECT_FLOAT_EQ(scene.camera.eye.y, 2.0f);
    EXPECT_FLOAT_EQ(scene.camera.target.z, 4.0f); // one unit down the camera's -z
    options.camera = 5;
    EXPECT_FALSE(LoadScene(options, &scene, &error));
    options.camera = -1; // the first placed one
    ASSERT_TRUE(LoadScene(options, &scene, &error)) << error;
    EXPECT_FLOAT_EQ(scene.camera.eye.z, 9.0f);

    options.path = Directory() + "light.gltf";
    options.camera = -1;
    ASSERT_TRUE(LoadScene(options, &scene, &error)) << error;
    EXPECT_FLOAT_EQ(scene.materials[0].emission.y, 2.0f);
    EXPECT_EQ(scene.materials[1].baseColourMap, 0);
    EXPECT_EQ(scene.materials[1].metallicRoughnessMap, 0);
    // Framed from the front: the triangles span x from 0 to 5, y from 0 to 1.
    EXPECT_TRUE(scene.framed);
    EXPECT_FLOAT_EQ(scene.camera.target.x, 2.5f);
    EXPECT_FLOAT_EQ(scene.camera.eye.x, 2.5f);
    EXPECT_GT(scene.camera.eye.z, 2.5f);

    options.path = Directory() + "groups.obj";
    ASSERT_TRUE(LoadScene(options, &scene, &error)) << error;
    EXPECT_FLOAT_EQ(scene.materials[0].baseColour.x, 0.8f);
    EXPECT_FLOAT_EQ(scene.materials[0].metallic, 0.5f);
    EXPECT_NEAR(scene.materials[0].roughness, 0.14142f, 1e-4f); // from Ns 98
    EXPECT_FLOAT_EQ(scene.materials[1].emission.z, 3.0f);
    EXPECT_FLOAT_EQ(scene.materials[2].ior, 1.33f);
    EXPECT_FLOAT_EQ(scene.meshes[0].vertices[7], 0.25f); // v counted from the top
    EXPECT_EQ(scene.meshes[2].TriangleCount(), 2u);      // the quad, split
}

class ImportRender : public Import
{
protected:
    void SetUp() override
    {
        _pManager = Vireo::GetMgrKestrel();
        _pContext = _pManager->CreateKestrelContext(Vireo::GetMgrConsole(), false, true, nullptr);
        ASSERT_NE(_pContext, nullptr);
        ASSERT_TRUE(_pManager->SetCurrentKestrelContext(_pContext));
    }
    void TearDown() override
    {
        if (_pContext != nullptr)
            _pManager->DestroyKestrelContext(_pContext);
    }
    Vireo::IMgrKestrel* _pManager = nullptr;
    Vireo::IKestrelContext* _pContext = nullptr;
};

// Shared data stays shared through the wrapper: one buffer for the mesh of
// both instances, one texture for the image that two textures map.
TEST_F(ImportRender, BuildsOnePrimitivePerInstanceAndSharesTheRest)
{
    ImportOptions options;
    options.path = Directory() + "light.gltf";
    std::string error;
    ImportedScene scene(_pContext);
    ASSERT_TRUE(scene.Build(options, &error)) << error;
    EXPECT_EQ(scene.Primitives().size(), 2u);
    EXPECT_EQ(scene.BufferCount(), 1u);
    EXPECT_EQ(scene.TextureCount(), 1u);
    EXPECT_EQ(ksGetError(), 0);
}

// The bunny scene renders: most primary rays hit something, and every
// pixel is a finite radiance of at least zero.
TEST_F(ImportRender, BunnySceneRendersFiniteNonNegativeRadiance)
{
    ImportOptions options;
    options.path = VIREO_BUNNY_SCENE;
    std::string error;
    ImportedScene scene(_pContext);
    ASSERT_TRUE(scene.Build(options, &error)) << error;
    const int width = 40, height = 30;
    Vireo::IKSFrameBuffer* frameBuffer = _pContext->CreateIKSFrameBuffer();
    using Att = Vireo::IKSFrameBufferAttachment;
    ASSERT_TRUE(frameBuffer->Init(width, height));
    Att* radiance = frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false,
                                                  Att::kBM_Mode2, Vireo::Color4f{0, 0, 0, 0});
    ASSERT_NE(radiance, nullptr);
    ASSERT_TRUE(frameBuffer->Bind());
    frameBuffer->Clear();
    for (int pass = 0; pass < 4; ++pass)
        ASSERT_EQ(_pContext->RenderFrame(), Vireo::IKestrelContext::kRFS_Finished);
    Vireo::IKestrelContext::KSRenderFrameStatistics statistics = {};
    _pContext->GetKSStatistics(statistics);
    EXPECT_GT(statistics.floatStatistic, 0.6f); // the floor fills the lower part
    radiance->Lock(~0ul);
    const auto* pixels = reinterpret_cast<const float*>(radiance->GetClientBuffer());
    ASSERT_NE(pixels, nullptr);
    int bad = 0;
    for (int i = 0; i < width * height * 4; ++i)
        bad += !(std::isfinite(pixels[i]) && pixels[i] >= 0.0f);
    radiance->UnLock();
    EXPECT_EQ(bad, 0);
    _pContext->DestroyIKSFrameBuffer(frameBuffer);
}

} // namespace
