#!/usr/bin/env bash
# The main job: builds the default preset and runs the demo host program.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset default
cmake --build --preset default --target ContextTour
build/default/bin/ContextTour
