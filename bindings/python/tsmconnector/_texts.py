"""Names and moments in the form that the library reads. Those that it would misread are refused."""

import os
import re
from datetime import datetime
from typing import Optional, Union

Moment = Union[str, datetime]

_MOMENT = re.compile(r"(\d{4})-(\d{1,2})-(\d{1,2})(?:[ T](\d{1,2})(?::(\d{1,2})(?::(\d{1,2}))?)?)?", re.ASCII)


def encoded(text: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"{text!r} is no str")
    if "\0" in text:
        raise ValueError(f"{text!r} has a NUL character in it")
    return os.fsencode(text)


def optional(text: Union[str, "os.PathLike[str]", None]) -> Optional[bytes]:
    return None if text is None else encoded(os.fspath(text))


def parsed(text: str) -> datetime:
    """Raises ValueError for a text that is no moment."""
    match = _MOMENT.fullmatch(text)
    if match is None:
        raise ValueError(f"{text!r} is no moment: year-month-day hour:minute:second")
    year, month, day, hour, minute, second = (int(part or 0) for part in match.groups())
    return datetime(year, month, day, hour, minute, second)


def moment(at: Moment) -> bytes:
    # A moment that the library cannot read counts as none, and a listing then gives every version.
    when = parsed(at) if isinstance(at, str) else at
    if not isinstance(when, datetime):
        raise TypeError(f"a moment is a str or a datetime, not {type(at).__name__}")
    if when.tzinfo is not None:
        raise ValueError("a moment is in the server's local time: give a datetime without a time zone")
    return f"{when.year:04}-{when.month}-{when.day} {when.hour}:{when.minute}:{when.second}".encode()


def exact(text: str) -> bytes:
    """The path or name of one object. With a wildcard, a restore or a rename would take other objects, too."""
    data = encoded(text)
    if "*" in text or "?" in text:
        raise ValueError(f"{text!r} has a wildcard in it")
    return data


def plain(name: str) -> bytes:
    """A name without slashes: listings, deletions and renames rewrite them, other functions of the library do not."""
    data = exact(name)
    if not data or b"/" in data or b"\\" in data:  # in some encodings a part of other characters
        raise ValueError(f"{name!r} is no name: it is empty or has a slash in it")
    return data


def directory(path: str, delimiter: bytes) -> bytes:
    """A path as the server keeps it. Refuses empty components, which the library's functions read in different ways,
    and the other slash, which they read as the delimiter."""
    data = exact(path)
    text = rooted(data, delimiter)
    if _other(delimiter) in data or (text != delimiter and b"" in text[1:].split(delimiter)):
        raise ValueError(f"{path!r} has an empty component or the other slash in it")
    return b"" if text == delimiter else text


def rewritten(text: bytes, delimiter: bytes) -> bytes:
    """The text as the library reads the name of a filespace."""
    return text.replace(_other(delimiter), delimiter)


def rooted(text: bytes, delimiter: bytes) -> bytes:
    """The text as the library reads a path."""
    text = rewritten(text, delimiter)
    if text.endswith(delimiter):
        text = text[:-1]
    return text if text.startswith(delimiter) else delimiter + text


def _other(delimiter: bytes) -> bytes:
    return b"\\" if delimiter == b"/" else b"/"
