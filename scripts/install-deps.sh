#!/bin/bash
# Installs the Debian packages that are missing for: build, demo, test or ci, each with the groups before it.
# Says nothing and needs no privileges when nothing is missing.
#
#   scripts/install-deps.sh GROUP
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
group=${1:-build}

wanted=()
found=0
while read -r name packages; do
    [[ $name == "#"* || -z $name ]] && continue
    read -ra list <<<"$packages"
    wanted+=("${list[@]}")
    if [[ $name == "$group" ]]; then
        found=1
        break
    fi
done <"$here/packages.txt"
if ((!found)); then
    echo "install-deps: unknown group '$group'" >&2
    exit 2
fi

if ! command -v dpkg-query >/dev/null; then
    echo "install-deps: not a Debian system; needed are: ${wanted[*]}" >&2
    exit 0
fi

missing=()
for package in "${wanted[@]}"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $status == installed* ]] || missing+=("$package")
done
((${#missing[@]})) || exit 0

as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "install-deps: missing packages: ${missing[*]}" >&2
        echo "install-deps: neither root nor sudo; as root: apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
    [[ -t 0 ]] || as_root=(sudo -n)
    as_root+=(env)
else
    as_root=(env)
fi

echo "Installing: ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! {
    "${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get update -qq &&
        "${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
} </dev/null >"$log" 2>&1; then
    tail -n 30 "$log" >&2
    echo "install-deps: could not install: ${missing[*]}" >&2
    exit 1
fi
