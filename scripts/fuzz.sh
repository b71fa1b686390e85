#!/usr/bin/env bash
# Fuzzes the shading language's compiler and linker for a bounded time
# (default 120 s; FUZZ_SECONDS overrides) from the corpus of good sources,
# then vireo-render's scene import for a minute (IMPORT_FUZZ_SECONDS).
# Findings land in build/fuzz/findings; the run fails on the first one.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

seconds="${FUZZ_SECONDS:-120}"
work=build/fuzz/corpus
findings=build/fuzz/findings
mkdir -p "$work" "$findings"
# Each seed gets its kind byte in front, from the kind in its file name.
for seed in Tests/Kestrel/ShaderCorpus/*.ks; do
    case "$seed" in
        *.once.ks) kind='\x00' ;;
        *.vert.ks) kind='\x01' ;;
        *.ray.ks) kind='\x02' ;;
        *.frame.ks) kind='\x03' ;;
        *) continue ;;
    esac
    { printf "$kind"; cat "$seed"; } > "$work/seed-$(basename "$seed")"
done

ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1 \
    build/fuzz/bin/ShaderFuzzer "$work" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
    -artifact_prefix="$findings/" -print_final_stats=1

# The scene import: a format byte in front (0 glTF, 2 OBJ with its MTL after
# a zero byte), seeded from small files that use every feature it reads.
import_work=build/fuzz/import-corpus
mkdir -p "$import_work"
{ printf '\x00'; cat Tests/Fuzz/ImportCorpus/triangle.gltf; } > "$import_work/seed-triangle.gltf"
{ printf '\x02'; cat Tests/Fuzz/ImportCorpus/quad.obj; printf '\x00'; cat Tests/Fuzz/ImportCorpus/quad.mtl; } \
    > "$import_work/seed-quad.obj"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1 \
    build/fuzz/bin/SceneImportFuzzer "$import_work" \
    -max_total_time="${IMPORT_FUZZ_SECONDS:-60}" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
    -artifact_prefix="$findings/import-" -print_final_stats=1
