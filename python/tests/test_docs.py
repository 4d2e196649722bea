"""What docs/python.md says that its scripts print, and its tests."""
import os
import re
import subprocess
import sys
from pathlib import Path

from device_access.chassis import Chassis

PAGE = Path(__file__).resolve().parents[2] / "docs/python.md"
SCRIPTS = re.compile(r"```python\n([^`]*)```\n[^`]*```text\n([^`]*)```")
TESTS = re.compile(r"```python\n([^`]*def test_[^`]*)```")


def output_of(script: str) -> str:
    with Chassis() as chassis:
        done = chassis.run(sys.executable, "-c", script)
    assert done.stderr == "" and done.returncode == 0
    return done.stdout


def test_scripts_print_what_the_page_says() -> None:
    """With RENEW in the environment, the page is what changes."""
    page = PAGE.read_text()
    found = list(SCRIPTS.finditer(page))
    assert len(found) == 4
    for match in reversed(found):
        page = page[:match.start(2)] + output_of(match[1]) + page[match.end(2):]
    if os.environ.get("RENEW"):
        PAGE.write_text(page)
    assert page == PAGE.read_text()


def test_tests_pass(tmp_path: Path) -> None:
    [tests] = TESTS.findall(PAGE.read_text())
    (tmp_path / "test_page.py").write_text(tests)
    done = subprocess.run([sys.executable, "-m", "pytest", "-q", str(tmp_path)], check=True,
                          stdout=subprocess.PIPE, text=True)
    assert "4 passed" in done.stdout
