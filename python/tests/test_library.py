"""Finding the library, its version, and its own log lines."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest
from conftest import PATIENCE

import tovra
from tovra import _library


def run_python(code: str, workdir: str, **environment: str) -> subprocess.CompletedProcess:
    """Runs ``code`` in a fresh interpreter with this one's import path."""
    env = {key: value for key, value in os.environ.items() if key not in ("TOVRA_LIBRARY", "LD_LIBRARY_PATH")}
    env["PYTHONPATH"] = os.pathsep.join(sys.path)
    env.update(environment)
    return subprocess.run(
        [sys.executable, "-c", code], cwd=workdir, env=env, capture_output=True, text=True, timeout=PATIENCE
    )


def test_a_library_beside_the_package_comes_before_the_environment(library_path, workdir):
    beside = Path(workdir) / _library.FILE_NAME
    shutil.copyfile(library_path, beside)
    loaded = _library.load(Path(workdir), {"TOVRA_LIBRARY": str(Path(workdir) / "missing.so")})
    assert loaded._name == str(beside)


def test_the_environment_names_the_library_when_none_is_beside_the_package(library_path, workdir):
    loaded = _library.load(Path(workdir), {"TOVRA_LIBRARY": str(library_path)})
    assert loaded._name == str(library_path)

    # And so does a fresh process that only has the variable.
    result = run_python(
        "import tovra; print(tovra.library()._name); print(tovra.version())", workdir, TOVRA_LIBRARY=str(library_path)
    )
    assert result.returncode == 0, result.stderr
    assert result.stdout.split() == [str(library_path), tovra.version()]


def test_no_loadable_library_names_every_place_tried(workdir):
    system = run_python("import ctypes.util; print(ctypes.util.find_library('tovra'))", workdir)
    if system.stdout.strip() != "None":
        pytest.skip("a tovra library is installed system-wide, so the search cannot fail")
    not_a_library = Path(workdir) / "text.so"
    not_a_library.write_text("not a shared library\n")
    result = run_python("import tovra; tovra.version()", workdir, TOVRA_LIBRARY=str(not_a_library))
    assert result.returncode != 0
    message = result.stderr.splitlines()
    assert any(line.startswith("tovra._library.LibraryNotFoundError") for line in message), result.stderr
    package_dir = Path(tovra.__file__).parent
    for tried in (package_dir / _library.FILE_NAME, not_a_library, _library.FILE_NAME):
        assert any(line.strip().startswith(f"{tried}: ") for line in message), (tried, result.stderr)


def test_the_version_is_the_project_version():
    expected = os.environ.get("TOVRA_PROJECT_VERSION")
    if not expected:
        pytest.skip("TOVRA_PROJECT_VERSION not set")
    assert tovra.version() == expected
    if os.environ.get("TOVRA_EXPECT_INSTALLED"):
        from importlib.metadata import version

        assert version("tovra") == expected
        assert Path(tovra.__file__).resolve().is_relative_to(Path(sys.prefix).resolve()), tovra.__file__


def test_library_log_lines_reach_a_python_handler(library_path, workdir):
    # Logging is set up before the first reader of a process: hence a fresh one.
    code = """
import tovra
lines = []
tovra.set_logging_parameter("[TOVRA]\\nlogerror=on\\n")
tovra.set_logging_handler(lines.append)
with tovra.Reader() as reader:
    try:
        reader.transceive(b"\\x01")
    except tovra.TovraError:
        pass
tovra.set_logging_handler(None)
print("\\n".join(lines))
"""
    result = run_python(code, workdir, TOVRA_LIBRARY=str(library_path))
    assert result.returncode == 0, result.stderr
    assert "Not connected" in result.stdout


def test_an_interpreter_that_exits_with_readers_and_discovery_open_ends_cleanly(library_path, workdir, simulator):
    # Library threads that outlive the interpreter and call into it abort the process.
    sim = simulator("--port", "0", "--udp", "0")
    port = sim.listening_port()
    udp_port = sim.port_from("udp: answering discovery on ")
    code = f"""
import tovra
lines = []
tovra.set_logging_parameter("[TOVRA]\\nlogreader=on\\nlogtcp=on\\n")
tovra.set_logging_handler(lines.append)
discovery = tovra.UdpDiscovery("address=127.0.0.1:port={udp_port}", interval_ms=50)
discovery.start()
assert discovery.get(timeout={PATIENCE}) is not None
reader = tovra.Reader()
reader.connect("tcp:IPAddress=127.0.0.1:Port={port}")
reader.set_request_handler(lambda request: request)
assert reader.transceive(b"\\x01") == b"\\x01\\x00"
assert lines
"""
    result = run_python(code, workdir, TOVRA_LIBRARY=str(library_path), LD_LIBRARY_PATH=str(library_path.parent))
    assert result.returncode == 0, result.stderr
