#!/usr/bin/env bash
# Builds the default preset and makes the Debian packages with CPack: the
# runtime package (the three libraries) and the -dev package (headers, CMake
# package, pkg-config file, testing interface), in build/packages.
# As root it first installs what it needs; otherwise it names what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset default
cmake --build --preset default
rm -rf build/packages
cpack -G DEB --config build/default/CPackConfig.cmake -B build/packages
for deb in build/packages/*.deb; do
    echo "$deb: Depends: $(dpkg-deb -f "$deb" Depends)"
done
