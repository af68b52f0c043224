#!/usr/bin/env bash
# readme.sh SOURCE_DIR : the program that the README shows is examples/hello.cpp, and the folders of its map exist.
# shellcheck disable=SC2016  # the backquotes are the README's
set -euo pipefail
cd "$1"
diff <(sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d') examples/hello.cpp
sed -n '/^## Map$/,$p' README.md | sed -n 's/^| \([^|]*\) |.*/\1/p' | grep -o '`[^`]*/`' | tr -d '`' | while read -r folder; do
    [[ -d $folder ]] || { echo "README.md: no folder $folder" >&2 && exit 1; }
done
