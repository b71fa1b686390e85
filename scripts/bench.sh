#!/usr/bin/env bash
# Builds the default preset and runs the benchmarks: three repetitions of
# each, then the summary table of library against reference.
# Extra arguments go to the benchmark binary, e.g. --benchmark_filter=Setter.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset default >/dev/null
cmake --build --preset default --target VireoBenchmarks

build/default/bin/VireoBenchmarks \
    --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true \
    --benchmark_min_time=0.2 \
    --benchmark_color=false \
    "$@"
