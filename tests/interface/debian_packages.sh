#!/bin/sh
# debian_packages.sh SOURCE WORK: makes the Debian packages, installs them in a root directory that
# holds nothing but what they depend on (and the shell and ldconfig, for their scripts), uses them
# there, and removes them. CC and CXX name the compilers of the clients.
set -eu
source=$1 work=$2/debian_packages
root=$work/root
[ -n "${entered:-}" ] || {
    as_root=
    [ "$(id -u)" -eq 0 ] || as_root=--map-root-user
    entered=1 exec unshare --mount $as_root "$0" "$@"
}
rm -rf "$work"
mkdir -p "$work"
DEB_BUILD_OPTIONS=noopt "$source/scripts/package" "$(dpkg --print-architecture)" "$work/packages" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
rm "$work"/packages/*-dbgsym_*

# The names in a list of dependencies; of alternatives, the first.
names() {
    tr ',' '\n' | sed 's/|.*//; s/(.*//; s/:.*//; s/ //g; /^$/d'
}

# add_package NAME: brings an installed package, and what it depends on, into the root.
add_package() {
    case " $present " in *" $1 "*) return 0 ;; esac
    present="$present $1"
    dpkg-query -s "$1" >>"$root/var/lib/dpkg/status"
    echo >>"$root/var/lib/dpkg/status"
    dpkg -L "$1" | while read -r path; do
        if [ -L "$path" ] || [ -f "$path" ]; then echo "$path"; fi
    done | grep -v '^/usr/share/' | cut -c2- | tar -C / -c --no-recursion -T - |
        tar -C "$root" -x --keep-directory-symlink
    [ "${2:-}" = alone ] || for name in $(dpkg-query -W -f '${Pre-Depends},${Depends}' "$1" | names)
    do
        add_package "$name"
    done
}

present=
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
for directory in bin sbin lib lib64; do
    mkdir -p "$root/usr/$directory"
    ln -s "usr/$directory" "$root/$directory"
done
: >"$root/var/lib/dpkg/status"
add_package dash alone
add_package libc-bin alone
ln -sf dash "$root/bin/sh"
for package in "$work"/packages/*.deb; do
    for name in $(dpkg-deb -f "$package" Depends | names); do
        case $name in *common-device-access*) ;; *) add_package "$name" ;; esac
    done
done

mkdir -p "$root/proc" "$root/dev" "$root/sys" "$root/tmp"
mount --bind "$root" "$root"
mount --rbind /proc "$root/proc"
mount --rbind /dev "$root/dev"
dpkg --root="$root" -i "$work"/packages/*.deb >>"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }

# The tools.
chroot "$root" chassis-sim -- devaccess pci list | grep -q '^0000:03:00.0'
test -s "$root/usr/share/man/man1/chassis-sim.1"
test -s "$root/usr/share/man/man3/libuio_open.3"

# Clients: the examples that come with the development files, through CMake and pkg-config.
examples=$(echo "$root"/usr/share/doc/*/examples)
cmake -S "$examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" >>"$work/log"
cmake --build "$work/examples" >>"$work/log"
mkdir "$root/examples"
find "$work/examples" -maxdepth 1 -type f -perm -100 -exec cp -t "$root/examples" {} +
"$examples/run" /examples chroot "$root" chassis-sim

PKG_CONFIG_LIBDIR=$(dirname "$(find "$root/usr/lib" -name common_device_access.pc)")
export PKG_CONFIG_LIBDIR
# shellcheck disable=SC2046 # flags are meant to be split
$CC "$source/tests/interface/client.c" $(pkg-config --cflags --libs common_device_access) \
    -o "$root/examples/client"
chroot "$root" chassis-sim -- /examples/client | grep -q '^1 window, register 0x1234$'

# A package of it depends on the library's, as its symbols say.
dpkg-deb -R "$work"/packages/libcommon-device-access0.0_*.deb "$work/library"
mkdir -p "$work/client/debian"
printf 'Source: client\n\nPackage: client\nArchitecture: any\n' >"$work/client/debian/control"
(cd "$work/client" && dpkg-shlibdeps -S"$work/library" -O "$root/examples/client") |
    grep -q 'libcommon-device-access0.0 (>= 0.0'

dpkg --root="$root" -r libcommon-device-access-dev common-device-access-tools \
    libcommon-device-access0.0 >>"$work/log" 2>&1
! find "$root/usr" -name '*device_access*' | grep .
