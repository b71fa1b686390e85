#include "ShadingLanguage.h"

#include "KestrelApi/Kestrel.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <system_error>

namespace Kestrel
{
namespace
{

// ---------------------------------------------------------------------------
// Text

std::string Format(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

std::string Format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char buffer[512];
    const int length = std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    if (length < 0)
        return std::string();
    return std::string(buffer,
                       std::min<std::size_t>(static_cast<std::size_t>(length), sizeof(buffer) - 1));
}

// Source text quoted for a log line; long runs are cut, so that one huge
// identifier cannot make a huge log.
std::string Quote(const std::string& text)
{
    constexpr std::size_t kLongest = 40;
    if (text.size() <= kLongest)
        return "'" + text + "'";
    return "'" + text.substr(0, kLongest) + "...'";
}

const char* ShaderKindName(int kind)
{
    switch (kind)
    {
    case KS_VERTEX_SHADER:
        return "vertex";
    case KS_SHADER_KIND_2:
        return "ray";
    case KS_SHADER_KIND_3:
        return "frame";
    case KS_LINK_ONCE_SHADER:
        return "link-once";
    default:
        return "unknown";
    }
}

// ---------------------------------------------------------------------------
// Types and built-ins

int Components(UniformType type)
{
    static constexpr int kComponents[kUT_Count] = {1, 2, 3, 4, 1, 2, 3, 4, 9, 16, 1, 1};
    return kComponents[type];
}

bool IsIntegral(UniformType type)
{
    return type == kUT_Int || type == kUT_IVec2 || type == kUT_IVec3 || type == kUT_IVec4;
}

// Textures and primitives are handles: the host sets them, source cannot.
bool HasLiterals(UniformType type)
{
    return type != kUT_Texture && type != kUT_Primitive;
}

bool TypeOfName(const std::string& name, UniformType* type)
{
    for (int t = 0; t < kUT_Count; ++t)
    {
        if (name == UniformTypeName(static_cast<UniformType>(t)))
        {
            *type = static_cast<UniformType>(t);
            return true;
        }
    }
    return false;
}

bool IsDeclarationKeyword(const std::string& word)
{
    return word == "uniform" || word == "uniformblock" || word == "attribute";
}

// Words that cannot name anything: a type name as a name would make
// "vec3(" mean two things.
bool IsReserved(const std::string& word)
{
    UniformType type;
    return IsDeclarationKeyword(word) || TypeOfName(word, &type);
}

enum ParameterKind
{
    kPK_Value,
    kPK_Block,
    kPK_Channel,
};

struct Parameter
{
    ParameterKind _eKind = kPK_Value;
    UniformType _eType = kUT_Float;
};

constexpr Parameter Value(UniformType type)
{
    return Parameter{kPK_Value, type};
}
constexpr Parameter kBlockParameter{kPK_Block, kUT_Float};
constexpr Parameter kChannelParameter{kPK_Channel, kUT_Float};

// What a statement is to its program: a program has one of each role but
// kRO_None.
enum Role
{
    kRO_None,
    kRO_Shape,
    kRO_Transform,
    kRO_Material,
    kRO_Camera,
    kRO_Background,
    kRO_Count
};

const char* const kRoleNames[kRO_Count] = {"",         "shape",  "transform",
                                           "material", "camera", "background"};

constexpr int kMaxParameters = 7;

struct BuiltInInfo
{
    BuiltIn _eBuiltIn;
    const char* _pName;
    int _eShaderKind;
    Role _eRole;
    int _nParameters;
    std::array<Parameter, kMaxParameters> _parameters;
};

// In the order of BuiltIn, so that an enumerator indexes its entry.
constexpr BuiltInInfo kBuiltIns[kBI_Count] = {
    {kBI_Sphere, "sphere", KS_VERTEX_SHADER, kRO_Shape, 2, {Value(kUT_Vec3), Value(kUT_Float)}},
    {kBI_Box, "box", KS_VERTEX_SHADER, kRO_Shape, 2, {Value(kUT_Vec3), Value(kUT_Vec3)}},
    {kBI_Plane, "plane", KS_VERTEX_SHADER, kRO_Shape, 2, {Value(kUT_Vec3), Value(kUT_Vec3)}},
    {kBI_Triangles, "triangles", KS_VERTEX_SHADER, kRO_Shape, 1, {kBlockParameter}},
    {kBI_Mesh,
     "mesh",
     KS_VERTEX_SHADER,
     kRO_Shape,
     3,
     {kBlockParameter, Value(kUT_Int), Value(kUT_Int)}},
    {kBI_Transform, "transform", KS_VERTEX_SHADER, kRO_Transform, 1, {Value(kUT_Mat4)}},
    {kBI_Diffuse, "diffuse", KS_SHADER_KIND_2, kRO_Material, 1, {Value(kUT_Vec3)}},
    {kBI_DiffuseTexture,
     "diffuse_texture",
     KS_SHADER_KIND_2,
     kRO_Material,
     1,
     {Value(kUT_Texture)}},
    {kBI_Emissive, "emissive", KS_SHADER_KIND_2, kRO_Material, 1, {Value(kUT_Vec3)}},
    {kBI_Mirror, "mirror", KS_SHADER_KIND_2, kRO_Material, 1, {Value(kUT_Vec3)}},
    {kBI_Glass, "glass", KS_SHADER_KIND_2, kRO_Material, 1, {Value(kUT_Float)}},
    {kBI_MetallicRoughness,
     "metallic_roughness",
     KS_SHADER_KIND_2,
     kRO_Material,
     7,
     {Value(kUT_Vec3), Value(kUT_Float), Value(kUT_Float), Value(kUT_Vec3), Value(kUT_Texture),
      Value(kUT_Texture), Value(kUT_Texture)}},
    {kBI_Camera,
     "camera",
     KS_SHADER_KIND_3,
     kRO_Camera,
     4,
     {Value(kUT_Vec3), Value(kUT_Vec3), Value(kUT_Vec3), Value(kUT_Float)}},
    {kBI_Background, "background", KS_SHADER_KIND_3, kRO_Background, 1, {Value(kUT_Vec3)}},
    {kBI_Output, "output", KS_SHADER_KIND_3, kRO_None, 2, {Value(kUT_Int), kChannelParameter}},
};

constexpr bool BuiltInsInOrder()
{
    for (int i = 0; i < kBI_Count; ++i)
    {
        if (kBuiltIns[i]._eBuiltIn != i)
            return false;
    }
    return true;
}
static_assert(BuiltInsInOrder(), "kBuiltIns must follow the order of BuiltIn");

// -1 when `name` is no built-in.
int FindBuiltIn(const std::string& name)
{
    for (int i = 0; i < kBI_Count; ++i)
    {
        if (name == kBuiltIns[i]._pName)
            return i;
    }
    return -1;
}

const char* const kChannelNames[kCH_Count] = {"radiance", "albedo", "normal", "depth",
                                              "visibility"};

bool ChannelOfName(const std::string& name, Channel* channel)
{
    for (int c = 0; c < kCH_Count; ++c)
    {
        if (name == kChannelNames[c])
        {
            *channel = static_cast<Channel>(c);
            return true;
        }
    }
    return false;
}

std::string ParameterText(const Parameter& parameter)
{
    switch (parameter._eKind)
    {
    case kPK_Block:
        return "a uniform block";
    case kPK_Channel:
        return "a channel";
    case kPK_Value:
        break;
    }
    return UniformTypeName(parameter._eType);
}

// What a declared name is, as an argument error says it.
std::string DeclarationText(const Declaration& declaration)
{
    switch (declaration._eKind)
    {
    case kDK_Block:
        return "a uniform block";
    case kDK_Attribute:
        return "an attribute";
    case kDK_Uniform:
        break;
    }
    return UniformTypeName(declaration._eType);
}

// A declaration as source would write it, without its name.
std::string DeclarationWords(const Declaration& declaration)
{
    switch (declaration._eKind)
    {
    case kDK_Block:
        return "uniformblock";
    case kDK_Attribute:
        return std::string("attribute ") + UniformTypeName(declaration._eType);
    case kDK_Uniform:
        break;
    }
    return std::string("uniform ") + UniformTypeName(declaration._eType);
}

// A literal value as source would write it: 1, 0.5, vec3(1, 0, 0.5).
std::string ValueText(const UniformValue& value)
{
    std::string items;
    const int components = Components(value._eType);
    for (int i = 0; i < components; ++i)
    {
        if (i > 0)
            items += ", ";
        const std::size_t at = static_cast<std::size_t>(i);
        if (at < value._ints.size())
            items += Format("%d", value._ints[at]);
        else if (at < value._floats.size())
            items += Format("%g", static_cast<double>(value._floats[at]));
    }
    if (components == 1)
        return items;
    return std::string(UniformTypeName(value._eType)) + "(" + items + ")";
}

bool SameValue(const UniformValue& a, const UniformValue& b)
{
    return a._eType == b._eType && a._floats == b._floats && a._ints == b._ints;
}

// ---------------------------------------------------------------------------
// Diagnostics

// Beyond this a log only grows; the rest is counted in one last line.
constexpr std::size_t kMaxLoggedErrors = 50;

class Diagnostics
{
public:
    void Error(SourcePosition at, std::string text)
    {
        _errors.push_back(Entry{at, std::move(text)});
    }
    bool Empty() const { return _errors.empty(); }

    // One line per problem, in source order.
    std::string Log()
    {
        std::stable_sort(_errors.begin(), _errors.end(),
                         [](const Entry& a, const Entry& b)
                         {
                             return a._position._nLine != b._position._nLine
                                        ? a._position._nLine < b._position._nLine
                                        : a._position._nColumn < b._position._nColumn;
                         });
        std::string log;
        for (std::size_t i = 0; i < _errors.size(); ++i)
        {
            const Entry& entry = _errors[i];
            std::string text = entry._sText;
            if (i == kMaxLoggedErrors)
                text = Format("%zu more errors not shown", _errors.size() - i);
            log += Format("%d:%d: error: ", entry._position._nLine, entry._position._nColumn);
            log += text;
            log += '\n';
            if (i == kMaxLoggedErrors)
                break;
        }
        return log;
    }

private:
    struct Entry
    {
        SourcePosition _position;
        std::string _sText;
    };
    std::vector<Entry> _errors;
};

// ---------------------------------------------------------------------------
// Lexer

enum TokenType
{
    kTK_Identifier,
    kTK_Int,
    kTK_Float,
    kTK_Symbol, // one of ( ) , ; = -
    kTK_Bad,    // a malformed number, already reported
    kTK_End,
};

struct Token
{
    TokenType _eType = kTK_End;
    std::string _sText;
    SourcePosition _position;
};

std::string TokenText(const Token& token)
{
    return token._eType == kTK_End ? "end of source" : Quote(token._sText);
}

bool IsLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string CharText(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f)
        return Format("'%c'", c);
    return Format("byte 0x%02x", byte);
}

std::vector<Token> Tokenize(const std::string& source, Diagnostics& diagnostics)
{
    std::vector<Token> tokens;
    const std::size_t size = source.size();
    std::size_t i = 0;
    int line = 1;
    std::size_t lineStart = 0;
    const auto at = [&](std::size_t offset)
    {
        const std::size_t column = offset - lineStart + 1;
        return SourcePosition{line, static_cast<int>(std::min<std::size_t>(column, INT32_MAX))};
    };
    const auto push = [&](TokenType type, std::size_t start, std::size_t end) {
        tokens.push_back(Token{type, source.substr(start, end - start), at(start)});
    };
    const auto isWordChar = [&](std::size_t offset)
    { return offset < size && (IsLetter(source[offset]) || IsDigit(source[offset])); };

    while (i < size)
    {
        const char c = source[i];
        const char next = i + 1 < size ? source[i + 1] : '\0';
        if (c == '\n')
        {
            ++i;
            ++line;
            lineStart = i;
        }
        else if (c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v')
        {
            ++i;
        }
        else if (c == '/' && next == '/')
        {
            while (i < size && source[i] != '\n')
                ++i;
        }
        else if (c == '/' && next == '*')
        {
            const SourcePosition start = at(i);
            i += 2;
            bool closed = false;
            while (i < size && !closed)
            {
                if (source[i] == '*' && i + 1 < size && source[i + 1] == '/')
                {
                    i += 2;
                    closed = true;
                }
                else if (source[i] == '\n')
                {
                    ++i;
                    ++line;
                    lineStart = i;
                }
                else
                {
                    ++i;
                }
            }
            if (!closed)
                diagnostics.Error(start, "unterminated comment");
        }
        else if (IsLetter(c))
        {
            std::size_t end = i;
            while (isWordChar(end))
                ++end;
            push(kTK_Identifier, i, end);
            i = end;
        }
        else if (IsDigit(c) || (c == '.' && IsDigit(next)))
        {
            std::size_t end = i;
            bool isFloat = false;
            while (end < size && IsDigit(source[end]))
                ++end;
            if (end < size && source[end] == '.')
            {
                isFloat = true;
                ++end;
                while (end < size && IsDigit(source[end]))
                    ++end;
            }
            if (end < size && (source[end] == 'e' || source[end] == 'E'))
            {
                std::size_t exponent = end + 1;
                if (exponent < size && (source[exponent] == '+' || source[exponent] == '-'))
                    ++exponent;
                if (exponent < size && IsDigit(source[exponent]))
                {
                    isFloat = true;
                    end = exponent;
                    while (end < size && IsDigit(source[end]))
                        ++end;
                }
            }
            // A number that runs on into letters or dots ("2x", "1.2.3", "1e")
            // is one malformed word, not two tokens.
            if (isWordChar(end) || (end < size && source[end] == '.'))
            {
                while (isWordChar(end) || (end < size && source[end] == '.'))
                    ++end;
                push(kTK_Bad, i, end);
                diagnostics.Error(tokens.back()._position,
                                  "malformed number " + Quote(tokens.back()._sText));
            }
            else
            {
                push(isFloat ? kTK_Float : kTK_Int, i, end);
            }
            i = end;
        }
        else if (c == '(' || c == ')' || c == ',' || c == ';' || c == '=' || c == '-')
        {
            push(kTK_Symbol, i, i + 1);
            ++i;
        }
        else
        {
            diagnostics.Error(at(i), "unexpected character " + CharText(c));
            ++i;
        }
    }
    tokens.push_back(Token{kTK_End, std::string(), at(i)});
    return tokens;
}

// ---------------------------------------------------------------------------
// Parser and checker

struct Literal
{
    UniformType _eType = kUT_Int; // a bare number is int or float
    bool _bBare = true;           // no constructor: an int promotes to float
    bool _bValid = true;          // false: its problem is already reported
    std::vector<double> _values;
    SourcePosition _position;
    std::string _sText; // a bare number as written
};

// The literal as a value of `type`, count 1; false when it cannot be one.
bool ConvertLiteral(const Literal& literal, UniformType type, UniformValue* value)
{
    const bool promotes = literal._bBare && literal._eType == kUT_Int && type == kUT_Float;
    if (literal._eType != type && !promotes)
        return false;
    *value = UniformValue();
    value->_eType = type;
    value->_nCount = 1;
    for (double v : literal._values)
    {
        if (IsIntegral(type))
            value->_ints.push_back(static_cast<int>(v));
        else
            value->_floats.push_back(static_cast<float>(v));
    }
    return true;
}

struct ParsedArgument
{
    bool _bName = false;
    std::string _sName;
    Literal _literal;
    SourcePosition _position;
};

struct ParsedStatement
{
    int _nBuiltIn = 0;
    SourcePosition _position;
    std::vector<ParsedArgument> _arguments;
};

class Parser
{
public:
    Parser(int kind, const std::vector<Token>& tokens, Diagnostics& diagnostics)
        : _eKind(kind), _tokens(tokens), _diagnostics(diagnostics),
          _pShader(std::make_shared<CompiledShader>())
    {
        _pShader->_eKind = kind;
    }

    // Syntax and declarations; statements wait for Check, since a statement
    // may use a name declared after it.
    void Parse()
    {
        while (_Peek()._eType != kTK_End)
        {
            if (!_ParseItem())
                _Resync();
        }
    }

    std::shared_ptr<const CompiledShader> Check()
    {
        _CheckStatements();
        return _pShader;
    }

private:
    struct Name
    {
        std::size_t _nIndex = 0; // in _pShader->_declarations
        bool _bPoisoned = false; // declared with an error: uses say nothing more
        SourcePosition _position;
    };

    const Token& _Peek(std::size_t ahead = 0) const
    {
        return _tokens[std::min(_nNext + ahead, _tokens.size() - 1)];
    }
    const Token& _Next()
    {
        const Token& token = _Peek();
        if (_nNext < _tokens.size() - 1)
            ++_nNext;
        _nLastLine = token._position._nLine;
        return token;
    }
    bool _IsSymbol(const Token& token, char symbol) const
    {
        return token._eType == kTK_Symbol && token._sText[0] == symbol;
    }
    bool _Accept(char symbol)
    {
        if (!_IsSymbol(_Peek(), symbol))
            return false;
        _Next();
        return true;
    }
    void _Error(SourcePosition at, std::string text) { _diagnostics.Error(at, std::move(text)); }

    // Reports what was expected, unless the token in the way is a malformed
    // number that has been reported already. Always false.
    bool _Fail(const char* expected)
    {
        const Token& token = _Peek();
        if (token._eType != kTK_Bad)
            _Error(token._position,
                   Format("expected %s, found %s", expected, TokenText(token).c_str()));
        return false;
    }
    bool _Expect(char symbol)
    {
        if (_Accept(symbol))
            return true;
        const char expected[] = {'\'', symbol, '\'', '\0'};
        return _Fail(expected);
    }

    // After a syntax error: skip past the next ';'.
    void _Resync()
    {
        while (_Peek()._eType != kTK_End)
        {
            if (_IsSymbol(_Next(), ';'))
                return;
        }
    }

    // The ';' that ends an item. When it is missing at the end of a line,
    // what follows is most likely the next item: report and parse it.
    bool _ExpectEnd()
    {
        if (_Accept(';'))
            return true;
        const Token& token = _Peek();
        if (token._eType != kTK_End && token._eType != kTK_Bad &&
            token._position._nLine > _nLastLine)
        {
            _Error(token._position, "expected ';', found " + TokenText(token));
            return true;
        }
        return _Fail("';'");
    }

    bool _ParseItem()
    {
        const Token& token = _Peek();
        if (token._eType == kTK_Identifier)
        {
            if (token._sText == "uniform")
                return _ParseVariable(kDK_Uniform);
            if (token._sText == "attribute")
                return _ParseVariable(kDK_Attribute);
            if (token._sText == "uniformblock")
                return _ParseBlock();
            if (_IsSymbol(_Peek(1), '('))
                return _ParseStatement();
        }
        return _Fail("a declaration or a statement");
    }

    // A type name. An unknown word counts as a type when a name that could
    // be declared follows it, so that the declaration still declares it.
    bool _ParseType(UniformType* type, bool* known)
    {
        const Token& token = _Peek();
        if (token._eType != kTK_Identifier || IsDeclarationKeyword(token._sText))
            return _Fail("a type");
        *known = TypeOfName(token._sText, type);
        if (!*known)
        {
            if (_Peek(1)._eType != kTK_Identifier || IsReserved(_Peek(1)._sText))
                return _Fail("a type");
            _Error(token._position, Quote(token._sText) + " is not a type");
        }
        _Next();
        return true;
    }

    bool _ParseName(std::string* name, SourcePosition* position)
    {
        const Token& token = _Peek();
        if (token._eType != kTK_Identifier)
            return _Fail("a name");
        if (IsReserved(token._sText))
        {
            _Error(token._position, Quote(token._sText) + " is a reserved word");
            _Next();
            return false;
        }
        *name = token._sText;
        *position = token._position;
        _Next();
        return true;
    }

    void _Declare(Declaration declaration, bool poisoned)
    {
        auto found = _names.find(declaration._sName);
        if (found != _names.end())
        {
            const SourcePosition& first = found->second._position;
            _Error(declaration._position,
                   Format("%s is already declared at %d:%d", Quote(declaration._sName).c_str(),
                          first._nLine, first._nColumn));
            return;
        }
        Name name;
        name._bPoisoned = poisoned;
        name._position = declaration._position;
        name._nIndex = _pShader->_declarations.size();
        _names.emplace(declaration._sName, name);
        _pShader->_declarations.push_back(std::move(declaration));
    }

    // uniform <type> <name> [= <literal>] ;   attribute <type> <name> ;
    bool _ParseVariable(DeclarationKind kind)
    {
        _Next();
        const SourcePosition typePosition = _Peek()._position;
        Declaration declaration;
        declaration._eKind = kind;
        bool known = false;
        if (!_ParseType(&declaration._eType, &known) ||
            !_ParseName(&declaration._sName, &declaration._position))
            return false;
        bool poisoned = !known;
        if (kind == kDK_Attribute && known && !HasLiterals(declaration._eType))
        {
            _Error(typePosition,
                   Format("an attribute cannot be a %s", UniformTypeName(declaration._eType)));
            poisoned = true;
        }
        bool parsed = true;
        if (kind == kDK_Uniform && _Accept('='))
        {
            Literal literal;
            parsed = _ParseLiteral(&literal);
            if (parsed && literal._bValid && known)
            {
                if (!HasLiterals(declaration._eType))
                    _Error(literal._position, Format("%s is a %s and takes no default",
                                                     Quote(declaration._sName).c_str(),
                                                     UniformTypeName(declaration._eType)));
                else if (ConvertLiteral(literal, declaration._eType, &declaration._default))
                    declaration._bHasDefault = true;
                else
                    _Error(literal._position, Format("default of %s must be %s, not %s",
                                                     Quote(declaration._sName).c_str(),
                                                     UniformTypeName(declaration._eType),
                                                     UniformTypeName(literal._eType)));
            }
        }
        _Declare(std::move(declaration), poisoned);
        return parsed && _ExpectEnd();
    }

    // uniformblock <name> ;
    bool _ParseBlock()
    {
        _Next();
        Declaration declaration;
        declaration._eKind = kDK_Block;
        if (!_ParseName(&declaration._sName, &declaration._position))
            return false;
        _Declare(std::move(declaration), false);
        return _ExpectEnd();
    }

    // [-] <int or float>
    bool _ParseNumber(Literal* literal)
    {
        const SourcePosition start = _Peek()._position;
        literal->_position = start;
        const bool negative = _Accept('-');
        const Token& token = _Peek();
        if (token._eType != kTK_Int && token._eType != kTK_Float)
            return _Fail("a number");
        _Next();
        const std::string text = (negative ? "-" : "") + token._sText;
        literal->_sText = text;
        const char* first = text.data();
        const char* last = text.data() + text.size();
        if (token._eType == kTK_Int)
        {
            long long value = 0;
            const std::from_chars_result read = std::from_chars(first, last, value);
            if (read.ec != std::errc() || value < INT32_MIN || value > INT32_MAX)
            {
                _Error(start, "integer " + Quote(text) + " is out of range");
                literal->_bValid = false;
            }
            literal->_values.push_back(static_cast<double>(value));
            literal->_eType = kUT_Int;
        }
        else
        {
            double value = 0.0;
            const std::from_chars_result read = std::from_chars(first, last, value);
            if (read.ec != std::errc() || !std::isfinite(value) || std::fabs(value) > FLT_MAX)
            {
                _Error(start, "number " + Quote(text) + " is out of range");
                literal->_bValid = false;
            }
            literal->_values.push_back(value);
            literal->_eType = kUT_Float;
        }
        return true;
    }

    // A number, or a constructor: <type> ( <number> {, <number>} )
    bool _ParseLiteral(Literal* literal)
    {
        const Token& token = _Peek();
        literal->_position = token._position;
        UniformType type;
        if (token._eType != kTK_Identifier || !TypeOfName(token._sText, &type))
            return _ParseNumber(literal);
        _Next();
        if (!_Expect('('))
            return false;
        Literal component;
        do
        {
            component = Literal();
            if (!_ParseNumber(&component))
                return false;
            literal->_bValid = literal->_bValid && component._bValid;
            if (component._bValid && IsIntegral(type) && component._eType == kUT_Float)
            {
                _Error(component._position,
                       Format("%s takes integers, not %s", UniformTypeName(type),
                              Quote(component._sText).c_str()));
                literal->_bValid = false;
            }
            literal->_values.push_back(component._values.front());
        } while (_Accept(','));
        if (!_Expect(')'))
            return false;
        literal->_eType = type;
        literal->_bBare = false;
        if (!HasLiterals(type))
        {
            _Error(literal->_position, Format("there are no %s literals", UniformTypeName(type)));
            literal->_bValid = false;
        }
        else if (static_cast<int>(literal->_values.size()) != Components(type))
        {
            _Error(literal->_position, Format("%s takes %d numbers, not %zu", UniformTypeName(type),
                                              Components(type), literal->_values.size()));
            literal->_bValid = false;
        }
        return true;
    }

    // A declared name or a literal.
    bool _ParseArgument(ParsedArgument* argument)
    {
        const Token& token = _Peek();
        argument->_position = token._position;
        UniformType type;
        if (token._eType == kTK_Identifier && !TypeOfName(token._sText, &type))
        {
            if (IsDeclarationKeyword(token._sText))
                return _Fail("an argument");
            argument->_bName = true;
            argument->_sName = token._sText;
            _Next();
            return true;
        }
        if (token._eType == kTK_Identifier || token._eType == kTK_Int ||
            token._eType == kTK_Float || _IsSymbol(token, '-'))
            return _ParseLiteral(&argument->_literal);
        return _Fail("an argument");
    }

    // <built-in> ( [<argument> {, <argument>}] ) ;
    bool _ParseStatement()
    {
        const Token& name = _Next();
        ParsedStatement statement;
        statement._nBuiltIn = FindBuiltIn(name._sText);
        statement._position = name._position;
        bool usable = true;
        if (statement._nBuiltIn < 0)
        {
            _Error(name._position, "unknown built-in " + Quote(name._sText));
            usable = false;
        }
        else if (kBuiltIns[statement._nBuiltIn]._eShaderKind != _eKind)
        {
            _Error(name._position, Format("%s is not a built-in of %s shaders",
                                          Quote(name._sText).c_str(), ShaderKindName(_eKind)));
            usable = false;
        }
        _Next(); // the '(' that made this a statement
        if (!_Accept(')'))
        {
            for (;;)
            {
                ParsedArgument argument;
                if (!_ParseArgument(&argument))
                    return false;
                statement._arguments.push_back(std::move(argument));
                if (_Accept(','))
                    continue;
                if (_Accept(')'))
                    break;
                return _Fail("',' or ')'");
            }
        }
        if (usable)
            _statements.push_back(std::move(statement));
        return _ExpectEnd();
    }

    bool _CheckArgument(const BuiltInInfo& info, std::size_t index, const ParsedArgument& parsed,
                        CompiledArgument* argument)
    {
        const Parameter& parameter = info._parameters[index];
        const int number = static_cast<int>(index) + 1;
        if (!parsed._bName)
        {
            if (!parsed._literal._bValid)
                return false;
            if (parameter._eKind == kPK_Value &&
                ConvertLiteral(parsed._literal, parameter._eType, &argument->_literal))
            {
                argument->_eKind = Argument::kAK_Literal;
                return true;
            }
            _Error(parsed._position,
                   Format("argument %d of %s must be %s, not %s", number,
                          Quote(info._pName).c_str(), ParameterText(parameter).c_str(),
                          UniformTypeName(parsed._literal._eType)));
            return false;
        }
        if (parameter._eKind == kPK_Channel)
        {
            if (ChannelOfName(parsed._sName, &argument->_eChannel))
            {
                argument->_eKind = Argument::kAK_Channel;
                return true;
            }
            _Error(parsed._position, Quote(parsed._sName) +
                                         " is not a channel; channels are radiance, albedo, "
                                         "normal, depth and visibility");
            return false;
        }
        auto found = _names.find(parsed._sName);
        if (found == _names.end())
        {
            _Error(parsed._position, Quote(parsed._sName) + " is not declared");
            return false;
        }
        if (found->second._bPoisoned)
            return false;
        const Declaration& declaration = _pShader->_declarations[found->second._nIndex];
        const bool fits =
            parameter._eKind == kPK_Block
                ? declaration._eKind == kDK_Block
                : declaration._eKind == kDK_Uniform && declaration._eType == parameter._eType;
        if (!fits)
        {
            _Error(parsed._position,
                   Format("argument %d of %s must be %s, but %s is %s", number,
                          Quote(info._pName).c_str(), ParameterText(parameter).c_str(),
                          Quote(parsed._sName).c_str(), DeclarationText(declaration).c_str()));
            return false;
        }
        argument->_eKind =
            parameter._eKind == kPK_Block ? Argument::kAK_Block : Argument::kAK_Uniform;
        argument->_sName = parsed._sName;
        return true;
    }

    void _CheckStatements()
    {
        std::array<const ParsedStatement*, kRO_Count> first{};
        std::map<int, SourcePosition> outputs; // attachment -> its output
        for (const ParsedStatement& parsed : _statements)
        {
            const BuiltInInfo& info = kBuiltIns[parsed._nBuiltIn];
            bool good = true;
            if (info._eRole != kRO_None)
            {
                if (const ParsedStatement* earlier = first[info._eRole])
                {
                    _Error(parsed._position,
                           Format("second %s %s; the first is %s at %d:%d", kRoleNames[info._eRole],
                                  Quote(info._pName).c_str(),
                                  Quote(kBuiltIns[earlier->_nBuiltIn]._pName).c_str(),
                                  earlier->_position._nLine, earlier->_position._nColumn));
                    good = false;
                }
                else
                {
                    first[info._eRole] = &parsed;
                }
            }
            if (static_cast<int>(parsed._arguments.size()) != info._nParameters)
            {
                _Error(parsed._position,
                       Format("%s takes %d argument%s, not %zu", Quote(info._pName).c_str(),
                              info._nParameters, info._nParameters == 1 ? "" : "s",
                              parsed._arguments.size()));
                continue;
            }
            CompiledStatement statement;
            statement._eBuiltIn = info._eBuiltIn;
            statement._position = parsed._position;
            statement._arguments.resize(parsed._arguments.size());
            for (std::size_t i = 0; i < parsed._arguments.size(); ++i)
                good =
                    _CheckArgument(info, i, parsed._arguments[i], &statement._arguments[i]) && good;
            if (good && info._eBuiltIn == kBI_Output &&
                statement._arguments[0]._eKind == Argument::kAK_Literal)
                good = _CheckAttachment(statement._arguments[0]._literal._ints[0],
                                        parsed._arguments[0]._position, parsed._position, &outputs);
            if (good)
                _pShader->_statements.push_back(std::move(statement));
        }
    }

    bool _CheckAttachment(int attachment, SourcePosition argument, SourcePosition statement,
                          std::map<int, SourcePosition>* outputs)
    {
        if (attachment < 0 || attachment >= kMaxAttachments)
        {
            _Error(argument,
                   Format("attachment %d is outside 0..%d", attachment, kMaxAttachments - 1));
            return false;
        }
        auto inserted = outputs->emplace(attachment, statement);
        if (!inserted.second)
        {
            const SourcePosition& first = inserted.first->second;
            _Error(statement, Format("attachment %d already has an output at %d:%d", attachment,
                                     first._nLine, first._nColumn));
            return false;
        }
        return true;
    }

    const int _eKind;
    const std::vector<Token>& _tokens;
    Diagnostics& _diagnostics;
    std::size_t _nNext = 0;
    int _nLastLine = 1;
    std::shared_ptr<CompiledShader> _pShader;
    std::map<std::string, Name> _names;
    std::vector<ParsedStatement> _statements;
};

// ---------------------------------------------------------------------------
// Linker

std::string ShaderText(std::size_t index, const ShaderObject& shader)
{
    return Format("shader %zu (%s)", index + 1, ShaderKindName(shader._eKind));
}

std::string PlaceText(const CompiledStatement& statement, std::size_t index,
                      const ShaderObject& shader)
{
    return Format("at %d:%d in %s", statement._position._nLine, statement._position._nColumn,
                  ShaderText(index, shader).c_str());
}

// A name as the program knows it after merging.
struct LinkedName
{
    const Declaration* _pDeclaration = nullptr; // the first one
    std::size_t _nShader = 0;                   // where the first one is
    int _nIndex = -1;                           // location or block index
    const Declaration* _pDefault = nullptr;     // the first one with a default
    std::size_t _nDefaultShader = 0;
};

class Linker
{
public:
    explicit Linker(const std::vector<const ShaderObject*>& shaders) : _shaders(shaders) {}

    LinkResult Link()
    {
        LinkResult result;
        if (_shaders.empty())
            _errors.push_back("no shaders attached");
        for (std::size_t i = 0; i < _shaders.size(); ++i)
        {
            const ShaderObject& shader = *_shaders[i];
            if (!shader._bCompiled || !shader._pCompiled)
            {
                _errors.push_back(ShaderText(i, shader) + " is not compiled");
                continue;
            }
            for (const Declaration& declaration : shader._pCompiled->_declarations)
                _Merge(declaration, i);
            for (const CompiledStatement& statement : shader._pCompiled->_statements)
                _CheckUnique(statement, i);
        }
        if (_errors.empty())
        {
            for (const ShaderObject* shader : _shaders)
                for (const CompiledStatement& statement : shader->_pCompiled->_statements)
                    _program._statements.push_back(_Resolve(statement));
            result._bSuccess = true;
            result._program = std::move(_program);
            return result;
        }
        for (const std::string& error : _errors)
            result._sLog += "error: " + error + "\n";
        return result;
    }

private:
    void _Merge(const Declaration& declaration, std::size_t shader)
    {
        auto found = _names.find(declaration._sName);
        if (found == _names.end())
        {
            LinkedName name;
            name._pDeclaration = &declaration;
            name._nShader = shader;
            switch (declaration._eKind)
            {
            case kDK_Uniform:
                name._nIndex = static_cast<int>(_program._uniforms.size());
                _program._uniforms.push_back(LinkedProgram::Uniform{
                    declaration._sName, declaration._eType, false, UniformValue()});
                break;
            case kDK_Block:
                name._nIndex = static_cast<int>(_program._blocks.size());
                _program._blocks.push_back(declaration._sName);
                break;
            case kDK_Attribute:
                name._nIndex = static_cast<int>(_program._attributes.size());
                _program._attributes.push_back(declaration._sName);
                break;
            }
            found = _names.emplace(declaration._sName, name).first;
        }
        else
        {
            const Declaration& first = *found->second._pDeclaration;
            if (first._eKind != declaration._eKind ||
                (first._eKind != kDK_Block && first._eType != declaration._eType))
            {
                _errors.push_back(Format(
                    "%s is %s in %s and %s in %s", Quote(declaration._sName).c_str(),
                    DeclarationWords(first).c_str(),
                    ShaderText(found->second._nShader, *_shaders[found->second._nShader]).c_str(),
                    DeclarationWords(declaration).c_str(),
                    ShaderText(shader, *_shaders[shader]).c_str()));
                return;
            }
        }
        if (!declaration._bHasDefault)
            return;
        LinkedName& name = found->second;
        if (!name._pDefault)
        {
            name._pDefault = &declaration;
            name._nDefaultShader = shader;
            LinkedProgram::Uniform& uniform =
                _program._uniforms[static_cast<std::size_t>(name._nIndex)];
            uniform._bHasDefault = true;
            uniform._default = declaration._default;
        }
        else if (!SameValue(name._pDefault->_default, declaration._default))
        {
            _errors.push_back(
                Format("%s defaults to %s in %s and to %s in %s", Quote(declaration._sName).c_str(),
                       ValueText(name._pDefault->_default).c_str(),
                       ShaderText(name._nDefaultShader, *_shaders[name._nDefaultShader]).c_str(),
                       ValueText(declaration._default).c_str(),
                       ShaderText(shader, *_shaders[shader]).c_str()));
        }
    }

    // One statement of each role, and one output per literal attachment,
    // in the whole program.
    void _CheckUnique(const CompiledStatement& statement, std::size_t shader)
    {
        const BuiltInInfo& info = kBuiltIns[statement._eBuiltIn];
        const ShaderObject& object = *_shaders[shader];
        if (info._eRole != kRO_None)
        {
            Holder& first = _roles[info._eRole];
            if (!first._pStatement)
            {
                first = Holder{&statement, shader};
                return;
            }
            _errors.push_back(Format(
                "two %ss: %s %s and %s %s", kRoleNames[info._eRole],
                Quote(kBuiltIns[first._pStatement->_eBuiltIn]._pName).c_str(),
                PlaceText(*first._pStatement, first._nShader, *_shaders[first._nShader]).c_str(),
                Quote(info._pName).c_str(), PlaceText(statement, shader, object).c_str()));
            return;
        }
        if (statement._eBuiltIn != kBI_Output ||
            statement._arguments[0]._eKind != Argument::kAK_Literal)
            return;
        const int attachment = statement._arguments[0]._literal._ints[0];
        auto inserted = _outputs.emplace(attachment, Holder{&statement, shader});
        if (inserted.second)
            return;
        const Holder& first = inserted.first->second;
        _errors.push_back(
            Format("two outputs to attachment %d: %s and %s", attachment,
                   PlaceText(*first._pStatement, first._nShader, *_shaders[first._nShader]).c_str(),
                   PlaceText(statement, shader, object).c_str()));
    }

    Statement _Resolve(const CompiledStatement& compiled) const
    {
        Statement statement;
        statement._eBuiltIn = compiled._eBuiltIn;
        for (const CompiledArgument& source : compiled._arguments)
        {
            Argument argument;
            argument._eKind = source._eKind;
            switch (source._eKind)
            {
            case Argument::kAK_Uniform:
            case Argument::kAK_Block:
                argument._nIndex = _names.at(source._sName)._nIndex;
                break;
            case Argument::kAK_Literal:
                argument._literal = source._literal;
                break;
            case Argument::kAK_Channel:
                argument._nIndex = source._eChannel;
                break;
            }
            statement._arguments.push_back(std::move(argument));
        }
        return statement;
    }

    struct Holder
    {
        const CompiledStatement* _pStatement = nullptr;
        std::size_t _nShader = 0;
    };

    const std::vector<const ShaderObject*>& _shaders;
    LinkedProgram _program;
    std::map<std::string, LinkedName> _names;
    std::array<Holder, kRO_Count> _roles{};
    std::map<int, Holder> _outputs;
    std::vector<std::string> _errors;
};

} // namespace

CompileResult CompileShaderSource(int kind, const std::string* source)
{
    CompileResult result;
    if (!source)
    {
        result._sLog = "1:1: error: no source\n";
        return result;
    }
    Diagnostics diagnostics;
    const std::vector<Token> tokens = Tokenize(*source, diagnostics);
    Parser parser(kind, tokens, diagnostics);
    parser.Parse();
    std::shared_ptr<const CompiledShader> shader = parser.Check();
    if (!diagnostics.Empty())
    {
        result._sLog = diagnostics.Log();
        return result;
    }
    result._bSuccess = true;
    result._pShader = std::move(shader);
    return result;
}

LinkResult LinkShaders(const std::vector<const ShaderObject*>& shaders)
{
    return Linker(shaders).Link();
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
