"""The functions and the record of tsmconnector.h, as ctypes sees them."""

import ctypes
import os
from ctypes import POINTER, c_char, c_char_p, c_int, c_longlong, c_void_p


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
    # 1: the major version of the interface declared above, whatever the package's own version is.
    name = os.environ.get("TSMCONNECTOR_LIBRARY") or "libtsmconnector.so.1"
    try:
        library = ctypes.CDLL(name)
        for function, arguments in _ARGUMENTS.items():
            getattr(library, function).argtypes = arguments
    except (OSError, AttributeError) as error:
        raise ImportError(
            f"cannot use {name} ({error}): install libtsmconnector.so.1 where the system's linker finds it, "
            "or set TSMCONNECTOR_LIBRARY to its path"
        ) from error
    library.TsmBeginRestore.restype = c_longlong
    return library
