"""Reader objects: connecting, exchanging requests and answering the reader's own requests."""

from __future__ import annotations

import atexit
import ctypes
import logging
import threading
import warnings
from enum import IntEnum
from types import TracebackType
from typing import Callable, Optional, Union

from tovra import _library
from tovra._library import encode, library, text
from tovra.errors import ErrorCode, TovraError, check

logger = logging.getLogger("tovra")

RequestHandler = Callable[[bytes], Optional[bytes]]
ConnectedHandler = Callable[[str], None]
DisconnectedHandler = Callable[[], None]
Buffer = Union[bytes, bytearray, memoryview]

# Large enough for the payload of any frame, so a response is never cut.
RESPONSE_CAPACITY = 32768
# What a reader-request callback returns when no answer is to be sent.
_NO_ANSWER = -1


class ModuleKind(IntEnum):
    """How the reader is attached: one channel both ways, or separate channels."""

    TWO_PORT = 1
    ONE_PORT = 2


class _Callbacks:
    """The Python side of one reader's callbacks.

    The ctypes callback objects are made once per reader and live in ``_registered``
    until the reader is deleted: the library copies a callback pointer and calls it
    outside its lock, so a callback switched off may still be running.
    """

    def __init__(self) -> None:
        self.request: Optional[RequestHandler] = None
        self.connected: Optional[ConnectedHandler] = None
        self.disconnected: Optional[DisconnectedHandler] = None
        # The library copies an answer after the callback returns, so it must outlive the
        # call. A reader's requests come one at a time on its channel thread, and the
        # answer is copied before the next request: one answer per reader is enough.
        self._answer: Optional[ctypes.Array[ctypes.c_char]] = None
        self.c_request = _library.ReaderRequestCallback(self._on_request)
        self.c_connected = _library.ReaderConnectedCallback(self._on_connected)
        self.c_disconnected = _library.ReaderDisconnectedCallback(self._on_disconnected)

    def _on_request(
        self,
        handle: int,
        _context: Optional[int],
        request: Optional[int],
        length: int,
        response: "ctypes._Pointer[ctypes.c_void_p]",
        response_length: "ctypes._Pointer[ctypes.c_uint64]",
    ) -> int:
        try:
            handler = self.request
            if handler is None:
                return _NO_ANSWER
            returned = handler(ctypes.string_at(request, length) if length else b"")
            if returned is not None and not isinstance(returned, (bytes, bytearray, memoryview)):
                raise TypeError(f"a request handler returns bytes or None, not {type(returned).__name__}")
            answer = bytes(returned) if returned is not None else b""
            if not answer:
                return _NO_ANSWER
            if len(answer) > response_length[0]:
                logger.error(
                    "reader %d: answer of %d bytes exceeds the %d allowed; not sent",
                    handle, len(answer), response_length[0],
                )
                return _NO_ANSWER
            self._answer = ctypes.create_string_buffer(answer, len(answer))
            response[0] = ctypes.addressof(self._answer)
            response_length[0] = len(answer)
            return 0
        except BaseException:  # nothing may unwind into the library's thread
            logger.exception("reader %d: the request handler failed; no answer sent", handle)
            return _NO_ANSWER

    def _on_connected(self, handle: int, _context: Optional[int], connection: Optional[bytes]) -> None:
        try:
            handler = self.connected
            if handler is not None:
                handler(text(connection))
        except BaseException:
            logger.exception("reader %d: the connected handler failed", handle)

    def _on_disconnected(self, handle: int, _context: Optional[int]) -> None:
        try:
            handler = self.disconnected
            if handler is not None:
                handler()
        except BaseException:
            logger.exception("reader %d: the disconnected handler failed", handle)


# Reader handle -> its callbacks, until the reader is deleted; a reader object that is
# dropped without close() must not take callbacks the library may still call with it.
_registered: dict[int, _Callbacks] = {}
_registered_lock = threading.Lock()


@atexit.register
def _delete_remaining() -> None:
    # Library threads of a reader left open would call into an interpreter that is gone.
    with _registered_lock:
        handles = list(_registered)
    for handle in handles:
        library().TOVRA_Delete(handle)


class Reader:
    """One reader object of the library, addressed by its handle.

    Use it with ``with``, or call :meth:`close`: the library object and its callbacks
    stay alive until then. Handlers run on the library's threads; they must not close
    their own reader.
    """

    def __init__(self, kind: ModuleKind = ModuleKind.ONE_PORT, connector: Optional[str] = None) -> None:
        """Creates a reader object for the module kind and connector description."""
        self._lib = library()
        self._handle = check(self._lib.TOVRA_Create(int(kind), encode(connector)), 0, "create")
        self._callbacks = _Callbacks()
        with _registered_lock:
            _registered[self._handle] = self._callbacks
        self._closed = False

    @property
    def handle(self) -> int:
        """The library's handle of this reader."""
        return self._handle

    @property
    def closed(self) -> bool:
        """Whether the library object has been deleted."""
        return self._closed

    @property
    def connector(self) -> str:
        """The connector description the reader was created with."""
        return text(self._lib.TOVRA_GetConnector(self._live()))

    @property
    def state(self) -> str:
        """The connection-state text of the library."""
        return text(self._lib.TOVRA_GetConnectionState(self._live()))

    @property
    def receive_timeout(self) -> int:
        """How long a transceive waits for its response, in milliseconds.

        Every connect sets it back to 5000: set it after connecting.
        """
        return self._check(self._lib.TOVRA_GetReceiveTimeout(self._live()), "get receive timeout")

    @receive_timeout.setter
    def receive_timeout(self, milliseconds: int) -> None:
        if not 0 <= milliseconds <= 0xFFFFFFFF:
            raise ValueError(f"receive timeout out of range: {milliseconds}")
        self._check(self._lib.TOVRA_SetReceiveTimeout(self._live(), milliseconds), "set receive timeout")

    @property
    def last_error(self) -> int:
        """The result of the reader's last connection operation."""
        return int(self._lib.TOVRA_GetLastError(self._live()))

    def connect(self, connection: str) -> None:
        """Connects to the reader, e.g. ``"tcp:IPAddress=127.0.0.1:Port=10001"``."""
        self._check(self._lib.TOVRA_ConnectByHost(self._live(), encode(connection)), "connect")

    def disconnect(self) -> None:
        """Closes the host's connection; nothing happens when there is none."""
        self._check(self._lib.TOVRA_DisconnectByHost(self._live()), "disconnect")

    def transceive(self, request: Buffer) -> bytes:
        """Sends one request payload and returns the response payload."""
        data = bytes(request)
        response = ctypes.create_string_buffer(RESPONSE_CAPACITY)
        length = ctypes.c_uint64(RESPONSE_CAPACITY)
        result = self._lib.TOVRA_Transceive(self._live(), data, len(data), response, ctypes.byref(length))
        self._check(result, "transceive")
        return response.raw[: length.value]

    def listen(self, listener: str) -> None:
        """Waits for the reader to connect, e.g. ``"tcp:IPAddress=127.0.0.1:Port=10001"``."""
        self._check(self._lib.TOVRA_StartListener(self._live(), encode(listener)), "listen")

    def stop_listener(self) -> None:
        """Ends a connection the reader made and stops listening."""
        self._check(self._lib.TOVRA_StopListener(self._live()), "stop listener")

    def terminate(self) -> None:
        """Releases any thread that waits inside this reader; callable from any thread."""
        self._check(self._lib.TOVRA_Terminate(self._live()), "terminate")

    def set_request_handler(self, handler: Optional[RequestHandler]) -> None:
        """Answers the reader's own requests: ``handler(request)`` returns the answer.

        ``None`` or empty bytes sends no answer; so does a handler that raises, whose
        exception is logged.
        """
        self._callbacks.request = handler
        callback = self._callbacks.c_request if handler is not None else _library.ReaderRequestCallback()
        self._check(self._lib.TOVRA_SetReaderRequestCallback(self._live(), None, callback), "set request handler")

    def set_connection_handlers(
        self,
        connected: Optional[ConnectedHandler] = None,
        disconnected: Optional[DisconnectedHandler] = None,
    ) -> None:
        """Tells when a reader connects (with the connection's text) and when it goes."""
        callbacks = self._callbacks
        callbacks.connected, callbacks.disconnected = connected, disconnected
        result = self._lib.TOVRA_SetReaderConnectedCallbacks(
            self._live(),
            None,
            callbacks.c_connected if connected is not None else _library.ReaderConnectedCallback(),
            callbacks.c_disconnected if disconnected is not None else _library.ReaderDisconnectedCallback(),
        )
        self._check(result, "set connection handlers")

    def close(self) -> None:
        """Deletes the library object, ending its connections; later calls do nothing."""
        if self._closed:
            return
        self._closed = True
        try:
            check(self._lib.TOVRA_Delete(self._handle), self._handle, "delete")
        finally:
            with _registered_lock:
                _registered.pop(self._handle, None)

    def __enter__(self) -> "Reader":
        return self

    def __exit__(
        self,
        _type: Optional[type[BaseException]],
        _value: Optional[BaseException],
        _traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def __del__(self) -> None:
        # No delete here: a collection may run on a thread the reader itself owns.
        if not getattr(self, "_closed", True):
            warnings.warn(f"reader {self._handle} was never closed", ResourceWarning, stacklevel=2)

    def __repr__(self) -> str:
        return f"<tovra.Reader {self._handle}{' closed' if self._closed else ''}>"

    def _live(self) -> int:
        if self._closed:
            raise TovraError(ErrorCode.INVALID_READER_HANDLE, "the reader is closed", "use")
        return self._handle

    def _check(self, result: int, operation: str) -> int:
        return check(result, self._handle, operation)
