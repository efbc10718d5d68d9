"""Finding, loading and declaring the tovra shared library."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import sys
import threading
from pathlib import Path
from typing import Mapping, Optional, Sequence

ENVIRONMENT_VARIABLE = "TOVRA_LIBRARY"

if sys.platform == "win32":
    FILE_NAME = "tovra.dll"
else:
    FILE_NAME = "libtovra.so.1"

PACKAGE_DIR = Path(__file__).resolve().parent

c_int32 = ctypes.c_int32
c_uint32 = ctypes.c_uint32
c_uint64 = ctypes.c_uint64
c_char_p = ctypes.c_char_p
c_void_p = ctypes.c_void_p

# The library uses the C calling convention everywhere (__cdecl on Windows, which on
# 64-bit Windows is the only convention anyway). Calling a prototype without arguments
# gives the null callback that switches a notification off.
ReaderConnectedCallback = ctypes.CFUNCTYPE(None, c_int32, c_void_p, c_char_p)
ReaderDisconnectedCallback = ctypes.CFUNCTYPE(None, c_int32, c_void_p)
# The request arrives as an address so that an empty one needs no special case in ctypes.
ReaderRequestCallback = ctypes.CFUNCTYPE(
    c_int32, c_int32, c_void_p, c_void_p, c_uint64, ctypes.POINTER(c_void_p), ctypes.POINTER(c_uint64)
)
DiscoveryCallback = ctypes.CFUNCTYPE(None, c_void_p, c_int32, c_char_p)
LoggingCallback = ctypes.CFUNCTYPE(None, c_void_p, c_char_p)

# Name: (result type, argument types) of every function this package calls.
_FUNCTIONS: Mapping[str, tuple[object, Sequence[object]]] = {
    "TOVRA_Create": (c_int32, (c_int32, c_char_p)),
    "TOVRA_Delete": (c_int32, (c_int32,)),
    "TOVRA_Terminate": (c_int32, (c_int32,)),
    "TOVRA_GetConnector": (c_char_p, (c_int32,)),
    "TOVRA_GetConnectionState": (c_char_p, (c_int32,)),
    "TOVRA_GetLowLevelPortHandle": (c_int32, (c_int32,)),
    "TOVRA_GetVersion": (c_char_p, ()),
    "TOVRA_ConnectByHost": (c_int32, (c_int32, c_char_p)),
    "TOVRA_DisconnectByHost": (c_int32, (c_int32,)),
    "TOVRA_StartListener": (c_int32, (c_int32, c_char_p)),
    "TOVRA_StopListener": (c_int32, (c_int32,)),
    "TOVRA_Transceive": (c_int32, (c_int32, c_char_p, c_uint64, c_char_p, ctypes.POINTER(c_uint64))),
    "TOVRA_SetReceiveTimeout": (c_int32, (c_int32, c_uint32)),
    "TOVRA_GetReceiveTimeout": (c_int32, (c_int32,)),
    "TOVRA_SetReaderConnectedCallbacks": (
        c_int32,
        (c_int32, c_void_p, ReaderConnectedCallback, ReaderDisconnectedCallback),
    ),
    "TOVRA_SetReaderRequestCallback": (c_int32, (c_int32, c_void_p, ReaderRequestCallback)),
    "TOVRA_GetLastError": (c_int32, (c_int32,)),
    "TOVRA_GetLastErrorText": (c_char_p, (c_int32,)),
    "TOVRA_UdpManagerSetEventCallback": (c_int32, (c_void_p, DiscoveryCallback)),
    "TOVRA_UdpManagerStartDiscover": (c_int32, (c_uint32, c_char_p)),
    "TOVRA_UdpManagerStopDiscover": (c_int32, ()),
    "TOVRA_SetLoggingParameter": (None, (c_char_p,)),
    "TOVRA_SetLoggingCallback": (None, (c_void_p, LoggingCallback)),
}


class LibraryNotFoundError(OSError):
    """No tovra library could be loaded; ``tried`` lists each candidate and why it failed."""

    def __init__(self, tried: Sequence[str]) -> None:
        self.tried = list(tried)
        lines = "\n  ".join(self.tried)
        super().__init__(
            f"cannot load the tovra library; tried, in order:\n  {lines}\n"
            f"Copy {FILE_NAME} next to the tovra package, set {ENVIRONMENT_VARIABLE} to its path, "
            "or install it where the system's loader finds it."
        )


def candidates(package_dir: Path = PACKAGE_DIR, environ: Optional[Mapping[str, str]] = None) -> list[str]:
    """The libraries to try, in order: beside the package, the environment's, the system's."""
    environ = os.environ if environ is None else environ
    found = [str(package_dir / FILE_NAME)]
    configured = environ.get(ENVIRONMENT_VARIABLE, "")
    if configured:
        found.append(configured)
    found.append(FILE_NAME)
    system = ctypes.util.find_library("tovra")
    if system and system not in found:
        found.append(system)
    return found


def load(package_dir: Path = PACKAGE_DIR, environ: Optional[Mapping[str, str]] = None) -> ctypes.CDLL:
    """Loads the first candidate that is a tovra library and declares its functions."""
    tried = []
    for candidate in candidates(package_dir, environ):
        try:
            return _declare(ctypes.CDLL(candidate))
        except (OSError, AttributeError) as error:
            # AttributeError: a library by that name that lacks one of the functions.
            reason = str(error)
            # dlopen's reasons start with the path again.
            tried.append(f"{candidate}: {reason.removeprefix(candidate + ': ')}")
    raise LibraryNotFoundError(tried)


def _declare(library: ctypes.CDLL) -> ctypes.CDLL:
    for name, (result, arguments) in _FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = list(arguments)
    return library


_loaded: Optional[ctypes.CDLL] = None
_loading = threading.Lock()


def library() -> ctypes.CDLL:
    """The process's tovra library, loaded on first use."""
    global _loaded
    with _loading:
        if _loaded is None:
            _loaded = load()
        return _loaded


def text(value: Optional[bytes]) -> str:
    """A text the library returned (null reads as empty)."""
    return value.decode("utf-8", errors="replace") if value else ""


def encode(value: Optional[str]) -> Optional[bytes]:
    """A text for the library (None stays null)."""
    return None if value is None else value.encode("utf-8")
