#!/usr/bin/env bash
# Includes point downward: a folder may include itself, every lower floor and the public headers, never a neighbour.
# Programs and examples see the public headers and their own folder only. Hosts are told apart in platform/ alone.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

declare -A floor=([rtm]=7 [resmgr]=7 [aclmgr]=7 [ipc]=6 [policy]=6 [ifm]=6 [containers]=5 [memory]=5 [kernel]=4 [platform]=3
    [base]=2 [zel]=1)
status=0

complain() {
    echo "$1: $2" >&2
    status=1
}

# Prints FILE FOLDER for every quoted include of a folder's file.
includes_of() {
    grep -rEo --include='*.h' --include='*.cpp' --include='*.c' --include='*.inc' '^ *# *include *"[^"/]+/' "$1" 2>/dev/null |
        sed -E 's/^([^:]+):.*"([^"\/]+)\/$/\1 \2/' || true
}

for folder in "${!floor[@]}"; do
    [[ $folder == zel ]] && continue
    while read -r file target; do
        [[ $target == "$folder" ]] && continue
        [[ -n ${floor[$target]:-} ]] || { complain "$file" "includes $target/, which is no floor" && continue; }
        ((floor[$target] < floor[$folder])) || complain "$file" "$folder/ must not include $target/"
    done < <(includes_of "$folder")
done

while read -r file target; do
    [[ $target == zel ]] || complain "$file" "a public header includes $target/"
done < <(includes_of include)

while read -r file target; do
    [[ $target == zel || $target == programs ]] || complain "$file" "programs and examples use the public headers, not $target/"
done < <(includes_of programs && includes_of examples)

host='__linux__|__APPLE__|__FreeBSD__|_WIN32|__GLIBC__|__x86_64__|__i386__|__s390x__|__aarch64__|__BYTE_ORDER__'
found=$(grep -rsnE "^ *# *(if|ifdef|ifndef|elif)\b.*\b($host)" --include='*.h' --include='*.cpp' --include='*.c' \
    include base kernel containers memory ipc policy ifm rtm resmgr aclmgr programs examples || true)
[[ -z $found ]] || complain "$found" 'hosts are told apart in platform/ only'
exit "$status"
