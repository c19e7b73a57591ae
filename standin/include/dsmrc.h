/* dsmrc.h - return codes of the TSM client API. */
#ifndef DSMRC_H
#define DSMRC_H

#define DSM_RC_SUCCESSFUL 0
#define DSM_RC_OK 0

/* Reasons of a transaction that the server gave up, and the end of queries and streams. */
#define DSM_RC_ABORT_SYSTEM_ERROR 1
#define DSM_RC_ABORT_NO_MATCH 2
#define DSM_RC_ABORT_BY_CLIENT 3
#define DSM_RC_ABORT_NO_REPOSIT_SPACE 11
#define DSM_RC_ABORT_DUPLICATE_OBJECT 32
#define DSM_RC_REJECT_NO_RESOURCES 51     /* all sessions are in use */
#define DSM_RC_REJECT_VERIFIER_EXPIRED 52 /* the password */
#define DSM_RC_NO_MEMORY 102
#define DSM_RC_ACCESS_DENIED 106
#define DSM_RC_INVALID_PARM 109
#define DSM_RC_FINISHED 121
#define DSM_RC_AUTH_FAILURE 137
#define DSM_RC_WILL_ABORT 157

/* Arguments that cannot be used. */
#define DSM_RC_NULL_OBJNAME 2000
#define DSM_RC_NULL_DATABLKPTR 2001
#define DSM_RC_ZERO_BUFLEN 2008
#define DSM_RC_NULL_BUFPTR 2009
#define DSM_RC_INVALID_VOTE 2011
#define DSM_RC_INVALID_DS_HANDLE 2014
#define DSM_RC_INVALID_MCNAME 2025
#define DSM_RC_BAD_CALL_SEQUENCE 2041
#define DSM_RC_FS_NOT_REGISTERED 2061
#define DSM_RC_FS_ALREADY_REGED 2062
#define DSM_RC_WRONG_SIZE_ESTIMATE 2107 /* data sent for an object announced with no bytes */
#define DSM_RC_STRING_TOO_LONG 2120
#define DSM_RC_MORE_DATA 2200
#define DSM_RC_CHECK_REASON_CODE 2302

#endif
