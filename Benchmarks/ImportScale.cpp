// import-scale: a finely tessellated displaced sphere of about a million
// triangles, written as binary glTF, then
//   - imported through vireo-render's import (file read and checked; then
//     the buffer, primitive and programs made through the wrapper),
//   - its first frame's scene build in the runtime, against bare Embree's
//     rtcCommitScene on the same triangles, same device defaults, same flags,
//   - the memory each keeps, per triangle.
// Each measurement runs in a child process of its own, so that one's freed
// memory does not hide the next one's growth in the resident set; the
// children run side by side in one run of the tool, in alternation.
//
//   import-scale [--rows N] [--repetitions N]
#include "Import.h"

#include <embree3/rtcore.h>
#include <tiny_gltf.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Resident bytes of this process now.
double Resident()
{
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// rows × 2·rows quads of a sphere whose radius ripples, two triangles each.
VireoRender::ImportedMesh DisplacedSphere(int rows)
{
    VireoRender::ImportedMesh mesh;
    const int columns = 2 * rows;
    const double pi = 3.14159265358979;
    for (int r = 0; r <= rows; ++r)
        for (int c = 0; c <= columns; ++c)
        {
            const double theta = pi * r / rows, phi = 2 * pi * c / columns;
            const double radius = 1.0 + 0.04 * std::sin(9 * theta) * std::sin(13 * phi) +
                                  0.01 * std::sin(41 * theta + 3 * phi);
            const double n[3] = {std::sin(theta) * std::cos(phi), std::cos(theta),
                                 std::sin(theta) * std::sin(phi)};
            const float vertex[8] = {static_cast<float>(radius * n[0]),
                                     static_cast<float>(radius * n[1]),
                                     static_cast<float>(radius * n[2]),
                                     0,
                                     0,
                                     0, // the runtime takes the triangle's own normal
                                     static_cast<float>(c) / columns,
                                     static_cast<float>(r) / rows};
            mesh.vertices.insert(mesh.vertices.end(), vertex, vertex + 8);
        }
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < columns; ++c)
        {
            const auto at = [columns](int row, int column)
            { return static_cast<std::uint32_t>(row * (columns + 1) + column); };
            const std::uint32_t quad[6] = {at(r, c), at(r + 1, c),     at(r + 1, c + 1),
                                           at(r, c), at(r + 1, c + 1), at(r, c + 1)};
            mesh.indices.insert(mesh.indices.end(), quad, quad + 6);
        }
    return mesh;
}

bool WriteGlb(const VireoRender::ImportedMesh& mesh, const std::string& path)
{
    tinygltf::Model model;
    tinygltf::Buffer buffer;
    const std::size_t vertexBytes = mesh.vertices.size() * sizeof(float);
    const std::size_t indexBytes = mesh.indices.size() * sizeof(std::uint32_t);
    buffer.data.resize(vertexBytes + indexBytes);
    std::memcpy(buffer.data.data(), mesh.vertices.data(), vertexBytes);
    std::memcpy(buffer.data.data() + vertexBytes, mesh.indices.data(), indexBytes);
    model.buffers.push_back(std::move(buffer));
    tinygltf::BufferView vertices, indices;
    vertices.buffer = indices.buffer = 0;
    vertices.byteLength = vertexBytes;
    vertices.byteStride = 32;
    indices.byteOffset = vertexBytes;
    indices.byteLength = indexBytes;
    model.bufferViews = {vertices, indices};
    const auto accessor =
        [](int view, std::size_t offset, int type, int component, std::size_t count)
    {
        tinygltf::Accessor a;
        a.bufferView = view;
        a.byteOffset = offset;
        a.type = type;
        a.componentType = component;
        a.count = count;
        return a;
    };
    model.accessors = {
        accessor(0, 0, TINYGLTF_TYPE_VEC3, TINYGLTF_COMPONENT_TYPE_FLOAT, mesh.VertexCount()),
        accessor(0, 24, TINYGLTF_TYPE_VEC2, TINYGLTF_COMPONENT_TYPE_FLOAT, mesh.VertexCount()),
        accessor(1, 0, TINYGLTF_TYPE_SCALAR, TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT,
                 mesh.indices.size())};
    // Positions need their bounds in glTF.
    model.accessors[0].minValues = {-1.1, -1.1, -1.1};
    model.accessors[0].maxValues = {1.1, 1.1, 1.1};
    tinygltf::Primitive primitive;
    primitive.attributes = {{"POSITION", 0}, {"TEXCOORD_0", 1}};
    primitive.indices = 2;
    primitive.mode = TINYGLTF_MODE_TRIANGLES;
    primitive.material = 0;
    tinygltf::Mesh gltfMesh;
    gltfMesh.primitives.push_back(primitive);
    model.meshes.push_back(gltfMesh);
    tinygltf::Material material;
    material.pbrMetallicRoughness.baseColorFactor = {0.9, 0.6, 0.3, 1};
    model.materials.push_back(material);
    tinygltf::Node node;
    node.mesh = 0;
    model.nodes.push_back(node);
    tinygltf::Scene scene;
    scene.nodes = {0};
    model.scenes.push_back(scene);
    model.defaultScene = 0;
    model.asset.version = "2.0";
    tinygltf::TinyGLTF writer;
    return writer.WriteGltfSceneToFile(&model, path, false, true, false, true);
}

struct Figures
{
    double load = 0;      // file read, parsed and checked
    double wrapper = 0;   // programs, buffer, primitive through the wrapper
    double build = 0;     // first frame's scene build (runtime) or rtcCommitScene (bare)
    double frame = 0;     // the whole first frame, wall clock
    double resident = 0;  // growth of the resident set over the build
    double monitored = 0; // bytes Embree reports through its memory monitor (bare only)
    double buffers = 0;   // bytes of Embree's vertex and index buffers (bare only)
    std::size_t triangles = 0;
};

// One 16 × 16 tile over the imported scene: what a first frame costs is the
// scene's build, the 256 paths aside.
Figures Runtime(const std::string& path)
{
    Figures figures;
    Vireo::IMgrKestrel* manager = Vireo::GetMgrKestrel();
    Vireo::IKestrelContext* context =
        manager->CreateKestrelContext(Vireo::GetMgrConsole(), false, true, nullptr);
    manager->SetCurrentKestrelContext(context);
    Vireo::IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
    using Att = Vireo::IKSFrameBufferAttachment;
    frameBuffer->Init(16, 16); // one tile
    frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false, Att::kBM_Mode2,
                                  Vireo::Color4f{});
    frameBuffer->Bind();
    {
        // Warm up the threads and the ray tracing device on a small scene.
        VireoRender::SceneDescription small;
        small.meshes.push_back(DisplacedSphere(4));
        small.materials.emplace_back();
        VireoRender::ImportedInstance instance;
        for (int i = 0; i < 4; ++i)
            instance.placement.m[i][i] = 1;
        small.instances.push_back(instance);
        VireoRender::ImportedScene warm(context);
        std::string error;
        if (!warm.Build(small, "none", &error) ||
            context->RenderFrame() != Vireo::IKestrelContext::kRFS_Finished)
        {
            std::fprintf(stderr, "import-scale: warm-up failed: %s\n", error.c_str());
            std::exit(1);
        }
    }
    {
        VireoRender::ImportOptions options;
        options.path = path;
        options.environment = "none";
        Clock::time_point start = Clock::now();
        VireoRender::SceneDescription description;
        std::string error;
        if (!VireoRender::LoadScene(options, &description, &error))
        {
            std::fprintf(stderr, "import-scale: %s\n", error.c_str());
            std::exit(1);
        }
        figures.load = Seconds(start);
        figures.triangles = description.meshes[0].TriangleCount();
        start = Clock::now();
        VireoRender::ImportedScene scene(context);
        if (!scene.Build(description, options.environment, &error))
        {
            std::fprintf(stderr, "import-scale: %s\n", error.c_str());
            std::exit(1);
        }
        figures.wrapper = Seconds(start);
        description = VireoRender::SceneDescription(); // the host's copy is gone
        const double before = Resident();
        start = Clock::now();
        if (context->RenderFrame() != Vireo::IKestrelContext::kRFS_Finished)
            std::exit(1);
        figures.frame = Seconds(start);
        figures.resident = Resident() - before;
        Vireo::IKestrelContext::KSRenderFrameStatistics statistics = {};
        context->GetKSStatistics(statistics);
        figures.build = statistics.doubleStatistic1;
        if (statistics.floatStatistic <= 0.0f) // the tile sees the sphere
        {
            std::fprintf(stderr, "import-scale: the frame saw no sphere\n");
            std::exit(1);
        }
    }
    context->DestroyIKSFrameBuffer(frameBuffer);
    manager->DestroyKestrelContext(context);
    return figures;
}

std::atomic<long long> gEmbreeBytes{0};

bool Monitor(void*, ssize_t bytes, bool)
{
    gEmbreeBytes += bytes;
    return true;
}

// The same triangles straight into Embree, with the runtime's scene flags.
Figures Bare(int rows)
{
    Figures figures;
    RTCDevice device = rtcNewDevice(nullptr);
    rtcSetDeviceMemoryMonitorFunction(device, Monitor, nullptr);
    const auto commit =
        [device](const VireoRender::ImportedMesh& mesh, double* seconds, double* buffers)
    {
        RTCScene scene = rtcNewScene(device);
        rtcSetSceneFlags(scene, RTC_SCENE_FLAG_ROBUST);
        RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        const std::size_t vertices = mesh.VertexCount(), triangles = mesh.TriangleCount();
        auto* positions = static_cast<float*>(rtcSetNewGeometryBuffer(
            geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), vertices));
        auto* indices = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
            geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), triangles));
        for (std::size_t v = 0; v < vertices; ++v)
            std::memcpy(positions + 3 * v, &mesh.vertices[v * 8], 3 * sizeof(float));
        std::memcpy(indices, mesh.indices.data(), mesh.indices.size() * sizeof(unsigned));
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        *buffers = static_cast<double>(gEmbreeBytes.load());
        const Clock::time_point start = Clock::now();
        rtcCommitScene(scene);
        *seconds = Seconds(start);
        return scene;
    };
    double ignored = 0, buffersIgnored = 0;
    rtcReleaseScene(commit(DisplacedSphere(4), &ignored, &buffersIgnored)); // warm up
    const VireoRender::ImportedMesh mesh = DisplacedSphere(rows);
    figures.triangles = mesh.TriangleCount();
    gEmbreeBytes = 0;
    const double before = Resident();
    double buffers = 0;
    RTCScene scene = commit(mesh, &figures.build, &buffers);
    figures.resident = Resident() - before; // buffers and hierarchy
    figures.monitored = static_cast<double>(gEmbreeBytes.load()) - buffers;
    figures.buffers = buffers;
    figures.frame = figures.build;
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);
    return figures;
}

// Runs `work` in a child and gives back what it measured.
template <typename Work>
Figures InChild(Work work)
{
    int channel[2];
    if (pipe(channel) != 0)
        std::exit(1);
    std::fflush(stdout); // the child must not print what the parent buffered
    const pid_t child = fork();
    if (child == 0)
    {
        close(channel[0]);
        const Figures figures = work();
        const ssize_t written = write(channel[1], &figures, sizeof figures);
        _exit(written == static_cast<ssize_t>(sizeof figures) ? 0 : 1);
    }
    close(channel[1]);
    Figures figures;
    const ssize_t got = read(channel[0], &figures, sizeof figures);
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (got != static_cast<ssize_t>(sizeof figures) || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0)
    {
        std::fprintf(stderr, "import-scale: a measurement failed\n");
        std::exit(1);
    }
    return figures;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    int rows = 500; // 500 × 1000 quads: 1 000 000 triangles
    int repetitions = 3;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (std::strcmp(argv[i], "--rows") == 0)
            rows = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--repetitions") == 0)
            repetitions = std::atoi(argv[i + 1]);
    }
    if (rows < 2 || repetitions < 1)
    {
        std::fprintf(stderr, "usage: import-scale [--rows N] [--repetitions N]\n");
        return 2;
    }
    char directory[] = "/tmp/import-scale-XXXXXX";
    if (mkdtemp(directory) == nullptr)
        return 1;
    const std::string path = std::string(directory) + "/sphere.glb";
    {
        const VireoRender::ImportedMesh mesh = DisplacedSphere(rows);
        if (!WriteGlb(mesh, path))
        {
            std::fprintf(stderr, "import-scale: cannot write %s\n", path.c_str());
            return 1;
        }
        std::printf(
            "displaced sphere: %zu triangles, %zu vertices, %.1f MB of binary glTF\n",
            mesh.TriangleCount(), mesh.VertexCount(),
            static_cast<double>(std::ifstream(path, std::ios::ate | std::ios::binary).tellg()) /
                1e6);
    }
    std::vector<Figures> runtime, bare;
    for (int r = 0; r < repetitions; ++r)
    {
        runtime.push_back(InChild([&path] { return Runtime(path); }));
        bare.push_back(InChild([rows] { return Bare(rows); }));
    }
    std::remove(path.c_str());
    rmdir(directory);

    const auto median = [](const std::vector<Figures>& all, double Figures::*field)
    {
        std::vector<double> values;
        for (const Figures& f : all)
            values.push_back(f.*field);
        return Median(values);
    };
    const double triangles = static_cast<double>(runtime[0].triangles);
    const double build = median(runtime, &Figures::build),
                 bareBuild = median(bare, &Figures::build);
    const double resident = median(runtime, &Figures::resident);
    const double bareResident = median(bare, &Figures::resident);
    const double bvh = median(bare, &Figures::monitored);
    const double buffers = median(bare, &Figures::buffers);
    std::printf("medians of %d runs, each in a fresh process\n", repetitions);
    std::printf("load (read, parse, check)        %8.3f s\n", median(runtime, &Figures::load));
    std::printf("build through the wrapper        %8.3f s\n", median(runtime, &Figures::wrapper));
    std::printf("first frame, wall clock          %8.3f s\n", median(runtime, &Figures::frame));
    std::printf("first frame's scene build        %8.3f s   (statistic 1: build and one tile)\n",
                build);
    std::printf("bare Embree rtcCommitScene       %8.3f s\n", bareBuild);
    std::printf("ratio                            %8.2f\n", build / bareBuild);
    std::printf("runtime, resident growth         %8.1f bytes/triangle\n", resident / triangles);
    std::printf("bare Embree, resident growth     %8.1f bytes/triangle (buffers and BVH)\n",
                bareResident / triangles);
    std::printf("bare Embree, BVH (monitor)       %8.1f bytes/triangle\n", bvh / triangles);
    std::printf("bare Embree, buffers (monitor)   %8.1f bytes/triangle\n", buffers / triangles);
    std::printf("runtime beyond Embree's BVH      %8.1f bytes/triangle\n",
                (resident - bvh) / triangles);
    return 0;
}
