"""The package's modules, in simulated chassis."""
import logging
import os
import signal
import sys
import time
from datetime import datetime, timezone
from errno import EBUSY, EINVAL, EIO
from pathlib import Path

import pytest
from device_access import (PhysicalMemory, PodLogs, PostLog, Uio, UnknownName, inventory, pci,
                           raw, slots)
from device_access.chassis import Chassis
from device_access.podlog import Status
from device_access.postlog import Block

PORT, CARD, BRIDGE = "0000:00:1c.0", "0000:03:00.0", "0000:00:1e.0"

# --- what the library prints

PRINTING = """
import ctypes, threading
from device_access.raw import lib
from device_access import Uio
lib.sysfs_pci_info_init(), lib.podlog_init(99, 0), lib.libuio_open(b"/tmp")
with Uio("/dev/uio0") as device:
    waiting = threading.Thread(target=device.wait, args=(0.5,))
    device.enable_interrupt(False)
    try:
        threading.Thread(target=lambda: ctypes.CDLL(None).puts(b"another thread's")).start()
        device.wait(0.3)
    except TimeoutError:
        print("a script's", flush=True)
"""


def test_what_the_library_prints_stays_out_of_a_scripts_output(chassis: Chassis) -> None:
    done = chassis.run(sys.executable, "-c", PRINTING)
    assert sorted(done.stdout.splitlines()) == ["a script's", "another thread's"]
    assert done.stderr == ""


class Lines(logging.Handler):
    def __init__(self) -> None:
        super().__init__()
        self.seen: list[tuple[int, str]] = []

    def emit(self, record: logging.LogRecord) -> None:
        self.seen.append((record.levelno, record.getMessage()))


def logged() -> list[tuple[int, str]]:
    lines = Lines()
    raw.log.addHandler(lines)
    raw.log.setLevel(logging.DEBUG)
    raw.lib.sysfs_pci_info_init()
    raw.lib.podlog_init(99, 0)
    raw.lib.libuio_open(b"/tmp")
    return lines.seen


def test_what_the_library_prints_is_logged_by_its_level(chassis: Chassis) -> None:
    lines = chassis.call(logged)
    assert lines[-2] == (logging.ERROR, "ERROR: podlog_init: invalid instance id 99!")
    assert lines[-1][0] == logging.ERROR and lines[-1][1].endswith("/tmp: not cdev")
    assert {level for level, _ in lines[:-2]} == {logging.DEBUG}


def raw_calls() -> None:
    port = raw.ffi.new("sysfs_pci_identity_t *", {"str": b"0000:09:00.0"})
    assert raw.lib.pci_config_open(port) == raw.ffi.NULL and raw.ffi.errno == 2
    raw.lib.lc2_pod_log_again = 7
    assert raw.lib.lc2_pod_log_again == 7 and raw.lib.LIBUIO_MAX_MAPS == 64
    assert raw.ffi.string(raw.lib._nvram_dev_info[0].name) == b"/dev/nvlog-pod"
    with pytest.raises(AttributeError, match="no podlog_file_add"):
        raw.lib.podlog_file_add


def test_the_c_interface_is_there_as_it_is(chassis: Chassis) -> None:
    chassis.call(raw_calls)


# --- UIO devices


def use_windows() -> None:
    with Uio(Path("/dev/uio0")) as device:
        assert [number for number, _ in device.windows()] == [0, 1, 3]
        window = device.window()
        for width in (8, 16, 32, 64):
            value = 0x8899AABBCCDDEEFF >> (64 - width)
            window.write(0x20, value, width)
            assert window.read(0x20, width) == value
        window.update(0x20, 0x1, 0xF)
        assert window.read(0x20) & 0xFF == 0xF1
        for offset, width in ((2, 32), (-4, 32), (len(window), 8), (len(window) - 4, 64)):
            with pytest.raises(IndexError):
                window.read(offset, width)
        with pytest.raises(IndexError, match="no map 2"):
            device.window(2)
        assert device.attribute("uio_maps") is not None
        assert (device.device_dir / "uio_maps").exists() and device.class_dir.name == "uio0"
    with pytest.raises(ValueError, match="no longer mapped"):
        window.read(0)
    with pytest.raises(ValueError, match="closed"):
        device.wait(0)


def test_windows_are_checked_and_end_with_their_device(chassis: Chassis) -> None:
    chassis.call(use_windows)


def wait_in_time() -> None:
    for node in ("/dev/uio9", "sysfs_pci:uio_cma.alsw9"):
        began = time.monotonic()
        with pytest.raises(OSError):
            Uio(node, 0.25)
        assert time.monotonic() - began >= 0.25
    with Uio("/dev/uio0", timeout=5) as device:
        began = time.monotonic()
        with pytest.raises(TimeoutError):
            device.wait(0.25)
        assert time.monotonic() - began >= 0.25


@pytest.mark.chassis("--uio-appears", "200", "--uio-irq-delay", "-1")
def test_durations_are_seconds(chassis: Chassis) -> None:
    chassis.call(wait_in_time)


SERVING = """
from device_access import DeviceRemoved, Uio
with Uio("/dev/uio0") as device:
    window = device.window()
    for count in device.interrupts(timeout=30):
        print(count, flush=True)
    for use in lambda: window.read(0), lambda: device.wait(0):
        try:
            use()
        except (DeviceRemoved, ValueError) as error:
            print(error)
"""


def test_interrupts_come_until_the_device_leaves(chassis: Chassis) -> None:
    serving = chassis.start(sys.executable, "-c", SERVING)
    serving.wait_for("2\n")
    chassis.remove("uio0")
    assert serving.wait() == 0
    *counts, window, device = serving.output.splitlines()
    assert counts == [str(count + 1) for count in range(len(counts))]
    assert window.endswith("no longer mapped") and "the device has been removed" in device


WAITING = """
from device_access import Uio
with Uio("/dev/uio0") as device:
    print("waits", flush=True)
    device.wait()
"""


def test_ctrl_c_ends_a_wait(chassis: Chassis) -> None:
    waiting = chassis.start(sys.executable, "-c", WAITING)
    waiting.wait_for("waits")
    waiting.signal(signal.SIGINT)
    assert waiting.wait() == -signal.SIGINT and "KeyboardInterrupt" in waiting.output


# --- PCI functions


def use_pci() -> None:
    assert pci.Function(CARD) in list(pci.functions())
    assert {each.function.address: each.vendor for each in pci.scan()}[CARD] == 0xF0CA
    card, port = pci.Function(CARD[5:]), pci.Function(PORT)
    assert list(port.children()) == [card] and card.path.name == CARD
    with port.config() as config:
        assert config.has_hotplug_slot and config.find_capability(0x10) == 0x48
        config.set_bits(0x04, 0x6, 16)
        config.clear_bits(0x04, 0x2, 16)
        assert config.read(0x04, 16) & 0x6 == 0x4
        config.write(0x3C, 11, 8)
        assert config.read(0x3C, 8) == 11
        for offset, error in ((2, EINVAL), (4096, EIO)):
            with pytest.raises(OSError) as failed:
                config.read(offset)
            assert failed.value.errno == error
    card.set_attribute("enable", 1)
    assert card.attribute("enable") == "1" and card.device == 0x20
    with card.memory(0) as memory:
        memory.bar(0).write(8, 0xFFFFFFFF)
        assert memory.bar(0).read(8) == 0xFFFFFFFF and [bar for bar, _ in memory.bars()] == [0]
    with pytest.raises(IndexError, match="not mapped"):
        memory.bar(0)
    port.wait_for_link()
    pci.load_hotswap_module(pci.HotswapBridges.PCIE_HOTPLUG)
    assert "qel_pci_hotswap" in Path("/var/log/modprobe").read_text()
    bridge = pci.Function(BRIDGE)
    assert bridge.is_switchable and not card.is_switchable
    assert bridge.switch_on() == list(bridge.children())
    bridge.switch_off()


def test_pci_functions(chassis: Chassis) -> None:
    chassis.call(use_pci)


CIRCLE = {"functions": [{
    "id": CARD, "capabilities": ["pm", "msi"],
    "config": [{"offset": 0x49, "value": 0x40, "width": 1}]}]}


def capabilities() -> list[pci.Capability]:
    with pci.Function(CARD).config() as config:
        assert config.find_capability(0x10) is None
        return list(config.capabilities())


@pytest.mark.chassis(description=CIRCLE)
def test_a_list_of_capabilities_in_a_circle_ends(chassis: Chassis) -> None:
    assert chassis.call(capabilities) == [(1, 0x40), (5, 0x48)]


def wait_for_link() -> None:
    pci.Function(PORT).wait_for_link()


@pytest.mark.fault("link-stuck")
def test_a_link_that_is_not_up_is_a_timeout(chassis: Chassis) -> None:
    with pytest.raises(TimeoutError, match="PCIe link-up waiting timed out"):
        chassis.call(wait_for_link)


# --- logs


def log_a_run() -> None:
    logs = PodLogs("n20")
    before = {log.name: list(log.entries()) for log in logs}
    with logs.run("SW3") as run:
        run.add("memory", "PASS", "100 %s")
        with pytest.raises(OSError, match="run") as failed:
            logs.run("SW1").__enter__()
        assert failed.value.errno == EBUSY
        run.add("fabric", "FAIL", "no lock", level="ERROR")
    for log in logs:
        entries = list(log.entries())
        if log.name == "SW3":
            added = entries[len(before["SW3"]):]
            assert [entry.message for entry in added] == [
                "INFO: memory  PASS  100 %s", "ERROR: fabric  FAIL  no lock"]
            assert abs(added[0].time - datetime.now(timezone.utc)).total_seconds() < 60
        else:
            assert entries == before[log.name] and entries
    newest = next(logs["SW3"].histories())
    with logs.run("SW3"):
        pass
    assert next(logs["SW3"].histories()).number == newest.number  # an empty one is not counted


def test_a_run_is_in_its_cards_log_and_no_other(chassis: Chassis) -> None:
    chassis.call(log_a_run)


def set_status() -> None:
    logs = PodLogs("n20")
    assert logs.status("SW1") is Status.PASSED and logs.status("ALSW2") is Status.FAILED
    for status in Status:
        logs.set_status("SW4", status)
        assert logs.status("SW4") is status and logs.status("SW1") is Status.PASSED
    with pytest.raises(OSError, match="invalid inst id"):
        logs.status("PM1")
    with pytest.raises(UnknownName, match="^SW9: the chassis has RPSW1"):
        logs.status("SW9")
    logs.inject_fault("SW1")
    logs.inject_fault("SW1", False)
    logs["SW2"].reset()
    assert list(logs["SW2"].histories()) == []
    os.remove("/var/pod/pod_sw2.hex")
    with pytest.raises(FileNotFoundError, match="file /var/pod/pod_sw2.hex does not exist!"):
        list(logs["SW2"].histories())
    logs.prepare()
    assert list(logs["SW2"].histories()) == []
    with pytest.raises(OSError):
        PhysicalMemory(1, 4096)  # no multiple of the page size


def test_status_words_and_missing_logs(chassis: Chassis) -> None:
    chassis.call(set_status)


def copy_to_eeprom() -> None:
    memory = bytearray(b"\xff" * 8300)
    logs = PodLogs("n20")

    def read(offset: int, count: int) -> bytes:
        return bytes(memory[offset:offset + count])

    def write(offset: int, data: bytes) -> int:
        memory[offset:offset + len(data)] = data
        return len(data)

    def broken(offset: int, count: int) -> bytes:
        raise ZeroDivisionError

    with logs.eeprom("ALSW2", read, write) as eeprom:
        newest = list(next(logs["ALSW2"].histories()).entries())
        assert eeprom.copy_newest_history() == len(newest)
        assert list(eeprom.entries()) == newest
    with logs.eeprom("ALSW2", broken, write) as eeprom, pytest.raises(OSError) as failed:
        eeprom.copy_newest_history()
    assert isinstance(failed.value.__cause__, ZeroDivisionError)


def test_a_history_goes_to_an_eeprom(chassis: Chassis) -> None:
    chassis.call(copy_to_eeprom)


def read_post_logs() -> list[tuple[int, str]]:
    return [(len(list(log.histories())), list(log.entries())[-1].message)
            for log in map(PostLog, Block)]


def test_post_logs(chassis: Chassis) -> None:
    assert chassis.call(read_post_logs) == [
        (1, "handing over to the kernel"), (3, "PCIe link: pass"),
        (1, "PCIe link: slot SW2 trained to x1, expected x4")]


@pytest.mark.fault(device="nvlog-ofw-event", call="open", error="EACCES")
def test_a_log_that_cannot_be_opened_says_why(chassis: Chassis) -> None:
    with pytest.raises(PermissionError, match="ERROR"):
        chassis.call(read_post_logs)


def newest_history(card: str) -> int:
    return next(PodLogs("n20")[card].histories()).number


@pytest.mark.chassis(description={"logs": {"chassis": "n20", "states": {"SW2": "blank"}}})
def test_a_failure_without_an_errno_of_its_own_is_eio(chassis: Chassis) -> None:
    with pytest.raises(OSError, match="magic number not initialized") as failed:
        chassis.call(newest_history, "SW2")
    assert failed.value.errno == EIO


# --- slots and inventory


def keep_inventory() -> None:
    inventory.clear_all()
    with pytest.raises(FileNotFoundError, match="cannot open inventory /flash/diags/SW1.div"):
        inventory.read("SW1")
    inventory.store("sw1", "FX0123456789AB", "SW-4A")
    assert inventory.read("SW1") == ("FX0123456789AB", "SW-4A")
    inventory.clear("SW1")
    with pytest.raises(ValueError, match="longer"):
        inventory.store("SW1", "FX0123456789ABC", "SW-4A")
    slots.select(slots.Stack.FIRST)
    assert slots.find("pm1") == slots.find(6) == (6, slots.SlotKind.OTHER, "PM1")
    with pytest.raises(UnknownName, match="'SW2'"):
        slots.find("SW2")


def test_slots_and_inventory(chassis: Chassis) -> None:
    chassis.call(keep_inventory)
