// The shading language's compiler and linker, as the API calls see them.
//
// A compile turns one shader's source into a CompiledShader, kept on the
// shader so that a link never reparses, and so that a program still links a
// shader that was deleted after it was attached. A link merges the compiled
// shaders of a program into a LinkedProgram: locations, block indices,
// attribute locations and statements whose arguments are resolved.
#ifndef KESTREL_SHADING_LANGUAGE_H
#define KESTREL_SHADING_LANGUAGE_H

#include "Objects.h"

#include <memory>
#include <string>
#include <vector>

namespace Kestrel
{

// Where a problem or a declaration sits: 1-based line and byte column of
// the concatenated source.
struct SourcePosition
{
    int _nLine = 1;
    int _nColumn = 1;
};

enum DeclarationKind
{
    kDK_Uniform,
    kDK_Block,
    kDK_Attribute,
};

struct Declaration
{
    DeclarationKind _eKind = kDK_Uniform;
    std::string _sName;
    UniformType _eType = kUT_Float; // uniforms and attributes
    bool _bHasDefault = false;
    UniformValue _default; // count 1, of _eType
    SourcePosition _position;
};

// A statement's argument as the compile checked it. Names stay names until
// a link gives them locations.
struct CompiledArgument
{
    Argument::Kind _eKind = Argument::kAK_Literal;
    std::string _sName;    // kAK_Uniform, kAK_Block
    UniformValue _literal; // kAK_Literal: of the parameter's type, count 1
    Channel _eChannel = kCH_Radiance;
};

struct CompiledStatement
{
    BuiltIn _eBuiltIn = kBI_Count;
    std::vector<CompiledArgument> _arguments;
    SourcePosition _position;
};

// What a good compile leaves on its shader; never changed afterwards.
struct CompiledShader
{
    int _eKind = 0;
    std::vector<Declaration> _declarations;     // in source order
    std::vector<CompiledStatement> _statements; // in source order
};

struct CompileResult
{
    bool _bSuccess = false;
    std::string _sLog; // "line:column: error: text\n" per problem; empty on success
    std::shared_ptr<const CompiledShader> _pShader; // null unless _bSuccess
};

// `kind` is the number ksCreateShader took; `source` is null when none was
// ever set.
CompileResult CompileShaderSource(int kind, const std::string* source);

struct LinkResult
{
    bool _bSuccess = false;
    std::string _sLog;      // "error: text\n" per problem; empty on success
    LinkedProgram _program; // empty unless _bSuccess
};

// `shaders` in order of attachment; each one's _pCompiled is what it links.
LinkResult LinkShaders(const std::vector<const ShaderObject*>& shaders);

// Position of `name` in `names`, -1 when absent: locations, block indices
// and attribute locations are all positions in a LinkedProgram's lists.
int FindUniformLocation(const LinkedProgram& program, const std::string& name);
int FindName(const std::vector<std::string>& names, const std::string& name);

} // namespace Kestrel

#endif // KESTREL_SHADING_LANGUAGE_H
