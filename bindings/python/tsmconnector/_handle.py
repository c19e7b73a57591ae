"""The life of a session's handle: signing on and off, and who may use it in between."""

import ctypes
import os
import threading
from typing import Callable, List, Optional, Protocol, Set, Tuple, TypeVar

from ._errors import NOT_FOUND, WRONG_ORDER, failure
from ._library import Once

_Result = TypeVar("_Result")


class Owner(Protocol):
    """What a handle uses of the Api that it belongs to."""

    _library: ctypes.CDLL
    _process: int
    _closed: bool
    _handles: Set["Handle"]  # those that are not closed

    def _here(self) -> bool:
        """Whether the library is set up for this Api, in this process."""


class Handle:
    """A handle of the library that signs on again whenever it has to.

    The library drops an unfinished operation only when the session signs off. A backup, a restore or a listing that is
    being read holds the handle. What may be open and is held by nobody is signed off at the end of the outermost call,
    and the next call signs on again. For this the credentials are kept until the handle is closed.
    """

    def __init__(self, api: Owner, credentials: List[Optional[bytes]], filespace: Optional[bytes]) -> None:
        self.filespace = filespace  # connected at every sign-on
        self._api = api  # which lives as long as something uses the handle
        self._credentials = credentials
        self._lock = threading.RLock()
        self.used_by_this_thread: Callable[[], bool] = getattr(self._lock, "_is_owned")  # as threading.Condition asks
        self._calling = False  # the library is being called
        self._opening = self._closing = Once(api._library.TsmOpenSession, ())  # none
        self._holder = 0  # its id
        self._may_be_open = False  # an operation, or half a sign-on
        self._closed = False
        api._handles.add(self)
        try:
            self.run_alone(self._make_ready)
        except BaseException:
            self.close()
            raise

    def run_alone(self, work: Callable[..., _Result], *arguments: object, **more: object) -> _Result:
        """Runs work while other threads wait. A signal handler or a finaliser of the same thread is let through; if it
        gives something up, the call that it interrupted signs off."""
        if self._api._process != os.getpid():  # where nobody may be left to release the lock
            raise RuntimeError("the session belongs to another process")
        outermost = not self.used_by_this_thread()
        with self._lock:
            try:
                if outermost:
                    self._calling = False
                return work(*arguments, **more)
            finally:
                if outermost:
                    self._sign_off_if_unheld()

    def call(
        self, function: str, *arguments: object, holder: Optional[object] = None, next_holder: Optional[object] = None
    ) -> int:
        """Calls a function of the library and returns its result. Raises TsmError for a negative one.

        holder is what holds the handle now (None: nothing may), next_holder what holds it after a success. Raises
        ValueError where holder has lost the handle or the session is closed, RuntimeError where something else holds
        the handle or a signal handler interrupted another call.
        """
        return self.run_alone(self._call, function, arguments, holder, next_holder)

    def connect(self, filespace: bytes) -> None:
        self.run_alone(self._connect, filespace)

    def is_held_by(self, holder: object) -> bool:
        return self._holder == id(holder)

    def give_up(self, holder: object) -> bool:
        """Signs off if holder still holds the handle, so that the server discards what it left unfinished. False
        where it does not."""
        return self.is_held_by(holder) and self._api._here() and self.run_alone(self._release, holder)

    def check_usable(self) -> None:
        if self._closed or self._api._closed:
            raise ValueError("the session is closed")

    def close(self) -> None:
        """Signs off for good. May be called again."""
        if self._api._here():
            self.run_alone(self._mark_closed)

    # What follows runs inside run_alone().

    def _call(
        self, function: str, arguments: Tuple[object, ...], holder: Optional[object], next_holder: Optional[object]
    ) -> int:
        if holder is not None and not self.is_held_by(holder):
            raise ValueError("the session was closed under the backup or the restore, which is given up")
        if self._calling:
            raise RuntimeError("the session is in the middle of a call")
        if holder is None and self._holder:
            raise RuntimeError("a backup or a restore is under way on this session")
        try:
            self._calling = True
            if holder is None:
                self._make_ready()
            result = self._call_library(function, arguments)
            if result == WRONG_ORDER and function == "TsmGetBackupInfo":
                # A deletion or a rename whose tidying failed leaves a transaction open, and only the listing behind it
                # is told. No other function is repeated: it could have begun something.
                self._make_ready()
                result = self._call_library(function, arguments)
            if result < 0:
                raise failure(result, function)
            self._holder = 0 if next_holder is None else id(next_holder)
            self._may_be_open = next_holder is not None
            return result
        finally:
            self._calling = False

    def _call_library(self, function: str, arguments: Tuple[object, ...]) -> int:
        library = self._api._library
        call: Callable[..., int] = getattr(library, function)
        self._may_be_open = True  # whatever interrupts from here on
        result = call(self._number, *arguments)
        if result == NOT_FOUND and function == "TsmBeginRestore":  # no reason to sign on anew
            library.TsmEndRestore(self._number)
            self._may_be_open = False
        return result

    def _connect(self, filespace: bytes) -> None:
        try:
            self.call("TsmConnectToFileSpace", filespace)
            self.filespace = filespace
        except BaseException:
            self._may_be_open = True  # in one filespace or the other
            raise

    def _release(self, holder: object) -> bool:
        held = self.is_held_by(holder)
        if held:
            self._holder = 0
        return held

    def _mark_closed(self) -> None:
        self._closed = self._may_be_open = True
        self._holder = 0

    def _make_ready(self) -> None:
        self.check_usable()
        if self._may_be_open:
            self._sign_off()
        if self._number == 0:
            self._sign_on()

    @property
    def _number(self) -> int:
        """The library's handle; 0 while signed off."""
        return 0 if self._closing.result is not None else max(0, self._opening.result or 0)

    def _sign_on(self) -> None:
        library = self._api._library
        self._may_be_open = True  # until the filespace is connected
        self._opening = Once(library.TsmOpenSession, [self._credentials])
        self._closing = Once(library.TsmCloseSession, zip(self._opening.results))
        number = self._opening()
        if number <= 0:
            raise failure(number, "TsmOpenSession")
        if self.filespace is not None:
            result = library.TsmConnectToFileSpace(number, self.filespace)
            if result < 0:
                raise failure(result, "TsmConnectToFileSpace")
        self._may_be_open = False

    def _sign_off(self) -> None:
        self._holder = 0
        if self._number != 0 and self._api._here():
            # Whatever the result is: the handle is gone, and what was not committed is discarded.
            self._closing()
        self._may_be_open = False

    def _sign_off_if_unheld(self) -> None:
        if self._may_be_open and not self._holder:
            self._sign_off()
        if self._closed:
            self._sign_off()
            self._credentials.clear()
            self._api._handles.discard(self)
