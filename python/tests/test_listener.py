"""Readers that connect to the host, and their requests answered from Python."""

from __future__ import annotations

import logging
import threading

import pytest
from conftest import PATIENCE, free_port

from tovra import ErrorCode, ModuleKind, Reader, TovraError


class Events:
    """What the handlers saw, from the library's threads."""

    def __init__(self) -> None:
        self.connections: list[str] = []
        self.requests: list[bytes] = []
        self.disconnected = threading.Event()

    def connected(self, text: str) -> None:
        self.connections.append(text)

    def answer(self, request: bytes) -> bytes:
        self.requests.append(request)
        return bytes(reversed(request)) + b"\xaa"


@pytest.fixture
def listening(request):
    """A reader of the parametrised kind listening on a free loopback port."""
    kind = getattr(request, "param", ModuleKind.ONE_PORT)
    port = free_port()
    with Reader(kind) as reader:
        reader.listen(f"tcp:IPAddress=127.0.0.1:Port={port}")
        yield reader, f"127.0.0.1:{port}"
        reader.stop_listener()


@pytest.mark.parametrize("listening", [ModuleKind.ONE_PORT, ModuleKind.TWO_PORT], indirect=True)
def test_reader_requests_are_answered_by_the_python_handler(listening, simulator):
    reader, address = listening
    events = Events()
    reader.set_connection_handlers(events.connected, events.disconnected.set)
    reader.set_request_handler(events.answer)

    sim = simulator("--connect", address, "--request", "0102", "--request", "03", "--request", "00FF00")
    sim.wait_for_line("request 0102 answered 0201AA")
    sim.wait_for_line("request 03 answered 03AA")
    sim.wait_for_line("request 00FF00 answered 00FF00AA")
    assert events.requests == [b"\x01\x02", b"\x03", b"\x00\xff\x00"]
    assert len(events.connections) == 1 and "127.0.0.1" in events.connections[0]

    with pytest.raises(TovraError) as raised:
        reader.listen(f"tcp:IPAddress=127.0.0.1:Port={free_port()}")
    assert raised.value.code == ErrorCode.LISTENER_RUNNING

    sim.stop()
    assert events.disconnected.wait(PATIENCE), "the disconnected handler was not called"


def test_failing_handlers_are_logged_and_the_reader_keeps_answering(listening, simulator, caplog):
    reader, address = listening

    def connected(_text: str) -> None:
        raise RuntimeError("connected handler broke")

    def answer(request: bytes) -> bytes:
        if request == b"\x01":
            raise ValueError("request handler broke")
        if request == b"\x02":
            return bytes(40000)  # more than a response may hold
        if request == b"\x03":
            return 3  # type: ignore[return-value]  # not bytes: must not become b"\0\0\0"
        return b"\x04\x00"

    reader.set_connection_handlers(connected=connected)
    reader.set_request_handler(answer)
    with caplog.at_level(logging.ERROR, logger="tovra"):
        sim = simulator("--connect", address, "--request", "01", "--request", "02", "--request", "03", "--request", "04")
        sim.wait_for_line("request 01 unanswered")
        sim.wait_for_line("request 02 unanswered")
        sim.wait_for_line("request 03 unanswered")
        sim.wait_for_line("request 04 answered 0400")

    failures = {record.exc_info[1].args[0] for record in caplog.records if record.exc_info}
    assert failures == {
        "connected handler broke",
        "request handler broke",
        "a request handler returns bytes or None, not int",
    }
    assert any("40000 bytes" in record.getMessage() for record in caplog.records)


def test_a_request_without_handler_goes_unanswered(listening, simulator):
    reader, address = listening
    reader.set_request_handler(lambda request: b"\x01\x00")
    reader.set_request_handler(None)
    sim = simulator("--connect", address, "--request", "01")
    sim.wait_for_line("request 01 unanswered")
