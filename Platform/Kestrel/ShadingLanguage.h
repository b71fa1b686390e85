// The shading language's compiler and linker, as the API calls see them.
//
// For now a compile checks only that there is source, and a link only that
// there is a shader; nothing is declared, so every location query gives -1.
// The real parser and linker replace the bodies of these functions and fill
// LinkedProgram; the API side already reads it for locations and for the
// type checks of ksUniform calls.
#ifndef KESTREL_SHADING_LANGUAGE_H
#define KESTREL_SHADING_LANGUAGE_H

#include "Objects.h"

#include <string>
#include <vector>

namespace Kestrel
{

struct CompileResult
{
    bool _bSuccess = false;
    std::string _sLog; // "line:column: error: text" per problem; empty on success
};

CompileResult CompileShaderSource(int kind, const std::string& source);

struct LinkResult
{
    bool _bSuccess = false;
    std::string _sLog;
    LinkedProgram _program;
};

LinkResult LinkShaders(const std::vector<const ShaderObject*>& shaders);

// Position of `name` in `names`, -1 when absent: locations, block indices
// and attribute locations are all positions in a LinkedProgram's lists.
int FindUniformLocation(const LinkedProgram& program, const std::string& name);
int FindName(const std::vector<std::string>& names, const std::string& name);

} // namespace Kestrel

#endif // KESTREL_SHADING_LANGUAGE_H
