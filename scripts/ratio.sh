#!/usr/bin/env bash
# ratio.sh: lines of code and of tests (non-blank, non-comment lines of C/C++
# and shell under git), and tests as a share of code.
#   test lines: *_test.cpp/.h, *_test_support.*, test-only headers, tests/, fuzz/
#   code lines: everything else (src, platform, tools, bench, scripts, ...)
set -euo pipefail
cd "$(dirname "$0")/.."

count() { # non-blank lines outside // and /* */ comments (C/C++), or # comments (shell)
    awk '
        FNR == 1 { c = (FILENAME ~ /\.(sh|bash)$/ || FILENAME !~ /\./) ? "sh" : "c"; in_block = 0 }
        {
            line = $0
            if (c == "sh") {
                if (line ~ /^[[:space:]]*#/ || line ~ /^[[:space:]]*$/) next
                n++; next
            }
            out = ""
            while (length(line) > 0) {
                if (in_block) {
                    i = index(line, "*/")
                    if (!i) { line = ""; break }
                    line = substr(line, i + 2); in_block = 0
                } else {
                    i = index(line, "/*"); j = index(line, "//")
                    if (j && (!i || j < i)) { out = out substr(line, 1, j - 1); line = ""; break }
                    if (!i) { out = out line; line = ""; break }
                    out = out substr(line, 1, i - 1); line = substr(line, i + 2); in_block = 1
                }
            }
            if (out ~ /[^[:space:]]/) n++
        }
        END { print n + 0 }' "$@"
}

mapfile -t files < <(git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' '*.sh')
tests=() code=()
for f in "${files[@]}"; do
    case "$f" in
    tests/* | fuzz/* | *_test.cpp | *_test.h | *test_support* | *testdata_answers.h) tests+=("$f") ;;
    *) code+=("$f") ;;
    esac
done
c=$(count "${code[@]}")
t=$(count "${tests[@]}")
awk -v c="$c" -v t="$t" 'BEGIN { printf "code %d lines, tests %d lines, tests/code %.0f%%\n", c, t, c ? 100 * t / c : 0 }'
