// Kestrel: the ray-tracing API under VireoKestrelWrapper.
//
// A state machine in the manner of a fixed-function graphics API: one current
// context per process, generated handles, objects bound to targets, and an
// error that stays pending until ksGetError reads it.
//
// The first half of this header is the API the wrapper is written against:
// 5 context functions, 77 `ks` functions and the constants they take. The
// second half, marked "Runtime additions", is what our own runtime offers
// hosts beyond that; the wrapper never uses it.
#ifndef KESTREL_API_KESTREL_H
#define KESTREL_API_KESTREL_H

#include "KestrelExport.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Handles. Opaque: the runtime hands out ids, never addresses, and never
 * reuses one within a process. Null (or 0 for primitives) means "none".
 * ------------------------------------------------------------------------- */
struct _KSshader;
struct _KSprogram;
struct _KSbuffer;
struct _KStexture;
struct _KSframebuffer;
#ifndef __cplusplus
typedef struct _KSshader _KSshader;
typedef struct _KSprogram _KSprogram;
typedef struct _KSbuffer _KSbuffer;
typedef struct _KStexture _KStexture;
typedef struct _KSframebuffer _KSframebuffer;
#endif

/* A primitive is a 32-bit number from 1 up; 0 is the frame primitive. */
#ifdef __cplusplus
enum KSprimitive : unsigned int
{
};
#else
typedef unsigned int KSprimitive;
#endif

/* Called on every error of a context, synchronously, on the thread that
 * raised it: code, an unused detail pointer (always null), an unused detail
 * size (always 0), a message naming the function and the reason (may be
 * null), and the user data given to KestrelCreateContext. */
typedef void (*KestrelNotificationFunction)(int code, const void* detail, size_t detailSize,
                                            const char* message, void* userData);

/* ---------------------------------------------------------------------------
 * Core constants
 * ------------------------------------------------------------------------- */
#define KS_RENDER_STOPPED 0x0580 /* ksGetError after a stopped frame; not an error */
#define KS_VERSION 0x1F02
#define KS_COLOR_BUFFER_BIT 0x4000
#define KS_HARDWARE_ACCELERATED 0x8000
#define KS_MAX_RAY_DEPTH 0x10302
#define KS_RAY_DEPTH_LIMIT 0x10303
#define KS_FRAME_STATISTIC_1 0x10305 /* double: seconds */
#define KS_FRAME_STATISTIC_2 0x10306 /* double: million rays per second */
#define KS_FRAME_STATISTIC_3 0x10307 /* double: mean path length */
#define KS_FRAME_STATISTIC_4 0x10308 /* long long: primary rays */
#define KS_FRAME_STATISTIC_5 0x10309 /* int: frames rendered by the context */
#define KS_FRAME_STATISTIC_6 0x1030A /* long long: secondary rays */
#define KS_FRAME_STATISTIC_7 0x1030B /* long long: shadow rays */
#define KS_FRAME_STATISTIC_8 0x1030C /* float: fraction of primary rays that hit */
#define KS_PROFILE 0x1030E
#define KS_DIFFERENTIALS_ENABLED 0x10340
#define KS_FILTERED_ACCUMULATES_ENABLED 0x10341

/* Shaders and programs */
#define KS_VERTEX_SHADER 0x8B31
#define KS_COMPILE_STATUS 0x8B81
#define KS_LINK_STATUS 0x8B82
#define KS_SHADER_NAME 0x10115
#define KS_PROGRAM_NAME 0x10116
#define KS_SHADER_LOG 0x10117
#define KS_PROGRAM_LOG 0x10118
#define KS_SHADER_SOURCE 0x10119
#define KS_LINK_ONCE_SHADER 0x10200
#define KS_SHADER_KIND_2 0x10201 /* ray shader: the material */
#define KS_SHADER_KIND_3 0x10203 /* frame shader: camera, background, outputs */

/* Primitives */
#define KS_PRIMITIVE 0x10000
#define KS_PRIMITIVE_BINDING 0x10001
#define KS_PRIMITIVE_NAME 0x10111

/* Buffers and textures */
#define KS_TEXTURE_2D 0x0DE1
#define KS_UNSIGNED_BYTE 0x1401
#define KS_SHORT 0x1402
#define KS_UNSIGNED_SHORT 0x1403
#define KS_INT 0x1404
#define KS_UNSIGNED_INT 0x1405
#define KS_FLOAT 0x1406
#define KS_RGB 0x1907
#define KS_RGBA 0x1908
#define KS_LUMINANCE 0x1909
#define KS_TEXTURE_MAG_FILTER 0x2800
#define KS_TEXTURE_MIN_FILTER 0x2801
#define KS_TEXTURE_WRAP_S 0x2802
#define KS_TEXTURE_WRAP_T 0x2803
#define KS_TEXTURE_BINDING_2D 0x8069
#define KS_ARRAY_BUFFER 0x8892
#define KS_ELEMENT_ARRAY_BUFFER 0x8893
#define KS_ARRAY_BUFFER_BINDING 0x8894
#define KS_ELEMENT_ARRAY_BUFFER_BINDING 0x8895
#define KS_READ_ONLY 0x88B8
#define KS_WRITE_ONLY 0x88B9
#define KS_READ_WRITE 0x88BA
#define KS_STREAM_DRAW 0x88E0
#define KS_STREAM_READ 0x88E1
#define KS_STREAM_COPY 0x88E2
#define KS_STATIC_DRAW 0x88E4
#define KS_STATIC_READ 0x88E5
#define KS_STATIC_COPY 0x88E6
#define KS_DYNAMIC_DRAW 0x88E8
#define KS_DYNAMIC_READ 0x88E9
#define KS_DYNAMIC_COPY 0x88EA
#define KS_PIXEL_PACK_BUFFER 0x88EB
#define KS_PIXEL_UNPACK_BUFFER 0x88EC
#define KS_PIXEL_PACK_BUFFER_BINDING 0x88ED
#define KS_PIXEL_UNPACK_BUFFER_BINDING 0x88EF
#define KS_BUFFER_NAME 0x10113
#define KS_UNIFORM_BLOCK_BUFFER 0x10122
#define KS_UNIFORM_BLOCK_BUFFER_BINDING 0x10123
#define KS_UNPACK_CLIENT_STORAGE 0x10330

/* Frame buffers and the pixel filter */
#define KS_COLOR_ATTACHMENT0_BIT 0x8000 /* shifted left by an attachment index */
#define KS_FRAMEBUFFER_BINDING 0x8CA6
#define KS_COLOR_ATTACHMENT0 0x8CE0
#define KS_FRAMEBUFFER 0x8D40
#define KS_FILTER_SIZE 0x10310
#define KS_FILTER_TABLE_SIZE 0x10311
#define KS_FILTER_TABLE 0x10312
#define KS_MAX_FILTER_TABLE_SIZE 0x10315
#define KS_ATTACHMENT_FILTER 0x10320
#define KS_ATTACHMENT_BLEND_MODE 0x10321
#define KS_BLEND_MODE_0 0x10322 /* the sample replaces the target */
#define KS_BLEND_MODE_1 0x10323 /* the sample multiplies the target */
#define KS_BLEND_MODE_2 0x10324 /* the sample is added to the target */
#define KS_BLEND_MODE_3 0x10325 /* the target keeps the maximum */

/* ---------------------------------------------------------------------------
 * Contexts
 * ------------------------------------------------------------------------- */
/* attributes: null, or (key, value) pairs of long long ending in a 0 key.
 * Null on failure, with nothing leaked. */
KESTREL_EXPORT void* KestrelCreateContext(const long long* attributes,
                                          KestrelNotificationFunction notify, void* userData);
KESTREL_EXPORT void KestrelDestroyContext(void* context);
/* 1 when `context` is live and now current; otherwise 0 and nothing changes. */
KESTREL_EXPORT int KestrelSetCurrentContext(void* context);
/* Safe from any thread at any time, also while ksRenderFrame runs. */
KESTREL_EXPORT void KestrelStopContext(void* context);
KESTREL_EXPORT int KestrelGetHardwareAcceleratorCount(void);

/* ---------------------------------------------------------------------------
 * Errors, state queries, frame parameters, rendering
 * ------------------------------------------------------------------------- */
KESTREL_EXPORT int ksGetError(void);
KESTREL_EXPORT const char* ksGetString(int name);
KESTREL_EXPORT void ksGetBooleanv(int name, int* value);
KESTREL_EXPORT void ksGetIntegerv(int name, int* value);
KESTREL_EXPORT void ksGetLongv(int name, long long* value);
KESTREL_EXPORT void ksGetFloatv(int name, float* value);
KESTREL_EXPORT void ksGetDoublev(int name, double* value);

KESTREL_EXPORT void ksFrameParameter1i(int name, int value);
KESTREL_EXPORT void ksFrameParameter1f(int name, float value);
/* Reads KS_FILTER_TABLE_SIZE squared floats. */
KESTREL_EXPORT void ksFrameParameterfv(int name, const float* values);
KESTREL_EXPORT void ksGetFrameParameteriv(int name, int* value);

KESTREL_EXPORT void ksViewport(int x, int y, int width, int height);
KESTREL_EXPORT void ksClearColor(float red, float green, float blue, float alpha);
KESTREL_EXPORT void ksClear(unsigned int mask);
/* Returns when the frame has finished or was stopped; read the outcome
 * with ksGetError: 0, KS_RENDER_STOPPED or an error. */
KESTREL_EXPORT void ksRenderFrame(void);

/* ---------------------------------------------------------------------------
 * Shaders and programs
 * ------------------------------------------------------------------------- */
KESTREL_EXPORT _KSshader* ksCreateShader(int kind);
KESTREL_EXPORT void ksDeleteShader(_KSshader* shader);
/* lengths may be null: the strings are then zero-terminated. */
KESTREL_EXPORT void ksShaderSource(_KSshader* shader, long long count, const char** strings,
                                   const int* lengths);
KESTREL_EXPORT void ksCompileShader(_KSshader* shader);
KESTREL_EXPORT void ksGetShaderiv(_KSshader* shader, int name, int* value);
KESTREL_EXPORT void ksGetShaderString(_KSshader* shader, int name, const char** value);
KESTREL_EXPORT void ksShaderString(_KSshader* shader, int name, const char* value);

KESTREL_EXPORT _KSprogram* ksCreateProgram(void);
KESTREL_EXPORT void ksDeleteProgram(_KSprogram* program);
KESTREL_EXPORT void ksAttachShader(_KSprogram* program, _KSshader* shader);
KESTREL_EXPORT void ksDetachShader(_KSprogram* program, _KSshader* shader);
KESTREL_EXPORT void ksLinkProgram(_KSprogram* program);
KESTREL_EXPORT void ksGetProgramiv(_KSprogram* program, int name, int* value);
KESTREL_EXPORT void ksGetProgramString(_KSprogram* program, int name, const char** value);
KESTREL_EXPORT void ksProgramString(_KSprogram* program, int name, const char* value);
KESTREL_EXPORT int ksGetUniformLocation(_KSprogram* program, const char* name);
KESTREL_EXPORT int ksGetUniformBlockIndex(_KSprogram* program, const char* name);
KESTREL_EXPORT int ksGetAttribLocation(_KSprogram* program, const char* name);

/* ---------------------------------------------------------------------------
 * Primitives and uniforms. Uniform calls act on the bound primitive.
 * ------------------------------------------------------------------------- */
KESTREL_EXPORT void ksGenPrimitives(int count, KSprimitive* primitives);
KESTREL_EXPORT void ksDeletePrimitives(int count, KSprimitive* primitives);
KESTREL_EXPORT void ksBindPrimitive(int target, KSprimitive primitive);
KESTREL_EXPORT void ksGetPrimitive(int name, KSprimitive* primitive);
KESTREL_EXPORT void ksPrimitiveParameterString(int target, int name, const char* value);

KESTREL_EXPORT void ksUniform1f(int location, float value);
KESTREL_EXPORT void ksUniform1i(int location, int value);
KESTREL_EXPORT void ksUniformt(int location, _KStexture* value);
KESTREL_EXPORT void ksUniformp(int location, KSprimitive value);
KESTREL_EXPORT void ksUniform1fv(int location, long long count, const float* values);
KESTREL_EXPORT void ksUniform2fv(int location, long long count, const float* values);
KESTREL_EXPORT void ksUniform3fv(int location, long long count, const float* values);
KESTREL_EXPORT void ksUniform4fv(int location, long long count, const float* values);
KESTREL_EXPORT void ksUniform1iv(int location, long long count, const int* values);
KESTREL_EXPORT void ksUniform2iv(int location, long long count, const int* values);
KESTREL_EXPORT void ksUniform3iv(int location, long long count, const int* values);
KESTREL_EXPORT void ksUniform4iv(int location, long long count, const int* values);
KESTREL_EXPORT void ksUniformMatrix3fv(int location, long long count, int transpose,
                                       const float* values);
KESTREL_EXPORT void ksUniformMatrix4fv(int location, long long count, int transpose,
                                       const float* values);
KESTREL_EXPORT void ksUniformtv(int location, long long count, _KStexture* const* values);
KESTREL_EXPORT void ksUniformpv(int location, long long count, const KSprimitive* values);
KESTREL_EXPORT void ksUniformBlockBuffer(int index, _KSbuffer* buffer);

/* ---------------------------------------------------------------------------
 * Buffers
 * ------------------------------------------------------------------------- */
KESTREL_EXPORT void ksGenBuffers(int count, _KSbuffer** buffers);
KESTREL_EXPORT void ksDeleteBuffers(int count, _KSbuffer** buffers);
KESTREL_EXPORT void ksBindBuffer(int target, _KSbuffer* buffer);
KESTREL_EXPORT void ksGetBuffer(int name, _KSbuffer** buffer);
KESTREL_EXPORT void ksBufferData(int target, unsigned long long size, const void* data,
                                 int usage);
KESTREL_EXPORT void* ksMapBuffer(int target, int access);
KESTREL_EXPORT void ksUnmapBuffer(int target);
KESTREL_EXPORT void ksGetBufferParameterString(int target, int name, const char** value);

/* ---------------------------------------------------------------------------
 * Textures
 * ------------------------------------------------------------------------- */
KESTREL_EXPORT void ksGenTextures(int count, _KStexture** textures);
KESTREL_EXPORT void ksDeleteTextures(int count, _KStexture** textures);
KESTREL_EXPORT void ksBindTexture(int target, _KStexture* texture);
KESTREL_EXPORT void ksGetTexture(int name, _KStexture** texture);
KESTREL_EXPORT void ksTexImage2D(int target, int level, int internalFormat, int width,
                                 int height, int border, int format, int type,
                                 const void* pixels);
KESTREL_EXPORT void ksTexParameteri(int target, int name, int value);
KESTREL_EXPORT void ksGenerateMipmap(int target);
KESTREL_EXPORT void ksPixelStorei(int name, int value);

/* ---------------------------------------------------------------------------
 * Frame buffers
 * ------------------------------------------------------------------------- */
KESTREL_EXPORT void ksGenFramebuffers(int count, _KSframebuffer** framebuffers);
KESTREL_EXPORT void ksDeleteFramebuffers(int count, _KSframebuffer** framebuffers);
KESTREL_EXPORT void ksBindFramebuffer(int target, _KSframebuffer* framebuffer);
KESTREL_EXPORT void ksGetFramebuffer(int name, _KSframebuffer** framebuffer);
KESTREL_EXPORT void ksFramebufferTexture2D(int target, int attachment, int textureTarget,
                                           _KStexture* texture, int level);
KESTREL_EXPORT void ksFramebufferAttachmentParameter1i(int target, int attachment, int name,
                                                       int value);

/* ===========================================================================
 * Runtime additions: offered by our runtime to hosts, never used by the
 * wrapper.
 * ========================================================================= */

/* Error codes. */
#define KS_NO_ERROR 0
#define KS_INVALID_ENUM 0x0500
#define KS_INVALID_VALUE 0x0501
#define KS_INVALID_OPERATION 0x0502
#define KS_OUT_OF_MEMORY 0x0505

/* Keys of KestrelCreateContext's attribute list. */
#define KS_CONTEXT_RENDER_THREADS 0x10400        /* 0 = one per core (default) */
#define KS_CONTEXT_MAX_RAY_DEPTH 0x10401         /* default 16 */
#define KS_CONTEXT_MAX_FILTER_TABLE_SIZE 0x10402 /* default 64 */

/* Values of ksTexParameteri. */
#define KS_NEAREST 0x2600
#define KS_LINEAR 0x2601
#define KS_LINEAR_MIPMAP_LINEAR 0x2703
#define KS_REPEAT 0x2901
#define KS_CLAMP_TO_EDGE 0x812F
#define KS_MIRRORED_REPEAT 0x8370

/* Integer frame parameter (ksFrameParameter1i, ksGetFrameParameteriv,
 * ksGetIntegerv): the index whose random numbers the next frame draws,
 * 0..INT_MAX. Every frame started moves it on by one, so unless a host sets
 * it, it is the count of frames the context rendered. Processes that share
 * one image's passes give each pass its own index. */
#define KS_FRAME_INDEX 0x10316

/* Gives the bound primitive its program; null takes it away. */
KESTREL_EXPORT void ksUseProgram(_KSprogram* program);
/* Sets KS_BUFFER_NAME of the buffer bound at `target`. */
KESTREL_EXPORT void ksBufferParameterString(int target, int name, const char* value);

#ifdef __cplusplus
}
#endif

#endif /* KESTREL_API_KESTREL_H */
