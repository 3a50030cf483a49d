#!/usr/bin/env bash
# fuzz.sh [seconds]: builds the libFuzzer targets of fuzz/ with clang in
# build/fuzz and runs each on a scratch copy of its seed corpus, the time
# (default 42 s) shared between them. Fails when a target finds a crash; the
# input that caused it is left in build/fuzz/crashes/.
set -euo pipefail
cd "$(dirname "$0")/.."

total=${1:-42}
cmake -S . -B build/fuzz -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWWANCTL_FUZZ=ON -DWWANCTL_TESTS=OFF -DWWANCTL_BENCH=OFF >/dev/null
mapfile -t targets < <(grep -v '^$' build/fuzz/fuzz/targets.txt)
[ ${#targets[@]} -gt 0 ] || { echo "fuzz: no targets" >&2; exit 1; }
ninja -C build/fuzz "${targets[@]}"

per=$((total / ${#targets[@]}))
[ "$per" -ge 1 ] || per=1
mkdir -p build/fuzz/crashes
status=0
for t in "${targets[@]}"; do
    work=$(mktemp -d)
    seeds="fuzz/corpus/${t%_fuzz}"
    [ -d "$seeds" ] && cp -r "$seeds/." "$work/"
    echo "== fuzz $t for ${per} s"
    if ! "build/fuzz/fuzz/$t" -max_total_time="$per" -close_fd_mask=1 -artifact_prefix=build/fuzz/crashes/ "$work" \
        >"build/fuzz/$t.log" 2>&1; then
        tail -n 60 "build/fuzz/$t.log"
        echo "fuzz: $t crashed" >&2
        status=1
    else
        grep -E '^(#[0-9]+ +DONE|Done)' "build/fuzz/$t.log" | tail -n 1 || true
    fi
    rm -rf "$work"
done
exit $status
