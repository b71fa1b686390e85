#include "SceneObjects.h"

namespace VireoRender
{

using namespace Vireo;

SceneObjects::~SceneObjects()
{
    for (auto it = _primitives.rbegin(); it != _primitives.rend(); ++it)
        _pContext->DestroyIKSPrimitive(*it);
    for (auto it = _programs.rbegin(); it != _programs.rend(); ++it)
        _pContext->DestroyIKSProgram(*it);
    for (auto it = _shaders.rbegin(); it != _shaders.rend(); ++it)
        _pContext->DestroyIKSShader(*it);
    for (auto it = _textures.rbegin(); it != _textures.rend(); ++it)
        _pContext->DestroyIKSTexImage2D(*it);
    for (auto it = _buffers.rbegin(); it != _buffers.rend(); ++it)
        _pContext->DestroyIKSBuffer(*it);
    if (IKSPrimitive* frame = _pContext->TheNullPrimitive())
    {
        frame->Bind();
        ksUseProgram(nullptr);
    }
}

IKSShader* SceneObjects::_Shader(IKSShader::Type type, const std::string& source,
                                 std::string* error)
{
    IKSShader* shader = _pContext->CreateIKSShader(type);
    if (shader == nullptr)
    {
        *error = "no shader object";
        return nullptr;
    }
    _shaders.push_back(shader);
    std::string text = source;
    Result log;
    if (!shader->SetString(text, &log))
    {
        const std::string all = log.GetText();
        *error = "a shader did not compile: " + all.substr(0, all.find('\n'));
        return nullptr;
    }
    return shader;
}

} // namespace VireoRender
