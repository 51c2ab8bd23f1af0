#!/bin/bash
# Tries the packages as a user would: in a fresh chroot they are installed, used, and removed without a trace.
#
#   packaging/try-packages.sh PACKAGE_DIR [CHROOT_DIR]     as root; CHROOT_DIR is made with debootstrap unless it is there
set -euo pipefail
packages=$(realpath "$1")
root=${2:-}
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
    debootstrap --variant=minbase bookworm "$root" >"$packages/debootstrap.log" 2>&1
    for file in sources.list sources.list.d apt.conf.d; do # as this machine gets its packages
        [[ -e /etc/apt/$file ]] && cp -r "/etc/apt/$file" "$root/etc/apt/"
    done
    cp /etc/resolv.conf "$root/etc/" 2>/dev/null || true
fi
mount -t proc proc "$root/proc"
mount --rbind --make-rslave /sys "$root/sys" 2>/dev/null || true
mount --bind /dev "$root/dev"
inside() { chroot "$root" env DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }

inside apt-get update -qq
inside apt-get install -y -qq --no-install-recommends gcc libc6-dev pkg-config iproute2 >/dev/null 2>&1
inside find / -xdev -path /proc -prune -o -path /sys -prune -o -path /tmp -prune -o -path /var -prune -o -print | sort >"$packages/before"

echo "Installing ..."
rm -rf "$root/tmp/debs"
mkdir "$root/tmp/debs"
cp "$packages"/*.deb "$root/tmp/debs/"
inside sh -c 'apt-get install -y -qq --no-install-recommends /tmp/debs/*.deb' >/dev/null 2>&1

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
inside sh -euc '
    cd /tmp
    gcc -Wall -Werror use.c -o use-shared $(pkg-config --cflags --libs ruk)
    gcc -Wall -Werror use.c -o use-static $(pkg-config --cflags ruk) -l:libruk.a
    ruk-info --version
    for name in rukrun ruk-recv ruk-send ruk-ping ruk-capture ruk-top; do $name --help >/dev/null; done
    ! ldd use-static | grep -q libruk
    unshare -n sh -euc "
        ip link add oxel0 address 02:6f:78:00:00:01 type veth peer name peer0
        ip addr add 10.77.0.1/24 dev oxel0
        ip link set oxel0 up
        ip link set peer0 up
        ip link set lo up
        rukrun --soft -- ./use-shared
        rukrun --soft -- ./use-static
        rukrun --soft -- ruk-info
        rukrun --soft -- ruk-send -i oxel0 10.77.0.255:9 -m broadcast -n 3
        rukrun --soft -- ruk-recv -i oxel0 -p 5000 -t 0.2
    "
'

echo "Removing ..."
inside apt-get purge -y -qq libruk0 libruk-dev ruk-tools ruk-softnic >/dev/null 2>&1
inside apt-get autoremove -y -qq --purge >/dev/null 2>&1
inside find / -xdev -path /proc -prune -o -path /sys -prune -o -path /tmp -prune -o -path /var -prune -o -print | sort >"$packages/after"
if left=$(comm -13 "$packages/before" "$packages/after" | grep -v -E '^/(etc/ld.so.cache|root)' | grep .); then
    echo "left behind: $left"
    exit 1
fi
echo "packages: ok"
