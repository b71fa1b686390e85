// Shared fixture of the wrapper tests: a context made through the manager on
// a recording console, current for the test and destroyed after it.
#ifndef VIREO_TESTS_KESTRELWRAPPER_WRAPPERFIXTURE_H
#define VIREO_TESTS_KESTRELWRAPPER_WRAPPERFIXTURE_H

#include "KestrelTesting.h"
#include "KestrelWrapper/VireoKestrelWrapper.h"
#include "Support/RecordingConsole.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

namespace WrapperTest
{

using Kestrel::Testing::Calls;
using Vireo::Testing::ConsoleCall;
using Vireo::Testing::RecordingConsole;

// A primitive handle as the call log writes it.
inline std::string Text(KSprimitive handle)
{
    return std::to_string(static_cast<unsigned>(handle));
}

// The Kestrel context behind a wrapper context, as the render hook names it:
// the wrapper keeps its handle to itself.
inline void* KestrelHandleOf(Vireo::IKestrelContext* context)
{
    using Att = Vireo::IKSFrameBufferAttachment;
    std::atomic<void*> handle{nullptr};
    Vireo::IKSFrameBuffer* frameBuffer = context->CreateIKSFrameBuffer();
    if (frameBuffer->Init(1, 1) &&
        frameBuffer->CreateAttachment(0, Att::kF_RGBA, Att::kDT_Float, false, Att::kBM_Mode0,
                                      Vireo::Color4f{}) != nullptr)
    {
        frameBuffer->Bind();
        Kestrel::Testing::AutoRenderHook hook(
            [&handle](void* rendered)
            {
                handle = rendered;
                KestrelStopContext(rendered);
            });
        context->RenderFrame();
        ksBindFramebuffer(KS_FRAMEBUFFER, nullptr);
    }
    context->DestroyIKSFrameBuffer(frameBuffer);
    return handle;
}

class WrapperFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        _pManager = Vireo::GetMgrKestrel();
        _pContext = _pManager->CreateKestrelContext(&_console, false, true, nullptr);
        ASSERT_NE(_pContext, nullptr);
        ASSERT_TRUE(_pManager->SetCurrentKestrelContext(_pContext));
    }

    void TearDown() override
    {
        Kestrel::Testing::ClearFaults();
        Kestrel::Testing::SetRenderHook(nullptr);
        if (_pContext != nullptr)
            _pManager->DestroyKestrelContext(_pContext);
    }

    // Nothing pending in Kestrel: every step of a test leaves a clean state.
    ::testing::AssertionResult NoKsError()
    {
        const int error = ksGetError();
        if (error != 0)
            return ::testing::AssertionFailure() << "pending Kestrel error " << error;
        return ::testing::AssertionSuccess();
    }

    KSprimitive BoundPrimitive()
    {
        KSprimitive bound = KSprimitive(0);
        ksGetPrimitive(KS_PRIMITIVE_BINDING, &bound);
        return bound;
    }

    RecordingConsole _console;
    Vireo::IMgrKestrel* _pManager = nullptr;
    Vireo::IKestrelContext* _pContext = nullptr;
};

} // namespace WrapperTest

#define EXPECT_NO_KS_ERROR() EXPECT_TRUE(NoKsError())

#endif // VIREO_TESTS_KESTRELWRAPPER_WRAPPERFIXTURE_H
