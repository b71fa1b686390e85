// What the glTF and OBJ halves of the import share; never seen by the host.
#ifndef VIREO_EXAMPLES_RENDER_IMPORT_DETAIL_H
#define VIREO_EXAMPLES_RENDER_IMPORT_DETAIL_H

#include "Import.h"

#include <string>

namespace VireoRender
{
namespace Detail
{

// Decodes a PNG or JPEG held in memory to RGBA8; false with `error` set.
bool DecodeImage(const unsigned char* bytes, std::size_t size, ImportedImage* image,
                 std::string* error);

// Checks a finished mesh: indices in range, positions finite, whole
// triangles; false with `error` set.
bool CheckMesh(const ImportedMesh& mesh, std::string* error);

// Places a camera in front of the bounds of every instance (looking down -z)
// when the file gave none.
void FrameBounds(SceneDescription* scene);

// The first line of a loader's message, without trailing white space.
std::string FirstLine(const std::string& text);

Vireo::Matrix44f Identity();

// The two loaders of files; `error` does not name the file.
bool LoadGltfFile(const std::string& path, bool binary, int camera, SceneDescription* scene,
                  std::string* error);
bool LoadObjFile(const std::string& path, SceneDescription* scene, std::string* error);

} // namespace Detail
} // namespace VireoRender

#endif // VIREO_EXAMPLES_RENDER_IMPORT_DETAIL_H
