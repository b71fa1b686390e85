// What the runtime stored, read back through the testing interface: uniform
// values, primitive state, texture images, parameters and mip levels.
#include "KestrelFixture.h"

#include <array>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace KestrelTest
{
namespace
{

using namespace Kestrel::Testing;

// ---------------------------------------------------------------------------
// Uniform values

class KestrelUniformValues : public KestrelFixture
{
protected:
    void SetUp() override
    {
        KestrelFixture::SetUp();
        _ePrimitive = NewPrimitive();
        ksBindPrimitive(KS_PRIMITIVE, _ePrimitive);
        ASSERT_NO_KS_ERROR();
    }

    // A record as "type count: f.. i.. h..", each value tagged by its kind.
    static std::string Stored(KSprimitive primitive, int location)
    {
        EXPECT_FALSE(ReadUniform(primitive, location, nullptr)) << "a null record is refused";
        UniformRecord value;
        if (!ReadUniform(primitive, location, &value))
            return "nothing";
        std::ostringstream out;
        out << value.type << " " << value.count << ":";
        for (float f : value.floats)
            out << " f" << f;
        for (int i : value.ints)
            out << " i" << i;
        for (unsigned long long h : value.handles)
            out << " h" << h;
        return out.str();
    }

    KSprimitive _ePrimitive = KSprimitive(0);
};

// Without a program in use every setter is taken and stores its type, count
// and values, and nothing of what another kind of setter left at the
// location.
TEST_F(KestrelUniformValues, EachSetterStoresItsValuesAndMustMatchTheDeclaredType)
{
    _KStexture* textures[2] = {NewTexture(), nullptr};
    const KSprimitive others[2] = {NewPrimitive(), KSprimitive(0)};
    const float f[8] = {1.5f, -2, 3, 4, 5, 6, 7, 8};
    const int i[6] = {-7, 2, 3, 4, 5, 6};
    // Row-major input, and what a transposed call must store column-major.
    const float rows3[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const float columns3[9] = {1, 4, 7, 2, 5, 8, 3, 6, 9};
    const std::string stored3 = "mat3 1: f1 f4 f7 f2 f5 f8 f3 f6 f9";
    float rows4[32];
    std::string stored4 = "mat4 2:";
    for (int m = 0; m < 2; ++m)
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
            {
                rows4[m * 16 + r * 4 + c] = static_cast<float>(m * 100 + r * 10 + c);
                stored4 += " f" + std::to_string(m * 100 + c * 10 + r);
            }
    const std::string texture =
        " h" + std::to_string(reinterpret_cast<std::uintptr_t>(textures[0]));
    const std::string primitive = " h" + std::to_string(static_cast<unsigned long long>(others[0]));

    const struct
    {
        std::function<void(int)> set;
        std::string stored;
    } cases[] = {
        {[&](int l) { ksUniform1f(l, 2.5f); }, "float 1: f2.5"},
        {[&](int l) { ksUniform1i(l, -7); }, "int 1: i-7"},
        {[&](int l) { ksUniform1fv(l, 3, f); }, "float 3: f1.5 f-2 f3"},
        {[&](int l) { ksUniform2fv(l, 2, f); }, "vec2 2: f1.5 f-2 f3 f4"},
        {[&](int l) { ksUniform3fv(l, 1, f); }, "vec3 1: f1.5 f-2 f3"},
        {[&](int l) { ksUniform4fv(l, 2, f); }, "vec4 2: f1.5 f-2 f3 f4 f5 f6 f7 f8"},
        {[&](int l) { ksUniform1iv(l, 2, i); }, "int 2: i-7 i2"},
        {[&](int l) { ksUniform2iv(l, 1, i); }, "ivec2 1: i-7 i2"},
        {[&](int l) { ksUniform3iv(l, 2, i); }, "ivec3 2: i-7 i2 i3 i4 i5 i6"},
        {[&](int l) { ksUniform4iv(l, 1, i); }, "ivec4 1: i-7 i2 i3 i4"},
        {[&](int l) { ksUniformMatrix3fv(l, 1, 0, columns3); }, stored3},
        {[&](int l) { ksUniformMatrix3fv(l, 1, 1, rows3); }, stored3},
        {[&](int l) { ksUniformMatrix4fv(l, 2, 1, rows4); }, stored4},
        {[&](int l) { ksUniformt(l, textures[0]); }, "texture 1:" + texture},
        {[&](int l) { ksUniformtv(l, 2, textures); }, "texture 2:" + texture + " h0"},
        {[&](int l) { ksUniformp(l, others[0]); }, "primitive 1:" + primitive},
        {[&](int l) { ksUniformpv(l, 2, others); }, "primitive 2:" + primitive + " h0"},
    };
    // What each setter replaces at location + 100: every change of storage
    // kind comes up once in the rotation.
    const std::function<void(int)> before[] = {[](int l) { ksUniform1f(l, 9.0f); },
                                               [](int l) { ksUniform1i(l, 9); },
                                               [&](int l) { ksUniformp(l, others[0]); }};
    int location = 0;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.stored);
        c.set(location);
        before[location % 3](location + 100);
        c.set(location + 100);
        ASSERT_NO_KS_ERROR();
        EXPECT_EQ(Stored(_ePrimitive, location), c.stored);
        EXPECT_EQ(Stored(_ePrimitive, location + 100), c.stored);
        ++location;
    }

    // Under a program only the setters of the declared type are taken, not
    // those of the same width or the same kind of storage.
    _KSshader* shader = ksCreateShader(KS_LINK_ONCE_SHADER);
    const char* source = "uniform vec3 a;\nuniform texture b;\n";
    ksShaderSource(shader, 1, &source, nullptr);
    ksCompileShader(shader);
    _KSprogram* program = ksCreateProgram();
    ksAttachShader(program, shader);
    ksLinkProgram(program);
    ksUseProgram(program);
    ASSERT_NO_KS_ERROR();
    for (const auto& [at, type] : {std::pair{0, "vec3 "}, std::pair{1, "texture "}})
        for (const auto& c : cases)
        {
            SCOPED_TRACE(type + c.stored);
            c.set(at);
            if (c.stored.rfind(type, 0) != 0)
            {
                EXPECT_KS_ERROR(KS_INVALID_OPERATION);
                continue;
            }
            EXPECT_NO_KS_ERROR();
            EXPECT_EQ(Stored(_ePrimitive, at), c.stored);
        }
}

// Nothing is stored at location -1, on another primitive than the bound one,
// or by a call that failed; an error after the work leaves the value stored.
TEST_F(KestrelUniformValues, ValuesGoOnlyWhereAndWhenTheyBelong)
{
    ksUniform1f(-1, 5.0f);
    ksUniform1f(0, 5.0f);
    ASSERT_NO_KS_ERROR();
    EXPECT_EQ(Stored(_ePrimitive, -1), "nothing");
    const KSprimitive other = NewPrimitive();
    ksBindPrimitive(KS_PRIMITIVE, other);
    EXPECT_EQ(Stored(other, 0), "nothing");
    ksBindPrimitive(KS_PRIMITIVE, KSprimitive(0));
    ksUniform1f(4, 9.0f);
    EXPECT_EQ(Stored(KSprimitive(0), 4), "float 1: f9");
    EXPECT_EQ(Stored(_ePrimitive, 4), "nothing");
    EXPECT_NO_KS_ERROR();

    AutoFaults faults;
    const float values[3] = {4, 5, 6};
    InjectFault("ksUniform3fv");
    ksUniform3fv(2, 1, values);
    EXPECT_KS_ERROR(KS_INVALID_OPERATION);
    EXPECT_EQ(Stored(KSprimitive(0), 2), "nothing") << "a failed call stored its value";
    InjectErrorAfter("ksUniform3fv", KS_INVALID_OPERATION);
    ksUniform3fv(2, 1, values);
    EXPECT_KS_ERROR(KS_INVALID_OPERATION);
    EXPECT_EQ(Stored(KSprimitive(0), 2), "vec3 1: f4 f5 f6") << "the work was not done";
}

// The primitive keeps its own copy of its name, and a refused name keeps it.
// (Its program and blocks are the call-stream replay's to follow.)
TEST_F(KestrelUniformValues, PrimitiveKeepsItsOwnCopyOfItsName)
{
    PrimitiveRecord record;
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.name, "");
    std::string name = "teapot";
    ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, name.c_str());
    name = "changed";
    ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, nullptr);
    EXPECT_KS_ERROR(KS_INVALID_VALUE);
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.name, "teapot");
}

// ---------------------------------------------------------------------------
// Texture contents

class KestrelTextureContents : public BoundTextureFixture
{
protected:
    TextureRecord Level(int level)
    {
        TextureRecord record;
        EXPECT_TRUE(ReadTexture(_pTexture, level, &record)) << "level " << level;
        return record;
    }
};

TEST_F(KestrelTextureContents, ImagesAreCopiedUnlessClientStorage)
{
    std::vector<unsigned char> source(3 * 2 * 4);
    for (size_t b = 0; b < source.size(); ++b)
        source[b] = static_cast<unsigned char>(b * 9);
    const std::vector<unsigned char> original = source;
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 3, 2, 0, KS_RGBA, KS_UNSIGNED_BYTE, source.data());
    std::fill(source.begin(), source.end(), 0xff);
    TextureRecord record = Level(0);
    EXPECT_EQ(std::vector<int>({record.width, record.height, record.format, record.type,
                                record.clientStorage, record.levels}),
              std::vector<int>({3, 2, KS_RGBA, KS_UNSIGNED_BYTE, 0, 1}));
    EXPECT_EQ(record.bytes, original) << "the texture follows memory it should have copied";
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_LUMINANCE, 2, 2, 0, KS_LUMINANCE, KS_SHORT, nullptr);
    EXPECT_EQ(Level(0).bytes, std::vector<unsigned char>(2 * 2 * 2, 0)) << "null gives zeroes";

    // Under client storage the image is the host's memory, live.
    ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 1);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 3, 2, 0, KS_RGBA, KS_UNSIGNED_BYTE, source.data());
    ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 0);
    ASSERT_NO_KS_ERROR();
    source[5] = 42;
    record = Level(0);
    EXPECT_TRUE(record.clientStorage);
    ASSERT_EQ(record.bytes.size(), source.size());
    EXPECT_EQ(record.bytes[5], 42);

    // A rejected image leaves the previous one in place. Formats and type
    // of 0 stand for no image only all together.
    for (const auto [internal, format, type] : {std::array<int, 3>{KS_RGBA, KS_RGBA, 0x1234},
                                                {0, KS_RGBA, KS_UNSIGNED_BYTE},
                                                {KS_RGBA, 0, 0}})
    {
        ksTexImage2D(KS_TEXTURE_2D, 0, internal, 1, 1, 0, format, type, nullptr);
        EXPECT_KS_ERROR(KS_INVALID_ENUM) << Hex(internal) << " " << Hex(format) << " " << Hex(type);
    }
    record = Level(0);
    EXPECT_EQ(record.width, 3);
    EXPECT_TRUE(record.clientStorage);

    // An image made without client storage lets the host's memory go: a
    // clear lands in the copy alone.
    const std::vector<unsigned char> kept = source;
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 3, 2, 0, KS_RGBA, KS_UNSIGNED_BYTE, original.data());
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    Attach(0, _pTexture);
    ksClearColor(0.0f, 0.2f, 0.4f, 1.0f);
    ksClear(KS_COLOR_BUFFER_BIT);
    std::vector<unsigned char> cleared;
    for (int p = 0; p < 3 * 2; ++p)
        cleared.insert(cleared.end(), {0, 51, 102, 255});
    EXPECT_FALSE(Level(0).clientStorage);
    EXPECT_EQ(Level(0).bytes, cleared);
    EXPECT_EQ(source, kept) << "cleared through a pointer the texture no longer owns";
    _KStexture* gone = NewTexture();
    ksDeleteTextures(1, &gone);
    EXPECT_FALSE(ReadTexture(gone, 0, &record));
    EXPECT_FALSE(ReadTexture(_pTexture, 1, &record)) << "no mip level was built";
}

// Every parameter takes each of the six filter and wrap values (one of the
// other kind acts as the parameter's default when rendering); anything else
// is refused and keeps the value.
TEST_F(KestrelTextureContents, ParametersTakeTheSixValuesAndKeepThemOnRefusal)
{
    const std::pair<int, int TextureRecord::*> parameters[] = {
        {KS_TEXTURE_MIN_FILTER, &TextureRecord::minFilter},
        {KS_TEXTURE_MAG_FILTER, &TextureRecord::magFilter},
        {KS_TEXTURE_WRAP_S, &TextureRecord::wrapS},
        {KS_TEXTURE_WRAP_T, &TextureRecord::wrapT},
    };
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 1, 1, 0, KS_RGB, KS_FLOAT, nullptr);
    for (const auto& [name, field] : parameters)
    {
        for (int value : {KS_NEAREST, KS_LINEAR, KS_LINEAR_MIPMAP_LINEAR, KS_REPEAT,
                          KS_CLAMP_TO_EDGE, KS_MIRRORED_REPEAT})
        {
            ksTexParameteri(KS_TEXTURE_2D, name, value);
            EXPECT_NO_KS_ERROR() << Hex(name) << " " << Hex(value);
            EXPECT_EQ(Level(0).*field, value) << Hex(name);
        }
        for (int value : {0, 1, -1, KS_TEXTURE_2D})
        {
            ksTexParameteri(KS_TEXTURE_2D, name, value);
            EXPECT_KS_ERROR_IN(KS_INVALID_ENUM, "ksTexParameteri") << Hex(name) << " " << value;
        }
        EXPECT_EQ(Level(0).*field, KS_MIRRORED_REPEAT) << Hex(name);
    }
}

// Mipmaps need a copied image of the bound texture.
TEST_F(KestrelTextureContents, MipmapsAreBoxFilteredDownToOnePixel)
{
    ksGenerateMipmap(KS_TEXTURE_2D);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksGenerateMipmap"); // no image yet
    // 8x4 RGBA, constant in each 2x2 block, chosen so that every average is exact.
    const int blocks[2][4] = {{0, 8, 16, 24}, {40, 48, 56, 64}};
    std::vector<unsigned char> pixels(8 * 4 * 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 4; ++c)
                pixels[(y * 8 + x) * 4 + c] = static_cast<unsigned char>(blocks[y / 2][x / 2] + c);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 8, 4, 0, KS_RGBA, KS_UNSIGNED_BYTE, pixels.data());
    ksGenerateMipmap(KS_TEXTURE_2D);
    ASSERT_NO_KS_ERROR();

    const struct
    {
        int width, height;
        std::vector<int> values; // per pixel, before the channel offset
    } levels[] = {
        {4, 2, {0, 8, 16, 24, 40, 48, 56, 64}},
        {2, 1, {24, 40}},
        {1, 1, {32}},
    };
    EXPECT_EQ(Level(0).levels, 4);
    for (int l = 1; l <= 3; ++l)
    {
        SCOPED_TRACE("level " + std::to_string(l));
        const TextureRecord record = Level(l);
        const auto& want = levels[l - 1];
        EXPECT_EQ(std::vector<int>({record.width, record.height, record.format, record.type}),
                  std::vector<int>({want.width, want.height, KS_RGBA, KS_UNSIGNED_BYTE}));
        std::vector<unsigned char> bytes;
        for (int value : want.values)
            for (int c = 0; c < 4; ++c)
                bytes.push_back(static_cast<unsigned char>(value + c));
        EXPECT_EQ(record.bytes, bytes);
    }
    TextureRecord beyond;
    EXPECT_FALSE(ReadTexture(_pTexture, 4, &beyond));
    EXPECT_EQ(Level(0).bytes, pixels) << "mipmapping changed the base level";

    std::vector<unsigned char> client = pixels;
    NewClientTexture(8, 4, KS_RGBA, KS_UNSIGNED_BYTE, client.data()); // bound now
    ksGenerateMipmap(KS_TEXTURE_2D);
    EXPECT_KS_ERROR_IN(KS_INVALID_OPERATION, "ksGenerateMipmap");
    EXPECT_EQ(client, pixels) << "the rejected call touched client memory";
}

} // namespace
} // namespace KestrelTest
