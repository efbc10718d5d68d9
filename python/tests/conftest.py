"""Fixtures: the reader simulator as a separate process, and free loopback ports.

The simulator's path comes from TOVRA_READERSIM and the library's from TOVRA_LIBRARY
(the CTest entry sets both).
"""

from __future__ import annotations

import os
import queue
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path
from typing import Callable, Iterator, List, Optional

import pytest

# Bounds for things that happen at once on a healthy machine; generous so that a slow
# or busy one never fails a test.
PATIENCE = 30.0


def required_path(variable: str) -> Path:
    value = os.environ.get(variable)
    if not value or not Path(value).is_file():
        pytest.fail(f"{variable} must name an existing file (it is {value!r})", pytrace=False)
    return Path(value)


class Simulator:
    """A running tovra-readersim whose output is read line by line."""

    def __init__(self, program: Path, arguments: List[str], workdir: str) -> None:
        self.lines: "queue.Queue[Optional[str]]" = queue.Queue()
        self.seen: List[str] = []
        self.process = subprocess.Popen(
            [str(program), *arguments],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            stdin=subprocess.DEVNULL,
            text=True,
            cwd=workdir,
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        assert self.process.stdout is not None
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def wait_for(self, wanted: Callable[[str], bool], what: str) -> str:
        """The first line not read before for which ``wanted`` holds."""
        deadline = time.monotonic() + PATIENCE
        while True:
            try:
                line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError(f"simulator printed no {what}; it printed {self.seen}") from None
            if line is None:
                self.lines.put(None)
                raise AssertionError(f"simulator ended without {what}; it printed {self.seen}")
            self.seen.append(line)
            if wanted(line):
                return line

    def wait_for_line(self, line: str) -> None:
        self.wait_for(lambda seen: seen == line, repr(line))

    def port_from(self, prefix: str) -> int:
        """The port at the end of the next line starting with ``prefix``."""
        line = self.wait_for(lambda seen: seen.startswith(prefix), f"line starting {prefix!r}")
        return int(line.rsplit(":", 1)[1])

    def listening_port(self) -> int:
        return self.port_from("listening on ")

    def stop(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(timeout=PATIENCE)
        self._reader.join(timeout=PATIENCE)
        if self.process.stdout is not None:
            self.process.stdout.close()


@pytest.fixture(scope="session")
def readersim() -> Path:
    return required_path("TOVRA_READERSIM")


@pytest.fixture(scope="session")
def library_path() -> Path:
    return required_path("TOVRA_LIBRARY")


@pytest.fixture
def workdir() -> Iterator[str]:
    """A folder of the test's own, removed afterwards (pytest 7.2 keeps its tmp_path)."""
    with tempfile.TemporaryDirectory(prefix="tovra-python-") as folder:
        yield folder


@pytest.fixture
def simulator(readersim: Path, workdir: str) -> Iterator[Callable[..., Simulator]]:
    """Starts simulators with the given arguments; each is killed when the test ends."""
    started: List[Simulator] = []

    def start(*arguments: str) -> Simulator:
        sim = Simulator(readersim, list(arguments), workdir)
        started.append(sim)
        return sim

    yield start
    for sim in started:
        sim.stop()


def free_port() -> int:
    """A loopback port the system has just handed out (the library's listener takes no 0)."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def wait_until(condition: Callable[[], bool], what: str) -> None:
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"gave up waiting for {what}")
        time.sleep(0.01)
