"""An object being written, and one being read, as binary files."""

import ctypes
import functools
import io
import warnings
from types import TracebackType
from typing import TYPE_CHECKING, Any, Callable, Optional, Type, TypeVar, Union, cast

from ._handle import Handle
from ._library import Sole

if TYPE_CHECKING:
    from _typeshed import ReadableBuffer, WriteableBuffer

_CHUNK = 1 << 20  # bytes a call: the library copies what it is given
_Method = TypeVar("_Method", bound=Callable[..., Any])


def _error_ends_transfer(method: _Method) -> _Method:
    """An exception in the method, also an interrupt, ends the transfer: nobody knows at which byte to go on."""

    @functools.wraps(method)
    def guarded(self: "_Stream", *arguments: Any) -> Any:
        try:
            if self._failure is not None:
                raise self._failure
            return self._handle.run_alone(method, self, *arguments)
        except BaseException as error:
            self._failure = error
            self._handle.give_up(self)
            raise

    return cast(_Method, guarded)


class _Stream(Sole, io.RawIOBase):
    """A transfer, which holds its session's handle. Whatever goes wrong in it signs the handle off."""

    def __init__(self, handle: Handle, label: str) -> None:
        self._handle = handle
        self._label = label
        self._moved = 0
        self._failure: Optional[BaseException] = None

    def _check_open(self) -> None:
        if self.closed:
            raise ValueError(f"{self._label} is closed")

    def tell(self) -> int:
        """How many bytes were transferred so far."""
        self._check_open()
        return self._moved

    def __del__(self) -> None:
        # The base class's would call close().
        try:
            handle = self._handle
        except AttributeError:
            return
        if handle.give_up(self):
            warnings.warn(f"{self._label} was not closed", ResourceWarning, source=self)

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self._label}>"


class BackupWriter(_Stream):
    """An object that is being stored: a binary file for writing. Made by Session.backup.

    It is written inside its `with` block and nowhere else. The end of the block commits the object. Any exception that
    leaves the block gives it up, and so does a failed write; if that was caught, the end of the block raises it again.
    What was given up is not stored, not even in part. close() in the block (wrappers such as io.BufferedWriter call it)
    ends the writing; the object is still committed at the end of the block.
    The client API may fail to end an object, store nothing, and still report a commit: to be sure, list the object.
    """

    def __init__(self, handle: Handle, label: str, *announced: object) -> None:
        super().__init__(handle, label)
        self._announced = announced
        self._entered = False

    def __enter__(self) -> "BackupWriter":
        self._check_open()
        if self._entered:
            raise ValueError("a backup's block is entered once")
        try:
            self._handle.call("TsmBeginBackupEx", *self._announced, next_holder=self)
            self._entered = True
        except BaseException:
            self._handle.give_up(self)
            raise
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        try:
            if kind is None:
                self._commit()
        finally:
            self._handle.give_up(self)
            self.close()

    @_error_ends_transfer
    def _commit(self) -> None:
        self._handle.call("TsmEndBackup", holder=self)

    def writable(self) -> bool:
        return self._entered

    @_error_ends_transfer
    def write(self, data: "ReadableBuffer") -> int:
        """Sends all of data and returns its length in bytes."""
        self._check_open()
        if not self._entered:
            raise io.UnsupportedOperation("a backup is written inside its `with` block")
        with memoryview(data) as view, view.cast("B") as rest:
            for start in range(0, len(rest), _CHUNK):
                part = bytes(rest[start : start + _CHUNK])
                self._handle.call("TsmSendData", part, len(part), holder=self, next_holder=self)
                self._moved += len(part)
            return len(rest)


class RestoreReader(_Stream):
    """A stored object that is being read: a binary file for reading, not seekable. Made by Session.restore.

    size is what was announced when the object was stored, in bytes. It is an estimate, and as a rule too
    large if the length was not known. The data ends when read() returns nothing; a failure raises TsmError and never looks like the end.
    close() frees the session for other work, at any point.
    """

    size: int

    def __init__(self, handle: Handle, label: str, *wanted: Union[bytes, None]) -> None:
        super().__init__(handle, label)
        self._view = memoryview(bytearray(_CHUNK))
        self._buffer = (ctypes.c_char * _CHUNK).from_buffer(self._view)
        self._at = self._end = 0
        self._all = False
        self.size = handle.call("TsmBeginRestore", *wanted, next_holder=self)

    def readable(self) -> bool:
        return True

    @_error_ends_transfer
    def readinto(self, buffer: "WriteableBuffer") -> int:
        """Fills the buffer as far as there is data, and returns the number of bytes."""
        self._check_open()
        with memoryview(buffer) as view, view.cast("B") as target:
            done = 0
            while done < len(target) and self._fill():
                part = self._view[self._at : min(self._end, self._at + len(target) - done)]
                target[done : done + len(part)] = part
                done += len(part)
                self._at += len(part)
            self._moved += done
            return done

    def _fill(self) -> bool:
        """Reads on if no byte is left in the buffer. False at the end of the object."""
        if self._at == self._end and not self._all:
            place = ctypes.c_void_p(ctypes.addressof(self._buffer))
            self._at = self._end = 0
            for _ in range(2):  # one empty piece is not the end: only at the end is the next one empty, too
                self._end = self._end or self._handle.call(
                    "TsmGetData", ctypes.byref(place), _CHUNK, holder=self, next_holder=self
                )
            self._all = self._end == 0
        return self._at < self._end

    def close(self) -> None:
        if self.closed:
            return
        try:
            if self._failure is None and self._handle.is_held_by(self):
                self._handle.call("TsmEndRestore", holder=self)
        finally:
            self._handle.give_up(self)
            super().close()
