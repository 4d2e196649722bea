#!/usr/bin/python3
"""A driver in an event loop of its own: watches the device's interrupt, its removal and standard
input, of which a line "quit" ends it.

event_loop.py [NODE]    NODE: "/dev/uio0" unless given
"""
import select
import sys

from device_access import DeviceRemoved, Uio


def look(device: Uio) -> None:
    """The library tells what has come; it does not wait."""
    try:
        print(f"interrupt {device.wait(timeout=0)}", flush=True)
        device.enable_interrupt()
    except TimeoutError:
        pass


def run(device: Uio) -> None:
    device.enable_interrupt()
    loop = select.poll()
    loop.register(device, select.POLLIN)
    loop.register(sys.stdin, select.POLLIN)
    if device.removal_fileno is not None:
        loop.register(device.removal_fileno, select.POLLPRI)
    while True:
        for descriptor, _ in loop.poll():
            if descriptor != sys.stdin.fileno():
                look(device)
            elif sys.stdin.readline() in ("", "quit\n"):
                return


def main(node: str = "/dev/uio0") -> None:
    with Uio(node, timeout=5) as device:
        try:
            run(device)
            print("asked to quit")
        except DeviceRemoved:
            print("removed")


if __name__ == "__main__":
    main(*sys.argv[1:])
