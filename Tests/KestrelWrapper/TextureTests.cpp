// 2D textures: the context's pair, the format tables and their assertion
// sites, client storage inside the texture pair, setters and mipmaps.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <climits>

using namespace WrapperTest;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::Describe;
using Kestrel::Testing::TextureRecord;
using Vireo::IKSTexImage;
using Vireo::IKSTexImage2D;
using Vireo::Testing::AssertCall;
using Vireo::Testing::AutoInstallAssertHandler;
using Vireo::Testing::RecordingAssertHandler;

namespace
{

class TextureTest : public WrapperFixture
{
protected:
    void SetUp() override
    {
        WrapperFixture::SetUp();
        ksGenTextures(1, &_pOther);
        ksBindTexture(KS_TEXTURE_2D, _pOther);
    }

    void TearDown() override
    {
        for (IKSTexImage2D* texture : _textures)
            _pContext->DestroyIKSTexImage2D(texture);
        WrapperFixture::TearDown();
    }

    IKSTexImage2D* Create()
    {
        _textures.push_back(_pContext->CreateIKSTexImage2D());
        EXPECT_NE(_textures.back(), nullptr);
        return _textures.back();
    }

    // The texture bound before each operation, to see it put back.
    _KStexture* _pOther = nullptr;
    std::vector<IKSTexImage2D*> _textures;
    unsigned char _pixels[64] = {};
};

} // namespace

// Every format, copied and in client storage: the texture pair holds the
// client storage setting to exactly the one image.
TEST_F(TextureTest, EachFormatReachesKestrelInsideThePairAsItsThreeValues)
{
    const struct
    {
        IKSTexImage::TextureFormat eFormat;
        const char* sFormat; // format and internal format, as logged
        const char* sType;
    } rows[] = {
        {IKSTexImage::kTF_None, "0", "0"},
        {IKSTexImage::kTF_Luminance8, "KS_LUMINANCE", "KS_UNSIGNED_BYTE"},
        {IKSTexImage::kTF_RGB8, "KS_RGB", "KS_UNSIGNED_BYTE"},
        {IKSTexImage::kTF_RGBA8, "KS_RGBA", "KS_UNSIGNED_BYTE"},
        {IKSTexImage::kTF_RGB32F, "KS_RGB", "KS_FLOAT"},
        {IKSTexImage::kTF_RGBA32F, "KS_RGBA", "KS_FLOAT"},
        {IKSTexImage::kTF_Luminance32F, "KS_LUMINANCE", "KS_FLOAT"},
    };
    for (const auto& row : rows)
    {
        for (bool bClientStorage : {false, true})
        {
            SCOPED_TRACE(::testing::Message() << row.eFormat << (bClientStorage ? " client" : ""));
            IKSTexImage2D* texture = Create();
            _pixels[0] = 1;
            CallLog log;
            EXPECT_TRUE(texture->SetImage(2, 1, row.eFormat, KS_CLAMP_TO_EDGE, KS_LINEAR,
                                          KS_NEAREST, _pixels, bClientStorage));
            Calls expected{"ksGetTexture(KS_TEXTURE_BINDING_2D, ptr)",
                           "ksBindTexture(KS_TEXTURE_2D, " + Describe(texture->GetKSTexture()) +
                               ")"};
            if (bClientStorage)
                expected.push_back("ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 1)");
            expected.push_back(std::string("ksTexImage2D(KS_TEXTURE_2D, 0, ") + row.sFormat +
                               ", 2, 1, 0, " + row.sFormat + ", " + row.sType + ", ptr)");
            if (bClientStorage)
                expected.push_back("ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 0)");
            for (const char* parameter :
                 {"KS_TEXTURE_MIN_FILTER, KS_LINEAR", "KS_TEXTURE_MAG_FILTER, KS_NEAREST",
                  "KS_TEXTURE_WRAP_S, KS_CLAMP_TO_EDGE", "KS_TEXTURE_WRAP_T, KS_CLAMP_TO_EDGE"})
                expected.push_back(std::string("ksTexParameteri(KS_TEXTURE_2D, ") + parameter +
                                   ")");
            expected.push_back("ksBindTexture(KS_TEXTURE_2D, " + Describe(_pOther) + ")");
            EXPECT_EQ(log.Calls(), expected);
            EXPECT_EQ(texture->GetTextureFormat(), row.eFormat);

            // Under client storage the host's memory is the texture.
            _pixels[0] = 2;
            const TextureRecord record = Image(texture->GetKSTexture());
            EXPECT_EQ(record.clientStorage, bClientStorage);
            if (row.eFormat != IKSTexImage::kTF_None)
            {
                EXPECT_EQ(record.bytes.at(0), bClientStorage ? 2 : 1);
            }
            EXPECT_NO_KS_ERROR();
        }
    }
}

TEST_F(TextureTest, SettersPutTheBindingBackAndMipmapsLeaveTheTextureBound)
{
    IKSTexImage2D* texture = Create();
    ASSERT_TRUE(texture->SetImage(4, 4, IKSTexImage::kTF_RGB8, KS_MIRRORED_REPEAT, KS_LINEAR,
                                  KS_LINEAR, _pixels, false));

    // Each value differs from what SetImage gave, and a setter that kept the
    // texture bound would leave it bound after the last one.
    texture->SetWrapMode(KS_REPEAT, KS_CLAMP_TO_EDGE);
    texture->SetMinFilter(KS_LINEAR_MIPMAP_LINEAR);
    texture->SetMagFilter(KS_NEAREST);
    EXPECT_EQ(BoundTexture(), _pOther);
    const TextureRecord record = Image(texture->GetKSTexture());
    EXPECT_EQ(record.wrapS, KS_REPEAT);
    EXPECT_EQ(record.wrapT, KS_CLAMP_TO_EDGE);
    EXPECT_EQ(record.minFilter, KS_LINEAR_MIPMAP_LINEAR);
    EXPECT_EQ(record.magFilter, KS_NEAREST);
    EXPECT_NO_KS_ERROR();

    EXPECT_TRUE(texture->GenerateMipMaps());
    EXPECT_EQ(BoundTexture(), texture->GetKSTexture());
    EXPECT_EQ(Image(texture->GetKSTexture()).levels, 3);

    // Kestrel cannot build mipmaps of client storage; the error is taken.
    IKSTexImage2D* client = Create();
    ASSERT_TRUE(client->SetImage(2, 2, IKSTexImage::kTF_RGBA8, KS_REPEAT, KS_LINEAR, KS_LINEAR,
                                 _pixels, true));
    EXPECT_FALSE(client->GenerateMipMaps());
    EXPECT_EQ(BoundTexture(), client->GetKSTexture());
    EXPECT_NO_KS_ERROR();
}

// Each lookup asks at a site of its own, which answering "go on" leaves
// unlatched; a negative value passes the sites. Nothing reaches Kestrel.
TEST_F(TextureTest, FormatOutsideTheTablesAsksEachSiteAndTouchesNoKestrel)
{
    RecordingAssertHandler handler;
    AutoInstallAssertHandler install(&handler);
    IKSTexImage2D* texture = Create();
    std::vector<AssertCall> expected;
    for (const int format : {int(IKSTexImage::kTF_Count), 9, -1, INT_MIN})
    {
        SCOPED_TRACE(format);
        if (format >= 0)
            for (int line : {51, 60, 69})
                expected.push_back({"eFormat < IKSTexImage::kTF_Count", line,
                                    "Source/KestrelWrapper/KSTexImage", 0});
        const auto eFormat = static_cast<IKSTexImage::TextureFormat>(format);
        CallLog log;
        EXPECT_FALSE(
            texture->SetImage(3, 5, eFormat, KS_REPEAT, KS_LINEAR, KS_LINEAR, _pixels, true));
        EXPECT_EQ(log.Calls(), Calls{});
        EXPECT_EQ(handler.Calls(), expected);
        EXPECT_EQ(texture->GetWidth(), 3);
        EXPECT_EQ(texture->GetHeight(), 5);
        EXPECT_EQ(texture->GetTextureFormat(), eFormat);
    }
}

// The size is passed on untested and Kestrel's refusal left pending for the
// host; the fields keep what was asked until Shutdown clears them.
TEST_F(TextureTest, RefusedSizeIsKeptAndShutdownClearsIt)
{
    IKSTexImage2D* texture = Create();
    EXPECT_TRUE(texture->SetImage(-4, 2, IKSTexImage::kTF_RGBA32F, KS_REPEAT, KS_LINEAR, KS_LINEAR,
                                  nullptr, true));
    EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
    EXPECT_EQ(texture->GetWidth(), -4);
    EXPECT_EQ(texture->GetHeight(), 2);
    EXPECT_EQ(texture->GetTextureFormat(), IKSTexImage::kTF_RGBA32F);

    _KStexture* handle = texture->GetKSTexture();
    texture->Shutdown();
    EXPECT_EQ(texture->GetKSTexture(), nullptr);
    EXPECT_EQ(texture->GetWidth(), 0);
    EXPECT_EQ(texture->GetHeight(), 0);
    EXPECT_EQ(texture->GetTextureFormat(), IKSTexImage::kTF_None);
    ksBindTexture(KS_TEXTURE_2D, handle);
    EXPECT_EQ(ksGetError(), KS_INVALID_VALUE) << "the Kestrel texture is gone";

    CallLog log;
    texture->Shutdown();
    EXPECT_FALSE(texture->SetImage(2, 2, IKSTexImage::kTF_RGB8, KS_REPEAT, KS_LINEAR, KS_LINEAR,
                                   _pixels, false));
    EXPECT_EQ(log.Calls(), Calls{});
    EXPECT_EQ(texture->GetWidth(), 0);
}
