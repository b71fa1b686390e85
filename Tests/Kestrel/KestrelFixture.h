// Shared fixture of the runtime tests: a fresh current context per test whose
// notifications are recorded, plus assertions on the pending error.
#ifndef TESTS_KESTREL_KESTREL_FIXTURE_H
#define TESTS_KESTREL_KESTREL_FIXTURE_H

#include "KestrelTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace KestrelTest
{

inline std::string Hex(int code)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%04x", static_cast<unsigned>(code));
    return text;
}

// One notification as the runtime delivered it.
struct Notice
{
    int code = 0;
    const void* detail = nullptr;
    size_t detailSize = 0;
    std::string message;
    void* userData = nullptr;
};

// Notifications may arrive on a render worker, hence the lock.
class NoticeRecorder
{
public:
    static void Callback(int code, const void* detail, size_t detailSize, const char* message,
                         void* userData)
    {
        auto* self = static_cast<NoticeRecorder*>(userData);
        std::lock_guard<std::mutex> lock(self->_mutex);
        self->_notices.push_back({code, detail, detailSize, message ? message : "", userData});
    }

    // The notices since the last Take, oldest first.
    std::vector<Notice> Take()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        std::vector<Notice> taken;
        taken.swap(_notices);
        return taken;
    }

private:
    std::mutex _mutex;
    std::vector<Notice> _notices;
};

// Handles the runtime never issued: ids far beyond anything a test creates.
template <typename T>
T* ForgedHandle()
{
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(0x7e5d0000u));
}

// Makes the call on an output full of garbage; true when it wrote zero there.
template <typename T>
bool WroteZero(void (*call)(int, T*), int name)
{
    T value;
    std::memset(&value, 0x5a, sizeof(value));
    call(name, &value);
    return value == T{};
}

template <typename H, typename T>
bool WroteZero(void (*call)(H, int, T*), H object, int name)
{
    T value;
    std::memset(&value, 0x5a, sizeof(value));
    call(object, name, &value);
    return value == T{};
}

// A row call for tables of calls that check an output: this one has none.
template <typename F>
std::function<bool()> Done(F call)
{
    return [call]
    {
        call();
        return true;
    };
}

struct BufferTarget
{
    int target;
    int binding;
};

inline constexpr BufferTarget kBufferTargets[] = {
    {KS_ARRAY_BUFFER, KS_ARRAY_BUFFER_BINDING},
    {KS_ELEMENT_ARRAY_BUFFER, KS_ELEMENT_ARRAY_BUFFER_BINDING},
    {KS_PIXEL_PACK_BUFFER, KS_PIXEL_PACK_BUFFER_BINDING},
    {KS_PIXEL_UNPACK_BUFFER, KS_PIXEL_UNPACK_BUFFER_BINDING},
    {KS_UNIFORM_BLOCK_BUFFER, KS_UNIFORM_BLOCK_BUFFER_BINDING},
};
inline constexpr int kBufferTargetCount = 5;

// Everything a misbehaving call could disturb that the API lets us see.
struct BindingState
{
    _KSbuffer* buffers[kBufferTargetCount] = {};
    _KStexture* texture = nullptr;
    KSprimitive primitive = KSprimitive(0);
    _KSframebuffer* framebuffer = nullptr;
    Kestrel::Testing::ObjectCounts counts;

    bool operator==(const BindingState& other) const
    {
        return std::equal(buffers, buffers + kBufferTargetCount, other.buffers) &&
               texture == other.texture && primitive == other.primitive &&
               framebuffer == other.framebuffer && counts == other.counts;
    }
};

inline BindingState ReadBindingState(void* context)
{
    BindingState state;
    for (int i = 0; i < kBufferTargetCount; ++i)
        ksGetBuffer(kBufferTargets[i].binding, &state.buffers[i]);
    ksGetTexture(KS_TEXTURE_BINDING_2D, &state.texture);
    ksGetPrimitive(KS_PRIMITIVE_BINDING, &state.primitive);
    ksGetFramebuffer(KS_FRAMEBUFFER_BINDING, &state.framebuffer);
    state.counts = Kestrel::Testing::CountObjects(context);
    return state;
}

inline _KSbuffer* NewBuffer()
{
    _KSbuffer* buffer = nullptr;
    ksGenBuffers(1, &buffer);
    return buffer;
}

inline _KStexture* NewTexture()
{
    _KStexture* texture = nullptr;
    ksGenTextures(1, &texture);
    return texture;
}

inline _KSframebuffer* NewFramebuffer()
{
    _KSframebuffer* framebuffer = nullptr;
    ksGenFramebuffers(1, &framebuffer);
    return framebuffer;
}

inline KSprimitive NewPrimitive()
{
    KSprimitive primitive = KSprimitive(0);
    ksGenPrimitives(1, &primitive);
    return primitive;
}

// A texture whose storage is `pixels`, so that what the runtime writes into it
// can be read directly. Leaves the texture bound.
inline _KStexture* NewClientTexture(int width, int height, int format, int type, void* pixels)
{
    _KStexture* texture = NewTexture();
    ksBindTexture(KS_TEXTURE_2D, texture);
    ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 1);
    ksTexImage2D(KS_TEXTURE_2D, 0, format, width, height, 0, format, type, pixels);
    ksPixelStorei(KS_UNPACK_CLIENT_STORAGE, 0);
    return texture;
}

// Attaches to (or with null detaches from) the bound frame buffer.
inline void Attach(int index, _KStexture* texture)
{
    ksFramebufferTexture2D(KS_FRAMEBUFFER, KS_COLOR_ATTACHMENT0 + index, KS_TEXTURE_2D, texture, 0);
}

// A fresh context, current for the test and destroyed after it, whose
// notifications land in `_recorder`.
class KestrelFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        _nContextsBefore = Kestrel::Testing::CountContexts();
        _pContext = KestrelCreateContext(nullptr, &NoticeRecorder::Callback, &_recorder);
        ASSERT_NE(_pContext, nullptr);
        ASSERT_EQ(KestrelSetCurrentContext(_pContext), 1);
    }

    void TearDown() override
    {
        Kestrel::Testing::ClearFaults();
        Kestrel::Testing::SetRenderHook(nullptr);
        KestrelDestroyContext(_pContext);
        EXPECT_EQ(Kestrel::Testing::CountContexts(), _nContextsBefore) << "a test leaked a context";
    }

    // No error pending and no notification since the last check.
    ::testing::AssertionResult NoKsError()
    {
        const int error = ksGetError();
        const std::vector<Notice> notices = _recorder.Take();
        if (error != KS_NO_ERROR)
            return ::testing::AssertionFailure() << "pending error " << Hex(error);
        if (!notices.empty())
            return ::testing::AssertionFailure()
                   << notices.size() << " notification(s), first " << Hex(notices[0].code) << " \""
                   << notices[0].message << "\"";
        return ::testing::AssertionSuccess();
    }

    // The last call raised exactly `code`: the first read gives it, the second
    // gives 0, and exactly one notification with that code arrived, whose
    // message names `function` when one is given.
    ::testing::AssertionResult RaisedExactly(int code, const char* function = nullptr)
    {
        const int first = ksGetError();
        const int second = ksGetError();
        const std::vector<Notice> notices = _recorder.Take();
        const bool notified = notices.size() == 1 && notices[0].code == code &&
                              notices[0].detail == nullptr && notices[0].detailSize == 0 &&
                              notices[0].userData == &_recorder &&
                              (!function || notices[0].message.find(function) != std::string::npos);
        if (first == code && second == KS_NO_ERROR && notified)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
               << "ksGetError gave " << Hex(first) << " then " << Hex(second) << ", expected "
               << Hex(code) << " then 0, from " << (function ? function : "the call") << "; "
               << notices.size() << " notification(s)"
               << (notices.empty()
                       ? ""
                       : ", first " + Hex(notices[0].code) + " \"" + notices[0].message + "\"");
    }

    NoticeRecorder _recorder;
    void* _pContext = nullptr;
    int _nContextsBefore = 0;
};

// A fresh texture bound at the 2D target.
class BoundTextureFixture : public KestrelFixture
{
protected:
    void SetUp() override
    {
        KestrelFixture::SetUp();
        _pTexture = NewTexture();
        ksBindTexture(KS_TEXTURE_2D, _pTexture);
        ASSERT_TRUE(NoKsError());
    }

    _KStexture* _pTexture = nullptr;
};

} // namespace KestrelTest

#define EXPECT_NO_KS_ERROR() EXPECT_TRUE(NoKsError())
#define ASSERT_NO_KS_ERROR() ASSERT_TRUE(NoKsError())
#define EXPECT_KS_ERROR(code) EXPECT_TRUE(RaisedExactly(code))
#define EXPECT_KS_ERROR_IN(code, function) EXPECT_TRUE(RaisedExactly(code, function))

#endif // TESTS_KESTREL_KESTREL_FIXTURE_H
