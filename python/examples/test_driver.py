"""A client's tests on the simulated chassis: pytest, with the fixtures that the package brings.

Here the clients are devaccess, a function, and the driver daemon next to this file.
"""
from pathlib import Path

import pytest

from device_access import Uio
from device_access.chassis import Chassis, Devaccess, DevaccessError

DAEMON = str(Path(__file__).with_name("driver_daemon.py"))


def count_interrupts(wanted: int) -> list[int]:
    with Uio("/dev/uio0", timeout=5) as device:
        return [count for count, _ in zip(device.interrupts(timeout=5), range(wanted))]


def test_finds_the_card(devaccess: Devaccess) -> None:
    vendors = {device.id: device.vendor for device in devaccess("pci", "list").devices}
    assert vendors["0000:03:00.0"] == 0xF0CA


def test_sees_interrupts(chassis: Chassis) -> None:
    assert chassis.call(count_interrupts, 3) == [1, 2, 3]


def test_daemon_ends_when_its_device_leaves(chassis: Chassis) -> None:
    daemon = chassis.start(DAEMON)
    daemon.wait_for("interrupt 1")
    chassis.remove("uio0")
    assert daemon.wait() == 0
    assert daemon.output.endswith("/dev/uio0: removed\n")


@pytest.mark.fault("link-stuck")
def test_notices_a_dead_link(devaccess: Devaccess) -> None:
    with pytest.raises(DevaccessError, match="timed out"):
        devaccess("pci", "link-wait", "00:1c.0")


@pytest.mark.fault(device="uio0", call="open", error="EBUSY", nth=1)
def test_tries_a_busy_device_again(chassis: Chassis) -> None:
    with pytest.raises(OSError, match="busy"):
        chassis.call(count_interrupts, 1)
    assert chassis.call(count_interrupts, 1) == [1]
