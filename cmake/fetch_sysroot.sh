#!/usr/bin/env bash
# fetch_sysroot.sh ARCHITECTURE DIRECTORY : unpacks what a foreign build needs (libcrypto, GoogleTest, JSON) into
# DIRECTORY. A package state of its own keeps the host's package manager out of it: the architecture is not enabled there.
set -euo pipefail
architecture=$1
mkdir -p "$2"
root=$(readlink -f "$2")
[[ ! -e $root/complete ]] || exit 0

state=$root/state
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs"
: >"$state/status"
options=(-qq -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture" -o "Dir::State=$state"
    -o "Dir::State::lists=$state/lists" -o "Dir::State::status=$state/status" -o "Dir::Cache=$state/cache"
    -o APT::Sandbox::User=root)

# A mirror may lack one index for a while; the download says whether the others suffice.
apt-get "${options[@]}" update || echo "$0: some package lists are missing" >&2
(cd "$state/debs" && apt-get "${options[@]}" download libssl-dev libssl3 libgtest-dev libgmock-dev nlohmann-json3-dev)
for package in "$state"/debs/*.deb; do
    dpkg-deb -x "$package" "$root"
done
rm -rf "$state"
touch "$root/complete"
