/// \file
/// Kestrel: the ray-tracing API under VireoKestrelWrapper.
///
/// A state machine in the manner of a fixed-function graphics API: one current
/// context per process, generated handles, objects bound to targets, and an
/// error that stays pending until ksGetError reads it.
///
/// The first half of this header is the API the wrapper is written against:
/// 5 context functions, 77 `ks` functions and the constants they take. The
/// second half, marked "Runtime additions", is what our own runtime offers
/// hosts beyond that; the wrapper never uses it.
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
/// Handle of a shader; made by ksCreateShader.
struct _KSshader;
/// Handle of a program; made by ksCreateProgram.
struct _KSprogram;
/// Handle of a buffer; made by ksGenBuffers.
struct _KSbuffer;
/// Handle of a 2D texture; made by ksGenTextures.
struct _KStexture;
/// Handle of a frame buffer; made by ksGenFramebuffers.
struct _KSframebuffer;
#ifndef __cplusplus
typedef struct _KSshader _KSshader;
typedef struct _KSprogram _KSprogram;
typedef struct _KSbuffer _KSbuffer;
typedef struct _KStexture _KStexture;
typedef struct _KSframebuffer _KSframebuffer;
#endif

#ifdef __cplusplus
/// Number of a primitive, from 1 up; 0 is the frame primitive. Made by
/// ksGenPrimitives.
enum KSprimitive : unsigned int
{
};
#else
typedef unsigned int KSprimitive;
#endif

/** Called on every error of a context, synchronously, on the thread that
 * raised it: code, an unused detail pointer (always null), an unused detail
 * size (always 0), a message naming the function and the reason (may be
 * null), and the user data given to KestrelCreateContext. */
typedef void (*KestrelNotificationFunction)(int code, const void* detail, size_t detailSize,
                                            const char* message, void* userData);

/* ---------------------------------------------------------------------------
 * Core constants
 * ------------------------------------------------------------------------- */
/// \name Core constants
/// @{

/// Names of the state that ksGetString, ksGet… and ksFrameParameter… read and
/// set, and the colour bit of ksClear.
#define KS_RENDER_STOPPED 0x0580 /**< ksGetError after a stopped frame; not an error */
#define KS_VERSION 0x1F02
#define KS_COLOR_BUFFER_BIT 0x4000
#define KS_HARDWARE_ACCELERATED 0x8000
#define KS_MAX_RAY_DEPTH 0x10302
#define KS_RAY_DEPTH_LIMIT 0x10303
#define KS_FRAME_STATISTIC_1 0x10305 /**< double: seconds */
#define KS_FRAME_STATISTIC_2 0x10306 /**< double: million rays per second */
#define KS_FRAME_STATISTIC_3 0x10307 /**< double: mean path length */
#define KS_FRAME_STATISTIC_4 0x10308 /**< long long: primary rays */
#define KS_FRAME_STATISTIC_5 0x10309 /**< int: frames rendered by the context */
#define KS_FRAME_STATISTIC_6 0x1030A /**< long long: secondary rays */
#define KS_FRAME_STATISTIC_7 0x1030B /**< long long: shadow rays */
#define KS_FRAME_STATISTIC_8 0x1030C /**< float: fraction of primary rays that hit */
#define KS_PROFILE 0x1030E
#define KS_DIFFERENTIALS_ENABLED 0x10340
#define KS_FILTERED_ACCUMULATES_ENABLED 0x10341

/// @}

/// \name Shader and program constants
/// @{

/// Shader kinds of ksCreateShader, and the names that ksGetShaderiv,
/// ksGetShaderString, ksShaderString and their program sisters read and set.
#define KS_VERTEX_SHADER 0x8B31
#define KS_COMPILE_STATUS 0x8B81
#define KS_LINK_STATUS 0x8B82
#define KS_SHADER_NAME 0x10115
#define KS_PROGRAM_NAME 0x10116
#define KS_SHADER_LOG 0x10117
#define KS_PROGRAM_LOG 0x10118
#define KS_SHADER_SOURCE 0x10119
#define KS_LINK_ONCE_SHADER 0x10200
#define KS_SHADER_KIND_2 0x10201 /**< ray shader: the material */
#define KS_SHADER_KIND_3 0x10203 /**< frame shader: camera, background, outputs */

/// @}

/// \name Primitive constants
/// @{

/// The primitive target, its binding query and the name parameter.
#define KS_PRIMITIVE 0x10000
#define KS_PRIMITIVE_BINDING 0x10001
#define KS_PRIMITIVE_NAME 0x10111

/// @}

/// \name Buffer and texture constants
/// @{

/// Targets, binding queries, pixel formats and types, texture parameters,
/// map access and buffer usages, as ksBindBuffer, ksBufferData, ksMapBuffer,
/// ksTexImage2D, ksTexParameteri and ksPixelStorei take them.
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

/// @}

/// \name Frame-buffer and pixel-filter constants
/// @{

/// The frame-buffer target and attachments, the pixel filter of
/// ksFrameParameter…, and the blend modes by which an attachment takes each
/// sample.
#define KS_COLOR_ATTACHMENT0_BIT 0x8000 /**< shifted left by an attachment index */
#define KS_FRAMEBUFFER_BINDING 0x8CA6
#define KS_COLOR_ATTACHMENT0 0x8CE0
#define KS_FRAMEBUFFER 0x8D40
#define KS_FILTER_SIZE 0x10310
#define KS_FILTER_TABLE_SIZE 0x10311
#define KS_FILTER_TABLE 0x10312
#define KS_MAX_FILTER_TABLE_SIZE 0x10315
#define KS_ATTACHMENT_FILTER 0x10320
#define KS_ATTACHMENT_BLEND_MODE 0x10321
#define KS_BLEND_MODE_0 0x10322 /**< the sample replaces the target */
#define KS_BLEND_MODE_1 0x10323 /**< the sample multiplies the target */
#define KS_BLEND_MODE_2 0x10324 /**< the sample is added to the target */
#define KS_BLEND_MODE_3 0x10325 /**< the target keeps the maximum */
/// @}

/* ---------------------------------------------------------------------------
 * Contexts
 * ------------------------------------------------------------------------- */
/// Makes a context for the host; not current until KestrelSetCurrentContext.
/// `attributes`: null, or (key, value) pairs of long long ending in a 0 key.
/// Null on failure, with nothing leaked.
KESTREL_EXPORT void* KestrelCreateContext(const long long* attributes,
                                          KestrelNotificationFunction notify, void* userData);
/// Destroys a context and every object in it.
KESTREL_EXPORT void KestrelDestroyContext(void* context);
/// Makes `context` the one that every `ks` call of the process acts on: 1 when
/// it is live and now current; otherwise 0 and nothing changes.
KESTREL_EXPORT int KestrelSetCurrentContext(void* context);
/// Stops the frame that `context` is rendering, if any. Safe from any thread
/// at any time, also while ksRenderFrame runs.
KESTREL_EXPORT void KestrelStopContext(void* context);
/// How many hardware accelerators the runtime can render on (0: none).
KESTREL_EXPORT int KestrelGetHardwareAcceleratorCount(void);

/* ---------------------------------------------------------------------------
 * Errors, state queries, frame parameters, rendering
 * ------------------------------------------------------------------------- */
/// Takes the pending error of the current context: its code, or 0 for none.
KESTREL_EXPORT int ksGetError(void);
/// Text of the state `name` (KS_VERSION, KS_PROFILE); owned by the runtime.
KESTREL_EXPORT const char* ksGetString(int name);
/// \name State queries
/// @{

/// Reads the state `name` into `value`, as the type the function is named for.
KESTREL_EXPORT void ksGetBooleanv(int name, int* value);
KESTREL_EXPORT void ksGetIntegerv(int name, int* value);
KESTREL_EXPORT void ksGetLongv(int name, long long* value);
KESTREL_EXPORT void ksGetFloatv(int name, float* value);
KESTREL_EXPORT void ksGetDoublev(int name, double* value);
/// @}

/// Sets the frame parameter `name` (ray depth, pixel filter) to `value`.
KESTREL_EXPORT void ksFrameParameter1i(int name, int value);
/// Sets the frame parameter `name` (filter size) to `value`.
KESTREL_EXPORT void ksFrameParameter1f(int name, float value);
/// Sets a table-valued frame parameter (KS_FILTER_TABLE): reads
/// KS_FILTER_TABLE_SIZE squared floats.
KESTREL_EXPORT void ksFrameParameterfv(int name, const float* values);
/// Reads the frame parameter `name` into `value`.
KESTREL_EXPORT void ksGetFrameParameteriv(int name, int* value);

/// Sets the rectangle of the frame buffer that the next frame renders.
KESTREL_EXPORT void ksViewport(int x, int y, int width, int height);
/// Sets the colour that ksClear writes.
KESTREL_EXPORT void ksClearColor(float red, float green, float blue, float alpha);
/// Clears the attachments of the bound frame buffer that `mask` names.
KESTREL_EXPORT void ksClear(unsigned int mask);
/// Renders a frame of the current context into the bound frame buffer. Returns
/// when the frame has finished or was stopped; read the outcome with
/// ksGetError: 0, KS_RENDER_STOPPED or an error.
KESTREL_EXPORT void ksRenderFrame(void);

/* ---------------------------------------------------------------------------
 * Shaders and programs
 * ------------------------------------------------------------------------- */
/// Makes a shader of `kind` (KS_VERTEX_SHADER, KS_SHADER_KIND_2, …); null on
/// failure.
KESTREL_EXPORT _KSshader* ksCreateShader(int kind);
/// Deletes a shader; programs it is attached to keep what they linked.
KESTREL_EXPORT void ksDeleteShader(_KSshader* shader);
/// Replaces the source of a shader with `count` strings; `lengths` may be
/// null: the strings are then zero-terminated.
KESTREL_EXPORT void ksShaderSource(_KSshader* shader, long long count, const char** strings,
                                   const int* lengths);
/// Compiles the shader's source; KS_COMPILE_STATUS and KS_SHADER_LOG tell how.
KESTREL_EXPORT void ksCompileShader(_KSshader* shader);
/// Reads an integer state of a shader, e.g. KS_COMPILE_STATUS.
KESTREL_EXPORT void ksGetShaderiv(_KSshader* shader, int name, int* value);
/// Reads a text of a shader (name, log, source); owned by the runtime.
KESTREL_EXPORT void ksGetShaderString(_KSshader* shader, int name, const char** value);
/// Sets a text of a shader, e.g. KS_SHADER_NAME.
KESTREL_EXPORT void ksShaderString(_KSshader* shader, int name, const char* value);

/// Makes an empty program; null on failure.
KESTREL_EXPORT _KSprogram* ksCreateProgram(void);
/// Deletes a program; primitives using it lose it.
KESTREL_EXPORT void ksDeleteProgram(_KSprogram* program);
/// Attaches a shader to a program for its next link.
KESTREL_EXPORT void ksAttachShader(_KSprogram* program, _KSshader* shader);
/// Detaches a shader from a program.
KESTREL_EXPORT void ksDetachShader(_KSprogram* program, _KSshader* shader);
/// Links the attached shaders; KS_LINK_STATUS and KS_PROGRAM_LOG tell how.
KESTREL_EXPORT void ksLinkProgram(_KSprogram* program);
/// Reads an integer state of a program, e.g. KS_LINK_STATUS.
KESTREL_EXPORT void ksGetProgramiv(_KSprogram* program, int name, int* value);
/// Reads a text of a program (name, log); owned by the runtime.
KESTREL_EXPORT void ksGetProgramString(_KSprogram* program, int name, const char** value);
/// Sets a text of a program, e.g. KS_PROGRAM_NAME.
KESTREL_EXPORT void ksProgramString(_KSprogram* program, int name, const char* value);
/// Location of a uniform of a linked program, or -1.
KESTREL_EXPORT int ksGetUniformLocation(_KSprogram* program, const char* name);
/// Index of a uniform block of a linked program, or -1.
KESTREL_EXPORT int ksGetUniformBlockIndex(_KSprogram* program, const char* name);
/// Location of an attribute of a linked program, or -1.
KESTREL_EXPORT int ksGetAttribLocation(_KSprogram* program, const char* name);

/* ---------------------------------------------------------------------------
 * Primitives and uniforms. Uniform calls act on the bound primitive.
 * ------------------------------------------------------------------------- */
/// Makes `count` primitives into `primitives`.
KESTREL_EXPORT void ksGenPrimitives(int count, KSprimitive* primitives);
/// Deletes `count` primitives; 0 entries are skipped.
KESTREL_EXPORT void ksDeletePrimitives(int count, KSprimitive* primitives);
/// Binds a primitive at KS_PRIMITIVE; uniform calls then act on it.
KESTREL_EXPORT void ksBindPrimitive(int target, KSprimitive primitive);
/// Reads the bound primitive (KS_PRIMITIVE_BINDING).
KESTREL_EXPORT void ksGetPrimitive(int name, KSprimitive* primitive);
/// Sets a text of the bound primitive, e.g. KS_PRIMITIVE_NAME.
KESTREL_EXPORT void ksPrimitiveParameterString(int target, int name, const char* value);

/// \name Uniform setters
/// @{

/// Sets the uniform at `location` of the bound primitive's program to the
/// value or `count` values given, of the type the function is named for.
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
/// @}

/// Makes `buffer` the contents of uniform block `index` of the bound primitive.
KESTREL_EXPORT void ksUniformBlockBuffer(int index, _KSbuffer* buffer);

/* ---------------------------------------------------------------------------
 * Buffers
 * ------------------------------------------------------------------------- */
/// Makes `count` buffers into `buffers`.
KESTREL_EXPORT void ksGenBuffers(int count, _KSbuffer** buffers);
/// Deletes `count` buffers; null entries are skipped.
KESTREL_EXPORT void ksDeleteBuffers(int count, _KSbuffer** buffers);
/// Binds a buffer at a buffer target (KS_ARRAY_BUFFER, …); null unbinds.
KESTREL_EXPORT void ksBindBuffer(int target, _KSbuffer* buffer);
/// Reads the buffer bound at a target, by its binding query.
KESTREL_EXPORT void ksGetBuffer(int name, _KSbuffer** buffer);
/// Gives the buffer bound at `target` new storage of `size` bytes, copied
/// from `data` unless null.
KESTREL_EXPORT void ksBufferData(int target, unsigned long long size, const void* data,
                                 int usage);
/// Maps the buffer bound at `target` into host memory; null on failure.
KESTREL_EXPORT void* ksMapBuffer(int target, int access);
/// Ends the mapping of the buffer bound at `target`.
KESTREL_EXPORT void ksUnmapBuffer(int target);
/// Reads the buffer bound at a target, by its binding query.
KESTREL_EXPORT void ksGetBufferParameterString(int target, int name, const char** value);

/* ---------------------------------------------------------------------------
 * Textures
 * ------------------------------------------------------------------------- */
/// Makes `count` textures into `textures`.
KESTREL_EXPORT void ksGenTextures(int count, _KStexture** textures);
/// Deletes `count` textures; null entries are skipped.
KESTREL_EXPORT void ksDeleteTextures(int count, _KStexture** textures);
/// Binds a texture at KS_TEXTURE_2D; null unbinds.
KESTREL_EXPORT void ksBindTexture(int target, _KStexture* texture);
/// Reads the bound texture (KS_TEXTURE_BINDING_2D).
KESTREL_EXPORT void ksGetTexture(int name, _KStexture** texture);
/// Gives the bound texture an image of `width` x `height` pixels from
/// `pixels`; under KS_UNPACK_CLIENT_STORAGE the texture uses the host's memory.
KESTREL_EXPORT void ksTexImage2D(int target, int level, int internalFormat, int width,
                                 int height, int border, int format, int type,
                                 const void* pixels);
/// Sets a filter or wrap parameter of the bound texture.
KESTREL_EXPORT void ksTexParameteri(int target, int name, int value);
/// Makes the smaller levels of the bound texture from its image.
KESTREL_EXPORT void ksGenerateMipmap(int target);
/// Sets how ksTexImage2D takes pixels, e.g. KS_UNPACK_CLIENT_STORAGE.
KESTREL_EXPORT void ksPixelStorei(int name, int value);

/* ---------------------------------------------------------------------------
 * Frame buffers
 * ------------------------------------------------------------------------- */
/// Makes `count` frame buffers into `framebuffers`.
KESTREL_EXPORT void ksGenFramebuffers(int count, _KSframebuffer** framebuffers);
/// Deletes `count` frame buffers; null entries are skipped.
KESTREL_EXPORT void ksDeleteFramebuffers(int count, _KSframebuffer** framebuffers);
/// Binds the frame buffer that frames render into; null unbinds.
KESTREL_EXPORT void ksBindFramebuffer(int target, _KSframebuffer* framebuffer);
/// Reads the bound frame buffer (KS_FRAMEBUFFER_BINDING).
KESTREL_EXPORT void ksGetFramebuffer(int name, _KSframebuffer** framebuffer);
/// Makes a texture the attachment `attachment` of the bound frame buffer.
KESTREL_EXPORT void ksFramebufferTexture2D(int target, int attachment, int textureTarget,
                                           _KStexture* texture, int level);
/// Sets a parameter of an attachment: its pixel filter or blend mode.
KESTREL_EXPORT void ksFramebufferAttachmentParameter1i(int target, int attachment, int name,
                                                       int value);

/* ===========================================================================
 * Runtime additions: offered by our runtime to hosts, never used by the
 * wrapper.
 * ========================================================================= */

/// \name Error codes
/// @{

/// What ksGetError gives and the notification function receives.
#define KS_NO_ERROR 0
#define KS_INVALID_ENUM 0x0500
#define KS_INVALID_VALUE 0x0501
#define KS_INVALID_OPERATION 0x0502
#define KS_OUT_OF_MEMORY 0x0505

/// @}

/// \name Context attributes
/// @{

/// Keys of KestrelCreateContext's attribute list.
#define KS_CONTEXT_RENDER_THREADS 0x10400 /**< 0 = one per core (default) */
#define KS_CONTEXT_MAX_RAY_DEPTH 0x10401 /**< default 16 */
#define KS_CONTEXT_MAX_FILTER_TABLE_SIZE 0x10402 /**< default 64 */

/// @}

/// \name Texture parameter values
/// @{

/// Filters and wrap modes that ksTexParameteri takes.
#define KS_NEAREST 0x2600
#define KS_LINEAR 0x2601
#define KS_LINEAR_MIPMAP_LINEAR 0x2703
#define KS_REPEAT 0x2901
#define KS_CLAMP_TO_EDGE 0x812F
#define KS_MIRRORED_REPEAT 0x8370
/// @}

/// Integer frame parameter (ksFrameParameter1i, ksGetFrameParameteriv,
/// ksGetIntegerv): the index whose random numbers the next frame draws,
/// 0..INT_MAX. Every frame started moves it on by one, so unless a host sets
/// it, it is the count of frames the context rendered. Processes that share
/// one image's passes give each pass its own index.
#define KS_FRAME_INDEX 0x10316

/// Gives the bound primitive its program; null takes it away.
KESTREL_EXPORT void ksUseProgram(_KSprogram* program);
/// Sets KS_BUFFER_NAME of the buffer bound at `target`.
KESTREL_EXPORT void ksBufferParameterString(int target, int name, const char* value);

#ifdef __cplusplus
}
#endif

#endif /* KESTREL_API_KESTREL_H */
