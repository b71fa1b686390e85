// What the runtime stored, read back through the testing interface: uniform
// values, primitive state, texture images, parameters and mip levels.
#include "KestrelFixture.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

namespace KestrelTest
{
namespace
{

using namespace Kestrel::Testing;

std::uintptr_t Id(const void* handle)
{
    return reinterpret_cast<std::uintptr_t>(handle);
}

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

    KSprimitive _ePrimitive = KSprimitive(0);
};

TEST_F(KestrelUniformValues, EachSetterStoresItsTypeCountAndValues)
{
    _KStexture* textures[2] = {NewTexture(), nullptr};
    const KSprimitive others[2] = {NewPrimitive(), KSprimitive(0)};
    const float f[8] = {1.5f, -2, 3, 4, 5, 6, 7, 8};
    const int i[6] = {-7, 2, 3, 4, 5, 6};
    // Row-major 3x3 input, and what a transposed call must store column-major.
    const float rows3[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const std::vector<float> columns3 = {1, 4, 7, 2, 5, 8, 3, 6, 9};
    float rows4[32];
    std::vector<float> columns4(32);
    for (int m = 0; m < 2; ++m)
    {
        for (int r = 0; r < 4; ++r)
        {
            for (int c = 0; c < 4; ++c)
            {
                rows4[m * 16 + r * 4 + c] = static_cast<float>(m * 100 + r * 10 + c);
                columns4[m * 16 + c * 4 + r] = static_cast<float>(m * 100 + r * 10 + c);
            }
        }
    }

    struct Case
    {
        const char* function;
        std::function<void(int)> set;
        const char* type;
        long long count;
        std::vector<float> floats;
        std::vector<int> ints;
        std::vector<unsigned long long> handles;
    };
    const Case cases[] = {
        {"ksUniform1f", [&](int l) { ksUniform1f(l, 2.5f); }, "float", 1, {2.5f}, {}, {}},
        {"ksUniform1i", [&](int l) { ksUniform1i(l, -7); }, "int", 1, {}, {-7}, {}},
        {"ksUniform1fv", [&](int l) { ksUniform1fv(l, 3, f); }, "float", 3, {1.5f, -2, 3}, {}, {}},
        {"ksUniform2fv",
         [&](int l) { ksUniform2fv(l, 2, f); },
         "vec2",
         2,
         {1.5f, -2, 3, 4},
         {},
         {}},
        {"ksUniform3fv", [&](int l) { ksUniform3fv(l, 1, f); }, "vec3", 1, {1.5f, -2, 3}, {}, {}},
        {"ksUniform4fv",
         [&](int l) { ksUniform4fv(l, 2, f); },
         "vec4",
         2,
         {1.5f, -2, 3, 4, 5, 6, 7, 8},
         {},
         {}},
        {"ksUniform1iv", [&](int l) { ksUniform1iv(l, 2, i); }, "int", 2, {}, {-7, 2}, {}},
        {"ksUniform2iv", [&](int l) { ksUniform2iv(l, 1, i); }, "ivec2", 1, {}, {-7, 2}, {}},
        {"ksUniform3iv",
         [&](int l) { ksUniform3iv(l, 2, i); },
         "ivec3",
         2,
         {},
         {-7, 2, 3, 4, 5, 6},
         {}},
        {"ksUniform4iv", [&](int l) { ksUniform4iv(l, 1, i); }, "ivec4", 1, {}, {-7, 2, 3, 4}, {}},
        {"ksUniformMatrix3fv",
         [&](int l) { ksUniformMatrix3fv(l, 1, 0, columns3.data()); },
         "mat3",
         1,
         columns3,
         {},
         {}},
        {"ksUniformMatrix3fv transposed",
         [&](int l) { ksUniformMatrix3fv(l, 1, 1, rows3); },
         "mat3",
         1,
         columns3,
         {},
         {}},
        {"ksUniformMatrix4fv transposed",
         [&](int l) { ksUniformMatrix4fv(l, 2, 1, rows4); },
         "mat4",
         2,
         columns4,
         {},
         {}},
        {"ksUniformt",
         [&](int l) { ksUniformt(l, textures[0]); },
         "texture",
         1,
         {},
         {},
         {Id(textures[0])}},
        {"ksUniformtv",
         [&](int l) { ksUniformtv(l, 2, textures); },
         "texture",
         2,
         {},
         {},
         {Id(textures[0]), 0}},
        {"ksUniformp",
         [&](int l) { ksUniformp(l, others[0]); },
         "primitive",
         1,
         {},
         {},
         {others[0]}},
        {"ksUniformpv",
         [&](int l) { ksUniformpv(l, 2, others); },
         "primitive",
         2,
         {},
         {},
         {others[0], 0}},
    };
    int location = 0;
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.function);
        c.set(location);
        // The same location again, after another type: the last call wins.
        ksUniform1i(location + 100, 1);
        c.set(location + 100);
        ASSERT_NO_KS_ERROR();
        for (int l : {location, location + 100})
        {
            UniformRecord value;
            ASSERT_TRUE(ReadUniform(_ePrimitive, l, &value)) << "location " << l;
            EXPECT_EQ(value.type, c.type);
            EXPECT_EQ(value.count, c.count);
            EXPECT_EQ(value.floats, c.floats);
            EXPECT_EQ(value.ints, c.ints);
            EXPECT_EQ(value.handles, c.handles);
        }
        ++location;
    }
}

TEST_F(KestrelUniformValues, RejectedAndIgnoredCallsStoreNothing)
{
    const float values[3] = {1, 2, 3};
    ksUniform3fv(0, 1, values);
    ksUniform1f(-1, 5.0f);
    ASSERT_NO_KS_ERROR();

    ksUniform3fv(0, -1, values);
    ksUniform3fv(0, 1, nullptr);
    ksUniformMatrix3fv(0, 1, 2, values);
    ksUniform1f(-2, 5.0f);
    ksGetError();
    _recorder.Take();

    UniformRecord value;
    ASSERT_TRUE(ReadUniform(_ePrimitive, 0, &value));
    EXPECT_EQ(value.type, "vec3");
    EXPECT_EQ(value.floats, (std::vector<float>{1, 2, 3}));
    EXPECT_FALSE(ReadUniform(_ePrimitive, -1, &value));
    EXPECT_FALSE(ReadUniform(_ePrimitive, 1, &value)) << "nothing was ever set there";

    // Values belong to the primitive they were set on.
    const KSprimitive other = NewPrimitive();
    ksBindPrimitive(KS_PRIMITIVE, other);
    EXPECT_FALSE(ReadUniform(other, 0, &value));
    ksBindPrimitive(KS_PRIMITIVE, KSprimitive(0));
    ksUniform1f(4, 9.0f);
    ASSERT_TRUE(ReadUniform(KSprimitive(0), 4, &value));
    EXPECT_EQ(value.floats, (std::vector<float>{9.0f}));
    EXPECT_FALSE(ReadUniform(_ePrimitive, 4, &value));
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelUniformValues, InjectedFaultsAndLateErrors)
{
    AutoFaults faults;
    const float values[3] = {4, 5, 6};
    InjectFault("ksUniform3fv");
    ksUniform3fv(2, 1, values);
    EXPECT_KS_ERROR(KS_INVALID_OPERATION);
    UniformRecord value;
    EXPECT_FALSE(ReadUniform(_ePrimitive, 2, &value)) << "a failed call stored its value";

    InjectErrorAfter("ksUniform3fv", KS_INVALID_OPERATION);
    ksUniform3fv(2, 1, values);
    EXPECT_KS_ERROR(KS_INVALID_OPERATION);
    ASSERT_TRUE(ReadUniform(_ePrimitive, 2, &value)) << "the work was not done";
    EXPECT_EQ(value.floats, (std::vector<float>{4, 5, 6}));
}

TEST_F(KestrelUniformValues, PrimitiveRecordsNameProgramAndBlocks)
{
    PrimitiveRecord record;
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.name, "");
    EXPECT_EQ(record.program, nullptr);
    EXPECT_TRUE(record.blocks.empty());

    _KSprogram* program = ksCreateProgram();
    _KSbuffer* buffers[2] = {NewBuffer(), NewBuffer()};
    std::string name = "teapot";
    ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, name.c_str());
    name = "changed";
    ksUseProgram(program);
    ksUniformBlockBuffer(3, buffers[0]);
    ksUniformBlockBuffer(1, buffers[1]);
    ksUniformBlockBuffer(3, buffers[1]);
    ASSERT_NO_KS_ERROR();
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.name, "teapot");
    EXPECT_EQ(record.program, program);
    const auto blockAt = [&](int index)
    {
        _KSbuffer* found = nullptr;
        int seen = 0;
        for (const auto& block : record.blocks)
        {
            if (block.first == index)
            {
                found = block.second;
                ++seen;
            }
        }
        EXPECT_LE(seen, 1) << "block " << index << " listed twice";
        return found;
    };
    EXPECT_EQ(blockAt(3), buffers[1]);
    EXPECT_EQ(blockAt(1), buffers[1]);

    // Rejected calls change nothing; null takes the program away.
    ksUseProgram(ForgedHandle<_KSprogram>());
    ksUniformBlockBuffer(-1, buffers[0]);
    ksPrimitiveParameterString(KS_PRIMITIVE, KS_PRIMITIVE_NAME, nullptr);
    ksGetError();
    _recorder.Take();
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.program, program);
    EXPECT_EQ(record.name, "teapot");
    ksUseProgram(nullptr);
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.program, nullptr);

    // Deleting what a primitive refers to takes it off the primitive.
    ksUseProgram(program);
    ksDeleteProgram(program);
    ksDeleteBuffers(1, &buffers[1]);
    ASSERT_NO_KS_ERROR();
    ASSERT_TRUE(ReadPrimitive(_ePrimitive, &record));
    EXPECT_EQ(record.program, nullptr);
    EXPECT_EQ(blockAt(1), nullptr);
    EXPECT_EQ(blockAt(3), nullptr);

    KSprimitive gone = NewPrimitive();
    ksDeletePrimitives(1, &gone);
    EXPECT_FALSE(ReadPrimitive(gone, &record));
    EXPECT_NO_KS_ERROR();
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
    ASSERT_NO_KS_ERROR();
    std::fill(source.begin(), source.end(), 0xff);
    TextureRecord record = Level(0);
    EXPECT_EQ(record.width, 3);
    EXPECT_EQ(record.height, 2);
    EXPECT_EQ(record.format, KS_RGBA);
    EXPECT_EQ(record.type, KS_UNSIGNED_BYTE);
    EXPECT_FALSE(record.clientStorage);
    EXPECT_EQ(record.levels, 1);
    EXPECT_EQ(record.bytes, original) << "the texture follows memory it should have copied";

    ksTexImage2D(KS_TEXTURE_2D, 0, KS_LUMINANCE, 2, 2, 0, KS_LUMINANCE, KS_SHORT, nullptr);
    record = Level(0);
    EXPECT_EQ(record.bytes, std::vector<unsigned char>(2 * 2 * 2, 0)) << "null gives zeroes";

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

    // A rejected image leaves the previous one in place.
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 1, 1, 0, KS_RGBA, 0x1234, nullptr);
    EXPECT_KS_ERROR(KS_INVALID_ENUM);
    record = Level(0);
    EXPECT_EQ(record.width, 3);
    EXPECT_TRUE(record.clientStorage);

    _KStexture* gone = NewTexture();
    ksDeleteTextures(1, &gone);
    EXPECT_FALSE(ReadTexture(gone, 0, &record));
    EXPECT_FALSE(ReadTexture(_pTexture, 1, &record)) << "no mip level was built";
}

TEST_F(KestrelTextureContents, ClearLandsInCopiedStorageNotInTheSource)
{
    std::vector<float> source(2 * 2 * 4, 0.5f);
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGBA, 2, 2, 0, KS_RGBA, KS_FLOAT, source.data());
    ksBindFramebuffer(KS_FRAMEBUFFER, NewFramebuffer());
    Attach(0, _pTexture);
    ksClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    ksClear(KS_COLOR_BUFFER_BIT);
    ASSERT_NO_KS_ERROR();
    const TextureRecord record = Level(0);
    ASSERT_EQ(record.bytes.size(), source.size() * sizeof(float));
    std::vector<float> stored(source.size());
    std::memcpy(stored.data(), record.bytes.data(), record.bytes.size());
    for (size_t p = 0; p < stored.size(); p += 4)
    {
        EXPECT_EQ(stored[p + 0], 0.25f);
        EXPECT_EQ(stored[p + 1], 0.5f);
        EXPECT_EQ(stored[p + 2], 0.75f);
        EXPECT_EQ(stored[p + 3], 1.0f);
    }
    EXPECT_EQ(source, std::vector<float>(2 * 2 * 4, 0.5f));
}

TEST_F(KestrelTextureContents, ParametersAreStored)
{
    const struct
    {
        int name;
        int value;
        int TextureRecord::*field;
    } cases[] = {
        {KS_TEXTURE_MIN_FILTER, KS_LINEAR_MIPMAP_LINEAR, &TextureRecord::minFilter},
        {KS_TEXTURE_MAG_FILTER, KS_NEAREST, &TextureRecord::magFilter},
        {KS_TEXTURE_WRAP_S, KS_CLAMP_TO_EDGE, &TextureRecord::wrapS},
        {KS_TEXTURE_WRAP_T, KS_MIRRORED_REPEAT, &TextureRecord::wrapT},
    };
    ksTexImage2D(KS_TEXTURE_2D, 0, KS_RGB, 1, 1, 0, KS_RGB, KS_FLOAT, nullptr);
    for (const auto& c : cases)
    {
        ksTexParameteri(KS_TEXTURE_2D, c.name, c.value);
        ksTexParameteri(KS_TEXTURE_2D, c.name, 0x7777); // rejected: keeps the value
        EXPECT_KS_ERROR(KS_INVALID_ENUM);
        EXPECT_EQ(Level(0).*(c.field), c.value) << Hex(c.name);
    }
}

TEST_F(KestrelTextureContents, MipmapsAreBoxFilteredDownToOnePixel)
{
    // 8x4 RGBA, constant in each 2x2 block, chosen so that every average is exact.
    const int blocks[2][4] = {{0, 8, 16, 24}, {40, 48, 56, 64}};
    std::vector<unsigned char> pixels(8 * 4 * 4);
    for (int y = 0; y < 4; ++y)
    {
        for (int x = 0; x < 8; ++x)
        {
            for (int c = 0; c < 4; ++c)
                pixels[(y * 8 + x) * 4 + c] = static_cast<unsigned char>(blocks[y / 2][x / 2] + c);
        }
    }
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
        EXPECT_EQ(record.width, want.width);
        EXPECT_EQ(record.height, want.height);
        EXPECT_EQ(record.format, KS_RGBA);
        EXPECT_EQ(record.type, KS_UNSIGNED_BYTE);
        ASSERT_EQ(record.bytes.size(), want.values.size() * 4);
        for (size_t p = 0; p < want.values.size(); ++p)
        {
            for (int c = 0; c < 4; ++c)
                EXPECT_EQ(record.bytes[p * 4 + c], want.values[p] + c) << "pixel " << p;
        }
    }
    TextureRecord beyond;
    EXPECT_FALSE(ReadTexture(_pTexture, 4, &beyond));
    EXPECT_EQ(Level(0).bytes, pixels) << "mipmapping changed the base level";
}

} // namespace
} // namespace KestrelTest
