#!/usr/bin/env bash
# The API reference: installs the default build into build/docs/prefix and
# runs Doxygen over the installed headers into build/docs/html. Every public
# name needs a doc comment: an undocumented one fails the run.
# As root it first installs what it needs; otherwise it names what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset default
cmake --build --preset default --target VireoKestrelWrapper
rm -rf build/docs
cmake --install build/default --prefix build/docs/prefix --component Development
cmake --install build/default --prefix build/docs/prefix --component Testing
VIREO_VERSION=$(sed -n 's/^#define VIREO_VERSION_STRING "\(.*\)"$/\1/p' \
    build/docs/prefix/include/Vireo/VireoVersion.h)
export VIREO_VERSION
doxygen docs/Doxyfile
echo "API reference: build/docs/html/index.html"
