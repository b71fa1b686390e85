#include "ShadingLanguage.h"

namespace Kestrel
{

CompileResult CompileShaderSource(int /*kind*/, const std::string& source)
{
    CompileResult result;
    if (source.empty())
    {
        result._sLog = "1:1: error: empty source";
        return result;
    }
    result._bSuccess = true;
    return result;
}

LinkResult LinkShaders(const std::vector<const ShaderObject*>& shaders)
{
    LinkResult result;
    if (shaders.empty())
    {
        result._sLog = "error: no shaders attached";
        return result;
    }
    result._bSuccess = true;
    return result;
}

int FindUniformLocation(const LinkedProgram& program, const std::string& name)
{
    for (std::size_t i = 0; i < program._uniforms.size(); ++i)
        if (program._uniforms[i]._sName == name)
            return static_cast<int>(i);
    return -1;
}

int FindName(const std::vector<std::string>& names, const std::string& name)
{
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i] == name)
            return static_cast<int>(i);
    return -1;
}

} // namespace Kestrel
