"""The fixtures, and the examples on them."""
import os
from pathlib import Path

import pytest
from device_access import Uio
from device_access.chassis import Chassis, ChassisError, Devaccess, DevaccessError, Record

EXAMPLES = Path(__file__).parents[1] / "examples"


def end_process() -> None:
    os._exit(3)


def test_functions_come_back_with_what_they_give_or_raise(chassis: Chassis) -> None:
    assert chassis.call(os.path.exists, "/dev/uio0")
    with pytest.raises(FileNotFoundError) as failed:
        chassis.call(os.stat, "/nowhere")
    assert "os.stat" not in str(failed.value) and "In the chassis" in failed.value.__notes__[0]
    with pytest.raises(RuntimeError, match="ended its process"):
        chassis.call(end_process)
    assert chassis.run("cat", input="text").stdout == "text"


def test_a_chassis_lasts_for_a_test(chassis: Chassis, devaccess: Devaccess) -> None:
    devaccess("podlog", "add", "SW4", "seen")
    assert devaccess("podlog", "show", "SW4").entries[-1].message.endswith("seen")
    chassis.remove("uio0")
    with pytest.raises(DevaccessError) as failed:
        devaccess("uio", "read", "/dev/uio0", 0, 0)
    assert failed.value.errno == 2 and failed.value.status == 1
    with pytest.raises(ChassisError, match="uio7"):
        chassis.plug("uio7")


def test_a_chassis_that_cannot_be_says_why() -> None:
    with pytest.raises(ChassisError, match="n11"):
        Chassis(type="n11")


@pytest.mark.chassis(type="n4")
def test_the_recorded_chassis_is_the_machine(devaccess: Devaccess, tmp_path: Path) -> None:
    file = tmp_path / "machine.tar"
    devaccess("collect", file)
    with Chassis(recording=file) as machine:
        assert Devaccess(machine)("pci", "list") == devaccess("pci", "list")


REGISTERS = {"uio": [{"number": 0, "maps": [{"map": "map0", "size": "0x1000", "registers": [
    {"name": "STATUS", "offset": 4, "reset": "0xa0", "fields": [{"name": "READY", "bits": "0"}]},
    {"name": "COUNT", "offset": 8, "reset": 3, "readAction": "clear"}]}]}]}


def read_twice() -> list[int]:
    with Uio("/dev/uio0", timeout=5) as device:
        return [device.window(0).read(8) for _ in range(2)]


@pytest.mark.chassis(description=REGISTERS)
def test_registers_are_seen_from_outside(chassis: Chassis) -> None:
    assert chassis.call(read_twice) == [3, 0]
    assert [(each.register, each.access, each.value) for each in chassis.accesses()] == [
        ("COUNT", "read", 3), ("COUNT", "read", 0)]
    chassis.set_register("STATUS.READY", 1)
    chassis.wait_for_register("uio0.map0.STATUS", 0xA1)
    assert chassis.register("STATUS") == 0xA1
    with pytest.raises(ChassisError, match="STATUS is still 0xa1"):
        chassis.wait_for_register("STATUS", 0, timeout=0.01)


@pytest.mark.chassis(description="chassis.json")
def test_a_description_is_the_test_files_neighbour(devaccess: Devaccess) -> None:
    assert [each.node for each in devaccess("uio", "list").devices] == ["/dev/uio5"]


def test_records_have_members_as_attributes() -> None:
    record = Record({"class": 1, "id": 2})
    assert record["class"] == 1 and record.id == 2
    with pytest.raises(AttributeError, match="there are class, id"):
        record.nothing


@pytest.mark.parametrize("command, status, line", [
    ("pci_port.py", 0, "BAR 0 mapped; its first register reads 0xc0ffee00"),
    ("pod_runner.py SW3 memory=PASS", 0, "SW3: passed"),
    ("pod_runner.py SW3 memory=FAIL", 1, "SW3: failed"),
    ("log_reader.py ALSW2", 0, "INFO: ALSW2"),
    ("log_reader.py error", 0, "trained to x1, expected x4"),
    ("log_reader.py SW9", 1, "SW9: the chassis has"),
    ("eeprom_copy.py /var/tmp/eeprom", 0, "INFO: SW1 passed"),
    ("eeprom_copy.py /var/tmp/eeprom FT1", 1, "no EEPROM"),
    ("driver_daemon.py /dev/null", 1, "/dev/null"),
    ("event_loop.py", 0, "asked to quit"),
])
def test_examples(chassis: Chassis, command: str, status: int, line: str) -> None:
    done = chassis.run(str(EXAMPLES / command.split()[0]), *command.split()[1:], input="quit\n")
    assert line in done.stdout + done.stderr and done.returncode == status
