#!/usr/bin/env bash
# The same passes rendered in one process and shared by MPI ranks give the
# same float image, the sums differing only in the order of addition.
#   mpi-test.sh VIREO_RENDER VIREO_RENDER_MPI EXR_COMPARE MPIRUN WORK_DIR
set -euo pipefail
plain=$1 mpi=$2 compare=$3 mpirun=$4 dir=$5
mkdir -p "$dir"
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 OMPI_MCA_rmaps_base_oversubscribe=1
common=(--size 24x16 --threads 1)
# MPI's own libraries do not free what they hold at exit, and unload their
# plug-ins first, so their leaks cannot be told apart by name: under the
# leak checker the ranks skip it (the single-process runs keep it). Under the
# race checker, MPI's libraries are left out; one machine needs no TCP.
here=$(cd "$(dirname "$0")" && pwd)
mpi_env=(env "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
    "TSAN_OPTIONS=${TSAN_OPTIONS:+$TSAN_OPTIONS:}suppressions=$here/mpi-tsan.supp"
    OMPI_MCA_btl=self,vader)

render() { # NAME RANKS PASSES: RANKS 0 is the plain program
    local out=("$dir/$1.png" --exr "$dir/$1.exr" --visibility "$dir/$1-visibility.png")
    if [ "$2" = 0 ]; then
        "$plain" "${common[@]}" --passes "$3" --output "${out[@]}" >"$dir/$1.log"
    else
        "${mpi_env[@]}" "$mpirun" -np "$2" "$mpi" "${common[@]}" --passes "$3" --output "${out[@]}" >"$dir/$1.log"
        grep -q "^$2 ranks, $3 passes" "$dir/$1.log"
    fi
}

same() { # A B
    "$compare" "$dir/$1.exr" "$dir/$2.exr"
    # Visibility sums whole numbers: exact in any order.
    cmp "$dir/$1-visibility.png" "$dir/$2-visibility.png"
}

render plain 0 8
for ranks in 1 2 3; do
    render "ranks$ranks" "$ranks" 8
    same plain "ranks$ranks"
done

# More ranks than passes: the idle ones add nothing.
render plain2 0 2
render ranks3-passes2 3 2
same plain2 ranks3-passes2

# Ranks given different scenes refuse, all of them, and say why.
if "${mpi_env[@]}" "$mpirun" -np 1 "$mpi" "${common[@]}" --passes 2 --output "$dir/x.png" --scene room : \
    -np 1 "$mpi" "${common[@]}" --passes 2 --output "$dir/x.png" --scene spheres \
    >"$dir/disagree.log" 2>&1; then
    echo "ranks with different scenes rendered"
    exit 1
fi
grep -q "rank 1 was given another scene than rank 0" "$dir/disagree.log"
echo "MPI renders equal the single-process render"
