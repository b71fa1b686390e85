// Contexts, the current context, the error model and context-wide queries.
#include "KestrelFixture.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

namespace KestrelTest
{
namespace
{

using Kestrel::Testing::CountContexts;
using Kestrel::Testing::CountObjects;

// ---------------------------------------------------------------------------
// Creation and attributes

struct AttributeCase
{
    const char* label;
    std::vector<long long> attributes; // without the terminating 0 key
};

TEST(KestrelContexts, CreatesWithNullOrValidAttributes)
{
    const AttributeCase cases[] = {
        {"empty list", {}},
        {"one thread", {KS_CONTEXT_RENDER_THREADS, 1}},
        {"threads per core", {KS_CONTEXT_RENDER_THREADS, 0}},
        {"ray depth 1", {KS_CONTEXT_MAX_RAY_DEPTH, 1}},
        {"all keys",
         {KS_CONTEXT_RENDER_THREADS, 2, KS_CONTEXT_MAX_RAY_DEPTH, 32,
          KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 8}},
    };
    const int before = CountContexts();

    void* fromNull = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_NE(fromNull, nullptr);
    EXPECT_EQ(CountContexts(), before + 1);
    KestrelDestroyContext(fromNull);
    EXPECT_EQ(CountContexts(), before);

    for (const AttributeCase& c : cases)
    {
        SCOPED_TRACE(c.label);
        std::vector<long long> list = c.attributes;
        list.push_back(0);
        void* context = KestrelCreateContext(list.data(), nullptr, nullptr);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(CountContexts(), before + 1);
        EXPECT_EQ(CountObjects(context), Kestrel::Testing::ObjectCounts{});
        KestrelDestroyContext(context);
        EXPECT_EQ(CountContexts(), before);
    }
}

TEST(KestrelContexts, RejectsBadAttributesWithoutLeaking)
{
    const AttributeCase cases[] = {
        {"unknown key", {0x12345, 1}},
        {"unknown key after a good one", {KS_CONTEXT_RENDER_THREADS, 1, 0x12345, 1}},
        {"negative thread count", {KS_CONTEXT_RENDER_THREADS, -1}},
        {"ray depth 0", {KS_CONTEXT_MAX_RAY_DEPTH, 0}},
        {"negative ray depth", {KS_CONTEXT_MAX_RAY_DEPTH, -5}},
        {"absurd ray depth", {KS_CONTEXT_MAX_RAY_DEPTH, 1LL << 40}},
        {"filter table 0", {KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 0}},
        {"absurd filter table", {KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 1LL << 40}},
    };
    const int before = CountContexts();
    for (const AttributeCase& c : cases)
    {
        SCOPED_TRACE(c.label);
        std::vector<long long> list = c.attributes;
        list.push_back(0);
        EXPECT_EQ(KestrelCreateContext(list.data(), nullptr, nullptr), nullptr);
        EXPECT_EQ(CountContexts(), before);
    }
}

TEST(KestrelContexts, AttributesShowInQueries)
{
    struct Case
    {
        std::vector<long long> attributes;
        int maxRayDepth;
        int maxFilterTableSize;
    };
    const Case cases[] = {
        {{0}, 16, 64},
        {{KS_CONTEXT_MAX_RAY_DEPTH, 3, 0}, 3, 64},
        {{KS_CONTEXT_MAX_FILTER_TABLE_SIZE, 5, 0}, 16, 5},
    };
    for (const Case& c : cases)
    {
        void* context = KestrelCreateContext(c.attributes.data(), nullptr, nullptr);
        ASSERT_NE(context, nullptr);
        ASSERT_EQ(KestrelSetCurrentContext(context), 1);
        int maxDepth = -1;
        int maxTable = -1;
        ksGetIntegerv(KS_MAX_RAY_DEPTH, &maxDepth);
        ksGetIntegerv(KS_MAX_FILTER_TABLE_SIZE, &maxTable);
        EXPECT_EQ(maxDepth, c.maxRayDepth);
        EXPECT_EQ(maxTable, c.maxFilterTableSize);
        // The limits are enforced, not just reported.
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, c.maxRayDepth + 1);
        EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
        ksFrameParameter1i(KS_FILTER_TABLE_SIZE, c.maxFilterTableSize + 1);
        EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, c.maxRayDepth);
        ksFrameParameter1i(KS_FILTER_TABLE_SIZE, c.maxFilterTableSize);
        EXPECT_EQ(ksGetError(), KS_NO_ERROR);
        KestrelDestroyContext(context);
    }
}

// ---------------------------------------------------------------------------
// The current context

using KestrelCurrent = KestrelFixture;

TEST_F(KestrelCurrent, SetCurrentAcceptsOnlyLiveContexts)
{
    _KSbuffer* buffer = NewBuffer();
    ksBindBuffer(KS_ARRAY_BUFFER, buffer);
    ASSERT_NO_KS_ERROR();

    void* destroyed = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_NE(destroyed, nullptr);
    KestrelDestroyContext(destroyed);

    struct Case
    {
        const char* label;
        void* context;
    };
    const Case rejected[] = {
        {"null", nullptr},
        {"destroyed", destroyed},
        {"never issued", ForgedHandle<void>()},
    };
    for (const Case& c : rejected)
    {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(KestrelSetCurrentContext(c.context), 0);
        // Still the fixture's context: its binding is visible.
        _KSbuffer* bound = nullptr;
        ksGetBuffer(KS_ARRAY_BUFFER_BINDING, &bound);
        EXPECT_EQ(bound, buffer);
    }
    EXPECT_NO_KS_ERROR();
    // Destroying what is not a live context is ignored.
    KestrelDestroyContext(nullptr);
    KestrelDestroyContext(destroyed);
    KestrelDestroyContext(ForgedHandle<void>());
    EXPECT_EQ(CountContexts(), _nContextsBefore + 1);
}

TEST_F(KestrelCurrent, BindingsAndErrorsBelongToTheirContext)
{
    _KSbuffer* buffer = NewBuffer();
    ksBindBuffer(KS_ARRAY_BUFFER, buffer);
    ksBindBuffer(0x1234, nullptr); // leaves an error pending in this context
    _recorder.Take();

    NoticeRecorder otherRecorder;
    void* other = KestrelCreateContext(nullptr, &NoticeRecorder::Callback, &otherRecorder);
    ASSERT_NE(other, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    _KSbuffer* bound = buffer;
    ksGetBuffer(KS_ARRAY_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, nullptr);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);
    ksBindBuffer(KS_ARRAY_BUFFER, buffer); // foreign here
    EXPECT_EQ(ksGetError(), KS_INVALID_VALUE);
    EXPECT_EQ(otherRecorder.Take().size(), 1u);
    EXPECT_TRUE(_recorder.Take().empty()) << "an error reached the wrong context's callback";

    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    ksGetBuffer(KS_ARRAY_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, buffer);
    EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
    KestrelDestroyContext(other);
}

TEST_F(KestrelCurrent, DestroyingTheCurrentContextLeavesNoneCurrent)
{
    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_NE(other, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(other), 1);
    NewBuffer();
    NewTexture();
    KestrelDestroyContext(other);
    EXPECT_EQ(CountObjects(other).buffers, -1);
    EXPECT_EQ(CountObjects(other).textures, -1);

    // Nothing is current: creation gives nothing, and nothing leaks into ours.
    EXPECT_EQ(NewBuffer(), nullptr);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    EXPECT_EQ(CountObjects(_pContext), Kestrel::Testing::ObjectCounts{});
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelCurrent, WithoutCurrentContextCallsWriteZeroAndRaiseNothing)
{
    _KSbuffer* ourBuffer = NewBuffer();
    ksBindBuffer(KS_ARRAY_BUFFER, ourBuffer);
    void* gone = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(gone), 1);
    KestrelDestroyContext(gone);

    // Every output starts as garbage so that a missing write shows.
    const auto junk = [](auto& value) { std::memset(&value, 0x5a, sizeof(value)); };
    _KSbuffer* buffer;
    _KStexture* texture;
    _KSframebuffer* framebuffer;
    KSprimitive primitive;
    int integer;
    long long longValue;
    float floatValue;
    double doubleValue;
    const char* text;
    struct Case
    {
        const char* label;
        std::function<bool()> call; // true when every output reads as zero
    };
    const Case cases[] = {
        {"ksGenBuffers",
         [&]
         {
             junk(buffer);
             ksGenBuffers(1, &buffer);
             return !buffer;
         }},
        {"ksGenTextures",
         [&]
         {
             junk(texture);
             ksGenTextures(1, &texture);
             return !texture;
         }},
        {"ksGenFramebuffers",
         [&]
         {
             junk(framebuffer);
             ksGenFramebuffers(1, &framebuffer);
             return !framebuffer;
         }},
        {"ksGenPrimitives",
         [&]
         {
             junk(primitive);
             ksGenPrimitives(1, &primitive);
             return primitive == 0;
         }},
        {"ksGetBuffer",
         [&]
         {
             junk(buffer);
             ksGetBuffer(KS_ARRAY_BUFFER_BINDING, &buffer);
             return !buffer;
         }},
        {"ksGetTexture",
         [&]
         {
             junk(texture);
             ksGetTexture(KS_TEXTURE_BINDING_2D, &texture);
             return !texture;
         }},
        {"ksGetFramebuffer",
         [&]
         {
             junk(framebuffer);
             ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, &framebuffer);
             return !framebuffer;
         }},
        {"ksGetPrimitive",
         [&]
         {
             junk(primitive);
             ksGetPrimitive(KS_PRIMITIVE_BINDING, &primitive);
             return primitive == 0;
         }},
        {"ksGetIntegerv",
         [&]
         {
             junk(integer);
             ksGetIntegerv(KS_MAX_RAY_DEPTH, &integer);
             return integer == 0;
         }},
        {"ksGetBooleanv",
         [&]
         {
             junk(integer);
             ksGetBooleanv(KS_FILTERED_ACCUMULATES_ENABLED, &integer);
             return integer == 0;
         }},
        {"ksGetLongv",
         [&]
         {
             junk(longValue);
             ksGetLongv(KS_FRAME_STATISTIC_4, &longValue);
             return longValue == 0;
         }},
        {"ksGetFloatv",
         [&]
         {
             junk(floatValue);
             ksGetFloatv(KS_FRAME_STATISTIC_8, &floatValue);
             return floatValue == 0.0f;
         }},
        {"ksGetDoublev",
         [&]
         {
             junk(doubleValue);
             ksGetDoublev(KS_FRAME_STATISTIC_1, &doubleValue);
             return doubleValue == 0.0;
         }},
        {"ksGetFrameParameteriv",
         [&]
         {
             junk(integer);
             ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &integer);
             return integer == 0;
         }},
        {"ksGetShaderiv",
         [&]
         {
             junk(integer);
             ksGetShaderiv(ForgedHandle<_KSshader>(), KS_COMPILE_STATUS, &integer);
             return integer == 0;
         }},
        {"ksGetProgramiv",
         [&]
         {
             junk(integer);
             ksGetProgramiv(ForgedHandle<_KSprogram>(), KS_LINK_STATUS, &integer);
             return integer == 0;
         }},
        {"ksGetShaderString",
         [&]
         {
             junk(text);
             ksGetShaderString(ForgedHandle<_KSshader>(), KS_SHADER_LOG, &text);
             return !text;
         }},
        {"ksGetProgramString",
         [&]
         {
             junk(text);
             ksGetProgramString(ForgedHandle<_KSprogram>(), KS_PROGRAM_LOG, &text);
             return !text;
         }},
        {"ksGetBufferParameterString",
         [&]
         {
             junk(text);
             ksGetBufferParameterString(KS_UNIFORM_BLOCK_BUFFER, KS_BUFFER_NAME, &text);
             return !text;
         }},
        {"ksCreateShader", [] { return ksCreateShader(KS_VERTEX_SHADER) == nullptr; }},
        {"ksCreateProgram", [] { return ksCreateProgram() == nullptr; }},
        {"ksMapBuffer", [] { return ksMapBuffer(KS_ARRAY_BUFFER, KS_READ_ONLY) == nullptr; }},
        {"ksGetString", [] { return ksGetString(KS_VERSION) == nullptr; }},
        {"ksGetError", [] { return ksGetError() == 0; }},
        // Calls without outputs must simply do nothing.
        {"ksBindBuffer",
         []
         {
             ksBindBuffer(0x1234, ForgedHandle<_KSbuffer>());
             return true;
         }},
        {"ksClear",
         []
         {
             ksClear(KS_COLOR_BUFFER_BIT);
             return true;
         }},
        {"ksRenderFrame",
         []
         {
             ksRenderFrame();
             return true;
         }},
        {"ksUniform3fv",
         []
         {
             ksUniform3fv(0, -1, nullptr);
             return true;
         }},
        {"ksDeleteBuffers",
         [&]
         {
             _KSbuffer* copy = ourBuffer;
             ksDeleteBuffers(1, &copy);
             return true;
         }},
    };
    for (const Case& c : cases)
        EXPECT_TRUE(c.call()) << c.label << " left an output unwritten";
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);

    // None of it reached our context.
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    EXPECT_NO_KS_ERROR();
    _KSbuffer* bound = nullptr;
    ksGetBuffer(KS_ARRAY_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, ourBuffer);
    EXPECT_EQ(CountObjects(_pContext).buffers, 1);
}

TEST_F(KestrelCurrent, CurrentContextIsSharedByAllThreads)
{
    _KSbuffer* fromThread = nullptr;
    std::thread(
        [&]
        {
            fromThread = NewBuffer();
            ksBindBuffer(KS_ELEMENT_ARRAY_BUFFER, fromThread);
        })
        .join();
    ASSERT_NE(fromThread, nullptr);
    _KSbuffer* bound = nullptr;
    ksGetBuffer(KS_ELEMENT_ARRAY_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, fromThread);

    void* other = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_NE(other, nullptr);
    int switched = 0;
    std::thread([&] { switched = KestrelSetCurrentContext(other); }).join();
    EXPECT_EQ(switched, 1);
    ksGetBuffer(KS_ELEMENT_ARRAY_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, nullptr) << "the other thread's switch is not visible here";

    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    KestrelDestroyContext(other);
    EXPECT_NO_KS_ERROR();
}

// ---------------------------------------------------------------------------
// Errors and notifications

using KestrelErrors = KestrelFixture;

TEST_F(KestrelErrors, FirstErrorIsKeptLaterOnesDroppedReadClears)
{
    ksBindBuffer(0x1234, nullptr);                            // KS_INVALID_ENUM
    ksBindBuffer(KS_ARRAY_BUFFER, ForgedHandle<_KSbuffer>()); // KS_INVALID_VALUE
    ksBindTexture(0x4321, nullptr);                           // KS_INVALID_ENUM
    EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR);

    // Dropped errors were still notified, in order.
    const std::vector<Notice> notices = _recorder.Take();
    ASSERT_EQ(notices.size(), 3u);
    EXPECT_EQ(notices[0].code, KS_INVALID_ENUM);
    EXPECT_EQ(notices[1].code, KS_INVALID_VALUE);
    EXPECT_EQ(notices[2].code, KS_INVALID_ENUM);
    EXPECT_NE(notices[1].message.find("ksBindBuffer"), std::string::npos);
    EXPECT_NE(notices[2].message.find("ksBindTexture"), std::string::npos);

    // After a read the next error is kept again.
    ksBindBuffer(KS_ARRAY_BUFFER, ForgedHandle<_KSbuffer>());
    EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, "ksBindBuffer");
}

TEST_F(KestrelErrors, NotificationIsSynchronousWithItsArguments)
{
    ksMapBuffer(KS_ARRAY_BUFFER, 0x777);
    // No waiting: the notice must already be there when the call returns.
    const std::vector<Notice> notices = _recorder.Take();
    ASSERT_EQ(notices.size(), 1u);
    const Notice& notice = notices[0];
    EXPECT_EQ(notice.code, KS_INVALID_ENUM);
    EXPECT_EQ(notice.detail, nullptr);
    EXPECT_EQ(notice.detailSize, 0u);
    EXPECT_EQ(notice.userData, &_recorder);
    EXPECT_EQ(notice.thread, std::this_thread::get_id());
    EXPECT_TRUE(notice.hasMessage);
    EXPECT_EQ(notice.message.rfind("ksMapBuffer", 0), 0u) << notice.message;
    EXPECT_GT(notice.message.size(), std::strlen("ksMapBuffer")) << "the reason is missing";
    EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
}

TEST_F(KestrelErrors, CallbackMayCallKestrel)
{
    struct Reentrant
    {
        int seen = -1;
        static void Callback(int, const void*, size_t, const char*, void* userData)
        {
            static_cast<Reentrant*>(userData)->seen = ksGetError();
        }
    } reentrant;
    void* context = KestrelCreateContext(nullptr, &Reentrant::Callback, &reentrant);
    ASSERT_NE(context, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(context), 1);
    ksBindFramebuffer(0x55, nullptr);
    EXPECT_EQ(reentrant.seen, KS_INVALID_ENUM);
    EXPECT_EQ(ksGetError(), KS_NO_ERROR) << "the callback's read did not take the error";
    KestrelDestroyContext(context);
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
}

TEST_F(KestrelErrors, ContextWithoutCallbackStillKeepsErrors)
{
    void* context = KestrelCreateContext(nullptr, nullptr, nullptr);
    ASSERT_NE(context, nullptr);
    ASSERT_EQ(KestrelSetCurrentContext(context), 1);
    ksBindFramebuffer(0x55, nullptr);
    EXPECT_EQ(ksGetError(), KS_INVALID_ENUM);
    KestrelDestroyContext(context);
    ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    EXPECT_NO_KS_ERROR();
}

// ---------------------------------------------------------------------------
// Context-wide queries

using KestrelQueries = KestrelFixture;

TEST_F(KestrelQueries, VersionAndProfileTexts)
{
    const char* version = ksGetString(KS_VERSION);
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(std::string(version).rfind("1.4 Kestrel runtime", 0), 0u) << version;
    int major = 0;
    int minor = 0;
    ASSERT_EQ(std::sscanf(version, "%d.%d", &major, &minor), 2);
    EXPECT_TRUE(major > 1 || (major == 1 && minor >= 4));

    const char* profile = ksGetString(KS_PROFILE);
    ASSERT_NE(profile, nullptr);
    EXPECT_GT(std::strlen(profile), 0u);
    EXPECT_EQ(KestrelGetHardwareAcceleratorCount(), 0);
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelQueries, BooleansWriteAll32Bits)
{
    const struct
    {
        int name;
        int expected;
    } cases[] = {
        {KS_HARDWARE_ACCELERATED, 0},
        {KS_DIFFERENTIALS_ENABLED, 0},
        {KS_FILTERED_ACCUMULATES_ENABLED, 1},
    };
    for (const auto& c : cases)
    {
        int value = 0x7f7f7f7f;
        ksGetBooleanv(c.name, &value);
        EXPECT_EQ(value, c.expected) << Hex(c.name);
    }
    EXPECT_NO_KS_ERROR();
}

TEST_F(KestrelQueries, RayDepthLimitStaysWithinTheMaximum)
{
    int maximum = 0;
    int limit = -1;
    ksGetIntegerv(KS_MAX_RAY_DEPTH, &maximum);
    ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &limit);
    EXPECT_GE(limit, 0);
    EXPECT_LE(limit, maximum);
    EXPECT_NO_KS_ERROR();

    for (int good : {0, 1, maximum})
    {
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, good);
        ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &limit);
        EXPECT_EQ(limit, good);
        EXPECT_NO_KS_ERROR();
    }
    for (int bad : {-1, maximum + 1})
    {
        ksFrameParameter1i(KS_RAY_DEPTH_LIMIT, bad);
        EXPECT_KS_ERROR_IN(KS_INVALID_VALUE, "ksFrameParameter1i");
        ksGetFrameParameteriv(KS_RAY_DEPTH_LIMIT, &limit);
        EXPECT_EQ(limit, maximum) << "a rejected value changed the limit";
    }
}

} // namespace
} // namespace KestrelTest
