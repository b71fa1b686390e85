#!/usr/bin/env bash
# Runs the fuzz targets one after another for a bounded total time
# (FUZZ_SECONDS, default 180: a minute each), each for its share of it, from its own seed
# corpus. FUZZ_TARGETS picks some of them by name (default: all);
# FUZZ_JOBS=N runs N independent fuzzing processes per target on its one
# corpus (cheaper than libFuzzer's fork mode, which restarts a process every
# few seconds). Findings land in build/fuzz/findings; the run fails if any
# target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

# Seed makers: each fills the directory it is given.

# Shader sources, each with its kind byte in front, from the kind in its
# file name.
seeds_ShaderFuzzer() {
    for seed in Tests/Kestrel/ShaderCorpus/*.ks; do
        case "$seed" in
            *.once.ks) kind='\x00' ;;
            *.vert.ks) kind='\x01' ;;
            *.ray.ks) kind='\x02' ;;
            *.frame.ks) kind='\x03' ;;
            *) continue ;;
        esac
        { printf "$kind"; cat "$seed"; } > "$1/seed-$(basename "$seed")"
    done
}

# Call sequences of the runtime's tests, written by the target itself, and the
# kept corpus that the tests replay (refresh it with -set_cover_merge=1).
seeds_CallStreamFuzzer() {
    CALL_STREAM_SEEDS="$1" build/fuzz/bin/CallStreamFuzzer
    cp Tests/Fuzz/CallStreamCorpus/* "$1/"
}

# Scene files with a format byte in front (0 glTF, 2 OBJ with its MTL after a
# zero byte), small files that use every feature the import reads.
seeds_SceneImportFuzzer() {
    { printf '\x00'; cat Tests/Fuzz/ImportCorpus/triangle.gltf; } > "$1/seed-triangle.gltf"
    { printf '\x02'; cat Tests/Fuzz/ImportCorpus/quad.obj; printf '\x00'
      cat Tests/Fuzz/ImportCorpus/quad.mtl; } > "$1/seed-quad.obj"
}

# name, share of the time (weight), longest input, then flags of its own
# (the call streams run twice as fast without the entropic schedule)
targets=(
    "ShaderFuzzer 1 4096"
    "CallStreamFuzzer 1 512 -entropic=0"
    "SceneImportFuzzer 1 8192"
)

selected="${FUZZ_TARGETS:-}"
total_seconds="${FUZZ_SECONDS:-180}"
weights=0
for entry in "${targets[@]}"; do
    read -r name weight _ <<< "$entry"
    if [[ -z "$selected" || " $selected " == *" $name "* ]]; then
        weights=$((weights + weight))
    fi
done
if ((weights == 0)); then
    echo "fuzz.sh: no target in FUZZ_TARGETS='$selected'" >&2
    exit 2
fi

findings=build/fuzz/findings
mkdir -p "$findings"
failed=()
for entry in "${targets[@]}"; do
    read -r name weight max_len flags <<< "$entry"
    [[ -z "$selected" || " $selected " == *" $name "* ]] || continue
    seconds=$((total_seconds * weight / weights))
    ((seconds > 0)) || seconds=1
    corpus="build/fuzz/corpus/$name"
    mkdir -p "$corpus"
    "seeds_$name" "$corpus"
    jobs=${FUZZ_JOBS:-1}
    echo "== $name for ${seconds}s, $jobs process(es)"
    logs=build/fuzz/logs/$name
    mkdir -p "$logs"
    pids=()
    for ((job = 0; job < jobs; job++)); do
        ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1 \
            "build/fuzz/bin/$name" "$corpus" \
            -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len="$max_len" \
            -artifact_prefix="$findings/$name-" -print_final_stats=1 ${flags:-} \
            > "$logs/$job.log" 2>&1 &
        pids+=($!)
    done
    runs=0
    for ((job = 0; job < jobs; job++)); do
        if ! wait "${pids[job]}"; then
            failed+=("$name")
            tail -n 60 "$logs/$job.log"
        fi
        grep -E '^(#[0-9]+[[:space:]]+DONE|stat::)' "$logs/$job.log" | sed "s/^/  [$job] /"
        n=$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/$job.log")
        runs=$((runs + ${n:-0}))
    done
    echo "== $name: $runs executions in all"
done

if ((${#failed[@]} > 0)); then
    echo "fuzz.sh: findings from ${failed[*]} in $findings" >&2
    exit 1
fi
