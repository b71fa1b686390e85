#!/usr/bin/env python3
"""Makes the bunny scene of vireo-render, in two steps.

1. --fetch: downloads the npm package `bunny` (1.0.1, public domain: the
   Stanford bunny from the Stanford 3D Scanning Repository, reduced to 1839
   vertices and 3674 triangles) with `npm pack` into a temporary directory
   and converts its positions and faces to
   Examples/vireo-render/scenes/bunny.obj, with smooth vertex normals.
   Run once; the OBJ is committed.
2. Always: builds Examples/vireo-render/scenes/bunnies.gltf from that OBJ:
   a gold bunny beside a glass one on a matte floor, under an area light,
   seen by a camera. Both bunnies read one set of accessors.
"""
import argparse
import base64
import json
import math
import os
import re
import struct
import subprocess
import tarfile
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCENES = os.path.join(ROOT, "Examples", "vireo-render", "scenes")
OBJ = os.path.join(SCENES, "bunny.obj")
GLTF = os.path.join(SCENES, "bunnies.gltf")


def fetch():
    with tempfile.TemporaryDirectory() as temp:
        subprocess.run(["npm", "pack", "bunny@1.0.1"], cwd=temp, check=True,
                       stdout=subprocess.DEVNULL)
        with tarfile.open(os.path.join(temp, "bunny-1.0.1.tgz")) as archive:
            source = archive.extractfile("package/index.js").read().decode()
    arrays = dict(re.findall(r"exports\.(\w+)=(\[.*?\]\])", source, re.S))
    positions = json.loads(arrays["positions"])
    cells = json.loads(arrays["cells"])
    # Face the triangles outwards: the enclosed volume comes out positive.
    volume = sum(dot(p(positions, a), cross(p(positions, b), p(positions, c)))
                 for a, b, c in cells)
    if volume < 0:
        cells = [[a, c, b] for a, b, c in cells]
    normals = vertex_normals(positions, cells)
    with open(OBJ, "w") as out:
        out.write("# The Stanford bunny, from the Stanford 3D Scanning Repository, as the npm\n"
                  "# package 'bunny' 1.0.1 holds it (public domain): positions and faces as\n"
                  "# they are there, faces wound outwards, smooth normals added by\n"
                  "# scripts/make-bunny-scene.py --fetch.\n")
        out.write("o bunny\n")
        for x, y, z in positions:
            out.write(f"v {x:g} {y:g} {z:g}\n")
        for x, y, z in normals:
            out.write(f"vn {x:.5f} {y:.5f} {z:.5f}\n")
        for a, b, c in cells:
            out.write(f"f {a+1}//{a+1} {b+1}//{b+1} {c+1}//{c+1}\n")


def p(points, i):
    return points[i]


def sub(a, b):
    return [a[0] - b[0], a[1] - b[1], a[2] - b[2]]


def dot(a, b):
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]


def cross(a, b):
    return [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]]


def normalise(a):
    length = math.sqrt(dot(a, a)) or 1.0
    return [a[0] / length, a[1] / length, a[2] / length]


def vertex_normals(positions, cells):
    sums = [[0.0, 0.0, 0.0] for _ in positions]
    for a, b, c in cells:
        n = cross(sub(positions[b], positions[a]), sub(positions[c], positions[a]))
        for i in (a, b, c):
            sums[i] = [sums[i][k] + n[k] for k in range(3)]
    return [normalise(n) for n in sums]


def read_obj():
    positions, normals, faces = [], [], []
    with open(OBJ) as f:
        for line in f:
            words = line.split()
            if not words:
                continue
            if words[0] == "v":
                positions.append([float(w) for w in words[1:4]])
            elif words[0] == "vn":
                normals.append([float(w) for w in words[1:4]])
            elif words[0] == "f":
                faces.append([int(w.split("/")[0]) - 1 for w in words[1:4]])
    return positions, normals, faces


def look_at(eye, target, up):
    """A camera node's matrix, column-major: it looks down its -z."""
    back = normalise(sub(eye, target))
    right = normalise(cross(up, back))
    true_up = cross(back, right)
    return right + [0] + true_up + [0] + back + [0] + eye + [1]


def build():
    positions, normals, faces = read_obj()
    # About a unit tall, standing on y = 0.
    low = min(v[1] for v in positions)
    scale = 0.1
    positions = [[x * scale, (y - low) * scale, z * scale] for x, y, z in positions]

    blob = bytearray()
    views, accessors = [], []

    def add(data, target, accessor):
        while len(blob) % 4:
            blob.append(0)
        views.append({"buffer": 0, "byteOffset": len(blob), "byteLength": len(data),
                      "target": target})
        blob.extend(data)
        accessor["bufferView"] = len(views) - 1
        accessors.append(accessor)
        return len(accessors) - 1

    def mesh_accessors(points, vectors, triangles):
        lo = [min(v[k] for v in points) for k in range(3)]
        hi = [max(v[k] for v in points) for k in range(3)]
        pos = add(b"".join(struct.pack("<3f", *v) for v in points), 34962,
                  {"componentType": 5126, "count": len(points), "type": "VEC3",
                   "min": lo, "max": hi})
        nor = add(b"".join(struct.pack("<3f", *v) for v in vectors), 34962,
                  {"componentType": 5126, "count": len(vectors), "type": "VEC3"})
        ind = add(b"".join(struct.pack("<3I", *t) for t in triangles), 34963,
                  {"componentType": 5125, "count": 3 * len(triangles), "type": "SCALAR"})
        return {"attributes": {"POSITION": pos, "NORMAL": nor}, "indices": ind}

    bunny = mesh_accessors(positions, normals, faces)
    quad = [[-1, 0, -1], [1, 0, -1], [1, 0, 1], [-1, 0, 1]]
    up = [[0, 1, 0]] * 4
    floor = mesh_accessors(quad, up, [[0, 2, 1], [0, 3, 2]])
    lamp = mesh_accessors(quad, [[0, -1, 0]] * 4, [[0, 1, 2], [0, 2, 3]])

    gltf = {
        "asset": {"version": "2.0", "generator": "scripts/make-bunny-scene.py"},
        "extensionsUsed": ["KHR_materials_transmission", "KHR_materials_ior",
                           "KHR_materials_emissive_strength"],
        "scene": 0,
        "scenes": [{"nodes": [0, 1, 2, 3, 4]}],
        "nodes": [
            {"name": "gold bunny", "mesh": 0, "translation": [-0.62, 0, -0.1],
             "rotation": [0, math.sin(0.15), 0, math.cos(0.15)]},
            {"name": "glass bunny", "mesh": 1, "translation": [0.62, 0, 0.1],
             "rotation": [0, math.sin(-0.25), 0, math.cos(-0.25)]},
            {"name": "floor", "mesh": 2, "scale": [6, 1, 6]},
            {"name": "lamp", "mesh": 3, "translation": [-1.5, 3.5, 2.0], "scale": [0.6, 1, 0.6]},
            {"name": "camera", "camera": 0,
             "matrix": look_at([0.0, 1.25, 3.3], [0.0, 0.42, 0.0], [0, 1, 0])},
        ],
        "cameras": [{"type": "perspective",
                     "perspective": {"yfov": math.radians(34), "aspectRatio": 4 / 3,
                                     "znear": 0.01}}],
        "meshes": [
            {"name": "bunny in gold", "primitives": [dict(bunny, material=0)]},
            {"name": "bunny in glass", "primitives": [dict(bunny, material=1)]},
            {"name": "floor", "primitives": [dict(floor, material=2)]},
            {"name": "lamp", "primitives": [dict(lamp, material=3)]},
        ],
        "materials": [
            {"name": "gold", "pbrMetallicRoughness": {
                "baseColorFactor": [1.0, 0.766, 0.336, 1], "metallicFactor": 1.0,
                "roughnessFactor": 0.3}},
            {"name": "glass", "pbrMetallicRoughness": {"metallicFactor": 0.0,
                                                       "roughnessFactor": 0.0},
             "extensions": {"KHR_materials_transmission": {"transmissionFactor": 1.0},
                            "KHR_materials_ior": {"ior": 1.5}}},
            {"name": "floor", "pbrMetallicRoughness": {
                "baseColorFactor": [0.55, 0.55, 0.52, 1], "metallicFactor": 0.0,
                "roughnessFactor": 0.9}},
            {"name": "lamp", "emissiveFactor": [1.0, 0.95, 0.85],
             "extensions": {"KHR_materials_emissive_strength": {"emissiveStrength": 12.0}}},
        ],
        "accessors": accessors,
        "bufferViews": views,
        "buffers": [{"byteLength": len(blob),
                     "uri": "data:application/octet-stream;base64,"
                            + base64.b64encode(bytes(blob)).decode()}],
    }
    with open(GLTF, "w") as out:
        json.dump(gltf, out, indent=1)
        out.write("\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--fetch", action="store_true",
                        help="download the npm package and write bunny.obj first")
    args = parser.parse_args()
    os.makedirs(SCENES, exist_ok=True)
    if args.fetch:
        fetch()
    build()


if __name__ == "__main__":
    main()
