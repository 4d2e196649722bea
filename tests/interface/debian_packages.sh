#!/bin/sh
# debian_packages.sh ROOT: installs the Debian packages in the directory TRIED in ROOT, a fresh Debian
# with nothing else, uses them there, and removes them; what it builds for that is in WORK.
# scripts/package calls it.
set -eu
root=$1
[ -n "${entered:-}" ] || entered=1 exec unshare --mount "$0" "$@"
# A simulated chassis needs its root directory to be a mount, and to write to /proc.
mount --rbind "$root" "$root"
mount -t proc proc "$root/proc"
arch=$(chroot "$root" dpkg --print-architecture)
here() { dpkg-architecture -f -a "$arch" "$@" 2>/dev/null; }
flags=
[ "$arch" != i386 ] || flags=-m32
export CFLAGS="$flags" CXXFLAGS="$flags"
mkdir -p "$WORK" "$root/packages"

cp "$TRIED"/*.deb "$root/packages"
rm "$root"/packages/*-dbgsym_*
chroot "$root" sh -c 'apt-get install -y -qq -o Dpkg::Use-Pty=0 --no-install-recommends /packages/*.deb'

# The tools.
chroot "$root" chassis-sim -- devaccess pci list | grep '^0000:03:00.0'
chroot "$root" chassis-sim -- devaccess podlog show SW2 | grep 'SW2 passed$'

# Clients: the examples that come with the development files, through CMake and pkg-config.
examples=$root/usr/share/doc/libcommon-device-access-dev/examples
cmake -S "$examples" -B "$WORK/examples" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" \
    -DCMAKE_LIBRARY_ARCHITECTURE="$(here -qDEB_HOST_MULTIARCH)" >"$WORK/log"
cmake --build "$WORK/examples" >>"$WORK/log"
mkdir "$root/examples"
find "$WORK/examples" -maxdepth 1 -type f -perm -100 -exec cp -t "$root/examples" {} +
"$examples/run" /examples chroot "$root" chassis-sim

PKG_CONFIG_LIBDIR=$(dirname "$(find "$root/usr/lib" -name common_device_access.pc)")
export PKG_CONFIG_LIBDIR
# shellcheck disable=SC2046,SC2086 # flags are meant to be split
cc $flags "$examples/fpga_block.c" $(pkg-config --cflags --libs common_device_access) \
    -o "$root/examples/client"
chroot "$root" chassis-sim -- /examples/client | grep '0x10 reads 0xf00d0000$'

# Scripts, and their tests with the plugin.
scripts=/usr/share/doc/python3-common-device-access/examples
chroot "$root" chassis-sim -- "$scripts/log_reader.py" SW2 | grep 'SW2 passed$'
chroot "$root" apt-get install -y -qq -o Dpkg::Use-Pty=0 --no-install-recommends python3-pytest
chroot "$root" python3 -B -m pytest -q -p no:cacheprovider "$scripts"

# A package of it depends on the library's, as its symbols say.
dpkg-deb -R "$TRIED"/libcommon-device-access0.0_*.deb "$WORK/library"
mkdir -p "$WORK/client/debian"
printf 'Source: client\n\nPackage: client\nArchitecture: any\n' >"$WORK/client/debian/control"
(cd "$WORK/client" && here -c dpkg-shlibdeps -S"$WORK/library" -O "$root/examples/client") |
    grep 'libcommon-device-access0.0 (>= 0.0'

# Nothing stays behind.
chroot "$root" apt-get purge -y -qq -o Dpkg::Use-Pty=0 --auto-remove libcommon-device-access0.0 common-device-access-tools \
    python3-common-device-access
! find "$root/usr" "$root/etc" "$root/var/lib" -name '*device[_-]access*' | grep .
