"""A client's tests on the simulated chassis: pytest, or python3 test_client.py."""
import json
import subprocess
import tempfile


def in_chassis(*command, options=(), description=None):
    """Runs a command in a chassis; a description is as chassis-sim --describe prints one."""
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        if description is not None:
            json.dump(description, file)
            file.flush()
            options = (*options, "--description", file.name)
        return subprocess.run(("chassis-sim", *options, "--", *command), timeout=30,
                              capture_output=True, text=True, check=False)


def test_sees_an_interrupt():
    done = in_chassis("devaccess", "uio", "wait", "/dev/uio0", options=("--uio-irq-delay", "50"))
    assert done.returncode == 0


def test_passes_on_a_busy_device():
    fault = {"device": "uio0", "call": "open", "error": "EBUSY"}
    done = in_chassis("devaccess", "uio", "wait", "/dev/uio0",
                      description={"uio": [{"number": 0}], "faults": [fault]})
    assert done.returncode == 1 and "busy" in done.stderr


if __name__ == "__main__":
    test_sees_an_interrupt()
    test_passes_on_a_busy_device()
