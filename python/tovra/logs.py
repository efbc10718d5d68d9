"""The library's own logging: its configuration and where its lines go."""

from __future__ import annotations

import ctypes
import logging
import threading
from typing import Callable, Optional

from tovra import _library
from tovra._library import encode, library, text

logger = logging.getLogger("tovra")

LogHandler = Callable[[str], None]

# The library keeps the last callback for the whole process: so does this module.
_lock = threading.Lock()
_handler: Optional[LogHandler] = None
_c_callback: Optional[ctypes._CFuncPtr] = None


def set_logging_parameter(configuration: Optional[str]) -> None:
    """Configures the library's logging with a parameter text (``[OUTPUTTER]``, ``[TOVRA]``
    sections); None clears it. Takes effect only before the first reader is created."""
    library().TOVRA_SetLoggingParameter(encode(configuration))


def set_logging_handler(handler: Optional[LogHandler]) -> None:
    """Hands every line the library logs to ``handler``, on the logging thread; None
    switches it off. Takes effect only before the first reader is created."""
    global _handler, _c_callback
    lib = library()
    with _lock:
        _handler = handler
        if _c_callback is None:
            _c_callback = _library.LoggingCallback(_on_line)
        lib.TOVRA_SetLoggingCallback(None, _c_callback if handler is not None else _library.LoggingCallback())


def forward_to_logging(target: logging.Logger = logging.getLogger("tovra.library"), level: int = logging.DEBUG) -> None:
    """Sends the library's lines to a Python logger (by default ``tovra.library``)."""
    set_logging_handler(lambda line: target.log(level, "%s", line.rstrip("\r\n")))


def _on_line(_context: Optional[int], line: Optional[bytes]) -> None:
    try:
        handler = _handler
        if handler is not None:
            handler(text(line))
    except BaseException:  # nothing may unwind into the library's thread
        logger.exception("the logging handler failed")
