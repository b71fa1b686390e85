#!/usr/bin/env bash
# Measures what Benchmarks/RESULTS.md's MPI table reports: passes per second
# of vireo-render-mpi on 1 rank x 2 threads against 2 ranks x 1 thread
# (alternated, ROUNDS times each), the time of one pass per frame size, and
# the time of the reduce per frame size (vireo-reduce-timing on 2 ranks).
# Needs a built default preset with MPI.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/default/bin
rounds=${ROUNDS:-3}
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
run() { # RANKS THREADS SIZE PASSES: prints passes/s of the render
    mpirun --oversubscribe -np "$1" "$bin/vireo-render-mpi" --threads "$2" --size "$3" \
        --passes "$4" --output /tmp/vireo-scaling.png |
        sed -n 's/.* s: \([0-9.]*\) passes\/s$/\1/p'
}
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "passes/s, 640x480, 16 passes:"
for round in $(seq "$rounds"); do
    echo "  round $round: 1 rank x 2 threads $(run 1 2 640x480 16)   2 ranks x 1 thread $(run 2 1 640x480 16)"
done
echo "seconds per pass, 1 rank x 2 threads:"
for job in 640x480:8 1920x1080:4 3840x2160:2; do
    rate=$(run 1 2 "${job%:*}" "${job#*:}")
    echo "  ${job%:*}: $(awk -v r="$rate" 'BEGIN { printf "%.2f", 1 / r }')"
done
echo "reduce:"
mpirun --oversubscribe -np 2 "$bin/vireo-reduce-timing"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
