/*
 * dsmapitd.h - types and constants of the TSM client API.
 *
 * Written for the stand-in: it declares what the connector and the stand-in
 * use. Where the vendor's SDK is installed, its own header takes this one's
 * place; sources that include this header must compile against either.
 */
#ifndef DSMAPITD_H
#define DSMAPITD_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* ------------------------------------------------------------- integers */

typedef int16_t dsInt16_t;
typedef uint8_t dsUint8_t;
typedef uint16_t dsUint16_t;
typedef int32_t dsInt32_t;
typedef uint32_t dsUint32_t;

typedef enum { bFalse = 0, bTrue = 1 } dsBool_t;
typedef dsBool_t dsmBool_t;

/* A 64-bit quantity as two words, the most significant one first. */
typedef struct {
    dsUint32_t hi;
    dsUint32_t lo;
} dsStruct64_t;

typedef dsStruct64_t ObjID;

/* A moment in the server's local time, to the second. */
typedef struct {
    dsUint16_t year;
    dsUint8_t month;
    dsUint8_t day;
    dsUint8_t hour;
    dsUint8_t minute;
    dsUint8_t second;
} dsmDate;

/* --------------------------------------------------------------- limits */

/* Each is the longest text a field takes, its terminator not counted. */
#define DSM_MAX_FSNAME_LENGTH 1024
#define DSM_MAX_HL_LENGTH 1024
#define DSM_MAX_LL_LENGTH 256
#define DSM_MAX_FSTYPE_LENGTH 32
#define DSM_MAX_MC_NAME_LENGTH 30
#define DSM_MAX_MC_DESCR_LENGTH 255
#define DSM_MAX_CG_DEST_LENGTH 30
#define DSM_MAX_OWNER_LENGTH 64
#define DSM_MAX_NODE_LENGTH 64
#define DSM_MAX_SERVERNAME_LENGTH 64
#define DSM_MAX_RC_MSG_LENGTH 1024
#define DSM_PATH_MAX 1024
#define DSM_NAME_MAX 255

/* Sizes of areas, in bytes. */
#define DSM_MAX_FSINFO_LENGTH 500
#define DSM_MAX_OBJINFO_LENGTH 255
#define DSM_MAX_EXT_OBJINFO_LENGTH 1536

/* ------------------------------------------------------------ constants */

#define DSM_SINGLETHREAD bFalse
#define DSM_MULTITHREAD bTrue

#define DSM_OBJ_FILE 0x01
#define DSM_OBJ_DIRECTORY 0x02
#define DSM_OBJ_ANY_TYPE 0xFF

#define DSM_ACTIVE 0x01
#define DSM_INACTIVE 0x02
#define DSM_ANY_MATCH 0xFF

#define DSM_VOTE_COMMIT 1
#define DSM_VOTE_ABORT 2

#define DSM_ARCHIVE_REP 0x0A
#define DSM_BACKUP_REP 0x0B
#define DSM_REPOS_ALL 0x01

typedef enum { atBackup = 0x00, atArchive = 0x01 } dsmAccessType;

typedef enum { qtArchive = 0x00, qtBackup = 0x01, qtBackupActive = 0x02, qtFilespace = 0x03, qtMC = 0x04 } dsmQueryType;

typedef enum { stBackup = 0x00, stArchive = 0x01 } dsmSendType;
typedef enum { gtBackup = 0x00, gtArchive = 0x01 } dsmGetType;
typedef enum { dtArchive = 0x00, dtBackup = 0x01, dtBackupID = 0x02 } dsmDelType;

/* ------------------------------------------------- set-up and sign-on */

#define envSetUpVersion 4

typedef struct {
    dsUint16_t stVersion;
    char dsmiDir[DSM_PATH_MAX + DSM_NAME_MAX + 1];    /* installation folder */
    char dsmiConfig[DSM_PATH_MAX + DSM_NAME_MAX + 1]; /* options file */
    char dsmiLog[DSM_PATH_MAX + DSM_NAME_MAX + 1];    /* folder of the error log */
    char** argv;
    char logName[DSM_NAME_MAX + 1]; /* file name of the error log */
    dsmBool_t reserved1;
    dsmBool_t reserved2;
} envSetUp;

typedef struct {
    dsUint16_t stVersion;
    dsUint16_t version;
    dsUint16_t release;
    dsUint16_t level;
    dsUint16_t subLevel;
    dsmBool_t unicode;
} dsmApiVersionEx;

typedef struct {
    dsUint16_t stVersion;
    dsmApiVersionEx* apiVersionExP;
    char* clientNodeNameP;
    char* clientOwnerNameP;
    char* clientPasswordP;
    char* userNameP;
    char* userPasswordP;
    char* applicationTypeP;
    char* configfile;
    char* options;
    char dirDelimiter;
    dsmBool_t useUnicode;
    dsmBool_t bCrossPlatform;
    dsmBool_t bService;
    dsmBool_t bEncryptKeyEnabled;
    char* encryptionPasswordP;
} dsmInitExIn_t;

typedef struct {
    dsUint16_t stVersion;
    dsInt16_t infoRC;
    char adsmServerName[DSM_MAX_SERVERNAME_LENGTH + 1];
    dsUint16_t serverVer;
    dsUint16_t serverRel;
    dsUint16_t serverLev;
    dsUint16_t serverSubLev;
} dsmInitExOut_t;

/* ---------------------------------------------------------------- names */

/* The name of an object: filespace, high-level name, low-level name. */
typedef struct {
    char fs[DSM_MAX_FSNAME_LENGTH + 1];
    char hl[DSM_MAX_HL_LENGTH + 1];
    char ll[DSM_MAX_LL_LENGTH + 1];
    dsUint8_t objType;
} dsmObjName;

/* ----------------------------------------------------------- filespaces */

typedef struct {
    char driveLetter;
    dsUint16_t fsInfoLength;
    char fsInfo[DSM_MAX_FSINFO_LENGTH];
} dsmDosFSAttrib;

typedef struct {
    dsUint16_t fsInfoLength;
    char fsInfo[DSM_MAX_FSINFO_LENGTH];
} dsmUnixFSAttrib;

typedef union {
    dsmDosFSAttrib dosFSAttr;
    dsmUnixFSAttrib unixFSAttr;
} dsmFSAttr;

#define regFSDataVersion 1

typedef struct {
    dsUint16_t stVersion;
    char* fsName;
    char* fsType;
    dsStruct64_t occupancy;
    dsStruct64_t capacity;
    dsmFSAttr fsAttr;
} regFSData;

/* -------------------------------------------------------------- queries */

typedef void dsmQueryBuff;

#define qryFSDataVersion 1

typedef struct {
    dsUint16_t stVersion;
    char* fsName;
} qryFSData;

#define qryRespFSDataVersion 4

typedef struct {
    dsUint16_t stVersion;
    char fsName[DSM_MAX_FSNAME_LENGTH + 1];
    char fsType[DSM_MAX_FSTYPE_LENGTH + 1];
    dsStruct64_t occupancy;
    dsStruct64_t capacity;
    dsmFSAttr fsAttr;
    dsmDate backStartDate;
    dsmDate backCompleteDate;
    char reserved[76];
} qryRespFSData;

#define qryMCDataVersion 1

typedef struct {
    dsUint16_t stVersion;
    char* mcName; /* the empty text asks for all classes */
    dsBool_t mcDetail;
} qryMCData;

typedef struct {
    dsUint16_t stVersion;
    char mcName[DSM_MAX_MC_NAME_LENGTH + 1];
    char mcDesc[DSM_MAX_MC_DESCR_LENGTH + 1];
} qryRespMCData;

#define qryBackupDataVersion 2

typedef struct {
    dsUint16_t stVersion;
    dsmObjName* objName;
    char* owner;
    dsUint8_t objState;
    dsmDate pitDate; /* all zero: no point in time */
} qryBackupData;

#define qryRespBackupDataVersion 8

typedef struct {
    dsUint16_t stVersion;
    dsmObjName objName;
    dsUint32_t copyGroup;
    char mcName[DSM_MAX_MC_NAME_LENGTH + 1];
    char owner[DSM_MAX_OWNER_LENGTH + 1];
    ObjID objId;
    dsStruct64_t reserved1;
    dsUint8_t mediaClass;
    dsUint8_t objState;
    dsmDate insDate; /* when the version was stored */
    dsmDate expDate; /* when it became inactive; all zero while active */
    dsUint16_t objInfolen;
    char reserved2[DSM_MAX_OBJINFO_LENGTH];
    dsStruct64_t sizeEstimate;
    char reserved3[352];
    char objInfo[DSM_MAX_EXT_OBJINFO_LENGTH];
} qryRespBackupData;

/* ------------------------------------------------------- sending objects */

#define mcBindKeyVersion 1

typedef struct {
    dsUint16_t stVersion;
    char mcName[DSM_MAX_MC_NAME_LENGTH + 1];
    dsBool_t backup_cg_exists;
    dsBool_t archive_cg_exists;
    char backup_copy_dest[DSM_MAX_CG_DEST_LENGTH + 1];
    char archive_copy_dest[DSM_MAX_CG_DEST_LENGTH + 1];
} mcBindKey;

#define ObjAttrVersion 4

typedef struct {
    dsUint16_t stVersion;
    char owner[DSM_MAX_OWNER_LENGTH + 1];
    dsStruct64_t sizeEstimate; /* bytes */
    dsBool_t objCompressed;
    dsUint16_t objInfoLength;
    char* objInfo;
    char* mcNameP; /* null: the server's binding decides */
    dsBool_t disableDeduplication;
    dsBool_t useExtObjInfo;
} ObjAttr;

#define DataBlkVersion 3

typedef struct {
    dsUint16_t stVersion;
    dsUint32_t bufferLen; /* bytes offered at bufferPtr */
    dsUint32_t numBytes;  /* bytes taken or filled, set by the API */
    char* bufferPtr;
} DataBlk;

/* ------------------------------------------------------ getting objects */

typedef struct {
    dsUint16_t stVersion;
    dsStruct64_t partialObjOffset;
    dsStruct64_t partialObjLength;
} PartialObjData;

#define dsmGetListVersion 2

typedef struct {
    dsUint16_t stVersion;
    dsUint32_t numObjId;
    ObjID* objId;
    PartialObjData* partialObjData; /* null: whole objects */
} dsmGetList;

/* ---------------------------------------------- deleting and renaming */

#define delBackVersion 1
#define delBackIDVersion 1

typedef struct {
    dsUint16_t stVersion;
    ObjID objId;
} delArch;

typedef struct {
    dsUint16_t stVersion;
    dsmObjName* objNameP;
    dsUint32_t copyGroup;
} delBack;

typedef struct {
    dsUint16_t stVersion;
    ObjID objId;
} delBackID;

typedef union {
    delArch archInfo;
    delBack backInfo;
    delBackID backIDInfo;
} dsmDelInfo;

typedef struct {
    dsUint16_t stVersion;
    dsUint32_t dsmHandle;
    dsUint8_t repository;
    dsmObjName* objNameP;
    char newHl[DSM_MAX_HL_LENGTH + 1];
    char newLl[DSM_MAX_LL_LENGTH + 1];
    dsBool_t merge;
    ObjID objId;
} dsmRenameIn_t;

typedef struct {
    dsUint16_t stVersion;
} dsmRenameOut_t;

/* Sizes and places that callers in other languages count on. */
static_assert(sizeof(qryRespBackupData) == 4600, "backup answer: size");
static_assert(offsetof(qryRespBackupData, objInfo) == 3064, "backup answer: object information");
static_assert(sizeof(qryRespFSData) == 1672, "filespace answer: size");
static_assert(sizeof(qryRespMCData) == 290, "management class answer: size");
static_assert(sizeof(((envSetUp*)0)->dsmiDir) == 1280, "set-up: path fields");
static_assert(sizeof(((envSetUp*)0)->logName) == 256, "set-up: log name");

#endif
