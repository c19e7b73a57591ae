"""The library for one process, and sessions with the server."""

import contextlib
import ctypes
import functools
import operator
import os
import threading
import warnings
import weakref
from datetime import datetime
from types import TracebackType
from typing import Any, Callable, List, NamedTuple, Optional, Sequence, Set, Tuple, Type, TypeVar, Union, cast

from ._errors import NOT_FOUND, WRONG_ORDER, NotFoundError, failure
from ._library import Names, Objects, Once, Sole, TsmObject, load
from ._streams import BackupWriter, RestoreReader
from ._texts import Moment, directory, encoded, exact, moment, optional, parsed, plain, rewritten

StrPath = Union[str, "os.PathLike[str]"]
_Item = TypeVar("_Item")
_Method = TypeVar("_Method", bound=Callable[..., Any])

_KINDS = {"any": 0, "directories": 1, "files": 2}

_life = threading.RLock()  # set-up and clean-up run alone; an Api may be collected in either


def _exclusive(method: _Method) -> _Method:
    """A method of a session during which other threads wait. A signal handler or a finaliser of this one comes
    through, and its sign-off is left to the method that it broke into."""

    @functools.wraps(method)
    def locked(self: "Session", *arguments: Any, **more: Any) -> Any:
        if self._api._process != os.getpid():  # where nobody may be left to let go of the lock
            raise RuntimeError("the session belongs to another process")
        outermost = not self._mine()
        with self._lock:
            try:
                if outermost:
                    self._calling = False
                return method(self, *arguments, **more)
            finally:
                if outermost:
                    self._settle()

    return cast(_Method, locked)


class StoredObject(NamedTuple):
    """One stored version of one object."""

    path: str
    """With its leading delimiter; empty at the top of the filespace."""
    name: str
    """As it was given to backup()."""
    size: int
    """The announced size: what backup() was told, in bytes, and not the length of the data."""
    stored: str
    """When, in the server's local time, e.g. "2021-3-7 9:5:1". To be used as `at`, it selects this version."""
    info: str
    """The host's own text, its first 254 bytes."""
    filespace: str
    is_file: bool
    """False for a directory object."""

    @property
    def stored_at(self) -> datetime:
        """`stored` as a datetime without a time zone. Raises ValueError where the server's text is no moment."""
        return parsed(self.stored)


class _Setup:
    """What TsmInitApi begins for an Api and TsmReleaseApi ends."""

    # From before the one to after the other. The first one owns the library; one that was broken into before it could
    # go is closed, or its Api is gone, and the next Api sees to it.
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
                if self.begin.result not in (None, WRONG_ORDER):  # where another host's goes on working
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
    An interrupt leaves nothing set up; one in close() leaves an Api that is closed again, or by the next one.
    Not to be carried over a fork: in the child it and its sessions raise RuntimeError.
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
        self._sessions: Set["Session"] = set()  # those that are not closed
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
    ) -> "Session":
        """Signs on, and connects to the filespace, which is registered where it is new.

        Credentials may be None where the client API knows them itself. options is an options string for it. delimiter
        is the slash, "/" or "\\\\", that divides paths on the server. Raises TsmError, e.g. -137 for a wrong password.
        """
        if delimiter not in ("/", "\\"):
            raise ValueError("the delimiter is a slash or a backslash")
        texts = (node, owner, password, options, None, user_password, delimiter)
        return Session(self, [optional(text) for text in texts], optional(filespace))

    def close(self) -> None:
        """Closes all sessions, giving up what they have not committed, and cleans up. Waits for calls under way in
        other threads. Raises TsmError when the clean-up fails; the Api is closed all the same."""
        result = self._end()
        if result != 0:
            raise failure(result, "TsmReleaseApi")

    def _end(self) -> int:
        self._closed = True
        if self._setup is None or self._process != os.getpid():
            return 0
        sessions = list(self._sessions)
        for session in sessions:
            session.close()
        if any(session._mine() for session in sessions):
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


class Session(Sole):
    """A session with the server. Made by Api.session; a context manager.

    An object is named by a path and a name: path "a/b" (also "/a/b", "a/b/") and name "disk.img"; the path "" is the
    top of the filespace. Paths and names are str, kept on the server as os.fsencode gives them. Where they name one
    object, wildcards, empty components and the other slash in a path raise ValueError, and so does any slash in a name.

    Calls from several threads wait for each other. A backup or a restore holds the session until it is over; other
    calls meanwhile raise RuntimeError. To work in parallel, use a session for each thread.

    Where something fails or is given up in a way that could leave half an operation open, the session signs off, so
    that the server discards it, and signs on again when it is next used; it keeps the password until it is closed.

    All calls raise ValueError on a closed session, and for texts with a NUL character; TsmError, or its subclass
    NotFoundError, when the library or the server refuses.
    """

    # The state of the handle: something may be open on it (_unsettled), and somebody holds that (_holder: a stream, or
    # a listing that is read). What nobody holds is signed off when the outermost call is left.

    def __init__(self, api: Api, credentials: List[Optional[bytes]], filespace: Optional[bytes]) -> None:
        self._api = api
        self._credentials = credentials
        self._delimiter = credentials[-1] or b"/"
        self._filespace = filespace
        self._lock = threading.RLock()
        self._mine: Callable[[], bool] = getattr(self._lock, "_is_owned")  # as threading.Condition asks
        self._calling = False
        self._opening = self._closing = Once(api._library.TsmOpenSession, ())  # none
        self._holder = 0  # its id
        self._unsettled = False
        self._closed = False
        api._sessions.add(self)
        try:
            self._exclusively(self._make_ready)
        except BaseException:
            self.close()
            raise

    # ------------------------------------------------------------------ the handle

    @_exclusive
    def _exclusively(self, work: Callable[..., _Item], *arguments: object) -> _Item:
        return work(*arguments)

    def _settle(self) -> None:
        if self._unsettled and not self._holder:
            self._sign_off()
        if self._closed:
            self._sign_off()
            self._credentials.clear()
            self._api._sessions.discard(self)

    def _check_usable(self) -> None:
        if self._closed or self._api._closed:
            raise ValueError("the session is closed")

    @property
    def _handle(self) -> int:
        """0 where the session is signed off."""
        return 0 if self._closing.result is not None else max(0, self._opening.result or 0)

    def _sign_on(self) -> None:
        library = self._api._library
        self._unsettled = True  # until the filespace is connected
        self._opening = Once(library.TsmOpenSession, [self._credentials])
        self._closing = Once(library.TsmCloseSession, zip(self._opening.results))
        handle = self._opening()
        if handle <= 0:
            raise failure(handle, "TsmOpenSession")
        if self._filespace is not None:
            result = library.TsmConnectToFileSpace(handle, self._filespace)
            if result < 0:
                raise failure(result, "TsmConnectToFileSpace")
        self._unsettled = False

    def _sign_off(self) -> None:
        self._holder = 0
        if self._handle != 0 and self._api._here():
            # The result is not needed: the handle is gone and what was not committed is discarded either way.
            self._closing()
        self._unsettled = False

    @_exclusive
    def _call(
        self, function: str, *arguments: object, holder: Optional[object] = None, then: Optional[object] = None
    ) -> int:
        """Calls a function for the holder of the session, which is None where nothing is under way. then holds it
        afterwards. A call that breaks into another (from a signal handler) is refused."""
        if holder is not None and not self._holds(holder):
            raise ValueError("the session was closed under the backup or the restore, which is given up")
        if self._calling:
            raise RuntimeError("the session is in the middle of a call")
        if holder is None and self._holder:
            raise RuntimeError("a backup or a restore is under way on this session")
        try:
            self._calling = True
            if holder is None:
                self._make_ready()
            result = self._attempt(function, arguments)
            if result == WRONG_ORDER and function == "TsmGetBackupInfo":
                # What the tidying of a deletion or a rename leaves open, only the listing behind it hears of. Nothing
                # else is called again: it could have begun.
                self._make_ready()
                result = self._attempt(function, arguments)
            if result < 0:
                raise failure(result, function)
            self._holder = 0 if then is None else id(then)
            self._unsettled = then is not None
            return result
        finally:
            self._calling = False

    def _attempt(self, function: str, arguments: Tuple[object, ...]) -> int:
        library = self._api._library
        call: Callable[..., int] = getattr(library, function)
        self._unsettled = True  # for whatever breaks in from here on
        result = call(self._handle, *arguments)
        if result == NOT_FOUND and function == "TsmBeginRestore":  # no reason to sign on anew
            library.TsmEndRestore(self._handle)
            self._unsettled = False
        return result

    def _make_ready(self) -> None:
        self._check_usable()
        if self._unsettled:
            self._sign_off()
        if self._handle == 0:
            self._sign_on()

    def _holds(self, stream: object) -> bool:
        return self._holder == id(stream)

    def _abandon(self, stream: object) -> bool:
        """Signs off under a stream that is not over. False when the stream does not hold the session any more."""
        return self._holds(stream) and self._api._here() and self._let_go(stream)

    @_exclusive
    def _let_go(self, stream: object) -> bool:
        held = self._holds(stream)
        if held:
            self._holder = 0
        return held

    @_exclusive
    def _collect(
        self, holder: object, function: str, *arguments: object, end: str, item: Callable[[int], _Item]
    ) -> List[_Item]:
        """What a function hands out, item by item, and the end of it."""
        try:
            items = [item(i) for i in range(self._call(function, *arguments, then=holder))]
            self._call(end, holder=holder)
            return items
        finally:
            self._abandon(holder)

    def close(self) -> None:
        """Signs off. What is not committed is discarded by the server. May be called again."""
        if self._api._here():
            self._exclusively(self._end)

    def _end(self) -> None:
        self._closed = self._unsettled = True
        self._holder = 0

    @_exclusive
    def __enter__(self) -> "Session":
        self._check_usable()
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    # ------------------------------------------------------------------ filespaces

    @_exclusive
    def connect(self, filespace: str) -> None:
        """Chooses the filespace for all that follows, and registers it where it is new."""
        name = encoded(filespace)
        try:
            self._call("TsmConnectToFileSpace", name)
            self._filespace = name
        except BaseException:
            self._unsettled = True  # in one filespace or the other
            raise

    def filespaces(self) -> List[str]:
        """The names of the node's filespaces."""
        try:
            return self._names("TsmGetFileSpaces", "TsmEndGetFileSpaces")
        except NotFoundError:
            return []

    @_exclusive
    def delete_filespace(self, name: str) -> None:
        """Deletes a filespace with every object and version in it, for good. Slashes in its name are not rewritten."""
        text = encoded(name)
        self._call("TsmDeleteFileSpace", text)
        connected = self._filespace
        if connected is not None and rewritten(connected, self._delimiter) == text:
            self._filespace = None  # a new sign-on would register it again

    def management_classes(self) -> List[str]:
        """The names of the management classes offered to the node."""
        return self._names("TsmGetMgmtClasses", "TsmEndGetMgmtClasses")

    def _names(self, function: str, end: str) -> List[str]:
        names = Names()
        return self._collect(
            names, function, ctypes.byref(names), end=end, item=lambda i: os.fsdecode(names[i] or b"")
        )

    # ------------------------------------------------------------------ objects

    def backup(
        self, path: str, name: str, size: int = 1, info: Optional[str] = None, mgmt_class: Optional[str] = None
    ) -> BackupWriter:
        """Stores an object: `with session.backup("a", "f") as file: file.write(data)`.

        The object is begun where the block is entered, stored for good where it ends, and given up by any exception:
        see BackupWriter. An older version under the name becomes an inactive one.
        size is the expected number of bytes, at least 1, also for an empty file; listings show it. info is a text
        stored with the object, up to 65534 bytes. Missing directory objects of the path are made.
        """
        if not 1 <= operator.index(size) < 1 << 63:
            raise ValueError("size is at least 1: announce 1 where it is not known")
        announced = (self._directory(path), plain(name), size, optional(info), optional(mgmt_class))
        return BackupWriter(self, f"{path}/{name}", *announced)

    def _directory(self, path: str) -> bytes:
        return directory(path, self._delimiter)

    def make_directory(
        self, path: str, name: str, info: Optional[str] = None, mgmt_class: Optional[str] = None
    ) -> None:
        """Stores a directory object. backup() makes those that it needs by itself; this one carries an info."""
        announced = (self._directory(path), plain(name), 0, optional(info), optional(mgmt_class))
        self._collect(announced, "TsmBeginBackupEx", *announced, end="TsmEndBackup", item=int)

    def restore(self, path: str, name: str, at: Optional[Moment] = None) -> RestoreReader:
        """Opens an object for reading: the active version, or the one that was current at a moment.

        at is a datetime in the server's local time, without a zone, or a text such as StoredObject.stored.
        Raises NotFoundError when no such file is stored (directory objects are none), and ValueError for a text that
        is no moment. The name may have slashes in it, as other hosts store them.
        """
        wanted = (self._directory(path), exact(name), None if at is None else moment(at))
        return RestoreReader(self, f"{path}/{name}", *wanted)

    def list(
        self,
        path: str = "*",
        name: str = "*",
        *,
        versions: bool = False,
        at: Optional[Moment] = None,
        kind: str = "any",
    ) -> List[StoredObject]:
        """Lists stored objects, in the server's order.

        path is one directory, or "*" for every one; path and name may hold the wildcards * (any run of characters,
        delimiters too) and ?. versions=True lists inactive versions as well, each a record; at lists what was current
        at a moment (see restore). kind is "any", "files" or "directories".
        """
        if versions and at is not None:
            raise ValueError("either all versions or those of a moment")
        which: Union[bytes, int] = moment(at) if at is not None else 0 if versions else 1
        return self._find(encoded(path), encoded(name), which, kind)

    def _find(self, path: bytes, name: bytes, which: Union[bytes, int], kind: str = "any") -> List[StoredObject]:
        if kind not in _KINDS:
            raise ValueError(f"kind is one of {', '.join(_KINDS)}")
        objects = Objects()
        function = "TsmGetBackupInfoPointInTime" if isinstance(which, bytes) else "TsmGetBackupInfo"
        arguments = (path, name, which, _KINDS[kind], ctypes.byref(objects))
        return self._collect(
            objects, function, *arguments, end="TsmEndGetBackupInfo", item=lambda i: self._record(objects[i])
        )

    def _record(self, found: TsmObject) -> StoredObject:
        name = found.lowLevelName
        return StoredObject(
            path=os.fsdecode(found.highLevelName),
            name=os.fsdecode(name[1:] if name.startswith(self._delimiter) else name),
            size=found.size,
            stored=os.fsdecode(found.backupDate),
            info=os.fsdecode(found.objectInfo),
            filespace=os.fsdecode(found.fileSpace),
            is_file=found.isFile != 0,
        )

    @_exclusive
    def delete(self, path: str, name: str, *, all_versions: bool = False, kind: str = "files") -> None:
        """Deletes an object, and the directory objects of its path that hold nothing active any more.

        The active version becomes inactive, or, with all_versions=True, every version is deleted for good (the node
        needs permission: -2302). Nothing happens when nothing is stored under the name. What lies below a directory
        object stays: to delete a tree, list() it and delete the files one by one.

        The library deletes by name, whatever bears it. ValueError is raised instead where that would take more than
        kind ("files", "directories" or "any") allows under this name, and where a file bears the name of a directory
        of the path. TsmError with code -1: the object is still there.
        """
        what = (self._directory(path), plain(name))
        which = 0 if all_versions else 1
        found = self._find(*what, which)
        if found != self._find(*what, which, kind):
            raise ValueError(f"under {name!r} more is stored than {kind}: with kind='any' all of it goes")
        if not found:
            return
        self._check_above(what[0], which)
        self._call("TsmDelete", *what, 1 if all_versions else 0, None)
        if self._find(*what, which):  # the library answers 0 also where its search broke off
            raise failure(-1, "TsmDelete")

    @_exclusive
    def rename(self, old_path: str, old_name: str, new_path: str, new_name: str) -> None:
        """Renames an object with all its versions. What is stored under the new name is replaced, every version of it.

        Raises NotFoundError when nothing is stored under the old name, and TsmError with code -1 when the server did
        not carry the rename out. Raises ValueError where the library would delete what is to be kept: when one of the
        names is the other, or that of a directory of the other's path; when the names are held by files and
        directory objects both; when a file bears the name of a directory of one of the paths; and when inactive versions
        alone would replace an active one. After a TsmError list both names: what was stored under the new one may be
        gone already, and with the operation TsmGetBackupInfo the rename may have gone through.
        """
        old = (self._directory(old_path), plain(old_name))
        new = (self._directory(new_path), plain(new_name))
        first, second = sorted((self._delimiter.join((*name, b"")) for name in (old, new)), key=len)
        if second.startswith(first):
            raise ValueError("the new name is the old one, or one of them is above the other")
        found = self._find(*old, 0)
        if not found:  # the library goes on where its own search fails
            raise failure(NOT_FOUND, "TsmRenameBackup")
        if len({each.is_file for each in found + self._find(*new, 0)}) > 1:
            raise ValueError("the names are held by files and directory objects both")
        if self._find(*new, 1) and not self._find(*old, 1):
            raise ValueError("the old name holds inactive versions only, and would replace an active one")
        for path, _ in (old, new):
            self._check_above(path, 0)
        self._call("TsmRenameBackup", *old, *new)
        # The library answers 0 also where the server gave the transaction up without a reason.
        if self._find(*old, 0) or not self._find(*new, 0):
            raise failure(-1, "TsmRenameBackup")

    def _check_above(self, path: bytes, which: int) -> None:
        """Raises ValueError where a file would go with a directory of the path that is left empty."""
        while path:
            path, _, name = path.rpartition(self._delimiter)
            if self._find(path, name, which, "files"):
                raise ValueError(f"a file has the name of the directory {os.fsdecode(path + self._delimiter + name)}")
