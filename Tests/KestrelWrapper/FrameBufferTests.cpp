// Frame buffers: the binding put back after each operation, attachments and
// their parameters in Kestrel, the host's filter sampled into a table, and
// the lock each Bind gives back.
#include "WrapperFixture.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace WrapperTest;
using namespace Vireo;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::Describe;
using Att = IKSFrameBufferAttachment;

namespace
{

// Records where it was sampled and answers with the number of the call, so
// that a table entry tells which call filled it.
struct RecordingFilter : IKSFrameBufferFilter
{
    explicit RecordingFilter(float size) : fSize(size) {}
    float GetFilterSize() override { return fSize; }
    float Sample(float x, float y) override
    {
        samples.emplace_back(x, y);
        return static_cast<float>(samples.size() - 1);
    }

    float fSize;
    std::vector<std::pair<float, float>> samples;
};

_KSframebuffer* BoundFrameBuffer()
{
    _KSframebuffer* bound = nullptr;
    ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, &bound);
    return bound;
}

std::string Point(int index)
{
    return index == 0 ? "KS_COLOR_ATTACHMENT0" : std::to_string(KS_COLOR_ATTACHMENT0 + index);
}

// Pixel `i` of an attachment in client memory, which is 16-byte aligned.
Color4f PixelOf(IKSFrameBufferAttachment* attachment, int i)
{
    const unsigned char* buffer = attachment->GetClientBuffer();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer) % 16, 0u);
    Color4f pixel;
    std::memcpy(&pixel, buffer + sizeof(pixel) * static_cast<std::size_t>(i), sizeof(pixel));
    return pixel;
}

IKSFrameBufferAttachment* Create(IKSFrameBuffer& frameBuffer, int index,
                                 Att::eBlendMode mode = Att::kBM_Mode0, bool filtered = false,
                                 const Color4f& clearColor = Color4f{})
{
    return frameBuffer.CreateAttachment(index, Att::kF_RGBA, Att::kDT_Float, filtered, mode,
                                        clearColor);
}

bool LockFromOtherThread(IKSFrameBufferAttachment* attachment)
{
    return std::async(std::launch::async,
                      [attachment]
                      {
                          const bool locked = attachment->Lock(0);
                          if (locked)
                              attachment->UnLock();
                          return locked;
                      })
        .get();
}

} // namespace

// One ksClear per attachment, each with its colour and its own bit; two at one
// index are both cleared, but the point holds only the newer texture.
TEST_F(WrapperFixture, EachAttachmentClearsInItsColourAndOneIndexSharesItsPoint)
{
    KSFrameBuffer frameBuffer(_pContext);
    ASSERT_TRUE(frameBuffer.Init(2, 2));
    IKSFrameBufferAttachment* first = Create(frameBuffer, 0, Att::kBM_Mode0, false, {1, 0, 0, 1});
    IKSFrameBufferAttachment* older =
        Create(frameBuffer, 2, Att::kBM_Mode2, false, {0, 0, 1, 0.5f});
    IKSFrameBufferAttachment* newer = Create(frameBuffer, 2, Att::kBM_Mode0, false, {2, 2, 2, 2});
    const std::string handle = Describe(frameBuffer.GetKSFrameBuffer());
    EXPECT_FALSE(frameBuffer.Init(3, 3)) << "a new handle would orphan the attachments";
    CallLog log;
    frameBuffer.Clear();
    EXPECT_EQ(log.Calls(),
              (Calls{"ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, ptr)",
                     "ksBindFramebuffer(KS_FRAMEBUFFER, " + handle + ")",
                     "ksClearColor(1, 0, 0, 1)", "ksClear(KS_COLOR_ATTACHMENT0_BIT)",
                     "ksClearColor(0, 0, 1, 0.5)", "ksClear(131072)", "ksClearColor(2, 2, 2, 2)",
                     "ksClear(131072)", "ksBindFramebuffer(KS_FRAMEBUFFER, null)"}));
    EXPECT_EQ(PixelOf(first, 0), (Color4f{1, 0, 0, 1}));
    EXPECT_EQ(PixelOf(first, 3), (Color4f{1, 0, 0, 1}));
    EXPECT_EQ(PixelOf(newer, 3), (Color4f{2, 2, 2, 2}));
    log.Clear();
    frameBuffer.ClearAttachment(2);
    EXPECT_EQ(log.CallsOf("ksClearColor"),
              (Calls{"ksClearColor(0, 0, 1, 0.5)", "ksClearColor(2, 2, 2, 2)"}));

    // Outside accumulation a completed pass leaves the target as it is.
    log.Clear();
    EXPECT_TRUE(first->NotifyPassCompleted());
    EXPECT_EQ(log.Calls(), Calls{});
    EXPECT_EQ(PixelOf(first, 3), (Color4f{1, 0, 0, 1}));

    log.Clear();
    EXPECT_TRUE(frameBuffer.DestroyAttachment(older));
    EXPECT_EQ(log.CallsOf("ksFramebufferTexture2D"),
              Calls{"ksFramebufferTexture2D(KS_FRAMEBUFFER, 36066, KS_TEXTURE_2D, null, 0)"});
    log.Clear();
    EXPECT_TRUE(frameBuffer.Bind());
    EXPECT_EQ(BoundFrameBuffer(), frameBuffer.GetKSFrameBuffer()) << "Bind alone keeps it";
    EXPECT_EQ(log.CallsOf("ksFramebufferTexture2D").back(),
              "ksFramebufferTexture2D(KS_FRAMEBUFFER, 36066, KS_TEXTURE_2D, " +
                  Describe(newer->GetKSTexture()) + ", 0)")
        << "Bind sets the survivor again";
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, AttachmentParametersFollowBlendModeAndFilter)
{
    KSFrameBuffer frameBuffer(_pContext);
    ASSERT_TRUE(frameBuffer.Init(2, 2));
    struct Case
    {
        Att::eBlendMode mode;
        bool filtered;
        const char* blendName;
    };
    // The last one is made after the filter.
    const Case cases[] = {
        {Att::kBM_Mode0, true, "KS_BLEND_MODE_0"}, {Att::kBM_Accumulated, false, "KS_BLEND_MODE_1"},
        {Att::kBM_Mode2, true, "KS_BLEND_MODE_2"}, {Att::kBM_Mode3, false, "KS_BLEND_MODE_3"},
        {Att::kBM_Mode0, true, "KS_BLEND_MODE_0"},
    };
    // Kestrel's parameter calls for attachments `first` to `last`, in order.
    auto expected = [&](int first, int last, bool tableExists)
    {
        Calls calls;
        for (int i = first; i <= last; ++i)
        {
            const std::string head = "ksFramebufferAttachmentParameter1i(KS_FRAMEBUFFER, " +
                                     Point(i) + ", KS_ATTACHMENT_";
            calls.push_back(head + "FILTER, " + (cases[i].filtered && tableExists ? "1)" : "0)"));
            calls.push_back(head + "BLEND_MODE, " + cases[i].blendName + ")");
        }
        return calls;
    };
    CallLog log;
    for (int i = 0; i < 4; ++i)
        ASSERT_NE(Create(frameBuffer, i, cases[i].mode, cases[i].filtered), nullptr);
    EXPECT_EQ(log.CallsOf("ksFramebufferAttachmentParameter1i"), expected(0, 3, false));

    RecordingFilter filter(0.5f);
    log.Clear();
    ASSERT_TRUE(frameBuffer.SetFilter(&filter));
    EXPECT_EQ(log.CallsOf("ksFramebufferAttachmentParameter1i"), expected(0, 3, true));

    log.Clear();
    ASSERT_NE(Create(frameBuffer, 4, cases[4].mode, cases[4].filtered), nullptr);
    EXPECT_EQ(log.CallsOf("ksFramebufferAttachmentParameter1i"), expected(4, 4, true))
        << "filtered as soon as it exists";

    // No filter, or a table of no entries (Kestrel's limit read as 0), sends
    // the neutral filter and leaves every attachment unfiltered.
    Calls unfiltered = {"ksFrameParameter1f(KS_FILTER_SIZE, 1)",
                        "ksFrameParameter1i(KS_FILTER_TABLE_SIZE, 1)",
                        "ksFrameParameterfv(KS_FILTER_TABLE, ptr)"};
    const Calls parameters = expected(0, 4, false);
    unfiltered.insert(unfiltered.end(), parameters.begin(), parameters.end());
    for (bool emptyTable : {false, true})
    {
        SCOPED_TRACE(emptyTable ? "empty table" : "no filter");
        Kestrel::Testing::AutoFaults faults;
        if (emptyTable)
            Kestrel::Testing::InjectFault("ksGetIntegerv", 1, 0);
        log.Clear();
        ASSERT_TRUE(frameBuffer.SetFilter(emptyTable ? &filter : nullptr));
        EXPECT_EQ(frameBuffer.GetFilterTable(), nullptr);
        EXPECT_EQ(frameBuffer.GetFilterTableSize(), 0u);
        Calls sent;
        for (const std::string& call : log.Calls())
            if (call.find("Parameter") != std::string::npos)
                sent.push_back(call);
        EXPECT_EQ(sent, unfiltered);
    }
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, FilterTableSamplesRowAfterRowUpToKestrelsLimit)
{
    // Kestrel's limit, the filter's size, and the entries along each edge.
    const std::tuple<int, float, int> cases[] = {
        {64, 0.5f, 4},  {64, 1.0f, 8},  {64, 1.3f, 10}, {64, 2.0f, 16},
        {64, 4.0f, 32}, {16, 2.0f, 16}, {16, 4.0f, 16},
    };
    for (const auto& [limit, size, entries] : cases)
    {
        SCOPED_TRACE(::testing::Message() << "size " << size << ", limit " << limit);
        const long long attributes[] = {KS_CONTEXT_MAX_FILTER_TABLE_SIZE, limit, 0};
        IKestrelContext* context =
            _pManager->CreateKestrelContext(&_console, false, false, attributes);
        ASSERT_TRUE(_pManager->SetCurrentKestrelContext(context));
        {
            KSFrameBuffer frameBuffer(context);
            ASSERT_TRUE(frameBuffer.Init(1, 1));
            RecordingFilter filter(size);
            ASSERT_TRUE(frameBuffer.SetFilter(&filter));
            const auto n = static_cast<std::size_t>(entries);
            ASSERT_EQ(frameBuffer.GetFilterTableSize(), n);
            ASSERT_EQ(filter.samples.size(), n * n);
            const float step = size / static_cast<float>(entries);
            for (std::size_t k = 0; k < n * n; ++k)
            {
                EXPECT_FLOAT_EQ(filter.samples[k].first, static_cast<float>(k % n) * step);
                EXPECT_FLOAT_EQ(filter.samples[k].second, static_cast<float>(k / n) * step);
                EXPECT_LT(filter.samples[k].first, size);
                EXPECT_EQ(frameBuffer.GetFilterTable()[k], static_cast<float>(k));
            }
            int sent = 0;
            ksGetIntegerv(KS_FILTER_TABLE_SIZE, &sent);
            EXPECT_EQ(sent, entries);
            EXPECT_NO_KS_ERROR();
        }
        _pManager->DestroyKestrelContext(context);
        ASSERT_TRUE(_pManager->SetCurrentKestrelContext(_pContext));
    }
}

TEST_F(WrapperFixture, BindAndSetFilterGiveBackOneHoldOfTheCaller)
{
    KSFrameBuffer frameBuffer(_pContext);
    ASSERT_TRUE(frameBuffer.Init(2, 2));
    IKSFrameBufferAttachment* attachment = Create(frameBuffer, 0);
    RecordingFilter filter(1.0f);
    RecordingFilter tooSmall(0.25f);
    const std::tuple<const char*, std::function<void()>, bool> cases[] = {
        {"Bind", [&] { frameBuffer.Bind(); }, true},
        {"SetFilter", [&] { frameBuffer.SetFilter(&filter); }, true},
        {"SetFilter(null)", [&] { frameBuffer.SetFilter(nullptr); }, true},
        {"refused SetFilter", [&] { frameBuffer.SetFilter(&tooSmall); }, false},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::get<0>(c));
        ASSERT_TRUE(attachment->Lock(0));
        std::get<1>(c)();
        EXPECT_EQ(LockFromOtherThread(attachment), std::get<2>(c));
        if (!std::get<2>(c))
            attachment->UnLock();
    }
    // Unlocking a lock nobody holds changes nothing either.
    frameBuffer.Bind();
    EXPECT_TRUE(LockFromOtherThread(attachment));
    EXPECT_NO_KS_ERROR();
}

TEST_F(WrapperFixture, FrameBufferResizeCarriesEveryAttachment)
{
    KSFrameBuffer frameBuffer(_pContext);
    ASSERT_TRUE(frameBuffer.Init(2, 2));
    EXPECT_TRUE(frameBuffer.Resize(6, 3)) << "no attachments yet";
    IKSFrameBufferAttachment* attachments[] = {Create(frameBuffer, 0),
                                               Create(frameBuffer, 1, Att::kBM_Accumulated)};
    auto size = [](IKSFrameBufferAttachment* attachment)
    {
        Kestrel::Testing::TextureRecord record;
        Kestrel::Testing::ReadTexture(attachment->GetKSTexture(), 0, &record);
        return std::make_pair(record.width, record.height);
    };
    for (IKSFrameBufferAttachment* attachment : attachments)
        EXPECT_EQ(size(attachment), std::make_pair(6, 3)) << "made at the size stored";

    // Storage refused: the attachments keep their recorded size without
    // storage, and only another size brings it back.
    EXPECT_FALSE(frameBuffer.Resize(16384, 8192));
    EXPECT_TRUE(frameBuffer.Resize(6, 3));
    for (IKSFrameBufferAttachment* attachment : attachments)
        EXPECT_EQ(attachment->GetClientBuffer(), nullptr);
    EXPECT_TRUE(frameBuffer.Resize(7, 2));
    for (IKSFrameBufferAttachment* attachment : attachments)
    {
        EXPECT_EQ(size(attachment), std::make_pair(7, 2));
        EXPECT_NE(attachment->GetClientBuffer(), nullptr);
    }
    EXPECT_NO_KS_ERROR();
}
