"""UDP discovery of the simulated reader, and a connection from the line it gives."""

from __future__ import annotations

import pytest
from conftest import PATIENCE

from tovra import DiscoveryEventKind, ErrorCode, Reader, TovraError, UdpDiscovery


def next_event(discovery: UdpDiscovery, kind: DiscoveryEventKind):
    while True:
        event = discovery.get(timeout=PATIENCE)
        assert event is not None, f"no {kind.name} event"
        if event.kind == kind:
            return event


def test_a_reader_found_is_reached_through_its_line_and_reported_lost(simulator):
    sim = simulator("--port", "0", "--udp", "0")
    port = sim.listening_port()
    udp_port = sim.port_from("udp: answering discovery on ")
    handled = []

    with UdpDiscovery(f"address=127.0.0.1:port={udp_port}:lost=2", interval_ms=100, handler=handled.append) as discovery:
        found = next_event(discovery, DiscoveryEventKind.FOUND)
        assert found.line.startswith("UDP:") and f"Port={port}" in found.line
        assert found in handled

        second = UdpDiscovery()
        with pytest.raises(TovraError) as raised:
            second.start()
        assert raised.value.code == ErrorCode.DISCOVERY_RUNNING
        assert "5032" in raised.value.text
        with pytest.raises(TovraError):
            second.stop()  # must leave the running discovery alone

        with Reader() as reader:
            reader.connect(found.connector)
            assert reader.transceive(b"\x07\x01") == b"\x07\x00\x01"

        sim.stop()
        lost = next_event(discovery, DiscoveryEventKind.LOST)
        assert f"Port={port}" in lost.line

    assert list(discovery) == [], "iteration ends with the stop"
    with pytest.raises(TovraError) as raised:
        discovery.stop()
    assert raised.value.code == ErrorCode.DISCOVERY_NOT_RUNNING
