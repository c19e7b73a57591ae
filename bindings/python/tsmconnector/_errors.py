"""The TSM client API's return codes, which the library returns when a call fails, and the exceptions for them."""

from typing import Dict, Tuple

NOT_FOUND = -2
WRONG_ORDER = -2041

CODES: Dict[int, Tuple[str, str]] = {
    1: ("DSM_RC_ABORT_SYSTEM_ERROR", "the server or the client API failed"),
    2: ("DSM_RC_ABORT_NO_MATCH", "nothing is stored under this name"),
    3: ("DSM_RC_ABORT_BY_CLIENT", "the transaction was given up"),
    11: ("DSM_RC_ABORT_NO_REPOSIT_SPACE", "the server has no room left"),
    32: ("DSM_RC_ABORT_DUPLICATE_OBJECT", "the name is taken"),
    51: ("DSM_RC_REJECT_NO_RESOURCES", "the server accepts no more sessions now"),
    52: ("DSM_RC_REJECT_VERIFIER_EXPIRED", "the password has expired"),
    102: ("DSM_RC_NO_MEMORY", "no memory"),
    106: ("DSM_RC_ACCESS_DENIED", "the node has no permission for this"),
    109: ("DSM_RC_INVALID_PARM", "a value out of range"),
    121: ("DSM_RC_FINISHED", "nothing is left"),
    137: ("DSM_RC_AUTH_FAILURE", "wrong password"),
    157: ("DSM_RC_WILL_ABORT", "the server gives the transaction up"),
    2000: ("DSM_RC_NULL_OBJNAME", "a path or a name is missing"),
    2001: ("DSM_RC_NULL_DATABLKPTR", "a data block is missing"),
    2008: ("DSM_RC_ZERO_BUFLEN", "an empty buffer"),
    2009: ("DSM_RC_NULL_BUFPTR", "a buffer is missing"),
    2011: ("DSM_RC_INVALID_VOTE", "an unknown vote"),
    2014: ("DSM_RC_INVALID_DS_HANDLE", "no such session"),
    2025: ("DSM_RC_INVALID_MCNAME", "no such management class"),
    2041: ("DSM_RC_BAD_CALL_SEQUENCE", "called in the wrong order"),
    2061: ("DSM_RC_FS_NOT_REGISTERED", "no filespace connected, or none of this name"),
    2062: ("DSM_RC_FS_ALREADY_REGED", "the filespace exists"),
    2107: ("DSM_RC_WRONG_SIZE_ESTIMATE", "data for an object announced without any"),
    2120: ("DSM_RC_STRING_TOO_LONG", "a text too long for its field"),
    2200: ("DSM_RC_MORE_DATA", "more is to come"),
    2302: ("DSM_RC_CHECK_REASON_CODE", "the server refused the transaction"),
}


class TsmError(Exception):
    """A call of the library failed.

    code       the library's result, e.g. -137; always negative, although set-up and clean-up return positive codes
    name       the TSM client API's name for it, e.g. "DSM_RC_AUTH_FAILURE"; "unknown" for a code that is not known here
    operation  the function of the library that returned it, e.g. "TsmOpenSession"
    """

    def __init__(self, code: int, operation: str, about: str = "") -> None:
        super().__init__(code, operation, about)
        self.code = -abs(code)
        self.operation = operation
        self._about = about

    @property
    def name(self) -> str:
        return CODES.get(-self.code, ("unknown", ""))[0]

    def __str__(self) -> str:
        text = CODES.get(-self.code, ("", "no text for this code"))[1]
        return f"{self.operation}: {text} ({self.name}, {self.code}){self._about}"


class NotFoundError(TsmError):
    """Nothing is stored under the name (code -2)."""


def failure(code: int, operation: str, about: str = "") -> TsmError:
    return (NotFoundError if code == NOT_FOUND else TsmError)(code, operation, about)
