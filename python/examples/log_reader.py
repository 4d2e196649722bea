#!/usr/bin/python3
"""A log reader: prints a card's POD log, or one of the firmware's POST logs, newest history first.

log_reader.py CARD | event | test | error    CARD: such as SW1
"""
import sys

from device_access import Log, PodLogs, PostLog, UnknownName
from device_access.postlog import Block


def find(name: str) -> Log:
    if name.upper() in Block.__members__:
        return PostLog(Block[name.upper()])
    return PodLogs("n20")[name]


def main(name: str = "SW1") -> None:
    for history in find(name).histories():
        for entry in history.entries():
            print(f"{history.number}  {entry.time:%Y-%m-%d %H:%M:%S}  {entry.message}")


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except (OSError, UnknownName) as error:
        sys.exit(str(error))
