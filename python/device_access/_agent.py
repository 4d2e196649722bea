"""What a Chassis runs in itself: does what standard input says, answers on standard output."""
from __future__ import annotations

import os
import pickle
import subprocess
import sys
import traceback
from collections.abc import Callable
from multiprocessing import Pipe
from multiprocessing.connection import Connection
from typing import Any

_processes: dict[int, subprocess.Popen[bytes]] = {}


def _path(path: list[str]) -> None:
    sys.path[:] = path


def _run(arguments: list[str], text: str | None, timeout: float) -> Any:
    return subprocess.run(arguments, input=text or "", text=True, errors="backslashreplace",
                          capture_output=True, timeout=timeout, check=False)


def _start(arguments: list[str], output: str) -> int:
    with open(output, "wb") as file:
        process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=file,
                                   stderr=subprocess.STDOUT)
    _processes[process.pid] = process
    return process.pid


def _wait(pid: int, timeout: float) -> int:
    return _processes[pid].wait(timeout)


def _signal(pid: int, number: int) -> None:
    _processes[pid].send_signal(number)


def _outcome(function: Callable[..., Any], *arguments: Any) -> tuple[bool, Any]:
    """Whether it has succeeded, and its result or its exception, with where that came from."""
    try:
        result = function(*arguments)
        pickle.dumps(result)
        return True, result
    except Exception as error:
        where = traceback.format_exc()
        try:
            error.add_note(f"In the chassis:\n{where}")
            pickle.loads(pickle.dumps(error))
            return False, error
        except Exception:
            return False, RuntimeError(where)


def _unpack_and_call(request: bytes) -> Any:
    function, arguments, options = pickle.loads(request)
    return function(*arguments, **options)


def _call(request: bytes) -> tuple[bool, Any]:
    receiver, sender = Pipe(duplex=False)
    child = os.fork()
    if child == 0:
        try:
            sender.send(_outcome(_unpack_and_call, request))
            sys.stdout.flush()
        finally:
            os._exit(0)
    sender.close()
    try:
        return receiver.recv()  # type: ignore[no-any-return]
    except EOFError:
        return False, RuntimeError("the function has ended its process")
    finally:
        os.waitpid(child, 0)


_ACTIONS: dict[str, Callable[..., Any]] = {
    "path": _path, "run": _run, "start": _start, "wait": _wait, "signal": _signal}


def main() -> None:
    requests = Connection(os.dup(0), writable=False)
    answers = Connection(os.dup(1), readable=False)
    nothing = os.open(os.devnull, os.O_RDONLY)
    os.dup2(nothing, 0)
    os.dup2(2, 1)
    while True:
        try:
            what, arguments = requests.recv()
        except EOFError:
            return
        answers.send(_call(*arguments) if what == "call"
                     else _outcome(_ACTIONS[what], *arguments))


if __name__ == "__main__":
    main()
