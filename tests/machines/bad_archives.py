"""bad_archives.py GOOD DIRECTORY: archives that nobody should trust, and a good one, in a new directory."""
import io
import os
import sys
import tarfile

good, directory = sys.argv[1:]
os.mkdir(directory)
source = tarfile.open(good)
manifest = source.getmember("manifest.json")


def make(name, path, size=1, **members):
    with tarfile.open(f"{directory}/{name}.tar", "w", format=tarfile.GNU_FORMAT) as made:
        made.addfile(manifest, source.extractfile(manifest))
        entry = tarfile.TarInfo(path)
        for key, value in members.items():
            setattr(entry, key, value)
        entry.size = 0 if members else size
        made.addfile(entry, io.BytesIO(b"x"))


make("above", "../outside")
make("absolute", "/outside")
make("device", "dev/nvlog-pod", type=tarfile.CHRTYPE, devmajor=1, devminor=5)
make("hard_link", "dev/nvlog-pod", type=tarfile.LNKTYPE, linkname="/etc/passwd")
make("link", "sys/bus/pci/devices/0000:03:00.0", type=tarfile.SYMTYPE, linkname="/")
make("circle", "sys/bus/pci/devices", type=tarfile.SYMTYPE, linkname="../pci/devices")
with open(good, "rb") as file:
    content = file.read()
for name, text in {"cut": content[:len(content) // 2], "empty": b"", "text": b"no archive\n" * 99}.items():
    with open(f"{directory}/{name}.tar", "wb") as file:
        file.write(text)
with tarfile.open(f"{directory}/foreign.tar", "w") as made:
    made.addfile(tarfile.TarInfo("etc/motd"))
large = tarfile.TarInfo("dev/nvlog-pod")
large.size = 10 << 30
first = content[:512 + -(-manifest.size // 512) * 512] + large.tobuf(tarfile.GNU_FORMAT)
for name, head in {"zeros": b"", "large": first}.items():
    with open(f"{directory}/{name}.tar", "wb") as file:
        file.write(head)
        file.truncate(10 << 30)
os.mkfifo(f"{directory}/pipe.tar")
os.link(good, f"{directory}/zz_good.tar")
