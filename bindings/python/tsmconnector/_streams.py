"""An object being written, and one being read, as binary files."""

import ctypes
import functools
import io
import warnings
from types import TracebackType
from typing import TYPE_CHECKING, Any, Callable, Optional, Type, TypeVar, Union, cast

from ._library import Sole

if TYPE_CHECKING:
    from _typeshed import ReadableBuffer, WriteableBuffer

    from ._session import Session

_CHUNK = 1 << 20  # the library copies what it is given, so a call's bytes are kept few
_Method = TypeVar("_Method", bound=Callable[..., Any])


def _moving(method: _Method) -> _Method:
    """Whatever breaks into the method ends the transfer, which could not be taken up again at the right byte."""

    @functools.wraps(method)
    def guarded(self: "_Stream", *arguments: Any) -> Any:
        try:
            if self._failure is not None:
                raise self._failure
            return self._session._exclusively(method, self, *arguments)
        except BaseException as error:
            self._failure = error
            self._session._abandon(self)
            raise

    return cast(_Method, guarded)


class _Stream(Sole, io.RawIOBase):
    """A transfer that occupies its session. Whatever goes wrong in it signs the session's handle off."""

    def __init__(self, session: "Session", label: str) -> None:
        self._session = session
        self._label = label
        self._moved = 0
        self._failure: Optional[BaseException] = None

    def _check_open(self) -> None:
        if self.closed:
            raise ValueError(f"{self._label} is closed")

    def tell(self) -> int:
        """How many bytes went through so far."""
        self._check_open()
        return self._moved

    def __del__(self) -> None:
        # In place of the base class's, which calls close().
        try:
            session = self._session
        except AttributeError:
            return
        if session._abandon(self):
            warnings.warn(f"{self._label} was not closed", ResourceWarning, source=self)

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self._label}>"


class BackupWriter(_Stream):
    """An object that is being stored: a binary file for writing. Made by Session.backup.

    It is written inside its `with` block, and nowhere else. The end of the block commits the object; an exception
    that leaves the block, whichever it is, gives it up, and so does the failure of a write, also one that was caught:
    the end of the block then raises it again. What was given up is not stored, not even in part. close() in the block
    (which wrappers such as io.BufferedWriter call) ends the writing and leaves the rest to the end of the block.
    A client API that fails to end the object and commits all the same is not noticed: to be sure of an object, list it.
    """

    def __init__(self, session: "Session", label: str, *announced: object) -> None:
        super().__init__(session, label)
        self._announced = announced
        self._entered = False

    def __enter__(self) -> "BackupWriter":
        self._check_open()
        if self._entered:
            raise ValueError("a backup's block is entered once")
        try:
            self._session._call("TsmBeginBackupEx", *self._announced, then=self)
            self._entered = True
        except BaseException:
            self._session._abandon(self)
            raise
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        try:
            if kind is None:
                self._commit()
        finally:
            self._session._abandon(self)
            self.close()

    @_moving
    def _commit(self) -> None:
        self._session._call("TsmEndBackup", holder=self)

    def writable(self) -> bool:
        return self._entered

    @_moving
    def write(self, data: "ReadableBuffer") -> int:
        """Sends all of data and returns its length in bytes."""
        self._check_open()
        if not self._entered:
            raise io.UnsupportedOperation("a backup is written inside its `with` block")
        with memoryview(data) as view, view.cast("B") as rest:
            for start in range(0, len(rest), _CHUNK):
                part = bytes(rest[start : start + _CHUNK])
                self._session._call("TsmSendData", part, len(part), holder=self, then=self)
                self._moved += len(part)
            return len(rest)


class RestoreReader(_Stream):
    """A stored object that is being read: a binary file for reading, not seekable. Made by Session.restore.

    size is what was announced when the object was stored, in bytes: an estimate, 1 as a rule where the length was not
    known. The data ends where read() gives nothing; a failure raises TsmError and never looks like an end.
    close(), at any point, frees the session for other work.
    """

    size: int

    def __init__(self, session: "Session", label: str, *wanted: Union[bytes, None]) -> None:
        super().__init__(session, label)
        self._view = memoryview(bytearray(_CHUNK))
        self._buffer = (ctypes.c_char * _CHUNK).from_buffer(self._view)
        self._at = self._end = 0
        self._all = False
        self.size = session._call("TsmBeginRestore", *wanted, then=self)

    def readable(self) -> bool:
        return True

    @_moving
    def readinto(self, buffer: "WriteableBuffer") -> int:
        """Fills the buffer, as far as there is data, and returns the number of bytes."""
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
        """Sees to it that the buffer holds unread bytes. False at the end of the object."""
        if self._at == self._end and not self._all:
            place = ctypes.c_void_p(ctypes.addressof(self._buffer))
            self._at = self._end = 0
            for _ in range(2):  # a piece without bytes is not the end, which says so again
                self._end = self._end or self._session._call(
                    "TsmGetData", ctypes.byref(place), _CHUNK, holder=self, then=self
                )
            self._all = self._end == 0
        return self._at < self._end

    def close(self) -> None:
        if self.closed:
            return
        try:
            if self._failure is None and self._session._holds(self):
                self._session._call("TsmEndRestore", holder=self)
        finally:
            self._session._abandon(self)
            super().close()
