#!/bin/bash
# Builds the Debian packages libruk0, libruk-dev, ruk-tools and ruk-softnic from what is committed, and checks them
# with lintian.
#
#   packaging/build-packages.sh [OUTPUT_DIR]        build-packages when none is named
set -euo pipefail
case ${1:-} in
-h | --help)
    sed -n '2,5p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
-*)
    echo "build-packages: unknown argument '$1' (see --help)" >&2
    exit 2
    ;;
esac
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
output=$(realpath -m "${1:-$root/build-packages}")
"$root/scripts/install-deps.sh" packages

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/ruk" "$output"
git -C "$root" archive HEAD | tar -x -C "$work/ruk"
cp -r "$work/ruk/packaging/debian" "$work/ruk/debian"

RUK_REVISION=$(git -C "$root" rev-parse --short=12 HEAD)
export RUK_REVISION
echo "Building ..."
if ! (cd "$work/ruk" && DEB_BUILD_OPTIONS="parallel=2${CI:+ terse}" dpkg-buildpackage -b -us -uc) >"$output/build.log" 2>&1; then
    tail -n 40 "$output/build.log" >&2
    echo "build-packages: failed; all of it is in $output/build.log" >&2
    exit 1
fi
rm -f "$output"/*.deb
mv "$work"/*.deb "$output"
echo "Checking ..."
lintian --fail-on error "$output"/*.deb
ls -l "$output"/*.deb | awk '{print $5, $9}'
