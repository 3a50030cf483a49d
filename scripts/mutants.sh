#!/usr/bin/env bash
# mutants.sh: plants each fault listed in scripts/mutants.txt in turn, rebuilds,
# runs the test suite and reports which tests caught it. The source is restored
# after each fault (and on exit), so the tree ends as it started.
#   scripts/mutants.sh [-b BUILD_DIR] [-j JOBS] [N...]   N: 1-based fault numbers
# BUILD_DIR is a configured build (default build/release, made when missing).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/release jobs=4
while getopts b:j: o; do
    case $o in
    b) build=$OPTARG ;;
    j) jobs=$OPTARG ;;
    *) echo "usage: $0 [-b BUILD_DIR] [-j JOBS] [N...]" >&2; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
[ -f "$build/build.ninja" ] || scripts/build.sh release >/dev/null

mapfile -t faults < <(grep -v '^#' scripts/mutants.txt | grep -v '^$')
picked=("$@")
[ ${#picked[@]} -gt 0 ] || mapfile -t picked < <(seq 1 ${#faults[@]})

saved=""
restore() { [ -z "$saved" ] || { cp "$saved" "${saved%.mutant-orig}"; rm -f "$saved"; saved=""; }; }
trap restore EXIT INT TERM

missed=0
for n in "${picked[@]}"; do
    IFS=$'\t' read -r file from to what <<<"${faults[n - 1]}"
    cp "$file" "$file.mutant-orig"
    saved="$file.mutant-orig"
    FROM=$from TO=$to perl -pi -e 's/\Q$ENV{FROM}\E/$ENV{TO}/' "$file"
    if cmp -s "$file" "$saved"; then
        echo "$n. $what: NOT PLANTED (text not found in $file)"
        restore; missed=1; continue
    fi
    if ! ninja -C "$build" -j "${NINJA_JOBS:-2}" >/tmp/mutant-build.$$ 2>&1; then
        echo "$n. $what: caught by the build"
        restore; continue
    fi
    failed=$(ctest --test-dir "$build" -j "$jobs" --timeout 120 2>/dev/null |
        sed -nE 's/^[[:space:]]+[0-9]+ - (.*) \([^)]*\)$/\1/p' || true)
    if [ -n "$failed" ]; then
        echo "$n. $what: caught by $(wc -l <<<"$failed") tests: $(head -4 <<<"$failed" | tr '\n' ' ')"
    else
        echo "$n. $what: MISSED"
        missed=1
    fi
    restore
done
rm -f /tmp/mutant-build.$$
ninja -C "$build" -j "${NINJA_JOBS:-2}" >/dev/null
exit $missed
