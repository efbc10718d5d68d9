"""The exception that carries the library's error codes."""

from __future__ import annotations

from enum import IntEnum

from tovra._library import library, text


class ErrorCode(IntEnum):
    """The library's own codes; plugins and device libraries add codes of their own."""

    CANNOT_CREATE_READER = -5001
    INVALID_READER_HANDLE = -5002
    CONNECTION_PARAMETER = -5003
    CONNECT_FAILED = -5004
    DETECTION_PARAMETER = -5005
    DETECTION_FAILED = -5006
    DISCONNECT_FAILED = -5007
    LISTENER_RUNNING = -5008
    LISTENER_PARAMETER = -5009
    NULL_POINTER = -5010
    TERMINATED = -5011
    DISCONNECTED_BY_PEER = -5012
    RECEIVE_TIMEOUT = -5015
    INVALID_FRAME = -5016
    PAYLOAD_TOO_LARGE = -5017
    NOT_CONNECTED = -5018
    INVALID_PLUGIN_TYPE = -5020
    CANNOT_LOAD_PLUGIN = -5021
    PLUGIN_VERSION_MISMATCH = -5022
    NOT_IMPLEMENTED = -5024
    INVALID_LISTENER_TYPE = -5030
    DISCOVERY_RUNNING = -5032
    DISCOVERY_NOT_RUNNING = -5033
    ACCEPT_WHILE_TERMINATING = -5040


class TovraError(Exception):
    """A negative result of the library: ``code``, and ``text`` as the library explains it."""

    def __init__(self, code: int, text: str, operation: str) -> None:
        self.code = code
        self.text = text
        self.operation = operation
        # The library's texts name the code already.
        super().__init__(f"{operation}: {text}" if text else f"{operation}: error {code}")


def check(result: int, handle: int, operation: str) -> int:
    """Returns a result that is not negative; raises a negative one as TovraError.

    ``handle`` is the reader, or a discovery manager's pseudo-handle, whose last-error
    text explains the result.
    """
    if result >= 0:
        return result
    raise TovraError(result, text(library().TOVRA_GetLastErrorText(handle)), operation)
