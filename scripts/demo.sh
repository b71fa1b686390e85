#!/usr/bin/env bash
# The main job: builds the default preset and renders the demo scene with
# vireo-render into vireo-render.png (a 640x480 image, 64 passes). Extra
# arguments go to vireo-render, e.g. --passes 256 --exr room.exr.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset default
cmake --build --preset default --target vireo-render
build/default/bin/vireo-render --size 640x480 --passes 64 --output vireo-render.png "$@"
