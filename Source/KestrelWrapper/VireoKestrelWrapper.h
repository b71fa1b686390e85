/// \file
/// VireoKestrelWrapper: everything a host needs, in one include.
///
///   Vireo::IMgrKestrel* manager = Vireo::GetMgrKestrel();
///   Vireo::IKestrelContext* context =
///       manager->CreateKestrelContext(console, false, true, nullptr);
///   manager->SetCurrentKestrelContext(context);
///   ... create objects through the context, render, give them back ...
///   manager->DestroyKestrelContext(context);
#ifndef VIREO_KESTRELWRAPPER_VIREOKESTRELWRAPPER_H
#define VIREO_KESTRELWRAPPER_VIREOKESTRELWRAPPER_H

#include "CoreInterfaces/VireoCore.h"
#include "Foundation/AutoConsoleBlock.h"
#include "Foundation/ConditionVariable.h"
#include "Foundation/Event.h"
#include "Foundation/Mutex.h"
#include "Foundation/ReadWriteLock.h"
#include "Foundation/ValueTypes.h"
#include "KestrelApi/Kestrel.h"
#include "KestrelWrapper/FastDelegate.h"
#include "KestrelWrapper/IKSBuffer.h"
#include "KestrelWrapper/IKSPrimitive.h"
#include "KestrelWrapper/IKSProgram.h"
#include "KestrelWrapper/IKSShader.h"
#include "KestrelWrapper/IKestrelContext.h"
#include "KestrelWrapper/IMgrKestrel.h"
#include "KestrelWrapper/KSBufferMapping.h"
#include "KestrelWrapper/KSFrameBuffer.h"
#include "KestrelWrapper/KSFrameBufferAttachment.h"
#include "KestrelWrapper/KSPrimitive.h"
#include "KestrelWrapper/KSShader.h"
#include "KestrelWrapper/KSProgram.h"
#include "KestrelWrapper/KSTexImage.h"
#include "KestrelWrapper/KestrelContextImp.h"
#include "KestrelWrapper/MgrKestrel.h"

#endif // VIREO_KESTRELWRAPPER_VIREOKESTRELWRAPPER_H
