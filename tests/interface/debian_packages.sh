#!/bin/sh
# debian_packages.sh ROOT: installs the Debian packages in the directory TRIED in ROOT, a fresh Debian
# with nothing else, uses them there as the tests in SOURCE's debian/tests do, and removes them.
# scripts/package calls it.
set -eu
root=$1
[ -n "${entered:-}" ] || entered=1 exec unshare --mount "$0" "$@"
# A simulated chassis needs its root directory to be a mount, and to write to /proc.
mount --rbind "$root" "$root"
mount -t proc proc "$root/proc"

mkdir "$root/packages"
cp "$TRIED"/*.deb "$root/packages"
rm "$root"/packages/*-dbgsym_*
chroot "$root" sh -c 'apt-get install -y -qq -o Dpkg::Use-Pty=0 --no-install-recommends /packages/*.deb'

# With what they depend on and nothing else.
chroot "$root" chassis-sim -- devaccess pci list | grep '^0000:03:00.0'
# They depend on the library's package in the version that its symbols say.
dpkg-deb --field "$TRIED"/common-device-access-tools_*.deb Depends |
    grep 'libcommon-device-access0.0 (>= 0.0'

# The documents lead to what is there.
find "$root"/usr/share/doc/*common-device-access* -name '*.md' | while read -r page; do
    cd "$(dirname "$page")"
    grep -oE '\]\([^)#:]+' "$page" | cut -c 3- | while read -r link; do
        test -e "$link" || test -e "$root$link" || { echo "$page leads to $link" >&2; exit 1; }
    done
done

# The packages' own tests, with what these ask for besides.
autopkgtest --no-built-binaries "$root"/packages/*.deb "$SOURCE/" -- chroot "$root"

# Nothing stays behind.
cd /
chroot "$root" apt-get purge -y -qq -o Dpkg::Use-Pty=0 --auto-remove \
    '~i~ncommon-device-access' '~i~ndevaccess-'
! find "$root/usr" "$root/etc" "$root/var/lib" -name '*device[_-]access*' -o -name '*devaccess*' | grep .
