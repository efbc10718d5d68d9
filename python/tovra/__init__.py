"""Python binding of the tovra reader communication library.

Example::

    import tovra

    with tovra.Reader(tovra.ModuleKind.ONE_PORT) as reader:
        reader.connect("tcp:IPAddress=127.0.0.1:Port=10001")
        response = reader.transceive(bytes([0x52, 0x00]))
"""

from __future__ import annotations

from tovra._library import LibraryNotFoundError, library, text
from tovra.discovery import DiscoveryEvent, DiscoveryEventKind, UdpDiscovery
from tovra.errors import ErrorCode, TovraError
from tovra.logs import forward_to_logging, set_logging_handler, set_logging_parameter
from tovra.reader import ModuleKind, Reader

__all__ = [
    "DiscoveryEvent",
    "DiscoveryEventKind",
    "ErrorCode",
    "LibraryNotFoundError",
    "ModuleKind",
    "Reader",
    "TovraError",
    "UdpDiscovery",
    "forward_to_logging",
    "set_logging_handler",
    "set_logging_parameter",
    "version",
]


def version() -> str:
    """The library's version text, e.g. ``"1.0.2"``."""
    return text(library().TOVRA_GetVersion())
