// The wrapper objects that a scene made through one context.
#ifndef VIREO_EXAMPLES_RENDER_SCENE_OBJECTS_H
#define VIREO_EXAMPLES_RENDER_SCENE_OBJECTS_H

#include "KestrelWrapper/VireoKestrelWrapper.h"

#include <string>
#include <vector>

namespace VireoRender
{

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
