#!/usr/bin/env bash
# exports.sh LIBRARY INCLUDE_DIR NAME FAMILY... : the library, lib<NAME>, exports exactly what the public headers of its
# families declare, and depends on nothing but the C and C++ run-time libraries, libcrypto, and the main library.
set -euo pipefail
library=$1 include=$2 name=$3
headers=("${@:4}") && headers=("${headers[@]/%/.h}") && headers=("${headers[@]/#/$include/zel/}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

printf '#include "%s"\n' "${headers[@]}" >"$work/all.c"
gcc -std=gnu11 -I"$include" -aux-info "$work/prototypes" -fsyntax-only "$work/all.c"
{
    for header in "${headers[@]}"; do
        sed -n "s|^/\* $header:.* \*/ extern \(.*\);.*|\1|p" "$work/prototypes" | sed 's/ (.*//; s/.*[ *]//'
        sed -n 's/^extern [^(]*[ *]\([A-Za-z_0-9]*\)\(\[.*\)\?;.*/\1/p' "$header"
    done
} | sort -u >"$work/declared"
nm -D --defined-only "$library" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | sort -u >"$work/exported"

status=0
report() {
    [[ -z $2 ]] || { echo "$1: ${2//$'\n'/ }" && status=1; }
}
report 'declared in a header but not exported' "$(comm -23 "$work/declared" "$work/exported")"
report 'exported but declared in no header' "$(comm -13 "$work/declared" "$work/exported")"
(($(wc -l <"$work/declared") >= 2)) || report 'too few declarations found' "$(wc -l <"$work/declared")"

dynamic=$(readelf -d "$library")
report 'depends on' "$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" |
    grep -vE '^(libc|libm|libstdc\+\+|libgcc_s|libcrypto|libzelSysSsCpRp|ld-linux.*|ld64)\.so\.[0-9]+$' || true)"
grep -q "SONAME.*\\[lib$name\\.so\\.0\\]" <<<"$dynamic" || report 'wrong soname' "$(grep SONAME <<<"$dynamic")"
grep -q 'FLAGS_1.*NODELETE' <<<"$dynamic" || report 'can be unloaded' "$library"
report 'binds to itself or relocates its text' "$(grep -E 'SYMBOLIC|TEXTREL' <<<"$dynamic" || true)"
exit "$status"
