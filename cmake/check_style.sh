#!/usr/bin/env bash
# What the eye should not have to look for: formatting, shell slips, leftover markers, checks that vanish with NDEBUG, handlers that
# swallow a cancellation, sources that grew too long.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

library=()
for folder in base platform kernel containers memory ipc policy ifm rtm resmgr include; do
    [[ -d $folder ]] && library+=("$folder")
done
everything=("${library[@]}")
for folder in programs examples tests bench fuzz cmake docs; do
    [[ -d $folder ]] && everything+=("$folder")
done
sources=(--include=*.h --include=*.cpp --include=*.c --include=*.inc)
status=0

# refuse WHY GREP_ARGUMENTS... : nothing may match.
refuse() {
    local why=$1 found
    shift
    found=$(grep -rsnE "$@" || true)
    [[ -z $found ]] || { echo "$found: $why" >&2 && status=1; }
}

refuse 'a leftover marker' '\b(TO''DO|FIX''ME|X''XX|HA''CK)\b' "${everything[@]}" README.md zel CMakeLists.txt
refuse 'use hostCheck or zelAssert' '(^|[^_[:alnum:]])assert *\(' "${sources[@]}" "${library[@]}"
refuse 'a cancelled task must unwind' 'catch *\( *\.\.\. *\)' "${sources[@]}" "${library[@]}"

while read -r lines file; do
    ((lines <= 1000)) || [[ $file == total ]] || { echo "$file: $lines lines" >&2 && status=1; }
done < <(find "${everything[@]}" \( -name '*.h' -o -name '*.cpp' -o -name '*.c' -o -name '*.sh' \) -exec wc -l {} +)

find "${everything[@]}" \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) -print0 |
    xargs -0 clang-format-14 --dry-run -Werror || status=1

find zel .ci/run "${everything[@]}" \( -name zel -o -name run -o -name '*.sh' \) -type f -print0 |
    xargs -0 shellcheck || status=1
exit "$status"
