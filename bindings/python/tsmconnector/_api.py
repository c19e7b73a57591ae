"""The library, set up for one process."""

import contextlib
import ctypes
import os
import threading
import warnings
import weakref
from types import TracebackType
from typing import List, Optional, Sequence, Set, Type, Union

from ._errors import WRONG_ORDER, failure
from ._handle import Handle
from ._library import Once, Sole, load
from ._session import Session
from ._texts import optional

StrPath = Union[str, "os.PathLike[str]"]

_life = threading.RLock()  # one set-up or clean-up at a time; recursive, as either may collect a forgotten Api


class _Setup:
    """The library's set-up for an Api: TsmInitApi begins it, TsmReleaseApi ends it."""

    # Each set-up, from before TsmInitApi until after TsmReleaseApi. The first one owns the library. An interrupt can
    # leave one behind, of an Api that is closed or gone; the next Api ends it.
    known: List["_Setup"] = []

    def __init__(self, api: "Api", library: ctypes.CDLL, texts: Sequence[Optional[bytes]]) -> None:
        self.api = weakref.ref(api)
        self.process = os.getpid()
        self.begin = Once(library.TsmInitApi, [texts])
        self._end = Once(library.TsmReleaseApi, [()])

    def owns(self) -> bool:
        return self.known[:1] == [self] and self.process == os.getpid()

    def end(self) -> int:
        with _life:
            result = 0
            if self in self.known:
                if self.begin.result not in (None, WRONG_ORDER):  # WRONG_ORDER: the set-up is somebody else's
                    result = self._end()
                with contextlib.suppress(ValueError):
                    self.known.remove(self)
            return result

    @classmethod
    def end_interrupted(cls) -> None:
        for setup in cls.known[:]:
            if setup.process != os.getpid():
                raise RuntimeError("an Api was open at the fork of this process")
            api = setup.api()
            if api is None:
                setup.end()
            elif api._closed:
                api._end()


class Api(Sole):
    """The library, set up for this process. There is one at a time.

    config       the client API's options file; None: its default
    log_dir      folder for the client API's error log
    api_dir      the client API's installation folder
    application  the name under which sessions sign on

    Raises TsmError when the set-up fails (-2041: an Api is open already), ImportError when libtsmconnector cannot be
    loaded: the environment variable TSMCONNECTOR_LIBRARY names it, else the system's linker finds it.
    An interrupted set-up leaves nothing set up. After an interrupt in close(), close it again, or make the next Api.
    An Api does not survive a fork: in the child, it and its sessions raise RuntimeError.
    """

    _setup: Optional[_Setup] = None
    _closed = False

    def __init__(
        self,
        config: Optional[StrPath] = None,
        log_dir: Optional[StrPath] = None,
        api_dir: Optional[StrPath] = None,
        application: Optional[str] = None,
    ) -> None:
        texts = [optional(text) for text in (config, log_dir, api_dir, application)]
        self._library = load()
        self._handles: Set[Handle] = set()  # those that are not closed
        self._process = os.getpid()
        _Setup.end_interrupted()
        self._setup = setup = _Setup(self, self._library, texts)
        with _life:
            try:
                setup.known.append(setup)
                result = setup.begin() if setup.owns() else WRONG_ORDER
                if result == WRONG_ORDER:
                    raise failure(result, "TsmInitApi", "; the library is set up already")
                if result != 0:
                    options, log = config or "the default one", log_dir or "its default folder"
                    raise failure(result, "TsmInitApi", f"; options file: {options}; error log: in {log}")
            except BaseException:
                self._end()
                raise

    def session(
        self,
        node: Optional[str] = None,
        *,
        password: Optional[str] = None,
        filespace: Optional[str] = None,
        owner: Optional[str] = None,
        user_password: Optional[str] = None,
        options: Optional[str] = None,
        delimiter: str = "/",
    ) -> Session:
        """Signs on, and connects to the filespace, which is registered if it is new.

        Credentials may be None if the client API knows them itself. options is an options string for the client API.
        delimiter is the slash, "/" or "\\\\", that divides paths on the server. Raises TsmError, e.g. -137 for a wrong
        password.
        """
        if delimiter not in ("/", "\\"):
            raise ValueError("the delimiter is a slash or a backslash")
        texts = (node, owner, password, options, None, user_password, delimiter)
        return Session(Handle(self, [optional(text) for text in texts], optional(filespace)), delimiter.encode())

    def close(self) -> None:
        """Closes all sessions, which gives up what they have not committed, and cleans up. Waits for calls of other
        threads. Raises TsmError when the clean-up fails; the Api is closed nevertheless."""
        result = self._end()
        if result != 0:
            raise failure(result, "TsmReleaseApi")

    def _end(self) -> int:
        self._closed = True
        if self._setup is None or self._process != os.getpid():
            return 0
        handles = list(self._handles)
        for handle in handles:
            handle.close()
        if any(handle.used_by_this_thread() for handle in handles):
            raise RuntimeError("closed from within a call of one of its sessions; close it again afterwards")
        return self._setup.end()

    def _here(self) -> bool:
        return self._setup is not None and self._setup.owns()

    def __enter__(self) -> "Api":
        if self._closed:
            raise ValueError("the Api is closed")
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    def __del__(self) -> None:
        if self._here():
            self.close()
            warnings.warn("an Api was not closed", ResourceWarning, source=self)
