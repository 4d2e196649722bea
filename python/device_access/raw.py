"""The C interface as it stands: every call of the headers, with C's values and results.

    from device_access.raw import ffi, lib
    lib.GetSlotByName(b"SW1").slotN

What a call prints on C's standard streams is kept off the script's, and logged by the logger
"device_access"; so are the diagnostics that the library has for programs with a libuio_log.
ffi.errno is that of the last call.
"""
from __future__ import annotations

import logging
import os
import re
import threading
from collections.abc import Callable
from errno import EEXIST, EIO
from typing import Any, NamedTuple

# The first of the two loads the library, which then finds the libuio_log in it.
from . import _c, _c_post

ffi = _c.ffi

log = logging.getLogger("device_access")
log.addHandler(logging.NullHandler())

# Lines begin with a level, and where the library's source has them, or with words.
_MARKED = re.compile(r"(?:log\[LOG_\w+\]: |\[(?P<level>\d)\], )\S+?:\d+:")
_PRIORITIES = {0: logging.CRITICAL, 1: logging.CRITICAL, 2: logging.CRITICAL, 3: logging.ERROR,
               4: logging.WARNING, 5: logging.INFO, 6: logging.INFO, 7: logging.DEBUG}
_WORDS = {"ERROR": logging.ERROR, "WARN": logging.WARNING, "Warning": logging.WARNING,
          "log[LOG_ERR]": logging.ERROR, "log[LOG_DEBUG]": logging.DEBUG}


def _level(line: str) -> int:
    marked = _MARKED.match(line)
    if marked and marked["level"]:
        return _PRIORITIES.get(int(marked["level"]), logging.INFO)
    return next((level for word, level in _WORDS.items() if line.startswith(word)), logging.INFO)


class Answer(NamedTuple):
    """What came of a call."""

    result: Any
    error: int  # errno, 0 where the call left it alone
    said: list[str]  # the lines that it printed
    cause: Exception | None = None  # of a function of the script's that it called

    def reason(self) -> str:
        """The first line about an error, else the last line that is no diagnostic; may be empty."""
        errors = [line for line in self.said if _level(line) >= logging.ERROR]
        others = [line for line in self.said if not _MARKED.match(line)]
        return _MARKED.sub("", (errors[:1] or others[-1:] or [""])[0])

    def failure(self, subject: object = None, error: int = 0) -> OSError:
        """As an exception; error stands for the errno of calls that promise none."""
        number = error or (self.error if self.error not in (0, EEXIST) else EIO)
        reason = self.reason() or os.strerror(number)
        failed = OSError(number, reason, None if subject is None else str(subject))
        failed.__cause__ = self.cause
        return failed


def _kept_lines(mark: int) -> list[str]:
    length = ffi.new("size_t *")
    block = _c.lib.kept_output(mark, length)
    if block == ffi.NULL:
        return []
    text = bytes(ffi.buffer(block, length[0])).decode(errors="backslashreplace")
    _c.lib.free(block)
    return [line.strip() for line in text.splitlines() if line.strip()]


class _Thread(threading.local):
    raised: BaseException | None = None  # by a function of the script's that the library called


_thread = _Thread()


def callback(kind: str, function: Callable[..., int]) -> Any:
    """A function for the library to call; -1, its failure, stands for an exception."""

    def guarded(*arguments: Any) -> int:
        try:
            return function(*arguments)
        except BaseException as error:
            _thread.raised = error
            return -1

    return ffi.callback(kind, guarded)


def ask(function: Callable[..., Any], *arguments: Any) -> Answer:
    """Makes a call of the library."""
    mark = _c.lib.keep_output()
    _thread.raised = None
    ffi.errno = 0
    said: list[str] = []
    try:
        result = function(*arguments)
        error = ffi.errno
    finally:
        said = _kept_lines(mark)
        for line in said:
            log.log(_level(line), "%s", line)
    raised = _thread.raised
    if raised is None or isinstance(raised, Exception):
        return Answer(result, error, said, raised)
    raise raised  # Ctrl-C


class _Library:
    """The library's calls, constants and variables."""

    def __init__(self, *modules: Any) -> None:
        vars(self)["_modules"] = modules

    def _owner(self, name: str) -> Any:
        for module in vars(self)["_modules"]:
            if hasattr(module, name):
                return module
        raise AttributeError(f"the library has no {name}", name=name, obj=self)

    def __getattr__(self, name: str) -> Any:
        value = getattr(self._owner(name), name)
        if isinstance(value, ffi.CData) or not callable(value):
            return value  # a variable or a constant

        def call(*arguments: Any) -> Any:
            answer = ask(value, *arguments)
            ffi.errno = answer.error
            return answer.result

        call.__name__ = call.__qualname__ = name
        call.__doc__ = value.__doc__
        vars(self)[name] = call
        return call

    def __setattr__(self, name: str, value: Any) -> None:
        setattr(self._owner(name), name, value)

    def __dir__(self) -> list[str]:
        return sorted({name for module in vars(self)["_modules"] for name in dir(module)})


lib: Any = _Library(_c.lib, _c_post.lib)


def text_of(pointer: Any) -> str:
    """A C text that is not NULL."""
    return bytes(ffi.string(pointer)).decode(errors="backslashreplace")
