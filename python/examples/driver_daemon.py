#!/usr/bin/python3
"""A driver daemon: waits for its device, serves its interrupts until the device is removed.

driver_daemon.py [NODE]    NODE: "/dev/uio0" unless given
"""
import sys

from device_access import Uio

CONTROL_REGISTER = 0x10
QUIET_SECONDS = 2


def serve(device: Uio) -> None:
    while True:
        try:
            for count in device.interrupts(QUIET_SECONDS):
                print(f"interrupt {count}", flush=True)
            return
        except TimeoutError:
            print(f"quiet for {QUIET_SECONDS} s", flush=True)


def main(node: str = "/dev/uio0") -> None:
    with Uio(node, timeout=5) as device:
        registers = device.window(0)
        registers.write(CONTROL_REGISTER, 1)
        print(f"{node} runs, control register {registers.read(CONTROL_REGISTER):#x}", flush=True)
        serve(device)
    print(f"{node}: removed")


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except OSError as error:
        sys.exit(str(error))
