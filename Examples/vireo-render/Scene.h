// The demo's built-in scenes, built through the wrapper alone: shaders and
// programs of the shading language, primitives with their uniforms, a mesh
// in a buffer and a texture.
#ifndef VIREO_EXAMPLES_RENDER_SCENE_H
#define VIREO_EXAMPLES_RENDER_SCENE_H

#include "SceneObjects.h"

#include <memory>
#include <string>
#include <vector>

namespace VireoRender
{

// A built-in scene; its objects go back to the context on destruction.
class Scene : private SceneObjects
{
public:
    explicit Scene(Vireo::IKestrelContext* context) : SceneObjects(context) {}

    // Builds the named scene; false with `error` set when that fails.
    bool Build(const std::string& name, std::string* error);

    static std::vector<std::string> Names();

private:
    // A linked program of the given shaders; null with `error` on failure.
    Vireo::IKSProgram* _Program(std::initializer_list<Vireo::IKSShader*> shaders,
                                std::string* error);
    // A primitive that draws with `program`.
    Vireo::IKSPrimitive* _Primitive(Vireo::IKSProgram* program, const std::string& name);
    bool _BuildRoom(std::string* error);
    bool _BuildSpheres(std::string* error);
    bool _Frame(Vireo::IKSProgram* program, const Vireo::Vector3f& eye,
                const Vireo::Vector3f& target, float fov, std::string* error);

    std::vector<unsigned char> _textureTexels;
};

} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_SCENE_H
