/*
 * kovdsk.h - the one public header of libKovDsk (soname libKovDsk.so.1).
 *
 * Every process of the appliance that touches the disk goes through these
 * calls. The processes share one table in System V shared memory, guarded by
 * two semaphores: the table lock (KovDskTblSem_id) and the access lock
 * (KovDskAccSem_id). The first process of a boot calls KovDskInitSet with
 * the root; every other process calls KovDskInit before anything else.
 *
 * Conventions: an operation returns -1 and sets errno on failure; otherwise
 * 0, a count or a handle. Listings also return 1 when memory ran out during
 * a scan; what they return then is sorted and complete in itself. Arrays
 * returned by listings belong to the caller, who releases them with free().
 *
 * The records below are shared between processes or handed to callers, so
 * their byte layout is fixed; the checks at the end of this file pin it.
 * Sizes of the table and its slots are those of the 32-bit target; a build
 * with wider pointers grows the slots and keeps the field order.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KOVDSK_H
#define KOVDSK_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The process is not attached to the table. */
#ifndef EINIT
#define EINIT 141
#endif
/* The file is open for writing already; the table exists already. */
#ifndef EALREADY
#define EALREADY 149
#endif

#define KOVDSK_SLOTS      32     /* write slots, and as many read slots */
#define KOVDSK_PATH_MAX   4096   /* every path buffer of the library */
#define KOVDSK_STORED_MAX 256    /* every stored-name buffer */
#define KOVDSK_NAME_FIELD 33     /* file name field of a slot */
#define KOVDSK_BLOCK      4096   /* the O_DIRECT block */
#define KOVDSK_USR_REC    65     /* one record of the user array */

/* ---- Limits of what a stored name keeps ----------------------------------
 * Longer values are cut without an error: only their first bytes reach the
 * stored name (and the directory of a user), so a lookup with the full text
 * finds nothing. */
#define KOVDSK_NAME_MAX      32  /* bytes of a file name; 1 at least */
#define KOVDSK_SHORT_TAG_MAX 16  /* bytes of a short tag */
#define KOVDSK_LONG_TAG_MAX  64  /* bytes of a long tag */
#define KOVDSK_USER_MAX      63  /* bytes of a user (KovDskPasList: 64) */
#define KOVDSK_DEADLINE_LEN  10  /* digits of a deadline, YYMMDDHHMM */
#define KOVDSK_KIND_MAX      255 /* kinds are 0 to 255 */
#define KOVDSK_PASS_BUF      17  /* the pass buffer of KovDskPasCheck */
#define KOVDSK_IDENTIFY_SIZE 512 /* IDENTIFY DEVICE data */

/* ---- Named values of arguments -------------------------------------------- */

/* area: which store area an operation works on. */
#define KOVDSK_AREA_GENERAL 0u   /* "general", the common area */
#define KOVDSK_AREA_ID      1u   /* "uid/<id>", by the id argument */
#define KOVDSK_AREA_USER    2u   /* "usr/<user>": links only, no writes */
#define KOVDSK_AREA_PASS    3u   /* "usr/<user>/<pass>" */

/* mode of KovDskDel: how the name selects stored files. */
#define KOVDSK_MATCH_ALL    0    /* every stored file (any value but 1, 2) */
#define KOVDSK_MATCH_EXACT  1    /* this name and this kind */
#define KOVDSK_MATCH_PREFIX 2    /* names beginning so; kind 0: any kind */

/* filter of KovDskList. */
#define KOVDSK_FILTER_NONE  0u   /* expired files listed like any other */
#define KOVDSK_FILTER_LIVE  1u   /* expired files left out */
#define KOVDSK_FILTER_SWEEP 2u   /* KovDskTimeDel over the store first */

/* sort of KovDskList, ascending; later keys break ties. */
#define KOVDSK_SORT_KIND_NAME 0u /* kind, file name, short tag */
#define KOVDSK_SORT_KIND_TAG  1u /* kind, short tag, file name */
#define KOVDSK_SORT_TIME      2u /* time, kind, file name, short tag */

/* mode of KovDskUidList, KovDskUsrList and KovDskPasList. */
#define KOVDSK_LIST_ALL   0u     /* every directory (any value but 1, 2) */
#define KOVDSK_LIST_LIVE  1u     /* only those holding a live stored file */
#define KOVDSK_LIST_SWEEP 2u     /* KovDskTimeDel over the store first */

/* mode of KovDskSelDel. */
#define KOVDSK_TRASH_OFF 0       /* deleted files are removed at once */
#define KOVDSK_TRASH_ON  1       /* they go to ".trash" (any value but 0) */

/* The kind whose write stream has no buffer: its bytes reach the file in
 * each KovDskWrite, and KovDskOpenTblCheck does not count it. */
#define KOVDSK_KIND_UNBUFFERED 6u

/* type of KovDskFileChk. */
#define KOVDSK_CHK_FILE 0        /* a regular file */
#define KOVDSK_CHK_DIR  1        /* a directory */

/* mode of KovDskWriteOpenDirect. */
#define KOVDSK_DIRECT_TRUNCATE 0u /* create or truncate */
#define KOVDSK_DIRECT_APPEND   1u /* create or append */

/* mode of KovDskDirList. */
#define KOVDSK_DIRLIST_ALL    0u /* every entry, "." and ".." included */
#define KOVDSK_DIRLIST_EXACT  1u /* the entry named pattern */
#define KOVDSK_DIRLIST_PREFIX 2u /* entries whose names begin with pattern */

/* which of the password calls: the ATA security identifier. */
#define KOVDSK_PASSWD_USER   0
#define KOVDSK_PASSWD_MASTER 1

/* ---- The shared table ------------------------------------------------- */

/* A write slot. Free when used is 0; a close clears the whole record. */
typedef struct KovDskAccWrEnt {
    int32_t  used;                    /* 1 while a stream is open */
    int32_t  fd;                      /* direct streams only */
    char     name[KOVDSK_NAME_FIELD]; /* file name, 3 zero filler bytes follow */
    int32_t  kind;                    /* 0 in a direct stream */
    int32_t  tmp;                     /* temporary flag, 0 or 1 */
    char     dir[KOVDSK_PATH_MAX];    /* area path, relative to the root */
    char     file[KOVDSK_STORED_MAX]; /* stored name, or a direct stream's path */
    char    *rawbuf;                  /* the opener's 8192-byte heap block */
    char    *buf;                     /* the 4096-aligned block inside rawbuf */
    uint32_t fill;                    /* bytes waiting in buf */
    uint32_t head;                    /* direct streams: bytes to the next block */
} KovDskAccWrEnt;

/* A read slot. It has no tmp and no head, so it is not a write slot. */
typedef struct KovDskAccRdEnt {
    int32_t  used;
    int32_t  fd;                      /* the stream's open descriptor */
    char     name[KOVDSK_NAME_FIELD];
    int32_t  kind;
    char     dir[KOVDSK_PATH_MAX];
    char     file[KOVDSK_STORED_MAX];
    char    *rawbuf;
    char    *buf;
    uint32_t fill;                    /* bytes of the last block not delivered */
    uint32_t pos;                     /* index in buf of the first of them */
    uint64_t remain;                  /* bytes of the file not yet fetched */
} KovDskAccRdEnt;

/* The table: one block of shared memory, nothing in it points into it. */
typedef struct KovDskAccTbl {
    char     root[KOVDSK_PATH_MAX];   /* the directory that holds everything */
    int32_t  acc_cnt;                 /* activity counter */
    int32_t  accessed;                /* accessed flag */
    int32_t  trash_mode;              /* 0 off, other values on */
    int32_t  gbg_flag;                /* ".trash" holds a regular file */
    uint16_t trash_seq;               /* next name in ".trash"; 2 filler bytes */
    int32_t  op_cnt;                  /* operation counter */
    KovDskAccWrEnt wr[KOVDSK_SLOTS];
    KovDskAccRdEnt rd[KOVDSK_SLOTS];
} KovDskAccTbl;

#define KOVDSK_TBL_SIZE ((size_t)sizeof(KovDskAccTbl)) /* 287128 on the target */

/* ---- Records handed to callers ---------------------------------------- */

/* One stored file of KovDskList: 152 bytes, every unwritten byte 0. */
typedef struct KovDskListEnt {
    char     short_tag[17];
    char     long_tag[65];
    char     name[33];
    char     filler0;
    uint32_t kind;
    uint32_t tmp;                     /* 1 for a ".1" stored name */
    char     deadline[11];            /* YYMMDDHHMM, or empty */
    char     filler1;
    int32_t  time;                    /* st_atime */
    uint32_t filler2;
    int64_t  size;                    /* st_size widened with its sign */
} KovDskListEnt;

typedef struct KovDskListRes {
    uint32_t       count;
    uint32_t       reserved;          /* never written by the library */
    uint64_t       total;             /* sum of the records' sizes */
    KovDskListEnt *entries;           /* usable only while count is not 0 */
} KovDskListRes;

/* One directory entry of KovDskDirList: 272 bytes. */
typedef struct KovDskDirEnt {
    char     name[256];
    int64_t  size;                    /* st_size widened with its sign */
    uint32_t mode;                    /* st_mode */
    int32_t  time;
} KovDskDirEnt;

typedef struct KovDskDirRes {
    int32_t       count;
    uint32_t      reserved;           /* never written by the library */
    uint64_t      total;
    KovDskDirEnt *entries;            /* NULL when count is 0 */
} KovDskDirRes;

/* ---- Exported objects -------------------------------------------------- */

extern KovDskAccTbl *AccTbl;          /* NULL: this process is not attached */
extern int KovDskTblShm_id;           /* shared memory id of the table */
extern int KovDskTblSem_id;           /* semaphore set of the table lock */
extern int KovDskAccSem_id;           /* semaphore set of the access lock */
extern char filecmp_buf[256];         /* pattern of the running directory scan */

/* ---- Attachment and table lock ----------------------------------------- */
int  KovDskInitSet(const char *root);
int  KovDskInit(void);
int  KovDskOpenTblCheck(void);        /* 0 leaves the table lock with the caller */
int  KovDskTblSemFree(void);

/* ---- Counters ---------------------------------------------------------- */
int  KovDskAccflg(int step);
int  KovDskGetAccessedFlg(void);
void KovDskClearAccessedFlg(void);
int  KovDskGetOperationFlg(void);

/* ---- Path operations (paths relative to the root) ---------------------- */
int  KovDskDirMake(const char *path);
int  KovDskFileChk(const char *path, int type); /* 0 file, 1 directory */
int  KovDskFileRemove(const char *path);
int  KovDskFileRename(const char *oldpath, const char *newpath);
int  KovDskChgTimeStamp(const char *path);
int  KovDskFileSize(const char *path);

/* ---- Trash ------------------------------------------------------------- */
int  KovDskSelDel(int mode);
int  KovDskGbgIni(void);
int  KovDskGbgChk(void);
int  KovDskFleSrd(void);

/* ---- Stored-file streams ------------------------------------------------ */
/* area: 0 "general", 1 an id area, 2 a user area, 3 a pass area */
int  KovDskWriteOpen(const char *name, const char *short_tag,
                     const char *long_tag, unsigned int kind,
                     unsigned int area, uint64_t id, const char *user,
                     uint64_t pass, int tmp, const char *deadline);
int  KovDskWrite(int handle, const void *data, unsigned int length);
int  KovDskWriteClose(int handle);
int  KovDskReadOpen(const char *name, unsigned int kind, unsigned int area,
                    uint64_t id, const char *user, uint64_t pass);
int  KovDskRead(int handle, void *buffer, unsigned int length);
int  KovDskReadClose(int handle);

/* ---- Deletion rules ----------------------------------------------------- */
int  KovDskDel(const char *name, uint32_t kind, int32_t mode, uint32_t area,
               uint64_t id, const char *user, uint64_t pass);
int  KovDskTimeDel(void);
int  KovDskTmpDel(void);

/* ---- Listings and lookups ----------------------------------------------- */
int  KovDskList(const char *name, uint32_t kind, uint32_t area, uint64_t id,
                const char *user, uint64_t pass, uint32_t filter,
                KovDskListRes *result, uint32_t sort);
int  KovDskUidList(uint32_t mode, uint32_t *count, uint64_t **list);
int  KovDskUsrList(uint32_t mode, uint32_t *count, char **list);
int  KovDskPasList(uint32_t mode, const char *user, uint32_t *count,
                   uint64_t **list);
int  KovDskRmnFle(const char *dir);
int  KovDskPasCheck(const char *name, uint32_t kind, uint32_t *flag,
                    void *pass);  /* pass: 17 bytes, word-aligned */
int  KovDskGetRealFileName(const char *name, uint32_t kind, uint32_t area,
                           uint64_t id, const char *user, uint64_t pass,
                           char *path); /* path: 4096 bytes */

/* ---- Direct streams and directory listing ------------------------------- */
int  KovDskWriteOpenDirect(const char *path, uint32_t mode); /* 0 new, 1 append */
int  KovDskWriteDirect(uint32_t handle, const void *data, uint32_t size);
int  KovDskWriteCloseDirect(uint32_t handle);
int  KovDskReadOpenDirect(const char *path);
int  KovDskReadDirect(int handle, void *buffer, unsigned int length);
int  KovDskReadCloseDirect(int handle);
int  KovDskDirList(const char *dir, const char *pattern, KovDskDirRes *result,
                   uint32_t mode); /* 0 all, 1 exact, 2 prefix */

/* ---- Drive administration ----------------------------------------------- */
int  KovDskSetPasswd(const char *path, const char *password,
                     unsigned char which);
int  KovDskUnlockPasswd(const char *path, const char *password,
                        unsigned char which);
int  KovDskDisablePasswd(const char *path, const char *password,
                         unsigned char which);
int  KovDskReset(const char *path);
int  KovDskGetIdentify(const char *path, void *buffer); /* 512 bytes */
int  KovDskFdisk(const char *path, int32_t count, uint32_t size1,
                 uint32_t size2, uint32_t size3, uint32_t size4);
int  KovDskFormat(const char *path, int32_t block_size, int32_t block_count);
int  KovDskChk(const char *path);

/* ---- Version-up ---------------------------------------------------------- */
int  KovDskVup001(const char *user, uint64_t pass);

/* ---- Layout checks -------------------------------------------------------
 * C99 has no static assertion; an array of negative size stops the build. */
#define KOVDSK_CHECK(name, cond) typedef char kovdsk_check_##name[(cond) ? 1 : -1]

KOVDSK_CHECK(list_ent_size,   sizeof(KovDskListEnt) == 152);
KOVDSK_CHECK(list_short_tag,  offsetof(KovDskListEnt, short_tag) == 0);
KOVDSK_CHECK(list_long_tag,   offsetof(KovDskListEnt, long_tag) == 17);
KOVDSK_CHECK(list_name,       offsetof(KovDskListEnt, name) == 82);
KOVDSK_CHECK(list_kind,       offsetof(KovDskListEnt, kind) == 116);
KOVDSK_CHECK(list_tmp,        offsetof(KovDskListEnt, tmp) == 120);
KOVDSK_CHECK(list_deadline,   offsetof(KovDskListEnt, deadline) == 124);
KOVDSK_CHECK(list_time,       offsetof(KovDskListEnt, time) == 136);
KOVDSK_CHECK(list_size,       offsetof(KovDskListEnt, size) == 144);
KOVDSK_CHECK(list_res_count,  offsetof(KovDskListRes, count) == 0);
KOVDSK_CHECK(list_res_total,  offsetof(KovDskListRes, total) == 8);
KOVDSK_CHECK(list_res_ents,   offsetof(KovDskListRes, entries) == 16);
KOVDSK_CHECK(dir_ent_size,    sizeof(KovDskDirEnt) == 272);
KOVDSK_CHECK(dir_name,        offsetof(KovDskDirEnt, name) == 0);
KOVDSK_CHECK(dir_size,        offsetof(KovDskDirEnt, size) == 256);
KOVDSK_CHECK(dir_mode,        offsetof(KovDskDirEnt, mode) == 264);
KOVDSK_CHECK(dir_time,        offsetof(KovDskDirEnt, time) == 268);
KOVDSK_CHECK(dir_res_count,   offsetof(KovDskDirRes, count) == 0);
KOVDSK_CHECK(dir_res_total,   offsetof(KovDskDirRes, total) == 8);
KOVDSK_CHECK(dir_res_ents,    offsetof(KovDskDirRes, entries) == 16);
KOVDSK_CHECK(tbl_acc_cnt,     offsetof(KovDskAccTbl, acc_cnt) == 4096);
KOVDSK_CHECK(tbl_accessed,    offsetof(KovDskAccTbl, accessed) == 4100);
KOVDSK_CHECK(tbl_trash_mode,  offsetof(KovDskAccTbl, trash_mode) == 4104);
KOVDSK_CHECK(tbl_gbg_flag,    offsetof(KovDskAccTbl, gbg_flag) == 4108);
KOVDSK_CHECK(tbl_trash_seq,   offsetof(KovDskAccTbl, trash_seq) == 4112);
KOVDSK_CHECK(tbl_op_cnt,      offsetof(KovDskAccTbl, op_cnt) == 4116);
KOVDSK_CHECK(tbl_wr,          offsetof(KovDskAccTbl, wr) == 4120);
KOVDSK_CHECK(wr_name,         offsetof(KovDskAccWrEnt, name) == 8);
KOVDSK_CHECK(wr_kind,         offsetof(KovDskAccWrEnt, kind) == 44);
KOVDSK_CHECK(wr_dir,          offsetof(KovDskAccWrEnt, dir) == 52);
KOVDSK_CHECK(wr_file,         offsetof(KovDskAccWrEnt, file) == 4148);
KOVDSK_CHECK(rd_kind,         offsetof(KovDskAccRdEnt, kind) == 44);
KOVDSK_CHECK(rd_dir,          offsetof(KovDskAccRdEnt, dir) == 48);
KOVDSK_CHECK(rd_file,         offsetof(KovDskAccRdEnt, file) == 4144);

#if UINTPTR_MAX == 0xFFFFFFFFu
/* The 32-bit target: the sizes every process of the appliance agrees on. */
KOVDSK_CHECK(tbl_size,        sizeof(KovDskAccTbl) == 287128);
KOVDSK_CHECK(wr_size,         sizeof(KovDskAccWrEnt) == 4420);
KOVDSK_CHECK(rd_size,         sizeof(KovDskAccRdEnt) == 4424);
KOVDSK_CHECK(tbl_rd,          offsetof(KovDskAccTbl, rd) == 145560);
KOVDSK_CHECK(wr_rawbuf,       offsetof(KovDskAccWrEnt, rawbuf) == 4404);
KOVDSK_CHECK(wr_head,         offsetof(KovDskAccWrEnt, head) == 4416);
KOVDSK_CHECK(rd_rawbuf,       offsetof(KovDskAccRdEnt, rawbuf) == 4400);
KOVDSK_CHECK(rd_remain,       offsetof(KovDskAccRdEnt, remain) == 4416);
#endif

#undef KOVDSK_CHECK

#ifdef __cplusplus
}
#endif

#endif /* KOVDSK_H */
