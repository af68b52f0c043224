#!/usr/bin/env bash
# run.sh BUILD_DIR SOURCE_DIR : installs the library into a temporary prefix and builds and runs outside programs with
# it, once by the CMake package and once by pkg-config.
set -euo pipefail
build=$1 here=$2/tests/house/consumer
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
pc=$(find "$work/prefix" -name zelSysSsCpRp.pc)
lib=$(dirname "$(dirname "$pc")")

# The consumer's platform query, and not the library's default, must be what the trace line shows.
run() {
    local output
    output=$(LD_LIBRARY_PATH=$lib timeout 60 "$@") || { echo "$*: failed: $output" >&2 && exit 1; }
    grep -q 'CPBLOB:7: seen from C' <<<"$output" || { echo "$*: its slot query was not used: $output" >&2 && exit 1; }
}

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/log" || { cat "$work/log" && exit 1; }
cmake --build "$work/cmake" >"$work/log" || { cat "$work/log" && exit 1; }
run "$work/cmake/consumer_c"
run "$work/cmake/consumer_cpp"

export PKG_CONFIG_PATH=${pc%/*}
read -ra flags < <(pkg-config --cflags --libs zelSysSsCpRp)
cc -std=c11 -Wall -Wextra -Werror -pedantic "$here/consumer.c" "${flags[@]}" -o "$work/c"
c++ -std=c++20 -Wall -Wextra -Werror -pedantic "$here/consumer.cpp" "${flags[@]}" -o "$work/cpp"
run "$work/c"
run "$work/cpp"

read -ra flags < <(pkg-config --cflags --libs zelAclMgr)
cc -std=c11 -Wall -Wextra -Werror -pedantic "$here/writer.c" "${flags[@]}" -o "$work/writer"
for writer in "$work/writer" "$work/cmake/writer"; do
    LD_LIBRARY_PATH=$lib timeout 60 "$writer" || { echo "$writer: failed" >&2 && exit 1; }
done
