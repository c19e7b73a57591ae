"""Sessions with the server."""

import ctypes
import functools
import operator
import os
from datetime import datetime
from types import TracebackType
from typing import Any, Callable, List, NamedTuple, Optional, Type, TypeVar, Union, cast

from ._errors import NOT_FOUND, NotFoundError, failure
from ._handle import Handle
from ._library import Names, Objects, Sole, TsmObject
from ._streams import BackupWriter, RestoreReader
from ._texts import Moment, directory, encoded, exact, moment, optional, parsed, plain, rewritten

UNKNOWN_SIZE = 10 << 30
"""What Session.backup announces for data whose length is not known."""

_Item = TypeVar("_Item")
_Method = TypeVar("_Method", bound=Callable[..., Any])

_KINDS = {"any": 0, "directories": 1, "files": 2}


def _alone(method: _Method) -> _Method:
    """Other threads wait until the method is over, whatever it calls one after the other."""

    @functools.wraps(method)
    def run(self: "Session", *arguments: Any, **more: Any) -> Any:
        return self._handle.run_alone(method, self, *arguments, **more)

    return cast(_Method, run)


class StoredObject(NamedTuple):
    """One stored version of one object."""

    path: str
    """With its leading delimiter; empty at the top of the filespace."""
    name: str
    """As it was given to backup()."""
    size: int
    """The size that backup() announced, in bytes, and not the length of the data."""
    stored: str
    """When, in the server's local time, e.g. "2021-3-7 9:5:1". As `at` it selects this version."""
    info: str
    """The text given to backup(), its first 254 bytes."""
    filespace: str
    is_file: bool
    """False for a directory object."""

    @property
    def stored_at(self) -> datetime:
        """`stored` as a datetime without a time zone. Raises ValueError if the server's text is no moment."""
        return parsed(self.stored)


class Session(Sole):
    """A session with the server. Made by Api.session; a context manager.

    An object is named by a path and a name: path "a/b" (also "/a/b", "a/b/") and name "disk.img"; the path "" is the
    top of the filespace. Paths and names are str, and the server keeps them as os.fsencode gives them. Where they name
    one object, ValueError is raised for wildcards, for an empty component or the other slash in a path, and for any
    slash in a name.

    Calls from several threads wait for each other. A backup or a restore holds the session until it is over; until
    then, other calls raise RuntimeError. To work in parallel, use a session for each thread.

    When a failure could leave half an operation open, the session signs off, so that the server discards it. It signs
    on again when it is next used, and keeps the password for that until it is closed.

    All calls raise ValueError on a closed session, and for texts with a NUL character; TsmError, or its subclass
    NotFoundError, when the library or the server refuses.
    """

    def __init__(self, handle: Handle, delimiter: bytes) -> None:
        self._handle = handle
        self._delimiter = delimiter

    def close(self) -> None:
        """Signs off. The server discards what is not committed. May be called again."""
        self._handle.close()

    def __enter__(self) -> "Session":
        self._handle.run_alone(self._handle.check_usable)
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    # ------------------------------------------------------------------ filespaces

    def connect(self, filespace: str) -> None:
        """Chooses the filespace for all later calls, and registers it if it is new."""
        self._handle.connect(encoded(filespace))

    def filespaces(self) -> List[str]:
        """The names of the node's filespaces."""
        try:
            return self._names("TsmGetFileSpaces", "TsmEndGetFileSpaces")
        except NotFoundError:
            return []

    @_alone
    def delete_filespace(self, name: str) -> None:
        """Deletes a filespace with every object and version in it, for good. Its name is taken as it is: slashes are
        not rewritten."""
        text = encoded(name)
        self._handle.call("TsmDeleteFileSpace", text)
        connected = self._handle.filespace
        if connected is not None and rewritten(connected, self._delimiter) == text:
            self._handle.filespace = None  # a new sign-on would register it again

    def management_classes(self) -> List[str]:
        """The names of the management classes offered to the node."""
        return self._names("TsmGetMgmtClasses", "TsmEndGetMgmtClasses")

    def _names(self, function: str, end: str) -> List[str]:
        names = Names()
        return self._collect(
            names, function, ctypes.byref(names), end=end, item=lambda i: os.fsdecode(names[i] or b"")
        )

    @_alone
    def _collect(
        self, holder: object, function: str, *arguments: object, end: str, item: Callable[[int], _Item]
    ) -> List[_Item]:
        """The items that a function of the library hands out. Calls end after the last one."""
        try:
            items = [item(i) for i in range(self._handle.call(function, *arguments, next_holder=holder))]
            self._handle.call(end, holder=holder)
            return items
        finally:
            self._handle.give_up(holder)

    # ------------------------------------------------------------------ objects

    def backup(
        self, path: str, name: str, size: int = UNKNOWN_SIZE, info: Optional[str] = None, mgmt_class: Optional[str] = None
    ) -> BackupWriter:
        """Stores an object: `with session.backup("a", "f") as file: file.write(data)`.

        The object begins where the block is entered and is stored for good where it ends; any exception gives it up.
        See BackupWriter. An older version under the name becomes an inactive one.
        size is the expected number of bytes, at least 1, also for an empty file; listings show it. A server may stop
        what goes beyond it: announce too much rather than too little. UNKNOWN_SIZE is 10 GiB. info is a text
        stored with the object, up to 65534 bytes. Missing directory objects of the path are made.
        """
        if not 1 <= operator.index(size) < 1 << 63:
            raise ValueError("size is at least 1: announce too much where it is not known")
        announced = (self._directory(path), plain(name), size, optional(info), optional(mgmt_class))
        return BackupWriter(self._handle, f"{path}/{name}", *announced)

    def _directory(self, path: str) -> bytes:
        return directory(path, self._delimiter)

    def make_directory(
        self, path: str, name: str, info: Optional[str] = None, mgmt_class: Optional[str] = None
    ) -> None:
        """Stores a directory object. backup() makes those of its path by itself; this call is for one with an info."""
        announced = (self._directory(path), plain(name), 0, optional(info), optional(mgmt_class))
        self._collect(announced, "TsmBeginBackupEx", *announced, end="TsmEndBackup", item=int)

    def restore(self, path: str, name: str, at: Optional[Moment] = None) -> RestoreReader:
        """Opens an object for reading: the active version, or the one that was current at a moment.

        at is a datetime in the server's local time, without a zone, or a text such as StoredObject.stored.
        Raises NotFoundError if no such file is stored (a directory object is not a file), and ValueError for a text
        that is no moment. The name may have slashes in it, as objects of other programs may have.
        """
        wanted = (self._directory(path), exact(name), None if at is None else moment(at))
        return RestoreReader(self._handle, f"{path}/{name}", *wanted)

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

        path is one directory, or "*" for all; path and name may have the wildcards * (any characters, also delimiters)
        and ?. versions=True lists inactive versions too, each as a record of its own; at lists what was current at a
        moment (see restore). kind is "any", "files" or "directories".
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

    @_alone
    def delete(self, path: str, name: str, *, all_versions: bool = False, kind: str = "files") -> None:
        """Deletes an object, and the directory objects of its path that hold nothing active any more.

        The active version becomes inactive. With all_versions=True every version is deleted for good; a node without
        permission for that gets -2302. Nothing happens if nothing is stored under the name. What is stored below a
        directory object stays: to delete a tree, list() it and delete the files one by one.

        The library deletes every kind of object that has the name. ValueError is raised, and nothing deleted, where
        that is more than kind ("files", "directories" or "any") allows, and where a file has the name of a directory
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
        self._handle.call("TsmDelete", *what, 1 if all_versions else 0, None)
        if self._find(*what, which):  # the library returns 0 even if its search failed
            raise failure(-1, "TsmDelete")

    @_alone
    def rename(self, old_path: str, old_name: str, new_path: str, new_name: str) -> None:
        """Renames an object with all its versions. They replace every version that is stored under the new name.

        Raises NotFoundError if nothing is stored under the old name, and TsmError with code -1 if the server did not
        carry out the rename. Raises ValueError where the library would delete what should stay: if the names are the
        same, or one is that of a directory of the other's path; if both files and directory objects have the names; if
        a file has the name of a directory of one of the paths; and if inactive versions alone would replace an active
        one. After a TsmError list both names: what was stored under the new one may be gone already, and if the failed
        operation is TsmGetBackupInfo, the rename may have been done.
        """
        old = (self._directory(old_path), plain(old_name))
        new = (self._directory(new_path), plain(new_name))
        first, second = sorted((self._delimiter.join((*name, b"")) for name in (old, new)), key=len)
        if second.startswith(first):
            raise ValueError("the new name is the old one, or one of them is above the other")
        found = self._find(*old, 0)
        if not found:  # the library goes on even if its own search fails
            raise failure(NOT_FOUND, "TsmRenameBackup")
        if len({each.is_file for each in found + self._find(*new, 0)}) > 1:
            raise ValueError("both files and directory objects have these names")
        if self._find(*new, 1) and not self._find(*old, 1):
            raise ValueError("the old name has inactive versions only, which would replace an active one")
        for path, _ in (old, new):
            self._check_above(path, 0)
        self._handle.call("TsmRenameBackup", *old, *new)
        # The library returns 0 even if the server aborted the transaction, when it gave no reason.
        if self._find(*old, 0) or not self._find(*new, 0):
            raise failure(-1, "TsmRenameBackup")

    def _check_above(self, path: bytes, which: int) -> None:
        """Raises ValueError if a file has the name of a directory of the path: the library would delete it together
        with a directory that becomes empty."""
        while path:
            path, _, name = path.rpartition(self._delimiter)
            if self._find(path, name, which, "files"):
                raise ValueError(f"a file has the name of the directory {os.fsdecode(path + self._delimiter + name)}")
