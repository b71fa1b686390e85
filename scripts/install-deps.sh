#!/usr/bin/env bash
# Installs the Debian packages that the build needs, when run as root and
# something is missing. Otherwise it only says what is missing.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev
          libgtest-dev libgmock-dev libbenchmark-dev libpng-dev
          libembree-dev libtbb-dev libcli11-dev libtinyexr-dev
          libtinygltf-dev libtinyobjloader-dev
          libopenmpi-dev openmpi-bin
          doxygen dpkg-dev file)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
    echo "Missing packages (run as root to install): ${missing[*]}" >&2
    exit 1
fi
