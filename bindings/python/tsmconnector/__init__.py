"""Backup objects on a TSM server, through libtsmconnector.

    with Api(config="dsm.opt") as api, api.session("MYNODE", password="secret", filespace="vm01") as session:
        with session.backup("disks/today", "disk.img") as stored:
            stored.write(b"...")
        with session.restore("disks/today", "disk.img") as data:
            data.read()
"""

from ._api import Api
from ._errors import NotFoundError, TsmError
from ._session import UNKNOWN_SIZE, Session, StoredObject
from ._streams import BackupWriter, RestoreReader

__version__ = "1.0.0"
__all__ = [
    "UNKNOWN_SIZE",
    "Api",
    "BackupWriter",
    "NotFoundError",
    "RestoreReader",
    "Session",
    "StoredObject",
    "TsmError",
]
