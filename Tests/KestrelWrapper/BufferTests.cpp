// Buffers: the context's pair, sizing with and without kept contents, binding
// and the scoped binding.
#include "SlotProbes.h"
#include "WrapperFixture.h"

#include <cstdint>
#include <cstdio>
#include <functional>

using namespace WrapperTest;
using Kestrel::Testing::AutoFaults;
using Kestrel::Testing::CallLog;
using Kestrel::Testing::InjectErrorAfter;
using Vireo::AutoBindKSBuffer;
using Vireo::IKSBuffer;
using Vireo::Testing::AssertCall;
using Vireo::Testing::AutoInstallAssertHandler;
using Vireo::Testing::kCCK_PrintError;
using Vireo::Testing::RecordingAssertHandler;

namespace
{

Bytes Sequence(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i + 1);
    return bytes;
}

class BufferTest : public BufferFixture
{
protected:
    // A raw buffer for other bindings to be seen against.
    _KSbuffer* Raw()
    {
        _KSbuffer* buffer = nullptr;
        ksGenBuffers(1, &buffer);
        return buffer;
    }

    // Bind's own texts, without Kestrel's notifications of the same errors.
    std::vector<std::string> BindFailures() const
    {
        std::vector<std::string> texts;
        for (const std::string& text : _console.TextsOf(kCCK_PrintError))
            if (text.rfind("KSBuffer::Bind ", 0) == 0)
                texts.push_back(text);
        return texts;
    }
};

} // namespace

TEST_F(BufferTest, InitAndResizeSpecifyAtTheArrayTargetAndPutItsBindingBack)
{
    IKSBuffer* buffer = Create();
    _KSbuffer* other = Raw();
    ksBindBuffer(KS_ARRAY_BUFFER, other);
    const struct
    {
        std::function<bool()> operation;
        const char* sExpectedData; // as ksBufferData logs it
    } rows[] = {
        {[&] { return buffer->Init(IKSBuffer::kUsage_StaticRead, 8); },
         "ksBufferData(KS_ARRAY_BUFFER, 8, null, KS_STATIC_READ)"},
        {[&] { return buffer->Resize(IKSBuffer::kUsage_StreamCopy, 4, false); },
         "ksBufferData(KS_ARRAY_BUFFER, 4, null, KS_STREAM_COPY)"},
        {[&] { return buffer->Resize(IKSBuffer::kUsage_DynamicDraw, 12, true); },
         "ksBufferData(KS_ARRAY_BUFFER, 12, ptr, KS_DYNAMIC_DRAW)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.sExpectedData);
        CallLog log;
        EXPECT_TRUE(row.operation());
        EXPECT_EQ(log.CallsOf("ksBufferData"), Calls{row.sExpectedData});
        EXPECT_EQ(BoundBuffer(KS_ARRAY_BUFFER_BINDING), other);
        EXPECT_NO_KS_ERROR();
    }
}

TEST_F(BufferTest, ResizeKeepingContentsKeepsTheLeadingBytesAndTheHandle)
{
    const std::size_t rows[][2] = {{8, 3}, {3, 8}, {5, 5}, {1, 64}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(std::to_string(row[0]) + " -> " + std::to_string(row[1]));
        const Bytes old = Sequence(row[0]);
        IKSBuffer* buffer = Filled(old);
        _KSbuffer* handle = buffer->GetKSBuffer();

        ASSERT_TRUE(buffer->Resize(IKSBuffer::kUsage_StaticDraw, row[1], true));
        EXPECT_EQ(buffer->GetKSBuffer(), handle);
        EXPECT_EQ(buffer->GetSize(), row[1]);
        const Bytes now = ReadBytes(handle, row[1]);
        const std::size_t nKept = std::min(row[0], row[1]);
        ASSERT_EQ(now.size(), row[1]);
        EXPECT_EQ(Bytes(now.begin(), now.begin() + nKept), Bytes(old.begin(), old.begin() + nKept));
        EXPECT_NO_KS_ERROR();
    }
}

TEST_F(BufferTest, FailedResizeLeavesTheBufferAsItWas)
{
    IKSBuffer* unready = Create();
    EXPECT_FALSE(unready->Resize(IKSBuffer::kUsage_StaticDraw, 4, true));
    EXPECT_FALSE(unready->Init(IKSBuffer::kUsage_StaticDraw, 0));
    EXPECT_EQ(unready->GetKSBuffer(), nullptr);

    // A failed copy of the contents is the fault sweep's; a size of 0 is
    // refused before anything reaches Kestrel.
    const Bytes contents = Sequence(6);
    for (bool keep : {false, true})
    {
        SCOPED_TRACE(keep ? "keeping contents" : "not keeping");
        IKSBuffer* buffer = Filled(contents);
        CallLog log;
        EXPECT_FALSE(buffer->Resize(IKSBuffer::kUsage_StaticDraw, 0, keep));
        EXPECT_EQ(log.Calls(), Calls{});
        EXPECT_EQ(buffer->GetSize(), contents.size());
        EXPECT_EQ(ReadBytes(buffer->GetKSBuffer(), contents.size()), contents);
    }
}

// The name printed is the uniform block buffer's, whatever the target; with
// none bound there is no name to print. A scoped binding at a target nobody
// knows asks at its site (answering "go on" leaves it unlatched for later
// tests), saves the array binding instead and cannot put it back.
TEST_F(BufferTest, FailedBindPrintsTheUniformBlockBuffersNameAndUndoesNothing)
{
    RecordingAssertHandler handler;
    AutoInstallAssertHandler install(&handler);
    IKSBuffer* buffer = Filled(Sequence(4));
    EXPECT_TRUE(buffer->Bind(KS_PIXEL_PACK_BUFFER));
    EXPECT_EQ(BindFailures(), std::vector<std::string>{});
    char handle[16];
    std::snprintf(handle, sizeof(handle), "%08x",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(buffer->GetKSBuffer())));

    _KSbuffer* arrayBound = Raw();
    ksBindBuffer(KS_ARRAY_BUFFER, arrayBound);
    {
        CallLog log;
        {
            AutoBindKSBuffer binding(buffer, 0x1234);
        }
        EXPECT_EQ(handler.Calls(),
                  (std::vector<AssertCall>{{"0 && \"Unsupported bind point\"", 28,
                                            "Source/KestrelWrapper/IKSBuffer", 0}}));
        EXPECT_EQ(log.Calls().at(0), "ksGetBuffer(KS_ARRAY_BUFFER_BINDING, ptr)");
        EXPECT_EQ(log.CallsOf("ksBindBuffer").back(),
                  "ksBindBuffer(4660, " + Kestrel::Testing::Describe(arrayBound) + ")");
    }
    EXPECT_EQ(BindFailures(),
              std::vector<std::string>{"KSBuffer::Bind \"\" " + std::string(handle) + "\n"});
    EXPECT_EQ(BoundBuffer(KS_ARRAY_BUFFER_BINDING), arrayBound);
    ksGetError();

    _console.Clear();
    ksBindBuffer(KS_UNIFORM_BLOCK_BUFFER, Raw());
    ksBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, KS_BUFFER_NAME, "mesh");
    AutoFaults faults;
    InjectErrorAfter("ksBindBuffer", KS_INVALID_OPERATION);
    EXPECT_FALSE(buffer->Bind(KS_ARRAY_BUFFER));
    EXPECT_EQ(BindFailures(),
              std::vector<std::string>{"KSBuffer::Bind \"mesh\" " + std::string(handle) + "\n"});
    EXPECT_EQ(BoundBuffer(KS_ARRAY_BUFFER_BINDING), buffer->GetKSBuffer());
    EXPECT_EQ(BoundBuffer(KS_PIXEL_PACK_BUFFER_BINDING), buffer->GetKSBuffer());
    EXPECT_NO_KS_ERROR();
}

TEST_F(BufferTest, ShutdownDeletesInItsOwnContextAndLeavesThatOneCurrent)
{
    IKSBuffer* buffer = Filled(Sequence(4));
    _KSbuffer* handle = buffer->GetKSBuffer();
    Vireo::IKestrelContext* other = _pManager->CreateKestrelContext(nullptr, false, false, nullptr);
    ASSERT_TRUE(_pManager->SetCurrentKestrelContext(other));
    buffer->Shutdown();
    EXPECT_EQ(_pManager->GetCurrentKestrelContext(), _pContext);
    _pManager->DestroyKestrelContext(other);
    EXPECT_EQ(buffer->GetKSBuffer(), nullptr);
    EXPECT_EQ(buffer->GetSize(), 4u);
    ksBindBuffer(KS_ARRAY_BUFFER, handle);
    EXPECT_EQ(ksGetError(), KS_INVALID_VALUE) << "the Kestrel buffer is gone";

    CallLog log;
    buffer->Shutdown();
    EXPECT_FALSE(buffer->Init(IKSBuffer::kUsage_StaticDraw, 4)) << "the context is forgotten";
    EXPECT_FALSE(buffer->Resize(IKSBuffer::kUsage_StaticDraw, 4, false));
    EXPECT_EQ(log.Calls(), Calls{});
}

TEST_F(BufferTest, ScopedBindingsRestoreInReverseOnEveryTargetEvenAfterTheirBuffer)
{
    IKSBuffer* outer = Filled(Sequence(2));
    const int rows[][2] = {
        {KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
        {KS_ELEMENT_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER_BINDING},
        {KS_PIXEL_PACK_BUFFER, KS_PIXEL_PACK_BUFFER_BINDING},
        {KS_PIXEL_UNPACK_BUFFER, KS_PIXEL_UNPACK_BUFFER_BINDING},
        {KS_UNIFORM_BLOCK_BUFFER, KS_UNIFORM_BLOCK_BUFFER_BINDING},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row[0]);
        const int target = row[0];
        const int query = row[1];
        _KSbuffer* first = Raw();
        ksBindBuffer(target, first);
        {
            AutoBindKSBuffer outerBinding(outer, target);
            EXPECT_EQ(BoundBuffer(query), outer->GetKSBuffer());
            {
                // The end of the scope needs nothing of the buffer any more.
                IKSBuffer* gone = _pContext->CreateIKSBuffer();
                ASSERT_TRUE(gone->Init(IKSBuffer::kUsage_StaticDraw, 2));
                AutoBindKSBuffer inner(gone, target);
                EXPECT_EQ(BoundBuffer(query), gone->GetKSBuffer());
                EXPECT_TRUE(_pContext->DestroyIKSBuffer(gone));
            }
            EXPECT_EQ(BoundBuffer(query), outer->GetKSBuffer());
        }
        EXPECT_EQ(BoundBuffer(query), first);
        EXPECT_NO_KS_ERROR();
    }
}
