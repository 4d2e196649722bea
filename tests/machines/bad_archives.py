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
first = content[:512 + -(-manifest.size // 512) * 512]
end = -(-len(content.rstrip(b"\0")) // 512) * 512


def link(name, target):
    entry = tarfile.TarInfo(name)
    entry.type = tarfile.SYMTYPE
    entry.linkname = target
    return entry.tobuf(tarfile.GNU_FORMAT)


sparse = tarfile.TarInfo("var/pod/x")
sparse.type = tarfile.GNUTYPE_SPARSE
sparse.size = 512
block = bytearray(sparse.tobuf(tarfile.GNU_FORMAT))
block[386:410] = b"%011o\0%011o\0" % ((1 << 20) - 512, 512)  # where its bytes are
block[483:495] = b"%011o\0" % (1 << 20)
block[148:156] = b" " * 8
block[148:156] = b"%06o\0 " % sum(block)
deep = tarfile.TarInfo("manifest.json")
nested = b'{"format": 1, "settings": ' + b"[" * 400000 + b"]" * 400000 + b"}"
deep.size = len(nested)
many = b"".join(link(f"sys/bus/pci/devices/{i:04x}:00:00.0", "x") for i in range(9000))
for name, text in {
        "cut": content[:len(content) // 2], "cut_after_a_member": content[:end],
        "empty": b"", "text": b"no archive\n" * 99, "many": first + many + bytes(1024),
        "sparse": first + (block + b"x" * 512) * 300 + bytes(1024),
        "deep": deep.tobuf() + nested.ljust(-(-len(nested) // 512) * 512 + 1024, b"\0"),
        "long_link": first + link("sys/bus/pci/devices", "x/" * 400000) + bytes(1024)
}.items():
    with open(f"{directory}/{name}.tar", "wb") as file:
        file.write(text)
with tarfile.open(f"{directory}/foreign.tar", "w") as made:
    made.addfile(tarfile.TarInfo("etc/motd"))
large = tarfile.TarInfo("dev/nvlog-pod")
large.size = 10 << 30
for name, head in {"zeros": b"", "large": first + large.tobuf(tarfile.GNU_FORMAT)}.items():
    with open(f"{directory}/{name}.tar", "wb") as file:
        file.write(head)
        file.truncate(10 << 30)
os.mkfifo(f"{directory}/pipe.tar")
os.link(good, f"{directory}/zz_good.tar")
