#!/usr/bin/env bash
# Every public header compiles alone, as C11 and as C++20, pedantically, with each compiler that is installed.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
status=0

compile() {
    "$@" -pedantic -Wall -Wextra -Wshadow -Werror -Iinclude -fsyntax-only - <<<"#include \"$header\"" ||
        { echo "$header: does not compile alone: $*" >&2 && status=1; }
}

for header in include/zel/*.h; do
    header=${header#include/}
    for compiler in gcc clang; do
        command -v "$compiler" >/dev/null || continue
        compile "$compiler" -std=c11 -x c
        compile "$compiler" -std=c++20 -x c++
    done
done
exit "$status"
