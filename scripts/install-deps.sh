#!/bin/bash
# Installs the Debian packages that are missing for: build, demo, test or ci, each with the groups before it; or packages
# with build. Says nothing and needs no privileges when nothing is missing.
#
#   scripts/install-deps.sh GROUP
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
group=${1:-build}

wanted=()
found=0
while read -r name packages; do
    [[ $name == "#"* || -z $name ]] && continue
    [[ $group == packages && $name != build && $name != packages ]] && continue
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

# Prints a line for each tenth of the packages that are got and set up; all of apt's output goes to the log.
show_progress() {
    local total=0 got=0 done=0 line shown=
    while IFS= read -r line; do
        printf '%s\n' "$line" >>"$log"
        case $line in
        *" newly installed, "*) total=$(sed -nE 's/^([0-9]+) upgraded, ([0-9]+) newly.*/\1 + \2/p' <<<"$line") total=$((total)) ;;
        Get:*) got=$((got + 1)) ;;
        "Setting up "*) done=$((done + 1)) ;;
        *) continue ;;
        esac
        ((total)) || continue
        local now="$((10 * got / total)) $((10 * done / total))"
        [[ $now == "$shown" ]] || printf '  packages: %d of %d fetched, %d set up\n' "$((got < total ? got : total))" "$total" "$done"
        shown=$now
    done
}

echo "Installing: ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! {
    "${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get update -qq >"$log" 2>&1 &&
        "${as_root[@]}" DEBIAN_FRONTEND=noninteractive LC_ALL=C apt-get install -y --no-install-recommends \
            "${missing[@]}" </dev/null 2>&1 | show_progress
}; then
    tail -n 30 "$log" >&2
    echo "install-deps: could not install: ${missing[*]}" >&2
    exit 1
fi
