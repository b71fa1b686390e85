// Frame buffers and their attachment points.
#include "KestrelApi/Kestrel.h"

#include "Context.h"

using namespace Kestrel;

namespace
{

// The frame buffer bound at `target`: null after raising KS_INVALID_ENUM for
// a target other than KS_FRAMEBUFFER, or KS_INVALID_OPERATION when none is.
FramebufferObject* BoundFramebuffer(ApiCall& call, int target)
{
    if (target != KS_FRAMEBUFFER)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a frame buffer target",
                   static_cast<unsigned>(target));
        return nullptr;
    }
    FramebufferObject* framebuffer = call.Ctx()._framebuffers.Find(call.Ctx()._nBoundFramebuffer);
    if (!framebuffer)
        call.Raise(KS_INVALID_OPERATION, "no frame buffer is bound");
    return framebuffer;
}

// Index of an attachment point, -1 when it is none.
int AttachmentIndex(int attachment)
{
    const int index = attachment - KS_COLOR_ATTACHMENT0;
    return index >= 0 && index < kMaxAttachments ? index : -1;
}

// The index of `attachment` on the frame buffer target, or -1 after raising
// the error that names what is wrong.
int CheckAttachmentPoint(ApiCall& call, int target, int attachment)
{
    if (target != KS_FRAMEBUFFER)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a frame buffer target",
                   static_cast<unsigned>(target));
        return -1;
    }
    const int index = AttachmentIndex(attachment);
    if (index < 0)
        call.Raise(KS_INVALID_ENUM, "0x%x is not an attachment point",
                   static_cast<unsigned>(attachment));
    return index;
}

} // namespace

void ksGenFramebuffers(int count, _KSframebuffer** framebuffers)
{
    ApiCall call("ksGenFramebuffers", {IntArg(count), PtrArg(framebuffers)});
    if (!call.Proceed())
    {
        ClearOutputs(count, framebuffers);
        return;
    }
    if (count < 0 || (count > 0 && !framebuffers))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null output");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        auto framebuffer = std::make_shared<FramebufferObject>();
        framebuffer->_nId = NewId();
        framebuffer->_nSerial = context.NextSerial(kOK_Framebuffer, framebuffer->_nId);
        framebuffers[i] = HandleOf<_KSframebuffer>(framebuffer->_nId);
        context._framebuffers.Add(std::move(framebuffer));
    }
}

void ksDeleteFramebuffers(int count, _KSframebuffer** framebuffers)
{
    ApiCall call("ksDeleteFramebuffers", {IntArg(count), PtrArg(framebuffers)});
    if (!call.Proceed())
        return;
    if (count < 0 || (count > 0 && !framebuffers))
    {
        call.Raise(KS_INVALID_VALUE, count < 0 ? "negative count" : "null input");
        return;
    }
    Context& context = call.Ctx();
    for (int i = 0; i < count; ++i)
    {
        const Id id = IdOf(framebuffers[i]);
        if (!call.CheckDeletable(kOK_Framebuffer, id))
            continue;
        context._framebuffers.Remove(id);
        if (context._nBoundFramebuffer == id)
            context._nBoundFramebuffer = 0;
    }
}

void ksBindFramebuffer(int target, _KSframebuffer* framebuffer)
{
    ApiCall call("ksBindFramebuffer", {EnumArg(target, kCS_Target), HandleArg(framebuffer)});
    if (!call.Proceed())
        return;
    if (target != KS_FRAMEBUFFER)
        call.Raise(KS_INVALID_ENUM, "0x%x is not a frame buffer target",
                   static_cast<unsigned>(target));
    else if (call.CheckBindable(kOK_Framebuffer, IdOf(framebuffer)))
        call.Ctx()._nBoundFramebuffer = IdOf(framebuffer);
}

void ksGetFramebuffer(int name, _KSframebuffer** framebuffer)
{
    ApiCall call("ksGetFramebuffer", {EnumArg(name, kCS_Target), PtrArg(framebuffer)});
    _KSframebuffer* result = nullptr;
    if (call.Proceed())
    {
        if (name != KS_FRAMEBUFFER_BINDING)
            call.Raise(KS_INVALID_ENUM, "0x%x is not the frame buffer binding",
                       static_cast<unsigned>(name));
        else if (!framebuffer)
            call.Raise(KS_INVALID_VALUE, "null output");
        else
            result = HandleOf<_KSframebuffer>(call.Ctx()._nBoundFramebuffer);
    }
    if (framebuffer)
        *framebuffer = result;
}

void ksFramebufferTexture2D(int target, int attachment, int textureTarget, _KStexture* texture,
                            int level)
{
    ApiCall call("ksFramebufferTexture2D",
                 {EnumArg(target, kCS_Target), EnumArg(attachment, kCS_Attachment),
                  EnumArg(textureTarget, kCS_Target), HandleArg(texture), IntArg(level)});
    if (!call.Proceed())
        return;
    const int index = CheckAttachmentPoint(call, target, attachment);
    if (index < 0)
        return;
    if (textureTarget != KS_TEXTURE_2D)
    {
        call.Raise(KS_INVALID_ENUM, "0x%x is not a texture target",
                   static_cast<unsigned>(textureTarget));
        return;
    }
    if (level != 0)
    {
        call.Raise(KS_INVALID_VALUE, "level %d is not 0", level);
        return;
    }
    if (!call.CheckBindable(kOK_Texture, IdOf(texture)))
        return;
    FramebufferObject* framebuffer = BoundFramebuffer(call, target);
    if (!framebuffer)
        return;
    framebuffer->_points[static_cast<std::size_t>(index)]._nTexture = IdOf(texture);
}

void ksFramebufferAttachmentParameter1i(int target, int attachment, int name, int value)
{
    ApiCall call("ksFramebufferAttachmentParameter1i",
                 {EnumArg(target, kCS_Target), EnumArg(attachment, kCS_Attachment),
                  EnumArg(name, kCS_AttachmentParameter), EnumArg(value, kCS_AttachmentValue)});
    if (!call.Proceed())
        return;
    const int index = CheckAttachmentPoint(call, target, attachment);
    if (index < 0)
        return;
    switch (name)
    {
    case KS_ATTACHMENT_FILTER:
        if (value != 0 && value != 1)
        {
            call.Raise(KS_INVALID_VALUE, "filter %d is neither 0 nor 1", value);
            return;
        }
        break;
    case KS_ATTACHMENT_BLEND_MODE:
        if (value < KS_BLEND_MODE_0 || value > KS_BLEND_MODE_3)
        {
            call.Raise(KS_INVALID_ENUM, "0x%x is not a blend mode", static_cast<unsigned>(value));
            return;
        }
        break;
    default:
        call.Raise(KS_INVALID_ENUM, "0x%x is not an attachment parameter",
                   static_cast<unsigned>(name));
        return;
    }
    FramebufferObject* framebuffer = BoundFramebuffer(call, target);
    if (!framebuffer)
        return;
    AttachmentPoint& point = framebuffer->_points[static_cast<std::size_t>(index)];
    if (name == KS_ATTACHMENT_FILTER)
        point._nFilter = value;
    else
        point._eBlendMode = value;
}
