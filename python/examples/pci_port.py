#!/usr/bin/python3
"""Brings up what is below a hot-plug port: finds the port and its PCI Express capability, waits
for the link, and maps and uses the memory of the devices below it.
"""
import sys
import time

from device_access import pci

PCI_EXPRESS = 0x10


def find_port() -> pci.Function:
    for function in pci.functions():
        with function.config() as config:
            if config.has_hotplug_slot:
                offset = config.find_capability(PCI_EXPRESS)
                print(f"{function} has a hot-plug slot; PCI Express capability at {offset:#x}")
                return function
    sys.exit("no port with a hot-plug slot")


def use(function: pci.Function) -> None:
    print(f"below it: {function} of vendor {function.vendor:#06x}")
    function.set_attribute("enable", 1)
    with function.memory() as memory:
        for number, registers in memory.bars():
            registers.write(0, 0xC0FFEE00 + number)
            print(f"  BAR {number} mapped; its first register reads {registers.read(0):#x}")


def main() -> None:
    port = find_port()
    began = time.monotonic()
    try:
        port.wait_for_link()
    except OSError as error:
        sys.exit(f"its link is not up: {error.strerror}")
    print(f"its link is up after {1000 * (time.monotonic() - began):.0f} ms")
    for function in port.children():
        use(function)


if __name__ == "__main__":
    main()
