"""A host-connected reader: exchanges, errors, timeouts and cleanup."""

from __future__ import annotations

import threading

import pytest
from conftest import PATIENCE

import tovra
from tovra import ErrorCode, ModuleKind, Reader, TovraError


def connector(port: int) -> str:
    return f"tcp:IPAddress=127.0.0.1:Port={port}"


@pytest.mark.parametrize("kind", [ModuleKind.ONE_PORT, ModuleKind.TWO_PORT])
def test_round_trips_carry_every_byte_both_ways(simulator, kind):
    port = simulator("--port", "0", "--reply", "52=00FFA1/07").listening_port()
    with Reader(kind) as reader:
        reader.connect(connector(port))
        # The simulator echoes [command, status 0] + the rest of the request.
        for payload in (b"\x01", bytes(range(256)), b"\x00" * 3, bytes([0x10]) + bytes(4000)):
            assert reader.transceive(payload) == payload[:1] + b"\x00" + payload[1:]
        assert reader.transceive(bytearray(b"\x52\x99")) == b"\x52\x07\x00\xff\xa1"
        assert reader.transceive(memoryview(b"\x30\x31")) == b"\x30\x00\x31"


def test_a_timeout_is_raised_with_its_code_and_the_reader_goes_on(simulator):
    port = simulator("--port", "0", "--silent", "05").listening_port()
    with Reader() as reader:
        reader.connect(connector(port))
        reader.receive_timeout = 200
        assert reader.receive_timeout == 200
        with pytest.raises(TovraError) as raised:
            reader.transceive(b"\x05")
        assert raised.value.code == ErrorCode.RECEIVE_TIMEOUT
        assert "Receive timeout" in raised.value.text
        assert "Receive timeout" in str(raised.value)
        assert reader.last_error == ErrorCode.RECEIVE_TIMEOUT
        assert reader.transceive(b"\x06\x01") == b"\x06\x00\x01"


def test_failures_of_the_library_become_exceptions(simulator):
    port = simulator("--port", "0").listening_port()
    with Reader() as reader:
        with pytest.raises(TovraError) as raised:
            reader.transceive(b"\x01")
        assert (raised.value.code, raised.value.operation) == (ErrorCode.NOT_CONNECTED, "transceive")
        assert "Not connected" in raised.value.text

        with pytest.raises(TovraError) as raised:
            reader.connect("bogus:Port=1")
        assert raised.value.code == ErrorCode.INVALID_PLUGIN_TYPE

        reader.connect(connector(port))
        with pytest.raises(TovraError) as raised:
            reader.connect(connector(port))
        assert raised.value.code == ErrorCode.CONNECT_FAILED
        assert reader.transceive(b"\x02") == b"\x02\x00", "the first connection is left working"

        with pytest.raises(ValueError):
            reader.receive_timeout = -1


def test_leaving_the_with_block_deletes_the_reader_and_closes_its_connection(simulator):
    sim = simulator("--port", "0")
    port = sim.listening_port()
    with pytest.raises(RuntimeError, match="inside"):
        with Reader(connector=connector(port)) as reader:
            assert reader.connector == connector(port)
            reader.connect(connector(port))
            sim.wait_for_line("connection open")
            raise RuntimeError("inside the block")
    sim.wait_for_line("connection closed by peer")
    assert reader.closed
    assert tovra.library().TOVRA_GetLastError(reader.handle) == ErrorCode.INVALID_READER_HANDLE
    with pytest.raises(TovraError) as raised:
        reader.transceive(b"\x01")
    assert raised.value.code == ErrorCode.INVALID_READER_HANDLE
    reader.close()  # a second close is harmless


def test_terminate_releases_a_transceive_that_waits(simulator):
    sim = simulator("--port", "0", "--silent", "05", "--verbose")
    port = sim.listening_port()
    outcome: list[BaseException] = []

    with Reader() as reader:
        reader.connect(connector(port))
        reader.receive_timeout = int(PATIENCE * 4 * 1000)

        def wait_for_answer() -> None:
            try:
                reader.transceive(b"\x05")
            except BaseException as error:
                outcome.append(error)

        waiter = threading.Thread(target=wait_for_answer)
        waiter.start()
        sim.wait_for(lambda line: line.startswith("<<"), "received request")
        reader.terminate()
        waiter.join(timeout=PATIENCE)
        assert not waiter.is_alive()
    assert isinstance(outcome[0], TovraError)
    assert outcome[0].code == ErrorCode.TERMINATED
