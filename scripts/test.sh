#!/usr/bin/env bash
# Builds the default preset and runs every test.
# As root it first installs what the build needs and is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset default
cmake --build --preset default
ctest --preset default --parallel "$(nproc)"
