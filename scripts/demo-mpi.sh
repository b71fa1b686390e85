#!/usr/bin/env bash
# The main job on N local MPI processes (default 2): builds the default
# preset and renders the demo scene with vireo-render-mpi into
# vireo-render-mpi.png (640x480, 64 passes), rank r rendering the passes i
# with i mod N == r. Extra arguments go to vireo-render-mpi, e.g.
#   scripts/demo-mpi.sh 3 --threads 1 --exr room.exr
set -euo pipefail
cd "$(dirname "$0")/.."

ranks=${1:-2}
[ $# -gt 0 ] && shift
if ! [[ $ranks =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: scripts/demo-mpi.sh [RANKS] [vireo-render options]" >&2
    exit 2
fi

scripts/install-deps.sh

cmake --preset default
cmake --build --preset default --target vireo-render-mpi vireo-exr-compare
if [ ! -x build/default/bin/vireo-render-mpi ]; then
    echo "vireo-render-mpi was not built: CMake found no MPI (apt-get install libopenmpi-dev openmpi-bin)" >&2
    exit 1
fi

# mpirun refuses root unless told; CI runs as root.
if [ "$(id -u)" = 0 ]; then
    export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
fi
# On Ctrl-C mpirun waits this many seconds, sends the ranks SIGTERM (they
# stop, sum and write), waits as long again and kills what is left. Its
# default, 1, would kill a large frame's ranks while they write.
export OMPI_MCA_odls_base_sigkill_timeout=${OMPI_MCA_odls_base_sigkill_timeout:-5}
exec mpirun --oversubscribe -np "$ranks" build/default/bin/vireo-render-mpi \
    --size 640x480 --passes 64 --output vireo-render-mpi.png "$@"
