"""Simulated chassis for tests: a chassis that lives as long as the object, and what to do in it.

    with Chassis(type="n10") as chassis:
        chassis.run("devaccess", "pci", "list")

Needs the programs chassis-sim and, for Devaccess, devaccess on the PATH.
"""
from __future__ import annotations

import json
import os
import pickle
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Mapping, Sequence
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any, ParamSpec, TypeVar, cast

from .owner import Owner

P = ParamSpec("P")
T = TypeVar("T")
Fault = str | Mapping[str, Any]
Description = str | os.PathLike[str] | Mapping[str, Any]

_SIMULATOR = "chassis-sim"


class ChassisError(Exception):
    """The chassis cannot be built, or does not do what it is told."""


def describe(*options: str) -> dict[str, Any]:
    """The description of the chassis that these options of chassis-sim make."""
    done = subprocess.run((_SIMULATOR, *options, "--describe"), text=True, check=False,
                          capture_output=True)
    if done.returncode != 0:
        raise ChassisError(done.stderr.strip())
    return cast(dict[str, Any], json.loads(done.stdout))


class Process:
    """A command that runs in a chassis. Its output is in files, which can be read meanwhile."""

    def __init__(self, chassis: Chassis, arguments: Sequence[str], directory: Path) -> None:
        self._chassis = chassis
        self._output = directory / "output"
        self.arguments = tuple(arguments)
        self.pid = int(chassis.request("start", self.arguments, str(self._output)))

    @property
    def output(self) -> str:
        """What it has printed so far, errors included."""
        return self._output.read_text(errors="backslashreplace")

    def wait_for(self, text: str, timeout: float = 10) -> str:
        """Waits until it has printed a text: its output. TimeoutError when it does not."""
        until = time.monotonic() + timeout
        while text not in (output := self.output):
            if time.monotonic() > until:
                raise TimeoutError(f"{self.arguments[0]} has not printed '{text}' but:\n{output}")
            time.sleep(0.01)
        return output

    def wait(self, timeout: float = 30) -> int:
        """Its exit status; below 0, the signal that ended it."""
        return int(self._chassis.request("wait", self.pid, timeout))

    def signal(self, number: int) -> None:
        self._chassis.request("signal", self.pid, number)


class Chassis(Owner):
    """A simulated chassis.

    type:        "n20", "n10" or "n4": which cards there are. Of the chassis built in, "n20".
    options:     further options of chassis-sim, such as "--uio-irq-delay", "50".
    faults:      names for its --fault, or calls that fail, as a description has them:
                 {"device": "uio0", "call": "open", "error": "EBUSY"}.
    description: instead of the one built in: a file, or what the file would have. Lists that are
                 left out are empty.
    recording:   a file of "devaccess collect": the chassis is that machine. Nothing else goes with
                 it.
    """

    _process: subprocess.Popen[bytes] | None = None

    def __init__(self, *options: str, type: str | None = None, faults: Sequence[Fault] = (),
                 description: Description | None = None,
                 recording: str | os.PathLike[str] | None = None) -> None:
        self._directory = tempfile.TemporaryDirectory(prefix="chassis-")
        self._started = 0
        self.type = type or ("n20" if description is None and recording is None else None)
        arguments = [*options]
        if recording is not None:
            arguments += ["--from", os.fspath(recording)]
        if type is not None:
            arguments += ["--chassis", type]
        for fault in faults:
            if isinstance(fault, str):
                arguments += ["--fault", fault]
        calls = [fault for fault in faults if not isinstance(fault, str)]
        self._start(self._described(arguments, description, calls))

    def _described(self, arguments: list[str], description: Description | None,
                   calls: list[Mapping[str, Any]]) -> list[str]:
        """The options, with a description of what options cannot say."""
        if isinstance(description, (str, os.PathLike)):
            arguments = [*arguments, "--description", os.fspath(description)]
            description = None
        if description is None and not calls:
            return arguments
        if description is None:
            description, arguments = describe(*arguments), []
        file = Path(self._directory.name) / "description.json"
        faults = [*description.get("faults", ()), *(dict(call) for call in calls)]
        file.write_text(json.dumps({**description, "faults": faults}))
        return [*arguments, "--description", str(file)]

    def _start(self, arguments: list[str]) -> None:
        package = Path(__file__).absolute().parent.parent
        path = os.pathsep.join(filter(None, (str(package), os.environ.get("PYTHONPATH"))))
        command = (_SIMULATOR, *arguments, "--", sys.executable, "-m", "device_access._agent")
        self._errors = Path(self._directory.name) / "errors"
        try:
            with open(self._errors, "wb") as errors:
                self._process = subprocess.Popen(
                    command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors,
                    env={**os.environ, "PYTHONPATH": path})
        except FileNotFoundError:
            raise ChassisError(f"{_SIMULATOR} is not on the PATH") from None
        assert self._process.stdin and self._process.stdout
        self._to = Connection(os.dup(self._process.stdin.fileno()), readable=False)
        self._from = Connection(os.dup(self._process.stdout.fileno()), writable=False)
        self._process.stdin.close()
        self._process.stdout.close()
        self.request("path", sys.path)

    def request(self, what: str, *arguments: Any) -> Any:
        """Has the chassis's agent do something; its exceptions come from here."""
        try:
            self._to.send((what, arguments))
            succeeded, result = self._from.recv()
        except (EOFError, OSError):
            raise ChassisError(self._end() or "the chassis has ended") from None
        if succeeded:
            return result
        raise result

    def _end(self) -> str:
        """Ends the chassis and all that runs in it: what they have said on standard error."""
        process, self._process = self._process, None
        if process is None:
            return ""
        self._to.close()
        self._from.close()
        process.terminate()
        process.wait()
        said = self._errors.read_text(errors="backslashreplace").strip()
        self._directory.cleanup()
        return said

    def close(self) -> None:
        """Ends the chassis and all that runs in it, and prints what they said on standard error."""
        if said := self._end():
            print(said, file=sys.stderr)

    # --- commands and functions

    def run(self, *arguments: str, input: str | None = None, check: bool = False,
            timeout: float = 30) -> subprocess.CompletedProcess[str]:
        """Runs a command in the chassis, as subprocess.run() does."""
        done = self.request("run", arguments, input, timeout)
        if check:
            done.check_returncode()
        return cast(subprocess.CompletedProcess[str], done)

    def start(self, *arguments: str) -> Process:
        """Starts a command in the chassis, and goes on."""
        self._started += 1
        directory = Path(self._directory.name) / str(self._started)
        directory.mkdir()
        return Process(self, arguments, directory)

    def call(self, function: Callable[P, T], *arguments: P.args, **options: P.kwargs) -> T:
        """Calls a function in the chassis, in a process of its own.

        function: one of a module, not a nested one; it, what it is given and what it returns or
                  raises are pickled.
        """
        return cast(T, self.request("call", pickle.dumps((function, arguments, options))))

    # --- what happens to the chassis

    def control(self, *words: object, timeout: float = 30) -> str:
        """A line of "chassis-sim ctl": what it tells."""
        done = self.run(_SIMULATOR, "ctl", *map(str, words), timeout=timeout)
        if done.returncode != 0:
            raise ChassisError(done.stderr.strip())
        return done.stdout.strip()

    def interrupt(self, device: str = "uio0") -> None:
        self.control("interrupt", device)

    def remove(self, device: str) -> None:
        """A UIO device, or a PCI function and what is below it, leaves its bus."""
        self.control("remove", device)

    def plug(self, device: str) -> None:
        """It comes back."""
        self.control("plug", device)

    def set_link(self, port: str, state: str) -> None:
        """The link of a port is "up", "training" or "down"."""
        self.control("link", port, state)

    # --- registers that a description names: "STATUS", "uio0.map0.STATUS", "STATUS.READY"

    def register(self, name: str) -> int:
        """What it holds, or a field of it; no access of a program's."""
        return int(self.control("get", name), 0)

    def set_register(self, name: str, value: int) -> None:
        """Gives it a value, as the hardware would."""
        self.control("set", name, value)

    def wait_for_register(self, name: str, value: int, timeout: float = 10) -> None:
        """Waits until it holds a value; a ChassisError when it does not in so many seconds."""
        self.control("wait", name, value, int(1000 * timeout), timeout=timeout + 20)

    def accesses(self) -> list[Record]:
        """What programs have read and written so far, of registers that are described."""
        return _objects(self.control("log"))


class Record(dict[str, Any]):
    """A JSON object, whose members are attributes, too."""

    def __getattr__(self, name: str) -> Any:
        try:
            return self[name]
        except KeyError:
            raise AttributeError(f"no member {name}; there are {', '.join(self)}") from None


def _objects(text: str) -> list[Record]:
    decoder = json.JSONDecoder(object_hook=Record)
    found = []
    while text := text.lstrip():
        one, end = decoder.raw_decode(text)
        found.append(one)
        text = text[end:]
    return found


class DevaccessError(Exception):
    """devaccess has failed."""

    def __init__(self, status: int, report: Record) -> None:
        super().__init__(report.get("message"))
        self.status = status  # of its exit
        self.errno: int | None = report.get("errno")
        self.hint: str | None = report.get("hint")


class Devaccess:
    """Runs devaccess with --json in a chassis.

    devaccess("pci", "list").devices[0].id
    """

    def __init__(self, chassis: Chassis) -> None:
        self.chassis = chassis

    def objects(self, *words: object, timeout: float = 30) -> list[Record]:
        """Those of a command that prints several."""
        options = ["--chassis", self.chassis.type] if self.chassis.type else []
        done = self.chassis.run("devaccess", "--json", *options, *map(str, words), timeout=timeout)
        if done.returncode != 0:
            raise DevaccessError(done.returncode, self._report(done.stderr))
        return _objects(done.stdout)

    def __call__(self, *words: object, timeout: float = 30) -> Record:
        """The object of a command that prints one."""
        found = self.objects(*words, timeout=timeout)
        if len(found) != 1:
            raise ValueError(f"devaccess has printed {len(found)} objects; objects() has them all")
        return found[0]

    @staticmethod
    def _report(errors: str) -> Record:
        try:
            return _objects(errors[errors.index("{"):])[-1]  # remarks come first
        except ValueError:
            return Record(message=errors.strip())
