#!/usr/bin/python3
"""Copies the newest history of a card's POD log to the EEPROM on the card, and prints what is there
then. The EEPROM is a file here; a real client reaches the card in the two functions.

eeprom_copy.py FILE [CARD]    CARD: "SW1" unless given
"""
import os
import sys
from functools import partial

from device_access import PodLogs

SIZE = 16384


def read(file: int, offset: int, count: int) -> bytes:
    return os.pread(file, count, offset)


def write(file: int, offset: int, data: bytes) -> int:
    return os.pwrite(file, data, offset)


def main(path: str, card: str = "SW1") -> None:
    file = os.open(path, os.O_RDWR | os.O_CREAT, 0o644)
    os.truncate(file, SIZE)
    with PodLogs("n20").eeprom(card, partial(read, file), partial(write, file)) as eeprom:
        eeprom.copy_newest_history()
        for entry in eeprom.entries():
            print(entry.message)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except OSError as error:
        sys.exit(str(error))
