"""pytest fixtures for tests of clients on the simulated chassis.

    @pytest.mark.chassis(type="n10")
    @pytest.mark.fault("link-stuck")
    def test_notices_a_dead_link(devaccess):
        with pytest.raises(DevaccessError, match="not up"):
            devaccess("pci", "link-wait", "00:1c.0")
"""
from __future__ import annotations

import os
from collections.abc import Iterator
from typing import Any

import pytest

from .chassis import Chassis, Devaccess, Fault

_MARKERS = (
    "chassis(*options, type=None, description=None, recording=None): the chassis that the fixture"
    " makes, as device_access.chassis.Chassis has it; files are relative to the test's",
    "fault(name) or fault(device=..., call=..., error=..., nth=0): what is broken in it",
)


def pytest_configure(config: pytest.Config) -> None:
    for marker in _MARKERS:
        config.addinivalue_line("markers", marker)


def _options(node: pytest.Item) -> dict[str, Any]:
    """Those of the nearest marker for each."""
    options: dict[str, Any] = {}
    for marker in reversed(list(node.iter_markers("chassis"))):
        options.update(marker.kwargs)
    for name in ("description", "recording"):
        if isinstance(options.get(name), (str, os.PathLike)):
            options[name] = node.path.parent / options[name]
    return options


def _faults(node: pytest.Item) -> Iterator[Fault]:
    for marker in node.iter_markers("fault"):
        yield from marker.args
        if marker.kwargs:
            yield marker.kwargs


@pytest.fixture
def chassis(request: pytest.FixtureRequest) -> Iterator[Chassis]:
    """A simulated chassis for this test: the one built in, unless its markers say otherwise."""
    nearest = request.node.get_closest_marker("chassis")
    arguments = nearest.args if nearest else ()
    with Chassis(*arguments, faults=list(_faults(request.node)), **_options(request.node)) as made:
        yield made


@pytest.fixture
def devaccess(chassis: Chassis) -> Devaccess:
    """devaccess in that chassis, its JSON as objects."""
    return Devaccess(chassis)
