#!/bin/bash
# Tries the packages as a user would: they are installed, used, and removed without a trace. As root.
#
#   packaging/try-packages.sh PACKAGE_DIR [CHROOT_DIR]  in a fresh chroot; made with debootstrap unless it is there
#   packaging/try-packages.sh --here PACKAGE_DIR        on a copy of this system that lies in memory and ends with the
#                                                       script: in a minute and without a network, but what a package
#                                                       forgets to ask for may be there
#   packaging/try-packages.sh --here                    only whether that can be done here: status 0, or 1 and the reason
set -euo pipefail
here=
if [[ ${1:-} == --here ]]; then
    here=1
    shift
fi
case ${1:-} in
-h | --help)
    sed -n '2,8p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
-*)
    echo "try-packages: unknown argument '$1' (see --help)" >&2
    exit 2
    ;;
esac
[[ -n $here || $# -gt 0 ]] || { echo "try-packages: no directory of packages named (see --help)" >&2; exit 2; }
# Mounts of a namespace end with its last process, however that ends.
if [[ -n $here && -z ${RUK_TRY_IN_NAMESPACE:-} ]]; then
    ((EUID == 0)) || { echo "try-packages: not root" >&2; exit 1; }
    exec env RUK_TRY_IN_NAMESPACE=1 unshare --mount --propagation private "${BASH_SOURCE[0]}" --here "$@"
fi

inside() { chroot "$root" env DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }

# This system as the lower layer, what is written in memory above it. What does not come with Debian is left out.
copy_this_system() {
    for layers in /mnt /media /srv ''; do # one that hides nothing
        [[ -d $layers && -z $(ls -A "$layers") ]] && break
    done
    root=$layers/root
    [[ -n $layers ]] && mount -t tmpfs tmpfs "$layers" &&
        mkdir "$layers/upper" "$layers/work" "$root" &&
        mount -t overlay overlay -o "lowerdir=/,upperdir=$layers/upper,workdir=$layers/work" "$root" &&
        mount -t tmpfs tmpfs "$root/tmp" &&
        mount -t tmpfs tmpfs "$root/usr/local" &&
        mount --rbind /proc "$root/proc" &&
        mount --rbind /sys "$root/sys" &&
        mount --rbind /dev "$root/dev" &&
        inside bash -euc '
            for program in dpkg ldconfig gcc g++ cmake make pkg-config ip; do command -v $program; done
            command -v man || command -v mman
            test -e /usr/include/gtest/gtest.h
            unshare -n ip link add oxel0 type veth peer name peer0
        ' >/dev/null || return
    # Containers leave pages and documents out; an index of all pages is not needed; mandoc's program has another name.
    rm -rf "$root/etc/dpkg/dpkg.cfg.d" "$root/var/lib/man-db/auto-update"
    [[ -e $root/usr/bin/man ]] || install -m 755 <(printf '#!/bin/sh\nexec mman "$@"\n') "$root/usr/bin/man"
}
if [[ -n $here ]] && ! copy_this_system; then
    echo "try-packages: no copy of this system can be made, or it lacks what the packages are tried with" >&2
    exit 1
fi
[[ -n $here && $# -eq 0 ]] && exit 0

packages=$(realpath "$1")
# Tells what a command said only when it failed.
quietly() {
    local log=$packages/try.log
    "$@" >"$log" 2>&1 && return
    tail -n 30 "$log" >&2
    echo "try-packages: failed: $*" >&2
    return 1
}

make_chroot() { # [CHROOT_DIR]
    root=${1:-}
    leave() {
        for mounted in proc sys dev; do
            umount -q -l -R "$root/$mounted" || true
        done
    }
    if [[ -z $root ]]; then
        root=$(mktemp -d)
        trap 'leave; rm -rf --one-file-system "$root"' EXIT
    else
        trap leave EXIT
    fi
    if [[ ! -e $root/etc/debian_version ]]; then
        echo "Making a chroot ..."
        command -v debootstrap >/dev/null || {
            echo "try-packages: debootstrap is missing; scripts/install-deps.sh packages installs it" >&2
            exit 1
        }
        quietly debootstrap --variant=minbase bookworm "$root"
        for file in sources.list sources.list.d apt.conf.d; do # as this machine gets its packages
            [[ -e /etc/apt/$file ]] && cp -r "/etc/apt/$file" "$root/etc/apt/"
        done
        cp /etc/resolv.conf "$root/etc/" 2>/dev/null || true
    fi
    mount -t proc proc "$root/proc"
    mount --rbind --make-rslave /sys "$root/sys" 2>/dev/null || true
    mount --bind /dev "$root/dev"
    quietly inside apt-get update -qq
    # What users have already: compilers, man, and a test library.
    quietly inside apt-get install -y -qq --no-install-recommends g++ libc6-dev pkg-config cmake make iproute2 man-db \
        bash-completion libgtest-dev
}
[[ -n $here ]] || make_chroot "${2:-}"

# The packages in /tmp/debs by these names.
install_packages() {
    local files
    mapfile -t files < <(cd "$root" && for name in "$@"; do ls tmp/debs/"$name"_*.deb; done)
    if [[ -n $here ]]; then
        quietly inside dpkg --force-unsafe-io -i "${files[@]/#//}"
    else
        quietly inside apt-get install -y -qq --no-install-recommends "${files[@]/#//}"
    fi
}
purge() {
    if [[ -n $here ]]; then
        quietly inside dpkg --force-unsafe-io --purge "$@"
    else
        quietly inside apt-get purge -y -qq "$@"
        quietly inside apt-get autoremove -y -qq --purge
    fi
}

# Everything but what apt and dpkg keep about packages, and caches that others keep; of a copy what differs from the
# original, where a directory that is there as well does not.
files() {
    if [[ -n $here ]]; then
        (cd "$layers/upper" && find . -mindepth 1 \( -path ./var/lib/dpkg -o -path ./var/cache -o -path ./var/log \) -prune \
            -o -printf '%y /%P\n') | while read -r kind path; do
            [[ $kind == d && -d $path ]] || echo "$path"
        done | sort
        return
    fi
    inside find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /var/lib/apt -o -path /var/lib/dpkg \
        -o -path /var/cache -o -path /var/log \) -prune -o -print | sort
}

inside rm -f /etc/ld.so.cache && inside ldconfig
files >"$packages/before"

rm -rf "$root/tmp/debs"
mkdir "$root/tmp/debs"
cp "$packages"/*.deb "$root/tmp/debs/"

# A package with what it depends on, and nothing else, has its programs and the pages that they refer to.
for package in ruk-tools ruk-softnic; do
    echo "Trying $package alone ..."
    install_packages libruk0 "$package"
    inside bash -euc '
        for program in $(dpkg -L "$0" | grep ^/usr/bin/); do
            "$program" --version
            man -w 1 "${program##*/}" >/dev/null
        done
        for page in ruk ruk-environment ruk-timestamps ruk-softnic; do man -w 7 "$page" >/dev/null; done
        test -r /usr/share/doc/libruk0/docs/hazards.md -a -r /usr/share/doc/libruk0/docs/operating.md
    ' "$package"
    purge libruk0 "$package"
done

echo "Installing ..."
install_packages libruk0 libruk-dev ruk-tools ruk-softnic

echo "Using ..."
cat >"$root/tmp/use.c" <<'C'
#include <ruk.h>
#include <stdio.h>

int main(void)
{
    int rc = ruk_init(RUK_API_VERSION);
    printf("ruk_init: %d\n", rc);
    return rc;
}
C
mkdir -p "$root/tmp/cmake-user"
cat >"$root/tmp/cmake-user/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES C CXX)
find_package(ruk 0.1 REQUIRED)
add_executable(shared ../use.c)
target_link_libraries(shared PRIVATE ruk::ruk)
add_executable(static ../use.c)
target_link_libraries(static PRIVATE ruk::ruk_static)
find_package(ruk 0.1 REQUIRED COMPONENTS softnic)
add_executable(adapter ../adapter_consumer.c)
target_link_libraries(adapter PRIVATE ruk::softnic ruk::ruk)
CMAKE
cp "$(dirname "${BASH_SOURCE[0]}")/../tests/abi/adapter_consumer.c" "$root/tmp/"
inside bash -euc '
    cd /tmp
    gcc -Wall -Werror use.c -o use-shared $(pkg-config --cflags --libs ruk)
    gcc -Wall -Werror use.c -o use-static $(pkg-config --cflags ruk) -l:libruk.a
    for example in /usr/share/doc/libruk-dev/examples/*.c; do
        gcc -Wall -Wextra -Werror "$example" -o "example-$(basename "$example" .c)" $(pkg-config --cflags --libs ruk) -pthread
    done
    g++ -std=c++20 -Wall -Wextra -Werror /usr/share/doc/libruk-dev/examples/cplusplus.cpp -o example-cplusplus \
        $(pkg-config --cflags --libs ruk)
    g++ -std=c++20 /usr/share/doc/libruk-dev/examples/market_data/*.cpp -o market-data-test $(pkg-config --cflags --libs ruk-softnic) -lgtest -lgtest_main
    ./market-data-test --gtest_brief=1
    cmake -S /usr/share/doc/libruk-dev/examples/market_data -B market-data >/dev/null
    cmake --build market-data >/dev/null
    market-data/example-market-data-test --gtest_brief=1
    gcc -std=gnu11 adapter_consumer.c -o adapter $(pkg-config --cflags --libs ruk-softnic)
    ./adapter
    gcc -std=gnu11 -DWITH_CAPTURE adapter_consumer.c -o adapter-capture -lsoftnic_capture -lsoftnic_tap \
        $(pkg-config --cflags --libs ruk-softnic)
    ./adapter-capture
    cmake -S cmake-user -B cmake-build >/dev/null
    cmake --build cmake-build >/dev/null
    cmake-build/adapter

    ruk-info --version
    for name in rukrun $(cd /usr/bin && ls -d ruk-*); do
        $name --help >/dev/null
        man -w "$name" >/dev/null
        ( . /usr/share/bash-completion/completions/$name && complete -p $name >/dev/null )
    done
    for document in $(find -L /usr/share/doc/libruk0 /usr/share/doc/libruk-dev /usr/share/doc/ruk-tools -name "*.md"); do
        for target in $(grep -o "]([^)#:]*" "$document" | cut -c3-); do
            test -e "${document%/*}/$target" || { echo "$document: no $target"; exit 1; }
        done
    done
    test "$(readlink -f "$(man -w 3 ruk_open_if)")" = "$(readlink -f "$(man -w 3 ruk_open)")"
    for page in ruk_recvfrom ruk_send_connect ruk_mcast_join_source tov_getifaddrs; do
        MANPAGER=cat man 3 $page | sed "s/.\x08//g" | grep -q "EXAMPLES"
    done
    for page in ruk ruk-timestamps ruk-environment ruk-softnic; do
        MANPAGER=cat man 7 $page | sed "s/.\x08//g" | grep -q "SEE ALSO"
    done
    if ldd use-static | grep libruk; then exit 1; fi
    unshare -n sh -euc "
        ip link add oxel0 address 02:6f:78:00:00:01 type veth peer name peer0
        ip addr add 10.77.0.1/24 dev oxel0
        ip link set oxel0 up
        ip link set peer0 up
        ip link set lo up
        for program in ./use-shared ./use-static cmake-build/shared cmake-build/static; do
            rukrun --soft -- \$program
        done
        rukrun --soft -- ruk-info
        rukrun --soft -- ruk-send -i oxel0 10.77.0.255:9 -m broadcast -n 3
        rukrun --soft -- ruk-recv -i oxel0 -p 5000 -t 0.2
        rukrun --soft -- ./example-send oxel0 10.77.0.255 9 text
        for try in 1 2 3 4 5 6 7 8 9 10; do # links take a moment to come up
            status=0
            rukrun --soft -- ruk-info --doctor >doctor || status=\$?
            test \$status -ge 2 || break
            sleep 0.5
        done
        ! grep ^failure doctor
    "
'

echo "Removing ..."
purge libruk0 libruk-dev ruk-tools ruk-softnic
files >"$packages/after"
if left=$(comm -13 "$packages/before" "$packages/after" | grep -v '^/root' | grep .); then
    echo "left behind: $left"
    exit 1
fi
if left=$(inside dpkg-query -W -f '${Package} ${db:Status-Status}\n' | grep -E '^(lib)?ruk' | grep -v 'not-installed'); then
    echo "dpkg still knows: $left"
    exit 1
fi
echo "packages: ok"
