// The wrapper objects that a scene made through one context.
#ifndef VIREO_EXAMPLES_RENDER_SCENE_OBJECTS_H
#define VIREO_EXAMPLES_RENDER_SCENE_OBJECTS_H

#include "KestrelWrapper/VireoKestrelWrapper.h"

#include <string>
#include <vector>

namespace VireoRender
{

// Shaders that both kinds of scene use. The frame sends radiance to
// attachment 0 and visibility to attachment 1; the sky is black unless set.
inline constexpr const char* kGlassSource = "uniform float ior = 1.5;\nglass(ior);\n";
inline constexpr const char* kEmissiveSource = "uniform vec3 radiance;\nemissive(radiance);\n";
inline constexpr const char* kFrameSource = R"(
uniform vec3 eye;
uniform vec3 target;
uniform vec3 up = vec3(0.0, 1.0, 0.0);
uniform float fov = 40.0;
uniform vec3 sky = vec3(0.0, 0.0, 0.0);
camera(eye, target, up, fov);
background(sky);
output(0, radiance);
output(1, visibility);
)";

// Gives every object back to its context on destruction, in reverse order of
// making, and takes the frame's program back from the null primitive so the
// context's frame returns to its defaults.
class SceneObjects
{
public:
    explicit SceneObjects(Vireo::IKestrelContext* context) : _pContext(context) {}
    ~SceneObjects();
    SceneObjects(const SceneObjects&) = delete;
    SceneObjects& operator=(const SceneObjects&) = delete;

protected:
    // One compiled shader of `type`, kept for destruction; null with `error`
    // set to one line when it cannot be made or does not compile.
    Vireo::IKSShader* _Shader(Vireo::IKSShader::Type type, const std::string& source,
                              std::string* error);

    Vireo::IKestrelContext* _pContext;
    std::vector<Vireo::IKSShader*> _shaders;
    std::vector<Vireo::IKSProgram*> _programs;
    std::vector<Vireo::IKSPrimitive*> _primitives;
    std::vector<Vireo::IKSBuffer*> _buffers;
    std::vector<Vireo::IKSTexImage2D*> _textures;
};

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_SCENE_OBJECTS_H
