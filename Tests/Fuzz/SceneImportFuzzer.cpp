// libFuzzer target over vireo-render's scene import: the first byte picks
// glTF text, binary glTF or OBJ (its MTL after the first zero byte); what
// loads is then built through a context. Anything but a scene or a one-line
// error is a finding: a crash, a hang, a leak or a sanitizer report.
#include "Import.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Vireo::IKestrelContext* const context = []
    {
        Vireo::IMgrKestrel* manager = Vireo::GetMgrKestrel();
        Vireo::IKestrelContext* made =
            manager->CreateKestrelContext(Vireo::GetMgrConsole(), false, true, nullptr);
        if (made == nullptr || !manager->SetCurrentKestrelContext(made))
            std::abort();
        return made;
    }();
    if (size == 0)
        return 0;
    const int format = data[0] % 3;
    VireoRender::SceneDescription scene;
    std::string error;
    bool loaded = false;
    if (format == 2)
    {
        const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
        const std::size_t split = text.find('\0');
        loaded = VireoRender::LoadObjFromMemory(
            text.substr(0, split), split == std::string::npos ? "" : text.substr(split + 1), &scene,
            &error);
    }
    else
        loaded =
            VireoRender::LoadGltfFromMemory(data + 1, size - 1, format == 1, -1, &scene, &error);
    if (!loaded)
    {
        if (error.empty() || error.find('\n') != std::string::npos)
            std::abort();
        return 0;
    }
    VireoRender::ImportedScene built(context);
    if (!built.Build(scene, "uniform", &error))
        std::abort();
    return 0;
}
