"""Finding readers on the network through UDP discovery."""

from __future__ import annotations

import atexit
import ctypes
import logging
import queue
import threading
from dataclasses import dataclass
from enum import IntEnum
from types import TracebackType
from typing import Callable, Iterator, Optional, Union

from tovra import _library
from tovra._library import encode, library, text
from tovra.errors import ErrorCode, TovraError, check

logger = logging.getLogger("tovra")

# The pseudo-handle under which the library keeps the UDP manager's last error.
UDP_MANAGER = -4


class DiscoveryEventKind(IntEnum):
    """What happened to a reader on the network."""

    FOUND = 1  # it answered, or its answer changed
    LOST = 2  # it stopped answering


@dataclass(frozen=True)
class DiscoveryEvent:
    """One reader found or lost, described by the library's ``UDP:...`` line."""

    kind: DiscoveryEventKind
    line: str

    @property
    def connector(self) -> str:
        """The line as a connector for :meth:`tovra.Reader.connect` (``tcp:...``)."""
        section, _, rest = self.line.partition(":")
        return f"tcp:{rest}" if section.upper() == "UDP" else self.line


DiscoveryHandler = Callable[[DiscoveryEvent], None]
_STOPPED = object()


class UdpDiscovery:
    """Discovery rounds every ``interval_ms`` towards ``target`` while started.

    The target text takes ``address``, ``port``, ``lost`` and ``bind`` (see the
    library's documentation; empty: broadcast to port 10002). Events go to ``handler``
    on the library's thread, if given, and are queued for :meth:`get` and iteration.
    One discovery runs at a time in a process.
    """

    def __init__(self, target: str = "", interval_ms: int = 1000, handler: Optional[DiscoveryHandler] = None) -> None:
        self.target = target
        self.interval_ms = interval_ms
        self.handler = handler
        self._events: "queue.Queue[Union[DiscoveryEvent, object]]" = queue.Queue()

    def start(self) -> None:
        """Starts the rounds; the first one goes out at once."""
        global _active
        lib = library()
        self._events = queue.Queue()  # a stop's mark from an earlier run goes
        with _lock:
            _register(lib)
            # Events may come before the start returns. A start while another discovery
            # runs fails, and must not take that one's events.
            takes_over = _active is None
            if takes_over:
                _active = self
        try:
            check(lib.TOVRA_UdpManagerStartDiscover(self.interval_ms, encode(self.target)), UDP_MANAGER, "start discovery")
        except BaseException:
            with _lock:
                if takes_over and _active is self:
                    _active = None
            raise
        with _lock:
            _active = self

    def stop(self) -> None:
        """Stops the rounds; no event comes after it returns, and iteration ends.

        Refused from inside a handler, and for a discovery that is not running.
        """
        global _active
        with _lock:
            running = _active is self
        if not running:  # the library's discovery may be another object's
            raise TovraError(ErrorCode.DISCOVERY_NOT_RUNNING, "this discovery is not running", "stop discovery")
        result = library().TOVRA_UdpManagerStopDiscover()
        if result >= 0 or result == ErrorCode.DISCOVERY_NOT_RUNNING:
            with _lock:
                if _active is self:
                    _active = None
            self._events.put(_STOPPED)
        check(result, UDP_MANAGER, "stop discovery")

    def get(self, timeout: Optional[float] = None) -> Optional[DiscoveryEvent]:
        """The next event, or None when none comes within ``timeout`` or after a stop."""
        try:
            event = self._events.get(timeout=timeout)
        except queue.Empty:
            return None
        if isinstance(event, DiscoveryEvent):
            return event
        self._events.put(_STOPPED)  # later calls see the stop too
        return None

    def __iter__(self) -> Iterator[DiscoveryEvent]:
        """The events as they come, until stopped."""
        while (event := self.get()) is not None:
            yield event

    def __enter__(self) -> "UdpDiscovery":
        self.start()
        return self

    def __exit__(
        self,
        _type: Optional[type[BaseException]],
        _value: Optional[BaseException],
        _traceback: Optional[TracebackType],
    ) -> None:
        self.stop()

    def _deliver(self, event: DiscoveryEvent) -> None:
        self._events.put(event)
        if self.handler is not None:
            self.handler(event)


# The library keeps one event callback for the process, across starts: it is registered
# once and handed to whichever discovery runs.
_lock = threading.Lock()
_active: Optional[UdpDiscovery] = None
_c_callback: Optional[ctypes._CFuncPtr] = None


@atexit.register
def _stop_active() -> None:
    # The discovery thread would call into an interpreter that is gone.
    with _lock:
        running = _active
    if running is not None:
        running.stop()


def _on_event(_context: Optional[int], kind: int, line: Optional[bytes]) -> None:
    try:
        with _lock:
            target = _active
        if target is not None:
            target._deliver(DiscoveryEvent(DiscoveryEventKind(kind), text(line)))
    except BaseException:  # nothing may unwind into the library's thread
        logger.exception("the discovery handler failed")


def _register(lib: ctypes.CDLL) -> None:
    global _c_callback
    if _c_callback is None:
        callback = _library.DiscoveryCallback(_on_event)
        check(lib.TOVRA_UdpManagerSetEventCallback(None, callback), UDP_MANAGER, "set discovery callback")
        _c_callback = callback
