#!/usr/bin/python3
"""A POD runner: logs one run of a card's power-on diagnostics, and sets the card's status.

pod_runner.py CARD STEP=RESULT...    CARD: such as SW1; RESULT: PASS, else it is a failure
"""
import sys

from device_access import PodLogs, UnknownName
from device_access.podlog import Status


def main(card: str = "SW1", *steps: str) -> bool:
    logs = PodLogs("n20")
    with logs.run(card) as run:
        for step in steps:
            name, _, result = step.partition("=")
            passed = result == "PASS"
            level = "INFO" if passed else "ERROR"
            run.add(name, result, f"step of {len(name)} letters", level)
            run.failed |= not passed
    logs.set_status(card, Status.FAILED if run.failed else Status.PASSED)
    print(f"{card}: {logs.status(card).name.lower()}")
    return run.failed


if __name__ == "__main__":
    try:
        sys.exit(main(*sys.argv[1:]))
    except (OSError, UnknownName) as error:
        sys.exit(f"cannot run the diagnostics: {error}")
