"""Tests of the driver by pytest, with the fixtures that the package device_access brings: what it
prints, what it does to the device's registers, and what it says of a device that misbehaves.

    SAMPLER=./sampler_c python3 -m pytest test_sampler.py
"""
import os
from pathlib import Path

import pytest

from device_access.chassis import Chassis

SAMPLER = str(Path(os.environ.get("SAMPLER", "sampler_c")).absolute())

pytestmark = pytest.mark.chassis(description="chassis.json")


def test_takes_the_samples(chassis: Chassis) -> None:
    assert chassis.run(SAMPLER, check=True).stdout == "samples: 11 22 33\n"
    assert [(done.register, done.access, done.value) for done in chassis.accesses()] == [
        ("CONTROL", "write", 1),
        ("STATUS", "read", 2),
        ("DATA", "read", 11),
        ("DATA", "read", 22),
        ("DATA", "read", 33),
        ("STATUS", "write", 2),
    ]
    assert chassis.register("STATUS") == 0


@pytest.mark.chassis("--uio-irq-delay", "0")
def test_refuses_an_interrupt_before_the_samples(chassis: Chassis) -> None:
    done = chassis.run(SAMPLER)
    assert (done.returncode, done.stderr) == (1, "/dev/uio0: Input/output error\n")
    assert "DATA" not in [access.register for access in chassis.accesses()]


@pytest.mark.fault(device="uio0", call="open", error="EBUSY")
def test_says_why_it_cannot_open_the_device(chassis: Chassis) -> None:
    done = chassis.run(SAMPLER)
    assert (done.returncode, chassis.accesses()) == (1, [])
    assert done.stderr.endswith("/dev/uio0: Device or resource busy\n")
