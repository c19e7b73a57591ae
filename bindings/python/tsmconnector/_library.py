"""The functions and the record of tsmconnector.h, declared for ctypes."""

import ctypes
import itertools
import os
from ctypes import POINTER, c_char, c_char_p, c_int, c_longlong, c_void_p
from typing import Callable, Iterable, List, NoReturn, Optional, SupportsIndex


class TsmObject(ctypes.Structure):
    """One record of a listing, as the library lays it out."""

    _fields_ = [
        ("highLevelName", c_char * 1027),
        ("lowLevelName", c_char * 257),
        ("size", c_longlong),
        ("backupDate", c_char * 20),
        ("objectInfo", c_char * 255),
        ("fileSpace", c_char * 1025),
        ("isFile", c_int),
    ]


Objects = POINTER(TsmObject)
Names = POINTER(c_char_p)

_ARGUMENTS = {
    "TsmInitApi": [c_char_p] * 4,
    "TsmReleaseApi": [],
    "TsmOpenSession": [c_char_p] * 7,
    "TsmCloseSession": [c_int],
    "TsmConnectToFileSpace": [c_int, c_char_p],
    "TsmGetFileSpaces": [c_int, POINTER(Names)],
    "TsmEndGetFileSpaces": [c_int],
    "TsmDeleteFileSpace": [c_int, c_char_p],
    "TsmGetMgmtClasses": [c_int, POINTER(Names)],
    "TsmEndGetMgmtClasses": [c_int],
    "TsmBeginBackupEx": [c_int, c_char_p, c_char_p, c_longlong, c_char_p, c_char_p],
    "TsmSendData": [c_int, c_char_p, c_int],
    "TsmEndBackup": [c_int],
    "TsmGetBackupInfo": [c_int, c_char_p, c_char_p, c_int, c_int, POINTER(Objects)],
    "TsmGetBackupInfoPointInTime": [c_int, c_char_p, c_char_p, c_char_p, c_int, POINTER(Objects)],
    "TsmEndGetBackupInfo": [c_int],
    "TsmBeginRestore": [c_int, c_char_p, c_char_p, c_char_p],
    "TsmGetData": [c_int, POINTER(c_void_p), c_int],
    "TsmEndRestore": [c_int],
    "TsmDelete": [c_int, c_char_p, c_char_p, c_int, c_char_p],
    "TsmRenameBackup": [c_int, c_char_p, c_char_p, c_char_p, c_char_p],
}


def load() -> ctypes.CDLL:
    """Loads the library and declares its functions. Raises ImportError when it cannot be loaded."""
    # .1 is the major version of the interface declared above; the package's own version does not matter.
    name = os.environ.get("TSMCONNECTOR_LIBRARY") or "libtsmconnector.so.1"
    try:
        library = ctypes.CDLL(name)
        for function, arguments in _ARGUMENTS.items():
            getattr(library, function).argtypes = arguments
    except (OSError, AttributeError) as error:
        needed, instead = "libtsmconnector.so.1", "set TSMCONNECTOR_LIBRARY to its path"
        if "libApiTSM64" in str(error):
            needed, instead = "the TSM client API", "start the program with its library's folder in LD_LIBRARY_PATH"
        raise ImportError(
            f"cannot use {name} ({error}): install {needed} where the system's linker finds it, or {instead}"
        ) from error
    library.TsmBeginRestore.restype = c_longlong
    return library


class Once:
    """A call of the library that is made once, however often it is asked for.

    To the interpreter, the call and keeping its result are one step. An interrupt comes before both, and then the call
    can still be made, or after both.
    """

    def __init__(self, function: Callable[..., int], arguments: Iterable[Iterable[object]]) -> None:
        self._calls = itertools.starmap(function, arguments)
        self.results: List[int] = []

    def __call__(self) -> int:
        self.results.extend(self._calls)
        return self.result or 0

    @property
    def result(self) -> Optional[int]:
        """None before the call."""
        return self.results[0] if self.results else None


class Sole:
    """The one owner of something in the library. It cannot be copied: the end of the copy would end that, too."""

    def __reduce_ex__(self, protocol: SupportsIndex) -> NoReturn:
        raise TypeError(f"{type(self).__name__} can be neither copied nor pickled")
